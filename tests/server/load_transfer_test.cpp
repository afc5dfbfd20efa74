// Transfers between 100 accounts by 8 client processes at once against a real
// tavrind: some transactions end with ABORT, a client is killed in the
// middle of its exchanges, the server itself is killed with SIGKILL and
// started again. Afterwards the data is checked in the store directly (the
// SQLite file, or the PostgreSQL schema): integrity, the sum over all
// accounts, every account equal to its start plus the transfers recorded,
// every transfer whose COMMIT was answered there and no aborted one.
//
// The long runs (LoadLong.*) only run when ZENTIQ_LOAD=1 is set; ctest runs
// them as the entry "server_load" with the label "load".
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <random>
#include <set>

#include "base/msg.h"
#include "tests/tavrind_fixture.h"

namespace {

using namespace std::chrono_literals;

constexpr int kAccounts = 100;
constexpr int kStart = 1000;
using namespace tavrind_fixture;

// In a forked child: connects to DEMO (retrying for a few seconds) and
// returns the connection; ends the child with status 2 when it cannot.
DBCONN *child_connect(const std::string &ns) {
  for (int fd = 3; fd < 1024; ++fd) close(fd);
  setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
  msg_set_handler([](const char *) {});
  for (int i = 0; i < 50; ++i) {
    char name[] = "DEMO";
    DBCONN *c = DBconnect(name);
    if (DBstatus(c) == DBCONN_OK) return c;
    DBconn_free(c);
    std::this_thread::sleep_for(100ms);
  }
  _exit(2);
}

// Creates KONTO with kAccounts accounts of kStart each and the empty
// journal BUCHUNG. True when every statement succeeded.
bool setup(const std::string &ns) {
  pid_t pid = fork();
  if (pid == 0) {
    DBCONN *c = child_connect(ns);
    std::vector<std::string> sql = {
        "CREATE TABLE KONTO (KONTO_ID INTEGER, BETRAG INTEGER)",
        "CREATE UNIQUE INDEX KONTO_I ON KONTO (KONTO_ID)",
        "CREATE TABLE BUCHUNG (BUCHUNG_ID INTEGER, VON INTEGER, NACH INTEGER, BETRAG INTEGER)",
        "BEGIN"};
    for (int i = 1; i <= kAccounts; ++i)
      sql.push_back("INSERT INTO KONTO VALUES (" + std::to_string(i) + ", " +
                    std::to_string(kStart) + ")");
    sql.push_back("COMMIT");
    for (const std::string &q : sql)
      if (run(c, q) != DBRES_DONE) _exit(1);
    DBfinish(c);
    _exit(0);
  }
  return reap(pid, 60s) == 0;
}

// Starts a client process that runs n transfers: each one writes its journal
// row first (which takes the write lock), reads both balances, writes them
// back changed and ends with COMMIT, or with ABORT about every eighth time.
// A refused statement aborts the attempt, which is repeated. The outcome of
// every transfer whose end was answered goes to `record` as "C id" or
// "A id". Exits 0 when all ran; a lost server ends the process.
pid_t start_worker(const std::string &ns, int worker, int n, const std::string &record) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  DBCONN *c = child_connect(ns);
  FILE *out = fopen(record.c_str(), "a");
  if (!out) _exit(3);
  std::mt19937 rng(unsigned(worker) * 7919u + 17u);
  std::uniform_int_distribution<int> account(1, kAccounts), amount(1, 50), coin(0, 7);
  for (int i = 0; i < n; ++i) {
    int id = worker * 100000 + i;
    int from = account(rng), to = account(rng);
    while (to == from) to = account(rng);
    int sum = amount(rng);
    bool abort = coin(rng) == 0;
    bool done = false;
    for (int attempt = 0; attempt < 100 && !done; ++attempt) {
      std::string a, b;
      auto key = [](int k) { return " WHERE KONTO_ID = " + std::to_string(k); };
      bool ok =
          run(c, "BEGIN") == DBRES_DONE &&
          run(c, "INSERT INTO BUCHUNG VALUES (" + std::to_string(id) + ", " + std::to_string(from) +
                     ", " + std::to_string(to) + ", " + std::to_string(sum) + ")") == DBRES_DONE &&
          run(c, "SELECT BETRAG FROM KONTO" + key(from), &a) == DBRES_TUPLES &&
          run(c, "SELECT BETRAG FROM KONTO" + key(to), &b) == DBRES_TUPLES &&
          run(c, "UPDATE KONTO SET BETRAG = " + std::to_string(std::stoi(a) - sum) + key(from)) ==
              DBRES_DONE &&
          run(c, "UPDATE KONTO SET BETRAG = " + std::to_string(std::stoi(b) + sum) + key(to)) ==
              DBRES_DONE;
      if (!ok || abort) {
        if (run(c, "ABORT") != DBRES_DONE) _exit(4);
        done = ok;
      } else {
        done = run(c, "COMMIT") == DBRES_DONE;
      }
      if (done) {
        fprintf(out, "%c %d\n", abort ? 'A' : 'C', id);
        fflush(out);
      }
    }
    if (!done) _exit(5);
  }
  fclose(out);
  DBfinish(c);
  _exit(0);
}

