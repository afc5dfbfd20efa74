// The tabbox dialogs on the (offscreen) screen: reached from the tabbox's
// popup and keys, driven with clicks and typing, boxes answered through the
// seam. Export text and file, the settings dialog written to the settings
// line, the sort dialog, the viewer and the zoom editor.
#include "forms/editor.h"
#include "framework/tabdialogs.h"
#include "framework/tabexport.h"
#include "framework/tabset.h"
#include "tests/framework/framework_testutil.h"

#include <QClipboard>

namespace {

using namespace zqtest;

const char *title_fn(FL_OBJECT *) { return "Name,Wert,Ort"; }

class TabDialogs : public FormTest {
protected:
  void SetUp() override {
    FormTest::SetUp();
    myfl_install_tabbox_settings();
    myfl_create_tabbox_dialogs();
  }
  void TearDown() override {
    free_form();
    myfl_free_tabbox_dialogs();
    FormTest::TearDown();
  }
  // A managed tabbox of the type with the lines (by default three), shown.
  void make(int type, std::vector<const char *> lines = {"Anna,1.5,Köln", "\"B\tC\",1.2.3,a.b",
                                                         "Dora,-7,Ulm"}) {
    tb_ = tabbox_form(form_, type, 400, 240);
    myfl_init_tabbox(form_, tb_, "Liste", title_fn, nullptr);
    for (const char *line : lines) myfl_addto_tabbox_line(tb_, line, nullptr);
    show_and_activate(form_);
    fl_layout_tabbox(tb_);
  }
  void popup(int item) {
    fl_seam_queue_popup(item);
    QTest::mouseClick(tb_->widget, Qt::RightButton, {}, line_point(tb_, 0));
  }
  void click(FL_OBJECT *button) { QTest::mouseClick(button->widget, Qt::LeftButton); }
  void type_into(FL_OBJECT *input, const char *text) {
    fl_set_input(input, "");
    QTest::keyClicks(input->widget, QString::fromLatin1(text));
  }
  std::string last_box() { return fl_seam_shown().empty() ? "" : fl_seam_shown().back().text; }
  MYFL_TABBOX_DIALOGS &d = myfl_tabbox_dialogs();
};

TEST_F(TabDialogs, ExportTextTurnsPlainNumbersToCommas) {
  make(2);
  std::string text, error;
  ASSERT_EQ(myfl_export_tabbox_text(tb_, 1, &text, &error), 1);
  EXPECT_EQ(text, "Name\tWert\tOrt\n"
                  "Anna\t1,5\tKöln\n"
                  "B_C\t1.2.3\ta.b\n"
                  "Dora\t-7\tUlm\n");
  // Only the shown columns, in display order.
  auto p = tabbox_props(tb_);
  std::copy_n(V{0, 3, 1, 2}.begin(), 4, p.order);
  p.visible[2] = 0;
  ASSERT_EQ(myfl_export_tabbox_text(tb_, 0, &text, &error), 1);
  EXPECT_EQ(text, "Ort\tName\nKöln\tAnna\na.b\tB_C\nUlm\tDora\n");

  EXPECT_EQ(myfl_valid_filename("daten/export 1"), 1);
  EXPECT_EQ(myfl_valid_filename(""), 0);
  EXPECT_EQ(myfl_export_filename("x.csv"), "x.csv");

  // A tabbox without a title has no consistent columns.
  FL_FORM *f = nullptr;
  FL_OBJECT *bare = tabbox_form(f, 1, 80, 80);
  EXPECT_EQ(myfl_export_tabbox_text(bare, 1, &text, &error), 0);
  EXPECT_EQ(error, "Es ist ein Fehler aufgetreten (Tabellenanzahl inkonsistent)");
  // Only trailing blanks are cut: a right-aligned number stays as it is.
  fl_set_tabbox_title(bare, "Betrag | Nr");
  fl_add_tabbox_line(bare, "   1.5 | 2 ");
  fl_add_tabbox_line(bare, "2.5    | 3");
  ASSERT_EQ(myfl_export_tabbox_text(bare, 1, &text, &error), 1);
  EXPECT_EQ(text, "Betrag\tNr\n   1.5\t2\n2,5\t3\n");
  // As CSV: the fields cut from the lines; "   1.5" is no plain number, so
  // the column keeps its points.
  ASSERT_EQ(myfl_export_tabbox_csv(bare, 1, ';', ',', &text, &error), 1);
  EXPECT_EQ(text, "Betrag;Nr\r\n   1.5;2\r\n2.5;3\r\n");
  fl_free_form(f);
}

TEST_F(TabDialogs, ExportDialogWritesAndAsksBeforeOverwriting) {
  make(2);
  popup(3);
  ASSERT_TRUE(d.exp->visible);
  type_into(d.exp_name, "a*b");
  click(d.exp_all);
  EXPECT_EQ(last_box(), "Ungültiger Dateiname");
  EXPECT_TRUE(d.exp->visible);

  std::string base = (dir_ / "liste").string();
  type_into(d.exp_name, base.c_str());
  click(d.exp_shown);
  EXPECT_FALSE(d.exp->visible);
  std::filesystem::path file = base + ".csv";
  EXPECT_THAT(slurp(file), testing::StartsWith("Name\tWert\tOrt\n"));

  // Existing file: "Nein" keeps it and the dialog, "Ja" overwrites.
  std::ofstream(file) << "alt";
  popup(3);
  fl_seam_queue_answer(2);
  click(d.exp_all);
  EXPECT_EQ(last_box(), "Soll Datei überschrieben werden?");
  EXPECT_EQ(fl_seam_shown().back().title, "Datei existiert bereits");
  EXPECT_EQ(slurp(file), "alt");
  EXPECT_TRUE(d.exp->visible);
  fl_seam_queue_answer(1);
  click(d.exp_all);
  EXPECT_THAT(slurp(file), testing::StartsWith("Name\tWert\tOrt\n"));
  EXPECT_FALSE(d.exp->visible);
  myfl_close_tabbox_export();
  EXPECT_EQ(messages(), "Export-Tabbox-Dialog bereits geschlossen\n");
}

TEST_F(TabDialogs, CsvExportReadsBackAndCtrlCCopiesTheSelection) {
  // Quotes, both separators, a line feed, blanks around a value, umlauts
  // (Latin-1 in the tabbox), numbers.
  make(3, {"\"Anna \\\"A\\\"; Köln, Süd\",1.5,\"Zeile1\nZeile2\"", "\" Bea \",-7,\"\"",
           "Cem,12.25,Ulm"});

  std::string text, error;
  ASSERT_EQ(myfl_export_tabbox_csv(tb_, 1, ';', ',', &text, &error), 1) << error;
  // RFC 4180 in UTF-8: quoted where a field holds the separator, a quote or a
  // line feed, a quote inside doubled, records ended by CR LF.
  EXPECT_EQ(text, "Name;Wert;Ort\r\n"
                  "\"Anna \"\"A\"\"; K\xC3\xB6ln, S\xC3\xBC"
                  "d\";1,5;\"Zeile1\nZeile2\"\r\n"
                  " Bea ;-7;\r\n"
                  "Cem;12,25;Ulm\r\n");
  // With "," between fields and "." as the decimal point the values stay.
  ASSERT_EQ(myfl_export_tabbox_csv(tb_, 1, ',', '.', &text, &error), 1);
  EXPECT_EQ(text, "Name,Wert,Ort\r\n"
                  "\"Anna \"\"A\"\"; K\xC3\xB6ln, S\xC3\xBC"
                  "d\",1.5,\"Zeile1\nZeile2\"\r\n"
                  " Bea ,-7,\r\n"
                  "Cem,12.25,Ulm\r\n");
  EXPECT_EQ(myfl_export_tabbox_csv(tb_, 1, '"', ',', &text, &error), 0);

  // Ctrl+C: the title and the selected lines in display order (sorted by
  // name, descending), TAB-separated, line feeds inside values as blanks.
  int col = 1, dir = 0;
  fl_set_tabbox_sort(tb_, 1, &col, &dir);
  for (int line : {1, 3}) fl_select_tabbox_line(tb_, line);
  QGuiApplication::clipboard()->clear();
  QTest::keyClick(tb_->widget, Qt::Key_C, Qt::ControlModifier);
  EXPECT_EQ(QGuiApplication::clipboard()->text().toLatin1().toStdString(),
            "Name\tWert\tOrt\nCem\t12,25\tUlm\nAnna \"A\"; Köln, Süd\t1,5\tZeile1 Zeile2\n");
  fl_deselectall_tabbox(tb_);
  EXPECT_EQ(myfl_copy_tabbox_text(tb_, &text), 0);
}

TEST_F(TabDialogs, SettingsDialogWritesTheSettingsLine) {
  make(0);
  // Reached from the sort dialog of the popup.
  popup(1);
  ASSERT_TRUE(d.sort->visible);
  click(d.sort_settings);
  ASSERT_TRUE(d.settings->visible);
  EXPECT_FALSE(d.sort->visible);

  // "Wert" moved out of the shown columns.
  fl_select_listbox_line(d.set_selected, 2);
  click(d.set_remove);
  EXPECT_EQ(std::string(fl_get_listbox_line(d.set_available, 1)), "Wert");
  // A descending key on "Name".
  fl_select_listbox_line(d.set_selected, 1);
  click(d.set_down);
  EXPECT_EQ(std::string(fl_get_listbox_line(d.set_sort, 1)), "Name (abw)");
  type_into(d.set_comma, "25");
  click(d.set_ok);
  EXPECT_EQ(last_box(), "Maximal 20 Nachkommastellen sind zulässig!");
  EXPECT_TRUE(d.settings->visible);

  type_into(d.set_comma, "2");
  type_into(d.set_maxwidth, "3");
  fl_set_button(d.set_vertical, 1);
  click(d.set_ok);
  EXPECT_FALSE(d.settings->visible);
  EXPECT_EQ(last_box(), "Nachkommastellen werden erst nach Neubefüllung berücksichtigt!");
  EXPECT_EQ(ini_line("Liste"),
            "[Liste] v 0 4 1 3 -1 1d 3m " + myfl_tabbox_columns_token(tb_) + " \n");
  EXPECT_EQ(fl_get_tabbox_vert(tb_), 1);
  EXPECT_EQ(fl_get_tabbox_comma(tb_), 2);
  // The tabbox was refreshed with the stored settings.
  fl_layout_tabbox(tb_);
  EXPECT_EQ(std::string(fl_get_tabbox_title(tb_)), "Nam~| Ort");
  EXPECT_EQ(std::string(fl_get_tabbox_line(tb_, 1)), "Dor~| Ulm");

  // On the main result tabbox decimal places are refused.
  myfl_set_main_tabbox(tb_);
  myfl_open_tabbox_settings(tb_);
  type_into(d.set_comma, "4");
  click(d.set_ok);
  EXPECT_EQ(last_box(), "Nachkommastellen-Definition nicht möglich.");
  EXPECT_EQ(fl_get_tabbox_comma(tb_), -1);
  myfl_set_main_tabbox(nullptr);
}

TEST_F(TabDialogs, SortDialogSetsAndStoresTheKeys) {
  make(2);
  popup(1);
  ASSERT_TRUE(d.sort->visible);
  fl_select_listbox_line(d.sort_columns, 3);
  click(d.sort_up);
  fl_select_listbox_line(d.sort_columns, 1);
  click(d.sort_down);
  click(d.sort_up); // the same column again: only its direction changes
  EXPECT_EQ(fl_get_listbox_maxline(d.sort_keys), 2);
  click(d.sort_ok);
  EXPECT_FALSE(d.sort->visible);
  EXPECT_EQ(ini_line("Liste"), "[Liste] 0 4 1 2 3 3u 1u " + myfl_tabbox_columns_token(tb_) + " \n");
  fl_layout_tabbox(tb_);
  EXPECT_THAT(std::string(fl_get_tabbox_full_line(tb_, 1)), testing::StartsWith("B\tC "));
  myfl_close_tabbox_sort();
  EXPECT_EQ(messages(), "Sortierung-Tabbox-Dialog bereits geschlossen\n");
}

TEST_F(TabDialogs, ASortBelongsToItsColumnsAndFollowsTitleClicks) {
  make(2);
  const std::string title = fl_get_tabbox_full_title(tb_);
  auto sort_of = [&] {
    auto p = tabbox_props(tb_);
    std::string keys;
    for (int i = 0; i < p.nsort; ++i) keys += std::to_string(p.cols[i]) + (p.dirs[i] ? "u" : "d");
    return keys;
  };
  // A click on the title of "Name" sorts by it, again descending, then off.
  const QPoint on_name = title_cell(tb_, 0);
  QTest::mouseClick(tb_->widget, Qt::LeftButton, {}, on_name);
  EXPECT_EQ(sort_of(), "1u");
  QTest::mouseClick(tb_->widget, Qt::LeftButton, {}, on_name);
  EXPECT_EQ(sort_of(), "1d");
  EXPECT_EQ(std::string(fl_get_tabbox_full_line(tb_, 1)).substr(0, 4), "Dora");
  QTest::mouseClick(tb_->widget, Qt::LeftButton, {}, on_name);
  EXPECT_EQ(sort_of(), "");

  // A stored sort comes back for the same columns only.
  fl_set_tabbox_sort(tb_, 1, std::vector<int>{3}.data(), std::vector<int>{0}.data());
  ASSERT_EQ(myfl_save_tabbox_ini(tb_), 1);
  fl_set_tabbox_title(tb_, "Kunde|Ort|PLZ");
  EXPECT_EQ(sort_of(), "") << "other columns: the server's order holds";
  fl_set_tabbox_title(tb_, title.c_str());
  EXPECT_EQ(sort_of(), "3d");
  INI_PutLine("app", "Liste", "[Liste] 0 4 1 2 3 3u \n"); // a line of unknown columns
  fl_set_tabbox_title(tb_, title.c_str());
  EXPECT_EQ(sort_of(), "");
}

TEST_F(TabDialogs, ViewerShowsTheSelectedLine) {
  make(2);
  myfl_open_tabbox_viewer(tb_);
  EXPECT_EQ(last_box(), "Keine Daten darstellbar");
  EXPECT_FALSE(d.viewer->visible);
  fl_select_tabbox_line(tb_, 3);
  QTest::keyClick(tb_->widget, Qt::Key_F2);
  ASSERT_TRUE(d.viewer->visible);
  FL_OBJECT *v = d.viewer_tabbox;
  EXPECT_EQ(fl_get_tabbox_vert(v), 1);
  EXPECT_EQ(fl_get_tabbox(v), 1) << "the first attribute line is selected";
  EXPECT_EQ(taken(fl_get_tabbox_vert_attr_line(v, 2)), "Wert");
  EXPECT_EQ(taken(fl_get_tabbox_vert_attr_line_value(v, 2)), "-7");
  click(d.viewer_close);
  EXPECT_FALSE(d.viewer->visible);
  // From the viewer's own vertical display: its selected attribute line.
  fl_select_tabbox_line(v, 3);
  myfl_open_tabbox_viewer(v);
  ASSERT_TRUE(d.viewer->visible);
  EXPECT_EQ(taken(fl_get_tabbox_vert_attr_line_value(v, 2)), "Ulm");
  click(d.viewer_close);
  myfl_close_tabbox_viewer();
  EXPECT_EQ(messages(), "Tabbox-Viewer-Dialog bereits geschlossen\n");
}

TEST_F(TabDialogs, ZoomEditorTakesTheTextBack) {
  form_ = fl_begin_form(0, 420, 260);
  FL_OBJECT *input = fl_add_editor(0, 10, 30, 400, 200, "");
  fl_end_form();
  show_and_activate(form_);
  fl_set_input(input, "SELECT * FROM Kunden");
  click(fl_get_editor(input)->zoom);
  ASSERT_TRUE(d.zoom->visible);
  EXPECT_EQ(std::string(fl_get_input(d.zoom_text)), "SELECT * FROM Kunden");
  fl_set_input(d.zoom_text, "SELECT Name FROM Kunden WHERE Ort = 'Köln'");
  click(d.zoom_ok);
  EXPECT_FALSE(d.zoom->visible);
  EXPECT_EQ(std::string(fl_get_input(input)), "SELECT Name FROM Kunden WHERE Ort = 'Köln'");
  // Cancel leaves the editor alone.
  click(fl_get_editor(input)->zoom);
  fl_set_input(d.zoom_text, "anders");
  click(d.zoom_cancel);
  EXPECT_EQ(std::string(fl_get_input(input)), "SELECT Name FROM Kunden WHERE Ort = 'Köln'");
  myfl_close_editor_zoom();
  EXPECT_EQ(messages(), "Editor-Zoom-Dialog bereits geschlossen\n");
}

} // namespace
