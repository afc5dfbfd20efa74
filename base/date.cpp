// Calendar records and their rules (see date.h). Texts are formatted with the
// C library into caller buffers of the documented sizes; parsing uses the
// formatted scans whose accept rules the other layers rely on (a trailing
// "%c" that must find nothing, fixed widths for the compact form).
#include "base/date.h"

#include "base/msg.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

namespace {

// Process-wide state of the module (see date.h).
int g_month_len[13] = {31, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
bool g_leap_warned = false;
DATE g_current_date = DATE_MIN;
TIME g_current_time = {0, 0, 0};

// Length of `month` from the table as DATE_SetFebruary last left it; months
// outside 1..12 (only in invalid records) count as 31 days so that stepping
// through them never reads outside the table.
int month_len(int month) { return (month >= 1 && month <= 12) ? g_month_len[month] : 31; }

int cmp3(int a, int b) { return a < b ? -1 : (a > b ? 1 : 0); }

// The four-digit year text that the compact formats take characters from.
void year4(int year, char out[8]) { std::snprintf(out, 8, "%04d", year); }

// One of the two readable date forms; returns the number of conversions.
int scan_date(const char *text, const char *fmt, int *y, int *m, int *d) {
  char c;
  return std::sscanf(text, fmt, y, m, d, &c);
}

} // namespace

void DATE_SetFebruary(int year) { g_month_len[2] = DATE_LeapYear(year) ? 29 : 28; }

int DATE_LeapYear(int year) {
  if ((year < 1970 || year > 2036) && !g_leap_warned) {
    g_leap_warned = true;
    msg_print("(DATE_LeapYear) Warning: Only 4 year regularity implemented!\n");
  }
  return year % 4 == 0 ? 1 : 0;
}

int DATE_ToStr(const DATE *date, char *buffer, int dattyp) {
  char y[8];
  year4(date->year, y);
  switch (dattyp) {
  case DA_YYMMDD:
    std::snprintf(buffer, DATE_BUFSIZE, "%c%c%02d%02d", y[2], y[3], date->month, date->day);
    break;
  case DA_YYYYMMDD:
    std::snprintf(buffer, DATE_BUFSIZE, "%04d%02d%02d", date->year, date->month, date->day);
    break;
  case DA_DDMMY:
    std::snprintf(buffer, DATE_BUFSIZE, "%02d%02d%c", date->day, date->month, y[3]);
    break;
  case DA_DDMMYYYY:
    std::snprintf(buffer, DATE_BUFSIZE, "%02d.%02d.%04d", date->day, date->month, date->year);
    break;
  case DA_YYYY:
    std::snprintf(buffer, DATE_BUFSIZE, "%04d", date->year);
    break;
  default:
    if (dattyp != DA_DEFAULT)
      msg_print("(DATE_ToStr) Invalid dattyp (%d) -> using default.\n", dattyp);
    std::snprintf(buffer, DATE_BUFSIZE, "%04d.%02d.%02d", date->year, date->month, date->day);
    break;
  }
  return 1;
}

int DATE_FromString(DATE *date, const char *text, int dattyp) {
  const char *refused = nullptr;
  switch (dattyp) {
  case DA_YYMMDD:
    refused = "DA_YYMMDD";
    break;
  case DA_DDMMY:
    refused = "DA_DDMMY";
    break;
  case DA_DDMMYYYY:
    refused = "DA_DDMMYYYY";
    break;
  case DA_YYYY:
    refused = "DA_YYYY";
    break;
  case DA_YYYYMMDD:
  case DA_DEFAULT:
    break;
  default:
    msg_print("(DATE_FromString) Invalid dattyp (%d) -> using default.\n", dattyp);
    dattyp = DA_DEFAULT;
    break;
  }
  int y = 0, m = 0, d = 0, n = 0;
  if (refused) {
    msg_print("(DATE_FromString) Format %s not yet implemented!\n", refused);
  } else if (dattyp == DA_YYYYMMDD) {
    n = scan_date(text, "%4d%2d%2d%c", &y, &m, &d);
  } else {
    n = scan_date(text, "%4d-%2d-%2d%c", &y, &m, &d);
    if (n != 3) n = scan_date(text, "%4d.%2d.%2d%c", &y, &m, &d);
  }
  if (n != 3) {
    msg_print("(DATE_FromString) Warning: Invalid DATE-string\n");
    return 0;
  }
  // The widths keep every number within four digits, so the narrowing below
  // only ever loses values that DATE_IsValid rejects anyway.
  if (y < 1800 || y > 2800 || m < 1 || m > 12 || d < 1 || d > 31) return 0;
  DATE parsed = {static_cast<int16_t>(y), static_cast<uint8_t>(m), static_cast<uint8_t>(d)};
  if (!DATE_IsValid(&parsed)) return 0;
  *date = parsed;
  return 1;
}

int DATE_ToIsoString(const DATE *date, char *buffer) {
  std::snprintf(buffer, DATE_BUFSIZE, "%04d-%02d-%02d", date->year, date->month, date->day);
  return 1;
}

int DATE_IsValid(const DATE *date) {
  if (date->year < 1800 || date->year > 2800) return 0;
  if (date->month < 1 || date->month > 12) return 0;
  DATE_SetFebruary(date->year);
  return (date->day >= 1 && date->day <= g_month_len[date->month]) ? 1 : 0;
}

int DATE_IsNull(const DATE *date) {
  return (date->year == 1800 && date->month == 1 && date->day == 1) ? 1 : 0;
}

void DATE_SetNull() { g_current_date = DATE_MIN; }
void DATE_Set(const DATE *date) { g_current_date = *date; }
DATE DATE_Get() { return g_current_date; }

int DATE_Compare(const DATE *a, const DATE *b) {
  if (int c = cmp3(a->year, b->year)) return c;
  if (int c = cmp3(a->month, b->month)) return c;
  return cmp3(a->day, b->day);
}

int DATE_Today(DATE *date) {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  date->year = static_cast<int16_t>(tm.tm_year + 1900);
  date->month = static_cast<uint8_t>(tm.tm_mon + 1);
  date->day = static_cast<uint8_t>(tm.tm_mday);
  return 1;
}

int DATE_DayOfYear(const DATE *date) {
  DATE_SetFebruary(date->year);
  int n = date->day;
  for (int m = 1; m < date->month && m <= 12; ++m) n += g_month_len[m];
  return n;
}

int DATE_AddDays(DATE *date, int n) {
  int y = date->year, m = date->month, d = date->day;
  DATE_SetFebruary(y);
  for (long i = 0; i < n; ++i) {
    if (++d > month_len(m)) {
      d = 1;
      if (++m > 12) {
        m = 1;
        DATE_SetFebruary(++y);
      }
    }
  }
  for (long i = 0; i < -static_cast<long>(n); ++i) {
    if (--d < 1) {
      if (--m < 1) {
        m = 12;
        DATE_SetFebruary(--y);
      }
      d = month_len(m);
    }
  }
  date->year = static_cast<int16_t>(y);
  date->month = static_cast<uint8_t>(m);
  date->day = static_cast<uint8_t>(d);
  return 1;
}

int DATE_AddMonths(DATE *date, int n) {
  int y = date->year, m = date->month;
  for (long i = 0; i < n; ++i) {
    if (++m > 12) {
      m = 1;
      ++y;
    }
  }
  for (long i = 0; i < -static_cast<long>(n); ++i) {
    if (--m < 1) {
      m = 12;
      --y;
    }
  }
  DATE_SetFebruary(y);
  int d = date->day;
  if (d > month_len(m)) d = month_len(m);
  date->year = static_cast<int16_t>(y);
  date->month = static_cast<uint8_t>(m);
  date->day = static_cast<uint8_t>(d);
  return 1;
}

int DATE_AddMonthsUltimo(DATE *date, int n) {
  bool ultimo = date->day == DATE_DaysInMonth(date);
  DATE_AddMonths(date, n);
  if (ultimo) date->day = static_cast<uint8_t>(DATE_DaysInMonth(date));
  return 1;
}

int DATE_DaysInMonth(const DATE *date) {
  DATE_SetFebruary(date->year);
  return month_len(date->month);
}

int DATE_GetUltimo(DATE *date, const char *mode) {
  if (std::strcmp(mode, "MONA") != 0) {
    msg_print("(DATE_GetUltimo) Not yet implemented for mode '%s'!\n", mode);
    return 0;
  }
  date->day = static_cast<uint8_t>(DATE_DaysInMonth(date));
  return 1;
}

int DATE_LeapDays(const DATE *from, const DATE *to) {
  if (DATE_Compare(from, to) >= 0) return 0;
  int count = 0;
  for (int y = from->year + (from->month >= 3 ? 1 : 0); y <= to->year; ++y) {
    if (!DATE_LeapYear(y)) continue;
    DATE feb29 = {static_cast<int16_t>(y), 2, 29};
    if (DATE_Compare(&feb29, from) > 0 && DATE_Compare(&feb29, to) < 0) ++count;
  }
  return count;
}

int DATE_Diff2(const DATE *from, const DATE *to, const char *mode) {
  bool adjust = std::strcmp(mode, "30  ") == 0;
  bool calendar = std::strcmp(mode, "KAL ") == 0;
  if (std::strcmp(mode, "30E ") == 0) {
    msg_print("(DATE_Diff2) Mode '%s' not yet implemented ('30' is used)!\n", mode);
    adjust = true;
  }
  const DATE *lo = from, *hi = to;
  int sign = 1;
  if (DATE_Compare(from, to) > 0) {
    std::swap(lo, hi);
    sign = -1;
  }
  int y1 = lo->year, m1 = lo->month, d1 = lo->day;
  int y2 = hi->year, m2 = hi->month, d2 = hi->day;
  int days;
  if (calendar) {
    DATE_SetFebruary(y1);
    if (y1 == y2 && m1 == m2) {
      days = d2 - d1;
    } else if (y1 != y2) {
      days = month_len(m1) - d1;
      for (int m = m1 + 1; m <= 12; ++m) days += month_len(m);
      for (int y = y1 + 1; y < y2; ++y) days += DATE_LeapYear(y) ? 366 : 365;
      DATE_SetFebruary(y2);
      for (int m = 1; m < m2 && m <= 12; ++m) days += month_len(m);
      days += d2;
    } else {
      days = month_len(m1) - d1;
      for (int m = m1 + 1; m < m2 && m <= 12; ++m) days += month_len(m);
      days += d2;
    }
  } else {
    if (d1 == 31) d1 = 30;
    if (d2 == 31) d2 = 30;
    // The adjustment applies to both dates as soon as either lies in February.
    if (adjust && (m1 == 2 || m2 == 2)) {
      if (d1 >= 28) d1 = 30;
      if (d2 >= 28) d2 = 30;
    }
    if (y1 == y2 && m1 == m2)
      days = d2 - d1;
    else if (y1 != y2)
      days = (30 - d1) + 30 * (12 - m1) + 360 * (y2 - y1 - 1) + 30 * (m2 - 1) + d2;
    else
      days = (30 - d1) + 30 * (m2 - m1 - 1) + d2;
  }
  return sign * days;
}

// ---- Times ----------------------------------------------------------------

void TIME_SetNull() { g_current_time = TIME{0, 0, 0}; }
void TIME_Set(const TIME *time) { g_current_time = *time; }
TIME TIME_Get() { return g_current_time; }

int TIME_Compare(const TIME *a, const TIME *b) {
  if (int c = cmp3(a->hour, b->hour)) return c;
  if (int c = cmp3(a->minute, b->minute)) return c;
  return cmp3(a->second, b->second);
}

int TIME_Now(TIME *time) {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  time->hour = static_cast<uint8_t>(tm.tm_hour);
  time->minute = static_cast<uint8_t>(tm.tm_min);
  time->second = static_cast<uint8_t>(tm.tm_sec > 59 ? 59 : tm.tm_sec);
  return 1;
}

int TIME_IsValid(const TIME *time) {
  return (time->hour < 24 && time->minute < 60 && time->second < 60) ? 1 : 0;
}

namespace {

// Shared check of the time text: 0 wrong length, 1 scan or value failure,
// 2 good (with the parsed time in *out).
int check_time_text(const char *text, TIME *out) {
  if (std::strlen(text) != 8) return 0;
  int h, m, s;
  if (std::sscanf(text, "%d:%d:%d", &h, &m, &s) != 3) return 1;
  if (h < 0 || h > 23 || m < 0 || m > 59 || s < 0 || s > 59) return 1;
  *out = TIME{static_cast<uint8_t>(h), static_cast<uint8_t>(m), static_cast<uint8_t>(s)};
  return TIME_IsValid(out) ? 2 : 1;
}

// Reads a 26-character timestamp text into *out; false when the length, the
// scan or the values are wrong.
bool check_dati_text(const char *text, DATI *out) {
  if (std::strlen(text) != 26) return false;
  int v[7];
  if (std::sscanf(text, "%d-%d-%d-%d.%d.%d.%d", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]) !=
      7)
    return false;
  if (v[0] < 1800 || v[0] > 2800) return false;
  for (int i = 1; i < 6; ++i)
    if (v[i] < 0 || v[i] > 255) return false;
  DATI d{};
  d.year = static_cast<int16_t>(v[0]);
  d.month = static_cast<uint8_t>(v[1]);
  d.day = static_cast<uint8_t>(v[2]);
  d.hour = static_cast<uint8_t>(v[3]);
  d.minute = static_cast<uint8_t>(v[4]);
  d.second = static_cast<uint8_t>(v[5]);
  d.usec = v[6];
  if (!DATI_IsValid(&d)) return false;
  *out = d;
  return true;
}

} // namespace

