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

// The record whose handshake the process's transport carries; null when
// none does (no connect yet, the record was finished or freed, the transport
// was set up for something else).
const DBCONN *g_live = nullptr;

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

// Sends the request buffer and reads the answer into buf. Returns the answer
// length, or -1 when either failed (status 6, the message says why).
int exchange(DBCONN *c, unsigned char *buf, int size) {
  int len = 0;
  if (!DBsend(c) || !DBrecv(c, buf, size, &len, nullptr, nullptr)) return -1;
  return len;
}

// A record with a channel that is not the one the transport carries: a later
// connect of this process replaced it.
bool replaced(const DBCONN *c) { return c->channel >= 0 && c != g_live; }

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
  // Setting up the transport closes the one of the connection before.
  g_live = nullptr;
  if (!DBcomm_init(DBCOMM_AREA_SIZE)) {
    set_message(c, "(TAVRIN) Communication initialisation error\n");
    c->status = DBCONN_FAILED;
    return c;
  }
  g_live = c;
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
  int len = exchange(c, buf, sizeof buf);
  if (len < 0) return c;
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
  if (g_live == conn) g_live = nullptr;
  std::free(conn->database);
  delete conn;
}

int DBstatus(const DBCONN *conn) { return conn->status; }

const char *DBerrormessage(DBCONN *conn) {
  size_t n = strnlen(conn->message, DBCONN_MESSAGE_SIZE - 1);
  conn->message[n] = 0;
  if (n > 0 && conn->message[n - 1] != '\n') {
    if (n == DBCONN_MESSAGE_SIZE - 1) --n;
    conn->message[n] = '\n';
    conn->message[n + 1] = 0;
  }
  return conn->message;
}

int DBconn_usable(DBCONN *conn, const char *who) {
  if (!conn || conn->channel < 0 || !DBcomm_ready()) return 0;
  if (!replaced(conn)) return 1;
  std::snprintf(conn->message, DBCONN_MESSAGE_SIZE,
                "(%s) Connection was replaced by a later connect of this process\n", who);
  conn->status = DBCONN_FAILED;
  return 0;
}

int DBsend(DBCONN *conn) {
  if (DBreq_length() == 0) {
    msg_print("DBsend: No data to send\n");
    set_message(conn, "DBsend: No data to send\n");
    conn->status = DBCONN_IO;
    return 0;
  }
  if (!DBclient_write(conn->channel, DBreq_data(), static_cast<int>(DBreq_length()))) {
    // The transport printed its reason when it had one.
    const char *why = DBclient_error();
    set_message(conn, *why ? why : "DBsend: Request not sent\n");
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
    std::snprintf(conn->message, DBCONN_MESSAGE_SIZE, "%sDBrecv: No data received\n",
                  DBclient_error());
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
  if (!DBcomm_ready() || conn->channel < 0 || replaced(conn)) return;
  DBreq_reset();
  DBreq_byte(DBREQ_CLOSE);
  DBsend(conn);
  DBclient_release();
}

void DBfinish(DBCONN *conn) {
  DBclosedb(conn);
  if (replaced(conn)) return;
  DBcomm_close();
  g_live = nullptr;
}

int DBdropdb(DBCONN *conn) {
  if (replaced(conn)) return DBconn_usable(conn, "DBdropdb");
  build_open(DBREQ_DROP_DATABASE, conn);
  unsigned char buf[10000];
  int len = exchange(conn, buf, sizeof buf);
  if (len < 0) return 0;
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
  if (replaced(conn)) return DBconn_usable(conn, "DBreset");
  DBclosedb(conn);
  build_open(DBREQ_OPEN, conn);
  unsigned char buf[10000];
  int len = exchange(conn, buf, sizeof buf);
  if (len < 0) return 0;
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
  g_live = nullptr;
  if (!DBcomm_init(DBCOMM_AREA_SIZE)) return 0;
  int channel = DBhandshake(5000);
  if (channel < 0) return 0;
  // A one-way notice: no answer comes, so the exchange ends right here.
  static const unsigned char notice = DBREQ_NOTICE;
  int ok = DBclient_write(channel, &notice, 1);
  DBclient_release();
  return ok;
}
