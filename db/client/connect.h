// The connection to a TAVRIN server database and its connection-level
// commands: open (DBconnect), close (DBclosedb, DBfinish), drop (DBdropdb),
// re-open (DBreset), the one-way notice (DBnotify_server), and sending and
// receiving of the request buffer (DBsend, DBrecv) for statement execution.
//
// The record is owned by the caller of DBconnect and freed with DBconn_free.
// Parsing statements and decoding result data are the encoder's and result
// data's business; the bytes on the wire are the transport's.
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
// handshake, request '1'. Never returns null; check DBstatus. A send or
// receive failure after the handshake ends the process with exit status 1.
DBCONN *DBconnect(char *database);
// The second entry: with `create` set the request is '3' instead of '1'.
DBCONN *DBconnect_open(char *database, int create);
// Frees a record made by DBconnect (null allowed). Does not close anything.
void DBconn_free(DBCONN *conn);

int DBstatus(const DBCONN *conn);
const char *DBerrormessage(const DBCONN *conn);

// Sends the request buffer on the connection's channel. Returns 1 on
// success; 0 with status 6 (empty buffer: "DBsend: No data to send\n").
int DBsend(DBCONN *conn);
// Receives an answer into buffer (size bytes), or into an allocation of
// exactly its length handed out through alloc_buffer/alloc_length (freed by
// the caller with free()); see DBclient_read. Returns 1 and sets *length to
// the answer length; 0 with status 6 ("DBrecv: No data received\n").
int DBrecv(DBCONN *conn, void *buffer, int size, int *length, unsigned char **alloc_buffer,
           int *alloc_length);

// Clears the message, sends '2' and releases the mutex; no answer is read.
void DBclosedb(DBCONN *conn);
// DBclosedb, then closes the whole transport. The record stays the caller's.
void DBfinish(DBCONN *conn);
// Drops the connection's database. Returns 1 done (the database is closed),
// 0 refused (status 1, message from the server).
int DBdropdb(DBCONN *conn);
// Closes and re-opens the connection's database on the same channel. Returns
// 1 done (status 0), 0 failed (status 1, message from the server).
int DBreset(DBCONN *conn);
// Sets up the transport, does a handshake and sends the one-byte notice 'W'
// without reading an answer. Returns 1 sent, 0 failed.
int DBnotify_server();
