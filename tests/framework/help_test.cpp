// The help system: the help file's sections (reading, replacing, appending),
// the tag check, the display texts, and the help dialog driven by F1 and its
// buttons, with the external editor replaced by a shell command.
#include "tests/framework/framework_testutil.h"

namespace {

using namespace zqtest;

class Help : public FormTest {
protected:
  Help() : FormTest("helptest") {}
};

const char *const kFile = "[ZTQ_HLP]\n"
                          "<h1>Zentiq</h1>\n"
                          "Text <b>fett</b> 3 <4<i>x</i>\n"
                          "[NOTE]\n"
                          "inner\n"
                          "[DZTQ_HLP] trailing words\n"
                          "Detail<intern>geheim\n</intern>Ende\n";

TEST_F(Help, SectionsAreReadReplacedAndAppended) {
  write_file("helptest.hlp", kFile);
  EXPECT_EQ(myfl_find_help("DZTQ_HLP"), 6) << "text after the ] is ignored";
  EXPECT_EQ(myfl_read_help("ZTQ_HLP"), "<h1>Zentiq</h1>\nText <b>fett</b> 3 <4<i>x</i>\n")
      << "reading stops at any header";
  EXPECT_EQ(myfl_read_help("MISSING_HLP"), "");
  // A "<" with another "<" two places after it is text, not a tag.
  EXPECT_EQ(myfl_strip_html("ZTQ_HLP"), "Zentiq\nText fett 3 <4x\n");

  // Saving skips the old body up to the next header with "HLP": the header
  // without it goes with the old body.
  ASSERT_EQ(myfl_save_help("ZTQ_HLP", "neu"), 1);
  EXPECT_EQ(slurp("helptest.hlp"), "[ZTQ_HLP]\nneu\n[DZTQ_HLP] trailing words\n"
                                   "Detail<intern>geheim\n</intern>Ende\n");
  ASSERT_EQ(myfl_save_help("NEW_HLP", "x\n"), 1);
  EXPECT_EQ(slurp("helptest.hlp").substr(slurp("helptest.hlp").size() - 14), "\n\n[NEW_HLP]\nx\n");
  EXPECT_EQ(myfl_read_help("NEW_HLP"), "x\n");
  EXPECT_EQ(myfl_read_help("DZTQ_HLP"), "Detail<intern>geheim\n</intern>Ende\n\n")
      << "the empty line before an appended section ends the one before";

  std::filesystem::remove("helptest.hlp");
  EXPECT_EQ(myfl_read_help("ZTQ_HLP"), "");
  ASSERT_EQ(myfl_save_help("FIRST_HLP", ""), 1);
  EXPECT_EQ(slurp("helptest.hlp"), "\n[FIRST_HLP]\n\n");
  EXPECT_EQ(messages(), "");
}

TEST_F(Help, TagCheck) {
  std::string err;
  EXPECT_EQ(myfl_check_html("<table border=1><tr><td>x</td></tr></TABLE>", &err), 1) << err;
  EXPECT_EQ(myfl_check_html("<intern>a</intern> <br> 3 <4<b>x</b>", &err), 1) << err;
  EXPECT_EQ(myfl_check_html("<a href=\"x.htm\">x</a>", &err), 0);
  EXPECT_EQ(err, "HTML-Befehl 'a href=\"x.htm\"' nicht zulässig.");
  EXPECT_EQ(myfl_check_html("<TR class=x>", &err), 0) << "tr takes no attributes";
  EXPECT_EQ(err, "HTML-Befehl 'tr class=x' nicht zulässig.");
  EXPECT_EQ(myfl_check_html("text <b", &err), 0);
  EXPECT_EQ(err, "Schließende Befehlsklammer '>' fehlt.");
  EXPECT_EQ(myfl_check_html("<", &err), 0) << "a lone bracket at the end";
  EXPECT_EQ(myfl_strip_tags("a<b>c<"), "ac");
}

TEST_F(Help, InternalBlocksAreRemovedAndUnclosedOnesWarned) {
  write_file("helptest.hlp", "[A_HLP]\n1<intern>x</intern>2<intern>y\n</intern>3\n"
                             "[B_HLP]\nvor<intern>offen\n");
  form_ = fl_begin_form(0, 100, 100);
  FL_OBJECT *a = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 100, 100, "");
  FL_OBJECT *b = fl_add_button(FL_NORMAL_BUTTON, 0, 0, 10, 10, "");
  fl_end_form();
  myfl_init_helpdialog(form_, a, "A_HLP");
  myfl_init_helpdialog(form_, b, "B_HLP");
  EXPECT_EQ(a->shortcut, "&1^[");
  std::string out;
  EXPECT_EQ(myfl_strip_intern(a, &out), 1);
  EXPECT_EQ(out, "1\n2\n3\n");
  EXPECT_EQ(myfl_strip_intern(b, &out), 0);
  EXPECT_EQ(messages(), "Warnung (Hilfetext 'B_HLP'): <intern> ohne </intern>!\n");
  EXPECT_FATAL("\\(myfl_init_helpdialog\\) Helpdialog 'C_HLP' already defined\n",
               myfl_init_helpdialog(form_, a, "C_HLP"));
}

