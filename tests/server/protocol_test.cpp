// The client transport against the real server library, each side in its
// own process: version refusal, servers and clients that die
// mid-exchange, parking, forged packets (many clients at once against the whole
// server are the load tests' part). The server process runs ProtocolServer
// with a test handler and reports to the test through counters in memory
// shared by fork.
#include "base/msg.h"
#include "db/client/connect.h"
#include "db/client/reqbuf.h"
#include "db/client/transport.h"
#include "server/protocol.h"
#include "tests/ipc/ipc_testutil.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstring>
#include <sys/stat.h>

using namespace ipctest;
using ::testing::HasSubstr;

namespace {

using Bytes = std::vector<unsigned char>;

// What the server process reports to the test, in memory shared by fork.
struct Counters {
  std::atomic<int> opened;
  std::atomic<int> closed;
  std::atomic<int> last_closed;
  std::atomic<int> notices;   // 'W'
  std::atomic<int> misuse_ok; // answer()/park() refused where they must be
};

Counters *shared_counters() {
  void *p =
      mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (p) Counters{};
}

// n bytes of a pattern of seed, an echo request's body.
Bytes pattern(size_t n, unsigned seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(seed * 31 + i * 13 + (i >> 9));
  return b;
}
Bytes echo_request(size_t n, unsigned seed) {
  Bytes b = pattern(n, seed);
  if (n) b[0] = 'E';
  return b;
}

// The test server's meaning of requests:
//   '1'/'3'/'4' + name   "1"
//   '2', 'W', 'N'        no answer ('W' counted)
//   'E' ...              the request itself (echo)
//   'P'                  park; answered "done <channel>" at the next 'R'
//   'R'                  answers every parked channel, then "released"
class TestHandler : public tavrind::RequestHandler {
public:
  explicit TestHandler(Counters *c) : c_(c) {}
  std::unique_ptr<tavrind::ChannelContext> channel_opened(tavrind::ProtocolServer &, int,
                                                          pid_t) override {
    ++c_->opened;
    return nullptr;
  }
  void channel_closed(tavrind::ProtocolServer &, int channel, tavrind::ChannelContext *) override {
    c_->last_closed = channel;
    ++c_->closed;
  }
  void request(tavrind::ProtocolServer &srv, int ch, tavrind::ChannelContext *,
               const unsigned char *d, size_t n) override {
    switch (n ? d[0] : '1') {
    case '1':
    case '3':
    case '4':
      srv.answer(ch, "1", 1);
      break;
    case 'W':
      ++c_->notices;
      break;
    case 'E':
      srv.answer(ch, d, n);
      break;
    case 'P':
      // Parking twice, answering "-" or answering twice must be refused.
      srv.park(ch);
      if (!srv.park(ch) && !srv.answer(ch, "-", 1)) ++c_->misuse_ok;
      parked_.push_back(ch);
      break;
    case 'R':
      for (int p : parked_) {
        std::string s = "done " + std::to_string(p);
        srv.answer(p, s.data(), s.size());
      }
      parked_.clear();
      srv.answer(ch, "released", 8);
      if (!srv.answer(ch, "again", 5)) ++c_->misuse_ok;
      break;
    default:
      break;
    }
  }

private:
  Counters *c_;
  std::vector<int> parked_;
};

tavrind::ProtocolServer *g_server = nullptr;

// Sends req on the connection; whether it went out.
bool send(DBCONN *c, const Bytes &req) {
  DBreq_reset();
  DBreq_bytes(req.data(), req.size());
  return DBsend(c) == 1;
}

// Waits for an answer into a buffer of 10000 bytes without allocation:
// whether one came.
bool receive(DBCONN *c) {
  unsigned char buf[10000];
  int len = 0;
  return DBrecv(c, buf, sizeof buf, &len, nullptr, nullptr) == 1;
}

// Sends req on the connection and returns the answer (empty on failure).
// Answers longer than 10000 bytes must arrive in an allocation of exactly
// their length; *allocated tells whether one was made.
Bytes roundtrip(DBCONN *c, const Bytes &req, bool *allocated = nullptr) {
  if (!send(c, req)) return {};
  unsigned char buf[10000];
  int len = 0;
  unsigned char *big = reinterpret_cast<unsigned char *>(1);
  int big_len = 0;
  if (!DBrecv(c, buf, sizeof buf, &len, &big, &big_len)) return {};
  Bytes out = big ? Bytes(big, big + len) : Bytes(buf, buf + len);
  bool exact = big ? big_len == len : big_len == -1;
  std::free(big);
  if (allocated) *allocated = big != nullptr;
  return exact ? out : Bytes{};
}

// Connects to database "demo": the connection, or nullptr when refused.
DBCONN *connect_demo() {
  char n[] = "demo";
  DBCONN *c = DBconnect(n);
  if (DBstatus(c) == 0) return c;
  DBconn_free(c);
  return nullptr;
}

// Does an echo request of n bytes come back unchanged?
bool echoes(DBCONN *c, size_t n, unsigned seed) {
  return roundtrip(c, echo_request(n, seed)) == echo_request(n, seed);
}

// Whether a new client process gets an echo of n bytes; waits up to 20 s.
bool served_elsewhere(size_t n, unsigned seed) {
  pid_t client = spawn([n, seed] {
    DBCONN *k = connect_demo();
    return k && echoes(k, n, seed) ? 0 : 1;
  });
  return join_within(client, 20000) == 0;
}

std::string text(const Bytes &b) { return std::string(b.begin(), b.end()); }

// The exchange's objects as a hand-made client sees them, the mutex held
// once open() succeeds: for packets no real client would write.
struct RawClient {
  ipc::Section area;
  ipc::Event server, client, client_ack;
  ipc::Mutex mutex;
  unsigned char *a = nullptr;
  bool open(size_t size = DBCOMM_AREA_SIZE) {
    if (!area.open_existing(DBOBJ_AREA, size) || !server.open_existing(DBOBJ_SERVER) ||
        !client.open_existing(DBOBJ_CLIENT) || !client_ack.open_existing(DBOBJ_CLIENT_ACK) ||
        !mutex.open_existing(DBOBJ_MUTEX) || mutex.lock(5000) != ipc::WaitResult::Signalled)
      return false;
    a = static_cast<unsigned char *>(area.data());
    return true;
  }
  // Writes a packet header (and payload, if any), wakes the server and
  // waits for its acknowledgement on `ack`; false when none comes.
  bool send(uint32_t channel, uint32_t length, const void *payload, size_t n, ipc::Event &ack) {
    DBwire_put32(a + DBCOMM_CHANNEL_AT, channel);
    DBwire_put32(a + DBCOMM_LENGTH_AT, length);
    if (n) std::memcpy(a + DBCOMM_PAYLOAD_AT, payload, n);
    server.set();
    return ack.wait(5000) == ipc::WaitResult::Signalled;
  }
  uint32_t word(size_t at) const { return DBwire_get32(a + at); }
};

// A whole one-packet notice request ('W').
const unsigned char kNotice[9] = {9, 0, 0, 0, 1, 0, 0, 0, DBREQ_NOTICE};

// Collects the message output of this process.
std::string g_out;
void collect(const char *t) { g_out += t; }

class Protocol : public ::testing::Test {
protected:
  void SetUp() override {
    fresh_namespace();
    c_ = shared_counters();
    alarm(200); // a hang ends the test binary instead of the ctest time-out
  }
  void TearDown() override {
    if (srv > 0) {
      kill(srv, SIGTERM);
      EXPECT_EQ(join_within(srv, 10000), 0) << "the server ends cleanly";
    }
    for (DBCONN *c : conns) DBconn_free(c);
    DBcomm_close();
    msg_set_handler(nullptr);
    alarm(0);
    munmap(c_, sizeof(Counters));
  }
  // From here on the messages of this process are collected in g_out.
  static void capture() {
    msg_set_handler(collect);
    g_out.clear();
  }
  // Waits up to 3 s for a counter to reach n.
  static bool reaches(std::atomic<int> &v, int n) {
    for (int i = 0; i < 600 && v.load() < n; ++i) usleep(5000);
    return v.load() >= n;
  }
  // Starts the test server process in the current namespace as srv, which
  // TearDown stops, with the limits given (0: the server's default):
  // whether it serves.
  bool serve(int incomplete_ms = 0, uint32_t max_request = 0) {
    Gate ready;
    srv = spawn([&] {
      alarm(250);
      TestHandler h(c_);
      tavrind::ProtocolServer s(h);
      if (incomplete_ms) s.set_incomplete_limit_ms(incomplete_ms);
      if (max_request) s.set_max_request(max_request);
      if (!s.start()) return 3;
      g_server = &s;
      signal(SIGTERM, [](int) { g_server->request_stop(); });
      ready.open_gate();
      s.run();
      s.shutdown();
      return 0;
    });
    if (ready.pass()) return true;
    join_within(srv, 1000);
    srv = -1;
    return false;
  }
  // Connects to "demo" from the test process; TearDown frees the connection.
  DBCONN *demo() { return conns.emplace_back(connect_demo()); }
  Counters *c_ = nullptr;
  pid_t srv = -1;
  std::vector<DBCONN *> conns;
};

// (A full server's refusal is checked against the whole server, with its
// --max-clients.)
TEST_F(Protocol, OtherVersionsAreRefused) {
  ASSERT_TRUE(serve());
  msg_set_handler(collect);
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  EXPECT_EQ(DBhandshake_version_for_test(5000, "2.0.0"), DBHS_VERSION);
  DBcomm_close(); // the refused handshake keeps the mutex until here
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  EXPECT_EQ(DBhandshake(5000), 0);
  // A client of the previous layout writes its version where the instance
  // id is now, over what the handshake above left behind.
  pid_t old_layout = spawn([] {
    RawClient r;
    if (!r.open(DBCOMM_OLD_AREA_SIZE)) return 1;
    std::strcpy(reinterpret_cast<char *>(r.a + 8), "2.1.0");
    if (!r.send(DBHS_CHANNEL, static_cast<uint32_t>(getpid()), nullptr, 0, r.client)) return 2;
    r.mutex.unlock();
    return static_cast<int32_t>(r.word(0)) == DBHS_REFUSED_VERSION ? 0 : 3;
  });
  EXPECT_EQ(join_within(old_layout, 10000), 0);
  EXPECT_EQ(c_->opened, 1) << "refused handshakes open no channel";
}

// A client killed while it holds the exchange, then the server killed while
// a client waits for its answer: neither blocks anybody for long.
TEST_F(Protocol, DeadClientsAndADeadServerEndTheWaitsOfOthers) {
  ASSERT_TRUE(serve());
  Gate holding;
  pid_t victim = spawn([&] {
    DBCONN *k = connect_demo();
    if (!k || !send(k, {'N'})) return 1;
    holding.open_gate(); // the mutex is held until the answer is read
    receive(k);
    return 2;
  });
  ASSERT_TRUE(holding.pass());
  int victim_channel = c_->opened - 1;
  kill(victim, SIGKILL);
  EXPECT_EQ(join_within(victim, 5000), 128 + SIGKILL);
  // The next client takes over the abandoned mutex and goes on.
  DBCONN *c = connect_demo();
  ASSERT_NE(c, nullptr);
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(echoes(c, 5000 + i * 700, i));
  EXPECT_TRUE(reaches(c_->closed, 1));
  EXPECT_EQ(c_->last_closed, victim_channel);

  capture();
  ASSERT_TRUE(send(c, {'N'}));
  pid_t killer = spawn([pid = srv] {
    usleep(100000);
    return kill(pid, SIGKILL);
  });
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(receive(c));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(3));
  EXPECT_EQ(DBstatus(c), 6);
  EXPECT_EQ(g_out, "client: The server has ended; the transaction is lost\n"
                   "DBrecv: No data received\n");
  join_within(killer, 5000);
  EXPECT_EQ(join_within(srv, 5000), 128 + SIGKILL);
  // Every further wait on the dead server ends at once; the mutex was given
  // up, so a new server in the same namespace serves a new client.
  g_out.clear();
  EXPECT_EQ(DBsend(c), 0);
  EXPECT_EQ(g_out, "client: The server has ended; the transaction is lost\n");
  DBconn_free(c);
  ASSERT_TRUE(serve());
  EXPECT_TRUE(served_elsewhere(20000, 3));
}

