// The request handler of tavrind: the executor behind the protocol server.
#include "server/handler.h"

#include <algorithm>

namespace tavrind {

// The executor's channel and, while its client is parked, the request that
// waits.
struct ExecHandler::Context : ChannelContext {
  Context(Executor &ex, int id) : ch(ex, id) {}
  Channel ch;
  std::vector<unsigned char> waiting;
  bool is_parked = false;
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
    ctx->waiting.assign(data, data + length);
    ctx->is_parked = true;
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

void ExecHandler::channel_closed(ProtocolServer &, int channel, ChannelContext *) {
  channels_.erase(channel);
  parked_.erase(std::remove(parked_.begin(), parked_.end(), channel), parked_.end());
  log("channel " + std::to_string(channel) + ": disconnected");
}

void ExecHandler::idle(ProtocolServer &srv) {
  if (!parked_.empty()) retry_parked(srv);
}

} // namespace tavrind
