// The repair journal: its line format with hostile values, the files it
// writes, and recording and undoing changes against a real server.
#include "db/access/jrnundo.h"
#include "db/access/journal.h"
#include "served_suite.h"

namespace {

using namespace access_test;

JrnEntry hostile_entry() {
  JrnEntry e;
  e.token = "t\\1";
  e.time = "2026-11-25 02:00:00";
  e.user = "ana\tlyst";
  e.ns = "u1000_";
  e.database = "DEMO";
  e.table = "KUNDE";
  e.key = "KUNDE_ID";
  e.kind = JRN_UPDATE;
  e.columns = {"KUNDE_ID", "NAME", "BEMERKUNG"};
  e.types = {3, 0, 0};
  e.before = {{std::string("7"), std::nullopt, std::string("")},
              {std::string("8"), std::string("\\N"), std::string("O'Brien \"x\"\n2. Zeile\r")}};
  e.after = {{std::string("7"), std::string("\xC4rger \xDF\x01\x7f"), std::string("a\tb\\c\\")},
             {std::string("8"), std::string("\\"), std::nullopt}};
  return e;
}

TEST(Journal, FormatKeepsEveryValueAndCutEntriesAreIgnored) {
  JrnEntry e = hostile_entry();
  std::string text = jrn_format(e);
  // Every record is one line: no value's LF, CR or TAB leaks into the file.
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 7);
  EXPECT_EQ(text.find('\r'), std::string::npos);
  EXPECT_NE(text.find("\tKUNDE_ID\tupdate\t-\n"), std::string::npos); // the kind, no undone entry

  JrnEntry d = e;
  d.token = "t2";
  d.kind = JRN_DELETE;
  d.undoes = "t\\1";
  d.after.clear();
  std::string whole = text + "S\tt\\\\1\tcommitted\n" + jrn_format(d) + "S\tt2\tcommitted\n";
  int skipped = -1;
  std::vector<JrnEntry> got = jrn_parse(whole, &skipped);
  EXPECT_EQ(skipped, 0);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].number, 1);
  EXPECT_EQ(std::tie(got[0].token, got[0].user, got[0].columns, got[0].types, got[0].before),
            std::tie(e.token, e.user, e.columns, e.types, e.before));
  EXPECT_EQ(got[0].after, e.after);
  EXPECT_EQ(got[0].status, JRN_COMMITTED);
  EXPECT_EQ(got[0].undone_by, 2); // the committed entry 2 takes it back
  EXPECT_EQ(got[1].kind, JRN_DELETE);
  EXPECT_EQ(got[1].undoes, "t\\1");

  // A crash in the middle of an entry leaves it without its end: it is not
  // shown; an entry without a status line is "unknown".
  std::string cut = text + jrn_format(d).substr(0, 40);
  got = jrn_parse(cut, &skipped);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].status, JRN_UNKNOWN);
  EXPECT_GT(skipped, 0);

  JrnValue v;
  for (const char *bad : {"\\", "a\\q", "\\x4", "\\xZZ", "x\ty"})
    EXPECT_FALSE(jrn_decode_field(bad, &v)) << bad;
}

TEST(Journal, FilesArePrivateAndAppendsFollowACutLine) {
  ScratchDir scratch;
  std::string home = std::filesystem::current_path().string() + "/data";
  setenv("XDG_DATA_HOME", home.c_str(), 1);
  std::string path = jrn_path("u1000_/x", "DEMO");
  EXPECT_EQ(path, home + "/zentiq/journal/DEMO@u1000_%2Fx.jrn");
  JrnEntry e = hostile_entry(), f = hostile_entry();
  e.token.clear();
  f.token.clear();
  std::string why;
  ASSERT_EQ(jrn_append(path, &e, &why), 1) << why;
  EXPECT_FALSE(e.token.empty());
  // A crash cut the next write short: the following entry still reads.
  write_file(path, read_file(path) + "E\tbroken");
  ASSERT_EQ(jrn_append(path, &f, &why), 1) << why;
  ASSERT_EQ(jrn_mark(path, f.token, JRN_ABORTED, &why), 1);
  std::vector<JrnEntry> got;
  ASSERT_EQ(jrn_read(path, &got, &why), 1);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[1].token, f.token);
  EXPECT_EQ(got[1].status, JRN_ABORTED);
  EXPECT_EQ(got[1].after, f.after);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(std::filesystem::status(jrn_folder()).permissions(), std::filesystem::perms(0700));
  unsetenv("XDG_DATA_HOME");
}

