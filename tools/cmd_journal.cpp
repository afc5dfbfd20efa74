// tavrin journal (see cmd_journal.h).
#include "tools/cmd_journal.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "db/access/jrnundo.h"
#include "db/access/journal.h"
#include "db/access/session.h"
#include "db/ipc/named.h"
#include "tools/cmd_sql.h"
#include "tools/commands.h"
#include "tools/term.h"

namespace {

std::string upper(std::string t) {
  for (char &c : t) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return t;
}

const char *status_word(const JrnEntry &e) {
  return e.undone_by ? "undone" : jrn_status_name(e.status);
}

size_t row_count(const JrnEntry &e) { return std::max(e.before.size(), e.after.size()); }

std::string value_text(const JrnValue &v) { return v ? "'" + *v + "'" : "(null)"; }

// Lines of a table with columns padded to their widest cell.
std::string table_text(const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> width;
  for (const auto &row : rows)
    for (size_t j = 0; j < row.size(); ++j) {
      if (width.size() <= j) width.push_back(0);
      width[j] = std::max(width[j], row[j].size());
    }
  std::string out;
  for (const auto &row : rows) {
    std::string line;
    for (size_t j = 0; j < row.size(); ++j) {
      line += row[j];
      if (j + 1 < row.size()) line += std::string(width[j] - row[j].size() + 2, ' ');
    }
    out += line + "\n";
  }
  return out;
}

std::string show_text(const JrnEntry &e, const std::vector<JrnEntry> &all) {
  std::string out = "change " + std::to_string(e.number) + ": " + jrn_kind_name(e.kind) + " of " +
                    e.table + " in " + e.database + " (namespace " + e.ns + ")\n";
  out += "time " + e.time + " UTC, user " + e.user + ", status " + status_word(e) + "\n";
  for (const JrnEntry &o : all)
    if (!e.undoes.empty() && o.token == e.undoes)
      out += "undoes change " + std::to_string(o.number) + "\n";
  if (e.undone_by) out += "undone by change " + std::to_string(e.undone_by) + "\n";
  for (size_t i = 0; i < row_count(e); ++i) {
    out += "row " + std::to_string(i + 1) + ":\n";
    for (size_t c = 0; c < e.columns.size(); ++c) {
      std::string line = "  " + e.columns[c] + ": ";
      if (i < e.before.size() && i < e.after.size()) {
        const JrnValue &b = e.before[i][c], &a = e.after[i][c];
        line += value_text(b) + (b == a ? "" : " -> " + value_text(a));
      } else {
        line += value_text(i < e.before.size() ? e.before[i][c] : e.after[i][c]);
      }
      out += line + "\n";
    }
  }
  out += "undo statements:\n";
  for (const std::string &s : jrn_undo_statements(e)) out += "  " + s + "\n";
  return out;
}

std::string problem_text(const JrnEntry &e, const std::vector<JrnProblem> &problems) {
  std::string out;
  for (const JrnProblem &p : problems) {
    out += "  " + e.key + " = " + p.key + ": ";
    if (p.what == JrnProblem::GONE)
      out += "the row is gone\n";
    else if (p.what == JrnProblem::KEY_TAKEN)
      out += "a row with this key exists again\n";
    else if (p.what == JrnProblem::DOUBLED)
      out += "several rows have this key now\n";
    else
      out += p.column + " is now " + value_text(p.now) + ", the change left " + value_text(p.left) +
             "\n";
  }
  return out;
}

bool confirmed(int number) {
  std::string q = "Undo change " + std::to_string(number) + "? [y/N] ";
  term_write(stderr, q);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  return !answer.empty() &&
         (answer[0] == 'y' || answer[0] == 'Y' || answer[0] == 'j' || answer[0] == 'J');
}

} // namespace

