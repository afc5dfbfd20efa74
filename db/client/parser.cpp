// The statement parser and encoder (see parser.h). A recursive-descent parser
// with one token of look-ahead; every rule writes its bytes to the request
// buffer while it reads, so operators land after their operands (postfix)
// without building a tree. Each rule returns false after it has written the
// one message of the failure; callers return at once.
#include "db/client/parser.h"

#include <cstdio>
#include <cstring>

#include "db/client/reqbuf.h"
#include "db/client/tokenizer.h"
#include "db/wire/wire.h"

namespace {

// The bytes of a request are the wire codes of db/wire/wire.h. Where the
// encoder writes the code of the current token itself (types, MIN/MAX,
// comparisons, SHOW's object), that token's code must be the wire's.
constexpr bool same(int token, int wire) { return token == wire; }
static_assert(same(DBTOK_CHARACTER, DBTYPE_CHARACTER) && same(DBTOK_SMALLINT, DBTYPE_SMALLINT) &&
              same(DBTOK_INTEGER, DBTYPE_INTEGER) && same(DBTOK_FLOATTYPE, DBTYPE_FLOAT) &&
              same(DBTOK_DATE, DBTYPE_DATE) && same(DBTOK_TIME, DBTYPE_TIME) &&
              same(DBTOK_TIMESTAMP, DBTYPE_TIMESTAMP) && same(DBTOK_BINARY, DBTYPE_BINARY));
static_assert(same(DBTOK_MIN, DBMARK_MIN) && same(DBTOK_MAX, DBMARK_MAX));
static_assert(same(DBTOK_LT, DBOP_LT) && same(DBTOK_GT, DBOP_GT) && same(DBTOK_LE, DBOP_LE) &&
              same(DBTOK_GE, DBOP_GE) && same(DBTOK_EQ, DBOP_EQ) && same(DBTOK_NE, DBOP_NE) &&
              same(DBTOK_LIKE, DBOP_LIKE));
static_assert(same(DBTOK_DATABASES, DBMARK_DATABASES) && same(DBTOK_TABLES, DBMARK_TABLES));

// A short copy of an identifier that is written only once the next token
// shows what it is (a qualifier, a table name before STATIC/SECURE).
struct Name {
  char text[DB_NAME_MAX + 1];
};

struct Parser {
  DBtokenizer tk;
  char *msg = nullptr;
  int cur = DBTOK_UNKNOWN; // the current (look-ahead) token

  // Reads the next token into cur. At the end of the text: "Unexpected end
  // of query (expected <what>)"; a lexical error leaves the tokenizer's
  // message.
  bool advance(const char *what) {
    int r = DBtoken_next(&tk, msg);
    if (r > 0) {
      cur = tk.code;
      return true;
    }
    if (r == 0) std::snprintf(msg, DB_MSG_SIZE, "Unexpected end of query (expected %s)", what);
    return false;
  }

  // "Syntax error: <expected> expected (found '<current token>')".
  bool found(const char *expected) {
    std::snprintf(msg, DB_MSG_SIZE, "Syntax error: %s expected (found '%s')", expected,
                  DBtoken_name(cur));
    return false;
  }

  // One exact token was required: both are named by the token-name table.
  bool exact(int code) {
    std::snprintf(msg, DB_MSG_SIZE, "Syntax error: %s expected (found %s)", DBtoken_name(code),
                  DBtoken_name(cur));
    return false;
  }

  // Requires the exact token `code` and reads past it.
  bool take(int code, const char *what_next) {
    return cur == code ? advance(what_next) : exact(code);
  }

  // Requires `code`, reporting `expected` otherwise, and reads past it.
  bool take_as(int code, const char *expected, const char *what_next) {
    return cur == code ? advance(what_next) : found(expected);
  }

  void write_name() { DBreq_tag_string(DBTAG_NAME, tk.token); }

