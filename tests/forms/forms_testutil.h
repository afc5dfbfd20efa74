// Helpers of the forms and framework tests: the headers they share, collecting
// what the toolkit prints, death tests that see the messages and boxes of the
// dying child (EXPECT_EXIT matches standard error only), forms holding one
// tabbox, the tabbox's property arrays and the points of a shown tabbox.
#pragma once

#include "base/msg.h"
#include "tests/msg_capture.h"
#include "forms/dialogs.h"
#include "forms/forms.h"
#include "forms/mytabs.h"
#include "forms/mytabs_draw.h"
#include "tests/qt_env.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// Qt after every header of the toolkit: its "slots" keyword would clash with
// the tabbox record's field. A test includes this header last.
#include <QApplication>
#include <QTest>
#include <QWidget>

namespace forms_test {

using testmsg::Capture;
using V = std::vector<int>;

// Sends messages and the boxes' titles and texts to standard error.
inline void to_stderr() {
  msg_set_handler([](const char *t) { std::fputs(t, stderr); });
  fl_seam_set_observer([](const FlShownDialog &d) {
    std::fprintf(stderr, "[%s] %s\n", d.title.c_str(), d.text.c_str());
  });
}

// A text the caller is to free (as the vertical display's attribute texts
// are), freed; "(none)" for nullptr.
inline std::string taken(char *text) {
  std::string s = text ? text : "(none)";
  std::free(text);
  return s;
}

// A new form in `form` (freeing the one it held) with a tabbox of the type,
// w x h at (10, 10), and a margin of 10 around it.
inline FL_OBJECT *tabbox_form(FL_FORM *&form, int type, int w, int h) {
  if (form) fl_free_form(form);
  form = fl_begin_form(0, w + 20, h + 20);
  FL_OBJECT *tb = fl_add_tabbox(type, 10, 10, w, h, "");
  fl_end_form();
  return tb;
}

// The tabbox record's own column arrays (slot 0 unused), which the settings
// change in place; a change shows at the next layout or draw.
struct TabboxProps {
  int nslots, *end, *order, *visible, nsort, *cols, *dirs, maxwidth, *colmax;
  // A per-column array over the slots 1..nslots-1.
  std::vector<int> of(const int *values) const {
    return std::vector<int>(values + 1, values + nslots);
  }
};
inline TabboxProps tabbox_props(FL_OBJECT *tb) {
  TabboxProps p{};
  fl_get_tabbox_properties(tb, &p.nslots, &p.end, &p.order, &p.visible, &p.nsort, &p.cols, &p.dirs,
                           &p.maxwidth, &p.colmax);
  return p;
}

// The size of a character cell of a shown tabbox, the middle of its k-th
// visible line (0 the first) and the middle of character pos in its title.
inline QSize char_size(FL_OBJECT *tb) {
  int w, h;
  tabbox_char_size(tb, &w, &h);
  return {w, h};
}
inline QPoint line_point(FL_OBJECT *tb, int k) {
  const int h = char_size(tb).height();
  return {30, tabbox_list_y(tb) + k * h + h / 2};
}
inline QPoint title_cell(FL_OBJECT *tb, int pos) {
  const QSize c = char_size(tb);
  return {tabbox_text_x(tb) + pos * c.width() + c.width() / 2, c.height() / 2 + 2};
}

// A press at from and its release at to on the tabbox; whether the resize
// cursor showed while the button was down.
inline bool drag(FL_OBJECT *tb, QPoint from, QPoint to, Qt::MouseButton b = Qt::LeftButton) {
  QTest::mousePress(tb->widget, b, {}, from);
  const bool resizing = tb->widget->cursor().shape() == Qt::SizeAllCursor;
  QTest::mouseRelease(tb->widget, b, {}, to);
  return resizing;
}

} // namespace forms_test
