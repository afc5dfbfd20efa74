// The "Journal" dialog of the viewer: lists the changes of the repair
// journal of the current database (newest first; filters by table and by
// status), shows a chosen entry's rows and the statements that take it back,
// and undoes it after a question: the undo checks in one transaction that
// every row still holds what the change left (else it refuses and shows the
// difference) and is recorded as an entry of its own.
//
// The "Journal" button on the main form opens it; the file and the undo are
// db/access's (journal.h, jrnundo.h), the recording journalrec.h's.
#pragma once

#include <string>

#include "forms/forms.h"

// Adds the "Journal" button to the form being built, at x, y (100 x 21).
FL_OBJECT *zentiq_add_journal_button(int x, int y);
// Opens the dialog (made on first use) with the entries of the current
// database's journal.
void zentiq_open_journal(FL_OBJECT *obj, long argument);
// Reads the journal file again and fills the list by the filters.
void zentiq_journal_refresh(FL_OBJECT *obj, long argument);
// "Rückgängig": undoes the selected entry after showing its statements and
// asking ("Nein" the default). Returns through boxes only.
void zentiq_journal_undo(FL_OBJECT *obj, long argument);

// The dialog's objects, for tests.
struct ZqJournalForm {
  FL_FORM *form = nullptr;
  FL_OBJECT *help = nullptr, *table = nullptr, *status = nullptr, *status_button = nullptr;
  FL_OBJECT *refresh = nullptr, *list = nullptr, *details = nullptr;
  FL_OBJECT *undo = nullptr, *close = nullptr, *file = nullptr;
};
ZqJournalForm &zentiq_journal_form();
// Selects the list line of entry `number`; 1 when it is listed.
int zentiq_journal_select(int number);
