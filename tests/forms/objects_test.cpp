// Forms, objects and the keyboard filter, driven with real widgets and keys.
#include "forms/draw.h"
#include "forms/entry.h"
#include "forms/keyfilter.h"
#include "tests/forms/forms_testutil.h"

#include <QLineEdit>
#include <QPlainTextEdit>

namespace {

std::vector<std::pair<FL_OBJECT *, long>> g_calls;
void record_call(FL_OBJECT *obj, long arg) { g_calls.emplace_back(obj, arg); }
int count_calls(FL_OBJECT *obj) {
  return std::count_if(g_calls.begin(), g_calls.end(), [&](auto &c) { return c.first == obj; });
}

class FormsTest : public ::testing::Test {
protected:
  void SetUp() override {
    g_calls.clear();
    fl_seam_clear();
    fl_clear_box_key();
  }
  void TearDown() override {
    if (form) fl_free_form(form);
    fl_end_form();
  }
  // Starts the test's form (300 x 200), freeing the one before.
  void begin() {
    if (form) fl_free_form(form);
    form = fl_begin_form(0, 300, 200);
  }
  // Shows the form with the focus on obj.
  void show(FL_OBJECT *obj) {
    fl_set_focus_object(form, obj);
    show_and_activate(form);
  }
  FL_FORM *form = nullptr;
};

TEST(EntryTest, CommandLineSplitsAtBlanksOnly) {
  using V = std::vector<std::string>;
  EXPECT_EQ(fl_split_command_line(""), V{"program"});
  // Runs of blanks separate, trailing blanks add nothing, no quoting.
  EXPECT_EQ(fl_split_command_line("a   \"b c\"  "), (V{"program", "a", "\"b", "c\""}));
  // A leading blank gives an empty first argument; tabs are no separators.
  EXPECT_EQ(fl_split_command_line(" x\ty"), (V{"program", "", "x\ty"}));
  char a0[] = "zentiq", a1[] = "-db", a2[] = "two words", a3[] = "";
  char *argv[] = {a0, a1, a2, a3, nullptr};
  EXPECT_EQ(fl_join_arguments(4, argv), "-db two words ");
  EXPECT_EQ(fl_split_command_line(fl_join_arguments(4, argv).c_str()),
            (V{"program", "-db", "two", "words"}));
}

TEST_F(FormsTest, ObjectsFormARingAndKeepTheirFields) {
  begin();
  FL_OBJECT *box = fl_add_box(FL_UP_BOX, 0, 0, 300, 200, "");
  FL_OBJECT *text = fl_add_text(0, 10, 10, 100, 20, "Überschrift");
  FL_OBJECT *input = fl_add_input(FL_NORMAL_INPUT, 80, 40, 100, 21, "Tabelle ");
  FL_OBJECT *button = fl_add_button(FL_NORMAL_BUTTON, 10, 70, 60, 21, "@8");
  fl_end_form();

  EXPECT_TRUE(form->first == box && box->next == text && text->next == input);
  EXPECT_EQ(button->next, box);
  EXPECT_EQ(static_cast<unsigned char>(text->label[0]), 0xDC); // Latin-1 in the record
  EXPECT_EQ(fl_object_of_widget(input->widget), input);
  EXPECT_EQ(fl_form_of_widget(input->widget), form);
  EXPECT_TRUE(fl_is_symbol_label(button->label.c_str()));
  EXPECT_FALSE(fl_is_symbol_label("@@mail"));
  // The input's label stands outside to its left.
  ASSERT_NE(input->label_widget, nullptr);
  EXPECT_LE(input->label_widget->geometry().right(), 80);

  // A click on the native button runs the callback; deactivated it does not.
  fl_set_object_callback(button, record_call, 8);
  show_and_activate(form);
  QTest::mouseClick(button->widget, Qt::LeftButton);
  EXPECT_EQ(g_calls, (decltype(g_calls){{button, 8}}));
  EXPECT_EQ(button->last_key, FL_KEY_ACTIVATE);
  fl_deactivate_object(button);
  QTest::mouseClick(button->widget, Qt::LeftButton);
  EXPECT_EQ(count_calls(button), 1);

  // Texts are Latin-1 on both sides of the native field.
  fl_set_input(input, "Größe");
  EXPECT_EQ(qobject_cast<QLineEdit *>(input->widget)->text(), QStringLiteral("Größe"));
  EXPECT_STREQ(fl_get_input(input), "Größe");
}

TEST_F(FormsTest, CheckButtonsAndListBoxes) {
  begin();
  FL_OBJECT *check = fl_add_checkbutton(FL_PUSH_BUTTON, 10, 10, 90, 21, "gespeichert");
  FL_OBJECT *hidden = fl_add_checkbutton(FL_HIDDEN_CHECKBUTTON, 10, 40, 90, 21, "x");
  FL_OBJECT *list = fl_add_listbox(FL_NORMAL_LISTBOX, 110, 10, 150, 100, "");
  fl_end_form();
  show_and_activate(form);
  EXPECT_FALSE(hidden->widget->isVisible());

  fl_set_button(check, 1);
  EXPECT_EQ(fl_get_button(check), 1);
  fl_set_button(check, 2); // anything but 1 clears
  EXPECT_EQ(fl_get_button(check), 0);
  fl_set_object_callback(check, record_call, 0);
  QTest::mouseClick(check->widget, Qt::LeftButton);
  EXPECT_EQ(fl_get_button(check), 1);
  EXPECT_EQ(count_calls(check), 1);

  fl_addto_listbox(list, "kurz");
  fl_addto_listbox(list, "eine längere Zeile");
  EXPECT_EQ(fl_get_listbox_maxline(list), 2);
  const char *first = fl_get_listbox_line(list, 2);
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first, "eine längere Zeile");
  // The buffer only grows: the earlier pointer stays valid and now holds the
  // shorter line.
  const char *second = fl_get_listbox_line(list, 1);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(second, "kurz");

