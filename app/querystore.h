// The viewer's query store: the recent SELECT queries (table, attribute list,
// WHERE / ORDER BY text) and other SQL commands of the session, and the file
// "zentiq.qry" in the current directory that keeps the entries marked as
// saved ("gespeichert") from one run to the next.
//
// The file holds, one value per line: three lines per saved SELECT entry,
// then, when any SQL command is saved, the line "---" and one line per saved
// command. When a text holds a line feed, a carriage return or a backslash,
// the file begins with the line "ZENTIQ.QRY 2" and every text in it is
// written escaped ("\\\\", "\\n", "\\r"); otherwise texts stand as they are.
//
// What the form shows and when statements are added is mainform.h's; this
// module keeps the lists, their navigation indices and the file.
//
// Process-wide state: the one store of the program (zentiq_store()).
#pragma once

#include <array>
#include <string>

// Capacity of each list and the size of a text slot (texts are shorter).
constexpr int ZQ_STORE_MAX = 100;
constexpr int ZQ_TEXT_SIZE = 1000;
// The store file in the current directory.
constexpr const char *ZQ_QUERY_FILE = "zentiq.qry";

struct ZqSelectEntry {
  std::string table, attributes, where;
};

// Both lists. A current index of -1 means no entry is shown (a new query is
// being typed). The saved flags are kept per slot, apart from the texts:
// dropping the oldest SQL command moves only the texts (see
// zentiq_store_add_sql).
struct ZqStore {
  std::array<ZqSelectEntry, ZQ_STORE_MAX> select;
  std::array<int, ZQ_STORE_MAX> select_saved{};
  int select_count = 0;
  int select_current = -1;

  std::array<std::string, ZQ_STORE_MAX> sql;
  std::array<unsigned char, ZQ_STORE_MAX> sql_saved{};
  int sql_count = 0;
  int sql_current = -1;
};

// The program's store.
ZqStore &zentiq_store();
// Empties both lists (counts 0, current indices -1; saved flags cleared).
void zentiq_store_reset();

// Reads ZQ_QUERY_FILE into the store. Returns 1 (a missing file is an empty
// store), or 0 with both lists emptied when the file ends inside a SELECT
// entry or holds an unknown escape. Lines of a plain file are read in pieces
// of at most 999 characters (a longer line becomes several values); lines of
// an escaped file are read whole.
int zentiq_load_queries();
// The store at start: zentiq_load_queries; a file it cannot read is kept
// aside as "zentiq.qry.bad" (replacing an older one) after "Fehler beim
// Lesen der SQL-Abfragen aus Datei 'zentiq.qry' (Datei wird als
// 'zentiq.qry.bad' aufbewahrt)!\n", and the store starts empty.
void zentiq_open_store();
// Writes the saved entries to ZQ_QUERY_FILE (replacing it; nothing saved
// gives an empty file) through a temporary file beside it. Returns 1, or 0
// when the file could not be written completely; the previous file is then
// left as it was.
int zentiq_save_queries();

// Stores an executed SELECT. A full list first loses its oldest entry (with
// its flag). Texts of 1000 characters or more are not stored; nor is an
// entry equal in all three texts to the shown entry (or, with none shown, to
// the last one). A stored entry has its saved flag clear, and the current
// index becomes -1. Returns 1 when the entry was appended.
int zentiq_store_add_select(const std::string &table, const std::string &attributes,
                            const std::string &where);
// Stores an executed SQL command by the same rules, except: dropping the
// oldest moves only the texts (the flags stay at their slots), and the new
// entry keeps the flag its slot held. Returns 1 when appended.
int zentiq_store_add_sql(const std::string &text);

// Navigation of one list (select 1: the SELECT list, 0: the SQL list).
// Previous: returns 1 and moves the current index (to the last entry when
// none is shown, else one back but not before the first); 0 for an empty
// list. Next: returns 1 when an entry is to be shown after stepping forward,
// 0 when the form is to be cleared for a new query (current index -1).
int zentiq_store_prev(int select);
int zentiq_store_next(int select);
// The entry that "Add" and "Del" work on: the shown one, else the last one;
// -1 for an empty list.
int zentiq_store_mark_index(int select);
// Sets (on 1) or clears (0) the saved flag of that entry; returns 1 when
// there was one.
int zentiq_store_mark(int select, int on);
// The saved flag of entry i of a list.
int zentiq_store_saved(int select, int i);
