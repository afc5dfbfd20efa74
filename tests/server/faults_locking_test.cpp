// Locking under faults, against a real tavrind process: a client that waits
// for another one's write lock gets its answer when the holder commits,
// aborts or dies; a wait longer than --lock-timeout is refused; crossing
// updates never hang; a deadlock refuses one transaction at once; a
// read-then-write client waits before it reads; --max-clients refuses the
// client too many. Statements that run away are stopped: by the statement
// timeout, when their client dies, when the server is asked to stop; an
// answer past --max-answer-mb is refused.
//
// Every client runs in a forked process of its own (the transport is one
// connection per process) and is driven through pipes: the test writes one
// statement per line, the client answers one line "<status>|<first value,
// row count or error text>". Each server has its own namespace and temporary data folder
// and is stopped by its pid.
#include <gmock/gmock.h>

#include <poll.h>

#include "base/msg.h"
#include "db/client/transport.h"
#include "tests/tavrind_fixture.h"

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using namespace tavrind_fixture;

using namespace std::chrono_literals;

// One client process on database DEMO, driven line by line. Its first line
// tells whether it connected: "OK|", or "C|<message>".
class Client {
public:
  explicit Client(const std::string &ns) {
    int to[2], from[2];
    if (pipe(to) != 0 || pipe(from) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      // Only its own pipe ends: a write end of another client's pipe kept
      // here would hide that client's end of input.
      for (int fd = 3; fd < 1024; ++fd)
        if (fd != to[0] && fd != from[1]) close(fd);
      setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
      serve(to[0], from[1]);
    }
    close(to[0]);
    close(from[1]);
    out_ = to[1];
    in_ = from[0];
    greeting_ = answer();
  }
  bool ok() const { return greeting_ == "OK|"; }
  const std::string &greeting() const { return greeting_; }
  // Ends the input; the client ends by itself (or is killed after 3 s).
  ~Client() {
    close(out_);
    close(in_);
    if (pid_ > 0) reap(pid_, 3s);
  }

  // Sends a statement without waiting for its answer.
  void send(const std::string &stmt) {
    std::string line = stmt + "\n";
    ASSERT_EQ(write(out_, line.data(), line.size()), ssize_t(line.size()));
  }
  // The next answer line, or "" when none came within `wait`.
  std::string answer(std::chrono::milliseconds wait = 10s) {
    auto end = std::chrono::steady_clock::now() + wait;
    size_t nl;
    while ((nl = buf_.find('\n')) == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return "";
      pollfd p{in_, POLLIN, 0};
      if (poll(&p, 1, int(left.count())) <= 0) continue;
      char tmp[4096];
      ssize_t n = read(in_, tmp, sizeof tmp);
      if (n <= 0) return "";
      buf_.append(tmp, size_t(n));
    }
    std::string line = buf_.substr(0, nl);
    buf_.erase(0, nl + 1);
    return line;
  }
  std::string run(const std::string &stmt) {
    send(stmt);
    return answer();
  }
  void kill_now() {
    reap(pid_, 0ms);
    pid_ = -1;
  }
  // Ctrl-C: the client cancels the statement it waits for.
  void interrupt() { kill(pid_, SIGINT); }
  pid_t pid() const { return pid_; }

private:
  // The child: connects (retrying while the server comes up), then runs one
  // statement per line. "CONNECT" failures are reported as "C|<message>".
  [[noreturn]] static void serve(int in, int out) {
    msg_set_handler([](const char *) {});
    struct sigaction sa {};
    sa.sa_handler = [](int) { DBcancel(); };
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
    FILE *f = fdopen(in, "r");
    auto reply = [out](const std::string &s) {
      std::string line = s + "\n";
      if (write(out, line.data(), line.size()) < 0) _exit(3);
    };
    char name[] = "DEMO";
    DBCONN *c = DBconnect(name);
    std::string m = DBerrormessage(c);
    reply(DBstatus(c) == DBCONN_OK ? "OK|" : "C|" + m.substr(0, m.find('\n')));
    char line[4096];
    while (f && fgets(line, sizeof line, f)) {
      std::string s = line, v;
      if (!s.empty() && s.back() == '\n') s.pop_back();
      if (s == "HOOK") {
        // From now on a wait hook cancels every statement that is still
        // waiting after its fifth call (about 250 ms).
        static int calls = 0;
        DBset_wait_hook(
            [](void *) {
              if (++calls == 5) DBcancel();
            },
            nullptr);
        reply("H|");
        continue;
      }
      int st = tavrind_fixture::run(c, s, &v);
      reply(std::to_string(st) + "|" + v);
    }
    DBfinish(c);
    DBconn_free(c);
    _exit(0);
  }

