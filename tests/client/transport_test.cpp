// The client transport byte for byte, against a scripted stand-in server
// built directly on the kernel objects: handshake bytes and version refusal,
// answers split into odd chunks, the parking
// notice and the re-activation, error answers of the connection commands,
// and what the client does when the server is missing, silent or dies.
#include "db/client/connect.h"
#include "db/client/transport.h"

#include "db/ipc/event.h"
#include "db/ipc/mutex.h"
#include "db/ipc/named.h"
#include "tests/ipc/ipc_testutil.h"

#include <gmock/gmock.h>

#include <chrono>

#include "client_testutil.h"

using namespace ct;
using namespace ipctest;
using ::testing::AnyOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

uint32_t get32(const unsigned char *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

void put32(unsigned char *p, uint32_t v) { std::memcpy(p, &v, 4); }

// What the stand-in server saw, in memory shared by fork.
struct Log {
  int chunks;
  uint32_t chunk_len[64];
  int32_t chunk_channel[64];
  uint32_t total[64]; // the second word of each chunk
  char version[32];
  int32_t client_pid;
};

// A message framed into packets the way the protocol wants them: one of
// 8 + n bytes up to 10000, else 8 + 9992 and then 4 + at most 9996 each.
Bytes framed(const Bytes &msg) {
  uint32_t total = static_cast<uint32_t>(msg.size());
  uint32_t first = std::min<uint32_t>(total, 9992);
  if (total <= 10000) first = total;
  Bytes out = bin(first + 8) + bin(total) + Bytes(msg.begin(), msg.begin() + first);
  for (uint32_t done = first; done < total;) {
    uint32_t n = std::min<uint32_t>(total - done, 9996);
    out = out + bin(n + 4) + Bytes(msg.begin() + done, msg.begin() + done + n);
    done += n;
  }
  return out;
}

// A server made of the bare objects; every step is the test's.
struct Stand {
  ipc::Event server, client, server_ack, client_ack, activate;
  ipc::Section area, owner;
  ipc::Mutex mutex;
  Log *log = nullptr;
  size_t area_size = DBCOMM_AREA_SIZE;

  bool start() {
    bool ok = server.create_owned(DBOBJ_SERVER) && area.create_or_open(DBOBJ_AREA, area_size) &&
              owner.create_or_open(DBOBJ_OWNER, 4) && client.create_or_open(DBOBJ_CLIENT) &&
              server_ack.create_or_open(DBOBJ_SERVER_ACK) &&
              client_ack.create_or_open(DBOBJ_CLIENT_ACK) &&
              activate.create_or_open(DBOBJ_ACTIVATE) && mutex.create_or_open(DBOBJ_MUTEX);
    if (ok) set_owner(-1);
    return ok;
  }
  unsigned char *a() { return static_cast<unsigned char *>(area.data()); }
  void set_owner(int32_t v) {
    __atomic_store_n(static_cast<int32_t *>(owner.data()), v, __ATOMIC_SEQ_CST);
  }
  int32_t owner_word() {
    return __atomic_load_n(static_cast<int32_t *>(owner.data()), __ATOMIC_SEQ_CST);
  }
  // Answers a handshake with `channel` after recording it.
  bool handshake(int32_t channel) {
    if (server.wait(10000) != ipc::WaitResult::Signalled) return false;
    log->client_pid = static_cast<int32_t>(get32(a() + 4));
    std::memcpy(log->version, a() + DBCOMM_PAYLOAD_AT, 31);
    bool was_handshake = static_cast<int32_t>(get32(a())) == -1;
    put32(a(), static_cast<uint32_t>(channel));
    put32(a() + 4, static_cast<uint32_t>(getpid()));
    client.set();
    return was_handshake;
  }
  // Receives chunks (recording each) until a whole message is in; returns
  // the message without its packet headers.
  Bytes receive() {
    Bytes in, msg;
    while (in.size() < 8 || in.size() < framed(Bytes(get32(&in[4]))).size()) {
      if (server.wait(10000) != ipc::WaitResult::Signalled) return {};
      uint32_t n = get32(a() + 4);
      int i = log->chunks++;
      log->chunk_len[i] = n;
      log->chunk_channel[i] = static_cast<int32_t>(get32(a()));
      log->total[i] = get32(a() + DBCOMM_PAYLOAD_AT + 4);
      in.insert(in.end(), a() + DBCOMM_PAYLOAD_AT, a() + DBCOMM_PAYLOAD_AT + n);
      client_ack.set();
    }
    for (size_t at = 0; at < in.size() && get32(&in[at]) > 0; at += get32(&in[at]))
      msg.insert(msg.end(), in.begin() + long(at + (at ? 4 : 8)),
                 in.begin() + long(at + get32(&in[at])));
    return msg;
  }
  // Sends `msg` to `channel` in one chunk; reply receives a request first.
  bool answer(int32_t channel, const Bytes &msg) { return send(channel, framed(msg), 10012); }
  bool reply(int32_t channel, const Bytes &msg) {
    return !receive().empty() && answer(channel, msg);
  }
  // Sends raw packet bytes to `channel` in chunks of at most `chunk` bytes.
  bool send(int32_t channel, const Bytes &bytes, size_t chunk) {
    for (size_t off = 0; off < bytes.size(); off += chunk) {
      size_t n = std::min(chunk, bytes.size() - off);
      put32(a(), static_cast<uint32_t>(channel));
      put32(a() + 4, static_cast<uint32_t>(n));
      std::memcpy(a() + DBCOMM_PAYLOAD_AT, bytes.data() + off, n);
      client.set();
      if (server_ack.wait(10000) != ipc::WaitResult::Signalled) return false;
    }
    return true;
  }
};

Bytes filled(size_t n, int seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(i * 11 + size_t(seed));
  return b;
}

class Transport : public ::testing::Test {
protected:
  void SetUp() override {
    fresh_namespace();
    log_ =
        new (mmap(nullptr, sizeof(Log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
            Log{};
    alarm(200);
  }
  void TearDown() override {
    DBcomm_close();
    alarm(0);
    munmap(log_, sizeof(Log));
  }
  // Runs a stand-in server script in a child; returns once it serves.
  pid_t stand(const std::function<int(Stand &)> &script, size_t area_size = DBCOMM_AREA_SIZE) {
    Gate ready;
    Log *log = log_;
    pid_t pid = spawn([&] {
      alarm(60);
      Stand s;
      s.log = log;
      s.area_size = area_size;
      if (!s.start()) return 90;
      ready.open_gate();
      return script(s);
    });
    EXPECT_TRUE(ready.pass());
    return pid;
  }
  // Connects to "demo" (or to no name), expects the refusal `why` and frees
  // the connection without closing it.
  static void refused(const char *why, bool named = true) {
    DBCONN *c = named ? connect_to("demo") : DBconnect(nullptr);
    EXPECT_EQ(DBstatus(c), 1);
    EXPECT_STREQ(DBerrormessage(c), why);
    DBconn_free(c);
  }
  // Whether another process gets the exchange mutex within a second.
  static bool mutex_free() {
    pid_t other = spawn([] {
      ipc::Mutex m;
      return m.open_existing(DBOBJ_MUTEX) && m.lock(1000) == ipc::WaitResult::Signalled ? 0 : 1;
    });
    return join_within(other, 5000) == 0;
  }
  Log *log_ = nullptr;
  testmsg::Capture messages_;
};

TEST_F(Transport, NoServerASilentOneAndALeftoverOfAKilledOne) {
  refused("(DBconnect) Database name missing\n", false);
  EXPECT_EQ(DBcomm_ready(), 0);
  EXPECT_EQ(testmsg::g_printed, "");

  refused("(TAVRIN) Communication initialisation error\n");
  EXPECT_EQ(testmsg::g_printed,
            std::string("Tavrin database not found!\n") + std::strerror(ENOENT) + "\n");
  EXPECT_EQ(DBcomm_ready(), 0);

  // A server that never answers: the handshake gives up after 5 s.
  pid_t srv = stand([](Stand &) {
    pause();
    return 0;
  });
  auto t0 = std::chrono::steady_clock::now();
  refused("(TAVRIN) Connect to database server failed (timeout)\n");
  double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_GE(ms, 4900.0);
  EXPECT_LT(ms, 9000.0);

  // Once killed it leaves its objects behind, unlocked.
  kill(srv, SIGKILL);
  join(srv);
  testmsg::g_printed.clear();
  refused("(TAVRIN) Communication initialisation error\n");
  EXPECT_EQ(testmsg::g_printed.rfind("Tavrin database not found!\n", 0), 0u) << testmsg::g_printed;
  EXPECT_EQ(DBnotify_server(), 0);
}

TEST_F(Transport, AnswersInOddChunksAndAfterParking) {
  pid_t srv = stand([](Stand &s) {
    if (!s.handshake(5)) return 1;
    // A 10000-byte answer (one 10008-byte packet) in chunks of 3000 bytes.
    if (s.receive().empty() || !s.send(5, framed(filled(10000, 1)), 3000)) return 2;
    // A three-packet answer in chunks that straddle the packets.
    if (s.receive().empty() || !s.send(5, framed(filled(20000, 2)), 7001)) return 3;
    // Parking: the 9-byte "-" notice, then an activation for another
    // channel (the client must pass it on), then for this one.
    if (!s.reply(5, Bytes{'-'})) return 4;
    s.set_owner(9);
    s.activate.set();
    usleep(30000);
    if (s.owner_word() != 9) return 5; // the client did not take it over
    s.set_owner(5);
    s.activate.set();
    for (int i = 0; i < 5000 && s.owner_word() != -1; ++i) usleep(1000);
    if (s.owner_word() != -1) return 6;
    return s.answer(5, Bytes{'-', '!'}) ? 0 : 7;
  });
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  ASSERT_EQ(DBhandshake(5000), 5);
  unsigned char buf[10000];
  unsigned char *big = nullptr;
  int big_len = 0;
  unsigned char q = 'Q';
  ASSERT_EQ(DBclient_write(5, &q, 1), 1);
  ASSERT_EQ(DBclient_read(5, buf, sizeof buf, &big, &big_len), 10000);
  EXPECT_EQ(big, nullptr);
  EXPECT_EQ(big_len, -1);
  EXPECT_TRUE(Bytes(buf, buf + 10000) == filled(10000, 1));

  ASSERT_EQ(DBclient_write(5, &q, 1), 1);
  ASSERT_EQ(DBclient_read(5, buf, sizeof buf, &big, &big_len), 20000);
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(big_len, 20000);
  EXPECT_TRUE(Bytes(big, big + 20000) == filled(20000, 2));
  std::free(big);

  ASSERT_EQ(DBclient_write(5, &q, 1), 1);
  ASSERT_EQ(DBclient_read(5, buf, sizeof buf, nullptr, nullptr), 2);
  EXPECT_EQ(Bytes(buf, buf + 2), (Bytes{'-', '!'}));
  EXPECT_EQ(join_within(srv, 10000), 0);
  EXPECT_EQ(testmsg::g_printed, "");
  EXPECT_TRUE(mutex_free()) << "the exchange is over";
}

// A chunk the server refuses ends the write with the reason and frees the
// exchange, a packet longer than allowed ends the read; a server of the
// older, shorter area is an incompatible version and is not asked.
TEST_F(Transport, RefusedChunksAndAnOlderServer) {
  pid_t srv = stand([](Stand &s) {
    if (!s.handshake(2)) return 1;
    for (uint32_t code : {DBCOMM_DROPPED, DBCOMM_STALE}) {
      if (s.server.wait(10000) != ipc::WaitResult::Signalled) return 2;
      put32(s.a(), code);
      put32(s.a() + 4, DBDROP_SIZE);
      s.client_ack.set();
    }
    // Then a packet longer than any packet may be.
    return !s.receive().empty() && s.send(2, bin(1000000) + bin(1000000), 8) ? 0 : 3;
  });
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  ASSERT_EQ(DBhandshake(5000), 2);
  const unsigned char req[] = {'E', 1, 2};
  EXPECT_EQ(DBclient_write(2, req, sizeof req), 0);
  EXPECT_STREQ(DBclient_error(),
               "client: The server dropped the request (a request longer than the server takes)\n");
  EXPECT_EQ(DBclient_write(2, req, sizeof req), 0);
  EXPECT_STREQ(DBclient_error(), "client: The server was restarted; the transaction is lost\n");
  EXPECT_TRUE(mutex_free());
  ASSERT_EQ(DBclient_write(2, req, sizeof req), 1);
  unsigned char buf[100];
  EXPECT_EQ(DBclient_read(2, buf, sizeof buf, nullptr, nullptr), -1);
  EXPECT_STREQ(DBclient_error(), "client read: Packet length 1000000 out of range\n");
  EXPECT_EQ(join_within(srv, 5000), 0);
  DBcomm_close();

  fresh_namespace();
  srv = stand([](Stand &s) { return s.server.wait(500) == ipc::WaitResult::Timeout ? 0 : 1; },
              DBCOMM_OLD_AREA_SIZE);
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  EXPECT_EQ(DBhandshake(5000), DBHS_VERSION);
  EXPECT_EQ(join_within(srv, 5000), 0);
}

TEST_F(Transport, ErrorAnswersOfConnectionCommands) {
  pid_t srv = stand([&](Stand &s) {
    // connect refused with a text; refused with a text longer than the
    // answer, and with a field that is not a text; connect; drop refused
    // without text; reset: '2' then a refused '1'.
    if (!s.handshake(1) || !s.reply(1, error_answer("(srv) Kaputt"))) return 1;
    if (!s.handshake(1) || !s.reply(1, Bytes{'0', 'b', 50, 0})) return 2;
    if (!s.handshake(1) || !s.reply(1, Bytes{'0', 'a', 2, 0, 'x', 0})) return 2;
    if (!s.handshake(1) || !s.reply(1, Bytes{'1'})) return 3;
    Bytes drop = s.receive();
    if (drop.size() < 2 || drop[0] != '4' || !s.answer(1, Bytes{'0'})) return 4;
    if (s.receive() != Bytes{'2'}) return 5;
    Bytes open = s.receive();
    return open.size() < 2 || open[0] != '1' || !s.answer(1, error_answer("(srv) Weg")) ? 6 : 0;
  });
  refused("(srv) Kaputt\n"); // the line feed is added
  refused("(DBconnect) Result error message missing\n");
  refused("(DBconnect) Result error message missing\n");
  DBCONN *c = connect_to("demo");
  ASSERT_EQ(DBstatus(c), 0);
  EXPECT_EQ(DBdropdb(c), 0);
  EXPECT_EQ(DBstatus(c), 1);
  EXPECT_STREQ(DBerrormessage(c), "(DBdropdb) Result error message missing\n");
  EXPECT_EQ(DBreset(c), 0);
  EXPECT_STREQ(DBerrormessage(c), "(srv) Weg\n");
  EXPECT_EQ(join_within(srv, 10000), 0);
  DBconn_free(c);

  // An empty request buffer is not sent.
  DBCONN rec;
  DBreq_reset();
  EXPECT_EQ(DBsend(&rec), 0);
  EXPECT_EQ(rec.status, 6);
  EXPECT_NE(testmsg::g_printed.find("DBsend: No data to send\n"), std::string::npos);
}

TEST_F(Transport, ASecondConnectRefusesTheFirstConnectionsRequests) {
  pid_t srv = stand([](Stand &s) {
    if (!s.handshake(1) || !s.reply(1, Bytes{'1'})) return 1;
    if (!s.handshake(2) || !s.reply(2, Bytes{'1'})) return 2;
    // Only the second connection's requests arrive: its drop and close.
    Bytes drop = s.receive();
    if (drop.size() < 2 || drop[0] != '4' || !s.answer(2, Bytes{'1'})) return 3;
    if (s.receive() != Bytes{'2'}) return 4;
    return s.log->chunk_channel[s.log->chunks - 1] == 2 ? 0 : 5;
  });
  DBCONN *first = connect_to("demo");
  ASSERT_EQ(DBstatus(first), DBCONN_OK);
  DBCONN *second = connect_to("demo");
  ASSERT_EQ(DBstatus(second), DBCONN_OK);
  testmsg::g_printed.clear();
  EXPECT_EQ(DBreset(first), 0);
  EXPECT_EQ(DBstatus(first), DBCONN_FAILED);
  EXPECT_STREQ(DBerrormessage(first),
               "(DBreset) Connection was replaced by a later connect of this process\n");
  EXPECT_EQ(DBdropdb(first), 0);
  DBfinish(first); // sends nothing and leaves the second connection's transport open
  EXPECT_EQ(testmsg::g_printed, "");
  EXPECT_EQ(DBdropdb(second), 1);
  EXPECT_EQ(join_within(srv, 10000), 0);
  DBconn_free(first);
  DBfinish(second);
  DBconn_free(second);
}

} // namespace
