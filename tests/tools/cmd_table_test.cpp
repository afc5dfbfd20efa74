// tavrin table: a table saved from one database and loaded into another whose
// layout changed, all-or-nothing loads, and the failures a user meets.
#include "tools_testutil.h"

namespace {

using tooltest::Outcome;

class TavrinTable : public tooltest::WithServer {};

TEST_F(TavrinTable, SavesAndLoadsIntoAChangedLayout) {
  ASSERT_TRUE(
      exits("$T sql -dbdemo"
            " 'CREATE TABLE TT (TT_ID INTEGER, NAME CHARACTER(8), STAMP CHARACTER(27),"
            " CODE CHARACTER(6), ALT SMALLINT)'"
            " \"INSERT INTO TT VALUES (1, 'K\xc3\xa4se', '2003-07-12-10.30.00.000000', 'AB', 5)\""
            " \"INSERT INTO TT VALUES (2, 'Brot', '', 'X\\$Y', 6)\"",
            0));
  EXPECT_EQ(run("$T table save -dbdemo tt tt.tbl"),
            (Outcome{0, "2 rows of tt saved to tt.tbl\n", ""}));
  std::string file = tooltest::slurp(dir / "tt.tbl");
  std::string head = "00002,1,51|TT_ID,3,4,4|NAME,11,8,8|STAMP,11,27,16|CODE,11,6,43|ALT,2,2,49";
  ASSERT_EQ(file.size(), head.size() + 1 + 2 * 51);
  EXPECT_EQ(file.substr(0, head.size() + 1), head + std::string(1, '\0'));

  // The new layout: a wider name, the stamp as TIMESTAMP, the code as binary,
  // a new attribute; ALT is gone.
  ASSERT_TRUE(exits("$T sql 'CREATE TABLE TT (TT_ID INTEGER, NEU SMALLINT, NAME CHARACTER(20),"
                    " STAMP TIMESTAMP, CODE BINARY(5))'",
                    0));
  // The second row's warnings are the same as the first's: they are held back.
  EXPECT_EQ(run("$T table load tt tt.tbl"),
            (Outcome{0, "2 rows loaded into tt\n",
                     "(TABLE_File_Load) Warning: Attribute 'NEU' not found!\n"
                     "(TABLE_File_Load) Warning: Different sizes for attribute 'NAME' (20 vs. 8)!\n"
                     "(TABLE_File_Load) Warning: Different types for attribute 'STAMP' 14 vs. 11!\n"
                     "(TABLE_File_Load) Warning: Attribute 'CODE' has been converted from string "
                     "to binary!\n"
                     "tavrin: 4 repeated messages of later rows not shown\n"}));
  EXPECT_EQ(csv("SELECT * FROM TT ORDER BY TT_ID", "tdsys"),
            "TT_ID,NEU,NAME,STAMP,CODE\n1,,K\xc3\xa4se,,AB\n2,,Brot,,X$$Y\n");
}

TEST_F(TavrinTable, FailedLoadsAndSavesLeaveNothingBehind) {
  run("$T sql -dbdemo 'CREATE TABLE TD (TD_ID INTEGER)' 'INSERT INTO TD VALUES (1)'"
      " 'INSERT INTO TD VALUES (2)' 'INSERT INTO TD VALUES (1)'");
  ASSERT_EQ(run("$T table save -dbdemo td td.tbl").status, 0);
  run("$T sql 'CREATE TABLE TD (TD_ID INTEGER)' 'CREATE UNIQUE INDEX TD_PK ON TD (TD_ID)'");
  EXPECT_TRUE(exits("$T table load td td.tbl", 1, "(TABLE_File_Load) Error in table-insert!\n"));
  EXPECT_EQ(csv("SELECT COUNT(*) FROM TD", "tdsys"), "COUNT(*)\n0\n");

  // Files and tables that are not there, and wrong command lines.
  EXPECT_TRUE(exits("$T table load td nix.tbl", 1, "cannot read nix.tbl"));
  EXPECT_TRUE(
      exits("echo hallo >bad.tbl; $T table load td bad.tbl", 1, "bad.tbl is not a TABLE file"));
  EXPECT_TRUE(exits("$T table save -dbdemo nixda x.tbl", 1, "Tabelle NIXDA existiert nicht"));
  EXPECT_FALSE(std::filesystem::exists(dir / "x.tbl"));
  // A save that fails while writing (a file size limit stands in for a full
  // disk) leaves the file of the last save as it was.
  std::string saved = tooltest::slurp(dir / "td.tbl");
  EXPECT_TRUE(exits("trap '' XFSZ; ulimit -f 1; $T table save -dbdemo kunde td.tbl", 1,
                    "(TABLE_File_Save) Error writing file!"));
  EXPECT_EQ(tooltest::slurp(dir / "td.tbl"), saved);
  EXPECT_EQ(run("$T table copy td x.tbl").status, 2);
  EXPECT_EQ(run("$T table save td").status, 2);
}

} // namespace
