// The viewer against a real server on its DEMO database: start-up with the
// database combo box, SELECT building and execution into the result tabbox,
// SQL commands, failing statements, the detail dialog's update and delete
// through the key attribute, the row limit and result budget of big
// results, and the exit question.

#include <sys/wait.h>

#include <chrono>
#include <thread>

#include <QFontMetrics>

#include "app/detail.h"
#include "app/doku.h"
#include "app/journaldlg.h"
#include "app/journalrec.h"
#include "app/readonly.h"
#include "app/resultlimit.h"
#include "base/ini.h"
#include "forms/console.h"
#include "forms/fonts.h"
#include "forms/keyfilter.h"
#include "framework/tabdialogs.h"
#include "tests/app/app_testutil.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using zqtest::slurp;

class Viewer : public zqtest::ViewerTest {
protected:
  // Texts of the boxes shown since the last fl_seam_clear.
  static std::string shown() {
    std::string all;
    for (const auto &d : fl_seam_shown()) all += d.text + "|";
    return all;
  }

  // A query on the session: its number of rows (-1 without a result) and
  // its first value ("" when there is none).
  static std::pair<int, std::string> query(const std::string &sql) {
    DBRESULT *r = nullptr;
    int outcome = 0;
    dbexec1(app().session, sql.c_str(), &r, &outcome);
    std::string v = r && DBntuples(r) > 0 && DBgetvalue(r, 0, 0) ? DBgetvalue(r, 0, 0) : "";
    std::pair<int, std::string> got{dbntuples(app().session, r), v};
    dbclear(app().session, r);
    return got;
  }
  static std::string value(const std::string &sql) { return query(sql).second; }

  // A second client: statements of `sql` (one per line) run by tavrin on
  // DEMO in a process of its own, given at most 5 s; its CSV output and
  // messages, and its status (124 when it was blocked and timed out).
  static std::pair<int, std::string> other(const std::string &sql) {
    std::string exe = std::string(std::getenv("ZENTIQ_BUILD_DIR")) + "/tools/tavrin";
    zqtest::write_file("other.sql", sql + "\n");
    FILE *p =
        popen(("timeout 5 " + exe + " sql -dbdemo --format csv <other.sql 2>&1").c_str(), "r");
    std::string out;
    for (int c; p && (c = std::fgetc(p)) != EOF;) out += static_cast<char>(c);
    int rc = p ? pclose(p) : -1;
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, out};
  }
  static int other_status(const std::string &sql) { return other(sql).first; }
  static std::string other_out(const std::string &sql) { return other(sql).second; }

  // Shows the detail dialog of result line `line` with attribute line
  // `attribute` selected (0: none).
  static void open_detail(int line, int attribute) {
    fl_select_tabbox_line(m().result, line);
    zentiq_open_detail(m().result, 0);
    if (attribute) fl_select_tabbox_line(app().detail.tabbox, attribute);
  }

  // While a box is shown: the level depth and whether another client could
  // change a row of DEMO and see it (status 0 within the time limit).
  static inline std::vector<std::pair<int, int>> while_shown;
  static void watch_boxes() {
    while_shown.clear();
    fl_seam_set_observer([](const FlShownDialog &) {
      while_shown.emplace_back(db_depth(),
                               other_status("UPDATE KUNDE SET PLZ = '22222' WHERE KUNDE_ID = 2"));
    });
  }
};

TEST_F(Viewer, StartUpListsDatabasesAndPrefersTdsys) {
  ASSERT_NE(myfl_get_cmb(m().database), nullptr);
  EXPECT_EQ(myfl_valid_cmb_code(m().database, "DEMO"), 1);
  // "-dbDEMO" chose DEMO, although the server lists TDSYS too.
  EXPECT_STREQ(myfl_get_cmb_code(m().database), "DEMO");
  EXPECT_FALSE(m().sel_saved->active);
  EXPECT_FALSE(m().sql_saved->active);
  EXPECT_STREQ(zentiq_title(m().result), "Ergebnis Select-Abfrage");

  EXPECT_EQ(value("SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID = 1;"), "1");
  EXPECT_EQ(shown(), "");
  // Switching the database: to TDSYS and back.
  ASSERT_EQ(myfl_set_cmb_code(m().database, "TDSYS"), 1);
  EXPECT_EQ(value("SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID = 1;"), "");
  use_demo(false);
  EXPECT_EQ(value("SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID = 1;"), "1");

  // No database chosen: "SET DATABASE ;" is still sent, and its refusal shown.
  myfl_free_cmb(m().database);
  myfl_init_data_cmb(m().form, m().database, m().database_button, "", 1);
  fl_seam_clear();
  zentiq_set_database(m().database, 0);
  EXPECT_EQ(shown().rfind("Fehler beim \xC4ndern der Datenbank!\n", 0), 0u) << shown();
  myfl_free_cmb(m().database);
  myfl_init_data_cmb(m().form, m().database, m().database_button, "DEMO,DEMO|TDSYS,TDSYS", 1);
  myfl_set_cmb_callback(m().database, zentiq_set_database, 0);
  use_demo(false);
}

