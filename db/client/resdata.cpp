// Result data (see resdata.h): storage of cells, the accessors, the
// conversion of values to text and the binary escape.
#include "db/client/resdata.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "base/date.h"
#include "base/msg.h"

namespace {

constexpr uint32_t NO_TEXT = 0xFFFFFFFFu;
// A text slot whose text is in RESDATA::spilled (no block reference reaches
// this value: the block index would be RESDATA_REF_BLOCKS).
constexpr uint32_t SPILLED_TEXT = 0xFFFFFFFEu;
constexpr unsigned char SECTION = 0xA7; // the escape byte of binary runs
constexpr size_t MB = 1000000;

std::atomic<size_t> g_budget{0}; // set by DBset_result_budget; 0: the default

// The default budget: TAVRIN_RESULT_BUDGET megabytes, else a quarter of the
// machine's memory (1 GB when the system does not say).
size_t default_budget() {
  if (const char *env = std::getenv("TAVRIN_RESULT_BUDGET")) {
    char *end = nullptr;
    unsigned long long mb = std::strtoull(env, &end, 10);
    if (end != env && *end == '\0' && mb > 0 && mb < SIZE_MAX / MB) return mb * MB;
  }
  long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || page <= 0) return 1000 * MB;
  return static_cast<size_t>(pages) / 4 * static_cast<size_t>(page);
}

// Marks a refused fill; returns false for the caller to pass on.
bool refuse(RESDATA *d, int why, std::string text) {
  d->failed = why;
  d->failure = std::move(text);
  return false;
}

bool too_large(RESDATA *d) {
  return refuse(d, RESDATA_TOO_LARGE,
                "result too large: " + std::to_string(d->rows) + " rows read, budget " +
                    std::to_string(DBresult_budget() / MB) + " MB");
}

bool out_of_memory(RESDATA *d) { return refuse(d, RESDATA_NO_MEMORY, "(TAVRIN) Out of memory!"); }

// Bytes of the row table.
size_t row_table_bytes(const RESDATA *d) { return d->cells.bytes(); }

// Bytes of a value of a fixed-size type; 0 for CHARACTER, BINARY and
// unknown codes.
size_t fixed_size(unsigned char type) {
  switch (type) {
  case DBTYPE_SMALLINT:
    return 2;
  case DBTYPE_INTEGER:
    return 4;
  case DBTYPE_FLOAT:
    return 8;
  case DBTYPE_DATE:
    return sizeof(DATE);
  case DBTYPE_TIME:
    return sizeof(TIME);
  case DBTYPE_TIMESTAMP:
    return sizeof(DATI);
  default:
    return 0;
  }
}

