// tavrind as a process, reached through the real client: DBconnect and DBexec
// over the shared-memory transport against the built program on a temporary
// data folder in a namespace of its own. The executor's own tests cover each
// statement in-process; this one checks that the program, the transport, the
// statement encoder and the answer decoder agree on every type, and that
// STOP ends the program.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "db/client/exec.h"
#include "tests/access/tavrind_fixture.h"

namespace {

using Texts = std::vector<std::string>;

// Runs a statement; returns its status. *out gets the rows as the client
// shows them (values joined by '|'), the count of a change, or the message.
int run(DBCONN *c, const std::string &sql, Texts *out = nullptr) {
  DBRESULT *r = DBexec(c, sql.c_str());
  if (!r) return -1;
  int st = DBresult_status(r);
  if (out) {
    out->clear();
    for (int i = 0; st == DBRES_TUPLES && i < DBntuples(r); ++i) {
      std::string row;
      for (int k = 0; k < DBnfields(r); ++k)
        row += (k ? "|" : "") + std::string(DBgetvalue(r, i, k));
      out->push_back(row);
    }
    if (st == DBRES_DONE) out->push_back(std::to_string(DBntuples(r)));
    if (st == DBRES_ERROR) out->push_back(DBresult_error(r));
  }
  DBclear(r);
  return st;
}

TEST(EndToEnd, EveryTypeTravelsAndStopEndsTheProgram) {
  if (tavrind_fixture::program().empty()) GTEST_SKIP() << "tavrind has not been built";
  tavrind_fixture::Server server;
  std::string why;
  ASSERT_TRUE(server.start(why)) << why;
  char db[] = "tdsys";
  DBCONN *c = DBconnect(db);
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  Texts out;
  ASSERT_EQ(run(c, "SHOW DATABASES", &out), DBRES_TUPLES);
  EXPECT_EQ(out, (Texts{"DEMO", "TDSYS"}));
  EXPECT_EQ(run(c, "SELECT * FROM GIBTESNICHT", &out), DBRES_ERROR);
  EXPECT_EQ(out, Texts{"(TAVRIN 301) Tabelle GIBTESNICHT existiert nicht\n"});
  // A statement the client's parser refuses never reaches the server.
  EXPECT_EQ(run(c, "SELEKT FROM"), DBRES_SYNTAX);
  ASSERT_EQ(run(c, "CREATE DATABASE E2EDB"), DBRES_DONE);
  ASSERT_EQ(run(c, "CREATE TABLE WERT (WERT_ID INTEGER NOT NULL, S SMALLINT, I INTEGER, "
                   "F FLOAT, D DATE, Z TIME, TS TIMESTAMP, B BINARY(8), C CHARACTER(6))"),
            DBRES_DONE);
  // Large values, small values, and null values given as empty texts and
  // left out.
  for (const char *sql :
       {"INSERT INTO WERT VALUES (1, 32767, 2147483647, 1.5e15, '2800-12-31', '23:59:59', "
        "'2800-12-31-23.59.59.999999', '$00$FF$24$41$42$43$44$45', 'ABC\xE4\xDF')",
        "INSERT INTO WERT VALUES (2, -32767, -2147483648, -2.25, '1800-01-02', '00:00:01', "
        "'1800-01-01-00.00.00.000001', '$$', '')",
        "INSERT INTO WERT (WERT_ID, S, I, F, D, Z, TS, B) VALUES (3, '', '', '', '', '', '', "
        "'')"}) {
    ASSERT_EQ(run(c, sql, &out), DBRES_DONE) << sql << out[0];
    EXPECT_EQ(out, Texts{"1"}) << "the count of rows stored";
  }
  // The client shows null markers as the values they are; only texts and
  // binary values are empty.
  ASSERT_EQ(run(c, "SELECT * FROM WERT ORDER BY WERT_ID", &out), DBRES_TUPLES);
  EXPECT_EQ(out, (Texts{"1|32767|2147483647|1500000000000000|2800-12-31|23:59:59|"
                        "2800-12-31-23.59.59.999999|\24700FF\247$$ABCDE|ABC\xE4\xDF",
                        "2|-32767|-2147483648|-2.25|1800-01-02|00:00:01|"
                        "1800-01-01-00.00.00.000001|$$|",
                        "3|-32768|-2147483647|-100000000000000000000|1800-01-01|00:00:00|"
                        "1800-01-01-00.00.00.000000||"}));

  // A saved copy lands in the backup folder of the data folder.
  ASSERT_EQ(run(c, "SAVE DATABASE", &out), DBRES_DONE) << out[0];
  int copies = 0;
  for (auto &e : std::filesystem::directory_iterator(server.data_dir() + "/backup"))
    copies += e.path().filename().string().rfind("E2EDB_", 0) == 0;
  EXPECT_EQ(copies, 1);
  ASSERT_EQ(run(c, "DROP DATABASE", &out), DBRES_DONE) << out[0];
  EXPECT_FALSE(std::filesystem::exists(server.data_dir() + "/E2EDB.db"));
  EXPECT_EQ(run(c, "SET DATABASE E2EDB"), DBRES_ERROR);

  // STOP is answered, then the program ends: a new client finds no server.
  EXPECT_EQ(run(c, "STOP"), DBRES_DONE);
  MsgHandler old = msg_set_handler([](const char *) {});
  DBfinish(c);
  DBconn_free(c);
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    DBCONN *d = DBconnect(db);
    gone = DBstatus(d) != DBCONN_OK;
    if (!gone) DBfinish(d);
    DBconn_free(d);
    if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  msg_set_handler(old);
  EXPECT_TRUE(gone);
}

TEST(EndToEnd, NoDemoMakesTheSystemDatabaseOnly) {
  if (tavrind_fixture::program().empty()) GTEST_SKIP() << "tavrind has not been built";
  tavrind_fixture::Server server;
  server.options = {"--no-demo"};
  std::string why;
  ASSERT_TRUE(server.start(why)) << why;
  char db[] = "tdsys";
  DBCONN *c = DBconnect(db);
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  Texts out;
  ASSERT_EQ(run(c, "SHOW DATABASES", &out), DBRES_TUPLES);
  EXPECT_EQ(out, Texts{"TDSYS"});
  ASSERT_EQ(run(c, "SELECT COUNT(*) FROM ERROT", &out), DBRES_TUPLES);
  EXPECT_NE(out, Texts{"0"}) << "TDSYS is filled as without the option";
  DBfinish(c);
  DBconn_free(c);
}

} // namespace
