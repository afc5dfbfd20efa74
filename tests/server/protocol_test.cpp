// The client transport against the real server library, each side in its
// own process: packet sizes both ways, version refusal, servers and clients
// that die mid-exchange, parking, many clients at once.
#include "tests/server/protocol_testutil.h"

#include "base/msg.h"

#include <chrono>

using namespace prototest;
using namespace ipctest;

namespace {

class Protocol : public ::testing::Test {
protected:
  void SetUp() override {
    fresh_namespace();
    c_ = shared_counters();
    alarm(200); // a hang ends the test binary instead of the ctest time-out
  }
  void TearDown() override {
    DBcomm_close();
    msg_set_handler(nullptr);
    alarm(0);
    munmap(c_, sizeof(Counters));
  }
  // Waits up to 3 s for a counter to reach n.
  static bool reaches(std::atomic<int> &v, int n) {
    for (int i = 0; i < 600 && v.load() < n; ++i) usleep(5000);
    return v.load() >= n;
  }
  Counters *c_ = nullptr;
};

TEST_F(Protocol, MessagesOfEveryPacketSizeArriveWholeBothWays) {
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0) << DBerrormessage(c);
  EXPECT_STREQ(c->database, "DEMO");
  EXPECT_STREQ(name, "DEMO"); // upper-cased in place
  EXPECT_GE(c->channel, 0);

  // One packet up to 10000 message bytes (a packet of up to 10008 bytes),
  // then a full first packet of 9992 and further ones of 9996 bytes.
  for (size_t n :
       {1u, 9u, 9992u, 9993u, 10000u, 10001u, 19988u, 19989u, 29984u, 29985u, 100000u, 1000003u}) {
    Bytes req = echo_request(n, unsigned(n));
    bool allocated = false;
    Bytes ans = roundtrip(c, req, &allocated);
    EXPECT_EQ(ans.size(), n);
    EXPECT_TRUE(ans == req) << "echo of " << n << " bytes";
    EXPECT_EQ(allocated, n > 10000) << n;
  }
  // Answers longer than the 10000-byte buffer come in an exact allocation.
  for (uint32_t n : {10000u, 10001u, 19988u, 65536u, 3000000u}) {
    bool allocated = false;
    Bytes ans = roundtrip(c, length_request(n), &allocated);
    EXPECT_TRUE(ans == pattern(n)) << n;
    EXPECT_EQ(allocated, n > 10000) << n;
  }
  // Without allocation outputs an answer too big for the buffer is refused.
  msg_set_handler(collect);
  g_out.clear();
  DBreq_reset();
  Bytes req = length_request(10001);
  DBreq_bytes(req.data(), req.size());
  ASSERT_EQ(DBsend(c), 1);
  unsigned char buf[10000];
  int len = 0;
  EXPECT_EQ(DBrecv(c, buf, sizeof buf, &len, nullptr, nullptr), 0);
  EXPECT_EQ(DBstatus(c), 6);
  EXPECT_NE(g_out.find("client read: Message too big (len 10001 / buffersize = 10000)\n"
                       "DBrecv: No data received\n"),
            std::string::npos)
      << g_out;
  DBcomm_close();
  DBconn_free(c);
  EXPECT_EQ(stop_server(srv), 0);
}

TEST_F(Protocol, ConnectionCommandsAndOneWayRequests) {
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  // A second server in the same namespace is refused while the first lives.
  pid_t second = spawn([] {
    msg_set_handler([](const char *) {});
    Counters *cc = shared_counters();
    TestHandler h(cc);
    tavrind::ProtocolServer s(h);
    return s.start() ? 1 : 0;
  });
  EXPECT_EQ(join_within(second, 5000), 0);

  char missing[] = "missing";
  DBCONN *bad = DBconnect(missing);
  EXPECT_EQ(DBstatus(bad), 1);
  EXPECT_STREQ(DBerrormessage(bad), "(srv) No such base");
  DBconn_free(bad);

  char name[] = "Kunden";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0);
  EXPECT_EQ(DBreset(c), 1); // '2' then '1'
  EXPECT_TRUE(reaches(c_->closes, 1));
  EXPECT_EQ(DBdropdb(c), 1); // '4' then '2'
  EXPECT_TRUE(reaches(c_->closes, 2));
  EXPECT_EQ(DBnotify_server(), 1); // its own handshake and a 'W'
  EXPECT_TRUE(reaches(c_->notices, 1));
  EXPECT_TRUE(reaches(c_->opened, 3));

  // The connection still works after all of that on a new transport.
  DBCONN *d = DBconnect(name);
  ASSERT_EQ(DBstatus(d), 0);
  // Each new handshake of this process gave its earlier channel up.
  EXPECT_TRUE(reaches(c_->closed, 3));
  EXPECT_TRUE(roundtrip(d, echo_request(300, 1)) == echo_request(300, 1));
  DBfinish(d);
  EXPECT_TRUE(reaches(c_->closes, 3));
  EXPECT_EQ(DBcomm_ready(), 0);
  DBconn_free(d);
  DBconn_free(c);

  // A client that ends loses its channel; the server hears of it.
  int before = c_->closed;
  pid_t client = spawn([] {
    char n[] = "x";
    DBCONN *k = DBconnect(n);
    return DBstatus(k) == 0 ? 0 : 1;
  });
  EXPECT_EQ(join_within(client, 10000), 0);
  EXPECT_TRUE(reaches(c_->closed, before + 1));
  EXPECT_EQ(stop_server(srv), 0);
}

