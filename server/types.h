// Declared attribute types of tavrind: the wire type codes and sizes, the
// SQLite declarations that keep them, value checks on INSERT and UPDATE, the
// null markers, the binary value layouts of answers, Latin-1/UTF-8 conversion
// and the text collation of the system's string rule.
//
// Texts travel as Latin-1 and are stored as UTF-8, so every conversion between
// the two happens here. Which attribute a value belongs to, and what to do with
// a refused value, is the executor's business; building whole answers is the
// answer module's.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "db/wire/wire.h"

struct sqlite3;
struct sqlite3_stmt;
struct sqlite3_value;

namespace tavrind {

// Null markers of the typed values.
constexpr int16_t NULL_SMALLINT = -32768;
constexpr int32_t NULL_INTEGER = -2147483647;
constexpr double NULL_FLOAT = -1e20;

// An attribute's declared type: wire code and size. The size of CHARACTER(n)
// is n and counts the terminating zero, so the attribute holds at most n - 1
// characters; BINARY(n) holds at most n bytes. Fixed types carry the size of
// their binary layout (SMALLINT 2, INTEGER 4, FLOAT 8, DATE 4, TIME 3,
// TIMESTAMP 12).
struct ColType {
  unsigned char code = DBTYPE_CHARACTER;
  int32_t size = 0;
};

// Largest declared length of CHARACTER(n) and BINARY(n): one value must fit in
// an answer field of 16-bit length.
constexpr int32_t TYPE_MAX_CHARACTER = 65535;
constexpr int32_t TYPE_MAX_BINARY = 65533;

// Is code one of the eight wire type codes?
bool type_code_valid(unsigned char code);
// The type for a wire code; for CHARACTER and BINARY the given length.
ColType type_make(unsigned char code, int32_t length);
// "CHARACTER", "SMALLINT", ... for a wire code; "?" for others.
const char *type_name(unsigned char code);
// The SQLite declaration of an attribute of this type ("CHARACTER(10)
// COLLATE RTRIM", "SMALLINT", "BINARY(8)", ...), with "NOT NULL" when asked,
// and a DEFAULT that stores the type's null marker for omitted attributes.
std::string type_declaration(ColType t, bool not_null);
// Reads back a declared type as SQLite reports it (PRAGMA table_info). Types
// that tavrind did not write (tables made with other tools) are mapped by
// SQLite's affinity rules: *INT* INTEGER, *CHAR*/*TEXT*/*CLOB* CHARACTER(256),
// *REAL*/*FLOA*/*DOUB* FLOAT, *BLOB* BINARY(65533), others CHARACTER(256).
ColType type_from_declaration(const std::string &decl);

// A literal of a request: 32-bit integer, double or Latin-1 text.
struct Literal {
  enum Kind { INT, FLOAT, STRING } kind = INT;
  int32_t i = 0;
  double f = 0;
  std::string s;
};

// A value ready to be bound to an SQLite parameter: NULL, integer, double,
// UTF-8 text or blob.
struct SqlBlob {
  std::vector<unsigned char> bytes;
};
using SqlValue = std::variant<std::monostate, int64_t, double, std::string, SqlBlob>;

// Binds v to parameter index idx (1-based) of stmt; returns SQLite's result.
int type_bind(sqlite3_stmt *stmt, int idx, const SqlValue &v);

// Converts a literal into the stored form of an attribute of type t:
// CHARACTER takes texts of at most size - 1 characters and numbers (as their
// text); SMALLINT and INTEGER take integers in their range (also as text or as
// a float without fraction); FLOAT takes numbers and numeric texts; DATE takes
// '2003-07-12' (or '2003.07.12'), TIME '10:30:00', TIMESTAMP
// '2003-07-12-10.30.00.000000' (or a date alone), all within 1800-01-01 to
// 2800-12-31; BINARY takes a text in the escaped form that clients display
// ("$$", "$HH", runs "§HH..§", "§§") of at most size bytes. An empty or
// all-blank text stores the type's null marker (for FLOAT -1e20).
// Returns 1 with out set, or 0 with err set to the refusal's text (without the
// attribute name, which the caller adds).
int type_check_value(ColType t, const Literal &lit, SqlValue &out, std::string &err);

// Text forms of a literal for messages ("12", "1.5", the text itself).
std::string type_literal_text(const Literal &lit);

// Appends the binary form of column col of the current row of stmt, as the
// answer carries it for a column of type t: the 16-bit value length, then the
// value (CHARACTER zero-terminated Latin-1; SMALLINT 2, INTEGER 4, FLOAT 8
// bytes; DATE year16 month day; TIME hour minute second; TIMESTAMP year16
// month day hour minute second, a reserved zero byte, microseconds32; BINARY
// its 16-bit length and the bytes). A NULL, and a stored value that does not
// read as the type, goes out as the type's null marker.
void type_append_value(std::vector<unsigned char> &out, ColType t, sqlite3_stmt *stmt, int col);

// Appends the values of the current row of stmt as type_append_value does,
// column i read as types[i] for the first ncols columns; the answer grows
// once per row rather than once per value.
void type_append_row(std::vector<unsigned char> &out, const ColType *types, size_t ncols,
                     sqlite3_stmt *stmt);

// Writes the values vals[0..n) as type_append_value does, vals[i] read as
// types[i], at out[at] (at most out.size()). The bytes of out past `at` are
// room taken ahead: out grows by a large step when they are too few for the
// values, never once per value. Returns the end of what was written; the
// caller cuts out to the last end it keeps. Throws std::bad_alloc.
size_t type_write_values(std::vector<unsigned char> &out, size_t at, const ColType *types,
                         size_t n, sqlite3_value **vals);

// PostgreSQL type oids of the result columns the PostgreSQL store reads.
constexpr unsigned PG_OID_BYTEA = 17, PG_OID_INT8 = 20, PG_OID_INT2 = 21, PG_OID_INT4 = 23,
                   PG_OID_TEXT = 25, PG_OID_FLOAT4 = 700, PG_OID_FLOAT8 = 701;

// As type_append_value, for one value of a PostgreSQL result in binary
// format: pg_type is its column's type oid, v its n bytes (integers and
// doubles big-endian, texts UTF-8, bytea raw). null: the value is NULL.
void type_append_pg_value(std::vector<unsigned char> &out, ColType t, unsigned pg_type,
                          const char *v, size_t n, bool null);

// Latin-1 to UTF-8 and back; characters beyond Latin-1 become '?', invalid
// UTF-8 bytes are taken as Latin-1.
std::string latin1_to_utf8(const std::string &s);
std::string utf8_to_latin1(const char *s, size_t n);
inline std::string utf8_to_latin1(const std::string &s) {
  return utf8_to_latin1(s.data(), s.size());
}

// The system's string rule on two Latin-1 texts: trailing blanks are ignored;
// characters compare upper-cased (ASCII) with Ä, Ö, Ü taken as A, O, U, as
// signed bytes; a proper prefix is smaller. Returns -1, 0 or 1.
int type_text_compare(const unsigned char *a, size_t na, const unsigned char *b, size_t nb);

// Registers the collation "TAVRIN" (the string rule on UTF-8 texts) on a
// connection. Returns SQLite's result.
int type_register_collation(sqlite3 *db);

// Calendar checks of the system: year 1800..2800, months 1..12, days by month
// with every fourth year a leap year (no century rule).
bool type_date_valid(int y, int m, int d);

} // namespace tavrind
