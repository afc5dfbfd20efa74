// A named mutex shared between processes, robust against owners that die.
//
// The mutex is a process-shared, robust pthread mutex in its own section.
// When its owner dies holding it, the next locker gets it with the result
// Abandoned: the mutex is made consistent again and counts as acquired. The
// first process that opens the section initialises the mutex; others wait
// (briefly) until it is ready. A Mutex gives the mutex back before it unmaps
// it (close, destruction, also at exit through static destructors): the
// kernel's clean-up of a dead owner's robust mutexes cannot reach a mutex its
// owner no longer maps, so one unmapped while held would stay locked for
// ever. What the mutex protects is the protocol's business.
#pragma once

#include "db/ipc/named.h"

#include <sys/types.h>

namespace ipc {

class Mutex {
public:
  Mutex() = default;
  ~Mutex() { close(); }
  Mutex(const Mutex &) = delete;
  Mutex &operator=(const Mutex &) = delete;

  // Creates the mutex (not owned) or opens the existing one. False with errno.
  bool create_or_open(const char *name);
  // Creates a new mutex object exclusively (EEXIST if there is one) for
  // `access` (named.h). False with errno.
  bool create_new(const char *name, const Access &access);
  // Opens an existing mutex object only (ENOENT if there is none).
  bool open_existing(const char *name);
  // Locks; timeout_ms < 0 waits without limit. Returns Signalled or
  // Abandoned (both: now owned), Timeout, or Failed (errno set).
  WaitResult lock(int timeout_ms = -1);
  // Unlocks. False (errno EPERM) if this thread does not own it.
  bool unlock();
  // True while this object holds the mutex (locked and not yet unlocked).
  bool held() const { return held_; }
  // The thread id of the mutex's owner now, 0 when it is free (read from the
  // robust mutex's lock word, which the kernel's clean-up relies on too).
  pid_t owner_tid() const;
  // Whether some thread holds the mutex now (tries to take it without
  // waiting and gives it back). An abandoned mutex counts as free.
  bool locked_by_other();

  // Unlocks the mutex if this object holds it, then unmaps it.
  void close();
  bool is_open() const { return sec_.is_open(); }
  Section &section() { return sec_; }

private:
  bool ready_or_close();
  Section sec_;
  bool held_ = false;
};

} // namespace ipc
