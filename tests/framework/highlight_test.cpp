// The SQL highlighting's spans: keywords in any case, strings across lines
// with doubled quotes, numbers against names with digits, known names.
#include <gtest/gtest.h>

#include "framework/highlight.h"

namespace {

// The spans of a line as "kind:text" items.
std::string spans(std::string_view line, bool *in_string) {
  auto known = [](std::string_view w) { return w == "kunde" || w == "NAME"; };
  std::string out;
  for (const MyflSqlSpan &s : myfl_sql_spans(line, in_string, known))
    out += std::to_string(s.kind) + ":" + std::string(line.substr(s.start, s.length)) + " ";
  return out;
}

TEST(Highlight, SpansOfKeywordsStringsNumbersAndNames) {
  bool in = false;
  EXPECT_EQ(spans("select NAME from kunde where A1 = -1.5e3 and x2y = 'it''s", &in),
            "1:select 4:NAME 1:from 4:kunde 1:where 3:1.5e3 1:and 2:'it''s ");
  EXPECT_TRUE(in); // the string goes on in the next line
  EXPECT_EQ(spans("still' Or 12abc 7", &in), "2:still' 1:Or 3:7 ");
  EXPECT_FALSE(in);
  EXPECT_EQ(spans("''", &in), "2:'' ");
  EXPECT_EQ(spans("1 2e 3", &in), "3:1 3:3 ");
  EXPECT_FALSE(in);
  EXPECT_EQ(myfl_sql_keyword("Between"), 1);
  EXPECT_EQ(myfl_sql_keyword("BETWEENX"), 0);
}

} // namespace
