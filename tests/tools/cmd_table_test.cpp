// tavrin table: a table saved from one database and loaded into another whose
// layout changed, all-or-nothing loads, and the failures a user meets.
#include "tools_testutil.h"

namespace {

using tooltest::Outcome;

class TavrinTable : public tooltest::WithServer {};

TEST_F(TavrinTable, SavesAndLoadsIntoAChangedLayout) {
  Outcome r =
      run("$T sql -dbdemo"
          " 'CREATE TABLE TT (TT_ID INTEGER, NAME CHARACTER(8), STAMP CHARACTER(27),"
          " CODE CHARACTER(6), ALT SMALLINT)'"
          " \"INSERT INTO TT VALUES (1, 'K\xc3\xa4se', '2003-07-12-10.30.00.000000', 'AB', 5)\""
          " \"INSERT INTO TT VALUES (2, 'Brot', '', 'X\\$Y', 6)\"");
  ASSERT_EQ(r.status, 0) << r.err;
  r = run("$T table save -dbdemo tt tt.tbl");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "2 rows of tt saved to tt.tbl\n");
  std::string file = tooltest::slurp(dir / "tt.tbl");
  std::string head = "00002,1,51|TT_ID,3,4,4|NAME,11,8,8|STAMP,11,27,16|CODE,11,6,43|ALT,2,2,49";
  ASSERT_EQ(file.size(), head.size() + 1 + 2 * 51);
  EXPECT_EQ(file.substr(0, head.size() + 1), head + std::string(1, '\0'));

  // The new layout: a wider name, the stamp as TIMESTAMP, the code as binary,
  // a new attribute; ALT is gone.
  r = run("$T sql 'CREATE TABLE TT (TT_ID INTEGER, NEU SMALLINT, NAME CHARACTER(20),"
          " STAMP TIMESTAMP, CODE BINARY(5))'");
  ASSERT_EQ(r.status, 0) << r.err;
  r = run("$T table load tt tt.tbl");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "2 rows loaded into tt\n");
  std::string row_warnings =
      "(TABLE_File_Load) Warning: Attribute 'NEU' not found!\n"
      "(TABLE_File_Load) Warning: Different sizes for attribute 'NAME' (20 vs. 8)!\n"
      "(TABLE_File_Load) Warning: Different types for attribute 'STAMP' 14 vs. 11!\n"
      "(TABLE_File_Load) Warning: Attribute 'CODE' has been converted from string to binary!\n";
  // The second row's warnings are the same: they are held back.
  EXPECT_EQ(r.err, row_warnings + "tavrin: 4 repeated messages of later rows not shown\n");
  r = run("$T sql --format csv 'SELECT * FROM TT ORDER BY TT_ID'");
  EXPECT_EQ(r.out, "TT_ID,NEU,NAME,STAMP,CODE\n1,,K\xc3\xa4se,,AB\n2,,Brot,,X$$Y\n");
}

TEST_F(TavrinTable, FailedLoadsAndSavesLeaveNothingBehind) {
  run("$T sql -dbdemo 'CREATE TABLE TD (TD_ID INTEGER)' 'INSERT INTO TD VALUES (1)'"
      " 'INSERT INTO TD VALUES (2)' 'INSERT INTO TD VALUES (1)'");
  ASSERT_EQ(run("$T table save -dbdemo td td.tbl").status, 0);
  run("$T sql 'CREATE TABLE TD (TD_ID INTEGER)' 'CREATE UNIQUE INDEX TD_PK ON TD (TD_ID)'");
  Outcome r = run("$T table load td td.tbl");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("(TABLE_File_Load) Error in table-insert!\n"), std::string::npos) << r.err;
  r = run("$T sql --format csv 'SELECT COUNT(*) FROM TD'");
  EXPECT_EQ(r.out, "COUNT(*)\n0\n");

  // Files and tables that are not there, and wrong command lines.
  r = run("$T table load td nix.tbl");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot read nix.tbl"), std::string::npos);
  r = run("echo hallo >bad.tbl; $T table load td bad.tbl");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("bad.tbl is not a TABLE file"), std::string::npos) << r.err;
  r = run("$T table save -dbdemo nixda x.tbl");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Tabelle NIXDA existiert nicht"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir / "x.tbl"));
  // A save that fails while writing (a file size limit stands in for a full
  // disk) leaves the file of the last save as it was.
  std::string saved = tooltest::slurp(dir / "td.tbl");
  r = run("trap '' XFSZ; ulimit -f 1; $T table save -dbdemo kunde td.tbl");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("(TABLE_File_Save) Error writing file!"), std::string::npos) << r.err;
  EXPECT_EQ(tooltest::slurp(dir / "td.tbl"), saved);
  EXPECT_EQ(run("$T table copy td x.tbl").status, 2);
  EXPECT_EQ(run("$T table save td").status, 2);
}

} // namespace
