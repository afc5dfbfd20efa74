// The server side of the TAVRIN shared-memory protocol.
//
// ProtocolServer owns the named objects of a server (it creates them and
// holds the liveness lock on "TavrinDB_Server" for its whole life), answers
// handshakes (version DBCOMM_VERSION only), gives out channels and watches
// each client's process, reassembles requests from chunks and packets, and
// sends answers in packets and chunks. run() or poll() waits for the next
// chunk and calls the RequestHandler for every complete request. Its state
// belongs to whichever thread holds the loop lock: run() and turn()
// holds it for each turn, and a handler whose request turns out long may
// give it up in the middle of that request's call (release_loop) so that
// another thread of its own runs the turns meanwhile, and take it back
// (retake_loop) before it returns.
//
// The handler decides what a request means. For each request it answers now
// (answer), parks the client (park: the client gets the one-byte notice
// DBCOMM_PARKED, lets other clients go on, and waits), or sends nothing
// (one-way requests such as DBREQ_CLOSE and DBREQ_NOTICE). A parked client is
// answered later with answer(): the server hands the exchange back to it
// through the owner word and "TavrinDB_Client_Activate" as soon as no other
// exchange is running. A parked client may send a request of its own (a
// cancel); it is handed to the handler like any other but cannot be
// answered directly, since its client waits for the activation. The
// handler may run requests on threads of its own: wake() (from any thread)
// ends the loop's wait at once so that idle() can pass their answers on.
// The handler keeps per-channel state in a
// ChannelContext of its own and hears when a client has ended. Executing statements is the
// handler's business.
#pragma once

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <sys/types.h>
#include <vector>

#include "db/ipc/event.h"
#include "db/ipc/mutex.h"
#include "db/ipc/named.h"
#include "db/ipc/process.h"
#include "db/wire/wire.h"

namespace tavrind {

class ProtocolServer;

// What a handler keeps for one channel; destroyed when the channel ends.
struct ChannelContext {
  virtual ~ChannelContext() = default;
};

class RequestHandler {
public:
  virtual ~RequestHandler() = default;
  // A client process `pid` was given `channel`. The context returned (may be
  // null) is handed to every request of the channel.
  virtual std::unique_ptr<ChannelContext> channel_opened(ProtocolServer &srv, int channel,
                                                         pid_t pid);
  // One complete request of `length` bytes (valid during the call only).
  virtual void request(ProtocolServer &srv, int channel, ChannelContext *ctx,
                       const unsigned char *data, size_t length) = 0;
  // The client of `channel` has ended. Called once, before the context is
  // destroyed and the channel number given out again; an answer still
  // outstanding for it is dropped.
  virtual void channel_closed(ProtocolServer &srv, int channel, ChannelContext *ctx);
  // Called at the end of every turn of the server loop (at least every
  // 100 ms, and right after a wake()), e.g. to answer parked clients whose
  // wait is over.
  virtual void idle(ProtocolServer &srv);
  // Called first by ProtocolServer::shutdown(), while the server still
  // serves: the handler ends its own threads' work and may poll() to pass
  // their last answers on.
  virtual void ending(ProtocolServer &srv);
};

class ProtocolServer {
public:
  explicit ProtocolServer(RequestHandler &handler);
  // Shuts down (see shutdown()).
  ~ProtocolServer();
  ProtocolServer(const ProtocolServer &) = delete;
  ProtocolServer &operator=(const ProtocolServer &) = delete;

  // Takes the liveness lock of the current namespace and creates the other
  // named objects anew (removing this user's leftovers of a dead server).
  // Returns false, with the reason printed, when a live server already holds
  // the namespace, an object of the namespace is not this server's own (see
  // ipc::server_may_use; the message names it, its owner and mode), or an
  // object cannot be made; the server is then not started and touched no
  // object of another server or user.
  bool start();
  // Serves until request_stop(), each turn under the loop lock. start()
  // must have succeeded.
  void run();
  // One turn (poll(timeout_ms)) under the loop lock, from any thread of the
  // server, when `wanted` (asked under the lock) agrees; returns whether it
  // ran. A thread taking the lock back (retake_loop) goes first.
  bool turn(int timeout_ms, const std::function<bool()> &wanted = {});
  // During a request() call, on the thread that holds the loop lock: gives
  // the lock up (the server's state is consistent: the request was parked
  // or is one-way) / takes it back before request() returns. Between the
  // two the thread must not touch the server except through wake().
  // Gives the acknowledgement of the running request's last chunk, which
  // handle_chunk holds back until the answer is there, if it is still owed
  // (a request that runs past its budget gives it at once, so that its
  // client waits for the answer with its wait hook).
  void flush_ack();
  void release_loop() {
    flush_ack();
    loop_mutex_.unlock();
  }
  void retake_loop();
  // One turn: waits at most timeout_ms for a chunk and handles it, hands
  // the exchange to a parked client whose answer is ready, notices clients
  // that ended, calls the handler's idle(). Without the loop lock (turn()
  // takes it) only with a handler that never gives the lock up.
  void poll(int timeout_ms);
  // Makes run() return after its current turn. Safe in a signal handler.
  void request_stop() { stop_ = 1; }
  // Ends the current or next wait of the server loop at once (the turn then
  // calls the handler's idle()). Safe from any thread of the server process.
  void wake();
  bool stop_requested() const { return stop_ != 0; }
  // Removes the named objects and closes them; the server no longer exists
  // for clients. Channels are closed with channel_closed().
  void shutdown();

