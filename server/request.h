// Decoding of binary requests into statement trees for tavrind.
//
// A request is one message of a client: a command byte ('1' open, '2' close,
// '3' create and open, '4' drop, '0' message text, 'W' notice) or a statement
// in the encoder's byte form (names and values as tagged fields, expressions
// in postfix order). The decoder checks every length before it reads, accepts
// only names that the client's tokenizer can produce, builds the tree and
// refuses trailing bytes. What a statement means (resolving names against the
// database, types, executing) is the executor's business.
#pragma once

#include "server/types.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Kinds of requests; the comments give the first byte(s).
enum class ReqKind {
  Open,        // '1' name
  Close,       // '2'
  Create,      // '3' name: CREATE DATABASE, also the create-and-open request
  Drop,        // '4' [name]: DROP DATABASE, or the named database
  Message,     // '0' 'b' text
  Notice,      // 'W'
  CreateTable, // '5'
  DropTable,   // '6'
  CreateIndex, // '7', '8' (unique)
  DropIndex,   // '9'
  Select,      // 'C'
  Delete,      // 'G'
  Insert,      // 'E'
  Update,      // 'I'
  Begin,       // 'J'
  Commit,      // 'K'
  Abort,       // 'M'
  Declare,     // 'N'
  Fetch,       // 'O'
  CloseCursor, // 'P'
  SetStatic,   // 'Q'
  Save,        // 'R'
  Show,        // 'S'
  Max,         // 'T'
  SetSecure,   // 'U'
  Stop,        // 'V'
  SetDatabase, // 'X'
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
  bool has_name = false;           // '4' with a database name
  std::vector<ColumnDef> columns;  // CREATE TABLE
  std::vector<std::string> attrs;  // CREATE INDEX, INSERT attribute list
  std::vector<Literal> values;     // INSERT
  std::vector<Assignment> assigns; // UPDATE
  std::unique_ptr<Expr> where;     // UPDATE, DELETE
  std::unique_ptr<Select> select;  // SELECT, DECLARE
  enum ShowWhat { Databases, Tables, Indices, IndicesOnTable, Table, Index } show = Databases;
  bool max_none = false; // MAX without a number
  int32_t max = 0;       // MAX n
  std::string text;      // '0': the message text
};

// Limits that keep hostile requests from exhausting the server.
constexpr int REQ_MAX_SUBQUERY_DEPTH = 8;
constexpr int REQ_MAX_EXPR_DEPTH = 100;
constexpr size_t REQ_MAX_NAME = 31;

// Decodes len bytes at req into out. Returns 1 on success; 0 with err set to
// a text that says what is wrong and where (out is then partly filled and must
// not be executed).
int request_decode(const unsigned char *req, size_t len, Request &out, std::string &err);
