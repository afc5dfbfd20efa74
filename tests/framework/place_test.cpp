// Form information and placement: positions kept in the INI file across
// show/hide cycles, pulled back onto the screen, names and numbers, and the
// fatal misuses.
#include "framework/place.h"

#include "base/ini.h"
#include "base/msg.h"
#include "framework/help.h"
#include "tests/qt_env.h"

#include <QApplication>
#include <QWidget>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

void to_stderr(const char *text) { std::fputs(text, stderr); }

class Place : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zentiq_place_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    old_cwd_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
    myfl_set_appl_name("placetest");
    form_ = fl_begin_form(0, 200, 100);
    input_ = fl_add_input(FL_NORMAL_INPUT, 60, 10, 100, 24, "In");
    fl_end_form();
  }
  void TearDown() override {
    myfl_free_forminfo(form_);
    fl_free_form(form_);
    std::filesystem::current_path(old_cwd_);
    std::filesystem::remove_all(dir_);
    myfl_set_appl_name("zentiq");
  }
  std::string ini_line(const char *key) {
    const char *l = INI_GetLine("placetest", key);
    return l ? l : "";
  }
  std::string dir_;
  std::filesystem::path old_cwd_;
  FL_FORM *form_ = nullptr;
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
  for (int cycle = 0; cycle < 2; ++cycle) {
    myfl_show_form(form_, "Kunden");
    int x = -1, y = -1;
    fl_get_form_position(form_, &x, &y);
    EXPECT_EQ(x, 123);
    EXPECT_EQ(y, 45);
    myfl_hide_form(form_);
    EXPECT_EQ(ini_line("Kunden_XY"), "[Kunden_XY] 123 45\n") << "cycle " << cycle;
  }
  int n = 0;
  EXPECT_EQ(myfl_get_form_number(form_, &n), 1);
  EXPECT_EQ(n, 3);
  char name[64];
  EXPECT_EQ(myfl_get_form_name(form_, name, sizeof name), 1);
  EXPECT_STREQ(name, "Kunden\n");
}

TEST_F(Place, StoredPositionsArePulledBackOntoTheScreen) {
  myfl_set_form_name(form_, -1, "Weit");
  INI_PutLine("placetest", "Weit_XY", "[Weit_XY] 99999 99999\n");
  myfl_show_form(form_, "Weit");
  int x = -1, y = -1;
  fl_get_form_position(form_, &x, &y);
  EXPECT_EQ(x, fl_screen_width() - 200);
  EXPECT_EQ(y, fl_screen_height() - 100);
  fl_hide_form(form_);
  INI_PutLine("placetest", "Weit_XY", "[Weit_XY] -50 -7\n");
  myfl_show_form(form_, "Weit");
  fl_get_form_position(form_, &x, &y);
  EXPECT_EQ(x, 0);
  EXPECT_EQ(y, 0);
  fl_hide_form(form_);
  INI_PutLine("placetest", "Weit_XY", "[Weit_XY] kaputt\n");
  myfl_show_form(form_, "Weit");
  fl_get_form_position(form_, &x, &y);
  EXPECT_EQ(x, std::max(0, (fl_screen_width() - 200) / 2)) << "unreadable: centred";
  fl_hide_form(form_);
}

TEST_F(Place, NamesFallBackToTheHelpKeyAndModifiersClearOnShow) {
  char name[32] = "x";
  int n = 0;
  EXPECT_EQ(myfl_get_form_name(form_, name, sizeof name), 0);
  EXPECT_STREQ(name, "");
  EXPECT_EQ(myfl_get_form_number(form_, &n), 0);
  myfl_init_helpdialog(form_, input_, "PLACE_HLP");
  EXPECT_EQ(myfl_get_form_name(form_, name, sizeof name), 1);
  EXPECT_STREQ(name, "PLACE_HLP");
  myfl_set_form_name(form_, -1, "Named");
  EXPECT_EQ(myfl_get_form_number(form_, &n), 0) << "number -1 is none";
  myfl_free_helpdialogs(form_);

  myfl_set_modifier(FL_KEY_SHIFT, 1);
  myfl_set_modifier(FL_KEY_CONTROL, 1);
  EXPECT_EQ(myfl_get_modifier(FL_KEY_SHIFT), 1);
  myfl_set_modifier(FL_KEY_CONTROL, 0);
  EXPECT_EQ(myfl_get_modifier(FL_KEY_CONTROL), 0);
  myfl_show_form(form_, "Named");
  EXPECT_EQ(myfl_get_modifier(FL_KEY_SHIFT), 0);
  fl_hide_form(form_);
}

int refuse(FL_FORM *, void *) { return -1; }

TEST_F(Place, CloseHandlerAndMisuse) {
  myfl_set_form_atclose(form_, refuse, nullptr);
  EXPECT_NE(myfl_get_forminfo(form_), nullptr);
  EXPECT_EQ(form_->atclose, refuse);
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_set_form_name(form_, 1, nullptr);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_set_form_name\\) Form-name is missing!\n");
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_set_form_atclose(nullptr, refuse, nullptr);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_set_form_atclose\\) Form-information not defined\n");
}

} // namespace