  pid_t pid_ = -1;
  int out_ = -1, in_ = -1;
  std::string buf_, greeting_;
};

// The output of `tavrin locks` against the server in namespace ns.
std::string tavrin_locks(const std::string &ns) {
  const char *build = std::getenv("ZENTIQ_BUILD_DIR");
  std::string cmd =
      "TAVRIN_NAMESPACE=" + ns + " " + (build ? build : ".") + "/tools/tavrin locks 2>&1";
  std::string out;
  FILE *p = popen(cmd.c_str(), "r");
  for (int ch; p && (ch = fgetc(p)) != EOF;) out += char(ch);
  if (p) pclose(p);
  return out;
}

const std::string kDone = "1|";
// The statements that change and read the amount of account `id`.
std::string set(int id, int amount) {
  return "UPDATE KONTO SET BETRAG = " + std::to_string(amount) +
         " WHERE KONTO_ID = " + std::to_string(id);
}
std::string get(int id) {
  return "SELECT BETRAG FROM KONTO WHERE KONTO_ID = " + std::to_string(id);
}
std::string tuples(const std::string &v) { return "2|" + v; }
// Runs the statements of `steps` on c in turn, each with the answer it must
// get; a failure names the first one that got another.
::testing::AssertionResult runs(Client &c, std::vector<std::pair<std::string, std::string>> steps) {
  for (const auto &[stmt, want] : steps)
    if (std::string got = c.run(stmt); got != want)
      return ::testing::AssertionFailure() << stmt << ": " << got << " instead of " << want;
  return ::testing::AssertionSuccess();
}
// Opens a transaction on c and changes account id in it (taking the write
// lock); whether both were done.
::testing::AssertionResult begin_update(Client &c, int id, int amount) {
  return runs(c, {{"BEGIN", kDone}, {set(id, amount), "1|1"}});
}
// Whether answer a refuses with error `number`; a failure shows the answer.
::testing::AssertionResult is_error(const std::string &a, const std::string &number) {
  if (a.rfind("4|", 0) == 0 && a.find("(TAVRIN " + number + ")") != std::string::npos)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << a;
}

class Locking : public ::testing::Test {
protected:
  void SetUp() override {
    if (program().empty()) GTEST_SKIP() << "tavrind has not been built";
  }
  // Starts the server and makes table KONTO with accounts 1 and 2.
  void start(const std::vector<std::string> &extra = {}) {
    ASSERT_TRUE(srv.start(extra)) << srv.why();
    Client c(srv.ns());
    ASSERT_TRUE(c.ok()) << c.greeting();
    ASSERT_TRUE(runs(c, {{"CREATE TABLE KONTO (KONTO_ID INTEGER, BETRAG INTEGER)", kDone},
                         {"INSERT INTO KONTO VALUES (1, 100)", "1|1"},
                         {"INSERT INTO KONTO VALUES (2, 100)", "1|1"}}));
  }
  std::string amount(int id) {
    Client c(srv.ns());
    EXPECT_TRUE(c.ok()) << c.greeting();
    return c.run(get(id));
  }
  // Fills KONTO to seven accounts through `c` and returns a statement that
  // runs for hours on them: a 12-way self-join.
  std::string runaway_join(Client &c) {
    for (int i = 3; i <= 7; ++i)
      EXPECT_EQ(c.run("INSERT INTO KONTO VALUES (" + std::to_string(i) + ", 1)"), "1|1");
    std::string join = "SELECT COUNT(*) FROM KONTO A";
    for (char t = 'B'; t <= 'L'; ++t) join += std::string(", KONTO ") + t;
    return join;
  }
  Server srv;
};

