// A real tavrind process for the fault and load tests: its own namespace and
// temporary data folder, extra options, its log in a file, stopped by its pid.
// It can be killed hard and started again on the same folder and namespace
// (with the dead server's shared-memory objects left behind). Clients are
// the tests' business; run() and rows() execute their statements and reap()
// ends any child process.
//
// With ZENTIQ_TEST_STORE=postgres the server stores in a PostgreSQL database
// of the test process's cluster (tests/pgcluster.h): a new one per start(),
// or the one `store` names when set before (two servers on one database).
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include "db/client/exec.h"
#include "tests/pgcluster.h"

extern char **environ;

namespace faults {

// Runs one statement; returns its status. *value gets the first value of a
// row answer, the count of a change or the error text, newlines as blanks.
inline int run(DBCONN *c, const std::string &sql, std::string *value = nullptr) {
  DBRESULT *r = DBexec(c, sql.c_str());
  int st = DBresult_status(r);
  std::string v;
  if (st == DBRES_ERROR || st == DBRES_SYNTAX)
    v = DBresult_error(r);
  else if ((st == DBRES_TUPLES || st == DBRES_DONE) && DBntuples(r) > 0)
    v = st == DBRES_TUPLES ? DBgetvalue(r, 0, 0) : std::to_string(DBntuples(r));
  for (char &ch : v)
    if (ch == '\n') ch = ' ';
  DBclear(r);
  if (value) *value = v;
  return st;
}

// The answer of one statement as lines: a row's values joined by '|', the
// count of a change, or the message of a refusal.
inline std::vector<std::string> rows(DBCONN *c, const std::string &sql) {
  DBRESULT *r = DBexec(c, sql.c_str());
  std::vector<std::string> out;
  int st = DBresult_status(r);
  for (int i = 0; st == DBRES_TUPLES && i < DBntuples(r); ++i) {
    std::string row;
    for (int k = 0; k < DBnfields(r); ++k) row += (k ? "|" : "") + std::string(DBgetvalue(r, i, k));
    out.push_back(row);
  }
  if (st == DBRES_DONE) out.push_back(std::to_string(DBntuples(r)));
  if (st == DBRES_ERROR || st == DBRES_SYNTAX) out.push_back(DBresult_error(r));
  DBclear(r);
  return out;
}

inline std::string text_of(const std::string &path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Starts the program args[0] with args, its standard output and error
// appended to the file `log`; its pid, or -1.
inline pid_t spawn_logged(std::vector<std::string> args, const std::string &log) {
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&fa, 2, 1);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

// The built tavrind program, "" when there is none.
inline std::string tavrind_program() {
  const char *build = std::getenv("ZENTIQ_BUILD_DIR");
  std::string p = std::string(build ? build : "") + "/server/tavrind";
  return std::filesystem::exists(p) ? p : "";
}

// Waits for the child pid at most `limit`, then kills it. The exit status,
// or -1 when it had to be killed or ended by a signal.
inline int reap(pid_t pid, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  int st = 0;
  while (waitpid(pid, &st, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= end) {
      kill(pid, SIGKILL);
      waitpid(pid, &st, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// A tavrind process with the given extra options.
class Server {
public:
  ~Server() {
    terminate(std::chrono::seconds(5));
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  // The PostgreSQL database the server stores in ("" on the SQLite store).
  std::string store;
  // Set before start(): the SQLite store, whatever ZENTIQ_TEST_STORE says.
  bool sqlite = false;

  // Starts a server with the options `extra`; false when it did not come up
  // within about 30 s (or no PostgreSQL database could be made for it).
  bool start(const std::vector<std::string> &extra) {
    static int n = 0;
    ns_ = "zqflt" + std::to_string(getpid()) + "_" + std::to_string(n++) + "_";
    char tmpl[] = "/tmp/zentiq_faults_XXXXXX";
    if (!mkdtemp(tmpl)) return false;
    dir_ = tmpl;
    extra_ = extra;
    if (!sqlite && store.empty() && !pgcluster::store_conninfo(store, why_)) return false;
    return launch();
  }
  // Why start() failed when it was not the server itself (see log_text()).
  const std::string &why() const { return why_; }

  // Ends the server with SIGKILL: no rollback, its shared-memory objects
  // stay behind.
  void kill_hard() { terminate(std::chrono::milliseconds(0), false); }
  // Starts the server again on the same folder and namespace.
  bool restart() { return launch(); }
  // Sends SIGTERM (unless `ask` is false: the server was told to stop by a
  // client) and waits at most `limit` for the server to end: its exit status,
  // or -1 when it had to be killed. The folder stays for restart().
  int terminate(std::chrono::milliseconds limit, bool ask = true) {
    if (pid_ <= 0) return -1;
    if (ask) kill(pid_, SIGTERM);
    int st = reap(pid_, limit);
    pid_ = -1;
    return st;
  }

  const std::string &ns() const { return ns_; }
  std::string data_dir() const { return dir_ + "/data"; }
  std::string log_text() const { return text_of(dir_ + "/tavrind.log"); }
  pid_t pid() const { return pid_; }

private:
  bool launch() {
    std::string prog = tavrind_program();
    if (prog.empty()) return false;
    std::vector<std::string> args = {prog, "--data", dir_ + "/data", "--namespace", ns_};
    if (!store.empty()) args.insert(args.end(), {"--postgres", store});
    args.insert(args.end(), extra_.begin(), extra_.end());
    std::string log = dir_ + "/tavrind.log";
    if ((pid_ = spawn_logged(args, log)) < 0) return false;
    // Ready when the server has logged that it serves (after the first
    // start has written both databases); a server that ended will not.
    auto serving = [&log] {
      std::string text = text_of(log);
      size_t n = 0;
      for (size_t at = 0; (at = text.find("tavrind: serving", at)) != std::string::npos; ++at) ++n;
      return n;
    };
    size_t seen = serving();
    for (int i = 0; i < 300; ++i) {
      if (serving() > seen) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  pid_t pid_ = -1;
  std::string ns_, dir_, why_;
  std::vector<std::string> extra_;
};

} // namespace faults
