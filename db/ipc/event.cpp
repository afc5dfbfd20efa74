// Auto-reset events on a shared futex word (see event.h).
#include "db/ipc/event.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ipc {

namespace {

// The bytes of an event object. Zero bytes are a clear event.
struct EventWord {
  std::atomic<uint32_t> state;   // 1 set, 0 clear
  std::atomic<uint32_t> waiters; // sleepers that want a futex wake
  std::atomic<int32_t> set_cpu;  // 1 + the CPU the last set ran on; 0 unknown
};
static_assert(sizeof(EventWord) == 12);
static_assert(std::atomic<uint32_t>::is_always_lock_free);

constexpr size_t kEventSize = 64;

// The process-wide spin limit of waits, and the shortest adaptive spin.
std::atomic<int> g_spin_us{150};
constexpr int64_t kMinSpinNs = 1000;

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

int64_t now_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

inline EventWord *word_of(const Section &s) { return static_cast<EventWord *>(s.data()); }

// Takes a nudge (state 2) if it is there.
inline bool try_nudged(EventWord *w) {
  uint32_t two = 2;
  return w->state.load(std::memory_order_relaxed) == 2 &&
         w->state.compare_exchange_strong(two, 0, std::memory_order_acq_rel);
}

// Takes the 1 if it is there.
inline bool try_consume(EventWord *w) {
  uint32_t one = 1;
  return w->state.load(std::memory_order_relaxed) == 1 &&
         w->state.compare_exchange_strong(one, 0, std::memory_order_acq_rel);
}

// Sleeps while *addr is expected, at most ns (< 0: no limit), as a waiter
// for the wakes whose bitset meets `bits` (FUTEX_BITSET_MATCH_ANY: every wake).
void futex_wait(std::atomic<uint32_t> *addr, uint32_t expected, int64_t ns,
                uint32_t bits = FUTEX_BITSET_MATCH_ANY) {
  // FUTEX_WAIT_BITSET takes an absolute CLOCK_MONOTONIC time.
  struct timespec ts;
  if (ns >= 0) {
    int64_t end = now_ns() + ns;
    ts = {static_cast<time_t>(end / 1000000000), static_cast<long>(end % 1000000000)};
  }
  syscall(SYS_futex, reinterpret_cast<uint32_t *>(addr), FUTEX_WAIT_BITSET, expected,
          ns >= 0 ? &ts : nullptr, nullptr, bits);
}

// Wakes up to n sleepers whose bitset meets `bits`.
void futex_wake(std::atomic<uint32_t> *addr, int n, uint32_t bits = FUTEX_BITSET_MATCH_ANY) {
  syscall(SYS_futex, reinterpret_cast<uint32_t *>(addr), FUTEX_WAKE_BITSET, n, nullptr, nullptr,
          bits);
}

// The futex bitset of an addressed waiter or wake for value.
inline uint32_t bit_of(uint32_t value) { return 1u << (value % 32); }

} // namespace

void word_wait(const uint32_t *word, uint32_t expected, int64_t timeout_us) {
  struct timespec ts = {static_cast<time_t>(timeout_us / 1000000),
                        static_cast<long>(timeout_us % 1000000) * 1000};
  syscall(SYS_futex, const_cast<uint32_t *>(word), FUTEX_WAIT, expected, &ts, nullptr, 0);
}

void word_wake(uint32_t *word) {
  syscall(SYS_futex, word, FUTEX_WAKE, INT32_MAX, nullptr, nullptr, 0);
}

void set_spin_limit_us(int us) { g_spin_us.store(us < 0 ? 0 : us); }
int spin_limit_us() { return g_spin_us.load(); }

bool Event::create_or_open(const char *name) { return sec_.create_or_open(name, kEventSize); }

bool Event::create_new(const char *name, const Access &access) {
  return sec_.create_new(name, kEventSize, access);
}

bool Event::open_existing(const char *name) { return sec_.open_existing(name, kEventSize); }

bool Event::open_live(const char *name) {
  if (!sec_.open_existing(name, sizeof(EventWord))) return false;
  if (!sec_.held_by_live_owner()) {
    sec_.close();
    errno = ENOENT;
    return false;
  }
  return true;
}

bool Event::lock_or_close() {
  if (sec_.lock_exclusive()) return true;
  int e = errno;
  sec_.close();
  errno = e;
  return false;
}

bool Event::create_owned(const char *name, const Access &access, bool *created) {
  *created = sec_.create_new(name, kEventSize, access);
  if (!*created) {
    if (errno != EEXIST || !sec_.open_existing(name, kEventSize)) return false;
  }
  return lock_or_close();
}

bool Event::create_owned(const char *name) {
  if (!sec_.create_or_open(name, kEventSize)) return false;
  return lock_or_close();
}

void Event::set() {
  EventWord *w = word_of(sec_);
  // Store, then look for sleepers; a waiter registers, then looks at the
  // state. With both sequentially consistent one of them sees the other.
  int cpu = sched_getcpu();
  w->set_cpu.store(cpu >= 0 ? cpu + 1 : 0, std::memory_order_relaxed);
  w->state.store(1, std::memory_order_seq_cst);
  if (w->waiters.load(std::memory_order_seq_cst) != 0) futex_wake(&w->state, 1);
}

