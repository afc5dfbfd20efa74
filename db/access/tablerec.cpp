// Table records through their definition text (see tablerec.h).
#include "db/access/tablerec.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "base/data.h"
#include "base/date.h"
#include "base/valstr.h"
#include "db/client/reqbuf.h"

namespace {

bool is_text_type(int t) { return t == DT_STRING || t == DT_KEY || t == DT_HKEY; }
bool is_int_type(int t) { return (t >= DT_SHORT && t <= DT_ULONG) || t == DT_LOGICAL; }
bool is_float_type(int t) { return t == DT_FLOAT || t == DT_DOUBLE; }

// Stores an integer into an integer attribute of type t.
void put_int(unsigned char *p, int t, int64_t v) {
  switch (t) {
  case DT_LOGICAL:
    *p = static_cast<unsigned char>(v);
    break;
  case DT_SHORT:
  case DT_USHORT: {
    auto x = static_cast<int16_t>(v);
    std::memcpy(p, &x, 2);
    break;
  }
  default: {
    auto x = static_cast<int32_t>(v);
    std::memcpy(p, &x, 4);
    break;
  }
  }
}

// Reads an integer attribute; sets *null when it holds its null marker.
int64_t get_int(const unsigned char *p, int t, bool *null) {
  *null = false;
  switch (t) {
  case DT_LOGICAL:
    return *p;
  case DT_SHORT: {
    int16_t x;
    std::memcpy(&x, p, 2);
    *null = x == NULL_SHORT;
    return x;
  }
  case DT_USHORT: {
    uint16_t x;
    std::memcpy(&x, p, 2);
    return x;
  }
  case DT_INT:
  case DT_LONG: {
    int32_t x;
    std::memcpy(&x, p, 4);
    *null = x == NULL_INT;
    return x;
  }
  default: {
    uint32_t x;
    std::memcpy(&x, p, 4);
    return x;
  }
  }
}

void put_float(unsigned char *p, int t, double v) {
  if (t == DT_FLOAT) {
    auto f = static_cast<float>(v);
    std::memcpy(p, &f, 4);
  } else {
    std::memcpy(p, &v, 8);
  }
}

double get_float(const unsigned char *p, int t) {
  if (t == DT_FLOAT) {
    float f;
    std::memcpy(&f, p, 4);
    return f;
  }
  double d;
  std::memcpy(&d, p, 8);
  return d;
}

// Stores a text into a text field of `size` bytes, cut and terminated.
void put_text(unsigned char *p, int size, const std::string &s) {
  if (size <= 0) return;
  size_t n = std::min(s.size(), static_cast<size_t>(size - 1));
  std::memcpy(p, s.data(), n);
  std::memset(p + n, 0, static_cast<size_t>(size) - n);
}

std::string get_text(const unsigned char *p, int size) {
  if (size <= 0) return {};
  const void *z = std::memchr(p, 0, static_cast<size_t>(size));
  size_t n = z ? static_cast<size_t>(static_cast<const unsigned char *>(z) - p)
               : static_cast<size_t>(size);
  return std::string(reinterpret_cast<const char *>(p), n);
}

// The null marker of a type into its field.
void put_null(unsigned char *p, const TABLE_ATTRIB &a) {
  switch (a.type) {
  case DT_SHORT:
    put_int(p, a.type, NULL_SHORT);
    break;
  case DT_INT:
  case DT_LONG:
    put_int(p, a.type, NULL_INT);
    break;
  case DT_FLOAT:
  case DT_DOUBLE:
    put_float(p, a.type, NULL_DOUBLE);
    break;
  case DT_DATE:
    std::memcpy(p, &NULL_DATE, sizeof(DATE));
    break;
  case DT_TIME:
    std::memcpy(p, &NULL_TIME, sizeof(TIME));
    break;
  case DT_DATI:
  case DT_DURA: {
    DATI d = NULL_DATI;
    std::memset(p, 0, sizeof(DATI));
    std::memcpy(p, &d, sizeof(DATI));
    break;
  }
  default:
    std::memset(p, 0, static_cast<size_t>(a.size));
    break;
  }
}

// Binary bytes in the escaped text form: printable bytes as they are ("$"
// and 0xA7 doubled), a single other byte "$HH", a run of others 0xA7, their
// hexadecimal pairs, 0xA7.
std::string escape_binary(const unsigned char *p, size_t n) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  auto printable = [](unsigned char c) { return c >= 32 && c <= 126; };
  for (size_t i = 0; i < n;) {
    unsigned char c = p[i];
    if (printable(c) || c == 0xA7) {
      out += static_cast<char>(c);
      if (c == '$' || c == 0xA7) out += static_cast<char>(c);
      ++i;
      continue;
    }
    size_t j = i;
    while (j < n && !printable(p[j]) && p[j] != 0xA7) ++j;
    if (j - i == 1) {
      out += '$';
      out += hex[c >> 4];
      out += hex[c & 15];
    } else {
      out += static_cast<char>(0xA7);
      for (size_t k = i; k < j; ++k) {
        out += hex[p[k] >> 4];
        out += hex[p[k] & 15];
      }
      out += static_cast<char>(0xA7);
    }
    i = j;
  }
  return out;
}

