// The viewer against a real server on its DEMO database: start-up with the
// database combo box, SELECT building and execution into the result tabbox,
// SQL commands, failing statements, the detail dialog's update and delete
// through the key attribute, and the exit question.

#include <sys/wait.h>

#include "app/detail.h"
#include "app/doku.h"
#include "app/mainform.h"
#include "app/querystore.h"
#include "app/viewer.h"
#include "db/access/session.h"
#include "forms/keyfilter.h"
#include "framework/combo.h"
#include "framework/dbtabbox.h"
#include "framework/help.h"
#include "tests/framework/framework_testutil.h"

namespace {

using zqtest::slurp;

class Viewer : public ::testing::Test {
protected:
  // The viewer, started once per process on the test server's DEMO
  // database, with its diagnostics on stderr where death tests see them.
  static bool started() {
    static const bool ok = [] {
      if (!zqtest::test_server()) return false;
      static char a0[] = "program", a1[] = "-dbDEMO";
      static char *argv[] = {a0, a1, nullptr};
      bool up = zentiq_start(2, argv) == 1;
      msg_set_handler(zqtest::to_stderr);
      return up;
    }();
    return ok;
  }

  void SetUp() override {
    if (!started()) GTEST_SKIP() << "no TAVRIN server could be started";
    fl_seam_clear();
  }

  ZqApp &app() { return zentiq_app(); }
  ZqMainForm &m() { return zentiq_app().main; }

  // Texts of the boxes shown since the last fl_seam_clear.
  std::string shown() {
    std::string all;
    for (const auto &d : fl_seam_shown()) all += d.text + "|";
    return all;
  }

  // The first value of a query on the session, "" when there is none.
  std::string value(const std::string &sql) {
    DBRESULT *r = nullptr;
    int outcome = 0;
    dbexec1(app().session, sql.c_str(), &r, &outcome);
    std::string v = r && DBntuples(r) > 0 && DBgetvalue(r, 0, 0) ? DBgetvalue(r, 0, 0) : "";
    dbclear(app().session, r);
    return v;
  }

  // DEMO chosen; with `fresh`, an empty query store too.
  void use_demo(bool fresh = true) {
    if (std::string(myfl_get_cmb_code(m().database)) != "DEMO") {
      ASSERT_EQ(myfl_set_cmb_code(m().database, "DEMO"), 1);
    }
    if (fresh) zentiq_store_reset();
  }

  void select(const char *table, const char *attributes, const char *where) {
    fl_set_input(m().table, table);
    fl_set_input(m().attributes, attributes);
    fl_set_input(m().where, where);
    QTest::mouseClick(m().sel_run->widget, Qt::LeftButton);
  }

  // Runs an SQL command from a clean record of boxes.
  void run_sql(const char *sql) {
    fl_seam_clear();
    fl_set_input(m().sql, sql);
    QTest::mouseClick(m().sql_run->widget, Qt::LeftButton);
  }
};

TEST_F(Viewer, StartUpListsDatabasesAndPrefersTdsys) {
  ASSERT_NE(myfl_get_cmb(m().database), nullptr);
  EXPECT_EQ(myfl_valid_cmb_code(m().database, "DEMO"), 1);
  EXPECT_STREQ(myfl_get_cmb_code(m().database), "TDSYS");
  EXPECT_EQ(db_depth(), 0);
  EXPECT_FALSE(m().sel_saved->active);
  EXPECT_FALSE(m().sql_saved->active);
  EXPECT_STREQ(zentiq_title(m().result), "Ergebnis Select-Abfrage");

  // Switching the database: the tables of DEMO answer afterwards.
  use_demo(false);
  EXPECT_EQ(value("SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID = 1;"), "1");
  EXPECT_EQ(shown(), "");
}

TEST_F(Viewer, SelectIsBuiltRunStoredAndShown) {
  use_demo();
  select("KUNDE", "KUNDE_ID, NAME", "WHERE KUNDE_ID < 4\\n ORDER BY KUNDE_ID");
  EXPECT_EQ(shown(), "");
  EXPECT_EQ(db_depth(), 0);
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 3);
  EXPECT_EQ(app().current_query_name, "KUNDE_ID,NAME");
  EXPECT_STREQ(zentiq_title(m().result), "KUNDE_ID,NAME");
  ASSERT_EQ(zentiq_store().select_count, 1);
  // Stored as typed, with the backslash-n that the statement lost.
  EXPECT_EQ(zentiq_store().select[0].where, "WHERE KUNDE_ID < 4\\n ORDER BY KUNDE_ID");
  auto *rec = static_cast<ZqRecord *>(myfl_get_tabbox_item_info(m().result, 1));
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(std::string(rec->text).rfind("\"1\",\"", 0), 0u) << rec->text;

