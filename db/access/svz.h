// Key directories (SVZ): numbered lists of short codes with a text per
// language, kept in the tables SVZT (one heading per directory and language)
// and SVZK (one row per code, language and directory). This module looks up
// the text of a code and the code of a text, keeps every row it found in
// two process-wide caches for the rest of the run, and makes the value
// string of a key (Make_KeyString).
//
// Forms that let a user choose a code are the framework's business; the
// other value strings are base/valstr.h's.
//
// Process-wide state, in svz.cpp: the SVZT cache (key "%s%5d": language,
// directory) and the SVZK cache (key "%s%s%5d": language, code or text,
// directory), and the count of lookups that went to the database.
#pragma once

#include <cstdint>

#include "base/date.h"
#include "db/access/session.h"

// A row of SVZT (table 100), a size-prefixed record.
struct SVZT {
  int32_t size;
  char SVZT_Id[9];
  int16_t Tabelle;
  int16_t Tab_Uebergeordnet;
  char Sprache[5];
  char Bezeichnung[36];
  DATI SVZT_TSt_Ab;
};

// A row of SVZK (table 101).
struct SVZK {
  int32_t size;
  char SVZK_Id[9];
  char Code[5];
  char Sprache[5];
  char Code_Uebergeordnet[5];
  int16_t SVZK_Sysstatus;
  int16_t Tabelle;
  char Bezeichnung[36];
};

// Definition texts (sizes and positions filled in) and column lists.
const char *SVZT_Definition();
const char *SVZK_Definition();
extern const char *const SVZT_COLUMNS;
extern const char *const SVZK_COLUMNS;

// The text of `code` in directory `svz` in the session's language into
// `text` (at least 36 bytes): the entry's Bezeichnung; the code itself when
// the directory has no such entry; "????" with "(SVZ_GetText) Warning: SVZ
// %d not found!\n" when the directory is unknown. Returns 1. A failing BEGIN
// or END level ends the program.
int SVZ_GetText(DBSESSION *session, const char *code, int svz, char *text);

// The code whose text is `text` in directory `svz` into `code` (at least 5
// bytes); "????" with a warning when the entry or the directory is unknown.
// Returns 1.
int SVZ_GetCode(DBSESSION *session, const char *text, int svz, char *code);

// The value string of a key (see base/valstr.h for its lifetime): the key's
// text; "" for an empty code or four blanks; the code itself, with
// "(Make_KeyString) Warning: SVZ-text for code '%s' in svz %d unknown!\n",
// when the directory has no text for it.
char *Make_KeyString(DBSESSION *session, const char *code, int svz);

// Lookups that went to the database since the start (cache misses).
long SVZ_Queries();
// Empties both caches (a process that switches databases).
void SVZ_ClearCaches();
