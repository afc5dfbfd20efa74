// The server side of the TAVRIN shared-memory protocol (see protocol.h).
#include "server/protocol.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/msg.h"
#include "db/wire/wire.h"

namespace tavrind {

namespace {

constexpr size_t kPayload = DBCOMM_PAYLOAD_SIZE;
constexpr uint32_t kMaxPacket = DBCOMM_PACKET_MAX + DBCOMM_FIRST_HEAD; // largest packet
constexpr int64_t kCheckInterval = 100 * 1000000LL;                    // client processes, ns

// Is thread tid one of process pid's? Shared memory cannot tell who wrote
// a word, but a client writes only while it holds the exchange's mutex, and
// the mutex knows its owner's thread.
bool thread_of(pid_t tid, pid_t pid) {
  if (tid <= 0 || pid <= 0) return false;
  if (tid == pid) return true;
  struct stat st;
  std::string task = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
  return ::stat(task.c_str(), &st) == 0;
}

int64_t now_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

} // namespace

std::unique_ptr<ChannelContext> RequestHandler::channel_opened(ProtocolServer &, int, pid_t) {
  return nullptr;
}
void RequestHandler::channel_closed(ProtocolServer &, int, ChannelContext *) {}
void RequestHandler::idle(ProtocolServer &) {}
void RequestHandler::ending(ProtocolServer &) {}

ProtocolServer::ProtocolServer(RequestHandler &handler) : handler_(handler) {}

ProtocolServer::~ProtocolServer() { shutdown(); }

unsigned char *ProtocolServer::area() const { return static_cast<unsigned char *>(area_.data()); }

int32_t ProtocolServer::owner_word() const {
  return static_cast<int32_t>(
      __atomic_load_n(static_cast<uint32_t *>(owner_.data()), __ATOMIC_SEQ_CST));
}

void ProtocolServer::set_owner_word(int32_t v) {
  auto *word = static_cast<uint32_t *>(owner_.data());
  __atomic_store_n(word, static_cast<uint32_t>(v), __ATOMIC_SEQ_CST);
  // Clients waiting for a free exchange sleep on the word.
  if (v == DBCOMM_OWNER_FREE) ipc::word_wake(word);
}

ProtocolServer::Slot *ProtocolServer::slot_at(int channel) {
  if (channel < 0 || size_t(channel) >= slots_.size() || !slots_[size_t(channel)].used)
    return nullptr;
  return &slots_[size_t(channel)];
}

const ProtocolServer::Slot *ProtocolServer::slot_at(int channel) const {
  return const_cast<ProtocolServer *>(this)->slot_at(channel);
}

// Prints why the server does not start: an object of its namespace that
// another user made, another group owns or a wider mode opens. Returns false.
static bool refuse_object(const char *name, const struct stat &st) {
  msg_print("(tavrind) Refusing to start: %s is not this server's own; remove it or use "
            "another namespace\n",
            ipc::describe_object(name, st).c_str());
  return false;
}

void ProtocolServer::close_objects() {
  area_.close();
  owner_.close();
  client_.close();
  server_ack_.close();
  client_ack_.close();
  activate_.close();
  mutex_.close();
  server_.close();
}

// Takes the liveness lock of the namespace on a fresh object of this
// server's own. While another server lives, nothing is touched. An object
// another user could have made or could read is never used: its owner could
// read the exchange or run statements as this server's user. A leftover of
// a dead server of this user is locked (proving that no server lives),
// then replaced, so that clients still attached to it cannot signal this
// server. Returns false with the reason printed.
bool ProtocolServer::take_liveness() {
  struct stat st, held;
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (ipc::stat_object(DBOBJ_SERVER, &st) && !ipc::server_may_use(st, access_))
      return refuse_object(DBOBJ_SERVER, st);
    bool created = false;
    if (!server_.create_owned(DBOBJ_SERVER, access_, &created)) {
      if (errno == EWOULDBLOCK)
        msg_print("(tavrind) A server is already running in namespace '%s'\n",
                  ipc::namespace_name().c_str());
      else
        msg_print("(tavrind) Cannot create %s: %s\n", ipc::object_name(DBOBJ_SERVER).c_str(),
                  std::strerror(errno));
      return false;
    }
    if (created) return true;
    // What was opened is checked again: the name may have changed hands, or
    // a server that started at the same time may have replaced it.
    if (!server_.section().stat(&held) || !ipc::server_may_use(held, access_)) {
      server_.close();
      return refuse_object(DBOBJ_SERVER, held);
    }
    if (!ipc::stat_object(DBOBJ_SERVER, &st) || st.st_ino != held.st_ino) {
      server_.close();
      continue;
    }
    ipc::unlink_object(DBOBJ_SERVER);
    ipc::Event fresh;
    if (fresh.create_owned(DBOBJ_SERVER, access_, &created) && created) {
      server_ = std::move(fresh); // the leftover's lock goes only now
      return true;
    }
    server_.close();
  }
  msg_print("(tavrind) Cannot take over %s\n", ipc::object_name(DBOBJ_SERVER).c_str());
  return false;
}