  // The same query again adds nothing; a blank attribute list selects *.
  QTest::mouseClick(m().sel_run->widget, Qt::LeftButton);
  EXPECT_EQ(zentiq_store().select_count, 1);
  select("KUNDE", "  ", "WHERE KUNDE_ID = 2");
  EXPECT_EQ(zentiq_store().select_count, 2);
  EXPECT_EQ(app().current_query_name.rfind("KUNDE_ID,ANREDE,VORNAME,NAME", 0), 0u);
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 1);

  // Paging: back shows the last query, forward past it clears the inputs.
  QTest::mouseClick(m().sel_prev->widget, Qt::LeftButton);
  QTest::mouseClick(m().sel_prev->widget, Qt::LeftButton);
  EXPECT_STREQ(fl_get_input(m().attributes), "KUNDE_ID, NAME");
  QTest::mouseClick(m().sel_add->widget, Qt::LeftButton);
  EXPECT_TRUE(fl_get_button(m().sel_saved));
  EXPECT_TRUE(zentiq_store_saved(1, 0));
  QTest::mouseClick(m().sel_next->widget, Qt::LeftButton);
  EXPECT_FALSE(fl_get_button(m().sel_saved));
  QTest::mouseClick(m().sel_next->widget, Qt::LeftButton);
  EXPECT_STREQ(fl_get_input(m().table), "");
  EXPECT_EQ(zentiq_store().select_current, -1);

  // A blank table does nothing at all and leaves the begin level open.
  select(" ", "", "");
  EXPECT_EQ(shown(), "");
  EXPECT_EQ(db_depth(), 1);
  dbend(app().session);
}

TEST_F(Viewer, SqlCommandsAndFailingStatements) {
  use_demo();
  select("NOSUCHTABLE", "", "");
  EXPECT_EQ(shown(), "Abfrage konnte nicht erfolgreich durchgef\xFChrt werden|");
  EXPECT_EQ(zentiq_store().select_count, 0);
  EXPECT_EQ(db_depth(), 0);

  // Refused by the client's parser: the same message, nothing stored.
  fl_seam_clear();
  select("KUNDE", "NAME,", "");
  EXPECT_EQ(shown(), "Abfrage konnte nicht erfolgreich durchgef\xFChrt werden|");
  EXPECT_EQ(zentiq_store().select_count, 0);
  EXPECT_EQ(db_depth(), 0);

  run_sql("   ");
  EXPECT_EQ(shown(), "Kein SQL-Kommando definiert|");
  EXPECT_EQ(db_depth(), 0);

  // A lower-case show is a query: its rows fill the tabbox.
  run_sql("show databases");
  EXPECT_EQ(shown(), "");
  EXPECT_GE(fl_get_tabbox_maxline(m().result), 2);
  EXPECT_EQ(zentiq_store().sql_count, 1);

  run_sql("update KUNDE set PLZ = '99999' where KUNDE_ID = 3");
  EXPECT_EQ(shown(), "Die Abfrage wurde erfolgreich durchgef\xFChrt|");
  EXPECT_EQ(value("SELECT PLZ FROM KUNDE WHERE KUNDE_ID = 3;"), "99999");
  EXPECT_EQ(zentiq_store().sql_count, 2);

  run_sql("update NOSUCHTABLE set X = 1");
  EXPECT_EQ(shown(), "Abfrage konnte nicht erfolgreich durchgef\xFChrt werden|");
  EXPECT_EQ(zentiq_store().sql_count, 2);
  EXPECT_EQ(db_depth(), 0);
}

