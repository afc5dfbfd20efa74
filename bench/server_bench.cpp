// Speed of the tavrind server through the real client, side by side in one
// run with PostgreSQL through libpq and with SQLite in-process (the floor):
//   (a) a SELECT of one row by key through DBexec and a tavrind process,
//       median microseconds;
//   (b) the same query on the same data through libpq against a temporary
//       PostgreSQL cluster on a Unix socket, as a prepared statement
//       (PQprepare once, PQexecPrepared with the key for every lookup);
//   (c) the same query on SQLite in this process, prepared once and bound,
//       stepped and reset for every lookup;
//   (d) a SELECT of 100 000 rows x 6 columns into the client's memory, rows
//       per second through tavrind and through libpq;
//   (e) the lookup of (a) through a second tavrind that stores in the same
//       PostgreSQL cluster (--postgres, a database of its own) and the one
//       of (b), in turns with the same keys, so that both see the same load.
// The benchmark starts tavrind (beside it at ../server/tavrind, --sync
// normal) and a PostgreSQL cluster (fsync=off: the same durability) as the
// postgres user, both with their data in temporary folders on the same
// disk-backed file system, and stops both by their pids at the end. Without
// PostgreSQL only the tavrind and SQLite figures are printed. The client
// library keeps one connection per process, so (e) runs last, after the
// client has left the first tavrind. The program ends with one TARGET line
// per target.
#include <benchmark/benchmark.h>
#include <libpq-fe.h>
#include <sqlite3.h>

#include <fcntl.h>
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
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/msg.h"
#include "db/client/connect.h"
#include "db/client/exec.h"
#include "db/client/transport.h"

#include "bench_servers.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int kRows = 100000;  // rows of the bench table
constexpr int kLookups = 5000; // timed one-row queries per system
constexpr int kScans = 7;      // timed full scans per system (median)

// Figures for the TARGET lines; negative: not measured.
struct Results {
  double tav_us = -1, pg_us = -1, lite_us = -1;
  double tavpg_us = -1, pg_beside_us = -1; // (e): the PostgreSQL store and libpq in turns
  double tav_rows = -1, pg_rows = -1;
} g_res;

DBCONN *g_tav = nullptr;
PGconn *g_pg = nullptr;
sqlite3 *g_lite = nullptr;
pid_t g_tav_pid = -1;
pid_t g_tavpg_pid = -1;         // the tavrind on the PostgreSQL store
std::string g_tavpg_ns;         // its namespace
std::string g_tmp;              // our temporary folder (tavrind data, SQLite file)
bench_servers::PgCluster g_pgc; // the temporary PostgreSQL cluster

constexpr const char *kLookupPrepared = "SELECT * FROM BENCH WHERE BENCH_ID = $1";

std::string lookup_sql(int key) {
  return "SELECT * FROM BENCH WHERE BENCH_ID = " + std::to_string(key);
}

double median(std::vector<double> v) {
  std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
  return v[v.size() / 2];
}

// Creates the bench table by create_table with its unique index and fills it
// with kRows rows in one transaction, each statement run by ok (true when it
// succeeded). The same rows go into every system that is compared.
template <class Exec> bool fill_bench(Exec ok, const char *create_table) {
  if (!ok(create_table) || !ok("CREATE UNIQUE INDEX BENCH_IX ON BENCH (BENCH_ID)") ||
      !ok("BEGIN"))
    return false;
  for (int i = 1; i <= kRows; ++i)
    if (!ok("INSERT INTO BENCH VALUES " + bench_servers::row_values(i))) return false;
  return ok("COMMIT");
}

// --- tavrind ---------------------------------------------------------------

// Makes the database BENCH with the bench table through `conn` (which is
// left on BENCH). False with a line on stderr when a statement failed.
bool fill_tavrind(DBCONN *conn) {
  auto ok = [conn](const std::string &sql) { return bench_servers::exec_done(conn, sql); };
  return ok("CREATE DATABASE BENCH") &&
         fill_bench(ok, "CREATE TABLE BENCH (BENCH_ID INTEGER NOT NULL, NAME CHARACTER(32), "
                        "MENGE SMALLINT, BETRAG FLOAT, DATUM DATE, ZEIT TIMESTAMP)");
}