bool ProtocolServer::start() {
  if (started_) return true;
  struct stat st;
  if (!take_liveness()) return false;
  // The other objects are made anew, exclusively: a leftover of a dead
  // server of this user is removed first, so that nothing a dead process
  // left behind carries over (a mutex locked for ever by a client that
  // unmapped it, a set event, a parked channel in the owner word), and
  // clients still attached to the leftovers cannot reach this server.
  for (const char *name : DBOBJ_ALL) {
    if (std::strcmp(name, DBOBJ_SERVER) == 0 || !ipc::stat_object(name, &st)) continue;
    if (!ipc::server_may_use(st, access_)) {
      close_objects();
      return refuse_object(name, st);
    }
    if (std::strcmp(name, DBOBJ_MUTEX) == 0) {
      ipc::Mutex old;
      if (old.open_existing(DBOBJ_MUTEX) && old.locked_by_other())
        msg_print("(tavrind) %s was left locked; it is replaced\n",
                  ipc::object_name(DBOBJ_MUTEX).c_str());
    }
    ipc::unlink_object(name);
  }
  const char *failed = nullptr;
  if (!area_.create_new(DBOBJ_AREA, DBCOMM_AREA_SIZE, access_))
    failed = DBOBJ_AREA;
  else if (!owner_.create_new(DBOBJ_OWNER, DBCOMM_OWNER_SIZE, access_))
    failed = DBOBJ_OWNER;
  else if (!client_.create_new(DBOBJ_CLIENT, access_))
    failed = DBOBJ_CLIENT;
  else if (!server_ack_.create_new(DBOBJ_SERVER_ACK, access_))
    failed = DBOBJ_SERVER_ACK;
  else if (!client_ack_.create_new(DBOBJ_CLIENT_ACK, access_))
    failed = DBOBJ_CLIENT_ACK;
  else if (!activate_.create_new(DBOBJ_ACTIVATE, access_))
    failed = DBOBJ_ACTIVATE;
  else if (!mutex_.create_new(DBOBJ_MUTEX, access_))
    failed = DBOBJ_MUTEX;
  if (failed) {
    int e = errno;
    close_objects();
    // Taken between the removal and the creation: by whom?
    if (e == EEXIST && ipc::stat_object(failed, &st)) return refuse_object(failed, st);
    msg_print("(tavrind) Cannot create %s: %s\n", ipc::object_name(failed).c_str(),
              std::strerror(e));
    return false;
  }
  // This run's instance id: clients of an earlier run carry another one.
  instance_ = 0;
  while (instance_ == 0)
    if (getrandom(&instance_, sizeof instance_, 0) != sizeof instance_) {
      msg_print("(tavrind) Cannot draw the instance id: %s\n", std::strerror(errno));
      close_objects();
      return false;
    }
  set_owner_word(DBCOMM_OWNER_FREE);
  started_ = true;
  stop_ = 0;
  last_check_ns_ = now_ns();
  return true;
}

void ProtocolServer::shutdown() {
  if (!started_) return;
  handler_.ending(*this);
  for (size_t i = 0; i < slots_.size(); ++i)
    if (slots_[i].used) slots_[i].dead = true;
  close_dead_channels();
  activations_.clear();
  activating_ = -1;
  // Unlink while the liveness lock is still held: a starting server cannot
  // have taken the names over yet.
  for (const char *name : DBOBJ_ALL) ipc::unlink_object(name);
  close_objects();
  started_ = false;
}

void ProtocolServer::wake() {
  if (started_) server_.nudge();
}

void ProtocolServer::run() {
  while (!stop_) turn(100);
}