TEST_F(Viewer, ShortcutsRunStatementsAndSqlListPages) {
  use_demo();
  if (!fl_keyboard_filter_installed()) fl_install_keyboard_filter();
  myfl_show_form(m().form, "Zentiq");
  m().form->window->activateWindow();
  (void)QTest::qWaitForWindowActive(m().form->window, 2000);
  fl_set_input(m().table, "ARTIKEL");
  fl_set_input(m().attributes, "ARTIKEL_ID");
  fl_set_input(m().where, "WHERE ARTIKEL_ID <= 2");
  fl_set_focus_object(m().form, m().table);
  QTest::keyClick(m().table->widget, Qt::Key_U, Qt::ControlModifier);
  EXPECT_EQ(app().current_query_name, "ARTIKEL_ID");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 2);

  fl_set_input(m().sql, "select NAME from KUNDE where KUNDE_ID = 1");
  QTest::keyClick(m().table->widget, Qt::Key_S, Qt::ControlModifier);
  EXPECT_EQ(app().current_query_name, "NAME");
  fl_set_input(m().sql, "select ORT from KUNDE where KUNDE_ID = 1");
  QTest::keyClick(m().table->widget, Qt::Key_S, Qt::ControlModifier);
  ASSERT_EQ(zentiq_store().sql_count, 2);
  // Ctrl+D marks the SQL command just run.
  QTest::keyClick(m().table->widget, Qt::Key_D, Qt::ControlModifier);
  EXPECT_TRUE(zentiq_store_saved(0, 1));
  EXPECT_TRUE(fl_get_button(m().sql_saved));
  EXPECT_EQ(shown(), "");

  QTest::mouseClick(m().sql_prev->widget, Qt::LeftButton);
  EXPECT_STREQ(fl_get_input(m().sql), "select ORT from KUNDE where KUNDE_ID = 1");
  EXPECT_TRUE(fl_get_button(m().sql_saved));
  QTest::mouseClick(m().sql_prev->widget, Qt::LeftButton);
  QTest::mouseClick(m().sql_prev->widget, Qt::LeftButton);
  EXPECT_STREQ(fl_get_input(m().sql), "select NAME from KUNDE where KUNDE_ID = 1");
  EXPECT_FALSE(fl_get_button(m().sql_saved));
  QTest::mouseClick(m().sql_del->widget, Qt::LeftButton);
  QTest::mouseClick(m().sql_next->widget, Qt::LeftButton);
  QTest::mouseClick(m().sql_del->widget, Qt::LeftButton);
  EXPECT_FALSE(zentiq_store_saved(0, 1));
  QTest::mouseClick(m().sql_next->widget, Qt::LeftButton);
  EXPECT_STREQ(fl_get_input(m().sql), "");
  // Add needs a text in the SQL input.
  QTest::mouseClick(m().sql_add->widget, Qt::LeftButton);
  EXPECT_FALSE(zentiq_store_saved(0, 1));
  fl_hide_form(m().form);
}

