// The tabbox's data model: title and column syntax, display texts, the index
// rules of the line operations, selection by type, vertical display and the
// diagnostics.
#include "tests/forms/forms_testutil.h"

#include <algorithm>

namespace {

using namespace forms_test;

class TabboxModel : public ::testing::Test {
protected:
  void TearDown() override {
    if (form_) fl_free_form(form_);
    if (other_) fl_free_form(other_);
  }
  FL_OBJECT *make(int type, int w = 500, int h = 200) { return tabbox_form(form_, type, w, h); }
  FL_FORM *form_ = nullptr;
  FL_FORM *other_ = nullptr; // a second form of a test
  Capture printed;
};

// "Name", six blanks, bar, blank, "Ort", four blanks, bar, blank, "Anzahl".
const char *kTitle = "Name      | Ort    | Anzahl";

TEST_F(TabboxModel, DisplayTextsHideReorderAndCut) {
  FL_OBJECT *tb = make(1);
  fl_set_tabbox_title(tb, kTitle);
  for (const char *line : {"Schmidt   | Köln   | 12", "Abc       | Ulm    | 7"})
    fl_add_tabbox_line(tb, line);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 1), "Schmidt   | Köln   | 12");

  // The record's own arrays, as the framework's settings change them.
  TabboxProps p = tabbox_props(tb);
  int *vis = p.visible, *order = p.order, *colmax = p.colmax;
  auto set_order = [&](std::vector<int> o) { std::copy(o.begin(), o.end(), order); };
  vis[2] = 0;
  fl_draw_tabbox(tb);
  EXPECT_STREQ(fl_get_tabbox_title(tb), "Name      | Anzahl");
  EXPECT_STREQ(fl_get_tabbox_line(tb, 1), "Schmidt   | 12");
  vis[2] = 1;
  set_order({0, 3, 1, 2});
  fl_draw_tabbox(tb);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 1), "12     | Schmidt   | Köln  ");
  set_order({0, 1, 2, -1}); // the order ends here
  fl_draw_tabbox(tb);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 2), "Abc       | Ulm   ");
  set_order({0, 1, 2, 3});

  // A maximum width of 5: a cut word marks the separator, cut blanks do not.
  colmax[1] = 5;
  fl_draw_tabbox(tb);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 1), "Schmi~| Köln   | 12");
  EXPECT_STREQ(fl_get_tabbox_line(tb, 2), "Abc   | Ulm    | 7");

  // The global width applies where no column width is set; the column's wins.
  fl_set_tabbox_maxwidth(tb, 2);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 1), "Schmi~| Kö~| 12");
  colmax[1] = -1;
  fl_set_tabbox_maxwidth(tb, -1);
  fl_draw_tabbox(tb);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 1), "Schmidt   | Köln   | 12");

  // A new title resets order, visibility and widths before the settings hook.
  static int hook_calls;
  hook_calls = 0;
  FL_TABBOX_HOOK old = fl_set_tabbox_settings_hook([](FL_OBJECT *obj) {
    ++hook_calls;
    TabboxProps p = tabbox_props(obj);
    EXPECT_TRUE(p.visible[2] == 1 && p.order[1] == 1 && p.colmax[1] == -1) << "reset first";
    p.visible[2] = 0; // reapplied settings hide a column
  });
  vis[2] = 0;
  order[1] = 2;
  colmax[1] = 3;
  fl_set_tabbox_title(tb, kTitle);
  fl_set_tabbox_settings_hook(old);
  EXPECT_EQ(hook_calls, 1);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 1), "Schmidt   | 12");
}

