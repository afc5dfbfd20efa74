// The table browser, name completion and the status line of the viewer
// against a real server on its DEMO database.
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTest>
#include <QTimer>

#include "app/browser.h"
#include "app/catalog.h"
#include "app/completion.h"
#include "app/mainform.h"
#include "app/querystore.h"
#include "app/status.h"
#include "app/viewer.h"
#include "db/access/session.h"
#include "forms/dialogs.h"
#include "framework/combo.h"
#include "tests/app/app_testutil.h"
#include "tests/framework/framework_testutil.h"

namespace {

using Names = std::vector<std::string>;

class ViewerTools : public ::testing::Test {
protected:
  static bool started() { return zqtest::viewer_started(); }
  void SetUp() override {
    if (!started()) GTEST_SKIP() << "no TAVRIN server could be started";
    fl_seam_clear();
    if (std::string(myfl_get_cmb_code(m().database)) != "DEMO") {
      ASSERT_EQ(myfl_set_cmb_code(m().database, "DEMO"), 1);
    }
    for (FL_OBJECT *in : {m().table, m().attributes, m().where, m().sql}) fl_set_input(in, "");
  }
  void TearDown() override { EXPECT_EQ(db_depth(), 0) << "a level was left open"; }
  ZqMainForm &m() { return zentiq_app().main; }