class HelpDialog : public Help {
protected:
  void SetUp() override {
    Help::SetUp();
    write_file("helptest.hlp", "[T_HLP]\n<b>Hallo</b><intern>nur intern</intern>\n");
    form_ = fl_begin_form(0, 200, 150);
    help_ = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 200, 150, "");
    input_ = fl_add_input(FL_NORMAL_INPUT, 50, 10, 100, 24, "In");
    fl_end_form();
    myfl_init_helpdialog(form_, help_, "T_HLP");
    d_ = myfl_get_helpdialog();
  }
  void TearDown() override {
    if (d_->open) {
      d_->edit_mode = 0;
      fl_close_form(d_->form);
    }
    Help::TearDown();
  }
  std::string field() { return fl_get_input(d_->text); }
  FL_OBJECT *help_ = nullptr, *input_ = nullptr;
  MYFL_HELPDIALOG *d_ = nullptr;
};

TEST_F(HelpDialog, F1ShowsTheTextAndEditingSavesIt) {
  show_and_activate(form_);
  fl_set_focus_object(form_, input_);
  QTest::keyClick(input_->widget, Qt::Key_F1);
  ASSERT_EQ(d_->open, 1);
  EXPECT_TRUE(d_->form->window->isVisible());
  EXPECT_EQ(d_->form->title, "Hilfedialog");
  EXPECT_EQ(field(), "Hallo\n\n") << "tags are not shown, an internal block is a line feed";
  myfl_open_help(help_);
  EXPECT_EQ(fl_seam_shown().back().text, "Hilfedialog bereits geöffnet");

  QTest::mouseClick(d_->edit->widget, Qt::LeftButton);
  EXPECT_EQ(d_->edit->label, "Hilfetext ändern");
  EXPECT_FALSE(d_->external->active);
  EXPECT_EQ(d_->status->label, "Editier-Modus");
  EXPECT_EQ(field(), "<b>Hallo</b><intern>nur intern</intern>\n");

  fl_set_input(d_->text, "<a href=x>neu</a>");
  QTest::mouseClick(d_->edit->widget, Qt::LeftButton);
  EXPECT_EQ(fl_seam_shown().back().text,
            "HTML-Syntaxfehler\nHTML-Befehl 'a href=x' nicht zulässig.");
  EXPECT_EQ(d_->edit_mode, 1) << "a syntax error keeps the edit mode";

  fl_set_input(d_->text, "<i>neu</i>");
  QTest::mouseClick(d_->edit->widget, Qt::LeftButton);
  EXPECT_EQ(fl_seam_shown().back().text, "Hilfetext wurde gesichert");
  EXPECT_EQ(d_->edit->label, "Hilfetext editieren");
  EXPECT_TRUE(d_->external->active);
  EXPECT_EQ(field(), "neu\n");
  EXPECT_EQ(slurp("helptest.hlp"), "[T_HLP]\n<i>neu</i>\n");

  // Closing while editing asks first; "Nein" keeps the dialog.
  QTest::mouseClick(d_->edit->widget, Qt::LeftButton);
  fl_seam_queue_answer(2);
  QTest::keyClick(d_->text->widget, Qt::Key_Escape);
  EXPECT_EQ(fl_seam_shown().back().text,
            "Nicht gespeicherte Änderungen am Hilfetext gehen verloren!\n"
            "Wollen Sie dennoch fortfahren?");
  EXPECT_EQ(d_->open, 1);
  fl_seam_queue_answer(1);
  QTest::mouseClick(d_->close->widget, Qt::LeftButton);
  EXPECT_EQ(d_->open, 0);
  EXPECT_FALSE(d_->form->window->isVisible());
  EXPECT_THAT(slurp("helptest.ini"), testing::HasSubstr("[Hilfedialog_XY]"))
      << "the dialog's position is kept";
}

TEST_F(HelpDialog, ExternalEditorWorksOnTheTemporaryFile) {
  setenv("ZENTIQ_HTML_EDITOR", "echo started > editor.log", 1);
  help_->last_key = FL_KEY_ACTIVATE;
  myfl_cb_help(help_, 0);
  ASSERT_EQ(d_->open, 1);
  // The button starts the editor; the test waits for the command's line (the
  // shell makes the file before echo writes to it), also so that the shell
  // writes nothing into the folder while the test's end removes it.
  auto start_editor = [&] {
    std::filesystem::remove("editor.log");
    QTest::mouseClick(d_->external->widget, Qt::LeftButton);
    for (int i = 0; i < 250 && slurp("editor.log") != "started\n"; ++i) QTest::qWait(20);
    EXPECT_EQ(slurp("editor.log"), "started\n") << "the command ran through the shell";
  };
  start_editor();
  EXPECT_EQ(d_->external->label, "Netscape speichern");
  EXPECT_FALSE(d_->edit->active);
  EXPECT_EQ(slurp("hilfetxt.tmp"),
            "<html>\n<body>\n<b>Hallo</b><intern>nur intern</intern>\n</html>\n</body>\n");

  write_file("hilfetxt.tmp", "<html><head></head>\n<body>\n<p>Extern</p>\n</body></html>\n");
  QTest::mouseClick(d_->external->widget, Qt::LeftButton);
  EXPECT_EQ(fl_seam_shown().back().text, "Hilfetext wurde gesichert");
  EXPECT_EQ(d_->external->label, "Netscape Editor");
  EXPECT_EQ(myfl_read_help("T_HLP"), "\n<p>Extern</p>\n");

  start_editor();
  write_file("hilfetxt.tmp", "<html>kaputt</html>");
  QTest::mouseClick(d_->external->widget, Qt::LeftButton);
  EXPECT_EQ(fl_seam_shown().back().text, "Hilfetext nicht gefunden (Datei hilfetxt.tmp)");
  EXPECT_EQ(d_->edit_mode, 1);
  unsetenv("ZENTIQ_HTML_EDITOR");
  EXPECT_EQ(myfl_html_editor_command(), "xdg-open hilfetxt.tmp");
}

} // namespace