bool ProtocolServer::turn(int timeout_ms, const std::function<bool()> &wanted) {
  // A thread that gave the lock up in the middle of a request is waiting
  // to take it back: it goes first (the lock itself is not fair). The
  // others sleep until it has the lock; one that got the lock before it
  // (it was already queued on the lock) lets it go again instead of
  // starting a turn, whose wait would no longer be ended by the wake-up
  // that the returning thread sent (the turn before consumed it).
  std::unique_lock<std::mutex> lock(loop_mutex_, std::defer_lock);
  for (;;) {
    for (int r; (r = returning_.load()) > 0;) returning_.wait(r);
    lock.lock();
    if (returning_.load() == 0) break;
    lock.unlock();
  }
  if (wanted && !wanted()) return false;
  poll(timeout_ms);
  return true;
}

void ProtocolServer::retake_loop() {
  ++returning_;
  // The thread running the loop may be waiting for a chunk: the turn ends.
  wake();
  loop_mutex_.lock();
  --returning_;
  returning_.notify_all();
}

void ProtocolServer::poll(int timeout_ms) {
  if (!started_) return;
  if (activating_ < 0) start_activation();
  if (activating_ >= 0 && owner_word() == DBCOMM_OWNER_FREE) finish_activation();
  if (activating_ >= 0)
    wait_activation(timeout_ms);
  else if (server_.wait(timeout_ms) == ipc::WaitResult::Signalled)
    handle_chunk();
  if (activating_ >= 0 && owner_word() == DBCOMM_OWNER_FREE) finish_activation();
  if (now_ns() - last_check_ns_ >= kCheckInterval) check_clients();
  close_dead_channels();
  handler_.idle(*this);
  close_dead_channels();
}

// Reads the chunk in the message area. The bytes are copied out before the
// acknowledgement, since the client may write its next chunk right after it.
// A refused chunk is acknowledged with the channel word replaced by a
// refusal code (DBCOMM_STALE, DBCOMM_DROPPED with the reason in the length
// word): its sender holds the exchange and waits for this acknowledgement,
// so it learns there that no answer will come and gives the exchange up.
void ProtocolServer::handle_chunk() {
  settle_ack(false);
  unsigned char *a = area();
  uint32_t word = DBwire_get32(a + DBCOMM_CHANNEL_AT);
  if (word == DBHS_CHANNEL) {
    handshake();
    return;
  }
  int32_t channel = static_cast<int32_t>(word);
  uint32_t n = DBwire_get32(a + DBCOMM_LENGTH_AT);
  Slot *ch = slot_at(channel);
  std::vector<int> complete;
  uint32_t refusal = 0, reason = 0;
  if (DBwire_get64(a + DBCOMM_INSTANCE_AT) != instance_) {
    msg_print("(tavrind) Chunk for channel %d from a client of another server instance refused\n",
              channel);
    refusal = DBCOMM_STALE;
  } else if (n > kPayload) {
    msg_print("(tavrind) Chunk of %u bytes on channel %d is longer than the message area\n", n,
              channel);
    reason = DBDROP_FRAMING;
  } else if (!ch) {
    msg_print("(tavrind) Chunk for unknown channel %d refused\n", channel);
    reason = DBDROP_CHANNEL;
  } else if (!thread_of(mutex_.owner_tid(), ch->proc.pid())) {
    msg_print("(tavrind) Chunk for channel %d from process %d (not its client %d) refused\n",
              channel, int(mutex_.owner_tid()), int(ch->proc.pid()));
    reason = DBDROP_PROCESS;
  } else if (ch->dropped_incomplete) {
    ch->dropped_incomplete = false;
    msg_print("(tavrind) Rest of the dropped request on channel %d refused\n", channel);
    reason = DBDROP_INCOMPLETE;
  } else {
    reason = feed(channel, a + DBCOMM_PAYLOAD_AT, n, complete);
  }
  if (reason) refusal = DBCOMM_DROPPED;
  if (refusal) {
    // Nothing of this chunk is answered: its sender stops here.
    complete.clear();
    DBwire_put32(a + DBCOMM_CHANNEL_AT, refusal);
    DBwire_put32(a + DBCOMM_LENGTH_AT, reason);
  }
  // The chunk that completes a request is acknowledged together with the
  // first chunk of its answer (or the parking notice): the client then
  // wakes once per short request instead of once for the acknowledgement
  // and once more for the answer. The area holds the answer by then; the
  // client reads only the channel word after the acknowledgement, and the
  // answer carries the same channel. Whatever else ends the request's turn
  // (a one-way request, the loop given up, a chunk that must be taken
  // first) gives the acknowledgement before it.
  if (complete.empty()) {
    client_ack_.set();
    return;
  }
  ack_owed_ = true;
  for (int c : complete) dispatch(c);
  flush_ack();
}

