// The message printer and the fatal stop (see msg.h). The handler and the
// clean-up list are process-wide: there is one message output per program.
#include "base/msg.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

MsgHandler g_handler = nullptr;

std::vector<void (*)()> &cleanups() {
  static std::vector<void (*)()> list;
  return list;
}

void write_stdout(const char *text) {
  std::fputs(text, stdout);
  std::fflush(stdout);
}

} // namespace

MsgHandler msg_set_handler(MsgHandler handler) {
  MsgHandler old = g_handler;
  g_handler = handler;
  return old;
}

void msg_vprint(const char *fmt, va_list ap) {
  char small[1024];
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return;
  const char *text = small;
  std::string big;
  if (static_cast<size_t>(n) >= sizeof small) {
    big.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(big.data(), big.size(), fmt, ap);
    text = big.c_str();
  }
  (g_handler ? g_handler : write_stdout)(text);
}

void msg_print(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  msg_vprint(fmt, ap);
  va_end(ap);
}

void msg_at_fatal(void (*fn)()) {
  auto &list = cleanups();
  if (std::find(list.begin(), list.end(), fn) == list.end()) list.push_back(fn);
}

void msg_remove_at_fatal(void (*fn)()) {
  auto &list = cleanups();
  list.erase(std::remove(list.begin(), list.end(), fn), list.end());
}

void msg_exit_fatal() {
  // Take the list first so that a clean-up that fails fatally itself does not
  // run the same functions again.
  std::vector<void (*)()> list;
  list.swap(cleanups());
  for (auto it = list.rbegin(); it != list.rend(); ++it) (*it)();
  std::fflush(stdout);
  std::fflush(stderr);
  std::exit(1);
}

void msg_fatal(const char *fmt, ...) {
  if (fmt) {
    va_list ap;
    va_start(ap, fmt);
    msg_vprint(fmt, ap);
    va_end(ap);
  }
  msg_exit_fatal();
}