// The SQL literal of one attribute.
std::string literal(const unsigned char *p, const TABLE_ATTRIB &a) {
  char buf[64];
  switch (a.type) {
  case DT_STRING:
  case DT_KEY:
  case DT_HKEY:
    return TABLE_Quote(get_text(p, a.size));
  case DT_CHAR:
    return TABLE_Quote(p[0] ? std::string(1, static_cast<char>(p[0])) : "");
  case DT_LOGICAL:
  case DT_SHORT:
  case DT_INT:
  case DT_LONG:
  case DT_USHORT:
  case DT_UINT:
  case DT_ULONG: {
    bool null;
    int64_t v = get_int(p, a.type, &null);
    if (null) return "''";
    std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(v));
    return buf;
  }
  case DT_FLOAT:
  case DT_DOUBLE: {
    double v = get_float(p, a.type);
    if (DOUBLE_IsNull(v) || !std::isfinite(v)) return "''";
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return TABLE_Quote(buf);
  }
  case DT_DATE: {
    DATE d;
    std::memcpy(&d, p, sizeof d);
    if (DATE_IsNull(&d) || !DATE_IsValid(&d)) return "''";
    char t[DATE_BUFSIZE];
    DATE_ToIsoString(&d, t);
    return TABLE_Quote(t);
  }
  case DT_TIME: {
    TIME t;
    std::memcpy(&t, p, sizeof t);
    if (TIME_IsNull(&t) || !TIME_IsValid(&t)) return "''";
    char s[16];
    TIME_ToString(&t, s);
    return TABLE_Quote(s);
  }
  case DT_DATI:
  case DT_DURA: {
    DATI d;
    std::memcpy(&d, p, sizeof d);
    if (DATI_IsNull(&d) || !DATI_IsValid(&d)) return "''";
    char s[DATI_BUFSIZE];
    DATI_ToString(&d, s, DATI_DEFAULT);
    return TABLE_Quote(s);
  }
  case DT_BINARY: {
    uint16_t n;
    std::memcpy(&n, p, 2);
    size_t room = a.size > 2 ? static_cast<size_t>(a.size - 2) : 0;
    return TABLE_Quote(escape_binary(p + 2, std::min<size_t>(n, room)));
  }
  default:
    return "''";
  }
}

} // namespace

int TABLE_Parse(const char *definition, TABLE_DEF *def) {
  *def = TABLE_DEF{};
  if (std::sscanf(definition, "%d,%d", &def->table, &def->size) != 2) return 0;
  const char *p = std::strchr(definition, '|');
  while (p) {
    const char *next = std::strchr(p + 1, '|');
    std::string entry(p + 1, next ? static_cast<size_t>(next - p - 1) : std::strlen(p + 1));
    std::vector<char> name(entry.size() + 1);
    TABLE_ATTRIB a;
    if (std::sscanf(entry.c_str(), "%[^,],%d,%d,%d", name.data(), &a.type, &a.size, &a.idx) != 4)
      return 0;
    a.name = name.data();
    if (a.idx < 0 || a.size < 0 || static_cast<int64_t>(a.idx) + a.size > def->size) return 0;
    def->attribs.push_back(a);
    p = next;
  }
  return 1;
}

std::string TABLE_Text(const TABLE_DEF &def) {
  std::string s = std::to_string(def.table) + "," + std::to_string(def.size);
  for (const auto &a : def.attribs)
    s += "|" + a.name + "," + std::to_string(a.type) + "," + std::to_string(a.size) + "," +
         std::to_string(a.idx);
  return s;
}

