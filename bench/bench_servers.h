// Servers that the server benchmarks start and stop around their measurements:
// the built tavrind beside the benchmark, in a namespace and data folder of its
// own, and a temporary PostgreSQL 15 cluster on a Unix socket in a folder owned
// by the postgres user (no TCP), both with the same durability setting and
// their data on the same disk-backed file system. What tables they hold and
// what is measured on them is each benchmark's own business.
#pragma once

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <spawn.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "base/msg.h"
#include "db/client/connect.h"
#include "tests/pgcluster.h"

extern char **environ;

namespace bench_servers {

using pgcluster::kPgBin;

// The tavrind program beside this benchmark's folder; "" when missing.
inline std::string tavrind_program() {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return "";
  fs::path p = self.parent_path() / ".." / "server" / "tavrind";
  return fs::exists(p) ? fs::canonical(p).string() : "";
}

// The folder under which both servers keep their data: /tmp, unless that is
// held in memory (tmpfs), then /var/tmp, so that neither side is measured on
// memory while the other syncs to a disk.
inline std::string data_root() {
  struct statfs fs;
  if (statfs("/tmp", &fs) == 0 && fs.f_type == TMPFS_MAGIC) return "/var/tmp";
  return "/tmp";
}

// A short description of the file system that holds `path`, for the output.
inline std::string fs_kind(const std::string &path) {
  struct statfs fs;
  if (statfs(path.c_str(), &fs) != 0) return "unknown file system";
  return fs.f_type == TMPFS_MAGIC ? "tmpfs (memory)" : "disk-backed file system";
}

// The durability both servers run with. Normal: a commit survives a crash of
// the server process, not of the machine (tavrind --sync normal, PostgreSQL
// fsync=off). Full: a commit is on disk when it is confirmed (tavrind --sync
// full, PostgreSQL fsync=on and synchronous_commit=on).
enum class Sync { Normal, Full };

// Starts tavrind on `data` in namespace `ns` (also set as TAVRIN_NAMESPACE of
// this process) with durability `sync`, its output appended to `log`; with a
// connection string `postgres`, on the PostgreSQL store in that database.
// Returns its pid, or -1 with a line on stderr.
inline pid_t spawn_tavrind(const std::string &data, const std::string &log, const std::string &ns,
                           Sync sync = Sync::Normal, const std::string &postgres = "") {
  std::string prog = tavrind_program();
  if (prog.empty()) {
    std::fprintf(stderr, "tavrind has not been built beside the benchmark\n");
    return -1;
  }
  setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&fa, 1, 2);
  std::vector<std::string> args = {
      prog, "--data", data, "--namespace", ns, "--sync", sync == Sync::Full ? "full" : "normal"};
  if (!postgres.empty()) args.insert(args.end(), {"--postgres", postgres});
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, prog.c_str(), &fa, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  if (pid <= 0) std::fprintf(stderr, "tavrind could not be started\n");
  return pid;
}

// One row of the benchmarks' six-column table (key, name, quantity, amount,
// date, timestamp) as the values of an INSERT, the same text for every
// system compared.
inline std::string row_values(int i) {
  char buf[200];
  std::snprintf(buf, sizeof buf,
                "(%d, 'Kunde %06d Musterstadt', %d, %.2f, '%04d-%02d-%02d', "
                "'%04d-%02d-%02d %02d:%02d:%02d')",
                i, i, i % 30000, i * 1.25, 1950 + i % 70, 1 + i % 12, 1 + i % 28, 2000 + i % 25,
                1 + (i / 12) % 12, 1 + (i / 7) % 28, i % 24, i % 60, (i / 60) % 60);
  return buf;
}

// Waits (at most about 30 s: a first start writes the demo data) until the
// tavrind `pid` serves namespace `ns` and a connect to TDSYS succeeds.
// Returns the open connection (the caller frees it with DBfinish and
// DBconn_free), or null after "tavrind did not answer" on standard error; a
// server that ended meanwhile leaves `pid` at -1.
inline DBCONN *connect_tavrind(pid_t &pid, const std::string &ns) {
  DBCONN *conn = nullptr;
  MsgHandler old = msg_set_handler([](const char *) {});
  for (int i = 0; i < 300 && !conn; ++i) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) {
      pid = -1;
      break;
    }
    if (std::filesystem::exists("/dev/shm/" + ns + "TavrinDB_Server")) {
      char name[] = "TDSYS";
      DBCONN *c = DBconnect(name);
      if (DBstatus(c) == DBCONN_OK)
        conn = c;
      else
        DBconn_free(c);
    }
    if (!conn) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  msg_set_handler(old);
  if (!conn) std::fprintf(stderr, "tavrind did not answer\n");
  return conn;
}

// Runs one statement that answers no rows on `conn`. True when it was done;
// otherwise the statement's start and the server's text on standard error.
inline bool exec_done(DBCONN *conn, const std::string &sql) {
  DBRESULT *r = DBexec(conn, sql.c_str());
  int st = DBresult_status(r);
  if (st != DBRES_DONE) std::fprintf(stderr, "%.80s: %s", sql.c_str(), DBresult_error(r));
  DBclear(r);
  return st == DBRES_DONE;
}

// Ends a started process: SIGTERM, up to 5 s for it to finish, then SIGKILL.
// Sets pid to -1.
inline void stop_process(pid_t &pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  int st = 0;
  for (int i = 0; i < 500 && waitpid(pid, &st, WNOHANG) == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (waitpid(pid, &st, WNOHANG) == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &st, 0);
  }
  pid = -1;
}

// A temporary PostgreSQL cluster (tests/pgcluster.h) under data_root() with
// the benchmarks' durability. start() makes it in a new folder (name prefix
// `tag`) and starts it; false with a line on stderr. stop() stops it and
// removes the folder.
struct PgCluster : pgcluster::Cluster {
  bool start(const std::string &tag, Sync sync = Sync::Normal) {
    std::string why;
    std::string durability =
        sync == Sync::Full ? "-c fsync=on -c synchronous_commit=on" : "-c fsync=off";
    if (Cluster::start(data_root(), tag, durability, why)) return true;
    std::fprintf(stderr, "%s\n", why.c_str());
    return false;
  }
};

} // namespace bench_servers
