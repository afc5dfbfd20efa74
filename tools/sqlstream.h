// Streaming SELECTs for tavrin sql: one SELECT is run through a server-side
// cursor fetched in blocks, and its rows are written as each block arrives,
// as an aligned table, CSV or TSV, so that memory stays flat whatever the
// size of the result and the first rows show at once.
//
// The cursor (DECLARE / FETCH / CLOSE) and the channel's row limit (MAX) are
// the server's; blocks are sized by the bytes of the rows already fetched
// (about 4 MB). A second thread fetches the next block while one is written;
// at most one fetched block waits.
// Which statements are run, in what order and in which transaction is the
// command's business (cmd_sql.h); other statements keep its path.
#pragma once

#include <cstdio>
#include <string>

struct DBSESSION;

// Output formats; the same order as tavrin sql's --format values.
enum SqlFormat { SQL_TABLE = 0, SQL_CSV = 1, SQL_TSV = 2 };

// Rows the table format reads before it fixes its column widths; later rows
// are written at those widths (a longer value widens its own line only).
constexpr int SQLSTREAM_TABLE_ROWS = 1000;

// Runs `statement` (Latin-1) on the session when it is a SELECT that the
// client's parser accepts: declares a cursor for it, fetches its rows in
// blocks and writes them to `out` in UTF-8 as they come, the table format
// with its "(N rows)" line. Returns 1 when every row was written, 0 when a
// statement failed (the session layer's message printed; rows written before
// stay written); either way the cursor is closed again and the channel's
// row limit set back. Returns -1, sending nothing, for every other statement
// (to be run the usual way); a "MAX n" statement among them is noted, so that
// later SELECTs keep to that row limit as the server would. A lost transport
// ends the program as everywhere in the session layer.
int sqlstream_select(DBSESSION *session, const std::string &statement, SqlFormat format,
                     FILE *out = stdout);
