// Error and message texts, the ERROT and ERR table modules (see errtext.h).
#include "db/access/errtext.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/random.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include "base/data.h"
#include "base/date.h"
#include "base/msg.h"

namespace {

// Attempts at writing an ERR row with a fresh ROW_Id. Row ids are drawn from
// 185^8 (about 2^60) values, so a taken one is rare; attempts beyond these
// show that the insert fails for another reason, and the entry is given up.
constexpr int ERR_ATTEMPTS_INTERNAL = 9;
constexpr int ERR_ATTEMPTS_MAX = 1000;
// Characters of Fehlertext that are stored.
constexpr size_t ERR_TEXT_MAX = 254;

// The definition text of a record type from its layout.
std::string make_definition(int table, int size, const std::vector<TABLE_ATTRIB> &attribs) {
  TABLE_DEF d;
  d.table = table;
  d.size = size;
  d.attribs = attribs;
  return TABLE_Text(d);
}

const TABLE_DEF &errot_def() {
  static const TABLE_DEF def = [] {
    TABLE_DEF d;
    TABLE_Parse(ERROT_Definition(), &d);
    return d;
  }();
  return def;
}

const TABLE_DEF &err_def() {
  static const TABLE_DEF def = [] {
    TABLE_DEF d;
    TABLE_Parse(ERR_Definition(), &d);
    return d;
  }();
  return def;
}

// The characters of a ROW_Id: every printable Latin-1 character that the
// CHARACTER column keeps as it is, except the blank (trailing blanks do not
// count when texts are compared), the quotes and the backslash (a TABLE file
// load blanks double quotes in key attributes, and typed keys need no
// escapes), and the invisible soft hyphen. 185 characters.
const std::string &row_id_alphabet() {
  static const std::string alphabet = [] {
    std::string a;
    for (int c = 0x21; c <= 0xFF; ++c)
      if ((c < 0x7F || c > 0xA0) && c != '"' && c != '\'' && c != '\\' && c != 0xAD)
        a += static_cast<char>(c);
    return a;
  }();
  return alphabet;
}

// The current local time as a timestamp.
DATI now() {
  DATI d{};
  DATE day;
  TIME t;
  DATE_Today(&day);
  TIME_Now(&t);
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  d.year = day.year;
  d.month = day.month;
  d.day = day.day;
  d.hour = t.hour;
  d.minute = t.minute;
  d.second = t.second;
  d.usec = static_cast<int32_t>(tv.tv_usec);
  return d;
}

// Writes one ERR row for the context, drawing a new ROW_Id for every
// attempt, at most `attempts` times. Returns 1 when a row was written.
int write_err(BASECTX *ctx, int code, const std::string &text, int attempts) {
  ERR rec;
  ERR_Init(&rec);
  std::snprintf(rec.Prozess_Id, sizeof rec.Prozess_Id, "%s", ctx->process_id);
  rec.Zeitpunkt = now();
  rec.Fehlercode = static_cast<int16_t>(code);
  std::string t = text.substr(0, ERR_TEXT_MAX);
  std::memcpy(rec.Fehlertext, t.c_str(), t.size() + 1);
  for (int i = 0; i < attempts; ++i) {
    if (!ERR_NewRowId(rec.ROW_Id)) break;
    if (ERR_Do(ctx->session, DB_INSERT, &rec)) return 1;
    if (!dbstatus(ctx->session)) break; // no connection: no further try can succeed
  }
  return 0;
}

// Fills a record from the only row of a result, with the module's messages.
int fill_one(DBSESSION *session, DBRESULT *result, int outcome, const TABLE_DEF &def, void *rec,
             const char *who) {
  if (session->disabled) return 1;
  if (outcome != DBOUT_TUPLES) {
    msg_print("%s: Status is not DB_TUPLES_OK!\n", who);
    return 0;
  }
  if (dbntuples(session, result) != 1) {
    msg_print("%s: None or more than one resulttuple!\n", who);
    return 0;
  }
  TABLE_Record_FromRow(def, result, 0, rec);
  return 1;
}

// Runs a SELECT whose rest is `rest` and fills the record from its one row.
int select_one(DBSESSION *session, const std::string &rest, const TABLE_DEF &def, void *rec,
               const char *who) {
  DBRESULT *res = nullptr;
  int outcome = 0;
  if (!dbexec(session, "SELECT", rest.c_str(), &res, &outcome)) {
    dbclear(session, res);
    return 0;
  }
  int ok = fill_one(session, res, outcome, def, rec, who);
  dbclear(session, res);
  return ok;
}

// The shared operations of the two table modules.
int table_do(DBSESSION *session, int iDB, const TABLE_DEF &def, const char *table,
             const char *key_name, const char *key, void *rec, const char *who) {
  std::string cond = std::string(key_name) + "=" + TABLE_Quote(key);
  switch (iDB) {
  case DB_SELECT: {
    std::string fill = std::string(who) + "_Fill";
    return select_one(session, std::string("* FROM ") + table + " WHERE " + cond, def, rec,
                      fill.c_str());
  }
  case DB_INSERT:
    return dbinsert(session, table, TABLE_Record_InsertText(def, rec).c_str(), nullptr, nullptr);
  case DB_UPDATE: {
    // "(a, b) VALUES (x, y)" turned into "a=x, b=y" through the same literals.
    std::string sets;
    const auto *r = static_cast<const unsigned char *>(rec);
    for (const auto &a : def.attribs) {
      TABLE_DEF one = def;
      one.attribs = {a};
      std::string t = TABLE_Record_InsertText(one, r);
      std::string value = t.substr(t.find(" VALUES (") + 9);
      value.pop_back();
      sets += (sets.empty() ? "" : ", ") + a.name + "=" + value;
    }
    return dbupdate(session, table, (sets + " WHERE " + cond).c_str(), nullptr, nullptr);
  }
  case DB_DELETE:
    return dbdelete(session, table, cond.c_str(), nullptr, nullptr);
  default:
    msg_print("%s_Do: 'iDB'-code unknown!\n", who);
    return 0;
  }
}

int log_internal(BASECTX *ctx, const char *format, const char *text, int attempts) {
  if (!dbbegin(ctx->session)) db_backend_failure();
  std::vector<char> buf(std::strlen(text) + std::strlen(format) + 1);
  std::snprintf(buf.data(), buf.size(), format, text);
  msg_print("%s\n", buf.data());
  write_err(ctx, 0, buf.data(), attempts);
  if (!dbend(ctx->session)) db_backend_failure();
  ++ctx->errors;
  return 1;
}

} // namespace

