// The request handler of tavrind: connects the executor to the shared-memory
// protocol server.
//
// Every channel the protocol server opens gets an executor channel. A request
// is executed at once; when it must wait for a lock that another channel
// holds, its client is parked and the same request is tried again after every
// later request and at every idle turn, in the order the clients were parked,
// until it can be answered. A client that ends loses its channel and its open
// transaction is rolled back. The STOP statement ends the server after its
// answer. The transport is protocol.h's; what a request means is the
// executor's.
#pragma once

#include "server/executor.h"
#include "server/protocol.h"

#include <deque>
#include <map>
#include <vector>

namespace tavrind {

class ExecHandler : public RequestHandler {
public:
  // ex must outlive the handler and the protocol server using it.
  explicit ExecHandler(Executor &ex) : ex_(ex) {}

  std::unique_ptr<ChannelContext> channel_opened(ProtocolServer &srv, int channel,
                                                 pid_t pid) override;
  void request(ProtocolServer &srv, int channel, ChannelContext *ctx, const unsigned char *data,
               size_t length) override;
  void channel_closed(ProtocolServer &srv, int channel, ChannelContext *ctx) override;
  void idle(ProtocolServer &srv) override;

  // Number of clients parked now.
  size_t parked() const { return parked_.size(); }

private:
  struct Context;
  // Retries the parked requests in order; answers those that no longer wait.
  void retry_parked(ProtocolServer &srv);
  void log(const std::string &line) const;

  Executor &ex_;
  std::map<int, Context *> channels_;
  std::deque<int> parked_;
};

} // namespace tavrind