  // Answers `channel`: during its request() call the answer goes out at once;
  // for a parked channel it is kept and sent when the client has the
  // exchange again. Returns false if the channel has no request waiting for
  // an answer, the answer is the one byte "-" (which the client would take
  // for a parking notice) or longer than 2^31 - 1 bytes, or the client ended
  // while it was sent.
  bool answer(int channel, const void *data, size_t length);
  // The same, taking the answer's memory instead of copying it (a large
  // answer of a parked channel is then not held twice); `data` is left empty.
  bool answer(int channel, std::vector<unsigned char> &&data);
  // Hands out the memory of the largest answer sent to a parked client
  // (at most 32 MiB, kept after it went out) when `buf` has less: the next
  // large answer is then built without growing into fresh pages again.
  // `buf`'s contents are dropped if swapped. Under the loop lock.
  void reuse_answer_memory(std::vector<unsigned char> &buf);
  // Answers kept for parked clients that have not been sent yet.
  bool answers_pending() const { return activating_ >= 0 || !activations_.empty(); }
  // Parks `channel` during its request() call: sends the parking notice.
  // Returns false outside the channel's request() call or if the client
  // ended.
  bool park(int channel);

  bool is_parked(int channel) const;
  bool channel_open(int channel) const;
  pid_t client_pid(int channel) const;
  int open_channels() const;
  // The highest number of channels given out at once (default 1024).
  void set_max_channels(int n) { max_channels_ = n; }
  // Who may use the objects start() creates: this user alone (the default)
  // or this user and a group (a shared server).
  void set_access(const ipc::Access &access) { access_ = access; }
  // The longest request one client may announce (default 1 GiB); a longer
  // one is dropped at its first packet. Its memory is taken as the bytes
  // come in.
  void set_max_request(uint32_t bytes) { max_request_ = bytes; }
  // How long a request may stay incomplete before it is dropped with its
  // memory (default 30 s).
  void set_incomplete_limit_ms(int ms) { incomplete_limit_ms_ = ms; }

private:
  // The transport's slot of one channel: its client process, the request
  // being reassembled and the answer kept for it while it is parked.
  struct Slot {
    bool used = false;
    bool dead = false;
    bool parked = false;
    bool answer_ready = false;
    ipc::Process proc;
    std::unique_ptr<ChannelContext> ctx;
    std::vector<unsigned char> packet;  // the packet being received
    std::vector<unsigned char> message; // the request being reassembled
    uint32_t message_length = 0;
    int64_t message_started_ns = 0; // when its first packet came
    bool in_message = false;
    // Its incomplete request was dropped by the time limit: the next chunk,
    // the rest of that request, is refused so that its client stops.
    bool dropped_incomplete = false;
    std::vector<unsigned char> pending; // the answer of a parked request
  };

  bool take_liveness();
  // Where an answer for `channel` goes: 1 out now, 2 kept for its
  // activation, 0 refused (see answer()).
  int answer_route(int channel, const unsigned char *data, size_t length);
  void close_objects();
  void handle_chunk();
  void handshake();
  uint32_t feed(int channel, const unsigned char *bytes, size_t n, std::vector<int> &complete);
  void dispatch(int channel);
  bool send_message(int channel, const unsigned char *data, size_t length);
  bool send_chunk(int channel, const unsigned char *head, size_t hn, const unsigned char *body,
                  size_t bn, bool last);
  void settle_ack(bool wait);
  void start_activation();
  // Waits up to timeout_ms (at most 1 ms) for the activated client to set
  // the owner word free or for a chunk, which it handles.
  void wait_activation(int timeout_ms);
  void finish_activation();
  void check_clients();
  void close_dead_channels();
  Slot *slot_at(int channel);
  const Slot *slot_at(int channel) const;
  unsigned char *area() const;
  int32_t owner_word() const;
  void set_owner_word(int32_t v);
  // Keeps the memory of a sent answer for reuse_answer_memory.
  void keep_answer_memory(std::vector<unsigned char> &&buf);

  RequestHandler &handler_;
  std::mutex loop_mutex_;
  std::atomic<int> returning_{0}; // threads waiting in retake_loop()
  std::vector<unsigned char> spare_answer_; // see reuse_answer_memory
  bool started_ = false;
  volatile sig_atomic_t stop_ = 0;
  int max_channels_ = 1024;
  ipc::Access access_;
  uint32_t max_request_ = 1u << 30;
  int incomplete_limit_ms_ = 30000;
  uint64_t instance_ = 0; // drawn at start(), carried by every client chunk

  ipc::Event server_;
  ipc::Section area_, owner_;
  ipc::Event client_, server_ack_, client_ack_, activate_;
  ipc::Mutex mutex_;

  std::vector<Slot> slots_;
  int current_ = -1;          // channel whose request() runs
  bool current_done_ = false; // it was answered or parked
  std::deque<int> activations_;
  int activating_ = -1;  // channel handed the exchange, not yet answered
  int ack_channel_ = -1; // its last chunk was sent, its acknowledgement not taken
  bool ack_owed_ = false; // the chunk that completed the running request is not yet acknowledged
  int64_t last_check_ns_ = 0;
};

} // namespace tavrind