  forms_test::Capture printed;
  EXPECT_EQ(fl_get_listbox_line(list, 3), nullptr);
  fl_set_input(check, "x");
  EXPECT_EQ(printed.take(), "fl_get_listbox_line: Index out of range\n"
                            "fl_set_input: Bad argument or wrong type\n");
}

// Shortcuts trigger in the letter cases written; in a text input the
// editing keys of Control stay the text's own and such a shortcut moves to
// Alt.
TEST_F(FormsTest, ShortcutsAndTheEditingKeysOfTextInputs) {
  begin();
  FL_OBJECT *input = fl_add_input(FL_NORMAL_INPUT, 80, 10, 100, 21, "Text ");
  FL_OBJECT *multi = fl_add_input(FL_MULTILINE_INPUT, 80, 40, 100, 60, "SQL ");
  FL_OBJECT *add = fl_add_button(FL_NORMAL_BUTTON, 10, 110, 60, 21, "Add");
  FL_OBJECT *run = fl_add_button(FL_NORMAL_BUTTON, 10, 140, 60, 21, "Run");
  FL_OBJECT *del = fl_add_button(FL_NORMAL_BUTTON, 10, 170, 60, 21, "Del");
  fl_end_form();
  fl_set_object_shortcut(add, "^A^a", 0);
  fl_set_object_shortcut(run, "^u^U", 0);
  fl_set_object_shortcut(del, "^d^d", 0);
  for (FL_OBJECT *b : {add, run, del}) fl_set_object_callback(b, record_call, 0);
  show(input);
  auto *line = qobject_cast<QLineEdit *>(input->widget);
  ASSERT_TRUE(line && line->hasFocus());

  QTest::keyClick(line, Qt::Key_U, Qt::ControlModifier);
  QTest::keyClick(line, Qt::Key_U, Qt::ControlModifier | Qt::ShiftModifier);
  EXPECT_EQ(count_calls(run), 2);
  // Without Control the letter is typed, not a shortcut.
  QTest::keyClicks(line, "u");
  EXPECT_EQ(count_calls(run), 2);
  EXPECT_STREQ(fl_get_input(input), "u");
  // "^d^d" names only the lower case.
  QTest::keyClick(line, Qt::Key_D, Qt::ControlModifier | Qt::ShiftModifier);
  EXPECT_EQ(count_calls(del), 0);
  QTest::keyPress(line, Qt::Key_D, Qt::ControlModifier);
  EXPECT_EQ(count_calls(del), 1);
  EXPECT_EQ(input->last_key, 'd');
  QTest::keyRelease(line, Qt::Key_D, Qt::ControlModifier);
  EXPECT_EQ(input->last_key, FL_KEY_CONTROL);

  fl_set_input(input, "");
  QTest::keyClicks(line, "alpha beta");
  QTest::keyClick(line, Qt::Key_Home);
  QTest::keyClick(line, Qt::Key_Right, Qt::ControlModifier);
  EXPECT_EQ(fl_get_input_cursorpos(input), 6) << "Control+Right jumps a word";
  QTest::keyClick(line, Qt::Key_A, Qt::ControlModifier);
  EXPECT_EQ(line->selectedText(), "alpha beta") << "Control+A selects the text";
  EXPECT_EQ(count_calls(add), 0);
  QTest::keyClick(line, Qt::Key_X, Qt::ControlModifier);
  EXPECT_STREQ(fl_get_input(input), "");
  QTest::keyClick(line, Qt::Key_Z, Qt::ControlModifier);
  EXPECT_STREQ(fl_get_input(input), "alpha beta") << "Control+Z undoes the cut";
  // The shortcut moved to Alt with its letter; Control keeps the others.
  QTest::keyClick(line, Qt::Key_A, Qt::AltModifier);
  EXPECT_EQ(count_calls(add), 1);
  QTest::keyClick(line, Qt::Key_U, Qt::AltModifier);
  QTest::keyClick(line, Qt::Key_U, Qt::ControlModifier);
  EXPECT_EQ(count_calls(run), 4);
  EXPECT_STREQ(fl_get_input(input), "alpha beta") << "no shortcut typed into the text";

  fl_set_focus_object(form, multi);
  auto *text = qobject_cast<QPlainTextEdit *>(multi->widget);
  ASSERT_TRUE(text && text->hasFocus());
  fl_set_input(multi, "one\ntwo");
  // Its editing keys pass the key hook (the framework's navigation) by.
  static int hooked;
  hooked = 0;
  FL_KEY_HOOK old = fl_set_key_hook(
      [](FL_FORM *, FL_OBJECT *, int key, int) { return key == FL_KEY_CONTROL ? 0 : ++hooked; });
  QTest::keyClick(text, Qt::Key_A, Qt::ControlModifier);
  fl_set_key_hook(old);
  EXPECT_EQ(hooked, 0);
  EXPECT_EQ(text->textCursor().selectedText().size(), 7);
  EXPECT_EQ(count_calls(add), 1);

  EXPECT_TRUE(fl_shortcut_matches("&1^[", FL_KEY_ESCAPE, 0, 0));
  EXPECT_TRUE(fl_shortcut_matches("#x", 'x', 0, 1));
  EXPECT_FALSE(fl_shortcut_matches("#x", 'x', 0, 0));
  EXPECT_TRUE(fl_shortcut_matches("^a", 'a', 0, 1));
  EXPECT_FALSE(fl_shortcut_matches("^u", 'u', 1, 1));
  EXPECT_EQ(fl_shortcut_label_index("SELECT durchführen", "^u^U"), 8);
  EXPECT_EQ(fl_shortcut_label_index("Hilfe", "&1^["), -1);
  EXPECT_EQ(fl_shortcut_label_index("Add", "^A^a"), 0);
}

