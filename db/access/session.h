// The database session layer: how applications and table modules use the
// TAVRIN server. It opens a session from a connection string ("X/Y", "X/" or a
// plain name), keeps the process-wide BEGIN stack so that nested transaction
// brackets send only the outermost BEGIN and END, re-opens the transaction
// after COMMIT and ABORT, builds the standard statements (cursors, INSERT,
// UPDATE, DELETE) as SQL text, sorts answers into outcomes and prints every
// failure on the message output (base/msg.h).
//
// Parsing, sending and decoding statements are the client's (db/client);
// numbered error texts are errtext.h's; the list of changed tables is
// dbcache.h's, which the change helpers here feed.
//
// Process-wide state, all in session.cpp: the BEGIN-stack depth, the last
// connection string given to dbinit and the last session handle (to re-open
// a lost connection), the default database name, the count of statements
// sent.
#pragma once

#include <cstdint>
#include <string>

#include "db/client/connect.h"
#include "db/client/resdata.h"

// Length of a database name, terminator not counted.
constexpr int DBSESSION_NAME_MAX = 19;
// Size of the buffer a statement text is formatted into.
constexpr int DB_STATEMENT_SIZE = 10000;

// A session, made by dbinit and freed by dbclose. The first two fields are
// the ones every caller may read: a non-zero `disabled` makes every operation
// succeed without doing anything; `connection` is the client's record.
struct DBSESSION {
  int32_t disabled = 0;
  DBCONN *connection = nullptr;
  // The language of texts looked up for this session (four characters:
  // "D   " for German, which dbinit sets).
  char language[5] = "D   ";
  // The connection string the session was opened with, to open it again.
  std::string connect_string;
  // Set when the transport to the server failed and the process chose to
  // survive that (db_survive_transport); cleared when dbcheck opens the
  // session again.
  int32_t lost = 0;
};

// Outcomes of a statement (dbresultstatus).
enum : int {
  DBOUT_NONE = 0,      // result status 0: no information
  DBOUT_DONE = 1,      // command done
  DBOUT_TUPLES = 2,    // tuples (MYDB_TUPLES_OK)
  DBOUT_OTHER = 3,     // disabled session, server error, other answers
  DBOUT_REFUSED = 4,   // refused by the client's parser
  DBOUT_TRANSPORT = 5, // send or receive failed
};

// ---- Sessions -----------------------------------------------------------------

// Opens a session for the connection string s: "X/Y" opens database Y (X is
// ignored), "X/" the default database name, anything else the name s itself.
// Returns 1 with *session set (owned by the caller, freed by dbclose); 0 with
// the connection messages printed and *session null. The string and the
// handle are remembered for re-opening. A send or receive failure while the
// database is opened ends the program (db_transport_fatal).
int dbinit(DBSESSION **session, const char *s);

// Closes the connection of an enabled session (DBfinish, whatever the
// connection's status) and frees the handle (null allowed). The
// process-wide memory of the handle is forgotten.
void dbclose(DBSESSION *session);

// Application start-up: puts the environment variable DBSYS in front of
// `database` ("%s/%s") unless it already has the form "X/Y", installs the
// program's handlers for SIGINT, SIGFPE, SIGSEGV and SIGTERM and opens the
// session with dbinit. Returns dbinit's result.
int DB_Init(DBSESSION **session, const char *database);

// 1 when the session may be used for statements: not null, enabled and its
// connection open.
// A lost session is not usable.
int dbstatus(const DBSESSION *session);

// The check of a session before it is used: when its connection is gone (or
// the session is lost), closes it and opens it again from the remembered
// string into the same handle. If that fails, "Database-connection lost!\n"
// and exit status 1; a process that survives a lost transport gets 0 with
// the session still lost and its `on_lost` called again instead. After a
// re-open the process's `on_reopened` is called. Returns 1.
int dbcheck(DBSESSION *session);

// The default database name of the process ("X/" connection strings,
// ARGV_GetDB_Name with "-"): empty at start.
void db_set_default_name(const char *name);
const char *db_default_name();

// Fills name (at least DBSESSION_NAME_MAX + 1 bytes): "tdsys" unless it holds "-",
// in which case the default name; then every argument from argv[1] on that
// begins with "-db" sets it to the rest (the last wins). A rest longer than
// 19 characters prints "(ARGV_GetDB_Name) DB-name %s is too long (max. 19)\n"
// and ends the process with status 1.
void ARGV_GetDB_Name(char **argv, int argc, char *name);

// ---- The BEGIN stack ----------------------------------------------------------

// Opens one transaction level; only the outermost sends "BEGIN" (and re-opens
// a lost connection once). Returns 1 good, 0 failed (message printed; the
// level counts all the same).
int dbbegin(DBSESSION *session);
// Closes one level; the outermost sends "END". Going below 0 prints the
// underflow text. Returns 1, or 0 when END could not be sent or was refused.
int dbend(DBSESSION *session);
// At depth 1: "COMMIT" (resp. "ABORT") and a new transaction at once, so the
// depth stays 1. At any other depth nothing happens. Returns 1 or 0.
int dbcommit(DBSESSION *session);
int dbrollback(DBSESSION *session);

// The current depth of the BEGIN stack (negative after an underflow).
int db_depth();

// The back-end failure path: "BE-Error occurred! Please restart the
// application!\n" and exit status 1. For callers whose BEGIN or END level
// failed.
[[noreturn]] void db_backend_failure();

