// The tabbox settings line: applied by the settings hook when the title is set
// (bad tokens), the no-settings registration, and the width tokens edited
// under the plain name.
#include "framework/tabset.h"
#include "tests/framework/framework_testutil.h"

namespace {

using namespace zqtest;

std::string g_title;
const char *title_fn(FL_OBJECT *) { return g_title.c_str(); }

class TabSet : public FormTest {
protected:
  void SetUp() override {
    FormTest::SetUp();
    g_title = "Name,Ort,Anzahl";
    myfl_install_tabbox_settings();
    tb_ = tabbox_form(form_, 0, 400, 240);
  }
  std::string ini() { return slurp("app.ini"); }
  void put(const char *key, const char *line) { INI_PutLine("app", key, line); }
  void reg(const char *name) {
    myfl_init_tabbox(form_, tb_, name, title_fn, nullptr);
    myfl_addto_tabbox_line(tb_, "Anna,Köln,3", nullptr);
    myfl_addto_tabbox_line(tb_, "Bernhard Maximilian,Ulm,12", nullptr);
  }
};

TEST_F(TabSet, BadTokensAreReportedAndSkipped) {
  reg("Liste");
  put("Liste",
      ("[Liste] 0 4 1 2 3 0|5 7|5 2|3 9u 1u x " + myfl_tabbox_columns_token(tb_) + " \n").c_str());
  messages().clear();
  myfl_draw_tabbox(tb_);
  EXPECT_EQ(messages(), "ini-file: wrong max-width definition (Liste)!\n"
                        "ini-file: wrong max-width definition (Liste)!\n"
                        "ini-file: wrong sort definition (Liste)!\n");
  auto p = tabbox_props(tb_);
  EXPECT_EQ(p.of(p.colmax), (V{-1, 3, -1}));
  ASSERT_EQ(p.nsort, 1);
  EXPECT_EQ(p.cols[0], 1);
}

TEST_F(TabSet, NoIniRegistrationDropsTheEntryOnce) {
  put("ZTQ", "[ZTQ] 0 4 3 -1 \n");
  myfl_init_db_tabbox_no_ini(form_, tb_, "ZTQ", title_fn, nullptr, nullptr, nullptr, nullptr,
                             nullptr);
  EXPECT_EQ(ini(), "");
  EXPECT_EQ(tabbox_props(tb_).visible[1], 1);
  // Later settings of the same run apply again.
  put("ZTQ", "[ZTQ] 0 4 3 -1 \n");
  myfl_draw_tabbox(tb_);
  EXPECT_EQ(tabbox_props(tb_).visible[1], 0);
}

TEST_F(TabSet, WidthTokensAreEditedUnderThePlainName) {
  reg("Liste");
  myfl_set_tabbox_tablenr(tb_, 4);
  put("Liste", "[Liste] 0 4 1 2 3 2|7 12|1 \n");
  myfl_set_tabbox_colwidth_ini(tb_, 2, 9);
  EXPECT_EQ(ini(), "[Liste] 0 4 1 2 3 2|9 12|1 \n");
  myfl_set_tabbox_colwidth_ini(tb_, 3, 4);
  EXPECT_EQ(ini(), "[Liste] 0 4 1 2 3 2|9 12|1 3|4 \n");
  myfl_clear_tabbox_colwidth_ini(tb_, 2);
  EXPECT_EQ(ini(), "[Liste] 0 4 1 2 3 12|1 3|4 \n");
  myfl_clear_tabbox_colwidths_ini(tb_);
  EXPECT_EQ(ini(), "[Liste] 0 4 1 2 3 \n");
}

} // namespace