TEST_F(FormsTest, TabIsSwallowedAndMovesTheFocus) {
  begin();
  fl_add_box(FL_UP_BOX, 0, 0, 300, 200, "");
  FL_OBJECT *a = fl_add_input(FL_NORMAL_INPUT, 80, 10, 100, 21, "A ");
  fl_add_text(0, 10, 40, 50, 20, "Text");
  FL_OBJECT *b = fl_add_input(FL_MULTILINE_INPUT, 80, 40, 100, 60, "B ");
  FL_OBJECT *c = fl_add_button(FL_NORMAL_BUTTON, 80, 110, 100, 21, "C");
  fl_end_form();
  show(a);

  QTest::keyClick(a->widget, Qt::Key_Tab);
  EXPECT_TRUE(b->widget->hasFocus());
  // The multi-line input did not get a tab character.
  QTest::keyClick(b->widget, Qt::Key_Tab);
  EXPECT_EQ(qobject_cast<QPlainTextEdit *>(b->widget)->toPlainText(), QString());
  EXPECT_TRUE(c->widget->hasFocus());
  QTest::keyClick(c->widget, Qt::Key_Tab);
  EXPECT_TRUE(a->widget->hasFocus()); // round the ring
  QTest::keyClick(a->widget, Qt::Key_Backtab, Qt::ShiftModifier);
  EXPECT_TRUE(c->widget->hasFocus());

  // A tab handler takes over the order.
  static FL_OBJECT *target;
  target = b;
  FL_TAB_HANDLER old = fl_set_tab_handler([](FL_FORM *f, int) {
    fl_set_focus_object(f, target);
    return 1;
  });
  QTest::keyClick(c->widget, Qt::Key_Tab);
  EXPECT_TRUE(b->widget->hasFocus());
  fl_set_tab_handler(old);

  // Without any object to focus the key is still swallowed.
  begin();
  fl_add_box(FL_UP_BOX, 0, 0, 300, 200, "");
  fl_end_form();
  show_and_activate(form);
  for (QEvent::Type t : {QEvent::KeyPress, QEvent::KeyRelease}) {
    QKeyEvent key(t, Qt::Key_Tab, Qt::NoModifier, "\t");
    EXPECT_TRUE(QApplication::sendEvent(form->window, &key));
  }
}

