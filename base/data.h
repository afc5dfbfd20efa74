// Typed values: the type ids of the system, their names and storage sizes,
// and the only conversion (DATA_Assign) and ordering (DATA_Compare) of values
// of those types; size-prefixed records (STRUCT_Assign, STRUCT_Compare) and
// the pseudo-random numbers of the generated table modules.
//
// A typed value is a type id and a pointer to storage laid out as the type
// prescribes (calendar layouts in date.h). Turning values into display or SQL
// texts is the value strings' job (valstr.h), not this module's.
//
// Process-wide state, in data.cpp: the re-seed counter of irand.
#pragma once

#include <cstdint>

// Type ids. The numbers are fixed: they appear in table definitions, TABLE
// files, result columns and generated table modules.
enum DataTypeId : int {
  DT_LOGICAL = 1, // one byte, truth value
  DT_SHORT = 2,   // signed 16-bit
  DT_INT = 3,     // signed 32-bit
  DT_LONG = 4,    // signed 32-bit
  DT_USHORT = 5,  // unsigned 16-bit
  DT_UINT = 6,    // unsigned 32-bit
  DT_ULONG = 7,   // unsigned 32-bit
  DT_FLOAT = 8,   // IEEE single
  DT_DOUBLE = 9,  // IEEE double
  DT_CHAR = 10,   // one character byte
  DT_STRING = 11, // zero-terminated, buffer of the attribute's declared length
  DT_DATE = 12,   // DATE record
  DT_TIME = 13,   // TIME record
  DT_DATI = 14,   // DATI record
  DT_KEY = 15,    // key value, handled as a zero-terminated string
  DT_HKEY = 16,   // key into a key directory, handled like DT_KEY
  DT_DURA = 17,   // duration, laid out like DATI
  DT_BINARY = 18, // 16-bit length and bytes, attribute's declared length
};

constexpr int DT_FIRST = DT_LOGICAL;
constexpr int DT_LAST = DT_BINARY;

// Empty-number marker: what a FLOAT or DOUBLE receives from an empty or
// all-blank text. Other layers treat it as "no number" (see valstr.h).
constexpr double DATA_EMPTY_NUMBER = -1e20;
constexpr float DATA_EMPTY_NUMBER_F = -1e20f;

// A size field between these bounds (inclusive) marks an initialised
// size-prefixed record.
constexpr int STRUCT_MIN_SIZE = 1;
constexpr int STRUCT_MAX_SIZE = 10000;

// Type name ("LOGICAL" ... "BINARY", exact and case-sensitive) to type id. An
// unknown name is a programming error: message and exit status 1.
int _GetTypeId(const char *name);

// Storage size of a type id. STRING (whose size comes from the attribute's
// definition) and ids outside 1..18 are programming errors: message and exit
// status 1.
int _GetTypeSize(int id);

// Stores the value at `src` of type `stype` into `dst` of type `dtype`,
// converting as the destination type allows: integers narrow to their low
// bits, floating values truncate toward zero, FLOAT/DOUBLE become trimmed
// texts in string destinations, texts are parsed into FLOAT/DOUBLE (an empty
// text gives the empty-number marker -1e20, a bad one a warning). TIME and DATI
// are accepted from their own type but not copied. Every other pairing is a
// programming error: message and exit status 1. String destinations must be
// large enough for the source text (up to 330 bytes for a DOUBLE).
void DATA_Assign(void *dst, int dtype, const void *src, int stype);

// Three-way ordering (-1, 0, 1) of two typed values. Numbers of all kinds
// compare with each other under C's arithmetic promotions; strings compare
// case-folded with trailing blanks ignored; calendar types only with their own
// type. Every other pairing is a programming error: message and exit status 1.
int DATA_Compare(const void *left, int ltype, const void *right, int rtype);

// Copies a size-prefixed record: as many bytes as the source's size field
// says (nothing when it is not positive), with a warning when the size is
// outside 1..10000.
void STRUCT_Assign(void *dst, const void *src);

// Byte-wise comparison of two size-prefixed records over the left's size:
// negative, zero or positive. Differing size fields are a programming error:
// message and exit status 1.
int STRUCT_Compare(const void *left, const void *right);

// Trims a number text in place as number-to-text conversions do: trailing
// blanks go; when the text holds '.' or ',', trailing '0's go and then a
// trailing '.' or ','. So "2.500000" becomes "2.5" and "3.000000" "3".
void DATA_TrimNumber(char *text);

// Stores in *result a pseudo-random number of at most `len` (1..8) decimal
// digits, from irand(0, 10^len - 1). `context` is not used. Another len is a
// programming error: message and exit status 1.
void DATA_GetNumber(void *context, uint32_t *result, int len);

// Pseudo-random integer in [low, high) from the C library's generator, which
// is re-seeded from the clock on the first call and then every 41st call. An
// empty range prints a message and returns `high`.
int irand(int low, int high);
