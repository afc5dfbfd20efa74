// Result data of the TAVRIN client: the statement result (status, message,
// tuples) and its container RESDATA, which keeps the cells of an answer in
// the server's binary form and turns them into text on request, converting
// each cell once.
//
// Storage: cells live packed in storage blocks that start at 2048 bytes and
// double up to 200000 bytes; the row table holds one 32-bit block reference
// per cell, its first 5000 rows in a chunk that starts at 16 rows and doubles,
// then 5000 rows at a time; texts made from cells go into a cache of the same
// shape, allocated on first use. A one-row result so takes a few small
// allocations; full-size blocks of cleared results are kept (16 MB at most)
// for the next large result. Cells are stored unaligned: read raw values with memcpy or
// DBfillbinary. Decoding answers is answer.h's business, running statements
// exec.h's.
//
// Size: the cells and the row table of one result are limited by the result
// budget (DBset_result_budget), never by a fixed number of blocks; a fill
// that would pass it is refused and the caller turns that into an error
// result. Nothing here ends the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "db/client/tokenizer.h"
#include "db/wire/wire.h"

// Application type numbers of a column (DBfieldtype). TIME and DATE are
// numbered the other way round from their wire codes.
enum : int {
  DBFT_CHARACTER = 0,
  DBFT_BINARY = 1,
  DBFT_SMALLINT = 2,
  DBFT_INTEGER = 3,
  DBFT_FLOAT = 4,
  DBFT_TIME = 5,
  DBFT_DATE = 6,
  DBFT_TIMESTAMP = 7,
};

// Statuses of a statement result.
enum : int {
  DBRES_DONE = 1,      // done (initial)
  DBRES_TUPLES = 2,    // tuples
  DBRES_TUPLES2 = 3,   // tuples, second kind
  DBRES_ERROR = 4,     // server error or undecodable answer
  DBRES_SYNTAX = 5,    // refused by the client's parser
  DBRES_TRANSPORT = 6, // send or receive failed
};

constexpr size_t RESDATA_ROW_STEP = 5000;      // rows of a full chunk of the row table
constexpr size_t RESDATA_FIRST_ROWS = 16;      // rows of the first chunk at first
constexpr size_t RESDATA_BLOCK_SIZE = 200000;  // bytes of a full storage block
constexpr size_t RESDATA_FIRST_BLOCK = 2048;   // bytes of the first storage block
constexpr size_t RESDATA_POOL_BLOCKS = 80;     // full-size blocks kept for later results
// Storage blocks a 32-bit reference can name (14 bits of block index).
constexpr size_t RESDATA_REF_BLOCKS = (1u << 14) - 1;
// Bytes those blocks hold when they grow from the first size to the full one:
// about 3.2 GB of cells, the ceiling of every budget.
constexpr size_t resdata_ref_capacity() {
  size_t bytes = 0, size = RESDATA_FIRST_BLOCK;
  for (size_t i = 0; i < RESDATA_REF_BLOCKS; ++i) {
    bytes += size;
    size = size * 2 < RESDATA_BLOCK_SIZE ? size * 2 : RESDATA_BLOCK_SIZE;
  }
  return bytes;
}

// Why a fill was refused (RESDATA::failed).
enum : int {
  RESDATA_OK = 0,
  RESDATA_TOO_LARGE = 1, // the result budget would be passed
  RESDATA_NO_MEMORY = 2, // an allocation failed
  RESDATA_BAD_VALUE = 3, // a CHARACTER value without its zero byte
};

// The result budget: how many bytes the cells and the row table of one result
// may hold. The default is the environment variable TAVRIN_RESULT_BUDGET
// (megabytes of 1 000 000 bytes) when it holds a positive number, else a
// quarter of the machine's memory; resdata_ref_capacity() at most either
// way. DBset_result_budget(0) goes back to the default. Process-wide; a
// change applies to every fill from then on.
void DBset_result_budget(size_t bytes);
size_t DBresult_budget();

