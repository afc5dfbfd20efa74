// The table browser, name completion and the status line of the viewer
// against a real server on its DEMO database.
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTimer>

#include "app/browser.h"
#include "app/catalog.h"
#include "app/completion.h"
#include "app/status.h"
#include "tests/app/app_testutil.h"

namespace {

using Names = std::vector<std::string>;

// Each test on DEMO with empty inputs.
class ViewerTools : public zqtest::ViewerTest {
protected:
  void SetUp() override {
    ViewerTest::SetUp();
    if (IsSkipped()) return;
    use_demo(false);
    for (FL_OBJECT *in : {m().table, m().attributes, m().where, m().sql}) fl_set_input(in, "");
  }

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
  run_sql("CREATE TABLE ZZ_NEU (WERT INTEGER)");
  typed(m().table, "zz");
  EXPECT_EQ(zentiq_completion_shown(m().table).size(), 0u);
  zentiq_open_completion(m().table, false);
  EXPECT_EQ(zentiq_completion_shown(m().table), (Names{"ZZ_NEU"}));
  zentiq_choose_completion(m().table, 0);
  run_sql("DROP TABLE ZZ_NEU");
}

TEST_F(ViewerTools, ALongQueryShowsAbbrechenWhichStopsIt) {
  // A query that runs for ever: after half a second the indicator and
  // "Abbrechen" show, other buttons take no clicks, "Abbrechen" stops it.
  int stored = zentiq_store().sql_count, selects = zentiq_store().select_count;
  bool shown = false, visible = false;
  QTimer::singleShot(900, [&] {
    shown = zentiq_busy_shown() != 0;
    visible = zentiq_cancel_button()->visible != 0;
    click(m().sel_run); // held back
    click(zentiq_cancel_button());
  });
  QTimer::singleShot(10000, [] { zentiq_cancel_query(); }); // never left waiting
  fl_set_input(m().table, "KUNDE"); // a SELECT that would run if the click came through
  run_sql("SELECT COUNT(*) FROM POSITION A, POSITION B, POSITION C", {1});
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
  select("KUNDE", "KUNDE_ID, NAME", "WHERE KUNDE_ID <= 1200");
  std::string s = zentiq_status_text();
  EXPECT_EQ(s.rfind("600 Zeilen, 2 Spalten; Abfrage ", 0), 0u) << s;
  EXPECT_NE(s.find(" ms, Anzeige "), std::string::npos) << s;
  // A failed query leaves no figures of an earlier one.
  fl_seam_queue_answer(1);
  select("KUNDE", "KUNDE_ID, NAME", "WHERE NIX = 1");
  EXPECT_EQ(zentiq_status_text(), "");
  EXPECT_EQ(zentiq_duration_text(0.44), "0,4 ms");
  EXPECT_EQ(zentiq_duration_text(12345), "12,35 s");
}

} // namespace