TEST_F(Viewer, StartUpWithoutDbOrWithoutServerGuides) {
  using V = std::vector<std::string>;
  const V all{"DEMO", "KUNDEN", "TDSYS"};
  // "-db" first, then the last session's database, DEMO, TDSYS.
  EXPECT_EQ(zentiq_choose_database(all, "KUNDEN", "TDSYS"), "KUNDEN");
  EXPECT_EQ(zentiq_choose_database(all, "", "KUNDEN"), "KUNDEN");
  EXPECT_EQ(zentiq_choose_database(all, "", "GONE"), "DEMO");
  EXPECT_EQ(zentiq_choose_database(all, "GONE", "KUNDEN"), "DEMO");
  EXPECT_EQ(zentiq_choose_database(V{"A", "TDSYS"}, "", ""), "TDSYS");
  EXPECT_EQ(zentiq_choose_database(V{"A", "B"}, "", ""), "B");
  EXPECT_EQ(zentiq_choose_database(V{}, "", "X"), "");
  // Every switch is kept for the next start.
  ASSERT_EQ(myfl_set_cmb_code(m().database, "TDSYS"), 1);
  EXPECT_EQ(zentiq_last_database(), "TDSYS");
  use_demo(false);
  EXPECT_EQ(zentiq_last_database(), "DEMO");

  // No server in the namespace: a box that says so and how to start one,
  // with the client library's own lines of what it tried, and the program
  // ends without a fatal stop.
  EXPECT_EXIT(
      {
        // Non-ASCII letters as "?": the matcher reads stderr as UTF-8.
        fl_seam_set_observer([](const FlShownDialog &d) {
          std::string t = d.text;
          for (char &c : t)
            if (static_cast<unsigned char>(c) >= 0x80) c = '?';
          std::fprintf(stderr, "[%s] %s\n", d.title.c_str(), t.c_str());
        });
        setenv("TAVRIN_NAMESPACE", "zq_no_server_", 1);
        app().database_given = false;
        std::exit(zentiq_open_session() ? 0 : 3);
      },
      ::testing::ExitedWithCode(3),
      "\\[Fehler\\] Es l\\?uft kein TAVRIN-Server.\nStarten Sie einen mit 'tavrind --data "
      "<Datenordner>' oder starten Sie Zentiq mit './run.sh'.*\nTavrin database not found!"
      ".*Connection to TAVRIN-database 'TDSYS' failed");
}

TEST_F(Viewer, SqlCommandsAndFailingStatements) {
  // A failed statement says why in an error box: the server's text with its
  // number, or the client parser's.
  auto failed = [](const char *why) {
    EXPECT_EQ(shown(),
              std::string("Abfrage konnte nicht erfolgreich durchgef\xFChrt werden\n") + why + "|");
    ASSERT_EQ(fl_seam_shown().size(), 1u);
    EXPECT_EQ(fl_seam_shown()[0].title, "Fehler");
    EXPECT_EQ(fl_seam_shown()[0].icon, FL_ICON_ERROR);
  };
  use_demo();
  select("NOSUCHTABLE", "", "");
  failed("(TAVRIN 301) Tabelle NOSUCHTABLE existiert nicht");
  EXPECT_EQ(zentiq_store().select_count, 0);

  // Refused by the client's parser: its text, nothing stored.
  fl_seam_clear();
  select("KUNDE", "NAME,", "");
  failed("Syntax error: attrib-name expected (found 'FROM')");
  EXPECT_EQ(zentiq_store().select_count, 0);

  run_sql("   ");
  EXPECT_EQ(shown(), "Kein SQL-Kommando definiert|");

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
  failed("(TAVRIN 301) Tabelle NOSUCHTABLE existiert nicht");
  run_sql("update KUNDE set KUNDE_ID = 'abc' where KUNDE_ID = 3");
  failed(
      "(TAVRIN 401) Ung\xFCltiger Wert f\xFCr Attribut KUNDE_ID: Wert 'abc' ist keine ganze Zahl");
  EXPECT_EQ(zentiq_store().sql_count, 2);
  // "Protokoll" opens the log, wide enough to read them.
  fl_iconify_console();
  click(m().log);
  ASSERT_NE(fl_console_window(), nullptr);
  EXPECT_FALSE(fl_console_window()->isMinimized());
  EXPECT_GE(fl_console_window()->width(), 600);
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

  click(m().sql_prev);
  EXPECT_STREQ(fl_get_input(m().sql), "select ORT from KUNDE where KUNDE_ID = 1");
  EXPECT_TRUE(fl_get_button(m().sql_saved));
  click(m().sql_prev);
  click(m().sql_prev);
  EXPECT_STREQ(fl_get_input(m().sql), "select NAME from KUNDE where KUNDE_ID = 1");
  EXPECT_FALSE(fl_get_button(m().sql_saved));
  click(m().sql_del);
  click(m().sql_next);
  click(m().sql_del);
  EXPECT_FALSE(zentiq_store_saved(0, 1));
  click(m().sql_next);
  EXPECT_STREQ(fl_get_input(m().sql), "");
  // Add needs a text in the SQL input.
  click(m().sql_add);
  EXPECT_FALSE(zentiq_store_saved(0, 1));
  fl_hide_form(m().form);
}

