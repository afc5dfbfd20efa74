// The editor object: line wrapping, its parts and layout, the position field,
// the key throttle, the zoom hook, the limit of editors and reading files.
#include "forms/editor.h"
#include "tests/forms/forms_testutil.h"

#include <QElapsedTimer>
#include <QPlainTextEdit>
#include <QTextBlock>

#include <sstream>
#include <unistd.h>

namespace {

int ten_per_char(std::string_view s) { return static_cast<int>(s.size()) * 10; }

TEST(EditorWrap, CutsAtBlanksOrInHalves) {
  // Usable width 103: a line fits while it is narrower than 100 pixels.
  EXPECT_EQ(fl_wrap_text("Das ist ein Text mit Worten", 103, ten_per_char),
            "Das ist \nein Text \nmit \nWorten\n");
  // Wrapping again keeps the blanks before the line feeds: nothing joins.
  std::string once = fl_wrap_text("Das ist ein Text mit Worten", 103, ten_per_char);
  EXPECT_EQ(fl_wrap_text(once, 103, ten_per_char), once);
  // Without blanks: halves, the piece ending with the character at the cut.
  EXPECT_EQ(fl_wrap_text(std::string(40, 'x'), 103, ten_per_char),
            std::string(21, 'x') + "\n" + std::string(10, 'x') + "\n" + std::string(9, 'x') + "\n");
  // Lines that fit, empty lines and the trailing blank of a measured line.
  EXPECT_EQ(fl_wrap_text("kurz\n\nneun zeic ", 103, ten_per_char), "kurz\n\nneun zeic \n");
  EXPECT_EQ(fl_wrap_text("", 103, ten_per_char), "");
}

class EditorObject : public ::testing::Test {
protected:
  void SetUp() override {
    form_ = fl_begin_form(0, 500, 300);
    input_ = fl_add_editor(0, 20, 40, 400, 200, "");
    fl_end_form();
    ed_ = fl_get_editor(input_);
    te_ = qobject_cast<QPlainTextEdit *>(input_->widget);
  }
  void TearDown() override {
    fl_set_editor_zoom_hook(nullptr);
    fl_free_form(form_);
  }
  FL_FORM *form_ = nullptr;
  FL_OBJECT *input_ = nullptr;
  FL_EDITOR_REC *ed_ = nullptr;
  QPlainTextEdit *te_ = nullptr;
};

TEST_F(EditorObject, ButtonsWrapAndZoom) {
  show_and_activate(form_);
  std::string words;
  for (int i = 0; i < 60; ++i) words += "Wort" + std::to_string(i) + " ";
  fl_set_input(input_, words.c_str());
  QTest::mouseClick(ed_->wrap->widget, Qt::LeftButton);
  std::string wrapped = fl_get_editor_text(input_);
  EXPECT_GT(std::count(wrapped.begin(), wrapped.end(), '\n'), 3);
  QFontMetrics fm(te_->font());
  std::istringstream lines(wrapped);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == ' ') line.pop_back();
    EXPECT_LT(fm.horizontalAdvance(QString::fromLatin1(line.c_str())), ed_->text_width - 3) << line;
  }
  // A stored cursor position of 0 turns the button off.
  ed_->cursor_pos = 0;
  fl_set_input(input_, words.c_str());
  QTest::mouseClick(ed_->wrap->widget, Qt::LeftButton);
  EXPECT_EQ(std::string(fl_get_editor_text(input_)), words);

  static FL_OBJECT *zoomed;
  zoomed = nullptr;
  fl_set_editor_zoom_hook([](FL_OBJECT *in) { zoomed = in; });
  QTest::mouseClick(ed_->zoom->widget, Qt::LeftButton);
  EXPECT_EQ(zoomed, input_);
  zoomed = nullptr;
  te_->setFocus();
  QTest::keyClick(te_, Qt::Key_Z, Qt::ControlModifier);
  EXPECT_EQ(zoomed, nullptr) << "Control+Z is the text's undo";
  QTest::keyClick(te_, Qt::Key_Z, Qt::AltModifier);
  EXPECT_EQ(zoomed, input_);
}

