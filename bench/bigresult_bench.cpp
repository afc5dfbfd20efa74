// A big result printed by the command-line clients, side by side in one run:
//   (a) `tavrin sql --format csv "SELECT * FROM BENCH" > /dev/null` against
//       the built tavrind;
//   (b) `psql --csv -c "SELECT * FROM BENCH" > /dev/null` (the psql of the
//       system's PostgreSQL 15 packages) against a temporary cluster;
// both on the same table of 1 000 000 rows x 6 columns (key, name, quantity,
// amount, date, timestamp). Measured per client process: rows per second
// (wall time from start to exit, best of the runs) and peak resident memory
// (wait4's ru_maxrss, highest of the runs). The benchmark starts tavrind
// (../server/tavrind) and the cluster itself and stops both by their pids.
// The program ends with one TARGET line per target.
#include <benchmark/benchmark.h>
#include <libpq-fe.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

constexpr int kRows = 1000000;
constexpr int kRuns = 3; // timed runs per client

// One client's figures over its runs.
struct Figures {
  double best_s = -1;  // shortest wall time
  long max_rss_kb = 0; // highest peak resident memory
  bool failed = false; // a run exited with a status other than 0
};
Figures g_tavrin, g_psql;

pid_t g_tav_pid = -1;
std::string g_tmp;
std::string g_ns;
bench_servers::PgCluster g_pgc;

// The tavrin program beside this benchmark's folder; "" when missing.
std::string tavrin_program() {
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return "";
  fs::path p = self.parent_path() / ".." / "tools" / "tavrin";
  return fs::exists(p) ? fs::canonical(p).string() : "";
}

// Starts tavrind and fills database BENCH through the client library.
bool start_tavrind() {
  g_ns = "zqbigres" + std::to_string(getpid()) + "_";
  g_tav_pid = bench_servers::spawn_tavrind(g_tmp + "/data", g_tmp + "/tavrind.log", g_ns);
  if (g_tav_pid <= 0) return false;
  DBCONN *conn = bench_servers::connect_tavrind(g_tav_pid, g_ns);
  if (!conn) return false;
  auto ok = [conn](const std::string &sql) { return bench_servers::exec_done(conn, sql); };
  bool good =
      ok("CREATE DATABASE BENCH") &&
      ok("CREATE TABLE BENCH (BENCH_ID INTEGER NOT NULL, NAME CHARACTER(32), MENGE SMALLINT, "
         "BETRAG FLOAT, DATUM DATE, ZEIT TIMESTAMP)") &&
      ok("BEGIN");
  for (int i = 1; good && i <= kRows; ++i)
    good = ok("INSERT INTO BENCH VALUES " + bench_servers::row_values(i));
  good = good && ok("COMMIT");
  DBfinish(conn);
  DBconn_free(conn);
  DBcomm_close();
  return good;
}

// Starts the cluster and fills the same table through libpq.
bool start_postgres() {
  if (!g_pgc.start("bigres")) return false;
  PGconn *pg = PQconnectdb(g_pgc.conninfo().c_str());
  auto ok = [pg](const std::string &sql) {
    PGresult *r = PQexec(pg, sql.c_str());
    bool good = PQresultStatus(r) == PGRES_COMMAND_OK;
    if (!good) std::fprintf(stderr, "%.80s: %s", sql.c_str(), PQerrorMessage(pg));
    PQclear(r);
    return good;
  };
  bool good = PQstatus(pg) == CONNECTION_OK &&
              ok("CREATE TABLE BENCH (BENCH_ID INTEGER NOT NULL, NAME VARCHAR(31), "
                 "MENGE SMALLINT, BETRAG DOUBLE PRECISION, DATUM DATE, ZEIT TIMESTAMP)") &&
              ok("BEGIN");
  for (int i = 1; good && i <= kRows; i += 1000) {
    std::string sql = "INSERT INTO BENCH VALUES ";
    for (int k = i; k < i + 1000 && k <= kRows; ++k)
      sql += (k > i ? "," : "") + bench_servers::row_values(k);
    good = ok(sql);
  }
  good = good && ok("COMMIT") && ok("VACUUM ANALYZE BENCH");
  if (PQstatus(pg) != CONNECTION_OK) std::fprintf(stderr, "libpq: %s", PQerrorMessage(pg));
  PQfinish(pg);
  return good;
}

// Runs a client with its output to `out`; adds its wall time and peak
// resident memory to `f`.
void run_client(const std::vector<std::string> &args, const std::string &out, Figures &f) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<std::string> a = args;
  std::vector<char *> argv;
  for (auto &s : a) argv.push_back(s.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  Clock::time_point t0 = Clock::now();
  if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  int status = 0;
  struct rusage ru {};
  if (pid <= 0 || wait4(pid, &status, 0, &ru) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    f.failed = true;
    return;
  }
  double s = std::chrono::duration<double>(Clock::now() - t0).count();
  if (f.best_s < 0 || s < f.best_s) f.best_s = s;
  f.max_rss_kb = std::max(f.max_rss_kb, ru.ru_maxrss);
}