template <typename T> T load(const unsigned char *p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

uint16_t load16(const unsigned char *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

// The slot of a cell in a table of rows of `cols` references; the row has
// slots.
uint32_t &slot(resdata_detail::RowTable &table, int cols, int row, int col) {
  return table.at(static_cast<size_t>(row), static_cast<size_t>(cols), static_cast<size_t>(col));
}

// Makes sure the row table has slots for the row being filled. False (the
// refusal noted) when they would pass the budget or cannot be had.
bool ensure_row(RESDATA *d) {
  size_t row = static_cast<size_t>(d->stored_rows);
  if (d->cells.has(row)) return true;
  size_t cols = d->types.size();
  if (d->store.allocated() + row_table_bytes(d) + d->cells.growth(row, cols) > DBresult_budget())
    return too_large(d);
  return d->cells.make_room(row, cols, nullptr) || out_of_memory(d);
}

// Room for n bytes of cell data in a new block (see Arena::reserve); null
// with the refusal noted when the block would pass the budget or cannot be
// had.
[[gnu::noinline]] unsigned char *reserve_new_block(RESDATA *d, size_t n, uint32_t *ref) {
  if (d->store.allocated() + row_table_bytes(d) + d->store.block_for(n) > DBresult_budget()) {
    too_large(d);
    return nullptr;
  }
  unsigned char *p = d->store.reserve(n, ref);
  if (!p) out_of_memory(d);
  return p;
}

// Room for n bytes of cell data (see Arena::reserve); null with the refusal
// noted when a new block would pass the budget or cannot be had.
inline unsigned char *reserve_cell(RESDATA *d, size_t n, uint32_t *ref) {
  return d->store.fits(n) ? d->store.reserve(n, ref) : reserve_new_block(d, n, ref);
}

// The text-cache slot of a cell, allocating its chunk on first use; null when
// the chunk cannot be had.
uint32_t *text_slot(RESDATA *d, int row, int col) {
  size_t r = static_cast<size_t>(row);
  if (!d->texts.has(r) && !d->texts.make_room(r, d->types.size(), &NO_TEXT)) return nullptr;
  return &slot(d->texts, static_cast<int>(d->types.size()), row, col);
}

uint64_t cell_number(const RESDATA *d, int row, int col) {
  return static_cast<uint64_t>(row) * d->types.size() + static_cast<uint64_t>(col);
}

// Forgets the cached text of a cell (after it was replaced).
void drop_text(RESDATA *d, int row, int col) {
  if (d->texts.has(static_cast<size_t>(row))) {
    uint32_t &s = slot(d->texts, static_cast<int>(d->types.size()), row, col);
    if (s == SPILLED_TEXT) d->spilled.erase(cell_number(d, row, col));
    s = NO_TEXT;
  }
}

// Stores a text as a cell of column `col`; false with the refusal noted.
bool store_text(RESDATA *d, int col, const char *text, uint32_t *ref) {
  size_t n = std::strlen(text) + 1;
  // A text cell is at least as long as the column's binary form so that no
  // typed reader of a mixed data set can read past it.
  size_t room = std::max(n, fixed_size(d->types[col]));
  unsigned char *p = reserve_cell(d, room, ref);
  if (!p) return false;
  std::memcpy(p, text, n);
  if (room > n) std::memset(p + n, 0, room - n);
  return true;
}

// Stores one binary value of column `col`. Fixed-size values shorter than
// their type are padded with zero bytes, a BINARY value's own length is cut
// to the bytes that came, so that typed readers never read past a cell.
// Returns false with the refusal noted when the room cannot be had; a
// CHARACTER value without zero byte is noted as a refusal (in_order, the
// filling in row order) or refused with a message.
inline bool store_binary(RESDATA *d, int col, const unsigned char *bytes, size_t length,
                         bool in_order, uint32_t *ref) {
  unsigned char type = d->types[col];
  // In a text data set every cell must read as a zero-terminated text.
  size_t tail = d->kind == RESDATA::TEXT ? 1 : 0;
  unsigned char *p;
  size_t fixed = fixed_size(type);
  if (fixed && length == fixed && !tail) {
    // The common case of a typed answer: the value just as long as its type.
    p = reserve_cell(d, fixed, ref);
    if (!p) return false;
    std::memcpy(p, bytes, fixed);
  } else if (type == DBTYPE_CHARACTER) {
    const void *zero = length ? std::memchr(bytes, 0, length) : nullptr;
    if (!zero) {
      // A text without its end cannot be stored as a text.
      if (in_order)
        return refuse(
            d, RESDATA_BAD_VALUE,
            "(RESDATA_Fill_Binary) String too long ('" +
                std::string(reinterpret_cast<const char *>(bytes), std::min<size_t>(length, 1000)) +
                "[...]')");
      msg_print("(RESDATA_XY_Fill_Binary) String too long\n");
      return false;
    }
    size_t n = static_cast<size_t>(static_cast<const unsigned char *>(zero) - bytes) + 1;
    p = reserve_cell(d, n, ref);
    if (!p) return false;
    std::memcpy(p, bytes, n);
  } else if (type == DBTYPE_BINARY) {
    size_t own = length >= 2 ? load16(bytes) : 0;
    if (length < 2 || own > length - 2) own = length >= 2 ? length - 2 : 0;
    p = reserve_cell(d, own + 2 + tail, ref);
    if (!p) return false;
    p[0] = static_cast<unsigned char>(own);
    p[1] = static_cast<unsigned char>(own >> 8);
    if (own) std::memcpy(p + 2, bytes + 2, own);
    if (tail) p[own + 2] = 0;
  } else {
    // Unknown types keep their bytes and get a zero byte after them.
    size_t room = fixed ? std::max(length, fixed) : length + 1;
    room += tail;
    p = reserve_cell(d, room, ref);
    if (!p) return false;
    if (length) std::memcpy(p, bytes, length);
    std::memset(p + length, 0, room - length);
  }
  return true;
}

// Places a stored cell at the fill position and advances it; the row table
// has room (ensure_row).
inline void place(RESDATA *d, uint32_t ref) {
  slot(d->cells, static_cast<int>(d->types.size()), d->stored_rows, d->fill_col) = ref;
  if (++d->fill_col == static_cast<int>(d->types.size())) {
    d->fill_col = 0;
    ++d->stored_rows;
    ++d->rows;
  }
}

bool cell_exists(const RESDATA *d, int row, int col) {
  return row >= 0 && row < d->stored_rows && col >= 0 && col < static_cast<int>(d->types.size());
}

const unsigned char *cell(const RESDATA *d, int row, int col) {
  return d->store.at(d->cells.at(static_cast<size_t>(row), d->types.size(), static_cast<size_t>(col)));
}

// ---- Value to text --------------------------------------------------------

// Writes v zero-padded to `digits` digits as "%0<digits>u" would; returns
// the end.
char *put_uint(char *out, unsigned v, int digits) {
  char tmp[12];
  int n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  while (n < digits) tmp[n++] = '0';
  while (n) *out++ = tmp[--n];
  return out;
}

// printf's "%0<w>d" for a signed value.
char *put_int(char *out, long v, int width) {
  if (v < 0) {
    *out++ = '-';
    return put_uint(out, static_cast<unsigned>(-v), width - 1);
  }
  return put_uint(out, static_cast<unsigned>(v), width);
}

// FLOAT by the size of its rounded magnitude: 14 decimals below 1, one less
// for every power of ten up to 1 decimal from 1e12 on; then trailing zeros,
// and a decimal point left at the end, are removed.
size_t float_text(double v, char *out, size_t size) {
  double r = std::round(std::fabs(v));
  int decimals = 14;
  for (double limit = 1; decimals > 1 && r >= limit; limit *= 10) --decimals;
  // std::to_chars writes what printf's "%.<n>f" writes, but always with ".".
  auto res = std::to_chars(out, out + size - 1, v, std::chars_format::fixed, decimals);
  char *end = res.ptr;
  if (std::memchr(out, '.', static_cast<size_t>(end - out))) {
    while (end > out && end[-1] == '0') --end;
    if (end > out && (end[-1] == '.' || end[-1] == ',')) --end;
  }
  if (end == out) *end++ = '0';
  *end = '\0';
  return static_cast<size_t>(end - out);
}

// The text of a non-character, non-binary value; returns its length.
size_t value_text(unsigned char type, const unsigned char *p, char *out, size_t size) {
  char *o = out;
  switch (type) {
  case DBTYPE_SMALLINT:
    o = put_int(o, load<int16_t>(p), 1);
    break;
  case DBTYPE_INTEGER:
    o = put_int(o, load<int32_t>(p), 1);
    break;
  case DBTYPE_FLOAT:
    return float_text(load<double>(p), out, size);
  case DBTYPE_DATE: {
    DATE d = load<DATE>(p);
    o = put_int(o, d.year, 4);
    *o++ = '-';
    o = put_uint(o, d.month, 2);
    *o++ = '-';
    o = put_uint(o, d.day, 2);
    break;
  }
  case DBTYPE_TIME: {
    TIME t = load<TIME>(p);
    o = put_uint(o, t.hour, 2);
    *o++ = ':';
    o = put_uint(o, t.minute, 2);
    *o++ = ':';
    o = put_uint(o, t.second, 2);
    break;
  }
  case DBTYPE_TIMESTAMP: {
    DATI t = load<DATI>(p);
    o = put_int(o, t.year, 4);
    *o++ = '-';
    o = put_uint(o, t.month, 2);
    *o++ = '-';
    o = put_uint(o, t.day, 2);
    *o++ = '-';
    o = put_uint(o, t.hour, 2);
    *o++ = '.';
    o = put_uint(o, t.minute, 2);
    *o++ = '.';
    o = put_uint(o, t.second, 2);
    *o++ = '.';
    o = put_int(o, t.usec, 6);
    break;
  }
  default:
    return static_cast<size_t>(std::snprintf(out, size, "<datatype unknown>"));
  }
  *o = '\0';
  return static_cast<size_t>(o - out);
}

bool printable(unsigned char c) { return (c >= 32 && c <= 126) || c == SECTION; }

// The escaped text of n binary bytes into out (at least 3 * n + 3 bytes):
// printable bytes as they are ("$" and 0xA7 doubled), one non-printable byte
// as "$" and two hex digits, a run of several as 0xA7, their hex pairs, 0xA7.
size_t escape_binary(const unsigned char *b, size_t n, char *out) {
  static const char hex[] = "0123456789ABCDEF";
  char *o = out;
  size_t i = 0;
  while (i < n) {
    unsigned char c = b[i];
    if (printable(c)) {
      *o++ = static_cast<char>(c);
      if (c == '$' || c == SECTION) *o++ = static_cast<char>(c);
      ++i;
      continue;
    }
    size_t run = i;
    while (run < n && !printable(b[run])) ++run;
    if (run - i == 1) {
      *o++ = '$';
      *o++ = hex[c >> 4];
      *o++ = hex[c & 15];
    } else {
      *o++ = static_cast<char>(SECTION);
      for (size_t k = i; k < run; ++k) {
        *o++ = hex[b[k] >> 4];
        *o++ = hex[b[k] & 15];
      }
      *o++ = static_cast<char>(SECTION);
    }
    i = run;
  }
  *o = '\0';
  return static_cast<size_t>(o - out);
}

// The text of a cell that the cache could not take: kept in the spilled
// texts, made there on first use.
const char *spilled_text(RESDATA *d, int row, int col, const unsigned char *p, uint32_t *s) {
  auto [it, made] = d->spilled.try_emplace(cell_number(d, row, col));
  if (made) {
    if (d->types[col] == DBTYPE_BINARY) {
      size_t n = load16(p);
      it->second.resize(3 * n + 3);
      it->second.resize(escape_binary(p + 2, n, it->second.data()));
    } else {
      char buf[400];
      it->second.assign(buf, value_text(d->types[col], p, buf, sizeof buf));
    }
  }
  if (s) *s = SPILLED_TEXT;
  return it->second.c_str();
}

// The cached text of a cell, converting it on first use.
const char *cached_text(RESDATA *d, int row, int col, const unsigned char *p) {
  // The slot lives in a chunk that never moves; the text store is separate.
  uint32_t *s = text_slot(d, row, col);
  if (!s || *s == SPILLED_TEXT) return spilled_text(d, row, col, p, s);
  if (*s != NO_TEXT) return reinterpret_cast<const char *>(d->text_store.at(*s));
  unsigned char type = d->types[col];
  uint32_t ref;
  char *out;
  size_t used;
  if (type == DBTYPE_BINARY) {
    size_t n = load16(p);
    size_t room = 3 * n + 3;
    out = reinterpret_cast<char *>(d->text_store.reserve(room, &ref));
    if (!out) return spilled_text(d, row, col, p, s);
    used = escape_binary(p + 2, n, out) + 1;
    d->text_store.shrink_last(room - used);
  } else {
    char buf[400];
    used = value_text(type, p, buf, sizeof buf) + 1;
    out = reinterpret_cast<char *>(d->text_store.reserve(used, &ref));
    if (!out) return spilled_text(d, row, col, p, s);
    std::memcpy(out, buf, used);
  }
  *s = ref;
  return out;
}

} // namespace

namespace resdata_detail {

namespace {

// Full-size blocks given back by results that were cleared, kept for the next
// results (RESDATA_POOL_BLOCKS at most), so that a process reading large
// results one after another does not have the memory mapped and its pages
// cleared anew each time. Shared by all threads; never destroyed, so that
// results freed late in the process's exit still find it.
class BlockPool {
public:
  BlockPool() { free_.reserve(RESDATA_POOL_BLOCKS); }
  // A kept block, or null when none is kept.
  std::unique_ptr<unsigned char[]> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (free_.empty()) return nullptr;
    std::unique_ptr<unsigned char[]> b = std::move(free_.back());
    free_.pop_back();
    return b;
  }
  // Keeps the block, or hands it back for freeing when enough are kept.
  std::unique_ptr<unsigned char[]> give(std::unique_ptr<unsigned char[]> b) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (free_.size() < RESDATA_POOL_BLOCKS) free_.push_back(std::move(b));
    return b;
  }

private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<unsigned char[]>> free_; // room reserved: no allocation under the lock
};

BlockPool &block_pool() {
  static BlockPool *pool = new BlockPool;
  return *pool;
}

} // namespace