// Two parked clients: the activation meant for one may wake the other, which
// must pass it on. The answer for a parked client that died may hand the
// exchange to its channel; the server must take it back once it notices.
TEST_F(Protocol, ParkedClientsGetTheirAnswersAndADeadOneKeepsNothing) {
  ASSERT_TRUE(serve());
  auto parked_client = [] {
    DBCONN *k = connect_demo();
    if (!k) return 1;
    if (text(roundtrip(k, Bytes{'P'})) != "done " + std::to_string(k->channel)) return 2;
    // The exchange is over: the connection goes on normally.
    return echoes(k, 12345, 9) ? 0 : 3;
  };
  pid_t a = spawn(parked_client);
  pid_t b = spawn(parked_client);
  ASSERT_TRUE(reaches(c_->misuse_ok, 2)); // both are parked now
  DBCONN *c = demo();
  ASSERT_NE(c, nullptr);
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(echoes(c, 100 + i * 3000, i));
  EXPECT_EQ(text(roundtrip(c, Bytes{'R'})), "released");
  EXPECT_EQ(join_within(a, 20000), 0);
  EXPECT_EQ(join_within(b, 20000), 0);
  EXPECT_EQ(c_->misuse_ok, 3); // a second answer to 'R' was refused
  EXPECT_TRUE(echoes(c, 77, 7));
  EXPECT_TRUE(reaches(c_->closed, 2)) << "the ended clients' channels";

  pid_t dying = spawn([] {
    DBCONN *k = connect_demo();
    return k ? (roundtrip(k, Bytes{'P'}), 2) : 1;
  });
  ASSERT_TRUE(reaches(c_->misuse_ok, 4)); // parked
  kill(dying, SIGKILL);
  join_within(dying, 5000);
  EXPECT_EQ(text(roundtrip(c, Bytes{'R'})), "released");
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(echoes(c, 50, i));
  EXPECT_TRUE(reaches(c_->closed, 3));
  DBfinish(c);
}