int TIME_IsValidString(const char *text) {
  TIME t;
  return check_time_text(text, &t) == 2 ? 1 : 0;
}

int TIME_FromString(TIME *time, const char *text) {
  TIME t;
  switch (check_time_text(text, &t)) {
  case 0:
    msg_print("(TIME_FromString) Invalid time (%s)\n", text);
    return 0;
  case 1:
    msg_print("(TIME_FromString) Invalid timestamp (%s)\n", text);
    return 0;
  default:
    *time = t;
    return 1;
  }
}

int TIME_ToString(const TIME *time, char *buffer) {
  std::snprintf(buffer, 12, "%02d:%02d:%02d", time->hour, time->minute, time->second);
  return 1;
}

// ---- Timestamps -----------------------------------------------------------

int DATI_IsValid(const DATI *dati) {
  DATE d = {dati->year, dati->month, dati->day};
  TIME t = {dati->hour, dati->minute, dati->second};
  return (DATE_IsValid(&d) && TIME_IsValid(&t) && dati->usec >= 0 && dati->usec <= 999999) ? 1 : 0;
}

int DATI_IsValidString(const char *text) {
  DATI d;
  return check_dati_text(text, &d) ? 1 : 0;
}

int DATI_FromString(DATI *dati, const char *text) {
  DATI d;
  if (!check_dati_text(text, &d)) {
    msg_print("(DATI_FromString) Invalid timestamp (%s)\n", text);
    return 0;
  }
  *dati = d;
  return 1;
}