void ProtocolServer::flush_ack() {
  if (!ack_owed_) return;
  ack_owed_ = false;
  client_ack_.set();
}

void ProtocolServer::handshake() {
  unsigned char *a = area();
  pid_t pid = static_cast<pid_t>(DBwire_get32(a + DBCOMM_LENGTH_AT));
  const auto *version = reinterpret_cast<const char *>(a + DBCOMM_PAYLOAD_AT);
  // A client of this version writes a zero instance id; a client of an
  // older one wrote its version text where the id is now.
  bool version_ok = DBwire_get64(a + DBCOMM_INSTANCE_AT) == 0 &&
                    std::memchr(version, 0, kPayload) && std::strcmp(version, DBCOMM_VERSION) == 0;
  int32_t answer = DBHS_REFUSED_VERSION;
  if (!version_ok) {
    msg_print("(tavrind) Client %d refused: version '%.40s' is not %s\n", int(pid),
              std::memchr(version, 0, 41) ? version : "?", DBCOMM_VERSION);
  } else if (pid_t writer = mutex_.owner_tid(); !thread_of(writer, pid)) {
    // A process may only speak for itself: the claimed id must be the one
    // of the process holding the exchange.
    msg_print("(tavrind) Client %d refused: the handshake came from thread %d\n", int(pid),
              int(writer));
    answer = DBHS_REFUSED_PROCESS;
  } else {
    // Clients that ended since the last look give their channels up first
    // (closed at the end of this turn, before the new client's first
    // request is read).
    check_clients();
    // A process holds one transport at a time: a new handshake means its
    // earlier channels are given up.
    for (Slot &old : slots_)
      if (old.used && !old.dead && old.proc.pid() == pid) old.dead = true;
    int free_slot = -1;
    for (size_t i = 0; i < slots_.size(); ++i)
      if (!slots_[i].used) {
        free_slot = int(i);
        break;
      }
    if (free_slot < 0 && int(slots_.size()) < max_channels_) {
      slots_.emplace_back();
      free_slot = int(slots_.size()) - 1;
    }
    ipc::Process proc;
    if (free_slot < 0) {
      msg_print("(tavrind) Client %d refused: all %d channels in use\n", int(pid), max_channels_);
      answer = DBHS_REFUSED_FULL;
    } else if (!proc.open(pid)) {
      msg_print("(tavrind) Client %d refused: no such process\n", int(pid));
      answer = DBHS_REFUSED_PROCESS;
    } else {
      Slot &ch = slots_[size_t(free_slot)];
      ch = Slot{};
      ch.used = true;
      ch.proc = std::move(proc);
      answer = free_slot;
    }
  }
  DBwire_put32(a + DBCOMM_CHANNEL_AT, static_cast<uint32_t>(answer));
  DBwire_put32(a + DBCOMM_LENGTH_AT, static_cast<uint32_t>(getpid()));
  DBwire_put64(a + DBCOMM_INSTANCE_AT, instance_);
  // The version text goes, so that a later client of an older version, which
  // writes its text 8 bytes earlier, cannot pass with this one's.
  std::memset(a + DBCOMM_PAYLOAD_AT, 0, sizeof DBCOMM_VERSION);
  // A refusal tells the client how many channels this server gives out.
  if (answer < 0) DBwire_put32(a + DBCOMM_PAYLOAD_AT, static_cast<uint32_t>(max_channels_));
  client_.set();
  if (answer >= 0) slots_[size_t(answer)].ctx = handler_.channel_opened(*this, answer, pid);
}

