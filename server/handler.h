// The request handler of tavrind: connects the executor to the shared-memory
// protocol server.
//
// Every channel the protocol server opens gets an executor channel; its
// requests run in order on the channel's own connection, different
// channels' side by side:
// - A request runs at once on the thread that runs the server's loop, so a
//   short statement costs no thread switch.
// - A statement still running after 2 ms frees the loop: its client is
//   parked, as a lock wait is (the exchange is free for the others), a
//   standby thread of the handler takes over the loop's turns, and the
//   statement goes on where it is. When it is done its thread passes the
//   answer on (the client is handed it at once) and takes the loop back;
//   standby threads step aside when no statement runs so any more. At most
//   RUNNERS_MAX standby threads are started; past that a long statement
//   keeps the loop until it is done.
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

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tavrind {

// The most standby threads one handler starts to run the loop while
// statements run long.
constexpr int RUNNERS_MAX = 64;

class ExecHandler : public RequestHandler {
public:
  // ex must outlive the handler and the protocol server using it.
  explicit ExecHandler(Executor &ex) : ex_(ex) {}
  // Stops the statements still running and waits for its threads.
  ~ExecHandler() override;

  std::unique_ptr<ChannelContext> channel_opened(ProtocolServer &srv, int channel,
                                                 pid_t pid) override;
  void request(ProtocolServer &srv, int channel, ChannelContext *ctx, const unsigned char *data,
               size_t length) override;
  void channel_closed(ProtocolServer &srv, int channel, ChannelContext *ctx) override;
  void idle(ProtocolServer &srv) override;
  // Stops the running statements (error 512 to their clients, whose
  // answers go out while the server still serves) and ends the standby
  // threads.
  void ending(ProtocolServer &srv) override;

  // How long a parked statement may wait for a lock before it is refused
  // (default 30 s).
  void set_lock_timeout(std::chrono::milliseconds t) { lock_timeout_ = t; }

  // Number of clients waiting for a lock now.
  size_t parked() const { return parked_.size(); }

private:
  struct Chan;
  struct Context;
  // Runs the channel's request on this thread, which holds the loop lock;
  // past the budget the loop is handed over (see the top). `current`: the
  // channel's client waits on the exchange (its request() call) and is
  // parked then.
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
  // Passes on the results of the statements that ran on without the loop.
  void collect(ProtocolServer &srv);
  // Asks a standby thread to run the loop's turns; false when none can be
  // had (all RUNNERS_MAX busy).
  bool need_runner();
  // A standby thread's life.
  void runner();
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
  std::chrono::milliseconds lock_timeout_{30000};
  std::atomic<ProtocolServer *> srv_{nullptr}; // whose loop the standby threads run

  // Statements that ran on without the loop and are done, not yet passed
  // on; guarded by done_mutex_.
  std::mutex done_mutex_;
  std::vector<std::shared_ptr<Chan>> done_;
  // Loop-owned: statements running without the loop (threads that gave it
  // up) and those not yet collected.
  int detached_ = 0;
  int jobs_ = 0;

  // Standby threads; guarded by run_mutex_.
  std::mutex run_mutex_;
  std::condition_variable run_cv_;
  std::vector<std::thread> runners_;
  int wanted_ = 0; // runs of the loop asked for and not yet taken up
  int idle_ = 0;   // standby threads waiting to be asked
  bool closing_ = false;
};

} // namespace tavrind
