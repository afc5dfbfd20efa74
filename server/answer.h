// Answers of tavrind and the numbered error texts of the server.
//
// Every answer starts with its kind: '0' error (a tagged string 'b' with the
// text), '1' done, '3' count (one 32-bit integer), '2' tuples and '4' tuples of
// a FETCH (32-bit column count, 32-bit row count, the column headers — name,
// wire type code, 32-bit size — and the values row by row, each a 16-bit
// length and the value's binary form). Integers are little-endian.
//
// The error texts are numbered; the same table fills the system table ERROT of
// TDSYS, so a number in an answer can be looked up there. Which error applies
// and the values of a row are the executor's and the types module's business.
#pragma once

#include "server/types.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

// One numbered error: its number, a short name and the German text with "$n"
// placeholders that are filled in order.
struct ErrorText {
  int number;
  const char *name;
  const char *text;
};

// The whole table, in number order; count in *n.
const ErrorText *answer_error_table(size_t *n);

// The text of error number with its placeholders filled in order by args,
// prefixed "(TAVRIN <number>) ". An unknown number gives a text that says so.
std::string answer_errtext(int number, std::initializer_list<std::string> args);

// Replaces the answer with an error answer: '0', 'b', 16-bit length (text
// length + 1), the Latin-1 text and a zero byte. Texts longer than 9000 bytes
// are cut.
void answer_error(std::vector<unsigned char> &out, const std::string &text);
// Replaces the answer with '1'.
void answer_done(std::vector<unsigned char> &out);
// Replaces the answer with '3' and the count.
void answer_count(std::vector<unsigned char> &out, int32_t count);

// One column of a tuples answer.
struct AnswerColumn {
  std::string name; // Latin-1, at most 65534 bytes
  ColType type;
};

// Builds a tuples answer in place: begin writes kind, column count, a row
// count to be patched and the headers; each row's values are appended by the
// caller (type_append_value), each finished row counted with answer_row; end
// patches the row count. Headers are written for every answer, also for one
// without rows (readers skip them then).
void answer_tuples_begin(std::vector<unsigned char> &out, unsigned char kind,
                         const std::vector<AnswerColumn> &cols);
void answer_row(std::vector<unsigned char> &out);
int32_t answer_tuples_rows(const std::vector<unsigned char> &out);

// Appends values in their binary forms (16-bit length first), for answers
// that the executor builds from its own data (SHOW).
void answer_value_text(std::vector<unsigned char> &out, const std::string &latin1);
void answer_value_smallint(std::vector<unsigned char> &out, int16_t v);
void answer_value_integer(std::vector<unsigned char> &out, int32_t v);