TEST_F(Viewer, DetailDialogUpdatesAndDeletesThroughTheKey) {
  use_demo();
  select("KUNDE", "KUNDE_ID, NAME, ORT", "WHERE KUNDE_ID IN (5, 6) ORDER BY KUNDE_ID");
  ASSERT_EQ(fl_get_tabbox_maxline(m().result), 2);
  ZqDetailForm &d = app().detail;

  fl_select_tabbox_line(m().result, 1);
  zentiq_open_detail(m().result, 0);
  EXPECT_TRUE(d.form->visible);
  EXPECT_FALSE(m().form->active);
  EXPECT_TRUE(fl_get_tabbox_vert(d.tabbox));
  ASSERT_EQ(zentiq_detail_lines(), 3);

  // Editing: text values are quoted, numbers get a leading blank.
  fl_select_tabbox_line(d.tabbox, 1);
  zentiq_edit_value(d.tabbox, 0);
  EXPECT_STREQ(fl_get_input(d.value), " 5");
  fl_select_tabbox_line(d.tabbox, 3);
  zentiq_edit_value(d.tabbox, 0);
  EXPECT_EQ(std::string(fl_get_input(d.value)).front(), '\'');

  // Return in the value input updates ORT of customer 5 and re-reads.
  fl_set_input(d.value, "'Neustadt'");
  QTest::keyClick(d.value->widget, Qt::Key_Return);
  EXPECT_EQ(shown(), "Datensatz wurde ge\xE4ndert|");
  EXPECT_EQ(value("SELECT ORT FROM KUNDE WHERE KUNDE_ID = 5;"), "Neustadt");
  EXPECT_FALSE(d.form->visible);
  EXPECT_TRUE(m().form->active);
  EXPECT_EQ(db_depth(), 0);

  // A failing update keeps the dialog open.
  fl_seam_clear();
  fl_select_tabbox_line(m().result, 1);
  zentiq_open_detail(m().result, 0);
  fl_select_tabbox_line(d.tabbox, 2);
  fl_set_input(d.value, "NOSUCHCOLUMN");
  QTest::mouseClick(d.update->widget, Qt::LeftButton);
  EXPECT_EQ(shown(), "Datensatz konnte nicht ge\xE4ndert werden!|");
  EXPECT_TRUE(d.form->visible);

  // Delete: "no" sends nothing, "yes" deletes the row of customer 5.
  fl_seam_clear();
  fl_seam_queue_answer(2);
  QTest::mouseClick(d.del->widget, Qt::LeftButton);
  EXPECT_EQ(value("SELECT COUNT(*) FROM KUNDE WHERE KUNDE_ID = 5;"), "1");
  EXPECT_TRUE(d.form->visible);
  fl_seam_queue_answer(1);
  QTest::mouseClick(d.del->widget, Qt::LeftButton);
  EXPECT_EQ(shown(), "Der ausgew\xE4hlte Datensatz wird gel\xF6scht!\nWollen Sie dennoch "
                     "fortfahren?|Der ausgew\xE4hlte Datensatz wird gel\xF6scht!\nWollen Sie "
                     "dennoch fortfahren?|Datensatz wurde gel\xF6scht|");
  EXPECT_EQ(value("SELECT COUNT(*) FROM KUNDE WHERE KUNDE_ID = 5;"), "0");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 1);
  EXPECT_FALSE(d.form->visible);

  // A table typed in lower case names no key attribute.
  select("kunde", "KUNDE_ID, NAME", "WHERE KUNDE_ID = 6");
  fl_seam_clear();
  fl_select_tabbox_line(m().result, 1);
  zentiq_open_detail(m().result, 0);
  fl_select_tabbox_line(d.tabbox, 2);
  fl_set_input(d.value, "'X'");
  QTest::mouseClick(d.update->widget, Qt::LeftButton);
  QTest::mouseClick(d.del->widget, Qt::LeftButton);
  EXPECT_EQ(shown(), "Update nicht m\xF6glich\nPrimary Key nicht gefunden|"
                     "L\xF6schen nicht m\xF6glich\nPrimary Key nicht gefunden|");
  // Closing the dialog only hides it.
  EXPECT_EQ(zentiq_detail_atclose(d.form, nullptr), -1);
  EXPECT_FALSE(d.form->visible);
  EXPECT_TRUE(m().form->active);
}

