// Connection records and the connection-level commands (see connect.h).
#include "db/client/connect.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/msg.h"
#include "db/client/reqbuf.h"
#include "db/client/transport.h"

namespace {

void set_message(DBCONN *c, const char *text) {
  std::strncpy(c->message, text, DBCONN_MESSAGE_SIZE - 1);
  c->message[DBCONN_MESSAGE_SIZE - 1] = 0;
}

// Copies the error text of an error answer (DBANS_ERROR, DBTAG_MESSAGE, 16-bit length n,
// n bytes) into the record's message, cut at a zero byte and at the field's
// size. Returns false, touching nothing, if the field is not complete.
bool read_error_text(DBCONN *c, const unsigned char *ans, int len) {
  if (len < 4 || ans[1] != DBTAG_MESSAGE) return false;
  size_t n = size_t(ans[2]) | size_t(ans[3]) << 8;
  if (n > size_t(len) - 4) return false;
  const unsigned char *text = ans + 4;
  const void *zero = std::memchr(text, 0, n);
  if (zero) n = size_t(static_cast<const unsigned char *>(zero) - text);
  if (n > DBCONN_MESSAGE_SIZE - 1) n = DBCONN_MESSAGE_SIZE - 1;
  std::memcpy(c->message, text, n);
  c->message[n] = 0;
  return true;
}

// Sends the request buffer and reads the answer into buf; a failure of
// either ends the process with exit status 1 (the record cannot go on).
// Returns the answer length.
int exchange_or_die(DBCONN *c, unsigned char *buf, int size) {
  int len = 0;
  if (!DBsend(c) || !DBrecv(c, buf, size, &len, nullptr, nullptr)) msg_exit_fatal();
  return len;
}

// Builds the open request `command` with the record's database name.
void build_open(unsigned char command, const DBCONN *c) {
  DBreq_reset();
  DBreq_byte(command);
  DBreq_tag_string(DBTAG_NAME, c->database ? c->database : "");
}

} // namespace

DBCONN *DBconnect(char *database) { return DBconnect_open(database, 0); }

DBCONN *DBconnect_open(char *database, int create) {
  auto *c = new DBCONN;
  if (!database) {
    set_message(c, "(DBconnect) Database name missing\n");
    c->status = DBCONN_FAILED;
    return c;
  }
  for (char *p = database; *p; ++p)
    *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
  c->database = strdup(database);
  if (!DBcomm_init(DBCOMM_AREA_SIZE)) {
    set_message(c, "(TAVRIN) Communication initialisation error\n");
    c->status = DBCONN_FAILED;
    return c;
  }
  c->channel = DBhandshake(5000);
  if (c->channel == DBHS_FULL) {
    char text[100];
    std::snprintf(text, sizeof text,
                  "(TAVRIN) Connect to database server failed (all channels in use (%d))\n",
                  DBhandshake_channel_limit());
    set_message(c, text);
    c->status = DBCONN_FAILED;
    return c;
  }
  if (c->channel == DBHS_VERSION) {
    set_message(c, "(TAVRIN) Connect to database server failed (incompatible TAVRINDB version)\n");
    c->status = DBCONN_FAILED;
    return c;
  }
  if (c->channel < 0) {
    set_message(c, "(TAVRIN) Connect to database server failed (timeout)\n");
    c->status = DBCONN_FAILED;
    return c;
  }
  build_open(create ? DBREQ_CREATE_DATABASE : DBREQ_OPEN, c);
  unsigned char buf[10000];
  int len = exchange_or_die(c, buf, sizeof buf);
  if (buf[0] == DBANS_ERROR) {
    if (!read_error_text(c, buf, len)) set_message(c, "(DBconnect) Result error message missing\n");
    c->status = DBCONN_FAILED;
  } else {
    c->status = DBCONN_OK;
  }
  return c;
}

void DBconn_free(DBCONN *conn) {
  if (!conn) return;
  std::free(conn->database);
  delete conn;
}

int DBstatus(const DBCONN *conn) { return conn->status; }

const char *DBerrormessage(const DBCONN *conn) { return conn->message; }

int DBsend(DBCONN *conn) {
  if (DBreq_length() == 0) {
    msg_print("DBsend: No data to send\n");
    conn->status = DBCONN_IO;
    return 0;
  }
  if (!DBclient_write(conn->channel, DBreq_data(), static_cast<int>(DBreq_length()))) {
    conn->status = DBCONN_IO;
    return 0;
  }
  return 1;
}

int DBrecv(DBCONN *conn, void *buffer, int size, int *length, unsigned char **alloc_buffer,
           int *alloc_length) {
  int r = DBclient_read(conn->channel, buffer, size, alloc_buffer, alloc_length);
  if (r <= 0) {
    msg_print("DBrecv: No data received\n");
    conn->status = DBCONN_IO;
    return 0;
  }
  if (length) *length = r;
  return 1;
}

void DBclosedb(DBCONN *conn) {
  conn->message[0] = 0;
  // Without a transport or a channel there is nothing to close: the open
  // never reached the server.
  if (!DBcomm_ready() || conn->channel < 0) return;
  DBreq_reset();
  DBreq_byte(DBREQ_CLOSE);
  DBsend(conn);
  DBclient_release();
}

void DBfinish(DBCONN *conn) {
  DBclosedb(conn);
  DBcomm_close();
}

int DBdropdb(DBCONN *conn) {
  build_open(DBREQ_DROP_DATABASE, conn);
  unsigned char buf[10000];
  int len = exchange_or_die(conn, buf, sizeof buf);
  if (buf[0] != DBANS_ERROR) {
    DBclosedb(conn);
    return 1;
  }
  if (!read_error_text(conn, buf, len))
    set_message(conn, "(DBdropdb) Result error message missing\n");
  conn->status = DBCONN_FAILED;
  return 0;
}

int DBreset(DBCONN *conn) {
  DBclosedb(conn);
  build_open(DBREQ_OPEN, conn);
  unsigned char buf[10000];
  int len = exchange_or_die(conn, buf, sizeof buf);
  if (buf[0] != DBANS_ERROR) {
    conn->status = DBCONN_OK;
    return 1;
  }
  if (!read_error_text(conn, buf, len))
    set_message(conn, "(DBreset) Result error message missing\n");
  conn->status = DBCONN_FAILED;
  return 0;
}

int DBnotify_server() {
  if (!DBcomm_init(DBCOMM_AREA_SIZE)) return 0;
  int channel = DBhandshake(5000);
  if (channel < 0) return 0;
  // A one-way notice: no answer comes, so the exchange ends right here.
  static const unsigned char notice = DBREQ_NOTICE;
  int ok = DBclient_write(channel, &notice, 1);
  DBclient_release();
  return ok;
}
