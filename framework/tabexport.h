// The export of a tabbox to a file and to the clipboard: the TAB-separated
// text of German spreadsheets (the column boundaries read from the full
// title, the fields of the title and of every line in display order, decimal
// points of plain numbers turned into commas), CSV after RFC 4180 in UTF-8
// with a chosen separator and decimal point, the selected lines for the
// clipboard, the file name check and the writing. The dialog around it is
// tabdialogs.h's.
#pragma once

#include "forms/forms.h"

#include <string>

// The export text of the tabbox: all 1 every column in title order, 0 the
// shown columns in display order. Returns 1, or 0 with *error set to the
// message for the user when the title's columns do not match the tabbox.
int myfl_export_tabbox_text(FL_OBJECT *tabbox, int all, std::string *text, std::string *error);

// The CSV text of the tabbox (all / shown columns as above): a title line
// and one record per line in display order, fields separated by
// `separator`, a field quoted (with its quotes doubled) when it holds the
// separator, a quote, a line feed or a carriage return, records ended by
// CR LF, the Latin-1 texts of the tabbox written as UTF-8. In columns whose
// every value is a plain number (digits, "-", at most one ".") the "." is
// written as `decimal`. A managed tabbox gives its fields as they are
// (blanks and line feeds included); another one the fields of its lines cut
// at the title's column boundaries, trailing blanks removed. Returns 1, or 0
// with *error set as for the TAB text, or when the separator is a quote, a
// line feed or a carriage return.
int myfl_export_tabbox_csv(FL_OBJECT *tabbox, int all, char separator, char decimal,
                           std::string *text, std::string *error);

// The text Ctrl+C copies from a tabbox: the shown columns' titles, then the
// selected lines in display order, fields separated by TAB, lines ended by
// line feeds; inside a field TAB, line feed and carriage return become
// blanks and, in plain-number columns, "." becomes "," (the TAB format
// above). Latin-1. Returns the number of lines copied (0: none selected, the
// text is then empty).
int myfl_copy_tabbox_text(FL_OBJECT *tabbox, std::string *text);

// The text in UTF-8 (each Latin-1 byte one character).
std::string myfl_latin1_to_utf8(const std::string &text);

// 1 when every character of name may stand in a file name (a path with "/"
// is allowed) and name is not empty.
int myfl_valid_filename(const char *name);

// The file name with the extension "csv" (added unless it is there).
std::string myfl_export_filename(const char *name);

// Writes text to the file in one piece. Returns 1, 0 when it cannot be
// written.
int myfl_write_export(const std::string &filename, const std::string &text);