Arena::~Arena() { clear(); }

bool Arena::open(size_t n) {
  if (blocks_.size() >= RESDATA_REF_BLOCKS) return false;
  // A block larger than its step's size holds one value at offset 0, so the
  // 18-bit offset always suffices.
  size_t step = block_for(0);
  size_t size = block_for(n);
  std::unique_ptr<unsigned char[]> b;
  if (size == RESDATA_BLOCK_SIZE) b = block_pool().take();
  if (!b) b.reset(new (std::nothrow) unsigned char[size]);
  if (!b) return false;
  if (!reserve_index()) return false;
  blocks_.push_back(std::move(b));
  sizes_.push_back(size);
  capacity_ = size;
  standard_ = step;
  used_ = 0;
  allocated_ += size;
  return true;
}

bool Arena::reserve_index() {
  try {
    blocks_.reserve(blocks_.size() + 1);
    sizes_.reserve(blocks_.size() + 1);
  } catch (const std::bad_alloc &) {
    return false;
  }
  return true;
}

void Arena::clear() {
  for (size_t i = 0; i < blocks_.size(); ++i)
    if (sizes_[i] == RESDATA_BLOCK_SIZE) blocks_[i] = block_pool().give(std::move(blocks_[i]));
  blocks_.clear();
  sizes_.clear();
  used_ = capacity_ = standard_ = allocated_ = 0;
}

