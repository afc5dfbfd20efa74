// tavrin sql as a user runs it: statements from arguments and from a pipe,
// the three output formats, counts of changes, transactions, failures and
// their exit statuses, the -db rules.
#include "tools_testutil.h"

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace {

using tooltest::Outcome;

class TavrinSql : public tooltest::WithServer {};

TEST_F(TavrinSql, PrintsRowsInEveryFormatAndCountsChanges) {
  EXPECT_EQ(run("$T sql -dbdemo 'CREATE TABLE S1 (S1_ID INTEGER, NAME CHARACTER(12), BETRAG FLOAT)'"
                " \"INSERT INTO S1 VALUES (1, 'J\xc3\xb6rg', 2.5)\""
                " \"INSERT INTO S1 (S1_ID, NAME) VALUES (22, 'a,\\\"b')\""
                " 'SELECT * FROM S1 ORDER BY S1_ID'"),
            (Outcome{0,
                     "done\n1 row changed\n1 row changed\n"
                     "S1_ID | NAME | BETRAG\n"
                     "------+------+-------\n"
                     "    1 | J\xc3\xb6rg |    2.5\n"
                     "   22 | a,\"b |\n"
                     "(2 rows)\n",
                     ""}));
  EXPECT_EQ(csv("SELECT S1_ID, NAME FROM S1 ORDER BY S1_ID"),
            "S1_ID,NAME\n1,J\xc3\xb6rg\n22,\"a,\"\"b\"\n");
  EXPECT_EQ(run("$T sql -dbdemo --format=tsv 'SELECT NAME, BETRAG FROM S1 ORDER BY S1_ID'"
                " 'UPDATE S1 SET BETRAG = 1 WHERE S1_ID > 0' 'DELETE FROM S1 WHERE S1_ID = 99'"),
            (Outcome{0, "NAME\tBETRAG\nJ\xc3\xb6rg\t2.5\na,\"b\t\n2 rows changed\n0 rows changed\n",
                     ""}));
}

TEST_F(TavrinSql, StandardInputDrivesATransactionStepByStep) {
  run("$T sql -dbdemo 'CREATE TABLE S2 (S2_ID INTEGER, D DATE)'");
  // The statements arrive one by one through a pipe that stays open: each
  // is run as soon as its line is there. Meanwhile `tavrin locks` shows the
  // lock held.
  Outcome r =
      run("mkfifo in.fifo && { $T sql -dbdemo <in.fifo >steps.txt 2>&1 & }"
          " && exec 3>in.fifo && printf 'BEGIN\\n\\nINSERT INTO S2 (S2_ID) VALUES (7)\\n' >&3"
          " && sleep 1 && cp steps.txt mid.txt"
          " && $T sql -dbdemo --format csv 'SELECT COUNT(*) FROM S2' >other.txt"
          " && $T locks >locks.txt"
          " && printf 'COMMIT\\n' >&3 && exec 3>&- && wait");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(tooltest::slurp(dir / "mid.txt"), "done\n1 row changed\n");
  EXPECT_EQ(tooltest::slurp(dir / "other.txt"), "COUNT(*)\n0\n"); // not committed yet
  EXPECT_NE(tooltest::slurp(dir / "locks.txt").find("\nholds  DEMO "), std::string::npos);
  EXPECT_EQ(tooltest::slurp(dir / "steps.txt"), "done\n1 row changed\ndone\n");
  EXPECT_EQ(csv("SELECT * FROM S2"), "S2_ID,D\n7,\n") << "a date left out is shown empty";
}

TEST_F(TavrinSql, SemicolonsSeparateStatementsThatRunInOrderUntilOneFails) {
  run("$T sql -dbdemo 'CREATE TABLE S4 (S4_ID INTEGER, T CHARACTER(10))'");
  size_t mark = server->log_size();
  // Both deletes run (once only the first did); ";" in a literal and an
  // empty statement between two ";" separate nothing, and the empty one is
  // not sent as a COMMIT. The failing insert ends the run.
  Outcome r =
      run("printf \"INSERT INTO S4 VALUES (1, 'a;b');; INSERT INTO S4 VALUES (2, 'O''N');\\n"
          "DELETE FROM S4 WHERE S4_ID = 1; DELETE FROM S4 WHERE S4_ID = 2; "
          "INSERT INTO NIX VALUES (1); INSERT INTO S4 VALUES (3, 'c')\\n"
          "INSERT INTO S4 VALUES (4, 'd')\\n\" | $T sql -dbdemo");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "1 row changed\n1 row changed\n1 row changed\n1 row changed\n");
  EXPECT_EQ(server->count_log(": COMMIT", mark), 0) << server->log();
  EXPECT_EQ(csv("SELECT COUNT(*) FROM S4"), "COUNT(*)\n0\n");
}

