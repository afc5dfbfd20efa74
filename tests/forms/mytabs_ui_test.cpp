// The tabbox on the (offscreen) screen, driven with real mouse and key
// events: selection with Shift and Control, scrolling by buttons, troughs,
// knobs and keys with their limits, auto-repeat, bars on the grid, the popups and the key actions.
#include "forms/fonts.h"
#include "tests/forms/bars_testutil.h"
#include "tests/forms/forms_testutil.h"

#include <QFontMetricsF>
#include <QMouseEvent>
#include <QStyleHints>
#include <QWheelEvent>

#include <cmath>

namespace {

using namespace forms_test;

struct Calls {
  int callback = 0;
  std::vector<long> dblclick;
  std::vector<int> popup;
  int viewer = 0, sort = 0, optimize = 0, corner = 0;
  std::vector<std::pair<int, int>> widths;
};
Calls g;

// The title: the second column as wide as the lines' descriptions.
std::string title() {
  std::string t = "Name      | Beschreibung";
  t.resize(12 + 150, ' ');
  return t;
}

class TabboxUi : public ::testing::Test {
protected:
  void SetUp() override {
    g = Calls();
    fl_seam_clear();
  }
  void TearDown() override {
    if (form_) fl_free_form(form_);
    fl_set_tabbox_modifier_hook(nullptr);
    fl_set_tabbox_dialog_hook(FL_TABBOX_VIEWER, nullptr);
    fl_set_tabbox_dialog_hook(FL_TABBOX_SORT_DIALOG, nullptr);
    fl_set_tabbox_optimize_hook(nullptr);
    fl_set_tabbox_colwidth_hook(nullptr);
  }
  // A tabbox of the type with n lines "Zeile i" and a wide second column.
  FL_OBJECT *make(int type, int n, int w = 400, int h = 240) {
    FL_OBJECT *tb = tabbox_form(form_, type, w, h); // frees the test's previous tabbox
    fl_set_object_callback(
        tb, [](FL_OBJECT *, long) { ++g.callback; }, 0);
    fl_set_tabbox_title(tb, title().c_str());
    for (int i = 1; i <= n; ++i) {
      std::string line = "Zeile " + std::to_string(i);
      line.resize(10, ' ');
      line += "| " + std::string(150, static_cast<char>('a' + i % 26));
      fl_add_tabbox_line(tb, line.c_str());
    }
    show_and_activate(form_);
    fl_layout_tabbox(tb);
    return tb;
  }
  // The scroll position: top line and first character shown (both 0-based).
  struct Scroll {
    int topline, offset;
  };
  static Scroll scroll(FL_OBJECT *tb) {
    return {fl_get_tabbox_topline(tb) - 1, mytabs_get_offset(tb)};
  }
  // The maximum width of column col.
  static int maxwidth(FL_OBJECT *tb, int col) { return tabbox_props(tb).colmax[col]; }
  void click(FL_OBJECT *tb, QPoint p, Qt::KeyboardModifiers mods = {},
             Qt::MouseButton b = Qt::LeftButton) {
    QTest::mouseClick(tb->widget, b, mods, p);
  }
  // The scroll position after a click or a key.
  Scroll after_click(FL_OBJECT *tb, QPoint p) {
    click(tb, p);
    return scroll(tb);
  }
  Scroll after_key(FL_OBJECT *tb, Qt::Key key, Qt::KeyboardModifiers mods = {}) {
    QTest::keyClick(tb->widget, key, mods);
    return scroll(tb);
  }
  std::vector<int> selected(FL_OBJECT *tb) {
    std::vector<int> s;
    for (int i = 1; i <= fl_get_tabbox_maxline(tb); ++i)
      if (fl_isselected_tabbox_line(tb, i)) s.push_back(i);
    return s;
  }
  std::vector<int> selected_after(FL_OBJECT *tb, Qt::Key key, Qt::KeyboardModifiers mods = {}) {
    QTest::keyClick(tb->widget, key, mods);
    return selected(tb);
  }
  FL_FORM *form_ = nullptr;
};

TEST_F(TabboxUi, ClicksSelectByTypeWithShiftAndControl) {
  FL_OBJECT *tb = make(3, 8);
  // A click on the k-th visible line with the modifiers, and the selection after it.
  const Qt::KeyboardModifiers S = Qt::ShiftModifier, C = Qt::ControlModifier;
  struct {
    int k;
    Qt::KeyboardModifiers mods;
    V selected;
  } clicks[] = {{1, {}, {2}},
                {4, S, {2, 3, 4, 5}},
                {2, C, {2, 4, 5}},
                // Shift and Control: up to the selected block, and clear the block below.
                {0, S | C, {1, 4, 5}},
                {3, S | C, {1, 4}},
                // Shift: from the block above down to the line, nothing else.
                {6, S, {4, 5, 6, 7}},
                {5, {}, {6}}};
  for (auto &c : clicks) {
    click(tb, line_point(tb, c.k), c.mods);
    EXPECT_EQ(selected(tb), c.selected) << "line " << c.k;
  }
  EXPECT_EQ(g.callback, 7);
  // Beside the lines: everything is cleared.
  click(tb, line_point(tb, 10));
  EXPECT_EQ(selected(tb), V());

  // The framework's modifier state replaces the event's.
  fl_set_tabbox_modifier_hook([](int key) { return key == FL_KEY_CONTROL ? 1 : 0; });
  click(tb, line_point(tb, 1));
  click(tb, line_point(tb, 3));
  EXPECT_EQ(selected(tb), V({2, 4}));

  FL_OBJECT *single = make(1, 8);
  click(single, line_point(single, 1));
  click(single, line_point(single, 3), Qt::ShiftModifier);
  EXPECT_EQ(selected(single), V({4}));

  FL_OBJECT *none = make(0, 8);
  g.callback = 0;
  click(none, line_point(none, 1));
  EXPECT_EQ(fl_get_tabbox_selectcount(none), 0);
  EXPECT_EQ(g.callback, 0);
}

TEST_F(TabboxUi, ScrollingStaysWithinItsLimits) {
  FL_OBJECT *tb = make(1, 100);
  const int W = tb->w, H = tb->h, sl = fl_get_tabbox_screenlines(tb);
  const int vis = (W - FL_TABBOX_SCROLL - 2 * FL_TABBOX_BW) / char_size(tb).width();
  fl_tabbox_rightmost(tb);
  const int last_top = 100 - sl, last_offset = mytabs_get_offset(tb);
  fl_tabbox_leftmost(tb);
  ASSERT_GT(sl, 3);
  // The lines are 162 characters long.
  ASSERT_EQ(last_offset, 162 - vis);
  QPoint up(W - 9, 9), down(W - 9, H - 27), left(9, H - 9), right(W - 27, H - 9);
  EXPECT_EQ(after_click(tb, up).topline, 0);
  click(tb, down);
  EXPECT_EQ(after_click(tb, down).topline, 2);
  EXPECT_EQ(after_click(tb, up).topline, 1);
  EXPECT_EQ(after_click(tb, left).offset, 0);
  EXPECT_EQ(after_click(tb, right).offset, 1);

  // Troughs: forward a page less one, back a page plus one, never below 0.
  int ks, kl;
  tabbox_knob(tb, 1, &ks, &kl);
  EXPECT_EQ(after_click(tb, QPoint(W - 9, ks + kl + 3)).topline, 1 + sl - 1);
  tabbox_knob(tb, 1, &ks, &kl);
  EXPECT_EQ(after_click(tb, QPoint(W - 9, ks - 2)).topline, 0);
  tabbox_knob(tb, 0, &ks, &kl);
  EXPECT_EQ(after_click(tb, QPoint(ks + kl + 3, H - 9)).offset, 1 + vis - 1);

  // Keys of a type-1 tabbox only scroll.
  EXPECT_EQ(after_key(tb, Qt::Key_PageDown).topline, sl - 1);
  for (int i = 0; i < 100; ++i) QTest::keyClick(tb->widget, Qt::Key_PageDown);
  EXPECT_EQ(scroll(tb).topline, last_top);
  EXPECT_EQ(after_click(tb, down).topline, last_top);
  EXPECT_EQ(after_key(tb, Qt::Key_PageUp).topline, last_top - sl - 1);
  EXPECT_EQ(after_key(tb, Qt::Key_Up).topline, last_top - sl - 2);
  EXPECT_EQ(fl_get_tabbox_selectcount(tb), 0);
  EXPECT_EQ(after_key(tb, Qt::Key_End).offset, last_offset);
  EXPECT_EQ(after_key(tb, Qt::Key_Right, Qt::ShiftModifier).offset, last_offset);
  EXPECT_EQ(after_key(tb, Qt::Key_Left, Qt::ShiftModifier).offset, last_offset - vis - 1);
  EXPECT_EQ(after_key(tb, Qt::Key_Home).offset, 0);

  // Fewer lines than screen lines: the down button does nothing.
  fl_clear_tabbox(tb);
  for (const char *line : {"eins", "zwei"}) fl_add_tabbox_line(tb, line);
  fl_layout_tabbox(tb);
  EXPECT_EQ(after_click(tb, down).topline, 0);
}

TEST_F(TabboxUi, HeldButtonsRepeatAfterTheirDelays) {
  FL_OBJECT *tb = make(1, 100);
  const int W = tb->w, H = tb->h;
  auto ticks_with_steps = [&](int n) {
    std::vector<int> steps;
    for (int t = 1; t <= n; ++t)
      if (tabbox_mouse_repeat(tb)) steps.push_back(t);
    return steps;
  };
  const QPoint down(W - 9, H - 27), right(W - 27, H - 9);
  QTest::mousePress(tb->widget, Qt::LeftButton, {}, down);
  EXPECT_EQ(scroll(tb).topline, 1); // the press itself steps
  EXPECT_EQ(ticks_with_steps(17), V({9, 13, 17}));
  EXPECT_EQ(scroll(tb).topline, 4);
  QTest::mouseRelease(tb->widget, Qt::LeftButton, {}, down);
  EXPECT_EQ(ticks_with_steps(8), V());

  QTest::mousePress(tb->widget, Qt::LeftButton, {}, right);
  EXPECT_EQ(ticks_with_steps(8), V({4, 6, 8}));
  EXPECT_EQ(scroll(tb).offset, 4);
  QTest::mouseRelease(tb->widget, Qt::LeftButton, {}, right);
  EXPECT_EQ(ticks_with_steps(8), V());

  // Dragging the vertical knob moves in proportion, within the range.
  int ks, kl;
  tabbox_knob(tb, 1, &ks, &kl);
  int top = scroll(tb).topline;
  const int trough = H - 3 * FL_TABBOX_SCROLL - 2 * FL_TABBOX_BW;
  QTest::mousePress(tb->widget, Qt::LeftButton, {}, QPoint(W - 9, ks + 2));
  QTest::mouseMove(tb->widget, QPoint(W - 9, ks + 2 + (trough - 10) / 4));
  EXPECT_NEAR(scroll(tb).topline, top + 25, 1);
  QTest::mouseMove(tb->widget, QPoint(W - 9, H + 500));
  EXPECT_EQ(scroll(tb).topline, 100 - fl_get_tabbox_screenlines(tb));
  QTest::mouseRelease(tb->widget, Qt::LeftButton, {}, QPoint(W - 9, H + 500));
  // Released: moving the mouse drags no more.
  QTest::mouseMove(tb->widget, QPoint(W - 9, ks));
  EXPECT_EQ(scroll(tb).topline, 100 - fl_get_tabbox_screenlines(tb));
}

// With a font whose advance is not a whole number of pixels the bars of a
// line stand exactly under the title's (drawn in its bold font), also far to
// the right, and a press on a title's bar there starts that column's resize.
TEST_F(TabboxUi, BarsStayOnTheGridWithAFractionalAdvance) {
  int size = 0;
  // Far from the default size, so that a wrong font shows in the picture.
  for (int s = 16; s <= 30 && !size; ++s) {
    double a = QFontMetricsF(fl_style_font(FL_FIXED_STYLE, s)).horizontalAdvance(QChar('M'));
    if (std::abs(a - std::round(a)) > 0.15) size = s;
  }
  if (!size) GTEST_SKIP() << "no size of the fixed font has a fractional advance here";
  FL_OBJECT *tb = tabbox_form(form_, 0, 700, 180);
  fl_set_tabbox_fontsize(tb, size);
  std::string head, line;
  for (const char *name : {"nummer", "name", "ort", "anrede", "zone"}) {
    std::string h = name, v = "1234567";
    h.resize(9, ' ');
    head += (head.empty() ? "" : "| ") + h;
    line += (line.empty() ? "" : "| ") + v + "  ";
  }
  fl_set_tabbox_title(tb, head.c_str());
  fl_add_tabbox_line(tb, line.c_str());
  show_and_activate(form_);
  fl_layout_tabbox(tb);

  const QImage img = tb->widget->grab().toImage();
  const double dpr = img.devicePixelRatio();
  const int cw = char_size(tb).width(), ch = char_size(tb).height(), tx = tabbox_text_x(tb);
  const int left = static_cast<int>(tx * dpr), right = static_cast<int>((700 - 22) * dpr);
  auto bars = [&](int top) {
    return bars_test::bar_columns(img, static_cast<int>(top * dpr), static_cast<int>(ch * dpr),
                                  left, right);
  };
  const std::vector<double> in_title = bars(FL_TABBOX_BW), in_line = bars(tabbox_list_y(tb));
  const std::string shown = fl_get_tabbox_title(tb);
  std::vector<int> at;
  for (size_t i = 0; i < shown.size(); ++i)
    if (shown[i] == '|') at.push_back(static_cast<int>(i));
  ASSERT_EQ(in_title.size(), at.size()) << shown;
  ASSERT_EQ(in_line.size(), at.size());
  ASSERT_GT(at.back(), 40);
  for (size_t i = 0; i < at.size(); ++i) {
    EXPECT_NEAR(in_title[i], in_line[i], 0.6) << "bar " << i;
    // The bar is drawn inside the cell that the hit areas give it.
    EXPECT_GE(in_title[i] / dpr, tx + at[i] * cw) << "bar " << i;
    EXPECT_LT(in_title[i] / dpr, tx + (at[i] + 1) * cw) << "bar " << i;
  }
  // The last bar, pressed where it is seen and dragged two cells left.
  const int col = static_cast<int>(at.size());
  const QPoint seen(static_cast<int>(in_title.back() / dpr), ch / 2 + 2);
  EXPECT_TRUE(drag(tb, seen, seen - QPoint(2 * cw, 0)));
  EXPECT_EQ(maxwidth(tb, col), 6);
  EXPECT_EQ(maxwidth(tb, col - 1), -1);
}

TEST_F(TabboxUi, PopupsOfferTheirChoices) {
  FL_OBJECT *tb = make(1, 5);
  fl_set_tabbox_optimize_hook([](FL_OBJECT *) { ++g.optimize; });
  fl_set_tabbox_dialog_hook(FL_TABBOX_VIEWER, [](FL_OBJECT *) { ++g.viewer; });
  fl_set_tabbox_dialog_hook(FL_TABBOX_SORT_DIALOG, [](FL_OBJECT *) { ++g.sort; });
  auto right_click = [&] { click(tb, line_point(tb, 1), {}, Qt::RightButton); };
  tabbox_props(tb).colmax[1] = 4;
  fl_seam_queue_popup(2);
  right_click();
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_EQ(fl_seam_shown()[0].items,
            (std::vector<std::string>{"Sortierung", "Spalten optimieren", "Export"}));
  EXPECT_EQ(maxwidth(tb, 1), -1);
  EXPECT_EQ(g.optimize, 1);

  fl_select_tabbox_line(tb, 2);
  fl_seam_queue_popup(4);
  right_click();
  EXPECT_THAT(fl_seam_shown()[1].items,
              testing::ElementsAre("Sortierung", "Spalten optimieren", "Export", "Viewer"));
  EXPECT_EQ(g.viewer, 1);
  fl_seam_queue_popup(1);
  right_click();
  EXPECT_EQ(g.sort, 1);
  fl_set_tabbox_viewer(tb, 0); // the viewer's item goes
  right_click();
  EXPECT_EQ(fl_seam_shown()[3].items.size(), 3u);

  // The application's popup: "#" marks the shortcut letters.
  fl_set_tabbox_popup(tb, "#Kopieren|#Löschen|Info",
                      [](FL_OBJECT *, int item) { g.popup.push_back(item); });
  fl_seam_queue_popup(2);
  click(tb, line_point(tb, 1), {}, Qt::MiddleButton);
  EXPECT_EQ(fl_seam_shown()[4].items, (std::vector<std::string>{"Kopieren", "Löschen", "Info"}));
  QTest::keyClick(tb->widget, Qt::Key_L);
  QTest::keyClick(tb->widget, Qt::Key_K, Qt::ShiftModifier);
  QTest::keyClick(tb->widget, Qt::Key_I);
  EXPECT_EQ(g.popup, V({2, 2, 1}));
}

TEST_F(TabboxUi, KeysMoveTheSelectionAndCallBack) {
  FL_OBJECT *tb = make(2, 40);
  QWidget *w = tb->widget;
  const int sl = fl_get_tabbox_screenlines(tb);
  EXPECT_EQ(selected_after(tb, Qt::Key_Down), V({1}));
  QTest::keyClick(w, Qt::Key_Down);
  EXPECT_EQ(selected_after(tb, Qt::Key_Down), V({3}));
  EXPECT_EQ(selected_after(tb, Qt::Key_Up), V({2}));
  EXPECT_EQ(g.callback, 4);
  for (int i = 0; i < sl; ++i) QTest::keyClick(w, Qt::Key_Down);
  EXPECT_EQ(selected(tb), V({2 + sl}));
  EXPECT_EQ(scroll(tb).topline, 2); // the list followed the selection
  EXPECT_EQ(selected_after(tb, Qt::Key_PageUp), V({3}));
  EXPECT_EQ(selected_after(tb, Qt::Key_PageUp), V({1}));
  EXPECT_EQ(scroll(tb).topline, 0);
  EXPECT_EQ(selected_after(tb, Qt::Key_PageDown), V({sl}));
  EXPECT_EQ(selected_after(tb, Qt::Key_PageDown), V({2 * sl - 1}));
  EXPECT_EQ(scroll(tb).topline, sl - 1);

  // The framework may keep Up and Down for itself; Control overrides it.
  fl_set_tabbox_key_hook([](FL_OBJECT *, int) { return 0; });
  EXPECT_EQ(selected_after(tb, Qt::Key_Up), V({2 * sl - 1}));
  EXPECT_EQ(selected_after(tb, Qt::Key_Up, Qt::ControlModifier), V({2 * sl - 2}));
  fl_set_tabbox_key_hook(nullptr);

  // Enter: the double-click callback with Shift as argument; without one the
  // object's callback.
  g.callback = 0;
  QTest::keyClick(w, Qt::Key_Return);
  EXPECT_EQ(g.callback, 1);
  fl_set_tabbox_dblclick_callback(
      tb, [](FL_OBJECT *, long a) { g.dblclick.push_back(a); }, 5);
  for (auto mods : {Qt::NoModifier, Qt::ShiftModifier, Qt::ControlModifier})
    QTest::keyClick(w, Qt::Key_Return, mods);
  fl_call_tabbox_dblclick_callback(tb);
  EXPECT_EQ(g.dblclick, (std::vector<long>{0, 1, 0}));
  QTest::mouseDClick(w, Qt::LeftButton, {}, line_point(tb, 1));
  EXPECT_EQ(g.dblclick.size(), 4u);
  EXPECT_EQ(selected(tb), V({scroll(tb).topline + 2}));
  // The tabbox's own 400 ms decide, not the platform's interval: two presses
  // 350 ms apart are a double-click, 450 ms apart two clicks; a third quick
  // press starts a new pair.
  QGuiApplication::styleHints()->setMouseDoubleClickInterval(100);
  auto press_at = [&](ulong ms) {
    QPointF p = line_point(tb, 1);
    QMouseEvent down(QEvent::MouseButtonPress, p, w->mapToGlobal(p), Qt::LeftButton, Qt::LeftButton,
                     {});
    down.setTimestamp(ms);
    QApplication::sendEvent(w, &down);
    QMouseEvent up(QEvent::MouseButtonRelease, p, w->mapToGlobal(p), Qt::LeftButton, {}, {});
    up.setTimestamp(ms + 10);
    QApplication::sendEvent(w, &up);
  };
  for (ulong t : {100000ul, 100350ul, 100400ul, 101000ul, 101450ul}) press_at(t);
  EXPECT_EQ(g.dblclick.size(), 5u);
  QGuiApplication::styleHints()->setMouseDoubleClickInterval(400);

  // F2 opens the viewer for exactly one selected line.
  fl_set_tabbox_dialog_hook(FL_TABBOX_VIEWER, [](FL_OBJECT *) { ++g.viewer; });
  QTest::keyClick(w, Qt::Key_F2);
  fl_deselectall_tabbox(tb);
  QTest::keyClick(w, Qt::Key_F2);
  EXPECT_EQ(g.viewer, 1);

  // The corner button calls the second callback.
  fl_set_tabbox_callback2(
      tb, [](FL_OBJECT *, long a) { g.corner = static_cast<int>(a); }, 9);
  click(tb, QPoint(tb->w - 9, tb->h - 9));
  EXPECT_EQ(g.corner, 9);

  // Type 3: a multiple selection shrinks to its first line, then moves.
  FL_OBJECT *multi = make(3, 10);
  for (int line : {3, 4, 7}) fl_select_tabbox_line(multi, line);
  EXPECT_EQ(selected_after(multi, Qt::Key_Down), V({4}));
}

} // namespace