// Rows the first chunk holds after growing to take `row`.
static size_t first_rows_for(size_t row, size_t now) {
  size_t rows = now ? now : RESDATA_FIRST_ROWS;
  while (rows <= row) rows *= 2;
  return std::min(rows, RESDATA_ROW_STEP);
}

size_t RowTable::growth(size_t row, size_t cols) const {
  if (has(row)) return 0;
  size_t c = row / RESDATA_ROW_STEP;
  size_t rows = c > 0 ? RESDATA_ROW_STEP : first_rows_for(row, first_rows_) - first_rows_;
  return rows * cols * sizeof(uint32_t);
}

bool RowTable::make_room(size_t row, size_t cols, const uint32_t *fill) {
  if (has(row)) return true;
  size_t c = row / RESDATA_ROW_STEP;
  size_t old_rows = c == 0 ? first_rows_ : 0;
  size_t rows = c == 0 ? first_rows_for(row, first_rows_) : RESDATA_ROW_STEP;
  std::unique_ptr<uint32_t[]> chunk(new (std::nothrow) uint32_t[rows * cols]);
  if (!chunk || (chunks_.size() <= c && !grow_index(c + 1))) return false;
  if (old_rows) std::copy_n(chunks_[0].get(), old_rows * cols, chunk.get());
  if (fill) std::fill_n(chunk.get() + old_rows * cols, (rows - old_rows) * cols, *fill);
  chunks_[c] = std::move(chunk);
  bytes_ += (rows - old_rows) * cols * sizeof(uint32_t);
  if (c == 0) first_rows_ = rows;
  return true;
}

