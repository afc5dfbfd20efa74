// Helpers of the tavrin tests: running the built program as a user does, in a
// scratch folder, with its exit status, standard output and standard error
// captured; and a real TAVRIN server shared by the tests of one suite.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/tavrind_fixture.h"

namespace tooltest {

struct Outcome {
  int status;
  std::string out, err;
  bool operator==(const Outcome &) const = default;
};
inline std::ostream &operator<<(std::ostream &o, const Outcome &r) {
  return o << "status " << r.status << "\nout: " << r.out << "\nerr: " << r.err;
}

inline constexpr auto &slurp = scratch::read_file;
inline constexpr auto &spill = scratch::write_file;

// A scratch folder per test and the built tavrin.
class InScratch : public ::testing::Test {
protected:
  scratch::ScratchDir scratch_dir{"tavrin_test", false};
  std::filesystem::path dir = scratch_dir.path();
  std::string exe;

  void SetUp() override {
    const char *build = std::getenv("ZENTIQ_BUILD_DIR");
    ASSERT_NE(build, nullptr) << "ZENTIQ_BUILD_DIR is set by the test environment";
    exe = std::string(build) + "/tools/tavrin";
    ASSERT_TRUE(std::filesystem::exists(exe)) << exe;
  }

  // Runs a shell command line in the scratch folder in which "T" stands for
  // tavrin; the captures are hidden files there.
  Outcome run(const std::string &line) {
    std::string out = (dir / ".out").string(), err = (dir / ".err").string();
    std::string cmd = "cd '" + dir.string() + "' && T='" + exe + "' && { " + line + "; } >'" + out +
                      "' 2>'" + err + "'";
    int rc = std::system(cmd.c_str());
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(out), slurp(err)};
  }
  // Whether `line` ends with `status` and its standard error holds `says`.
  ::testing::AssertionResult exits(const std::string &line, int status,
                                   const std::string &says = "") {
    Outcome r = run(line);
    if (r.status == status && r.err.find(says) != std::string::npos)
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << line << " -> " << r;
  }
};

// The scratch folder with a server for the whole suite.
class WithServer : public InScratch {
protected:
  static inline std::unique_ptr<tavrind_fixture::Server> server;
  static inline bool up = false;

  static void SetUpTestSuite() {
    server = std::make_unique<tavrind_fixture::Server>();
    up = server->start();
  }
  static void TearDownTestSuite() { server.reset(); }
  void SetUp() override {
    if (!up) GTEST_SKIP() << "no TAVRIN server: " << server->why();
    setenv("TAVRIN_NAMESPACE", server->ns().c_str(), 1);
    unsetenv("DBSYS");
    InScratch::SetUp();
  }
  // What `tavrin sql --format csv` prints for one statement on database db.
  std::string csv(const std::string &sql, const std::string &db = "demo") {
    return run("$T sql -db" + db + " --format csv '" + sql + "'").out;
  }
};

} // namespace tooltest