// Appends chunk bytes to the channel's packet; every complete packet goes
// into the request being reassembled. Channels whose request became complete
// are added to `complete`. A packet that breaks the framing drops the
// channel's partial request. Returns 0, or the reason (DBDROP_*) why the
// request was dropped.
uint32_t ProtocolServer::feed(int channel, const unsigned char *bytes, size_t n,
                          std::vector<int> &complete) {
  Slot &ch = slots_[size_t(channel)];
  while (n > 0) {
    // First the length word, then the rest of the packet.
    size_t want = 4;
    if (ch.packet.size() >= 4) want = DBwire_get32(ch.packet.data());
    size_t take = std::min(n, want - ch.packet.size());
    ch.packet.insert(ch.packet.end(), bytes, bytes + take);
    bytes += take;
    n -= take;
    if (ch.packet.size() < 4) continue;
    uint32_t plen = DBwire_get32(ch.packet.data());
    uint32_t min_len = ch.in_message ? 5 : 8;
    if (plen < min_len || plen > kMaxPacket) {
      msg_print("(tavrind) Packet length %u on channel %d out of range\n", plen, channel);
      ch.packet.clear();
      ch.message.clear();
      ch.in_message = false;
      return DBDROP_FRAMING;
    }
    if (ch.packet.size() < plen) continue;
    const unsigned char *data;
    size_t dn;
    if (!ch.in_message) {
      uint32_t total = DBwire_get32(ch.packet.data() + 4);
      if (total > max_request_) {
        msg_print("(tavrind) Request of %u bytes on channel %d too long\n", total, channel);
        ch.packet.clear();
        return DBDROP_SIZE;
      }
      ch.message_length = total;
      ch.message.clear();
      // Memory follows the bytes that came, not the length announced: a
      // request announced and never sent costs nothing.
      ch.message.reserve(std::min<size_t>(total, size_t{1} << 20));
      ch.message_started_ns = now_ns();
      ch.in_message = true;
      data = ch.packet.data() + 8;
      dn = plen - 8;
    } else {
      data = ch.packet.data() + 4;
      dn = plen - 4;
    }
    if (ch.message.size() + dn > ch.message_length) {
      msg_print("(tavrind) More request bytes than announced on channel %d\n", channel);
      ch.packet.clear();
      ch.message.clear();
      ch.in_message = false;
      return DBDROP_FRAMING;
    }
    ch.message.insert(ch.message.end(), data, data + dn);
    ch.packet.clear();
    if (ch.message.size() == ch.message_length) {
      ch.in_message = false;
      complete.push_back(channel);
    }
  }
  return 0;
}

void ProtocolServer::dispatch(int channel) {
  Slot *ch = slot_at(channel);
  if (!ch || ch->dead) return;
  std::vector<unsigned char> request;
  request.swap(ch->message);
  current_ = channel;
  // A parked client gets its answer through the activation only: what it
  // sends meanwhile (a cancel) is not answered on the spot.
  current_done_ = ch->parked;
  handler_.request(*this, channel, ch->ctx.get(), request.data(), request.size());
  current_ = -1;
  // Keep the memory of small requests for the next one (unless the channel
  // began another one meanwhile, while the handler let others run).
  ch = slot_at(channel);
  if (ch && !ch->in_message && ch->message.empty() && request.capacity() <= (1u << 20)) {
    request.clear();
    ch->message.swap(request);
  }
}

int ProtocolServer::answer_route(int channel, const unsigned char *data, size_t length) {
  Slot *ch = slot_at(channel);
  if (!ch || ch->dead) return 0;
  if (length > size_t(INT_MAX) || (length == 1 && *data == DBCOMM_PARKED)) return 0;
  if (channel == current_ && !current_done_) return 1;
  if (ch->parked && !ch->answer_ready) return 2;
  return 0;
}

bool ProtocolServer::answer(int channel, const void *data, size_t length) {
  const auto *bytes = static_cast<const unsigned char *>(data);
  switch (answer_route(channel, bytes, length)) {
  case 1:
    current_done_ = true;
    return send_message(channel, bytes, length);
  case 2: {
    Slot *ch = slot_at(channel);
    ch->pending.assign(bytes, bytes + length);
    ch->answer_ready = true;
    activations_.push_back(channel);
    return true;
  }
  default:
    return false;
  }
}

bool ProtocolServer::answer(int channel, std::vector<unsigned char> &&data) {
  switch (answer_route(channel, data.data(), data.size())) {
  case 1: {
    current_done_ = true;
    bool ok = send_message(channel, data.data(), data.size());
    data.clear();
    return ok;
  }
  case 2: {
    Slot *ch = slot_at(channel);
    ch->pending = std::move(data);
    data.clear();
    ch->answer_ready = true;
    activations_.push_back(channel);
    return true;
  }
  default:
    return false;
  }
}