TEST_F(Protocol, OtherVersionsAndAFullServerAreRefused) {
  c_->max_channels = 1;
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  msg_set_handler(collect);
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  EXPECT_EQ(DBhandshake_version(5000, "2.0.0"), DBHS_VERSION);
  DBcomm_close(); // the refused handshake keeps the mutex until here
  ASSERT_EQ(DBcomm_init(DBCOMM_AREA_SIZE), 1);
  int ch = DBhandshake(5000);
  EXPECT_EQ(ch, 0);
  // The only channel is taken: the next client gets a negative channel too.
  pid_t other = spawn([] {
    char n[] = "x";
    DBCONN *k = DBconnect(n);
    return std::strcmp(DBerrormessage(k),
                       "(TAVRIN) Connect to database server failed (incompatible TAVRINDB "
                       "version)\n") == 0
               ? 0
               : 1;
  });
  EXPECT_EQ(join_within(other, 10000), 0);
  EXPECT_EQ(c_->opened, 1);
  EXPECT_EQ(stop_server(srv), 0);
}

TEST_F(Protocol, ServerKilledWhileAClientWaitsEndsTheWait) {
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0);
  msg_set_handler(collect);
  g_out.clear();
  DBreq_reset();
  DBreq_byte('N'); // never answered
  ASSERT_EQ(DBsend(c), 1);
  pid_t killer = spawn([srv] {
    usleep(100000);
    return kill(srv, SIGKILL);
  });
  auto t0 = std::chrono::steady_clock::now();
  unsigned char buf[10000];
  int len = 0;
  EXPECT_EQ(DBrecv(c, buf, sizeof buf, &len, nullptr, nullptr), 0);
  double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_LT(ms, 3000.0);
  EXPECT_EQ(DBstatus(c), 6);
  EXPECT_EQ(g_out, "DBrecv: No data received\n");
  join_within(killer, 5000);
  EXPECT_EQ(join_within(srv, 5000), 128 + SIGKILL);
  // Every further wait on the dead server ends at once; the mutex was given
  // up, so a new server in the same namespace serves a new client.
  g_out.clear();
  EXPECT_EQ(DBsend(c), 0);
  EXPECT_NE(g_out.find("client write: Data missing (expected 9 written -1)\n"), std::string::npos)
      << g_out;
  DBconn_free(c);
  pid_t srv2 = start_server(c_);
  ASSERT_GT(srv2, 0);
  pid_t client = spawn([] {
    char n[] = "demo";
    DBCONN *k = DBconnect(n);
    if (DBstatus(k) != 0) return 1;
    return roundtrip(k, echo_request(20000, 3)) == echo_request(20000, 3) ? 0 : 2;
  });
  EXPECT_EQ(join_within(client, 20000), 0);
  EXPECT_EQ(stop_server(srv2), 0);
}

TEST_F(Protocol, ClientKilledHoldingTheMutexDoesNotBlockOthers) {
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  Gate holding;
  pid_t victim = spawn([&] {
    char n[] = "demo";
    DBCONN *k = DBconnect(n);
    if (DBstatus(k) != 0) return 1;
    DBreq_reset();
    DBreq_byte('N');
    if (!DBsend(k)) return 2;
    holding.open_gate(); // the mutex is held until the answer is read
    unsigned char buf[10000];
    int len;
    DBrecv(k, buf, sizeof buf, &len, nullptr, nullptr);
    return 3;
  });
  ASSERT_TRUE(holding.pass());
  int victim_channel = c_->opened - 1;
  kill(victim, SIGKILL);
  EXPECT_EQ(join_within(victim, 5000), 128 + SIGKILL);
  // The next client takes over the abandoned mutex and goes on.
  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0) << DBerrormessage(c);
  for (int i = 0; i < 20; ++i)
    EXPECT_TRUE(roundtrip(c, echo_request(5000 + i * 700, i)) == echo_request(5000 + i * 700, i));
  EXPECT_TRUE(reaches(c_->closed, 1));
  EXPECT_EQ(c_->last_closed, victim_channel);
  DBfinish(c);
  DBconn_free(c);
  EXPECT_EQ(stop_server(srv), 0);
}

