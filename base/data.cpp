// Typed values (see data.h). Storage is read and written with memcpy, so
// values may lie at any byte position of a record. Refusals are programming
// errors and end the program through msg_fatal.
#include "base/data.h"

#include "base/date.h"
#include "base/msg.h"

#include <cctype>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

// Process-wide state of the module: irand's call counter. It starts above the
// limit so that the very first call seeds the generator.
constexpr int kReseedLimit = 40;
int g_irand_calls = kReseedLimit;

template <typename T> T load(const void *p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <typename T> void store(void *p, T v) { std::memcpy(p, &v, sizeof v); }

bool is_integer_type(int t) {
  return t == DT_SHORT || t == DT_INT || t == DT_LONG || t == DT_USHORT || t == DT_UINT ||
         t == DT_ULONG;
}

bool is_string_type(int t) { return t == DT_STRING || t == DT_KEY || t == DT_HKEY; }

bool is_number_type(int t) { return is_integer_type(t) || t == DT_FLOAT || t == DT_DOUBLE; }

// The value of an integer source, sign- or zero-extended by its type.
int64_t load_integer(const void *src, int type) {
  switch (type) {
  case DT_SHORT:
    return load<int16_t>(src);
  case DT_USHORT:
    return load<uint16_t>(src);
  case DT_INT:
  case DT_LONG:
    return load<int32_t>(src);
  default:
    return load<uint32_t>(src); // DT_UINT, DT_ULONG
  }
}

// A floating value truncated toward zero, as the bits of a 64-bit integer; the
// destination keeps the low 16 or 32 of them. Values that no 64-bit integer
// holds (and NaN) give the bit pattern of the smallest one, as the hardware's
// conversion does.
uint64_t truncate_bits(double d) {
  if (!std::isfinite(d) || std::fabs(d) >= 9223372036854775808.0)
    return UINT64_C(0x8000000000000000);
  return static_cast<uint64_t>(static_cast<int64_t>(d));
}

// Rounds a double to single precision as IEEE arithmetic does, overflowing
// to an infinity only beyond the largest float plus half its spacing.
float to_float(double d) {
  constexpr double kOverflow = 340282356779733661637539395458142568448.0; // 2^128 - 2^103
  if (std::isnan(d)) return static_cast<float>(d);
  if (d >= kOverflow) return HUGE_VALF;
  if (d <= -kOverflow) return -HUGE_VALF;
  if (d > FLT_MAX) return FLT_MAX;
  if (d < -FLT_MAX) return -FLT_MAX;
  return static_cast<float>(d);
}

// The numeric source as a double or a float in its own precision.
double load_as_double(const void *src, int type) {
  if (type == DT_FLOAT) return load<float>(src);
  if (type == DT_DOUBLE) return load<double>(src);
  return static_cast<double>(load_integer(src, type));
}

float load_as_float(const void *src, int type) {
  if (type == DT_FLOAT) return load<float>(src);
  if (type == DT_DOUBLE) return to_float(load<double>(src));
  int64_t v = load_integer(src, type);
  return static_cast<float>(v); // exact integer → nearest float
}

bool all_space(const char *s) {
  for (; *s; ++s)
    if (!std::isspace(static_cast<unsigned char>(*s))) return false;
  return true;
}

// Parses a text into a FLOAT (strict: nothing may follow the number) or a
// DOUBLE (white space may follow). An empty or blank text gives the
// empty-number marker; a bad text a warning and whatever the scan stored.
void parse_number(void *dst, int dtype, const char *text) {
  if (all_space(text)) {
    if (dtype == DT_FLOAT)
      store(dst, DATA_EMPTY_NUMBER_F);
    else
      store(dst, DATA_EMPTY_NUMBER);
    return;
  }
  char c;
  int n;
  if (dtype == DT_FLOAT) {
    float f = 0.0f;
    n = std::sscanf(text, "%f%c", &f, &c);
    store(dst, f);
  } else {
    double d = 0.0;
    n = std::sscanf(text, "%lf %c", &d, &c);
    store(dst, d);
  }
  if (n != 1) msg_print("(DATA_Assign) Warning: Illegal float-string '%s'\n", text);
}

// Formats a FLOAT or DOUBLE as a trimmed number text into a string
// destination.
void number_to_string(char *dst, int stype, const void *src) {
  double d = stype == DT_FLOAT ? static_cast<double>(load<float>(src)) : load<double>(src);
  const char *fmt = stype == DT_FLOAT ? "%f" : "%lf";
  int n = std::snprintf(nullptr, 0, fmt, d);
  std::string text(static_cast<size_t>(n > 0 ? n : 0) + 1, '\0');
  std::snprintf(text.data(), text.size(), fmt, d);
  DATA_TrimNumber(text.data());
  std::memcpy(dst, text.c_str(), std::strlen(text.c_str()) + 1);
}

// Stores the low bits of `bits` in an integer destination.
void store_integer(void *dst, int dtype, uint64_t bits) {
  if (dtype == DT_SHORT || dtype == DT_USHORT)
    store(dst, static_cast<uint16_t>(bits));
  else
    store(dst, static_cast<uint32_t>(bits));
}

const char *integer_refusal(int dtype) {
  switch (dtype) {
  case DT_SHORT:
    return "(DATA_Assign) Illegal short-assignment\n";
  case DT_USHORT:
    return "(DATA_Assign) Illegal unsigned short-assignment\n";
  case DT_INT:
    return "(DATA_Assign) Illegal int-assignment\n";
  case DT_UINT:
    return "(DATA_Assign) Illegal unsigned int-assignment\n";
  case DT_LONG:
    return "(DATA_Assign) Illegal long-assignment\n";
  default:
    return "(DATA_Assign) Illegal unsigned long-assignment\n";
  }
}

template <typename T> int order(T l, T r) {
  if (l < r) return -1;
  if (l == r) return 0;
  return 1;
}

// Numbers under C's usual arithmetic promotions: a float operand decides
// the precision (a DOUBLE against a FLOAT is rounded to single first), an
// unsigned 32-bit operand makes the comparison unsigned, everything else
// compares as signed 32-bit.
int compare_numbers(const void *l, int lt, const void *r, int rt) {
  bool lf = lt == DT_DOUBLE, rf = rt == DT_DOUBLE;
  if (lt == DT_FLOAT || rt == DT_FLOAT) return order(load_as_float(l, lt), load_as_float(r, rt));
  if (lf || rf) return order(load_as_double(l, lt), load_as_double(r, rt));
  bool unsigned32 = lt == DT_UINT || lt == DT_ULONG || rt == DT_UINT || rt == DT_ULONG;
  int64_t a = load_integer(l, lt), b = load_integer(r, rt);
  if (unsigned32) return order(static_cast<uint32_t>(a), static_cast<uint32_t>(b));
  return order(static_cast<int32_t>(a), static_cast<int32_t>(b));
}

// A character as the string order sees it: ASCII upper case, the Latin-1
// capitals Ä, Ö, Ü as A, O, U, then taken as a signed byte.
signed char fold(char ch) {
  unsigned char u = static_cast<unsigned char>(ch);
  if (u >= 'a' && u <= 'z') u = static_cast<unsigned char>(u - 'a' + 'A');
  if (u == 196) u = 'A';
  if (u == 214) u = 'O';
  if (u == 220) u = 'U';
  return static_cast<signed char>(u);
}

int compare_strings(const char *a, const char *b) {
  // Trailing blanks never matter when the texts agree exactly up to there.
  size_t i = 0;
  while (a[i] && a[i] == b[i]) ++i;
  if (!a[i] || !b[i]) {
    const char *rest = a[i] ? a + i : b + i;
    while (*rest == ' ') ++rest;
    if (!*rest) return 0;
  }
  for (i = 0; a[i] && b[i]; ++i) {
    signed char x = fold(a[i]), y = fold(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  if (!a[i] && !b[i]) return 0;
  return a[i] ? 1 : -1;
}

const char *compare_refusal(int ltype) {
  switch (ltype) {
  case DT_SHORT:
    return "(DATA_Compare) Illegal short compare\n";
  case DT_USHORT:
    return "(DATA_Compare) Illegal unsigned short compare\n";
  case DT_INT:
    return "(DATA_Compare) Illegal int compare\n";
  case DT_UINT:
    return "(DATA_Compare) Illegal unsigned int compare\n";
  case DT_LONG:
    return "(DATA_Compare) Illegal long compare\n";
  case DT_ULONG:
    return "(DATA_Compare) Illegal unsigned long compare\n";
  case DT_FLOAT:
    return "(DATA_Compare) Illegal float compare\n";
  default:
    return "(DATA_Compare) Illegal double compare\n";
  }
}

} // namespace

int _GetTypeId(const char *name) {
  // Tested in this order; BINARY comes twelfth but keeps its id 18.
  static const struct {
    const char *name;
    int id;
  } kNames[] = {{"LOGICAL", DT_LOGICAL}, {"SHORT", DT_SHORT},   {"INT", DT_INT},
                {"LONG", DT_LONG},       {"USHORT", DT_USHORT}, {"UINT", DT_UINT},
                {"ULONG", DT_ULONG},     {"FLOAT", DT_FLOAT},   {"DOUBLE", DT_DOUBLE},
                {"CHAR", DT_CHAR},       {"STRING", DT_STRING}, {"BINARY", DT_BINARY},
                {"DATE", DT_DATE},       {"TIME", DT_TIME},     {"DATI", DT_DATI},
                {"KEY", DT_KEY},         {"HKEY", DT_HKEY},     {"DURA", DT_DURA}};
  for (const auto &n : kNames)
    if (std::strcmp(n.name, name) == 0) return n.id;
  msg_fatal("(_GetTypeId) Error: Type-name '%s' not defined!\n", name);
}

int _GetTypeSize(int id) {
  switch (id) {
  case DT_LOGICAL:
  case DT_CHAR:
  case DT_BINARY:
    return 1;
  case DT_SHORT:
  case DT_USHORT:
    return 2;
  case DT_INT:
  case DT_LONG:
  case DT_UINT:
  case DT_ULONG:
  case DT_FLOAT:
  case DT_DATE:
  case DT_KEY:
  case DT_HKEY:
    return 4;
  case DT_DOUBLE:
    return 8;
  case DT_TIME:
    return 3;
  case DT_DATI:
  case DT_DURA:
    return 12;
  default:
    msg_fatal("(_GetTypeSize) Error: Size for type-id '%d' not defined!\n", id);
  }
}

void DATA_TrimNumber(char *text) {
  size_t n = std::strlen(text);
  while (n > 0 && text[n - 1] == ' ') --n;
  if (std::memchr(text, '.', n) || std::memchr(text, ',', n)) {
    while (n > 0 && text[n - 1] == '0') --n;
    if (n > 0 && (text[n - 1] == '.' || text[n - 1] == ',')) --n;
  }
  text[n] = '\0';
}

void DATA_Assign(void *dst, int dtype, const void *src, int stype) {
  switch (dtype) {
  case DT_LOGICAL:
  case DT_CHAR:
    if (stype != DT_LOGICAL && stype != DT_CHAR)
      msg_fatal("(DATA_Assign) Illegal character assignment\n");
    std::memcpy(dst, src, 1);
    return;
  case DT_STRING:
  case DT_KEY:
  case DT_HKEY:
    if (is_string_type(stype))
      std::memmove(dst, src, std::strlen(static_cast<const char *>(src)) + 1);
    else if (stype == DT_FLOAT || stype == DT_DOUBLE)
      number_to_string(static_cast<char *>(dst), stype, src);
    else
      msg_fatal("(DATA_Assign) Illegal string assignment\n");
    return;
  case DT_DATE:
    if (stype != DT_DATE) msg_fatal("(DATA_Assign) Illegal date assignment\n");
    std::memmove(dst, src, sizeof(DATE));
    return;
  case DT_TIME:
    // Accepted without copying: callers that need a copy move the bytes.
    if (stype != DT_TIME) msg_fatal("(DATA_Assign) Illegal time assignment\n");
    return;
  case DT_DATI:
    if (stype != DT_DATI) msg_fatal("(DATA_Assign) Illegal timestamp assignment\n");
    return;
  case DT_SHORT:
  case DT_USHORT:
  case DT_INT:
  case DT_UINT:
  case DT_LONG:
  case DT_ULONG:
    if (is_integer_type(stype))
      store_integer(dst, dtype, static_cast<uint64_t>(load_integer(src, stype)));
    else if (stype == DT_FLOAT || stype == DT_DOUBLE)
      store_integer(dst, dtype, truncate_bits(load_as_double(src, stype)));
    else
      msg_fatal("%s", integer_refusal(dtype));
    return;
  case DT_FLOAT:
    if (is_number_type(stype))
      store(dst, load_as_float(src, stype));
    else if (stype == DT_STRING)
      parse_number(dst, dtype, static_cast<const char *>(src));
    else
      msg_fatal("(DATA_Assign) Illegal float-assignment\n");
    return;
  case DT_DOUBLE:
    if (is_number_type(stype))
      store(dst, load_as_double(src, stype));
    else if (stype == DT_STRING)
      parse_number(dst, dtype, static_cast<const char *>(src));
    else
      msg_fatal("(DATA_Assign) Illegal double-assignment\n");
    return;
  default:
    msg_fatal("(DATA_Assign) Illegal assignment\n");
  }
}

int DATA_Compare(const void *left, int ltype, const void *right, int rtype) {
  switch (ltype) {
  case DT_LOGICAL:
  case DT_CHAR:
    if (rtype != DT_LOGICAL && rtype != DT_CHAR)
      msg_fatal("(DATA_Compare) Illegal character compare\n");
    return order(load<signed char>(left), load<signed char>(right));
  case DT_STRING:
  case DT_KEY:
  case DT_HKEY:
    if (!is_string_type(rtype)) msg_fatal("(DATA_Compare) Illegal string compare\n");
    return compare_strings(static_cast<const char *>(left), static_cast<const char *>(right));
  case DT_DATI: {
    if (rtype != DT_DATI) msg_fatal("(DATA_Compare) Illegal timestamp compare\n");
    DATI a = load<DATI>(left), b = load<DATI>(right);
    return DATI_Compare(&a, &b);
  }
  case DT_DATE: {
    if (rtype != DT_DATE) msg_fatal("(DATA_Compare) Illegal date compare\n");
    DATE a = load<DATE>(left), b = load<DATE>(right);
    return DATE_Compare(&a, &b);
  }
  case DT_TIME: {
    if (rtype != DT_TIME) msg_fatal("(DATA_Compare) Illegal time compare\n");
    TIME a = load<TIME>(left), b = load<TIME>(right);
    return TIME_Compare(&a, &b);
  }
  case DT_SHORT:
  case DT_USHORT:
  case DT_INT:
  case DT_UINT:
  case DT_LONG:
  case DT_ULONG:
  case DT_FLOAT:
  case DT_DOUBLE:
    if (!is_number_type(rtype)) msg_fatal("%s", compare_refusal(ltype));
    return compare_numbers(left, ltype, right, rtype);
  default:
    msg_fatal("(DATA_Compare) Illegal compare\n");
  }
}

void STRUCT_Assign(void *dst, const void *src) {
  int32_t size = load<int32_t>(src);
  if (size < STRUCT_MIN_SIZE || size > STRUCT_MAX_SIZE)
    msg_print("(STRUCT_Assign) Warning: Struct not initialized (size %d)???\n", size);
  if (size > 0) std::memmove(dst, src, static_cast<size_t>(size));
}

int STRUCT_Compare(const void *left, const void *right) {
  int32_t ls = load<int32_t>(left), rs = load<int32_t>(right);
  if (ls != rs) msg_fatal("(STRUCT_Compare) Incompatible operands!\n");
  if (ls <= 0) return 0;
  return std::memcmp(left, right, static_cast<size_t>(ls));
}

void DATA_GetNumber(void *context, uint32_t *result, int len) {
  (void)context;
  if (len < 1 || len > 8) msg_fatal("(DATA_GetNumber) Invalid parameter len (%d)!\n", len);
  int bound = 1;
  for (int i = 0; i < len; ++i) bound *= 10;
  *result = static_cast<uint32_t>(irand(0, bound - 1));
}

int irand(int low, int high) {
  if (low >= high) {
    msg_print("(irand) Wertebereich (%d - %d) ungültig!\n", low, high);
    low = high;
  }
  if (++g_irand_calls > kReseedLimit) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    g_irand_calls = 0;
  }
  int r = std::rand() & 0x7fff;
  double span = static_cast<double>(high) - static_cast<double>(low);
  return low + static_cast<int>(r * span / 32768.0);
}
