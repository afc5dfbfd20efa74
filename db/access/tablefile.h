// TABLE files: the rows of database tables as raw records, one section per
// saved table, so that a table can be saved from one database and loaded into
// another, also after its layout changed in between.
//
// A table is described by its definition text "TBL,SIZE|NAME,TYP,SIZE,IDX|..."
// (table number, record size, then per attribute its name, type id of
// base/data.h, size in bytes and byte position in the record). A section is
// the record count ("%05d"), ',', the definition, a zero byte, then count
// records of SIZE bytes each, exactly as they lie in memory. Loading matches
// the file's attributes to the current definition by name and converts what
// it can, with a warning for everything that is not copied as it is.
//
// Reading rows from the database into records and storing records is the
// caller's (the table module's): it hands in select/fetch resp. init/insert.
// The load and the save each run inside one BEGIN level of the session layer.
#pragma once

#include <cstdio>
#include <functional>

#include "db/access/session.h"

// Limits of the format.
constexpr int TABLE_HEADER_MAX = 10000; // characters of a section header
constexpr int TABLE_ATTRIBS_MAX = 500;  // attributes of a file definition
constexpr int TABLE_COUNT_MAX = 99999;  // records of a section (five digits)

// Opens the query of a save (select) and delivers the next record into
// `record` (fetch); both return 1 on success, 0 on failure resp. at the end.
using TABLE_Select = std::function<int(void *record, DBSESSION *session)>;
using TABLE_Fetch = std::function<int(void *record, DBSESSION *session)>;
// Prepares a fresh record with its defaults (init) and stores one converted
// record (insert, returns 1 on success).
using TABLE_Init = std::function<void(void *record)>;
using TABLE_Insert = std::function<int(void *record, DBSESSION *session)>;

// Saves one table as a section at the current position of `file`: select,
// then each record that fetch delivers into `record` (the caller's buffer of
// the definition's SIZE). Returns 1, or 0 with a message (the BEGIN level
// closed). A failing BEGIN or END ends the program (db_backend_failure).
// More than TABLE_COUNT_MAX records are refused, since the header cannot
// count them.
int TABLE_File_Save(DBSESSION *session, std::FILE *file, const char *definition, void *record,
                    const TABLE_Select &select, const TABLE_Fetch &fetch);

// Loads the next section of the definition's table from `file`: sections of
// other tables must be empty or passed over with TABLE_File_Skip first. Each
// file record is converted into one record of the current definition (made
// once by init, then reused, so attributes that the file lacks keep their
// last value) and handed to insert. A damaged section is refused before
// anything is allocated from its numbers or stored: a count beyond
// TABLE_COUNT_MAX, a record size outside 1..10000, an attribute of an unknown
// type or outside the record, fewer bytes than the records need, or a date,
// time or timestamp that is neither valid nor unset (named with its record
// number). Returns 1, or 0 with a message.
int TABLE_File_Load(DBSESSION *session, std::FILE *file, const char *definition,
                    const TABLE_Init &init, const TABLE_Insert &insert);

// Passes over the next section of the definition's table (sections of other
// tables before it are announced, and their headers read, but they must be
// empty). Returns 1, or 0 with a message.
int TABLE_File_Skip(std::FILE *file, const char *definition);

// Type id of the n-th attribute (from 0); *size gets its size less one when
// the size is positive (the usable length of a string), else the size. -1
// with "(Get_TABLE_Attrib_Type) Syntax error 'NAME,TYP,SIZE,IDX'!\n" for a
// bad entry; 0 when there is no n-th attribute.
int Get_TABLE_Attrib_Type(const char *definition, int n, int *size);

// Copies SIZE bytes of the n-th attribute from `value` into `record` at its
// IDX. 0 with "(Set_TABLE_Attrib_Value) Syntax error 'NAME,TYP,SIZE,IDX'!\n"
// for a bad entry or one outside the record's SIZE; 0 when there is no n-th
// attribute; 1 on success.
int Set_TABLE_Attrib_Value(const char *definition, int n, void *record, const void *value);
