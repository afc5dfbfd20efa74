// Key directories (see svz.h).
#include "db/access/svz.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>

#include "base/data.h"
#include "base/msg.h"
#include "base/valstr.h"
#include "db/access/tablerec.h"

namespace {

std::unordered_map<std::string, SVZT> g_svzt_cache;
std::unordered_map<std::string, SVZK> g_svzk_cache;
long g_queries = 0;

const TABLE_DEF &svzt_def() {
  static const TABLE_DEF def = [] {
    TABLE_DEF d;
    TABLE_Parse(SVZT_Definition(), &d);
    return d;
  }();
  return def;
}

const TABLE_DEF &svzk_def() {
  static const TABLE_DEF def = [] {
    TABLE_DEF d;
    TABLE_Parse(SVZK_Definition(), &d);
    return d;
  }();
  return def;
}

// The text of a value inside an SQL literal (the quotes left out).
std::string inner(const std::string &value) {
  std::string q = TABLE_Quote(value);
  return q.substr(1, q.size() - 2);
}

std::string trimmed(const char *s, size_t max) {
  std::string t(s ? s : "");
  while (!t.empty() && t.back() == ' ') t.pop_back();
  if (t.size() > max) t.resize(max);
  return t;
}

std::string svzt_key(const char *language, int svz) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s%5d", language, svz);
  return buf;
}

std::string svzk_key(const char *language, const std::string &value, int svz) {
  char num[16];
  std::snprintf(num, sizeof num, "%5d", svz);
  return std::string(language) + value + num;
}

// Runs a query and fills `rec` from its last row. Returns 1 when a row came
// back.
int query_last(DBSESSION *session, const std::string &query, const TABLE_DEF &def, void *rec) {
  ++g_queries;
  DBRESULT *res = nullptr;
  int outcome = 0;
  if (!dbexec1(session, query.c_str(), &res, &outcome) || outcome != DBOUT_TUPLES) {
    dbclear(session, res);
    return 0;
  }
  int n = dbntuples(session, res);
  TABLE_Record_Init(def, rec);
  for (int r = 0; r < n; ++r) TABLE_Record_FromRow(def, res, r, rec);
  dbclear(session, res);
  return n > 0;
}

// The heading of directory svz in the session's language, from the cache or
// the database. Null when there is none.
const SVZT *heading(DBSESSION *session, int svz) {
  std::string key = svzt_key(session->language, svz);
  auto it = g_svzt_cache.find(key);
  if (it != g_svzt_cache.end()) return &it->second;
  char q[200];
  std::snprintf(q, sizeof q, "SELECT * FROM SVZT WHERE  SPRACHE  = '%s' AND    TABELLE  = %d",
                inner(session->language).c_str(), svz);
  SVZT rec;
  if (!query_last(session, q, svzt_def(), &rec)) return nullptr;
  return &g_svzt_cache.emplace(key, rec).first->second;
}

// The entry of `value` (a code, or with by_text a text) in directory svz,
// from the cache or the database. Null when there is none.
const SVZK *entry(DBSESSION *session, const std::string &value, int svz, bool by_text) {
  std::string key = svzk_key(session->language, value, svz);
  auto it = g_svzk_cache.find(key);
  if (it != g_svzk_cache.end()) return &it->second;
  std::string lang = inner(session->language);
  char num[16];
  std::snprintf(num, sizeof num, "%d", svz);
  std::string q = by_text ? "SELECT * FROM SVZK WHERE  BEZEICHNUNG = '" + inner(value) +
                                "' AND    SPRACHE     = '" + lang + "' AND    TABELLE     = " + num
                          : "SELECT * FROM SVZK WHERE  CODE     = '" + inner(value) +
                                "' AND    SPRACHE  = '" + lang + "' AND    TABELLE  = " + num;
  SVZK rec;
  if (!query_last(session, q, svzk_def(), &rec)) return nullptr;
  return &g_svzk_cache.emplace(key, rec).first->second;
}

void open_level(DBSESSION *session) {
  if (!dbbegin(session)) db_backend_failure();
}
void close_level(DBSESSION *session) {
  if (!dbend(session)) db_backend_failure();
}

