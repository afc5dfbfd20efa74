// The request handler of tavrind: the executor behind the protocol server.
#include "server/handler.h"
#include "server/store.h"

#include "server/answer.h"

#include <algorithm>
#include <cstdio>

namespace tavrind {

namespace {

// How long a statement runs with the loop before it gives the loop up and
// parks its client. Meanwhile it holds only the exchange that its client
// holds anyway: short enough that a runaway statement frees it at once,
// long enough that most statements end first (parking costs the client two
// more exchanges).
constexpr std::chrono::microseconds BUDGET{2000};

// Requests whose client reads no answer.
bool one_way(const unsigned char *req, size_t len) {
  return len > 0 && (req[0] == DBREQ_CLOSE || req[0] == DBREQ_NOTICE || req[0] == DBREQ_MESSAGE);
}

} // namespace

// The executor's channel and what the handler keeps for it. Fields belong
// to the thread holding the loop lock; while busy is set, the session and
// the job fields belong to the thread running the statement without it.
struct ExecHandler::Chan {
  Chan(Executor &ex, int i) : ch(ex, i), id(i) {}
  Session ch;
  int id;
  bool closed = false; // the channel ended; nothing more is answered
  // Requests that came while the channel was busy, in order.
  std::deque<std::vector<unsigned char>> queue;
  bool busy = false; // its statement runs without the loop
  // Its request waits for a lock (its client is parked): the request and
  // since when.
  bool lock_wait = false;
  std::vector<unsigned char> waiting;
  std::chrono::steady_clock::time_point parked_at;
  // The statement that ran without the loop: request, answer, result.
  std::vector<unsigned char> job_req, job_answer;
  int job_result = EXEC_NO_ANSWER;
};

struct ExecHandler::Context : ChannelContext {
  std::shared_ptr<Chan> chan;
};

ExecHandler::~ExecHandler() {
  for (auto &[id, chan] : channels_) session_abandon(chan->ch);
  {
    std::lock_guard<std::mutex> lock(run_mutex_);
    closing_ = true;
  }
  run_cv_.notify_all();
  for (std::thread &t : runners_) t.join();
  runners_.clear();
  std::lock_guard<std::mutex> lock(done_mutex_);
  done_.clear();
}

void ExecHandler::log(const std::string &line) const {
  if (ex_.log) ex_.log(line);
}

std::unique_ptr<ChannelContext> ExecHandler::channel_opened(ProtocolServer &srv, int channel,
                                                            pid_t pid) {
  srv_ = &srv;
  auto ctx = std::make_unique<Context>();
  ctx->chan = std::make_shared<Chan>(ex_, channel);
  ctx->chan->ch.client_pid = pid;
  channels_[channel] = ctx->chan;
  log("channel " + std::to_string(channel) + ": connected (process " + std::to_string(pid) + ")");
  return ctx;
}

void ExecHandler::request(ProtocolServer &srv, int channel, ChannelContext *base,
                          const unsigned char *data, size_t length) {
  auto *ctx = static_cast<Context *>(base);
  if (!ctx) return;
  srv_ = &srv;
  std::shared_ptr<Chan> chan = ctx->chan;
  if (length == 1 && data[0] == DBREQ_CANCEL) {
    cancel(srv, chan);
  } else if (chan->busy || chan->lock_wait || !chan->queue.empty()) {
    // Only a one-way request can come before the previous one is done (a
    // close while a rollback runs): this one waits behind it, parked.
    chan->queue.emplace_back(data, data + length);
    if (!one_way(data, length)) srv.park(channel);
  } else {
    start(srv, chan, data, length, true);
  }
  // What this request changed (a COMMIT, an ABORT) may let parked ones go on.
  retry_parked(srv);
  if (ex_.stop_requested) srv.request_stop();
}

void ExecHandler::start(ProtocolServer &srv, const std::shared_ptr<Chan> &chan,
                        const unsigned char *req, size_t len, bool current) {
  // A cancel that came after the last statement ended is not for this one.
  session_cancel_clear(chan->ch);
  // One buffer per thread for the answers: a large one is built without
  // growing (and touching fresh pages) again; beyond 32 MiB its memory is
  // given back.
  thread_local std::vector<unsigned char> answer;
  if (answer.capacity() > (32u << 20)) std::vector<unsigned char>().swap(answer);
  // Past the budget (called from inside the statement, with the loop lock
  // held): the client is parked, a standby thread takes the loop over, and
  // this thread goes on with the statement alone.
  bool detached = false;
  const std::function<void()> overrun = [&] {
    srv.flush_ack();
    if (!need_runner()) return; // no thread to be had: the loop waits
    if (current && !one_way(req, len)) srv.park(chan->id);
    if (req != chan->job_req.data()) chan->job_req.assign(req, req + len);
    chan->busy = true;
    ++jobs_;
    ++detached_;
    detached = true;
    srv.release_loop();
  };
  // A commit that syncs its changes to disk waits for the disk, which the
  // budget does not see: it gives the loop up at once, so that the others
  // (readers above all) go on meanwhile.
  if (len > 0 && req[0] == DBREQ_COMMIT && ex_.store->commit_waits() && holds_write_lock(chan->ch))
    overrun();
  int r = exec_request(chan->ch, req, len, answer, BUDGET, detached ? nullptr : &overrun);
  if (!detached) {
    finish(srv, chan, r, answer, false, req, len);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(done_mutex_);
    chan->job_result = r;
    chan->job_answer.swap(answer);
    done_.push_back(chan);
  }
  srv.retake_loop();
  --detached_;
  collect(srv);
}

void ExecHandler::collect(ProtocolServer &srv) {
  std::vector<std::shared_ptr<Chan>> done;
  {
    std::lock_guard<std::mutex> lock(done_mutex_);
    done.swap(done_);
  }
  for (auto &chan : done) {
    chan->busy = false;
    --jobs_;
    if (chan->closed) continue;
    finish(srv, chan, chan->job_result, chan->job_answer, true, chan->job_req.data(),
           chan->job_req.size());
  }
}

void ExecHandler::finish(ProtocolServer &srv, const std::shared_ptr<Chan> &chan, int r,
                         std::vector<unsigned char> &answer, bool owned,
                         const unsigned char *req, size_t len) {
  if (r == EXEC_WOULD_BLOCK) {
    // A waiter whose snapshot the holder's commit will make stale and a
    // holder whose change conflicts with what the waiter read wait for each
    // other: refusing the waiter's statement breaks the cycle at once; the
    // holder goes on.
    if (session_cancel_requested(chan->ch)) {
      refuse(srv, *chan, answer_errtext(Err::ABGEBROCHEN, {"nichts davon ist ausgeführt"}));
    } else if (deadlocked(*chan)) {
      refuse(srv, *chan, answer_errtext(Err::VERKLEMMUNG, {chan->ch.database}));
    } else if (!chan->lock_wait) {
      chan->lock_wait = true;
      chan->waiting.assign(req, req + len);
      chan->parked_at = std::chrono::steady_clock::now();
      parked_.push_back(chan->id);
      if (!srv.is_parked(chan->id)) srv.park(chan->id);
      return;
    } else if (std::chrono::steady_clock::now() - chan->parked_at >= lock_timeout_) {
      time_out(srv, *chan);
    } else {
      parked_.push_back(chan->id);
      return;
    }
  } else {
    chan->lock_wait = false;
    chan->waiting.clear();
    if (r == EXEC_ANSWER) {
      if (owned)
        srv.answer(chan->id, std::move(answer));
      else
        srv.answer(chan->id, answer.data(), answer.size());
    }
  }
  next(srv, chan);
}

void ExecHandler::next(ProtocolServer &srv, const std::shared_ptr<Chan> &chan) {
  if (chan->busy || chan->lock_wait || chan->closed || chan->queue.empty()) return;
  std::vector<unsigned char> req = std::move(chan->queue.front());
  chan->queue.pop_front();
  start(srv, chan, req.data(), req.size(), false);
}

void ExecHandler::cancel(ProtocolServer &srv, const std::shared_ptr<Chan> &chan) {
  if (chan->busy) {
    // Its progress handler stops it; its answer says so.
    session_cancel(chan->ch);
    log("channel " + std::to_string(chan->id) + ": cancel requested");
  } else if (chan->lock_wait) {
    parked_.erase(std::remove(parked_.begin(), parked_.end(), chan->id), parked_.end());
    refuse(srv, *chan, answer_errtext(Err::ABGEBROCHEN, {"nichts davon ist ausgeführt"}));
    next(srv, chan);
  }
  // Otherwise the statement is done and its answer on the way: nothing to stop.
}

void ExecHandler::retry_parked(ProtocolServer &srv) {
  std::deque<int> todo;
  todo.swap(parked_);
  for (int id : todo) {
    auto it = channels_.find(id);
    if (it == channels_.end()) continue;
    std::shared_ptr<Chan> chan = it->second;
    if (!chan->lock_wait || chan->busy) continue;
    // The holder may have changed the database since the statement was
    // parked: then it waits in vain and is refused now.
    if (deadlocked(*chan)) {
      refuse(srv, *chan, answer_errtext(Err::VERKLEMMUNG, {chan->ch.database}));
      next(srv, chan);
      continue;
    }
    // While another channel of the server holds the lock the statement waits
    // for, trying it again cannot succeed; only the time limit is checked.
    // (A lock held outside the server is not seen here: then it is tried.)
    if (lock_holder(*chan) < 0) {
      start(srv, chan, chan->waiting.data(), chan->waiting.size(), false);
      continue;
    }
    if (std::chrono::steady_clock::now() - chan->parked_at >= lock_timeout_) {
      time_out(srv, *chan);
      next(srv, chan);
    } else {
      parked_.push_back(id);
    }
  }
  if (ex_.stop_requested) srv.request_stop();
}

int ExecHandler::lock_holder(const Chan &chan) const {
  std::string db = session_database(chan.ch);
  if (db.empty()) return -1;
  for (const auto &[other, ochan] : channels_)
    if (ochan.get() != &chan && holds_write_lock(ochan->ch) && session_database(ochan->ch) == db)
      return other;
  return -1;
}

bool ExecHandler::deadlocked(const Chan &chan) const {
  int holder = lock_holder(chan);
  return holder >= 0 && waits_in_vain(chan.ch, channels_.at(holder)->ch);
}

void ExecHandler::refuse(ProtocolServer &srv, Chan &chan, const std::string &text) {
  chan.lock_wait = false;
  chan.waiting.clear();
  session_wait_ended(chan.ch);
  log("channel " + std::to_string(chan.id) + ": error: " + text);
  std::vector<unsigned char> answer;
  answer_error(answer, text);
  srv.answer(chan.id, answer.data(), answer.size());
}

void ExecHandler::time_out(ProtocolServer &srv, Chan &chan) {
  char secs[32];
  snprintf(secs, sizeof secs, "%g", double(lock_timeout_.count()) / 1000.0);
  std::string db = chan.ch.database.empty() ? "?" : chan.ch.database;
  int holder = lock_holder(chan);
  std::string who = holder >= 0 ? lock_holder_text(channels_.at(holder)->ch)
                                : session_foreign_lock_holder(chan.ch);
  if (who.empty()) who = "ein Programm außerhalb des Servers";
  refuse(srv, chan, answer_errtext(Err::SPERRE_ZEITABLAUF, {db, secs, who}));
}

void ExecHandler::channel_closed(ProtocolServer &, int channel, ChannelContext *) {
  auto it = channels_.find(channel);
  if (it != channels_.end()) {
    // A statement still running without the loop is stopped; the session
    // goes (rolling back) when that thread is done with it.
    Chan &chan = *it->second;
    chan.closed = true;
    session_abandon(chan.ch);
    if (chan.busy)
      log("channel " + std::to_string(channel) + ": error: " +
          answer_errtext(Err::KLIENT_ENDET, {std::to_string(chan.ch.client_pid),
                                             "nichts davon bleibt bestehen"}));
    channels_.erase(it);
  }
  parked_.erase(std::remove(parked_.begin(), parked_.end(), channel), parked_.end());
  log("channel " + std::to_string(channel) + ": disconnected");
}

void ExecHandler::idle(ProtocolServer &srv) {
  collect(srv);
  if (!parked_.empty()) retry_parked(srv);
  if (ex_.stop_requested) srv.request_stop();
}

void ExecHandler::ending(ProtocolServer &srv) {
  // Running statements stop at their next progress call and answer 512;
  // those answers still go out, within a bounded time.
  ex_.stopping.store(true);
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < end &&
         srv.turn(5, [&] { return jobs_ > 0 || srv.answers_pending(); })) {
  }
  {
    std::lock_guard<std::mutex> lock(run_mutex_);
    closing_ = true;
  }
  run_cv_.notify_all();
  for (std::thread &t : runners_) t.join();
  runners_.clear();
}

bool ExecHandler::need_runner() {
  std::lock_guard<std::mutex> lock(run_mutex_);
  if (closing_) return false;
  if (idle_ <= wanted_) {
    if (int(runners_.size()) >= RUNNERS_MAX) return false;
    runners_.emplace_back([this] { runner(); });
  }
  ++wanted_;
  run_cv_.notify_one();
  return true;
}

void ExecHandler::runner() {
  std::unique_lock<std::mutex> lock(run_mutex_);
  for (;;) {
    ++idle_;
    run_cv_.wait(lock, [this] { return wanted_ > 0 || closing_; });
    --idle_;
    if (closing_) return;
    --wanted_;
    ProtocolServer *srv = srv_.load();
    lock.unlock();
    // Turns while some statement runs without the loop; then the thread
    // that comes back (or the server's own) goes on alone.
    while (srv && !srv->stop_requested() && srv->turn(100, [this] { return detached_ > 0; })) {
    }
    lock.lock();
  }
}

} // namespace tavrind