int g_close_answer;
int g_close_calls;
int close_handler(FL_FORM *, void *) {
  ++g_close_calls;
  return g_close_answer;
}

TEST_F(FormsTest, EscapeAsksTheCloseHandlerAndModifiersReachTheRawHandler) {
  begin();
  FL_OBJECT *in = fl_add_input(FL_NORMAL_INPUT, 80, 10, 100, 21, "A ");
  fl_end_form();
  fl_set_form_atclose(form, close_handler, nullptr);
  static std::vector<std::pair<int, int>> seen;
  seen.clear();
  fl_set_form_raw_key_handler(form,
                              [](FL_FORM *, int key, int state) { seen.emplace_back(key, state); });
  show(in);
  g_close_calls = 0;

  // Shift and Control are heard once when pressed and once when released.
  for (Qt::Key k : {Qt::Key_Shift, Qt::Key_Control}) QTest::keyClick(in->widget, k);
  EXPECT_EQ(seen, (std::vector<std::pair<int, int>>{{160, 0}, {160, 1}, {162, 0}, {162, 1}}));

  g_close_answer = -1;
  QTest::keyClick(in->widget, Qt::Key_Escape);
  EXPECT_EQ(g_close_calls, 1);
  EXPECT_TRUE(form->window->isVisible());

  // The release of the key that closed a box is skipped: no close request.
  fl_show_message("Hinweis", "", "");
  QTest::keyRelease(in->widget, Qt::Key_Escape);
  EXPECT_EQ(g_close_calls, 1);

  g_close_answer = 0;
  QTest::keyClick(in->widget, Qt::Key_Escape);
  EXPECT_EQ(g_close_calls, 2);
  EXPECT_FALSE(form->window->isVisible());
  EXPECT_EQ(fl_get_current_form(), nullptr);
}

TEST_F(FormsTest, HelpKeyReachesTheCoveringHelpButtonOnly) {
  // A help button is a hidden button more than 10 pixels short of the form
  // neither way; the two before it miss by one pixel.
  begin();
  FL_OBJECT *in = fl_add_input(FL_NORMAL_INPUT, 80, 10, 100, 21, "A ");
  FL_OBJECT *narrow = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 290, 200, "");
  FL_OBJECT *low = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 300, 190, "");
  FL_OBJECT *help = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 291, 191, "");
  fl_end_form();
  for (FL_OBJECT *b : {narrow, low, help}) fl_set_object_callback(b, record_call, 0);
  show(in);
  EXPECT_FALSE(help->widget->isVisible());
  QTest::keyClick(in->widget, Qt::Key_F1);
  EXPECT_EQ(g_calls, (decltype(g_calls){{help, 0}}));
  EXPECT_EQ(help->last_key, FL_KEY_HELP);
  EXPECT_TRUE(in->widget->hasFocus());

  // Without one, F1 reaches a dialog's "Hilfe" button through its shortcut.
  g_calls.clear();
  begin();
  in = fl_add_input(FL_NORMAL_INPUT, 80, 10, 100, 21, "A ");
  help = fl_add_button(FL_NORMAL_BUTTON, 10, 160, 80, 28, "Hilfe");
  fl_end_form();
  fl_set_object_shortcut(help, "&1^[", 0);
  fl_set_object_callback(help, record_call, 0);
  show(in);
  QTest::keyClick(in->widget, Qt::Key_F1);
  EXPECT_EQ(g_calls, (decltype(g_calls){{help, 0}}));
}

