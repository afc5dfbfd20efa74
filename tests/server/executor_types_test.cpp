// Declared types through the executor: values at their limits, null markers,
// the binary layouts of answers, the text rules of comparison and ordering,
// and values as the viewer edits them: every value the client shows as text
// stores the same value when it is sent back as a literal.
#include "tests/server/executor_testutil.h"

#include "db/client/answer.h"
#include "server/types.h"

#include <random>
#include <sqlite3.h>

namespace exectest {
namespace {

class TypesTest : public ExecutorTest {
protected:
  void SetUp() override {
    ExecutorTest::SetUp();
    good("CREATE DATABASE TYPEN");
    good("CREATE TABLE T (T_ID INTEGER NOT NULL, C CHARACTER(8), S SMALLINT, I INTEGER, "
         "F FLOAT, D DATE, Z TIME, TS TIMESTAMP, B BINARY(4))");
  }
};

TEST_F(TypesTest, HeadersAndValuesInTheirBinaryLayouts) {
  good("INSERT INTO T VALUES (-2147483648, 'abcdefä', -32768, 2147483647, 1.5e300, "
       "'1800-01-01', '00:00:00', '1800-01-01-00.00.00.000000', '')");
  good("INSERT INTO T VALUES (2, '', 32767, -2147483647, -0.25, '2800-12-31', '23:59:59', "
       "'2800-12-31-23.59.59.999999', 'A$00B')");
  good("INSERT INTO T VALUES (3, 'x', 0, 0, 0, '1900-02-29', '10:30:00', '2003-07-12', "
       "'\2470001FF\247$$')"); // \247: the run marker of escaped binary values
  good("INSERT INTO T (T_ID, F, D) VALUES (4, 12, '2003.7.1')");
  Answer a = good("SELECT * FROM T ORDER BY T_ID");
  ASSERT_EQ(a.cols.size(), 9u);
  const unsigned char codes[] = {'2', '0', '1', '2', '3', '4', '5', '6', 0xA6};
  const int32_t sizes[] = {4, 8, 2, 4, 8, 4, 3, 12, 4};
  for (size_t i = 0; i < 9; ++i) {
    EXPECT_EQ(a.cols[i].type, codes[i]) << i;
    EXPECT_EQ(a.cols[i].size, sizes[i]) << i;
  }
  // The limits of the types and the null markers of omitted or empty values
  // are checked end to end; here the binary layouts of the answer.
  ASSERT_EQ(a.rows.size(), 4u);
  EXPECT_EQ(a.i32(0, 0), -2147483648);
  EXPECT_EQ(a.text(0, 1), "abcdef\xE4") << "Latin-1 in and out, UTF-8 in the file";
  EXPECT_EQ(a.f64(0, 4), 1.5e300);
  EXPECT_EQ(a.when(1, 7), "2800-12-31-23.59.59.999999");
  EXPECT_EQ(a.rows[1][8], (Bytes{3, 0, 'A', 0, 'B'}));
  EXPECT_EQ(a.when(2, 5), "1900-02-29") << "every fourth year is a leap year";
  EXPECT_EQ(a.when(2, 7), "2003-07-12-00.00.00.000000");
  EXPECT_EQ(a.rows[2][8], (Bytes{4, 0, 0, 1, 0xFF, '$'}));
  EXPECT_EQ(a.f64(3, 4), 12.0);
  EXPECT_EQ(a.when(3, 5), "2003-07-01");
  EXPECT_EQ(a.rows[3][8], (Bytes{0, 0})) << "BINARY null: zero length";
}

TEST_F(TypesTest, ValuesOutsideTheirTypeAreRefusedWithTheAttributeName) {
  struct Case {
    const char *assignment;
    const char *expected;
  } cases[] = {
      {"C = 'abcdefgh'", "C: Wert ist zu lang für CHARACTER(8): 8 Zeichen, höchstens 7"},
      {"S = 32768", "S: Wert 32768 liegt außerhalb von SMALLINT"},
      {"S = -32769", "S: Wert -32769"},
      {"S = 'x1'", "ist keine ganze Zahl"},
      {"I = 2147483648", "I: Wert 2147483648 liegt außerhalb von INTEGER"}, // sent as a float
      {"I = 1.5", "ist keine ganze Zahl"},
      {"F = 'zwei'", "ist keine Zahl"},
      {"D = '2003-02-29'", "D: Wert '2003-02-29' ist kein gültiges Datum"},
      {"D = '1799-12-31'", "kein gültiges Datum"},
      {"D = '2801-01-01'", "kein gültiges Datum"},
      {"D = '2003-07-12x'", "kein gültiges Datum"},
      {"Z = '24:00:00'", "Z: Wert '24:00:00' ist keine gültige Uhrzeit"},
      {"Z = '1:30:00'", "keine gültige Uhrzeit"},
      {"TS = '2003-07-12-10.30.00.00000'", "kein gültiger Zeitstempel"},
      {"TS = '2003-07-12-25.30.00.000000'", "kein gültiger Zeitstempel"},
      {"B = 'ABCDE'", "zu lang für BINARY(4)"},
      {"B = '$4'", "ohne \"$$\" oder zwei Hexziffern"},
      {"B = '\2470A'", "keine gültige Folge"},
      {"B = 5", "BINARY nimmt nur Texte"},
  };
  good("INSERT INTO T (T_ID) VALUES (1)");
  for (const Case &c : cases) {
    std::string err = bad(std::string("UPDATE T SET ") + c.assignment);
    EXPECT_THAT(err, HasSubstr("(TAVRIN 401) Ungültiger Wert für Attribut "));
    EXPECT_THAT(err, HasSubstr(c.expected)) << c.assignment << " -> " << err;
  }
  // Every month's last day is a date, the day after it none.
  const int last[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  for (int m = 1; m <= 12; ++m) {
    std::string day = "UPDATE T SET D = '2003-" + std::to_string(100 + m).substr(1) + "-";
    good(day + std::to_string(last[m - 1]) + "'");
    EXPECT_THAT(bad(day + std::to_string(last[m - 1] + 1) + "'"), HasSubstr("kein gültiges Datum"));
  }
  // Nothing of the refused updates is stored.
  Answer a = good("SELECT C, S FROM T");
  EXPECT_EQ(a.text(0, 0), "");
  EXPECT_EQ(a.i16(0, 1), -32768);
  // NOT NULL: omitted, empty, or the null marker.
  EXPECT_THAT(bad("INSERT INTO T (C) VALUES ('x')"),
              HasSubstr("(TAVRIN 402) Attribut T_ID ist NOT NULL"));
  EXPECT_THAT(bad("UPDATE T SET T_ID = ''"), HasSubstr("402"));
  EXPECT_THAT(bad("UPDATE T SET T_ID = -2147483647"), HasSubstr("402"));
}

TEST_F(TypesTest, TextOrderAndEqualityFollowTheStringRule) {
  const char *names[] = {"Zander", "über", "Ulme", "Öl", "apfel", "Äpfel", "oder", "Birne", "ab  "};
  int id = 0;
  for (const char *n : names)
    good("INSERT INTO T (T_ID, C) VALUES (" + std::to_string(++id) + ", '" + n + "')");
  // Case-blind, Ä/Ö/Ü as A/O/U, lower-case umlauts (negative bytes) first.
  EXPECT_EQ(
      good("SELECT C FROM T ORDER BY C").texts(0),
      (Texts{"\374ber", "ab  ", "apfel", "\304pfel", "Birne", "oder", "\326l", "Ulme", "Zander"}));
  EXPECT_EQ(good("SELECT C FROM T ORDER BY C DESC").texts(0).front(), "Zander");
  // '=' ignores trailing blanks but not case; ordering comparisons are case-blind.
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE C = 'ab'").rows.size(), 1u);
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE C = 'AB'").rows.size(), 0u);
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE C <> 'ab '").rows.size(), 8u);
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE C IN ('ab', 'Ulme   ')").rows.size(), 2u);
  EXPECT_EQ(good("SELECT C FROM T WHERE C >= 'u' ORDER BY C").texts(0), (Texts{"Ulme", "Zander"}));
  EXPECT_EQ(good("SELECT MIN(C), MAX(C) FROM T").text(0, 1), "Zander");
  EXPECT_EQ(good("SELECT C FROM T WHERE C LIKE 'A%' ORDER BY C").texts(0),
            (Texts{"ab  ", "apfel"}));
}

TEST_F(TypesTest, ComparisonsTakeLiteralsInTheAttributesForm) {
  good("INSERT INTO T (T_ID, D, S) VALUES (1, '2003-07-12', 5)");
  good("INSERT INTO T (T_ID) VALUES (2)");
  // The viewer quotes every key value; dates may use dots.
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE T_ID = '1'").rows.size(), 1u);
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE D = '2003.07.12'").rows.size(), 1u);
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE D BETWEEN '2003-01-01' AND '2003-12-31'").rows.size(),
            1u);
  // A null goes out as its marker and is found by it.
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE D = '1800-01-01'").i32(0, 0), 2);
  EXPECT_EQ(good("SELECT T_ID FROM T WHERE S = ''").i32(0, 0), 2);
}

TEST(TypesUnit, ConversionsAndForeignDeclarations) {
  EXPECT_EQ(latin1_to_utf8("\xC4\xDF"), "\xC3\x84\xC3\x9F");
  EXPECT_EQ(utf8_to_latin1("\xC3\x84\xE2\x82\xAC\xFF"), "\xC4?\xFF");
  // Declarations of tables made by other SQLite tools.
  EXPECT_EQ(type_from_declaration("CHARACTER(10) COLLATE RTRIM").size, 10);
  EXPECT_EQ(type_from_declaration("varchar(20)").code, DBTYPE_CHARACTER);
  EXPECT_EQ(type_from_declaration("BIGINT").code, DBTYPE_INTEGER);
  EXPECT_EQ(type_from_declaration("double").code, DBTYPE_FLOAT);
  EXPECT_EQ(type_from_declaration("BINARY(8)").size, 8);
}

// A text value in the answer: its length word, the Latin-1 bytes and a zero,
// cut at a zero byte and at 65534 bytes; ASCII runs, 8-byte steps and
// multi-byte characters around their borders give the same bytes as a
// character-by-character conversion.
TEST(TypesUnit, TextValuesAreConvertedAndCutInTheAnswer) {
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  sqlite3_stmt *st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT ?", -1, &st, nullptr), SQLITE_OK);
  auto answer_of = [&](const std::string &utf8) {
    sqlite3_reset(st);
    sqlite3_bind_text(st, 1, utf8.data(), int(utf8.size()), SQLITE_TRANSIENT);
    EXPECT_EQ(sqlite3_step(st), SQLITE_ROW);
    std::vector<unsigned char> out = {'x'};
    type_append_value(out, ColType{DBTYPE_CHARACTER, 0}, st, 0);
    size_t len = out[1] | out[2] << 8;
    EXPECT_EQ(out.size(), 3 + len);
    EXPECT_EQ(out.back(), 0);
    return std::string(out.begin() + 3, out.end() - 1);
  };
  const std::string ae = "\xC3\xA4"; // UTF-8 of the Latin-1 byte E4
  for (size_t at : {0u, 6u, 7u, 8u, 9u, 15u, 16u, 23u}) {
    std::string in = std::string(at, 'a') + ae + std::string(20, 'b');
    EXPECT_EQ(answer_of(in), std::string(at, 'a') + "\xE4" + std::string(20, 'b')) << at;
    std::string zero = std::string(at, 'a') + std::string(1, '\0') + "cd";
    EXPECT_EQ(answer_of(zero), std::string(at, 'a')) << "cut at the zero byte " << at;
  }
  EXPECT_EQ(answer_of(std::string(70000, 'z')), std::string(65534, 'z'));
  EXPECT_EQ(answer_of(std::string(65533, 'z') + ae + ae), std::string(65533, 'z') + "\xE4");
  EXPECT_EQ(answer_of(""), "");
  sqlite3_finalize(st);
  sqlite3_close(db);
}

// A NULL of every type goes out as that type's null marker (the texts and
// blobs are read without asking for the value's type first).
TEST(TypesUnit, NullValuesGoOutAsTheNullMarkers) {
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  sqlite3_stmt *st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT NULL, 0, 0.0", -1, &st, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(st), SQLITE_ROW);
  using B = std::vector<unsigned char>;
  const double null_float = NULL_FLOAT;
  B f(10, 0);
  f[0] = 8;
  std::memcpy(f.data() + 2, &null_float, 8); // little-endian, as the answer
  const std::pair<ColType, B> cases[] = {
      {{DBTYPE_SMALLINT, 2}, {2, 0, 0x00, 0x80}},
      {{DBTYPE_INTEGER, 4}, {4, 0, 0x01, 0x00, 0x00, 0x80}},
      {{DBTYPE_FLOAT, 8}, f},
      {{DBTYPE_DATE, 4}, {4, 0, 0x08, 0x07, 1, 1}},
      {{DBTYPE_TIME, 3}, {3, 0, 0, 0, 0}},
      {{DBTYPE_TIMESTAMP, 12}, {12, 0, 0x08, 0x07, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
      {{DBTYPE_BINARY, 8}, {2, 0, 0, 0}},
      {{DBTYPE_CHARACTER, 9}, {1, 0, 0}},
  };
  for (const auto &[type, want] : cases) {
    B out;
    type_append_value(out, type, st, 0);
    EXPECT_EQ(out, want) << type_name(type.code);
  }
  // A zero, which a NULL reads as, is still a zero.
  for (int col : {1, 2}) {
    B out;
    type_append_value(out, {DBTYPE_SMALLINT, 2}, st, col);
    type_append_value(out, {DBTYPE_INTEGER, 4}, st, col);
    type_append_value(out, {DBTYPE_FLOAT, 8}, st, col);
    EXPECT_EQ(out, (B{2, 0, 0, 0, 4, 0, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0})) << col;
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
}

// The detail dialog sends every shown text (numbers, dates, times,
// timestamps, escaped binary, Latin-1 text) back as a quoted literal.
TEST_F(ExecutorTest, ShownValuesSentBackStoreTheSameValue) {
  good("CREATE DATABASE RT");
  good("CREATE TABLE V (V_ID INTEGER, S SMALLINT, F FLOAT, D DATE, Z TIME, TS TIMESTAMP, "
       "B BINARY(64), C CHARACTER(40))");
  std::mt19937 rng(7);
  auto any = [&rng](int from, int n) { return from + static_cast<int>(rng() % unsigned(n)); };
  // Floats the client shows with all their digits (it shows about 15).
  const char *floats[] = {"0.5", "-1e20", "123456789012345", "3.14159265358", "-0.000123", "2"};
  for (int i = 0; i < 40; ++i) {
    std::string blob;
    for (int k = any(0, 20); k > 0; --k) {
      int b = any(0, 256);
      // A quote ends the viewer's literal and a backslash escapes the next
      // character in the client's tokenizer: such values cannot be edited
      // as text whatever the server does.
      if (b == '\'' || b == '\\') continue;
      char hex[4];
      snprintf(hex, sizeof hex, "$%02X", b);
      blob += hex;
    }
    char row[512];
    snprintf(row, sizeof row,
             "INSERT INTO V VALUES (%d, %d, %s, '%04d-%02d-%02d', '%02d:%02d:%02d', "
             "'%04d-%02d-%02d-%02d.%02d.%02d.%06d', '%s', 'Text \xE4\xF6\xFC $%d')",
             i, any(-32768, 65536), floats[i % 6], any(1800, 1001), any(1, 12), any(1, 28),
             any(0, 24), any(0, 60), any(0, 60), any(1800, 1001), any(1, 12), any(1, 28),
             any(0, 24), any(0, 60), any(0, 60), any(0, 1000000), blob.c_str(), i);
    ASSERT_EQ(good(row).count, 1) << row;
  }
  const char *attrs[] = {"V_ID", "S", "F", "D", "Z", "TS", "B", "C"};
  for (int i = 0; i < 40; ++i) {
    std::string key = "SELECT * FROM V WHERE V_ID = " + std::to_string(i);
    Answer before = good(key);
    // The texts the client makes of the row.
    Bytes bytes = raw(encode(key));
    DBRESULT *r = DBresult_new();
    ASSERT_EQ(DBanswer_decode(bytes.data(), bytes.size(), r), 1);
    ASSERT_EQ(DBnfields(r), 8);
    for (int c = 1; c < 8; ++c) {
      std::string lit = std::string("'") + DBgetvalue(r, 0, c) + "'";
      Answer u = sql(std::string("UPDATE V SET ") + attrs[c] + " = " + lit + " WHERE V_ID = '" +
                     std::to_string(i) + "'");
      EXPECT_EQ(u.count, 1) << attrs[c] << " = " << lit << ": " << u.error;
    }
    Answer after = good(key);
    for (size_t c = 0; c < 8; ++c)
      EXPECT_EQ(after.rows[0][c], before.rows[0][c])
          << attrs[c] << " shown as " << DBgetvalue(r, 0, int(c));
    DBclear(r);
  }
}

} // namespace
} // namespace exectest
