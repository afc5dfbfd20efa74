// Managed and database tabboxes: the framework's registry of the tabboxes
// that applications use, and for each of them the application records behind
// the lines. A managed tabbox receives its lines as comma-separated field
// texts (a field may be quoted; see myfl_addto_tabbox_line); this module
// keeps the fields of all lines in one store, pads them into the tabbox's
// column layout (each line when the tabbox first reads it), keeps one record
// per line, sorts records, tests uniqueness and fills database tabboxes
// through the application's record-producing hooks inside one BEGIN level of
// the session layer.
//
// The stored presentation (INI settings line) and the dialogs are tabset.h's
// and tabdialogs.h's: the presentation is applied whenever the title is set
// once their hooks are installed (myfl_install_tabbox_settings, or
// myfl_create_tabbox_dialogs); the tabbox object itself is forms/mytabs.h's.
//
// Records are size-prefixed blocks (a 32-bit size field first, as the table
// records of the system) allocated with malloc: the constructor hands out a
// new one, a line entry owns the one attached to it and frees it with free().
//
// Process-wide state, in dbtabbox.cpp: the registry, the application's fatal
// stop and the once-only "too many rows" flag of the record sort.
#pragma once

#include "forms/forms.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct DBSESSION;

// Limits: columns per line and rows in a record sort.
constexpr int MYFL_MAX_COLS = 500;
constexpr int MYFL_MAX_SORT_ROWS = 500;

// The application's callbacks.
// Title: the column titles as comma-separated field texts.
using MYFL_TITLE_FUNC = const char *(*)(FL_OBJECT *tabbox);
// TABLE_New: a fresh, empty record (malloc'ed, size field set).
using MYFL_TABLE_NEW = void *(*)();
// TABLE_Data: copies the application data of src into dest.
using MYFL_TABLE_DATA = void (*)(void *dest, const void *src);
// Compare (uniqueness): 0 when the two records count as the same entry.
using MYFL_COMPARE_FUNC = int (*)(const void *a, const void *b);
// Sort: negative when record b belongs before record a.
using MYFL_SORT_FUNC = int (*)(const void *a, const void *b);
// Line text of a record: comma-separated field texts (several lines may be
// separated by line feeds for myfl_load_single_tabbox).
using MYFL_LINE_FUNC = const char *(*)(DBSESSION *session, void *record, int kz_dbnames);
// Loader: first yields 1 when the table has records; next fills record with
// the next one and yields 1, 0 at the end.
using MYFL_FIRST_FUNC = int (*)(void *table, DBSESSION *session);
using MYFL_NEXT_FUNC = int (*)(void *table, DBSESSION *session, void *record);
// Record of a line loaded without one, made from its fields when the record
// is first needed (malloc'ed; the line owns it from then on). The views are
// valid during the call only.
using MYFL_RECORD_FUNC = void *(*)(const std::vector<std::string_view> &fields);
// Database hook on one record (load, save, delete, insert): 1 good, 0 failed.
using MYFL_DB_HOOK = int (*)(DBSESSION *session, void *record);
// Line filter: 1 when the record is shown.
using MYFL_FILTER_FUNC = int (*)(const void *record);

// The field texts of the lines of a managed tabbox, back to back in one
// buffer with the end offset of each field, so that a large result costs a
// few large allocations instead of a string per field. Fields are only
// appended: a line that changes gets new fields, and its old ones stay as
// garbage until the tabbox copies its live fields into a fresh store.
class MyflFieldStore {
public:
  // Number of fields stored: the index the next field gets.
  size_t size() const { return ends_.size(); }
  // Bytes stored, of all fields with their terminating zeros.
  size_t chars() const { return chars_.size(); }
  // Field j (0-based, j < size()); valid until the next add or clear. A zero
  // follows each field, so that data() is also its C string.
  std::string_view at(size_t j) const {
    size_t begin = start(j);
    return {chars_.data() + begin, ends_[j] - begin};
  }
  size_t length(size_t j) const { return ends_[j] - start(j); }
  void add(std::string_view text) {
    chars_.append(text);
    ends_.push_back(chars_.size());
    chars_.push_back('\0');
  }
  // Room for `fields` more fields with `chars` more characters.
  void reserve(size_t fields, size_t chars) {
    ends_.reserve(ends_.size() + fields);
    chars_.reserve(chars_.size() + chars + fields);
  }
  // Empties the store and gives its memory back.
  void clear() {
    std::string().swap(chars_);
    std::vector<size_t>().swap(ends_);
  }

private:
  size_t start(size_t j) const { return j ? ends_[j - 1] + 1 : 0; }
  std::string chars_;
  std::vector<size_t> ends_; // end of each field, before its zero
};

