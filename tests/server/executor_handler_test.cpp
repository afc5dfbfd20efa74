// The executor behind the real protocol server, driven by the real client in
// other processes: statements and their results as applications see them,
// a client parked while another holds the write lock, a dying client's
// transaction rolled back, and STOP.
#include "tests/server/executor_testutil.h"

#include "base/msg.h"
#include "db/client/exec.h"
#include "db/client/transport.h"
#include "server/handler.h"
#include "tests/ipc/ipc_testutil.h"

#include <sys/wait.h>

namespace exectest {
namespace {

tavrind::ProtocolServer *g_srv = nullptr;

class HandlerServed : public ::testing::Test {
protected:
  void SetUp() override {
    ipctest::fresh_namespace();
    alarm(200);
    char tmpl[] = "/tmp/tavrind-served-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    ipctest::Gate ready;
    std::string dir = dir_;
    server_ = ipctest::spawn([&ready, dir] {
      Executor ex;
      std::string err;
      if (!catalog_init(ex.catalog, dir, err)) return 3;
      tavrind::ExecHandler h(ex);
      tavrind::ProtocolServer srv(h);
      if (!srv.start()) return 4;
      g_srv = &srv;
      signal(SIGTERM, [](int) { g_srv->request_stop(); });
      ready.open_gate();
      srv.run();
      srv.shutdown();
      return 0;
    });
    ASSERT_TRUE(ready.pass());
  }
  void TearDown() override {
    DBcomm_close();
    if (server_ > 0 && kill(server_, 0) == 0) {
      kill(server_, SIGTERM);
      ipctest::join_within(server_, 10000);
    }
    alarm(0);
    std::filesystem::remove_all(dir_);
  }
  static DBCONN *connect(const char *db) {
    std::string name = db;
    DBCONN *c = DBconnect(name.data());
    EXPECT_EQ(DBstatus(c), 0) << DBerrormessage(c);
    return c;
  }
  // Runs a statement; returns its status, the first value (or message) in *out.
  static int exec(DBCONN *c, const char *sql, std::string *out = nullptr) {
    DBRESULT *r = DBexec(c, sql);
    if (!r) return -1;
    int st = DBresult_status(r);
    if (out) *out = st == 4 ? DBresult_error(r) : (DBntuples(r) > 0 ? DBgetvalue(r, 0, 0) : "");
    DBclear(r);
    return st;
  }

  std::string dir_;
  pid_t server_ = -1;
};

TEST_F(HandlerServed, ClientsSeeResultsErrorsAndWaitForLocks) {
  // A second client waits, parked, for the first one's transaction.
  ipctest::Gate go;
  pid_t second = ipctest::spawn([&go] {
    if (!go.pass()) return 10;
    DBCONN *c = connect("DEMO");
    int st = exec(c, "INSERT INTO ARTIKEL (ARTIKEL_ID, BEZEICHNUNG) VALUES (9002, 'Zweiter')");
    DBfinish(c);
    DBconn_free(c);
    return st == 1 ? 0 : 11;
  });

  DBCONN *c = connect("demo");
  std::string v;
  ASSERT_EQ(exec(c, "SELECT NAME FROM KUNDE WHERE KUNDE_ID = 1", &v), 2);
  EXPECT_FALSE(v.empty());
  ASSERT_EQ(exec(c, "SELECT MIN(AUFTRAGSDATUM) FROM AUFTRAG", &v), 2);
  EXPECT_EQ(v.substr(0, 3), "202");
  EXPECT_EQ(exec(c, "SELECT * FROM NIX", &v), 4);
  EXPECT_EQ(v, "(TAVRIN 301) Tabelle NIX existiert nicht\n");
  EXPECT_EQ(exec(c, "SELECT COUNT(*) FROM KUNDE", &v), 2);
  EXPECT_EQ(v, "600");

  ASSERT_EQ(exec(c, "BEGIN"), 1);
  ASSERT_EQ(exec(c, "INSERT INTO ARTIKEL (ARTIKEL_ID, BEZEICHNUNG) VALUES (9001, 'Erster')"), 1);
  go.open_gate();
  usleep(500000);
  int st = 0;
  EXPECT_EQ(waitpid(second, &st, WNOHANG), 0) << "the second client must still wait";
  ASSERT_EQ(exec(c, "COMMIT"), 1);
  EXPECT_EQ(ipctest::join_within(second, 10000), 0);
  EXPECT_EQ(exec(c, "SELECT COUNT(*) FROM ARTIKEL WHERE ARTIKEL_ID > 9000", &v), 2);
  EXPECT_EQ(v, "2");

  // A client that dies inside a transaction loses it.
  pid_t dying = ipctest::spawn([] {
    DBCONN *d = connect("DEMO");
    exec(d, "BEGIN");
    exec(d, "DELETE FROM ARTIKEL");
    return 7; // ends without closing: spawn leaves with _exit
  });
  EXPECT_EQ(ipctest::join_within(dying, 10000), 7);
  for (int i = 0; i < 200 && exec(c, "DELETE FROM ARTIKEL WHERE ARTIKEL_ID = 9001") != 1; ++i)
    usleep(10000);
  EXPECT_EQ(exec(c, "SELECT COUNT(*) FROM ARTIKEL WHERE ARTIKEL_ID > 9000", &v), 2);
  EXPECT_EQ(v, "1");

  EXPECT_EQ(exec(c, "STOP"), 1);
  DBfinish(c);
  DBconn_free(c);
  EXPECT_EQ(ipctest::join_within(server_, 10000), 0);
  server_ = -1;
}

} // namespace
} // namespace exectest
