// The tokenizer: token codes and texts through DBnext_token, in-place
// upper-casing, literals and the token-name table.
#include "db/client/tokenizer.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

// All tokens of a text as "code:text" joined by "|"; a code outside
// printable ASCII is written in hex.
std::string tokens(char *text) {
  std::string out;
  static char buf[DB_TOKEN_MAX + 1];
  DBtoken_start(text);
  int code = 0;
  while (DBnext_token(&code, buf) > 0) {
    char c[8];
    if (code > 32 && code < 127)
      std::snprintf(c, sizeof c, "%c", code);
    else
      std::snprintf(c, sizeof c, "%02X", code);
    out += std::string(out.empty() ? "" : "|") + c + ":" + buf;
  }
  return out;
}

TEST(Tokenizer, NumbersAndStrings) {
  char text[] = "12 -  7 3.25 1e5 2E+2 -4.5e-1 4294967296 9e999 1e 'a\\'b' 'O''Neil' '''' '' 'open";
  EXPECT_EQ(tokens(text), "d:12|d:-7|e:3.25|e:1e5|e:2E+2|e:-4.5e-1|e:4294967296|e:9e999|-:1e|"
                          "f:a'b|f:O'Neil|f:'|f:|f:open");
  // A minus that is not followed by a number is no token; Latin-1 letters
  // are not letters of the language.
  char minus[] = "- x _y \xC4pfel";
  EXPECT_EQ(tokens(minus), "-:-|a:X|-:_|a:Y|-:\xC4|a:PFEL");
}

TEST(Tokenizer, StatementsSplitAtSemicolonsOutsideLiterals) {
  using V = std::vector<std::string>;
  EXPECT_EQ(DBsplit_statements("A; B ;;"), (V{"A", " B ", "", ""}));
  EXPECT_EQ(DBsplit_statements("X = 'a;b' ; Y = 'O''N;' ; Z = 'c\\';d'"),
            (V{"X = 'a;b' ", " Y = 'O''N;' ", " Z = 'c\\';d'"}));
  EXPECT_EQ(DBsplit_statements("'open; to the end"), (V{"'open; to the end"}));
  EXPECT_EQ(DBsplit_statements(""), (V{""}));
}

// Messages name a keyword's token by the keyword; other codes are unknown.
TEST(Tokenizer, TokenNames) {
  char text[] = "ABORT BEGIN COMMIT DECLARE CLOSE CURSOR FOR FETCH ALL IN SHOW DATABASES TABLES "
                "INDICES TABLE INDEX DATABASE SET STATIC SECURE SAVE MAX MIN CREATE DATABASE "
                "CREATE TABLE CREATE INDEX CREATE UNIQUE INDEX DROP DATABASE DROP TABLE DROP INDEX "
                "INSERT INTO UPDATE DELETE FROM SELECT EXISTS SELECT FROM WHERE ASC DESC DISTINCT "
                "COUNT VALUES AND OR NOT NULL EXISTS LIKE BETWEEN CHARACTER SMALLINT INTEGER FLOAT "
                "DATE TIME TIMESTAMP";
  static char word[DB_TOKEN_MAX + 1];
  DBtoken_start(text);
  int code = 0, n = 0;
  for (; DBnext_token(&code, word) > 0; ++n) EXPECT_STREQ(DBtoken_name(code), word);
  EXPECT_EQ(n, 57);
  for (int unnamed : {int('j'), int('H'), 0xA6, int('-'), 0, 255, -1, 256})
    EXPECT_STREQ(DBtoken_name(unnamed), "<unknown token>") << unnamed;
}

} // namespace