// SVZ_GetText's work; *found tells whether the code has an entry.
int get_text(DBSESSION *session, const char *code, int svz, char *text, bool *found) {
  *found = false;
  open_level(session);
  if (!heading(session, svz)) {
    msg_print("(SVZ_GetText) Warning: SVZ %d not found!\n", svz);
    std::strcpy(text, "????");
    close_level(session);
    return 1;
  }
  std::string c = trimmed(code, 4);
  const SVZK *e = entry(session, c, svz, false);
  if (e) {
    *found = true;
    my_strncpy(text, e->Bezeichnung, 35);
  } else {
    std::strcpy(text, c.c_str());
  }
  close_level(session);
  return 1;
}

} // namespace

const char *const SVZT_COLUMNS =
    "SVZT_Id,Tabelle,Tab_Uebergeordnet,Sprache,Bezeichnung,SVZT_TSt_Ab";
const char *const SVZK_COLUMNS =
    "SVZK_Id,Code,Sprache,Code_Uebergeordnet,SVZK_Sysstatus,Tabelle,Bezeichnung";

const char *SVZT_Definition() {
  static const std::string text = [] {
    TABLE_DEF d;
    d.table = 100;
    d.size = static_cast<int>(sizeof(SVZT));
    d.attribs = {
        {"SVZT_Id", DT_STRING, 9, static_cast<int>(offsetof(SVZT, SVZT_Id))},
        {"Tabelle", DT_SHORT, 2, static_cast<int>(offsetof(SVZT, Tabelle))},
        {"Tab_Uebergeordnet", DT_SHORT, 2, static_cast<int>(offsetof(SVZT, Tab_Uebergeordnet))},
        {"Sprache", DT_STRING, 5, static_cast<int>(offsetof(SVZT, Sprache))},
        {"Bezeichnung", DT_STRING, 36, static_cast<int>(offsetof(SVZT, Bezeichnung))},
        {"SVZT_TSt_Ab", DT_DATI, 12, static_cast<int>(offsetof(SVZT, SVZT_TSt_Ab))}};
    return TABLE_Text(d);
  }();
  return text.c_str();
}

const char *SVZK_Definition() {
  static const std::string text = [] {
    TABLE_DEF d;
    d.table = 101;
    d.size = static_cast<int>(sizeof(SVZK));
    d.attribs = {
        {"SVZK_Id", DT_STRING, 9, static_cast<int>(offsetof(SVZK, SVZK_Id))},
        {"Code", DT_STRING, 5, static_cast<int>(offsetof(SVZK, Code))},
        {"Sprache", DT_STRING, 5, static_cast<int>(offsetof(SVZK, Sprache))},
        {"Code_Uebergeordnet", DT_STRING, 5, static_cast<int>(offsetof(SVZK, Code_Uebergeordnet))},
        {"SVZK_Sysstatus", DT_SHORT, 2, static_cast<int>(offsetof(SVZK, SVZK_Sysstatus))},
        {"Tabelle", DT_SHORT, 2, static_cast<int>(offsetof(SVZK, Tabelle))},
        {"Bezeichnung", DT_STRING, 36, static_cast<int>(offsetof(SVZK, Bezeichnung))}};
    return TABLE_Text(d);
  }();
  return text.c_str();
}

int SVZ_GetText(DBSESSION *session, const char *code, int svz, char *text) {
  bool found;
  return get_text(session, code, svz, text, &found);
}

int SVZ_GetCode(DBSESSION *session, const char *text, int svz, char *code) {
  open_level(session);
  if (!heading(session, svz)) {
    msg_print("(SVZ_GetText) Warning: SVZ %d not found!\n", svz);
    std::strcpy(code, "????");
    close_level(session);
    return 1;
  }
  std::string t = trimmed(text, 35);
  const SVZK *e = entry(session, t, svz, true);
  if (e) {
    my_strncpy(code, e->Code, 4);
  } else {
    msg_print("(SVZ_GetText) Warning: SVZ-item in SVZ %d for text '%s' not found\n", svz,
              t.c_str());
    std::strcpy(code, "????");
  }
  close_level(session);
  return 1;
}

char *Make_KeyString(DBSESSION *session, const char *code, int svz) {
  std::string c = code ? code : "";
  if (c.empty() || c == "    ") return Make_TempString("");
  char text[64];
  bool found;
  get_text(session, code, svz, text, &found);
  if (!found) {
    msg_print("(Make_KeyString) Warning: SVZ-text for code '%s' in svz %d unknown!\n", code, svz);
    return Make_TempString(code);
  }
  return Make_TempString(text);
}

long SVZ_Queries() { return g_queries; }

void SVZ_ClearCaches() {
  g_svzt_cache.clear();
  g_svzk_cache.clear();
}
