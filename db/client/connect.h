// The connection to a TAVRIN server database and its connection-level
// commands: open (DBconnect), close (DBclosedb, DBfinish), drop (DBdropdb),
// re-open (DBreset), the one-way notice (DBnotify_server), and sending and
// receiving of the request buffer (DBsend, DBrecv) for statement execution.
//
// The record is owned by the caller of DBconnect and freed with DBconn_free.
// Parsing statements and decoding result data are the encoder's and result
// data's business; the bytes on the wire are the transport's.
//
// Nothing here ends the process: a send or receive failure leaves status 6
// (DBCONN_IO) and the failure's text in the message, and the caller decides
// whether the program can go on (the session layer and the application stop
// it, see db_transport_fatal in db/access/session.h).
//
// A process has one transport, so one connection at a time: a DBconnect
// replaces the transport of the connection before it. The record that was
// replaced refuses further requests with a message instead of sending them
// on a channel that is no longer its own.
#pragma once

// Length of the message field, terminating zero included.
enum : int { DBCONN_MESSAGE_SIZE = 10000 };

// Status values of a connection record.
enum : int {
  DBCONN_OK = 0,     // connected / last operation good
  DBCONN_FAILED = 1, // failed, message holds the text
  DBCONN_IO = 6,     // send or receive failed
};

struct DBCONN {
  int status = DBCONN_OK;
  int channel = -1;                       // channel number from the handshake
  char *database = nullptr;               // upper-case name, malloc'd, owned by the record
  char message[DBCONN_MESSAGE_SIZE] = {}; // last error text, empty on success
};

// Opens `database` (converted to upper case in place) on a fresh transport and
// handshake, request '1'. Never returns null; check DBstatus: 1 with the
// reason in the message when the server could not be reached or refused the
// database, 6 when sending the request or receiving its answer failed.
DBCONN *DBconnect(char *database);
// The second entry: with `create` set the request is '3' instead of '1'.
DBCONN *DBconnect_open(char *database, int create);
// Frees a record made by DBconnect (null allowed). Does not close anything.
void DBconn_free(DBCONN *conn);

int DBstatus(const DBCONN *conn);
// The message, with a line feed appended (in place) when it does not end
// with one; "" when it is empty.
const char *DBerrormessage(DBCONN *conn);

// 1 when `conn` can carry a request now: it got a channel, its transport is
// open and no later DBconnect of this process has replaced it. For a
// replaced record: 0 with status 1 and the message "(<who>) Connection was
// replaced by a later connect of this process\n". Otherwise 0, untouched.
int DBconn_usable(DBCONN *conn, const char *who);

// Sends the request buffer on the connection's channel. Returns 1 on
// success; 0 with status 6 and the text in the message: an empty buffer
// prints "DBsend: No data to send\n"; a failed write has the text the
// transport printed (DBclient_error), or "DBsend: Request not sent\n" when
// it printed none.
int DBsend(DBCONN *conn);
// Receives an answer into buffer (size bytes), or into an allocation of
// exactly its length handed out through alloc_buffer/alloc_length (freed by
// the caller with free()); see DBclient_read. Returns 1 and sets *length to
// the answer length; 0 with status 6 after printing "DBrecv: No data
// received\n", which the message holds too (after the transport's own text,
// if it printed one).
int DBrecv(DBCONN *conn, void *buffer, int size, int *length, unsigned char **alloc_buffer,
           int *alloc_length);

// Clears the message, sends '2' and releases the mutex; no answer is read.
// A replaced record sends nothing: the transport is another connection's.
void DBclosedb(DBCONN *conn);
// DBclosedb, then closes the whole transport, unless the record was
// replaced by a later connect. The record stays the caller's.
void DBfinish(DBCONN *conn);
// Drops the connection's database. Returns 1 done (the database is closed),
// 0 refused (status 1, message from the server), 0 for a replaced record
// (status 1, see DBconn_usable) and 0 when sending or receiving failed
// (status 6).
int DBdropdb(DBCONN *conn);
// Closes and re-opens the connection's database on the same channel. Returns
// 1 done (status 0), 0 failed (status 1, message from the server; a
// replaced record as DBdropdb), 0 when sending or receiving failed (status 6).
int DBreset(DBCONN *conn);
// Sets up the transport, does a handshake and sends the one-byte notice 'W'
// without reading an answer. Returns 1 sent, 0 failed.
int DBnotify_server();
