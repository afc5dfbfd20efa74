// A watch on another process, to end waits when the process ends.
//
// The watch is a pidfd where the kernel offers one (it also sees a process
// that has ended but not yet been reaped), else the process id tested with
// kill(pid, 0). It does not wait by itself: event waits poll it between their
// sleeping slices (event.h).
#pragma once

#include <sys/types.h>

namespace ipc {

class Process {
public:
  Process() = default;
  ~Process();
  Process(Process &&other) noexcept;
  Process &operator=(Process &&other) noexcept;
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;

  // Starts watching process `pid`. Returns false (errno set, watch closed)
  // when there is no such process.
  bool open(pid_t pid);
  // True while the process runs (an unopened watch counts as not running).
  bool alive() const;
  void close();
  bool is_open() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

private:
  pid_t pid_ = 0;
  int fd_ = -1;
};

} // namespace ipc
