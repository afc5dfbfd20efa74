// Copies between the two stores of tavrind: every database of a SQLite data
// folder into schemas of a PostgreSQL cluster (the migration), and one schema
// back into a SQLite file of the SQLite store's layout (SAVE DATABASE on the
// PostgreSQL store).
//
// Both directions use the PostgreSQL store's layout (store_pg.cpp): a database
// NAME is the schema "NAME" with the marker table "TAVRIN$DB" and a comment on
// every column that keeps its declared type; the store creates its columns
// with the declarations made here and reads its column types back
// (declared_type, pg_column_declaration, pg_column_type).
// Connecting, reconnecting and deciding where a saved file goes are the
// caller's business; these functions take a connection that is idle (no
// transaction open) and leave it idle.
#pragma once

#include "server/types.h"

#include <string>
#include <vector>

struct pg_conn;
typedef struct pg_conn PGconn;

namespace tavrind {

// The declared type as SQLite reports it for a column made by tavrind, and as
// the PostgreSQL column's comment keeps it: "CHARACTER(10)", "SMALLINT", ...
std::string declared_type(ColType t);

// The PostgreSQL column of a declared type, with NOT NULL and the default
// that stores the type's null marker, as the SQLite declaration has them.
// The PostgreSQL store creates its tables with it as the copies do.
std::string pg_column_declaration(ColType t, bool not_null);

// The declared type of a PostgreSQL column: its comment when that is a TAVRIN
// declaration, else the nearest type of its PostgreSQL type pg_type (a column
// made by other tools).
ColType pg_column_type(const std::string &comment, const std::string &pg_type);

// Copies every database of the SQLite data folder dir into the cluster, one
// transaction per database, verifies row counts and a checksum per table;
// refuses when a schema exists. Nothing is copied when any database of the
// folder already has a schema of its name. report gets one line per database
// and per table ("DEMO.KUNDE: 600 rows, checksum ok"). Returns 1, or 0 with err
// set; databases committed before a failing one stay in the cluster (the
// report names them), the failing one leaves nothing.
int pgcopy_import_sqlite(PGconn *conn, const std::string &dir, std::vector<std::string> &report,
                         std::string &err);

// Writes a consistent copy (REPEATABLE READ snapshot) of schema name into a
// new SQLite file path, with the layout of the SQLite store's files (so it
// opens in either store). path must not exist; on failure nothing is left at
// path. Returns 1, or 0 with err set.
int pgcopy_save_to_sqlite(PGconn *conn, const std::string &name, const std::string &path,
                          std::string &err);

} // namespace tavrind
