// The answer envelope decoder: tuple answers of both kinds, unknown kinds,
// and answers that are short or malformed. Done, error and count answers
// come through the DBexec test.
#include "db/client/answer.h"

#include "client_testutil.h"

namespace {

using namespace ct;

TEST(Answer, TupleAndUnknownKinds) {
  DBRESULT *r;
  // Tuples of both kinds; values come row by row.
  for (char kind : {'2', '4'}) {
    Answer a(kind);
    a.i32(2).i32(2).column("NR", DBTYPE_INTEGER, 4).column("NAME", DBTYPE_CHARACTER, 21);
    a.value(bin(int32_t(7))).value(text("Bolzen")).value(bin(int32_t(-1))).value(text(""));
    int ok = 0;
    r = decode(a.b, &ok);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(DBresult_status(r), kind == '2' ? DBRES_TUPLES : DBRES_TUPLES2);
    EXPECT_EQ(cells(r), "7,Bolzen|-1,");
    EXPECT_STREQ(DBfieldname(r, 1), "NAME");
    EXPECT_EQ(DBfieldsize(r, 1), 21);
    DBclear(r);
  }

  // Without rows the headers are not read at all.
  r = decode(Answer('2').i32(3).i32(0).b);
  EXPECT_EQ(DBresult_status(r), DBRES_TUPLES);
  EXPECT_EQ(DBntuples(r), 0);
  EXPECT_EQ(DBnfields(r), 0);
  EXPECT_EQ(DBfieldname(r, 0), nullptr);
  DBclear(r);

  // Kinds this client does not know leave the result as it was.
  r = decode(Answer('Z').b);
  EXPECT_EQ(DBresult_status(r), DBRES_DONE);
  DBclear(r);
}

// Rows of mixed cells across many storage blocks: the decoder keeps the open
// block's room to itself between blocks, so every cell must still be the
// one sent, also where a block ends inside a row.
TEST(Answer, ManyRowsAcrossStorageBlocks) {
  Answer a('2');
  const int rows = 20000;
  a.i32(3).i32(rows).column("NR", DBTYPE_INTEGER, 4).column("T", DBTYPE_CHARACTER, 40);
  a.column("ZEIT", DBTYPE_TIMESTAMP, 12);
  for (int i = 0; i < rows; ++i) {
    Bytes row = Answer('x').value(bin(int32_t(i))).value(text(std::string(i % 37, 'a') + "|" +
                                                               std::to_string(i)))
                    .value(stamp(2000 + i % 800, 1 + i % 12, 1 + i % 28, i % 24, i % 60, 7, i))
                    .b;
    a.b.insert(a.b.end(), row.begin() + 1, row.end());
  }
  int ok = 0;
  DBRESULT *r = decode(a.b, &ok);
  ASSERT_EQ(ok, 1);
  ASSERT_EQ(DBntuples(r), rows);
  for (int i = 0; i < rows; ++i) {
    ASSERT_EQ(DBgetvalue(r, i, 0), std::to_string(i));
    ASSERT_EQ(DBgetvalue(r, i, 1), std::string(i % 37, 'a') + "|" + std::to_string(i));
    DATI t;
    std::memcpy(&t, DBgetrawvalue(r, i, 2), sizeof t); // cells are unaligned
    ASSERT_EQ(t.year, 2000 + i % 800);
    ASSERT_EQ(t.usec, i);
  }
  DBclear(r);
}

// The message of a decoding that must fail; *rows gets the row count.
std::string failure(const Bytes &answer, int *rows = nullptr) {
  int ok = 1;
  DBRESULT *r = decode(answer, &ok);
  EXPECT_EQ(ok, 0);
  EXPECT_EQ(DBresult_status(r), DBRES_ERROR);
  std::string out = r->message;
  if (rows) *rows = DBntuples(r);
  DBclear(r);
  return out;
}

std::string missing(const std::string &what) {
  return "Syntax error: " + what + " expected (unexpected end of query)";
}

TEST(Answer, ShortAndMalformedAnswers) {
  const std::string no_text = "(DBreset) Result error message missing\n";
  EXPECT_EQ(failure(Bytes{}), missing("%s"));
  EXPECT_EQ(failure(Answer('0').b), no_text);
  EXPECT_EQ(failure(Answer('0').raw({'a', 2, 0, 'x', 0}).b), no_text);
  EXPECT_EQ(failure(Answer('0').raw({'b', 9, 0, 'x', 0}).b), no_text);
  EXPECT_EQ(failure(Answer('3').raw({1, 2}).b), missing("<integer value>"));
  EXPECT_EQ(failure(Answer('2').i32(1).b), missing("<integer value>"));
  EXPECT_EQ(failure(Answer('2').i32(1).i32(1).u16(5).raw({'A', 0}).b), missing("<name>"));
  EXPECT_EQ(failure(Answer('2').i32(1).i32(1).u16(2).raw({'A', 0}).b), missing("%s"));
  EXPECT_EQ(failure(Answer('2').i32(1).i32(1).u16(2).raw({'A', 0, '2', 4, 0}).b),
            missing("<integer value>"));
  // More columns announced than carried.
  EXPECT_EQ(failure(Answer('2').i32(1000000).i32(1).column("A", '2', 4).b), missing("<name>"));
  // More rows announced than carried: the complete rows stay readable.
  Answer rows('2');
  rows.i32(1).i32(2000000000).column("A", DBTYPE_INTEGER, 4);
  rows.value(bin(int32_t(1))).value(bin(int32_t(2))).u16(4).raw({1, 0});
  int complete = 0;
  EXPECT_EQ(failure(rows.b, &complete), missing("<string value>"));
  EXPECT_EQ(complete, 2);
  // Values shorter than their type read as zero-padded, never past the cell.
  // A binary value whose own length exceeds its cell is cut to the cell.
  EXPECT_EQ(column_cells(DBTYPE_FLOAT, {Bytes{}, bin(1.5)}), "0|1.5");
  EXPECT_EQ(column_cells(DBTYPE_SMALLINT, {Bytes{5}}), "5");
  EXPECT_EQ(column_cells(DBTYPE_BINARY, {Bytes{200, 0, 'a', 'b'}, Bytes{5}}), "ab|");
}

// Refused cells give an error result and the program goes on: a CHARACTER
// value without its zero byte keeps the rows before it; a result that passes
// the budget is dropped whole, and the next one is read as usual.
TEST(Answer, RefusedCellsGiveErrorResults) {
  Answer a('2');
  a.i32(1).i32(2).column("A", DBTYPE_CHARACTER, 4).value(text("ok")).value({'a', 'b', 'c'});
  int rows = 0;
  EXPECT_EQ(failure(a.b, &rows), "(RESDATA_Fill_Binary) String too long ('abc[...]')");
  EXPECT_EQ(rows, 1);

  // 3 000 rows of 1 000 bytes against a budget of 1 MB: the storage blocks
  // growing from 2 048 bytes to 200 000 take 258 cells until they are full
  // size, three more take 600, and a fourth passes the budget.
  Answer big('2');
  big.i32(1).i32(3000).column("T", DBTYPE_CHARACTER, 1000);
  Bytes cell = Answer('x').value(text(std::string(999, 'x'))).b;
  for (int i = 0; i < 3000; ++i) big.b.insert(big.b.end(), cell.begin() + 1, cell.end());
  DBset_result_budget(1000000);
  EXPECT_EQ(DBresult_budget(), 1000000u);
  int ok = 1;
  DBRESULT *r = decode(big.b, &ok);
  EXPECT_EQ(ok, 0);
  EXPECT_EQ(DBresult_status(r), DBRES_ERROR);
  EXPECT_STREQ(r->message, "result too large: 858 rows read, budget 1 MB");
  EXPECT_EQ(DBntuples(r), 0);
  EXPECT_LT(RESDATA_Memory(&r->data), 1000u); // only the column header is left
  DBclear(r);
  DBset_result_budget(0);
  EXPECT_GT(DBresult_budget(), 1000000u);
  r = decode(big.b, &ok);
  EXPECT_EQ(ok, 1);
  EXPECT_EQ(DBntuples(r), 3000);
  DBclear(r);
}

} // namespace