TEST_F(TabboxModel, LineOperationsKeepTheirIndexRules) {
  FL_OBJECT *tb = make(3);
  fl_set_tabbox_title(tb, "A");
  for (const char *t : {"a", "b", "c"}) fl_addto_tabbox(tb, t);
  // Insert one past the end appends; two past is refused.
  EXPECT_EQ(fl_insert_tabbox_line(tb, 4, "d"), 1);
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 4), "d");
  EXPECT_EQ(fl_insert_tabbox_line(tb, 6, "x"), 0);
  EXPECT_EQ(printed.take(), "fl_insert_tabbox_line: Index out of range\n");
  fl_insert_tabbox_line(tb, 1, "z");
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 1), "z");
  EXPECT_EQ(fl_get_tabbox_maxline(tb), 5); // z a b c d

  // Delete moves the lines and their flags up.
  fl_select_tabbox_line(tb, 3);
  fl_delete_tabbox_line(tb, 2);
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 2), "b");
  EXPECT_EQ(fl_isselected_tabbox_line(tb, 2), 1);
  EXPECT_EQ(fl_get_tabbox_maxline(tb), 4); // z b c d

  // Two past the end passes: the count drops and raw line i - 3 is selected.
  fl_deselectall_tabbox(tb);
  EXPECT_EQ(fl_delete_tabbox_line(tb, 7), 0);
  EXPECT_EQ(printed.take(), "fl_delete_tabbox_line: Index out of range\n");
  EXPECT_EQ(fl_delete_tabbox_line(tb, 6), 1);
  EXPECT_EQ(fl_get_tabbox_maxline(tb), 3);
  EXPECT_EQ(fl_isselected_tabbox_line(tb, 3), 1);
  EXPECT_EQ(fl_get_tabbox_selectcount(tb), 1);

  // Replace clears the flag; one past the end passes the checks.
  fl_replace_tabbox_line(tb, 3, "neu");
  EXPECT_EQ(fl_isselected_tabbox_line(tb, 3), 0);
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 3), "neu");
  EXPECT_EQ(fl_replace_tabbox_line(tb, 4, "x"), 1);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 4), "");
  EXPECT_EQ(fl_isselected_tabbox_line(tb, 4), 0);
  fl_set_tabbox_topline(tb, 4);
  fl_deselect_tabbox_line(tb, 4);
  EXPECT_EQ(printed.take(), "");
  EXPECT_EQ(fl_get_tabbox_line(tb, 5), nullptr);
  EXPECT_EQ(fl_get_tabbox_full_line(tb, 5), nullptr);
  EXPECT_EQ(
      printed.take(),
      "fl_get_tabbox_line: Index out of range\nfl_get_tabbox_full_line: Index out of range\n");
  fl_select_tabbox_line(tb, 0);
  EXPECT_EQ(printed.take(), "fl_select_tabbox_line: Index 0 is not valid\n");

  // Beyond the first allocations of lines and text the texts stay whole.
  int before = fl_get_tabbox_maxline(tb);
  const std::string long_line(2000, 'x');
  fl_add_tabbox_line(tb, long_line.c_str());
  for (int i = 0; i < 50; ++i) fl_add_tabbox_line(tb, "y");
  EXPECT_EQ(fl_get_tabbox_maxline(tb), before + 51);
  EXPECT_EQ(fl_get_tabbox_full_line(tb, before + 1), long_line);

  fl_clear_tabbox(tb);
  EXPECT_EQ(fl_get_tabbox_maxline(tb), 0);
  EXPECT_STREQ(fl_get_tabbox_full_title(tb), "A");
}

// A source's line: the text of a name and a number counting down, the same
// length for every line; notes which lines were made.
std::vector<int> g_made_lines;
void countdown_line(void *data, int line, std::string *text) {
  g_made_lines.push_back(line);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%-6s| %5d", static_cast<const char *>(data), 1000 - line);
  *text = buf;
}

TEST_F(TabboxModel, LinesFromASourceAreMadeOnceWhenFirstRead) {
  FL_OBJECT *tb = make(3);
  fl_set_tabbox_title(tb, "Name  | Nummer");
  g_made_lines.clear();
  static char name[] = "Zeile";
  fl_set_tabbox_line_source(tb, 1000, countdown_line, name);
  EXPECT_EQ(fl_get_tabbox_maxline(tb), 1000);
  fl_layout_tabbox(tb);
  fl_replace_tabbox_line(tb, 1, "Erste |  1000");
  fl_layout_tabbox(tb);
  EXPECT_EQ(g_made_lines, std::vector<int>{0}) << "the layout measures one line for all";
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 500), "Zeile |   501");

  // Lines deleted, inserted and replaced around unmade ones: each unmade
  // line still gets its own text.
  fl_delete_tabbox_line(tb, 1);
  fl_insert_tabbox_line(tb, 1, "Neu   |     0");
  fl_replace_tabbox_line(tb, 3, "Anders|  5000");
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 2), "Zeile |   999");
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 4), "Zeile |   997");
  // The sort reads every line: the rest are made now, each once.
  int col[1] = {2}, up[1] = {1};
  fl_set_tabbox_sort(tb, 1, col, up);
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 1), "Neu   |     0");
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 2), "Zeile |     1");
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 1000), "Anders|  5000");
  std::vector<int> made = g_made_lines;
  std::sort(made.begin(), made.end());
  EXPECT_EQ(std::adjacent_find(made.begin(), made.end()), made.end());
  EXPECT_EQ(made.size(), 999u) << "all but the replaced line";

  // Made now and kept after the source is gone; a clear drops the source.
  fl_set_tabbox_sort(tb, 0, nullptr, nullptr);
  fl_set_tabbox_line_source(tb, 3, countdown_line, name);
  fl_make_tabbox_lines(tb);
  name[0] = 'X';
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 3), "Zeile |   998");
  name[0] = 'Z';
  fl_clear_tabbox(tb);
  EXPECT_EQ(fl_get_tabbox_maxline(tb), 0);
}

