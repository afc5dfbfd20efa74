// The tavrind server under load from several client processes, side by side
// in one run with PostgreSQL through libpq on the same table:
//   (a) transfers between 100 accounts (BEGIN; read both balances; UPDATE
//       both with the new values as literals; COMMIT) by 1, 2, 4 and 8
//       client processes for a fixed time each, committed transactions per
//       second over all clients;
//   (b) the 99th-percentile time of a one-row SELECT by key from one more
//       process while 4 others run transfers (PostgreSQL's as a prepared
//       statement);
//   (c) transfers by 1 client with durable commits on both sides: tavrind
//       --sync full against PostgreSQL with fsync=on, synchronous_commit=on;
//   (d) the transfers of (a) by 1 and 4 clients through a third tavrind that
//       stores in the fsync=off cluster (--postgres, a database of its own),
//       against PostgreSQL directly.
// Every client is a process of its own (the client library keeps one
// connection per process). The two accounts of a transfer are read in the
// order of their numbers, so PostgreSQL's row locks cannot deadlock; an
// attempt refused by either server is rolled back and repeated, and only
// committed transfers count.
// The benchmark starts two tavrind processes (beside it at ../server/tavrind,
// --sync normal and --sync full) on temporary data folders in namespaces of
// their own and two PostgreSQL clusters as the postgres user (fsync=off, and
// fsync=on with synchronous_commit=on), all with their data on the same
// disk-backed file system, and stops them by their pids at the end. The
// program ends with its TARGET lines.
#include <benchmark/benchmark.h>
#include <libpq-fe.h>

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/msg.h"
#include "db/client/connect.h"
#include "db/client/exec.h"

#include "bench_servers.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int kAccounts = 100;
constexpr int kStart = 1000000;
constexpr double kSeconds = 3.0; // length of each measured load

std::string g_tmp; // our temporary folder (tavrind data and logs)

// One server the clients talk to: a tavrind in its namespace, or a
// PostgreSQL cluster. Empty ns and pginfo: not running.
struct Server {
  bool tavrind = false;
  std::string ns;     // tavrind's namespace
  std::string pginfo; // libpq connection string
  pid_t pid = -1;     // tavrind's pid
  bench_servers::PgCluster pgc;
  bool ready() const { return tavrind ? !ns.empty() : !pginfo.empty(); }
};
// The servers with normal durability, and with durable commits; tavrind on
// the PostgreSQL store (in g_pg's cluster).
Server g_tav, g_pg, g_tav_full, g_pg_full, g_tav_pg;

// Transfers per second by number of clients; p99 and median of the lookups
// under load in microseconds; durable transfers per second of 1 client.
// Negative: not measured.
std::map<int, double> g_tav_tps, g_pg_tps, g_tav_pg_tps;
double g_tav_p99 = -1, g_pg_p99 = -1, g_tav_med = -1, g_pg_med = -1;
double g_tav_full_tps = -1, g_pg_full_tps = -1;

// --- the two systems behind one interface ------------------------------------

// One client's connection in a child process: tavrind through the client
// library or PostgreSQL through libpq.
struct Client {
  DBCONN *tav = nullptr;
  PGconn *pg = nullptr;

  // Runs a statement; true when it succeeded. A query's first value goes to
  // *value (which must then be there).
  bool run(const std::string &sql, std::string *value = nullptr) {
    if (tav) {
      DBRESULT *r = DBexec(tav, sql.c_str());
      int st = DBresult_status(r);
      bool ok = value ? st == DBRES_TUPLES && DBntuples(r) == 1 : st == DBRES_DONE;
      if (ok && value) *value = DBgetvalue(r, 0, 0);
      DBclear(r);
      return ok;
    }
    return pg_answer(PQexec(pg, sql.c_str()), value);
  }

