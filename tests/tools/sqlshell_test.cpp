// The interactive shell of tavrin sql as a person meets it: the built
// program on a pseudo-terminal against a real server, typing lines and
// reading what the terminal shows.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>

#include <chrono>

#include "tools_testutil.h"

namespace {

// tavrin sql -dbdemo on a pseudo-terminal, with HOME in the scratch folder.
class Terminal {
public:
  Terminal(const std::string &exe, const std::filesystem::path &home) {
    pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      setenv("HOME", home.c_str(), 1);
      unsetenv("XDG_STATE_HOME");
      setenv("TERM", "dumb", 1);
      execl(exe.c_str(), "tavrin", "sql", "-dbdemo", static_cast<char *>(nullptr));
      _exit(127);
    }
  }
  ~Terminal() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) close(fd_);
  }
  bool started() const { return pid_ > 0 && fd_ >= 0; }

  // Reads until the screen shows `want` after what earlier waits consumed
  // (at most 20 s). Returns true when it came; `seen` keeps everything.
  bool wait_for(const std::string &want) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (seen.find(want, from_) == std::string::npos) {
      if (std::chrono::steady_clock::now() > end) return false;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buf[4096];
      ssize_t n = read(fd_, buf, sizeof buf);
      if (n <= 0) return false;
      seen.append(buf, size_t(n));
    }
    from_ = seen.find(want, from_) + want.size();
    return true;
  }
  // Types `keys`, then waits for `want` ("": nothing). False when the keys
  // could not be written or `want` did not come.
  bool enter(const std::string &keys, const std::string &want) {
    if (write(fd_, keys.data(), keys.size()) != ssize_t(keys.size())) return false;
    return wait_for(want);
  }

  // The exit status once the program ended (at most 20 s), else -1.
  int status() {
    for (int i = 0; i < 200; ++i) {
      int st = 0;
      char buf[4096];
      pollfd p{fd_, POLLIN, 0};
      while (poll(&p, 1, 0) > 0 && read(fd_, buf, sizeof buf) > 0) {
      }
      if (waitpid(pid_, &st, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return -1;
  }

  std::string seen;

private:
  pid_t pid_ = -1;
  int fd_ = -1;
  size_t from_ = 0;
};

class SqlShell : public tooltest::WithServer {};

TEST_F(SqlShell, PromptStatementsOverLinesCommandsAndHistoryAcrossRuns) {
  {
    Terminal t(exe, dir);
    ASSERT_TRUE(t.started());
    ASSERT_TRUE(t.wait_for("demo> ")) << t.seen;
    ASSERT_TRUE(t.enter("CREATE TABLE SH1 (SH1_ID INTEGER, T CHARACTER(10));\r", "done")) << t.seen;
    // A ';' inside a quoted text does not end the statement, also when the
    // text spans lines; the continuation prompts say what is open.
    ASSERT_TRUE(t.enter("INSERT INTO SH1 VALUES (1, 'a;\r", "'> ")) << t.seen;
    ASSERT_TRUE(t.enter("b');\r", "1 row changed")) << t.seen;
    ASSERT_TRUE(t.enter("SELECT SH1_ID, T\r", "-> ")) << t.seen;
    EXPECT_TRUE(t.enter("FROM SH1 WHERE T <> 'x\\';';\r", "(1 row)")) << t.seen;
    ASSERT_TRUE(t.enter("\\dt\r", "TABLE_NAME | ATTRIBUTES | MODE")) << t.seen;
    EXPECT_TRUE(t.wait_for("SH1")) << t.seen;
    EXPECT_TRUE(t.enter("\\q\r", "")) << t.seen;
    EXPECT_EQ(t.status(), 0) << t.seen;
  }
  EXPECT_EQ(std::filesystem::status(dir / ".local/state/zentiq/tavrin_history").permissions(),
            std::filesystem::perms(0600));

  {
    // The second run recalls the multi-line SELECT from the history of the
    // first (three entries back: \q, \dt, the SELECT), as one line.
    Terminal t(exe, dir);
    ASSERT_TRUE(t.wait_for("demo> ")) << t.seen;
    EXPECT_TRUE(t.enter("\x1b[A\x1b[A\x1b[A\r", "a;\r\nb")) << t.seen;
    EXPECT_TRUE(t.wait_for("(1 row)")) << t.seen;
    // An open transaction is not ended by the first \q, nor by \c.
    ASSERT_TRUE(t.enter("BEGIN;\r", "done")) << t.seen;
    ASSERT_TRUE(t.enter("DELETE FROM SH1;\r", "1 row changed")) << t.seen;
    EXPECT_TRUE(t.enter("\\c tdsys\r", "COMMIT or ABORT it first")) << t.seen;
    EXPECT_TRUE(t.enter("\\q\r", "a transaction is open")) << t.seen;
    ASSERT_TRUE(t.enter("ABORT;\r", "done")) << t.seen;
    EXPECT_TRUE(t.enter("\\c tdsys\r", "tdsys> ")) << t.seen;
    EXPECT_TRUE(t.enter("SET DATABASE demo;\r", "demo> ")) << t.seen;
    EXPECT_TRUE(t.enter("\\timing off\r", "Timing is off.")) << t.seen;
    EXPECT_TRUE(t.enter("\\q\r", "")) << t.seen;
    EXPECT_EQ(t.status(), 0) << t.seen;
  }
  EXPECT_EQ(csv("SELECT COUNT(*) FROM SH1"), "COUNT(*)\n1\n") << "the aborted DELETE left the row";
}

} // namespace
