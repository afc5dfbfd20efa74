// The client transport byte for byte, against a scripted stand-in server
// built directly on the kernel objects: handshake bytes, packet framing of
// requests, answers split into odd chunks, the parking notice and the
// re-activation, and what the client does when no server is there.
#include "db/client/connect.h"
#include "db/client/reqbuf.h"
#include "db/client/transport.h"

#include "base/msg.h"
#include "db/ipc/event.h"
#include "db/ipc/mutex.h"
#include "db/ipc/named.h"
#include "tests/ipc/ipc_testutil.h"

#include <chrono>
#include <cstring>
#include <sys/mman.h>
#include <vector>

using namespace ipctest;
using Bytes = std::vector<unsigned char>;

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
  uint32_t head[64][2]; // the first two words of each chunk
  char version[32];
  int32_t client_pid;
  int activations_passed_on;
};

Log *shared_log() {
  void *p = mmap(nullptr, sizeof(Log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (p) Log{};
}

// A server made of the bare objects; every step is the test's.
struct Stand {
  ipc::Event server, client, server_ack, client_ack, activate;
  ipc::Section area, owner;
  ipc::Mutex mutex;
  Log *log = nullptr;

  bool start() {
    bool ok = server.create_owned("TavrinDB_Server") &&
              area.create_or_open("TavrinDB_Shared_Memory", 10020) &&
              owner.create_or_open("TavrinDB_Shared_Memory_Socket", 4) &&
              client.create_or_open("TavrinDB_Client") &&
              server_ack.create_or_open("TavrinDB_Server_Ack") &&
              client_ack.create_or_open("TavrinDB_Client_Ack") &&
              activate.create_or_open("TavrinDB_Client_Activate") &&
              mutex.create_or_open("TavrinDB_Mutex");
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
    std::memcpy(log->version, a() + 8, 31);
    bool was_handshake = static_cast<int32_t>(get32(a())) == -1;
    put32(a(), static_cast<uint32_t>(channel));
    put32(a() + 4, static_cast<uint32_t>(getpid()));
    client.set();
    return was_handshake;
  }
  // Receives chunks until a whole message is in; records every chunk.
  Bytes receive() {
    Bytes msg;
    uint32_t total = 0;
    bool first = true;
    Bytes packet;
    for (;;) {
      if (server.wait(10000) != ipc::WaitResult::Signalled) return {};
      uint32_t n = get32(a() + 4);
      int i = log->chunks++;
      log->chunk_len[i] = n;
      log->chunk_channel[i] = static_cast<int32_t>(get32(a()));
      log->head[i][0] = get32(a() + 8);
      log->head[i][1] = get32(a() + 12);
      packet.insert(packet.end(), a() + 8, a() + 8 + n);
      client_ack.set();
      if (packet.size() < 4 || packet.size() < get32(packet.data())) continue;
      if (first) {
        total = get32(packet.data() + 4);
        msg.insert(msg.end(), packet.begin() + 8, packet.end());
        first = false;
      } else {
        msg.insert(msg.end(), packet.begin() + 4, packet.end());
      }
      packet.clear();
      if (msg.size() >= total) return msg;
    }
  }
  // Sends raw packet bytes to `channel` in chunks of at most `chunk` bytes.
  bool send(int32_t channel, const Bytes &bytes, size_t chunk) {
    for (size_t off = 0; off < bytes.size(); off += chunk) {
      size_t n = std::min(chunk, bytes.size() - off);
      put32(a(), static_cast<uint32_t>(channel));
      put32(a() + 4, static_cast<uint32_t>(n));
      std::memcpy(a() + 8, bytes.data() + off, n);
      client.set();
      if (server_ack.wait(10000) != ipc::WaitResult::Signalled) return false;
    }
    return true;
  }
};

// A message framed into packets the way the protocol wants them.
Bytes framed(const Bytes &msg) {
  Bytes out;
  auto word = [&out](uint32_t v) {
    unsigned char b[4];
    put32(b, v);
    out.insert(out.end(), b, b + 4);
  };
  uint32_t total = static_cast<uint32_t>(msg.size());
  if (total <= 10000) {
    word(total + 8);
    word(total);
    out.insert(out.end(), msg.begin(), msg.end());
    return out;
  }
  word(10000);
  word(total);
  out.insert(out.end(), msg.begin(), msg.begin() + 9992);
  for (size_t done = 9992; done < total;) {
    uint32_t n = std::min<uint32_t>(total - uint32_t(done), 9996);
    word(n + 4);
    out.insert(out.end(), msg.begin() + long(done), msg.begin() + long(done + n));
    done += n;
  }
  return out;
}

Bytes filled(size_t n, int seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(i * 11 + size_t(seed));
  return b;
}

std::string g_out;
void collect(const char *t) { g_out += t; }

class Transport : public ::testing::Test {
protected:
  void SetUp() override {
    fresh_namespace();
    log_ = shared_log();
    g_out.clear();
    msg_set_handler(collect);
    alarm(200);
  }
  void TearDown() override {
    DBcomm_close();
    msg_set_handler(nullptr);
    alarm(0);
    for (const char *n : {"TavrinDB_Shared_Memory", "TavrinDB_Shared_Memory_Socket",
                          "TavrinDB_Server", "TavrinDB_Client", "TavrinDB_Server_Ack",
                          "TavrinDB_Client_Ack", "TavrinDB_Client_Activate", "TavrinDB_Mutex"})
      ipc::unlink_object(n);
    munmap(log_, sizeof(Log));
  }
  // Runs a stand-in server script in a child; returns once it serves.
  pid_t stand(const std::function<int(Stand &)> &script) {
    Gate ready;
    Log *log = log_;
    pid_t pid = spawn([&] {
      alarm(60);
      Stand s;
      s.log = log;
      if (!s.start()) return 90;
      ready.open_gate();
      return script(s);
    });
    EXPECT_TRUE(ready.pass());
    return pid;
  }
  Log *log_ = nullptr;
};

TEST_F(Transport, NoServerMeansNotFoundAlsoWithALeftoverOfAKilledOne) {
  DBCONN *none = DBconnect(nullptr);
  EXPECT_EQ(DBstatus(none), 1);
  EXPECT_STREQ(DBerrormessage(none), "(DBconnect) Database name missing\n");
  EXPECT_EQ(DBcomm_ready(), 0);
  EXPECT_EQ(g_out, "");
  DBfinish(none); // nothing to close, nothing sent
  DBconn_free(none);

  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  EXPECT_EQ(DBstatus(c), 1);
  EXPECT_STREQ(DBerrormessage(c), "(TAVRIN) Communication initialisation error\n");
  EXPECT_EQ(g_out, std::string("Tavrin database not found!\n") + std::strerror(ENOENT) + "\n");
  EXPECT_EQ(DBcomm_ready(), 0);
  DBconn_free(c);

  // A server that was killed leaves its objects behind, unlocked.
  Gate up;
  pid_t dead = spawn([&] {
    Stand s;
    if (!s.start()) return 1;
    up.open_gate();
    pause();
    return 0;
  });
  ASSERT_TRUE(up.pass());
  kill(dead, SIGKILL);
  join(dead);
  g_out.clear();
  c = DBconnect(name);
  EXPECT_EQ(DBstatus(c), 1);
  EXPECT_STREQ(DBerrormessage(c), "(TAVRIN) Communication initialisation error\n");
  EXPECT_EQ(g_out.rfind("Tavrin database not found!\n", 0), 0u) << g_out;
  DBconn_free(c);
  EXPECT_EQ(DBnotify_server(), 0);
}

TEST_F(Transport, HandshakeTimesOutWhenTheServerNeverAnswers) {
  pid_t srv = stand([](Stand &) {
    pause();
    return 0;
  });
  auto t0 = std::chrono::steady_clock::now();
  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_EQ(DBstatus(c), 1);
  EXPECT_STREQ(DBerrormessage(c), "(TAVRIN) Connect to database server failed (timeout)\n");
  EXPECT_GE(ms, 4900.0);
  EXPECT_LT(ms, 9000.0);
  DBfinish(c);
  DBconn_free(c);
  kill(srv, SIGKILL);
  join(srv);
}

TEST_F(Transport, HandshakeBytesAndRefusal) {
  pid_t srv = stand([](Stand &s) {
    if (!s.handshake(7)) return 1;
    return s.handshake(-1) ? 0 : 2;
  });
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  EXPECT_EQ(DBhandshake(5000), 7);
  EXPECT_STREQ(log_->version, "2.0.1");
  EXPECT_EQ(log_->client_pid, getpid());
  EXPECT_EQ(DBhandshake(5000), DBHS_VERSION);
  EXPECT_EQ(join_within(srv, 5000), 0);
}

TEST_F(Transport, RequestPacketsAreFramedExactly) {
  pid_t srv = stand([](Stand &s) {
    if (!s.handshake(3)) return 1;
    for (size_t n : {10000u, 10001u, 19988u, 19989u}) {
      Bytes m = s.receive();
      if (m != filled(n, int(n))) return 2;
      if (!s.send(3, framed(Bytes{'1'}), 10012)) return 3;
    }
    return 0;
  });
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  ASSERT_EQ(DBhandshake(5000), 3);
  for (size_t n : {10000u, 10001u, 19988u, 19989u}) {
    Bytes m = filled(n, int(n));
    ASSERT_EQ(DBclient_write(3, m.data(), int(n)), 1);
    unsigned char buf[100];
    EXPECT_EQ(DBclient_read(3, buf, sizeof buf, nullptr, nullptr), 1);
    EXPECT_EQ(buf[0], '1');
  }
  EXPECT_EQ(join_within(srv, 5000), 0);
  // 10000 bytes: one packet of 10008; 10001: 10000 + 13; 9992 + 9996: two
  // full packets; one byte more: a third packet of 5.
  std::vector<uint32_t> lens(log_->chunk_len, log_->chunk_len + log_->chunks);
  EXPECT_EQ(lens, (std::vector<uint32_t>{10008, 10000, 13, 10000, 10000, 10000, 10000, 5}));
  EXPECT_EQ(log_->head[0][0], 10008u);
  EXPECT_EQ(log_->head[0][1], 10000u);
  EXPECT_EQ(log_->head[1][0], 10000u);
  EXPECT_EQ(log_->head[1][1], 10001u);
  EXPECT_EQ(log_->head[2][0], 13u);
  EXPECT_EQ(log_->head[4][0], 10000u);
  EXPECT_EQ(log_->head[7][0], 5u);
  for (int i = 0; i < log_->chunks; ++i) EXPECT_EQ(log_->chunk_channel[i], 3);
}

TEST_F(Transport, AnswersInOddChunksAndAfterParking) {
  pid_t srv = stand([](Stand &s) {
    if (!s.handshake(5)) return 1;
    // A 10000-byte answer (one 10008-byte packet) in chunks of 3000 bytes.
    if (s.receive().empty() || !s.send(5, framed(filled(10000, 1)), 3000)) return 2;
    // A three-packet answer, each packet in two chunks.
    if (s.receive().empty()) return 3;
    Bytes f = framed(filled(20000, 2));
    for (size_t off = 0; off < f.size();) {
      size_t plen = get32(&f[off]);
      Bytes packet(f.begin() + long(off), f.begin() + long(off + plen));
      if (!s.send(5, packet, plen / 2 + 1)) return 4;
      off += plen;
    }
    // Parking: the 9-byte "-" notice, then an activation for another
    // channel (the client must pass it on), then for this one.
    if (s.receive().empty()) return 5;
    if (!s.send(5, framed(Bytes{'-'}), 10012)) return 6;
    s.set_owner(9);
    s.activate.set();
    usleep(30000);
    if (s.owner_word() != 9) return 7; // the client did not take it over
    s.set_owner(5);
    s.activate.set();
    for (int i = 0; i < 5000 && s.owner_word() != -1; ++i) usleep(1000);
    if (s.owner_word() != -1) return 8;
    return s.send(5, framed(Bytes{'-', '!'}), 10012) ? 0 : 9;
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
  EXPECT_EQ(buf[0], '-');
  EXPECT_EQ(buf[1], '!');
  EXPECT_EQ(join_within(srv, 10000), 0);
  EXPECT_EQ(g_out, "");
  // The exchange is over: the mutex is free for others.
  pid_t other = spawn([] {
    ipc::Mutex m;
    return m.create_or_open("TavrinDB_Mutex") && m.lock(1000) == ipc::WaitResult::Signalled ? 0 : 1;
  });
  EXPECT_EQ(join_within(other, 5000), 0);
}

TEST_F(Transport, ErrorAnswersOfConnectionCommands) {
  auto error_answer = [](const char *text, int cut) {
    Bytes b{'0', 'b'};
    uint16_t n = uint16_t(std::strlen(text) + 1);
    b.push_back(uint8_t(n));
    b.push_back(uint8_t(n >> 8));
    b.insert(b.end(), text, text + n);
    b.resize(b.size() - size_t(cut));
    return b;
  };
  pid_t srv = stand([&](Stand &s) {
    // connect refused with a text; connect refused without a readable text;
    // connect; drop refused (cut text); reset: '2' then a refused '1'.
    if (!s.handshake(1) || s.receive().empty() ||
        !s.send(1, framed(error_answer("(srv) Kaputt", 0)), 10012))
      return 1;
    if (!s.handshake(1) || s.receive().empty() ||
        !s.send(1, framed(error_answer("(srv) Kaputt", 8)), 10012))
      return 2;
    if (!s.handshake(1) || s.receive().empty() || !s.send(1, framed(Bytes{'1'}), 10012)) return 3;
    Bytes drop = s.receive();
    if (drop.size() < 2 || drop[0] != '4' || !s.send(1, framed(Bytes{'0', 'b', 50, 0}), 10012))
      return 4;
    Bytes close = s.receive();
    if (close != Bytes{'2'}) return 5;
    Bytes open = s.receive();
    if (open.size() < 2 || open[0] != '1' ||
        !s.send(1, framed(error_answer("(srv) Weg", 0)), 10012))
      return 6;
    return 0;
  });
  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  EXPECT_EQ(DBstatus(c), 1);
  EXPECT_STREQ(DBerrormessage(c), "(srv) Kaputt");
  DBconn_free(c);
  c = DBconnect(name);
  EXPECT_EQ(DBstatus(c), 1);
  EXPECT_STREQ(DBerrormessage(c), "(DBconnect) Result error message missing\n");
  DBconn_free(c);
  c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0);
  EXPECT_EQ(DBdropdb(c), 0);
  EXPECT_EQ(DBstatus(c), 1);
  EXPECT_STREQ(DBerrormessage(c), "(DBdropdb) Result error message missing\n");
  EXPECT_EQ(DBreset(c), 0);
  EXPECT_STREQ(DBerrormessage(c), "(srv) Weg");
  EXPECT_EQ(join_within(srv, 10000), 0);
  DBconn_free(c);

  // An empty request buffer is not sent.
  DBCONN rec;
  DBreq_reset();
  EXPECT_EQ(DBsend(&rec), 0);
  EXPECT_EQ(rec.status, 6);
  EXPECT_NE(g_out.find("DBsend: No data to send\n"), std::string::npos);
}

using TransportDeathTest = Transport;

TEST_F(TransportDeathTest, ServerGoneDuringConnectEndsTheProcess) {
  pid_t srv = stand([](Stand &s) {
    if (!s.handshake(2)) return 1;
    // Take the request, then die without answering.
    s.server.wait(10000);
    return 0;
  });
  EXPECT_EXIT(
      {
        msg_set_handler([](const char *t) { std::fputs(t, stderr); });
        char name[] = "demo";
        DBconnect(name);
      },
      ::testing::ExitedWithCode(1), "client write: Data missing|DBrecv: No data received");
  join_within(srv, 5000);
}

} // namespace
