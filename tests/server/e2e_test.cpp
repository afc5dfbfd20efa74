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

#include "tests/access/tavrind_fixture.h"
#include "tests/server/faults_server.h"

namespace {

using Texts = std::vector<std::string>;
using faults::rows;

TEST(EndToEnd, EveryTypeTravelsAndStopEndsTheProgram) {
  if (tavrind_fixture::program().empty()) GTEST_SKIP() << "tavrind has not been built";
  tavrind_fixture::Server server;
  std::string why;
  ASSERT_TRUE(server.start(why)) << why;
  char db[] = "tdsys";
  DBCONN *c = DBconnect(db);
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  EXPECT_EQ(rows(c, "SHOW DATABASES"), (Texts{"DEMO", "TDSYS"}));
  EXPECT_EQ(rows(c, "SELECT * FROM GIBTESNICHT"),
            Texts{"(TAVRIN 301) Tabelle GIBTESNICHT existiert nicht\n"});
  // A statement the client's parser refuses never reaches the server.
  EXPECT_EQ(faults::run(c, "SELEKT FROM"), DBRES_SYNTAX);
  ASSERT_EQ(faults::run(c, "CREATE DATABASE E2EDB"), DBRES_DONE);
  ASSERT_EQ(faults::run(c, "CREATE TABLE WERT (WERT_ID INTEGER NOT NULL, S SMALLINT, I INTEGER, "
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
        "'')"})
    EXPECT_EQ(rows(c, sql), Texts{"1"}) << sql;
  // The client shows null markers as the values they are; only texts and
  // binary values are empty.
  EXPECT_EQ(rows(c, "SELECT * FROM WERT ORDER BY WERT_ID"),
            (Texts{"1|32767|2147483647|1500000000000000|2800-12-31|23:59:59|"
                   "2800-12-31-23.59.59.999999|\24700FF\247$$ABCDE|ABC\xE4\xDF",
                   "2|-32767|-2147483648|-2.25|1800-01-02|00:00:01|"
                   "1800-01-01-00.00.00.000001|$$|",
                   "3|-32768|-2147483647|-100000000000000000000|1800-01-01|00:00:00|"
                   "1800-01-01-00.00.00.000000||"}));

  // Dropped on either store, the database is gone.
  EXPECT_EQ(faults::run(c, "DROP DATABASE"), DBRES_DONE);
  EXPECT_FALSE(std::filesystem::exists(server.data_dir() + "/E2EDB.db"));
  EXPECT_EQ(faults::run(c, "SET DATABASE E2EDB"), DBRES_ERROR);

  // STOP is answered, then the program ends: a new client finds no server.
  EXPECT_EQ(faults::run(c, "STOP"), DBRES_DONE);
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
  EXPECT_EQ(rows(c, "SHOW DATABASES"), Texts{"TDSYS"});
  EXPECT_GT(std::atoi(rows(c, "SELECT COUNT(*) FROM ERROT").at(0).c_str()), 0)
      << "TDSYS is filled as without the option";
  DBfinish(c);
  DBconn_free(c);
}

} // namespace