// The exchange can never stay locked. A client whose handshake times out at
// a stopped server ends through exit() while it holds the mutex (its static
// destructors unmap the transport): later clients are served. A mutex left
// locked by a process that unmapped it is replaced by the next server start.
TEST_F(Protocol, NoClientCanWedgeTheExchange) {
  ASSERT_TRUE(serve());
  kill(srv, SIGSTOP);
  pid_t quitter = spawn([] {
    if (DBcomm_init(DBCOMM_AREA_SIZE) != 1 || DBhandshake(300) != DBHS_TIMEOUT) return 1;
    std::exit(0);
  });
  EXPECT_EQ(join_within(quitter, 10000), 0);
  kill(srv, SIGCONT);
  EXPECT_TRUE(served_elsewhere(300, 1));

  // The old fault: the mutex unmapped while held, so the kernel cannot mark
  // it abandoned; then the server is killed, its objects stay behind.
  pid_t wedger = spawn([] {
    ipc::Mutex m;
    if (!m.open_existing(DBOBJ_MUTEX) || m.lock(1000) != ipc::WaitResult::Signalled) return 1;
    munmap(m.section().data(), m.section().size());
    _exit(0);
  });
  EXPECT_EQ(join_within(wedger, 5000), 0);
  kill(srv, SIGKILL);
  EXPECT_EQ(join_within(srv, 5000), 128 + SIGKILL);
  ASSERT_TRUE(serve());
  EXPECT_TRUE(served_elsewhere(300, 1));
}

