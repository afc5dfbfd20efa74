// The toolkit's pop-up menu: one process-wide menu at a time, defined from a
// text of items separated by "|" and shown at the mouse position.
//
// Item flags "%h" and "%l" (any "%" with the character after it) are accepted
// and have no effect; "%s" with a letter after it makes that letter the
// item's. While the menu is shown every item underlines its letter (its own,
// else its first one no item before took) and the letter chooses it. Tests
// answer menus through the seam of dialogs.h. What the callers do with the
// chosen item is theirs.
#pragma once

#include <string>
#include <vector>

class QWidget;

// Builds the pop-up menu from the definition: each piece between "|" is one
// item, numbered from 1; an empty last piece (a definition ending in "|")
// gives no item. Returns window unchanged as the menu's handle.
QWidget *fl_define_popup(QWidget *window, const char *definition);
// Shows the menu at the mouse position and waits for the choice. Returns the
// chosen item (from 1), or 0 when the menu was dismissed or none is defined.
int fl_do_popup(QWidget *handle);
// 1 while the menu is shown.
int fl_popup_is_open();
// Closes the menu when it is shown (its fl_do_popup returns 0).
void fl_close_popup();
// The items of the menu as defined (Latin-1).
const std::vector<std::string> &fl_popup_items();
// Splits a definition into items as fl_define_popup does.
std::vector<std::string> fl_split_popup(const char *definition);
