// tavrin ping with and without a server.
#include "cmd_testutil.h"

namespace {

using cmdtest::Outcome;

class TavrinPing : public cmdtest::WithServer {};

TEST_F(TavrinPing, AnswersWithTimeAndDatabasesOrTheConnectionMessage) {
  Outcome r = run("$T ping");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("TAVRIN server on database TDSYS answered in ", 0), 0u) << r.out;
  EXPECT_NE(r.out.find(" ms\nDatabases: DEMO TDSYS\n"), std::string::npos) << r.out;
  EXPECT_EQ(run("$T ping -dbdemo").status, 0);

  r = run("TAVRIN_NAMESPACE=zqnoserver_ $T ping");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Connection to TAVRIN-database 'tdsys' failed:\n  "), std::string::npos)
      << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(run("$T ping extra").status, 2);
}

} // namespace
