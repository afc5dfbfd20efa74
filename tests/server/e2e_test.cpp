// tavrind as a process, reached through the real client: DBconnect and DBexec
// over the shared-memory transport against the built program on a temporary
// data folder in a namespace of its own. The executor's own tests cover each
// statement in-process; these check that the program, the transport, the
// statement encoder and the answer decoder agree byte for byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "db/client/exec.h"
#include "tests/access/tavrind_fixture.h"

namespace {

class EndToEnd : public ::testing::Test {
protected:
  static tavrind_fixture::Server *server;
  DBCONN *conn = nullptr;

  static void SetUpTestSuite() {
    if (tavrind_fixture::program().empty()) return;
    server = new tavrind_fixture::Server;
    std::string why;
    if (!server->start(why)) {
      std::fprintf(stderr, "tavrind did not start: %s\n", why.c_str());
      delete server;
      server = nullptr;
    }
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }

  void SetUp() override {
    if (tavrind_fixture::program().empty()) GTEST_SKIP() << "tavrind has not been built";
    ASSERT_NE(server, nullptr) << "the built tavrind did not start";
    char db[] = "tdsys";
    conn = DBconnect(db);
    ASSERT_EQ(DBstatus(conn), DBCONN_OK) << DBerrormessage(conn);
  }
  void TearDown() override {
    if (!conn) return;
    DBfinish(conn);
    DBconn_free(conn);
  }

  // Runs a statement and returns its status; `msg` gets the message.
  int run(const std::string &sql, std::string *msg = nullptr) {
    DBRESULT *r = DBexec(conn, sql.c_str());
    if (!r) return -1;
    int st = DBresult_status(r);
    if (msg) *msg = DBresult_error(r);
    DBclear(r);
    return st;
  }

