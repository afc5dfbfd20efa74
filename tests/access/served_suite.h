// A test suite against one real server for all its tests: the server starts
// before the suite's first test and ends after its last; each test gets a
// session `s` on the database "demo". Tests are skipped when no server can
// run.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <utility>

#include "db/access/session.h"
#include "tavrind_fixture.h"

namespace access_test {

// Derived is the suite itself, so that every suite has its own server.
template <typename Derived> class ServedSuite : public ::testing::Test {
protected:
  static inline tavrind_fixture::Server *server = nullptr;
  DBSESSION *s = nullptr;

  static void SetUpTestSuite() {
    server = new tavrind_fixture::Server;
    if (std::string why; !server->start(why)) {
      std::fprintf(stderr, "no server: %s\n", why.c_str());
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
  void TearDown() override { dbclose(s); }
};

} // namespace access_test
