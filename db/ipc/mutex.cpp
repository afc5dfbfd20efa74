// Robust process-shared mutexes (see mutex.h).
#include "db/ipc/mutex.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <pthread.h>

namespace ipc {

namespace {

// The bytes of a mutex object. All zero: not yet initialised.
struct MutexBlock {
  std::atomic<uint32_t> state; // 0 fresh, 1 being initialised, 2 ready
  uint32_t pad;
  pthread_mutex_t mutex;
};

constexpr size_t kMutexSize = 128;
static_assert(sizeof(MutexBlock) <= kMutexSize);

// Initialises the mutex if nobody has; waits up to one second for another
// initialiser. Returns false (errno set) if the mutex never became ready.
bool make_ready(MutexBlock *b) {
  uint32_t fresh = 0;
  if (b->state.compare_exchange_strong(fresh, 1)) {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
    pthread_mutexattr_settype(&a, PTHREAD_MUTEX_ERRORCHECK);
    int r = pthread_mutex_init(&b->mutex, &a);
    pthread_mutexattr_destroy(&a);
    if (r != 0) {
      b->state.store(0);
      errno = r;
      return false;
    }
    b->state.store(2);
    return true;
  }
  for (int i = 0; i < 1000 && b->state.load() != 2; ++i) {
    struct timespec ts = {0, 1000000};
    nanosleep(&ts, nullptr);
  }
  if (b->state.load() == 2) return true;
  errno = ETIMEDOUT;
  return false;
}

} // namespace

// Makes the mapped mutex ready; closes the section (errno kept) if it never
// became ready.
bool Mutex::ready_or_close() {
  held_ = false;
  if (make_ready(static_cast<MutexBlock *>(sec_.data()))) return true;
  int e = errno;
  sec_.close();
  errno = e;
  return false;
}

bool Mutex::create_or_open(const char *name) {
  close();
  return sec_.create_or_open(name, kMutexSize) && ready_or_close();
}

bool Mutex::create_new(const char *name, const Access &access) {
  close();
  return sec_.create_new(name, kMutexSize, access) && ready_or_close();
}

bool Mutex::open_existing(const char *name) {
  close();
  return sec_.open_existing(name, kMutexSize) && ready_or_close();
}

void Mutex::close() {
  if (held_ && sec_.is_open()) unlock();
  held_ = false;
  sec_.close();
}

pid_t Mutex::owner_tid() const {
  auto *b = static_cast<MutexBlock *>(sec_.data());
  if (!b) return 0;
  // A robust mutex keeps its owner's thread id in the low 30 bits of its
  // futex word (FUTEX_TID_MASK); the high bits are the waiter and owner-died
  // flags.
  int word = __atomic_load_n(&b->mutex.__data.__lock, __ATOMIC_ACQUIRE);
  return static_cast<pid_t>(static_cast<unsigned>(word) & 0x3fffffffu);
}

bool Mutex::locked_by_other() {
  WaitResult r = lock(0);
  if (r == WaitResult::Signalled || r == WaitResult::Abandoned) {
    unlock();
    return false;
  }
  return r == WaitResult::Timeout;
}

WaitResult Mutex::lock(int timeout_ms) {
  auto *b = static_cast<MutexBlock *>(sec_.data());
  int r;
  if (timeout_ms < 0) {
    r = pthread_mutex_lock(&b->mutex);
  } else {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += timeout_ms / 1000;
    ts.tv_nsec += long(timeout_ms % 1000) * 1000000;
    if (ts.tv_nsec >= 1000000000) {
      ts.tv_sec += 1;
      ts.tv_nsec -= 1000000000;
    }
    r = pthread_mutex_timedlock(&b->mutex, &ts);
  }
  switch (r) {
  case 0:
    held_ = true;
    return WaitResult::Signalled;
  case EOWNERDEAD:
    pthread_mutex_consistent(&b->mutex);
    held_ = true;
    return WaitResult::Abandoned;
  case ETIMEDOUT:
    return WaitResult::Timeout;
  default:
    errno = r;
    return WaitResult::Failed;
  }
}

bool Mutex::unlock() {
  int r = pthread_mutex_unlock(&static_cast<MutexBlock *>(sec_.data())->mutex);
  if (r != 0) errno = r;
  if (r == 0 || r == EPERM) held_ = false; // EPERM: not (or no longer) ours
  return r == 0;
}

} // namespace ipc