// The rows of the integer `columns` (quoted names) of DEMO's `table`, read
// from its store directly, past the server (which may run): its SQLite file,
// or its schema in PostgreSQL.
std::vector<std::vector<long long>> read_store(const Server &srv, const std::string &columns,
                                               const std::string &table) {
  bool pg = !srv.store.empty();
  std::string sql = "SELECT " + columns + " FROM " + (pg ? "\"DEMO\".\"" + table + "\"" : table);
  std::vector<std::vector<long long>> out;
  if (pg) {
    std::vector<std::vector<std::string>> rows;
    std::string why;
    EXPECT_TRUE(pgcluster::query(srv.store, sql, &rows, why)) << sql << ": " << why;
    for (auto &r : rows) {
      out.emplace_back();
      for (auto &v : r) out.back().push_back(std::stoll(v));
    }
    return out;
  }
  sqlite3 *db = nullptr;
  EXPECT_EQ(
      sqlite3_open_v2((srv.data_dir() + "/DEMO.db").c_str(), &db, SQLITE_OPEN_READWRITE, nullptr),
      SQLITE_OK);
  sqlite3_busy_timeout(db, 5000);
  sqlite3_stmt *s = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), SQLITE_OK) << sql;
  while (s && sqlite3_step(s) == SQLITE_ROW) {
    out.emplace_back();
    for (int k = 0; k < sqlite3_column_count(s); ++k)
      out.back().push_back(sqlite3_column_int64(s, k));
  }
  sqlite3_finalize(s);
  // A damaged file answers the integrity check with anything but "ok".
  std::string integrity;
  if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &s, nullptr) == SQLITE_OK)
    while (sqlite3_step(s) == SQLITE_ROW)
      integrity += reinterpret_cast<const char *>(sqlite3_column_text(s, 0));
  sqlite3_finalize(s);
  sqlite3_close(db);
  EXPECT_EQ(integrity, "ok");
  return out;
}

// Checks DEMO's data in the store: the sum, every balance against the
// journal, the recorded commits present and the recorded aborts absent
// (and, on SQLite, the file's integrity). Returns the number of transfers in
// the journal.
int check_data(const Server &srv, const std::string &record) {
  std::vector<long long> expect(kAccounts + 1, kStart), have(kAccounts + 1, 0);
  expect[0] = 0; // there is no account 0
  std::set<long long> journal;
  for (auto &r : read_store(srv, "\"BUCHUNG_ID\", \"VON\", \"NACH\", \"BETRAG\"", "BUCHUNG")) {
    EXPECT_TRUE(journal.insert(r[0]).second) << "transfer twice";
    expect.at(size_t(r[1])) -= r[3];
    expect.at(size_t(r[2])) += r[3];
  }
  long long sum = 0;
  int accounts = 0;
  for (auto &r : read_store(srv, "\"KONTO_ID\", \"BETRAG\"", "KONTO")) {
    have.at(size_t(r[0])) = r[1];
    sum += r[1];
    ++accounts;
  }
  EXPECT_EQ(accounts, kAccounts);
  EXPECT_EQ(sum, (long long)kAccounts * kStart);
  EXPECT_EQ(have, expect) << "a balance differs from its transfers";
  std::ifstream in(record);
  char kind;
  long long id;
  int committed = 0;
  while (in >> kind >> id) {
    if (kind == 'C') {
      ++committed;
      EXPECT_TRUE(journal.count(id)) << "committed transfer " << id << " lost";
    } else {
      EXPECT_FALSE(journal.count(id)) << "aborted transfer " << id << " kept";
    }
  }
  EXPECT_GT(committed, 0);
  return int(journal.size());
}