TEST_F(FormsTest, NumericInputsDropOtherCharactersAndKeepTheCursor) {
  begin();
  FL_OBJECT *integer = fl_add_input(FL_INT_INPUT, 80, 10, 100, 21, "Int ");
  FL_OBJECT *decimal = fl_add_input(FL_FLOAT_INPUT, 80, 40, 100, 21, "Float ");
  FL_OBJECT *plain = fl_add_input(FL_NORMAL_INPUT, 80, 70, 100, 21, "Text ");
  fl_end_form();
  show(integer);

  fl_set_input(integer, "1234");
  fl_set_input_cursorpos(integer, 2);
  QTest::keyClicks(integer->widget, "a");
  EXPECT_STREQ(fl_get_input(integer), "1234");
  EXPECT_EQ(fl_get_input_cursorpos(integer), 2);
  QTest::keyClicks(integer->widget, "-5.");
  EXPECT_STREQ(fl_get_input(integer), "12-534");
  EXPECT_EQ(fl_get_input_cursorpos(integer), 4);

  fl_set_focus_object(form, decimal);
  QTest::keyClicks(decimal->widget, "3,5x.25");
  EXPECT_STREQ(fl_get_input(decimal), "35.25");

  fl_set_focus_object(form, plain);
  QTest::keyClicks(plain->widget, "a1.");
  EXPECT_STREQ(fl_get_input(plain), "a1.");
}

TEST_F(FormsTest, ReportingModesDecideWhenTheInputCallbackRuns) {
  begin();
  FL_OBJECT *in = fl_add_input(FL_NORMAL_INPUT, 80, 10, 100, 21, "A ");
  FL_OBJECT *other = fl_add_input(FL_NORMAL_INPUT, 80, 40, 100, 21, "B ");
  FL_OBJECT *multi = fl_add_input(FL_MULTILINE_INPUT, 80, 70, 100, 60, "C ");
  FL_OBJECT *button = fl_add_button(FL_NORMAL_BUTTON, 200, 140, 60, 21, "OK");
  fl_end_form();
  for (FL_OBJECT *o : {in, multi}) fl_set_object_callback(o, record_call, 0);
  fl_set_input_maxchars(in, 5); // also sets mode 1
  EXPECT_EQ(in->how_return, FL_RETURN_CHANGED);
  show(in);

  // Mode 1: Return reports only a changed text.
  QTest::keyClicks(in->widget, "abcdefg");
  EXPECT_STREQ(fl_get_input(in), "abcde"); // the limit holds
  QTest::keyClick(in->widget, Qt::Key_Return);
  EXPECT_EQ(count_calls(in), 1);
  EXPECT_EQ(in->last_key, FL_KEY_RETURN);
  QTest::keyClick(in->widget, Qt::Key_Return);
  EXPECT_EQ(count_calls(in), 1);
  // ... and so does leaving the input after a change.
  QTest::keyClick(in->widget, Qt::Key_Backspace);
  QTest::keyClick(in->widget, Qt::Key_Tab);
  EXPECT_TRUE(other->widget->hasFocus());
  EXPECT_EQ(count_calls(in), 2);

  // Mode 0: every Return reports, changed or not; leaving does not.
  fl_set_input_return(in, FL_RETURN_ALWAYS);
  fl_set_focus_object(form, in);
  for (int i = 0; i < 2; ++i) QTest::keyClick(in->widget, Qt::Key_Return);
  EXPECT_EQ(count_calls(in), 4);
  QTest::keyClicks(in->widget, "x");
  QTest::keyClick(in->widget, Qt::Key_Tab);
  EXPECT_EQ(count_calls(in), 4);

  // Leaving by a click on a button reports the changed text before the
  // button's callback runs.
  fl_set_object_callback(button, record_call, 0);
  fl_set_input_return(in, FL_RETURN_CHANGED);
  fl_set_focus_object(form, in);
  g_calls.clear();
  QTest::keyClicks(in->widget, "y");
  QTest::mouseClick(button->widget, Qt::LeftButton);
  EXPECT_EQ(g_calls, (decltype(g_calls){{in, 0}, {button, 0}}));

  // In a multi-line input Return starts a new line; at its limit the cursor
  // stays at the end and typing changes nothing.
  fl_set_input_maxchars(multi, 3);
  fl_set_focus_object(form, multi);
  QTest::keyClicks(multi->widget, "a");
  QTest::keyClick(multi->widget, Qt::Key_Return);
  QTest::keyClicks(multi->widget, "bcd");
  EXPECT_STREQ(fl_get_input(multi), "a\nb");
  EXPECT_EQ(count_calls(multi), 0);
}

} // namespace
