// The client side of the shared-memory transport (see transport.h).
//
// All state of the transport is process-wide and lives in g_tp below: the
// named objects, the watch on the server process, whether this process holds
// "TavrinDB_Mutex", and the rest of a chunk that did not fit the reader.
#include "db/client/transport.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/msg.h"
#include "db/ipc/event.h"
#include "db/ipc/mutex.h"
#include "db/ipc/named.h"
#include "db/ipc/process.h"

namespace {

using ipc::WaitResult;

struct Transport {
  ipc::Section area;  // DBOBJ_AREA
  ipc::Section owner; // DBOBJ_OWNER
  ipc::Event server;  // client -> server: a chunk is in the area
  ipc::Event client;  // server -> client: a chunk for a client is in the area
  ipc::Event server_ack;
  ipc::Event client_ack;
  ipc::Event activate;
  ipc::Mutex mutex;
  ipc::Process server_proc; // set by the handshake, forgotten when it ended
  size_t payload = 0;       // bytes from offset 16 to the end of the area
  bool ready = false;
  bool mutex_held = false;
  // The channel limit a full server reported at the last handshake.
  int channel_limit = 0;
  // The channel of the last handshake. A process has one connection at a
  // time: a request on an earlier channel (of a connection that a later
  // connect replaced) would go to a channel the server has given up or given
  // to another client, and would wait for ever holding the mutex.
  int32_t channel = -1;
  // The server instance of the last handshake, carried by every chunk.
  uint64_t instance = 0;
  // The area is an older server's (shorter, without the instance id): only
  // the handshake runs, and reports the version as incompatible.
  bool old_area = false;
  // A chunk longer than the reader wanted: its rest waits at offset 16 and
  // is taken by the next chunk read without waiting for a new signal.
  bool partial_pending = false;
  // One packet of an answer; a packet is at most 10008 bytes.
  std::array<unsigned char, DBCOMM_PAYLOAD_SIZE> packet;
};

Transport g_tp;

// Set while DBclient_read waits for an answer; DBcancel (also from a signal
// handler) then asks for a stop, which the waiting loop sends once its
// client is parked. Lock-free atomics, so both are async-signal-safe.
std::atomic<int> g_waiting{0};
std::atomic<int> g_cancel{0};
static_assert(std::atomic<int>::is_always_lock_free);

// Called about every 50 ms while an answer is awaited (DBset_wait_hook).
void (*g_hook)(void *) = nullptr;
void *g_hook_arg = nullptr;
constexpr int kHookMs = 50;

void call_hook() {
  if (g_hook) g_hook(g_hook_arg);
}

// The text of the transport's last failure, printed when it happened; kept
// for DBclient_error and cleared when the next write or read starts.
std::string g_error;

// Prints a failure of the transport and keeps its text for DBclient_error.
void report(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void report(const char *fmt, ...) {
  char text[200];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  msg_print("%s", text);
  g_error = text;
}

unsigned char *area() { return static_cast<unsigned char *>(g_tp.area.data()); }

int32_t owner_word() {
  return static_cast<int32_t>(
      __atomic_load_n(static_cast<uint32_t *>(g_tp.owner.data()), __ATOMIC_SEQ_CST));
}

void set_owner_word(int32_t v) {
  __atomic_store_n(static_cast<uint32_t *>(g_tp.owner.data()), static_cast<uint32_t>(v),
                   __ATOMIC_SEQ_CST);
}

void sleep_1ms() {
  struct timespec ts = {0, 1000000};
  nanosleep(&ts, nullptr);
}

// Releases the mutex if held. Returns false if the release failed.
bool release_mutex() {
  if (!g_tp.mutex_held) return true;
  if (!g_tp.mutex.unlock()) return false;
  g_tp.mutex_held = false;
  return true;
}

// Locks the mutex. Returns false on a wait result other than signalled or
// abandoned. No signal meant for this process can be pending when it starts
// an exchange; a leftover of a broken exchange (an owner that died, a reply
// that came after a time-out) is cleared here so that it is not taken for
// data.
bool lock_mutex(int timeout_ms) {
  WaitResult r = g_tp.mutex.lock(timeout_ms);
  if (r != WaitResult::Signalled && r != WaitResult::Abandoned) return false;
  g_tp.mutex_held = true;
  if (r == WaitResult::Abandoned) {
    // The last owner died in the middle of an exchange. The server may
    // still be sending it a chunk; it notices the death within one 20 ms
    // slice of its wait, so let it finish before the leftovers are cleared.
    struct timespec ts = {0, 50000000};
    nanosleep(&ts, nullptr);
  }
  g_tp.client.reset();
  g_tp.client_ack.reset();
  g_tp.partial_pending = false;
  return true;
}

// The server process ended while this process waited for it: forget the
// watch and give the exchange up, so that other clients are not blocked.
// Says so, and whether another server runs in the namespace by now: either
// way what this connection did in its transaction is gone.
void server_ended() {
  g_tp.server_proc.close();
  release_mutex();
  ipc::Event probe;
  if (probe.open_live(DBOBJ_SERVER))
    report("client: The server was restarted; the transaction is lost\n");
  else
    report("client: The server has ended; the transaction is lost\n");
}

// Takes the exchange: the mutex with the owner word free (or, with
// own_channel >= 0, naming that channel). Returns false on a failure of the
// mutex; a lock wait that times out counts as failure.
bool take_exchange(int own_channel, int timeout_ms) {
  for (;;) {
    if (!lock_mutex(timeout_ms)) return false;
    int32_t o = owner_word();
    if (o == DBCOMM_OWNER_FREE || (own_channel >= 0 && o == own_channel)) return true;
    if (!release_mutex()) return false;
    // A parked client is being handed the exchange: it wakes the word when
    // it sets it free (an older one does not: then 1 ms is the limit).
    ipc::word_wait(static_cast<const uint32_t *>(g_tp.owner.data()), static_cast<uint32_t>(o),
                   1000);
  }
}

// The server refused the chunk just acknowledged (its channel word is a
// refusal code, see handle_chunk): gives the exchange up and says why.
// Returns -1.
int refused_chunk(uint32_t code) {
  release_mutex();
  if (code == DBCOMM_STALE) {
    report("client: The server was restarted; the transaction is lost\n");
    return -1;
  }
  static const char *const reasons[] = {
      "a damaged request", "an unknown channel", "a chunk from another process",
      "a request longer than the server takes", "a request left incomplete too long"};
  uint32_t why = DBwire_get32(area() + DBCOMM_LENGTH_AT);
  report("client: The server dropped the request (%s)\n",
         why >= DBDROP_FRAMING && why <= DBDROP_INCOMPLETE ? reasons[why - 1] : "no reason given");
  return -1;
}

// Sends one chunk made of head (hn bytes) and body (bn bytes). Returns the
// chunk length, or -1 when the server process ended first or refused the
// chunk (the exchange is then given up).
int send_chunk(int channel, const unsigned char *head, size_t hn, const unsigned char *body,
               size_t bn) {
  unsigned char *a = area();
  DBwire_put32(a + DBCOMM_CHANNEL_AT, static_cast<uint32_t>(channel));
  DBwire_put32(a + DBCOMM_LENGTH_AT, static_cast<uint32_t>(hn + bn));
  DBwire_put64(a + DBCOMM_INSTANCE_AT, g_tp.instance);
  if (hn) std::memcpy(a + DBCOMM_PAYLOAD_AT, head, hn);
  if (bn) std::memcpy(a + DBCOMM_PAYLOAD_AT + hn, body, bn);
  g_tp.server.set();
  // The server acknowledges a request's last chunk together with the
  // answer, so this wait may last as long as a statement that keeps the
  // server busy: the wait hook is called meanwhile, as while the answer is
  // awaited.
  WaitResult r;
  while ((r = g_tp.client_ack.wait(g_hook ? kHookMs : -1, &g_tp.server_proc)) ==
         WaitResult::Timeout)
    call_hook();
  if (r != WaitResult::Signalled) {
    server_ended();
    return -1;
  }
  uint32_t word = DBwire_get32(a + DBCOMM_CHANNEL_AT);
  if (word != static_cast<uint32_t>(channel)) return refused_chunk(word);
  return static_cast<int>(hn + bn);
}

// Sends one packet: an 8- or 4-byte header (its first word the packet
// length) followed by the rest of the packet's bytes from body, in chunks that fit the area.
// Returns the bytes sent, or the first chunk result of 0 or less.
int send_packet(int channel, const unsigned char *head, size_t hn, const unsigned char *body) {
  const size_t total = DBwire_get32(head);
  size_t sent = 0;
  while (sent < total) {
    // The part of [head | body] from `sent`, at most one area's payload.
    size_t n = std::min(total - sent, g_tp.payload);
    size_t h = sent < hn ? std::min(hn - sent, n) : 0;
    const unsigned char *hp = head + std::min(sent, hn);
    const unsigned char *bp = body + (sent + h - std::min(sent + h, hn));
    int r = send_chunk(channel, hp, h, bp, n - h);
    if (r <= 0) return r;
    sent += static_cast<size_t>(r);
  }
  return static_cast<int>(sent);
}

// Where the bytes of a packet go: the 4-byte length word to head, the rest
// to body (for the packet buffer body is simply head + 4).
struct Dest {
  unsigned char *head;
  unsigned char *body;
};

// Copies n chunk bytes that sit at offset pos of the packet.
void copy_out(const Dest &d, size_t pos, const unsigned char *src, size_t n) {
  if (pos < 4) {
    size_t h = std::min(n, 4 - pos);
    std::memcpy(d.head + pos, src, h);
    src += h;
    n -= h;
    pos += h;
  }
  if (n) std::memcpy(d.body + (pos - 4), src, n);
}

// Sends the one-byte cancel request on `channel` while its client is parked
// (it then holds no exchange). The exchange is taken only while free: when
// the owner word names this channel the answer is already coming, and there
// is nothing left to stop. Returns 1 when sent or moot, 0 when the exchange
// is busy (try again later), -1 when the server ended or refused it.
int send_cancel(int channel) {
  if (!lock_mutex(kHookMs)) return 0;
  int32_t o = owner_word();
  if (o != DBCOMM_OWNER_FREE) {
    release_mutex();
    return o == channel ? 1 : 0;
  }
  unsigned char packet[9];
  DBwire_put32(packet, sizeof packet);
  DBwire_put32(packet + 4, 1);
  packet[8] = DBREQ_CANCEL;
  int r = send_chunk(channel, packet, sizeof packet, nullptr, 0);
  release_mutex();
  return r > 0 ? 1 : -1;
}

// Reads one chunk of at most max bytes, to packet offset pos of d, following
// a parking notice and the re-activation. Returns the bytes taken, -1 when the
// server ended (or sent a chunk longer than the area), -2 on a failure of the
// mutex.
int read_chunk(int channel, const Dest &d, size_t pos, int max) {
  unsigned char *a = area();
  for (;;) {
    if (!g_tp.partial_pending) {
      WaitResult r;
      while ((r = g_tp.client.wait(g_hook ? kHookMs : -1, &g_tp.server_proc)) ==
             WaitResult::Timeout)
        call_hook();
      if (r != WaitResult::Signalled) {
        server_ended();
        return -1;
      }
    }
    uint32_t n = DBwire_get32(a + DBCOMM_LENGTH_AT);
    if (n > g_tp.payload) {
      report("client read: Chunk length %u out of range\n", n);
      g_tp.partial_pending = false;
      return -1;
    }
    if (!g_tp.partial_pending && n == DBCOMM_PARKED_CHUNK &&
        a[DBCOMM_PAYLOAD_AT + DBCOMM_FIRST_HEAD] == DBCOMM_PARKED) {
      // Parked: the server answers later. Give the exchange up and wait
      // until the server hands it back to this channel.
      g_tp.server_ack.set();
      if (!release_mutex()) return -2;
      // The wait takes the activation only once the owner word names this
      // channel, so an activation meant for another parked client is not
      // taken and passed on here; the pass-on below is for an activation
      // whose owner word changed in between.
      const auto *owner = static_cast<const uint32_t *>(g_tp.owner.data());
      for (;;) {
        WaitResult r = g_tp.activate.wait_for(kHookMs, &g_tp.server_proc, owner, uint32_t(channel));
        if (r == WaitResult::Timeout) {
          call_hook();
          if (g_cancel.exchange(0)) {
            int sent = send_cancel(channel);
            if (sent < 0) return -1;
            if (sent == 0) g_cancel.store(1);
          }
          continue;
        }
        if (r != WaitResult::Signalled) {
          server_ended();
          return -1;
        }
        if (owner_word() == channel) {
          if (!lock_mutex(-1)) return -2;
          set_owner_word(DBCOMM_OWNER_FREE);
          // Clients waiting for the exchange to be free may go on.
          ipc::word_wake(static_cast<uint32_t *>(g_tp.owner.data()));
          break;
        }
        // Meant for another parked client: pass it on.
        g_tp.activate.set();
        sleep_1ms();
      }
      continue;
    }
    if (static_cast<int64_t>(n) > max) {
      size_t m = static_cast<size_t>(max);
      copy_out(d, pos, a + DBCOMM_PAYLOAD_AT, m);
      DBwire_put32(a + DBCOMM_LENGTH_AT, static_cast<uint32_t>(n - m));
      std::memmove(a + DBCOMM_PAYLOAD_AT, a + DBCOMM_PAYLOAD_AT + m, n - m);
      g_tp.partial_pending = true;
      return max;
    }
    copy_out(d, pos, a + DBCOMM_PAYLOAD_AT, n);
    g_tp.partial_pending = false;
    g_tp.server_ack.set();
    return static_cast<int>(n);
  }
}

// Reads one packet of at most cap bytes to d. Returns the bytes received (at
// least 4), -1 for a packet longer than cap, or the first chunk result of 0
// or less.
int read_packet(int channel, const Dest &d, int cap) {
  int got = 0;
  while (got < 4) {
    int r = read_chunk(channel, d, size_t(got), cap - got);
    if (r <= 0) return r;
    got += r;
  }
  uint32_t plen = DBwire_get32(d.head);
  if (plen > static_cast<uint32_t>(cap)) {
    report("client read: Packet length %u out of range\n", plen);
    return -1;
  }
  if (got > static_cast<int>(plen))
    msg_print("dbread client error: More received than sent %d/%d\n", got, static_cast<int>(plen));
  while (got < static_cast<int>(plen)) {
    int r = read_chunk(channel, d, size_t(got), static_cast<int>(plen) - got);
    if (r <= 0) return r;
    got += r;
  }
  return got;
}

// Reads one packet into the packet buffer g_tp.packet.
int read_packet(int channel) {
  unsigned char *pkt = g_tp.packet.data();
  return read_packet(channel, Dest{pkt, pkt + 4}, static_cast<int>(g_tp.packet.size()));
}

// Asks for huge pages behind a large answer buffer: filling it then takes a
// few page faults instead of one per 4 KiB. Only a hint; failures are
// harmless.
void advise_huge(unsigned char *p, size_t n) {
  constexpr size_t kHuge = 2u << 20;
  if (n < 2 * kHuge) return;
  uintptr_t from = (reinterpret_cast<uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
  uintptr_t to = (reinterpret_cast<uintptr_t>(p) + n) & ~(kHuge - 1);
  if (to > from) madvise(reinterpret_cast<void *>(from), to - from, MADV_HUGEPAGE);
}

// Does this process trust the object open in sec (ipc::client_may_trust)?
// Prints the refusal, naming the object and its owner, and sets errno.
bool trusted(const ipc::Section &sec, const char *name) {
  struct stat st;
  if (!sec.stat(&st)) return false;
  if (ipc::client_may_trust(st)) return true;
  msg_print("Refusing %s: it belongs to another user\n", ipc::describe_object(name, st).c_str());
  errno = EACCES;
  return false;
}

// Opens the server's objects other than its liveness event, each only when
// trusted. False with errno.
bool open_area(int size) {
  g_tp.old_area = false;
  if (g_tp.area.open_existing(DBOBJ_AREA, static_cast<size_t>(size))) return true;
  if (errno != EINVAL || size <= DBCOMM_OLD_AREA_SIZE ||
      !g_tp.area.open_existing(DBOBJ_AREA, DBCOMM_OLD_AREA_SIZE))
    return false;
  g_tp.old_area = true;
  return true;
}

bool open_objects(int size) {
  return open_area(size) && trusted(g_tp.area, DBOBJ_AREA) &&
         g_tp.owner.open_existing(DBOBJ_OWNER, DBCOMM_OWNER_SIZE) &&
         trusted(g_tp.owner, DBOBJ_OWNER) && g_tp.client.open_existing(DBOBJ_CLIENT) &&
         trusted(g_tp.client.section(), DBOBJ_CLIENT) &&
         g_tp.server_ack.open_existing(DBOBJ_SERVER_ACK) &&
         trusted(g_tp.server_ack.section(), DBOBJ_SERVER_ACK) &&
         g_tp.client_ack.open_existing(DBOBJ_CLIENT_ACK) &&
         trusted(g_tp.client_ack.section(), DBOBJ_CLIENT_ACK) &&
         g_tp.activate.open_existing(DBOBJ_ACTIVATE) &&
         trusted(g_tp.activate.section(), DBOBJ_ACTIVATE) &&
         g_tp.mutex.open_existing(DBOBJ_MUTEX) && trusted(g_tp.mutex.section(), DBOBJ_MUTEX);
}

} // namespace

int DBcomm_init(int size) {
  DBcomm_close();
  msg_at_fatal(DBcomm_close);
  // Whether a server runs is asked first; a client creates no object, so
  // one without a server leaves nothing behind.
  bool not_found = false;
  bool ok = size > static_cast<int>(DBCOMM_PAYLOAD_AT);
  if (ok && !g_tp.server.open_live(DBOBJ_SERVER)) {
    not_found = true;
    ok = false;
  }
  ok = ok && trusted(g_tp.server.section(), DBOBJ_SERVER);
  // A starting server makes the other objects right after it has taken its
  // liveness lock; a client that comes in between waits for them briefly.
  for (int tries = 0; ok; ++tries) {
    if (open_objects(size)) break;
    if (errno != ENOENT || tries == 100)
      ok = false;
    else
      sleep_1ms();
  }
  if (!ok) {
    int e = size > static_cast<int>(DBCOMM_PAYLOAD_AT) ? errno : EINVAL;
    if (not_found) msg_print("Tavrin database not found!\n");
    msg_print("%s\n", std::strerror(e));
    DBcomm_close();
    return 0;
  }
  g_tp.payload =
      std::min(static_cast<size_t>(size) - DBCOMM_PAYLOAD_AT, size_t{DBCOMM_PAYLOAD_SIZE});
  g_tp.ready = true;
  return 1;
}

int DBcomm_ready() { return g_tp.ready ? 1 : 0; }

void DBcomm_close() {
  if (g_tp.mutex_held && g_tp.mutex.is_open()) g_tp.mutex.unlock();
  g_tp.mutex_held = false;
  g_tp.partial_pending = false;
  g_tp.ready = false;
  g_tp.channel = -1;
  g_tp.server_proc.close();
  g_tp.mutex.close();
  g_tp.activate.close();
  g_tp.client_ack.close();
  g_tp.server_ack.close();
  g_tp.client.close();
  g_tp.server.close();
  g_tp.owner.close();
  g_tp.area.close();
}

namespace {

// The handshake announcing `version` (see DBhandshake).
int handshake(int timeout_ms, const char *version) {
  if (!g_tp.ready || !version) return DBHS_SYSTEM;
  g_tp.channel = -1;
  g_tp.instance = 0;
  // A server with the shorter area of an older protocol speaks another
  // version; it is not asked, since it reads the handshake at other offsets.
  if (g_tp.old_area) return DBHS_VERSION;
  if (!take_exchange(-1, timeout_ms)) return DBHS_SYSTEM;
  unsigned char *a = area();
  DBwire_put32(a + DBCOMM_CHANNEL_AT, DBHS_CHANNEL);
  DBwire_put32(a + DBCOMM_LENGTH_AT, static_cast<uint32_t>(getpid()));
  DBwire_put64(a + DBCOMM_INSTANCE_AT, 0);
  size_t n = std::min(std::strlen(version), g_tp.payload - 1);
  std::memcpy(a + DBCOMM_PAYLOAD_AT, version, n);
  a[DBCOMM_PAYLOAD_AT + n] = 0;
  g_tp.server.set();
  WaitResult r = g_tp.client.wait(timeout_ms);
  if (r == WaitResult::Timeout) return DBHS_TIMEOUT;
  if (r != WaitResult::Signalled) return DBHS_SYSTEM;
  int32_t channel = static_cast<int32_t>(DBwire_get32(a + DBCOMM_CHANNEL_AT));
  if (channel < 0) {
    // Refused (a version the server does not speak, all channels in use):
    // the server's answer is complete, so the exchange is given up here and
    // the other clients go on while this process reports the refusal.
    g_tp.channel_limit = static_cast<int>(DBwire_get32(a + DBCOMM_PAYLOAD_AT));
    release_mutex();
    return channel == DBHS_REFUSED_FULL ? DBHS_FULL : DBHS_VERSION;
  }
  if (!g_tp.server_proc.open(static_cast<pid_t>(DBwire_get32(a + DBCOMM_LENGTH_AT))))
    return DBHS_SYSTEM;
  // Read while the exchange is still held: the next client's handshake
  // writes zero there.
  g_tp.instance = DBwire_get64(a + DBCOMM_INSTANCE_AT);
  if (!release_mutex()) return DBHS_SYSTEM;
  g_tp.channel = channel;
  return channel;
}

} // namespace

int DBhandshake(int timeout_ms) { return handshake(timeout_ms, DBCOMM_VERSION); }

int DBhandshake_version_for_test(int timeout_ms, const char *version) {
  return handshake(timeout_ms, version);
}

int DBclient_write(int channel, const void *data, int length) {
  g_error.clear();
  if (!g_tp.ready || length < 0 || (length > 0 && !data)) return 0;
  if (channel != g_tp.channel) {
    report("client write: Channel %d is not the connection of this process (%d)\n", channel,
           g_tp.channel);
    return 0;
  }
  // From here until its answer has been read an answer is awaited: a
  // DBcancel while the request is still being sent or acknowledged is kept
  // and sent once the client is parked. A write that fails awaits nothing.
  g_cancel.store(0);
  g_waiting.store(1);
  struct Outcome {
    bool sent = false;
    ~Outcome() {
      if (!sent) g_waiting.store(0);
    }
  } outcome;
  if (!take_exchange(channel, -1)) return 0;
  const auto *p = static_cast<const unsigned char *>(data);
  const uint32_t total = static_cast<uint32_t>(length);
  unsigned char head[8];
  if (total <= DBCOMM_PACKET_MAX) {
    DBwire_put32(head, total + 8);
    DBwire_put32(head + 4, total);
    int w = send_packet(channel, head, 8, p);
    if (w != static_cast<int>(total + 8)) {
      if (g_error.empty())
        report("client write: Data missing (expected %d written %d)\n", int(total + 8), w);
      return 0;
    }
    outcome.sent = true;
    return 1;
  }
  DBwire_put32(head, DBCOMM_PACKET_MAX);
  DBwire_put32(head + 4, total);
  int w = send_packet(channel, head, 8, p);
  if (w != DBCOMM_PACKET_MAX) {
    if (g_error.empty())
      report("client write: Data missing (expected %d written %d)\n", DBCOMM_PACKET_MAX, w);
    return 0;
  }
  uint32_t done = DBCOMM_FIRST_DATA;
  while (done < total) {
    uint32_t n = std::min<uint32_t>(total - done, DBCOMM_NEXT_DATA);
    DBwire_put32(head, n + 4);
    w = send_packet(channel, head, 4, p + done);
    if (w != static_cast<int>(n + 4)) {
      if (g_error.empty())
        report("client write: Data missing (expected %d written %d)\n", int(n + 4), w);
      return 0;
    }
    done += n;
  }
  outcome.sent = true;
  return 1;
}

int DBclient_read(int channel, void *buffer, int size, unsigned char **alloc_buffer,
                  int *alloc_length) {
  g_error.clear();
  if (!g_tp.ready) return -1;
  // While this runs an answer is awaited: DBcancel applies.
  struct Waiting {
    Waiting() { g_waiting.store(1); }
    ~Waiting() {
      g_waiting.store(0);
      g_cancel.store(0);
    }
  } waiting;
  int got = read_packet(channel);
  if (got <= 0) return got;
  if (got < 8) {
    report("client read: Message length data missing (received %d)\n", got);
    return -1;
  }
  const unsigned char *pkt = g_tp.packet.data();
  uint32_t total = DBwire_get32(pkt + 4);
  bool allocate = alloc_buffer && alloc_length;
  unsigned char *dst;
  if (static_cast<int64_t>(total) <= size) {
    if (allocate) {
      *alloc_buffer = nullptr;
      *alloc_length = -1;
    }
    dst = static_cast<unsigned char *>(buffer);
  } else if (allocate && total <= static_cast<uint32_t>(INT_MAX)) {
    dst = static_cast<unsigned char *>(std::malloc(total));
    if (!dst) {
      report("client read: Out of memory (len %d)\n", static_cast<int>(total));
      return -1;
    }
    advise_huge(dst, total);
  } else {
    report("client read: Message too big (len %d / buffersize = %d)\n", static_cast<int>(total),
           size);
    return -1;
  }
  // The first packet's message bytes, then the further packets' bytes after
  // their 4-byte header, cut at the message length.
  const size_t first = std::min(static_cast<size_t>(got), g_tp.packet.size()) - 8;
  uint32_t have = static_cast<uint32_t>(std::min<size_t>(first, total));
  if (have) std::memcpy(dst, g_tp.packet.data() + 8, have);
  while (have < total) {
    // A full further packet goes straight to its place; the last one,
    // which may carry more than is missing, through the packet buffer.
    unsigned char head[4];
    bool direct = total - have >= DBCOMM_NEXT_DATA;
    int r = direct ? read_packet(channel, Dest{head, dst + have}, DBCOMM_PACKET_MAX)
                   : read_packet(channel);
    if (r <= 0) {
      if (dst != buffer) std::free(dst);
      return r;
    }
    uint32_t n = std::min<uint32_t>(static_cast<uint32_t>(r - 4), total - have);
    if (!direct) std::memcpy(dst + have, pkt + 4, n);
    have += n;
  }
  if (dst != buffer) {
    *alloc_buffer = dst;
    *alloc_length = static_cast<int>(total);
  }
  if (!release_mutex()) return -2;
  return static_cast<int>(total);
}

int DBclient_release() { return release_mutex() ? 1 : 0; }

void DBcancel(void) {
  if (g_waiting.load()) g_cancel.store(1);
}

void DBset_wait_hook(void (*hook)(void *arg), void *arg) {
  g_hook_arg = arg;
  g_hook = hook;
}

const char *DBclient_error() { return g_error.c_str(); }

int DBhandshake_channel_limit() { return g_tp.channel_limit; }