  // The first column of every row of a query.
  std::set<std::string> column0(const std::string &sql) {
    std::set<std::string> out;
    DBRESULT *r = DBexec(conn, sql.c_str());
    EXPECT_EQ(DBresult_status(r), DBRES_TUPLES) << DBresult_error(r);
    for (int i = 0; i < DBntuples(r); ++i) out.insert(DBgetvalue(r, i, 0));
    DBclear(r);
    return out;
  }
};

tavrind_fixture::Server *EndToEnd::server = nullptr;

template <class T> T raw_as(const DBRESULT *r, int row, int col) {
  T v{};
  const void *p = DBgetrawvalue(r, row, col);
  EXPECT_NE(p, nullptr) << "row " << row << " column " << col;
  if (p) std::memcpy(&v, p, sizeof v);
  return v;
}

uint16_t u16(const unsigned char *p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

// Date as year, month, day; a timestamp's first 8 bytes (with its zero byte).
std::string date_of(const unsigned char *p) {
  return std::to_string(u16(p)) + "-" + std::to_string(p[2]) + "-" + std::to_string(p[3]);
}

TEST_F(EndToEnd, FirstStartHasSystemAndDemoDatabases) {
  std::set<std::string> dbs = column0("SHOW DATABASES");
  EXPECT_TRUE(dbs.count("TDSYS")) << "databases: " << dbs.size();
  EXPECT_TRUE(dbs.count("DEMO"));
  std::set<std::string> sys = column0("SHOW TABLES");
  for (const char *t : {"SVZT", "SVZK", "ERROT", "ERR"}) EXPECT_TRUE(sys.count(t)) << t;

  ASSERT_EQ(run("SET DATABASE DEMO"), DBRES_DONE);
  std::set<std::string> demo = column0("SHOW TABLES");
  for (const char *t : {"KUNDE", "ARTIKEL", "AUFTRAG", "POSITION"}) EXPECT_TRUE(demo.count(t)) << t;
  DBRESULT *r = DBexec(conn, "SELECT COUNT(*) FROM KUNDE");
  ASSERT_EQ(DBntuples(r), 1);
  EXPECT_STREQ(DBgetvalue(r, 0, 0), "600");
  DBclear(r);
  // The key column of the demo tables answers one row per key.
  r = DBexec(conn, "SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID = 17");
  ASSERT_EQ(DBresult_status(r), DBRES_TUPLES) << DBresult_error(r);
  EXPECT_EQ(DBntuples(r), 1);
  DBclear(r);
}

TEST_F(EndToEnd, ErrorAnswerTextReachesTheResult) {
  std::string msg;
  EXPECT_EQ(run("SELECT * FROM GIBTESNICHT", &msg), DBRES_ERROR);
  EXPECT_NE(msg.find("(TAVRIN 301)"), std::string::npos) << msg;
  EXPECT_NE(msg.find("GIBTESNICHT"), std::string::npos) << msg;
  EXPECT_EQ(run("SET DATABASE NIRGENDS", &msg), DBRES_ERROR);
  EXPECT_NE(msg.find("(TAVRIN 202)"), std::string::npos) << msg;
  // The channel is still good after errors.
  EXPECT_EQ(run("SHOW TABLES"), DBRES_TUPLES);
  // A statement the client's parser refuses never reaches the server.
  EXPECT_EQ(run("SELEKT FROM"), DBRES_SYNTAX);
}

TEST_F(EndToEnd, DatabaseLifeCycleWithEveryTypeAndLimit) {
  ASSERT_EQ(run("CREATE DATABASE E2EDB"), DBRES_DONE);
  ASSERT_EQ(run("CREATE TABLE WERT (WERT_ID INTEGER NOT NULL, S SMALLINT, I INTEGER, "
                "F FLOAT, D DATE, Z TIME, TS TIMESTAMP, B BINARY(8), C CHARACTER(6))"),
            DBRES_DONE);
  ASSERT_EQ(run("CREATE UNIQUE INDEX WERT_IX ON WERT (WERT_ID)"), DBRES_DONE);
  // Row 1: upper limits; row 2: lower limits; row 3: null values, given as
  // empty texts and left out.
  const char *rows[] = {
      "INSERT INTO WERT VALUES (1, 32767, 2147483647, 1.5e300, '2800-12-31', '23:59:59', "
      "'2800-12-31-23.59.59.999999', '$00$FF$24$41$42$43$44$45', 'ABC\xE4\xDF')",
      "INSERT INTO WERT VALUES (2, -32767, -2147483648, -2.25, '1800-01-02', '00:00:01', "
      "'1800-01-01-00.00.00.000001', '$$', '')",
      "INSERT INTO WERT (WERT_ID, S, I, F, D, Z, TS, B) VALUES (3, '', '', '', '', '', '', '')",
  };
  for (const char *sql : rows) {
    // An INSERT answers the count of rows stored.
    DBRESULT *ins = DBexec(conn, sql);
    ASSERT_EQ(DBresult_status(ins), DBRES_DONE) << sql << DBresult_error(ins);
    EXPECT_EQ(DBntuples(ins), 1) << sql;
    DBclear(ins);
  }
  // A value over a limit is refused with the server's text and stores nothing.
  std::string msg;
  EXPECT_EQ(run("INSERT INTO WERT (WERT_ID, S) VALUES (4, 32768)", &msg), DBRES_ERROR);
  EXPECT_NE(msg.find("(TAVRIN 401)"), std::string::npos) << msg;
  EXPECT_EQ(run("INSERT INTO WERT (WERT_ID, C) VALUES (4, 'SECHS6')", &msg), DBRES_ERROR);
  EXPECT_EQ(run("INSERT INTO WERT (WERT_ID) VALUES (1)", &msg), DBRES_ERROR);
  EXPECT_NE(msg.find("(TAVRIN 405)"), std::string::npos) << msg;

  DBRESULT *r = DBexec(conn, "SELECT * FROM WERT ORDER BY WERT_ID");
  ASSERT_EQ(DBresult_status(r), DBRES_TUPLES) << DBresult_error(r);
  ASSERT_EQ(DBntuples(r), 3);
  ASSERT_EQ(DBnfields(r), 9);
  const int types[] = {DBFT_INTEGER, DBFT_SMALLINT,  DBFT_INTEGER, DBFT_FLOAT,    DBFT_DATE,
                       DBFT_TIME,    DBFT_TIMESTAMP, DBFT_BINARY,  DBFT_CHARACTER};
  const int sizes[] = {4, 2, 4, 8, 4, 3, 12, 8, 6};
  for (int c = 0; c < 9; ++c) {
    EXPECT_EQ(DBfieldtype(r, c), types[c]) << DBfieldname(r, c);
    EXPECT_EQ(DBfieldsize(r, c), sizes[c]) << DBfieldname(r, c);
  }
  EXPECT_STREQ(DBfieldname(r, 0), "WERT_ID");
  EXPECT_STREQ(DBfieldname(r, 8), "C");

  // Upper limits.
  EXPECT_EQ(raw_as<int16_t>(r, 0, 1), 32767);
  EXPECT_EQ(raw_as<int32_t>(r, 0, 2), 2147483647);
  EXPECT_EQ(raw_as<double>(r, 0, 3), 1.5e300);
  auto *d = static_cast<const unsigned char *>(DBgetrawvalue(r, 0, 4));
  EXPECT_EQ(date_of(d), "2800-12-31");
  auto *z = static_cast<const unsigned char *>(DBgetrawvalue(r, 0, 5));
  EXPECT_EQ(z[0] * 10000 + z[1] * 100 + z[2], 235959);
  auto *ts = static_cast<const unsigned char *>(DBgetrawvalue(r, 0, 6));
  EXPECT_EQ(date_of(ts), "2800-12-31");
  EXPECT_EQ(ts[4] * 10000 + ts[5] * 100 + ts[6], 235959);
  uint32_t us;
  std::memcpy(&us, ts + 8, 4);
  EXPECT_EQ(us, 999999u);
  auto *b = static_cast<const unsigned char *>(DBgetrawvalue(r, 0, 7));
  ASSERT_EQ(u16(b), 8);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(b + 2), 8),
            std::string("\x00\xFF$ABCDE", 8));
  // Latin-1 text survives the server's own text storage.
  EXPECT_STREQ(DBgetvalue(r, 0, 8), "ABC\xE4\xDF");

