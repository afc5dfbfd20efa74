// Focus order and the keyboard hook: the first object, the next-input search,
// and the fatal and non-fatal misuses.
#include "framework/focus.h"
#include "tests/framework/framework_testutil.h"

namespace {

using namespace zqtest;

class Focus : public FormTest {
protected:
  void SetUp() override {
    FormTest::SetUp();
    myfl_install_keyboard_hook();
    form_ = fl_begin_form(0, 400, 300);
    a_ = fl_add_input(FL_NORMAL_INPUT, 60, 10, 100, 24, "A");
    button_ = fl_add_button(FL_NORMAL_BUTTON, 200, 10, 60, 24, "Go");
    b_ = fl_add_input(FL_NORMAL_INPUT, 60, 40, 100, 24, "B");
    multi_ = fl_add_input(FL_MULTILINE_INPUT, 60, 70, 100, 50, "M");
    tabbox_ = fl_add_tabbox(2, 10, 130, 380, 160, "");
    fl_end_form();
  }
  FL_OBJECT *a_ = nullptr, *button_ = nullptr, *b_ = nullptr, *multi_ = nullptr, *tabbox_ = nullptr;
};

TEST_F(Focus, FirstObjectOnlyAndTheNextInputSearch) {
  myfl_set_form_name(form_, -1, "FocusTest");
  myfl_define_focus_first(form_, button_);
  myfl_show_form(form_, "FocusTest");
  form_->window->activateWindow();
  (void)QTest::qWaitForWindowActive(form_->window, 2000);
  EXPECT_EQ(fl_get_focus_object(form_), button_) << "showing focuses the first object";
  fl_deactivate_object(button_);
  myfl_define_focus_first(form_, button_);
  myfl_show_form(form_, "FocusTest");
  EXPECT_EQ(fl_get_focus_object(form_), b_)
      << "a first object that cannot take the focus: next input";
  EXPECT_EQ(myfl_set_focus_next(form_), 0) << "the first object cannot take the focus";
  EXPECT_EQ(form_->focus, button_) << "but the step moves it there";
  // The search for the next input wraps round.
  EXPECT_EQ(myfl_focus_next_input(form_, multi_), 1);
  EXPECT_EQ(fl_get_focus_object(form_), a_);
  for (FL_OBJECT *input : {a_, b_, multi_}) fl_deactivate_object(input);
  EXPECT_EQ(myfl_focus_next_input(form_, a_), 0);
}

TEST_F(Focus, MissingRecordsAndDefinitions) {
  EXPECT_EQ(myfl_set_focus_next(form_), 0);
  EXPECT_EQ(myfl_call_ctrl_tabbox_up(form_), 0);
  myfl_define_ctrl_tabbox(form_, tabbox_);
  EXPECT_EQ(messages(), "(myfl_set_focus_next) Form not found!\n"
                        "(myfl_call_ctrl_tabbox_up) Form not found!\n"
                        "(myfl_define_ctrl_tabbox) Form not found!\n");
  myfl_set_form_name(form_, -1, "F");
  messages().clear();
  EXPECT_EQ(myfl_call_ctrl_tabbox_dblclick(form_), 0) << "no control tabbox";
  EXPECT_EQ(myfl_set_focus_next(form_), 0) << "no focus objects";
  EXPECT_EQ(messages(), "");

  EXPECT_FATAL("\\(myfl_define_focus_second\\) 'first' not defined!\n",
               myfl_define_focus_second(form_, b_));
  EXPECT_FATAL("\\(myfl_define_focus_begin\\) Begin-count 1 too big \\(max = 0\\)!\n",
               myfl_define_focus_begin(form_, 1));
  myfl_free_forminfo(form_);
  EXPECT_FATAL("\\(yfl_define_focus_begin\\) Form not found!\n", myfl_define_focus_begin(form_, 0));
}

} // namespace
