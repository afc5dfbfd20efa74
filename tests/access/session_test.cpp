// The session layer without a server: database names from the command line
// and connection strings, the BEGIN-stack bookkeeping, disabled sessions,
// outcomes and one-value queries on results built by hand.
#include "db/access/session.h"

#include <csignal>
#include <cstring>

#include "access_testutil.h"
#include "db/access/dbcache.h"
#include "db/client/transport.h"

namespace {

using namespace access_test;

TEST(ArgvDbNameDeathTest, DefaultsLastArgumentWinsAndTheLengthLimit) {
  char name[DBSESSION_NAME_MAX + 1];
  char prog[] = "program", a[] = "-dbKUNDEN", b[] = "-x", c[] = "-dbartikel", d[] = "xx-dbNO";
  char *argv[] = {prog, a, b, c, d};
  auto name_of = [&](char **args, int n, const char *before) {
    std::strcpy(name, before);
    ARGV_GetDB_Name(args, n, name);
    return std::string(name);
  };
  EXPECT_EQ(name_of(argv, 1, ""), "tdsys");
  db_set_default_name("demo");
  EXPECT_EQ(name_of(argv, 1, "-"), "demo");
  db_set_default_name("");
  EXPECT_EQ(name_of(argv, 5, "-"), "artikel");
  char *only_prog[] = {a}; // argv[0] is never looked at
  EXPECT_EQ(name_of(only_prog, 1, "x"), "tdsys");

  char ok19[] = "-dbABCDEFGHIJKLMNOPQRS", long20[] = "-dbABCDEFGHIJKLMNOPQRST";
  char *argv19[] = {prog, ok19}, *argv20[] = {prog, long20};
  EXPECT_EQ(name_of(argv19, 2, ""), "ABCDEFGHIJKLMNOPQRS");
  EXPECT_FATAL(ARGV_GetDB_Name(argv20, 2, name),
               "\\(ARGV_GetDB_Name\\) DB-name ABCDEFGHIJKLMNOPQRST is too long \\(max. 19\\)");
}

TEST(DisabledSession, BeginStackDepthsAndStatementsThatSendNothing) {
  ScratchDir dir;
  DBSESSION s;
  s.disabled = 1;
  db_reset_depth_for_test();
  Capture cap;
  long before = db_statements_sent_for_test();
  EXPECT_EQ(dbbegin(&s), 1);
  EXPECT_EQ(dbrollback(&s), 1); // depth 1: a new transaction, the depth stays
  EXPECT_EQ(dbend(&s), 1);
  EXPECT_EQ(cap.take(), "");
  EXPECT_EQ(db_depth(), 0);

  dbcache_read();
  dbcache_setbaseline("LAUF");
  DBRESULT *res = reinterpret_cast<DBRESULT *>(1);
  int outcome = -1;
  EXPECT_EQ(dbinsert(&s, "kunde", "VALUES (1)", &res, &outcome), 1);
  EXPECT_EQ(res, nullptr);
  EXPECT_EQ(outcome, DBOUT_OTHER);
  EXPECT_EQ(dbupdate(&s, "artikel", "A=1", &res, &outcome), 1);
  EXPECT_EQ(dbdelete(&s, "auftrag", "A=1", &res, &outcome), 1);
  EXPECT_EQ(dbdeleteall(&s, "kunde", &res, &outcome), 1);
  EXPECT_EQ(dbexec(&s, "SELECT", "* FROM x", &res, &outcome), 1);
  EXPECT_EQ(dbexec1(&s, "SELECT * FROM x", &res, &outcome), 1);
  EXPECT_EQ(dbbinexec1(&s, &res, &outcome), 1);
  EXPECT_EQ(dbdeclare(&s, "c", "SELECT * FROM x"), 1);
  EXPECT_EQ(dbclosecursor(&s, "c"), 1);
  EXPECT_EQ(db_statements_sent_for_test(), before);
  // The change helpers record their tables even so.
  EXPECT_EQ(dbcache_count(), 3);
  EXPECT_EQ(dbcache_contains("AUFTRAG"), 1);
  dbcache_setbaseline("");

  // Results are neither read nor written.
  int n = 7;
  char text[10] = "keep";
  EXPECT_EQ(dbfill_count(&s, nullptr, DBOUT_OTHER, &n), 1);
  EXPECT_EQ(dbfill_string(&s, nullptr, DBOUT_OTHER, text, sizeof text), 1);
  EXPECT_EQ(n, 7);
  EXPECT_STREQ(text, "keep");
  DBRESULT *real = DBresult_new();
  RESDATA_Header_Data(&real->data, "N", DBTYPE_CHARACTER, 10);
  RESDATA_Fill(&real->data, "x");
  EXPECT_EQ(dbresultstatus(&s, real), DBOUT_OTHER);
  EXPECT_EQ(dbntuples(&s, real), -1);
  EXPECT_EQ(dbgetvalue(&s, real, 0, 0), nullptr);
  DBclear(real);
}

TEST(Results, OutcomesOfEveryStatusAndOneValueQueries) {
  DBSESSION s; // enabled, never connected: only results are looked at
  auto result_with = [](int status, std::initializer_list<const char *> rows) {
    DBRESULT *res = DBresult_new();
    res->status = status;
    RESDATA_Header_Data(&res->data, "COUNT", DBTYPE_CHARACTER, 20);
    for (const char *v : rows) RESDATA_Fill(&res->data, v);
    return res;
  };
  const std::pair<int, int> map[] = {
      {DBRES_DONE, DBOUT_DONE},          {DBRES_TUPLES, DBOUT_TUPLES},
      {DBRES_TUPLES2, DBOUT_OTHER},      {DBRES_ERROR, DBOUT_OTHER},
      {DBRES_SYNTAX, DBOUT_REFUSED},     {0, DBOUT_NONE},
      {DBRES_TRANSPORT, DBOUT_TRANSPORT}};
  for (auto [status, outcome] : map) {
    DBRESULT *r = result_with(status, {});
    EXPECT_EQ(dbresultstatus(&s, r), outcome) << status;
    DBclear(r);
  }
  EXPECT_EQ(dbresultstatus(&s, nullptr), DBOUT_NONE);

  Capture cap;
  int n = -1;
  char text[8];
  DBRESULT *one = result_with(DBRES_TUPLES, {"42"});
  EXPECT_EQ(dbfill_count(&s, one, DBOUT_TUPLES, &n), 1);
  EXPECT_EQ(n, 42);
  EXPECT_EQ(dbfill_string(&s, one, DBOUT_TUPLES, text, sizeof text), 1);
  EXPECT_STREQ(text, "42");
  EXPECT_EQ(dbfill_count(&s, one, DBOUT_DONE, &n), 0);
  EXPECT_EQ(cap.take(), "(dbfill_count) Status is not MYDB_TUPLES_OK!\n");
  DBRESULT *two = result_with(DBRES_TUPLES, {"1", "2"});
  EXPECT_EQ(dbfill_string(&s, two, DBOUT_TUPLES, text, sizeof text), 0);
  EXPECT_EQ(cap.take(), "(dbfill_string) More than one resulttuple!\n");
  DBRESULT *none = result_with(DBRES_TUPLES, {});
  EXPECT_EQ(dbfill_count(&s, none, DBOUT_TUPLES, &n), 0);
  EXPECT_EQ(cap.take(), "");
  EXPECT_EQ(dbntuples(&s, none), 0);
  for (DBRESULT *r : {one, two, none}) DBclear(r);
  EXPECT_EQ(dbgetlength(&s, nullptr, 0, 0), -1);
  EXPECT_EQ(cap.take(), "(dbgetlength) Not yet implemented\n");
}

TEST(DbinitDeathTest, WithoutAServerPrintsTheConnectionFailure) {
  std::string ns = "zqnone" + std::to_string(getpid()) + "_"; // no server runs there
  setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
  Capture cap;
  DBSESSION *s = reinterpret_cast<DBSESSION *>(1);
  EXPECT_EQ(dbinit(&s, "DBSQL/"), 0); // the default name, empty
  EXPECT_EQ(s, nullptr);
  EXPECT_NE(cap.take().find("Connection to TAVRIN-database failed:\n  "), std::string::npos);
  setenv("DBSYS", "DBSQL", 1);
  EXPECT_EQ(DB_Init(&s, "artikel"), 0);
  EXPECT_NE(cap.take().find("'artikel' failed"), std::string::npos);
  unsetenv("DBSYS");
  unsetenv("TAVRIN_NAMESPACE");
  EXPECT_EQ(dbstatus(nullptr), 0);

  // DB_Init installs signal handlers that stop through the fatal path, even
  // when the connection fails.
  EXPECT_EXIT(
      {
        to_stderr();
        msg_at_fatal([] { std::fputs("[clean-up]", stderr); });
        setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
        DB_Init(&s, "demo");
        std::raise(SIGTERM);
      },
      ::testing::ExitedWithCode(1), "Program stopped by signal 15.\n\\[clean-up\\]");
}

} // namespace