// Starts tavrind on g_tmp/data in a namespace of its own and connects to a
// fresh database BENCH filled with the bench table. Returns false with a
// line on stderr when it cannot.
bool start_tavrind() {
  std::string ns = "zqbench" + std::to_string(getpid()) + "_";
  g_tav_pid = bench_servers::spawn_tavrind(g_tmp + "/data", g_tmp + "/tavrind.log", ns);
  if (g_tav_pid <= 0) return false;
  g_tav = bench_servers::connect_tavrind(g_tav_pid, ns);
  return g_tav && fill_tavrind(g_tav);
}

// Starts a second tavrind on the PostgreSQL store, in a new database of the
// running cluster, and fills its BENCH; the connection is closed again (the
// lookups connect anew). False with a line on stderr when it cannot.
bool start_tavrind_pg() {
  std::string why, db = g_pgc.new_database(why);
  if (db.empty()) {
    std::fprintf(stderr, "no database for tavrind: %s", why.c_str());
    return false;
  }
  g_tavpg_ns = "zqbenchpg" + std::to_string(getpid()) + "_";
  g_tavpg_pid = bench_servers::spawn_tavrind(g_tmp + "/datapg", g_tmp + "/tavrind_pg.log",
                                             g_tavpg_ns, bench_servers::Sync::Normal, db);
  if (g_tavpg_pid <= 0) return false;
  DBCONN *conn = bench_servers::connect_tavrind(g_tavpg_pid, g_tavpg_ns);
  bool ok = conn && fill_tavrind(conn);
  if (conn) {
    DBfinish(conn);
    DBconn_free(conn);
  }
  DBcomm_close();
  return ok;
}

void stop_tavrind() {
  if (g_tav) {
    DBfinish(g_tav);
    DBconn_free(g_tav);
    g_tav = nullptr;
  }
  bench_servers::stop_process(g_tav_pid);
  bench_servers::stop_process(g_tavpg_pid);
}

// --- PostgreSQL ------------------------------------------------------------

// Makes a cluster in a temporary folder owned by postgres, starts it on a
// Unix socket in that folder (no TCP) and fills the same table. Returns
// false with a line on stderr when PostgreSQL cannot be used.
bool start_postgres() {
  if (!g_pgc.start("pgbench")) return false;
  std::string info = g_pgc.conninfo();
  g_pg = PQconnectdb(info.c_str());
  if (PQstatus(g_pg) != CONNECTION_OK) {
    std::fprintf(stderr, "libpq: %s", PQerrorMessage(g_pg));
    return false;
  }
  auto ok = [](const std::string &sql) {
    PGresult *r = PQexec(g_pg, sql.c_str());
    bool good = PQresultStatus(r) == PGRES_COMMAND_OK;
    if (!good) std::fprintf(stderr, "%.80s: %s", sql.c_str(), PQerrorMessage(g_pg));
    PQclear(r);
    return good;
  };
  if (!ok("CREATE TABLE BENCH (BENCH_ID INTEGER NOT NULL, NAME VARCHAR(31), MENGE SMALLINT, "
          "BETRAG DOUBLE PRECISION, DATUM DATE, ZEIT TIMESTAMP)") ||
      !ok("CREATE UNIQUE INDEX BENCH_IX ON BENCH (BENCH_ID)") || !ok("BEGIN"))
    return false;
  for (int i = 1; i <= kRows; i += 1000) {
    std::string sql = "INSERT INTO BENCH VALUES ";
    for (int k = i; k < i + 1000 && k <= kRows; ++k) {
      if (k > i) sql += ',';
      sql += bench_servers::row_values(k);
    }
    if (!ok(sql)) return false;
  }
  if (!ok("COMMIT") || !ok("ANALYZE BENCH")) return false;
  PGresult *r = PQprepare(g_pg, "lookup", kLookupPrepared, 1, nullptr);
  bool good = PQresultStatus(r) == PGRES_COMMAND_OK;
  if (!good) std::fprintf(stderr, "PQprepare: %s", PQerrorMessage(g_pg));
  PQclear(r);
  return good;
}

