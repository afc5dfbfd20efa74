// Watches on other processes (see process.h).
#include "db/ipc/process.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace ipc {

Process::~Process() { close(); }

Process::Process(Process &&other) noexcept
    : pid_(std::exchange(other.pid_, 0)), fd_(std::exchange(other.fd_, -1)) {}

Process &Process::operator=(Process &&other) noexcept {
  if (this != &other) {
    close();
    pid_ = std::exchange(other.pid_, 0);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

bool Process::open(pid_t pid) {
  close();
  if (pid <= 0) {
    errno = ESRCH;
    return false;
  }
#ifdef SYS_pidfd_open
  int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd >= 0) {
    pid_ = pid;
    fd_ = fd;
    return true;
  }
  if (errno != ENOSYS) return false;
#endif
  if (kill(pid, 0) != 0 && errno != EPERM) return false;
  pid_ = pid;
  return true;
}

bool Process::alive() const {
  if (pid_ <= 0) return false;
  if (fd_ >= 0) {
    // A pidfd becomes readable when the process has ended.
    struct pollfd p = {fd_, POLLIN, 0};
    int r = poll(&p, 1, 0);
    return r == 0;
  }
  return kill(pid_, 0) == 0 || errno == EPERM;
}

void Process::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  pid_ = 0;
}

} // namespace ipc