// A holds the write lock, B's UPDATE is parked (`tavrin locks` lists both);
// how A's transaction ends decides when B is answered and what is visible
// afterwards.
TEST_F(Locking, ParkedWriterGoesOnWhenTheHolderCommitsAbortsOrDies) {
  start();
  int b_changes = 0;
  for (const std::string end : {"COMMIT", "ABORT", "kill"}) {
    SCOPED_TRACE(end);
    auto a = std::make_unique<Client>(srv.ns());
    Client b(srv.ns());
    ASSERT_TRUE(a->ok() && b.ok());
    ASSERT_TRUE(begin_update(*a, 1, 110));
    b.send(set(2, 101 + b_changes));
    EXPECT_EQ(b.answer(400ms), "") << "B must wait for A's lock";
    if (end == "COMMIT") {
      // `tavrin locks` lists A as holder, then B as waiter, each with its process.
      EXPECT_THAT(tavrin_locks(srv.ns()),
                  ContainsRegex("holds  DEMO[^\n]* " + std::to_string(a->pid()) +
                                " .*waits  DEMO[^\n]* " + std::to_string(b.pid()) + " "));
    }
    // A reader is never parked behind the lock and sees only committed data.
    std::string before = amount(1);
    if (end == "kill")
      a->kill_now();
    else
      ASSERT_EQ(a->run(end), kDone);
    EXPECT_EQ(b.answer(), "1|1");
    a.reset();
    bool committed_a = end == "COMMIT";
    EXPECT_EQ(amount(1), tuples(committed_a ? "110" : before.substr(2)));
    ++b_changes;
    EXPECT_EQ(amount(2), tuples(std::to_string(100 + b_changes))) << "B's change is visible";
  }
  EXPECT_EQ(amount(1), tuples("110"));
  EXPECT_EQ(amount(2), tuples("103"));
}

// A wait longer than --lock-timeout is refused with a text naming the
// database; the waiting transaction goes on and can still commit.
TEST_F(Locking, LockTimeoutRefusesTheWaitingStatementOnly) {
  start({"--lock-timeout", "0.5"});
  Client a(srv.ns()), b(srv.ns());
  ASSERT_TRUE(a.ok() && b.ok());
  ASSERT_TRUE(begin_update(a, 1, 7));
  ASSERT_EQ(b.run("BEGIN"), kDone);
  auto t0 = std::chrono::steady_clock::now();
  std::string r = b.run(set(2, 8));
  auto waited = std::chrono::steady_clock::now() - t0;
  EXPECT_TRUE(is_error(r, "509"));
  // The text names the database and the holder: A's channel and process.
  EXPECT_THAT(r, AllOf(HasSubstr("DEMO"), HasSubstr("Kanal "),
                       HasSubstr("Prozess " + std::to_string(a.pid()))));
  EXPECT_GE(waited, 450ms);
  EXPECT_LT(waited, 5s);
  ASSERT_EQ(a.run("COMMIT"), kDone);
  EXPECT_TRUE(runs(b, {{set(2, 8), "1|1"}, {"COMMIT", kDone}}));
  EXPECT_EQ(amount(1), tuples("7"));
  EXPECT_EQ(amount(2), tuples("8"));
}

// Crossing updates: with the database's write lock the second writer waits
// for the first, which takes both rows; then the second does its work.
TEST_F(Locking, CrossingUpdatesWaitAndNeverHang) {
  start();
  Client a(srv.ns()), b(srv.ns());
  ASSERT_TRUE(a.ok() && b.ok());
  ASSERT_TRUE(begin_update(a, 1, 95));
  ASSERT_EQ(b.run("BEGIN"), kDone);
  b.send(set(2, 102));
  EXPECT_EQ(b.answer(300ms), "");
  EXPECT_TRUE(runs(a, {{set(2, 105), "1|1"}, {"COMMIT", kDone}}));
  EXPECT_EQ(b.answer(), "1|1");
  EXPECT_TRUE(runs(b, {{set(1, 98), "1|1"}, {"COMMIT", kDone}}));
  EXPECT_EQ(amount(1), tuples("98"));
  EXPECT_EQ(amount(2), tuples("102"));
}