TEST_F(Viewer, WaysTheProgramEnds) {
  fl_seam_queue_answer(2);
  EXPECT_EQ(zentiq_main_atclose(m().form, nullptr), -1);
  EXPECT_EQ(shown(), "Soll Zentiq beendet werden?|");
  EXPECT_NE(app().session, nullptr);

  std::filesystem::remove_all(ZQ_QUERY_FILE);
  EXPECT_EXIT(
      {
        zentiq_store_reset();
        zentiq_store_add_select("KUNDE", "NAME", "");
        zentiq_store_mark(1, 1);
        fl_seam_queue_answer(1);
        zentiq_main_atclose(zentiq_app().main.form, nullptr);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(slurp(ZQ_QUERY_FILE), "KUNDE\nNAME\n\n");

  // The fatal stop: its text, then the termination warning, status as given.
  for (int status : {1, 3}) {
    EXPECT_EXIT(
        {
          fl_seam_set_observer([](const FlShownDialog &d) {
            std::fprintf(stderr, "[%s] %s\n", d.title.c_str(), d.text.c_str());
          });
          zentiq_fatal(status);
        },
        ::testing::ExitedWithCode(status),
        "Error occurred \\(data is saved\\)! Please restart the application!\n"
        "\\[Warning\\] Application is about to terminate!");
  }
}

TEST_F(Viewer, ManualOfTheDialogs) {
  // The shipped help texts: both keys present, only allowed tags.
  std::filesystem::copy_file(std::string(std::getenv("ZENTIQ_SOURCE_DIR")) + "/app/zentiq.hlp",
                             "zentiq.hlp", std::filesystem::copy_options::overwrite_existing);
  for (const char *key : {"ZTQ_HLP", "DZTQ_HLP"}) {
    std::string text = myfl_read_help(key), error;
    EXPECT_FALSE(text.empty()) << key;
    EXPECT_EQ(myfl_check_html(text.c_str(), &error), 1) << key << ": " << error;
  }
  std::filesystem::remove_all("zentiq_hlp.htm");
  ASSERT_EQ(zentiq_write_manual(), 1);
  std::string html = slurp("zentiq_hlp.htm");
  for (const char *part :
       {"SELECT durchf\xFChren", "^u^U", "Zentiq-Detail", "L\xF6schen", "Tabelle ",
        "Pfeil nach oben", "</html>", "Datenbank-Viewer", "Prim\xE4rschl\xFCssel"})
    EXPECT_NE(html.find(part), std::string::npos) << part;
  EXPECT_EQ(html.find("Abfragespeicher"), std::string::npos); // maintainers' text

  // The program itself: "-doku" writes the manual and ends with status 0
  // without showing a form.
  std::string prog = std::string(std::getenv("ZENTIQ_BUILD_DIR")) + "/app/zentiq";
  if (!std::filesystem::exists(prog)) GTEST_SKIP() << "zentiq has not been built";
  std::filesystem::remove_all("zentiq_hlp.htm");
  int status = std::system((prog + " -dbDEMO -doku >/dev/null 2>&1").c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(std::filesystem::exists("zentiq_hlp.htm"));
}

TEST(ViewerHelpers, TextRules) {
  EXPECT_EQ(zentiq_strip_newlines("a\\nb\\\\n"), "ab\\");
  EXPECT_TRUE(zentiq_is_blank("") && zentiq_is_blank(" \t\n") && !zentiq_is_blank(" x "));

  // A query begins with SELECT or SHOW in any case; the first word is
  // upper-cased in place.
  char q[] = "  select * from T";
  EXPECT_EQ(zentiq_is_query(q), 1);
  EXPECT_STREQ(q, "  SELECT * from T");
  for (auto [text, query] : {std::pair{"ShOw databases", 1},
                             {"SELECTION", 1},
                             {"(select 1)", 0},
                             {"update T set a = 1", 0}}) {
    std::string statement = text;
    EXPECT_EQ(zentiq_is_query(statement.data()), query) << text;
  }

  for (const char *n : {"", "   ", "42", " -1,5 ", "+3.25", "-"})
    EXPECT_EQ(zentiq_is_number(n), 1) << n;
  for (const char *n : {"abc", "1.2.3", "1,2.3", "4 2", "O'Neil", "12a"})
    EXPECT_EQ(zentiq_is_number(n), 0) << n;

  EXPECT_EQ(zentiq_row_text({"1", "Say \"hi\"", ""}), "\"1\",\"Say \\\"hi\\\"\",\"\"");

  // Line records are sized to their text, up to the full record.
  auto *small = static_cast<ZqRecord *>(zentiq_make_record("abc"));
  EXPECT_EQ(small->size, static_cast<int>(2 * sizeof(int) + 4));
  EXPECT_STREQ(small->text, "abc");
  std::free(small);
  auto *big = static_cast<ZqRecord *>(zentiq_make_record(std::string(20000, 'x')));
  EXPECT_EQ(big->size, ZQ_RECORD_SIZE);
  EXPECT_EQ(std::strlen(big->text), sizeof big->text - 1);
  std::free(big);
}

} // namespace
