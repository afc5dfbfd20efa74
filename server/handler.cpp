// The request handler of tavrind: the executor behind the protocol server.
#include "server/handler.h"

#include "server/answer.h"

#include <algorithm>
#include <cstdio>

namespace tavrind {

// The executor's channel and, while its client is parked, the request that
// waits.
struct ExecHandler::Context : ChannelContext {
  Context(Executor &ex, int id) : ch(ex, id) {}
  Session ch;
  std::vector<unsigned char> waiting;
  bool is_parked = false;
  std::chrono::steady_clock::time_point parked_at;
};

void ExecHandler::log(const std::string &line) const {
  if (ex_.log) ex_.log(line);
}

std::unique_ptr<ChannelContext> ExecHandler::channel_opened(ProtocolServer &, int channel,
                                                            pid_t pid) {
  auto ctx = std::make_unique<Context>(ex_, channel);
  ctx->ch.client_pid = pid;
  channels_[channel] = ctx.get();
  log("channel " + std::to_string(channel) + ": connected (process " + std::to_string(pid) + ")");
  return ctx;
}

void ExecHandler::request(ProtocolServer &srv, int channel, ChannelContext *base,
                          const unsigned char *data, size_t length) {
  auto *ctx = static_cast<Context *>(base);
  if (!ctx) return;
  // One buffer for every answer: a large one is built without growing (and
  // touching fresh pages) again; beyond 32 MiB its memory is given back.
  std::vector<unsigned char> &answer = answer_;
  if (answer.capacity() > (32u << 20)) std::vector<unsigned char>().swap(answer);
  int r = exec_request(ctx->ch, data, length, answer);
  if (r == EXEC_ANSWER) {
    srv.answer(channel, answer.data(), answer.size());
  } else if (r == EXEC_WOULD_BLOCK) {
    // A waiter whose snapshot the holder's commit will make stale and a
    // holder whose change conflicts with what the waiter read wait for each
    // other: refusing the waiter's statement breaks the cycle at once; the
    // holder goes on.
    if (deadlocked(channel, ctx)) {
      refuse_deadlock(srv, channel);
      retry_parked(srv);
      if (ex_.stop_requested) srv.request_stop();
      return;
    }
    ctx->waiting.assign(data, data + length);
    ctx->is_parked = true;
    ctx->parked_at = std::chrono::steady_clock::now();
    parked_.push_back(channel);
    srv.park(channel);
  }
  // What this request changed (a COMMIT, an ABORT) may let parked ones go on.
  retry_parked(srv);
  if (ex_.stop_requested) srv.request_stop();
}

void ExecHandler::retry_parked(ProtocolServer &srv) {
  std::deque<int> still;
  while (!parked_.empty()) {
    int channel = parked_.front();
    parked_.pop_front();
    auto it = channels_.find(channel);
    if (it == channels_.end() || !it->second->is_parked) continue;
    Context *ctx = it->second;
    // While another channel of the server holds the lock the statement waits
    // for, trying it again cannot succeed; only the time limit is checked.
    // (A lock held outside the server is not seen here: then it is tried.)
    // The holder may have changed the database since the statement was
    // parked: then it waits in vain and is refused now.
    int r = EXEC_WOULD_BLOCK;
    std::vector<unsigned char> answer;
    if (deadlocked(channel, ctx)) {
      ctx->is_parked = false;
      ctx->waiting.clear();
      refuse_deadlock(srv, channel);
      continue;
    }
    if (lock_holder(channel, ctx) < 0)
      r = exec_request(ctx->ch, ctx->waiting.data(), ctx->waiting.size(), answer);
    if (r == EXEC_WOULD_BLOCK) {
      if (std::chrono::steady_clock::now() - ctx->parked_at >= lock_timeout_)
        time_out(srv, channel, ctx);
      else
        still.push_back(channel);
      continue;
    }
    ctx->is_parked = false;
    ctx->waiting.clear();
    if (r == EXEC_ANSWER) srv.answer(channel, answer.data(), answer.size());
  }
  parked_ = std::move(still);
  if (ex_.stop_requested) srv.request_stop();
}

int ExecHandler::lock_holder(int channel, const Context *ctx) const {
  if (ctx->ch.database.empty()) return -1;
  for (const auto &[other, octx] : channels_)
    if (other != channel && octx->ch.database == ctx->ch.database && holds_write_lock(octx->ch))
      return other;
  return -1;
}

bool ExecHandler::deadlocked(int channel, const Context *ctx) const {
  int holder = lock_holder(channel, ctx);
  return holder >= 0 && waits_in_vain(ctx->ch, channels_.at(holder)->ch);
}

void ExecHandler::refuse_deadlock(ProtocolServer &srv, int channel) {
  Context *ctx = channels_.at(channel);
  session_wait_ended(ctx->ch);
  std::string text = answer_errtext(Err::VERKLEMMUNG, {ctx->ch.database});
  log("channel " + std::to_string(channel) + ": error: " + text);
  std::vector<unsigned char> answer;
  answer_error(answer, text);
  srv.answer(channel, answer.data(), answer.size());
}

void ExecHandler::time_out(ProtocolServer &srv, int channel, Context *ctx) {
  ctx->is_parked = false;
  ctx->waiting.clear();
  session_wait_ended(ctx->ch);
  char secs[32];
  snprintf(secs, sizeof secs, "%g", double(lock_timeout_.count()) / 1000.0);
  std::string db = ctx->ch.database.empty() ? "?" : ctx->ch.database;
  int holder = lock_holder(channel, ctx);
  std::string who = holder >= 0 ? lock_holder_text(channels_.at(holder)->ch)
                                : std::string("ein Programm außerhalb des Servers");
  std::string text = answer_errtext(Err::SPERRE_ZEITABLAUF, {db, secs, who});
  log("channel " + std::to_string(channel) + ": error: " + text);
  std::vector<unsigned char> answer;
  answer_error(answer, text);
  srv.answer(channel, answer.data(), answer.size());
}

void ExecHandler::channel_closed(ProtocolServer &, int channel, ChannelContext *) {
  channels_.erase(channel);
  parked_.erase(std::remove(parked_.begin(), parked_.end(), channel), parked_.end());
  log("channel " + std::to_string(channel) + ": disconnected");
}

void ExecHandler::idle(ProtocolServer &srv) {
  if (!parked_.empty()) retry_parked(srv);
}

} // namespace tavrind
