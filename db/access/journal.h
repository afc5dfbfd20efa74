// The repair journal: every change a program makes to rows on the user's
// behalf is written, with each affected row's values before and after, into
// a journal file before the change is committed, so that it can be looked up
// and undone later (jrnundo.h does the undoing).
//
// Files: one per server namespace and database, in
// ${XDG_DATA_HOME:-~/.local/share}/zentiq/journal/<DB>@<namespace>.jrn (the
// namespace with every byte other than a letter, digit or "_" written %HH);
// the folder is made 0700, the files 0600. Files only grow: a change's entry
// is appended and synced to disk, its outcome is appended later as a status
// line. Several processes may append to one file at once (each append is one
// write under an exclusive flock).
//
// The line format (Latin-1 text, one record per line, fields separated by
// TAB, every line ending in LF):
//   E  token time user namespace database table key kind undoes
//   C  token name type name type ...          the columns of the rows
//   B  token value ...                         a row's values before the change
//   A  token value ...                         a row's values after the change
//   Z  token rows                              end of the entry (rows = B/A pairs)
//   S  token committed|aborted                 the outcome, appended later
// kind is "update" (each row a B line followed by its A line), "delete" (B
// lines only) or "insert" (A lines only); undoes is the token of the entry
// this one takes back, "-" for none; time is UTC "YYYY-MM-DD HH:MM:SS".
// In every field a backslash, TAB, LF, CR and the other control bytes are
// written as \\, \t, \n, \r and \xHH; a field that is exactly \N is a null
// value. An entry without its Z line (a write cut by a crash) is ignored; an
// entry without an S line says "unknown": the program ended between the sync
// and the commit's outcome, and the data says which it was.
//
// Left to others: reading rows from the server and the undo (jrnundo.h); what
// the user is told.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// One value of a row: nullopt for no value.
using JrnValue = std::optional<std::string>;
using JrnRow = std::vector<JrnValue>;

enum JrnKind : int { JRN_UPDATE, JRN_DELETE, JRN_INSERT };
enum JrnStatus : int { JRN_UNKNOWN, JRN_COMMITTED, JRN_ABORTED };

struct JrnEntry {
  int number = 0;    // position in its file from 1, set when the file is read
  std::string token; // unique name of the entry; made by jrn_append when empty
  std::string time;  // UTC "YYYY-MM-DD HH:MM:SS"; made by jrn_append when empty
  std::string user;  // login name; made by jrn_append when empty
  std::string ns, database, table;
  std::string key; // the key attribute, "<TABLE>_ID"
  JrnKind kind = JRN_UPDATE;
  std::string undoes; // token of the entry this one takes back, "" for none
  std::vector<std::string> columns;
  std::vector<int> types; // the columns' result types (DBFT_ of db/client/resdata.h)
  std::vector<JrnRow> before, after;
  // Set when the file is read:
  JrnStatus status = JRN_UNKNOWN;
  int undone_by = 0; // number of a committed entry that took this one back, 0 none
};

// The journal folder: ${XDG_DATA_HOME}/zentiq/journal, or with XDG_DATA_HOME
// unset or not absolute ~/.local/share/zentiq/journal ("" without a home).
std::string jrn_folder();
// The file of namespace `ns` and database `database` in jrn_folder(); ""
// without a folder (appends to "" fail).
std::string jrn_path(const std::string &ns, const std::string &database);

// The field text of a value, and back. jrn_decode_field returns false for a
// text no jrn_encode_field made (a lone or unknown escape).
std::string jrn_encode_field(const JrnValue &value);
bool jrn_decode_field(std::string_view field, JrnValue *value);

// The lines of an entry (E to Z) as appended to a file.
std::string jrn_format(const JrnEntry &entry);
// The entries of a file's text in file order, numbered from 1, with their
// status and undone_by applied. Lines that do not parse are skipped and
// counted in *skipped (when given).
std::vector<JrnEntry> jrn_parse(std::string_view text, int *skipped = nullptr);

// Appends `entry` to the file at `path` and syncs it to disk (creating the
// folder 0700 and the file 0600 when missing). Fills token, time and user
// when empty. Returns 1; 0 with the reason in *why (the file then holds no
// complete entry of it).
int jrn_append(const std::string &path, JrnEntry *entry, std::string *why);
// Appends the status line of the entry `token` (not synced: a status lost in
// a crash reads "unknown"). Returns 1, or 0 with the reason in *why.
int jrn_mark(const std::string &path, const std::string &token, JrnStatus status, std::string *why);
// Reads the file at `path` into *entries (empty when the file does not
// exist). Returns 1, or 0 with the reason in *why.
int jrn_read(const std::string &path, std::vector<JrnEntry> *entries, std::string *why);

// The words of the file for kinds and statuses: "update", "delete",
// "insert"; "committed", "aborted", "unknown".
const char *jrn_kind_name(JrnKind kind);
const char *jrn_status_name(JrnStatus status);