TEST_F(Viewer, NoLevelIsOpenWhileABoxWaitsAndOthersAreNotBlocked) {
  use_demo();
  // Once a blank table left a level open: every later change stayed
  // uncommitted and held the write lock until the viewer ended.
  select(" ", "", "");
  watch_boxes();
  run_sql("update KUNDE set PLZ = '11111' where KUNDE_ID = 3");
  EXPECT_EQ(shown(), "Die Abfrage wurde erfolgreich durchgef\xFChrt|");
  // While the success box was open: no level, another writer went through.
  EXPECT_EQ(while_shown, (std::vector<std::pair<int, int>>{{0, 0}}));
  EXPECT_EQ(other_out("SELECT PLZ FROM KUNDE WHERE KUNDE_ID = 3"), "PLZ\n11111\n");

  // The same for failures and for the questions of the detail dialog.
  watch_boxes();
  run_sql("update NOSUCHTABLE set X = 1 where X = 2");
  select("KUNDE", "KUNDE_ID, NAME", "WHERE KUNDE_ID = 4");
  open_detail(1, 2);
  click(app().detail.del); // answered "Nein"
  EXPECT_EQ(while_shown, (std::vector<std::pair<int, int>>{{0, 0}, {0, 0}}));
  zentiq_detail_atclose(app().detail.form, nullptr);
}

TEST_F(Viewer, BigResultsAreCutOrRefusedAndToldWithoutHoldingALock) {
  use_demo();
  std::string fill = "CREATE TABLE BIGV (ID INTEGER, T CHARACTER(4000))\nBEGIN\n";
  for (int i = 1; i <= 300; ++i)
    fill +=
        "INSERT INTO BIGV VALUES (" + std::to_string(i) + ", '" + std::string(3999, 'x') + "')\n";
  auto made = other(fill + "END");
  ASSERT_EQ(made.first, 0) << made.second.substr(0, 2000);
  // Rows per result from the INI file: the first rows, the cut named in the
  // title and a question asked with no level open and others not blocked.
  INI_PutLine("zentiq", ZQ_INI_ROW_LIMIT, "[Ergebnis_Zeilen] 100\n");
  watch_boxes();
  select("BIGV", "ID", "ORDER BY ID");
  EXPECT_EQ(shown(), "Gezeigt werden die ersten 100 Zeilen.\nWeitere Zeilen laden?|");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 100);
  EXPECT_EQ(app().current_query_name, "ID (die ersten 100 Zeilen)");
  EXPECT_STREQ(static_cast<ZqRecord *>(myfl_get_tabbox_item_info(m().result, 1))->text, "\"1\"");
  // "Ja" twice: 200 rows, then all 300 (below 400), no further question.
  run_sql("select ID from BIGV", {1, 1});
  EXPECT_EQ(shown(), "Gezeigt werden die ersten 100 Zeilen.\nWeitere Zeilen laden?|"
                     "Gezeigt werden die ersten 200 Zeilen.\nWeitere Zeilen laden?|");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 300);
  EXPECT_EQ(app().current_query_name, "ID");
  EXPECT_EQ(while_shown, (std::vector<std::pair<int, int>>(3, {0, 0})));
  EXPECT_EQ(zentiq_store().sql_count, 1);
  // No MAX is left on the channel.
  EXPECT_EQ(query("SELECT ID FROM BIGV;").first, 300);

  // Over the budget (1 MB, the table holds 1.2): told in a box while no
  // level is open; the rows shown before stay and the viewer goes on.
  INI_DeleteLine("zentiq", ZQ_INI_ROW_LIMIT);
  INI_PutLine("zentiq", ZQ_INI_BUDGET_MB, "[Ergebnis_MB]1\n");
  watch_boxes();
  fl_seam_clear();
  select("BIGV", "", "");
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_THAT(fl_seam_shown()[0].text, StartsWith("Ergebnis zu gro\xDF: "));
  EXPECT_THAT(fl_seam_shown()[0].text, HasSubstr(" Zeilen gelesen, Budget 1 MB\n"));
  EXPECT_EQ(while_shown, (std::vector<std::pair<int, int>>{{0, 0}}));
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 300);
  EXPECT_EQ(zentiq_store().select_count, 1); // only the first query
  select("BIGV", "ID", "WHERE ID < 3");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 2);
  EXPECT_EQ(DBresult_budget(), 1000000u);
  INI_DeleteLine("zentiq", ZQ_INI_BUDGET_MB);
  select("BIGV", "T", "");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 300);
  EXPECT_GT(DBresult_budget(), 1000000u);
  EXPECT_EQ(other_status("DROP TABLE BIGV"), 0);
}