// One line of a managed tabbox: its fields are `count` consecutive fields of
// the tabbox's store from index `first` (read them with myfl_line_field).
struct MYFL_TABBOX_LINE {
  size_t first = 0;
  uint32_t count = 0;
  void *record = nullptr; // owned (free()), may be null
};

// Lines made by the caller for myfl_load_tabbox_lines: each line starts with
// begin_line, and the fields added after it are its fields.
struct MYFL_TABBOX_LINES {
  MyflFieldStore fields;
  std::vector<MYFL_TABBOX_LINE> lines;
  void begin_line(void *record = nullptr) { lines.push_back({fields.size(), 0, record}); }
  // A field of the line begun last (a line is begun when none was).
  void add_field(std::string_view text) {
    if (lines.empty()) begin_line();
    fields.add(text);
    ++lines.back().count;
  }
};

// The management record of one tabbox.
struct MYFL_TABBOX {
  FL_OBJECT *tabbox = nullptr;
  FL_FORM *form = nullptr;
  FL_OBJECT *slider = nullptr;
  MYFL_TITLE_FUNC title = nullptr;
  MYFL_TABLE_NEW table_new = nullptr;
  MYFL_TABLE_DATA table_data = nullptr;
  MYFL_DB_HOOK load = nullptr, save = nullptr, del = nullptr, insert = nullptr;
  MYFL_FILTER_FUNC filter = nullptr;
  MYFL_COMPARE_FUNC compare = nullptr;
  MYFL_SORT_FUNC sort = nullptr;
  FL_CALLBACKPTR dblclick = nullptr;
  MYFL_LINE_FUNC line_func = nullptr; // remembered by the last load
  int db = 0;                         // database tabbox
  int no_ini = 0;                     // ignore (and drop) stored settings once
  int kz_dbnames = 0;
  std::vector<std::string> dbnames; // per column
  int tablenr = -1;
  std::string name;
  int sort_enabled = 0;   // sort records at every myfl_draw_tabbox
  std::vector<int> types; // data definition: type id per column (0 none)
  std::vector<MYFL_TABBOX_LINE> lines;
  MyflFieldStore fields;     // the lines' field texts
  size_t garbage_fields = 0; // fields in the store that no line uses
  std::vector<int> widths;   // column widths of the padded layout
  std::vector<char> right;   // right-aligned columns of the padded layout
                             // (widths and right: what the tabbox's line
                             // function pads unmade lines by)
  int rows = 0;              // records loaded by the last load
  // Saved state (myfl_save_tabbox_state).
  int state_saved = 0, state_top = 0, state_line = 0;
  void *state_record = nullptr;
  int frozen = 0;                         // loading: lines are laid out once at the end
  MYFL_RECORD_FUNC make_record = nullptr; // records of lines loaded without one
};

// The management record of a registered tabbox, nullptr when it has none.
MYFL_TABBOX *myfl_find_tabbox(FL_OBJECT *tabbox);

// Field i (0-based) of line l of m, empty past the line's last field; valid
// until the line or the tabbox's lines change.
std::string_view myfl_line_field(const MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l, size_t i);
// All fields of line l of m, valid as long as those of myfl_line_field.
std::vector<std::string_view> myfl_line_fields(const MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l);

// The application's fatal stop (default: "Error occurred (data is saved)!
// Please restart the application!\n" and exit status 1). Returns the old one.
using MYFL_FATAL_FUNC = void (*)(int status);
MYFL_FATAL_FUNC myfl_set_tabbox_fatal(MYFL_FATAL_FUNC fn);

// ---- Registration ------------------------------------------------------------

// The common registration: fatal "(init_tabbox) Tabbox already defined\n",
// "(init_tabbox) Slider already defined\n" (a slider object given to another
// tabbox) and "(init_tabbox) Too many columns (max = 500)\n". Returns the new
// record; the presentation is not applied yet.
MYFL_TABBOX *init_tabbox(FL_FORM *form, FL_OBJECT *tabbox, FL_OBJECT *slider, const char *name,
                         MYFL_TITLE_FUNC title);
