// Combo boxes: filling from data texts, sorting, choosing codes, the entry
// list and the field driven by real clicks and keys, and the fatal misuses.
// Key-directory and database fills are tested only on their warning paths
// (a disabled session): no server runs in this suite.
#include "db/access/session.h"
#include "framework/focus.h"
#include "tests/framework/framework_testutil.h"

#include <QListWidget>

namespace {

using namespace zqtest;
using Strings = std::vector<std::string>;

int g_changes = 0;
std::string g_changed_code;
void on_change(FL_OBJECT *obj, long) {
  ++g_changes;
  g_changed_code = myfl_get_cmb_code(obj);
}

class Combo : public FormTest {
protected:
  void SetUp() override {
    FormTest::SetUp();
    form_ = fl_begin_form(0, 300, 200);
    input_ = fl_add_input(FL_NORMAL_INPUT, 80, 10, 150, 24, "Stadt");
    button_ = fl_add_button(FL_NORMAL_BUTTON, 230, 10, 20, 24, "@2->|");
    other_ = fl_add_input(FL_NORMAL_INPUT, 80, 50, 150, 24, "Other");
    fl_end_form();
    g_changes = 0;
  }
  FL_OBJECT *input_ = nullptr, *button_ = nullptr, *other_ = nullptr;
};

TEST_F(Combo, DataTextIsSortedWithTheEmptyChoiceFirst) {
  ASSERT_EQ(myfl_init_data_cmb(form_, input_, button_, "Berlin  ,B|Aachen,A|über,U|Ulm,M", 0), 1);
  MYFL_CMB *c = myfl_get_cmb(button_);
  ASSERT_EQ(c, myfl_get_cmb(input_)) << "registered under the button too";
  // The blank of the empty choice sorts before every ASCII text; lower-case
  // umlauts (negative as signed bytes) sort before the blank. Trailing
  // blanks of texts are cut.
  EXPECT_EQ(c->texts, (Strings{"über", " ", "Aachen", "Berlin", "Ulm"}));
  EXPECT_EQ(c->codes, (Strings{"U", "    ", "A", "B", "M"}));
  EXPECT_EQ(c->order, (std::vector<int>{2, 4, 1, 0, 3}));
  EXPECT_STREQ(myfl_get_cmb_code(input_), "");

  myfl_free_cmb(input_);
  EXPECT_EQ(myfl_get_cmb(button_), nullptr);
  myfl_init_data_cmb(form_, input_, nullptr, "Berlin,B|Aachen,A", 1);
  EXPECT_EQ(myfl_get_cmb(input_)->texts, (Strings{"Aachen", "Berlin"})) << "no empty choice";
  // Without the empty choice a blank code chooses nothing, silently.
  myfl_set_cmb_code(input_, "B");
  EXPECT_EQ(myfl_set_cmb_code(input_, ""), 0);
  EXPECT_STREQ(fl_get_input(input_), "");
  EXPECT_EQ(messages(), "");
}

TEST_F(Combo, SettingCodesShowsTextsAndWarnsOnUnknownOnes) {
  myfl_init_data_cmb(form_, input_, button_, "Berlin,B|Aachen,A", 0);
  myfl_set_cmb_callback(input_, on_change, 0);
  EXPECT_EQ(myfl_set_cmb_code(input_, "B  "), 1) << "trailing blanks do not count";
  EXPECT_STREQ(fl_get_input(input_), "Berlin");
  EXPECT_STREQ(myfl_get_cmb_code(input_), "B");
  EXPECT_EQ(g_changes, 1);
  EXPECT_EQ(myfl_set_cmb_code_no_cb(input_, "A"), 1);
  EXPECT_EQ(g_changes, 1);
  EXPECT_STREQ(myfl_get_cmb_text(input_), "Aachen");

  EXPECT_EQ(myfl_set_cmb_code(input_, "X"), 0);
  EXPECT_EQ(messages(), "(set_cmb_code) Warning: CMB-Code 'X' is invalid!\n");
  EXPECT_STREQ(fl_get_input(input_), "X") << "the raw code is shown";
  EXPECT_STREQ(myfl_get_cmb_code(input_), "A") << "the choice is kept";
  EXPECT_EQ(g_changes, 1);

  EXPECT_EQ(myfl_set_cmb_code(input_, ""), 1) << "the empty code finds the empty choice";
  EXPECT_STREQ(fl_get_input(input_), "");
  EXPECT_STREQ(myfl_get_cmb_code(input_), "    ");

  myfl_addto_cmb(input_, "Celle   ", "C");
  EXPECT_EQ(myfl_set_cmb_code(input_, "C"), 1);
  EXPECT_STREQ(fl_get_input(input_), "Celle") << "an added text loses its trailing blanks too";
}

TEST_F(Combo, ListButtonOpensEntriesAndAClickChooses) {
  myfl_init_data_cmb(form_, input_, button_, "Berlin,B|Aachen,A|Celle,C", 0);
  myfl_set_cmb_callback(input_, on_change, 0);
  myfl_set_cmb_code_no_cb(input_, "A");
  show_and_activate(form_);
  QTest::mouseClick(button_->widget, Qt::LeftButton);
  QListWidget *list = myfl_cmb_list();
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->count(), 4);
  EXPECT_EQ(list->currentRow(), 1) << "the chosen entry is current";
  QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                    list->visualItemRect(list->item(3)).center());
  QApplication::processEvents();
  EXPECT_EQ(g_changes, 1);
  EXPECT_EQ(g_changed_code, "C");
  EXPECT_STREQ(fl_get_input(input_), "Celle");
  EXPECT_EQ(myfl_cmb_list(), nullptr);

  // Keys in the list: Up and Return choose, Escape closes without choice.
  myfl_cb_open_cmb(button_, 0);
  ASSERT_NE(list = myfl_cmb_list(), nullptr);
  QTest::keyClick(list, Qt::Key_Up);
  QTest::keyClick(list, Qt::Key_Return);
  QApplication::processEvents();
  EXPECT_EQ(g_changed_code, "B");
  myfl_cb_open_cmb(input_, 0);
  ASSERT_NE(myfl_cmb_list(), nullptr);
  QTest::keyClick(myfl_cmb_list(), Qt::Key_Escape);
  QApplication::processEvents();
  EXPECT_EQ(myfl_cmb_list(), nullptr);
  EXPECT_EQ(g_changes, 2);
}

