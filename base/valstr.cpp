// Value strings (see valstr.h). Texts are built in std::string and then
// handed to the register, which owns every copy it returns until the
// outermost Release_ValueStrings.
#include "base/valstr.h"

#include "base/msg.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

// The register has 9999 slots while its warning names 10000; both numbers
// are those the system has always shown.
constexpr size_t kSlots = 9999;
constexpr int kAnnouncedLimit = 10000;

// Process-wide state of the module (see valstr.h). Strings beyond the slots
// are not counted as registered; they are kept aside only so that they are
// freed together with the others instead of leaking for good.
struct Register {
  std::vector<std::unique_ptr<char[]>> slots;
  std::vector<std::unique_ptr<char[]>> beyond;
  int holds = 0;
  bool limit_warned = false;
};

Register &reg() {
  static Register r;
  return r;
}

int g_decimals = -1;

// Copies `text` into a new string owned by the register and returns it.
char *keep(std::string_view text) {
  auto copy = std::make_unique<char[]>(text.size() + 1);
  std::memcpy(copy.get(), text.data(), text.size());
  copy[text.size()] = '\0';
  char *raw = copy.get();
  Register &r = reg();
  if (r.slots.size() < kSlots) {
    r.slots.push_back(std::move(copy));
  } else {
    if (!r.limit_warned) {
      r.limit_warned = true;
      msg_print("(Make_ValueString) Warning: Limit for temporary strings reached - memory is "
                "wasted (limit = %d)\n",
                kAnnouncedLimit);
    }
    r.beyond.push_back(std::move(copy));
  }
  return raw;
}

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
  std::vsnprintf(out.data(), out.size() + 1, fmt, again);
  va_end(again);
  return out;
}

// "%.20f" of `value` cut (not rounded) to `places` decimals.
std::string cut_decimals(double value, int places) {
  std::string s = format("%.20f", value);
  size_t dot = s.find_first_of(".,");
  if (dot != std::string::npos && s.size() > dot + 1 + static_cast<size_t>(places))
    s.resize(dot + 1 + static_cast<size_t>(places));
  return s;
}

std::string_view without_trailing_blanks(std::string_view s) {
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

// Skips leading '0's but keeps the last one before a blank or the end.
const char *skip_leading_zeros(const char *s) {
  while (s[0] == '0' && s[1] != '\0' && s[1] != ' ') ++s;
  return s;
}

std::string reduce_num(const char *text) {
  std::string s(text);
  DATA_TrimNumber(s.data());
  s.resize(std::strlen(s.c_str()));
  return s;
}

char *dash_if_empty(std::string_view s) { return keep(s.empty() ? std::string_view("-") : s); }

} // namespace

int DOUBLE_IsNull(double value) {
  return std::fabs(value - NULL_DOUBLE) <= NULL_DOUBLE_TOLERANCE ? 1 : 0;
}

int TIME_IsNull(const TIME *time) {
  return (time->hour == 0 && time->minute == 0 && time->second == 0) ? 1 : 0;
}

int DATI_IsNull(const DATI *dati) {
  return (dati->year == 1800 && dati->month == 1 && dati->day == 1 && dati->hour == 0 &&
          dati->minute == 0 && dati->second == 0 && dati->usec == 0)
             ? 1
             : 0;
}

void Hold_ValueStrings() { ++reg().holds; }

void Release_ValueStrings() {
  Register &r = reg();
  if (--r.holds < 0)
    msg_fatal("(Release_ValueStrings) Error: No corresponding Hold_ValueStrings!\n");
  if (r.holds == 0) {
    r.slots.clear();
    r.beyond.clear();
  }
}

void Set_ValueDecimals(int places) { g_decimals = places; }
int Get_ValueDecimals() { return g_decimals; }

char *Make_ValueString(const char *text, int len) {
  if (len < 0)
    msg_fatal("(Make_ValueString) Error: Stringsize '%d' of type is invalid ('%s')\n", len, text);
  size_t n = std::strlen(text);
  if (n > static_cast<size_t>(len))
    msg_fatal("(Make_ValueString) Error: Size of string '%s' is invalid (%d characters expected)\n",
              text, len);
  std::string out;
  out.reserve(n + 8);
  for (const char *p = text; *p; ++p) {
    if (*p == '\'' || *p == '"') out += '\\';
    out += *p;
  }
  return keep(out);
}

char *Make_TempString(const char *text) { return keep(text); }

char *Make_TimeString(const TIME *time) {
  return keep(format("%02d:%02d:%02d", time->hour, time->minute, time->second));
}

char *Make_ZeitString(const TIME *time) {
  if (TIME_IsNull(time)) return keep("");
  return Make_TimeString(time);
}

char *Make_DateString(const DATE *date) {
  return keep(format("%04d-%02d-%02d", date->year, date->month, date->day));
}

