// Declared attribute types of tavrind: checks, stored forms, answer layouts,
// Latin-1/UTF-8 conversion and the collation of the system's string rule.
#include "server/types.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace tavrind {

namespace {

const unsigned char SECTION = 0xA7; // "§", the run marker of escaped binary values

std::string trim_blanks(const std::string &s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) --e;
  return s.substr(b, e - b);
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads exactly n digits at s[pos]; advances pos. Returns false if not digits.
bool digits(const std::string &s, size_t &pos, size_t n, int &v) {
  if (pos + n > s.size()) return false;
  v = 0;
  for (size_t i = 0; i < n; ++i) {
    if (!is_digit(s[pos + i])) return false;
    v = v * 10 + (s[pos + i] - '0');
  }
  pos += n;
  return true;
}

// Reads one or two digits.
bool digits12(const std::string &s, size_t &pos, int &v) {
  if (pos >= s.size() || !is_digit(s[pos])) return false;
  v = s[pos++] - '0';
  if (pos < s.size() && is_digit(s[pos])) v = v * 10 + (s[pos++] - '0');
  return true;
}

struct DateParts {
  int y = 1800, mo = 1, d = 1, h = 0, mi = 0, s = 0, us = 0;
};

// "YYYY-MM-DD", "YYYY.MM.DD" (one-digit month and day allowed) or "YYYYMMDD"
// at s[pos]; advances pos past the date.
bool parse_date_at(const std::string &s, size_t &pos, DateParts &p) {
  size_t q = pos;
  if (!digits(s, q, 4, p.y)) return false;
  if (q < s.size() && (s[q] == '-' || s[q] == '.')) {
    char sep = s[q++];
    if (!digits12(s, q, p.mo) || q >= s.size() || s[q] != sep) return false;
    ++q;
    if (!digits12(s, q, p.d)) return false;
  } else {
    if (!digits(s, q, 2, p.mo) || !digits(s, q, 2, p.d)) return false;
  }
  pos = q;
  return true;
}

bool parse_date(const std::string &s, DateParts &p) {
  size_t pos = 0;
  return parse_date_at(s, pos, p) && pos == s.size() && type_date_valid(p.y, p.mo, p.d);
}

bool time_valid(int h, int m, int s) {
  return h >= 0 && h < 24 && m >= 0 && m < 60 && s >= 0 && s < 60;
}

// "HH:MM:SS", exactly eight characters.
bool parse_time(const std::string &s, DateParts &p) {
  size_t pos = 0;
  return s.size() == 8 && digits(s, pos, 2, p.h) && s[pos++] == ':' && digits(s, pos, 2, p.mi) &&
         s[pos++] == ':' && digits(s, pos, 2, p.s) && time_valid(p.h, p.mi, p.s);
}

// "YYYY-MM-DD-HH.MM.SS.ffffff", "YYYY-MM-DD HH:MM:SS[.f...]" or a date alone.
bool parse_timestamp(const std::string &s, DateParts &p) {
  size_t pos = 0;
  if (!parse_date_at(s, pos, p) || !type_date_valid(p.y, p.mo, p.d)) return false;
  if (pos == s.size()) return true;
  char sep = s[pos++];
  char tsep;
  if (sep == '-')
    tsep = '.';
  else if (sep == ' ' || sep == 'T')
    tsep = ':';
  else
    return false;
  if (!digits(s, pos, 2, p.h) || pos >= s.size() || s[pos++] != tsep || !digits(s, pos, 2, p.mi) ||
      pos >= s.size() || s[pos++] != tsep || !digits(s, pos, 2, p.s))
    return false;
  if (!time_valid(p.h, p.mi, p.s)) return false;
  if (pos == s.size()) return tsep == ':';
  if (s[pos++] != '.') return false;
  size_t start = pos;
  p.us = 0;
  while (pos < s.size() && is_digit(s[pos]) && pos - start < 6) p.us = p.us * 10 + (s[pos++] - '0');
  // The system's own form has exactly six digits of microseconds.
  if (pos != s.size() || pos == start || (tsep == '.' && pos - start != 6)) return false;
  for (size_t n = pos - start; n < 6; ++n) p.us *= 10;
  return true;
}

std::string format_date(const DateParts &p) {
  char buf[128];
  snprintf(buf, sizeof buf, "%04d-%02d-%02d", p.y, p.mo, p.d);
  return buf;
}

std::string format_time(const DateParts &p) {
  char buf[128];
  snprintf(buf, sizeof buf, "%02d:%02d:%02d", p.h, p.mi, p.s);
  return buf;
}

std::string format_timestamp(const DateParts &p) {
  char buf[128];
  snprintf(buf, sizeof buf, "%04d-%02d-%02d-%02d.%02d.%02d.%06d", p.y, p.mo, p.d, p.h, p.mi, p.s,
           p.us);
  return buf;
}

int hexval(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Undoes the clients' display escape of binary values. Returns false with err
// set when an escape is broken.
bool unescape_binary(const std::string &s, std::vector<unsigned char> &out, std::string &err) {
  size_t i = 0;
  while (i < s.size()) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '$') {
      if (i + 1 < s.size() && s[i + 1] == '$') {
        out.push_back('$');
        i += 2;
      } else if (i + 2 < s.size() && hexval(s[i + 1]) >= 0 && hexval(s[i + 2]) >= 0) {
        out.push_back(static_cast<unsigned char>(hexval(s[i + 1]) * 16 + hexval(s[i + 2])));
        i += 3;
      } else {
        err = "'$' an Stelle " + std::to_string(i + 1) + " ohne \"$$\" oder zwei Hexziffern";
        return false;
      }
    } else if (c == SECTION) {
      if (i + 1 < s.size() && static_cast<unsigned char>(s[i + 1]) == SECTION) {
        out.push_back(SECTION);
        i += 2;
        continue;
      }
      size_t j = i + 1;
      std::vector<unsigned char> run;
      while (j + 1 < s.size() && hexval(s[j]) >= 0 && hexval(s[j + 1]) >= 0) {
        run.push_back(static_cast<unsigned char>(hexval(s[j]) * 16 + hexval(s[j + 1])));
        j += 2;
      }
      if (j >= s.size() || static_cast<unsigned char>(s[j]) != SECTION || run.empty()) {
        err = "'§' an Stelle " + std::to_string(i + 1) +
              " beginnt keine gültige Folge \"§HH...§\" oder \"§§\"";
        return false;
      }
      out.insert(out.end(), run.begin(), run.end());
      i = j + 1;
    } else {
      out.push_back(c);
      ++i;
    }
  }
  return true;
}