bool ProtocolServer::park(int channel) {
  Slot *ch = slot_at(channel);
  if (!ch || ch->dead || channel != current_ || current_done_) return false;
  current_done_ = true;
  unsigned char notice[DBCOMM_PARKED_CHUNK];
  DBwire_put32(notice, DBCOMM_PARKED_CHUNK);
  DBwire_put32(notice + 4, 1);
  notice[DBCOMM_FIRST_HEAD] = DBCOMM_PARKED;
  if (!send_chunk(channel, notice, sizeof notice, nullptr, 0, true)) return false;
  ch->parked = true;
  return true;
}

bool ProtocolServer::is_parked(int channel) const {
  const Slot *ch = slot_at(channel);
  return ch && ch->parked;
}

bool ProtocolServer::channel_open(int channel) const {
  const Slot *ch = slot_at(channel);
  return ch && !ch->dead;
}

pid_t ProtocolServer::client_pid(int channel) const {
  const Slot *ch = slot_at(channel);
  return ch ? ch->proc.pid() : 0;
}

int ProtocolServer::open_channels() const {
  int n = 0;
  for (const Slot &ch : slots_) n += ch.used && !ch.dead;
  return n;
}

// Puts one chunk (head then body) into the area for `channel` and signals
// the client. A chunk followed by another must be taken before the area is
// written again, so the server waits for its acknowledgement; the last chunk
// of a message is acknowledged while the server already waits for the next
// request, and that acknowledgement is taken later (settle_ack). Returns
// false, marking the channel dead, when the client ended first (or the
// server is stopping).
bool ProtocolServer::send_chunk(int channel, const unsigned char *head, size_t hn,
                                const unsigned char *body, size_t bn, bool last) {
  settle_ack(true);
  Slot &ch = slots_[size_t(channel)];
  unsigned char *a = area();
  DBwire_put32(a + DBCOMM_CHANNEL_AT, static_cast<uint32_t>(channel));
  DBwire_put32(a + DBCOMM_LENGTH_AT, static_cast<uint32_t>(hn + bn));
  DBwire_put64(a + DBCOMM_INSTANCE_AT, instance_);
  if (hn) std::memcpy(a + DBCOMM_PAYLOAD_AT, head, hn);
  if (bn) std::memcpy(a + DBCOMM_PAYLOAD_AT + hn, body, bn);
  client_.set();
  // The request's acknowledgement after the answer's chunk: the client,
  // woken by it, finds its answer there already.
  flush_ack();
  if (last) {
    ack_channel_ = channel;
    return true;
  }
  for (;;) {
    ipc::WaitResult r = server_ack_.wait(200, &ch.proc);
    if (r == ipc::WaitResult::Signalled) return true;
    if (r != ipc::WaitResult::Timeout || stop_) {
      ch.dead = true;
      return false;
    }
  }
}

// Takes the acknowledgement of the last chunk sent. With `wait` it waits
// until it comes or its client has ended; without, it only takes it if it is
// there: a new chunk in the area means the previous exchange is over, since
// clients acknowledge before they give the mutex up.
void ProtocolServer::settle_ack(bool wait) {
  if (ack_channel_ < 0) return;
  Slot *ch = slot_at(ack_channel_);
  ack_channel_ = -1;
  if (!wait || !ch || ch->dead) {
    server_ack_.wait(0);
    return;
  }
  for (;;) {
    ipc::WaitResult r = server_ack_.wait(200, &ch->proc);
    if (r == ipc::WaitResult::Signalled) return;
    if (r != ipc::WaitResult::Timeout || stop_) {
      ch->dead = true;
      return;
    }
  }
}

// Sends a whole answer in packets of at most 10000 message bytes, each
// packet as one chunk. Returns false if the client ended on the way.
bool ProtocolServer::send_message(int channel, const unsigned char *data, size_t length) {
  unsigned char head[8];
  const uint32_t total = static_cast<uint32_t>(length);
  if (total <= DBCOMM_PACKET_MAX) {
    DBwire_put32(head, total + 8);
    DBwire_put32(head + 4, total);
    return send_chunk(channel, head, 8, data, total, true);
  }
  DBwire_put32(head, DBCOMM_PACKET_MAX);
  DBwire_put32(head + 4, total);
  if (!send_chunk(channel, head, 8, data, DBCOMM_FIRST_DATA, false)) return false;
  uint32_t done = DBCOMM_FIRST_DATA;
  while (done < total) {
    uint32_t n = std::min<uint32_t>(total - done, DBCOMM_NEXT_DATA);
    DBwire_put32(head, n + 4);
    if (!send_chunk(channel, head, 4, data + done, n, done + n >= total)) return false;
    done += n;
  }
  return true;
}

