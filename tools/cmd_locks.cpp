// tavrin locks (see cmd_locks.h).
#include "tools/cmd_locks.h"

#include <algorithm>
#include <string>
#include <vector>

#include "db/access/session.h"
#include "db/client/reqbuf.h"
#include "db/wire/wire.h"
#include "tools/cmd_sql.h"
#include "tools/commands.h"
#include "tools/term.h"

int cmd_locks(int argc, char **argv) {
  std::vector<std::string> rest;
  for (int i = 1; i < argc; ++i)
    if (std::string(argv[i]).rfind("-db", 0) != 0)
      return tavrin_usage_error(*tavrin_find_command("locks"), "unexpected argument '%s'",
                                term_to_latin1(argv[i]).c_str());
  DBSESSION *s = tavrin_open_session(argc, argv, rest);
  if (!s) return TAVRIN_FAIL;
  DBreq_reset();
  DBreq_byte(DBREQ_LOCKS);
  DBRESULT *r = nullptr;
  int outcome = 0;
  if (!dbbinexec1(s, &r, &outcome) || outcome != DBOUT_TUPLES || dbnfields(s, r) != 6) {
    dbclear(s, r);
    dbclose(s);
    return TAVRIN_FAIL;
  }
  // The server's columns: state, database, channel, process, user, since.
  std::vector<std::vector<std::string>> rows = {
      {"STATE", "DATABASE", "CHANNEL", "PROCESS", "USER", "SINCE"}};
  for (int i = 0; i < dbntuples(s, r); ++i) {
    std::vector<std::string> row;
    for (int j = 0; j < 6; ++j) {
      const char *v = dbgetvalue(s, r, i, j);
      row.push_back(v ? v : "");
    }
    row[0] = row[0] == "HAELT" ? "holds" : "waits";
    rows.push_back(row);
  }
  dbclear(s, r);
  dbclose(s);
  std::vector<size_t> width(6, 0);
  for (const auto &row : rows)
    for (size_t j = 0; j < 6; ++j) width[j] = std::max(width[j], row[j].size());
  std::string out;
  for (const auto &row : rows) {
    std::string line;
    for (size_t j = 0; j < 6; ++j) {
      line += row[j];
      if (j + 1 < 6) line += std::string(width[j] - row[j].size() + 2, ' ');
    }
    out += line + "\n";
  }
  if (rows.size() == 1) out += "No client holds or waits for a lock.\n";
  return term_write(stdout, out) ? TAVRIN_OK : TAVRIN_FAIL;
}
