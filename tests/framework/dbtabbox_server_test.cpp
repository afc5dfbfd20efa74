// A database tabbox filled from a real TAVRIN server through the session
// layer: the loader runs a SELECT in its BEGIN level and turns each row into
// a record and a line; saving runs the application's hook for every record
// inside one level, so that an UPDATE made there is seen afterwards.
#include "framework/dbtabbox.h"
#include "framework/place.h"
#include "framework/tabset.h"

#include "base/msg.h"
#include "db/access/session.h"
#include "forms/forms.h"
#include "forms/mytabs.h"
#include "tests/qt_env.h"
#include "tests/access/tavrind_fixture.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

struct Kunde {
  int32_t size;
  int id;
  char name[32];
  char ort[32];
};

void *new_kunde() {
  Kunde *k = static_cast<Kunde *>(std::calloc(1, sizeof(Kunde)));
  k->size = sizeof(Kunde);
  return k;
}

const char *kunde_title(FL_OBJECT *) { return "Nr,Name,Ort"; }

const char *kunde_line(DBSESSION *, void *record, int) {
  static std::string text;
  const Kunde *k = static_cast<const Kunde *>(record);
  text = std::to_string(k->id) + ",\"" + k->name + "\",\"" + k->ort + "\"";
  return text.c_str();
}

// The loader's table: the answer of one SELECT and the next row.
struct Query {
  std::string sql;
  DBRESULT *result = nullptr;
  int row = 0;
};

int first_kunde(void *t, DBSESSION *s) {
  Query *q = static_cast<Query *>(t);
  int outcome = 0;
  q->row = 0;
  if (!dbexec1(s, q->sql.c_str(), &q->result, &outcome) || outcome != DBOUT_TUPLES) return 0;
  return dbntuples(s, q->result) > 0;
}

int next_kunde(void *t, DBSESSION *s, void *record) {
  Query *q = static_cast<Query *>(t);
  if (!q->result || q->row >= dbntuples(s, q->result)) return 0;
  Kunde *k = static_cast<Kunde *>(record);
  k->id = std::atoi(dbgetvalue(s, q->result, q->row, 0));
  std::snprintf(k->name, sizeof k->name, "%s", dbgetvalue(s, q->result, q->row, 1));
  std::snprintf(k->ort, sizeof k->ort, "%s", dbgetvalue(s, q->result, q->row, 2));
  ++q->row;
  return 1;
}

// The save hook: the city of the record written back.
int save_kunde(DBSESSION *s, void *record) {
  const Kunde *k = static_cast<const Kunde *>(record);
  std::string set = "ORT = 'Neustadt' WHERE KUNDE_ID = " + std::to_string(k->id);
  DBRESULT *r = nullptr;
  int outcome = 0;
  int ok = dbupdate(s, "KUNDE", set.c_str(), &r, &outcome);
  dbclear(s, r);
  return ok;
}

class DbTabboxServer : public ::testing::Test {
protected:
  static tavrind_fixture::Server *server;
  static void SetUpTestSuite() {
    server = new tavrind_fixture::Server;
    std::string why;
    if (!server->start(why)) {
      delete server;
      server = nullptr;
      std::fprintf(stderr, "no server: %s\n", why.c_str());
    }
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }
  void SetUp() override {
    if (!server) GTEST_SKIP() << "no TAVRIN server could be started";
    setenv("TAVRIN_NAMESPACE", server->ns().c_str(), 1);
    db_reset_depth();
    ASSERT_EQ(dbinit(&session_, "DBSQL/demo"), 1);
    dir_ = std::filesystem::temp_directory_path() / ("zentiq_dbserver_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_);
    myfl_set_appl_name((dir_ / "app").c_str());
    form_ = fl_begin_form(0, 420, 260);
    tb_ = fl_add_tabbox(2, 10, 10, 400, 240, "");
    fl_end_form();
  }
  void TearDown() override {
    if (tb_ && myfl_find_tabbox(tb_)) myfl_free_tabbox(tb_);
    if (form_) fl_free_form(form_);
    if (session_) dbclose(session_);
    myfl_set_appl_name("zentiq");
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  static std::string field(FL_OBJECT *tb, int line, int col) {
    fl_layout_tabbox(tb);
    return fl_tabbox_field(fl_tabbox_record(tb), fl_get_tabbox_full_line(tb, line), col);
  }
  DBSESSION *session_ = nullptr;
  std::filesystem::path dir_;
  FL_FORM *form_ = nullptr;
  FL_OBJECT *tb_ = nullptr;
};

tavrind_fixture::Server *DbTabboxServer::server = nullptr;

TEST_F(DbTabboxServer, LoadsRowsAndSavesThroughTheHooks) {
  myfl_init_db_tabbox(form_, tb_, "Kunden", kunde_title, new_kunde, nullptr, save_kunde, nullptr,
                      nullptr);
  Query q;
  q.sql = "SELECT KUNDE_ID, NAME, ORT FROM KUNDE WHERE KUNDE_ID <= 3 ORDER BY KUNDE_ID";
  ASSERT_EQ(myfl_load_db_tabbox(session_, tb_, kunde_line, first_kunde, next_kunde, &q), 1);
  dbclear(session_, q.result);
  q.result = nullptr;
  EXPECT_EQ(db_depth(), 0);
  ASSERT_EQ(myfl_get_tabbox_items(tb_), 3);
  EXPECT_EQ(field(tb_, 1, 1), "1");
  EXPECT_EQ(field(tb_, 3, 1), "3");
  EXPECT_FALSE(field(tb_, 2, 2).empty());

  // No row: the warning and an empty tabbox.
  q.sql = "SELECT KUNDE_ID, NAME, ORT FROM KUNDE WHERE KUNDE_ID < 0";
  EXPECT_EQ(myfl_load_db_tabbox(session_, tb_, kunde_line, first_kunde, next_kunde, &q), 0);
  dbclear(session_, q.result);
  q.result = nullptr;
  EXPECT_EQ(myfl_get_tabbox_items(tb_), 0);
  EXPECT_EQ(db_depth(), 0);

  // Saving runs the hook for every record; a new load shows the change.
  q.sql = "SELECT KUNDE_ID, NAME, ORT FROM KUNDE WHERE KUNDE_ID <= 2 ORDER BY KUNDE_ID";
  myfl_load_db_tabbox(session_, tb_, kunde_line, first_kunde, next_kunde, &q);
  dbclear(session_, q.result);
  q.result = nullptr;
  EXPECT_EQ(myfl_save_db_tabbox(session_, tb_), 1);
  EXPECT_EQ(db_depth(), 0);
  myfl_load_db_tabbox(session_, tb_, kunde_line, first_kunde, next_kunde, &q);
  dbclear(session_, q.result);
  EXPECT_EQ(field(tb_, 1, 3), "Neustadt");
  EXPECT_EQ(field(tb_, 2, 3), "Neustadt");
}

} // namespace