  // Lower limits.
  EXPECT_EQ(raw_as<int16_t>(r, 1, 1), -32767);
  EXPECT_EQ(raw_as<int32_t>(r, 1, 2), INT32_MIN);
  EXPECT_EQ(raw_as<double>(r, 1, 3), -2.25);
  EXPECT_EQ(date_of(static_cast<const unsigned char *>(DBgetrawvalue(r, 1, 4))), "1800-1-2");
  ts = static_cast<const unsigned char *>(DBgetrawvalue(r, 1, 6));
  std::memcpy(&us, ts + 8, 4);
  EXPECT_EQ(us, 1u);
  b = static_cast<const unsigned char *>(DBgetrawvalue(r, 1, 7));
  ASSERT_EQ(u16(b), 1);
  EXPECT_EQ(b[2], '$');
  EXPECT_STREQ(DBgetvalue(r, 1, 8), "");

  // Null values travel as their markers.
  EXPECT_EQ(raw_as<int16_t>(r, 2, 1), -32768);
  EXPECT_EQ(raw_as<int32_t>(r, 2, 2), -2147483647);
  EXPECT_EQ(raw_as<double>(r, 2, 3), -1e20);
  EXPECT_EQ(date_of(static_cast<const unsigned char *>(DBgetrawvalue(r, 2, 4))), "1800-1-1");
  z = static_cast<const unsigned char *>(DBgetrawvalue(r, 2, 5));
  EXPECT_EQ(z[0] + z[1] + z[2], 0);
  ts = static_cast<const unsigned char *>(DBgetrawvalue(r, 2, 6));
  EXPECT_EQ(date_of(ts), "1800-1-1");
  std::memcpy(&us, ts + 8, 4);
  EXPECT_EQ(us + ts[4] + ts[5] + ts[6], 0u);
  EXPECT_EQ(u16(static_cast<const unsigned char *>(DBgetrawvalue(r, 2, 7))), 0);
  // The client shows markers as the values they are; only texts and binary
  // values are empty.
  EXPECT_STREQ(DBgetvalue(r, 2, 7), "");
  EXPECT_STREQ(DBgetvalue(r, 2, 8), "");
  EXPECT_STREQ(DBgetvalue(r, 2, 6), "1800-01-01-00.00.00.000000");
  DBclear(r);

  // A saved copy lands in the backup folder of the data folder.
  ASSERT_EQ(run("SAVE DATABASE", &msg), DBRES_DONE) << msg;
  int copies = 0;
  std::error_code ec;
  for (auto &e : std::filesystem::directory_iterator(server->data_dir() + "/backup", ec))
    if (e.path().filename().string().rfind("E2EDB_", 0) == 0) ++copies;
  EXPECT_EQ(copies, 1);

  ASSERT_EQ(run("DROP DATABASE", &msg), DBRES_DONE) << msg;
  EXPECT_FALSE(std::filesystem::exists(server->data_dir() + "/E2EDB.db"));
  EXPECT_EQ(run("SET DATABASE E2EDB", &msg), DBRES_ERROR);
  ASSERT_EQ(run("SET DATABASE TDSYS"), DBRES_DONE);
  std::set<std::string> dbs = column0("SHOW DATABASES");
  EXPECT_FALSE(dbs.count("E2EDB"));
  EXPECT_TRUE(dbs.count("DEMO"));
}

} // namespace
