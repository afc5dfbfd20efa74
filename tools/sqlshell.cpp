// The interactive shell of tavrin sql (see sqlshell.h).
#include "tools/sqlshell.h"

#include <editline/readline.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/msg.h"
#include "db/access/session.h"
#include "db/client/tokenizer.h"
#include "tools/term.h"

namespace {

// Entries the history keeps.
constexpr int kHistoryMax = 1000;

bool blank(const std::string &t) {
  for (char c : t)
    if (!std::isspace(static_cast<unsigned char>(c))) return false;
  return true;
}

std::string trim(const std::string &t) {
  size_t b = 0, e = t.size();
  while (b < e && std::isspace(static_cast<unsigned char>(t[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(t[e - 1]))) --e;
  return t.substr(b, e - b);
}

// The words of a statement, upper-cased, as far as they are letters, digits
// and '_' (enough to see what a statement does to the transaction and the
// open database).
std::vector<std::string> words(const std::string &statement, size_t max) {
  std::vector<std::string> out;
  size_t i = 0;
  while (out.size() < max) {
    while (i < statement.size() && std::isspace(static_cast<unsigned char>(statement[i]))) ++i;
    std::string w;
    while (i < statement.size() &&
           (std::isalnum(static_cast<unsigned char>(statement[i])) || statement[i] == '_'))
      w += static_cast<char>(std::toupper(static_cast<unsigned char>(statement[i++])));
    if (w.empty()) break;
    out.push_back(w);
  }
  return out;
}

// Makes every missing folder of path's parent (mode 0700: the history may
// hold data). Returns false when one cannot be made.
bool make_parents(const std::string &path) {
  for (size_t p = path.find('/', 1); p != std::string::npos; p = path.find('/', p + 1)) {
    std::string dir = path.substr(0, p);
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Set by Ctrl-C while a line is being read.
volatile sig_atomic_t g_interrupted = 0;

void on_interrupt(int) { g_interrupted = 1; }

// Reads one line with the prompt. Ctrl-C while reading does not end the
// program (and so roll back an open transaction): it ends the read, with
// *interrupted set (while a statement runs it stops the statement, see
// cmd_sql.cpp). Returns the line
// (owned by the caller, free), or null at the end of input or after Ctrl-C.
char *read_line(const std::string &prompt, bool *interrupted) {
  struct sigaction mine {};
  struct sigaction old {};
  mine.sa_handler = on_interrupt;
  sigemptyset(&mine.sa_mask);
  mine.sa_flags = 0; // no restart: the read returns
  g_interrupted = 0;
  sigaction(SIGINT, &mine, &old);
  char *line = readline(prompt.c_str());
  sigaction(SIGINT, &old, nullptr);
  *interrupted = g_interrupted != 0;
  if (*interrupted && line) {
    std::free(line);
    line = nullptr;
  }
  return line;
}

// ---- Tab completion ---------------------------------------------------------------
// Words offered on Tab: the shell's commands at the start of a line, else
// the statement keywords and the tables of the open database (read with
// SHOW TABLES on the first Tab, again after \c, CREATE and DROP).

const char *const kCommands[] = {"\\c", "\\d", "\\di", "\\dt", "\\l", "\\q", "\\timing", "\\?"};

struct Completion {
  DBSESSION *session = nullptr;
  // The table names are read only outside a transaction, where a statement
  // of the shell's own cannot change how the server treats the user's.
  bool may_read = false;
  bool tables_read = false;
  std::vector<std::string> tables; // UTF-8
  std::vector<std::string> offered;
  size_t next = 0;
};
Completion g_completion;

// The table names of the open database, without printing anything.
void read_tables() {
  Completion &c = g_completion;
  c.tables.clear();
  DBRESULT *r = nullptr;
  int outcome = 0;
  if (!c.may_read || !dbstatus(c.session)) return;
  c.tables_read = true;
  // A failure here must stay quiet: the messages would land in the line
  // being edited.
  MsgHandler old = msg_set_handler([](const char *) {});
  if (dbexec1(c.session, "SHOW TABLES", &r, &outcome) && outcome == DBOUT_TUPLES)
    for (int row = 0; row < dbntuples(c.session, r); ++row) {
      const char *v = dbgetvalue(c.session, r, row, 0);
      if (v) c.tables.push_back(trim(term_from_latin1(v)));
    }
  dbclear(c.session, r);
  msg_set_handler(old);
}

// Hands out the offered words one by one (the library frees them).
char *next_match(const char *, int state) {
  Completion &c = g_completion;
  if (state == 0) c.next = 0;
  if (c.next >= c.offered.size()) return nullptr;
  return strdup(c.offered[c.next++].c_str());
}

// The library's completion hook: fills the offered words that begin with
// text (letters compared without case; keywords and tables in the case the
// user started with).
char **complete(const char *text, int start, int) {
  Completion &c = g_completion;
  rl_attempted_completion_over = 1; // never offer file names
  std::string typed = text;
  bool lower = !typed.empty() && std::islower(static_cast<unsigned char>(typed[0]));
  auto starts = [&](const std::string &w) {
    if (w.size() < typed.size()) return false;
    for (size_t i = 0; i < typed.size(); ++i)
      if (std::toupper(static_cast<unsigned char>(w[i])) !=
          std::toupper(static_cast<unsigned char>(typed[i])))
        return false;
    return true;
  };
  c.offered.clear();
  std::string line = rl_line_buffer ? std::string(rl_line_buffer, static_cast<size_t>(start)) : "";
  if (blank(line) && typed.rfind('\\', 0) == 0) {
    for (const char *w : kCommands)
      if (starts(w)) c.offered.emplace_back(w);
  } else {
    if (!c.tables_read) read_tables();
    std::vector<std::string> all = DBtoken_keyword_words();
    all.insert(all.end(), c.tables.begin(), c.tables.end());
    for (std::string w : all)
      if (starts(w)) {
        if (lower)
          for (char &ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        c.offered.push_back(w);
      }
  }
  if (c.offered.empty()) return nullptr;
  return rl_completion_matches(text, next_match);
}

// ---- The shell ---------------------------------------------------------------------

const char kHelp[] =
    "Statements end with ';' and may span lines; a ';' inside a quoted text does\n"
    "not end one. Commands of the shell (at the start of a line):\n"
    "  \\d             list the tables (SHOW TABLES)\n"
    "  \\d TABLE       describe a table: its attributes and indices\n"
    "  \\dt            list the tables\n"
    "  \\di            list the indices\n"
    "  \\l             list the databases\n"
    "  \\c [NAME]      switch to database NAME (not inside a transaction), or show\n"
    "                 the open one\n"
    "  \\timing [on|off]  show how long each statement took\n"
    "  \\?             this help\n"
    "  \\q             quit (so does Ctrl-D)\n"
    "Tab completes commands, keywords and table names; Ctrl-C drops the line and\n"
    "the unfinished statement, and stops a running statement (twice: ends tavrin).\n";

class Shell {
public:
  Shell(DBSESSION *&s, const std::string &name, TavrinSqlFormat format, bool single)
      : s_(s), name_(name), format_(format), single_(single) {}

  bool run();

private:
  void statement(const std::string &text);
  // Returns false when the shell is to end.
  bool command(const std::string &line);
  bool may_quit();
  bool switch_database(const std::string &name);
  void remember(const std::string &entry);
  std::string prompt() const;

  DBSESSION *&s_;
  std::string name_; // of the open database, as typed
  TavrinSqlFormat format_;
  bool single_;
  bool timing_ = false;
  bool in_transaction_ = false; // a BEGIN of the user is open
  bool warned_ = false;         // the last quit was refused for an open transaction
  bool failed_ = false;
  std::string history_, last_entry_;
  SqlCollector collector_;
};

std::string Shell::prompt() const {
  if (!collector_.pending()) return name_ + "> ";
  std::string cont(name_.size() > 1 ? name_.size() - 1 : 0, ' ');
  return cont + (collector_.in_text() ? "'> " : "-> ");
}

void Shell::remember(const std::string &entry) {
  if (blank(entry) || entry == last_entry_) return;
  last_entry_ = entry;
  add_history(entry.c_str());
  if (history_.empty()) return;
  // The file is made private before anything is written into it.
  int fd = open(history_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) close(fd);
  write_history(history_.c_str());
}

void Shell::statement(const std::string &text) {
  auto t0 = std::chrono::steady_clock::now();
  bool ok = tavrin_sql_run(s_, term_to_latin1(text), format_);
  if (timing_) {
    double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("Time: %.3f ms\n", ms);
    std::fflush(stdout);
  }
  if (!ok) {
    if (single_ && !failed_)
      term_error("with -1 the failure rolls back every statement when the shell ends");
    failed_ = true;
    return;
  }
  // What the statement did to the transaction and the open database, so
  // that \c and \q do not silently end an open transaction.
  std::vector<std::string> w = words(text, 3);
  if (w.empty()) return;
  if (w[0] == "CREATE" || w[0] == "DROP") g_completion.tables_read = false;
  if (w[0] == "BEGIN")
    in_transaction_ = true;
  else if (w[0] == "COMMIT" || w[0] == "END" || w[0] == "ABORT")
    in_transaction_ = false;
  else if (w.size() == 3 && (w[0] == "SET" || w[0] == "CREATE") && w[1] == "DATABASE") {
    in_transaction_ = false; // the server commits before it switches
    name_ = trim(text.substr(text.find_last_of(" \t\n") + 1));
  }
}

bool Shell::may_quit() {
  if (!in_transaction_ || warned_) return true;
  term_error("a transaction is open: COMMIT or ABORT it; quitting again rolls it back");
  warned_ = true;
  return false;
}

bool Shell::switch_database(const std::string &name) {
  if (in_transaction_ || single_) {
    term_error("\\c: a transaction is open; COMMIT or ABORT it first");
    return true;
  }
  bool exact = true;
  std::string latin1 = term_to_latin1(name, &exact);
  if (latin1.size() > static_cast<size_t>(DBSESSION_NAME_MAX) || !exact) {
    term_error("\\c: '%s' is no database name (at most %d characters)", latin1.c_str(),
               DBSESSION_NAME_MAX);
    return true;
  }
  // One connection at a time: the old session ends before the new one
  // opens; when the new one cannot be opened, the old database is opened
  // again.
  dbclose(s_);
  s_ = nullptr;
  if (DB_Init(&s_, latin1.c_str())) {
    name_ = name;
  } else if (!DB_Init(&s_, term_to_latin1(name_).c_str())) {
    term_error("\\c: the database %s cannot be opened again", name_.c_str());
    failed_ = true;
    return false;
  }
  g_completion.session = s_;
  g_completion.tables_read = false;
  return true;
}

bool Shell::command(const std::string &line) {
  std::string t = trim(line);
  size_t sp = t.find_first_of(" \t");
  std::string cmd = t.substr(0, sp), arg = sp == std::string::npos ? "" : trim(t.substr(sp));
  if (cmd == "\\q") return !may_quit();
  warned_ = false;
  if (cmd == "\\?") {
    term_write(stdout, kHelp);
  } else if ((cmd == "\\d" && arg.empty()) || cmd == "\\dt") {
    statement("SHOW TABLES");
  } else if (cmd == "\\d") {
    statement("SHOW TABLE " + arg);
    statement("SHOW INDICES ON TABLE " + arg);
  } else if (cmd == "\\di") {
    statement("SHOW INDICES");
  } else if (cmd == "\\l") {
    statement("SHOW DATABASES");
  } else if (cmd == "\\c") {
    if (arg.empty()) {
      std::printf("database %s\n", name_.c_str());
      return true;
    }
    return switch_database(arg);
  } else if (cmd == "\\timing") {
    if (arg == "on" || arg == "off" || arg.empty()) {
      timing_ = arg.empty() ? !timing_ : arg == "on";
      std::printf("Timing is %s.\n", timing_ ? "on" : "off");
    } else {
      term_error("\\timing: on or off, not '%s'", term_to_latin1(arg).c_str());
    }
  } else {
    term_error("unknown command %s; \\? lists the commands", term_to_latin1(cmd).c_str());
  }
  std::fflush(stdout);
  return true;
}

bool Shell::run() {
  // The line editor works in the terminal's character set (UTF-8 texts are
  // converted to Latin-1 only when a statement is run).
  std::setlocale(LC_CTYPE, "");
  // Rows go to standard output; the prompt too unless that is not the
  // terminal (then it goes with the messages to standard error).
  rl_outstream = isatty(STDOUT_FILENO) ? stdout : stderr;
  rl_readline_name = "tavrin";
  rl_attempted_completion_function = complete;
  g_completion.session = s_;
  g_completion.tables_read = false;
  using_history();
  stifle_history(kHistoryMax);
  history_ = sqlshell_history_path();
  if (!history_.empty()) {
    if (!make_parents(history_)) {
      term_error("cannot make the folder of the history file %s", history_.c_str());
      history_.clear();
    } else {
      read_history(history_.c_str());
    }
  }
  bool begun = !single_ || dbbegin(s_);
  if (!begun)
    failed_ = true;
  else
    term_write(rl_outstream, "Statements end with ';'; \\? lists the commands, \\q quits.\n");

  std::string entry; // the lines of the unfinished statement, for the history
  while (begun) {
    bool interrupted = false;
    g_completion.may_read = !in_transaction_ && !single_;
    char *raw = read_line(prompt(), &interrupted);
    if (interrupted) { // Ctrl-C: the unfinished statement is dropped
      std::fputc('\n', rl_outstream);
      collector_.clear();
      entry.clear();
      continue;
    }
    if (!raw) { // end of input (Ctrl-D)
      std::fputc('\n', rl_outstream);
      if (may_quit()) break;
      continue;
    }
    std::string line = raw;
    std::free(raw);
    if (!collector_.in_text() && !blank(line) && trim(line)[0] == '\\') {
      remember(trim(line));
      if (!command(line)) break;
      continue;
    }
    warned_ = false;
    // The history keeps a statement as typed, its lines joined by line
    // feeds, so that a recalled text that spans lines stays the same.
    entry += (entry.empty() ? "" : "\n") + line;
    std::vector<std::string> done;
    collector_.add(line, done);
    for (const auto &st : done) statement(st);
    if (!collector_.pending()) {
      remember(trim(entry));
      entry.clear();
    }
  }
  if (collector_.pending()) term_error("the unfinished statement (no ';' yet) was not run");
  if (single_ && s_) {
    // All or nothing, as on the command line.
    if (failed_) dbrollback(s_);
    if (!dbend(s_)) failed_ = true;
  }
  g_completion = Completion{};
  return !failed_;
}

} // namespace

void SqlCollector::add(const std::string &line, std::vector<std::string> &out) {
  std::string chunk = line + "\n";
  for (char c : chunk) {
    if (in_text_) {
      if (escaped_)
        escaped_ = false;
      else if (c == '\\')
        escaped_ = true;
      else if (c == '\'')
        in_text_ = false;
    } else if (c == '\'') {
      in_text_ = true;
    } else if (c == ';') {
      std::string st = trim(text_);
      if (!st.empty()) out.push_back(st);
      text_.clear();
      continue;
    }
    text_ += c;
  }
  if (!in_text_ && blank(text_)) text_.clear();
}

bool SqlCollector::pending() const { return !text_.empty(); }

void SqlCollector::clear() {
  text_.clear();
  in_text_ = escaped_ = false;
}

std::string sqlshell_history_path() {
  const char *state = std::getenv("XDG_STATE_HOME");
  if (state && *state == '/') return std::string(state) + "/zentiq/tavrin_history";
  const char *home = std::getenv("HOME");
  if (!home || !*home) return "";
  return std::string(home) + "/.local/state/zentiq/tavrin_history";
}

bool sqlshell_run(DBSESSION *&s, const std::string &name, TavrinSqlFormat format, bool single) {
  return Shell(s, name, format, single).run();
}
