// Table records through their definition text: what the table modules of the
// system tables and the TABLE-file tool share. A record is a size-prefixed
// block (a 32-bit size field, then the attributes at the positions of the
// definition "TBL,SIZE|NAME,TYP,SIZE,IDX|..."). This module fills a record
// with the null markers of its attributes, fills it from a row of a result
// (columns matched to attributes by name), writes the column list and SQL
// value list of an INSERT from it, and builds a definition from the server's
// description of a table (SHOW TABLE).
//
// Running the statements is the session layer's; the file format of saved
// records is tablefile.h's.
#pragma once

#include <string>
#include <vector>

#include "db/client/resdata.h"

// One attribute entry of a definition.
struct TABLE_ATTRIB {
  std::string name;
  int type = 0; // type id of base/data.h
  int size = 0; // bytes in the record
  int idx = 0;  // position in the record
};

// A parsed definition.
struct TABLE_DEF {
  int table = 0;
  int size = 0; // record size, size field included
  std::vector<TABLE_ATTRIB> attribs;
};

// Parses "TBL,SIZE|NAME,TYP,SIZE,IDX|...". Returns 1, or 0 (nothing printed)
// when the head or an entry does not scan, or an attribute lies outside the
// record.
int TABLE_Parse(const char *definition, TABLE_DEF *def);
// The definition text of a parsed definition.
std::string TABLE_Text(const TABLE_DEF &def);

// Builds the definition of a table from the answer to "SHOW TABLE name"
// (columns ATTRIBUTE, TYPE, SIZE): CHARACTER(n) becomes STRING of n bytes,
// SMALLINT SHORT, INTEGER INT, FLOAT DOUBLE, DATE, TIME, TIMESTAMP DATI,
// BINARY(n) BINARY of n + 2 bytes; the attributes follow the size field in
// the order of the answer. Returns 1, or 0 for an answer without these
// columns or with an unknown type name.
int TABLE_Def_FromShow(DBRESULT *show, int table, TABLE_DEF *def);

// Sets the size field and every attribute to its type's null marker (texts
// and binary values empty). `record` holds def.size bytes.
void TABLE_Record_Init(const TABLE_DEF &def, void *record);

// Fills the attributes from row `row` of `result`: each attribute takes the
// column of the same name (case ignored), converted to the attribute's type
// where that makes sense (numbers among each other, numbers and calendar
// values to text, texts cut to the field); attributes without a column, or
// whose column cannot be converted, keep their value. Returns the number of
// attributes filled.
int TABLE_Record_FromRow(const TABLE_DEF &def, DBRESULT *result, int row, void *record);

// "(NAME,...) VALUES (v,...)" of all attributes, for dbinsert: texts quoted
// with a backslash before ', " and \, numbers as literals, calendar values in
// their SQL text forms, binary values in the escaped text form, null markers
// as the empty text ''.
std::string TABLE_Record_InsertText(const TABLE_DEF &def, const void *record);

// Builds the binary INSERT request of the record for `table` in the client's
// request buffer (db/client/reqbuf.h), for dbbinexec1: the same values as
// TABLE_Record_InsertText, without the length limit of a statement text.
// Names are sent upper-cased, as the parser would send them.
void TABLE_Record_InsertRequest(const TABLE_DEF &def, const char *table, const void *record);

// An SQL string literal of text: quoted, with a backslash before ', " and \.
std::string TABLE_Quote(const std::string &text);