  // An identifier written as a name. `expected` null: the exact-token
  // message for an identifier.
  bool name(const char *expected, const char *what_next) {
    if (cur != DBTOK_IDENT) return expected ? found(expected) : exact(DBTOK_IDENT);
    write_name();
    return advance(what_next);
  }

  void keep(Name *n) const { std::memcpy(n->text, tk.token, tk.length + 1); }

  // The statement must stop here: ";" (or END).
  bool finish() { return cur == DBTOK_END || found("end of SQL-command"); }

  bool is_literal() const { return cur == DBTOK_INT || cur == DBTOK_FLOAT || cur == DBTOK_STRING; }

  // Writes the current literal as its tagged value (does not advance).
  void write_literal() {
    if (cur == DBTOK_INT)
      DBreq_tag_int(DBTAG_INT, tk.ival);
    else if (cur == DBTOK_FLOAT)
      DBreq_tag_double(DBTAG_FLOAT, tk.fval);
    else
      DBreq_tag_string(DBTAG_STRING, tk.token);
  }

  // A literal value, reporting `expected` otherwise; reads past it.
  bool literal(const char *expected, const char *what_next) {
    if (!is_literal()) return found(expected);
    write_literal();
    return advance(what_next);
  }

  bool statement();
  bool create_table();
  bool create_index(unsigned char first);
  bool select_body();
  bool select_item();
  bool order_by();
  bool where_clause();
  bool expression();
  bool and_term();
  bool element();
  bool primary();
  bool operand();
  bool subquery(unsigned char marker);
  bool insert();
  bool update();
  bool set();
  bool show();
  bool max();
  bool unknown_command();
};

// CREATE TABLE name ( attr type [ ( n ) ] [NOT NULL] , ... )
bool Parser::create_table() {
  DBreq_byte(DBREQ_CREATE_TABLE);
  if (!advance("table-name") || !name("table-name", "'('")) return false;
  if (!take_as(DBTOK_LPAREN, "'('", "attribute")) return false;
  for (;;) {
    if (!name("attrib-name", "datatype")) return false;
    unsigned char type = static_cast<unsigned char>(cur);
    switch (type) {
    case DBTOK_CHARACTER:
    case DBTOK_SMALLINT:
    case DBTOK_BINARY:
    case DBTOK_INTEGER:
    case DBTOK_FLOATTYPE:
    case DBTOK_DATE:
    case DBTOK_TIME:
    case DBTOK_TIMESTAMP:
      break;
    default:
      return found("datatype");
    }
    DBreq_byte(type);
    if (type == DBTOK_CHARACTER || type == DBTOK_BINARY) {
      // The length is required after these two and read only there.
      if (!advance("'('") || !take_as(DBTOK_LPAREN, "'('", "<integer value>")) return false;
      if (cur != DBTOK_INT) return exact(DBTOK_INT);
      DBreq_tag_int(DBTAG_INT, tk.ival);
      if (!advance("')'") || !take_as(DBTOK_RPAREN, "')'", "')'")) return false;
    } else if (!advance("')'")) {
      return false;
    }
    if (cur == DBTOK_NOT) {
      if (!advance("NULL")) return false;
      if (cur != DBTOK_NULL) return exact(DBTOK_NULL);
      DBreq_byte(DBMARK_NULL);
      if (!advance("')'")) return false;
    }
    if (cur == DBTOK_RPAREN) break;
    if (!take_as(DBTOK_COMMA, "')'", "attribute")) return false;
  }
  DBreq_byte(DBMARK_END);
  return advance("query-end") && finish();
}

// CREATE [UNIQUE] INDEX name ON table ( attr , ... ); the unique form writes
// its own byte before the encoding of the plain form.
bool Parser::create_index(unsigned char first) {
  if (first == DBREQ_CREATE_UNIQUE_INDEX) DBreq_byte(DBREQ_CREATE_UNIQUE_INDEX);
  DBreq_byte(DBREQ_CREATE_INDEX);
  if (!advance(DBtoken_name(DBTOK_IDENT)) || !name(nullptr, "ON")) return false;
  if (!take(DBTOK_ON, "table-name") || !name("table-name", "'('")) return false;
  if (!take_as(DBTOK_LPAREN, "'('", "attribute")) return false;
  for (;;) {
    if (!name("attrib-name", "')'")) return false;
    if (cur == DBTOK_RPAREN) break;
    if (!take_as(DBTOK_COMMA, "')'", "attribute")) return false;
  }
  DBreq_byte(DBMARK_END);
  return advance("query-end") && finish();
}

// One item of a select list; the qualified forms write the qualifier as a
// string value followed by the attribute's name (or "*").
bool Parser::select_item() {
  switch (cur) {
  case DBTOK_STAR:
    DBreq_byte(DBMARK_STAR);
    return advance("FROM");
  case DBTOK_COUNT:
    DBreq_byte(DBMARK_COUNT);
    return advance("'('") && take(DBTOK_LPAREN, "*") && take(DBTOK_STAR, "')'") &&
           take(DBTOK_RPAREN, "FROM");
  case DBTOK_MIN:
  case DBTOK_MAX: {
    DBreq_byte(static_cast<unsigned char>(cur));
    if (!advance("'('") || !take_as(DBTOK_LPAREN, "'('", "attribute")) return false;
    if (cur != DBTOK_IDENT) return found("attrib-name");
    Name first;
    keep(&first);
    if (!advance("')'")) return false;
    if (cur == DBTOK_DOT) {
      if (!advance("attribute")) return false;
      if (cur != DBTOK_IDENT) return found("attrib-name");
      DBreq_tag_string(DBTAG_STRING, first.text);
      write_name();
      if (!advance("')'")) return false;
    } else {
      DBreq_tag_string(DBTAG_NAME, first.text);
    }
    return take_as(DBTOK_RPAREN, "')'", "FROM");
  }
  case DBTOK_IDENT: {
    Name first;
    keep(&first);
    if (!advance("FROM")) return false;
    if (cur != DBTOK_DOT) {
      DBreq_tag_string(DBTAG_NAME, first.text);
      return true;
    }
    if (!advance("attribute")) return false;
    if (cur == DBTOK_STAR) {
      DBreq_tag_string(DBTAG_STRING, first.text);
      DBreq_byte(DBMARK_STAR);
    } else if (cur == DBTOK_IDENT) {
      DBreq_tag_string(DBTAG_STRING, first.text);
      write_name();
    } else {
      return found("attrib-name");
    }
    return advance("FROM");
  }
  default:
    return found("attrib-name");
  }
}

// ORDER BY attr [ASC|DESC] , ... written between two DBMARK_ORDER_BY bytes.
bool Parser::order_by() {
  DBreq_byte(DBMARK_ORDER_BY);
  if (!advance("attribute")) return false;
  for (;;) {
    if (cur != DBTOK_IDENT) return found("attrib-name");
    Name first;
    keep(&first);
    if (!advance("query-end")) return false;
    if (cur == DBTOK_DOT) {
      if (!advance("attribute")) return false;
      if (cur != DBTOK_IDENT) return found("attrib-name");
      DBreq_byte(DBMARK_DOT);
      DBreq_tag_string(DBTAG_NAME, first.text);
      write_name();
      if (!advance("query-end")) return false;
    } else {
      DBreq_tag_string(DBTAG_NAME, first.text);
    }
    if (cur == DBTOK_ASC) {
      if (!advance("query-end")) return false;
    } else if (cur == DBTOK_DESC) {
      DBreq_byte(DBMARK_DESC);
      if (!advance("query-end")) return false;
    }
    if (cur != DBTOK_COMMA) break;
    if (!advance("attribute")) return false;
  }
  DBreq_byte(DBMARK_ORDER_BY);
  return true;
}

// WHERE expression, written between two DBMARK_WHERE bytes; cur is WHERE.
bool Parser::where_clause() {
  DBreq_byte(DBMARK_WHERE);
  if (!advance("expression") || !expression()) return false;
  DBreq_byte(DBMARK_WHERE);
  return true;
}

// The part of a SELECT after the keyword: [DISTINCT] list FROM tables
// [WHERE expression] [ORDER BY items]. Stops at the first token that does
// not continue it.
bool Parser::select_body() {
  if (cur == DBTOK_DISTINCT) {
    DBreq_byte(DBMARK_DISTINCT);
    if (!advance("attribute")) return false;
  }
  for (;;) {
    if (!select_item()) return false;
    if (cur != DBTOK_COMMA) break;
    if (!advance("attribute")) return false;
  }
  if (cur != DBTOK_FROM) return found("FROM");
  DBreq_byte(DBMARK_FROM);
  if (!advance("table-name")) return false;
  for (;;) {
    if (!name("table-name", "WHERE")) return false;
    if (cur == DBTOK_IDENT) { // alias
      DBreq_tag_string(DBTAG_STRING, tk.token);
      if (!advance("WHERE")) return false;
    }
    if (cur != DBTOK_COMMA) break;
    if (!advance("table-name")) return false;
  }
  if (cur == DBTOK_WHERE && !where_clause()) return false;
  if (cur == DBTOK_ORDER_BY && !order_by()) return false;
  return true;
}

// expression := and-term { OR and-term }
bool Parser::expression() {
  if (!and_term()) return false;
  while (cur == DBTOK_OR) {
    if (!advance("element") || !and_term()) return false;
    DBreq_byte(DBOP_OR);
  }
  return true;
}

// and-term := element { AND element }
bool Parser::and_term() {
  if (!element()) return false;
  while (cur == DBTOK_AND) {
    if (!advance("element") || !element()) return false;
    DBreq_byte(DBOP_AND);
  }
  return true;
}

// element := [NOT] primary
bool Parser::element() {
  if (cur != DBTOK_NOT) return primary();
  if (!advance("element") || !primary()) return false;
  DBreq_byte(DBOP_NOT);
  return true;
}

// "( SELECT body )" with cur on SELECT: writes `marker`, then the body;
// reads past the closing parenthesis.
bool Parser::subquery(unsigned char marker) {
  if (cur != DBTOK_SELECT) return exact(DBTOK_SELECT);
  DBreq_byte(marker);
  if (!advance("attribute") || !select_body()) return false;
  if (marker == DBMARK_EXISTS) DBreq_byte(DBMARK_EXISTS_END);
  return take_as(DBTOK_RPAREN, "')'", "query-end");
}

// attr, t.attr or a literal; reads past it.
bool Parser::operand() {
  if (is_literal()) {
    write_literal();
    return advance("query-end");
  }
  if (cur != DBTOK_IDENT) return found("expr-value");
  Name first;
  keep(&first);
  if (!advance("query-end")) return false;
  if (cur != DBTOK_DOT) {
    DBreq_tag_string(DBTAG_NAME, first.text);
    return true;
  }
  if (!advance("attribute")) return false;
  if (cur != DBTOK_IDENT) return found("attrib-name");
  DBreq_byte(DBMARK_DOT);
  DBreq_tag_string(DBTAG_NAME, first.text);
  write_name();
  return advance("query-end");
}

// primary: ( subquery | expression ), EXISTS ( subquery ), or an operand with
// an optional comparison, BETWEEN or IN.
bool Parser::primary() {
  if (cur == DBTOK_LPAREN) {
    if (!advance("expression")) return false;
    if (cur == DBTOK_SELECT) return subquery(DBMARK_SUBSELECT);
    if (!expression()) return false;
    return take_as(DBTOK_RPAREN, "')'", "query-end");
  }
  if (cur == DBTOK_EXISTS) {
    if (!advance("'('") || !take_as(DBTOK_LPAREN, "'('", "SELECT")) return false;
    return subquery(DBMARK_EXISTS);
  }
  if (cur != DBTOK_IDENT && !is_literal()) return found("expr-element");
  if (!operand()) return false;

  switch (cur) {
  case DBTOK_LT:
  case DBTOK_GT:
  case DBTOK_LE:
  case DBTOK_GE:
  case DBTOK_EQ:
  case DBTOK_NE:
  case DBTOK_LIKE: {
    unsigned char op = static_cast<unsigned char>(cur);
    if (!advance("expr-value")) return false;
    if (cur == DBTOK_LPAREN) {
      if (!advance("SELECT") || !subquery(DBMARK_SUBSELECT)) return false;
    } else if (!operand()) {
      return false;
    }
    DBreq_byte(op);
    return true;
  }
  case DBTOK_BETWEEN:
    if (!advance("<value>") || !literal("<value>", "'AND'")) return false;
    if (!take_as(DBTOK_AND, "'AND'", "<value>") || !literal("<value>", "query-end")) return false;
    DBreq_byte(DBOP_BETWEEN);
    return true;
  case DBTOK_IN: {
    if (!advance("'('") || !take_as(DBTOK_LPAREN, "'('", "<value>")) return false;
    int32_t items = 0;
    if (cur == DBTOK_SELECT) {
      DBreq_byte(DBMARK_SUBSELECT);
      if (!advance("attribute") || !select_body()) return false;
      items = 1;
    } else {
      for (;;) {
        if (!literal("<value>", "')'")) return false;
        ++items;
        if (cur != DBTOK_COMMA) break;
        if (!advance("<value>")) return false;
      }
    }
    if (cur != DBTOK_RPAREN) return found("')'");
    DBreq_tag_int(DBTAG_INT, items);
    DBreq_byte(DBOP_IN);
    return advance("query-end");
  }
  default:
    return true;
  }
}

// INSERT INTO table [( attr , ... )] VALUES ( value , ... )
bool Parser::insert() {
  DBreq_byte(DBREQ_INSERT);
  if (!advance("table-name") || !name("table-name", "VALUES")) return false;
  int attributes = -1; // no list: no count check
  if (cur == DBTOK_LPAREN) {
    attributes = 0;
    if (!advance("attribute")) return false;
    for (;;) {
      if (!name("attrib-name", "')'")) return false;
      ++attributes;
      if (cur == DBTOK_RPAREN) break;
      if (!take_as(DBTOK_COMMA, "')'", "attribute")) return false;
    }
    if (!advance("VALUES")) return false;
  }
  if (cur != DBTOK_VALUES) return exact(DBTOK_VALUES);
  DBreq_byte(DBMARK_VALUES);
  if (!advance("'('") || !take_as(DBTOK_LPAREN, "'('", "<value>")) return false;
  int values = 0;
  for (;;) {
    if (!literal("<value>", "')'")) return false;
    ++values;
    if (cur == DBTOK_RPAREN) break;
    if (!take_as(DBTOK_COMMA, "')'", "<value>")) return false;
  }
  if (attributes >= 0 && attributes != values) {
    std::snprintf(msg, DB_MSG_SIZE, "(INSERT) attributes (%d) do not match values (%d)", attributes,
                  values);
    return false;
  }
  DBreq_byte(DBMARK_END);
  return advance("query-end") && finish();
}

// UPDATE table SET attr = value , ... [WHERE expression]
bool Parser::update() {
  DBreq_byte(DBREQ_UPDATE);
  if (!advance("table-name") || !name("table-name", "SET")) return false;
  if (!take(DBTOK_SET, "attribute")) return false;
  for (;;) {
    if (!name("attrib-name", "=") || !take(DBTOK_EQ, "<value>")) return false;
    if (!literal("<value>", "WHERE")) return false;
    if (cur != DBTOK_COMMA) break;
    if (!advance("attribute")) return false;
  }
  if (cur == DBTOK_WHERE && !where_clause()) return false;
  DBreq_byte(DBMARK_END);
  return finish();
}

// SET TABLE name STATIC | SET TABLE name SECURE | SET DATABASE name
bool Parser::set() {
  if (!advance("TABLE")) return false;
  if (cur == DBTOK_DATABASE) {
    DBreq_byte(DBREQ_SET_DATABASE);
    return advance(DBtoken_name(DBTOK_IDENT)) && name(nullptr, "query-end") && finish();
  }
  if (cur != DBTOK_TABLE) return found("TABLE");
  if (!advance("table-name")) return false;
  if (cur != DBTOK_IDENT) return found("table-name");
  Name table;
  keep(&table);
  if (!advance("STATIC")) return false;
  if (cur == DBTOK_STATIC)
    DBreq_byte(DBREQ_SET_STATIC);
  else if (cur == DBTOK_SECURE)
    DBreq_byte(DBREQ_SET_SECURE);
  else
    return found("STATIC");
  DBreq_tag_string(DBTAG_NAME, table.text);
  return advance("query-end") && finish();
}

// SHOW DATABASES | TABLES | INDICES [ON TABLE name] | TABLE name | INDEX name
bool Parser::show() {
  if (!advance("SHOW")) return false;
  switch (cur) {
  case DBTOK_DATABASES:
  case DBTOK_TABLES:
    DBreq_byte(DBREQ_SHOW);
    DBreq_byte(static_cast<unsigned char>(cur));
    return advance("query-end") && finish();
  case DBTOK_INDICES:
    DBreq_byte(DBREQ_SHOW);
    if (!advance("query-end")) return false;
    if (cur != DBTOK_ON) {
      DBreq_byte(DBMARK_INDICES);
      return finish();
    }
    if (!advance("TABLE") || !take_as(DBTOK_TABLE, "TABLE", "table-name")) return false;
    DBreq_byte(DBMARK_TABLE);
    DBreq_byte(DBMARK_INDICES);
    return name("table-name", "query-end") && finish();
  case DBTOK_TABLE:
    DBreq_byte(DBREQ_SHOW);
    DBreq_byte(DBMARK_TABLE);
    return advance("table-name") && name("table-name", "query-end") && finish();
  case DBTOK_INDEX:
    DBreq_byte(DBREQ_SHOW);
    DBreq_byte(DBMARK_INDEX);
    return advance(DBtoken_name(DBTOK_IDENT)) && name(nullptr, "query-end") && finish();
  default:
    return found("SHOW");
  }
}

// MAX n (n >= 0) or MAX alone
bool Parser::max() {
  DBreq_byte(DBREQ_MAX);
  if (!advance("<max-results>")) return false;
  if (cur == DBTOK_END) {
    DBreq_byte(DBMARK_NULL);
    return true;
  }
  if (cur != DBTOK_INT) return found("';'");
  if (tk.ival < 0) return found("MAX: negative result row maximum");
  DBreq_tag_int(DBTAG_INT, tk.ival);
  return advance("query-end") && finish();
}

// "(DBexec) Syntax error: SQL-command <first word> not known".
bool Parser::unknown_command() {
  const char *s = tk.text;
  while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
  int n = 0;
  while (s[n] && s[n] != ' ' && !(s[n] >= '\t' && s[n] <= '\r')) ++n;
  std::snprintf(msg, DB_MSG_SIZE, "(DBexec) Syntax error: SQL-command %.*s not known", n, s);
  return false;
}

bool Parser::statement() {
  if (!advance("SQL-command")) return false;
  switch (cur) {
  case DBTOK_CREATE_DATABASE:
    DBreq_byte(DBREQ_CREATE_DATABASE);
    return advance(DBtoken_name(DBTOK_IDENT)) && name(nullptr, "query-end") && finish();
  case DBTOK_DROP_DATABASE:
    // No name: the server drops the database of the connection.
    DBreq_byte(DBREQ_DROP_DATABASE);
    return advance("query-end") && finish();
  case DBTOK_CREATE_TABLE:
    return create_table();
  case DBTOK_DROP_TABLE:
    DBreq_byte(DBREQ_DROP_TABLE);
    return advance("table-name") && name("table-name", "query-end") && finish();
  case DBTOK_CREATE_INDEX:
    return create_index(DBREQ_CREATE_INDEX);
  case DBTOK_CREATE_UNIQUE_INDEX:
    return create_index(DBREQ_CREATE_UNIQUE_INDEX);
  case DBTOK_DROP_INDEX:
    DBreq_byte(DBREQ_DROP_INDEX);
    return advance(DBtoken_name(DBTOK_IDENT)) && name(nullptr, "query-end") && finish();
  case DBTOK_SELECT:
    DBreq_byte(DBREQ_SELECT);
    if (!advance("attribute") || !select_body()) return false;
    DBreq_byte(DBMARK_END);
    return finish();
  case DBTOK_DELETE_FROM:
    DBreq_byte(DBREQ_DELETE);
    if (!advance("table-name") || !name("table-name", "WHERE")) return false;
    if (cur == DBTOK_WHERE && !where_clause()) return false;
    DBreq_byte(DBMARK_END);
    return finish();
  case DBTOK_INSERT_INTO:
    return insert();
  case DBTOK_UPDATE:
    return update();
  case DBTOK_BEGIN:
    DBreq_byte(DBREQ_BEGIN);
    return advance("query-end") && finish();
  case DBTOK_COMMIT:
    DBreq_byte(DBREQ_COMMIT);
    return advance("query-end") && finish();
  case DBTOK_END:
    // END and an empty statement are the token ";" itself.
    DBreq_byte(DBREQ_COMMIT);
    return true;
  case DBTOK_ABORT:
    DBreq_byte(DBREQ_ABORT);
    return advance("query-end") && finish();
  case DBTOK_DECLARE:
    DBreq_byte(DBREQ_DECLARE);
    if (!advance(DBtoken_name(DBTOK_IDENT)) || !name(nullptr, "CURSOR")) return false;
    if (!take(DBTOK_CURSOR, "FOR") || !take(DBTOK_FOR, "SELECT")) return false;
    if (cur != DBTOK_SELECT) return exact(DBTOK_SELECT);
    if (!advance("attribute") || !select_body()) return false;
    DBreq_byte(DBMARK_END);
    return finish();
  case DBTOK_FETCH:
    DBreq_byte(DBREQ_FETCH);
    if (!advance(DBtoken_name(DBTOK_IDENT))) return false;
    if (cur == DBTOK_ALL) {
      DBreq_byte(DBMARK_ALL);
      if (!advance("IN") || !take(DBTOK_IN, DBtoken_name(DBTOK_IDENT))) return false;
    }
    return name(nullptr, "query-end") && finish();
  case DBTOK_CLOSE:
    DBreq_byte(DBREQ_CLOSE_CURSOR);
    return advance(DBtoken_name(DBTOK_IDENT)) && name(nullptr, "query-end") && finish();
  case DBTOK_SET:
    return set();
  case DBTOK_SAVE:
    DBreq_byte(DBREQ_SAVE);
    return advance("DATABASE") && take(DBTOK_DATABASE, "query-end") && finish();
  case DBTOK_SHOW:
    return show();
  case DBTOK_MAX:
    return max();
  case DBTOK_STOP:
    DBreq_byte(DBREQ_STOP);
    return advance("query-end") && finish();
  default:
    return unknown_command();
  }
}

} // namespace

int DBexec_encode(char *statement, char *message) {
  if (!message) return 0;
  if (!statement) {
    std::snprintf(message, DB_MSG_SIZE, "Unexpected end of query (expected SQL-command)");
    return 0;
  }
  // The parser holds a token buffer of DB_TOKEN_MAX bytes; one per thread
  // keeps it off the stack of deep callers and out of the hot path.
  thread_local Parser p;
  p.msg = message;
  message[0] = '\0';
  DBtoken_begin(&p.tk, statement);
  int ok = p.statement() ? 1 : 0;
  p.tk.text = nullptr;
  return ok;
}
