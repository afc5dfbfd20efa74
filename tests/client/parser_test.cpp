// The statement encoder: the request bytes of every statement kind, the
// postfix form of expressions, case handling and the parser's messages.
#include "db/client/parser.h"

#include "client_testutil.h"

namespace {

using namespace ct;

struct Case {
  std::string statement, want;
};

TEST(Encode, EveryStatementKind) {
  const Case cases[] = {
      {"create database kunden", "3 <KUNDEN>"},
      {"DROP DATABASE", "4"},
      {"CREATE TABLE art (nr INTEGER NOT NULL, bez CHARACTER(20), bild BINARY(100) not null, "
       "menge SMALLINT, preis FLOAT, tag DATE, zeit TIME, stempel TIMESTAMP)",
       "5 <ART> <NR> 2 F <BEZ> 0 #20 <BILD> 0xA6 #100 F <MENGE> 1 <PREIS> 3 <TAG> 4 <ZEIT> 5 "
       "<STEMPEL> 6 x"},
      {"DROP TABLE art", "6 <ART>"},
      {"CREATE INDEX ix ON art (nr, bez)", "7 <IX> <ART> <NR> <BEZ> x"},
      // The unique form writes its own byte before the plain form's bytes.
      {"CREATE UNIQUE INDEX ix ON art (nr)", "8 7 <IX> <ART> <NR> x"},
      {"DROP INDEX ix", "9 <IX>"},
      {"BEGIN", "J"},
      // COMMIT, END and the empty statement are one request.
      {"COMMIT", "K"},
      {"END", "K"},
      {"", "K"},
      {"ABORT", "M"},
      {"DECLARE c1 CURSOR FOR SELECT * FROM art", "N <C1> W v <ART> x"},
      {"FETCH c1", "O <C1>"},
      {"fetch all in c1", "O % <C1>"},
      {"CLOSE c1", "P <C1>"},
      {"SET TABLE art STATIC", "Q <ART>"},
      {"SET TABLE art SECURE", "U <ART>"},
      {"SET DATABASE tdsys", "X <TDSYS>"},
      {"SAVE DATABASE", "R"},
      {"SHOW DATABASES", "S 0xF6"},
      {"SHOW TABLES", "S 0xFC"},
      {"SHOW INDICES", "S 0xE4"},
      {"SHOW INDICES ON TABLE art", "S ? 0xE4 <ART>"},
      {"SHOW TABLE art", "S ? <ART>"},
      {"SHOW INDEX ix", "S 9 <IX>"},
      {"MAX 0", "T #0"},
      {"MAX", "T F"},
      {"STOP", "V"},
      {"INSERT INTO art (nr, bez, preis) VALUES (1, 'Bolzen', 2.5)",
       "E <ART> <NR> <BEZ> <PREIS> X #1 'Bolzen' ~2.5 x"},
      {"INSERT INTO art VALUES (-7, '')", "E <ART> X #-7 '' x"},
      {"UPDATE art SET bez = 'Mutter', preis = 0.25 WHERE nr = 1",
       "I <ART> <BEZ> 'Mutter' <PREIS> ~0.25 w <NR> #1 R w x"},
      {"UPDATE art SET nr = 2", "I <ART> <NR> #2 x"},
      {"DELETE FROM art", "G <ART> x"},
      {"DELETE FROM art WHERE nr >= 10", "G <ART> w <NR> #10 Q w x"},
      {"select * from t", "C W v <T> x"},
      {"SELECT DISTINCT a, COUNT(*), MIN(b), MAX(x.c), x.d, x.* FROM t1 x, t2",
       "C 7 <A> C I <B> J 'X' <C> 'X' <D> 'X' W v <T1> 'X' <T2> x"},
      {"SELECT a FROM t ORDER BY a, t.b DESC, c ASC", "C <A> v <T> H <A> D <T> <B> ] <C> H x"},
      // A qualified name is written one way in the select list, another in
      // expressions.
      {"SELECT a.b FROM a WHERE a.b = 1", "C 'A' <B> v <A> w D <A> <B> #1 R w x"},
      // Keywords in any case, identifiers upper-cased, string values
      // untouched, two-word keywords across any white space; a keyword
      // followed by a word character is an identifier.
      {"sElEcT kd_Nr2 FrOm Kunden\n ORDER\t\tby kd_nr2", "C <KD_NR2> v <KUNDEN> H <KD_NR2> H x"},
      {"insert\ninto t values ('MiXed')", "E <T> X 'MiXed' x"},
      {"SELECT order_x, selected, in1 FROM t", "C <ORDER_X> <SELECTED> <IN1> v <T> x"},
      // Negative numbers (blanks allowed after "-"), exponents, and integers
      // beyond 32 bits, which go as floats.
      {"INSERT INTO t VALUES (-  5, 1e3, 2.5E-2, -2147483648, 2147483647, 2147483648, "
       "-2147483649, 12345678901234)",
       "E <T> X #-5 ~1000 ~0.025 #-2147483648 #2147483647 ~2147483648 ~-2147483649 "
       "~12345678901234 x"},
  };
  for (const Case &c : cases) EXPECT_EQ(encode(c.statement), req(c.want)) << c.statement;
  Bytes escaped = encode("INSERT INTO t VALUES ('it\\'s \\\\ ok', 'a\"b')");
  EXPECT_EQ(escaped, req("E <T> X") + str("it's \\ ok") + str("a\"b") + req("x"));

  // The parser does not reset the request buffer itself.
  char text[] = "BEGIN;";
  char msg[DB_MSG_SIZE];
  ASSERT_EQ(DBexec_encode(text, msg), 1);
  EXPECT_EQ(DBreq_length(), escaped.size() + 1);
}

TEST(Encode, ExpressionsArePostfix) {
  const Case cases[] = {
      {"a = 1 AND b < 2.5 OR NOT c LIKE 'x%'", "<A> #1 R <B> ~2.5 N y <C> 'x%' V T z"},
      {"a <> b AND (c > 1 OR d <= 2) AND e >= 3", "<A> <B> S <C> #1 O <D> #2 P z y <E> #3 Q y"},
      {"a BETWEEN 1 AND 'z'", "<A> #1 'z' Y"},
      {"a IN (1, 2.5, 'x')", "<A> #1 ~2.5 'x' #3 M"},
      {"a IN (SELECT b FROM u)", "<A> u <B> v <U> #1 M"},
      {"EXISTS (SELECT * FROM u WHERE u.k = t.k)", "= W v <U> w D <U> <K> D <T> <K> R w L"},
      {"a = (SELECT MAX(b) FROM u)", "<A> u J <B> v <U> R"},
      {"(SELECT * FROM u)", "u W v <U>"},
      {"a", "<A>"},
  };
  for (const Case &c : cases)
    EXPECT_EQ(encode("SELECT * FROM t WHERE " + c.statement), req("C W v <T> w " + c.want + " w x"))
        << c.statement;
}

TEST(Encode, NameAndStringLimits) {
  std::string n31(31, 'a');
  EXPECT_EQ(encode("DROP TABLE " + n31), req("6 <" + std::string(31, 'A') + ">"));
  EXPECT_EQ(error("DROP TABLE " + n31 + "bc"),
            "Syntax error: name too long (" + std::string(31, 'A') + "B...)");
  std::string s9999(9999, 'q');
  EXPECT_EQ(encode("INSERT INTO t VALUES ('" + s9999 + "')"), req("E <T> X '" + s9999 + "' x"));
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
  const Case cases[] = {
      {"DROP DATABASE x", "Syntax error: end of SQL-command expected (found '<identifier value>')"},
      {"INSERT INTO t (a, b) VALUES (1, 2, 3)", "(INSERT) attributes (2) do not match values (3)"},
      {"  frobnicate the table", "(DBexec) Syntax error: SQL-command FROBNICATE not known"},
      {"FROM t", "(DBexec) Syntax error: SQL-command FROM not known"},
      {"SELECT a t", "Syntax error: FROM expected (found '<identifier value>')"},
      {"SELECT 1 FROM t", "Syntax error: attrib-name expected (found '<integer value>')"},
      {"SELECT a FROM 5", "Syntax error: table-name expected (found '<integer value>')"},
      {"SELECT a FROM t WHERE", "Syntax error: expr-element expected (found ';')"},
      {"SELECT a FROM t WHERE a = NULL", "Syntax error: expr-value expected (found 'NULL')"},
      {"SELECT a FROM t WHERE a BETWEEN 1 OR 2", "Syntax error: 'AND' expected (found 'OR')"},
      {"SELECT a FROM t WHERE a BETWEEN b AND 2",
       "Syntax error: <value> expected (found '<identifier value>')"},
      {"SELECT a FROM t WHERE (a = 1", "Syntax error: ')' expected (found ';')"},
      {"SELECT a FROM t WHERE a IN 1", "Syntax error: '(' expected (found '<integer value>')"},
      {"SELECT a FROM t WHERE a = (1)", "Syntax error: SELECT expected (found <integer value>)"},
      {"SELECT COUNT(a) FROM t", "Syntax error: * expected (found <identifier value>)"},
      {"CREATE TABLE t (a VARCHAR(3))",
       "Syntax error: datatype expected (found '<identifier value>')"},
      {"CREATE TABLE t (a CHARACTER)", "Syntax error: '(' expected (found ')')"},
      {"CREATE TABLE t (a CHARACTER(2.5))",
       "Syntax error: <integer value> expected (found <float value>)"},
      {"CREATE TABLE t (a INTEGER NOT 5)", "Syntax error: NULL expected (found <integer value>)"},
      // ON has no name of its own.
      {"CREATE INDEX i FOR t (a)", "Syntax error: <unknown token> expected (found FOR)"},
      {"INSERT INTO t (a) 1", "Syntax error: VALUES expected (found <integer value>)"},
      {"UPDATE t a = 1", "Syntax error: SET expected (found <identifier value>)"},
      {"UPDATE t SET a 1", "Syntax error: = expected (found <integer value>)"},
      {"DECLARE c FOR SELECT * FROM t", "Syntax error: CURSOR expected (found FOR)"},
      {"FETCH ALL c", "Syntax error: IN expected (found <identifier value>)"},
      {"SHOW ME", "Syntax error: SHOW expected (found '<identifier value>')"},
      {"SHOW INDICES ON t", "Syntax error: TABLE expected (found '<identifier value>')"},
      {"SET TABLE t LOCKED", "Syntax error: STATIC expected (found '<identifier value>')"},
      {"MAX -1",
       "Syntax error: MAX: negative result row maximum expected (found '<integer value>')"},
      {"MAX x", "Syntax error: ';' expected (found '<identifier value>')"},
  };
  for (const Case &c : cases) EXPECT_EQ(error(c.statement), c.want) << c.statement;

  // Without the ";" that DBexec and the command-line client append the end
  // of the text is reached.
  const Case unterminated[] = {
      {"", "SQL-command"},
      {"BEGIN", "query-end"},
      {"SELECT a FROM t WHERE", "expression"},
      {"CREATE TABLE t (a", "datatype"},
      {"MAX", "<max-results>"},
      {"SELECT a FROM t WHERE a IN (1", "')'"},
  };
  char msg[DB_MSG_SIZE];
  for (const Case &c : unterminated) {
    std::string text = c.statement;
    EXPECT_EQ(DBexec_encode(text.data(), msg), 0) << c.statement;
    EXPECT_EQ(std::string(msg), "Unexpected end of query (expected " + c.want + ")");
  }
  std::string end = "END";
  EXPECT_EQ(DBexec_encode(end.data(), msg), 1);
}

} // namespace
