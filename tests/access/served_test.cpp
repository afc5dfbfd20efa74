// The session layer against a real server: what the BEGIN stack sends, the
// outcomes of every statement helper, connection strings, re-opening a lost
// connection, error texts from ERROT with the ERR rows they write, and key
// directories that ask the database once.
#include <gmock/gmock.h>

#include "db/access/errtext.h"
#include "base/valstr.h"
#include "db/access/svz.h"
#include "db/client/exec.h"
#include "served_suite.h"

using namespace access_test;
using ::testing::StartsWith;

class Served : public ServedSuite<Served> {};

TEST_F(Served, OnlyTheOutermostBracketReachesTheServer) {
  size_t mark = server->log_size();
  EXPECT_EQ(dbbegin(s), 1);
  EXPECT_EQ(dbbegin(s), 1);
  EXPECT_EQ(dbcommit(s), 1); // depth 2: nothing
  EXPECT_EQ(dbend(s), 1);
  EXPECT_EQ(dbend(s), 1);
  EXPECT_EQ(server->count_log(": BEGIN", mark), 1);
  EXPECT_EQ(server->count_log(": COMMIT", mark), 1); // END travels as COMMIT

  // COMMIT and ABORT at depth 1 open the next transaction at once.
  ASSERT_EQ(dbbegin(s), 1);
  ASSERT_EQ(exec("INSERT INTO ARTIKEL (ARTIKEL_ID, BEZEICHNUNG) VALUES (8001, 'fest')"), 1);
  EXPECT_EQ(dbcommit(s), 1);
  EXPECT_EQ(db_depth(), 1);
  ASSERT_EQ(exec("INSERT INTO ARTIKEL (ARTIKEL_ID, BEZEICHNUNG) VALUES (8002, 'weg')"), 1);
  EXPECT_EQ(dbrollback(s), 1);
  EXPECT_EQ(db_depth(), 1);
  EXPECT_EQ(value("SELECT COUNT(*) FROM ARTIKEL WHERE ARTIKEL_ID > 8000"), "1");
  EXPECT_EQ(dbend(s), 1);
  EXPECT_EQ(server->count_log(": BEGIN", mark), 4);
  EXPECT_EQ(server->count_log(": ABORT", mark), 1);
  EXPECT_EQ(server->count_log(": COMMIT", mark), 3);

  // Underflow sends nothing.
  Capture cap;
  size_t mark2 = server->log_size();
  EXPECT_EQ(dbend(s), 1);
  EXPECT_EQ(cap.take(), "BEGIN-stack underflow (too many dbends).\n");
  EXPECT_EQ(dbbegin(s), 1);
  EXPECT_EQ(server->count_log(": BEGIN", mark2) + server->count_log(": COMMIT", mark2), 0);
  exec("DELETE FROM ARTIKEL WHERE ARTIKEL_ID > 8000");
}