// The program's answer to a lost transport: a send or receive failure ends
// the program with exit status 1 after the registered clean-ups. The client
// printed the failure's text when it happened ("DBrecv: No data received\n"
// and its kin) and nothing more is printed here. This layer calls it for
// every connect and statement; an application that calls DBexec directly
// calls it when the result's status is DBRES_TRANSPORT.
[[noreturn]] void db_transport_fatal();

// How the process answers a lost transport. Without a choice (or with
// `on_lost` null) the answer is db_transport_fatal, which is what the batch
// programs keep. An interactive program that can wait for a server gives
// handlers instead; from then on a send or receive failure of a session
// marks it lost and the call that met it fails (outcome 5, dbbegin, dbend
// and the others 0) instead of ending the program; `on_lost` is called once
// per loss, with the session, before that call returns (the program saves
// what it must keep and tells the user). A lost session sends nothing: its
// outermost dbbegin opens it again through dbcheck first, dbend of a lost
// session closes the level on this side only (the server's transaction went
// with the server), and COMMIT and ABORT fail. `on_reopened` (may be null)
// is called after a re-open so that the program can restore the state of its
// session, such as the chosen database. The handlers are the caller's and
// must stay valid.
struct DbSurvival {
  void (*on_lost)(DBSESSION *session) = nullptr;
  void (*on_reopened)(DBSESSION *session) = nullptr;
};
void db_survive_transport(const DbSurvival &how);

// Answers a lost transport of `session` (a DBRES_TRANSPORT result or a
// connection of status DBCONN_IO) by the process's choice: ends the program
// (db_transport_fatal) or marks the session lost, calls `on_lost` the first
// time, and returns.
void db_transport_lost(DBSESSION *session);

// ---- Statements -----------------------------------------------------------------
// All: a disabled session gives outcome 3 and 1 without sending anything; the
// result handed back (null then) belongs to the caller, who frees it with
// dbclear. Returns 1 good, 0 failed (message printed). A statement refused
// by the client's parser (outcome 4) prints its texts and counts as done. A
// send or receive failure ends the program (db_transport_fatal), so outcome
// 5 never comes back from these helpers.

// "DECLARE %s CURSOR FOR %s"; "CLOSE %s". The result is freed here.
int dbdeclare(DBSESSION *session, const char *cursor, const char *select);
int dbclosecursor(DBSESSION *session, const char *cursor);

// "INSERT INTO %s %s", "UPDATE %s SET %s", "DELETE FROM %s WHERE %s",
// "DELETE FROM %s". Each records its table in the database cache first.
int dbinsert(DBSESSION *session, const char *table, const char *rest, DBRESULT **result,
             int *outcome);
int dbupdate(DBSESSION *session, const char *table, const char *assignments, DBRESULT **result,
             int *outcome);
int dbdelete(DBSESSION *session, const char *table, const char *condition, DBRESULT **result,
             int *outcome);
int dbdeleteall(DBSESSION *session, const char *table, DBRESULT **result, int *outcome);

// "%s %s" of a command word and the rest.
int dbexec(DBSESSION *session, const char *command, const char *rest, DBRESULT **result,
           int *outcome);
// The whole statement as given.
int dbexec1(DBSESSION *session, const char *statement, DBRESULT **result, int *outcome);
// The request already built in the request buffer, sent without parsing.
int dbbinexec1(DBSESSION *session, DBRESULT **result, int *outcome);

// ---- Results ----------------------------------------------------------------------

// The outcome of a result: 3 for a disabled session, else by result status
// (0 -> 0, 1 -> 1, 2 -> 2, 5 -> 4, 6 -> 5, others -> 3).
int dbresultstatus(const DBSESSION *session, const DBRESULT *result);
// Frees the result when the session is enabled (null allowed).
void dbclear(const DBSESSION *session, DBRESULT *result);

// Accessors forwarding to the result data: -1 (counts) or null/-1 for a
// disabled session or a null result.
int dbntuples(const DBSESSION *session, const DBRESULT *result);
int dbnfields(const DBSESSION *session, const DBRESULT *result);
const char *dbfieldname(const DBSESSION *session, const DBRESULT *result, int column);
int dbfieldtype(const DBSESSION *session, const DBRESULT *result, int column);
int dbfieldsize(const DBSESSION *session, const DBRESULT *result, int column);
const char *dbgetvalue(const DBSESSION *session, DBRESULT *result, int row, int column);
// The text of a cell as users see it: the null markers the server sends for
// SMALLINT, INTEGER, FLOAT, DATE and TIMESTAMP cells become the empty text.
// TIME keeps 00:00:00, which is midnight as well as its null marker. "" for
// a disabled session or a missing cell.
std::string dbgetshown(const DBSESSION *session, DBRESULT *result, int row, int column);

// One-value queries: outcome must be 2 and exactly one tuple; its first field
// becomes *count (as an integer) resp. text (copied, at most size - 1
// characters). 1 for a disabled session without touching the output.
// Returns 0 for another outcome or more than one tuple (message), and for no
// tuple (silently).
int dbfill_count(const DBSESSION *session, DBRESULT *result, int outcome, int *count);
int dbfill_string(const DBSESSION *session, DBRESULT *result, int outcome, char *text, int size);

// The length of a value: this layer does not offer it. Prints
// "(dbgetlength) Not yet implemented\n" and returns -1.
int dbgetlength(const DBSESSION *session, const DBRESULT *result, int row, int column);

// ---- For tests only -----------------------------------------------------------
// Not part of the session layer's interface: hooks for test programs that
// run many sessions one after another in one process.

// Sets the BEGIN-stack depth back to 0.
void db_reset_depth_for_test();
// Statements this process has sent through the session layer (BEGIN, END
// and the rest).
long db_statements_sent_for_test();
