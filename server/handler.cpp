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
  Channel ch;
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
  channels_[channel] = ctx.get();
  log("channel " + std::to_string(channel) + ": connected (process " + std::to_string(pid) + ")");
  return ctx;
}

void ExecHandler::request(ProtocolServer &srv, int channel, ChannelContext *base,
                          const unsigned char *data, size_t length) {
  auto *ctx = static_cast<Context *>(base);
  if (!ctx) return;
  std::vector<unsigned char> answer;
  int r = exec_request(ctx->ch, data, length, answer);
  if (r == EXEC_ANSWER) {
    srv.answer(channel, answer.data(), answer.size());
  } else if (r == EXEC_WOULD_BLOCK) {
    // The write lock is database-wide: a holder that itself waits can only be
    // waiting, directly or through others, for this channel. Refusing this
    // statement breaks the cycle; the holder goes on.
    int holder = lock_holder(channel, ctx);
    if (holder >= 0 && channels_.at(holder)->is_parked) {
      std::string text = answer_errtext(510, {ctx->ch.database});
      log("channel " + std::to_string(channel) + ": error: " + text);
      answer_error(answer, text);
      srv.answer(channel, answer.data(), answer.size());
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
    std::vector<unsigned char> answer;
    int r = exec_request(ctx->ch, ctx->waiting.data(), ctx->waiting.size(), answer);
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

void ExecHandler::time_out(ProtocolServer &srv, int channel, Context *ctx) {
  ctx->is_parked = false;
  ctx->waiting.clear();
  char secs[32];
  snprintf(secs, sizeof secs, "%g", double(lock_timeout_.count()) / 1000.0);
  std::string db = ctx->ch.database.empty() ? "?" : ctx->ch.database;
  std::string text = answer_errtext(509, {db, secs});
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
