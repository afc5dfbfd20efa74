// The request handler of tavrind: connects the executor to the shared-memory
// protocol server.
//
// Every channel the protocol server opens gets an executor channel. The
// protocol loop stays on its own thread; statements run beside it, each
// channel's requests in order on the channel's own connection:
// - A request is first tried on the loop's thread on a short budget (see
//   exec_request): a query or a change outside a transaction that is done
//   in time is answered at once, without a thread switch.
// - What runs longer, and what cannot be stopped and repeated without a
//   trace (changes inside a transaction, COMMIT, cursors, opening
//   databases), runs on a worker thread (workers.h). The loop waits a
//   short time for it; a statement not done by then has its client parked,
//   as a lock wait is, and the client is handed its answer when the worker
//   is done (a worker's end wakes the loop at once). Meanwhile the loop
//   serves handshakes, pings, closes and the other clients.
// - A parked client may cancel its statement (DBREQ_CANCEL): a running one
//   is stopped by its progress handler, a lock wait ends; either way the
//   client is answered '0' with error 515.
// When a statement must wait for a lock that another channel holds, its
// client is parked and the same request is tried again, in the order the
// clients were parked, whenever no channel of the server holds the lock any
// more (after a request, and at every idle turn), until it can be answered
// or has waited longer than the lock timeout (then it is answered '0' with
// error 509 and its transaction goes on). A statement whose transaction
// reads a snapshot that the holder's change will make stale would wait in
// vain (a deadlock): it is answered '0' with error 510 at once, or as soon as
// the holder changes the database, and the holder goes on. A client that ends
// loses its channel: a statement of it still running is stopped and its open
// transaction is rolled back. The STOP statement ends the server after its
// answer. The transport is protocol.h's; what a request means is the
// executor's.
#pragma once

#include "server/executor.h"
#include "server/protocol.h"
#include "server/workers.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace tavrind {

class ExecHandler : public RequestHandler {
public:
  // ex must outlive the handler and the protocol server using it.
  explicit ExecHandler(Executor &ex) : ex_(ex) {}
  // Stops what still runs on the workers and waits for them.
  ~ExecHandler() override;

  std::unique_ptr<ChannelContext> channel_opened(ProtocolServer &srv, int channel,
                                                 pid_t pid) override;
  void request(ProtocolServer &srv, int channel, ChannelContext *ctx, const unsigned char *data,
               size_t length) override;
  void channel_closed(ProtocolServer &srv, int channel, ChannelContext *ctx) override;
  void idle(ProtocolServer &srv) override;
  // Stops the running statements (error 512 to their clients, whose
  // answers go out while the server still serves) and ends the workers.
  void ending(ProtocolServer &srv) override;

  // How long a parked statement may wait for a lock before it is refused
  // (default 30 s).
  void set_lock_timeout(std::chrono::milliseconds t) { lock_timeout_ = t; }

  // Number of clients waiting for a lock now.
  size_t parked() const { return parked_.size(); }

private:
  struct Chan;
  struct Context;
  // Runs the channel's request: tried at once, else given to a worker.
  // `current`: the channel's client waits on the exchange (its request()
  // call); the handler then waits a short time for the worker and parks the
  // client if it is not done.
  void start(ProtocolServer &srv, const std::shared_ptr<Chan> &chan, const unsigned char *req,
             size_t len, bool current);
  // What a request's result means: the answer (taken from `answer` when
  // `owned`), a lock wait for req, nothing; then the channel's next queued
  // request.
  void finish(ProtocolServer &srv, const std::shared_ptr<Chan> &chan, int result,
              std::vector<unsigned char> &answer, bool owned, const unsigned char *req,
              size_t len);
  // Runs the next queued request of the channel, if any.
  void next(ProtocolServer &srv, const std::shared_ptr<Chan> &chan);
  // Passes on the results of the jobs the workers have finished.
  void collect(ProtocolServer &srv);
  // The client cancels what it waits for.
  void cancel(ProtocolServer &srv, const std::shared_ptr<Chan> &chan);
  // Retries the parked requests in order; answers those that no longer wait.
  void retry_parked(ProtocolServer &srv);
  void log(const std::string &line) const;
  // The channel holding the write lock of chan's database, -1 if none does
  // (or a process outside the server holds it).
  int lock_holder(const Chan &chan) const;
  // Would the channel's blocked statement wait in vain for the holder of the
  // lock (see waits_in_vain)?
  bool deadlocked(const Chan &chan) const;
  // Answers the channel's statement with error text (its lock wait is over).
  void refuse(ProtocolServer &srv, Chan &chan, const std::string &text);
  // Answers a parked channel that waited too long with error 509.
  void time_out(ProtocolServer &srv, Chan &chan);

  Executor &ex_;
  std::map<int, std::shared_ptr<Chan>> channels_;
  std::deque<int> parked_;            // channels waiting for a lock, in order
  std::vector<unsigned char> answer_; // the answer of a request done at once (reused)
  std::chrono::milliseconds lock_timeout_{30000};
  std::atomic<ProtocolServer *> srv_{nullptr}; // woken by workers that are done

  // Jobs done by workers, not yet passed on; guarded by done_mutex_.
  std::mutex done_mutex_;
  std::condition_variable done_cv_;
  std::vector<std::shared_ptr<Chan>> done_;
  // The channel whose job the loop's thread waits for in start(), and
  // whether a worker is sending that job's answer right now.
  const Chan *awaited_ = nullptr;
  bool worker_answering_ = false;
  int jobs_ = 0; // jobs given to workers and not yet collected (loop thread)

  WorkerPool pool_; // last: its threads end before the members above go
};

} // namespace tavrind
