// Decoding of binary requests into statement trees for tavrind.
//
// A request is one message of a client: a request code (db/wire/wire.h, the
// vocabulary shared with the client) followed by its fields: a database name,
// a message text, or a statement in the encoder's byte form (names and values
// as tagged fields, expressions in postfix order). The decoder checks every length before it reads,
// accepts only names that the client's tokenizer can produce, builds the tree and refuses trailing
// bytes. What a statement means (resolving names against the database, types, executing) is the
// executor's business.
#pragma once

#include "server/types.h"
#include "db/wire/wire.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavrind {

// Kinds of requests; the comments give the request code (db/wire/wire.h).
enum class ReqKind {
  Open,        // DBREQ_OPEN name
  Close,       // DBREQ_CLOSE
  Create,      // DBREQ_CREATE_DATABASE name: also the create-and-open request
  Drop,        // DBREQ_DROP_DATABASE [name]: the named database or the open one
  Message,     // DBREQ_MESSAGE text
  Notice,      // DBREQ_NOTICE
  CreateTable, // DBREQ_CREATE_TABLE
  DropTable,   // DBREQ_DROP_TABLE
  CreateIndex, // DBREQ_CREATE_INDEX, DBREQ_CREATE_UNIQUE_INDEX
  DropIndex,   // DBREQ_DROP_INDEX
  Select,      // DBREQ_SELECT
  Delete,      // DBREQ_DELETE
  Insert,      // DBREQ_INSERT
  Update,      // DBREQ_UPDATE
  Begin,       // DBREQ_BEGIN
  Commit,      // DBREQ_COMMIT
  Abort,       // DBREQ_ABORT
  Declare,     // DBREQ_DECLARE
  Fetch,       // DBREQ_FETCH
  CloseCursor, // DBREQ_CLOSE_CURSOR
  SetStatic,   // DBREQ_SET_STATIC
  Save,        // DBREQ_SAVE
  Show,        // DBREQ_SHOW
  Locks,       // DBREQ_LOCKS
  Max,         // DBREQ_MAX
  SetSecure,   // DBREQ_SET_SECURE
  Stop,        // DBREQ_STOP
  SetDatabase, // DBREQ_SET_DATABASE
};

// A possibly qualified attribute: "A" or "T.A".
struct AttrRef {
  std::string qualifier; // table name or alias; empty when unqualified
  std::string name;
};

struct Select;

// One node of a condition.
struct Expr {
  enum Kind {
    Column,   // attr
    Value,    // literal
    Subquery, // (SELECT ...) as a value: right side of a comparison or of IN
    Compare,  // op: '<' '>' 'l' (<=) 'g' (>=) '=' '!' (<>) 'L' (LIKE)
    Between,  // args: operand, low, high
    InList,   // args: operand, items...
    InSelect, // args: operand, Subquery
    Exists,   // sub
    And,
    Or,
    Not,
  } kind = Value;
  char op = 0;
  AttrRef attr;
  Literal lit;
  std::unique_ptr<Select> sub;
  std::vector<std::unique_ptr<Expr>> args;
  int depth = 1; // height of the tree below and including this node
};

struct SelectItem {
  enum Kind { All, TableAll, Column, Count, Min, Max } kind = Column;
  AttrRef attr; // qualifier for TableAll; attribute for Column, Min, Max
};

struct TableRef {
  std::string name;
  std::string alias; // empty without alias
};

struct OrderItem {
  AttrRef attr;
  bool desc = false;
};

struct Select {
  bool distinct = false;
  std::vector<SelectItem> items;
  std::vector<TableRef> from;
  std::unique_ptr<Expr> where;
  std::vector<OrderItem> order;
};

struct ColumnDef {
  std::string name;
  ColType type;
  bool not_null = false;
};

struct Assignment {
  std::string attr;
  Literal value;
};

// A decoded request. Which fields are used depends on kind.
struct Request {
  ReqKind kind = ReqKind::Notice;
  std::string name;                // database, table, index or cursor name
  std::string table;               // CREATE INDEX: the table; SHOW INDICES ON TABLE / SHOW TABLE
  bool unique = false;             // CREATE UNIQUE INDEX
  bool all = false;                // FETCH ALL IN
  bool has_name = false;           // DBREQ_DROP_DATABASE with a database name
  std::vector<ColumnDef> columns;  // CREATE TABLE
  std::vector<std::string> attrs;  // CREATE INDEX, INSERT attribute list
  std::vector<Literal> values;     // INSERT
  std::vector<Assignment> assigns; // UPDATE
  std::unique_ptr<Expr> where;     // UPDATE, DELETE
  std::unique_ptr<Select> select;  // SELECT, DECLARE
  enum ShowWhat { Databases, Tables, Indices, IndicesOnTable, Table, Index } show = Databases;
  bool max_none = false; // MAX without a number
  int32_t max = 0;       // MAX n
  std::string text;      // DBREQ_MESSAGE: the message text
};

// Limits that keep hostile requests from exhausting the server.
constexpr int REQ_MAX_SUBQUERY_DEPTH = 8;
constexpr int REQ_MAX_EXPR_DEPTH = 100;
constexpr size_t REQ_MAX_NAME = 31;

// Decodes len bytes at req into out. Returns 1 on success; 0 with err set to
// a text that says what is wrong and where (out is then partly filled and must
// not be executed).
int request_decode(const unsigned char *req, size_t len, Request &out, std::string &err);

} // namespace tavrind
