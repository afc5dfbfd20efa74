// Speed of the shared-memory transport, measured side by side with its
// natural rivals in one run:
//   (a) round trip of a 16-byte request and a 16-byte answer through the
//       transport to a server process (median and 99th percentile);
//   (b) the same over a Unix-domain socket pair between two processes;
//   (c) one 64 MiB answer through the transport, against memcpy of the same
//       size (each the best of nine runs: on a shared machine other work only
//       ever adds time; the medians are printed too);
//   (d) the CPU time of a server while one connected client sits idle.
// The program ends with one TARGET line per target.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/msg.h"
#include "db/client/connect.h"
#include "db/client/reqbuf.h"
#include "db/client/transport.h"
#include "server/protocol.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kExchanges = 100000;
constexpr size_t kBig = 64u << 20;

// Results for the TARGET lines; negative: not measured.
struct Results {
  double shm_median_us = -1, shm_p99_us = -1;
  double sock_median_us = -1, sock_p99_us = -1;
  double shm_mbps = -1, memcpy_mbps = -1; // best of the runs
  double shm_mbps_median = -1, memcpy_mbps_median = -1;
  double idle_cpu_percent = -1;
} g_res;

// The bench server: '1' opens, 'E' echoes, 'B' answers the 64 MiB block.
class BenchHandler : public tavrind::RequestHandler {
public:
  BenchHandler() : big_(kBig) {
    for (size_t i = 0; i < kBig; ++i) big_[i] = static_cast<unsigned char>(i * 131 >> 3);
  }
  void request(tavrind::ProtocolServer &srv, int ch, tavrind::ChannelContext *,
               const unsigned char *d, size_t n) override {
    if (n == 0) return;
    if (d[0] == 'B')
      srv.answer(ch, big_.data(), big_.size());
    else if (d[0] == 'E')
      srv.answer(ch, d, n);
    else if (d[0] != '2' && d[0] != 'W')
      srv.answer(ch, "1", 1);
  }

private:
  std::vector<unsigned char> big_;
};

tavrind::ProtocolServer *g_srv = nullptr;
pid_t g_server_pid = -1;
DBCONN *g_conn = nullptr;

bool start_server() {
  int fd[2];
  if (pipe(fd) != 0) return false;
  g_server_pid = fork();
  if (g_server_pid == 0) {
    close(fd[0]);
    BenchHandler h;
    tavrind::ProtocolServer srv(h);
    if (!srv.start()) _exit(1);
    g_srv = &srv;
    signal(SIGTERM, [](int) { g_srv->request_stop(); });
    (void)!write(fd[1], "x", 1);
    srv.run();
    srv.shutdown();
    _exit(0);
  }
  close(fd[1]);
  char c;
  bool ok = read(fd[0], &c, 1) == 1;
  close(fd[0]);
  return ok;
}

void stop_server() {
  if (g_server_pid <= 0) return;
  kill(g_server_pid, SIGTERM);
  waitpid(g_server_pid, nullptr, 0);
  g_server_pid = -1;
}

// CPU time of a process so far, in nanoseconds (run time of its threads as
// the scheduler counts it).
double cpu_ns_of(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/schedstat");
  double run = -1;
  f >> run;
  return run;
}

double percentile(std::vector<double> &v, double p) {
  size_t k = static_cast<size_t>(p * double(v.size() - 1));
  std::nth_element(v.begin(), v.begin() + long(k), v.end());
  return v[k];
}

bool shm_exchange(const unsigned char *req, unsigned char *ans) {
  DBreq_reset();
  DBreq_bytes(req, 16);
  int len = 0;
  return DBsend(g_conn) && DBrecv(g_conn, ans, 10000, &len, nullptr, nullptr) && len == 16;
}

void BM_RoundTrip16_SharedMemory(benchmark::State &state) {
  unsigned char req[16] = {'E', 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  unsigned char ans[10000];
  std::vector<double> us(kExchanges);
  for (auto _ : state) {
    for (int i = 0; i < 2000; ++i) shm_exchange(req, ans); // warm up
    for (int i = 0; i < kExchanges; ++i) {
      req[1] = static_cast<unsigned char>(i);
      auto t0 = Clock::now();
      if (!shm_exchange(req, ans) || ans[1] != req[1]) {
        state.SkipWithError("exchange failed");
        return;
      }
      us[size_t(i)] = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    }
  }
  g_res.shm_median_us = percentile(us, 0.5);
  g_res.shm_p99_us = percentile(us, 0.99);
  state.counters["median_us"] = g_res.shm_median_us;
  state.counters["p99_us"] = g_res.shm_p99_us;
}

bool full_io(int fd, unsigned char *p, size_t n, bool writing) {
  while (n > 0) {
    ssize_t r = writing ? write(fd, p, n) : read(fd, p, n);
    if (r <= 0) return false;
    p += r;
    n -= size_t(r);
  }
  return true;
}

void BM_RoundTrip16_UnixSocket(benchmark::State &state) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  pid_t echo = fork();
  if (echo == 0) {
    close(sv[0]);
    unsigned char b[16];
    while (full_io(sv[1], b, 16, false) && full_io(sv[1], b, 16, true)) {
    }
    _exit(0);
  }
  close(sv[1]);
  unsigned char req[16] = {'E'}, ans[16];
  std::vector<double> us(kExchanges);
  for (auto _ : state) {
    for (int i = 0; i < 2000; ++i) full_io(sv[0], req, 16, true), full_io(sv[0], ans, 16, false);
    for (int i = 0; i < kExchanges; ++i) {
      req[1] = static_cast<unsigned char>(i);
      auto t0 = Clock::now();
      if (!full_io(sv[0], req, 16, true) || !full_io(sv[0], ans, 16, false) || ans[1] != req[1]) {
        state.SkipWithError("socket exchange failed");
        break;
      }
      us[size_t(i)] = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    }
  }
  close(sv[0]);
  waitpid(echo, nullptr, 0);
  g_res.sock_median_us = percentile(us, 0.5);
  g_res.sock_p99_us = percentile(us, 0.99);
  state.counters["median_us"] = g_res.sock_median_us;
  state.counters["p99_us"] = g_res.sock_p99_us;
}