TEST_F(EditorObject, TabGoesToTheNextInputNotToTheButtons) {
  // A freed form's editor is no editor any more: an object made later at its
  // input's address must not be taken for one (Tab would skip the buttons).
  fl_free_form(form_);
  EXPECT_EQ(fl_get_editor(input_), nullptr);
  EXPECT_EQ(fl_get_editor(nullptr), nullptr);
  form_ = fl_begin_form(0, 500, 360);
  FL_OBJECT *before = fl_add_input(FL_NORMAL_INPUT, 20, 10, 100, 24, "");
  FL_OBJECT *editor = fl_add_editor(0, 20, 60, 400, 200, "");
  FL_OBJECT *after = fl_add_input(FL_NORMAL_INPUT, 20, 300, 100, 24, "");
  fl_end_form();
  show_and_activate(form_);
  fl_set_focus_object(form_, editor);
  QTest::keyClick(editor->widget, Qt::Key_Tab);
  EXPECT_EQ(fl_get_focus_object(form_), after);
  // The search wraps round to the form's first input field.
  fl_deactivate_object(after);
  fl_set_focus_object(form_, editor);
  QTest::keyClick(editor->widget, Qt::Key_Tab);
  EXPECT_EQ(fl_get_focus_object(form_), before);
}

TEST_F(EditorObject, PositionFieldAndKeyThrottle) {
  show_and_activate(form_);
  fl_set_input(input_, "erste Zeile\nzweite Zeile\ndritte\nvierte\nfünfte");
  QWidget *vp = te_->viewport();
  QRect second = te_->cursorRect(QTextCursor(te_->document()->findBlockByNumber(1)));
  QTest::mouseClick(vp, Qt::LeftButton, {}, QPoint(second.x() + 1, second.center().y()));
  EXPECT_EQ(ed_->position->label, "2:1");
  QTest::mouseClick(vp, Qt::RightButton, {}, QPoint(second.x() + 1, second.center().y()));
  EXPECT_EQ(ed_->right_click, 1);

  // Cursor keys closer than 50 ms to the last accepted one are dropped.
  QTextCursor c = te_->textCursor();
  c.setPosition(0);
  te_->setTextCursor(c);
  te_->setFocus();
  QTest::qWait(60);
  QElapsedTimer pair;
  pair.start();
  for (int i = 0; i < 2; ++i) QTest::keyClick(te_, Qt::Key_Down);
  // (A machine too busy to send both keys within the 50 ms cannot show the drop.)
  if (pair.elapsed() < 50) {
    EXPECT_EQ(te_->textCursor().blockNumber(), 1);
  }
  QTest::qWait(60);
  QTest::keyClick(te_, Qt::Key_Down);
  EXPECT_EQ(te_->textCursor().blockNumber(), 2);

  // White space only: the field stays empty.
  fl_set_input(input_, "  \n ");
  QTest::mouseClick(vp, Qt::LeftButton, {}, QPoint(5, 5));
  EXPECT_EQ(ed_->position->label, "");
}

TEST(EditorFiles, ReadsWholeFilesAndReportsMissingOnes) {
  char path[] = "/tmp/zentiq_editor_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  struct Unlink {
    const char *path;
    ~Unlink() { unlink(path); }
  } gone_at_end{path};
  std::string data;
  for (int i = 0; i < 25000; ++i) data += static_cast<char>('A' + i % 26);
  data += "\r\nEnde";
  ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  close(fd);
  char *text = fl_get_file_data(path);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text), data);
  std::free(text);

  forms_test::Capture printed;
  EXPECT_EQ(fl_get_file_data("/nonexistent/datei.txt"), nullptr);
  EXPECT_EQ(printed.take(),
            "(fl_get_file_data) Cannot open file '/nonexistent/datei.txt' for input!");
}

} // namespace