TEST_F(Served, StatementHelpersReportTheirOutcomes) {
  Capture cap;
  DBRESULT *r = nullptr;
  int outcome = 0;
  int n = 0;
  EXPECT_EQ(dbexec1(s, "SELECT COUNT(*) FROM KUNDE", &r, &outcome), 1);
  EXPECT_EQ(outcome, DBOUT_TUPLES);
  EXPECT_EQ(dbfill_count(s, r, outcome, &n), 1);
  EXPECT_EQ(n, 600);
  dbclear(s, r);

  // The parser's refusal counts as done.
  EXPECT_EQ(dbexec1(s, "SELECT FROM", &r, &outcome), 1);
  EXPECT_EQ(outcome, DBOUT_REFUSED);
  EXPECT_THAT(cap.take(), StartsWith("NONFATAL ERROR occured in dbexec1 command.\nError: Syntax "));
  dbclear(s, r);
  // The server's refusal does not.
  EXPECT_EQ(dbexec1(s, "SELECT * FROM NIX", &r, &outcome), 0);
  EXPECT_EQ(outcome, DBOUT_OTHER);
  EXPECT_EQ(cap.take(), "BAD RESPONSE to dbexec1 command.\n"
                        "Error: (TAVRIN 301) Tabelle NIX existiert nicht\n");
  dbclear(s, r);
  EXPECT_EQ(dbexec(s, "SELECT", "* FROM NIX", &r, &outcome), 0);
  EXPECT_THAT(cap.take(), StartsWith("BAD RESPONSE to 'SELECT' command.\nError: "));
  dbclear(s, r);

  exec("CREATE TABLE PROBE (PROBE_ID INTEGER, NAME CHARACTER(20))");
  EXPECT_EQ(dbinsert(s, "probe", "(PROBE_ID, NAME) VALUES (1, 'eins')", &r, &outcome), 1);
  EXPECT_EQ(outcome, DBOUT_DONE);
  EXPECT_EQ(dbntuples(s, r), 1); // the count of the change
  dbclear(s, r);
  EXPECT_EQ(dbinsert(s, "probe", "VALUES (2, 'zwei')", nullptr, nullptr), 1);
  EXPECT_EQ(dbupdate(s, "probe", "NAME='neu' WHERE PROBE_ID=2", &r, &outcome), 1);
  dbclear(s, r);
  EXPECT_EQ(value("SELECT NAME FROM PROBE WHERE PROBE_ID = 2"), "neu");
  // A statement too long for the buffer is refused whole: cut, it could lose
  // its WHERE.
  std::string wide = "NAME='weg' WHERE PROBE_ID=2" + std::string(10000, ' ');
  EXPECT_EQ(dbupdate(s, "probe", wide.c_str(), &r, &outcome), 0);
  EXPECT_EQ(cap.take(), "UPDATE command failed:\n  Statement of 10044 characters is longer than "
                        "the limit of 9999\n");
  EXPECT_EQ(value("SELECT NAME FROM PROBE WHERE PROBE_ID = 2"), "neu");
  EXPECT_EQ(dbinsert(s, "probe", "(NIX) VALUES (1)", &r, &outcome), 0);
  EXPECT_THAT(cap.take(), StartsWith("BAD RESPONSE to INSERT command.\n"));
  dbclear(s, r);

  // Cursors.
  EXPECT_EQ(dbdeclare(s, "c1", "SELECT * FROM PROBE"), 1);
  // FETCH answers with the second kind of tuples, which dbexec1 does not take.
  DBRESULT *f = DBexec(s->connection, "FETCH ALL IN c1");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(DBresult_status(f), DBRES_TUPLES2);
  EXPECT_EQ(DBntuples(f), 2);
  DBclear(f);
  EXPECT_EQ(dbclosecursor(s, "c1"), 1);
  EXPECT_EQ(dbdeclare(s, "c2", "SELECT * FROM NIX"), 0);
  EXPECT_THAT(cap.take(),
              StartsWith("DECLARE CURSOR command failed (c2/SELECT * FROM NIX).\nError: ("));
  EXPECT_EQ(dbclosecursor(s, "c9"), 0);
  EXPECT_THAT(cap.take(), StartsWith("CLOSE CURSOR command failed c9.\nError:"));

  EXPECT_EQ(dbdelete(s, "probe", "PROBE_ID=1", &r, &outcome), 1);
  dbclear(s, r);
  EXPECT_EQ(dbdeleteall(s, "probe", &r, &outcome), 1);
  EXPECT_EQ(dbntuples(s, r), 1);
  dbclear(s, r);
  exec("DROP TABLE PROBE");
}

TEST_F(Served, ConnectionStringsAndALostConnection) {
  Capture cap;
  DBSESSION *t = nullptr;
  ASSERT_EQ(dbinit(&t, "anything/tdsys"), 1);
  EXPECT_STREQ(t->connection->database, "TDSYS");
  dbclose(t);
  EXPECT_EQ(dbinit(&t, "DBSQL/nixda"), 0);
  EXPECT_THAT(cap.take(), StartsWith("Connection to TAVRIN-database 'nixda' failed:\n  ("));

  // A connection that is gone: BEGIN opens it again and goes on.
  DBfinish(s->connection);
  s->connection->status = DBCONN_FAILED;
  EXPECT_EQ(dbstatus(s), 0);
  EXPECT_EQ(dbbegin(s), 1);
  EXPECT_EQ(dbstatus(s), 1);
  EXPECT_EQ(dbend(s), 1);
  DBfinish(s->connection);
  s->connection->status = DBCONN_FAILED;
  EXPECT_EQ(dbcheck(s), 1);
  EXPECT_EQ(value("SELECT COUNT(*) FROM KUNDE"), "600");

  // Without a server to come back to, the check ends the program.
  EXPECT_EXIT(
      {
        to_stderr();
        setenv("TAVRIN_NAMESPACE", "zqnowhere_", 1);
        s->connection->status = DBCONN_FAILED;
        dbcheck(s);
      },
      ::testing::ExitedWithCode(1), "Database-connection lost!");
}

