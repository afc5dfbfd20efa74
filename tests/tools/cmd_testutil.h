// Helpers of the tests of tavrin's database commands: a real TAVRIN server
// for the whole suite and running tavrin as a user does, in a scratch folder,
// with its standard output and standard error captured.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/access/tavrind_fixture.h"

namespace cmdtest {

struct Outcome {
  int status;
  std::string out, err;
};

inline std::string slurp(const std::string &p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// A server shared by the tests of one suite, and a scratch folder per test.
class WithServer : public ::testing::Test {
protected:
  static inline tavrind_fixture::Server *server = nullptr;
  static inline std::string why;
  std::filesystem::path dir;
  std::string exe;

  static void SetUpTestSuite() {
    server = new tavrind_fixture::Server;
    if (!server->start(why)) {
      delete server;
      server = nullptr;
    }
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }
  void SetUp() override {
    if (!server) GTEST_SKIP() << "no TAVRIN server: " << why;
    setenv("TAVRIN_NAMESPACE", server->ns().c_str(), 1);
    unsetenv("DBSYS");
    const char *build = std::getenv("ZENTIQ_BUILD_DIR");
    ASSERT_NE(build, nullptr) << "ZENTIQ_BUILD_DIR is set by ctest";
    exe = std::string(build) + "/tools/tavrin";
    char tmpl[] = "/tmp/tavrin_cmd_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  void TearDown() override {
    if (!dir.empty()) std::filesystem::remove_all(dir);
  }

  // Runs a shell command line in the scratch folder in which "T" stands for
  // tavrin.
  Outcome run(const std::string &line) {
    std::string out = (dir / "out.txt").string(), err = (dir / "err.txt").string();
    std::string cmd = "cd '" + dir.string() + "' && T='" + exe + "' && { " + line + "; } >'" + out +
                      "' 2>'" + err + "'";
    int rc = std::system(cmd.c_str());
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(out), slurp(err)};
  }
};

} // namespace cmdtest
