// Helpers of the forms tests: collecting what the toolkit prints, and death
// tests that see the messages and boxes of the dying child (EXPECT_EXIT
// matches standard error only).
#pragma once

#include "base/msg.h"
#include "tests/msg_capture.h"
#include "forms/dialogs.h"
#include "tests/qt_env.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace forms_test {

using testmsg::Capture;

// Sends messages and the boxes' titles and texts to standard error.
inline void to_stderr() {
  msg_set_handler([](const char *t) { std::fputs(t, stderr); });
  fl_seam_set_observer([](const FlShownDialog &d) {
    std::fprintf(stderr, "[%s] %s\n", d.title.c_str(), d.text.c_str());
  });
}

} // namespace forms_test