TEST_F(TabboxModel, SelectionFollowsTheType) {
  FL_OBJECT *none = make(0, 300, 100);
  fl_set_tabbox_title(none, "A");
  for (const char *t : {"a", "b", "c"}) fl_add_tabbox_line(none, t);
  fl_select_tabbox_line(none, 2);
  EXPECT_EQ(fl_get_tabbox_selectcount(none), 0);
  EXPECT_EQ(fl_isselected_tabbox_line(none, 2), 0);
  EXPECT_EQ(fl_selectall_tabbox(none), 1); // any type
  EXPECT_EQ(fl_get_tabbox_selectcount(none), 3);

  // Thirty lines of the type, lines 2 and 25 selected.
  auto two_selected = [&](int type) {
    FL_OBJECT *tb = make(type, 300, 100);
    for (int i = 0; i < 30; ++i) fl_add_tabbox_line(tb, std::to_string(i).c_str());
    fl_select_tabbox_line(tb, 2);
    fl_select_tabbox_line(tb, 25);
    return tb;
  };
  FL_OBJECT *single = two_selected(2);
  EXPECT_EQ(fl_get_tabbox_selectcount(single), 1);
  EXPECT_EQ(fl_get_tabbox(single), 25);
  // A selection outside the visible lines brings it to the top.
  EXPECT_EQ(fl_get_tabbox_topline(single), 25);

  FL_OBJECT *multi = two_selected(3);
  EXPECT_EQ(fl_get_tabbox_selectcount(multi), 2);
  EXPECT_EQ(fl_get_tabbox_topline(multi), 1); // more than one selected: no scroll
  EXPECT_EQ(fl_get_tabbox(multi), 2);
}

TEST_F(TabboxModel, SortedLinesShowInDisplayOrder) {
  FL_OBJECT *tb = make(1);
  fl_set_tabbox_title(tb, "Name    | Nr");
  for (const char *line : {"Ost     | 10", "Ölten   | 9", "Oase    | 10"})
    fl_add_tabbox_line(tb, line);
  int cols[2] = {2, 1}, dirs[2] = {0, 1};
  fl_set_tabbox_sort(tb, 2, cols, dirs);
  std::vector<std::string> shown;
  for (int i = 1; i <= 3; ++i) shown.push_back(fl_get_tabbox_full_line(tb, i));
  EXPECT_EQ(shown, (std::vector<std::string>{"Oase    | 10", "Ost     | 10", "Ölten   | 9"}));
  int one[1] = {1}, up[1] = {1};
  fl_set_tabbox_sort(tb, 1, one, up);
  EXPECT_STREQ(fl_get_tabbox_line(tb, 2), "Ölten   | 9");
  fl_set_tabbox_sort(tb, 0, nullptr, nullptr);
  EXPECT_STREQ(fl_get_tabbox_full_line(tb, 1), "Ost     | 10");
}