void BM_Answer64MiB_SharedMemory(benchmark::State &state) {
  std::vector<double> mbps;
  for (auto _ : state) {
    auto t0 = Clock::now();
    DBreq_reset();
    DBreq_byte('B');
    unsigned char buf[10000];
    unsigned char *big = nullptr;
    int big_len = 0, len = 0;
    if (!DBsend(g_conn) || !DBrecv(g_conn, buf, sizeof buf, &len, &big, &big_len) ||
        size_t(len) != kBig) {
      state.SkipWithError("64 MiB answer failed");
      return;
    }
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    mbps.push_back(double(kBig) / s / 1e6);
    bool ok = big[12345] == static_cast<unsigned char>(12345 * 131 >> 3);
    std::free(big);
    if (!ok) {
      state.SkipWithError("64 MiB answer corrupt");
      return;
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBig));
  g_res.shm_mbps = *std::max_element(mbps.begin(), mbps.end());
  g_res.shm_mbps_median = percentile(mbps, 0.5);
  state.counters["best_MBps"] = g_res.shm_mbps;
  state.counters["median_MBps"] = g_res.shm_mbps_median;
}

void BM_Memcpy64MiB(benchmark::State &state) {
  std::vector<unsigned char> src(kBig, 1), dst(kBig, 2);
  std::vector<double> mbps;
  for (auto _ : state) {
    auto t0 = Clock::now();
    std::memcpy(dst.data(), src.data(), kBig);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    mbps.push_back(double(kBig) / s / 1e6);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBig));
  g_res.memcpy_mbps = *std::max_element(mbps.begin(), mbps.end());
  g_res.memcpy_mbps_median = percentile(mbps, 0.5);
  state.counters["best_MBps"] = g_res.memcpy_mbps;
  state.counters["median_MBps"] = g_res.memcpy_mbps_median;
}

void BM_ServerIdleCpu10s(benchmark::State &state) {
  for (auto _ : state) {
    double before = cpu_ns_of(g_server_pid);
    auto t0 = Clock::now();
    sleep(10); // the connected client does nothing
    double wall = std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
    double after = cpu_ns_of(g_server_pid);
    if (before < 0 || after < 0) {
      state.SkipWithError("no /proc schedstat");
      return;
    }
    g_res.idle_cpu_percent = (after - before) / wall * 100.0;
  }
  state.counters["server_cpu_percent"] = g_res.idle_cpu_percent;
}

BENCHMARK(BM_RoundTrip16_SharedMemory)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RoundTrip16_UnixSocket)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Answer64MiB_SharedMemory)->Iterations(9)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Memcpy64MiB)->Iterations(9)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ServerIdleCpu10s)->Iterations(1)->Unit(benchmark::kMillisecond);

void target(const char *name, double measured, const char *op, double limit, const char *unit) {
  bool met = measured >= 0 && limit >= 0 &&
             (std::strcmp(op, "<=") == 0 ? measured <= limit : measured >= limit);
  std::printf("TARGET %s: %.2f%s %s %.2f%s %s\n", name, measured, unit, op, limit, unit,
              met ? "met" : "missed");
}

} // namespace

int main(int argc, char **argv) {
  // Its own namespace, so that the bench never meets a real server.
  std::string ns = "zqbench" + std::to_string(getpid()) + "_";
  setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
  benchmark::Initialize(&argc, argv);
  if (!start_server()) {
    std::fprintf(stderr, "transport_bench: cannot start the server\n");
    return 1;
  }
  char name[] = "bench";
  g_conn = DBconnect(name);
  if (DBstatus(g_conn) != 0) {
    std::fprintf(stderr, "transport_bench: %s", DBerrormessage(g_conn));
    stop_server();
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  DBfinish(g_conn);
  DBconn_free(g_conn);
  stop_server();
  benchmark::Shutdown();

  std::printf("shared memory 16-byte round trip: median %.2f us, p99 %.2f us\n",
              g_res.shm_median_us, g_res.shm_p99_us);
  std::printf("unix socket   16-byte round trip: median %.2f us, p99 %.2f us\n",
              g_res.sock_median_us, g_res.sock_p99_us);
  std::printf("64 MiB answer: best %.0f MB/s (median %.0f) through the transport, memcpy best "
              "%.0f MB/s (median %.0f)\n",
              g_res.shm_mbps, g_res.shm_mbps_median, g_res.memcpy_mbps, g_res.memcpy_mbps_median);
  std::printf("server CPU while one client idles 10 s: %.3f%%\n", g_res.idle_cpu_percent);
  target("roundtrip_median_vs_unix_socket", g_res.shm_median_us, "<=", g_res.sock_median_us, "us");
  target("answer_64MiB_throughput", g_res.shm_mbps, ">=", 1000.0, "MB/s");
  target("answer_64MiB_vs_quarter_memcpy", g_res.shm_mbps,
         ">=", g_res.memcpy_mbps < 0 ? -1 : g_res.memcpy_mbps / 4, "MB/s");
  target("server_idle_cpu", g_res.idle_cpu_percent, "<=", 1.0, "%");
  return 0;
}