int DATI_ToString(const DATI *dati, char *buffer, int datityp) {
  if (datityp != DATI_DEFAULT)
    msg_print("(DATI_ToString) Invalid datityp (%d) -> using default.\n", datityp);
  std::snprintf(buffer, DATI_BUFSIZE, "%04d-%02d-%02d-%02d.%02d.%02d.%06d", dati->year, dati->month,
                dati->day, dati->hour, dati->minute, dati->second, static_cast<int>(dati->usec));
  return 1;
}

int DATI_Compare(const DATI *a, const DATI *b) {
  if (!DATI_IsValid(a) || !DATI_IsValid(b)) {
    msg_print("(DATI_Compare) Invalid timestamp\n");
    return 0;
  }
  if (int c = cmp3(a->year, b->year)) return c;
  if (int c = cmp3(a->month, b->month)) return c;
  if (int c = cmp3(a->day, b->day)) return c;
  if (int c = cmp3(a->hour, b->hour)) return c;
  if (int c = cmp3(a->minute, b->minute)) return c;
  if (int c = cmp3(a->second, b->second)) return c;
  return cmp3(a->usec, b->usec);
}

namespace {

// The product of a time-of-day difference and its unit in microseconds, formed
// in 32-bit signed arithmetic: differences of 36 minutes or more (and every
// hour term) wrap around, which short durations never reach.
int32_t wrap32(int64_t product) { return static_cast<int32_t>(static_cast<uint32_t>(product)); }

} // namespace

