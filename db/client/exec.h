// Statement execution of the TAVRIN client: DBexec parses and encodes one SQL
// statement, sends the request on a connection, receives the answer and
// decodes it into a statement result.
//
// The grammar and the bytes are the parser's (parser.h), the wire the
// transport's (connect.h), the answer envelope answer.h's and the result
// RESDATA's (resdata.h).
#pragma once

#include "db/client/connect.h"
#include "db/client/resdata.h"

// Runs `statement` on `conn`. The text is copied (never modified) and gets a
// ";" appended when it does not end with one; the request buffer is reset
// first. Returns a result owned by the caller (DBclear): status 5 with the
// parser's message when the statement does not parse (nothing is sent),
// status 6 (DBRES_TRANSPORT) with the text DBsend or DBrecv printed when
// sending or receiving failed (connection status 6 too), otherwise the
// decoded answer. Returns null, sending nothing, for a null statement or
// connection, a connection that never got a channel (its message says why),
// one whose transport was closed (DBfinish) and one that a later connect
// replaced (status 1, its message says so), and when memory for the result
// runs out. A result too large for the result budget (resdata.h) comes back
// as status 4 with "result too large: …". Nothing here ends the process:
// whether a program can go on after a transport failure is its caller's
// decision.
DBRESULT *DBexec(DBCONN *conn, const char *statement);

// Sends the request already built in the request buffer (by the encoding
// primitives of reqbuf.h, without parsing) and decodes its answer like
// DBexec. Null for a connection DBexec would refuse.
DBRESULT *DBexec_request(DBCONN *conn);
