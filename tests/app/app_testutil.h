// What the viewer test programs share: the viewer started once per process.
#pragma once

#include "app/viewer.h"
#include "base/msg.h"
#include "tests/framework/framework_testutil.h"

namespace zqtest {

// The viewer, started once per process on the test server's DEMO database
// (or already running), with its diagnostics on stderr where death tests see
// them. False when no server could be started.
inline bool viewer_started() {
  static const bool ok = [] {
    if (zentiq_app().session) return true;
    if (!test_server()) return false;
    static char a0[] = "program", a1[] = "-dbDEMO";
    static char *argv[] = {a0, a1, nullptr};
    bool up = zentiq_start(2, argv) == 1;
    msg_set_handler(to_stderr);
    return up;
  }();
  return ok;
}

} // namespace zqtest
