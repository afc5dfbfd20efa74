// A named mutex shared between processes, robust against owners that die.
//
// The mutex is a process-shared, robust pthread mutex in its own section.
// When its owner dies holding it, the next locker gets it with the result
// Abandoned: the mutex is made consistent again and counts as acquired. The
// first process that opens the section initialises the mutex; others wait
// (briefly) until it is ready. What the mutex protects is the protocol's
// business.
#pragma once

#include "db/ipc/named.h"

namespace ipc {

class Mutex {
public:
  // Creates the mutex (not owned) or opens the existing one. False with errno.
  bool create_or_open(const char *name);
  // Locks; timeout_ms < 0 waits without limit. Returns Signalled or
  // Abandoned (both: now owned), Timeout, or Failed (errno set).
  WaitResult lock(int timeout_ms = -1);
  // Unlocks. False (errno EPERM) if this thread does not own it.
  bool unlock();

  void close() { sec_.close(); }
  bool is_open() const { return sec_.is_open(); }

private:
  Section sec_;
};

} // namespace ipc
