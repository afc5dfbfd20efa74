// Value strings: the texts that typed values become for display, export and
// SQL statements, the null markers that make a value "empty", and the
// register of temporary strings that frees them in brackets of
// Hold_ValueStrings/Release_ValueStrings.
//
// Every Make_...String and Reduce_... function returns a newly allocated,
// registered string that the caller never frees: it stays valid until the
// outermost Release_ValueStrings after it (or the end of the program). Null
// values of every type give the empty string.
//
// Make_KeyString (a key's text from a key directory) needs the database, so it
// is not here: it lives with the key directories in the session layer
// (db/access), on top of this module.
//
// Process-wide state, in valstr.cpp: the temporary-string register (9999
// slots, fill count, once-only limit warning), the hold counter and the
// decimal-places setting.
#pragma once

#include "base/data.h"
#include "base/date.h"

#include <cstdint>

// ---- Null markers -----------------------------------------------------------
// Shared with the table records and the database layer: a field holding its
// type's marker has no value.

constexpr int16_t NULL_SHORT = -32768;
constexpr int32_t NULL_INT = -2147483647; // 0x80000001, what record constructors put in
constexpr int32_t NULL_LONG = NULL_INT;
constexpr double NULL_DOUBLE = DATA_EMPTY_NUMBER;
constexpr float NULL_FLOAT = DATA_EMPTY_NUMBER_F;
// A floating value within this distance of NULL_DOUBLE counts as null.
constexpr double NULL_DOUBLE_TOLERANCE = 1e-12;
constexpr DATE NULL_DATE = {1800, 1, 1};
constexpr TIME NULL_TIME = {0, 0, 0};
constexpr DATI NULL_DATI = {1800, 1, 1, 0, 0, 0, 0};

// 1 when the value is its type's null marker.
int DOUBLE_IsNull(double value);
int TIME_IsNull(const TIME *time);
int DATI_IsNull(const DATI *dati); // also for DURA

// ---- Temporary-string register --------------------------------------------

// Opens a bracket: strings made from here on live at least until the
// matching Release_ValueStrings.
void Hold_ValueStrings();

// Closes a bracket; closing the outermost frees every registered string. A
// release without a hold is a programming error: message and exit status 1.
void Release_ValueStrings();

// ---- Decimal places ---------------------------------------------------------

// Number of decimals that Make_BetragString and Make_DoubleString show; -1
// (the default) when not set. The display layer sets it while it builds the
// lines of a tabbox and resets it afterwards.
void Set_ValueDecimals(int places);
int Get_ValueDecimals();

// ---- Making value strings ---------------------------------------------------

// Copy of `text` for an SQL string literal: a backslash before every ' and ".
// A negative `len` or a text longer than `len` is a programming error:
// message and exit status 1.
char *Make_ValueString(const char *text, int len);

// Registered copy of `text`, unchanged.
char *Make_TempString(const char *text);

// "HH:MM:SS" always (SQL form); Make_ZeitString gives "" for the null time.
char *Make_TimeString(const TIME *time);
char *Make_ZeitString(const TIME *time);

// "YYYY-MM-DD" always (SQL form); Make_DatumString gives "YYYY.MM.DD" and ""
// for the null date.
char *Make_DateString(const DATE *date);
char *Make_DatumString(const DATE *date);

// "YYYY-MM-DD-hh.mm.ss.uuuuuu" always (SQL form); Make_TimestampString gives
// the same or "" for the null timestamp.
char *Make_DatiString(const DATI *dati);
char *Make_TimestampString(const DATI *dati);

// "D.M.YYYY" and "D.M.YYYY hh:mm:ss (uuuuuu)"; "" for null.
char *Make_GermanDateString(const DATE *date);
char *Make_GermanDatiString(const DATI *dati);

// "[n Jahre ][n Monate ][n Tage ][n Stunden ][n Minuten ]s,uuuuuu Sekunden";
// "" for the null duration.
char *Make_DurationString(const DURA *dura);

// "Nein" for 0 or '0', "Ja" for 1 or '1'; any other value is a programming
// error: message and exit status 1.
char *Make_LogicalString(char value);

// The one character (empty for the zero byte).
char *Make_CharString(char character);

// "<binary value>" when the value's leading 16-bit length is not 0, else "".
char *Make_BinaryString(const void *value);

// "%d"; "" for the null marker.
char *Make_ShortString(int16_t value);
char *Make_LongString(int32_t value);

// An amount with two decimals (or the decimal-places setting when it is 2 or
// more, cut, not rounded); "" for null.
char *Make_BetragString(double value);

// Six decimals (or the setting when it is 6 or more, cut), then trailing
// zeros and a trailing '.' or ',' removed; "" for null.
char *Make_DoubleString(double value);

// No decimals ("%.0lf"); "" for null.
char *Make_Double0String(double value);

// ---- Reducing texts ---------------------------------------------------------

// Copy without trailing blanks.
char *Reduce_String(const char *text);
// Trailing blanks removed; when the text holds '.' or ',', trailing '0's and
// then a trailing '.' or ',' removed.
char *Reduce_NumString(const char *text);

// As above after skipping leading '0's, keeping the last one before a blank or
// the end ("000" gives "0", "0012" gives "12").
char *Reduce_String0(const char *text);
char *Reduce_NumString0(const char *text);

// As the leading-zero variants, but "-" when nothing is left.
char *Reduce_String0Dash(const char *text);
char *Reduce_NumString0Dash(const char *text);

// For HTML output: trailing blanks removed, each line feed becomes "<br>" and
// the n blanks that start the following line one horizontal spacer of size
// 10 * n; "-" for an empty result.
char *Make_HtmlString(const char *text);

// Copies `source` without its trailing blanks into the fixed-size field
// `destination` of `size` + 1 bytes, always terminated. A longer text prints a
// message and is cut to `size` characters. Returns 1, or 0 when cut.
int my_strncpy(char *destination, const char *source, int size);
