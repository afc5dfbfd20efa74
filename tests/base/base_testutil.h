// Helpers of the base and session-layer tests: collecting the printed
// messages, death tests that see the messages of the dying child (EXPECT_EXIT
// matches stderr only), a scratch directory as the current directory, and
// whole-file reads and writes.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "base/msg.h"
#include "tests/msg_capture.h"

namespace base_test {

using testmsg::Capture;

inline void to_stderr() {
  msg_set_handler([](const char *t) { std::fputs(t, stderr); });
}

// Makes a fresh temporary directory the current directory while it lives.
class ScratchDir {
public:
  ScratchDir() {
    char tmpl[] = "/tmp/zentiq_test_XXXXXX";
    dir_ = mkdtemp(tmpl);
    old_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
  }
  ~ScratchDir() {
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(dir_);
  }

private:
  std::filesystem::path dir_, old_;
};

inline void write_file(const std::string &name, const std::string &bytes) {
  std::ofstream(name, std::ios::binary) << bytes;
}

inline std::string read_file(const std::string &name) {
  return {std::istreambuf_iterator<char>(std::ifstream(name, std::ios::binary).rdbuf()), {}};
}

} // namespace base_test

// The statement ends the program with status 1 and a message matching re.
#define EXPECT_FATAL(statement, re)                                                                \
  EXPECT_EXIT((base_test::to_stderr(), statement), ::testing::ExitedWithCode(1), re)