bool RowTable::grow_index(size_t n) {
  try {
    chunks_.resize(n);
  } catch (const std::bad_alloc &) {
    return false;
  }
  return true;
}

} // namespace resdata_detail

RESDATA::RESDATA() = default;

void DBset_result_budget(size_t bytes) { g_budget.store(bytes, std::memory_order_relaxed); }

size_t DBresult_budget() {
  size_t b = g_budget.load(std::memory_order_relaxed);
  if (b == 0) {
    static const size_t fallback = default_budget();
    b = fallback;
  }
  return std::min(b, resdata_ref_capacity());
}

DBRESULT *DBresult_new() { return new (std::nothrow) DBRESULT; }

void DBclear(DBRESULT *res) { delete res; }

int DBresult_status(const DBRESULT *res) { return res ? res->status : 0; }

const char *DBresult_error(DBRESULT *res) {
  if (!res) return "";
  size_t n = strnlen(res->message, DB_MSG_SIZE - 1);
  res->message[n] = '\0';
  if (n > 0 && res->message[n - 1] != '\n') {
    if (n == DB_MSG_SIZE - 1) --n;
    res->message[n] = '\n';
    res->message[n + 1] = '\0';
  }
  return res->message;
}

int DBntuples(const DBRESULT *res) { return res ? res->data.rows : -1; }
int DBnfields(const DBRESULT *res) { return res ? static_cast<int>(res->data.types.size()) : -1; }

const char *DBfieldname(const DBRESULT *res, int column) {
  if (!res || column < 0 || column >= static_cast<int>(res->data.names.size())) return nullptr;
  return res->data.names[column].c_str();
}