TEST_F(Viewer, TypedChangesAreCountedAndConfirmed) {
  use_demo();
  ASSERT_EQ(other_status("CREATE TABLE RC (RC_ID INTEGER, V INTEGER)\n"
                         "INSERT INTO RC VALUES (1, 0)\nINSERT INTO RC VALUES (2, 0)"),
            0);
  // Two rows: asked, "Nein" is the default, nothing changes or is stored.
  run_sql("update RC set V = 1 where V = 0");
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_EQ(fl_seam_shown()[0].text, "2 Zeilen in RC werden ge\xE4ndert.\nFortfahren?");
  EXPECT_EQ(fl_seam_shown()[0].default_button, 2);
  EXPECT_EQ(zentiq_store().sql_count, 0);
  // Without WHERE always asked, even for one row; "Ja" runs it.
  run_sql("delete from RC where RC_ID = 2");
  EXPECT_EQ(shown(), "Die Abfrage wurde erfolgreich durchgef\xFChrt|"); // one row: not asked
  fl_set_input(m().sql, "update RC set V = 5");
  fl_seam_queue_answer(1);
  click(m().sql_run);
  EXPECT_EQ(shown(), "Die Abfrage wurde erfolgreich durchgef\xFChrt|1 Zeile in RC wird "
                     "ge\xE4ndert.\nFortfahren?|Die Abfrage wurde erfolgreich durchgef\xFChrt|");
  EXPECT_EQ(other_out("SELECT RC_ID, V FROM RC"), "RC_ID,V\n1,5\n");

  // Another client adds a matching row while the user answers: the server
  // changes two rows instead of the one agreed to, and all is taken back.
  fl_seam_set_observer([](const FlShownDialog &d) {
    if (d.kind == FL_DIALOG_QUESTION) other("INSERT INTO RC VALUES (3, 5)");
  });
  run_sql("delete from RC", {1});
  EXPECT_EQ(shown(), "1 Zeile in RC wird gel\xF6scht.\nFortfahren?|\xC4nderung wurde "
                     "zur\xFC"
                     "ckgenommen!\n2 statt 1 Zeilen in RC betroffen|");
  EXPECT_EQ(other_out("SELECT COUNT(*) FROM RC"), "COUNT(*)\n2\n");
}

TEST_F(Viewer, ChangesAreJournaledAndUndoneAndReadOnlyRefusesThem) {
  use_demo();
  ASSERT_EQ(other_status("CREATE TABLE RJ (RJ_ID INTEGER, V CHARACTER(20))\n"
                         "INSERT INTO RJ VALUES (1, 'a')\n"
                         "CREATE TABLE NK (X INTEGER)\nINSERT INTO NK VALUES (1)"),
            0);
  auto journal = [] {
    std::vector<JrnEntry> all;
    std::string why;
    EXPECT_EQ(jrn_read(zentiq_journal_path(), &all, &why), 1) << why;
    return all;
  };
  size_t before = journal().size();
  run_sql("update RJ set V = 'b' where RJ_ID = 1");
  run_sql("insert into RJ (V, RJ_ID) values ('neu', 2)");
  std::vector<JrnEntry> all = journal();
  ASSERT_EQ(all.size(), before + 2);
  EXPECT_EQ(all[before].before[0][1], JrnValue("a"));
  EXPECT_EQ(all[before].after[0][1], JrnValue("b"));
  EXPECT_EQ(all[before].status, JRN_COMMITTED);
  EXPECT_EQ(all[before + 1].kind, JRN_INSERT);
  EXPECT_EQ(all[before + 1].after[0][1], JrnValue("neu"));

  // No key to find the rows by: asked, and "Nein" (the default) runs nothing.
  run_sql("update NK set X = 2 where X = 1");
  EXPECT_NE(shown().find("Ohne Journaleintrag ausf\xFChren?"), std::string::npos);
  EXPECT_EQ(other_out("SELECT X FROM NK"), "X\n1\n");
  EXPECT_EQ(journal().size(), before + 2);

  // The dialog takes the update back after its question.
  zentiq_open_journal(nullptr, 0);
  ASSERT_EQ(zentiq_journal_select(all[before].number), 1);
  answer({1});
  zentiq_journal_undo(nullptr, 0);
  EXPECT_THAT(shown(), HasSubstr("ckg\xE4ngig gemacht"));
  EXPECT_EQ(other_out("SELECT V FROM RJ WHERE RJ_ID = 1"), "V\na\n");
  EXPECT_EQ(journal()[before].undone_by, static_cast<int>(before) + 3);
  // The list is filtered by table (any case) and status; the details show
  // the change and the statements that take it back.
  ZqJournalForm &jf = zentiq_journal_form();
  fl_set_input(jf.table, "rj");
  myfl_set_cmb_code(jf.status, "R");
  zentiq_journal_refresh(nullptr, 0);
  EXPECT_EQ(fl_get_tabbox_maxline(jf.list), 1);
  ASSERT_EQ(zentiq_journal_select(all[before].number), 1);
  EXPECT_THAT(fl_get_input(jf.details),
              HasSubstr("RJ_ID = 1: V 'a' -> 'b';\n\nBefehle der R\xFC"
                        "cknahme:\nUPDATE RJ SET V = 'a' WHERE RJ_ID = 1;\n"));
  myfl_hide_form(jf.form);

  // A read-only database: changes are refused before they reach the
  // server, queries still run.
  INI_PutLine("zentiq", ZQ_INI_READ_ONLY, "[Nur_lesen]tdsys, demo\n");
  EXPECT_EQ(zentiq_ro_title("Zentiq"), "Zentiq - nur lesen");
  run_sql("delete from RJ");
  EXPECT_EQ(shown().rfind("Nur lesen: Dieser SQL-Befehl ist nicht erlaubt.", 0), 0u);
  run_sql("select * from RJ");
  EXPECT_EQ(fl_seam_shown().size(), 0u);
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 2);
  open_detail(1, 2);
  fl_seam_clear();
  zentiq_delete_row(nullptr, 0);
  EXPECT_EQ(shown().rfind("Nur lesen: L\xF6schen ist nicht erlaubt.", 0), 0u);
  zentiq_detail_atclose(app().detail.form, nullptr);
  EXPECT_EQ(other_out("SELECT COUNT(*) FROM RJ"), "COUNT(*)\n2\n");
  INI_DeleteLine("zentiq", ZQ_INI_READ_ONLY);
  EXPECT_EQ(zentiq_ro_title("Zentiq - nur lesen"), "Zentiq");
}

