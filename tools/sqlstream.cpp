// Streaming SELECTs for tavrin sql (see sqlstream.h).
#include "tools/sqlstream.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <condition_variable>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/date.h"
#include "base/msg.h"
#include "base/valstr.h"
#include "db/access/session.h"
#include "db/client/exec.h"
#include "db/client/parser.h"
#include "db/client/reqbuf.h"
#include "tools/term.h"

namespace {

constexpr const char *kCursor = "TAVRIN_STREAM";
constexpr const char *kDeclare = "DECLARE TAVRIN_STREAM CURSOR FOR ";
// The first block is small so that the first rows show at once; the later
// ones hold about kBlockBytes of stored rows, within these bounds.
constexpr long kFirstBlock = 100;
constexpr long kMinBlock = 100;
constexpr long kMaxBlock = 100000;
constexpr size_t kBlockBytes = 4000000;
// Written text is handed to the stream in pieces of about this size.
constexpr size_t kFlushBytes = 1 << 16;

// The row limit the channel has from a "MAX n" of the user (0: none); the
// session has one channel, and its MAX is set back to this after a stream.
long g_user_max = 0;

// The first word of a statement, upper-cased, and where the rest starts.
std::string first_word(const std::string &statement, size_t *rest) {
  size_t i = 0;
  while (i < statement.size() && std::isspace(static_cast<unsigned char>(statement[i]))) ++i;
  std::string w;
  while (i < statement.size() && std::isalpha(static_cast<unsigned char>(statement[i])))
    w += static_cast<char>(std::toupper(static_cast<unsigned char>(statement[i++])));
  if (rest) *rest = i;
  return w;
}

// Notes the row limit of a "MAX [n]" statement; anything else (a negative or
// malformed number, which the server refuses) is left alone.
void note_max(const std::string &statement, size_t rest) {
  std::string n = statement.substr(rest);
  while (!n.empty() && (std::isspace(static_cast<unsigned char>(n.back())) || n.back() == ';'))
    n.pop_back();
  size_t i = 0;
  while (i < n.size() && std::isspace(static_cast<unsigned char>(n[i]))) ++i;
  n.erase(0, i);
  if (n.empty()) {
    g_user_max = 0;
    return;
  }
  if (n.size() > 9 || !std::all_of(n.begin(), n.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return;
  g_user_max = std::stol(n);
}

// Whether the client's parser accepts the statement (nothing is sent; the
// request buffer is reset by the next statement anyway).
bool parses(const std::string &statement) {
  std::string text = statement;
  if (text.empty() || text.back() != ';') text += ';';
  std::vector<char> message(DB_MSG_SIZE);
  DBreq_reset();
  return DBexec_encode(text.data(), message.data()) == 1;
}

// Appends a Latin-1 text as UTF-8.
void put_utf8(std::string &out, const char *p, size_t n) {
  size_t i = 0;
  while (i < n) {
    size_t run = i;
    while (run < n && static_cast<unsigned char>(p[run]) < 0x80) ++run;
    out.append(p + i, run - i);
    for (i = run; i < n && static_cast<unsigned char>(p[i]) >= 0x80; ++i) {
      unsigned char c = static_cast<unsigned char>(p[i]);
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
}

// What a byte needs in a field: CSV quoting, TSV escaping, UTF-8 conversion.
enum : unsigned char { CSV_SPECIAL = 1, TSV_SPECIAL = 2, HIGH = 4 };
constexpr auto kByteClass = [] {
  std::array<unsigned char, 256> t{};
  t[','] = t['"'] = CSV_SPECIAL;
  t['\t'] = t['\\'] = TSV_SPECIAL;
  t['\n'] = t['\r'] = CSV_SPECIAL | TSV_SPECIAL;
  for (int c = 0x80; c < 0x100; ++c) t[static_cast<size_t>(c)] = HIGH;
  return t;
}();

bool numeric(int type) {
  return type == DBFT_SMALLINT || type == DBFT_INTEGER || type == DBFT_FLOAT;
}

// The display text of a cell (Latin-1): the server's null markers show as
// empty texts, as they do in the viewer.
std::string_view cell(DBRESULT *r, int row, int col, int type) {
  const char *v = DBgetvalue(r, row, col);
  if (!v) return {};
  const void *raw = DBgetrawvalue(r, row, col);
  switch (type) {
  case DBFT_SMALLINT: {
    int16_t x;
    std::memcpy(&x, raw, 2);
    return x == NULL_SHORT ? std::string_view() : v;
  }
  case DBFT_INTEGER: {
    int32_t x;
    std::memcpy(&x, raw, 4);
    return x == NULL_INT ? std::string_view() : v;
  }
  case DBFT_FLOAT: {
    double x;
    std::memcpy(&x, raw, 8);
    return DOUBLE_IsNull(x) ? std::string_view() : v;
  }
  case DBFT_DATE: {
    DATE d;
    std::memcpy(&d, raw, sizeof d);
    return d.year == 1800 && d.month == 1 && d.day == 1 ? std::string_view() : v;
  }
  case DBFT_TIMESTAMP: {
    DATI t;
    std::memcpy(&t, raw, sizeof t);
    return t.year == 1800 && t.month == 1 && t.day == 1 && t.hour == 0 && t.minute == 0 &&
                   t.second == 0 && t.usec == 0
               ? std::string_view()
               : v;
  }
  default:
    return v;
  }
}

// Writes fetched blocks in one format. The table format keeps its first
// SQLSTREAM_TABLE_ROWS rows to size the columns, then writes every row.
class Writer {
public:
  Writer(SqlFormat format, FILE *out) : format_(format), out_(out) {}

  // Writes (or, for the table, keeps) the rows of one block; the first block
  // with columns gives the header. False when the stream failed.
  bool block(DBRESULT *r) {
    int rows = DBntuples(r), cols = DBnfields(r);
    if (cols > 0 && names_.empty()) {
      for (int c = 0; c < cols; ++c) {
        const char *n = DBfieldname(r, c);
        names_.emplace_back(n ? n : "");
        types_.push_back(DBfieldtype(r, c));
      }
      if (format_ != SQL_TABLE) {
        for (int c = 0; c < cols; ++c) {
          if (c) text_ += format_ == SQL_CSV ? ',' : '\t';
          field(names_[static_cast<size_t>(c)]);
        }
        text_ += '\n';
      }
    }
    if (cols != static_cast<int>(names_.size())) cols = 0; // no rows without columns
    for (int row = 0; row < rows && cols > 0; ++row) {
      if (format_ != SQL_TABLE) {
        for (int c = 0; c < cols; ++c) {
          if (c) text_ += format_ == SQL_CSV ? ',' : '\t';
          field(cell(r, row, c, types_[static_cast<size_t>(c)]));
        }
        text_ += '\n';
      } else if (!sized_) {
        for (int c = 0; c < cols; ++c)
          kept_.emplace_back(cell(r, row, c, types_[static_cast<size_t>(c)]));
        if (kept_.size() >= static_cast<size_t>(SQLSTREAM_TABLE_ROWS) * names_.size())
          size_columns();
      } else {
        for (int c = 0; c < cols; ++c)
          line_cell(c, cell(r, row, c, types_[static_cast<size_t>(c)]));
        end_line();
      }
      if (text_.size() >= kFlushBytes && !write()) return false;
    }
    return write() && std::fflush(out_) == 0;
  }

  // Writes what the table format still keeps and its "(N rows)" line.
  bool finish(long rows) {
    if (format_ == SQL_TABLE) {
      if (!sized_) size_columns();
      text_ += "(" + std::to_string(rows) + (rows == 1 ? " row)\n" : " rows)\n");
    }
    return write() && std::fflush(out_) == 0;
  }

private:
  // CSV quotes a field holding a separator, quote or line end; TSV escapes
  // tabs, line ends and backslashes.
  void field(std::string_view t) {
    // Most fields need neither: one pass over a class table tells.
    unsigned char any = 0;
    for (char c : t) any |= kByteClass[static_cast<unsigned char>(c)];
    unsigned char special = format_ == SQL_CSV ? CSV_SPECIAL : TSV_SPECIAL;
    if (!(any & (special | HIGH))) {
      text_.append(t);
      return;
    }
    if (!(any & special)) {
      put_utf8(text_, t.data(), t.size());
      return;
    }
    if (format_ == SQL_CSV) {
      text_ += '"';
      for (size_t i = 0; i < t.size();) {
        size_t q = t.find('"', i);
        size_t end = q == std::string_view::npos ? t.size() : q + 1;
        put_utf8(text_, t.data() + i, end - i);
        if (q != std::string_view::npos) text_ += '"';
        i = end;
      }
      text_ += '"';
      return;
    }
    size_t i = 0;
    while (i < t.size()) {
      size_t s = t.find_first_of("\t\n\r\\", i);
      size_t end = s == std::string_view::npos ? t.size() : s;
      put_utf8(text_, t.data() + i, end - i);
      if (s == std::string_view::npos) break;
      text_ += t[s] == '\t' ? "\\t" : t[s] == '\n' ? "\\n" : t[s] == '\r' ? "\\r" : "\\\\";
      i = s + 1;
    }
  }

  // Fixes the column widths from the kept rows and writes the header, the
  // rule and the kept rows.
  void size_columns() {
    size_t cols = names_.size();
    width_.assign(cols, 0);
    for (size_t c = 0; c < cols; ++c) width_[c] = names_[c].size();
    for (size_t i = 0; i < kept_.size(); ++i)
      width_[i % cols] = std::max(width_[i % cols], kept_[i].size());
    for (size_t c = 0; c < cols; ++c) line_cell(static_cast<int>(c), names_[c], false);
    end_line();
    for (size_t c = 0; c < cols; ++c) {
      if (c) line_ += "-+-";
      line_.append(width_[c], '-');
    }
    end_line();
    for (size_t i = 0; i < kept_.size(); ++i) {
      line_cell(static_cast<int>(i % cols), kept_[i]);
      if (i % cols == cols - 1) end_line();
    }
    kept_.clear();
    kept_.shrink_to_fit();
    sized_ = true;
  }

  // Appends a cell to the table line, padded to its column's width (numbers
  // to the right).
  void line_cell(int c, std::string_view t, bool by_type = true) {
    size_t w = width_[static_cast<size_t>(c)];
    size_t fill = w - std::min(w, t.size());
    bool right = by_type && numeric(types_[static_cast<size_t>(c)]);
    if (c) line_ += " | ";
    if (right) line_.append(fill, ' ');
    line_ += t;
    if (!right) line_.append(fill, ' ');
  }

  void end_line() {
    size_t n = line_.size();
    while (n > 0 && line_[n - 1] == ' ') --n;
    put_utf8(text_, line_.data(), n);
    text_ += '\n';
    line_.clear();
  }

  bool write() {
    bool ok = text_.empty() || std::fwrite(text_.data(), 1, text_.size(), out_) == text_.size();
    text_.clear();
    return ok;
  }

  SqlFormat format_;
  FILE *out_;
  std::vector<std::string> names_;
  std::vector<int> types_;
  std::string text_; // UTF-8 not yet written
  // The table format: kept cells (row by row) until the widths are fixed.
  std::vector<std::string> kept_;
  std::vector<size_t> width_;
  std::string line_; // the table line being made (Latin-1)
  bool sized_ = false;
};

// Runs a statement whose answer is "done" (DECLARE, MAX, CLOSE) through the
// session layer, which prints a failure. True when it was done.
bool done(DBSESSION *s, const std::string &statement) {
  int outcome = 0;
  return dbexec1(s, statement.c_str(), nullptr, &outcome) == 1 && outcome == DBOUT_DONE;
}

// Fetches the next block of the cursor. The result (owned by the caller) or
// null with the failure printed as the session layer prints it; a lost
// transport ends the program as there.
DBRESULT *fetch(DBSESSION *s) {
  std::string statement = std::string("FETCH ") + kCursor;
  DBRESULT *r = DBexec(s->connection, statement.c_str());
  int status = DBresult_status(r);
  if (status == DBRES_TUPLES2) return r;
  if (!r) {
    msg_print("FETCH command failed:\n  %s", DBerrormessage(s->connection));
  } else if (status == DBRES_TRANSPORT) {
    msg_print("FATAL ERROR occured in FETCH command.\n");
    msg_print("Error: %s", DBresult_error(r));
    DBclear(r);
    db_transport_fatal();
  } else {
    msg_print("BAD RESPONSE to FETCH command.\n");
    msg_print("Error: %s", DBresult_error(r));
  }
  DBclear(r);
  return nullptr;
}

// Rows for the next FETCH: about kBlockBytes of rows as wide as the ones
// fetched last, never more than the user's limit still allows.
long next_block(long current, size_t bytes, long rows, long left) {
  long n = current;
  if (rows > 0) {
    size_t per_row = std::max<size_t>(1, bytes / static_cast<size_t>(rows));
    long ideal = static_cast<long>(std::clamp<size_t>(kBlockBytes / per_row, kMinBlock, kMaxBlock));
    // A change costs a MAX statement: only for a size off by half or more.
    if (ideal >= 2 * current || 2 * ideal <= current) n = ideal;
  }
  return left > 0 ? std::min(n, left) : n;
}

// Fetches the cursor's blocks in a thread of its own and hands them over
// one at a time; at most one fetched block waits while the caller writes
// another, so memory stays at about three blocks. Only the fetching thread
// uses the session until finish() returns.
class Fetcher {
public:
  explicit Fetcher(DBSESSION *s) : s_(s), thread_([this] { run(); }) {}
  ~Fetcher() { finish(); }

  // The next block (owned by the caller), or null after the last one or a
  // failure.
  DBRESULT *next() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return ready_ || ended_; });
    DBRESULT *r = ready_;
    ready_ = nullptr;
    changed_.notify_all();
    return r;
  }

  // Stops fetching (also in the middle) and waits for the thread. True when
  // every statement of the fetching succeeded.
  bool finish() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
      changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
    DBclear(ready_);
    ready_ = nullptr;
    return good_;
  }

private:
  void run() {
    long total = 0;
    long block = g_user_max > 0 ? std::min(kFirstBlock, g_user_max) : kFirstBlock;
    bool good = done(s_, "MAX " + std::to_string(block));
    while (good) {
      DBRESULT *r = fetch(s_);
      if (!r) {
        good = false;
        break;
      }
      long rows = DBntuples(r);
      size_t bytes = RESDATA_Memory(&r->data);
      total += rows;
      if (!hand_over(r)) break;
      long left = g_user_max > 0 ? g_user_max - total : 0;
      if (rows < block || (g_user_max > 0 && left <= 0)) break;
      long next = next_block(block, bytes, rows, left);
      if (next != block) {
        block = next;
        good = done(s_, "MAX " + std::to_string(block));
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    good_ = good;
    ended_ = true;
    changed_.notify_all();
  }

  // Waits until the last block was taken, then offers r. False (r freed)
  // when the caller stopped.
  bool hand_over(DBRESULT *r) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !ready_ || stop_; });
    if (stop_) {
      DBclear(r);
      return false;
    }
    ready_ = r;
    changed_.notify_all();
    return true;
  }

