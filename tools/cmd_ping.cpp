// tavrin ping (see cmd_ping.h).
#include "tools/cmd_ping.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "db/access/session.h"
#include "tools/cmd_sql.h"
#include "tools/commands.h"
#include "tools/term.h"

int cmd_ping(int argc, char **argv) {
  std::vector<std::string> rest;
  char name[DBSESSION_NAME_MAX + 1] = "";
  ARGV_GetDB_Name(argv, argc, name);
  for (int i = 1; i < argc; ++i)
    if (std::string(argv[i]).rfind("-db", 0) != 0)
      return tavrin_usage_error(*tavrin_find_command("ping"), "unexpected argument '%s'",
                                term_to_latin1(argv[i]).c_str());
  DBSESSION *s = tavrin_open_session(argc, argv, rest);
  if (!s) return TAVRIN_FAIL;
  DBRESULT *r = nullptr;
  int outcome = 0;
  auto t0 = std::chrono::steady_clock::now();
  int ok = dbexec1(s, "SHOW DATABASES", &r, &outcome);
  auto t1 = std::chrono::steady_clock::now();
  if (!ok || outcome != DBOUT_TUPLES) {
    dbclear(s, r);
    dbclose(s);
    return TAVRIN_FAIL;
  }
  double ms = std::chrono::duration<double, std::milli>(t1 - t0).count();
  char head[200];
  std::snprintf(head, sizeof head, "TAVRIN server on database %s answered in %.3f ms\n",
                s->connection->database, ms);
  std::string out = head;
  out += "Databases:";
  for (int i = 0; i < dbntuples(s, r); ++i) {
    const char *v = dbgetvalue(s, r, i, 0);
    out += std::string(" ") + (v ? v : "");
  }
  out += "\n";
  dbclear(s, r);
  dbclose(s);
  return term_write(stdout, out) ? TAVRIN_OK : TAVRIN_FAIL;
}
