// The database cache: the list of tables this process has changed, kept for
// one baseline name across batch runs in the file ".dbcache" of the current
// directory (line 1 the baseline, then one table name per line).
//
// The session layer's change helpers add their tables; the batch start-up
// reads the file and the batch end writes it back. Who sets the baseline, and
// what a batch does with the list, is left to the batch code.
//
// None of this project's programs is such a batch, so nothing here calls
// dbcache_read, dbcache_write or dbcache_setbaseline: the viewer is
// interactive and the command-line client runs one command per call, and
// neither has a run that a later run continues. Without a baseline the list
// stays empty and every operation does nothing, so the viewer never leaves a
// ".dbcache" behind in the user's current directory. The operations stay for
// batch jobs built on the session layer.
//
// Process-wide state, all in dbcache.cpp: the baseline (empty: no cache, every
// operation does nothing), the entries (upper case, at most 19 characters,
// in insertion order, room for DBCACHE_MAX of them) and the disabled flag.
#pragma once

#include <string_view>

// Room in the list; further additions are refused.
constexpr int DBCACHE_MAX = 10000;
// The file's name, in the current directory.
constexpr const char *DBCACHE_FILE = ".dbcache";

// Empties the list, resets the baseline to empty, then reads ".dbcache" if it
// exists (first word of line 1 the baseline, first word of every further line
// an entry) and deletes the file. Returns 1.
int dbcache_read();
// With a baseline: writes ".dbcache" (message if it cannot be created).
// Returns 1.
int dbcache_write();
// A baseline other than the current one empties the list and deletes
// ".dbcache". Returns 1.
int dbcache_setbaseline(const char *name);
// While disabled, additions are ignored.
void dbcache_disable();
void dbcache_enable();
// Appends the upper-cased table name unless it is there already, the cache is
// disabled or has no baseline. Returns 1.
int dbcache_add(const char *table);
// 1 when the table is in the list, or when there is no baseline or the list
// is empty; 0 otherwise.
int dbcache_contains(std::string_view table);

// The current baseline and the number of entries (for the batch report).
const char *dbcache_baseline();
int dbcache_count();
