// DBexec end to end: a server process built on the server's protocol
// library answers with scripted envelopes and records the request bytes it
// received; the client runs statements through the real transport.
#include "db/client/exec.h"

#include <gmock/gmock.h>

#include "client_testutil.h"
#include "db/client/transport.h"
#include "server/protocol.h"
#include "tests/ipc/ipc_testutil.h"

namespace {

using namespace ct;
using ::testing::AnyOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// What the server saw, in memory shared by fork.
struct Seen {
  std::atomic<int> requests;
  size_t last_length;
  unsigned char last[4096];
};

// Records every request but the opening one and answers by its first byte:
// 'C' a table (a long one for table BIG), 'G' an error, 'I' a count,
// everything else "done".
struct ScriptedHandler : tavrind::RequestHandler {
  Seen *seen;
  explicit ScriptedHandler(Seen *s) : seen(s) {}
  void request(tavrind::ProtocolServer &srv, int ch, tavrind::ChannelContext *,
               const unsigned char *d, size_t n) override {
    if (n > 0 && d[0] != '1') {
      seen->last_length = std::min(n, sizeof seen->last);
      std::memcpy(seen->last, d, seen->last_length);
      ++seen->requests;
    }
    Bytes answer{'1'};
    if (n > 0 && d[0] == 'C') {
      int rows = memmem(d, n, "BIG", 4) ? 3000 : 2;
      Answer a('2');
      a.i32(2).i32(rows).column("NR", DBTYPE_INTEGER, 4).column("NAME", DBTYPE_CHARACTER, 21);
      for (int32_t r = 0; r < rows; ++r) a.value(bin(r)).value(text("Zeile"));
      answer = a.b;
    } else if (n > 0 && d[0] == 'G') {
      answer = error_answer("no such table");
    } else if (n > 0 && d[0] == 'I') {
      answer = Answer('3').i32(5).b;
    }
    srv.answer(ch, answer.data(), answer.size());
  }
};

// The scripted server in a child, its record in shared memory and the
// connection; all of them are gone after every test, passed or not.
class Exec : public ::testing::Test {
protected:
  void SetUp() override {
    ipctest::fresh_namespace();
    alarm(100);
    void *shared =
        mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    seen = new (shared) Seen{};
  }
  void TearDown() override {
    if (c) {
      DBfinish(c);
      DBconn_free(c);
    }
    if (srv > 0) {
      kill(srv, SIGKILL);
      ipctest::join(srv);
    }
    DBcomm_close();
    alarm(0);
    munmap(seen, sizeof(Seen));
  }
  Seen *seen = nullptr;
  pid_t srv = -1;
  DBCONN *c = nullptr;
};

TEST_F(Exec, StatementsTravelAndAnswersComeBackDecoded) {
  auto last = [this] { return Bytes(seen->last, seen->last + seen->last_length); };

  // A connection that was never opened carries no statements.
  DBCONN never_opened;
  EXPECT_EQ(DBexec(&never_opened, "BEGIN"), nullptr);

  ipctest::Gate ready;
  srv = ipctest::spawn([&] {
    alarm(120);
    ScriptedHandler h(seen);
    tavrind::ProtocolServer server(h);
    if (!server.start()) return 3;
    ready.open_gate();
    server.run();
    return 0;
  });
  ASSERT_TRUE(ready.pass());
  c = connect_to("demo");
  ASSERT_EQ(DBstatus(c), 0);

  // The statement is not touched; the server gets exactly the encoding.
  const char *stmt = "select nr, name from art where nr > 0";
  DBRESULT *r = DBexec(c, stmt);
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(stmt, "select nr, name from art where nr > 0");
  EXPECT_EQ(last(), encode(stmt));
  EXPECT_EQ(DBresult_status(r), DBRES_TUPLES);
  EXPECT_EQ(cells(r), "0,Zeile|1,Zeile");
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
  EXPECT_EQ(DBgetvalue(r, 0, 0), nullptr);
  DBclear(r);

  // A statement the parser refuses never reaches the server.
  int before = seen->requests;
  r = DBexec(c, "selec nr from art");
  EXPECT_EQ(DBresult_status(r), DBRES_SYNTAX);
  EXPECT_STREQ(r->message, "(DBexec) Syntax error: SQL-command SELEC not known");
  DBclear(r);
  EXPECT_EQ(seen->requests, before);

  // A request built by hand goes as it is.
  DBreq_reset();
  DBreq_byte('J');
  r = DBexec_request(c);
  EXPECT_EQ(DBresult_status(r), DBRES_DONE);
  EXPECT_STREQ(DBresult_error(r), "");
  EXPECT_EQ(last(), Bytes{'J'});
  DBclear(r);

  EXPECT_EQ(DBexec(nullptr, "BEGIN"), nullptr);
  EXPECT_EQ(DBexec(c, nullptr), nullptr);

  // With the server gone a statement comes back as a transport failure
  // carrying the printed text, and the caller goes on: whether the program
  // ends is the session layer's or the application's decision.
  kill(srv, SIGKILL);
  ipctest::join(srv);
  srv = -1;
  testmsg::Capture cap;
  r = DBexec(c, "BEGIN");
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(DBresult_status(r), DBRES_TRANSPORT);
  EXPECT_EQ(DBstatus(c), DBCONN_IO);
  EXPECT_THAT(DBresult_error(r),
              AnyOf(StartsWith("client write: Data missing (expected "),
                    HasSubstr("server has ended"), EndsWith("DBrecv: No data received\n")));
  EXPECT_EQ(cap.take(), DBresult_error(r));
  DBclear(r);
  // A finished connection carries no statements.
  DBfinish(c);
  EXPECT_EQ(DBexec(c, "BEGIN"), nullptr);
}

} // namespace