TEST_F(Combo, TypedTextAndArrowKeysChooseEntries) {
  myfl_install_keyboard_hook();
  myfl_init_data_cmb(form_, input_, button_, "Berlin,B|Aachen,A|Celle,C", 1);
  myfl_set_cmb_callback(input_, on_change, 0);
  show_and_activate(form_);
  fl_set_focus_object(form_, input_);
  QTest::keyClicks(input_->widget, "ber");
  QTest::keyClick(input_->widget, Qt::Key_Return);
  EXPECT_STREQ(fl_get_input(input_), "Berlin") << "a beginning is completed, letters case-blind";
  EXPECT_EQ(g_changed_code, "B");
  for (int i = 0; i < 2; ++i) QTest::keyClick(input_->widget, Qt::Key_Down);
  EXPECT_EQ(g_changed_code, "C") << "the last entry stays";
  for (int i = 0; i < 2; ++i) QTest::keyClick(input_->widget, Qt::Key_Up);
  EXPECT_STREQ(fl_get_input(input_), "Aachen");
  fl_set_input(input_, "");
  QTest::keyClicks(input_->widget, "Xanten");
  QTest::keyClick(input_->widget, Qt::Key_Return);
  EXPECT_STREQ(fl_get_input(input_), "Aachen") << "an unknown text shows the choice again";
}

TEST_F(Combo, DependentComboOffersOnlyEntriesOfTheSuperordinateCode) {
  myfl_init_data_cmb(form_, input_, nullptr, "Deutschland,DE|Frankreich,FR", 1);
  myfl_init_fhk_svz_cmb(form_, other_, nullptr, nullptr, 5, input_, 0);
  // Fill as a key directory would: text, code, superordinate code.
  MYFL_CMB *city = myfl_get_cmb(other_);
  city->texts = {" ", "Berlin", "Paris"};
  city->codes = {"    ", "B", "P"};
  city->parent_codes = {"", "DE", "FR"};
  city->order = {0, 1, 2};
  myfl_set_cmb_callback(other_, on_change, 0);
  myfl_set_cmb_code(input_, "DE");
  EXPECT_EQ(myfl_valid_cmb_code(other_, "P"), 0);
  EXPECT_EQ(myfl_set_cmb_code(other_, "B"), 1);
  EXPECT_STREQ(fl_get_input(other_), "Berlin");
  g_changes = 0;
  myfl_set_cmb_code(input_, "FR");
  EXPECT_STREQ(myfl_get_cmb_code(other_), "    ") << "a new superordinate code empties it";
  EXPECT_STREQ(fl_get_input(other_), "");
  EXPECT_EQ(g_changes, 1);
  myfl_cb_open_cmb(other_, 0);
  ASSERT_NE(myfl_cmb_list(), nullptr);
  EXPECT_EQ(myfl_cmb_list()->count(), 2);
  EXPECT_EQ(myfl_cmb_list()->item(1)->text(), "Paris");
  myfl_close_cmb_list();
  EXPECT_EQ(messages(), "");
}

TEST_F(Combo, KeyDirectoryWithoutRowsWarnsAndStaysEmpty) {
  DBSESSION session;
  session.disabled = 1; // every statement succeeds without rows
  myfl_init_svz_cmb(form_, input_, button_, &session, 17, 1);
  EXPECT_EQ(messages(), "(myfl_init_svz_cmb) Warning: SVZ 17 not found\n");
  EXPECT_TRUE(myfl_get_cmb(input_)->texts.empty());
  messages().clear();
  EXPECT_EQ(myfl_load_db_cmb(&session, input_, "SELECT a,b FROM t"), 0);
  EXPECT_EQ(messages(), "(myfl_load_db_cmb) Warning: Table is empty\n");
  EXPECT_EQ(db_depth(), 0) << "the BEGIN level is closed again";
  messages().clear();
  myfl_init_ass_svz_cmb(form_, other_, nullptr, &session, "Land", 1);
  EXPECT_EQ(messages(), "(myfl_init_ass_svz_cmb) Warning: SVZ Land not found\n");
  EXPECT_TRUE(myfl_get_cmb(other_) && myfl_get_cmb(other_)->texts.empty());
}

TEST_F(Combo, MisuseEndsTheProgram) {
  myfl_init_data_cmb(form_, input_, button_, "A,a", 0);
  EXPECT_FATAL("\\(myfl_init_data_cmb\\) Cmb already defined\n",
               myfl_init_data_cmb(form_, input_, nullptr, "B,b", 0));
  EXPECT_FATAL("\\(myfl_addto_cmb\\) Cmb not defined\n", myfl_addto_cmb(other_, "x", "y"));
  EXPECT_FATAL("\\(myfl_addto_cmb\\) Too many keys \\(max = 10000\\)\n",
               for (int i = 0; i < MYFL_CMB_MAX; ++i) myfl_addto_cmb(input_, "t", "c"));
}

} // namespace