const char *const ERROT_COLUMNS = "ERROT_Id,Fehlernummer,Sprache,Kuerzel,Text";
const char *const ERR_COLUMNS = "ROW_Id,Prozess_Id,Zeitpunkt,Fehlercode,Funktionsname,Fehlertext";
const char *const ERROT_QUERY_ALL = "SELECT * FROM ERROT ";
const char *const ERR_QUERY_ALL = "SELECT * FROM ERR ";

int ERR_NewRowId(char *id) {
  const std::string &alphabet = row_id_alphabet();
  size_t n = 0;
  while (n < ERR_ROW_ID_LEN) {
    // Bytes beyond the alphabet's last multiple are passed over, so that
    // every character is equally likely.
    unsigned char bytes[16];
    ssize_t got = getrandom(bytes, sizeof bytes, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      msg_print("(ERR_NewRowId) No random source: %s!\n", std::strerror(errno));
      id[0] = 0;
      return 0;
    }
    for (ssize_t i = 0; i < got && n < ERR_ROW_ID_LEN; ++i)
      if (bytes[i] < alphabet.size()) id[n++] = alphabet[bytes[i]];
  }
  id[n] = 0;
  return 1;
}

int BASECTX_Init(BASECTX *ctx, DBSESSION *session) {
  ctx->session = session;
  ctx->errors = 0;
  std::snprintf(ctx->process_id, sizeof ctx->process_id, "%08X%08X",
                static_cast<unsigned>(getpid()), static_cast<unsigned>(std::time(nullptr)));
  return 1;
}

