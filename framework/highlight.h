// Highlighting of SQL in the multi-line inputs: keywords of the TAVRIN
// dialect, string literals (also across lines), numbers, and names the
// application knows (tables and attributes), each in a look of its own;
// every other text stays plain, so a misspelt name stands out by staying
// plain.
//
// Which names are known is the application's (a predicate handed in); the
// inputs are the toolkit's.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "forms/forms.h"

// What a stretch of text is.
enum MyflSqlKind { MYFL_SQL_KEYWORD = 1, MYFL_SQL_STRING, MYFL_SQL_NUMBER, MYFL_SQL_NAME };

struct MyflSqlSpan {
  int start = 0, length = 0; // in bytes of the line
  MyflSqlKind kind = MYFL_SQL_KEYWORD;
};

// The spans of one line. *in_string says on entry whether the line begins
// inside a string literal, on return whether it ends inside one. `known`
// tells whether a word (as written) is a name to highlight.
std::vector<MyflSqlSpan> myfl_sql_spans(std::string_view line, bool *in_string,
                                        const std::function<bool(std::string_view)> &known);
// 1 when the word (any case) is a keyword of the SQL dialect.
int myfl_sql_keyword(std::string_view word);

// Highlights the SQL in a multi-line input. Returns 1, 0 when obj is no
// multi-line input. A second call replaces the predicate.
int myfl_highlight_sql(FL_OBJECT *input, std::function<bool(std::string_view)> known);
// Highlights the input's whole text again (after the known names changed).
void myfl_rehighlight_sql(FL_OBJECT *input);
