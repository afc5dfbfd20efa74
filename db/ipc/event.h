// Named auto-reset events shared between processes.
//
// An event is a shared section holding a 32-bit state word and a count of
// sleeping waiters. Setting stores 1 and wakes one sleeper; a wait consumes
// the 1, so one waiter passes per set, and sets while the event is set do not
// accumulate. A wait first spins for a short, bounded time when the setter
// last ran on another core (the other side usually answers within
// microseconds; the spin follows how long recent waits took), then sleeps on
// the futex of the word; when the setter shares this core it sleeps at once.
// An addressed wait hands an event to one of many waiters: the waiter named by
// a shared word takes it, and only the waiters addressed are woken.
// A wait that also watches a process sleeps in slices of at most 20 ms and
// ends when the process has ended. Which events exist and what they mean is
// the protocol's business (db/client/transport, server/).
#pragma once

#include <cstdint>

#include "db/ipc/named.h"
#include "db/ipc/process.h"

namespace ipc {

class Event {
public:
  // Creates the event (clear) or opens the existing one. False with errno.
  bool create_or_open(const char *name);
  // Creates a new event (clear) exclusively for `access` (EEXIST if the
  // name is taken). False with errno.
  bool create_new(const char *name, const Access &access);
  // Opens an existing event only (ENOENT if there is none).
  bool open_existing(const char *name);
  // Opens an existing event only if a live process holds its liveness lock
  // (a server's own event); a leftover of a dead owner counts as missing
  // (ENOENT).
  bool open_live(const char *name);
  // Creates or opens the event and takes its liveness lock for the life of
  // this object. False (EWOULDBLOCK) if a live process holds it already.
  bool create_owned(const char *name);
  // The same for a server's own liveness event: created exclusively for
  // `access` (*created set), or the existing object opened (whose owner and
  // mode the caller checks, see server_may_use). False with errno.
  bool create_owned(const char *name, const Access &access, bool *created);

  // Sets the event and wakes one waiter.
  void set();
  // Sets the event for the waiter that waits for `value` (see wait_for) and
  // wakes only the waiters addressed by it (a futex bitset of value mod 32,
  // so at most those that share it, and plain waiters).
  void set_for(uint32_t value);
  // Ends a wait of this event early without setting it (the wait returns
  // Timeout): a thread of the waiting process has news for the waiter. The
  // state word holds 2 until the waiter takes the nudge; a set meanwhile
  // overwrites it with 1 and is not lost. Only for events that clients set
  // and never wait on (the server's own). Thread-safe.
  void nudge();
  // Clears the event.
  void reset();
  // Waits until the event is set and consumes it. timeout_ms < 0 waits
  // without limit, 0 only tests. With `proc`, the end of that process ends
  // the wait (ProcessEnded). Returns Signalled, Timeout, ProcessEnded.
  WaitResult wait(int timeout_ms, const Process *proc = nullptr);
  // As wait, but the event is taken only while the shared *word holds value
  // (read atomically): of many waiters for one event, the one the word names
  // takes it and the others sleep on. Setters use set_for(value).
  WaitResult wait_for(int timeout_ms, const Process *proc, const uint32_t *word, uint32_t value);
  // True when the event is set (does not consume it).
  bool is_set() const;

  void close() { sec_.close(); }
  bool is_open() const { return sec_.is_open(); }
  Section &section() { return sec_; }

private:
  // Takes the liveness lock on the open section; on failure closes it and
  // returns false with errno of the lock.
  bool lock_or_close();
  WaitResult wait_impl(int timeout_ms, const Process *proc, const uint32_t *word, uint32_t value);
  Section sec_;
  int64_t spin_ns_ = INT64_MAX; // this process's next spin on this event
};

// A plain shared 32-bit word as a futex: word_wait sleeps while *word holds
// `expected`, at most timeout_us (woken early by word_wake or a signal);
// word_wake wakes every sleeper on the word. For words of a protocol that
// one side changes and the other waits for (the owner word).
void word_wait(const uint32_t *word, uint32_t expected, int64_t timeout_us);
void word_wake(uint32_t *word);

// The bounded spin of every wait, in microseconds (default 150; 0 disables
// spinning). Process-wide.
void set_spin_limit_us(int us);
int spin_limit_us();

} // namespace ipc