int ERROR_Do1(const ERRPARAM *p, std::string &text) {
  char buf[400];
  if (p->as_text) {
    switch (p->type) {
    case DT_STRING:
    case DT_KEY:
    case DT_HKEY:
      text = static_cast<const char *>(p->value);
      return 1;
    case DT_FLOAT:
    case DT_DOUBLE:
      std::snprintf(buf, sizeof buf, "%.*f", p->precision, *static_cast<const double *>(p->value));
      break;
    case DT_SHORT:
    case DT_INT:
    case DT_LONG:
    case DT_USHORT:
    case DT_UINT:
    case DT_ULONG:
      std::snprintf(buf, sizeof buf, "%d", *static_cast<const int *>(p->value));
      break;
    case DT_LOGICAL:
      text = *static_cast<const int *>(p->value) == 1 ? "Ja" : "Nein";
      return 1;
    default:
      std::snprintf(buf, sizeof buf, "%c", *static_cast<const char *>(p->value));
      break;
    }
    text = buf;
    return 1;
  }
  const auto *v = static_cast<const unsigned char *>(p->value);
  switch (p->type) {
  case DT_STRING:
  case DT_KEY:
  case DT_HKEY:
    text = reinterpret_cast<const char *>(v);
    return 1;
  case DT_CHAR:
    text = std::string(1, static_cast<char>(*v));
    return 1;
  case DT_LOGICAL:
    text = *v == 1 ? "Ja" : "Nein";
    return 1;
  case DT_SHORT: {
    int16_t x;
    std::memcpy(&x, v, 2);
    text = std::to_string(x);
    return 1;
  }
  case DT_USHORT: {
    uint16_t x;
    std::memcpy(&x, v, 2);
    text = std::to_string(x);
    return 1;
  }
  case DT_INT:
  case DT_LONG: {
    int32_t x;
    std::memcpy(&x, v, 4);
    text = std::to_string(x);
    return 1;
  }
  case DT_UINT:
  case DT_ULONG: {
    uint32_t x;
    std::memcpy(&x, v, 4);
    text = std::to_string(x);
    return 1;
  }
  case DT_FLOAT: {
    float x;
    std::memcpy(&x, v, 4);
    text = std::to_string(static_cast<long long>(x));
    return 1;
  }
  case DT_DOUBLE: {
    double x;
    std::memcpy(&x, v, 8);
    text = std::to_string(static_cast<long long>(x));
    return 1;
  }
  case DT_DATE: {
    DATE d;
    std::memcpy(&d, v, sizeof d);
    DATE_ToIsoString(&d, buf);
    text = buf;
    return 1;
  }
  case DT_TIME: {
    TIME t;
    std::memcpy(&t, v, sizeof t);
    TIME_ToString(&t, buf);
    text = buf;
    return 1;
  }
  case DT_DATI:
  case DT_DURA: {
    DATI d;
    std::memcpy(&d, v, sizeof d);
    DATI_ToString(&d, buf, DATI_DEFAULT);
    text = buf;
    return 1;
  }
  default:
    // Programming error (a call the code must never make): fatal by design.
    msg_fatal("(ERROR_Do1) Error: Unknown typeid '%d'!\n", p->type);
  }
}

std::string ERROR_Expand(const std::string &text, int number,
                         const std::vector<std::string> &params) {
  std::string out;
  size_t next = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '$') {
      out += text[i];
      continue;
    }
    while (i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '9') ++i;
    if (next >= params.size()) {
      msg_print("Warning: Missing parameters (error-number '%d')!\n", number);
      return text;
    }
    out += params[next++];
  }
  if (next < params.size())
    msg_print("Warning: Too many parameters (error-number '%d')!\n", number);
  return out;
}

int ERROR_Do(BASECTX *ctx, int is_error, int number, int count, ...) {
  std::vector<std::string> params;
  va_list ap;
  va_start(ap, count);
  for (int i = 0; i < count; ++i) {
    const auto *p = va_arg(ap, const ERRPARAM *);
    std::string t;
    ERROR_Do1(p, t);
    params.push_back(t);
  }
  va_end(ap);
  if (!dbbegin(ctx->session)) db_backend_failure();
  msg_print(is_error ? "Error %d: " : "Warning %d: ", number);
  ++ctx->errors;
  ERROT rec;
  if (!ERROT_Get(ctx->session, number, ctx->session->language, &rec)) {
    msg_print("Error: Error-message for error-number '%d' not found!\n", number);
  } else {
    std::string text = ERROR_Expand(rec.Text, number, params);
    msg_print("%s\n", text.c_str());
    write_err(ctx, number, text, ERR_ATTEMPTS_MAX);
  }
  if (!dbend(ctx->session)) db_backend_failure();
  return 1;
}

