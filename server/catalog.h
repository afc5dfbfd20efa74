// The data folder of tavrind: one SQLite file per database, DIR/<NAME>.db in
// WAL mode, the system database TDSYS and the demo database DEMO.
//
// This module knows where databases live, opens and configures connections to
// them, creates, drops and saves them, and fills TDSYS (the key directories
// SVZT/SVZK, the error texts ERROT and the log table ERR) and DEMO (customers,
// articles, orders, order lines) at the first start. Which channel uses which
// database is counted here too, so that a database in use is not dropped.
// Executing statements on a connection is the executor's business.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

namespace tavrind {

// Process-wide state of the data folder; one per server.
struct Catalog {
  std::string dir;                  // the data folder, without trailing '/'
  std::map<std::string, int> users; // database name -> channels that have it open
  // Guards users, and with it opening, creating and dropping databases:
  // channels on different threads must not drop a database that another one
  // is opening.
  std::mutex users_mutex;
  // Sync the WAL at every commit (a commit survives a power loss); off: the
  // WAL is synced at checkpoints only (a commit survives a crash of the
  // server process, not of the machine).
  bool sync_full = true;
};

// The name of the system database, which cannot be dropped.
extern const char *const CATALOG_SYSTEM_DB;
// The name of the demo database made at the first start.
extern const char *const CATALOG_DEMO_DB;

// Makes dir the catalog's data folder: creates the folder if needed; when
// TDSYS does not exist yet (first start) creates TDSYS and, with with_demo,
// DEMO. A later start leaves existing databases untouched. Returns 1, or 0
// with err set.
int catalog_init(Catalog &cat, const std::string &dir, std::string &err, bool with_demo = true);
// Process-wide SQLite settings, once at server start before the first
// connection opens: SQLite keeps no memory statistics, which would take a
// process-wide mutex for every allocation and release of every
// connection. Called later, it changes nothing.
void catalog_sqlite_setup();
// The two halves of catalog_init: makes dir the catalog's folder (created if
// needed), and creates TDSYS (and DEMO) in it when TDSYS is missing.
int catalog_folder(Catalog &cat, const std::string &dir, std::string &err);
int catalog_create_first(const Catalog &cat, bool with_demo, std::string &err);

// Takes every access of group and others away from the data folder, its
// backup folder and the files in both (databases, their WAL and shared-memory
// files, backups, a log kept there) that an older server or another umask
// left open. Returns one line for the log per change or failure.
std::vector<std::string> catalog_make_private(const Catalog &cat);

// A database name: 1 to 19 characters, upper-case letters, digits and '_',
// starting with a letter.
bool catalog_valid_name(const std::string &name);
// DIR/<NAME>.db.
std::string catalog_path(const Catalog &cat, const std::string &name);
bool catalog_exists(const Catalog &cat, const std::string &name);
// The names of all databases of the folder, sorted.
std::vector<std::string> catalog_list(const Catalog &cat);

// Opens the existing database name (or, with create, makes a new empty one,
// which must not exist) and configures the connection: WAL mode, no busy
// wait (a locked database reports SQLITE_BUSY at once), the collation of the
// string rule. Returns the connection, owned by the caller (sqlite3_close_v2),
// or null with err set.
sqlite3 *catalog_open(const Catalog &cat, const std::string &name, bool create, std::string &err);
// Configures a connection that is already open as catalog_open does.
int catalog_configure(sqlite3 *db, std::string &err);

// Deletes the database's files (the database and its WAL and shared-memory
// files). Returns 1, or 0 with err set.
int catalog_drop(const Catalog &cat, const std::string &name, std::string &err);

// Writes a consistent copy of the committed state of database name through
// SQLite's backup API to DIR/backup/<NAME>_<YYYYMMDD>_<HHMMSS>.db (with a
// counter appended when that exists). Returns 1 with path set, or 0 with err.
int catalog_save(const Catalog &cat, const std::string &name, std::string &path, std::string &err);
// The two halves of catalog_save: a new path in the backup folder (made if
// needed) for a copy of database name, and the copy to a given path.
int catalog_backup_path(const Catalog &cat, const std::string &name, std::string &path,
                        std::string &err);
int catalog_save_to(const Catalog &cat, const std::string &name, const std::string &path,
                    std::string &err);

// Fill a new, empty database with the system tables and their contents, or
// with the demo schema and rows. Return 1, or 0 with err set.
int catalog_fill_system(sqlite3 *db, std::string &err);
int catalog_fill_demo(sqlite3 *db, std::string &err);

} // namespace tavrind