// A client of a server that was killed and started again is never served
// by the new one: its next request fails and says that the transaction is
// lost; the new server's own client goes on undisturbed.
TEST_F(Protocol, AClientOfAKilledServerIsNotServedByItsSuccessor) {
  ASSERT_TRUE(serve());
  DBCONN *old = demo();
  ASSERT_NE(old, nullptr);
  ASSERT_TRUE(echoes(old, 100, 1));
  // The killed server's instance id, as its last answer left it in the area.
  uint64_t old_instance = 0;
  {
    ipc::Section area;
    ASSERT_TRUE(area.open_existing(DBOBJ_AREA, DBCOMM_AREA_SIZE));
    old_instance = DBwire_get64(static_cast<unsigned char *>(area.data()) + DBCOMM_INSTANCE_AT);
  }
  kill(srv, SIGKILL);
  EXPECT_EQ(join_within(srv, 5000), 128 + SIGKILL);
  ASSERT_TRUE(serve());
  // A client of the old server that reaches the new one (here: a request
  // with the old instance id on a channel the new server gave out) is
  // refused, told so, and the exchange is free afterwards.
  pid_t stale = spawn([old_instance] {
    DBCONN *k = connect_demo();
    RawClient r;
    if (!k || !r.open()) return 1;
    DBwire_put64(r.a + DBCOMM_INSTANCE_AT, old_instance);
    uint32_t ch = static_cast<uint32_t>(k->channel);
    if (!r.send(ch, sizeof kNotice, kNotice, sizeof kNotice, r.client_ack)) return 2;
    if (r.word(DBCOMM_CHANNEL_AT) != DBCOMM_STALE) return 3;
    r.mutex.unlock();
    return echoes(k, 100, 7) ? 0 : 4;
  });
  EXPECT_EQ(join_within(stale, 10000), 0);
  EXPECT_EQ(c_->notices, 0);
  Gate connected, done;
  pid_t other = spawn([&] {
    DBCONN *k = connect_demo();
    if (!k) return 1;
    connected.open_gate();
    done.pass();
    return echoes(k, 200, 2) ? 0 : 2;
  });
  ASSERT_TRUE(connected.pass());
  capture();
  EXPECT_TRUE(roundtrip(old, echo_request(100, 3)).empty());
  EXPECT_THAT(g_out, HasSubstr("The server was restarted; the transaction is lost"));
  done.open_gate();
  EXPECT_EQ(join_within(other, 10000), 0);
}

