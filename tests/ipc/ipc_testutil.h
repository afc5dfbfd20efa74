// Helpers of the db/ipc tests: a namespace of their own for every test, and
// child processes that run a function and report through their exit status.
#pragma once

#include <gtest/gtest.h>

#include "db/wire/wire.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <vector>
#include <sys/wait.h>
#include <unistd.h>

namespace ipctest {

// The namespaces this test process made; every object in them is removed
// when it exits (servers that were killed and clients without a server leave
// some, and the tests leave theirs).
// Forked children (death tests too) leave them alone when they exit.
struct MadeNamespaces {
  pid_t owner = getpid();
  std::vector<std::string> names;
  ~MadeNamespaces() {
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator("/dev/shm", ec))
      for (const std::string &ns : names)
        if (getpid() == owner && entry.path().filename().string().starts_with(ns))
          shm_unlink(("/" + entry.path().filename().string()).c_str());
  }
};

// Sets TAVRIN_NAMESPACE to a name no other test (or test process) uses.
inline std::string fresh_namespace() {
  static MadeNamespaces made;
  static std::atomic<int> n{0};
  std::string ns = "zqipc" + std::to_string(getpid()) + "_" + std::to_string(n++) + "_";
  setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
  if (getpid() == made.owner) made.names.push_back(ns);
  return ns;
}

// Runs fn in a forked child; the child's exit status is fn's result.
inline pid_t spawn(const std::function<int()> &fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  return pid;
}

// Waits at most timeout_ms for the child (without a limit when negative);
// kills it when it is still running then. Returns its exit status, 128 +
// signal number, -1 when it is no child of ours, -2 when it had to be killed.
inline int join_within(pid_t pid, int timeout_ms) {
  for (int waited = 0; timeout_ms < 0 || waited < timeout_ms; waited += 5) {
    int st = 0;
    pid_t r = waitpid(pid, &st, timeout_ms < 0 ? 0 : WNOHANG);
    if (r == pid) return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    if (r < 0) return -1;
    usleep(5000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -2;
}
inline int join(pid_t pid) { return join_within(pid, -1); }

// A pipe used to let a child tell the parent it has reached a point.
struct Gate {
  int fd[2] = {-1, -1};
  Gate() { EXPECT_EQ(pipe(fd), 0); }
  ~Gate() {
    if (fd[0] >= 0) close(fd[0]);
    if (fd[1] >= 0) close(fd[1]);
  }
  void open_gate() { (void)!write(fd[1], "x", 1); }
  // True when the gate was opened; false after timeout_ms, on end of file
  // or error (the other side is gone).
  bool pass(int timeout_ms = 20000) {
    struct pollfd p = {fd[0], POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return false;
    char c;
    return read(fd[0], &c, 1) == 1;
  }
};

} // namespace ipctest