void stop_postgres() {
  if (g_pg) PQfinish(g_pg);
  g_pg = nullptr;
  g_pgc.stop();
}

// --- SQLite ----------------------------------------------------------------

sqlite3_stmt *g_lite_lookup = nullptr; // the prepared one-row lookup

bool start_sqlite() {
  if (sqlite3_open((g_tmp + "/bench.sqlite").c_str(), &g_lite) != SQLITE_OK) return false;
  auto ok = [](const std::string &sql) {
    return sqlite3_exec(g_lite, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  };
  return ok("PRAGMA journal_mode=WAL") &&
         fill_bench(ok, "CREATE TABLE BENCH (BENCH_ID INTEGER NOT NULL, NAME TEXT, "
                        "MENGE INTEGER, BETRAG REAL, DATUM TEXT, ZEIT TEXT)") &&
         sqlite3_prepare_v2(g_lite, "SELECT * FROM BENCH WHERE BENCH_ID = ?", -1, &g_lite_lookup,
                            nullptr) == SQLITE_OK;
}

// --- measurements ----------------------------------------------------------

// Times kLookups one-row queries with keys spread over the table; `query`
// returns false when an answer is not the one row. Sets the median in *out.
template <class F> void time_lookups(benchmark::State &state, F query, double *out) {
  std::mt19937 rng(11);
  std::vector<double> us(kLookups);
  for (auto _ : state) {
    for (int i = 0; i < 500; ++i) query(1 + int(rng() % kRows)); // warm up
    for (int i = 0; i < kLookups; ++i) {
      int key = 1 + int(rng() % kRows);
      auto t0 = Clock::now();
      if (!query(key)) {
        state.SkipWithError("wrong answer");
        return;
      }
      us[size_t(i)] = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    }
  }
  *out = median(us);
  state.counters["median_us"] = *out;
}

void BM_SelectByKey_Tavrind(benchmark::State &state) {
  if (!g_tav) return state.SkipWithError("tavrind not running");
  time_lookups(
      state,
      [](int key) {
        DBRESULT *r = DBexec(g_tav, lookup_sql(key).c_str());
        bool good = DBntuples(r) == 1 && DBnfields(r) == 6;
        DBclear(r);
        return good;
      },
      &g_res.tav_us);
}

void BM_SelectByKey_PostgreSQL(benchmark::State &state) {
  if (!g_pg) return state.SkipWithError("PostgreSQL not running");
  time_lookups(
      state,
      [](int key) {
        std::string k = std::to_string(key);
        const char *values[1] = {k.c_str()};
        PGresult *r = PQexecPrepared(g_pg, "lookup", 1, values, nullptr, nullptr, 0);
        bool good = PQntuples(r) == 1 && PQnfields(r) == 6;
        PQclear(r);
        return good;
      },
      &g_res.pg_us);
}

void BM_SelectByKey_SQLite(benchmark::State &state) {
  if (!g_lite_lookup) return state.SkipWithError("SQLite not ready");
  time_lookups(
      state,
      [](int key) {
        sqlite3_stmt *st = g_lite_lookup;
        sqlite3_bind_int(st, 1, key);
        int rows = 0;
        while (sqlite3_step(st) == SQLITE_ROW) {
          for (int c = 0; c < 6; ++c) benchmark::DoNotOptimize(sqlite3_column_text(st, c));
          ++rows;
        }
        sqlite3_reset(st);
        return rows == 1;
      },
      &g_res.lite_us);
}

// Times kScans full scans into client memory; sets the median rate.
template <class F> void time_scans(benchmark::State &state, F scan, double *rows_per_s) {
  std::vector<double> rate;
  for (auto _ : state) {
    auto t0 = Clock::now();
    int rows = scan();
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    if (rows != kRows) {
      state.SkipWithError("wrong row count");
      return;
    }
    rate.push_back(rows / s);
  }
  *rows_per_s = median(rate);
  state.counters["rows_per_s"] = *rows_per_s;
}

// CPU time of a process so far in milliseconds, as the scheduler counts it;
// negative when unknown.
double cpu_ms_of(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/schedstat");
  double ns = -1e6;
  f >> ns;
  return ns / 1e6;
}

void BM_Select100k_Tavrind(benchmark::State &state) {
  if (!g_tav) return state.SkipWithError("tavrind not running");
  double cpu0 = cpu_ms_of(g_tav_pid);
  time_scans(
      state,
      [] {
        DBRESULT *r = DBexec(g_tav, "SELECT * FROM BENCH");
        int n = DBnfields(r) == 6 ? DBntuples(r) : -1;
        DBclear(r);
        return n;
      },
      &g_res.tav_rows);
  // How much of a scan the server spends (the rest is transport and client).
  state.counters["server_cpu_ms"] = (cpu_ms_of(g_tav_pid) - cpu0) / kScans;
}

void BM_Select100k_PostgreSQL(benchmark::State &state) {
  if (!g_pg) return state.SkipWithError("PostgreSQL not running");
  time_scans(
      state,
      [] {
        PGresult *r = PQexec(g_pg, "SELECT * FROM BENCH");
        int n = PQnfields(r) == 6 ? PQntuples(r) : -1;
        PQclear(r);
        return n;
      },
      &g_res.pg_rows);
}

// Leaves the first tavrind and measures (a) on the one on the PostgreSQL
// store; last, since the first one is not served afterwards.
void BM_SelectByKey_TavrindOnPostgreSQL(benchmark::State &state) {
  if (g_tavpg_pid <= 0) return state.SkipWithError("tavrind on PostgreSQL not running");
  if (g_tav) {
    DBfinish(g_tav);
    DBconn_free(g_tav);
    g_tav = nullptr;
  }
  DBcomm_close();
  setenv("TAVRIN_NAMESPACE", g_tavpg_ns.c_str(), 1);
  DBCONN *conn = bench_servers::connect_tavrind(g_tavpg_pid, g_tavpg_ns);
  if (!conn) return state.SkipWithError("tavrind on PostgreSQL did not answer");
  if (!g_pg || !bench_servers::exec_done(conn, "SET DATABASE BENCH")) {
    state.SkipWithError("no database BENCH or no PostgreSQL");
  } else {
    auto tav = [conn](int key) {
      DBRESULT *r = DBexec(conn, lookup_sql(key).c_str());
      bool good = DBntuples(r) == 1 && DBnfields(r) == 6;
      DBclear(r);
      return good;
    };
    auto pg = [](int key) {
      std::string k = std::to_string(key);
      const char *values[1] = {k.c_str()};
      PGresult *r = PQexecPrepared(g_pg, "lookup", 1, values, nullptr, nullptr, 0);
      bool good = PQntuples(r) == 1 && PQnfields(r) == 6;
      PQclear(r);
      return good;
    };
    std::mt19937 rng(13);
    std::vector<double> tav_us(kLookups), pg_us(kLookups);
    bool good = true;
    for (auto _ : state) {
      for (int i = 0; i < 500; ++i) tav(1 + int(rng() % kRows)), pg(1 + int(rng() % kRows));
      for (int i = 0; i < kLookups && good; ++i) {
        int key = 1 + int(rng() % kRows);
        auto t0 = Clock::now();
        good = tav(key);
        auto t1 = Clock::now();
        good = pg(key) && good;
        auto t2 = Clock::now();
        tav_us[size_t(i)] = std::chrono::duration<double, std::micro>(t1 - t0).count();
        pg_us[size_t(i)] = std::chrono::duration<double, std::micro>(t2 - t1).count();
      }
    }
    if (good) {
      g_res.tavpg_us = median(tav_us);
      g_res.pg_beside_us = median(pg_us);
      state.counters["median_us"] = g_res.tavpg_us;
      state.counters["libpq_median_us"] = g_res.pg_beside_us;
    } else {
      state.SkipWithError("wrong answer");
    }
  }
  DBfinish(conn);
  DBconn_free(conn);
}

BENCHMARK(BM_SelectByKey_Tavrind)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SelectByKey_PostgreSQL)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SelectByKey_SQLite)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Select100k_Tavrind)->Iterations(kScans)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Select100k_PostgreSQL)->Iterations(kScans)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SelectByKey_TavrindOnPostgreSQL)->Iterations(1)->Unit(benchmark::kMillisecond);