TEST_F(Viewer, MainFormAndDetailDialogGrowWithTheirWindows) {
  use_demo();
  select("KUNDE", "", "");
  FL_FORM *f = m().form;
  // Every text label of both forms fits its object at the form's own size.
  for (FL_FORM *form : {f, app().detail.form})
    for (FL_OBJECT *o : form->objects) {
      if (o->objclass != FL_TEXT || o->label.empty()) continue;
      QFontMetrics fm(fl_style_font(o->lstyle, o->lsize));
      EXPECT_LE(fm.horizontalAdvance(QString::fromLatin1(o->label.c_str())) + 6, o->w) << o->label;
    }
  int lines = fl_get_tabbox_screenlines(m().result);
  fl_set_form_size(f, 1021, 806);
  EXPECT_EQ(m().result->widget->geometry(), QRect(20, 330, 980, 420)) << "the result grows most";
  EXPECT_EQ(m().where->w, 890);
  EXPECT_EQ(m().sql->widget->geometry(), QRect(20, 210, 980, 121));
  EXPECT_GT(fl_get_tabbox_screenlines(m().result), lines + 5);
  EXPECT_EQ(m().sel_run->widget->geometry(), QRect(830, 10, 170, 21)) << "right edge kept";
  EXPECT_EQ(m().database_button->widget->geometry(), QRect(980, 770, 20, 21)) << "corner kept";
  EXPECT_EQ(m().log->widget->geometry(), QRect(20, 770, 100, 21));
  fl_set_form_size(f, f->w, f->h);
  EXPECT_EQ(m().result->widget->geometry(), QRect(20, 250, 680, 300));

  open_detail(1, 0);
  ZqDetailForm &d = app().detail;
  fl_set_form_size(d.form, 791, 761);
  EXPECT_EQ(d.tabbox->widget->geometry(), QRect(20, 40, 750, 665));
  EXPECT_EQ(d.value->widget->geometry(), QRect(60, 720, 630, 21));
  EXPECT_EQ(d.update->widget->geometry(), QRect(700, 720, 70, 21));
  fl_set_form_size(d.form, d.form->w, d.form->h);
  myfl_hide_form(d.form);
  fl_activate_form(f);
}

