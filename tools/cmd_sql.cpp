// tavrin sql (see cmd_sql.h).
#include "tools/cmd_sql.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "base/valstr.h"
#include "db/access/session.h"
#include "db/client/transport.h"
#include "db/client/tokenizer.h"
#include "tools/commands.h"
#include "tools/sqlstream.h"
#include "tools/sqlshell.h"
#include "tools/term.h"

#include <signal.h>
#include <unistd.h>

namespace {

enum Format { TABLE, CSV, TSV };

// The display text of a cell: the null markers of the server show as empty
// texts, as they do in the viewer.
std::string cell(DBSESSION *s, DBRESULT *r, int row, int col) { return dbgetshown(s, r, row, col); }

bool numeric(int type) {
  return type == DBFT_SMALLINT || type == DBFT_INTEGER || type == DBFT_FLOAT;
}

std::string csv_field(const std::string &t) {
  if (t.find_first_of(",\"\n\r") == std::string::npos) return t;
  std::string out = "\"";
  for (char c : t) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

std::string tsv_field(const std::string &t) {
  std::string out;
  for (char c : t) {
    if (c == '\t')
      out += "\\t";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else if (c == '\\')
      out += "\\\\";
    else
      out += c;
  }
  return out;
}

// The rows of a result in the chosen format (Latin-1).
std::string render(DBSESSION *s, DBRESULT *r, Format format) {
  int rows = dbntuples(s, r), cols = dbnfields(s, r);
  std::vector<std::string> names;
  for (int c = 0; c < cols; ++c) {
    const char *n = dbfieldname(s, r, c);
    names.emplace_back(n ? n : "");
  }
  std::string out;
  if (format != TABLE) {
    const char *sep = format == CSV ? "," : "\t";
    auto field = format == CSV ? csv_field : tsv_field;
    for (int c = 0; c < cols; ++c) out += (c ? sep : "") + field(names[static_cast<size_t>(c)]);
    if (cols) out += "\n";
    for (int row = 0; row < rows; ++row) {
      for (int c = 0; c < cols; ++c) out += (c ? sep : "") + field(cell(s, r, row, c));
      out += "\n";
    }
    return out;
  }
  std::vector<size_t> width(static_cast<size_t>(cols));
  std::vector<std::vector<std::string>> cells(static_cast<size_t>(rows));
  for (int c = 0; c < cols; ++c)
    width[static_cast<size_t>(c)] = names[static_cast<size_t>(c)].size();
  for (int row = 0; row < rows; ++row)
    for (int c = 0; c < cols; ++c) {
      cells[static_cast<size_t>(row)].push_back(cell(s, r, row, c));
      width[static_cast<size_t>(c)] =
          std::max(width[static_cast<size_t>(c)], cells[static_cast<size_t>(row)].back().size());
    }
  auto pad = [](const std::string &t, size_t w, bool right) {
    std::string fill(w - std::min(w, t.size()), ' ');
    return right ? fill + t : t + fill;
  };
  std::string line;
  for (int c = 0; c < cols; ++c) {
    if (c) line += " | ";
    line += pad(names[static_cast<size_t>(c)], width[static_cast<size_t>(c)], false);
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  out += line + "\n";
  line.clear();
  for (int c = 0; c < cols; ++c)
    line += (c ? "-+-" : "") + std::string(width[static_cast<size_t>(c)], '-');
  out += line + "\n";
  for (int row = 0; row < rows; ++row) {
    line.clear();
    for (int c = 0; c < cols; ++c) {
      if (c) line += " | ";
      line += pad(cells[static_cast<size_t>(row)][static_cast<size_t>(c)],
                  width[static_cast<size_t>(c)], numeric(dbfieldtype(s, r, c)));
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out += line + "\n";
  }
  out += "(" + std::to_string(rows) + (rows == 1 ? " row)\n" : " rows)\n");
  return out;
}

// The first word of a statement, upper-cased.
std::string first_word(const std::string &statement) {
  size_t i = 0;
  while (i < statement.size() && std::isspace(static_cast<unsigned char>(statement[i]))) ++i;
  std::string w;
  while (i < statement.size() && std::isalpha(static_cast<unsigned char>(statement[i])))
    w += static_cast<char>(std::toupper(static_cast<unsigned char>(statement[i++])));
  return w;
}

// Ctrl-C while a statement runs asks the server to stop it: the statement
// fails with the server's error and the run goes on as after any failure
// (the shell reads the next line, a script ends). A second Ctrl-C while it
// still waits, or one while no statement runs, ends the program as it
// always did.
volatile sig_atomic_t g_running = 0;
volatile sig_atomic_t g_presses = 0;

void on_interrupt(int) {
  bool again = g_presses != 0;
  g_presses = 1;
  if (!g_running || again) {
    signal(SIGINT, SIG_DFL);
    raise(SIGINT);
    return;
  }
  DBcancel();
}

// Runs one statement and prints what it gave. Returns false when it failed.
bool run_one(DBSESSION *s, const std::string &statement, Format format) {
  struct Running {
    Running() {
      g_presses = 0;
      g_running = 1;
    }
    ~Running() { g_running = 0; }
  } running;
  // A SELECT streams its rows through a cursor, in flat memory whatever
  // its size (sqlstream.h).
  if (int streamed = sqlstream_select(s, statement, static_cast<SqlFormat>(format)); streamed >= 0)
    return streamed == 1;
  DBRESULT *r = nullptr;
  int outcome = 0;
  int ok = dbexec1(s, statement.c_str(), &r, &outcome);
  bool good = ok && outcome != DBOUT_REFUSED;
  if (r && (DBresult_status(r) == DBRES_TUPLES || DBresult_status(r) == DBRES_TUPLES2)) {
    // A FETCH answers with the second kind of tuples: its rows are shown
    // all the same.
    term_write(stdout, render(s, r, format));
    good = true;
  } else if (good && outcome == DBOUT_DONE) {
    std::string w = first_word(statement);
    if (w == "INSERT" || w == "UPDATE" || w == "DELETE") {
      int n = dbntuples(s, r);
      term_write(stdout, std::to_string(n) + (n == 1 ? " row changed\n" : " rows changed\n"));
    } else if (format == TABLE) {
      term_write(stdout, "done\n");
    }
  }
  dbclear(s, r);
  std::fflush(stdout);
  return good;
}

bool blank(const std::string &line) {
  for (char c : line)
    if (!std::isspace(static_cast<unsigned char>(c))) return false;
  return true;
}

// Runs the ";"-separated statements of one argument or input line in order
// (";" inside string literals does not separate; empty statements are
// skipped rather than sent, since an empty statement is a COMMIT). Returns
// false at the first statement that fails; those after it are not run.
bool run_text(DBSESSION *s, const std::string &text, Format format) {
  for (const std::string &statement : DBsplit_statements(text.c_str()))
    if (!blank(statement) && !run_one(s, statement, format)) return false;
  return true;
}

} // namespace

bool tavrin_sql_run(DBSESSION *s, const std::string &statement, TavrinSqlFormat format) {
  static_assert(int(TAVRIN_SQL_TABLE) == TABLE && int(TAVRIN_SQL_CSV) == CSV &&
                int(TAVRIN_SQL_TSV) == TSV);
  return run_one(s, statement, static_cast<Format>(format));
}

DBSESSION *tavrin_open_session(int argc, char **argv, std::vector<std::string> &rest) {
  char name[DBSESSION_NAME_MAX + 1] = "";
  ARGV_GetDB_Name(argv, argc, name);
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "-db", 3) != 0) rest.emplace_back(argv[i]);
  DBSESSION *s = nullptr;
  std::string db = term_to_latin1(name);
  if (!DB_Init(&s, db.c_str())) return nullptr;
  return s;
}

int cmd_sql(int argc, char **argv) {
  const TavrinCommand &cmd = *tavrin_find_command("sql");
  std::vector<std::string> args;
  char name[DBSESSION_NAME_MAX + 1] = "";
  ARGV_GetDB_Name(argv, argc, name); // checks the -db arguments before anything runs
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "-db", 3) != 0) args.emplace_back(argv[i]);
  Format format = TABLE;
  bool single = false;
  std::vector<std::string> statements;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string a = args[i];
    std::string value;
    if (a == "--format") {
      if (i + 1 >= args.size()) return tavrin_usage_error(cmd, "--format needs a value");
      value = args[++i];
    } else if (a.rfind("--format=", 0) == 0) {
      value = a.substr(9);
    } else if (a == "-1") {
      single = true;
      continue;
    } else if (a.size() > 1 && a[0] == '-' && statements.empty()) {
      return tavrin_usage_error(cmd, "unknown option '%s'", term_to_latin1(a).c_str());
    } else {
      statements.push_back(term_to_latin1(a));
      continue;
    }
    if (value == "table")
      format = TABLE;
    else if (value == "csv")
      format = CSV;
    else if (value == "tsv")
      format = TSV;
    else
      return tavrin_usage_error(cmd, "unknown format '%s'", term_to_latin1(value).c_str());
  }

  std::vector<std::string> ignored;
  DBSESSION *s = tavrin_open_session(argc, argv, ignored);
  if (!s) return TAVRIN_FAIL;
  struct sigaction sa {};
  sa.sa_handler = on_interrupt;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  sigaction(SIGINT, &sa, nullptr);
  if (statements.empty() && isatty(STDIN_FILENO)) {
    // A person at a terminal: the interactive shell, which runs each
    // statement through tavrin_sql_run.
    bool good = sqlshell_run(s, name, static_cast<TavrinSqlFormat>(format), single);
    dbclose(s);
    return good ? TAVRIN_OK : TAVRIN_FAIL;
  }
  bool failed = false;
  if (single && !dbbegin(s)) failed = true;
  if (!failed) {
    if (!statements.empty()) {
      for (const auto &st : statements)
        if (!run_text(s, st, format)) {
          failed = true;
          break;
        }
    } else {
      std::string line;
      while (!failed && std::getline(std::cin, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        failed = !run_text(s, term_to_latin1(line), format);
      }
    }
  }
  if (single) {
    // All or nothing: a failure undoes the statements before it.
    if (failed) dbrollback(s);
    if (!dbend(s)) failed = true;
  }
  dbclose(s);
  return failed ? TAVRIN_FAIL : TAVRIN_OK;
}
