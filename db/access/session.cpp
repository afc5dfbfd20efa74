// The database session layer (see session.h).
#include "db/access/session.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/msg.h"
#include "base/valstr.h"
#include "db/access/dbcache.h"
#include "db/client/exec.h"

namespace {

// ---- Process-wide state of the session layer --------------------------------
int g_depth = 0;                     // BEGIN-stack depth
std::string g_last_string;           // last connection string given to dbinit
DBSESSION *g_last_session = nullptr; // last session handle made by dbinit
DbSurvival g_survival;               // how a lost transport is answered
std::string g_default_name;          // default database name
long g_sent = 0;                     // statements sent

// Formats a statement. A text that would not fit the statement buffer of
// DB_STATEMENT_SIZE bytes is refused rather than cut (a cut UPDATE may lose
// its WHERE): returns false with "<label> command failed:\n  Statement of
// N characters is longer than the limit of 9999\n" printed.
bool format_statement(std::string *out, const char *label, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
bool format_statement(std::string *out, const char *label, const char *fmt, ...) {
  va_list ap, again;
  va_start(ap, fmt);
  va_copy(again, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  if (n < 0 || n >= DB_STATEMENT_SIZE) {
    va_end(again);
    msg_print("%s command failed:\n  Statement of %d characters is longer than the limit of %d\n",
              label, n, DB_STATEMENT_SIZE - 1);
    return false;
  }
  out->assign(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(out->data(), out->size(), fmt, again);
  va_end(again);
  out->resize(static_cast<size_t>(n));
  return true;
}

// The connection's message, ending in a line feed like every message.
std::string conn_text(const DBSESSION *s) {
  return s && s->connection ? DBerrormessage(s->connection) : "";
}

// The database name a connection string stands for.
std::string name_of(const char *s) {
  std::string name = s;
  std::vector<char> x(name.size() + 1), y(name.size() + 1);
  if (std::sscanf(s, "%[^/]/%s", x.data(), y.data()) == 2) {
    // The first part would name the kind of database ("DBSQL"); there is
    // only one kind, so it is not looked at.
    name = y.data();
  } else if (!name.empty() && name.back() == '/' && std::sscanf(s, "%[^/]/", x.data()) == 1) {
    name = g_default_name;
  }
  return name;
}

// Connects the session's record to the database named by s. Returns 1, or 0
// with the two connection messages printed; the (failed) record stays with
// the session so that its message can be read.
int connect_session(DBSESSION *session, const char *s) {
  std::string name = name_of(s);
  std::vector<char> mutable_name(name.begin(), name.end());
  mutable_name.push_back('\0');
  session->connection = DBconnect(mutable_name.data());
  if (DBstatus(session->connection) == DBCONN_IO) {
    db_transport_lost(session);
    return 0;
  }
  if (DBstatus(session->connection) == DBCONN_FAILED) {
    if (name.empty())
      msg_print("Connection to TAVRIN-database failed:\n");
    else
      msg_print("Connection to TAVRIN-database '%s' failed:\n", name.c_str());
    msg_print("  %s", conn_text(session).c_str());
    return 0;
  }
  return 1;
}

// Ends the connection of a session, if it has one, and frees its record.
// DBfinish also after a failed open or a lost connection: it sends the close
// only on a channel that is still there and always gives the transport up.
void disconnect_session(DBSESSION *session) {
  if (!session->connection) return;
  DBfinish(session->connection);
  DBconn_free(session->connection);
  session->connection = nullptr;
}

// At a fatal stop the server should see the channel closed at once rather
// than notice a dead client later.
void close_at_fatal() {
  if (g_last_session && !g_last_session->disabled && g_last_session->connection &&
      g_last_session->connection->status == DBCONN_OK)
    DBfinish(g_last_session->connection);
}

// Re-opens the session in place from its connection string (the one last
// given to dbinit for a session that does not know its own).
int reopen(DBSESSION *session) {
  disconnect_session(session);
  const std::string &s = session->connect_string.empty() ? g_last_string : session->connect_string;
  return connect_session(session, s.c_str());
}

// The answer to a statement; a send or receive failure is answered by the
// process's choice (db_transport_lost), and the failed result comes back
// only when the process survives it.
DBRESULT *checked(DBSESSION *session, DBRESULT *res) {
  if (DBresult_status(res) == DBRES_TRANSPORT) db_transport_lost(session);
  return res;
}

// Sends one statement. A lost session sends nothing and gives a null result
// (its connection's text tells why).
DBRESULT *send_text(DBSESSION *session, const std::string &text) {
  if (session->lost) return nullptr;
  ++g_sent;
  return checked(session, DBexec(session->connection, text.c_str()));
}

// The outcome handling shared by the change helpers and dbexec/dbexec1/
// dbbinexec1: `what` names the command in the messages.
int judge(DBSESSION *session, DBRESULT *result, int *outcome, const char *what) {
  int out = dbresultstatus(session, result);
  if (outcome) *outcome = out;
  switch (out) {
  case DBOUT_OTHER:
    msg_print("BAD RESPONSE to %s command.\n", what);
    msg_print("Error: %s", DBresult_error(result));
    return 0;
  case DBOUT_TRANSPORT:
    msg_print("FATAL ERROR occured in %s command.\n", what);
    msg_print("Error: %s", DBresult_error(result));
    return 0;
  case DBOUT_REFUSED:
    // The client's parser refused the statement: reported, counted as done.
    msg_print("NONFATAL ERROR occured in %s command.\n", what);
    msg_print("Error: %s", DBresult_error(result));
    return 1;
  default:
    return 1;
  }
}

// Runs a change statement of table `table`: records the table in the cache,
// sends `text` (null: the text was refused as too long, nothing is sent and
// 0 returned), judges the answer. `label` is the command name of the
// messages.
int change(DBSESSION *session, const char *table, const std::string *text, const char *label,
           DBRESULT **result, int *outcome) {
  dbcache_add(table);
  if (result) *result = nullptr;
  if (session->disabled) {
    if (outcome) *outcome = DBOUT_OTHER;
    return 1;
  }
  if (!text) {
    if (outcome) *outcome = DBOUT_NONE;
    return 0;
  }
  DBRESULT *res = send_text(session, *text);
  if (!res) {
    msg_print("%s command failed for table '%s':\n  %s", label, table, conn_text(session).c_str());
    if (outcome) *outcome = DBOUT_NONE;
    return 0;
  }
  if (result) *result = res;
  int ok = judge(session, res, outcome, label);
  if (!result) DBclear(res);
  return ok;
}

// Sends one of the bracket commands and checks that it was done. `failed`
// is the text for no result at all ("... command failed:\n  %s"), `refused`
// the one for an answer other than done.
int bracket(DBSESSION *session, const char *command, const char *failed, const char *refused) {
  DBRESULT *res = send_text(session, command);
  if (!res) {
    msg_print(failed, conn_text(session).c_str());
    msg_print("Error: %s", conn_text(session).c_str());
    return 0;
  }
  if (DBresult_status(res) != DBRES_DONE) {
    msg_print("%s", refused);
    msg_print("Error: %s", DBresult_error(res));
    DBclear(res);
    return 0;
  }
  DBclear(res);
  return 1;
}

[[noreturn]] void on_signal(int sig) {
  // Back to the default action, so that a fault inside the clean-up cannot
  // come here again.
  std::signal(sig, SIG_DFL);
  // The program's end on a fatal signal, after the usual clean-up.
  msg_fatal("Program stopped by signal %d.\n", sig);
}

} // namespace

// ---- Sessions -----------------------------------------------------------------

int dbinit(DBSESSION **session, const char *s) {
  *session = nullptr;
  auto *handle = new DBSESSION;
  if (!connect_session(handle, s ? s : "")) {
    disconnect_session(handle);
    delete handle;
    return 0;
  }
  g_last_string = s ? s : "";
  handle->connect_string = g_last_string;
  g_last_session = handle;
  msg_at_fatal(close_at_fatal);
  *session = handle;
  return 1;
}

void dbclose(DBSESSION *session) {
  if (!session) return;
  if (!session->disabled) disconnect_session(session);
  if (g_last_session == session) g_last_session = nullptr;
  delete session;
}

int DB_Init(DBSESSION **session, const char *database) {
  std::string arg = database ? database : "";
  std::vector<char> x(arg.size() + 1), y(arg.size() + 1);
  bool has_prefix = std::sscanf(arg.c_str(), "%[^/]/%s", x.data(), y.data()) == 2;
  const char *dbsys = std::getenv("DBSYS");
  std::string s = (!has_prefix && dbsys) ? std::string(dbsys) + "/" + arg : arg;
  std::signal(SIGINT, on_signal);
  std::signal(SIGFPE, on_signal);
  std::signal(SIGSEGV, on_signal);
  std::signal(SIGTERM, on_signal);
  return dbinit(session, s.c_str());
}

int dbstatus(const DBSESSION *session) {
  return session && !session->disabled && !session->lost && session->connection &&
         session->connection->status == DBCONN_OK;
}

int dbcheck(DBSESSION *session) {
  if (!session || session->disabled || dbstatus(session)) return 1;
  if (!g_survival.on_lost) {
    // Without its database the program cannot go on: fatal by design.
    if (!reopen(session)) msg_fatal("Database-connection lost!\n");
    return 1;
  }
  session->lost = 0;
  if (!reopen(session)) {
    // Still no server: the session stays lost and the program is told again.
    if (!session->lost) {
      session->lost = 1;
      g_survival.on_lost(session);
    }
    return 0;
  }
  if (g_survival.on_reopened) g_survival.on_reopened(session);
  return 1;
}

void db_set_default_name(const char *name) { g_default_name = name ? name : ""; }
const char *db_default_name() { return g_default_name.c_str(); }

void ARGV_GetDB_Name(char **argv, int argc, char *name) {
  if (std::strcmp(name, "-") != 0)
    std::strcpy(name, "tdsys");
  else
    std::snprintf(name, DBSESSION_NAME_MAX + 1, "%s", g_default_name.c_str());
  for (int i = 1; i < argc; ++i) {
    if (!argv[i] || std::strncmp(argv[i], "-db", 3) != 0) continue;
    const char *rest = argv[i] + 3;
    // A wrong command line stops the program before anything is opened.
    if (std::strlen(rest) > DBSESSION_NAME_MAX)
      msg_fatal("(ARGV_GetDB_Name) DB-name %s is too long (max. 19)\n", rest);
    std::strcpy(name, rest);
  }
}

// ---- The BEGIN stack ----------------------------------------------------------

int dbbegin(DBSESSION *session) {
  if (g_depth++ != 0) return 1;
  if (session->disabled) return 1;
  // A lost session is opened again before it is used (or the level fails).
  if (session->lost && !dbcheck(session)) return 0;
  DBRESULT *res = send_text(session, "BEGIN");
  if (!res) {
    // The connection is gone: open it again and try once more.
    reopen(session);
    res = send_text(session, "BEGIN");
  }
  if (!res) {
    msg_print("BEGIN command failed:\n  %s", conn_text(session).c_str());
    msg_print("Error: %s", conn_text(session).c_str());
    return 0;
  }
  if (DBresult_status(res) != DBRES_DONE) {
    msg_print("BEGIN command failed.\n");
    msg_print("Error: %s", DBresult_error(res));
    DBclear(res);
    return 0;
  }
  DBclear(res);
  return 1;
}

int dbend(DBSESSION *session) {
  int ok = 1;
  // The transaction of a lost session went with its server: the level ends
  // on this side only.
  if (--g_depth == 0 && !session->disabled && !session->lost)
    ok = bracket(session, "END", "END command failed:\n  %s", "END command failed.\n");
  if (g_depth < 0) msg_print("BEGIN-stack underflow (too many dbends).\n");
  return ok;
}

int dbcommit(DBSESSION *session) {
  if (g_depth != 1 || session->disabled) return 1;
  if (!bracket(session, "COMMIT", "COMMIT command failed:\n  %s", "COMMIT command failed.\n"))
    return 0;
  g_depth = 0;
  if (!dbbegin(session)) {
    msg_print("BEGIN after COMMIT command failed.\n");
    msg_print("Error: %s", conn_text(session).c_str());
    return 0;
  }
  return 1;
}

int dbrollback(DBSESSION *session) {
  if (g_depth != 1 || session->disabled) return 1;
  if (!bracket(session, "ABORT", "ROLLBACK command failed:\n  %s", "ROLLBACK command failed.\n"))
    return 0;
  g_depth = 0;
  if (!dbbegin(session)) {
    msg_print("BEGIN after ROLLBACK command failed.\n");
    msg_print("Error: %s", conn_text(session).c_str());
    return 0;
  }
  return 1;
}

int db_depth() { return g_depth; }
void db_reset_depth_for_test() { g_depth = 0; }
long db_statements_sent_for_test() { return g_sent; }

// The back-end failure path of the application: fatal by design.
void db_backend_failure() { msg_fatal("BE-Error occurred! Please restart the application!\n"); }

// The one place a lost transport ends the program (see session.h).
void db_transport_fatal() { msg_exit_fatal(); }

void db_survive_transport(const DbSurvival &how) { g_survival = how; }

void db_transport_lost(DBSESSION *session) {
  if (!g_survival.on_lost || !session) db_transport_fatal();
  if (session->lost) return;
  session->lost = 1;
  g_survival.on_lost(session);
}

// ---- Statements -----------------------------------------------------------------

int dbdeclare(DBSESSION *session, const char *cursor, const char *select) {
  if (session->disabled) return 1;
  std::string text;
  if (!format_statement(&text, "DECLARE CURSOR", "DECLARE %s CURSOR FOR %s", cursor, select))
    return 0;
  DBRESULT *res = send_text(session, text);
  if (!res) {
    msg_print("DECLARE CURSOR command failed:\n  %s", conn_text(session).c_str());
    msg_print("Error: %s", conn_text(session).c_str());
    return 0;
  }
  if (DBresult_status(res) != DBRES_DONE) {
    msg_print("DECLARE CURSOR command failed (%s/%s).\n", cursor, select);
    msg_print("Error: %s", DBresult_error(res));
    DBclear(res);
    return 0;
  }
  DBclear(res);
  return 1;
}

int dbclosecursor(DBSESSION *session, const char *cursor) {
  if (session->disabled) return 1;
  std::string text;
  if (!format_statement(&text, "CLOSE CURSOR", "CLOSE %s", cursor)) return 0;
  DBRESULT *res = send_text(session, text);
  if (!res) {
    msg_print("CLOSE CURSOR command failed: %s\n", conn_text(session).c_str());
    msg_print("Error: %s", conn_text(session).c_str());
    return 0;
  }
  if (DBresult_status(res) != DBRES_DONE) {
    msg_print("CLOSE CURSOR command failed %s.\n", cursor);
    msg_print("Error: %s", DBresult_error(res));
    DBclear(res);
    return 0;
  }
  DBclear(res);
  return 1;
}

int dbinsert(DBSESSION *session, const char *table, const char *rest, DBRESULT **result,
             int *outcome) {
  std::string text;
  bool fits = format_statement(&text, "INSERT", "INSERT INTO %s %s", table, rest);
  return change(session, table, fits ? &text : nullptr, "INSERT", result, outcome);
}

int dbupdate(DBSESSION *session, const char *table, const char *assignments, DBRESULT **result,
             int *outcome) {
  std::string text;
  bool fits = format_statement(&text, "UPDATE", "UPDATE %s SET %s", table, assignments);
  return change(session, table, fits ? &text : nullptr, "UPDATE", result, outcome);
}

int dbdelete(DBSESSION *session, const char *table, const char *condition, DBRESULT **result,
             int *outcome) {
  std::string text;
  bool fits = format_statement(&text, "DELETE", "DELETE FROM %s WHERE %s", table, condition);
  return change(session, table, fits ? &text : nullptr, "DELETE", result, outcome);
}

int dbdeleteall(DBSESSION *session, const char *table, DBRESULT **result, int *outcome) {
  std::string text;
  bool fits = format_statement(&text, "DELETEALL", "DELETE FROM %s", table);
  return change(session, table, fits ? &text : nullptr, "DELETEALL", result, outcome);
}

int dbexec(DBSESSION *session, const char *command, const char *rest, DBRESULT **result,
           int *outcome) {
  if (result) *result = nullptr;
  if (session->disabled) {
    if (outcome) *outcome = DBOUT_OTHER;
    return 1;
  }
  std::string text;
  std::string what = std::string("'") + command + "'";
  if (!format_statement(&text, ("(dbexec) " + what).c_str(), "%s %s", command, rest)) {
    if (outcome) *outcome = DBOUT_NONE;
    return 0;
  }
  DBRESULT *res = send_text(session, text);
  if (!res) {
    msg_print("(dbexec) '%s' command failed:\n  %s", command, conn_text(session).c_str());
    if (outcome) *outcome = DBOUT_NONE;
    return 0;
  }
  if (result) *result = res;
  int ok = judge(session, res, outcome, what.c_str());
  if (!result) DBclear(res);
  return ok;
}

int dbexec1(DBSESSION *session, const char *statement, DBRESULT **result, int *outcome) {
  if (result) *result = nullptr;
  if (session->disabled) {
    if (outcome) *outcome = DBOUT_OTHER;
    return 1;
  }
  std::string text;
  if (!format_statement(&text, "dbexec1", "%s", statement)) {
    if (outcome) *outcome = DBOUT_NONE;
    return 0;
  }
  DBRESULT *res = send_text(session, text);
  if (!res) {
    msg_print("dbexec1 command failed:\n  %s", conn_text(session).c_str());
    if (outcome) *outcome = DBOUT_NONE;
    return 0;
  }
  if (result) *result = res;
  int ok = judge(session, res, outcome, "dbexec1");
  if (!result) DBclear(res);
  return ok;
}

int dbbinexec1(DBSESSION *session, DBRESULT **result, int *outcome) {
  if (result) *result = nullptr;
  if (session->disabled) {
    if (outcome) *outcome = DBOUT_OTHER;
    return 1;
  }
  DBRESULT *res = nullptr;
  if (!session->lost) {
    ++g_sent;
    res = checked(session, DBexec_request(session->connection));
  }
  if (!res) {
    msg_print("dbbinexec1 command failed:\n  %s", conn_text(session).c_str());
    if (outcome) *outcome = DBOUT_NONE;
    return 0;
  }
  if (result) *result = res;
  int ok = judge(session, res, outcome, "dbbinexec1");
  if (!result) DBclear(res);
  return ok;
}

// ---- Results ----------------------------------------------------------------------

int dbresultstatus(const DBSESSION *session, const DBRESULT *result) {
  if (session && session->disabled) return DBOUT_OTHER;
  switch (DBresult_status(result)) {
  case 0:
    return DBOUT_NONE;
  case DBRES_DONE:
    return DBOUT_DONE;
  case DBRES_TUPLES:
    return DBOUT_TUPLES;
  case DBRES_SYNTAX:
    return DBOUT_REFUSED;
  case DBRES_TRANSPORT:
    return DBOUT_TRANSPORT;
  default:
    return DBOUT_OTHER;
  }
}

void dbclear(const DBSESSION *session, DBRESULT *result) {
  if (session && session->disabled) return;
  DBclear(result);
}

namespace {
bool readable(const DBSESSION *session, const DBRESULT *result) {
  return result && !(session && session->disabled);
}
} // namespace

int dbntuples(const DBSESSION *session, const DBRESULT *result) {
  return readable(session, result) ? DBntuples(result) : -1;
}
int dbnfields(const DBSESSION *session, const DBRESULT *result) {
  return readable(session, result) ? DBnfields(result) : -1;
}
const char *dbfieldname(const DBSESSION *session, const DBRESULT *result, int column) {
  return readable(session, result) ? DBfieldname(result, column) : nullptr;
}
int dbfieldtype(const DBSESSION *session, const DBRESULT *result, int column) {
  return readable(session, result) ? DBfieldtype(result, column) : -1;
}
int dbfieldsize(const DBSESSION *session, const DBRESULT *result, int column) {
  return readable(session, result) ? DBfieldsize(result, column) : -1;
}
const char *dbgetvalue(const DBSESSION *session, DBRESULT *result, int row, int column) {
  return readable(session, result) ? DBgetvalue(result, row, column) : nullptr;
}

std::string dbgetshown(const DBSESSION *session, DBRESULT *result, int row, int column) {
  const char *v = dbgetvalue(session, result, row, column);
  if (!v) return std::string();
  // The null marker of the column's type is checked on the raw value (or on
  // the text for dates), so that the text is copied once, or not at all.
  const void *raw = DBgetrawvalue(result, row, column);
  bool null = false;
  if (raw) {
    switch (DBfieldtype(result, column)) {
    case DBFT_SMALLINT: {
      int16_t x;
      std::memcpy(&x, raw, sizeof x);
      null = x == NULL_SHORT;
      break;
    }
    case DBFT_INTEGER: {
      int32_t x;
      std::memcpy(&x, raw, sizeof x);
      null = x == NULL_INT;
      break;
    }
    case DBFT_FLOAT: {
      double x;
      std::memcpy(&x, raw, sizeof x);
      null = DOUBLE_IsNull(x);
      break;
    }
    case DBFT_DATE:
      null = std::strcmp(v, "1800-01-01") == 0;
      break;
    case DBFT_TIMESTAMP:
      null = std::strcmp(v, "1800-01-01-00.00.00.000000") == 0;
      break;
    default:
      break;
    }
  }
  return null ? std::string() : std::string(v);
}

namespace {
// The common checks of the one-value queries: returns the value of the only
// tuple, or null (with the message when there is one to print).
const char *single_value(DBRESULT *result, int outcome, const char *who) {
  if (outcome != DBOUT_TUPLES) {
    msg_print("(%s) Status is not MYDB_TUPLES_OK!\n", who);
    return nullptr;
  }
  int n = DBntuples(result);
  if (n > 1) {
    msg_print("(%s) More than one resulttuple!\n", who);
    return nullptr;
  }
  if (n < 1) return nullptr;
  return DBgetvalue(result, 0, 0);
}
} // namespace

int dbfill_count(const DBSESSION *session, DBRESULT *result, int outcome, int *count) {
  if (session && session->disabled) return 1;
  const char *v = single_value(result, outcome, "dbfill_count");
  if (!v) return 0;
  *count = static_cast<int>(std::strtol(v, nullptr, 10));
  return 1;
}

int dbfill_string(const DBSESSION *session, DBRESULT *result, int outcome, char *text, int size) {
  if (session && session->disabled) return 1;
  const char *v = single_value(result, outcome, "dbfill_string");
  if (!v) return 0;
  std::snprintf(text, static_cast<size_t>(size), "%s", v);
  return 1;
}

int dbgetlength(const DBSESSION *, const DBRESULT *, int, int) {
  msg_print("(dbgetlength) Not yet implemented\n");
  return -1;
}
