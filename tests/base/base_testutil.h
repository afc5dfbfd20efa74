// Helpers of the base tests: collecting the printed messages, and death tests
// that see the messages of the dying child (EXPECT_EXIT matches stderr only).
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "base/msg.h"
#include "tests/msg_capture.h"

namespace base_test {

using testmsg::Capture;

inline void to_stderr() {
  msg_set_handler([](const char *t) { std::fputs(t, stderr); });
}

} // namespace base_test

// The statement ends the program with status 1 and a message matching re.
#define EXPECT_FATAL(statement, re)                                                                \
  EXPECT_EXIT((base_test::to_stderr(), statement), ::testing::ExitedWithCode(1), re)