// Parses an integer text with optional sign; no other characters.
bool parse_int64(const std::string &s, int64_t &v) {
  if (s.empty()) return false;
  size_t i = 0;
  bool neg = false;
  if (s[0] == '-' || s[0] == '+') {
    neg = s[0] == '-';
    i = 1;
  }
  if (i >= s.size() || s.size() - i > 12) return false;
  int64_t r = 0;
  for (; i < s.size(); ++i) {
    if (!is_digit(s[i])) return false;
    r = r * 10 + (s[i] - '0');
  }
  v = neg ? -r : r;
  return true;
}

bool parse_double(const std::string &s, double &v) {
  if (s.empty()) return false;
  for (char c : s)
    if (!(is_digit(c) || c == '.' || c == '-' || c == '+' || c == 'e' || c == 'E')) return false;
  char *end = nullptr;
  v = strtod(s.c_str(), &end);
  return end == s.c_str() + s.size() && std::isfinite(v);
}

int check_integer(ColType t, const Literal &lit, SqlValue &out, std::string &err) {
  int64_t lo = t.code == DBTYPE_SMALLINT ? -32768 : std::numeric_limits<int32_t>::min();
  int64_t hi = t.code == DBTYPE_SMALLINT ? 32767 : std::numeric_limits<int32_t>::max();
  int64_t v = 0;
  switch (lit.kind) {
  case Literal::INT:
    v = lit.i;
    break;
  case Literal::FLOAT:
    if (!std::isfinite(lit.f) || std::trunc(lit.f) != lit.f || lit.f < -1e15 || lit.f > 1e15) {
      err = "Wert " + type_literal_text(lit) + " ist keine ganze Zahl";
      return 0;
    }
    v = static_cast<int64_t>(lit.f);
    break;
  case Literal::STRING: {
    std::string s = trim_blanks(lit.s);
    if (s.empty()) {
      out = static_cast<int64_t>(t.code == DBTYPE_SMALLINT ? NULL_SMALLINT : NULL_INTEGER);
      return 1;
    }
    if (!parse_int64(s, v)) {
      err = "Wert '" + lit.s + "' ist keine ganze Zahl";
      return 0;
    }
    break;
  }
  }
  if (v < lo || v > hi) {
    err = "Wert " + std::to_string(v) + " liegt außerhalb von " + type_name(t.code) + " (" +
          std::to_string(lo) + " bis " + std::to_string(hi) + ")";
    return 0;
  }
  out = v;
  return 1;
}

// Decodes one UTF-8 character at s[i] (i < n) into a Latin-1 code; characters
// beyond Latin-1 give '?', bytes that are not valid UTF-8 stand for
// themselves. Advances i.
unsigned char next_latin1(const unsigned char *s, size_t n, size_t &i) {
  unsigned char c = s[i];
  if (c < 0x80) {
    ++i;
    return c;
  }
  int len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 0;
  if (len == 0 || i + len > n) {
    ++i;
    return c;
  }
  uint32_t cp = c & (0x7F >> len);
  for (int k = 1; k < len; ++k) {
    if ((s[i + k] & 0xC0) != 0x80) {
      ++i;
      return c;
    }
    cp = (cp << 6) | (s[i + k] & 0x3F);
  }
  i += len;
  return cp <= 0xFF ? static_cast<unsigned char>(cp) : '?';
}

