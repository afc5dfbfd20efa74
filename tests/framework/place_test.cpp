// Form information and placement: positions kept in the INI file across
// show/hide cycles, pulled back onto the screen, names and numbers, and the
// fatal misuses.
#include "tests/framework/framework_testutil.h"

namespace {

using namespace zqtest;

class Place : public FormTest {
protected:
  Place() : FormTest("placetest") {}
  void SetUp() override {
    FormTest::SetUp();
    form_ = fl_begin_form(0, 200, 100);
    input_ = fl_add_input(FL_NORMAL_INPUT, 60, 10, 100, 24, "In");
    fl_end_form();
  }
  // Shows the form under a stored position line and returns where it went.
  std::pair<int, int> shown_at(const char *line) {
    INI_PutLine("placetest", "Weit_XY", line);
    myfl_show_form(form_, "Weit");
    int x = -1, y = -1;
    fl_get_form_position(form_, &x, &y);
    fl_hide_form(form_);
    return {x, y};
  }
  FL_OBJECT *input_ = nullptr;
};

TEST_F(Place, PositionIsStoredOnHideAndRestoredOnShow) {
  myfl_set_form_name(form_, 3, "Kunden\n");
  myfl_show_form(form_, "Kunden");
  QApplication::processEvents();
  EXPECT_TRUE(form_->window->isVisible());
  EXPECT_EQ(form_->window->minimumSize(), QSize(200, 100)) << "the size is fixed";
  fl_set_form_position(form_, 123, 45);
  myfl_hide_form(form_);
  EXPECT_EQ(ini_line("Kunden_XY"), "[Kunden_XY] 123 45\n")
      << "the line feed of the name stays out of the key";
  EXPECT_FALSE(form_->window->isVisible());
  myfl_show_form(form_, "Kunden");
  int x = -1, y = -1;
  fl_get_form_position(form_, &x, &y);
  EXPECT_EQ(x * 1000 + y, 123045);
  myfl_hide_form(form_);
  EXPECT_EQ(ini_line("Kunden_XY"), "[Kunden_XY] 123 45\n") << "a second cycle keeps it";
}

TEST_F(Place, StoredPositionsArePulledBackOntoTheScreen) {
  myfl_set_form_name(form_, -1, "Weit");
  using P = std::pair<int, int>;
  EXPECT_EQ(shown_at("[Weit_XY] 99999 99999\n"),
            P(fl_screen_width() - 200, fl_screen_height() - 100));
  EXPECT_EQ(shown_at("[Weit_XY] -50 -7\n"), P(0, 0));
  EXPECT_EQ(shown_at("[Weit_XY] kaputt\n").first, std::max(0, (fl_screen_width() - 200) / 2))
      << "unreadable: centred";
}

TEST_F(Place, AGrowingFormMovesItsObjectsByTheirRulesAndKeepsItsSize) {
  FL_FORM *f = fl_begin_form(0, 300, 200);
  FL_OBJECT *grow = fl_add_input(FL_MULTILINE_INPUT, 60, 10, 230, 60, "Text");
  FL_OBJECT *below = fl_add_input(FL_NORMAL_INPUT, 60, 80, 230, 60, "");
  FL_OBJECT *corner = fl_add_button(FL_NORMAL_BUTTON, 220, 170, 70, 21, "OK");
  FL_OBJECT *fixed = fl_add_button(FL_NORMAL_BUTTON, 10, 170, 70, 21, "Hilfe");
  fl_end_form();
  fl_set_object_resize(grow, 0, 100, 0, 40);
  fl_set_object_resize(below, 0, 100, 40, 60);
  fl_set_object_resize(corner, 100, 0, 100, 0);
  myfl_set_form_name(f, -1, "Gross");
  myfl_show_form(f, "Gross");
  EXPECT_EQ(f->window->minimumSize(), QSize(300, 200));
  EXPECT_GT(f->window->maximumWidth(), 2000) << "the window may grow and be maximised";
  fl_set_form_size(f, 400, 300);
  QApplication::processEvents();
  EXPECT_EQ(grow->widget->geometry(), QRect(60, 10, 330, 100));
  EXPECT_EQ(below->widget->geometry(), QRect(60, 120, 330, 120)) << "stacked: shares, no overlap";
  EXPECT_EQ(corner->widget->geometry(), QRect(320, 270, 70, 21)) << "same distance to the corner";
  EXPECT_EQ(fixed->widget->geometry(), QRect(10, 170, 70, 21));
  EXPECT_EQ(grow->label_widget->geometry().right(), 59) << "the label stays left of its input";
  fl_set_object_geometry(corner, 200, 170, 90, 21); // geometry as at the form's own size
  EXPECT_EQ(corner->widget->geometry(), QRect(300, 270, 90, 21));
  fl_set_form_size(f, 100, 100);
  EXPECT_EQ(f->window->size(), QSize(300, 200)) << "never below the form's own size";
  EXPECT_EQ(grow->widget->geometry(), QRect(60, 10, 230, 60));
  fl_set_form_size(f, 500, 400);
  fl_set_form_position(f, 20, 30);
  myfl_hide_form(f);
  EXPECT_EQ(ini_line("Gross_XY"), "[Gross_XY] 20 30 500 400\n");
  myfl_show_form(f, "Gross");
  QApplication::processEvents();
  EXPECT_EQ(f->window->size(), QSize(500, 400)) << "the stored size comes back";
  EXPECT_EQ(grow->widget->width(), 430);
  fl_hide_form(f);
}

TEST_F(Place, NamesFallBackToTheHelpKeyAndModifiersClearOnShow) {
  char name[32] = "x";
  int n = 0;
  EXPECT_EQ(myfl_get_form_name(form_, name, sizeof name), 0);
  EXPECT_STREQ(name, "");
  myfl_init_helpdialog(form_, input_, "PLACE_HLP");
  EXPECT_EQ(myfl_get_form_name(form_, name, sizeof name), 1);
  EXPECT_STREQ(name, "PLACE_HLP");
  myfl_set_form_name(form_, -1, "Named");
  EXPECT_EQ(myfl_get_form_number(form_, &n), 0) << "number -1 is none";
  myfl_set_form_name(form_, 7, "Named");
  EXPECT_EQ(myfl_get_form_number(form_, &n), 1);
  EXPECT_EQ(n, 7);
  myfl_free_helpdialogs(form_);

  myfl_set_modifier(FL_KEY_SHIFT, 1);
  myfl_show_form(form_, "Named");
  EXPECT_EQ(myfl_get_modifier(FL_KEY_SHIFT), 0);
}

int refuse(FL_FORM *, void *) { return -1; }

TEST_F(Place, CloseHandlerAndMisuse) {
  myfl_set_form_atclose(form_, refuse, nullptr);
  EXPECT_NE(myfl_get_forminfo(form_), nullptr) << "the handler makes the form information";
  EXPECT_EQ(form_->atclose, refuse);
  EXPECT_FATAL("\\(myfl_set_form_name\\) Form-name is missing!\n",
               myfl_set_form_name(form_, 1, nullptr));
}

} // namespace