TEST_F(Viewer, DetailDialogChangesTheRowOnScreenOnlyWhileItIsUnchanged) {
  use_demo();
  ZqDetailForm &d = app().detail;
  // A form SELECT on KUNDE, then an order from the SQL input: deleting
  // deletes that order, named in the question, and no customer.
  select("KUNDE", "KUNDE_ID, NAME", "WHERE KUNDE_ID = 67");
  run_sql("SELECT * FROM AUFTRAG WHERE AUFTRAG_ID = 2;");
  open_detail(1, 0);
  fl_seam_clear();
  click(d.del); // the default: "Nein"
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_EQ(fl_seam_shown()[0].text, "Der ausgew\xE4hlte Datensatz wird gel\xF6scht!\nTabelle "
                                     "AUFTRAG, AUFTRAG_ID = 2\nWollen Sie dennoch fortfahren?");
  EXPECT_EQ(fl_seam_shown()[0].default_button, 2);
  EXPECT_EQ(other_out("SELECT COUNT(*) FROM AUFTRAG WHERE AUFTRAG_ID = 2"), "COUNT(*)\n1\n");
  fl_seam_queue_answer(1);
  click(d.del);
  EXPECT_EQ(other_out("SELECT COUNT(*) FROM AUFTRAG WHERE AUFTRAG_ID = 2"), "COUNT(*)\n0\n");
  EXPECT_EQ(other_out("SELECT COUNT(*) FROM KUNDE WHERE KUNDE_ID = 67"), "COUNT(*)\n1\n");
  EXPECT_FALSE(d.form->visible);

  // An ARTIKEL result of the SQL input (table in lower case) can be edited;
  // Return in the value input updates.
  run_sql("select ARTIKEL_ID, BEZEICHNUNG from artikel where ARTIKEL_ID = 3");
  open_detail(1, 2);
  zentiq_edit_value(d.tabbox, 0);
  fl_set_input(d.value, (std::string(fl_get_input(d.value)) + " neu").c_str());
  QTest::keyClick(d.value->widget, Qt::Key_Return);
  EXPECT_EQ(shown(), "Datensatz wurde ge\xE4ndert|");
  EXPECT_EQ(other_out("SELECT COUNT(*) FROM ARTIKEL WHERE BEZEICHNUNG LIKE '% neu'"),
            "COUNT(*)\n1\n");

  // Changed by another client since it was read: refused, with the change.
  select("KUNDE", "KUNDE_ID, NAME, ORT", "WHERE KUNDE_ID = 8");
  open_detail(1, 2);
  other("UPDATE KUNDE SET ORT = 'Anderswo' WHERE KUNDE_ID = 8");
  fl_set_input(d.value, "Neu");
  fl_seam_clear();
  click(d.update);
  EXPECT_THAT(shown(), HasSubstr("Datensatz konnte nicht ge\xE4ndert werden!\nInzwischen "
                                 "ge\xE4ndert:\nORT ist jetzt 'Anderswo'"));
  EXPECT_NE(other_out("SELECT NAME FROM KUNDE WHERE KUNDE_ID = 8"), "NAME\nNeu\n");
  EXPECT_TRUE(d.form->visible);

  // No attribute line chosen; results of no single table.
  open_detail(1, 0);
  fl_seam_clear();
  click(d.update);
  zentiq_detail_atclose(d.form, nullptr);
  std::string before = shown();
  run_sql("select COUNT(*) from KUNDE");
  open_detail(1, 1);
  click(d.update);
  click(d.del);
  EXPECT_EQ(before, "Update nicht m\xF6glich\nBitte zuerst in der Liste die Zeile des Attributs "
                    "w\xE4hlen, dessen Wert ge\xE4ndert werden soll|");
  const std::string not_one =
      "\nDas Ergebnis stammt nicht aus genau einer Tabelle (Join, "
      "Unterabfrage, COUNT oder DISTINCT) und kann hier nicht ge\xE4ndert werden|";
  EXPECT_EQ(shown(), "Update nicht m\xF6glich" + not_one + "L\xF6schen nicht m\xF6glich" + not_one);
  std::string t;
  for (const char *sql :
       {"SELECT DISTINCT ORT FROM KUNDE", "SELECT * FROM KUNDE, AUFTRAG",
        "SELECT * FROM KUNDE WHERE EXISTS (SELECT * FROM AUFTRAG)", "SELECT * FROM KUNDE K"})
    EXPECT_EQ(zentiq_plain_table(sql, &t), 0) << sql;
  EXPECT_EQ(zentiq_plain_table("select * from kunde where NAME = 'x' order by NAME;", &t), 1);
  EXPECT_EQ(t, "KUNDE");
  zentiq_detail_atclose(d.form, nullptr);
}

TEST_F(Viewer, ValuesShowAndRoundTripAsTheyAre) {
  use_demo();
  ZqDetailForm &d = app().detail;
  ASSERT_EQ(other_status("CREATE TABLE RV (RV_ID INTEGER, N INTEGER, D DATE, T CHARACTER(40))\n"
                         "INSERT INTO RV (RV_ID, T) VALUES (1, 'O''Neil \"x\" \\\\y')\n"
                         "INSERT INTO RV VALUES (2, 7, '2024-02-29', 'zwei')"),
            0);
  // Null values show empty; quote and backslash show once.
  select("RV", "", "ORDER BY RV_ID");
  ASSERT_EQ(fl_get_tabbox_maxline(m().result), 2);
  auto *rec = static_cast<ZqRecord *>(myfl_get_tabbox_item_info(m().result, 1));
  EXPECT_EQ(zentiq_row_values(rec->text),
            (std::vector<std::string>{"1", "", "", "O'Neil \"x\" \\y"}));
  std::string line = fl_get_tabbox_line(m().result, 1);
  EXPECT_NE(line.find("O'Neil \"x\" \\y"), std::string::npos) << line;
  EXPECT_EQ(line.find("1800"), std::string::npos) << line;

  // Edited text is quoted so that it is stored as typed; an emptied value
  // writes NULL; a line feed stays in one line and is written back.
  open_detail(1, 4);
  zentiq_edit_value(d.tabbox, 0);
  EXPECT_STREQ(fl_get_input(d.value), "O'Neil \"x\" \\y");
  fl_set_input(d.value, "a'b\\n\"c\"\nzwei");
  click(d.update);
  EXPECT_EQ(shown(), "Datensatz wurde ge\xE4ndert|");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 2);
  open_detail(2, 2);
  fl_set_input(d.value, "");
  click(d.update);
  open_detail(2, 2);
  fl_set_input(d.value, "12x");
  fl_seam_clear();
  click(d.update);
  EXPECT_EQ(shown(), "Update nicht m\xF6glich!\nDer Wert ist keine Zahl|");
  zentiq_detail_atclose(d.form, nullptr);
  EXPECT_EQ(other_out("SELECT RV_ID, N, T FROM RV ORDER BY RV_ID"),
            "RV_ID,N,T\n1,,\"a'b\\n\"\"c\"\"\nzwei\"\n2,,zwei\n");
  // A changed row in the first line: the line feed keeps its one line.
  open_detail(1, 2);
  EXPECT_EQ(app().detail_row.values[3], "a'b\\n\"c\"\nzwei");
  zentiq_detail_atclose(d.form, nullptr);
}