  // The input with `text` typed up to its end, as the user leaves it.
  void typed(FL_OBJECT *input, const char *text) {
    fl_set_input(input, text);
    if (auto *le = qobject_cast<QLineEdit *>(input->widget)) le->end(false);
    if (auto *te = qobject_cast<QPlainTextEdit *>(input->widget)) te->moveCursor(QTextCursor::End);
  }
};

TEST_F(ViewerTools, BrowserListsTablesAndAttributesAndFillsTheInputs) {
  typed(m().table, "kunde");
  zentiq_open_browser();
  ZqBrowserForm &b = zentiq_browser();
  ASSERT_TRUE(b.form->visible);
  // DEMO's tables (tests before may have added some).
  Names listed = zentiq_browser_listed();
  for (const char *t : {"ARTIKEL", "AUFTRAG", "KUNDE", "POSITION"})
    EXPECT_NE(std::find(listed.begin(), listed.end(), t), listed.end()) << t;
  // The table typed in "Tabelle" is shown with its attributes.
  Names lines = zentiq_browser_attribute_lines();
  ASSERT_EQ(lines.size(), 14u);
  EXPECT_EQ(lines[0], "KUNDE_ID|INTEGER|JA|KUNDE_PK (eindeutig)");
  EXPECT_EQ(lines[3], "NAME|CHARACTER(31)|JA|KUNDE_NAME");
  EXPECT_EQ(lines[13], "ANGELEGT|TIMESTAMP|NEIN|");

  // Choosing fills "Tabelle", attributes in the table's order fill
  // "Attribute"; what was typed comes back with undo.
  typed(m().attributes, "mein Text");
  ASSERT_EQ(zentiq_browser_choose_table("AUFTRAG"), 1);
  EXPECT_STREQ(fl_get_input(m().table), "AUFTRAG");
  ASSERT_EQ(zentiq_browser_choose_attributes({"STATUS", "AUFTRAG_ID"}), 2);
  EXPECT_STREQ(fl_get_input(m().attributes), "AUFTRAG_ID, STATUS");
  qobject_cast<QLineEdit *>(m().attributes->widget)->undo();
  EXPECT_STREQ(fl_get_input(m().attributes), "mein Text");

  // The filter, any case.
  QTest::keyClicks(b.filter->widget, "aU");
  EXPECT_EQ(zentiq_browser_listed(), (Names{"AUFTRAG"}));
  fl_set_input(b.filter, "");
  QTest::keyClicks(b.filter->widget, " ");

  // It follows the database; the cache is read anew.
  ASSERT_EQ(myfl_set_cmb_code(m().database, "TDSYS"), 1);
  Names tdsys = zentiq_browser_listed();
  EXPECT_NE(std::find(tdsys.begin(), tdsys.end(), "ERROT"), tdsys.end());
  EXPECT_EQ(std::find(tdsys.begin(), tdsys.end(), "KUNDE"), tdsys.end());
  EXPECT_EQ(zentiq_catalog_knows("kunde"), 0);
  ASSERT_EQ(myfl_set_cmb_code(m().database, "DEMO"), 1);
  myfl_hide_form(b.form);
  EXPECT_EQ(fl_seam_shown().size(), 0u);
}

TEST_F(ViewerTools, NamesCompleteWithoutRegardToCaseFromTheRightTables) {
  // Tables in "Tabelle", from two letters on; the choice replaces the prefix.
  typed(m().table, "k");
  EXPECT_EQ(zentiq_open_completion(m().table, false), 0);
  typed(m().table, "ku");
  EXPECT_EQ(zentiq_open_completion(m().table, false), 1);
  EXPECT_EQ(zentiq_completion_shown(m().table), (Names{"KUNDE"}));
  ASSERT_EQ(zentiq_choose_completion(m().table, 0), 1);
  EXPECT_STREQ(fl_get_input(m().table), "KUNDE");
  EXPECT_TRUE(zentiq_completion_shown(m().table).empty());

  // Attributes of the table in "Tabelle" only, also for one letter with
  // Ctrl+Space, in the middle of the WHERE input's text.
  typed(m().where, "WHERE Ort = 'x' AND k");
  QTest::keyClick(m().where->widget, Qt::Key_Space, Qt::ControlModifier);
  EXPECT_EQ(zentiq_completion_shown(m().where), (Names{"KREDITLIMIT", "KUNDE_ID", "KUNDE_SEIT"}));
  ASSERT_EQ(zentiq_choose_completion(m().where, 1), 1);
  EXPECT_STREQ(fl_get_input(m().where), "WHERE Ort = 'x' AND KUNDE_ID");

  // The SQL input: table names and the attributes of the tables it names.
  typed(m().sql, "SELECT * FROM position p WHERE p.au");
  zentiq_open_completion(m().sql, false);
  EXPECT_EQ(zentiq_completion_shown(m().sql), (Names{"AUFTRAG", "AUFTRAG_ID"}));
  typed(m().sql, "SELECT * FROM artikel WHERE be");
  zentiq_open_completion(m().sql, false);
  EXPECT_EQ(zentiq_completion_shown(m().sql), (Names{"BESTAND", "BEZEICHNUNG"}));
  // KUNDE's NAME is cached but not offered for ARTIKEL.
  typed(m().sql, "SELECT * FROM artikel WHERE na");
  EXPECT_EQ(zentiq_open_completion(m().sql, false), 0);

  // A table created by a command is known at once.
  fl_set_input(m().sql, "CREATE TABLE ZZ_NEU (WERT INTEGER)");
  QTest::mouseClick(m().sql_run->widget, Qt::LeftButton);
  typed(m().table, "zz");
  EXPECT_EQ(zentiq_completion_shown(m().table).size(), 0u);
  zentiq_open_completion(m().table, false);
  EXPECT_EQ(zentiq_completion_shown(m().table), (Names{"ZZ_NEU"}));
  zentiq_choose_completion(m().table, 0);
  fl_set_input(m().sql, "DROP TABLE ZZ_NEU");
  QTest::mouseClick(m().sql_run->widget, Qt::LeftButton);
}

TEST_F(ViewerTools, ALongQueryShowsAbbrechenWhichStopsIt) {
  // A query that runs for ever: after half a second the indicator and
  // "Abbrechen" show, other buttons take no clicks, "Abbrechen" stops it.
  int stored = zentiq_store().sql_count, selects = zentiq_store().select_count;
  bool shown = false, visible = false;
  QTimer::singleShot(900, [&] {
    shown = zentiq_busy_shown() != 0;
    visible = zentiq_cancel_button()->visible != 0;
    QTest::mouseClick(m().sel_run->widget, Qt::LeftButton); // held back
    QTest::mouseClick(zentiq_cancel_button()->widget, Qt::LeftButton);
  });
  QTimer::singleShot(10000, [] { zentiq_cancel_query(); }); // never left waiting
  fl_seam_queue_answer(1);
  fl_set_input(m().table, "KUNDE"); // a SELECT that would run if the click came through
  fl_set_input(m().sql, "SELECT COUNT(*) FROM POSITION A, POSITION B, POSITION C");
  QTest::mouseClick(m().sql_run->widget, Qt::LeftButton);
  EXPECT_TRUE(shown);
  EXPECT_TRUE(visible);
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_NE(fl_seam_shown()[0].text.find("515"), std::string::npos) << fl_seam_shown()[0].text;
  EXPECT_EQ(zentiq_cancel_button()->visible, 0);
  EXPECT_EQ(zentiq_status_text(), "");
  EXPECT_EQ(zentiq_store().sql_count, stored);
  EXPECT_EQ(zentiq_store().select_count, selects);
}

TEST_F(ViewerTools, StatusLineTellsRowsColumnsAndTimes) {
  fl_set_input(m().table, "KUNDE");
  fl_set_input(m().attributes, "KUNDE_ID, NAME");
  fl_set_input(m().where, "WHERE KUNDE_ID <= 1200");
  QTest::mouseClick(m().sel_run->widget, Qt::LeftButton);
  std::string s = zentiq_status_text();
  EXPECT_EQ(s.rfind("600 Zeilen, 2 Spalten; Abfrage ", 0), 0u) << s;
  EXPECT_NE(s.find(" ms, Anzeige "), std::string::npos) << s;
  // A failed query leaves no figures of an earlier one.
  fl_set_input(m().where, "WHERE NIX = 1");
  fl_seam_queue_answer(1);
  QTest::mouseClick(m().sel_run->widget, Qt::LeftButton);
  EXPECT_EQ(zentiq_status_text(), "");
  EXPECT_EQ(zentiq_duration_text(0.44), "0,4 ms");
  EXPECT_EQ(zentiq_duration_text(12345), "12,35 s");
}

} // namespace
