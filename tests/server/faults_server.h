// A real tavrind process for the fault and load tests: its own namespace and
// temporary data folder, extra options, its log in a file, stopped by its pid.
// It can be killed hard and started again on the same folder and namespace
// (with the dead server's shared-memory objects left behind). Clients are
// the tests' business.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace faults {

// The built tavrind program, "" when there is none.
inline std::string tavrind_program() {
  const char *build = std::getenv("ZENTIQ_BUILD_DIR");
  std::string p = std::string(build ? build : "") + "/server/tavrind";
  return std::filesystem::exists(p) ? p : "";
}

// A tavrind process with the given extra options.
class Server {
public:
  ~Server() { stop(); }

  // Starts a server with the options `extra`; false when it did not come up
  // within about 30 s.
  bool start(const std::vector<std::string> &extra) {
    static int n = 0;
    ns_ = "zqflt" + std::to_string(getpid()) + "_" + std::to_string(n++) + "_";
    char tmpl[] = "/tmp/zentiq_faults_XXXXXX";
    if (!mkdtemp(tmpl)) return false;
    dir_ = tmpl;
    extra_ = extra;
    return launch();
  }

  // Ends the server with SIGKILL: no rollback, its shared-memory objects
  // stay behind.
  void kill_hard() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    int st = 0;
    waitpid(pid_, &st, 0);
    pid_ = -1;
  }
  // Starts the server again on the same folder and namespace.
  bool restart() { return launch(); }

  void stop() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int st = 0;
      for (int i = 0; i < 500 && waitpid(pid_, &st, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      if (waitpid(pid_, &st, WNOHANG) == 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &st, 0);
      }
      pid_ = -1;
    }
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
    dir_.clear();
  }

  const std::string &ns() const { return ns_; }
  std::string data_dir() const { return dir_ + "/data"; }

private:
  bool launch() {
    std::string prog = tavrind_program();
    if (prog.empty()) return false;
    std::vector<std::string> args = {prog, "--data", dir_ + "/data", "--namespace", ns_};
    args.insert(args.end(), extra_.begin(), extra_.end());
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    std::string log = dir_ + "/tavrind.log";
    posix_spawn_file_actions_addopen(&fa, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&fa, 2, 1);
    int rc = posix_spawn(&pid_, prog.c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return false;
    // Ready when the server has logged that it serves (after the first
    // start has written both databases).
    size_t seen = count_serving(log);
    for (int i = 0; i < 300; ++i) {
      if (count_serving(log) > seen) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  static size_t count_serving(const std::string &log) {
    std::ifstream in(log);
    std::string line;
    size_t n = 0;
    while (std::getline(in, line))
      if (line.find("tavrind: serving") != std::string::npos) ++n;
    return n;
  }

  pid_t pid_ = -1;
  std::string ns_, dir_;
  std::vector<std::string> extra_;
};

} // namespace faults