void Event::set_for(uint32_t value) {
  EventWord *w = word_of(sec_);
  int cpu = sched_getcpu();
  w->set_cpu.store(cpu >= 0 ? cpu + 1 : 0, std::memory_order_relaxed);
  w->state.store(1, std::memory_order_seq_cst);
  if (w->waiters.load(std::memory_order_seq_cst) != 0)
    futex_wake(&w->state, INT32_MAX, bit_of(value));
}

void Event::nudge() {
  EventWord *w = word_of(sec_);
  // Only a clear event is nudged: a set one ends the wait anyway.
  uint32_t zero = 0;
  w->state.compare_exchange_strong(zero, 2, std::memory_order_seq_cst);
  if (w->waiters.load(std::memory_order_seq_cst) != 0) futex_wake(&w->state, INT32_MAX);
}

void Event::reset() { word_of(sec_)->state.store(0); }

bool Event::is_set() const { return word_of(sec_)->state.load() == 1; }

WaitResult Event::wait(int timeout_ms, const Process *proc) {
  return wait_impl(timeout_ms, proc, nullptr, 0);
}

WaitResult Event::wait_for(int timeout_ms, const Process *proc, const uint32_t *word,
                           uint32_t value) {
  return wait_impl(timeout_ms, proc, word, value);
}

WaitResult Event::wait_impl(int timeout_ms, const Process *proc, const uint32_t *word,
                            uint32_t value) {
  EventWord *w = word_of(sec_);
  // Only an event meant for this waiter is taken (without a word: any).
  auto mine = [word, value] { return !word || __atomic_load_n(word, __ATOMIC_SEQ_CST) == value; };
  auto take = [w, &mine] {
    return w->state.load(std::memory_order_relaxed) == 1 && mine() && try_consume(w);
  };
  if (take()) return WaitResult::Signalled;
  if (try_nudged(w)) return WaitResult::Timeout;
  // A watch that was never opened or was given up: the process is gone.
  if (proc && !proc->is_open()) return WaitResult::ProcessEnded;
  if (timeout_ms == 0) return WaitResult::Timeout;

  const int64_t start = now_ns();
  // Bounded, adaptive spin. The other side of an exchange usually answers
  // within microseconds when it runs on another core; when it last ran on
  // this very core, spinning would only keep it from running, so the wait
  // sleeps at once. Otherwise the spin lasts as long as recent waits took
  // (twice the last one that ended within the limit), at least 1 us and at
  // most the limit; a wait far beyond the limit halves it.
  const int64_t limit = int64_t(g_spin_us.load(std::memory_order_relaxed)) * 1000;
  const int set_cpu = w->set_cpu.load(std::memory_order_relaxed);
  const bool same_core = set_cpu != 0 && set_cpu == sched_getcpu() + 1;
  if (spin_ns_ > limit) spin_ns_ = limit;
  if (!same_core) {
    const int64_t spin_end = start + spin_ns_;
    for (int64_t t = start; t < spin_end; t = now_ns()) {
      for (int k = 0; k < 16; ++k) {
        if (take()) {
          spin_ns_ = std::min(limit, std::max<int64_t>(spin_ns_, kMinSpinNs));
          return WaitResult::Signalled;
        }
        if (try_nudged(w)) return WaitResult::Timeout;
        cpu_relax();
      }
    }
  }

  const int64_t deadline = timeout_ms > 0 ? start + int64_t(timeout_ms) * 1000000 : -1;
  constexpr int64_t kSlice = 20 * 1000000; // process checks at least this often
  int64_t next_check = start + kSlice;
  w->waiters.fetch_add(1, std::memory_order_seq_cst);
  WaitResult result;
  for (;;) {
    if (take()) {
      result = WaitResult::Signalled;
      break;
    }
    if (try_nudged(w)) {
      result = WaitResult::Timeout;
      break;
    }
    // The process is looked at once per slice, not before every sleep: a
    // quick exchange then costs no extra system call.
    if (proc && now_ns() >= next_check) {
      if (!proc->alive()) {
        result = WaitResult::ProcessEnded;
        break;
      }
      next_check = now_ns() + kSlice;
    }
    int64_t sleep_ns = proc ? kSlice : -1;
    if (deadline >= 0) {
      int64_t left = deadline - now_ns();
      if (left <= 0) {
        result = WaitResult::Timeout;
        break;
      }
      if (sleep_ns < 0 || left < sleep_ns) sleep_ns = left;
    }
    if (!word) {
      futex_wait(&w->state, 0, sleep_ns);
    } else if (w->state.load(std::memory_order_seq_cst) == 1) {
      // Set for another waiter: it takes the event soon. Nothing wakes this
      // one when it does, so look again after a short sleep.
      constexpr int64_t kOtherNs = 100 * 1000;
      futex_wait(&w->state, 1, sleep_ns < 0 ? kOtherNs : std::min(sleep_ns, kOtherNs),
                 bit_of(value));
    } else {
      futex_wait(&w->state, 0, sleep_ns, bit_of(value));
    }
  }
  w->waiters.fetch_sub(1, std::memory_order_seq_cst);
  if (result == WaitResult::Signalled && !same_core && limit > 0) {
    int64_t took = now_ns() - start;
    spin_ns_ = took <= limit ? std::min(limit, std::max(2 * took, kMinSpinNs))
                             : std::max(spin_ns_ / 2, std::min(limit, kMinSpinNs));
  }
  return result;
}

} // namespace ipc