int DBfieldtype(const DBRESULT *res, int column) {
  if (!res || column < 0 || column >= static_cast<int>(res->data.types.size())) return -1;
  switch (res->data.types[column]) {
  case DBTYPE_CHARACTER:
    return DBFT_CHARACTER;
  case DBTYPE_BINARY:
    return DBFT_BINARY;
  case DBTYPE_SMALLINT:
    return DBFT_SMALLINT;
  case DBTYPE_INTEGER:
    return DBFT_INTEGER;
  case DBTYPE_FLOAT:
    return DBFT_FLOAT;
  case DBTYPE_TIME:
    return DBFT_TIME;
  case DBTYPE_DATE:
    return DBFT_DATE;
  case DBTYPE_TIMESTAMP:
    return DBFT_TIMESTAMP;
  default:
    return -1;
  }
}

int DBfieldsize(const DBRESULT *res, int column) {
  if (!res || column < 0 || column >= static_cast<int>(res->data.sizes.size())) return -1;
  return res->data.sizes[column];
}

const char *DBgetvalue(DBRESULT *res, int row, int column) {
  if (!res || !cell_exists(&res->data, row, column)) return nullptr;
  RESDATA *d = &res->data;
  const unsigned char *p = cell(d, row, column);
  unsigned char type = d->types[column];
  if (d->kind == RESDATA::TEXT || type == DBTYPE_CHARACTER)
    return reinterpret_cast<const char *>(p);
  if (type == DBTYPE_BINARY || d->text_wanted) return cached_text(d, row, column, p);
  return reinterpret_cast<const char *>(p);
}

const void *DBgetrawvalue(const DBRESULT *res, int row, int column) {
  if (!res || !cell_exists(&res->data, row, column)) return nullptr;
  return cell(&res->data, row, column);
}

int DBfillbinary(const DBRESULT *res, void *destination, int row, int column) {
  if (!res || !destination || !cell_exists(&res->data, row, column)) return 0;
  const RESDATA *d = &res->data;
  const unsigned char *p = cell(d, row, column);
  unsigned char type =
      d->kind == RESDATA::TEXT ? static_cast<unsigned char>(DBTYPE_CHARACTER) : d->types[column];
  auto *dest = static_cast<unsigned char *>(destination);
  switch (type) {
  case DBTYPE_BINARY:
    std::memcpy(dest, p, load16(p) + 2u);
    return 1;
  case DBTYPE_CHARACTER:
    if (d->sizes[column] == 2) {
      // A one-character column holds a flag: 0 and 1 become "0" and "1".
      dest[0] = p[0] == 0 ? '0' : p[0] == 1 ? '1' : p[0];
    } else {
      std::strcpy(reinterpret_cast<char *>(dest), reinterpret_cast<const char *>(p));
    }
    return 1;
  case DBTYPE_SMALLINT:
  case DBTYPE_INTEGER:
  case DBTYPE_FLOAT:
  case DBTYPE_DATE:
  case DBTYPE_TIME:
  case DBTYPE_TIMESTAMP:
    std::memcpy(dest, p, fixed_size(type));
    return 1;
  default:
    msg_print("(DBfillbinary) Unknown datatype!\n");
    return 0;
  }
}

int RESDATA_Header_Data(RESDATA *data, const char *name, int type, int size) {
  if (data->kind != RESDATA::EMPTY || data->stored_rows > 0 || data->fill_col > 0) {
    msg_print("(RESDATA_Header_Data) Inkonsistent header definition\n");
    return 0;
  }
  data->names.emplace_back(name ? name : "");
  data->types.push_back(static_cast<unsigned char>(type));
  data->sizes.push_back(size);
  return 1;
}

int RESDATA_Fill_Binary(RESDATA *data, const void *bytes, size_t length) {
  if (data->kind == RESDATA::TEXT || data->types.empty()) {
    msg_print("(RESDATA_Fill_Binary) Inkonsistent binary definition\n");
    if (data->types.empty()) return 0;
  } else {
    data->kind = RESDATA::BINARY;
  }
  uint32_t ref;
  if ((data->fill_col == 0 && !ensure_row(data)) ||
      !store_binary(data, data->fill_col, static_cast<const unsigned char *>(bytes), length, true,
                    &ref))
    return 0;
  place(data, ref);
  return 1;
}

