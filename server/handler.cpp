// The request handler of tavrind: the executor behind the protocol server.
#include "server/handler.h"

#include "server/answer.h"

#include <algorithm>
#include <cstdio>

namespace tavrind {

namespace {

// How long a request is tried on the loop's thread before it goes to a
// worker, and how long the loop then waits for the worker before it parks
// the client. Both hold only the exchange that the client holds anyway;
// short enough that a runaway statement frees it at once, long enough that
// a commit's sync to disk is mostly waited for rather than parked.
constexpr std::chrono::microseconds TRY_BUDGET{2000};
constexpr std::chrono::microseconds SHORT_WAIT{2000};

// Requests whose client reads no answer.
bool one_way(const unsigned char *req, size_t len) {
  return len > 0 && (req[0] == DBREQ_CLOSE || req[0] == DBREQ_NOTICE || req[0] == DBREQ_MESSAGE);
}

} // namespace

// The executor's channel and what the handler keeps for it. Fields without
// a note are the loop thread's; the job fields belong to the worker while
// busy is set.
struct ExecHandler::Chan {
  Chan(Executor &ex, int i) : ch(ex, i), id(i) {}
  Session ch;
  int id;
  bool closed = false; // the channel ended; nothing more is answered
  // Requests that came while the channel was busy, in order.
  std::deque<std::vector<unsigned char>> queue;
  bool busy = false; // a job of it is on a worker
  // Its request waits for a lock (its client is parked): the request and
  // since when.
  bool lock_wait = false;
  std::vector<unsigned char> waiting;
  std::chrono::steady_clock::time_point parked_at;
  // The worker's job: request, answer, result; done under done_mutex_.
  // job_answered: the worker has sent the answer itself (see start()).
  std::vector<unsigned char> job_req, job_answer;
  int job_result = EXEC_NO_ANSWER;
  bool job_done = false;
  bool job_answered = false;
};

struct ExecHandler::Context : ChannelContext {
  std::shared_ptr<Chan> chan;
};

ExecHandler::~ExecHandler() {
  for (auto &[id, chan] : channels_) session_abandon(chan->ch);
  pool_.join();
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
  // One buffer for the answers done at once: a large one is built without
  // growing (and touching fresh pages) again; beyond 32 MiB its memory is
  // given back.
  if (answer_.capacity() > (32u << 20)) std::vector<unsigned char>().swap(answer_);
  int r = exec_request(chan->ch, req, len, answer_, TRY_BUDGET);
  if (r != EXEC_YIELDED) {
    finish(srv, chan, r, answer_, false, req, len);
    return;
  }
  if (req != chan->job_req.data()) chan->job_req.assign(req, req + len);
  chan->busy = true;
  chan->job_done = false;
  chan->job_answered = false;
  ++jobs_;
  pool_.submit([this, chan] {
    int result = exec_request(chan->ch, chan->job_req.data(), chan->job_req.size(),
                              chan->job_answer);
    // While the loop's thread waits for this very job (its client holds the
    // exchange), it touches nothing of the protocol server: the worker may
    // send the answer itself, which spares the client one thread switch.
    // Anything else (a lock wait, no answer) is left to the loop.
    bool answer_here = false;
    {
      std::lock_guard<std::mutex> lock(done_mutex_);
      chan->job_result = result;
      if (awaited_ == chan.get() && result == EXEC_ANSWER) {
        awaited_ = nullptr;
        worker_answering_ = true;
        answer_here = true;
      } else {
        chan->job_done = true;
        done_.push_back(chan);
      }
    }
    if (answer_here) {
      ProtocolServer *s = srv_.load();
      if (s) s->answer(chan->id, std::move(chan->job_answer));
      std::lock_guard<std::mutex> lock(done_mutex_);
      worker_answering_ = false;
      chan->job_answered = s != nullptr;
      chan->job_done = true;
      done_.push_back(chan);
    }
    done_cv_.notify_all();
    if (!answer_here)
      if (ProtocolServer *s = srv_.load()) s->wake();
  });
  if (!current || one_way(req, len)) return;
  bool done;
  {
    std::unique_lock<std::mutex> lock(done_mutex_);
    awaited_ = chan.get();
    done = done_cv_.wait_for(lock, SHORT_WAIT, [&] { return chan->job_done; });
    // A worker that has begun to answer is waited for: the exchange is its.
    if (!done && worker_answering_) {
      done_cv_.wait(lock, [&] { return chan->job_done; });
      done = true;
    }
    awaited_ = nullptr;
  }
  // Parked before its answer is passed on, if it is not done yet; the
  // answer then waits for the client's activation.
  if (!done) srv.park(chan->id);
  collect(srv);
}

void ExecHandler::collect(ProtocolServer &srv) {
  std::vector<std::shared_ptr<Chan>> done;
  {
    std::lock_guard<std::mutex> lock(done_mutex_);
    done.swap(done_);
    for (auto &chan : done) chan->job_done = false;
  }
  for (auto &chan : done) {
    chan->busy = false;
    --jobs_;
    if (chan->closed) continue;
    if (chan->job_answered) {
      chan->job_answered = false;
      chan->lock_wait = false;
      chan->waiting.clear();
      next(srv, chan);
      continue;
    }
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
    // Its progress handler stops it; the worker's answer says so.
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
                                : std::string("ein Programm außerhalb des Servers");
  refuse(srv, chan, answer_errtext(Err::SPERRE_ZEITABLAUF, {db, secs, who}));
}

void ExecHandler::channel_closed(ProtocolServer &, int channel, ChannelContext *) {
  auto it = channels_.find(channel);
  if (it != channels_.end()) {
    // A statement still running on a worker is stopped; the session goes
    // (rolling back) when the worker is done with it.
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
  while ((jobs_ > 0 || srv.answers_pending()) && std::chrono::steady_clock::now() < end)
    srv.poll(5);
  pool_.join();
  collect(srv);
  srv_.store(nullptr);
}

} // namespace tavrind