char *Make_DatumString(const DATE *date) {
  if (DATE_IsNull(date)) return keep("");
  return keep(format("%04d.%02d.%02d", date->year, date->month, date->day));
}

char *Make_DatiString(const DATI *dati) {
  return keep(format("%04d-%02d-%02d-%02d.%02d.%02d.%06d", dati->year, dati->month, dati->day,
                     dati->hour, dati->minute, dati->second, static_cast<int>(dati->usec)));
}

char *Make_TimestampString(const DATI *dati) {
  if (DATI_IsNull(dati)) return keep("");
  return Make_DatiString(dati);
}

char *Make_GermanDateString(const DATE *date) {
  if (DATE_IsNull(date)) return keep("");
  return keep(format("%d.%d.%04d", date->day, date->month, date->year));
}

char *Make_GermanDatiString(const DATI *dati) {
  if (DATI_IsNull(dati)) return keep("");
  return keep(format("%d.%d.%04d %02d:%02d:%02d (%06d)", dati->day, dati->month, dati->year,
                     dati->hour, dati->minute, dati->second, static_cast<int>(dati->usec)));
}

char *Make_DurationString(const DURA *dura) {
  if (DATI_IsNull(dura)) return keep("");
  std::string out;
  if (dura->year > 0) out += format("%d Jahre ", dura->year);
  if (dura->month != 0) out += format("%d Monate ", dura->month);
  if (dura->day != 0) out += format("%d Tage ", dura->day);
  if (dura->hour != 0) out += format("%d Stunden ", dura->hour);
  if (dura->minute != 0) out += format("%d Minuten ", dura->minute);
  out += format("%d,%06d Sekunden", dura->second, static_cast<int>(dura->usec));
  return keep(out);
}

char *Make_LogicalString(char value) {
  if (value == 0 || value == '0') return keep("Nein");
  if (value == 1 || value == '1') return keep("Ja");
  msg_fatal("(Make_LogicalString) Error: Invalid logical value '%c'!\n", value);
}

char *Make_CharString(char character) {
  return keep(std::string_view(&character, character ? 1 : 0));
}

char *Make_BinaryString(const void *value) {
  uint16_t len;
  std::memcpy(&len, value, sizeof len);
  return keep(len != 0 ? "<binary value>" : "");
}

char *Make_ShortString(int16_t value) {
  if (value == NULL_SHORT) return keep("");
  return keep(format("%d", value));
}

char *Make_LongString(int32_t value) {
  if (value == NULL_LONG) return keep("");
  return keep(format("%d", static_cast<int>(value)));
}

char *Make_BetragString(double value) {
  if (DOUBLE_IsNull(value)) return keep("");
  if (g_decimals >= 2) return keep(cut_decimals(value, g_decimals));
  return keep(format("%.2f", value));
}

char *Make_DoubleString(double value) {
  if (DOUBLE_IsNull(value)) return keep("");
  std::string s = g_decimals >= 6 ? cut_decimals(value, g_decimals) : format("%.6f", value);
  return Reduce_NumString(s.c_str());
}

char *Make_Double0String(double value) {
  if (DOUBLE_IsNull(value)) return keep("");
  return keep(format("%.0lf", value));
}

char *Reduce_String(const char *text) { return keep(without_trailing_blanks(text)); }

char *Reduce_NumString(const char *text) { return keep(reduce_num(text)); }

char *Reduce_String0(const char *text) {
  return keep(without_trailing_blanks(skip_leading_zeros(text)));
}

char *Reduce_NumString0(const char *text) { return keep(reduce_num(skip_leading_zeros(text))); }

char *Reduce_String0Dash(const char *text) {
  return dash_if_empty(without_trailing_blanks(skip_leading_zeros(text)));
}

char *Reduce_NumString0Dash(const char *text) {
  return dash_if_empty(reduce_num(skip_leading_zeros(text)));
}

char *Make_HtmlString(const char *text) {
  std::string_view t = without_trailing_blanks(text);
  std::string out;
  for (size_t i = 0; i < t.size(); ++i) {
    if (t[i] != '\n') {
      out += t[i];
      continue;
    }
    out += "<br>";
    size_t blanks = 0;
    while (i + 1 + blanks < t.size() && t[i + 1 + blanks] == ' ') ++blanks;
    if (blanks > 0)
      out += format("<spacer type=horizontal size=%d>", static_cast<int>(10 * blanks));
    i += blanks;
  }
  return dash_if_empty(out);
}

int my_strncpy(char *destination, const char *source, int size) {
  if (size < 0) size = 0;
  std::string_view s = without_trailing_blanks(source);
  int result = 1;
  if (s.size() > static_cast<size_t>(size)) {
    msg_print("(my_strncpy): String too long (strlen = %d; size = %d)!\n",
              static_cast<int>(s.size()), size);
    s = s.substr(0, static_cast<size_t>(size));
    result = 0;
  }
  std::memmove(destination, s.data(), s.size());
  destination[s.size()] = '\0';
  return result;
}
