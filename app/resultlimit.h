// How big the viewer's results may get: the row limit (the server's MAX, set
// around each query the user runs and set back after it) and the result
// budget of the client library, both read from the viewer's INI file
// ("zentiq.ini") at every query, so that a change there applies to the next
// one; and the texts that tell the user a result was cut or refused.
//
// Opening and ending the level around a query, and showing boxes, are
// mainform.h's; the budget itself is enforced by db/client (resdata.h).
#pragma once

#include <string>

struct DBSESSION;
struct DBRESULT;

// Rows a result shows when the INI file does not say otherwise.
constexpr long ZQ_DEFAULT_ROW_LIMIT = 1000000;
// INI keys: "[Ergebnis_Zeilen]<rows>" and "[Ergebnis_MB]<megabytes>".
constexpr const char *ZQ_INI_ROW_LIMIT = "Ergebnis_Zeilen";
constexpr const char *ZQ_INI_BUDGET_MB = "Ergebnis_MB";

// Reads both settings: sets the client library's result budget to the INI's
// megabytes (of 1 000 000 bytes), or back to the library's default when the
// key is missing or not a positive number, and returns the row limit (the
// INI's positive number, else ZQ_DEFAULT_ROW_LIMIT).
long zentiq_result_settings();

// Runs the query `stmt` inside the level the caller has open, with the
// channel's MAX set to `max_rows` before and set back to none after it, also
// when the query failed. Returns 1 with its result in *result (the caller
// clears it). Returns 0 with *result null when MAX could not be set (the
// query is then not sent), the query failed or MAX could not be set back;
// *too_large then holds the German text of a result the budget refused, else
// it is empty, and *why the reason the server or the parser gave (one line,
// empty when there was none).
int zentiq_run_limited(DBSESSION *session, const std::string &stmt, long max_rows,
                       DBRESULT **result, std::string *too_large, std::string *why);

// `n` with a space between groups of three digits: "1 000 000".
std::string zentiq_group_digits(long n);

// The German text of the client library's budget error "result too large: N
// rows read, budget B MB": "Ergebnis zu groß: N Zeilen gelesen, Budget B MB".
// "" for any other text or null.
std::string zentiq_too_large_text(const char *error);
