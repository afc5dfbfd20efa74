// tavrin table save|load: a TABLE file of one table, so that a table can be
// saved from one database and loaded into another, also after its
// attributes changed. The record layout is made from the server's
// description of the table (SHOW TABLE): on saving from the table as it is,
// on loading from the table as it is now, and the file's attributes are
// matched to it by name with the conversions of TABLE files
// (db/access/tablefile.h).
#pragma once

#define TABLE_HELP                                                                                 \
  "  save   writes every row of TABLE into FILE (replacing it only when the save\n"                \
  "         succeeds)\n"                                                                           \
  "  load   inserts the rows of FILE into TABLE, all or none\n"                                    \
  "  -dbNAME   the database (default tdsys); DBSYS is put in front as the viewer does\n"           \
  "Attributes are matched by name; ones that are missing or changed are reported\n"                \
  "as warnings on standard error (once, not again for every row) and converted\n"                  \
  "where possible.\n"

// Table numbers of the system tables in TABLE files; other tables get
// TABLE_NUMBER_OTHER.
constexpr int TABLE_NUMBER_OTHER = 1;
// The table number a saved file of `table` carries.
int tavrin_table_number(const char *table);

// The run function of the command table; argv[0] is the command name.
int cmd_table(int argc, char **argv);