int ERR_Internal(BASECTX *ctx, const char *text) {
  return log_internal(ctx, "ERR_Internal: '%s'!", text, ERR_ATTEMPTS_INTERNAL);
}

int INFO_Internal(BASECTX *ctx, const char *text) {
  return log_internal(ctx, "INFO_Internal: '%s'!", text, ERR_ATTEMPTS_MAX);
}

// ---- Table modules ------------------------------------------------------------

const char *ERROT_Definition() {
  static const std::string text = make_definition(
      103, static_cast<int>(sizeof(ERROT)),
      {{"ERROT_Id", DT_STRING, 9, static_cast<int>(offsetof(ERROT, ERROT_Id))},
       {"Fehlernummer", DT_SHORT, 2, static_cast<int>(offsetof(ERROT, Fehlernummer))},
       {"Sprache", DT_STRING, 5, static_cast<int>(offsetof(ERROT, Sprache))},
       {"Kuerzel", DT_STRING, 36, static_cast<int>(offsetof(ERROT, Kuerzel))},
       {"Text", DT_STRING, 255, static_cast<int>(offsetof(ERROT, Text))}});
  return text.c_str();
}

const char *ERR_Definition() {
  static const std::string text = make_definition(
      102, static_cast<int>(sizeof(ERR)),
      {{"ROW_Id", DT_STRING, 9, static_cast<int>(offsetof(ERR, ROW_Id))},
       {"Prozess_Id", DT_STRING, 17, static_cast<int>(offsetof(ERR, Prozess_Id))},
       {"Zeitpunkt", DT_DATI, 12, static_cast<int>(offsetof(ERR, Zeitpunkt))},
       {"Fehlercode", DT_SHORT, 2, static_cast<int>(offsetof(ERR, Fehlercode))},
       {"Funktionsname", DT_STRING, 9, static_cast<int>(offsetof(ERR, Funktionsname))},
       {"Fehlertext", DT_STRING, 255, static_cast<int>(offsetof(ERR, Fehlertext))}});
  return text.c_str();
}

void ERROT_Init(ERROT *rec) { TABLE_Record_Init(errot_def(), rec); }
void ERR_Init(ERR *rec) { TABLE_Record_Init(err_def(), rec); }

int ERROT_Fill(DBSESSION *session, DBRESULT *result, int outcome, ERROT *rec) {
  return fill_one(session, result, outcome, errot_def(), rec, "ERROT_Fill");
}

int ERR_Fill(DBSESSION *session, DBRESULT *result, int outcome, ERR *rec) {
  return fill_one(session, result, outcome, err_def(), rec, "ERR_Fill");
}

int ERROT_Get(DBSESSION *session, int number, const char *language, ERROT *rec) {
  ERROT_Init(rec);
  char rest[200];
  std::snprintf(rest, sizeof rest, "* FROM errot WHERE Fehlernummer=%d AND Sprache='%s'", number,
                language);
  return select_one(session, rest, errot_def(), rec, "ERROT_Fill");
}

int ERROT_Do(DBSESSION *session, int iDB, ERROT *rec) {
  return table_do(session, iDB, errot_def(), "ERROT", "ERROT_Id", rec->ERROT_Id, rec, "ERROT");
}

int ERR_Do(DBSESSION *session, int iDB, ERR *rec) {
  if (iDB != DB_INSERT && iDB >= DB_SELECT && iDB <= DB_DELETE && !ERR_CmpLk(rec)) return 0;
  return table_do(session, iDB, err_def(), "ERR", "ROW_Id", rec->ROW_Id, rec, "ERR");
}

int ERR_CmpLk(const ERR *rec) {
  if (rec->ROW_Id[0] == 0) {
    msg_print("ERR_CmpLk: No logical key!\n");
    return 0;
  }
  return 1;
}

std::string ERROT_Query_Number(const char *language, int number) {
  char buf[200];
  std::snprintf(buf, sizeof buf,
                "SELECT * FROM ERROT WHERE  SPRACHE      = '%s' AND    FEHLERNUMMER = %d", language,
                number);
  return buf;
}

std::string ERROT_Query_Like(const char *language, const char *pattern) {
  return std::string("SELECT * FROM ERROT WHERE  SPRACHE      = '") + language +
         "' AND    TEXT      LIKE " + TABLE_Quote(pattern);
}
