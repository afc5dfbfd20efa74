// Helpers of the db/ipc tests: a namespace of their own for every test, and
// child processes that run a function and report through their exit status.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace ipctest {

// Sets TAVRIN_NAMESPACE to a name no other test (or test process) uses.
inline std::string fresh_namespace() {
  static std::atomic<int> n{0};
  std::string ns = "zqipc" + std::to_string(getpid()) + "_" + std::to_string(n++) + "_";
  setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
  return ns;
}

// Runs fn in a forked child; the child's exit status is fn's result.
inline pid_t spawn(const std::function<int()> &fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  return pid;
}

// Waits for the child; returns its exit status, or 128 + signal number.
inline int join(pid_t pid) {
  int st = 0;
  if (waitpid(pid, &st, 0) != pid) return -1;
  if (WIFEXITED(st)) return WEXITSTATUS(st);
  return 128 + WTERMSIG(st);
}

// A pipe used to let a child tell the parent it has reached a point.
struct Gate {
  int fd[2] = {-1, -1};
  Gate() { EXPECT_EQ(pipe(fd), 0); }
  ~Gate() {
    if (fd[0] >= 0) close(fd[0]);
    if (fd[1] >= 0) close(fd[1]);
  }
  void open_gate() { (void)!write(fd[1], "x", 1); }
  // True when the gate was opened; false on end of file (the other side is
  // gone) or error.
  bool pass() {
    char c;
    return read(fd[0], &c, 1) == 1;
  }
};

} // namespace ipctest