int TABLE_Def_FromShow(DBRESULT *show, int table, TABLE_DEF *def) {
  *def = TABLE_DEF{};
  def->table = table;
  int pos = 4; // after the size field
  for (int r = 0; r < DBntuples(show); ++r) {
    const char *name = DBgetvalue(show, r, 0);
    const char *type = DBgetvalue(show, r, 1);
    const char *size = DBgetvalue(show, r, 2);
    if (!name || !type || !size) return 0;
    int n = std::atoi(size);
    TABLE_ATTRIB a;
    a.name = name;
    std::string t = type;
    if (t == "CHARACTER") {
      a.type = DT_STRING;
      a.size = n > 0 ? n : 1;
    } else if (t == "SMALLINT") {
      a.type = DT_SHORT;
      a.size = 2;
    } else if (t == "INTEGER") {
      a.type = DT_INT;
      a.size = 4;
    } else if (t == "FLOAT") {
      a.type = DT_DOUBLE;
      a.size = 8;
    } else if (t == "DATE") {
      a.type = DT_DATE;
      a.size = static_cast<int>(sizeof(DATE));
    } else if (t == "TIME") {
      a.type = DT_TIME;
      a.size = static_cast<int>(sizeof(TIME));
    } else if (t == "TIMESTAMP") {
      a.type = DT_DATI;
      a.size = static_cast<int>(sizeof(DATI));
    } else if (t == "BINARY") {
      a.type = DT_BINARY;
      a.size = n + 2;
    } else {
      return 0;
    }
    a.idx = pos;
    pos += a.size;
    def->attribs.push_back(a);
  }
  def->size = pos;
  return 1;
}

void TABLE_Record_Init(const TABLE_DEF &def, void *record) {
  auto *r = static_cast<unsigned char *>(record);
  std::memset(r, 0, static_cast<size_t>(def.size));
  int32_t size = def.size;
  std::memcpy(r, &size, 4);
  for (const auto &a : def.attribs) put_null(r + a.idx, a);
}

int TABLE_Record_FromRow(const TABLE_DEF &def, DBRESULT *result, int row, void *record) {
  auto *r = static_cast<unsigned char *>(record);
  int filled = 0;
  int ncols = DBnfields(result);
  for (const auto &a : def.attribs) {
    int col = -1;
    for (int c = 0; c < ncols; ++c) {
      const char *n = DBfieldname(result, c);
      if (n && strcasecmp(n, a.name.c_str()) == 0) {
        col = c;
        break;
      }
    }
    if (col < 0) continue;
    const auto *raw = static_cast<const unsigned char *>(DBgetrawvalue(result, row, col));
    if (!raw) continue;
    unsigned char *p = r + a.idx;
    int wt = DBfieldtype(result, col);
    bool done = true;
    switch (wt) {
    case DBFT_CHARACTER: {
      std::string s(reinterpret_cast<const char *>(raw));
      if (is_text_type(a.type))
        put_text(p, a.size, s);
      else if (a.type == DT_CHAR)
        *p = s.empty() ? 0 : static_cast<unsigned char>(s[0]);
      else if (is_float_type(a.type))
        put_float(p, a.type, s.empty() ? NULL_DOUBLE : std::strtod(s.c_str(), nullptr));
      else if (is_int_type(a.type))
        put_int(p, a.type, std::strtoll(s.c_str(), nullptr, 10));
      else if (a.type == DT_BINARY && a.size >= 2) {
        uint16_t n = static_cast<uint16_t>(std::min<size_t>(s.size(), size_t(a.size - 2)));
        std::memcpy(p, &n, 2);
        std::memcpy(p + 2, s.data(), n);
      } else
        done = false;
      break;
    }
    case DBFT_SMALLINT:
    case DBFT_INTEGER: {
      int64_t v;
      bool null;
      if (wt == DBFT_SMALLINT) {
        int16_t x;
        std::memcpy(&x, raw, 2);
        v = x;
        null = x == NULL_SHORT;
      } else {
        int32_t x;
        std::memcpy(&x, raw, 4);
        v = x;
        null = x == NULL_INT;
      }
      if (null && (is_int_type(a.type) || is_float_type(a.type) || is_text_type(a.type)))
        put_null(p, a);
      else if (is_int_type(a.type))
        put_int(p, a.type, v);
      else if (is_float_type(a.type))
        put_float(p, a.type, static_cast<double>(v));
      else if (is_text_type(a.type))
        put_text(p, a.size, std::to_string(v));
      else
        done = false;
      break;
    }
    case DBFT_FLOAT: {
      double v;
      std::memcpy(&v, raw, 8);
      if (DOUBLE_IsNull(v) &&
          (is_int_type(a.type) || is_float_type(a.type) || is_text_type(a.type)))
        put_null(p, a);
      else if (is_float_type(a.type))
        put_float(p, a.type, v);
      else if (is_int_type(a.type))
        put_int(p, a.type, static_cast<int64_t>(v));
      else if (is_text_type(a.type))
        put_text(p, a.size, DBgetvalue(result, row, col) ? DBgetvalue(result, row, col) : "");
      else
        done = false;
      break;
    }
    case DBFT_DATE:
    case DBFT_TIME:
    case DBFT_TIMESTAMP: {
      size_t n = wt == DBFT_DATE ? sizeof(DATE) : wt == DBFT_TIME ? sizeof(TIME) : sizeof(DATI);
      bool same = (wt == DBFT_DATE && a.type == DT_DATE) ||
                  (wt == DBFT_TIME && a.type == DT_TIME) ||
                  (wt == DBFT_TIMESTAMP && (a.type == DT_DATI || a.type == DT_DURA));
      if (same && a.size >= static_cast<int>(n))
        std::memcpy(p, raw, n);
      else if (is_text_type(a.type))
        put_text(p, a.size, DBgetvalue(result, row, col) ? DBgetvalue(result, row, col) : "");
      else
        done = false;
      break;
    }
    case DBFT_BINARY: {
      uint16_t n;
      std::memcpy(&n, raw, 2);
      if (a.type == DT_BINARY && a.size >= 2) {
        uint16_t m = static_cast<uint16_t>(std::min<size_t>(n, size_t(a.size - 2)));
        std::memcpy(p, &m, 2);
        std::memcpy(p + 2, raw + 2, m);
      } else if (is_text_type(a.type)) {
        put_text(p, a.size, std::string(reinterpret_cast<const char *>(raw + 2), n));
      } else {
        done = false;
      }
      break;
    }
    default:
      done = false;
      break;
    }
    if (done) ++filled;
  }
  return filled;
}

