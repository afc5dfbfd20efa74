// tavrind as a process, reached through the real client: DBconnect and DBexec
// over the shared-memory transport against the built program on a temporary
// data folder in a namespace of its own. The executor's own tests cover each
// statement in-process; this one checks that the program, the transport, the
// statement encoder and the answer decoder agree on every type, and that
// STOP ends the program.
#include <gtest/gtest.h>

#include "base/msg.h"
#include "db/client/transport.h"
#include "tests/tavrind_fixture.h"

namespace {

using Texts = std::vector<std::string>;
using namespace tavrind_fixture;

// Starts `server` with the options `extra` and connects to TDSYS on it.
DBCONN *start_and_connect(Server &server, const std::vector<std::string> &extra) {
  if (!server.start(extra)) return nullptr;
  char db[] = "tdsys";
  return DBconnect(db);
}

TEST(EndToEnd, EveryTypeTravelsAndStopEndsTheProgram) {
  if (program().empty()) GTEST_SKIP() << "tavrind has not been built";
  Server server;
  DBCONN *c = start_and_connect(server, {});
  ASSERT_TRUE(c) << server.why();
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  EXPECT_EQ(rows(c, "SHOW DATABASES"), (Texts{"DEMO", "TDSYS"}));
  EXPECT_EQ(rows(c, "SELECT * FROM GIBTESNICHT"),
            Texts{"(TAVRIN 301) Tabelle GIBTESNICHT existiert nicht\n"});
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
  EXPECT_EQ(run(c, "DROP DATABASE"), DBRES_DONE);
  EXPECT_FALSE(std::filesystem::exists(server.data_dir() + "/E2EDB.db"));
  EXPECT_EQ(run(c, "SET DATABASE E2EDB"), DBRES_ERROR);

  // STOP is answered, then the program ends by itself.
  EXPECT_EQ(run(c, "STOP"), DBRES_DONE);
  EXPECT_EQ(server.terminate(std::chrono::seconds(5), false), 0) << "tavrind ended after STOP";
  MsgHandler old = msg_set_handler([](const char *) {});
  DBfinish(c);
  DBconn_free(c);
  DBcomm_close();
  msg_set_handler(old);
}

TEST(EndToEnd, NoDemoMakesTheSystemDatabaseOnly) {
  if (program().empty()) GTEST_SKIP() << "tavrind has not been built";
  Server server;
  DBCONN *c = start_and_connect(server, {"--no-demo"});
  ASSERT_TRUE(c) << server.why();
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  EXPECT_EQ(rows(c, "SHOW DATABASES"), Texts{"TDSYS"});
  EXPECT_GT(std::atoi(rows(c, "SELECT COUNT(*) FROM ERROT").at(0).c_str()), 0)
      << "TDSYS is filled as without the option";
  DBfinish(c);
  DBconn_free(c);
  DBcomm_close();
}

} // namespace
