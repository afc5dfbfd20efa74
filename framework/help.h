// The help system: every form can carry a help key on its help button; F1
// (or the button) opens the help dialog "Hilfedialog" with the text stored
// under that key in the help file "<application>.hlp". The texts are small
// HTML fragments with a restricted tag set and "<intern>" blocks for the
// maintainers only; the user edits them in place or in an external HTML
// editor (the environment variable ZENTIQ_HTML_EDITOR's command, run through
// /bin/sh -c, else xdg-open, the desktop's handler for HTML files), which
// works on the file "hilfetxt.tmp". A missing help file or an editor that
// cannot start is told in a warning box.
//
// The help file format: sections, each starting with a header line "[KEY]"
// (anything after the "]" is ignored) and running up to the next header.
// Lines are read in pieces of at most 9999 characters.
//
// Left to others: the forms, buttons and boxes (forms/), the placement of the
// dialog (place.h), the documentation generator.
//
// Process-wide state, in help.cpp: the registry of help buttons and the help
// dialog (its form, made on first use and kept until the toolkit ends; the
// key and form shown; open flag; edit mode).
#pragma once

#include "forms/forms.h"

#include <string>

// Registers the help key of a form's help button; gives the button the
// shortcut "&1^[" and the callback myfl_cb_help. A second registration of
// the button prints "(myfl_init_helpdialog) Helpdialog '%s' already
// defined\n" and ends the program with exit status 1.
void myfl_init_helpdialog(FL_FORM *form, FL_OBJECT *button, const char *key);
// The key registered for the button (resp. the first one of the form), or
// nullptr.
const char *myfl_get_help_key_of_button(FL_OBJECT *button);
const char *myfl_get_help_key(FL_FORM *form);
// Forgets the help buttons of a form (before the form is freed).
void myfl_free_helpdialogs(FL_FORM *form);
// The form's own information hook, run by key 39 on its help button.
void myfl_set_form_info_hook(FL_FORM *form, void (*hook)(FL_FORM *form));

// The help button's callback: its last key F1 (FL_KEY_HELP) or the button's
// activation (FL_KEY_ACTIVATE) opens the help dialog; 39 runs the form's
// information hook; other keys are ignored.
void myfl_cb_help(FL_OBJECT *button, long argument);
// Opens the help dialog for the button's key; when it is open already the
// message "Hilfedialog bereits geöffnet" is shown instead.
void myfl_open_help(FL_OBJECT *button);

// The help file: "<application name>.hlp" in the working folder, else the
// installed copy (base/datadir.h); edits go to the file found.
std::string myfl_help_filename();
// The header line number (from 1) of the section of key, 0 when none.
int myfl_find_help(const char *key);
// The section's body (its lines with their line feeds); "" when the file or
// the section is missing.
std::string myfl_read_help(const char *key);
// Replaces the section's body by text, or appends "\n[KEY]\n" and the text
// when there is none; a line feed ends the text when it has none. Returns 1,
// or 0 after "ERROR: Cannot open temporary file!\n" or "Cannot open file
// '%s'!".
int myfl_save_help(const char *key, const char *text);
// Checks the tags of text: 1 when all are allowed; else 0 with the message
// in *error: "Schließende Befehlsklammer '>' fehlt." or "HTML-Befehl '%s'
// nicht zulässig." with the lower-cased tag.
int myfl_check_html(const char *text, std::string *error);
// The section of key with every tag removed.
std::string myfl_strip_html(const char *key);
// The section of the button's key with every "<intern>...</intern>" block
// replaced by one line feed into *out. Returns 1; 0 after "Warnung
// (Hilfetext '%s'): <intern> ohne </intern>!\n" when a block is not closed
// (*out holds what was done up to there), or when the button has no key.
int myfl_strip_intern(FL_OBJECT *button, std::string *out);
// Text with every tag removed, by the rule of myfl_strip_html.
std::string myfl_strip_tags(const std::string &text);

// The help dialog's parts, for the application's documentation and tests.
struct MYFL_HELPDIALOG {
  FL_FORM *form = nullptr;
  FL_OBJECT *text = nullptr;     // multi-line input with the text
  FL_OBJECT *status = nullptr;   // "Editier-Modus" while editing
  FL_OBJECT *edit = nullptr;     // "Hilfetext editieren" / "Hilfetext ändern"
  FL_OBJECT *external = nullptr; // "Netscape Editor" / "Netscape speichern"
  FL_OBJECT *close = nullptr;    // "Schließen"
  int open = 0;
  int edit_mode = 0; // 0 display, 1 editing
  std::string key;
  FL_FORM *shown_form = nullptr; // the form whose help is shown
};
// The dialog, made on first use (not while another form is being built).
MYFL_HELPDIALOG *myfl_get_helpdialog();
// The command line that starts the external HTML editor on the temporary
// file: ZENTIQ_HTML_EDITOR (run through the shell), else "xdg-open
// hilfetxt.tmp", the desktop's handler for HTML files.
std::string myfl_html_editor_command();