TEST_F(TabboxModel, VerticalDisplayTurnsLinesIntoColumns) {
  FL_OBJECT *tb = make(0);
  static int hook_calls;
  static FL_OBJECT *counted;
  hook_calls = 0;
  counted = tb;
  FL_TABBOX_HOOK old =
      fl_set_tabbox_settings_hook([](FL_OBJECT *obj) { hook_calls += obj == counted; });
  fl_set_tabbox_title(tb, kTitle);
  fl_add_tabbox_line(tb, "Schmidt   | Köln   | 12");
  EXPECT_EQ(fl_get_tabbox_vert_attr(tb), nullptr);
  fl_set_tabbox_vert(tb);
  fl_set_tabbox_vert(tb); // already vertical: refused
  EXPECT_EQ(hook_calls, 2);
  EXPECT_EQ(fl_get_tabbox_vert(tb), 1);
  EXPECT_EQ(fl_is_tabbox_horizontal(tb), 0);
  // The attribute / value lines as the viewer copies them out.
  other_ = fl_begin_form(0, 300, 200);
  FL_OBJECT *copy = fl_add_tabbox(1, 0, 0, 300, 200, "");
  fl_end_form();
  auto shown = [&](int line) {
    if (!mytabs_copy_shown_line(tb, line, copy)) return std::string("-");
    return std::string(fl_get_tabbox_full_title(copy)) + " / " + fl_get_tabbox_full_line(copy, 1);
  };
  ASSERT_EQ(mytabs_get_shown_lines(tb), 3);
  EXPECT_EQ(shown(1), "Attribut  | Wert       / Name      | Schmidt   ");
  EXPECT_EQ(shown(2), "Attribut  | Wert       / Ort       | Köln      ");
  EXPECT_EQ(shown(3), "Attribut  | Wert       / Anzahl    | 12        ");
  EXPECT_EQ(shown(4), "-");

  // Selection works on the companion even though the type is 0.
  fl_select_tabbox_line(tb, 2);
  EXPECT_EQ(fl_isselected_tabbox_line(tb, 2), 1);
  EXPECT_EQ(taken(fl_get_tabbox_vert_attr(tb)), "Ort");
  EXPECT_EQ(taken(fl_get_tabbox_vert_attr_value(tb)), "Köln");
  EXPECT_EQ(taken(fl_get_tabbox_vert_attr_line(tb, 3)), "Anzahl");

  // The selection survives a rebuild.
  fl_replace_tabbox_line(tb, 1, "Meier     | Bonn   | 3");
  EXPECT_EQ(shown(2), "Attribut  | Wert       / Ort       | Bonn      ");
  EXPECT_EQ(fl_isselected_tabbox_line(tb, 2), 1);

  fl_unset_tabbox_vert(tb);
  EXPECT_EQ(hook_calls, 3);
  EXPECT_EQ(fl_get_tabbox_vert_attr(tb), nullptr);
  fl_set_tabbox_settings_hook(old);

  // Several lines side by side; hidden columns are not shown vertically and
  // fields end where the title's last column ends.
  for (const char *line : {"Aachenbach| Ulm    | 7", "Bauer     | Hof    | 1234567890123"})
    fl_add_tabbox_line(tb, line);
  tabbox_props(tb).visible[2] = 0;
  fl_set_tabbox_vert(tb);
  ASSERT_EQ(mytabs_get_shown_lines(tb), 2);
  EXPECT_EQ(shown(1), "Attribut  | Zeile 1    | Zeile 2    | Zeile 3    / "
                      "Name      | Meier      | Aachenbach | Bauer     ");
  EXPECT_EQ(shown(2), "Attribut  | Zeile 1    | Zeile 2    | Zeile 3    / "
                      "Anzahl    | 3          | 7          | 1234567   ");
  EXPECT_EQ(mytabs_get_slots(copy), 5);

  // A type-1 tabbox never turns.
  FL_OBJECT *t1 = make(1);
  fl_set_tabbox_vert(t1);
  EXPECT_EQ(fl_get_tabbox_vert(t1), 0);
}

TEST_F(TabboxModel, BadObjectsAndFixedTexts) {
  FL_OBJECT *tb = make(1);
  other_ = fl_begin_form(0, 100, 100);
  FL_OBJECT *box = fl_add_box(FL_UP_BOX, 0, 0, 10, 10, "");
  fl_end_form();
  fl_deselect_tabbox_line(nullptr, 1);
  fl_deselectall_tabbox(box);
  fl_set_tabbox_callback2(box, nullptr, 0);
  EXPECT_EQ(fl_get_tabbox_maxline(box), -1);
  EXPECT_EQ(fl_load_tabbox(nullptr), -1);
  EXPECT_EQ(fl_get_tabbox_vert_attr_line(box, 1), nullptr);
  EXPECT_EQ(printed.take(), "fl_clear_tabbox: Bad argument or wrong type\n"
                            "fl_clear_tabbox: Bad argument or wrong type\n"
                            "fl_clear_tabbox: Bad argument or wrong type\n"
                            "fl_get_tabbox_maxline: Bad argument or wrong type\n"
                            "fl_load_tabbox: Bad argument or wrong type\n"
                            "fl_get_tabbox_vert_attr_line: Bad argument or wrong type\n");
  EXPECT_EQ(fl_load_tabbox(tb), 1);
  fl_set_tabbox_specialkey(tb, 5);
  EXPECT_EQ(
      printed.take(),
      "fl_load_tabbox: Not yet implemented!\n(fl_set_tabbox_specialkey) Not yet implemented!\n");

  fl_set_tabbox_popup(tb, "#Kopieren|#Löschen%h|Info", nullptr);
  EXPECT_STREQ(fl_get_tabbox_popup_text(tb), "(K)opieren - (L)öschen - Info");
}

} // namespace