TEST_F(Protocol, ParkedClientsGetTheirAnswersAfterOthersWentOn) {
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  // Two parked clients: the activation meant for one may wake the other,
  // which must pass it on.
  auto parked_client = [] {
    char n[] = "demo";
    DBCONN *k = DBconnect(n);
    if (DBstatus(k) != 0) return 1;
    Bytes ans = roundtrip(k, Bytes{'P'});
    std::string expect = "done " + std::to_string(k->channel);
    if (std::string(ans.begin(), ans.end()) != expect) return 2;
    // The exchange is over: the connection goes on normally.
    return roundtrip(k, echo_request(12345, 9)) == echo_request(12345, 9) ? 0 : 3;
  };
  pid_t a = spawn(parked_client);
  pid_t b = spawn(parked_client);
  for (int i = 0; i < 600 && c_->misuse_ok < 2; ++i) usleep(5000);
  ASSERT_EQ(c_->misuse_ok, 2); // both are parked now

  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0);
  for (int i = 0; i < 10; ++i)
    EXPECT_TRUE(roundtrip(c, echo_request(100 + i * 3000, i)) == echo_request(100 + i * 3000, i));
  Bytes r = roundtrip(c, Bytes{'R'});
  EXPECT_EQ(std::string(r.begin(), r.end()), "released");
  EXPECT_EQ(join_within(a, 20000), 0);
  EXPECT_EQ(join_within(b, 20000), 0);
  EXPECT_EQ(c_->misuse_ok, 3); // a second answer to 'R' was refused
  // After all that the owner word is free again for everybody.
  EXPECT_TRUE(roundtrip(c, echo_request(77, 7)) == echo_request(77, 7));
  DBfinish(c);
  DBconn_free(c);
  EXPECT_EQ(stop_server(srv), 0);
}

TEST_F(Protocol, ParkedClientThatDiesDoesNotKeepTheExchange) {
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  pid_t a = spawn([] {
    char n[] = "demo";
    DBCONN *k = DBconnect(n);
    if (DBstatus(k) != 0) return 1;
    roundtrip(k, Bytes{'P'});
    return 2;
  });
  for (int i = 0; i < 600 && c_->misuse_ok < 1; ++i) usleep(5000);
  ASSERT_EQ(c_->misuse_ok, 1); // parked
  kill(a, SIGKILL);
  join_within(a, 5000);
  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0);
  // The answer for the dead client may hand the exchange to its channel;
  // the server must take it back once it notices the death.
  Bytes r = roundtrip(c, Bytes{'R'});
  EXPECT_EQ(std::string(r.begin(), r.end()), "released");
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(roundtrip(c, echo_request(50, i)) == echo_request(50, i));
  EXPECT_TRUE(reaches(c_->closed, 1));
  DBfinish(c);
  DBconn_free(c);
  EXPECT_EQ(stop_server(srv), 0);
}

TEST_F(Protocol, EightClientsThousandExchangesEachAllAnswersRight) {
  pid_t srv = start_server(c_);
  ASSERT_GT(srv, 0);
  std::vector<pid_t> clients;
  for (int k = 0; k < 8; ++k) {
    clients.push_back(spawn([k] {
      char n[] = "demo";
      DBCONN *c = DBconnect(n);
      if (DBstatus(c) != 0) return 1;
      unsigned seed = 1234u + unsigned(k);
      for (int i = 0; i < 1000; ++i) {
        seed = seed * 1103515245u + 12345u;
        // Mostly short requests, now and then one of several packets.
        size_t len = (seed >> 16) % 7 == 0 ? 10001 + (seed >> 8) % 15000 : 2 + (seed >> 8) % 400;
        Bytes req = echo_request(len, seed);
        req[1] = static_cast<unsigned char>(k);
        if (roundtrip(c, req) != req) return 2;
      }
      DBfinish(c);
      return 0;
    }));
  }
  for (pid_t p : clients) EXPECT_EQ(join_within(p, 150000), 0);
  EXPECT_GE(c_->requests, 8 * 1000);
  EXPECT_EQ(stop_server(srv), 0);
}

} // namespace
