// Helpers of the base and session-layer tests: collecting the printed
// messages, death tests that see the messages of the dying child (EXPECT_EXIT
// matches stderr only), and the scratch directory and whole-file reads and
// writes of tests/scratch.h.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>

#include "base/msg.h"
#include "tests/msg_capture.h"
#include "tests/scratch.h"

namespace base_test {

using scratch::read_file;
using scratch::ScratchDir;
using scratch::write_file;
using testmsg::Capture;

inline void to_stderr() {
  msg_set_handler([](const char *t) { std::fputs(t, stderr); });
}

} // namespace base_test

// The statement ends the program with status 1 and a message matching re.
#define EXPECT_FATAL(statement, re)                                                                \
  EXPECT_EXIT((base_test::to_stderr(), statement), ::testing::ExitedWithCode(1), re)