// Hands the exchange to the next parked channel whose answer is ready.
void ProtocolServer::start_activation() {
  while (!activations_.empty()) {
    int channel = activations_.front();
    activations_.pop_front();
    Slot *ch = slot_at(channel);
    if (!ch || ch->dead || !ch->answer_ready) continue;
    activating_ = channel;
    set_owner_word(channel);
    // Wakes the parked clients addressed by the channel only; the one the
    // owner word names takes the event.
    activate_.set_for(uint32_t(channel));
    return;
  }
}

// While a parked client takes the exchange back, the answer it waits for
// goes out as soon as it has set the owner word free; other clients' chunks
// may come in meanwhile (one of them may hold the mutex the activated client
// needs). The thread sleeps on the futex of the owner word, which the
// activated client wakes when it sets the word free, so the answer leaves
// at once; the sleep is cut into slices of 20 us so that a chunk of the
// client that took the exchange before the activation began is answered
// too. Returns after up to 1 ms (at most timeout_ms).
void ProtocolServer::wait_activation(int timeout_ms) {
  const int64_t end = now_ns() + int64_t(std::min(timeout_ms, 1)) * 1000000;
  const auto *word = static_cast<const uint32_t *>(owner_.data());
  do {
    if (server_.wait(0) == ipc::WaitResult::Signalled) {
      handle_chunk();
      return;
    }
    const int32_t owner = owner_word();
    if (owner == DBCOMM_OWNER_FREE) return;
    ipc::word_wait(word, static_cast<uint32_t>(owner), 20);
  } while (now_ns() < end);
}

// The activated client has the mutex again and has set the owner word back
// to free: it now waits for its answer.
void ProtocolServer::finish_activation() {
  int channel = activating_;
  activating_ = -1;
  Slot *ch = slot_at(channel);
  if (!ch || ch->dead) return;
  std::vector<unsigned char> pending;
  pending.swap(ch->pending);
  ch->parked = false;
  ch->answer_ready = false;
  send_message(channel, pending.data(), pending.size());
  keep_answer_memory(std::move(pending));
}

void ProtocolServer::keep_answer_memory(std::vector<unsigned char> &&buf) {
  constexpr size_t kMax = size_t{32} << 20;
  if (buf.capacity() <= spare_answer_.capacity() || buf.capacity() > kMax) return;
  buf.clear();
  spare_answer_.swap(buf);
}

void ProtocolServer::reuse_answer_memory(std::vector<unsigned char> &buf) {
  if (spare_answer_.capacity() <= buf.capacity()) return;
  buf.clear();
  buf.swap(spare_answer_);
}

void ProtocolServer::check_clients() {
  last_check_ns_ = now_ns();
  for (size_t i = 0; i < slots_.size(); ++i) {
    Slot &ch = slots_[i];
    if (ch.used && !ch.dead && !ch.proc.alive()) ch.dead = true;
    // A request that stays incomplete (a client stopped or misbehaving in
    // the middle of it) is dropped with its memory after the time limit.
    if (ch.used && ch.in_message &&
        last_check_ns_ - ch.message_started_ns > int64_t(incomplete_limit_ms_) * 1000000) {
      msg_print("(tavrind) Incomplete request of %u bytes on channel %d dropped after %d ms\n",
                ch.message_length, int(i), incomplete_limit_ms_);
      ch.in_message = false;
      ch.dropped_incomplete = true;
      ch.packet.clear();
      std::vector<unsigned char>().swap(ch.message);
    }
  }
  // Nobody is being handed the exchange: a set activation event is stale
  // (parked clients would pass it on to each other for ever).
  if (activating_ < 0 && activate_.is_set()) activate_.reset();
}

void ProtocolServer::close_dead_channels() {
  for (size_t i = 0; i < slots_.size(); ++i) {
    Slot &ch = slots_[i];
    if (!ch.used || !ch.dead) continue;
    int channel = int(i);
    if (activating_ == channel) {
      if (owner_word() == channel) set_owner_word(DBCOMM_OWNER_FREE);
      activating_ = -1;
    }
    if (ack_channel_ == channel) ack_channel_ = -1;
    handler_.channel_closed(*this, channel, ch.ctx.get());
    ch = Slot{};
  }
}

} // namespace tavrind
