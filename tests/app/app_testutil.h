// What the viewer test programs share: the viewer started once per process,
// and a fixture that drives its main form.
#pragma once

#include "app/mainform.h"
#include "app/querystore.h"
#include "app/viewer.h"
#include "base/msg.h"
#include "db/access/session.h"
#include "tests/framework/framework_testutil.h"

namespace zqtest {

// The viewer, started once per process on the test server's DEMO database
// (or already running), with its diagnostics on stderr where death tests see
// them. False when no server could be started.
inline bool viewer_started() {
  static const bool ok = [] {
    if (zentiq_app().session) return true;
    if (!test_server()) return false;
    static char a0[] = "program", a1[] = "-dbDEMO";
    static char *argv[] = {a0, a1, nullptr};
    bool up = zentiq_start(2, argv) == 1;
    msg_set_handler(to_stderr);
    return up;
  }();
  return ok;
}

// Each test with the viewer started and no boxes recorded (skipped without a
// server); no test may leave a level of the session open.
class ViewerTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (!viewer_started()) GTEST_SKIP() << "no TAVRIN server could be started";
    fl_seam_clear();
  }
  void TearDown() override {
    fl_seam_set_observer(nullptr);
    EXPECT_EQ(db_depth(), 0) << "a level was left open";
  }

  static ZqApp &app() { return zentiq_app(); }
  static ZqMainForm &m() { return zentiq_app().main; }
  static void click(FL_OBJECT *obj) { QTest::mouseClick(obj->widget, Qt::LeftButton); }

  // DEMO chosen; with `fresh`, an empty query store too.
  static void use_demo(bool fresh = true) {
    if (std::string(myfl_get_cmb_code(m().database)) != "DEMO") {
      ASSERT_EQ(myfl_set_cmb_code(m().database, "DEMO"), 1);
    }
    if (fresh) zentiq_store_reset();
  }

  // Forgets the boxes shown and queues the answers to the next ones.
  static void answer(std::initializer_list<int> answers) {
    fl_seam_clear();
    for (int a : answers) fl_seam_queue_answer(a);
  }

  // Runs an SQL command from a clean record of boxes, the next boxes
  // answered with `answers`.
  static void run_sql(const char *sql, std::initializer_list<int> answers = {}) {
    answer(answers);
    fl_set_input(m().sql, sql);
    click(m().sql_run);
  }

  // Fills the SELECT inputs and runs the query with a click.
  static void select(const char *table, const char *attributes, const char *where) {
    fl_set_input(m().table, table);
    fl_set_input(m().attributes, attributes);
    fl_set_input(m().where, where);
    click(m().sel_run);
  }
};

} // namespace zqtest
