// The viewer's row limit and result budget (see resultlimit.h).
#include "app/resultlimit.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/ini.h"
#include "db/access/session.h"
#include "db/client/resdata.h"
#include "framework/place.h"

namespace {

constexpr size_t MB = 1000000;

// The positive number of INI key `key`, 0 when the key is missing or holds
// anything else (a line "[key]value", blanks around the value allowed).
long ini_number(const char *key) {
  const char *line = INI_GetLine(myfl_get_appl_name(), key);
  if (!line) return 0;
  const char *p = std::strchr(line, ']');
  if (!p) return 0;
  char *end = nullptr;
  long n = std::strtol(p + 1, &end, 10);
  if (end == p + 1) return 0;
  while (*end == ' ' || *end == '\t' || *end == '\r' || *end == '\n') ++end;
  return *end == '\0' && n > 0 ? n : 0;
}

// Sends a statement whose answer is only "done"; 1 when it was done.
int run_done(DBSESSION *session, const std::string &stmt) {
  DBRESULT *r = nullptr;
  int outcome = 0;
  int ok = dbexec1(session, stmt.c_str(), &r, &outcome) && outcome == DBOUT_DONE;
  dbclear(session, r);
  return ok;
}

} // namespace

long zentiq_result_settings() {
  long mb = ini_number(ZQ_INI_BUDGET_MB);
  DBset_result_budget(
      mb > 0 && static_cast<unsigned long>(mb) < SIZE_MAX / MB ? static_cast<size_t>(mb) * MB : 0);
  long rows = ini_number(ZQ_INI_ROW_LIMIT);
  return rows > 0 ? rows : ZQ_DEFAULT_ROW_LIMIT;
}

int zentiq_run_limited(DBSESSION *session, const std::string &stmt, long max_rows,
                       DBRESULT **result, std::string *too_large, std::string *why) {
  *result = nullptr;
  too_large->clear();
  why->clear();
  if (!run_done(session, "MAX " + std::to_string(max_rows) + ";")) return 0;
  int outcome = 0;
  int ran = dbexec1(session, stmt.c_str(), result, &outcome) && outcome != DBOUT_REFUSED;
  if (!ran) {
    // The reason, for the box that tells the user: the result's error, else
    // the connection's message (the parser refused the statement).
    const char *text = *result                          ? DBresult_error(*result)
                       : session && session->connection ? DBerrormessage(session->connection)
                                                        : nullptr;
    *why = text ? text : "";
    while (!why->empty() && (why->back() == '\n' || why->back() == '\r')) why->pop_back();
    if (*result) *too_large = zentiq_too_large_text(why->c_str());
  }
  // Set back whatever happened: the channel keeps MAX for every later
  // statement, also the detail dialog's and another action's.
  int reset = run_done(session, "MAX;");
  if (!ran || !reset) {
    dbclear(session, *result);
    *result = nullptr;
    return 0;
  }
  return 1;
}

std::string zentiq_group_digits(long n) {
  std::string digits = std::to_string(n < 0 ? -n : n);
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i && (digits.size() - i) % 3 == 0) out += ' ';
    out += digits[i];
  }
  return n < 0 ? "-" + out : out;
}

std::string zentiq_too_large_text(const char *error) {
  unsigned long rows = 0, mb = 0;
  int used = 0;
  if (!error ||
      std::sscanf(error, "result too large: %lu rows read, budget %lu MB%n", &rows, &mb, &used) !=
          2 ||
      used == 0)
    return "";
  return "Ergebnis zu groß: " + zentiq_group_digits(static_cast<long>(rows)) +
         " Zeilen gelesen, Budget " + zentiq_group_digits(static_cast<long>(mb)) + " MB";
}
