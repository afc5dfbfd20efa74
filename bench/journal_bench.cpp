// What the repair journal costs a change, side by side in one run with what
// the change itself costs on a durable server:
//   (a) recording a one-row change in the journal: one entry with the row's
//       six values before and after, appended and synced to disk (what the
//       viewer does before every commit), median microseconds;
//   (b) a one-row INSERT through the client and a tavrind process started
//       with "--sync full" (every commit synced), median microseconds.
// Both write into one temporary folder beside this program (on the build's
// disk, not a memory file system; the program says which file system it
// is). Also printed: the status line appended after the commit (not synced).
// The program ends with its TARGET line.
#include <benchmark/benchmark.h>

#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "db/access/journal.h"
#include "db/client/connect.h"
#include "db/client/exec.h"
#include "db/client/resdata.h"

#include "bench_servers.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int kChanges = 400; // timed changes per side

std::string g_tmp;
DBCONN *g_tav = nullptr;
pid_t g_pid = -1;
std::vector<double> g_journal_us, g_mark_us, g_insert_us;

double median(std::vector<double> v) {
  if (v.empty()) return -1;
  std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
  return v[v.size() / 2];
}

double since_us(Clock::time_point t0) {
  return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

bool start_tavrind() {
  std::string ns = "zqjbench" + std::to_string(getpid()) + "_";
  g_pid = bench_servers::spawn_tavrind(g_tmp + "/data", g_tmp + "/tavrind.log", ns,
                                       bench_servers::Sync::Full);
  if (g_pid <= 0) return false;
  g_tav = bench_servers::connect_tavrind(g_pid, ns);
  if (!g_tav) return false;
  for (const char *sql :
       {"CREATE DATABASE JBENCH",
        "CREATE TABLE BENCH (BENCH_ID INTEGER NOT NULL, NAME CHARACTER(32), MENGE SMALLINT, "
        "BETRAG FLOAT, DATUM DATE, ZEIT TIMESTAMP)",
        "CREATE UNIQUE INDEX BENCH_IX ON BENCH (BENCH_ID)"}) {
    DBRESULT *r = DBexec(g_tav, sql);
    bool ok = DBresult_status(r) == DBRES_DONE;
    if (!ok) std::fprintf(stderr, "%s: %s", sql, DBresult_error(r));
    DBclear(r);
    if (!ok) return false;
  }
  return true;
}

// The entry of a one-row UPDATE of the bench table.
JrnEntry one_row_entry(int i) {
  JrnEntry e;
  e.ns = "zqjbench_";
  e.database = "JBENCH";
  e.table = "BENCH";
  e.key = "BENCH_ID";
  e.columns = {"BENCH_ID", "NAME", "MENGE", "BETRAG", "DATUM", "ZEIT"};
  e.types = {DBFT_INTEGER, DBFT_CHARACTER, DBFT_SMALLINT, DBFT_FLOAT, DBFT_DATE, DBFT_TIMESTAMP};
  JrnRow row = {std::to_string(i),
                "Kunde " + std::to_string(i) + " Musterstadt",
                "17",
                "1234.5",
                "2003-07-12",
                "2003-07-12-10.30.00.000000"};
  e.before = {row};
  row[1] = "Kunde " + std::to_string(i) + " Neustadt";
  e.after = {row};
  return e;
}

void BM_JournalAppendSynced(benchmark::State &state) {
  std::string path = g_tmp + "/journal/JBENCH@bench.jrn";
  int i = 0;
  for (auto _ : state) {
    JrnEntry e = one_row_entry(++i);
    std::string why;
    auto t0 = Clock::now();
    if (!jrn_append(path, &e, &why)) {
      state.SkipWithError(why.c_str());
      break;
    }
    g_journal_us.push_back(since_us(t0));
    t0 = Clock::now();
    jrn_mark(path, e.token, JRN_COMMITTED, &why);
    g_mark_us.push_back(since_us(t0));
  }
}

void BM_InsertTavrindSyncFull(benchmark::State &state) {
  if (!g_tav) {
    state.SkipWithError("tavrind did not start");
    return;
  }
  int i = 0;
  for (auto _ : state) {
    std::string sql = "INSERT INTO BENCH VALUES " + bench_servers::row_values(++i);
    auto t0 = Clock::now();
    DBRESULT *r = DBexec(g_tav, sql.c_str());
    double us = since_us(t0);
    bool ok = DBresult_status(r) == DBRES_DONE;
    DBclear(r);
    if (!ok) {
      state.SkipWithError("INSERT failed");
      break;
    }
    g_insert_us.push_back(us);
  }
}

BENCHMARK(BM_JournalAppendSynced)->Iterations(kChanges)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_InsertTavrindSyncFull)->Iterations(kChanges)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  fs::path self = fs::read_symlink("/proc/self/exe");
  std::string pattern = (self.parent_path() / "journal_bench_XXXXXX").string();
  std::vector<char> tmpl(pattern.begin(), pattern.end());
  tmpl.push_back('\0');
  if (!mkdtemp(tmpl.data())) return 1;
  g_tmp = tmpl.data();
  struct statfs sf {};
  if (statfs(g_tmp.c_str(), &sf) == 0 && sf.f_type == 0x01021994)
    std::printf("warning: %s is on tmpfs: the syncs cost nothing there\n", g_tmp.c_str());
  else
    std::printf("folder %s (file system type 0x%lx)\n", g_tmp.c_str(),
                static_cast<unsigned long>(sf.f_type));
  bool tav = start_tavrind();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (g_tav) {
    DBfinish(g_tav);
    DBconn_free(g_tav);
  }
  bench_servers::stop_process(g_pid);
  std::error_code ec;
  fs::remove_all(g_tmp, ec);

  double journal = median(g_journal_us), mark = median(g_mark_us), insert = median(g_insert_us);
  std::printf("one-row change, median: journal entry synced %.1f us (status line %.1f us), "
              "INSERT through tavrind --sync full %.1f us\n",
              journal, mark, insert);
  if (!tav || journal <= 0 || insert <= 0) {
    std::printf("TARGET journal_append_vs_durable_insert: not measured <= missed\n");
    return 0;
  }
  std::printf("TARGET journal_append_vs_durable_insert: %.1fus <= %.1fus %s\n", journal, insert,
              journal <= insert ? "met" : "missed");
  return 0;
}