// Objects of another user in the namespace: a server refuses to start,
// naming the object, its owner and mode; a client refuses another user's
// server. The other user is a user id without an account, taken by a child
// process of the test when it runs as root.
TEST_F(Protocol, ObjectsOfAnotherUserAreRefusedByServerAndClient) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as a second user";
  constexpr uid_t kOther = 54321;
  Gate squatting, leave;
  pid_t squatter = spawn([&] {
    umask(0);
    if (setgid(kOther) != 0 || setuid(kOther) != 0) return 1;
    ipc::Event server;
    ipc::Section area;
    if (!server.create_owned(DBOBJ_SERVER) || !area.create_or_open(DBOBJ_AREA, DBCOMM_AREA_SIZE))
      return 2;
    for (const char *name : {DBOBJ_SERVER, DBOBJ_AREA})
      chmod(("/dev/shm" + ipc::object_name(name)).c_str(), 0666);
    squatting.open_gate();
    leave.pass();
    return 0;
  });
  ASSERT_TRUE(squatting.pass());
  capture();
  EXPECT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 0);
  EXPECT_THAT(g_out, HasSubstr("Refusing /" + ipc::namespace_name() +
                               "TavrinDB_Server (owner uid 54321, group gid 54321, mode 0666)"));
  leave.open_gate();
  EXPECT_EQ(join_within(squatter, 5000), 0);
  // The squatter has gone, its objects stay (no other user may remove them).
  TestHandler h(c_);
  tavrind::ProtocolServer srv(h);
  g_out.clear();
  EXPECT_FALSE(srv.start());
  EXPECT_THAT(g_out, HasSubstr("Refusing to start: /" + ipc::namespace_name() +
                               "TavrinDB_Server (owner uid 54321, group gid 54321, mode 0666)"));
  ipc::unlink_object(DBOBJ_SERVER);
  g_out.clear();
  EXPECT_FALSE(srv.start());
  EXPECT_THAT(g_out, HasSubstr("TavrinDB_Shared_Memory (owner uid 54321"));
  ipc::unlink_object(DBOBJ_AREA);
  EXPECT_TRUE(srv.start());
  srv.shutdown();
}

