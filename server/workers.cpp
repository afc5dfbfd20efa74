// The worker threads of tavrind (see workers.h).
#include "server/workers.h"

#include <algorithm>
#include <chrono>

namespace tavrind {

namespace {
// How long a thread beyond the core count waits for a job before it ends.
constexpr std::chrono::seconds IDLE_END{5};
} // namespace

WorkerPool::WorkerPool() {
  unsigned n = std::thread::hardware_concurrency();
  keep_ = std::clamp(int(n), 1, WORKERS_MAX);
}

WorkerPool::~WorkerPool() { join(); }

void WorkerPool::submit(std::function<void()> job) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (closing_) return;
  jobs_.push_back(std::move(job));
  if (idle_ >= int(jobs_.size()) || running_ >= WORKERS_MAX) {
    lock.unlock();
    cv_.notify_one();
    return;
  }
  // Every thread is busy: one more, so that this job does not wait behind
  // a long one. Threads that ended on their own are joined here.
  for (auto it = threads_.begin(); it != threads_.end();) {
    if (std::find(ended_.begin(), ended_.end(), it->get_id()) != ended_.end()) {
      it->join();
      it = threads_.erase(it);
    } else {
      ++it;
    }
  }
  ended_.clear();
  ++running_;
  threads_.emplace_back([this] { work(); });
}

void WorkerPool::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (jobs_.empty()) {
      if (closing_) break;
      ++idle_;
      bool got = cv_.wait_for(lock, IDLE_END, [this] { return !jobs_.empty() || closing_; });
      --idle_;
      if (!got && running_ > keep_) break;
      continue;
    }
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    job = nullptr; // what the job held goes before the next one starts
    lock.lock();
  }
  --running_;
  if (!closing_) ended_.push_back(std::this_thread::get_id());
}

void WorkerPool::join() {
  std::vector<std::thread> all;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
    all.swap(threads_);
  }
  cv_.notify_all();
  for (std::thread &t : all) t.join();
}

int WorkerPool::threads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

} // namespace tavrind