TEST_F(Viewer, StatementsAreNeverCutOrSplit) {
  use_demo();
  // Text after ";" is refused before anything runs; one ";" at the end and
  // ";" inside a literal are fine.
  run_sql("update KUNDE set PLZ = '1' where KUNDE_ID = 9; delete from KUNDE");
  EXPECT_EQ(shown(), "Nach dem ';' folgt weiterer Text!\nBitte nur einen SQL-Befehl eingeben "
                     "(ein ';' am Ende ist erlaubt)|");
  select("KUNDE", "", "WHERE KUNDE_ID = 9; delete from KUNDE");
  EXPECT_EQ(other_out("SELECT COUNT(*) FROM KUNDE WHERE KUNDE_ID = 9"), "COUNT(*)\n1\n");
  run_sql("select NAME from KUNDE where NAME <> 'a;b' and KUNDE_ID = 9;  ");
  EXPECT_EQ(shown(), "");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 1);
  // Too long for the session layer: refused with length and limit.
  std::string many =
      "select NAME from KUNDE where KUNDE_ID = 9" + std::string(DB_STATEMENT_SIZE, ' ');
  run_sql(many.c_str());
  EXPECT_EQ(shown(), "SQL-Befehl ist zu lang!\nEr hat 10042 Zeichen, erlaubt sind h\xF6"
                     "chstens 9999|");
  int outcome = 0;
  DBRESULT *r = nullptr;
  EXPECT_EQ(dbexec1(app().session, many.c_str(), &r, &outcome), 0);
  EXPECT_EQ(r, nullptr);
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

  // A store that cannot be written: the user is told and may stay.
  std::filesystem::create_directory("zentiq.qry.tmp");
  answer({1, 2});
  zentiq_store_add_sql("select 1 from KUNDE");
  zentiq_store_mark(0, 1);
  EXPECT_EQ(zentiq_main_atclose(m().form, nullptr), -1);
  EXPECT_EQ(shown(), "Soll Zentiq beendet werden?|Fehler beim Schreiben der SQL-Abfragen in "
                     "Datei 'zentiq.qry'!\nDie gespeicherten Abfragen gehen verloren.\nSoll "
                     "Zentiq trotzdem beendet werden?|");
  EXPECT_EQ(slurp(ZQ_QUERY_FILE), "KUNDE\nNAME\n\n");
  std::filesystem::remove_all("zentiq.qry.tmp");

  // The fatal stop: its text, the store saved, then the termination
  // warning, status as given.
  for (int status : {1, 3}) {
    std::filesystem::remove_all(ZQ_QUERY_FILE);
    EXPECT_EXIT(
        {
          forms_test::to_stderr();
          zentiq_store_add_sql("select 2 from KUNDE");
          zentiq_store_mark(0, 1);
          zentiq_fatal(status);
        },
        ::testing::ExitedWithCode(status),
        "Error occurred \\(data is saved\\)! Please restart the application!\n"
        "\\[Warnung\\] Application is about to terminate!");
    // The child ran this test from its start: both marked commands.
    EXPECT_EQ(slurp(ZQ_QUERY_FILE), "---\nselect 1 from KUNDE\nselect 2 from KUNDE\n") << status;
  }
}