// A deadlock: both transactions read, A changes a row, B wants to change
// the row A read. B is refused with '0' at once (not when A ends), A goes
// on and commits; B's transaction stays open until it aborts. A waiter that
// was parked before the holder changed anything is refused as soon as the
// holder does.
TEST_F(Locking, DeadlockEndsOneTransactionAtOnce) {
  start();
  Client a(srv.ns()), b(srv.ns());
  ASSERT_TRUE(a.ok() && b.ok());
  ASSERT_EQ(a.run("BEGIN"), kDone);
  ASSERT_EQ(b.run("BEGIN"), kDone);
  ASSERT_EQ(a.run(get(2)), tuples("100"));
  ASSERT_EQ(b.run(get(1)), tuples("100"));
  ASSERT_EQ(a.run(set(1, 50)), "1|1");
  auto t0 = std::chrono::steady_clock::now();
  std::string r = b.run(set(2, 150));
  EXPECT_TRUE(is_error(r, "510"));
  EXPECT_THAT(r, HasSubstr("DEMO"));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s) << "refused at once, not after A";
  EXPECT_TRUE(runs(a, {{set(2, 150), "1|1"}, {"COMMIT", kDone}}));
  EXPECT_EQ(b.run("ABORT"), kDone);
  EXPECT_EQ(amount(1), tuples("50"));
  EXPECT_EQ(amount(2), tuples("150"));

  // A takes the write lock without changing anything yet (its read-then-
  // write block before makes its next block start with the lock); C, which
  // has read, waits; A's change makes the wait vain and C is refused then.
  Client c(srv.ns());
  ASSERT_TRUE(c.ok());
  ASSERT_TRUE(runs(a, {{"BEGIN", kDone}, {get(1), tuples("50")}}));
  ASSERT_TRUE(runs(c, {{"BEGIN", kDone}, {get(1), tuples("50")}}));
  c.send(set(1, 0));
  EXPECT_EQ(c.answer(300ms), "") << "A has changed nothing: C waits";
  EXPECT_EQ(a.run(set(1, 60)), "1|1");
  EXPECT_TRUE(is_error(c.answer(2s), "510"));
  EXPECT_EQ(a.run("COMMIT"), kDone);
  EXPECT_EQ(c.run("ABORT"), kDone);
  EXPECT_EQ(amount(1), tuples("60"));
}

// A client whose block read and then wrote starts its next block with the
// write lock: while another transaction holds the lock its first SELECT
// waits, then reads the committed value, and its UPDATE is never refused.
// Readers outside a block go on meanwhile; a block that only reads ends
// the habit.
TEST_F(Locking, ReadThenWriteClientWaitsBeforeReading) {
  start();
  Client a(srv.ns()), b(srv.ns());
  ASSERT_TRUE(a.ok() && b.ok());
  EXPECT_TRUE(runs(
      b, {{"BEGIN", kDone}, {get(1), tuples("100")}, {set(1, 100), "1|1"}, {"COMMIT", kDone}}));
  ASSERT_TRUE(begin_update(a, 1, 120));
  ASSERT_EQ(b.run("BEGIN"), kDone);
  b.send(get(1));
  EXPECT_EQ(b.answer(300ms), "") << "B's block starts with the write lock";
  EXPECT_EQ(amount(1), tuples("100")) << "a reader outside a block goes on";
  ASSERT_EQ(a.run("COMMIT"), kDone);
  EXPECT_EQ(b.answer(), tuples("120"));
  EXPECT_TRUE(runs(b, {{set(1, 121), "1|1"}, {"COMMIT", kDone}}));
  EXPECT_EQ(amount(1), tuples("121"));

  // One block that only reads ends it: B's next reading block does not wait.
  ASSERT_TRUE(runs(b, {{"BEGIN", kDone}, {get(2), tuples("100")}, {"END", kDone}}));
  ASSERT_TRUE(begin_update(a, 1, 130));
  ASSERT_EQ(b.run("BEGIN"), kDone);
  EXPECT_TRUE(runs(b, {{get(1), tuples("121")}, {"END", kDone}}));
  EXPECT_EQ(a.run("COMMIT"), kDone);
}

