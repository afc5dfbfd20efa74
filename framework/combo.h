// Combo boxes: an input field of the toolkit, optionally with a list button
// beside it, that stands for a choice among code/text pairs. The field shows
// the text of the chosen entry; the program works with its code. Entries come
// from a data text ("text,code|text,code|..."), from a key directory (SVZ),
// from the database, or one by one; they are kept sorted by text. The list
// button opens the entries in a list under the field.
//
// The inputs and buttons are the toolkit's; the key directories' tables and
// the session are db/access's; the collating order of texts is base/data.h's.
//
// Process-wide state, in combo.cpp: the combo registry (each combo box
// entered under its input and under its list button), the open entry list.
//
// Illegal calls (an object without combo box, a second combo box on an
// object, more than 10000 entries) print their message and end the program
// with exit status 1.
#pragma once

#include "forms/forms.h"

#include <string>
#include <vector>

struct DBSESSION;
class QListWidget;

// The most entries one combo box holds.
constexpr int MYFL_CMB_MAX = 10000;

// One combo box.
struct MYFL_CMB {
  FL_FORM *form = nullptr;
  FL_OBJECT *input = nullptr;
  FL_OBJECT *button = nullptr; // may be none
  int dependent = 0;           // hierarchical: depends on the combo box of parent
  FL_OBJECT *parent = nullptr; // the superordinate combo box's input (dependent ones)
  std::vector<std::string> texts, codes;
  std::vector<std::string> parent_codes; // dependent ones: the superordinate code per entry
  std::vector<int> order;                // the entries' original positions
  int chosen = -1;                       // index of the chosen entry
  int accept_any = 1;                    // an empty code chooses the empty entry
  FL_CALLBACKPTR change_cb = nullptr;
  long change_arg = 0;
  FL_CALLBACKPTR further_cb = nullptr;
  int no_empty = 0;
  std::string data; // the data text it was made from (for the documentation)
};

// Creates a combo box from a data text: entries separated by "|", each a
// text up to the first "," and a code after it; the text is kept without
// trailing blanks. With no_empty 0 the empty choice " " / "    " is added.
// The entries are sorted; the input gets the combo field callback
// (myfl_cb_cmb_field) and the button the list callback (myfl_cb_open_cmb).
// Returns 1. A second combo box on the input: "(myfl_init_data_cmb) Cmb
// already defined\n"; on the button: "(myfl_init_data_cmb) Cmb (button)
// already defined\n".
int myfl_init_data_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, const char *data,
                       int no_empty);
// An empty combo box, filled later by myfl_addto_cmb or the loaders.
int myfl_init_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, int no_empty);
// Entries of key directory svz in the session's language: text Bezeichnung,
// code Code. A directory without heading warns "(myfl_init_svz_cmb) Warning:
// SVZ %d not found\n", one without codes "(myfl_init_svz_cmb) Warning: SVZ
// %d is empty\n"; the combo box then has no entries (the empty choice aside).
int myfl_init_svz_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, DBSESSION *session,
                      int svz, int no_empty);
// A hierarchical key directory: the entries whose superordinate code
// (Code_Uebergeordnet) is the code chosen in the combo box of parent_input;
// choosing there empties this one. Only those entries are valid and listed.
int myfl_init_fhk_svz_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, DBSESSION *session,
                          int svz, FL_OBJECT *parent_input, int no_empty);
// A key directory named by its heading text "SVZ <name>" (SVZT.Bezeichnung,
// or the name itself when the heading has no "SVZ " prefix).
int myfl_init_ass_svz_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, DBSESSION *session,
                          const char *name, int no_empty);

// Appends one entry (text without trailing blanks). Returns 1.
int myfl_addto_cmb(FL_OBJECT *input, const char *text, const char *code);
// Appends the rows of a SELECT statement: column 0 the code, column 1 the
// text (column 0 for both when there is only one), inside one BEGIN level;
// then sorts. Returns the number of rows, 0 with "(myfl_load_db_cmb)
// Warning: Table is empty\n" when there are none or the statement failed.
int myfl_load_db_cmb(DBSESSION *session, FL_OBJECT *input, const char *statement);
// The same from "SELECT <code>,<text> FROM <table>" with " WHERE <where>"
// when where is not empty.
int myfl_load_multiple_cmb(DBSESSION *session, FL_OBJECT *input, const char *table,
                           const char *code_attr, const char *text_attr, const char *where);
// Unregisters and frees the combo box of the input.
void myfl_free_cmb(FL_OBJECT *input);
// Forgets every combo box of the form (before the form is freed).
void myfl_free_form_cmbs(FL_FORM *form);
// Sorts the entries by text (selection sort, collating order).
void myfl_sort_cmb(FL_OBJECT *input);

// The list button's callback: opens the entry list under the field; a pick
// chooses the entry with the change callback. obj may be the button or the
// input.
void myfl_cb_open_cmb(FL_OBJECT *obj, long argument);
// The input's callback: the typed text chooses the entry with that text (or
// the first one that begins with it, letters case-blind); an unknown text
// shows the chosen entry again; an empty one chooses the empty code.
void myfl_cb_cmb_field(FL_OBJECT *obj, long argument);

// The chosen entry's code and text ("" when none is chosen); the pointers
// stay valid until the combo box changes.
const char *myfl_get_cmb_code(FL_OBJECT *input);
const char *myfl_get_cmb_text(FL_OBJECT *input);
// The text the field shows now.
const char *myfl_get_cmbtext(FL_OBJECT *input);
// Chooses the entry with code (trailing blanks do not count), shows its text
// and runs the change callback: 1 when found. An unknown code prints
// "(set_cmb_code) Warning: CMB-Code '%s' is invalid!\n", shows the code
// itself, keeps the chosen entry and returns 0.
int myfl_set_cmb_code(FL_OBJECT *input, const char *code);
int myfl_set_cmb_code_no_cb(FL_OBJECT *input, const char *code);
// 1 when an entry with the code exists.
int myfl_valid_cmb_code(FL_OBJECT *input, const char *code);
// The change callback, run with the input when a code is chosen.
void myfl_set_cmb_callback(FL_OBJECT *input, FL_CALLBACKPTR callback, long argument);
// Whether an empty code chooses the empty entry (1, the default).
void myfl_set_cmb_accept_any(FL_OBJECT *input, int flag);

// The combo box of an object (input or button), or nullptr.
MYFL_CMB *myfl_get_cmb(FL_OBJECT *obj);
// 1 when obj is the input of a combo box.
int myfl_is_cmb(FL_OBJECT *obj);
// Chooses the previous (delta -1) or next (+1) listed entry with the change
// callback; returns 1 when the choice changed.
int myfl_step_cmb(FL_OBJECT *input, int delta);
// The open entry list, or nullptr; closing it chooses nothing.
QListWidget *myfl_cmb_list();
void myfl_close_cmb_list();
