// The answer envelope decoder (see answer.h). Every field goes through one
// reader that checks the remaining length first; a failure writes the
// reader's message and stops the decoding.
#include "db/client/answer.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "db/client/reqbuf.h"

namespace {

constexpr const char *ERROR_TEXT_MISSING = "(DBreset) Result error message missing\n";

struct Reader {
  const unsigned char *p;
  size_t length;
  size_t pos = 0;
  char *msg;

  size_t left() const { return length - pos; }

  bool missing(const char *what) {
    std::snprintf(msg, DB_MSG_SIZE, "Syntax error: %s expected (unexpected end of query)", what);
    return false;
  }

  // One byte; a missing one leaves the message with its "%s" as it is.
  bool byte(unsigned char *out) {
    if (left() < 1) {
      std::snprintf(msg, DB_MSG_SIZE, "%s", "Syntax error: %s expected (unexpected end of query)");
      return false;
    }
    *out = p[pos++];
    return true;
  }

  bool int32(int32_t *out) {
    if (left() < 4) return missing("<integer value>");
    std::memcpy(out, p + pos, 4);
    pos += 4;
    return true;
  }

  bool length16(size_t *out, const char *what) {
    if (left() < 2) return missing(what);
    *out = static_cast<size_t>(p[pos] | (p[pos + 1] << 8));
    pos += 2;
    return true;
  }

  // A 16-bit length and that many bytes; `what` names the field in the
  // message.
  bool counted(const unsigned char **data, size_t *n, const char *what) {
    if (!length16(n, what)) return false;
    if (left() < *n) return missing(what);
    *data = p + pos;
    pos += *n;
    return true;
  }

  // The tag byte of a tagged field.
  bool tag(unsigned char expected, const char *what) {
    if (left() < 1) return missing(what);
    unsigned char found = p[pos];
    if (found != expected) {
      std::snprintf(msg, DB_MSG_SIZE, "Syntax error: %s expected (found %s)",
                    DBtoken_name(expected), DBtoken_name(found));
      return false;
    }
    ++pos;
    return true;
  }
};

// A cell the result data refused: its message becomes the result's. A
// result that passed its budget, or found no memory, gives its rows back at
// once: the caller gets the error, not a part of the data.
bool refused(Reader &r, DBRESULT *res) {
  std::snprintf(r.msg, DB_MSG_SIZE, "%s", res->data.failure.c_str());
  if (res->data.failed == RESDATA_TOO_LARGE || res->data.failed == RESDATA_NO_MEMORY)
    RESDATA_Drop_Rows(&res->data);
  return false;
}

// Column headers and values of a tuples answer.
bool read_tuples(Reader &r, DBRESULT *res) {
  int32_t cols = 0, rows = 0;
  if (!r.int32(&cols) || !r.int32(&rows)) return false;
  if (rows < 1) return true; // no headers are sent without rows
  for (int32_t c = 0; c < cols; ++c) {
    const unsigned char *name;
    size_t n;
    unsigned char type;
    int32_t size;
    if (!r.counted(&name, &n, "<name>") || !r.byte(&type) || !r.int32(&size)) return false;
    std::string text(reinterpret_cast<const char *>(name),
                     strnlen(reinterpret_cast<const char *>(name), n));
    RESDATA_Header_Data(&res->data, text.c_str(), type, size);
  }
  // Announced counts are not trusted: cells are stored only as they arrive.
  uint64_t cells = static_cast<uint64_t>(rows) * static_cast<uint64_t>(cols > 0 ? cols : 0);
  size_t used = 0;
  int ok = RESDATA_Fill_Fields(&res->data, r.p + r.pos, r.left(), cells, &used);
  r.pos += used;
  if (ok) return true;
  if (res->data.failed != RESDATA_OK) return refused(r, res);
  return r.missing("<string value>");
}

} // namespace

int DBanswer_decode(const unsigned char *answer, size_t length, DBRESULT *res) {
  Reader r{answer, answer ? length : 0, 0, res->message};
  unsigned char kind;
  if (!r.byte(&kind)) {
    res->status = DBRES_ERROR;
    return 0;
  }
  switch (kind) {
  case DBANS_ERROR: {
    res->status = DBRES_ERROR;
    const unsigned char *text;
    size_t n;
    if (!r.tag(DBTAG_MESSAGE, "Fehlermeldung") || !r.counted(&text, &n, "<string value>")) {
      std::snprintf(res->message, DB_MSG_SIZE, "%s", ERROR_TEXT_MISSING);
      return 0;
    }
    size_t len = strnlen(reinterpret_cast<const char *>(text), n);
    if (len > DB_MSG_SIZE - 1) len = DB_MSG_SIZE - 1;
    std::memcpy(res->message, text, len);
    res->message[len] = '\0';
    return 1;
  }
  case DBANS_TUPLES:
  case DBANS_TUPLES2:
    res->status = kind == DBANS_TUPLES ? DBRES_TUPLES : DBRES_TUPLES2;
    if (!read_tuples(r, res)) {
      res->status = DBRES_ERROR;
      return 0;
    }
    return 1;
  case DBANS_COUNT: {
    int32_t count;
    if (!r.int32(&count)) {
      res->status = DBRES_ERROR;
      return 0;
    }
    RESDATA_Set_Count(&res->data, count);
    return 1;
  }
  default:
    return 1; // DBANS_DONE, and kinds this client does not know
  }
}
