// How the viewer records its changes in the repair journal: the journal file
// of the database the viewer shows, the recording of a detail-dialog change
// inside the level that makes it, and the whole run of a typed UPDATE,
// DELETE or INSERT after its count was confirmed (rows read before, the
// statement, rows read after, the entry synced, the commit). A change of more
// than ZQ_JOURNAL_MAX_ROWS rows, or one whose rows cannot be told apart by
// their key "<TABLE>_ID", runs only after the user agreed to run it without a
// journal entry. Every level has ended before a box shows.
//
// The file format and the undo are db/access's (journal.h, jrnundo.h); the
// dialog that lists and undoes entries is journaldlg.h's.
#pragma once

#include <memory>
#include <string>

#include "db/access/journal.h"

struct DBSESSION;

// The most rows one journal entry of the viewer holds.
constexpr long ZQ_JOURNAL_MAX_ROWS = 10000;

// The database the viewer works on (the combo box's code, upper case).
std::string zentiq_current_database();
// The journal file of the current namespace and database.
std::string zentiq_journal_path();

// A detail-dialog change being recorded, inside the level that makes it.
class ZqRecordedChange {
public:
  // Before the statement: reads the rows that `where` selects from `table`
  // (an UPDATE when `is_update`, else a DELETE). Returns 1; 0 when they
  // cannot be recorded, with the German reason kept for tell().
  int before(DBSESSION *session, bool is_update, const std::string &table,
             const std::string &where);
  // After the statement changed the rows: reads them again (an UPDATE),
  // writes the entry, ends the level and marks the entry. Returns 1 when
  // committed; 0 when not (the level has ended either way), reason for tell().
  int commit(DBSESSION *session);
  // Shows the reason of the last failure under the headline `failed`.
  void tell(const char *failed) const;

private:
  JrnEntry entry_;
  std::string why_;
};

// A typed change that was counted and confirmed: `rows` rows of `table` as
// `where` ("" or "WHERE ...") selects them; `kind` is JRN_UPDATE or
// JRN_DELETE. Runs it in a level of its own, recorded, and commits only when
// the server changed exactly `rows` rows. Returns 1 when committed (0 after
// the boxes that say why).
int zentiq_run_recorded_change(DBSESSION *session, const std::string &stmt,
                               const std::string &table, const std::string &where, JrnKind kind,
                               long rows);
// 1 when the statement begins with INSERT INTO.
int zentiq_is_insert(const std::string &stmt);
// A typed INSERT: runs it in a level of its own and records the row it made,
// found by the value it gives "<TABLE>_ID". Returns 1 when committed (0 after
// the boxes that say why).
int zentiq_run_recorded_insert(DBSESSION *session, const std::string &stmt);
