// The client side of the shared-memory transport to the TAVRIN server.
//
// One process holds at most one transport: the named objects, the two mapped
// views and the watch on the server process are process-wide and live in
// transport.cpp. DBcomm_init sets them up, DBhandshake asks the server for a
// channel, DBclient_write/DBclient_read move one request and its answer in
// packets of at most 10000 bytes, each packet as one chunk through the
// message area. "TavrinDB_Mutex" is taken by the write and released by the
// read once the answer is complete, so a whole exchange is exclusive among all
// clients. A parked client holds nothing; it may take the free exchange for
// a moment to send the one-way cancel request (DBcancel). Building requests is reqbuf's business,
// the connection record and the connection-level commands are connect's.
#pragma once

#include <cstdint>

#include "db/wire/wire.h"

// Results of DBhandshake other than a channel number.
enum : int {
  DBHS_TIMEOUT = -1,
  DBHS_SYSTEM = -2,
  DBHS_VERSION = -10, // another version, or a refusal the client does not know
  DBHS_FULL = -11,    // all channels in use (DBhandshake_channel_limit)
};

// Opens "TavrinDB_Server" (which only a running server provides; it is asked
// first so that a client without a server leaves no objects behind), creates
// or opens the message area (`size` bytes) and the owner word, then the other
// events and the mutex. Returns 1 on success. On failure prints
// "Tavrin database not found!" when no server runs, then the system's text of
// the error, releases whatever was already set up and returns 0. A transport
// that was already set up is closed first.
int DBcomm_init(int size);

// Asks the server for a channel, announcing DBCOMM_VERSION; waits at most
// timeout_ms for the mutex and for the answer. Returns the channel (>= 0),
// DBHS_TIMEOUT, DBHS_SYSTEM, DBHS_VERSION or DBHS_FULL. On success the
// server process is watched from now on and the mutex is free again. A
// refusal by the server (DBHS_VERSION: another version; DBHS_FULL: all
// channels in use) frees the mutex too, as the server's answer is complete; the other failures keep
// the mutex if they had taken it (DBcomm_close releases it).
int DBhandshake(int timeout_ms);

// Sends one message of `length` bytes on `channel`: takes the exchange (the
// mutex, with the owner word free or this channel's), then writes the packets.
// Returns 1 when the whole message is out, 0 on failure. The mutex stays held
// on success, until DBclient_read has read the answer or DBclient_release
// gives it back; when the server process has ended it is released at once.
// A channel other than the last handshake's (a connection that a later
// connect of this process replaced) fails at once with a message.
int DBclient_write(int channel, const void *data, int length);

// Reads one answer on `channel` into `buffer` of `size` bytes, following the
// server's parking notice and re-activation. When the answer is longer than
// `size` and alloc_buffer/alloc_length are given, the answer goes into a new
// malloc'd buffer of exactly its length, handed to the caller who frees it
// with free(); when the answer fits, *alloc_buffer is set to null and
// *alloc_length to -1. Returns the answer length (mutex released), 0 or -1 when
// nothing (more) could be read (server ended, bad packet, too big without
// allocation: -1), -2 on a failure of the mutex.
int DBclient_read(int channel, void *buffer, int size, unsigned char **alloc_buffer,
                  int *alloc_length);

// Asks that the statement this process waits for be stopped: the waiting
// loop of DBclient_read sends the cancel request (DBREQ_CANCEL) once the
// server has parked the client, and the statement is answered '0' with
// error 515 (unless its answer was already on the way). A cancel while the
// request is still being sent or acknowledged is kept until then. Does
// nothing when no request is under way. Async-signal-safe: callable from a SIGINT handler or
// from the wait hook.
void DBcancel(void);

// While the client waits for an answer or for the acknowledgement of its
// request (also while parked), hook(arg) is called about every 50 ms on the
// waiting thread (a viewer keeps its window
// alive there and may call DBcancel). A null hook removes it. The hook must
// not start another request.
void DBset_wait_hook(void (*hook)(void *arg), void *arg);

// After DBHS_FULL: how many channels the server gives out at most.
int DBhandshake_channel_limit();

// Releases "TavrinDB_Mutex" if this process holds it through the transport.
// Returns 1 on success or when it was not held, 0 if the release failed.
int DBclient_release();

// The text the last DBclient_write or DBclient_read printed when it failed
// ("client write: Data missing (expected %d written %d)\n" and its kin); ""
// when it succeeded or failed without a text (the server ended while this
// process waited for it, the mutex failed). Owned by the transport, valid
// until the next write or read.
const char *DBclient_error();

// 1 when DBcomm_init has set up the transport and DBcomm_close has not yet
// closed it.
int DBcomm_ready();

// Closes every object and unmaps both views; the server-process watch only
// if one is held; releases the mutex if this process still holds it.
void DBcomm_close();

// ---- For tests only --------------------------------------------------------
// Not part of the client's interface: hooks that let tests drive the
// transport into states a conforming client never reaches.

// DBhandshake announcing another version text, to check how a server treats
// clients of other versions.
int DBhandshake_version_for_test(int timeout_ms, const char *version);
