// Calendar records and their rules: DATE, TIME, DATI (timestamp) and DURA
// (duration, laid out like DATI), their validity, text forms, comparison,
// calendar arithmetic, interest-style day counts and the timestamp difference.
//
// All functions work on caller-owned records and write texts into
// caller-owned buffers. Null markers as display rules (empty strings) belong
// to the value strings (valstr.h); typed assignment and ordering of values of
// any type belong to data.h.
//
// Process-wide state of this module, all in date.cpp: the month-length table
// (whose February entry DATE_SetFebruary rewrites), the once-per-run flag of
// the leap-year warning, and the "current" date and time slots of
// DATE_Set/TIME_Set.
#pragma once

#include <cstddef>
#include <cstdint>

// Calendar date: year 1800..2800, month 1..12, day 1..days in month.
struct DATE {
  int16_t year;
  uint8_t month;
  uint8_t day;
};

// Time of day: hour 0..23, minute 0..59, second 0..59.
struct TIME {
  uint8_t hour;
  uint8_t minute;
  uint8_t second;
};

// Timestamp: date, time of day and microseconds 0..999999. One padding byte
// lies before the microseconds (offset 7).
struct DATI {
  int16_t year;
  uint8_t month;
  uint8_t day;
  uint8_t hour;
  uint8_t minute;
  uint8_t second;
  int32_t usec;
};

// A duration is stored in the layout of a timestamp, field by field.
using DURA = DATI;

static_assert(sizeof(DATE) == 4, "DATE is one 32-bit word");
static_assert(sizeof(TIME) == 3, "TIME is three bytes");
static_assert(sizeof(DATI) == 12, "DATI is 12 bytes");
static_assert(offsetof(DATE, month) == 2 && offsetof(DATE, day) == 3);
static_assert(offsetof(DATI, second) == 6 && offsetof(DATI, usec) == 8);

// Date text formats (dattyp) of DATE_ToStr and DATE_FromString.
enum DateFormat : int {
  DA_YYMMDD = 1,
  DA_YYYYMMDD = 2,
  DA_DDMMY = 3,
  DA_DDMMYYYY = 4,
  DA_YYYY = 5,
  DA_DEFAULT = 9,
};

// The one timestamp text format (datityp) of DATI_ToString.
constexpr int DATI_DEFAULT = 9;

// Buffer sizes that hold every text these formatters can produce, for any
// record contents (valid records need less: 11 for a date, 27 for a
// timestamp, 9 for a time).
constexpr size_t DATE_BUFSIZE = 16;
constexpr size_t DATI_BUFSIZE = 40;

// Fixed dates: the null date 1800-01-01 is the smallest valid date.
constexpr DATE DATE_MIN = {1800, 1, 1};
constexpr DATE DATE_MAX = {2800, 12, 31};

// ---- Month lengths and leap years ----------------------------------------

// Rewrites the February entry of the month-length table for `year` (29 in a
// leap year, else 28). Every function below that uses month lengths calls it
// first for the year concerned.
void DATE_SetFebruary(int year);

// 1 when `year` is divisible by 4 (no century rule), else 0. The first test of
// a year below 1970 or above 2036 in a run prints a warning once.
int DATE_LeapYear(int year);

// ---- Dates ----------------------------------------------------------------

// Formats `date` per `dattyp` into `buffer` (at least DATE_BUFSIZE bytes);
// an unknown dattyp prints a message and uses DA_DEFAULT. Always returns 1.
int DATE_ToStr(const DATE *date, char *buffer, int dattyp);

// Parses `text` per `dattyp` (DA_YYYYMMDD and DA_DEFAULT are readable; the
// other formats are refused with a message). Returns 1 and stores the date
// when it is valid; returns 0 and leaves `date` unchanged otherwise.
int DATE_FromString(DATE *date, const char *text, int dattyp);

// Writes "YYYY-MM-DD" into `buffer` (at least DATE_BUFSIZE bytes); returns 1.
int DATE_ToIsoString(const DATE *date, char *buffer);

// 1 if year is 1800..2800, month 1..12 and day 1..length of the month.
int DATE_IsValid(const DATE *date);

