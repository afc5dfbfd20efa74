// A real TAVRIN server for integration tests: the built tavrind program on a
// temporary data folder in a namespace of its own, with its verbose log in a
// file, so that a test can see which statements reached the server.
//
// When the program has not been built, `start(allow_library)` can run the
// same server code (catalog, executor, request handler, protocol server)
// from the server library in a forked child instead; a suite that links
// zentiq_server defines TAVRIND_FIXTURE_LIBRARY before including this file.
// The server never outlives the fixture.
//
// With ZENTIQ_TEST_STORE=postgres every start stores in a new database of the
// test process's PostgreSQL cluster (tests/pgcluster.h) instead of SQLite
// files; that needs the program.
#pragma once

#include <fcntl.h>
#include <spawn.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "base/msg.h"
#include "db/client/connect.h"
#include "db/client/transport.h"
#include "tests/ipc/ipc_testutil.h"
#include "tests/pgcluster.h"

#ifdef TAVRIND_FIXTURE_LIBRARY
#include "server/catalog.h"
#include "server/executor.h"
#include "server/handler.h"
#include "server/protocol.h"
#endif

extern char **environ;

namespace tavrind_fixture {

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

  // Further options of the program (not used by the library server).
  std::vector<std::string> options;

  // Starts a server; returns false with `why` set when none can run.
  bool start(std::string &why) {
    ns_ = ipctest::fresh_namespace(); // also set as TAVRIN_NAMESPACE
    char tmpl[] = "/tmp/zentiq_tavrind_XXXXXX";
    if (!mkdtemp(tmpl)) {
      why = "no temporary folder";
      return false;
    }
    dir_ = tmpl;
    data_ = dir_ + "/data";
    log_ = dir_ + "/tavrind.log";
    if (!pgcluster::store_conninfo(store_, why)) return false;
    return run(why);
  }

  // Ends the server process only (SIGTERM), keeping its data folder and
  // namespace, as a user stopping the server would; the clients see it gone.
  void halt() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // Starts the server again on the same data folder and namespace after
  // halt(); as start().
  bool restart(std::string &why) {
    setenv("TAVRIN_NAMESPACE", ns_.c_str(), 1);
    return run(why);
  }

  // Ends the server and removes its folder.
  void stop() {
    DBcomm_close();
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      ipctest::join_within(pid_, 5000); // killed when it does not end by then
      pid_ = -1;
    }
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
    dir_.clear();
  }

  // The server's log so far.
  std::string log() const {
    return {std::istreambuf_iterator<char>(std::ifstream(log_).rdbuf()), {}};
  }
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
  // The PostgreSQL database the server stores in; "" on the SQLite store.
  const std::string &store() const { return store_; }

private:
  bool run(std::string &why) {
    std::string prog = program();
    if (!prog.empty()) {
      pid_ = spawn_program(prog);
    } else if (!store_.empty()) {
      why = "tavrind has not been built (the PostgreSQL store needs the program)";
      return false;
    } else {
#ifdef TAVRIND_FIXTURE_LIBRARY
      pid_ = spawn_library();
#else
      why = "tavrind has not been built";
      return false;
#endif
    }
    if (pid_ <= 0) {
      why = "the server could not be started";
      return false;
    }
    if (!wait_ready()) {
      why = "the server did not answer: " + log();
      stop();
      return false;
    }
    return true;
  }

  pid_t spawn_program(const std::string &prog) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    std::vector<std::string> args = {prog, "--data", data_, "--namespace", ns_, "--verbose"};
    if (!store_.empty()) args.insert(args.end(), {"--postgres", store_});
    args.insert(args.end(), options.begin(), options.end());
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, prog.c_str(), &fa, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
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
    srv.run();
    srv.shutdown();
    _exit(0);
  }
#endif

  // Waits until a client can open TDSYS (at most about 20 s).
  bool wait_ready() {
    MsgHandler old = msg_set_handler([](const char *) {});
    bool ok = false;
    for (int i = 0; i < 200 && !ok; ++i) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      if (std::filesystem::exists("/dev/shm/" + ns_ + "TavrinDB_Server")) {
        char name[] = "TDSYS";
        DBCONN *c = DBconnect(name);
        ok = DBstatus(c) == DBCONN_OK;
        if (ok) DBfinish(c);
        DBconn_free(c);
      }
      if (!ok) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    DBcomm_close();
    msg_set_handler(old);
    return ok;
  }

  std::string ns_, dir_, data_, log_, store_;
  pid_t pid_ = -1;
};

} // namespace tavrind_fixture