// A managed tabbox without database hooks; applies the stored presentation.
int myfl_init_tabbox(FL_FORM *form, FL_OBJECT *tabbox, const char *name, MYFL_TITLE_FUNC title,
                     FL_CALLBACKPTR dblclick);
// A database tabbox: as above plus constructor, load and save hooks and the
// line filter (each hook may be null).
int myfl_init_db_tabbox(FL_FORM *form, FL_OBJECT *tabbox, const char *name, MYFL_TITLE_FUNC title,
                        MYFL_TABLE_NEW table_new, MYFL_DB_HOOK load, MYFL_DB_HOOK save,
                        MYFL_FILTER_FUNC filter, FL_CALLBACKPTR dblclick);
// The same, but the stored settings entry is removed and not applied; the
// tabbox is drawn at once.
int myfl_init_db_tabbox_no_ini(FL_FORM *form, FL_OBJECT *tabbox, const char *name,
                               MYFL_TITLE_FUNC title, MYFL_TABLE_NEW table_new, MYFL_DB_HOOK load,
                               MYFL_DB_HOOK save, MYFL_FILTER_FUNC filter, FL_CALLBACKPTR dblclick);
// Unregisters and frees records and lines (the tabbox keeps its texts: lines
// it has not shown yet are made first, so clearing the tabbox before is
// cheaper); a tabbox is registered again only after this.
void myfl_free_tabbox(FL_OBJECT *tabbox);
// Empties tabbox, lines and counters, with and without redraw.
void myfl_free_tabbox_data(FL_OBJECT *tabbox);
void myfl_free_tabbox_data_no_draw(FL_OBJECT *tabbox);

// ---- Settings of the record ---------------------------------------------------

void myfl_set_tabbox_sortfunc(FL_OBJECT *tabbox, MYFL_SORT_FUNC fn);
void myfl_set_tabbox_compfunc(FL_OBJECT *tabbox, MYFL_COMPARE_FUNC fn);
void myfl_set_tabbox_datafunc(FL_OBJECT *tabbox, MYFL_TABLE_DATA fn);
void myfl_set_tabbox_db_hooks(FL_OBJECT *tabbox, MYFL_DB_HOOK del, MYFL_DB_HOOK insert);
// Lines without a record get one from fn when a record is first asked for
// (by an accessor, a hook, the sort or a uniqueness test), so that a large
// result does not build a record per line up front. Meant for tabboxes whose
// fields are the values themselves (no decimal places applied).
void myfl_set_tabbox_recordfunc(FL_OBJECT *tabbox, MYFL_RECORD_FUNC fn);
// Database names of the columns (comma-separated field texts, at most 500)
// shown as titles while flag is 1; names null keeps the names set before.
void myfl_set_tabbox_kz_dbnames(FL_OBJECT *tabbox, int flag, const char *names);
int myfl_get_tabbox_kz_dbnames(FL_OBJECT *tabbox);
void myfl_set_tabbox_tablenr(FL_OBJECT *tabbox, int tablenr);
int myfl_get_tabbox_tablenr(FL_OBJECT *tabbox);
void myfl_set_tabbox_name(FL_OBJECT *tabbox, const char *name);
// The record's own text.
const char *myfl_get_tabbox_name(FL_OBJECT *tabbox);
// Type ids (base/data.h) of the columns: numeric columns are right-aligned.
void myfl_set_tabbox_data_def_types(FL_OBJECT *tabbox, int n, const int *types);
// The data definition: number of columns, and the record's type array.
int myfl_get_tabbox_data_definition(FL_OBJECT *tabbox, const int **types);

// ---- Lines ---------------------------------------------------------------------

// Splits a line text into fields (see addto_tabbox_line). Returns the number
// of fields; more than 500 ends the program with the message of fn.
int myfl_split_fields(const char *text, std::vector<std::string> *fields, const char *fn);
// Appends one line with its record (the entry owns it from now on). Returns 0
// without change after "Eintrag bereits vorhanden" when the compare function
// finds the record in another line.
int addto_tabbox_line(FL_OBJECT *tabbox, const char *text, void *record);
int myfl_addto_tabbox_line(FL_OBJECT *tabbox, const char *text, void *record);
// Replace the selected line (resp. line 1) by text and a copy of record.
int myfl_replace_tabbox_line(FL_OBJECT *tabbox, const char *text, void *record);
int myfl_replace_tabbox_line_idx_1(FL_OBJECT *tabbox, const char *text, void *record);
// Deletes the selected line; 0 when none is selected.
int myfl_delete_tabbox_line(FL_OBJECT *tabbox);
// Rebuilds the selected line's text from its record with the line function.
int myfl_up_tabbox_line(DBSESSION *session, FL_OBJECT *tabbox);
// Rebuilds every line from its record.
int myfl_reload_tabbox(DBSESSION *session, FL_OBJECT *tabbox);
// Reads the selected line's record again through the load hook (one BEGIN
// level) and rebuilds the line.
int myfl_load_tabbox_line(DBSESSION *session, FL_OBJECT *tabbox);
int myfl_test_tabbox_insert(FL_OBJECT *tabbox, const void *record);
int myfl_test_tabbox_unique(FL_OBJECT *tabbox, const void *self, const void *record);