// The client beyond --max-clients is refused with a message; a place freed
// by a client that ended is given out again.
TEST_F(Locking, MaxClientsRefusesTheClientTooMany) {
  start({"--max-clients", "2"});
  // The server notices an ended client within its liveness checks; until
  // then its channel stays taken.
  auto connect = [this] {
    for (int i = 0; i < 25; ++i) {
      auto c = std::make_unique<Client>(srv.ns());
      if (c->ok()) return c;
      std::this_thread::sleep_for(200ms);
    }
    return std::unique_ptr<Client>();
  };
  auto a = connect();
  auto b = connect();
  ASSERT_TRUE(a && b);
  {
    // The refused client reports it and, while it lives on, holds up nobody.
    Client c(srv.ns());
    EXPECT_EQ(c.greeting(), "C|(TAVRIN) Connect to database server failed (all channels in use "
                            "(2))");
    EXPECT_EQ(a->run(get(1)), tuples("100"));
  }
  a.reset();
  EXPECT_TRUE(connect());
}

// A runaway statement (a 12-way self-join of 7 rows) is stopped by the
// statement timeout with its own error, and the server answers at once
// after it. An answer past --max-answer-mb is refused; the channel goes on,
// and a cursor that passed the limit is closed rather than skip rows.
TEST_F(Locking, RunawayStatementsAndOversizedAnswersAreStopped) {
  start({"--statement-timeout", "1", "--max-answer-mb", "1"});
  Client a(srv.ns()), b(srv.ns());
  ASSERT_TRUE(a.ok() && b.ok());
  std::string join = runaway_join(a);
  ASSERT_TRUE(begin_update(a, 3, 5));
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_TRUE(is_error(a.run(join), "511"));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 8s);
  // A stopped read leaves the open transaction as it was.
  EXPECT_EQ(a.run("COMMIT"), kDone);
  EXPECT_EQ(b.run(get(3)), tuples("5"));

  // 600 x 600 customers are far more than 1 MB.
  std::string r = b.run("SELECT * FROM KUNDE A, KUNDE B");
  EXPECT_TRUE(is_error(r, "514"));
  EXPECT_THAT(r, HasSubstr("1 MB"));
  EXPECT_EQ(b.run("SELECT COUNT(*) FROM KUNDE"), tuples("600"));
  ASSERT_EQ(b.run("DECLARE C CURSOR FOR SELECT * FROM KUNDE A, KUNDE B"), kDone);
  EXPECT_EQ(b.run("FETCH C").rfind("3|", 0), 0u);
  EXPECT_TRUE(is_error(b.run("FETCH ALL IN C"), "514"));
  EXPECT_TRUE(is_error(b.run("FETCH C"), "502"));
}

