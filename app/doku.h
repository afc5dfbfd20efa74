// The HTML manual of the viewer's dialogs, written when the program is
// started with "-doku": for each form its name, its help text (without the
// maintainers' "<intern>" blocks) and a table of its objects with their
// kinds, labels and shortcuts. The file is "<application name>_hlp.htm" in
// the current directory.
//
// The help texts are help.h's; the forms are the toolkit's.
#pragma once

#include <string>

#include "forms/forms.h"

// The manual's file name: "zentiq_hlp.htm" for the application "zentiq".
std::string zentiq_manual_filename();
// Writes the manual of the main and the detail form. Returns 1, or 0 when the
// file could not be written.
int zentiq_write_manual();
// The manual's section of one form (for the file and for tests): the heading,
// the help text of the help button and the object table. Latin-1.
std::string zentiq_manual_section(FL_FORM *form, FL_OBJECT *help_button);
