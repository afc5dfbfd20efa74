// The request handler of tavrind: connects the executor to the shared-memory
// protocol server.
//
// Every channel the protocol server opens gets an executor channel. A request
// is executed at once; when it must wait for a lock that another channel
// holds, its client is parked and the same request is tried again, in the
// order the clients were parked, whenever no channel of the server holds the
// lock any more (after a request, and at every idle turn), until it can be
// answered or has waited longer than the lock timeout (then it is answered
// '0' with error 509 and its transaction goes on). A statement whose
// transaction reads a snapshot that the holder's change will make stale
// would wait in vain (a deadlock): it is answered '0' with error 510 at
// once, or as soon as the holder changes the database, and the holder goes
// on. A client that ends loses its channel and its open transaction is
// rolled back. The STOP statement ends the server after its answer. The
// transport is protocol.h's; what a request means is the executor's.
#pragma once

#include "server/executor.h"
#include "server/protocol.h"

#include <chrono>
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

  // How long a parked statement may wait for a lock before it is refused
  // (default 30 s).
  void set_lock_timeout(std::chrono::milliseconds t) { lock_timeout_ = t; }

  // Number of clients parked now.
  size_t parked() const { return parked_.size(); }

private:
  struct Context;
  // Retries the parked requests in order; answers those that no longer wait.
  void retry_parked(ProtocolServer &srv);
  void log(const std::string &line) const;
  // The channel holding the write lock of ctx's database, -1 if none does
  // (or a process outside the server holds it).
  int lock_holder(int channel, const Context *ctx) const;
  // Would the channel's blocked statement wait in vain for the holder of the
  // lock (see waits_in_vain)?
  bool deadlocked(int channel, const Context *ctx) const;
  // Answers the channel's statement with error 510 (deadlock).
  void refuse_deadlock(ProtocolServer &srv, int channel);
  // Answers a parked channel that waited too long with error 509.
  void time_out(ProtocolServer &srv, int channel, Context *ctx);

  Executor &ex_;
  std::map<int, Context *> channels_;
  std::deque<int> parked_;
  std::vector<unsigned char> answer_; // the answer being built (reused)
  std::chrono::milliseconds lock_timeout_{30000};
};

} // namespace tavrind