  // The balance of account `key` into *value: on PostgreSQL as the prepared
  // statement "lookup" (see prepare_lookup), on tavrind as a statement.
  bool lookup(int key, std::string *value) {
    if (tav) return run("SELECT BETRAG FROM KONTO WHERE KONTO_ID = " + std::to_string(key), value);
    std::string k = std::to_string(key);
    const char *values[1] = {k.c_str()};
    return pg_answer(PQexecPrepared(pg, "lookup", 1, values, nullptr, nullptr, 0), value);
  }

  bool prepare_lookup() {
    if (tav) return true;
    return pg_answer(
        PQprepare(pg, "lookup", "SELECT BETRAG FROM KONTO WHERE KONTO_ID = $1", 1, nullptr),
        nullptr);
  }

private:
  static bool pg_answer(PGresult *r, std::string *value) {
    ExecStatusType st = PQresultStatus(r);
    bool ok = value ? st == PGRES_TUPLES_OK && PQntuples(r) == 1 : st == PGRES_COMMAND_OK;
    if (ok && value) *value = PQgetvalue(r, 0, 0);
    PQclear(r);
    return ok;
  }
};

// In a forked child: closes every inherited descriptor except `keep`, then
// connects (retrying for a few seconds). Ends the child with status 2 when
// it cannot.
Client child_connect(const Server &srv, const std::vector<int> &keep) {
  for (int fd = 3; fd < 1024; ++fd)
    if (std::find(keep.begin(), keep.end(), fd) == keep.end()) close(fd);
  msg_set_handler([](const char *) {});
  if (srv.tavrind) setenv("TAVRIN_NAMESPACE", srv.ns.c_str(), 1);
  Client c;
  for (int i = 0; i < 100; ++i) {
    if (srv.tavrind) {
      char name[] = "DEMO";
      DBCONN *t = DBconnect(name);
      if (DBstatus(t) == DBCONN_OK) {
        c.tav = t;
        return c;
      }
      DBconn_free(t);
    } else {
      PGconn *p = PQconnectdb(srv.pginfo.c_str());
      if (PQstatus(p) == CONNECTION_OK) {
        c.pg = p;
        return c;
      }
      PQfinish(p);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  _exit(2);
}

void child_finish(Client &c) {
  if (c.tav) DBfinish(c.tav);
  if (c.pg) PQfinish(c.pg);
}

// The account table with kAccounts accounts. Runs in a child for tavrind so
// that this process never holds a connection its children would inherit.
bool create_accounts(Client &c, const char *create) {
  bool ok =
      c.run(create) && c.run("CREATE UNIQUE INDEX KONTO_I ON KONTO (KONTO_ID)") && c.run("BEGIN");
  for (int i = 1; ok && i <= kAccounts; ++i)
    ok = c.run("INSERT INTO KONTO VALUES (" + std::to_string(i) + ", " + std::to_string(kStart) +
               ")");
  return ok && c.run("COMMIT");
}

// One transfer; true when its COMMIT succeeded, else it was rolled back.
bool transfer(Client &c, std::mt19937 &rng) {
  std::uniform_int_distribution<int> account(1, kAccounts), amount(1, 50);
  int a = account(rng), b = account(rng);
  while (b == a) b = account(rng);
  if (a > b) std::swap(a, b);
  int sum = amount(rng);
  const char *lock = c.pg ? " FOR UPDATE" : "";
  auto key = [](int k) { return " WHERE KONTO_ID = " + std::to_string(k); };
  std::string va, vb;
  bool ok = c.run("BEGIN") && c.run("SELECT BETRAG FROM KONTO" + key(a) + lock, &va) &&
            c.run("SELECT BETRAG FROM KONTO" + key(b) + lock, &vb) &&
            c.run("UPDATE KONTO SET BETRAG = " + std::to_string(std::stol(va) - sum) + key(a)) &&
            c.run("UPDATE KONTO SET BETRAG = " + std::to_string(std::stol(vb) + sum) + key(b)) &&
            c.run("COMMIT");
  if (!ok) c.run(c.pg ? "ROLLBACK" : "ABORT");
  return ok;
}

// What a client process does after the start signal for kSeconds.
enum class Work { Transfers, Lookups };

// Starts a client that connects, reports on `out` that it is ready, waits
// until `start` is closed, works for kSeconds and writes its figures to
// `out`: "<committed> <refused transfers>" or "<lookups> <p99 us> <median us>".
pid_t start_client(const Server &srv, Work work, double seconds, int seed, int start, int out) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  Client c = child_connect(srv, {start, out});
  if (work == Work::Lookups && !c.prepare_lookup()) _exit(2);
  char ready = 'r', dummy;
  if (write(out, &ready, 1) != 1 || read(start, &dummy, 1) != 0) _exit(3);
  std::mt19937 rng(unsigned(seed) * 7919u + 17u);
  std::uniform_int_distribution<int> account(1, kAccounts);
  auto end = Clock::now() + std::chrono::duration<double>(seconds);
  long done = 0, refused = 0;
  std::vector<double> us;
  while (Clock::now() < end) {
    if (work == Work::Transfers) {
      (transfer(c, rng) ? done : refused) += 1;
    } else {
      std::string v;
      auto t0 = Clock::now();
      if (!c.lookup(account(rng), &v)) _exit(4);
      us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
  }
  char line[100];
  if (work == Work::Transfers) {
    std::snprintf(line, sizeof line, "%ld %ld\n", done, refused);
  } else {
    std::sort(us.begin(), us.end());
    size_t n = us.size();
    std::snprintf(line, sizeof line, "%zu %.1f %.1f\n", n,
                  n ? us[std::min(n - 1, n * 99 / 100)] : -1.0, n ? us[n / 2] : -1.0);
  }
  bool ok = write(out, line, std::strlen(line)) == ssize_t(std::strlen(line));
  child_finish(c);
  _exit(ok ? 0 : 5);
}

// Reads from fd until end of file or until `deadline`; what came.
std::string read_all(int fd, Clock::time_point deadline) {
  std::string s;
  char buf[256];
  while (Clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    int ms =
        int(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
    if (poll(&p, 1, std::max(ms, 1)) <= 0) break;
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    s.append(buf, size_t(n));
  }
  return s;
}

// Waits for pid at most `limit`, then kills it.
void reap(pid_t pid, std::chrono::milliseconds limit) {
  auto end = Clock::now() + limit;
  int st = 0;
  while (waitpid(pid, &st, WNOHANG) == 0) {
    if (Clock::now() > end) {
      kill(pid, SIGKILL);
      waitpid(pid, &st, 0);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Runs `transfers` transfer clients and, with `lookup`, one lookup client at
// the same time. The sum of committed transfers and the lookup client's
// line; empty figures when a client failed.
struct Outcome {
  long committed = -1, refused = 0;
  std::string lookups;
};

Outcome run_load(const Server &srv, int transfers, bool lookup, double seconds = kSeconds) {
  int start[2];
  if (pipe(start) != 0) return {};
  int total = transfers + (lookup ? 1 : 0);
  std::vector<pid_t> pids;
  std::vector<int> outs;
  for (int i = 0; i < total; ++i) {
    int out[2];
    if (pipe(out) != 0) break;
    Work w = i < transfers ? Work::Transfers : Work::Lookups;
    pid_t pid = start_client(srv, w, seconds, i + 1, start[0], out[1]);
    close(out[1]);
    if (pid < 0) {
      close(out[0]);
      break;
    }
    pids.push_back(pid);
    outs.push_back(out[0]);
  }
  close(start[0]);
  // Every client connected (or gone), then all start at once.
  auto connect_end = Clock::now() + std::chrono::seconds(15);
  int ready = 0;
  for (int fd : outs) {
    pollfd p{fd, POLLIN, 0};
    char c;
    int ms = int(
        std::chrono::duration_cast<std::chrono::milliseconds>(connect_end - Clock::now()).count());
    if (poll(&p, 1, std::max(ms, 1)) > 0 && read(fd, &c, 1) == 1) ++ready;
  }
  close(start[1]);
  Outcome o;
  auto end = Clock::now() + std::chrono::seconds(int(seconds) + 20);
  long sum = 0, refused = 0;
  bool all = ready == total && int(outs.size()) == total;
  for (size_t i = 0; i < outs.size(); ++i) {
    std::string s = read_all(outs[i], end);
    close(outs[i]);
    if (s.empty()) all = false;
    long c = 0, r = 0;
    if (int(i) < transfers && std::sscanf(s.c_str(), "%ld %ld", &c, &r) == 2) {
      sum += c;
      refused += r;
    } else if (int(i) < transfers) {
      all = false;
    } else
      o.lookups = s;
  }
  for (pid_t p : pids) reap(p, std::chrono::seconds(5));
  if (all) o.committed = sum;
  o.refused = refused;
  return o;
}

// --- tavrind ---------------------------------------------------------------

// Starts tavrind with durability `sync` on g_tmp/<name> in a namespace of
// its own (on the PostgreSQL store in database `postgres` when given) and
// makes the account table in DEMO from a child process, so that this process
// never holds a connection its children would inherit. False with a line on
// stderr when it cannot (srv is then not ready).
bool start_tavrind(Server &srv, const std::string &name, bench_servers::Sync sync,
                   const std::string &postgres = "") {
  srv.tavrind = true;
  std::string ns = name + std::to_string(getpid()) + "_";
  srv.pid = bench_servers::spawn_tavrind(g_tmp + "/" + name, g_tmp + "/" + name + ".log", ns, sync,
                                         postgres);
  if (srv.pid <= 0) return false;
  // At most about 30 s: the first start writes the demo data.
  for (int i = 0; i < 300 && !fs::exists("/dev/shm/" + ns + "TavrinDB_Server"); ++i) {
    if (waitpid(srv.pid, nullptr, WNOHANG) == srv.pid) {
      srv.pid = -1;
      std::fprintf(stderr, "tavrind ended at its start\n");
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  srv.ns = ns;
  pid_t pid = fork();
  if (pid == 0) {
    Client c = child_connect(srv, {});
    bool ok = create_accounts(c, "CREATE TABLE KONTO (KONTO_ID INTEGER, BETRAG INTEGER)");
    child_finish(c);
    _exit(ok ? 0 : 1);
  }
  int st = 0;
  if (pid < 0 || waitpid(pid, &st, 0) != pid || !WIFEXITED(st) || WEXITSTATUS(st) != 0) {
    std::fprintf(stderr, "tavrind: the account table could not be made\n");
    srv.ns.clear();
    return false;
  }
  return true;
}

// --- PostgreSQL ------------------------------------------------------------

// Makes a cluster with durability `sync` in a temporary folder owned by
// postgres, starts it on a Unix socket in that folder (no TCP) and makes the
// account table. False with a line on stderr when PostgreSQL cannot be used
// (srv is then not ready).
bool start_postgres(Server &srv, const std::string &tag, bench_servers::Sync sync) {
  if (!srv.pgc.start(tag, sync)) return false;
  Client c;
  c.pg = PQconnectdb(srv.pgc.conninfo().c_str());
  bool ok = PQstatus(c.pg) == CONNECTION_OK &&
            create_accounts(c, "CREATE TABLE KONTO (KONTO_ID INTEGER NOT NULL, BETRAG INTEGER)") &&
            c.run("ANALYZE KONTO");
  if (!ok) std::fprintf(stderr, "libpq: %s", PQerrorMessage(c.pg));
  PQfinish(c.pg);
  if (ok) srv.pginfo = srv.pgc.conninfo();
  return ok;
}

void stop_server(Server &srv) {
  bench_servers::stop_process(srv.pid);
  srv.pgc.stop();
  srv.ns.clear();
  srv.pginfo.clear();
}

// --- measurements ----------------------------------------------------------

void transfers(benchmark::State &state, const Server &srv, std::map<int, double> *tps) {
  if (!srv.ready()) return state.SkipWithError("server not running");
  int clients = int(state.range(0));
  for (auto _ : state) {
    Outcome o = run_load(srv, clients, false);
    if (o.committed < 0) return state.SkipWithError("a client failed");
    (*tps)[clients] = double(o.committed) / kSeconds;
    state.counters["refused_per_s"] = double(o.refused) / kSeconds;
  }
  state.counters["tx_per_s"] = (*tps)[clients];
}

void lookups(benchmark::State &state, const Server &srv, double *p99, double *med) {
  if (!srv.ready()) return state.SkipWithError("server not running");
  for (auto _ : state) {
    Outcome o = run_load(srv, 4, true);
    long n = 0;
    if (o.committed < 0 || std::sscanf(o.lookups.c_str(), "%ld %lf %lf", &n, p99, med) != 3 ||
        n <= 0)
      return state.SkipWithError("a client failed");
    state.counters["tx_per_s"] = double(o.committed) / kSeconds;
    state.counters["lookups"] = double(n);
  }
  state.counters["p99_us"] = *p99;
  state.counters["median_us"] = *med;
}

void durable(benchmark::State &state, const Server &srv, double *tps) {
  std::map<int, double> one;
  transfers(state, srv, &one);
  if (one.count(1)) *tps = one[1];
}

void BM_Transfer_Tavrind(benchmark::State &state) { transfers(state, g_tav, &g_tav_tps); }
void BM_Transfer_PostgreSQL(benchmark::State &state) { transfers(state, g_pg, &g_pg_tps); }
void BM_Transfer_TavrindOnPostgreSQL(benchmark::State &state) {
  transfers(state, g_tav_pg, &g_tav_pg_tps);
}
void BM_LookupUnderLoad_Tavrind(benchmark::State &state) {
  lookups(state, g_tav, &g_tav_p99, &g_tav_med);
}
void BM_LookupUnderLoad_PostgreSQL(benchmark::State &state) {
  lookups(state, g_pg, &g_pg_p99, &g_pg_med);
}
void BM_DurableTransfer_Tavrind(benchmark::State &state) {
  durable(state, g_tav_full, &g_tav_full_tps);
}
void BM_DurableTransfer_PostgreSQL(benchmark::State &state) {
  durable(state, g_pg_full, &g_pg_full_tps);
}

// Each client count on both systems one after the other, so a change of the
// machine's load falls on both alike.
BENCHMARK(BM_Transfer_Tavrind)->Arg(1)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_PostgreSQL)->Arg(1)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_TavrindOnPostgreSQL)->Arg(1)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_Tavrind)->Arg(2)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_PostgreSQL)->Arg(2)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_Tavrind)->Arg(4)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_PostgreSQL)->Arg(4)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_TavrindOnPostgreSQL)->Arg(4)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_Tavrind)->Arg(8)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Transfer_PostgreSQL)->Arg(8)->Iterations(1)->UseRealTime();
BENCHMARK(BM_LookupUnderLoad_Tavrind)->Iterations(1)->UseRealTime();
BENCHMARK(BM_LookupUnderLoad_PostgreSQL)->Iterations(1)->UseRealTime();
BENCHMARK(BM_DurableTransfer_Tavrind)->Arg(1)->Iterations(1)->UseRealTime();
BENCHMARK(BM_DurableTransfer_PostgreSQL)->Arg(1)->Iterations(1)->UseRealTime();

