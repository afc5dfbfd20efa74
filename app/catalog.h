// The catalogue of the current database as the viewer caches it: its tables
// (from "SHOW TABLES") and, table by table when first needed, their
// attributes with type, NOT NULL and the indices they belong to (from "SHOW
// TABLE t" and "SHOW INDICES ON TABLE t"). The table browser shows it, the
// completion of names and the highlighting of names read it.
//
// Statements run on the viewer's session outside any level of the user's,
// each a read of its own that holds no lock; nothing is read while one of
// the user's actions runs (a level is open), so a list asked for then stays
// as cached. The cache is dropped when the database changes and when a
// command may have changed the tables.
//
// Process-wide state, in catalog.cpp: one cache for the one session.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/completion.h"

struct DBSESSION;

// One attribute of a table.
struct ZqAttribute {
  std::string name;
  std::string type; // "CHARACTER(30)", "INTEGER", ...
  bool not_null = false;
  std::string indices; // the indices it belongs to: "KUNDE_PK (eindeutig), ..."
};

// One table of the database.
struct ZqTable {
  std::string name;
  std::string mode;        // "STATIC" / "SECURE"
  int attribute_count = 0; // as SHOW TABLES tells it
  bool loaded = false;     // attributes read
  std::vector<ZqAttribute> attributes;
  ZqNameIndex index; // of the attribute names, once loaded
};

// The tables, read with "SHOW TABLES" when the cache holds none (reload:
// read again anyway). Returns the cached list; on failure (no session, a
// level open, the statement failed) the list as it was, and *why (when
// given) says why.
const std::vector<ZqTable> &zentiq_catalog_tables(DBSESSION *session, bool reload = false,
                                                  std::string *why = nullptr);
// The table of that name (any case), its attributes read when they are not
// yet; nullptr when the database has no such table. A table whose
// attributes could not be read comes back with loaded false.
const ZqTable *zentiq_catalog_table(DBSESSION *session, std::string_view name,
                                    std::string *why = nullptr);
// The index of the table names.
const ZqNameIndex &zentiq_catalog_table_index(DBSESSION *session);
// The index of every attribute name of the tables whose attributes are
// cached.
const ZqNameIndex &zentiq_catalog_attribute_index();
// 1 when the name (any case) is a cached table or attribute name. Reads the
// cache only.
int zentiq_catalog_knows(std::string_view name);
// Drops everything cached (the database changed, or a command may have
// changed tables). The next request reads again.
void zentiq_catalog_forget();
// Fills the cache without the server (tests and the benchmark): the tables
// with their attributes as given, all counted as loaded.
void zentiq_catalog_set(std::vector<ZqTable> tables);
// Counts every change of the cache, so that users of derived data (the
// highlighting, indices) can tell whether theirs is current.
unsigned zentiq_catalog_generation();
