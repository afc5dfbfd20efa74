// A real TAVRIN server for integration tests: the built tavrind program on a
// scratch data folder in a namespace of its own, with further options and its
// verbose log in a file, so that a test can see which statements reached the
// server. It can be stopped, or killed hard with its shared-memory objects
// left behind, and started again on the same folder and namespace. Clients
// are the tests' business; run() and rows() execute their statements and
// reap() ends any child process. The server never outlives its object.
//
// When the program has not been built, a start can run the same server code
// (catalog, executor, request handler, protocol server) from the server
// library in a forked child instead; a suite that links zentiq_server defines
// TAVRIND_FIXTURE_LIBRARY before including this file.
//
// With ZENTIQ_TEST_STORE=postgres the server stores in a PostgreSQL database
// of the test process's cluster (tests/pgcluster.h): a new one per start(),
// or the one `store` names when set before (two servers on one database);
// that needs the program.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <optional>
#include <sstream>
#include <thread>

#include "db/client/exec.h"
#include "db/client/transport.h"
#include "tests/ipc/ipc_testutil.h"
#include "tests/pgcluster.h"
#include "tests/scratch.h"

#ifdef TAVRIND_FIXTURE_LIBRARY
#include "server/catalog.h"
#include "server/executor.h"
#include "server/handler.h"
#include "server/protocol.h"
#endif

extern char **environ;

namespace tavrind_fixture {

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

// The server program to test against: ZENTIQ_TAVRIND when set, else the
// built one; "" when there is none.
inline std::string program() {
  const char *chosen = std::getenv("ZENTIQ_TAVRIND");
  if (chosen && *chosen) return chosen;
  const char *build = std::getenv("ZENTIQ_BUILD_DIR");
  if (!build) return "";
  std::string p = std::string(build) + "/server/tavrind";
  return std::filesystem::exists(p) ? p : "";
}

#ifdef TAVRIND_FIXTURE_LIBRARY
inline tavrind::ProtocolServer *library_server = nullptr;
#endif

class Server {
public:
  ~Server() { stop(); }

  // The PostgreSQL database the server stores in ("" on the SQLite store);
  // set before start() to store in another server's database.
  std::string store;
  // Set before start(): the SQLite store, whatever ZENTIQ_TEST_STORE says.
  bool sqlite = false;

  // Starts a server with the further program options `extra` (the library
  // server takes none); false with why() set when none came up within
  // about 30 s.
  bool start(const std::vector<std::string> &extra = {}) {
    ns_ = ipctest::fresh_namespace(); // also set as TAVRIN_NAMESPACE
    folder_.emplace("tavrind", false);
    data_ = folder_->path() + "/data";
    log_ = folder_->path() + "/tavrind.log";
    extra_ = extra;
    if (!sqlite && store.empty() && !pgcluster::store_conninfo(store, why_)) return false;
    return restart();
  }
  // Why the last start failed, with the server's log when it ran.
  const std::string &why() const { return why_; }

  // Starts the server again on the same data folder and namespace after it
  // ended; as start().
  bool restart() {
    setenv("TAVRIN_NAMESPACE", ns_.c_str(), 1);
    size_t seen = serving();
    std::string prog = program();
    if (!prog.empty()) {
      std::vector<std::string> args = {prog, "--data", data_, "--namespace", ns_, "--verbose"};
      if (!store.empty()) args.insert(args.end(), {"--postgres", store});
      args.insert(args.end(), extra_.begin(), extra_.end());
      pid_ = spawn_logged(args, log_);
    } else if (!store.empty()) {
      return fail("tavrind has not been built (the PostgreSQL store needs the program)");
    } else {
#ifdef TAVRIND_FIXTURE_LIBRARY
      pid_ = spawn_library();
#else
      return fail("tavrind has not been built");
#endif
    }
    if (pid_ <= 0) return fail("the server could not be started");
    // Ready when the server has logged that it serves (after the first
    // start has written both databases); a server that ended will not.
    for (int i = 0; i < 300; ++i) {
      if (serving() > seen) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return fail("the server ended: " + log());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return fail("the server did not answer: " + log());
  }

  // Ends the server with SIGKILL: no rollback, its shared-memory objects
  // stay behind.
  void kill_hard() { terminate(std::chrono::milliseconds(0), false); }
  // Sends SIGTERM (unless `ask` is false: the server was told to stop by a
  // client) and waits at most `limit` for the server to end: its exit status,
  // or -1 when it had to be killed. The folder stays for restart(); the
  // clients see the server gone.
  int terminate(std::chrono::milliseconds limit = std::chrono::seconds(5), bool ask = true) {
    if (pid_ <= 0) return -1;
    if (ask) kill(pid_, SIGTERM);
    int st = reap(pid_, limit);
    pid_ = -1;
    return st;
  }
  // Closes this process's connection, ends the server and removes its folder.
  void stop() {
    DBcomm_close();
    terminate();
    folder_.reset();
  }

  // The server's log so far.
  std::string log() const { return scratch::read_file(log_); }
  size_t log_size() const { return log().size(); }

  // Lines of the log from `from` on that end with `suffix`.
  int count_log(const std::string &suffix, size_t from = 0) const {
    std::string text = log();
    std::istringstream in(text.substr(std::min(from, text.size())));
    int n = 0;
    for (std::string line; std::getline(in, line);)
      n += line.size() >= suffix.size() &&
           line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0;
    return n;
  }

  const std::string &data_dir() const { return data_; }
  const std::string &ns() const { return ns_; }
  pid_t pid() const { return pid_; }

private:
  bool fail(const std::string &why) {
    why_ = why;
    return false;
  }

  // How often the log says that a server serves.
  size_t serving() const {
    std::string text = log();
    size_t n = 0;
    for (size_t at = 0; (at = text.find("tavrind: serving", at)) != std::string::npos; ++at) ++n;
    return n;
  }

#ifdef TAVRIND_FIXTURE_LIBRARY
  pid_t spawn_library() {
    std::string data = data_, log = log_;
    pid_t pid = fork();
    if (pid != 0) return pid;
    tavrind::Executor ex;
    ex.verbose = true;
    ex.log = [log](const std::string &line) { std::ofstream(log, std::ios::app) << line << "\n"; };
    std::string err;
    if (!tavrind::catalog_init(ex.catalog, data, err)) _exit(3);
    tavrind::ExecHandler h(ex);
    tavrind::ProtocolServer srv(h);
    if (!srv.start()) _exit(4);
    library_server = &srv;
    signal(SIGTERM, [](int) { library_server->request_stop(); });
    ex.log("tavrind: serving"); // as the program says when it is ready
    srv.run();
    srv.shutdown();
    _exit(0);
  }
#endif

  std::optional<scratch::ScratchDir> folder_;
  std::string ns_, data_, log_, why_;
  std::vector<std::string> extra_;
  pid_t pid_ = -1;
};

} // namespace tavrind_fixture
