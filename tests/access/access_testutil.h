// Helpers of the session-layer tests: those of the base tests (captured
// messages, death tests, scratch directories, whole files), with the session
// layer itself.
#pragma once

#include "db/access/session.h"
#include "tests/base/base_testutil.h"

namespace access_test {
using namespace base_test;
} // namespace access_test