TEST_F(TavrinSql, OneTransactionIsAllOrNothing) {
  run("$T sql -dbdemo 'CREATE TABLE S3 (S3_ID INTEGER)'");
  size_t mark = server->log_size();
  EXPECT_EQ(run("$T sql -dbdemo -1 'INSERT INTO S3 VALUES (1)' 'INSERT INTO S3 VALUES (2)'"),
            (Outcome{0, "1 row changed\n1 row changed\n", ""}));
  EXPECT_EQ(server->count_log(": BEGIN", mark), 1);
  EXPECT_TRUE(exits("$T sql -dbdemo -1 'INSERT INTO S3 VALUES (3)' 'INSERT INTO NIX VALUES (1)'"
                    " 'INSERT INTO S3 VALUES (4)'",
                    1, "BAD RESPONSE to dbexec1 command.\nError: (TAVRIN 301)"));
  EXPECT_EQ(csv("SELECT COUNT(*) FROM S3"), "COUNT(*)\n2\n");
}

TEST_F(TavrinSql, FailuresSetTheExitStatusAndTheDbRulesHold) {
  // A statement the parser refuses is reported, counts as failed here and
  // ends the run: the statements after it do not run. A statement too long
  // for the session layer is refused, never cut. Without -db the database is
  // tdsys; DBSYS goes in front of the name; the last -db wins.
  const std::pair<std::string, Outcome> cases[] = {
      {"$T sql -dbdemo 'SELEC 1' 'SELECT COUNT(*) FROM KUNDE'",
       {1, "",
        "NONFATAL ERROR occured in dbexec1 command.\n"
        "Error: (DBexec) Syntax error: SQL-command SELEC not known\n"}},
      {"$T sql -dbdemo \"UPDATE KUNDE SET ORT = '" + std::string(9980, 'x') +
           "' WHERE KUNDE_ID = 1\"",
       {1, "",
        "dbexec1 command failed:\n  Statement of 10024 characters is longer than the "
        "limit of 9999\n"}},
      {"$T sql -dbdemo 'SELECT * FROM NIX'",
       {1, "",
        "BAD RESPONSE to dbexec1 command.\nError: (TAVRIN 301) Tabelle NIX existiert nicht\n"}},
      {"$T sql --format csv 'SELECT COUNT(*) FROM ERROT WHERE FEHLERNUMMER = 301'",
       {0, "COUNT(*)\n1\n", ""}},
      {"DBSYS=DBSQL $T sql -dbtdsys -dbdemo --format csv 'SELECT COUNT(*) FROM KUNDE'",
       {0, "COUNT(*)\n600\n", ""}},
      {"$T sql -dbnixda 'SELECT 1'",
       {1, "",
        "Connection to TAVRIN-database 'nixda' failed:\n"
        "  (TAVRIN 202) Datenbank NIXDA existiert nicht\n"}},
      {"$T sql -dbABCDEFGHIJKLMNOPQRST 'SELECT 1'",
       {1, "", "(ARGV_GetDB_Name) DB-name ABCDEFGHIJKLMNOPQRST is too long (max. 19)\n"}},
  };
  for (const auto &[line, want] : cases) EXPECT_EQ(run(line), want) << line;
  EXPECT_TRUE(exits("$T sql --format xml 'SELECT 1'", 2, "unknown format 'xml'"));
}

