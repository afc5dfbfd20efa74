// tavrind's data folder as files on disk: private to the server's user from
// the first start on and tightened when it was left open, and a CREATE
// DATABASE that fails for lack of room leaves no file behind.
#include <gmock/gmock.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include "tests/tavrind_fixture.h"

namespace {

using ::testing::HasSubstr;
using namespace tavrind_fixture;

namespace fs = std::filesystem;

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
  Server server;
  DBCONN *c = nullptr;
  void SetUp() override {
    if (program().empty()) GTEST_SKIP() << "tavrind has not been built";
    if (pgcluster::postgres_store())
      GTEST_SKIP() << "the database files of the data folder belong to the SQLite store";
    ASSERT_TRUE(server.start()) << server.why();
    char tdsys[] = "tdsys";
    c = DBconnect(tdsys);
    ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  }
  void TearDown() override {
    if (c) DBfinish(c), DBconn_free(c);
  }
};

TEST_F(DataFolder, IsPrivateFromTheStartAndTightenedWhenLeftOpen) {
  // The first start's databases, a new one with its WAL files, a backup.
  for (const char *sql : {"CREATE DATABASE EIGEN", "CREATE TABLE T (T_ID INTEGER)",
                          "INSERT INTO T VALUES (1)", "SAVE DATABASE"})
    ASSERT_EQ(run(c, sql), DBRES_DONE) << sql;
  EXPECT_TRUE(fs::exists(server.data_dir() + "/EIGEN.db-wal"));
  EXPECT_EQ(open_to_others(server.data_dir()), std::vector<std::string>{});
  DBfinish(c), DBconn_free(c), c = nullptr;
  server.kill_hard();

  // Left open by an older server or another umask, with a log kept there:
  // the next start closes everything and says so.
  std::ofstream(server.data_dir() + "/tavrind.log") << "old log\n";
  for (auto &e : fs::recursive_directory_iterator(server.data_dir()))
    fs::permissions(e.path(), e.is_directory() ? fs::perms(0755) : fs::perms(0644));
  fs::permissions(server.data_dir(), fs::perms(0755));
  ASSERT_TRUE(server.restart()) << server.why();
  EXPECT_EQ(open_to_others(server.data_dir()), std::vector<std::string>{});
  std::string log = server.log();
  EXPECT_THAT(log,
              HasSubstr("made the folder " + server.data_dir() + " private (was 0755, now 0700)"));
  EXPECT_THAT(log, HasSubstr("files in " + server.data_dir() + " private"));
  EXPECT_THAT(log, HasSubstr("made 1 file in " + server.data_dir() + "/backup private"));
}

TEST_F(DataFolder, CreateDatabaseWithoutRoomLeavesNoFile) {
  // A file size limit of nothing stands in for a full disk: every write
  // of the server fails as it would there.
  struct rlimit old, none;
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_FSIZE, nullptr, &old), 0);
  none = old;
  none.rlim_cur = 0;
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_FSIZE, &none, nullptr), 0);
  std::string text;
  EXPECT_EQ(run(c, "CREATE DATABASE VOLL", &text), DBRES_ERROR);
  EXPECT_THAT(text, HasSubstr("(TAVRIN 206) Datenbank VOLL"));
  EXPECT_FALSE(fs::exists(server.data_dir() + "/VOLL.db"));
  EXPECT_EQ(rows(c, "SHOW DATABASES"), (std::vector<std::string>{"DEMO", "TDSYS"}));

  // With room again the same CREATE succeeds.
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_FSIZE, &old, nullptr), 0);
  EXPECT_EQ(run(c, "CREATE DATABASE VOLL", &text), DBRES_DONE) << text;
  EXPECT_TRUE(fs::exists(server.data_dir() + "/VOLL.db"));
}

} // namespace