std::vector<std::string> tavrin_args() {
  return {tavrin_program(), "sql", "-dbbench", "--format", "csv", "SELECT * FROM BENCH"};
}

std::vector<std::string> psql_args() {
  return {std::string(bench_servers::kPgBin) + "/psql",
          "-X",
          "-q",
          "-h",
          g_pgc.dir(),
          "-p",
          "5432",
          "-U",
          "postgres",
          "-d",
          "postgres",
          "--csv",
          "-c",
          "SELECT * FROM BENCH"};
}

// Lines a client writes for the table, to see that it printed every row.
long lines_of(const std::vector<std::string> &args) {
  std::string file = g_tmp + "/lines.csv";
  Figures ignored;
  run_client(args, file, ignored);
  if (ignored.failed) return -1;
  std::ifstream in(file, std::ios::binary);
  long n = 0;
  for (std::string line; std::getline(in, line);) ++n;
  fs::remove(file);
  return n;
}

void time_client(benchmark::State &state, std::vector<std::string> (*args)(), Figures &f) {
  for (auto _ : state) {
    Figures one;
    run_client(args(), "/dev/null", one);
    if (one.failed) {
      f.failed = true;
      state.SkipWithError("the client failed");
      return;
    }
    state.SetIterationTime(one.best_s);
    if (f.best_s < 0 || one.best_s < f.best_s) f.best_s = one.best_s;
    f.max_rss_kb = std::max(f.max_rss_kb, one.max_rss_kb);
    state.counters["rows_per_s"] = kRows / one.best_s;
    state.counters["rss_MB"] = one.max_rss_kb / 1024.0;
  }
}

void BM_TavrinCsv(benchmark::State &state) {
  if (g_tav_pid <= 0) return state.SkipWithError("tavrind not running");
  time_client(state, tavrin_args, g_tavrin);
}

void BM_PsqlCsv(benchmark::State &state) {
  if (g_pgc.dir().empty()) return state.SkipWithError("PostgreSQL not running");
  time_client(state, psql_args, g_psql);
}

// The two clients alternate, so that a busy moment of the machine does not
// fall on one of them only.
void register_runs() {
  for (int i = 0; i < kRuns; ++i) {
    benchmark::RegisterBenchmark("tavrin_csv", BM_TavrinCsv)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("psql_csv", BM_PsqlCsv)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
}

} // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  char tmpl[] = "/tmp/zentiq_bigres_XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  g_tmp = tmpl;
  unsetenv("DBSYS");
  Clock::time_point t0 = Clock::now();
  bool tav = !tavrin_program().empty() && start_tavrind();
  bool pg = start_postgres();
  std::printf("filled in %.0f s: tavrind %s, PostgreSQL %s\n",
              std::chrono::duration<double>(Clock::now() - t0).count(), tav ? "yes" : "no",
              pg ? "yes" : "no");
  if (!tav) bench_servers::stop_process(g_tav_pid);
  if (!pg) g_pgc.stop();
  long tav_lines = tav ? lines_of(tavrin_args()) : -1;
  long pg_lines = pg ? lines_of(psql_args()) : -1;
  std::printf("lines written: tavrin %ld, psql %ld (header and %d rows: %d)\n", tav_lines, pg_lines,
              kRows, kRows + 1);
  register_runs();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  bench_servers::stop_process(g_tav_pid);
  g_pgc.stop();
  std::error_code ec;
  fs::remove_all(g_tmp, ec);

  bool both = tav && pg && !g_tavrin.failed && !g_psql.failed && g_tavrin.best_s > 0 &&
              g_psql.best_s > 0 && tav_lines == kRows + 1;
  if (!both) {
    std::printf("TARGET tavrin_csv_vs_psql_rows_per_s: not measured >= 1.00 missed\n");
    std::printf("TARGET tavrin_csv_rss_vs_psql: not measured <= 0.50 missed\n");
    return 0;
  }
  double tav_rate = kRows / g_tavrin.best_s, pg_rate = kRows / g_psql.best_s;
  std::printf("tavrin: %.0f rows/s, peak %.1f MB; psql: %.0f rows/s, peak %.1f MB\n", tav_rate,
              g_tavrin.max_rss_kb / 1024.0, pg_rate, g_psql.max_rss_kb / 1024.0);
  double speed = tav_rate / pg_rate;
  double rss = double(g_tavrin.max_rss_kb) / double(g_psql.max_rss_kb);
  std::printf("TARGET tavrin_csv_vs_psql_rows_per_s: %.2f >= 1.00 %s\n", speed,
              speed >= 1.0 ? "met" : "missed");
  std::printf("TARGET tavrin_csv_rss_vs_psql: %.2f <= 0.50 %s\n", rss,
              rss <= 0.5 ? "met" : "missed");
  return 0;
}
