// Collecting what a test makes the program print through the base library's
// message printer; shared by the test programs that check printed texts.
#pragma once

#include <string>

#include "base/msg.h"

namespace testmsg {

// Every message printed while a Capture lives (one at a time).
inline std::string g_printed;

struct Capture {
  MsgHandler old;
  Capture() : old(msg_set_handler([](const char *t) { g_printed += t; })) { g_printed.clear(); }
  ~Capture() { msg_set_handler(old); }
  Capture(const Capture &) = delete;
  Capture &operator=(const Capture &) = delete;
  // What was printed since the last take.
  std::string take() {
    std::string t;
    t.swap(g_printed);
    return t;
  }
};

} // namespace testmsg