class Transfers : public ::testing::Test {
protected:
  void SetUp() override {
    if (program().empty()) GTEST_SKIP() << "tavrind has not been built";
    ASSERT_TRUE(srv.start()) << srv.why();
    ASSERT_TRUE(setup(srv.ns()));
    record = srv.data_dir() + "/../transfers.txt";
  }

  // 8 clients with n transfers each, one more killed with SIGKILL after
  // `kill_after` (likely inside an exchange, holding the mutex); the 8
  // finish.
  void run_load(int n, std::chrono::milliseconds kill_after) {
    std::vector<pid_t> workers;
    for (int w = 0; w < 8; ++w) workers.push_back(start_worker(srv.ns(), w + 1, n, record));
    pid_t victim = start_worker(srv.ns(), 99, 1000000, record);
    std::this_thread::sleep_for(kill_after);
    kill(victim, SIGKILL);
    EXPECT_EQ(reap(victim, 5s), -1);
    for (pid_t w : workers) EXPECT_EQ(reap(w, std::chrono::milliseconds(n * 400 + 20000)), 0);
    check_data(srv, record);
  }

  // Clients run transfers until the server is killed with SIGKILL after
  // `after`; the server is started again on the leftovers of the dead one
  // and the data checked. Rounds use different transfer numbers.
  void kill_server(std::chrono::milliseconds after, int round = 0) {
    std::vector<pid_t> workers;
    for (int w = 0; w < 8; ++w)
      workers.push_back(start_worker(srv.ns(), round * 20 + w + 1, 1000000, record));
    std::this_thread::sleep_for(after);
    srv.kill_hard();
    for (pid_t w : workers) reap(w, 10s);
    ASSERT_TRUE(srv.restart());
    int before = check_data(srv, record);
    // The restarted server serves and changes the data again.
    pid_t w = start_worker(srv.ns(), round * 20 + 15, 20, record);
    EXPECT_EQ(reap(w, 20s), 0);
    EXPECT_GT(check_data(srv, record), before);
  }

  Server srv;
  std::string record;
};

TEST_F(Transfers, EightClientsKeepTheSumAndEveryCommit) { run_load(50, 300ms); }

TEST_F(Transfers, ServerKilledInTheMiddleLosesNoCommit) { kill_server(1500ms); }

bool long_runs() {
  const char *v = std::getenv("ZENTIQ_LOAD");
  return v && std::string(v) == "1";
}

TEST_F(Transfers, LoadLongEightClients) {
  if (!long_runs()) GTEST_SKIP() << "long load run: set ZENTIQ_LOAD=1";
  run_load(500, 2s);
}

TEST_F(Transfers, LoadLongServerKilled) {
  if (!long_runs()) GTEST_SKIP() << "long load run: set ZENTIQ_LOAD=1";
  for (int round = 0; round < 3; ++round) kill_server(4s, round);
}

// Two servers on one PostgreSQL database (the postgres pass only): clients
// of both cross their transfers; the sum and every commit hold.
class PgStoreTransfers : public Transfers {
protected:
  void SetUp() override {
    if (!pgcluster::postgres_store())
      GTEST_SKIP() << "two servers share a database only on the PostgreSQL store";
    Transfers::SetUp();
  }
};

TEST_F(PgStoreTransfers, TwoServersOnOneDatabaseKeepTheSum) {
  Server other;
  other.store = srv.store;
  ASSERT_TRUE(other.start()) << other.why();
  std::vector<pid_t> workers;
  for (int w = 0; w < 8; ++w)
    workers.push_back(start_worker(w % 2 ? other.ns() : srv.ns(), w + 1, 40, record));
  for (pid_t w : workers) EXPECT_EQ(reap(w, 60s), 0);
  check_data(srv, record);
}

} // namespace
