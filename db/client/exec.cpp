// DBexec and the prebuilt-request variant (see exec.h).
#include "db/client/exec.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "db/client/answer.h"
#include "db/client/parser.h"
#include "db/client/reqbuf.h"
#include "db/client/transport.h"

namespace {

// Answers up to this size are read into a buffer on the stack; longer ones
// arrive in an allocation of their exact length.
constexpr int ANSWER_BUFFER = 10000;

struct FreeDeleter {
  void operator()(unsigned char *p) const { std::free(p); }
};

// A result of status DBRES_TRANSPORT carrying the connection's message (the
// text DBsend or DBrecv left there).
DBRESULT *transport_failure(DBCONN *conn) {
  DBRESULT *res = DBresult_new();
  if (!res) return nullptr;
  res->status = DBRES_TRANSPORT;
  std::snprintf(res->message, DB_MSG_SIZE, "%s", conn->message);
  return res;
}

// Sends the request buffer, receives the answer and decodes it into a new
// result; a failure of either gives a DBRES_TRANSPORT result.
DBRESULT *exchange(DBCONN *conn) {
  if (!DBsend(conn)) return transport_failure(conn);
  unsigned char buffer[ANSWER_BUFFER];
  int length = 0;
  unsigned char *big = nullptr;
  int big_length = -1;
  if (!DBrecv(conn, buffer, sizeof buffer, &length, &big, &big_length))
    return transport_failure(conn);
  std::unique_ptr<unsigned char, FreeDeleter> owned(big);
  DBRESULT *res = DBresult_new();
  if (!res) return nullptr;
  if (big)
    DBanswer_decode(big, static_cast<size_t>(big_length), res);
  else
    DBanswer_decode(buffer, static_cast<size_t>(length), res);
  return res;
}

} // namespace

DBRESULT *DBexec(DBCONN *conn, const char *statement) {
  // The status only tells how the last operation went (a refused DBdropdb
  // leaves a usable connection); whether the connection can carry the
  // statement is DBconn_usable's answer.
  if (!statement || !DBconn_usable(conn, "DBexec")) return nullptr;
  // The parser upper-cases words in place: it works on a copy.
  std::string text(statement);
  if (text.empty() || text.back() != ';') text += ';';
  DBreq_reset();
  DBRESULT *res = DBresult_new();
  if (!res) return nullptr;
  if (!DBexec_encode(text.data(), res->message)) {
    res->status = DBRES_SYNTAX;
    return res;
  }
  DBclear(res);
  return exchange(conn);
}

DBRESULT *DBexec_request(DBCONN *conn) {
  if (!DBconn_usable(conn, "DBexec")) return nullptr;
  return exchange(conn);
}