int cmd_journal(int argc, char **argv) {
  const TavrinCommand &cmd = *tavrin_find_command("journal");
  char name[DBSESSION_NAME_MAX + 1] = "";
  ARGV_GetDB_Name(argv, argc, name);
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "-db", 3) != 0) args.push_back(term_to_latin1(argv[i]));
  std::string action, table, status;
  int number = 0;
  bool yes = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string &a = args[i];
    if (a == "--yes") {
      yes = true;
    } else if (a == "--table" || a == "--status") {
      if (i + 1 >= args.size()) return tavrin_usage_error(cmd, "%s needs a value", a.c_str());
      (a == "--table" ? table : status) = args[++i];
    } else if (action.empty() && (a == "list" || a == "show" || a == "undo")) {
      action = a;
    } else if (number == 0 && (action == "show" || action == "undo") && !a.empty() &&
               std::all_of(a.begin(), a.end(),
                           [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
      number = std::atoi(a.c_str());
    } else {
      return tavrin_usage_error(cmd, "unexpected argument '%s'", a.c_str());
    }
  }
  if (action.empty()) return tavrin_usage_error(cmd, "list, show or undo expected");
  if (action != "list" && number <= 0)
    return tavrin_usage_error(cmd, "%s needs a change number", action.c_str());
  if (!status.empty() && status != "committed" && status != "aborted" && status != "unknown" &&
      status != "undone")
    return tavrin_usage_error(cmd, "unknown status '%s'", status.c_str());

  std::string database = upper(term_to_latin1(name));
  std::string path = jrn_path(ipc::namespace_name(), database);
  std::vector<JrnEntry> all;
  std::string why;
  if (!jrn_read(path, &all, &why)) {
    term_error("%s", why.c_str());
    return TAVRIN_FAIL;
  }
  if (action == "list") {
    std::vector<std::vector<std::string>> rows = {
        {"NR", "TIME (UTC)", "USER", "TABLE", "KIND", "ROWS", "STATUS"}};
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
      if (!table.empty() && it->table != upper(table)) continue;
      if (!status.empty() && status != status_word(*it)) continue;
      rows.push_back({std::to_string(it->number), it->time, it->user, it->table,
                      jrn_kind_name(it->kind), std::to_string(row_count(*it)), status_word(*it)});
    }
    std::string out = table_text(rows);
    if (rows.size() == 1) out += "No change of " + database + " is in the journal " + path + ".\n";
    return term_write(stdout, out) ? TAVRIN_OK : TAVRIN_FAIL;
  }
  if (number > static_cast<int>(all.size())) {
    term_error("the journal of %s has no change %d", database.c_str(), number);
    return TAVRIN_FAIL;
  }
  const JrnEntry e = all[static_cast<size_t>(number - 1)];
  if (action == "show") {
    std::string out = show_text(e, all);
    // An entry without outcome: the data tells whether the change is in.
    if (e.status == JRN_UNKNOWN && !e.undone_by) {
      std::vector<std::string> ignored;
      DBSESSION *s = tavrin_open_session(argc, argv, ignored);
      if (!s) return TAVRIN_FAIL;
      int state = jrn_check(s, e, &why);
      dbclose(s);
      out += state == JRN_CHECK_AFTER
                 ? "check: the rows hold what the change left: it was committed\n"
             : state == JRN_CHECK_BEFORE
                 ? "check: the rows are as before the change: it was not committed\n"
             : state == JRN_CHECK_NEITHER ? "check: the rows were changed otherwise since\n"
                                          : "check failed: " + why + "\n";
    }
    return term_write(stdout, out) ? TAVRIN_OK : TAVRIN_FAIL;
  }

  if (e.status == JRN_ABORTED) {
    term_error("change %d was aborted: there is nothing to undo", number);
    return TAVRIN_FAIL;
  }
  if (e.undone_by) {
    term_error("change %d was undone already by change %d", number, e.undone_by);
    return TAVRIN_FAIL;
  }
  std::string plan = "undo statements:\n";
  for (const std::string &s : jrn_undo_statements(e)) plan += "  " + s + "\n";
  if (!yes) {
    if (!isatty(STDIN_FILENO)) {
      term_error("undo asks for confirmation on a terminal; give --yes to undo without asking");
      return TAVRIN_USAGE;
    }
    term_write(stderr, plan);
    if (!confirmed(number)) {
      term_write(stderr, "Nothing was changed.\n");
      return TAVRIN_FAIL;
    }
  }
  std::vector<std::string> ignored;
  DBSESSION *s = tavrin_open_session(argc, argv, ignored);
  if (!s) return TAVRIN_FAIL;
  std::vector<JrnProblem> problems;
  int made = 0;
  int done = jrn_undo(s, path, e, &problems, &why, &made);
  dbclose(s);
  if (done == JRN_UNDO_CHANGED) {
    term_error("change %d cannot be undone: the rows changed since; nothing was written\n%s",
               number, problem_text(e, problems).c_str());
    return TAVRIN_FAIL;
  }
  if (done != JRN_UNDO_DONE) {
    term_error("change %d was not undone: %s", number, why.c_str());
    return TAVRIN_FAIL;
  }
  std::string out = (yes ? plan : std::string()) + "Change " + std::to_string(number) +
                    " undone; the undo is change " + std::to_string(made) + ".\n";
  return term_write(stdout, out) ? TAVRIN_OK : TAVRIN_FAIL;
}