std::string TABLE_Record_InsertText(const TABLE_DEF &def, const void *record) {
  const auto *r = static_cast<const unsigned char *>(record);
  std::string names, values;
  for (const auto &a : def.attribs) {
    if (!names.empty()) {
      names += ", ";
      values += ", ";
    }
    names += a.name;
    values += literal(r + a.idx, a);
  }
  return "(" + names + ") VALUES (" + values + ")";
}

namespace {

std::string upper(const std::string &s) {
  std::string u = s;
  for (char &c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return u;
}

// The value of one attribute as a tagged request field: integers as 32-bit
// values, everything else as the text its SQL literal holds.
void request_value(const unsigned char *p, const TABLE_ATTRIB &a) {
  if (is_int_type(a.type)) {
    bool null;
    int64_t v = get_int(p, a.type, &null);
    if (!null && v >= INT32_MIN && v <= INT32_MAX) {
      DBreq_tag_int(DBTAG_INT, static_cast<int32_t>(v));
      return;
    }
    if (!null) {
      DBreq_tag_string(DBTAG_STRING, std::to_string(v).c_str());
      return;
    }
  }
  std::string lit = literal(p, a);
  // The literal is quoted and escaped: the request carries the bare text.
  std::string text;
  for (size_t i = 1; i + 1 < lit.size(); ++i) {
    if (lit[i] == '\\' && i + 2 < lit.size()) ++i;
    text += lit[i];
  }
  DBreq_tag_string(DBTAG_STRING, text.c_str());
}

} // namespace

void TABLE_Record_InsertRequest(const TABLE_DEF &def, const char *table, const void *record) {
  const auto *r = static_cast<const unsigned char *>(record);
  DBreq_reset();
  DBreq_byte('E');
  DBreq_tag_string(DBTAG_NAME, upper(table).c_str());
  for (const auto &a : def.attribs) DBreq_tag_string(DBTAG_NAME, upper(a.name).c_str());
  DBreq_byte('X');
  for (const auto &a : def.attribs) request_value(r + a.idx, a);
  DBreq_byte('x');
}

std::string TABLE_Quote(const std::string &text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'' || c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "'";
}
