// The export of a tabbox to a TAB-separated text file: the column boundaries
// read from the full title, the fields of the title and of every line in
// display order (decimal points of plain numbers turned into commas), the
// file name check and the writing. The dialog around it is tabdialogs.h's.
#pragma once

#include "forms/forms.h"

#include <string>

// The export text of the tabbox: all 1 every column in title order, 0 the
// shown columns in display order. Returns 1, or 0 with *error set to the
// message for the user when the title's columns do not match the tabbox.
int myfl_export_tabbox_text(FL_OBJECT *tabbox, int all, std::string *text, std::string *error);

// 1 when every character of name may stand in a file name (a path with "/"
// is allowed) and name is not empty.
int myfl_valid_filename(const char *name);

// The file name with the extension "csv" (added unless it is there).
std::string myfl_export_filename(const char *name);

// Writes text to the file in one piece. Returns 1, 0 when it cannot be
// written.
int myfl_write_export(const std::string &filename, const std::string &text);