TEST_F(Served, ErrorTextsArePrintedWithParametersAndLogged) {
  ASSERT_EQ(dbinit(&sys, "DBSQL/tdsys"), 1);
  ERROT e{sizeof(ERROT), "T9001", 9001, "D   ", "DATEI", "Datei $1 fehlt in $2"};
  ASSERT_EQ(ERROT_Do(sys, DB_INSERT, &e), 1);
  ERROT back{sizeof(ERROT), "T9001", 0, "", "", ""};
  ASSERT_EQ(ERROT_Do(sys, DB_SELECT, &back), 1);
  EXPECT_STREQ(back.Text, "Datei $1 fehlt in $2");
  EXPECT_EQ(back.Fehlernummer, 9001);

  BASECTX ctx;
  BASECTX_Init(&ctx, sys);
  Capture cap;
  ERRPARAM file = ERRPARAM_Text("kunden.txt");
  int16_t dir = 7;
  ERRPARAM where = ERRPARAM_Value(DT_SHORT, &dir);
  EXPECT_EQ(ERROR_Do(&ctx, 1, 9001, 2, &file, &where), 1);
  EXPECT_EQ(cap.take(), "Error 9001: Datei kunden.txt fehlt in 7\n");
  EXPECT_EQ(ERROR_Do(&ctx, 0, 9001, 1, &file), 1);
  EXPECT_EQ(cap.take(), "Warning 9001: Warning: Missing parameters (error-number '9001')!\n"
                        "Datei $1 fehlt in $2\n");
  EXPECT_EQ(ERROR_Do(&ctx, 1, 9999, 0), 1);
  EXPECT_EQ(cap.take(), "Error 9999: ERROT_Fill: None or more than one resulttuple!\n"
                        "Error: Error-message for error-number '9999' not found!\n");
  EXPECT_EQ(ctx.errors, 3);
  EXPECT_EQ(ERR_Internal(&ctx, "Platte voll"), 1);
  EXPECT_EQ(INFO_Internal(&ctx, "fertig"), 1);
  EXPECT_EQ(cap.take(), "ERR_Internal: 'Platte voll'!\nINFO_Internal: 'fertig'!\n");
  EXPECT_EQ(ctx.errors, 5);
  EXPECT_EQ(db_depth(), 0);

  std::string errs =
      std::string("SELECT COUNT(*) FROM ERR WHERE PROZESS_ID = '") + ctx.process_id + "' AND ";
  EXPECT_EQ(value(errs + "FEHLERCODE = 9001", sys), "2");
  EXPECT_EQ(value(errs + "FEHLERTEXT = 'Datei kunden.txt fehlt in 7'", sys), "1");
  EXPECT_EQ(value(errs + "FEHLERCODE = 9999", sys), "0");
  EXPECT_EQ(value(errs + "FEHLERCODE = 0 AND FEHLERTEXT LIKE '%_Internal:%'", sys), "2");
  ERROT_Do(sys, DB_DELETE, &e);
}

TEST_F(Served, KeyDirectoriesAskTheDatabaseOnce) {
  ASSERT_EQ(dbinit(&sys, "DBSQL/tdsys"), 1);
  SVZ_ClearCaches();
  Capture cap;
  char text[40], code[8];
  long q0 = SVZ_Queries();
  size_t mark = server->log_size();
  EXPECT_EQ(SVZ_GetText(sys, "FRAU", 1, text), 1);
  EXPECT_STREQ(text, "Frau");
  EXPECT_EQ(SVZ_Queries() - q0, 2); // heading and code
  EXPECT_NE(server->log().substr(mark).find("SVZK"), std::string::npos);
  size_t mark2 = server->log_size();
  EXPECT_EQ(SVZ_GetText(sys, "FRAU  ", 1, text), 1); // trailing blanks: the same entry
  EXPECT_STREQ(text, "Frau");
  EXPECT_EQ(SVZ_Queries() - q0, 2);
  // Only the BEGIN and END of the level reached the server.
  std::string since = server->log().substr(mark2);
  EXPECT_EQ(since.find("SVZK"), std::string::npos) << since;

  EXPECT_EQ(SVZ_GetText(sys, "XYZ", 1, text), 1);
  EXPECT_STREQ(text, "XYZ");
  EXPECT_EQ(cap.take(), "");
  EXPECT_EQ(SVZ_GetText(sys, "FRAU", 99, text), 1);
  EXPECT_STREQ(text, "????");
  EXPECT_EQ(cap.take(), "(SVZ_GetText) Warning: SVZ 99 not found!\n");
  EXPECT_EQ(SVZ_GetCode(sys, "Österreich", 2, code), 1);
  EXPECT_STREQ(code, "A");
  EXPECT_EQ(SVZ_GetCode(sys, "Atlantis", 2, code), 1);
  EXPECT_STREQ(code, "????");
  EXPECT_EQ(cap.take(), "(SVZ_GetText) Warning: SVZ-item in SVZ 2 for text 'Atlantis' not found\n");
  EXPECT_EQ(SVZ_GetCode(sys, "Herr", 98, code), 1);
  EXPECT_EQ(cap.take(), "(SVZ_GetText) Warning: SVZ 98 not found!\n");

  Hold_ValueStrings();
  EXPECT_STREQ(Make_KeyString(sys, "STK", 4), "Stück");
  EXPECT_STREQ(Make_KeyString(sys, "    ", 4), "");
  EXPECT_STREQ(Make_KeyString(sys, "", 4), "");
  EXPECT_STREQ(Make_KeyString(sys, "QQ", 4), "QQ");
  EXPECT_EQ(cap.take(), "(Make_KeyString) Warning: SVZ-text for code 'QQ' in svz 4 unknown!\n");
  Release_ValueStrings();
  EXPECT_EQ(db_depth(), 0);
}
