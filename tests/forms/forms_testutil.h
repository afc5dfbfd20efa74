// Helpers of the forms and framework tests: collecting what the toolkit
// prints, death tests that see the messages and boxes of the dying child
// (EXPECT_EXIT matches standard error only), and the tabbox's property arrays.
#pragma once

#include "base/msg.h"
#include "tests/msg_capture.h"
#include "forms/dialogs.h"
#include "forms/mytabs.h"
#include "tests/qt_env.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace forms_test {

using testmsg::Capture;

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
  fl_get_tabbox_properties(tb, &p.nslots, &p.end, &p.order, &p.visible, &p.nsort, &p.cols,
                           &p.dirs, &p.maxwidth, &p.colmax);
  return p;
}

} // namespace forms_test