namespace resdata_detail {

// Blocks of packed bytes addressed by 32-bit references (block index in the
// high bits, offset in the low 18 bits). Blocks never move, so pointers into
// them stay valid until the arena is cleared or destroyed. Each block is
// twice the size of the one before, from RESDATA_FIRST_BLOCK up to
// RESDATA_BLOCK_SIZE.
class Arena {
public:
  Arena() = default;
  Arena(const Arena &) = delete;
  Arena &operator=(const Arena &) = delete;
  ~Arena();
  // Whether n bytes fit into the open block (there is none at first).
  bool fits(size_t n) const { return !blocks_.empty() && capacity_ - used_ >= n; }
  // Bytes of the block that opening room for n bytes would allocate: the next
  // size, or n when that is larger (such a block holds that one value).
  size_t block_for(size_t n) const {
    size_t next = blocks_.empty()                       ? RESDATA_FIRST_BLOCK
                  : standard_ * 2 < RESDATA_BLOCK_SIZE ? standard_ * 2
                                                        : RESDATA_BLOCK_SIZE;
    return n > next ? n : next;
  }
  // Room for n bytes; returns where to write and sets *ref. Opens a block
  // when the open one is too small; null (nothing changed) when all
  // RESDATA_REF_BLOCKS blocks are in use or the allocation fails.
  unsigned char *reserve(size_t n, uint32_t *ref) {
    if (!fits(n) && !open(n)) return nullptr;
    *ref = static_cast<uint32_t>((blocks_.size() - 1) << 18 | used_);
    unsigned char *p = blocks_.back().get() + used_;
    used_ += n;
    return p;
  }
  // Gives back the unused tail of the last reserve (used <= reserved).
  void shrink_last(size_t unused) { used_ -= unused; }
  // The open block's free bytes: *left of them at the returned pointer, the
  // first one with reference *ref (null and 0 when no block is open). Bytes
  // written there belong to cells once take() counts them; nothing else may
  // reserve room meanwhile. For fill loops that keep the free room in
  // registers instead of asking fits and reserve per cell.
  unsigned char *free_room(size_t *left, uint32_t *ref) const {
    if (blocks_.empty()) {
      *left = 0;
      *ref = 0;
      return nullptr;
    }
    *left = capacity_ - used_;
    *ref = static_cast<uint32_t>((blocks_.size() - 1) << 18 | used_);
    return blocks_.back().get() + used_;
  }
  void take(size_t n) { used_ += n; }
  unsigned char *at(uint32_t ref) const {
    return blocks_[ref >> 18].get() + (ref & ((1u << 18) - 1));
  }
  size_t allocated() const { return allocated_; }
  // Frees every block (full-size ones are kept for later results, see
  // RESDATA_POOL_BLOCKS); references handed out before are invalid.
  void clear();

private:
  bool open(size_t n);
  bool reserve_index();
  std::vector<std::unique_ptr<unsigned char[]>> blocks_;
  std::vector<size_t> sizes_; // bytes of each block
  size_t used_ = 0;      // used bytes of the last block
  size_t capacity_ = 0;  // size of the last block
  size_t standard_ = 0;  // the size of the growth step the last block stands for
  size_t allocated_ = 0;
};

// A table of one 32-bit slot per cell, RESDATA_ROW_STEP rows per chunk.
// Chunks are made on demand (a chunk may be missing); the first one starts
// with RESDATA_FIRST_ROWS rows and doubles until it is full size, moving its
// slots each time, so slot pointers are valid until the next make_room.
class RowTable {
public:
  // Whether the row has slots.
  bool has(size_t row) const {
    size_t c = row / RESDATA_ROW_STEP;
    return c < chunks_.size() && chunks_[c] && (c > 0 || row < first_rows_);
  }
  // The slot of a cell of a row that has slots (has).
  uint32_t &at(size_t row, size_t cols, size_t col) {
    return chunks_[row / RESDATA_ROW_STEP][(row % RESDATA_ROW_STEP) * cols + col];
  }
  uint32_t at(size_t row, size_t cols, size_t col) const {
    return chunks_[row / RESDATA_ROW_STEP][(row % RESDATA_ROW_STEP) * cols + col];
  }
  // Bytes that make_room(row) would add (0 when the row has slots).
  size_t growth(size_t row, size_t cols) const;
  // Gives the row slots, the new ones set to `fill` (left as they are when
  // fill is null). False, with nothing changed, when memory runs out.
  bool make_room(size_t row, size_t cols, const uint32_t *fill);
  // Bytes of every chunk.
  size_t bytes() const { return bytes_; }
  void clear() {
    chunks_.clear();
    first_rows_ = bytes_ = 0;
  }

private:
  bool grow_index(size_t n);
  std::vector<std::unique_ptr<uint32_t[]>> chunks_;
  size_t first_rows_ = 0; // rows of the first chunk
  size_t bytes_ = 0;      // bytes of every chunk
};

} // namespace resdata_detail

// The tuples of a result. Made empty; filled by RESDATA_Header_Data and the
// fill operations; released with its owner.
struct RESDATA {
  RESDATA();
  RESDATA(const RESDATA &) = delete;
  RESDATA &operator=(const RESDATA &) = delete;

  // When set (the default), non-character values are handed out as text.
  int text_wanted = 1;

  // What follows is the container's own state; use the functions below.
  enum Kind { EMPTY, BINARY, TEXT } kind = EMPTY;
  std::vector<unsigned char> types;
  std::vector<int32_t> sizes;
  std::vector<std::string> names;
  int rows = 0;                                   // complete rows; a count answer's number
  int stored_rows = 0;                            // complete rows that have cells
  int fill_col = 0;                               // next column of the row being filled
  resdata_detail::RowTable cells; // the block reference of every stored cell
  resdata_detail::RowTable texts; // the cached texts' references, made on first use
  resdata_detail::Arena store;
  resdata_detail::Arena text_store;
  // Texts the cache could not take (its blocks or memory ran out), by cell
  // number row * columns + column; nodes never move.
  std::unordered_map<uint64_t, std::string> spilled;
  // Why the last refused fill was refused (RESDATA_...) and its message.
  int failed = RESDATA_OK;
  std::string failure;
};

