// Recording changes into the repair journal and taking them back, through a
// session: reading the rows a change touches (before and after it) inside
// the caller's transaction, writing the entry to disk before the transaction
// commits, and the undo of an entry, which checks inside one transaction
// that every row still holds what the change left before it writes anything.
//
// Values are read as users see them (dbgetshown): a null of a number, date
// or timestamp column is a null value, an empty text an empty text; both
// are written back as the empty text, which the server stores as no value.
//
// The file format is journal.h's; opening levels, asking the user and the
// words shown are the callers'.
#pragma once

#include <string>
#include <vector>

#include "db/access/journal.h"

struct DBSESSION;

// Outcomes of the row reads.
enum : int {
  JRN_READ_FAILED = 0,   // a statement failed (*why holds the server's text)
  JRN_READ_OK = 1,       // rows read
  JRN_READ_NO_KEY = 2,   // the rows cannot be told apart by "<TABLE>_ID"
  JRN_READ_TOO_MANY = 3, // more rows than allowed
};

// Reads "SELECT * FROM <table> [<where>]" inside the open transaction: sets
// e->table, e->key ("<TABLE>_ID"), e->columns and e->types, and the rows into
// *rows. JRN_READ_NO_KEY when the table has no key attribute or a key is
// empty or found twice; JRN_READ_TOO_MANY past max_rows rows. Sends "MAX;"
// first, so that no row limit of the channel cuts the rows.
int jrn_read_rows(DBSESSION *session, const std::string &table, const std::string &where,
                  long max_rows, JrnEntry *e, std::vector<JrnRow> *rows, std::string *why);
// Reads the rows of e's table with the key values `keys` (e's columns, in
// the order of `keys`) into *rows. JRN_READ_NO_KEY when a key finds no row,
// JRN_READ_TOO_MANY when one finds more than one.
int jrn_read_keys(DBSESSION *session, const JrnEntry &e, const std::vector<JrnValue> &keys,
                  std::vector<JrnRow> *rows, std::string *why);
// The column index of e's key attribute, -1 when it has none.
int jrn_key_index(const JrnEntry &e);

// The SQL literal of a value of a column of result type `type`: a number as
// it stands, anything else quoted (quotes doubled, backslashes escaped); a
// null value or empty text is ''.
std::string jrn_literal(int type, const JrnValue &value);

// Outcomes of jrn_commit.
enum : int {
  JRN_COMMIT_NO_ENTRY = 0, // the entry could not be written: everything taken back
  JRN_COMMIT_OK = 1,       // written, synced, committed, marked committed
  JRN_COMMIT_NOT_ENDED = 2 // written, but END failed: marked aborted (unless the
                           // server went away, which leaves it "unknown")
};
// Appends `e` to the journal file `path` (synced), then ends the level the
// caller opened (the outermost: the commit), then marks the entry. When the
// entry cannot be written the level's changes are taken back and the level
// closed. *why holds the reason of any failure.
int jrn_commit(DBSESSION *session, const std::string &path, JrnEntry *e, std::string *why);

// What stands in the way of an undo, row by row.
struct JrnProblem {
  enum What { CHANGED, GONE, KEY_TAKEN, DOUBLED } what = CHANGED;
  std::string key;    // the row's key value
  std::string column; // CHANGED: the attribute that differs
  JrnValue left, now; // CHANGED: what the change left, what the row holds now
};

// The statements that take e back, one per row: UPDATE of the attributes
// the change altered, INSERT of a deleted row, DELETE of an inserted one.
std::vector<std::string> jrn_undo_statements(const JrnEntry &e);

// Outcomes of jrn_undo.
enum : int {
  JRN_UNDO_FAILED = 0,   // a statement or the journal failed (*why), nothing changed
  JRN_UNDO_DONE = 1,     // undone and recorded as entry *number
  JRN_UNDO_CHANGED = 2,  // rows no longer hold what the change left (*problems), nothing changed
  JRN_UNDO_NOT_ENDED = 3 // ran, but END failed (*why); the undo entry is marked aborted
};
// Takes e back on the session's database in one transaction of its own:
// checks every row against what e left, runs jrn_undo_statements (each must
// change exactly one row), records the undo as an entry of `path` that
// undoes e (written and synced before the commit) and commits. No level may
// be open. *number gets the new entry's number in the file.
int jrn_undo(DBSESSION *session, const std::string &path, const JrnEntry &e,
             std::vector<JrnProblem> *problems, std::string *why, int *number);

// Outcomes of jrn_check.
enum : int {
  JRN_CHECK_FAILED = 0, // a statement failed (*why)
  JRN_CHECK_AFTER = 1,  // the rows hold what the change left: it was committed
  JRN_CHECK_BEFORE = 2, // the rows are as before the change: it was not
  JRN_CHECK_NEITHER = 3 // the rows were changed otherwise since
};
// Tells from the data whether e's change is in the database, for an entry
// whose outcome the file does not say ("unknown"). Reads in a transaction of
// its own; no level may be open.
int jrn_check(DBSESSION *session, const JrnEntry &e, std::string *why);