// One character of the string rule: ASCII upper case, then Ä, Ö, Ü to A, O, U;
// the result is compared as a signed byte.
signed char fold(unsigned char c) {
  if (c >= 'a' && c <= 'z') c = static_cast<unsigned char>(c - 'a' + 'A');
  if (c == 196) c = 'A';
  if (c == 214) c = 'O';
  if (c == 220) c = 'U';
  return static_cast<signed char>(c);
}

int collate_tavrin(void *, int na, const void *a, int nb, const void *b) {
  auto pa = static_cast<const unsigned char *>(a);
  auto pb = static_cast<const unsigned char *>(b);
  size_t la = static_cast<size_t>(na), lb = static_cast<size_t>(nb);
  while (la > 0 && pa[la - 1] == ' ') --la;
  while (lb > 0 && pb[lb - 1] == ' ') --lb;
  size_t i = 0, j = 0;
  while (i < la && j < lb) {
    signed char ca = fold(next_latin1(pa, la, i));
    signed char cb = fold(next_latin1(pb, lb, j));
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  if (i < la) return 1;
  if (j < lb) return -1;
  return 0;
}

} // namespace

bool type_date_valid(int y, int m, int d) {
  static const int days[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (y < 1800 || y > 2800 || m < 1 || m > 12 || d < 1) return false;
  int last = days[m] + (m == 2 && y % 4 == 0 ? 1 : 0);
  return d <= last;
}

bool type_code_valid(unsigned char code) {
  return (code >= DBTYPE_CHARACTER && code <= DBTYPE_TIMESTAMP) || code == DBTYPE_BINARY;
}

ColType type_make(unsigned char code, int32_t length) {
  ColType t;
  t.code = code;
  switch (code) {
  case DBTYPE_SMALLINT:
    t.size = 2;
    break;
  case DBTYPE_INTEGER:
    t.size = 4;
    break;
  case DBTYPE_FLOAT:
    t.size = 8;
    break;
  case DBTYPE_DATE:
    t.size = 4;
    break;
  case DBTYPE_TIME:
    t.size = 3;
    break;
  case DBTYPE_TIMESTAMP:
    t.size = 12;
    break;
  default:
    t.size = length;
    break;
  }
  return t;
}

const char *type_name(unsigned char code) {
  switch (code) {
  case DBTYPE_CHARACTER:
    return "CHARACTER";
  case DBTYPE_SMALLINT:
    return "SMALLINT";
  case DBTYPE_INTEGER:
    return "INTEGER";
  case DBTYPE_FLOAT:
    return "FLOAT";
  case DBTYPE_DATE:
    return "DATE";
  case DBTYPE_TIME:
    return "TIME";
  case DBTYPE_TIMESTAMP:
    return "TIMESTAMP";
  case DBTYPE_BINARY:
    return "BINARY";
  default:
    return "?";
  }
}

std::string type_declaration(ColType t, bool not_null) {
  std::string d = type_name(t.code);
  std::string def;
  switch (t.code) {
  case DBTYPE_CHARACTER:
    d += "(" + std::to_string(t.size) + ") COLLATE RTRIM";
    def = "''";
    break;
  case DBTYPE_BINARY:
    d += "(" + std::to_string(t.size) + ")";
    def = "X''";
    break;
  case DBTYPE_SMALLINT:
    def = "-32768";
    break;
  case DBTYPE_INTEGER:
    def = "-2147483647";
    break;
  case DBTYPE_FLOAT:
    def = "-1e20";
    break;
  case DBTYPE_DATE:
    def = "'1800-01-01'";
    break;
  case DBTYPE_TIME:
    def = "'00:00:00'";
    break;
  case DBTYPE_TIMESTAMP:
    def = "'1800-01-01-00.00.00.000000'";
    break;
  default:
    break;
  }
  if (not_null) d += " NOT NULL";
  d += " DEFAULT " + def;
  return d;
}

ColType type_from_declaration(const std::string &decl) {
  std::string u;
  for (char c : decl) u += static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  auto length_of = [&](size_t after, int32_t fallback, int32_t max) {
    size_t open = u.find('(', after);
    if (open == std::string::npos) return fallback;
    long v = strtol(u.c_str() + open + 1, nullptr, 10);
    return v >= 1 && v <= max ? static_cast<int32_t>(v) : fallback;
  };
  if (u.rfind("CHARACTER", 0) == 0)
    return type_make(DBTYPE_CHARACTER, length_of(9, 256, TYPE_MAX_CHARACTER));
  if (u.rfind("BINARY", 0) == 0)
    return type_make(DBTYPE_BINARY, length_of(6, 65533, TYPE_MAX_BINARY));
  if (u == "SMALLINT") return type_make(DBTYPE_SMALLINT, 0);
  if (u == "DATE") return type_make(DBTYPE_DATE, 0);
  if (u == "TIMESTAMP") return type_make(DBTYPE_TIMESTAMP, 0);
  if (u == "TIME") return type_make(DBTYPE_TIME, 0);
  if (u.find("INT") != std::string::npos) return type_make(DBTYPE_INTEGER, 0);
  if (u.find("CHAR") != std::string::npos || u.find("TEXT") != std::string::npos ||
      u.find("CLOB") != std::string::npos)
    return type_make(DBTYPE_CHARACTER, 256);
  if (u.find("REAL") != std::string::npos || u.find("FLOA") != std::string::npos ||
      u.find("DOUB") != std::string::npos)
    return type_make(DBTYPE_FLOAT, 0);
  if (u.find("BLOB") != std::string::npos) return type_make(DBTYPE_BINARY, TYPE_MAX_BINARY);
  return type_make(DBTYPE_CHARACTER, 256);
}

std::string type_literal_text(const Literal &lit) {
  char buf[64];
  switch (lit.kind) {
  case Literal::INT:
    return std::to_string(lit.i);
  case Literal::FLOAT:
    snprintf(buf, sizeof buf, "%.15g", lit.f);
    return buf;
  case Literal::STRING:
    return lit.s;
  }
  return "";
}

int type_bind(sqlite3_stmt *stmt, int idx, const SqlValue &v) {
  switch (v.index()) {
  case 0:
    return sqlite3_bind_null(stmt, idx);
  case 1:
    return sqlite3_bind_int64(stmt, idx, std::get<int64_t>(v));
  case 2:
    return sqlite3_bind_double(stmt, idx, std::get<double>(v));
  case 3: {
    const std::string &s = std::get<std::string>(v);
    return sqlite3_bind_text(stmt, idx, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
  }
  default: {
    const auto &b = std::get<SqlBlob>(v).bytes;
    return sqlite3_bind_blob(stmt, idx, b.empty() ? "" : static_cast<const void *>(b.data()),
                             static_cast<int>(b.size()), SQLITE_TRANSIENT);
  }
  }
}

int type_check_value(ColType t, const Literal &lit, SqlValue &out, std::string &err) {
  if (lit.kind == Literal::STRING && lit.s.find('\0') != std::string::npos) {
    err = "Text enthält ein Null-Byte";
    return 0;
  }
  if (lit.kind == Literal::FLOAT && !std::isfinite(lit.f)) {
    err = "Wert ist keine endliche Zahl";
    return 0;
  }
  DateParts p;
  switch (t.code) {
  case DBTYPE_CHARACTER: {
    std::string s = type_literal_text(lit);
    if (static_cast<int64_t>(s.size()) > t.size - 1) {
      err = "Wert ist zu lang für CHARACTER(" + std::to_string(t.size) +
            "): " + std::to_string(s.size()) + " Zeichen, höchstens " + std::to_string(t.size - 1);
      return 0;
    }
    out = latin1_to_utf8(s);
    return 1;
  }
  case DBTYPE_SMALLINT:
  case DBTYPE_INTEGER:
    return check_integer(t, lit, out, err);
  case DBTYPE_FLOAT: {
    if (lit.kind == Literal::INT) {
      out = static_cast<double>(lit.i);
    } else if (lit.kind == Literal::FLOAT) {
      out = lit.f;
    } else {
      std::string s = trim_blanks(lit.s);
      double v = 0;
      if (s.empty()) {
        out = NULL_FLOAT;
      } else if (parse_double(s, v)) {
        out = v;
      } else {
        err = "Wert '" + lit.s + "' ist keine Zahl";
        return 0;
      }
    }
    return 1;
  }
  case DBTYPE_DATE: {
    std::string s = trim_blanks(type_literal_text(lit));
    if (s.empty() && lit.kind == Literal::STRING) {
      out = std::string("1800-01-01");
      return 1;
    }
    if (!parse_date(s, p)) {
      err = "Wert '" + type_literal_text(lit) +
            "' ist kein gültiges Datum (JJJJ-MM-TT von 1800-01-01 bis 2800-12-31)";
      return 0;
    }
    out = format_date(p);
    return 1;
  }
  case DBTYPE_TIME: {
    std::string s = trim_blanks(type_literal_text(lit));
    if (s.empty() && lit.kind == Literal::STRING) {
      out = std::string("00:00:00");
      return 1;
    }
    if (lit.kind != Literal::STRING || !parse_time(s, p)) {
      err = "Wert '" + type_literal_text(lit) + "' ist keine gültige Uhrzeit (HH:MM:SS)";
      return 0;
    }
    out = format_time(p);
    return 1;
  }
  case DBTYPE_TIMESTAMP: {
    std::string s = trim_blanks(type_literal_text(lit));
    if (s.empty() && lit.kind == Literal::STRING) {
      out = std::string("1800-01-01-00.00.00.000000");
      return 1;
    }
    if (lit.kind != Literal::STRING || !parse_timestamp(s, p)) {
      err = "Wert '" + type_literal_text(lit) +
            "' ist kein gültiger Zeitstempel (JJJJ-MM-TT-HH.MM.SS.UUUUUU)";
      return 0;
    }
    out = format_timestamp(p);
    return 1;
  }
  case DBTYPE_BINARY: {
    if (lit.kind != Literal::STRING) {
      err = "BINARY nimmt nur Texte in der Anzeigeform an";
      return 0;
    }
    SqlBlob b;
    if (!unescape_binary(lit.s, b.bytes, err)) return 0;
    if (static_cast<int64_t>(b.bytes.size()) > t.size) {
      err = "Wert ist zu lang für BINARY(" + std::to_string(t.size) +
            "): " + std::to_string(b.bytes.size()) + " Bytes";
      return 0;
    }
    out = std::move(b);
    return 1;
  }
  default:
    err = "unbekannter Typ";
    return 0;
  }
}

namespace {

// Reads n decimal digits at s; false if any is not a digit.
bool fixed_digits(const unsigned char *s, int n, int &v) {
  v = 0;
  for (int k = 0; k < n; ++k) {
    unsigned d = static_cast<unsigned>(s[k]) - '0';
    if (d > 9) return false;
    v = v * 10 + static_cast<int>(d);
  }
  return true;
}

// The stored forms that the server itself writes ("YYYY-MM-DD", "HH:MM:SS",
// "YYYY-MM-DD-HH.MM.SS.ffffff") read without copying; a text of any other
// shape returns false and goes through the general parsers. Large answers
// read every calendar value this way, so it must not allocate.
bool fast_calendar(int code, const unsigned char *s, size_t n, DateParts &p) {
  if (code == DBTYPE_TIME) {
    return n == 8 && s[2] == ':' && s[5] == ':' && fixed_digits(s, 2, p.h) &&
           fixed_digits(s + 3, 2, p.mi) && fixed_digits(s + 6, 2, p.s) &&
           time_valid(p.h, p.mi, p.s);
  }
  if (n < 10 || s[4] != '-' || s[7] != '-' || !fixed_digits(s, 4, p.y) ||
      !fixed_digits(s + 5, 2, p.mo) || !fixed_digits(s + 8, 2, p.d) ||
      !type_date_valid(p.y, p.mo, p.d))
    return false;
  if (code == DBTYPE_DATE) return true; // only the date part counts
  if (n == 10) return true;
  return n == 26 && s[10] == '-' && s[13] == '.' && s[16] == '.' && s[19] == '.' &&
         fixed_digits(s + 11, 2, p.h) && fixed_digits(s + 14, 2, p.mi) &&
         fixed_digits(s + 17, 2, p.s) && fixed_digits(s + 20, 6, p.us) &&
         time_valid(p.h, p.mi, p.s);
}

// Appends n bytes in one step (the answer grows by whole values).
inline unsigned char *grow(std::vector<unsigned char> &out, size_t n) {
  size_t at = out.size();
  out.resize(at + n);
  return out.data() + at;
}

inline void store16(unsigned char *p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

inline void store32(unsigned char *p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// The answer forms of the numeric types at p: a 2-byte length, then the
// value little-endian. Values beyond a type's range are clamped to it. Each
// returns the end of what it wrote (4, 6 and 10 bytes).
inline unsigned char *put_smallint(unsigned char *p, int64_t v) {
  v = std::clamp<int64_t>(v, -32768, 32767);
  store16(p, 2);
  store16(p + 2, static_cast<uint16_t>(static_cast<int16_t>(v)));
  return p + 4;
}

inline unsigned char *put_integer(unsigned char *p, int64_t v) {
  v = std::clamp<int64_t>(v, std::numeric_limits<int32_t>::min(),
                          std::numeric_limits<int32_t>::max());
  store16(p, 4);
  store32(p + 2, static_cast<uint32_t>(static_cast<int32_t>(v)));
  return p + 6;
}

inline unsigned char *put_float(unsigned char *p, double v) {
  uint64_t bits;
  memcpy(&bits, &v, 8);
  store16(p, 8);
  store32(p + 2, static_cast<uint32_t>(bits));
  store32(p + 6, static_cast<uint32_t>(bits >> 32));
  return p + 10;
}

// The calendar parts of a stored DATE, TIME or TIMESTAMP text of n bytes at
// s (null for no bytes) that is not in the server's own forms: the general
// parsers, and zero parts for a text they do not read. Allocates a copy of
// the text; the answers' row readers call it only off the fast path.
DateParts calendar_parts_slow(int code, const unsigned char *s, size_t n) {
  DateParts p;
  std::string text = s ? std::string(reinterpret_cast<const char *>(s), n) : std::string();
  bool ok = code == DBTYPE_DATE   ? parse_date(text.substr(0, 10), p)
            : code == DBTYPE_TIME ? parse_time(text, p)
                                  : parse_timestamp(text, p);
  return ok ? p : DateParts();
}

// The bytes of a calendar type's answer form: 6 for DATE, 5 for TIME, 14
// for TIMESTAMP.
inline size_t calendar_room(int code) {
  return code == DBTYPE_DATE ? 6 : code == DBTYPE_TIME ? 5 : 14;
}

// The answer form of a calendar value at q: a 2-byte length, then the parts
// (DATE y,m,d; TIME h,m,s; TIMESTAMP both with a zero byte and the
// microseconds). Returns the end (calendar_room bytes on).
inline unsigned char *put_calendar(unsigned char *q, int code, const DateParts &p) {
  if (code == DBTYPE_DATE) {
    store16(q, 4);
    store16(q + 2, static_cast<uint16_t>(p.y));
    q[4] = static_cast<unsigned char>(p.mo);
    q[5] = static_cast<unsigned char>(p.d);
    return q + 6;
  }
  if (code == DBTYPE_TIME) {
    store16(q, 3);
    q[2] = static_cast<unsigned char>(p.h);
    q[3] = static_cast<unsigned char>(p.mi);
    q[4] = static_cast<unsigned char>(p.s);
    return q + 5;
  }
  store16(q, 12);
  store16(q + 2, static_cast<uint16_t>(p.y));
  q[4] = static_cast<unsigned char>(p.mo);
  q[5] = static_cast<unsigned char>(p.d);
  q[6] = static_cast<unsigned char>(p.h);
  q[7] = static_cast<unsigned char>(p.mi);
  q[8] = static_cast<unsigned char>(p.s);
  q[9] = 0;
  store32(q + 10, static_cast<uint32_t>(p.us));
  return q + 14;
}

// The answer form at q of a calendar value stored as the n bytes at s (null
// for none, which reads as zero parts). The server's own forms are read by
// fast_calendar into parts that stay in this frame, so big answers neither
// allocate nor copy a parts record per value.
inline unsigned char *put_calendar_text(unsigned char *q, int code, const unsigned char *s,
                                        size_t n) {
  DateParts p;
  if (!s || fast_calendar(code, s, n, p)) return put_calendar(q, code, s ? p : DateParts());
  return put_calendar(q, code, calendar_parts_slow(code, s, n));
}

// The most bytes put_latin1 writes for a text of n bytes.
inline size_t latin1_room(size_t n) { return 2 + std::min<size_t>(n, 65534) + 1; }

// The answer form of a CHARACTER value at dst from the n bytes of UTF-8 at
// txt: a 2-byte length, the Latin-1 text (never longer than its UTF-8 form)
// and a zero byte. The text ends at a zero byte and at 65534 bytes. Returns
// the end of what it wrote (at most latin1_room(n) bytes).
inline unsigned char *put_latin1(unsigned char *dst, const unsigned char *txt, size_t n) {
  unsigned char *text = dst + 2;
  size_t len = 0;
  for (size_t i = 0; i < n && len < 65534;) {
    // A run of ASCII bytes other than zero is copied as it is, eight bytes
    // at a time while no byte has its high bit set or is zero.
    size_t end = i, max = std::min(n, i + (65534 - len));
    for (uint64_t w; end + 8 <= max; end += 8) {
      memcpy(&w, txt + end, 8);
      const uint64_t high = 0x8080808080808080ull, ones = 0x0101010101010101ull;
      if ((w & high) || ((w - ones) & ~w & high)) break;
    }
    while (end < max && txt[end] != 0 && txt[end] < 0x80) ++end;
    memcpy(text + len, txt + i, end - i);
    len += end - i;
    i = end;
    if (i >= n || len >= 65534) break;
    unsigned char c = txt[i] < 0x80 ? txt[i++] : next_latin1(txt, n, i);
    if (c == 0) break;
    text[len++] = c;
  }
  text[len] = 0;
  store16(dst, static_cast<uint16_t>(len + 1));
  return text + len + 1;
}

// The answer form of a BINARY value of n bytes at b (cut to the type's
// longest): a 2-byte value length, the 2-byte byte count and the bytes.
inline size_t binary_room(size_t n) { return 4 + std::min<size_t>(n, TYPE_MAX_BINARY); }

inline unsigned char *put_binary(unsigned char *q, const unsigned char *b, size_t n) {
  n = std::min<size_t>(n, TYPE_MAX_BINARY);
  store16(q, static_cast<uint16_t>(n + 2));
  store16(q + 2, static_cast<uint16_t>(n));
  if (n) memcpy(q + 4, b, n);
  return q + 4 + n;
}

// One value of an SQLite result row, read once for the room its answer form
// needs and for the writing. The statement runs on this thread only, so the
// unprotected value may be read; its text stays valid until the next step.
struct SqliteCell {
  sqlite3_value *val;
  const unsigned char *bytes; // the text or blob; null for a NULL
  size_t n;
};

// Reads the value v for a column of type `code` into c; returns the most
// bytes its answer form takes.
inline size_t read_value(int code, sqlite3_value *v, SqliteCell &c) {
  c.val = v;
  c.bytes = nullptr;
  c.n = 0;
  switch (code) {
  case DBTYPE_SMALLINT:
    return 4;
  case DBTYPE_INTEGER:
    return 6;
  case DBTYPE_FLOAT:
    return 10;
  case DBTYPE_BINARY:
    c.bytes = static_cast<const unsigned char *>(sqlite3_value_blob(c.val));
    c.n = c.bytes ? static_cast<size_t>(sqlite3_value_bytes(c.val)) : 0;
    return binary_room(c.n);
  default: // CHARACTER and the calendar types, stored as text
    // A NULL's text is no bytes: an empty CHARACTER, zero calendar parts.
    c.bytes = sqlite3_value_text(c.val);
    c.n = c.bytes ? static_cast<size_t>(sqlite3_value_bytes(c.val)) : 0;
    return code == DBTYPE_CHARACTER ? latin1_room(c.n) : calendar_room(code);
  }
}

// Reads column `col` of the current row as read_value does. The value is
// looked up once: each column call would look it up again and check the
// connection's error state, which for big answers costs as much as the
// writing.
inline size_t read_cell(int code, sqlite3_stmt *stmt, int col, SqliteCell &c) {
  return read_value(code, sqlite3_column_value(stmt, col), c);
}

// Writes the answer form of a cell that read_cell read at p, which has the
// room read_cell named; returns the end of what it wrote. A NULL number goes
// out as its type's null marker.
inline unsigned char *put_cell(unsigned char *p, int code, const SqliteCell &c) {
  // A number's type is asked only when it reads as zero, the value a NULL
  // reads as: most values are not, and each call into SQLite counts.
  switch (code) {
  case DBTYPE_SMALLINT: {
    int64_t v = sqlite3_value_int64(c.val);
    return put_smallint(p, v == 0 && sqlite3_value_type(c.val) == SQLITE_NULL ? NULL_SMALLINT : v);
  }
  case DBTYPE_INTEGER: {
    int64_t v = sqlite3_value_int64(c.val);
    return put_integer(p, v == 0 && sqlite3_value_type(c.val) == SQLITE_NULL ? NULL_INTEGER : v);
  }
  case DBTYPE_FLOAT: {
    double v = sqlite3_value_double(c.val);
    return put_float(p, v == 0 && sqlite3_value_type(c.val) == SQLITE_NULL ? NULL_FLOAT : v);
  }
  case DBTYPE_DATE:
  case DBTYPE_TIME:
  case DBTYPE_TIMESTAMP:
    return put_calendar_text(p, code, c.bytes, c.n);
  case DBTYPE_BINARY:
    return put_binary(p, c.bytes, c.n);
  default:
    return put_latin1(p, c.bytes, c.n);
  }
}

} // namespace

void type_append_value(std::vector<unsigned char> &out, ColType t, sqlite3_stmt *stmt, int col) {
  SqliteCell c;
  size_t at = out.size();
  out.resize(at + read_cell(t.code, stmt, col, c));
  unsigned char *end = put_cell(out.data() + at, t.code, c);
  out.resize(static_cast<size_t>(end - out.data()));
}

void type_append_row(std::vector<unsigned char> &out, const ColType *types, size_t ncols,
                     sqlite3_stmt *stmt) {
  // The answer grows once per group of columns by the most the group can
  // take and is cut to what was written: one resize per row instead of one
  // per value.
  constexpr size_t kGroup = 32;
  SqliteCell cells[kGroup];
  for (size_t from = 0; from < ncols; from += kGroup) {
    const size_t k = std::min(kGroup, ncols - from);
    size_t room = 0;
    for (size_t i = 0; i < k; ++i)
      room += read_cell(types[from + i].code, stmt, static_cast<int>(from + i), cells[i]);
    size_t at = out.size();
    out.resize(at + room);
    unsigned char *p = out.data() + at;
    for (size_t i = 0; i < k; ++i) p = put_cell(p, types[from + i].code, cells[i]);
    out.resize(static_cast<size_t>(p - out.data()));
  }
}

size_t type_write_values(std::vector<unsigned char> &out, size_t at, const ColType *types,
                         size_t n, sqlite3_value **vals) {
  // Each group of values is read first for the most room it can take; the
  // answer grows only when what lies past `at` is shorter than that, and
  // then by as much again as it holds (up to 64 KiB), so that std::vector's
  // zero-filling and size bookkeeping are paid once per many rows of a large
  // answer, and a one-row answer takes no more than its row.
  constexpr size_t kGroup = 32;
  constexpr size_t kStep = 64 * 1024;
  SqliteCell cells[kGroup];
  for (size_t from = 0; from < n; from += kGroup) {
    const size_t k = std::min(kGroup, n - from);
    size_t room = 0;
    for (size_t i = 0; i < k; ++i) room += read_value(types[from + i].code, vals[from + i], cells[i]);
    if (out.size() - at < room) out.resize(at + std::max(room, std::min(kStep, at)));
    unsigned char *p = out.data() + at;
    for (size_t i = 0; i < k; ++i) p = put_cell(p, types[from + i].code, cells[i]);
    at = static_cast<size_t>(p - out.data());
  }
  return at;
}

std::string latin1_to_utf8(const std::string &s) {
  std::string r;
  r.reserve(s.size() + s.size() / 8);
  for (char ch : s) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      r += static_cast<char>(c);
    } else {
      r += static_cast<char>(0xC0 | (c >> 6));
      r += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return r;
}

std::string utf8_to_latin1(const char *s, size_t n) {
  std::string r;
  r.reserve(n);
  auto p = reinterpret_cast<const unsigned char *>(s);
  size_t i = 0;
  while (i < n) r += static_cast<char>(next_latin1(p, n, i));
  return r;
}

void type_append_pg_value(std::vector<unsigned char> &out, ColType t, unsigned pg_type,
                          const char *v, size_t n, bool null) {
  auto u = reinterpret_cast<const unsigned char *>(v);
  auto be = [&](size_t k) {
    uint64_t x = 0;
    for (size_t i = 0; i < k && i < n; ++i) x = (x << 8) | u[i];
    return x;
  };
  // A number as the column's type gets it: integers and doubles in
  // PostgreSQL's binary form (big-endian), all else as text.
  bool is_int = pg_type == PG_OID_INT2 || pg_type == PG_OID_INT4 || pg_type == PG_OID_INT8;
  auto as_int = [&]() -> int64_t {
    if (pg_type == PG_OID_INT2 && n == 2) return static_cast<int16_t>(be(2));
    if (pg_type == PG_OID_INT4 && n == 4) return static_cast<int32_t>(be(4));
    if (pg_type == PG_OID_INT8 && n == 8) return static_cast<int64_t>(be(8));
    return 0;
  };
  auto as_double = [&]() -> double {
    if (is_int) return static_cast<double>(as_int());
    if (pg_type == PG_OID_FLOAT8 && n == 8) {
      uint64_t bits = be(8);
      double d;
      memcpy(&d, &bits, 8);
      return d;
    }
    if (pg_type == PG_OID_FLOAT4 && n == 4) {
      uint32_t bits = static_cast<uint32_t>(be(4));
      float f;
      memcpy(&f, &bits, 4);
      return f;
    }
    double d = 0;
    parse_double(std::string(v, n), d);
    return d;
  };
  switch (t.code) {
  case DBTYPE_SMALLINT: {
    int64_t x = null ? NULL_SMALLINT
                : is_int ? as_int()
                         : static_cast<int64_t>(as_double());
    put_smallint(grow(out, 4), x);
    return;
  }
  case DBTYPE_INTEGER: {
    int64_t x = null ? NULL_INTEGER
                : is_int ? as_int()
                         : static_cast<int64_t>(as_double());
    put_integer(grow(out, 6), x);
    return;
  }
  case DBTYPE_FLOAT: {
    put_float(grow(out, 10), null ? NULL_FLOAT : as_double());
    return;
  }
  case DBTYPE_DATE:
  case DBTYPE_TIME:
  case DBTYPE_TIMESTAMP: {
    put_calendar_text(grow(out, calendar_room(t.code)), t.code, null ? nullptr : u, n);
    return;
  }
  case DBTYPE_BINARY: {
    if (null) n = 0;
    put_binary(grow(out, binary_room(n)), u, n);
    return;
  }
  default: { // CHARACTER: UTF-8 text to Latin-1, ending at 65534 bytes
    std::string num;
    if (!null && (is_int || pg_type == PG_OID_FLOAT8 || pg_type == PG_OID_FLOAT4)) {
      // A number shown as text (an aggregate over a number column).
      char buf[64];
      if (is_int)
        snprintf(buf, sizeof buf, "%lld", static_cast<long long>(as_int()));
      else
        snprintf(buf, sizeof buf, "%.15g", as_double());
      num = buf;
      u = reinterpret_cast<const unsigned char *>(num.data());
      n = num.size();
    }
    if (null) n = 0;
    size_t at = out.size();
    out.resize(at + latin1_room(n));
    unsigned char *end = put_latin1(out.data() + at, u, n);
    out.resize(static_cast<size_t>(end - out.data()));
    return;
  }
  }
}

int type_text_compare(const unsigned char *a, size_t na, const unsigned char *b, size_t nb) {
  // Work on the UTF-8 forms so that the collation and this entry agree.
  std::string ua = latin1_to_utf8(std::string(reinterpret_cast<const char *>(a), na));
  std::string ub = latin1_to_utf8(std::string(reinterpret_cast<const char *>(b), nb));
  return collate_tavrin(nullptr, static_cast<int>(ua.size()), ua.data(),
                        static_cast<int>(ub.size()), ub.data());
}

int type_register_collation(sqlite3 *db) {
  return sqlite3_create_collation_v2(db, "TAVRIN", SQLITE_UTF8, nullptr, collate_tavrin, nullptr);
}

} // namespace tavrind