// 1 when `date` is the null date 1800-01-01.
int DATE_IsNull(const DATE *date);

// Store the null date (resp. `date`) in the process-wide current-date slot.
void DATE_SetNull();
void DATE_Set(const DATE *date);
// The value of the current-date slot (the null date until set).
DATE DATE_Get();

// -1, 0, 1 ordering by year, month, day.
int DATE_Compare(const DATE *a, const DATE *b);

// Fills `date` with today's local date; returns 1.
int DATE_Today(DATE *date);

// Day of the year: day plus the lengths of the months before.
int DATE_DayOfYear(const DATE *date);

// Moves `date` by n days (negative: backward), one day at a time. Returns 1.
int DATE_AddDays(DATE *date, int n);
// Moves `date` by n months and clamps the day to the new month. Returns 1.
int DATE_AddMonths(DATE *date, int n);
// As DATE_AddMonths, but a month's last day stays the last day. Returns 1.
int DATE_AddMonthsUltimo(DATE *date, int n);

// Number of days of the date's month in the date's year.
int DATE_DaysInMonth(const DATE *date);

// Mode "MONA": sets the day to the last day of the month and returns 1. Any
// other mode prints a message, leaves the date and returns 0.
int DATE_GetUltimo(DATE *date, const char *mode);

// Number of 29 Februaries strictly between `from` and `to` (0 unless from <
// to).
int DATE_LeapDays(const DATE *from, const DATE *to);

// Day count from `from` to `to` under the convention `mode`: "30  " (30/360
// with the February adjustment), "KAL " (calendar days), "30E " (announced as
// not implemented, counted as "30  "), anything else 30/360 without the
// February adjustment. Positive when from is earlier, negative when later.
int DATE_Diff2(const DATE *from, const DATE *to, const char *mode);

// ---- Times ----------------------------------------------------------------

// Store the null time 00:00:00 (resp. `time`) in the current-time slot.
void TIME_SetNull();
void TIME_Set(const TIME *time);
TIME TIME_Get();

// -1, 0, 1 ordering by hour, minute, second.
int TIME_Compare(const TIME *a, const TIME *b);

// Fills `time` with the local time of day; returns 1.
int TIME_Now(TIME *time);

// 1 if hour < 24, minute < 60, second < 60.
int TIME_IsValid(const TIME *time);

// 1 if `text` has exactly 8 characters and reads as a valid "H:M:S" time.
int TIME_IsValidString(const char *text);

// Parses an 8-character "HH:MM:SS" text. Returns 1 and stores the time, or
// prints a message and returns 0 leaving `time` unchanged.
int TIME_FromString(TIME *time, const char *text);

// Writes "HH:MM:SS" into `buffer` (at least 12 bytes); returns 1.
int TIME_ToString(const TIME *time, char *buffer);

// ---- Timestamps -----------------------------------------------------------

// 1 if the date and time parts are valid and usec is 0..999999.
int DATI_IsValid(const DATI *dati);

// 1 if `text` has exactly 26 characters and reads as a valid timestamp.
int DATI_IsValidString(const char *text);

// Parses "YYYY-MM-DD-hh.mm.ss.uuuuuu" (exactly 26 characters). Returns 1 and
// stores the timestamp, or prints a message and returns 0 leaving `dati`
// unchanged.
int DATI_FromString(DATI *dati, const char *text);

// Writes "%04d-%02d-%02d-%02d.%02d.%02d.%06d" into `buffer` (at least
// DATI_BUFSIZE bytes); datityp other than DATI_DEFAULT prints a message and
// uses the default. Returns 1.
int DATI_ToString(const DATI *dati, char *buffer, int datityp);

// -1, 0, 1 ordering field by field; 0 with a message when either operand is
// invalid.
int DATI_Compare(const DATI *a, const DATI *b);

// Duration between two timestamps, counting only the time of day, into
// `*seconds` (the minute and hour terms wrap as 32-bit products: use it for
// short durations). Returns 1, or 0 with a warning when year or month differ
// (the seconds are stored in both cases).
int DATI_Diff(const DATI *a, const DATI *b, double *seconds);