// Ctrl-C stops the running statement: it fails with the server's error 515
// and the run ends with status 1. A second Ctrl-C while it still waits (the
// server is held still, so the cancel cannot be answered) ends the program
// at once, by the signal.
TEST_F(TavrinSql, CtrlCStopsTheRunningStatementAndTwiceEndsTheProgram) {
  std::string rows;
  for (int i = 1; i <= 7; ++i) rows += " 'INSERT INTO S9 VALUES (" + std::to_string(i) + ")'";
  ASSERT_EQ(run("$T sql -dbdemo 'CREATE TABLE S9 (S9_ID INTEGER)'" + rows).status, 0);
  std::string join = "SELECT COUNT(*) FROM S9 A";
  for (char t = 'B'; t <= 'L'; ++t) join += std::string(", S9 ") + t;
  auto interrupted = [&](const std::string &kills) {
    return "$T sql -dbdemo '" + join + "' & p=$!; sleep 1; " + kills + "; wait $p";
  };
  EXPECT_TRUE(exits(interrupted("kill -INT $p"), 1, "(TAVRIN 515)"));
  std::string srv = std::to_string(server->pid());
  Outcome r = run(interrupted("kill -STOP " + srv + "; kill -INT $p; sleep 0.3; kill -INT $p"));
  kill(server->pid(), SIGCONT);
  EXPECT_EQ(r.status, 128 + SIGINT) << r.err;
  EXPECT_EQ(csv("SELECT COUNT(*) FROM S9"), "COUNT(*)\n7\n");
}

// SELECTs stream through a cursor: the first rows are out while the cursor
// is still open; every format gets every row (the table also past the rows
// that fix its widths); a MAX of the user still limits the rows and is set
// back after each stream.
TEST_F(TavrinSql, SelectsStreamTheirRowsInEveryFormat) {
  // 600 x 100 = 60 000 rows: the first block and one far larger than a pipe.
  const std::string big = "SELECT A.KUNDE_ID, B.AUFTRAG_ID FROM KUNDE A, AUFTRAG B "
                          "WHERE B.AUFTRAG_ID <= 100 ORDER BY A.KUNDE_ID, B.AUFTRAG_ID";
  size_t mark = server->log_size();
  FILE *p = popen(("'" + exe + "' sql -dbdemo --format csv '" + big + "'").c_str(), "r");
  ASSERT_NE(p, nullptr);
  char line[100] = "";
  ASSERT_NE(std::fgets(line, sizeof line, p), nullptr);
  ASSERT_NE(std::fgets(line, sizeof line, p), nullptr);
  EXPECT_STREQ(line, "1,1\n");
  EXPECT_EQ(server->count_log("CLOSE TAVRIN_STREAM", mark), 0); // not at the end yet
  long lines = 2;
  while (std::fgets(line, sizeof line, p)) ++lines;
  EXPECT_STREQ(line, "600,100\n");
  EXPECT_EQ(pclose(p), 0);
  EXPECT_EQ(lines, 60001);
  EXPECT_EQ(server->count_log("CLOSE TAVRIN_STREAM", mark), 1);

  // 1 200 rows as a table: the widths come from the first 1 000.
  const std::string rows = "SELECT AUFTRAG_ID, KUNDE_ID FROM AUFTRAG WHERE AUFTRAG_ID <= 1200 "
                           "ORDER BY AUFTRAG_ID";
  Outcome r = run("$T sql -dbdemo '" + rows + "'");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, 47), "AUFTRAG_ID | KUNDE_ID\n-----------+---------\n   ");
  EXPECT_NE(r.out.find("\n      1200 | "), std::string::npos);
  EXPECT_EQ(r.out.substr(r.out.size() - 12), "(1200 rows)\n");
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1203);
  r = run("$T sql -dbdemo --format tsv '" + rows + "' | sed -n '1p;2p;1201p'");
  EXPECT_EQ(r.out.substr(0, 20), "AUFTRAG_ID\tKUNDE_ID\n");
  EXPECT_EQ(r.out.substr(20, 2), "1\t");
  EXPECT_EQ(r.out.substr(r.out.rfind('\n', r.out.size() - 2) + 1, 5), "1200\t");

  r = run("printf 'MAX 3\\n%s\\n%s\\nMAX\\n%s\\n' '" + rows + "' '" + rows + "' '" + rows +
          " ' | $T sql -dbdemo --format csv | cut -d, -f1 | tr '\\n' ' '");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, 44), "AUFTRAG_ID 1 2 3 AUFTRAG_ID 1 2 3 AUFTRAG_ID");
  EXPECT_EQ(r.out.substr(r.out.size() - 10), "1199 1200 ");
}

class TavrinPing : public tooltest::WithServer {};

} // namespace