// The runaway's client is killed: the server stops the statement (error 513
// in its log) and answers others. SIGTERM during a runaway statement ends
// the server promptly and rolls back the open transaction.
TEST_F(Locking, RunawayEndsWithItsClientAndWithTheServer) {
  start();
  std::string join;
  {
    Client a(srv.ns());
    ASSERT_TRUE(a.ok());
    join = runaway_join(a);
    a.send(join);
    std::this_thread::sleep_for(300ms);
    a.kill_now();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(amount(1), tuples("100"));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
    EXPECT_THAT(srv.log(), HasSubstr("(TAVRIN 513)"));
  }
  Client a(srv.ns());
  ASSERT_TRUE(a.ok());
  ASSERT_TRUE(begin_update(a, 1, 1));
  a.send(join);
  std::this_thread::sleep_for(300ms);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(srv.terminate(5s), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
  EXPECT_THAT(srv.log(), HasSubstr("(TAVRIN 512)"));
  ASSERT_TRUE(srv.restart());
  EXPECT_EQ(amount(1), tuples("100")) << "the open transaction was rolled back";
}

// A runaway statement of a transaction that holds the write lock runs
// beside the server: others connect and read (beside the lock) meanwhile.
// A statement parked for that lock and the runaway itself are cancelled by
// their clients (515, from a signal handler): nothing of the parked one took
// effect, and the runaway's transaction goes on. A wait hook can cancel too.
TEST_F(Locking, RunawayLeavesOthersServedAndCancelStopsItOrALockWait) {
  start();
  Client a(srv.ns()), b(srv.ns());
  ASSERT_TRUE(a.ok() && b.ok());
  std::string join = runaway_join(a);
  ASSERT_TRUE(begin_update(a, 1, 5));
  a.send(join);
  std::this_thread::sleep_for(300ms);
  for (int i = 0; i < 10; ++i) {
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(b.run(get(1)), tuples("100"));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
  }
  {
    Client c(srv.ns());
    EXPECT_TRUE(c.ok()) << c.greeting();
  }
  EXPECT_EQ(a.answer(0ms), "") << "the runaway is still running";

  b.send(set(2, 7));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(b.answer(0ms), "") << "the update waits for the lock";
  b.interrupt();
  EXPECT_TRUE(is_error(b.answer(5s), "515"));
  a.interrupt();
  EXPECT_TRUE(is_error(a.answer(5s), "515")) << srv.log();
  EXPECT_EQ(a.run("COMMIT"), kDone);
  EXPECT_TRUE(runs(b, {{get(1), tuples("5")}, {get(2), tuples("100")}}));

  // The wait hook runs while the client waits and may cancel from there.
  ASSERT_EQ(b.run("HOOK"), "H|");
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_TRUE(is_error(b.run(join), "515"));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
}

// Locking and faults that only the PostgreSQL store has: the postgres pass
// only, on its cluster.
class PgStoreLocking : public Locking {
protected:
  void SetUp() override {
    if (!pgcluster::postgres_store())
      GTEST_SKIP() << "PostgreSQL store tests run in the postgres pass (ctest -L postgres)";
    Locking::SetUp();
  }
};

// Two servers on one database exclude each other's writers as one server
// excludes its clients': B (other server) waits for A's write lock and goes
// on when A commits, or is refused with 509 after its --lock-timeout. A
// reader of the other server is never parked.
TEST_F(PgStoreLocking, TwoServersOnOneDatabaseExcludeEachOthersWriters) {
  start();
  Server other;
  other.store = srv.store;
  ASSERT_TRUE(other.start({"--lock-timeout", "1"})) << other.why();
  Client a(srv.ns()), b(other.ns()), reader(other.ns());
  ASSERT_TRUE(a.ok() && b.ok() && reader.ok()) << b.greeting();
  ASSERT_TRUE(begin_update(a, 1, 90));
  b.send(set(1, 95));
  EXPECT_EQ(b.answer(400ms), "") << "B must wait for A's lock";
  EXPECT_EQ(reader.run(get(1)), tuples("100"));
  ASSERT_EQ(a.run("COMMIT"), kDone);
  EXPECT_EQ(b.answer(), "1|1");
  EXPECT_EQ(reader.run(get(1)), tuples("95"));

  ASSERT_TRUE(begin_update(a, 2, 0));
  EXPECT_TRUE(is_error(b.run(set(2, 1)), "509"));
  ASSERT_EQ(a.run("COMMIT"), kDone);
  EXPECT_EQ(reader.run(get(2)), tuples("0"));
}

// The cluster ends as in a crash while A is inside a transaction: A's next
// statement is refused within the client's wait, so is a client that comes
// while the cluster is down; once it is back, the server serves again and
// A's lost change is not there.
TEST_F(PgStoreLocking, LostClusterFailsTheTransactionAndNoClientHangs) {
  start();
  std::string why;
  pgcluster::Cluster *cluster = pgcluster::shared(why);
  ASSERT_TRUE(cluster) << why;
  Client a(srv.ns());
  ASSERT_TRUE(a.ok()) << a.greeting();
  ASSERT_TRUE(begin_update(a, 1, 50));
  ASSERT_TRUE(cluster->stop_immediate());
  std::string lost = a.run(set(2, 150));
  EXPECT_EQ(lost.rfind("4|", 0), 0u) << "an error, not a hang or a change: " << lost;
  {
    Client b(srv.ns());
    ASSERT_NE(b.greeting(), "") << "a new client hangs";
    if (b.ok()) {
      std::string down = b.run(get(1));
      EXPECT_EQ(down.rfind("4|", 0), 0u) << down;
    }
  }
  ASSERT_TRUE(cluster->start_again());
  EXPECT_EQ(a.run(get(1)), tuples("100")) << srv.log();
  EXPECT_EQ(a.run(set(2, 60)), "1|1");
  EXPECT_EQ(amount(2), tuples("60"));
}

} // namespace
