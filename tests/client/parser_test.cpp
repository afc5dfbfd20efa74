// The statement encoder: the request bytes of every statement kind, the
// postfix form of expressions, case handling and the parser's messages.
#include "db/client/parser.h"

#include <gtest/gtest.h>

#include "encode_support.h"

namespace {

using namespace enc;

TEST(Encode, DefinitionStatements) {
  EXPECT_EQ(encode("create database kunden"), (Expect() << '3' << name("KUNDEN")).b);
  EXPECT_EQ(encode("DROP DATABASE"), (Expect() << '4').b);
  EXPECT_EQ(encode("CREATE TABLE art (nr INTEGER NOT NULL, bez CHARACTER(20), "
                   "bild BINARY(100) not null, menge SMALLINT, preis FLOAT, "
                   "tag DATE, zeit TIME, stempel TIMESTAMP)"),
            (Expect() << '5' << name("ART") << name("NR") << '2' << 'F' << name("BEZ") << '0'
                      << integer(20) << name("BILD") << (unsigned char)0xA6 << integer(100) << 'F'
                      << name("MENGE") << '1' << name("PREIS") << '3' << name("TAG") << '4'
                      << name("ZEIT") << '5' << name("STEMPEL") << '6' << 'x')
                .b);
  EXPECT_EQ(encode("DROP TABLE art"), (Expect() << '6' << name("ART")).b);
  EXPECT_EQ(encode("CREATE INDEX ix ON art (nr, bez)"),
            (Expect() << '7' << name("IX") << name("ART") << name("NR") << name("BEZ") << 'x').b);
  // The unique form writes its own byte before the plain form's encoding.
  EXPECT_EQ(encode("CREATE UNIQUE INDEX ix ON art (nr)"),
            (Expect() << '8' << '7' << name("IX") << name("ART") << name("NR") << 'x').b);
  EXPECT_EQ(encode("DROP INDEX ix"), (Expect() << '9' << name("IX")).b);
}

TEST(Encode, SessionAndAdministrationStatements) {
  EXPECT_EQ(encode("BEGIN"), (Expect() << 'J').b);
  // COMMIT, END and the empty statement are one request.
  EXPECT_EQ(encode("COMMIT"), (Expect() << 'K').b);
  EXPECT_EQ(encode("END"), (Expect() << 'K').b);
  EXPECT_EQ(encode(";"), (Expect() << 'K').b);
  EXPECT_EQ(encode(""), (Expect() << 'K').b);
  EXPECT_EQ(encode("  ;  "), (Expect() << 'K').b);
  EXPECT_EQ(encode("ABORT"), (Expect() << 'M').b);
  EXPECT_EQ(encode("DECLARE c1 CURSOR FOR SELECT * FROM art"),
            (Expect() << 'N' << name("C1") << 'W' << 'v' << name("ART") << 'x').b);
  EXPECT_EQ(encode("FETCH c1"), (Expect() << 'O' << name("C1")).b);
  EXPECT_EQ(encode("fetch all in c1"), (Expect() << 'O' << '%' << name("C1")).b);
  EXPECT_EQ(encode("CLOSE c1"), (Expect() << 'P' << name("C1")).b);
  EXPECT_EQ(encode("SET TABLE art STATIC"), (Expect() << 'Q' << name("ART")).b);
  EXPECT_EQ(encode("SET TABLE art SECURE"), (Expect() << 'U' << name("ART")).b);
  EXPECT_EQ(encode("SET DATABASE tdsys"), (Expect() << 'X' << name("TDSYS")).b);
  EXPECT_EQ(encode("SAVE DATABASE"), (Expect() << 'R').b);
  EXPECT_EQ(encode("SHOW DATABASES"), (Expect() << 'S' << (unsigned char)0xF6).b);
  EXPECT_EQ(encode("SHOW TABLES"), (Expect() << 'S' << (unsigned char)0xFC).b);
  EXPECT_EQ(encode("SHOW INDICES"), (Expect() << 'S' << (unsigned char)0xE4).b);
  EXPECT_EQ(encode("SHOW INDICES ON TABLE art"),
            (Expect() << 'S' << '?' << (unsigned char)0xE4 << name("ART")).b);
  EXPECT_EQ(encode("SHOW TABLE art"), (Expect() << 'S' << '?' << name("ART")).b);
  EXPECT_EQ(encode("SHOW INDEX ix"), (Expect() << 'S' << '9' << name("IX")).b);
  EXPECT_EQ(encode("MAX 100"), (Expect() << 'T' << integer(100)).b);
  EXPECT_EQ(encode("MAX 0"), (Expect() << 'T' << integer(0)).b);
  EXPECT_EQ(encode("MAX"), (Expect() << 'T' << 'F').b);
  EXPECT_EQ(encode("STOP"), (Expect() << 'V').b);
}

TEST(Encode, DataStatements) {
  EXPECT_EQ(encode("INSERT INTO art (nr, bez, preis) VALUES (1, 'Bolzen', 2.5)"),
            (Expect() << 'E' << name("ART") << name("NR") << name("BEZ") << name("PREIS") << 'X'
                      << integer(1) << str("Bolzen") << real(2.5) << 'x')
                .b);
  EXPECT_EQ(encode("INSERT INTO art VALUES (-7, '')"),
            (Expect() << 'E' << name("ART") << 'X' << integer(-7) << str("") << 'x').b);
  EXPECT_EQ(encode("UPDATE art SET bez = 'Mutter', preis = 0.25 WHERE nr = 1"),
            (Expect() << 'I' << name("ART") << name("BEZ") << str("Mutter") << name("PREIS")
                      << real(0.25) << 'w' << name("NR") << integer(1) << 'R' << 'w' << 'x')
                .b);
  EXPECT_EQ(encode("UPDATE art SET nr = 2"),
            (Expect() << 'I' << name("ART") << name("NR") << integer(2) << 'x').b);
  EXPECT_EQ(encode("DELETE FROM art"), (Expect() << 'G' << name("ART") << 'x').b);
  EXPECT_EQ(
      encode("DELETE FROM art WHERE nr >= 10"),
      (Expect() << 'G' << name("ART") << 'w' << name("NR") << integer(10) << 'Q' << 'w' << 'x').b);
}

TEST(Encode, SelectListTablesAndOrder) {
  EXPECT_EQ(encode("select * from t"), (Expect() << 'C' << 'W' << 'v' << name("T") << 'x').b);
  EXPECT_EQ(encode("SELECT DISTINCT a, COUNT(*), MIN(b), MAX(x.c), x.d, x.* FROM t1 x, t2"),
            (Expect() << 'C' << '7' << name("A") << 'C' << 'I' << name("B") << 'J' << str("X")
                      << name("C") << str("X") << name("D") << str("X") << 'W' << 'v' << name("T1")
                      << str("X") << name("T2") << 'x')
                .b);
  EXPECT_EQ(encode("SELECT a FROM t ORDER BY a, t.b DESC, c ASC"),
            (Expect() << 'C' << name("A") << 'v' << name("T") << 'H' << name("A") << 'D'
                      << name("T") << name("B") << ']' << name("C") << 'H' << 'x')
                .b);
  // A qualified name is written one way in the select list, another in
  // expressions.
  EXPECT_EQ(encode("SELECT a.b FROM a WHERE a.b = 1"),
            (Expect() << 'C' << str("A") << name("B") << 'v' << name("A") << 'w' << 'D' << name("A")
                      << name("B") << integer(1) << 'R' << 'w' << 'x')
                .b);
}

TEST(Encode, ExpressionsArePostfix) {
  auto where = [](const std::string &cond) {
    Bytes all = encode("SELECT * FROM t WHERE " + cond);
    // Strip 'C' 'W' 'v' name("T") 'w' in front and 'w' 'x' behind.
    size_t front = 3 + name("T").size() + 1;
    return Bytes(all.begin() + front, all.end() - 2);
  };
  EXPECT_EQ(where("a = 1 AND b < 2.5 OR NOT c LIKE 'x%'"),
            (Expect() << name("A") << integer(1) << 'R' << name("B") << real(2.5) << 'N' << 'y'
                      << name("C") << str("x%") << 'V' << 'T' << 'z')
                .b);
  EXPECT_EQ(where("a <> b AND (c > 1 OR d <= 2) AND e >= 3"),
            (Expect() << name("A") << name("B") << 'S' << name("C") << integer(1) << 'O'
                      << name("D") << integer(2) << 'P' << 'z' << 'y' << name("E") << integer(3)
                      << 'Q' << 'y')
                .b);
  EXPECT_EQ(where("a BETWEEN 1 AND 'z'"),
            (Expect() << name("A") << integer(1) << str("z") << 'Y').b);
  EXPECT_EQ(where("a IN (1, 2.5, 'x')"),
            (Expect() << name("A") << integer(1) << real(2.5) << str("x") << integer(3) << 'M').b);
  EXPECT_EQ(where("a IN (SELECT b FROM u)"),
            (Expect() << name("A") << 'u' << name("B") << 'v' << name("U") << integer(1) << 'M').b);
  EXPECT_EQ(where("EXISTS (SELECT * FROM u WHERE u.k = t.k)"),
            (Expect() << '=' << 'W' << 'v' << name("U") << 'w' << 'D' << name("U") << name("K")
                      << 'D' << name("T") << name("K") << 'R' << 'w' << 'L')
                .b);
  EXPECT_EQ(where("a = (SELECT MAX(b) FROM u)"),
            (Expect() << name("A") << 'u' << 'J' << name("B") << 'v' << name("U") << 'R').b);
  EXPECT_EQ(where("(SELECT * FROM u)"), (Expect() << 'u' << 'W' << 'v' << name("U")).b);
  EXPECT_EQ(where("a"), (Expect() << name("A")).b);
}

TEST(Encode, CaseNumbersAndDeterminism) {
  // Keywords in any case, identifiers upper-cased, string values untouched,
  // two-word keywords across any white space.
  EXPECT_EQ(encode("sElEcT kd_Nr2 FrOm Kunden\n ORDER\t\tby kd_nr2"),
            (Expect() << 'C' << name("KD_NR2") << 'v' << name("KUNDEN") << 'H' << name("KD_NR2")
                      << 'H' << 'x')
                .b);
  EXPECT_EQ(encode("insert\ninto t values ('MiXed')"),
            (Expect() << 'E' << name("T") << 'X' << str("MiXed") << 'x').b);
  // A keyword followed by a word character is an identifier.
  EXPECT_EQ(encode("SELECT order_x, selected, in1 FROM t"),
            (Expect() << 'C' << name("ORDER_X") << name("SELECTED") << name("IN1") << 'v'
                      << name("T") << 'x')
                .b);
  // Negative numbers (blanks allowed after "-"), exponents, and integers
  // beyond 32 bits, which go as floats.
  EXPECT_EQ(encode("INSERT INTO t VALUES (-  5, 1e3, 2.5E-2, -2147483648, 2147483647, "
                   "2147483648, -2147483649, 12345678901234)"),
            (Expect() << 'E' << name("T") << 'X' << integer(-5) << real(1000) << real(0.025)
                      << integer(-2147483647 - 1) << integer(2147483647) << real(2147483648.0)
                      << real(-2147483649.0) << real(12345678901234.0) << 'x')
                .b);
  EXPECT_EQ(encode("INSERT INTO t VALUES ('it\\'s \\\\ ok', 'a\"b')"),
            (Expect() << 'E' << name("T") << 'X' << str("it's \\ ok") << str("a\"b") << 'x').b);
  // The same statement always gives the same bytes; the parser does not
  // reset the request buffer itself.
  Bytes once = encode("SELECT a FROM t WHERE b = 'x' ORDER BY a");
  EXPECT_EQ(encode("SELECT a FROM t WHERE b = 'x' ORDER BY a"), once);
  char text[] = "BEGIN;";
  char msg[DB_MSG_SIZE];
  ASSERT_EQ(DBexec_encode(text, msg), 1);
  EXPECT_EQ(DBreq_length(), once.size() + 1);
}

TEST(Encode, NameAndStringLimits) {
  std::string n31(31, 'a');
  EXPECT_EQ(encode("DROP TABLE " + n31), (Expect() << '6' << name(std::string(31, 'A'))).b);
  EXPECT_EQ(error("DROP TABLE " + n31 + "bc"),
            "Syntax error: name too long (" + std::string(31, 'A') + "B...)");
  std::string s9999(9999, 'q');
  EXPECT_EQ(encode("INSERT INTO t VALUES ('" + s9999 + "')"),
            (Expect() << 'E' << name("T") << 'X' << str(s9999) << 'x').b);
  EXPECT_EQ(error("INSERT INTO t VALUES ('" + s9999 + "q')"),
            "Syntax error: string too long (max = 10000)");
  // Through DBexec the appended ";" is taken literally after a trailing
  // backslash; only a text that really ends there is refused.
  EXPECT_EQ(error("INSERT INTO t VALUES ('abc\\"), "Unexpected end of query (expected ')')");
  char text[] = "INSERT INTO t VALUES ('abc\\";
  char msg[DB_MSG_SIZE];
  EXPECT_EQ(DBexec_encode(text, msg), 0);
  EXPECT_STREQ(msg, "Syntax error: unexpected end of string (abc)");
}

TEST(Encode, Messages) {
  EXPECT_EQ(error("DROP DATABASE x"),
            "Syntax error: end of SQL-command expected (found '<identifier value>')");
  EXPECT_EQ(error("INSERT INTO t (a, b) VALUES (1, 2, 3)"),
            "(INSERT) attributes (2) do not match values (3)");
  EXPECT_EQ(error("INSERT INTO t (a, b, c) VALUES (1)"),
            "(INSERT) attributes (3) do not match values (1)");
  EXPECT_EQ(error("  frobnicate the table"),
            "(DBexec) Syntax error: SQL-command FROBNICATE not known");
  EXPECT_EQ(error("FROM t"), "(DBexec) Syntax error: SQL-command FROM not known");
  EXPECT_EQ(error("SELECT a t"), "Syntax error: FROM expected (found '<identifier value>')");
  EXPECT_EQ(error("SELECT 1 FROM t"),
            "Syntax error: attrib-name expected (found '<integer value>')");
  EXPECT_EQ(error("SELECT a FROM 5"),
            "Syntax error: table-name expected (found '<integer value>')");
  EXPECT_EQ(error("SELECT a FROM t x y"),
            "Syntax error: end of SQL-command expected (found '<identifier value>')");
  EXPECT_EQ(error("SELECT a FROM t WHERE"), "Syntax error: expr-element expected (found ';')");
  EXPECT_EQ(error("SELECT a FROM t WHERE a = NULL"),
            "Syntax error: expr-value expected (found 'NULL')");
  EXPECT_EQ(error("SELECT a FROM t WHERE a BETWEEN 1 OR 2"),
            "Syntax error: 'AND' expected (found 'OR')");
  EXPECT_EQ(error("SELECT a FROM t WHERE a BETWEEN b AND 2"),
            "Syntax error: <value> expected (found '<identifier value>')");
  EXPECT_EQ(error("SELECT a FROM t WHERE (a = 1"), "Syntax error: ')' expected (found ';')");
  EXPECT_EQ(error("SELECT a FROM t WHERE a IN 1"),
            "Syntax error: '(' expected (found '<integer value>')");
  EXPECT_EQ(error("SELECT a FROM t WHERE a = (1)"),
            "Syntax error: SELECT expected (found <integer value>)");
  EXPECT_EQ(error("SELECT COUNT(a) FROM t"), "Syntax error: * expected (found <identifier value>)");
  EXPECT_EQ(error("CREATE TABLE t (a VARCHAR(3))"),
            "Syntax error: datatype expected (found '<identifier value>')");
  EXPECT_EQ(error("CREATE TABLE t (a CHARACTER)"), "Syntax error: '(' expected (found ')')");
  EXPECT_EQ(error("CREATE TABLE t (a CHARACTER(2.5))"),
            "Syntax error: <integer value> expected (found <float value>)");
  EXPECT_EQ(error("CREATE TABLE t (a INTEGER NOT 5)"),
            "Syntax error: NULL expected (found <integer value>)");
  // ON and BINARY have no name of their own.
  EXPECT_EQ(error("CREATE INDEX i FOR t (a)"),
            "Syntax error: <unknown token> expected (found FOR)");
  EXPECT_EQ(error("SELECT a FROM t WHERE a = BINARY"),
            "Syntax error: expr-value expected (found '<unknown token>')");
  EXPECT_EQ(error("SELECT a FROM t WHERE a ! 3"),
            "Syntax error: end of SQL-command expected (found '<unknown token>')");
  EXPECT_EQ(error("INSERT INTO t (a) 1"), "Syntax error: VALUES expected (found <integer value>)");
  EXPECT_EQ(error("INSERT INTO t VALUES (a)"),
            "Syntax error: <value> expected (found '<identifier value>')");
  EXPECT_EQ(error("UPDATE t a = 1"), "Syntax error: SET expected (found <identifier value>)");
  EXPECT_EQ(error("UPDATE t SET a 1"), "Syntax error: = expected (found <integer value>)");
  EXPECT_EQ(error("DECLARE c FOR SELECT * FROM t"), "Syntax error: CURSOR expected (found FOR)");
  EXPECT_EQ(error("FETCH ALL c"), "Syntax error: IN expected (found <identifier value>)");
  EXPECT_EQ(error("SHOW ME"), "Syntax error: SHOW expected (found '<identifier value>')");
  EXPECT_EQ(error("SHOW INDICES ON t"),
            "Syntax error: TABLE expected (found '<identifier value>')");
  EXPECT_EQ(error("SET COLUMN x"), "Syntax error: TABLE expected (found '<identifier value>')");
  EXPECT_EQ(error("SET TABLE t LOCKED"),
            "Syntax error: STATIC expected (found '<identifier value>')");
  EXPECT_EQ(error("MAX -1"),
            "Syntax error: MAX: negative result row maximum expected (found '<integer value>')");
  EXPECT_EQ(error("MAX x"), "Syntax error: ';' expected (found '<identifier value>')");
  EXPECT_EQ(error("SELECT a FROM t WHERE a = 1e"),
            "Syntax error: expr-value expected (found '<unknown token>')");
  EXPECT_EQ(error("SELECT * FROM t ORDER BY 1"),
            "Syntax error: attrib-name expected (found '<integer value>')");

  // Without the ";" that DBexec appends the end of the text is reached.
  char msg[DB_MSG_SIZE];
  auto raw = [&](std::string text) {
    DBreq_reset();
    return DBexec_encode(text.data(), msg) ? std::string("<parsed>") : std::string(msg);
  };
  EXPECT_EQ(raw(""), "Unexpected end of query (expected SQL-command)");
  EXPECT_EQ(raw("BEGIN"), "Unexpected end of query (expected query-end)");
  EXPECT_EQ(raw("SELECT a FROM t WHERE"), "Unexpected end of query (expected expression)");
  EXPECT_EQ(raw("SELECT a FROM t WHERE a = 1 AND"), "Unexpected end of query (expected element)");
  EXPECT_EQ(raw("CREATE TABLE t (a"), "Unexpected end of query (expected datatype)");
  EXPECT_EQ(raw("INSERT INTO t (a)"), "Unexpected end of query (expected VALUES)");
  EXPECT_EQ(raw("INSERT INTO t VALUES ("), "Unexpected end of query (expected <value>)");
  EXPECT_EQ(raw("MAX"), "Unexpected end of query (expected <max-results>)");
  EXPECT_EQ(raw("SET TABLE t"), "Unexpected end of query (expected STATIC)");
  EXPECT_EQ(raw("FETCH ALL"), "Unexpected end of query (expected IN)");
  EXPECT_EQ(raw("SELECT a FROM t WHERE a IN (1"), "Unexpected end of query (expected ')')");
  EXPECT_EQ(raw("END"), "<parsed>");
}

} // namespace
