// The worker threads of tavrind: run jobs (a channel's statement) beside the
// protocol loop.
//
// The pool keeps as many idle threads as the machine has cores and starts a
// further thread whenever a job comes while every thread is busy, up to
// WORKERS_MAX: a statement that runs long (or waits for the disk) occupies
// its thread, and the others must not queue behind it. Threads beyond the
// core count end after a few idle seconds. Past the cap, jobs wait in order
// for the next free thread. Which jobs run and in what order per channel is
// the request handler's business (handler.h).
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tavrind {

// The most worker threads one server runs at once.
constexpr int WORKERS_MAX = 64;

class WorkerPool {
public:
  WorkerPool();
  // Waits for the jobs already given and ends the threads (join()).
  ~WorkerPool();
  WorkerPool(const WorkerPool &) = delete;
  WorkerPool &operator=(const WorkerPool &) = delete;

  // Runs job on a worker thread, at once when one is idle or can be started,
  // else after the jobs given before it. A job must not throw.
  void submit(std::function<void()> job);
  // Waits until every job given has ended, then ends the threads. The pool
  // takes no more jobs afterwards (submit runs none).
  void join();
  // Threads running now (busy or idle), for tests and the log.
  int threads() const;

private:
  void work();

  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> jobs_;
  std::vector<std::thread> threads_;
  std::vector<std::thread::id> ended_; // threads that left on their own, to be joined
  int running_ = 0;                    // threads alive
  int idle_ = 0;                       // of them waiting for a job
  int keep_;                           // idle threads kept (the core count)
  bool closing_ = false;
};

} // namespace tavrind