int RESDATA_Fill_Fields(RESDATA *data, const unsigned char *fields, size_t length, uint64_t cells,
                       size_t *used) {
  *used = 0;
  if (data->kind == RESDATA::TEXT || data->types.empty()) {
    // Mixed or headerless data sets take the one-by-one path with its messages.
    for (uint64_t i = 0; i < cells; ++i) {
      if (length - *used < 2) return 0;
      size_t n = static_cast<size_t>(load16(fields + *used));
      if (length - *used - 2 < n) return 0;
      if (!RESDATA_Fill_Binary(data, fields + *used + 2, n)) return 0;
      *used += 2 + n;
    }
    return 1;
  }
  const size_t cols = data->types.size();
  std::vector<unsigned char> fixed(cols); // bytes of each column's fixed-size values
  std::vector<unsigned char> text(cols);  // whether the column is CHARACTER
  for (size_t c = 0; c < cols; ++c) {
    fixed[c] = static_cast<unsigned char>(fixed_size(data->types[c]));
    text[c] = data->types[c] == DBTYPE_CHARACTER;
  }
  // The fill position, the slots of the row being filled (taken anew
  // whenever a row starts, since making room may move them) and the open
  // block's free room stay in locals: the slots are 32-bit like the
  // result's counters, so stores through them would make the compiler read
  // every field of the result again per cell. The result learns them when
  // the loop ends and before any other code stores a cell.
  size_t col = static_cast<size_t>(data->fill_col);
  uint32_t *row = col > 0 ? &data->cells.at(static_cast<size_t>(data->stored_rows), cols, 0) : nullptr;
  size_t left, taken = 0;
  uint32_t room_ref;
  unsigned char *room = data->store.free_room(&left, &room_ref);
  size_t pos = 0;
  int ok = 1;
  // The data set is binary once a first cell has arrived whole.
  if (cells > 0 && length >= 2 && length - 2 >= load16(fields)) data->kind = RESDATA::BINARY;
  for (uint64_t i = 0; i < cells; ++i) {
    if (length - pos < 2) {
      ok = 0;
      break;
    }
    size_t n = static_cast<size_t>(load16(fields + pos));
    const unsigned char *value = fields + pos + 2;
    if (length - pos - 2 < n) {
      ok = 0;
      break;
    }
    if (col == 0) {
      if (!ensure_row(data)) {
        ok = 0;
        break;
      }
      row = &data->cells.at(static_cast<size_t>(data->stored_rows), cols, 0);
    }
    uint32_t ref = room_ref + static_cast<uint32_t>(taken);
    size_t f = fixed[col];
    const void *zero;
    if (f != 0 && f == n && left - taken >= f) {
      // A value just as long as its type, copied with a size the compiler
      // knows.
      unsigned char *p = room + taken;
      switch (f) {
      case 2:
        std::memcpy(p, value, 2);
        break;
      case 3:
        std::memcpy(p, value, 3);
        break;
      case 4:
        std::memcpy(p, value, 4);
        break;
      case 8:
        std::memcpy(p, value, 8);
        break;
      case 12: // TIMESTAMP; a copy of unknown length would be a slow "rep movs"
        std::memcpy(p, value, 12);
        break;
      default:
        std::memcpy(p, value, f);
        break;
      }
      taken += f;
    } else if (text[col] && n > 0 && (zero = std::memchr(value, 0, n)) != nullptr &&
               left - taken > static_cast<size_t>(static_cast<const unsigned char *>(zero) - value)) {
      // A text up to its zero byte, as store_binary keeps it.
      size_t k = static_cast<size_t>(static_cast<const unsigned char *>(zero) - value) + 1;
      std::memcpy(room + taken, value, k);
      taken += k;
    } else {
      // Anything else (a new block, a refusal) through the general path.
      data->store.take(taken);
      bool stored = store_binary(data, static_cast<int>(col), value, n, true, &ref);
      room = data->store.free_room(&left, &room_ref);
      taken = 0;
      if (!stored) {
        ok = 0;
        break;
      }
    }
    row[col] = ref;
    if (++col == cols) {
      col = 0;
      ++data->stored_rows;
      ++data->rows;
    }
    pos += 2 + n;
  }
  data->store.take(taken);
  data->fill_col = static_cast<int>(col);
  *used = pos;
  return ok;
}

int RESDATA_Fill(RESDATA *data, const char *text) {
  if (data->kind == RESDATA::BINARY || data->types.empty()) {
    msg_print("(RESDATA_Fill) Inkonsistent binary definition\n");
    return 0;
  }
  data->kind = RESDATA::TEXT;
  uint32_t ref;
  if ((data->fill_col == 0 && !ensure_row(data)) ||
      !store_text(data, data->fill_col, text ? text : "", &ref))
    return 0;
  place(data, ref);
  return 1;
}