  DBSESSION *s_;
  std::mutex mutex_;
  std::condition_variable changed_;
  DBRESULT *ready_ = nullptr; // a fetched block not yet taken
  bool ended_ = false;        // the thread fetches no more
  bool stop_ = false;         // the caller wants no more
  bool good_ = true;
  std::thread thread_; // last: starts when the state above is ready
};

} // namespace

int sqlstream_select(DBSESSION *s, const std::string &statement, SqlFormat format, FILE *out) {
  size_t rest = 0;
  std::string word = first_word(statement, &rest);
  if (word == "MAX") note_max(statement, rest);
  // A statement the declaration would make too long for the session layer's
  // statement buffer goes the usual way rather than being cut.
  if (word != "SELECT" || !s || s->disabled || !s->connection ||
      statement.size() + std::strlen(kDeclare) >= static_cast<size_t>(DB_STATEMENT_SIZE) - 1 ||
      !parses(statement))
    return -1;

  if (!done(s, kDeclare + statement)) return 0;
  // The fetcher runs the channel while this thread writes: the server makes
  // the next block while the last one is written out.
  Fetcher fetcher(s);
  Writer writer(format, out);
  bool written = true;
  int write_error = 0;
  long total = 0;
  while (DBRESULT *r = fetcher.next()) {
    total += DBntuples(r);
    written = writer.block(r);
    DBclear(r);
    if (!written) {
      write_error = errno;
      break;
    }
  }
  bool fetched = fetcher.finish();
  bool good = fetched && written;
  // The cursor is closed and the user's limit set back also after a
  // failure; a failure of either counts. A FETCH the server refused (a
  // stopped or cancelled statement) has closed the cursor already.
  if (fetched && !done(s, std::string("CLOSE ") + kCursor)) good = false;
  if (!done(s, "MAX " + std::to_string(g_user_max))) good = false;
  if (good) good = writer.finish(total);
  if (!written) term_error("the rows could not be written: %s", std::strerror(write_error));
  return good ? 1 : 0;
}