// A request announced as 1 GiB whose first packet alone comes is dropped
// after the time limit; the channel then serves its next request.
TEST_F(Protocol, AnIncompleteRequestIsDroppedAfterTheTimeLimit) {
  ASSERT_TRUE(serve(300));
  pid_t client = spawn([] {
    DBCONN *k = connect_demo();
    RawClient r; // chunks count only from the holder of the exchange
    if (!k || !r.open()) return 1;
    uint32_t ch = static_cast<uint32_t>(k->channel);
    unsigned char head[8];
    DBwire_put32(head, DBCOMM_PACKET_MAX);
    DBwire_put32(head + 4, 1u << 30);
    if (!r.send(ch, DBCOMM_PACKET_MAX, head, sizeof head, r.client_ack)) return 2;
    r.mutex.unlock();
    usleep(800000);
    // The rest of the dropped request is refused with the reason.
    if (r.mutex.lock(5000) != ipc::WaitResult::Signalled) return 1;
    if (!r.send(ch, 100, nullptr, 0, r.client_ack)) return 2;
    if (r.word(DBCOMM_CHANNEL_AT) != DBCOMM_DROPPED ||
        r.word(DBCOMM_LENGTH_AT) != DBDROP_INCOMPLETE)
      return 4;
    r.mutex.unlock();
    return echoes(k, 300, 4) ? 0 : 3;
  });
  EXPECT_EQ(join_within(client, 10000), 0);
}

// A request the server drops (here: longer than it takes) ends its client's
// wait with the reason; the exchange is free and the connection serves its
// next request, and other clients are served.
TEST_F(Protocol, ADroppedRequestIsAnsweredAndFreesTheExchange) {
  ASSERT_TRUE(serve(0, 50000));
  DBCONN *k = demo();
  ASSERT_NE(k, nullptr);
  capture();
  EXPECT_TRUE(roundtrip(k, echo_request(60000, 1)).empty());
  EXPECT_THAT(g_out, HasSubstr("The server dropped the request (a request longer than the "
                               "server takes)"));
  EXPECT_TRUE(served_elsewhere(20000, 2));
  EXPECT_TRUE(echoes(k, 40000, 3));
}

// A process can neither claim another's process id at the handshake nor
// write chunks for another process's channel: the server checks both
// against the holder of the exchange's mutex. The victim goes on undisturbed.
TEST_F(Protocol, ForgedHandshakesAndChunksAreRefused) {
  ASSERT_TRUE(serve());
  DBCONN *victim = demo();
  ASSERT_NE(victim, nullptr);
  int victim_channel = victim->channel;
  pid_t me = getpid();
  pid_t forger = spawn([me, victim_channel] {
    RawClient r;
    if (!r.open()) return 1;
    // A handshake in the victim's name.
    DBwire_put64(r.a + DBCOMM_INSTANCE_AT, 0);
    if (!r.send(DBHS_CHANNEL, static_cast<uint32_t>(me), DBCOMM_VERSION,
                std::strlen(DBCOMM_VERSION) + 1, r.client))
      return 2;
    if (static_cast<int32_t>(r.word(DBCOMM_CHANNEL_AT)) != DBHS_REFUSED_PROCESS) return 3;
    // A notice ('W') on the victim's channel, acknowledged as refused so
    // that the forger's wait ends.
    uint32_t ch = static_cast<uint32_t>(victim_channel);
    if (!r.send(ch, sizeof kNotice, kNotice, sizeof kNotice, r.client_ack)) return 4;
    return r.word(DBCOMM_CHANNEL_AT) == DBCOMM_DROPPED && r.word(DBCOMM_LENGTH_AT) == DBDROP_PROCESS
               ? 0
               : 5;
  });
  EXPECT_EQ(join_within(forger, 10000), 0);
  EXPECT_TRUE(echoes(victim, 500, 5));
  EXPECT_EQ(c_->notices, 0);
  EXPECT_EQ(c_->closed, 0);
}

} // namespace