// ---- Queries ---------------------------------------------------------------------

// Lines and columns.
int myfl_get_tabbox_info(FL_OBJECT *tabbox, int *lines, int *cols);
// The record of line idx (1-based), nullptr after "Invalid index".
void *myfl_get_tabbox_item_info(FL_OBJECT *tabbox, int idx);
// The record of the selected line, nullptr when none.
void *myfl_get_tabbox(FL_OBJECT *tabbox);
int myfl_get_tabbox_items(FL_OBJECT *tabbox);
// Column (1-based) whose database name (with kz_dbnames) or title is name; 0.
int myfl_get_tabbox_attrib_idx(FL_OBJECT *tabbox, const char *name);
int myfl_get_tabbox_title_attrib_idx(FL_OBJECT *tabbox, const char *title);
// Field text of column col (1-based) of line idx (1-based); "Invalid index".
// Valid until the tabbox's lines change.
const char *myfl_get_tabbox_attrib_info(FL_OBJECT *tabbox, int idx, int col);

// ---- Database operations ----------------------------------------------------------

int myfl_load_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                        MYFL_FIRST_FUNC first, MYFL_NEXT_FUNC next, void *table);
// Save hook on every record / delete hook on the selected record (and the
// line removed) / insert hook on a copy of record (and the line added).
int myfl_save_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox);
int myfl_delete_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox);
int myfl_insert_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line, void *record);
// One record: every line of its text (line feeds) becomes a line with a copy.
int myfl_load_single_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                            void *record);
// An array of records, each copied; _1 appends to the lines already there.
int myfl_load_multiple_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                              void *const *records, int count);
int myfl_load_multiple_tabbox_1(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                                void *const *records, int count);
// Lines whose fields the caller has already split (no line texts to parse
// and no records to copy): they replace the tabbox's lines, each record
// owned by the tabbox from now on (freed with free(), also when the filter
// drops its line or the uniqueness test refuses it). The filter, the
// uniqueness test and the decimal places of floating-point columns apply as
// for the other loaders; `line` is kept for rebuilding lines from their
// records later. A line may come without a record when the tabbox has a
// record function (myfl_set_tabbox_recordfunc). The lines' field store
// becomes the tabbox's, without a copy. Draws once; returns as
// myfl_draw_tabbox.
int myfl_load_tabbox_lines(FL_OBJECT *tabbox, MYFL_LINE_FUNC line, MYFL_TABBOX_LINES lines);
// The records of the selected lines in line order (not copies).
int myfl_get_multiple_tabbox(FL_OBJECT *tabbox, std::vector<void *> *records);

// ---- Drawing and state ---------------------------------------------------------------

int myfl_draw_tabbox(FL_OBJECT *tabbox);
// The same with a title given by the caller instead of the title function.
int myfl_draw_tabbox_extern(FL_OBJECT *tabbox, const char *title);
// Redraws without rebuilding (settings kept).
int myfl_update_tabbox(FL_OBJECT *tabbox);
// Sorts the records (_Sort_tabbox) and draws; enabled: at every draw.
int myfl_set_tabbox_sort(FL_OBJECT *tabbox);
void myfl_enabled_tabbox_sort(FL_OBJECT *tabbox, int on);
int _Sort_tabbox(FL_OBJECT *tabbox);
// Remembers selection and top line; restore selects the line whose record
// compares equal (else the same line) and scrolls back.
int myfl_save_tabbox_state(FL_OBJECT *tabbox);
int myfl_restore_tabbox_state(FL_OBJECT *tabbox);

// Builds a padded tabbox text from fields and column widths (right-aligned
// where right[i] is set).
std::string myfl_join_fields(const std::vector<std::string> &fields, const std::vector<int> &widths,
                             const std::vector<char> &right);