// One TARGET line; a target whose sides were not both measured (filtered
// out, or a system that did not start) is reported as missed.
void target(const char *name, double measured, const char *unit, const char *op, double limit,
            bool met) {
  if (measured <= 0 || limit <= 0) {
    std::printf("TARGET %s: not measured %s missed\n", name, op);
    return;
  }
  std::printf("TARGET %s: %.2f%s %s %.2f%s %s\n", name, measured, unit, op, limit, unit,
              met ? "met" : "missed");
}

} // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  std::string pattern = bench_servers::data_root() + "/zentiq_srvbench_XXXXXX";
  std::vector<char> tmpl(pattern.begin(), pattern.end());
  tmpl.push_back('\0');
  if (!mkdtemp(tmpl.data())) return 1;
  g_tmp = tmpl.data();
  std::printf("data of both servers on %s (%s); tavrind --sync normal, PostgreSQL fsync=off\n",
              bench_servers::data_root().c_str(), bench_servers::fs_kind(g_tmp).c_str());
  // The tavrind on the PostgreSQL store is filled first: the client keeps
  // one connection per process, then the one to the first tavrind.
  bool pg = start_postgres();
  bool tavpg = pg && start_tavrind_pg();
  bool tav = start_tavrind();
  if (!pg) std::printf("PostgreSQL could not be started: tavrind and SQLite figures only\n");
  if (pg && !tavpg) std::printf("tavrind on the PostgreSQL store could not be started\n");
  start_sqlite();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  stop_tavrind();
  stop_postgres();
  sqlite3_finalize(g_lite_lookup);
  if (g_lite) sqlite3_close(g_lite);
  std::error_code ec;
  fs::remove_all(g_tmp, ec);

  auto ratio = [](double a, double b) { return a > 0 && b > 0 ? a / b : -1.0; };
  std::printf("select by key, median: tavrind %.1f us, PostgreSQL prepared %.1f us (%.2fx), "
              "SQLite prepared in-process %.1f us (%.2fx)\n",
              g_res.tav_us, g_res.pg_us, ratio(g_res.tav_us, g_res.pg_us), g_res.lite_us,
              ratio(g_res.tav_us, g_res.lite_us));
  std::printf("select by key in turns, median: tavrind on PostgreSQL %.1f us, PostgreSQL "
              "prepared %.1f us (%.2fx)\n",
              g_res.tavpg_us, g_res.pg_beside_us, ratio(g_res.tavpg_us, g_res.pg_beside_us));
  std::printf("select 100000 rows x 6: tavrind %.0f rows/s, PostgreSQL %.0f rows/s (%.2fx)\n",
              g_res.tav_rows, g_res.pg_rows, ratio(g_res.tav_rows, g_res.pg_rows));
  if (!tav) std::printf("tavrind could not be started: no targets measured\n");
  if (tav && pg) {
    target("select_by_key_vs_postgresql", g_res.tav_us, "us", "<=", 0.5 * g_res.pg_us,
           g_res.tav_us > 0 && g_res.tav_us <= 0.5 * g_res.pg_us);
    target("select_100k_rows_vs_postgresql", g_res.tav_rows / 1e6, "Mrows/s", ">=",
           1.5 * g_res.pg_rows / 1e6, g_res.tav_rows > 0 && g_res.tav_rows >= 1.5 * g_res.pg_rows);
  }
  if (pg)
    target("pg_store_select_by_key_overhead", g_res.tavpg_us, "us", "<=", 1.2 * g_res.pg_beside_us,
           g_res.tavpg_us > 0 && g_res.tavpg_us <= 1.2 * g_res.pg_beside_us);
  if (tav)
    target("select_by_key_vs_sqlite_prepared", g_res.tav_us, "us", "<=", 3 * g_res.lite_us,
           g_res.tav_us > 0 && g_res.tav_us <= 3 * g_res.lite_us);
  return 0;
}
