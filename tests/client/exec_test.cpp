// DBexec end to end: a server process built on the server's protocol
// library answers with scripted envelopes and records the request bytes it
// received; the client runs statements through the real transport.
#include "db/client/exec.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <string.h>
#include <sys/mman.h>

#include "answer_support.h"
#include "base/msg.h"
#include "db/client/reqbuf.h"
#include "db/client/transport.h"
#include "encode_support.h"
#include "server/protocol.h"
#include "tests/ipc/ipc_testutil.h"

namespace {

// What the server saw, in memory shared by fork.
struct Seen {
  std::atomic<int> requests;
  size_t last_length;
  unsigned char last[4096];
};

// Answers by the request's first byte: 'C' a table (a long one for table
// BIG), 'G' an error, 'I' a count, everything else "done".
class ScriptedHandler : public tavrind::RequestHandler {
public:
  explicit ScriptedHandler(Seen *seen) : seen_(seen) {}
  void request(tavrind::ProtocolServer &srv, int ch, tavrind::ChannelContext *,
               const unsigned char *d, size_t n) override {
    if (n > 0 && d[0] != '1') {
      seen_->last_length = n < sizeof seen_->last ? n : sizeof seen_->last;
      std::memcpy(seen_->last, d, seen_->last_length);
      ++seen_->requests;
    }
    ans::Bytes answer{'1'};
    if (n > 0 && d[0] == 'C') {
      bool big = memmem(d, n, "BIG", 4) != nullptr;
      int rows = big ? 3000 : 2;
      ans::Answer a('2');
      a.i32(2).i32(rows).column("NR", DBTYPE_INTEGER, 4).column("NAME", DBTYPE_CHARACTER, 21);
      for (int32_t r = 0; r < rows; ++r) a.value(ans::bin(r)).value(ans::text("Zeile"));
      answer = a.b;
    } else if (n > 0 && d[0] == 'G') {
      answer = ans::Answer('0').raw({'b', 14, 0}).raw(ans::text("no such table")).b;
    } else if (n > 0 && d[0] == 'I') {
      answer = ans::Answer('3').i32(5).b;
    }
    srv.answer(ch, answer.data(), answer.size());
  }

private:
  Seen *seen_;
};

tavrind::ProtocolServer *g_server = nullptr;

pid_t start_server(Seen *seen) {
  ipctest::Gate ready;
  pid_t pid = ipctest::spawn([&] {
    alarm(120);
    ScriptedHandler h(seen);
    tavrind::ProtocolServer srv(h);
    if (!srv.start()) return 3;
    g_server = &srv;
    signal(SIGTERM, [](int) { g_server->request_stop(); });
    ready.open_gate();
    srv.run();
    srv.shutdown();
    return 0;
  });
  if (!ready.pass()) {
    ipctest::join_within(pid, 1000);
    return -1;
  }
  return pid;
}

class Exec : public ::testing::Test {
protected:
  void SetUp() override {
    ipctest::fresh_namespace();
    void *p =
        mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    seen_ = new (p) Seen{};
    alarm(100);
  }
  void TearDown() override {
    DBcomm_close();
    alarm(0);
    munmap(seen_, sizeof(Seen));
  }
  ans::Bytes last() const { return ans::Bytes(seen_->last, seen_->last + seen_->last_length); }
  Seen *seen_ = nullptr;
};

TEST_F(Exec, StatementsTravelAndAnswersComeBackDecoded) {
  pid_t srv = start_server(seen_);
  ASSERT_GT(srv, 0);
  char name[] = "demo";
  DBCONN *c = DBconnect(name);
  ASSERT_EQ(DBstatus(c), 0);

  // The statement is not touched; the server gets exactly the encoding.
  const char *stmt = "select nr, name from art where nr > 0";
  DBRESULT *r = DBexec(c, stmt);
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(stmt, "select nr, name from art where nr > 0");
  EXPECT_EQ(last(), enc::encode(stmt));
  EXPECT_EQ(DBresult_status(r), DBRES_TUPLES);
  EXPECT_EQ(DBntuples(r), 2);
  EXPECT_STREQ(DBgetvalue(r, 1, 0), "1");
  EXPECT_STREQ(DBgetvalue(r, 1, 1), "Zeile");
  DBclear(r);

  // An answer longer than the 10000-byte buffer.
  r = DBexec(c, "SELECT * FROM big;");
  EXPECT_EQ(DBntuples(r), 3000);
  EXPECT_STREQ(DBgetvalue(r, 2999, 0), "2999");
  DBclear(r);

  r = DBexec(c, "DELETE FROM art");
  EXPECT_EQ(DBresult_status(r), DBRES_ERROR);
  EXPECT_STREQ(DBresult_error(r), "no such table\n");
  DBclear(r);

  r = DBexec(c, "UPDATE art SET name = 'x'");
  EXPECT_EQ(DBresult_status(r), DBRES_DONE);
  EXPECT_EQ(DBntuples(r), 5);
  DBclear(r);

  // A statement the parser refuses never reaches the server.
  int before = seen_->requests;
  r = DBexec(c, "selec nr from art");
  EXPECT_EQ(DBresult_status(r), DBRES_SYNTAX);
  EXPECT_STREQ(r->message, "(DBexec) Syntax error: SQL-command SELEC not known");
  DBclear(r);
  EXPECT_EQ(seen_->requests, before);

  // A request built by hand goes as it is.
  DBreq_reset();
  DBreq_byte('J');
  r = DBexec_request(c);
  EXPECT_EQ(DBresult_status(r), DBRES_DONE);
  EXPECT_EQ(last(), ans::Bytes{'J'});
  DBclear(r);

  EXPECT_EQ(DBexec(nullptr, "BEGIN"), nullptr);
  EXPECT_EQ(DBexec(c, nullptr), nullptr);

  // With the server gone a statement ends the process.
  kill(srv, SIGKILL);
  ipctest::join(srv);
  EXPECT_EXIT(
      {
        msg_set_handler([](const char *t) { std::fputs(t, stderr); });
        DBexec(c, "BEGIN");
      },
      ::testing::ExitedWithCode(1), "");
  // A finished connection carries no statements.
  DBfinish(c);
  EXPECT_EQ(DBexec(c, "BEGIN"), nullptr);
  DBconn_free(c);
}

TEST_F(Exec, ConnectionThatIsNotOpenGivesNoResult) {
  msg_set_handler([](const char *) {});
  char name[] = "demo";
  DBCONN *c = DBconnect(name); // no server in this namespace
  EXPECT_NE(DBstatus(c), 0);
  EXPECT_EQ(DBexec(c, "BEGIN"), nullptr);
  DBconn_free(c);
  msg_set_handler(nullptr);
}

} // namespace