int DATI_Diff(const DATI *a, const DATI *b, double *seconds) {
  const DATI *later = a, *earlier = b;
  if (DATI_Compare(a, b) < 0) std::swap(later, earlier);

  double total = 0.0;
  int borrow = 0;
  int64_t usec = static_cast<int64_t>(later->usec) - earlier->usec;
  if (usec < 0) {
    usec += 1000000;
    borrow = 1;
  }
  total += static_cast<double>(usec);

  // Each field: difference minus the borrow of the field below, wrapped into
  // its range with a borrow of its own.
  auto field = [&borrow](int hi, int lo, int range) {
    int v = hi - lo - borrow;
    borrow = 0;
    if (v < 0) {
      v += range;
      borrow = 1;
    }
    return v;
  };
  int sec = field(later->second, earlier->second, 60);
  total += wrap32(static_cast<int64_t>(sec) * 1000000);
  int min = field(later->minute, earlier->minute, 60);
  total += wrap32(static_cast<int64_t>(min) * 60000000);
  int hour = field(later->hour, earlier->hour, 24);
  total += wrap32(static_cast<int64_t>(hour) * 3600000000LL);
  // The day difference is worked out with its borrow but only the time of day
  // counts towards the result.
  (void)field(later->day, earlier->day, 31);

  *seconds = total / 1000000.0;
  if (a->year != b->year || a->month != b->month) {
    msg_print("(DATI_Diff) Warning: Inaccurate time-duration, because duration is too long!\n");
    return 0;
  }
  return 1;
}