double figure(const std::map<int, double> &m, int k) {
  auto it = m.find(k);
  return it == m.end() ? -1 : it->second;
}

// One TARGET line: `measured` against `limit` (a side not measured: missed).
void target(const std::string &name, double measured, const char *unit, const char *op,
            double limit) {
  if (measured <= 0 || limit <= 0) {
    std::printf("TARGET %s: not measured %s missed\n", name.c_str(), op);
    return;
  }
  bool met = op[0] == '<' ? measured <= limit : measured >= limit;
  std::printf("TARGET %s: %.0f%s %s %.0f%s %s\n", name.c_str(), measured, unit, op, limit, unit,
              met ? "met" : "missed");
}

} // namespace

int main(int argc, char **argv) {
  using bench_servers::Sync;
  benchmark::Initialize(&argc, argv);
  std::string pattern = bench_servers::data_root() + "/zentiq_srvload_XXXXXX";
  std::vector<char> tmpl(pattern.begin(), pattern.end());
  tmpl.push_back('\0');
  if (!mkdtemp(tmpl.data())) return 1;
  g_tmp = tmpl.data();
  std::printf("data of all servers on %s (%s)\n", bench_servers::data_root().c_str(),
              bench_servers::fs_kind(g_tmp).c_str());
  start_tavrind(g_tav, "zqload", Sync::Normal);
  start_tavrind(g_tav_full, "zqloadfull", Sync::Full);
  bool pg = start_postgres(g_pg, "pgload", Sync::Normal);
  pg = start_postgres(g_pg_full, "pgloadfull", Sync::Full) && pg;
  if (!pg) std::printf("PostgreSQL could not be started: tavrind figures only\n");
  if (g_pg.ready()) {
    std::string why, db = g_pg.pgc.new_database(why);
    if (db.empty() || !start_tavrind(g_tav_pg, "zqloadpg", Sync::Normal, db))
      std::printf("tavrind on the PostgreSQL store could not be started %s\n", why.c_str());
  }
  // A short load on each first, so that none is measured cold.
  for (Server *srv : {&g_tav, &g_pg, &g_tav_full, &g_pg_full, &g_tav_pg})
    if (srv->ready()) run_load(*srv, 1, false, 1.0);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  // The tavrind on the PostgreSQL store before the cluster it uses.
  for (Server *srv : {&g_tav_pg, &g_tav, &g_pg, &g_tav_full, &g_pg_full}) stop_server(*srv);
  std::error_code ec;
  fs::remove_all(g_tmp, ec);

  std::printf("transfers per second (%.0f s per figure; tavrind --sync normal, PostgreSQL "
              "fsync=off):\n",
              kSeconds);
  std::printf("%8s %14s %16s %8s\n", "clients", "tavrind tx/s", "PostgreSQL tx/s", "ratio");
  for (int n : {1, 2, 4, 8}) {
    double t = figure(g_tav_tps, n), p = figure(g_pg_tps, n);
    std::printf("%8d %14.0f %16.0f %8.2f\n", n, t, p, t > 0 && p > 0 ? t / p : -1.0);
  }
  std::printf("tavrind on the PostgreSQL store: 1 client %.0f tx/s, 4 clients %.0f tx/s\n",
              figure(g_tav_pg_tps, 1), figure(g_tav_pg_tps, 4));
  std::printf("select by key beside 4 transfer clients: tavrind p99 %.0f us (median %.0f us), "
              "PostgreSQL p99 %.0f us (median %.0f us)\n",
              g_tav_p99, g_tav_med, g_pg_p99, g_pg_med);
  std::printf("durable transfers, 1 client (tavrind --sync full, PostgreSQL fsync=on "
              "synchronous_commit=on): tavrind %.0f tx/s, PostgreSQL %.0f tx/s\n",
              g_tav_full_tps, g_pg_full_tps);
  for (int n : {1, 2, 4, 8})
    target("transfers_" + std::to_string(n) + "_clients_vs_postgresql", figure(g_tav_tps, n),
           " tx/s", ">=", figure(g_pg_tps, n));
  double t1 = figure(g_tav_tps, 1), t8 = figure(g_tav_tps, 8);
  target("transfers_8_vs_1_client", t8, " tx/s", ">=", t1 > 0 ? 0.7 * t1 : -1);
  target("lookup_p99_under_writers_vs_postgresql", g_tav_p99, "us", "<=", g_pg_p99);
  target("durable_transfers_1_client_vs_postgresql", g_tav_full_tps, " tx/s", ">=",
         g_pg_full_tps);
  double p4 = figure(g_pg_tps, 4);
  target("pg_store_transfers_4_clients_vs_postgresql", figure(g_tav_pg_tps, 4), " tx/s", ">=",
         p4 > 0 ? 0.8 * p4 : -1);
  return 0;
}