// A statement result, made by DBexec (or DBresult_new) and freed by DBclear.
struct DBRESULT {
  int status = DBRES_DONE;
  char message[DB_MSG_SIZE] = {};
  RESDATA data;
};

// A new result: status 1, empty message, no tuples. Owned by the caller
// (DBclear); null when memory runs out.
DBRESULT *DBresult_new();
// Frees a result and everything handed out from it (null allowed).
void DBclear(DBRESULT *res);

// The status; 0 (no information) for a null result.
int DBresult_status(const DBRESULT *res);
// The message with a line feed appended (in place) when it does not end with
// one; "" for an empty message or a null result.
const char *DBresult_error(DBRESULT *res);

// Row count (or a count answer's number), column count. -1 for a null result.
int DBntuples(const DBRESULT *res);
int DBnfields(const DBRESULT *res);
// Column name, null when the column does not exist.
const char *DBfieldname(const DBRESULT *res, int column);
// Application type number (DBFT_...), -1 for an unknown code or column.
int DBfieldtype(const DBRESULT *res, int column);
// Column size from the answer, -1 when the column does not exist.
int DBfieldsize(const DBRESULT *res, int column);

// The value of a cell: text for CHARACTER and BINARY (escaped) cells and,
// when text conversion is wanted, for all others; otherwise the raw cell.
// Null when the cell does not exist. The text belongs to the result. Texts
// made here are cached; the cache is not counted against the budget.
const char *DBgetvalue(DBRESULT *res, int row, int column);
// The stored cell in the server's binary form (unaligned), null when the
// cell does not exist.
const void *DBgetrawvalue(const DBRESULT *res, int row, int column);
// Copies the raw value into the caller's variable by the column's type:
// BINARY length + 2 bytes, CHARACTER the text (a one-character column as the
// character "0"/"1" for the bytes 0/1), SMALLINT 2, INTEGER 4, FLOAT 8, DATE
// 4, TIME 3, TIMESTAMP 12 bytes. Returns 1, or 0 for a missing cell or an
// unknown type ("(DBfillbinary) Unknown datatype!\n").
int DBfillbinary(const DBRESULT *res, void *destination, int row, int column);

// Defines the next column. Returns 1; 0 with "(RESDATA_Header_Data)
// Inkonsistent header definition\n" once cells have been filled.
int RESDATA_Header_Data(RESDATA *data, const char *name, int type, int size);
// Appends the next cell (row by row, column by column) from `length` bytes
// in the server's binary form of its column's type. Returns 1; 0 when no
// column is defined (message printed) and, without a message, with `failed`
// and `failure` set and the data set as it was, when the cell would pass the
// result budget ("result too large: <n> rows read, budget <b> MB"), memory
// runs out ("(TAVRIN) Out of memory!") or a CHARACTER value lacks its zero
// byte ("(RESDATA_Fill_Binary) String too long ('<up to 1000 bytes>[...]')").
int RESDATA_Fill_Binary(RESDATA *data, const void *bytes, size_t length);
// Appends up to `cells` cells from answer fields at `fields` (`length` bytes:
// each a 16-bit length and that many bytes), as RESDATA_Fill_Binary would
// one by one, without going through a call per cell. *used: the bytes of the
// fields stored. Returns 1 when all were stored; 0 when the bytes ended
// within a field (`failed` untouched) or a cell was refused (`failed` and
// `failure` set as RESDATA_Fill_Binary sets them).
int RESDATA_Fill_Fields(RESDATA *data, const unsigned char *fields, size_t length, uint64_t cells,
                       size_t *used);
// Appends the next cell of a data set filled with texts. Returns 1 or 0 (a
// refused fill as RESDATA_Fill_Binary's).
int RESDATA_Fill(RESDATA *data, const char *text);
// Sets the text of a cell of a text data set; the row after the last one
// appends a row of empty texts. Returns 1 or 0 (also for a refused fill).
int RESDATA_XY_Fill(RESDATA *data, int row, int column, const char *text);
// Replaces a cell of a binary data set (as RESDATA_Fill_Binary, but a
// CHARACTER value without zero byte is refused). Returns 1 or 0.
int RESDATA_XY_Fill_Binary(RESDATA *data, int row, int column, const void *bytes, size_t length);
// Removes a complete row; later rows move up. Returns 1 or 0.
int RESDATA_DelRow(RESDATA *data, int row);
// Stores a count answer's number as the row count (no cells).
void RESDATA_Set_Count(RESDATA *data, int count);
// Frees every row, cell and cached text; the column headers stay. For a
// result that was refused part-way, so that its memory comes back at once.
void RESDATA_Drop_Rows(RESDATA *data);

// Bytes held for the cells, the row table and the column headers; and bytes
// held by the text cache.
size_t RESDATA_Memory(const RESDATA *data);
size_t RESDATA_Text_Memory(const RESDATA *data);
