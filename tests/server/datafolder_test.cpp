// tavrind's data folder as files on disk: private to the server's user from
// the first start on and tightened when it was left open, and a CREATE
// DATABASE that fails for lack of room leaves no file behind.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "faults_server.h"

namespace {

namespace fs = std::filesystem;

// A tavrind on a data folder of the test's choosing, its log next to it.
class DataServer {
public:
  explicit DataServer(std::string dir) : dir_(std::move(dir)) {
    ns_ = "zqdat" + std::to_string(getpid()) + "_";
    setenv("TAVRIN_NAMESPACE", ns_.c_str(), 1);
  }
  ~DataServer() { stop(); }

  // Starts the server; false when it did not log that it serves.
  bool start() {
    std::string prog = faults::tavrind_program(), data = data_dir(), log = log_path();
    std::vector<const char *> argv = {prog.c_str(),  "--data",    data.c_str(),
                                      "--namespace", ns_.c_str(), nullptr};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    int rc =
        posix_spawn(&pid_, prog.c_str(), &fa, nullptr, const_cast<char **>(argv.data()), environ);
    posix_spawn_file_actions_destroy(&fa);
    for (int i = 0; rc == 0 && i < 300; ++i, usleep(100000))
      if (log_text().find("tavrind: serving") != std::string::npos) return true;
    return false;
  }
  void stop() {
    if (pid_ > 0) kill(pid_, SIGTERM), faults::reap(pid_, std::chrono::seconds(5));
    pid_ = -1;
    std::ofstream(log_path(), std::ios::trunc);
  }
  std::string log_text() const {
    std::stringstream s;
    s << std::ifstream(log_path()).rdbuf();
    return s.str();
  }
  std::string data_dir() const { return dir_ + "/data"; }
  std::string log_path() const { return dir_ + "/tavrind.log"; }
  pid_t pid() const { return pid_; }

private:
  std::string dir_, ns_;
  pid_t pid_ = -1;
};

// Paths under dir (the folder itself too) that group or others may use.
std::vector<std::string> open_to_others(const std::string &dir) {
  std::vector<std::string> open;
  auto check = [&](const fs::path &p) {
    struct stat sb;
    if (lstat(p.c_str(), &sb) == 0 && (sb.st_mode & 077)) open.push_back(p.string());
  };
  check(dir);
  for (auto &e : fs::recursive_directory_iterator(dir)) check(e.path());
  return open;
}

class DataFolder : public ::testing::Test {
protected:
  std::string dir;
  void SetUp() override {
    if (faults::tavrind_program().empty()) GTEST_SKIP() << "tavrind has not been built";
    char tmpl[] = "/tmp/zentiq_datafolder_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  void TearDown() override {
    if (!dir.empty()) fs::remove_all(dir);
  }
};

TEST_F(DataFolder, IsPrivateFromTheStartAndTightenedWhenLeftOpen) {
  DataServer server(dir);
  ASSERT_TRUE(server.start()) << server.log_text();
  char tdsys[] = "tdsys";
  DBCONN *c = DBconnect(tdsys);
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  // The first start's databases, a new one with its WAL files, a backup.
  ASSERT_EQ(faults::run(c, "CREATE DATABASE EIGEN"), DBRES_DONE);
  ASSERT_EQ(faults::run(c, "CREATE TABLE T (T_ID INTEGER)"), DBRES_DONE);
  ASSERT_EQ(faults::run(c, "INSERT INTO T VALUES (1)"), DBRES_DONE);
  ASSERT_EQ(faults::run(c, "SAVE DATABASE"), DBRES_DONE);
  EXPECT_TRUE(fs::exists(server.data_dir() + "/EIGEN.db-wal"));
  EXPECT_EQ(open_to_others(server.data_dir()), std::vector<std::string>{});
  DBfinish(c);
  DBconn_free(c);
  server.stop();

  // Left open by an older server or another umask, with a log kept there:
  // the next start closes everything and says so.
  std::ofstream(server.data_dir() + "/tavrind.log") << "old log\n";
  for (auto &e : fs::recursive_directory_iterator(server.data_dir()))
    fs::permissions(e.path(), e.is_directory() ? fs::perms(0755) : fs::perms(0644));
  fs::permissions(server.data_dir(), fs::perms(0755));
  ASSERT_TRUE(server.start()) << server.log_text();
  EXPECT_EQ(open_to_others(server.data_dir()), std::vector<std::string>{});
  std::string log = server.log_text();
  EXPECT_NE(log.find("made the folder " + server.data_dir() + " private (was 0755, now 0700)"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("files in " + server.data_dir() + " private"), std::string::npos) << log;
  EXPECT_NE(log.find("made 1 file in " + server.data_dir() + "/backup private"), std::string::npos)
      << log;
}

TEST_F(DataFolder, CreateDatabaseWithoutRoomLeavesNoFile) {
  DataServer server(dir);
  ASSERT_TRUE(server.start()) << server.log_text();
  char tdsys[] = "tdsys";
  DBCONN *c = DBconnect(tdsys);
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  // A file size limit of nothing stands in for a full disk: every write
  // of the server fails as it would there.
  struct rlimit old, none;
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_FSIZE, nullptr, &old), 0);
  none = old;
  none.rlim_cur = 0;
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_FSIZE, &none, nullptr), 0);
  std::string text;
  EXPECT_EQ(faults::run(c, "CREATE DATABASE VOLL", &text), DBRES_ERROR);
  EXPECT_NE(text.find("(TAVRIN 206) Datenbank VOLL"), std::string::npos) << text;
  EXPECT_FALSE(fs::exists(server.data_dir() + "/VOLL.db"));
  DBRESULT *r = DBexec(c, "SHOW DATABASES");
  ASSERT_EQ(DBntuples(r), 2) << "DEMO and TDSYS only";
  EXPECT_STREQ(DBgetvalue(r, 1, 0), "TDSYS");
  DBclear(r);

  // With room again the same CREATE succeeds.
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_FSIZE, &old, nullptr), 0);
  EXPECT_EQ(faults::run(c, "CREATE DATABASE VOLL", &text), DBRES_DONE) << text;
  EXPECT_TRUE(fs::exists(server.data_dir() + "/VOLL.db"));
  DBfinish(c);
  DBconn_free(c);
}

} // namespace
