// A test suite against one real server for all its tests: the server starts
// before the suite's first test and ends after its last; each test gets a
// session `s` on the database "demo". Tests are skipped when no server can
// run.
#pragma once

#include "access_testutil.h"
#include "tests/tavrind_fixture.h"

namespace access_test {

// Derived is the suite itself, so that every suite has its own server.
template <typename Derived> class ServedSuite : public ::testing::Test {
protected:
  static inline tavrind_fixture::Server *server = nullptr;
  DBSESSION *s = nullptr;
  // The system database, for the tests that open it (a process has one
  // connection: opening it drops the one to "demo"); closed after each test.
  DBSESSION *sys = nullptr;

  static void SetUpTestSuite() {
    server = new tavrind_fixture::Server;
    if (!server->start()) {
      std::fprintf(stderr, "no server: %s\n", server->why().c_str());
      delete std::exchange(server, nullptr);
    }
  }
  static void TearDownTestSuite() { delete std::exchange(server, nullptr); }
  void SetUp() override {
    if (!server) GTEST_SKIP() << "no TAVRIN server could be started";
    setenv("TAVRIN_NAMESPACE", server->ns().c_str(), 1);
    db_reset_depth_for_test();
    ASSERT_EQ(dbinit(&s, "DBSQL/demo"), 1);
  }
  void TearDown() override {
    dbclose(sys);
    dbclose(s);
  }

  // Runs sql on `on` (the session `s` when null); dbntuples of its result:
  // the rows it found or changed.
  int exec(const std::string &sql, DBSESSION *on = nullptr) {
    DBRESULT *r = nullptr;
    int outcome = 0;
    dbexec1(on ? on : s, sql.c_str(), &r, &outcome);
    int n = dbntuples(s, r);
    dbclear(s, r);
    return n;
  }
  // The first value of a query's only row, "" when there is none.
  std::string value(const std::string &sql, DBSESSION *on = nullptr) {
    DBRESULT *r = nullptr;
    int outcome = 0;
    dbexec1(on ? on : s, sql.c_str(), &r, &outcome);
    std::string v = r && DBntuples(r) > 0 && DBgetvalue(r, 0, 0) ? DBgetvalue(r, 0, 0) : "";
    dbclear(s, r);
    return v;
  }
};

} // namespace access_test
