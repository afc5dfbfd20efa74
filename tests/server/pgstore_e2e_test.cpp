// The PostgreSQL store between the two stores, end to end through the real
// client: a SQLite data folder imported with --import-sqlite reads the same
// on the PostgreSQL store (and is not imported twice), and a database saved
// on the PostgreSQL store opens in the SQLite store with the same rows. They
// run in the postgres pass only (ZENTIQ_TEST_STORE=postgres), on its cluster.
#include <gmock/gmock.h>

#include <algorithm>

#include "base/msg.h"
#include "db/client/transport.h"
#include "tests/tavrind_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Texts = std::vector<std::string>;
using ::testing::AllOf;
using ::testing::HasSubstr;
using namespace tavrind_fixture;

// Everything a client reads of database `db` on the server of namespace ns:
// its tables with their columns, its indices and every table's rows (sorted:
// neither store promises an order without ORDER BY).
Texts read_all(const std::string &ns, const std::string &db) {
  setenv("TAVRIN_NAMESPACE", ns.c_str(), 1);
  std::string name = db;
  DBCONN *c = DBconnect(name.data());
  Texts all;
  if (DBstatus(c) != DBCONN_OK) {
    all.push_back("no connection: " + std::string(DBerrormessage(c)));
  } else {
    Texts tables = rows(c, "SHOW TABLES");
    all = tables;
    for (const std::string &t : tables) {
      std::string table = t.substr(0, t.find('|'));
      for (const std::string &line : rows(c, "SHOW TABLE " + table))
        all.push_back(table + ": " + line);
      Texts data = rows(c, "SELECT * FROM " + table);
      std::sort(data.begin(), data.end());
      for (const std::string &line : data) all.push_back(table + "= " + line);
    }
    for (const std::string &line : rows(c, "SHOW INDICES")) all.push_back(line);
    DBfinish(c);
  }
  DBconn_free(c);
  DBcomm_close();
  return all;
}

// Runs tavrind once with `args` (after the program's name), its output in
// `log`; its exit status, or -1 when it did not end within a minute.
int run_tavrind(std::vector<std::string> args, const std::string &log) {
  args.insert(args.begin(), program());
  pid_t pid = spawn_logged(args, log);
  return pid > 0 ? reap(pid, 60s) : -1;
}

class PgStore : public ::testing::Test {
protected:
  void SetUp() override {
    if (!pgcluster::postgres_store())
      GTEST_SKIP() << "PostgreSQL store tests run in the postgres pass (ctest -L postgres)";
    if (program().empty()) GTEST_SKIP() << "tavrind has not been built";
    msg_set_handler([](const char *) {});
    std::string why;
    cluster = pgcluster::shared(why);
    ASSERT_TRUE(cluster) << why;
  }
  pgcluster::Cluster *cluster = nullptr;
  scratch::ScratchDir folder{"pgstore", false};
  const std::string dir = folder.path();
};

TEST_F(PgStore, ImportedDemoFolderReadsTheSameAndASecondImportIsRefused) {
  Server lite;
  lite.sqlite = true;
  ASSERT_TRUE(lite.start()) << lite.why();
  Texts demo = read_all(lite.ns(), "DEMO"), tdsys = read_all(lite.ns(), "TDSYS");
  ASSERT_GT(demo.size(), 10u) << demo[0];
  ASSERT_EQ(lite.terminate(10s), 0);

  std::string why, db = cluster->new_database(why);
  ASSERT_FALSE(db.empty()) << why;
  std::vector<std::string> import = {"--postgres", db, "--import-sqlite", lite.data_dir()};
  std::string log = dir + "/import.log";
  ASSERT_EQ(run_tavrind(import, log), 0) << scratch::read_file(log);
  // Every table of both databases was counted and checked.
  std::string said = scratch::read_file(log);
  EXPECT_THAT(said, AllOf(HasSubstr("DEMO."), HasSubstr("TDSYS.")));
  EXPECT_NE(run_tavrind(import, log), 0) << "a second import over the same schemas";
  EXPECT_GT(scratch::read_file(log).size(), said.size()) << "the refusal says why";

  Server pg;
  pg.store = db;
  ASSERT_TRUE(pg.start()) << pg.why();
  EXPECT_EQ(read_all(pg.ns(), "DEMO"), demo);
  EXPECT_EQ(read_all(pg.ns(), "TDSYS"), tdsys);
}

TEST_F(PgStore, SavedDatabaseOpensInTheSqliteStoreWithTheSameRows) {
  Server pg;
  ASSERT_TRUE(pg.start()) << pg.why();
  char name[] = "DEMO";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  // Values that a copy between the stores could bend: quotes, a backslash,
  // Latin-1 letters, a tab, trailing blanks, extreme numbers, null markers,
  // binary zero bytes.
  for (const char *sql :
       {"CREATE TABLE WERT (WERT_ID INTEGER NOT NULL, S SMALLINT, I INTEGER, F FLOAT, D DATE, "
        "Z TIME, TS TIMESTAMP, B BINARY(8), C CHARACTER(12))",
        "CREATE UNIQUE INDEX WERT_I ON WERT (WERT_ID)",
        "INSERT INTO WERT VALUES (1, 32767, 2147483647, 1.5e15, '2800-12-31', '23:59:59', "
        "'2800-12-31-23.59.59.999999', '$00$FF$24$41$00$00', 'a''b\\\\c\xE4\xDF\t  ')",
        "INSERT INTO WERT VALUES (2, -32767, -2147483648, -2.25, '1800-01-02', '00:00:01', "
        "'1800-01-01-00.00.00.000001', '$$', '')",
        "INSERT INTO WERT (WERT_ID, S, I, F, D, Z, TS, B) VALUES (3, '', '', '', '', '', '', '')",
        "SAVE DATABASE"})
    ASSERT_EQ(run(c, sql), DBRES_DONE) << sql;
  DBfinish(c);
  DBconn_free(c);
  DBcomm_close();
  Texts saved = read_all(pg.ns(), "DEMO");
  ASSERT_EQ(pg.terminate(10s), 0);
  std::string copy;
  for (auto &e : fs::directory_iterator(pg.data_dir() + "/backup"))
    if (e.path().filename().string().rfind("DEMO_", 0) == 0) copy = e.path();
  ASSERT_FALSE(copy.empty()) << "no DEMO_*.db in the backup folder";

  // The saved file in place of a SQLite data folder's DEMO.
  Server lite;
  lite.sqlite = true;
  ASSERT_TRUE(lite.start()) << lite.why();
  ASSERT_EQ(lite.terminate(10s), 0);
  for (const char *ext : {"", "-wal", "-shm"}) fs::remove(lite.data_dir() + "/DEMO.db" + ext);
  fs::copy_file(copy, lite.data_dir() + "/DEMO.db");
  ASSERT_TRUE(lite.restart()) << lite.why();
  EXPECT_EQ(read_all(lite.ns(), "DEMO"), saved);
}

} // namespace
