// Form information and placement: positions kept in the INI file across
// show/hide cycles, pulled back onto the screen, names and numbers, and the
// fatal misuses.
#include "framework/place.h"

#include "base/ini.h"
#include "framework/help.h"
#include "tests/framework/framework_testutil.h"

namespace {

class Place : public zqtest::FormTest {
protected:
  Place() : FormTest("placetest") {}
  void SetUp() override {
    FormTest::SetUp();
    form_ = fl_begin_form(0, 200, 100);
    input_ = fl_add_input(FL_NORMAL_INPUT, 60, 10, 100, 24, "In");
    fl_end_form();
  }
  std::string ini_line(const char *key) {
    const char *l = INI_GetLine("placetest", key);
    return l ? l : "";
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
  myfl_free_helpdialogs(form_);

  myfl_set_modifier(FL_KEY_SHIFT, 1);
  myfl_show_form(form_, "Named");
  EXPECT_EQ(myfl_get_modifier(FL_KEY_SHIFT), 0);
  fl_hide_form(form_);
}

int refuse(FL_FORM *, void *) { return -1; }

TEST_F(Place, CloseHandlerAndMisuse) {
  myfl_set_form_atclose(form_, refuse, nullptr);
  EXPECT_NE(myfl_get_forminfo(form_), nullptr) << "the handler makes the form information";
  EXPECT_EQ(form_->atclose, refuse);
  EXPECT_FATAL("\\(myfl_set_form_name\\) Form-name is missing!\n",
               myfl_set_form_name(form_, 1, nullptr));
  EXPECT_FATAL("\\(myfl_set_form_atclose\\) Form-information not defined\n",
               myfl_set_form_atclose(nullptr, refuse, nullptr));
}

} // namespace