class JournalServed : public ServedSuite<JournalServed> {
protected:
  std::unique_ptr<ScratchDir> scratch;
  std::string path, why;
  std::vector<JrnProblem> problems;
  int number = 0; // of the last undo's entry

  void SetUp() override {
    ServedSuite::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    scratch = std::make_unique<ScratchDir>();
    path = std::filesystem::current_path().string() + "/j.jrn";
    exec("DROP TABLE JT;");
    exec("CREATE TABLE JT (JT_ID INTEGER NOT NULL, NAME CHARACTER(40), MENGE FLOAT, AM DATE);");
    exec("INSERT INTO JT VALUES (1, 'O''Brien \\\\ \xC4', 2.5, '2003-07-12');");
    // A float whose shown text ("0.3") is not its value.
    exec("INSERT INTO JT VALUES (2, 'zwei', 0.30000000000000004, '');");
  }
  std::string row(int id) {
    DBRESULT *r = nullptr;
    int outcome = 0;
    std::string sql = "SELECT * FROM JT WHERE JT_ID = " + std::to_string(id) + ";";
    dbexec1(s, sql.c_str(), &r, &outcome);
    std::string out = dbntuples(s, r) == 1 ? "" : "<none>";
    for (int c = 0; dbntuples(s, r) == 1 && c < dbnfields(s, r); ++c)
      out += (c ? "|" : "") + dbgetshown(s, r, 0, c);
    dbclear(s, r);
    return out;
  }
  // Runs a typed change as the viewer records it: rows read before (two at
  // most, the most any test changes), the statement, rows read again, the
  // entry synced before the commit. With `commit` false the program "ends"
  // between the sync and the commit: the entry stays written, the change is
  // taken back.
  JrnEntry record(const std::string &where, const std::string &stmt, JrnKind kind,
                  bool commit = true) {
    JrnEntry e;
    e.database = "DEMO";
    e.kind = kind;
    EXPECT_EQ(dbbegin(s), 1);
    EXPECT_EQ(jrn_read_rows(s, "JT", where, 2, &e, &e.before, &why), JRN_READ_OK) << why;
    EXPECT_GE(exec(stmt), 1);
    std::vector<JrnValue> keys;
    for (const JrnRow &r : e.before) keys.push_back(r[0]);
    if (kind == JRN_UPDATE) {
      EXPECT_EQ(jrn_read_keys(s, e, keys, &e.after, &why), JRN_READ_OK) << why;
    }
    if (commit) {
      EXPECT_EQ(jrn_commit(s, path, &e, &why), JRN_COMMIT_OK) << why;
    } else {
      EXPECT_EQ(jrn_append(path, &e, &why), 1) << why;
      dbrollback(s);
      dbend(s);
    }
    return e;
  }
  int undo(const JrnEntry &e) { return jrn_undo(s, path, e, &problems, &why, &number); }
  std::vector<JrnEntry> entries() {
    std::vector<JrnEntry> all;
    EXPECT_EQ(jrn_read(path, &all, &why), 1) << why;
    return all;
  }
};