int RESDATA_XY_Fill(RESDATA *data, int row, int column, const char *text) {
  int cols = static_cast<int>(data->types.size());
  // The row after the last complete one may be added, unless a row is
  // being filled cell by cell.
  bool new_row = row == data->stored_rows && data->fill_col == 0;
  if (column < 0 || column >= cols || row < 0 || (row >= data->stored_rows && !new_row)) {
    msg_print("(RESDATA_XY_Fill) Invalid Row/Column\n");
    return 0;
  }
  if (data->kind == RESDATA::BINARY) {
    msg_print("(RESDATA_XY_Fill) Inkonsistent binary definition\n");
    return 0;
  }
  data->kind = RESDATA::TEXT;
  uint32_t ref;
  // The new row's cells are stored before it is placed, so that a refusal
  // leaves the data set as it was.
  std::vector<uint32_t> blank(new_row ? static_cast<size_t>(cols) : 0);
  for (int c = 0; c < static_cast<int>(blank.size()); ++c)
    if (!store_text(data, c, "", &blank[static_cast<size_t>(c)])) return 0;
  if (!store_text(data, column, text ? text : "", &ref) || (new_row && !ensure_row(data))) return 0;
  for (uint32_t b : blank) place(data, b);
  slot(data->cells, cols, row, column) = ref;
  drop_text(data, row, column);
  return 1;
}

int RESDATA_XY_Fill_Binary(RESDATA *data, int row, int column, const void *bytes, size_t length) {
  if (!cell_exists(data, row, column)) {
    msg_print("(RESDATA_XY_Fill_Binary) Invalid Row/Column\n");
    return 0;
  }
  if (data->kind == RESDATA::TEXT) {
    msg_print("(RESDATA_XY_Fill_Binary) Inkonsistent binary definition\n");
    return 0;
  }
  uint32_t ref;
  if (!store_binary(data, column, static_cast<const unsigned char *>(bytes), length, false, &ref))
    return 0;
  slot(data->cells, static_cast<int>(data->types.size()), row, column) = ref;
  drop_text(data, row, column);
  return 1;
}

int RESDATA_DelRow(RESDATA *data, int row) {
  if (row < 0 || row >= data->stored_rows) {
    msg_print("(RESDATA) Invalid row-parameter in RESDATA_DelRow\n");
    return 0;
  }
  int cols = static_cast<int>(data->types.size());
  // The row being filled (if any) moves up with the complete ones.
  int last = data->stored_rows + (data->fill_col > 0 ? 1 : 0);
  for (int r = row; r + 1 < last; ++r) {
    int n = r + 1 == data->stored_rows ? data->fill_col : cols;
    for (int c = 0; c < n; ++c) {
      slot(data->cells, cols, r, c) = slot(data->cells, cols, r + 1, c);
      uint32_t t = data->texts.has(static_cast<size_t>(r + 1)) ? slot(data->texts, cols, r + 1, c)
                                                              : NO_TEXT;
      // Spilled texts are found by cell number: they are made anew.
      uint32_t *s = t != NO_TEXT && t != SPILLED_TEXT ? text_slot(data, r, c) : nullptr;
      if (s) {
        if (*s == SPILLED_TEXT) data->spilled.erase(cell_number(data, r, c));
        *s = t;
      } else {
        drop_text(data, r, c);
      }
    }
  }
  // The vacated row keeps no cached texts for the cells filled there later.
  for (int c = 0; c < cols; ++c) drop_text(data, last - 1, c);
  --data->stored_rows;
  --data->rows;
  return 1;
}

void RESDATA_Set_Count(RESDATA *data, int count) { data->rows = count; }

void RESDATA_Drop_Rows(RESDATA *data) {
  data->cells.clear();
  data->texts.clear();
  data->spilled.clear();
  data->store.clear();
  data->text_store.clear();
  data->rows = data->stored_rows = data->fill_col = 0;
}

size_t RESDATA_Memory(const RESDATA *data) {
  size_t bytes = data->store.allocated();
  bytes += data->cells.bytes();
  for (const auto &n : data->names) bytes += n.capacity() + sizeof n;
  bytes += data->types.capacity() + data->sizes.capacity() * sizeof(int32_t);
  return bytes;
}

size_t RESDATA_Text_Memory(const RESDATA *data) {
  return data->text_store.allocated() + data->texts.bytes();
}
