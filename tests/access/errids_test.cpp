// ERR row ids against a real server: several processes started together
// write their log entries at once; every entry gets a row, no insert meets a
// taken id, and the ids use the whole alphabet of the column unchanged.
#include <cstring>
#include <set>

#include "access_testutil.h"
#include "db/access/errtext.h"
#include "db/client/exec.h"
#include "tests/tavrind_fixture.h"
#include "tests/ipc/ipc_testutil.h"

namespace {

constexpr int kProcesses = 4;
// Ids each process draws, and how many of them it writes as ERR rows (all
// of them would take the server about ten times as long under sanitizers).
constexpr int kIdsEach = 25000;
constexpr int kRowsEach = 2500;
constexpr int kRowsPerTransaction = 500;

// One process: its own connection, kRowsEach entries in transactions of
// kRowsPerTransaction, then the rest of its ids drawn alone. Every id it
// drew or wrote goes into the file `ids`, one per line. Exits 0 when no
// message but the entries' own texts came up.
[[noreturn]] void writer(const std::string &ids) {
  static int others = 0;
  msg_set_handler([](const char *t) {
    if (std::strcmp(t, "INFO_Internal: 'Eintrag'!\n") != 0) {
      std::fputs(t, stderr);
      ++others;
    }
  });
  std::FILE *out = std::fopen(ids.c_str(), "w");
  DBSESSION *s = nullptr;
  if (!out || dbinit(&s, "DBSQL/tdsys") != 1) _exit(2);
  BASECTX ctx;
  BASECTX_Init(&ctx, s);
  for (int i = 0; i < kRowsEach && others == 0; ++i) {
    if (i % kRowsPerTransaction == 0 && ((i > 0 && !dbend(s)) || !dbbegin(s))) _exit(3);
    INFO_Internal(&ctx, "Eintrag");
  }
  if (!dbend(s)) _exit(3);
  dbclose(s);
  char id[ERR_ROW_ID_LEN + 1];
  for (int i = kRowsEach; i < kIdsEach; ++i)
    if (ERR_NewRowId(id)) std::fprintf(out, "%s\n", id);
  _exit(others == 0 && std::fclose(out) == 0 ? 0 : 1);
}

TEST(ErrRowIds, ManyProcessesAtOnceNeverCollide) {
  tavrind_fixture::Server server;
  if (!server.start()) GTEST_SKIP() << server.why();
  access_test::ScratchDir scratch;
  // The processes start within the same second, as a batch job's would;
  // this one holds no connection while it forks.
  std::vector<pid_t> pids;
  for (int p = 0; p < kProcesses; ++p)
    pids.push_back(ipctest::spawn([p]() -> int { writer("ids" + std::to_string(p)); }));
  for (pid_t pid : pids) EXPECT_EQ(ipctest::join(pid), 0) << "writer status";

  char tdsys[] = "tdsys";
  DBCONN *c = DBconnect(tdsys);
  ASSERT_EQ(DBstatus(c), DBCONN_OK) << DBerrormessage(c);
  DBRESULT *r = DBexec(c, "SELECT ROW_ID FROM ERR");
  ASSERT_EQ(DBresult_status(r), DBRES_TUPLES) << DBresult_error(r);
  EXPECT_EQ(DBntuples(r), kProcesses * kRowsEach + 1) << "and the first start's entry";
  std::set<std::string> ids;
  std::set<unsigned char> used; // characters of the rows the server gave back
  for (int i = 0; i < DBntuples(r); ++i) {
    std::string id = DBgetvalue(r, i, 0);
    EXPECT_EQ(id.size(), ERR_ROW_ID_LEN) << id;
    used.insert(id.begin(), id.end());
    ids.insert(id);
  }
  DBclear(r);
  DBfinish(c);
  DBconn_free(c);
  int lines = 0;
  for (int p = 0; p < kProcesses; ++p) {
    std::istringstream in(access_test::read_file("ids" + std::to_string(p)));
    for (std::string id; std::getline(in, id); ++lines) ids.insert(id);
  }
  EXPECT_EQ(lines, kProcesses * (kIdsEach - kRowsEach));
  EXPECT_EQ(ids.size(), size_t(kProcesses) * kIdsEach + 1) << "every id drawn once";

  // Printable Latin-1 without blank, quotes, backslash and soft hyphen, each
  // of them stored and given back by the server as it was.
  std::set<unsigned char> alphabet;
  for (int ch = 0x21; ch <= 0xFF; ++ch)
    if ((ch < 0x7F || ch > 0xA0) && ch != '"' && ch != '\'' && ch != '\\' && ch != 0xAD)
      alphabet.insert(static_cast<unsigned char>(ch));
  EXPECT_EQ(used, alphabet);
}

} // namespace