TEST_F(Viewer, ALostServerKeepsTheViewerAndItsHistory) {
  use_demo();
  zentiq_store_add_sql("select 3 from KUNDE");
  zentiq_store_mark(0, 1);
  std::filesystem::remove_all(ZQ_QUERY_FILE);
  zqtest::test_server()->terminate();

  // The server is gone while the viewer is idle: the next query tells it,
  // the history is on disk and the viewer is still here.
  select("KUNDE", "NAME", "WHERE KUNDE_ID = 1");
  // One box only: the loss, not also the failed level.
  EXPECT_THAT(shown(), StartsWith("Die Verbindung zum TAVRIN-Server ist verloren; die Abfragen "
                                  "sind gesichert.\n"));
  EXPECT_EQ(fl_seam_shown().size(), 1u) << shown();
  EXPECT_EQ(slurp(ZQ_QUERY_FILE), "---\nselect 3 from KUNDE\n");
  EXPECT_EQ(db_depth(), 0);
  EXPECT_EQ(dbstatus(app().session), 0);

  // Still no server: said again, nothing else happens.
  fl_seam_clear();
  select("KUNDE", "NAME", "WHERE KUNDE_ID = 1");
  EXPECT_EQ(shown().find("Es l"), 0u) << shown();
  EXPECT_EQ(fl_seam_shown().size(), 1u) << shown();
  EXPECT_EQ(db_depth(), 0);

  // A server on the same data and namespace: the next query reconnects, on
  // the chosen database, and shows its rows.
  ASSERT_TRUE(zqtest::test_server()->restart()) << zqtest::test_server()->why();
  fl_seam_clear();
  select("KUNDE", "KUNDE_ID, NAME", "WHERE KUNDE_ID < 4");
  EXPECT_EQ(shown(), "");
  EXPECT_EQ(fl_get_tabbox_maxline(m().result), 3);
  EXPECT_EQ(dbstatus(app().session), 1);

  // Gone in the middle of a long statement: the server stops it, then goes;
  // one box tells both, the loss's, and the statement's own is not added.
  std::thread stopper([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    zqtest::test_server()->terminate();
  });
  run_sql("SELECT COUNT(*) FROM KUNDE a, KUNDE b, KUNDE c, KUNDE d");
  stopper.join();
  EXPECT_THAT(shown(), StartsWith("Die Verbindung zum TAVRIN-Server ist verloren"));
  EXPECT_EQ(fl_seam_shown().size(), 1u) << shown();
  EXPECT_EQ(db_depth(), 0);
  ASSERT_TRUE(zqtest::test_server()->restart()) << zqtest::test_server()->why();
}

TEST_F(Viewer, ManualOfTheDialogs) {
  // The shipped help texts: a text for every dialog with a "Hilfe" button,
  // only allowed tags.
  std::filesystem::copy_file(std::string(std::getenv("ZENTIQ_SOURCE_DIR")) + "/app/zentiq.hlp",
                             "zentiq.hlp", std::filesystem::copy_options::overwrite_existing);
  for (const char *key : {"ZTQ_HLP", "DZTQ_HLP", "TBSET_HLP", "SORT_HLP", "TBEXP_HLP", "TVIEW_HLP",
                          "ZOOM_HLP", "TABB_HLP"}) {
    std::string text = myfl_read_help(key), error;
    EXPECT_FALSE(text.empty()) << key;
    EXPECT_EQ(myfl_check_html(text.c_str(), &error), 1) << key << ": " << error;
  }
  std::filesystem::remove_all("zentiq_hlp.htm");
  ASSERT_EQ(zentiq_write_manual(), 1);
  std::string html = slurp("zentiq_hlp.htm");
  for (const char *part :
       {"SELECT durchf\xFChren", "^u^U", "Zentiq-Detail", "L\xF6schen", "Tabelle ",
        "Pfeil nach oben", "</html>", "Datenbank-Viewer", "Prim\xE4rschl\xFCssel",
        "Tabbox Einstellungen", "Sortierung-Tabbox", "Dezimalkomma", "Tabbox-Viewer", "Editor-Zoom",
        "\xDC"
        "bernehmen"})
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

  // A query begins with SELECT or SHOW in any case; the text is not touched.
  const std::string q = "  select * from T";
  EXPECT_EQ(zentiq_is_query(q), 1);
  EXPECT_EQ(q, "  select * from T");
  for (auto [text, query] : {std::pair{"ShOw databases", 1},
                             {"SELECTION", 1},
                             {"sho", 0},
                             {"(select 1)", 0},
                             {"update T set a = 1", 0}})
    EXPECT_EQ(zentiq_is_query(text), query) << text;

  EXPECT_EQ(zentiq_group_digits(1000000), "1 000 000");
  EXPECT_EQ(zentiq_group_digits(999), "999");
  EXPECT_EQ(zentiq_too_large_text("result too large: 12345 rows read, budget 1000 MB\n"),
            "Ergebnis zu gro\xDF: 12 345 Zeilen gelesen, Budget 1 000 MB");
  EXPECT_EQ(zentiq_too_large_text("result too large"), "");

  std::vector<std::string> row = {"1", "Say \"hi\" \\o/", "", "a,b\nc"};
  EXPECT_EQ(zentiq_row_text(row), "\"1\",\"Say \\\"hi\\\" \\\\o/\",\"\",\"a,b\nc\"");
  EXPECT_EQ(zentiq_row_values(zentiq_row_text(row).c_str()), row);

  // Line records are sized to their text, which is never cut.
  auto *small = static_cast<ZqRecord *>(zentiq_make_record("abc"));
  EXPECT_EQ(small->size, static_cast<int>(2 * sizeof(int) + 4));
  EXPECT_STREQ(small->text, "abc");
  std::free(small);
  auto *big = static_cast<ZqRecord *>(zentiq_make_record(std::string(20000, 'x')));
  EXPECT_EQ(std::strlen(big->text), 20000u);
  std::free(big);
}

} // namespace