TEST_F(JournalServed, UndoOfAnUpdateAndOfADeleteRestoresTheRowsAndIsRecorded) {
  std::string one = row(1), two = row(2);
  record("WHERE JT_ID >= 1", "UPDATE JT SET NAME = 'neu', MENGE = 1, AM = '' WHERE JT_ID >= 1;",
         JRN_UPDATE);
  ASSERT_EQ(row(1), "1|neu|1|");
  std::vector<JrnEntry> all = entries();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].status, JRN_COMMITTED);
  EXPECT_EQ(all[0].before.size(), 2u);
  EXPECT_FALSE(all[0].after[1][3].has_value()); // a null date stays null
  std::vector<std::string> stmts = jrn_undo_statements(all[0]);
  ASSERT_EQ(stmts.size(), 2u);
  EXPECT_EQ(
      stmts[0],
      "UPDATE JT SET NAME = 'O''Brien \\\\ \xC4', MENGE = 2.5, AM = '2003-07-12' WHERE JT_ID = 1;");

  ASSERT_EQ(undo(all[0]), JRN_UNDO_DONE) << why;
  EXPECT_EQ(row(1), one);
  EXPECT_EQ(row(2), two);
  EXPECT_EQ(exec("SELECT * FROM JT WHERE MENGE = 0.30000000000000004;"), 1); // every bit back
  EXPECT_EQ(number, 2);
  all = entries();
  EXPECT_EQ(all[0].undone_by, 2);
  EXPECT_EQ(all[1].undoes, all[0].token);
  EXPECT_EQ(all[1].after, all[0].before);

  record("WHERE JT_ID = 2", "DELETE FROM JT WHERE JT_ID = 2;", JRN_DELETE);
  ASSERT_EQ(row(2), "<none>");
  all = entries();
  ASSERT_EQ(undo(all[2]), JRN_UNDO_DONE) << why;
  EXPECT_EQ(row(2), two);
  EXPECT_EQ(entries()[3].kind, JRN_INSERT);
  // The undo of the undo takes the row away again.
  ASSERT_EQ(undo(entries()[3]), JRN_UNDO_DONE) << why;
  EXPECT_EQ(row(2), "<none>");
  EXPECT_EQ(db_depth(), 0);
}

TEST_F(JournalServed, UndoIsRefusedWhenARowChangedSince) {
  record("WHERE JT_ID = 1", "UPDATE JT SET MENGE = 7 WHERE JT_ID = 1;", JRN_UPDATE);
  record("WHERE JT_ID = 2", "DELETE FROM JT WHERE JT_ID = 2;", JRN_DELETE);
  EXPECT_EQ(jrn_check(s, entries()[0], &why), JRN_CHECK_AFTER);
  exec("UPDATE JT SET NAME = 'anders' WHERE JT_ID = 1;");
  exec("INSERT INTO JT VALUES (2, 'wieder da', 1, '');");
  std::vector<JrnEntry> all = entries();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(jrn_check(s, all[0], &why), JRN_CHECK_NEITHER);
  ASSERT_EQ(undo(all[0]), JRN_UNDO_CHANGED);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].column, "NAME");
  EXPECT_EQ(problems[0].now, JrnValue("anders"));
  EXPECT_EQ(row(1), "1|anders|7|2003-07-12"); // nothing written
  ASSERT_EQ(undo(all[1]), JRN_UNDO_CHANGED);
  EXPECT_EQ(problems[0].what, JrnProblem::KEY_TAKEN);
  exec("DELETE FROM JT WHERE JT_ID = 1;");
  ASSERT_EQ(undo(all[0]), JRN_UNDO_CHANGED);
  EXPECT_EQ(problems[0].what, JrnProblem::GONE);
  // Two rows with the key: the undo cannot tell which one the change left.
  exec("INSERT INTO JT VALUES (1, 'eins', 1, '');");
  exec("INSERT INTO JT VALUES (1, 'zwei', 1, '');");
  ASSERT_EQ(undo(all[0]), JRN_UNDO_CHANGED);
  EXPECT_EQ(problems[0].what, JrnProblem::DOUBLED);
  EXPECT_EQ(problems[0].key, "1");
  EXPECT_EQ(entries().size(), 2u); // refused undos leave no entry

  // The program ended between the sync and the commit: the entry reads
  // "unknown", and the data says the change did not happen.
  record("WHERE JT_ID = 2", "UPDATE JT SET NAME = 'nie' WHERE JT_ID = 2;", JRN_UPDATE, false);
  EXPECT_EQ(entries().back().status, JRN_UNKNOWN);
  EXPECT_EQ(jrn_check(s, entries().back(), &why), JRN_CHECK_BEFORE);
  EXPECT_EQ(db_depth(), 0);
}

} // namespace
