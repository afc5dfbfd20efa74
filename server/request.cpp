// Decoding of binary requests into statement trees for tavrind.
#include "server/request.h"

#include "server/answer.h"
#include "db/wire/wire.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace tavrind {

namespace {

// Thrown inside the decoder; request_decode turns it into the error text.
struct DecodeError {
  std::string text;
};

std::string byte_text(unsigned char c) {
  char buf[16];
  if (c >= 33 && c <= 126)
    snprintf(buf, sizeof buf, "'%c'", c);
  else
    snprintf(buf, sizeof buf, "0x%02X", c);
  return buf;
}

// The comparison of an operator code, as Expr::op names it.
char compare_op(unsigned char code) {
  switch (code) {
  case DBOP_LT:
    return '<';
  case DBOP_GT:
    return '>';
  case DBOP_LE:
    return 'l';
  case DBOP_GE:
    return 'g';
  case DBOP_EQ:
    return '=';
  case DBOP_NE:
    return '!';
  default: // DBOP_LIKE
    return 'L';
  }
}

// A name as the client's tokenizer makes it: a letter, then letters, digits
// and '_', at most 31 characters. Returns it upper-cased; refuses others.
std::string checked_name(std::string s) {
  bool ok = !s.empty() && s.size() <= REQ_MAX_NAME;
  for (size_t i = 0; ok && i < s.size(); ++i) {
    char c = s[i];
    bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    ok = letter || (i > 0 && ((c >= '0' && c <= '9') || c == '_'));
  }
  if (!ok) throw DecodeError{answer_errtext(Err::NAME_UNGUELTIG, {s})};
  for (char &c : s)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return s;
}

// Bounds-checked reading of the request's fields.
class Reader {
public:
  Reader(const unsigned char *p, size_t n) : p_(p), n_(n) {}

  size_t pos() const { return pos_; }
  bool at_end() const { return pos_ >= n_; }
  size_t left() const { return n_ - pos_; }

  // The next byte without consuming it; 0 at the end.
  unsigned char peek() const { return pos_ < n_ ? p_[pos_] : 0; }
  // The byte k places after the next one; 0 beyond the end.
  unsigned char peek_at(size_t k) const { return pos_ + k < n_ ? p_[pos_ + k] : 0; }
  bool next_is(unsigned char c) const { return pos_ < n_ && p_[pos_] == c; }

  unsigned char byte(const char *what) {
    need(1, what);
    return p_[pos_++];
  }

  // Consumes c or fails naming what was expected.
  void expect(unsigned char c, const char *what) {
    unsigned char got = byte(what);
    if (got != c) wrong(what, got, pos_ - 1);
  }

  [[noreturn]] void wrong(const char *what, unsigned char got, size_t at) {
    throw DecodeError{
        answer_errtext(Err::ANFRAGE_FEHLERHAFT, {std::to_string(at), what, byte_text(got)})};
  }

  void need(size_t k, const char *what) {
    if (k > left()) throw DecodeError{answer_errtext(Err::ANFRAGE_UNVOLLSTAENDIG, {what})};
  }

  uint16_t u16(const char *what) {
    need(2, what);
    uint16_t v = static_cast<uint16_t>(p_[pos_] | (p_[pos_ + 1] << 8));
    pos_ += 2;
    return v;
  }

  int32_t i32(const char *what) {
    need(4, what);
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(p_[pos_ + i]) << (8 * i);
    pos_ += 4;
    return static_cast<int32_t>(v);
  }

  double f64(const char *what) {
    need(8, what);
    double d;
    memcpy(&d, p_ + pos_, 8);
    pos_ += 8;
    return d;
  }

  // A tagged string: tag, 16-bit length counting the zero byte, the text and
  // its zero byte. The text may not contain further zero bytes.
  std::string tagged_string(unsigned char tag, const char *what) {
    expect(tag, what);
    size_t at = pos_;
    uint16_t n = u16(what);
    if (n < 1)
      throw DecodeError{
          answer_errtext(Err::ANFRAGE_FEHLERHAFT, {std::to_string(at), what, "Länge 0"})};
    need(n, what);
    const unsigned char *s = p_ + pos_;
    if (s[n - 1] != 0 || memchr(s, 0, n - 1) != nullptr)
      throw DecodeError{answer_errtext(Err::ANFRAGE_FEHLERHAFT,
                                       {std::to_string(at), what, "Text ohne Endbyte 0"})};
    pos_ += n;
    return std::string(reinterpret_cast<const char *>(s), n - 1);
  }

  // A name as the client's tokenizer makes it (see checked_name).
  std::string name(const char *what) { return checked_name(tagged_string(DBTAG_NAME, what)); }

  // A literal: DBTAG_INT 32-bit integer, DBTAG_FLOAT double, DBTAG_STRING tagged
  // string.
  Literal literal(const char *what) {
    Literal l;
    unsigned char t = peek();
    if (t == DBTAG_INT) {
      ++pos_;
      l.kind = Literal::INT;
      l.i = i32(what);
    } else if (t == DBTAG_FLOAT) {
      ++pos_;
      l.kind = Literal::FLOAT;
      l.f = f64(what);
    } else if (t == DBTAG_STRING) {
      l.kind = Literal::STRING;
      l.s = tagged_string(DBTAG_STRING, what);
    } else {
      need(1, what);
      wrong(what, t, pos_);
    }
    return l;
  }

  static bool is_literal_tag(unsigned char t) {
    return t == DBTAG_INT || t == DBTAG_FLOAT || t == DBTAG_STRING;
  }

private:
  const unsigned char *p_;
  size_t n_;
  size_t pos_ = 0;
};

class Decoder {
public:
  explicit Decoder(Reader &r) : r_(r) {}

  // The select body: list, FROM, tables, [WHERE expr WHERE], [ORDER BY order
  // ORDER BY] (the markers of wire.h).
  std::unique_ptr<Select> select_body(int depth) {
    if (depth > REQ_MAX_SUBQUERY_DEPTH)
      throw DecodeError{answer_errtext(
          Err::ANFRAGE_ZU_TIEF,
          {"Unterabfragen, höchstens " + std::to_string(REQ_MAX_SUBQUERY_DEPTH) + " Ebenen"})};
    auto s = std::make_unique<Select>();
    if (r_.next_is(DBMARK_DISTINCT)) {
      r_.byte("DISTINCT");
      s->distinct = true;
    }
    while (!r_.next_is(DBMARK_FROM)) {
      SelectItem it;
      unsigned char t = r_.peek();
      r_.need(1, "FROM");
      if (t == DBMARK_STAR) {
        r_.byte("*");
        it.kind = SelectItem::All;
      } else if (t == DBMARK_COUNT) {
        r_.byte("COUNT");
        it.kind = SelectItem::Count;
      } else if (t == DBMARK_MIN || t == DBMARK_MAX) {
        r_.byte("MIN/MAX");
        it.kind = t == DBMARK_MIN ? SelectItem::Min : SelectItem::Max;
        if (r_.next_is(DBTAG_STRING)) it.attr.qualifier = qualifier();
        it.attr.name = r_.name("<Attributname>");
      } else if (t == DBTAG_NAME) {
        it.attr.name = r_.name("<Attributname>");
      } else if (t == DBTAG_STRING) {
        it.attr.qualifier = qualifier();
        if (r_.next_is(DBMARK_STAR)) {
          r_.byte("*");
          it.kind = SelectItem::TableAll;
        } else {
          it.attr.name = r_.name("<Attributname> oder '*'");
        }
      } else {
        r_.wrong("Element der SELECT-Liste oder FROM", t, r_.pos());
      }
      s->items.push_back(std::move(it));
    }
    if (s->items.empty()) r_.wrong("Element der SELECT-Liste", DBMARK_FROM, r_.pos());
    r_.expect(DBMARK_FROM, "FROM");
    do {
      TableRef tr;
      tr.name = r_.name("<Tabellenname>");
      if (r_.next_is(DBTAG_STRING)) tr.alias = qualifier();
      s->from.push_back(std::move(tr));
    } while (r_.next_is(DBTAG_NAME));
    // A subquery that stands alone as the last element of the enclosing
    // WHERE is followed by that WHERE's closing marker; an opening one is always
    // followed by the operand an expression starts with.
    unsigned char after = r_.peek_at(1);
    bool opens = after == DBTAG_NAME || after == DBMARK_DOT || Reader::is_literal_tag(after) ||
                 after == DBMARK_SUBSELECT || after == DBMARK_EXISTS;
    if (r_.next_is(DBMARK_WHERE) && (depth == 0 || opens)) {
      r_.byte("WHERE");
      s->where = expression(depth);
    }
    if (r_.next_is(DBMARK_ORDER_BY)) {
      r_.byte("ORDER BY");
      do {
        OrderItem o;
        o.attr = attr_ref("<Attributname> in ORDER BY");
        if (r_.next_is(DBMARK_DESC)) {
          r_.byte("DESC");
          o.desc = true;
        }
        s->order.push_back(std::move(o));
      } while (!r_.next_is(DBMARK_ORDER_BY));
      r_.expect(DBMARK_ORDER_BY, "Ende von ORDER BY");
    }
    return s;
  }

  // A postfix expression up to and including its closing DBMARK_WHERE.
  std::unique_ptr<Expr> expression(int depth) {
    std::vector<std::unique_ptr<Expr>> stack;
    for (;;) {
      size_t at = r_.pos();
      unsigned char t = r_.peek();
      r_.need(1, "Ausdruck oder Ende von WHERE");
      auto node = std::make_unique<Expr>();
      if (t == DBTAG_NAME || t == DBMARK_DOT) {
        node->kind = Expr::Column;
        node->attr = attr_ref("<Attributname>");
        stack.push_back(std::move(node));
        continue;
      }
      if (Reader::is_literal_tag(t)) {
        node->kind = Expr::Value;
        node->lit = r_.literal("<Wert>");
        stack.push_back(std::move(node));
        continue;
      }
      r_.byte("Ausdruck");
      switch (t) {
      case DBMARK_WHERE:
        if (stack.size() != 1)
          throw DecodeError{answer_errtext(Err::ANFRAGE_FEHLERHAFT,
                                           {std::to_string(at), "vollständiger Ausdruck",
                                            std::to_string(stack.size()) + " Teilausdrücke"})};
        return std::move(stack.back());
      case DBMARK_SUBSELECT:
        node->kind = Expr::Subquery;
        node->sub = select_body(depth + 1);
        break;
      case DBMARK_EXISTS:
        node->kind = Expr::Exists;
        node->sub = select_body(depth + 1);
        r_.expect(DBMARK_EXISTS_END, "EXISTS-Ende 'L'");
        break;
      case DBOP_LT:
      case DBOP_GT:
      case DBOP_LE:
      case DBOP_GE:
      case DBOP_EQ:
      case DBOP_NE:
      case DBOP_LIKE: {
        node->kind = Expr::Compare;
        node->op = compare_op(t);
        auto right = pop(stack, at, true);
        auto left = pop(stack, at, false);
        node->args.push_back(std::move(left));
        node->args.push_back(std::move(right));
        break;
      }
      case DBOP_BETWEEN: {
        node->kind = Expr::Between;
        auto hi = pop(stack, at, false);
        auto lo = pop(stack, at, false);
        auto op = pop(stack, at, false);
        node->args.push_back(std::move(op));
        node->args.push_back(std::move(lo));
        node->args.push_back(std::move(hi));
        break;
      }
      case DBOP_IN: {
        auto count = pop(stack, at, false);
        if (count->kind != Expr::Value || count->lit.kind != Literal::INT || count->lit.i < 1 ||
            static_cast<size_t>(count->lit.i) >= stack.size())
          throw DecodeError{
              answer_errtext(Err::ANFRAGE_FEHLERHAFT,
                             {std::to_string(at), "Anzahl der IN-Elemente", "ungültige Anzahl"})};
        size_t n = static_cast<size_t>(count->lit.i);
        std::vector<std::unique_ptr<Expr>> items;
        for (size_t i = 0; i < n; ++i) items.push_back(pop(stack, at, true));
        auto op = pop(stack, at, false);
        node->args.push_back(std::move(op));
        if (n == 1 && items[0]->kind == Expr::Subquery) {
          node->kind = Expr::InSelect;
          node->args.push_back(std::move(items[0]));
        } else {
          node->kind = Expr::InList;
          for (size_t i = n; i-- > 0;) {
            if (items[i]->kind == Expr::Subquery)
              throw DecodeError{
                  answer_errtext(Err::ANFRAGE_FEHLERHAFT,
                                 {std::to_string(at), "Werte der IN-Liste", "Unterabfrage"})};
            node->args.push_back(std::move(items[i]));
          }
        }
        break;
      }
      case DBOP_AND:
      case DBOP_OR: {
        node->kind = t == DBOP_AND ? Expr::And : Expr::Or;
        auto right = pop(stack, at, false);
        auto left = pop(stack, at, false);
        node->args.push_back(std::move(left));
        node->args.push_back(std::move(right));
        break;
      }
      case DBOP_NOT:
        node->kind = Expr::Not;
        node->args.push_back(pop(stack, at, false));
        break;
      default:
        r_.wrong("Ausdruck oder Ende von WHERE", t, at);
      }
      for (auto &a : node->args)
        if (a->depth + 1 > node->depth) node->depth = a->depth + 1;
      if (node->depth > REQ_MAX_EXPR_DEPTH)
        // An OR or AND of many terms nests one level per term: the message
        // names the limit so that the user knows to shorten the condition.
        throw DecodeError{answer_errtext(
            Err::ANFRAGE_ZU_TIEF,
            {"Ausdruck, höchstens " + std::to_string(REQ_MAX_EXPR_DEPTH) + " Ebenen"})};
      stack.push_back(std::move(node));
    }
  }

  // "T" written as a tagged string DBTAG_STRING (select list and aliases).
  std::string qualifier() {
    return checked_name(r_.tagged_string(DBTAG_STRING, "<Tabellenname oder Alias>"));
  }

  // "A" as a name, or "T.A" as DBMARK_DOT name name.
  AttrRef attr_ref(const char *what) {
    AttrRef a;
    if (r_.next_is(DBMARK_DOT)) {
      r_.byte("DOT");
      a.qualifier = r_.name("<Tabellenname oder Alias>");
    }
    a.name = r_.name(what);
    return a;
  }

private:
  // Takes the top of the postfix stack. A subquery is allowed only where
  // subquery_ok says so (right side of comparisons and IN).
  std::unique_ptr<Expr> pop(std::vector<std::unique_ptr<Expr>> &stack, size_t at,
                            bool subquery_ok) {
    if (stack.empty())
      throw DecodeError{answer_errtext(Err::ANFRAGE_FEHLERHAFT,
                                       {std::to_string(at), "Operand", "leerer Stapel"})};
    auto e = std::move(stack.back());
    stack.pop_back();
    if (e->kind == Expr::Subquery && !subquery_ok)
      throw DecodeError{
          answer_errtext(Err::ANFRAGE_FEHLERHAFT, {std::to_string(at), "Operand", "Unterabfrage"})};
    return e;
  }

  Reader &r_;
};

} // namespace

namespace {

// CREATE TABLE: per attribute name, type byte, [int n], [NOT NULL]; then END.
void decode_create_table(Reader &r, Request &q) {
  q.name = r.name("<Tabellenname>");
  while (!r.next_is(DBMARK_END)) {
    ColumnDef c;
    c.name = r.name("<Attributname> oder Ende der Attributliste");
    size_t at = r.pos();
    unsigned char code = r.byte("Datentyp");
    if (!type_code_valid(code)) r.wrong("Datentyp", code, at);
    int32_t length = 0;
    if (code == DBTYPE_CHARACTER || code == DBTYPE_BINARY) {
      r.expect(DBTAG_INT, "Länge des Datentyps");
      length = r.i32("Länge des Datentyps");
      int32_t max = code == DBTYPE_CHARACTER ? TYPE_MAX_CHARACTER : TYPE_MAX_BINARY;
      if (length < 1 || length > max)
        throw DecodeError{answer_errtext(Err::LAENGE_UNGUELTIG, {c.name, std::to_string(length),
                                                                 "1 bis " + std::to_string(max)})};
    }
    c.type = type_make(code, length);
    if (r.next_is(DBMARK_NULL)) {
      r.byte("NOT NULL");
      c.not_null = true;
    }
    q.columns.push_back(std::move(c));
  }
  r.expect(DBMARK_END, "Ende der Anweisung");
  if (q.columns.empty()) r.wrong("<Attributname>", DBMARK_END, r.pos() - 1);
}

void decode_show(Reader &r, Request &q) {
  size_t at = r.pos();
  unsigned char t = r.byte("DATABASES, TABLES, INDICES, TABLE oder INDEX");
  switch (t) {
  case DBMARK_DATABASES:
    q.show = Request::Databases;
    break;
  case DBMARK_TABLES:
    q.show = Request::Tables;
    break;
  case DBMARK_INDICES:
    q.show = Request::Indices;
    break;
  case DBMARK_INDEX:
    q.show = Request::Index;
    q.name = r.name("<Indexname>");
    break;
  case DBMARK_TABLE:
    if (r.next_is(DBMARK_INDICES)) {
      r.byte("INDICES");
      q.show = Request::IndicesOnTable;
    } else {
      q.show = Request::Table;
    }
    q.table = r.name("<Tabellenname>");
    break;
  default:
    r.wrong("DATABASES, TABLES, INDICES, TABLE oder INDEX", t, at);
  }
}

void decode(Reader &r, Request &q) {
  if (r.at_end()) throw DecodeError{answer_errtext(Err::ANFRAGE_LEER, {})};
  unsigned char cmd = r.byte("Anfragecode");
  Decoder d(r);
  switch (cmd) {
  case DBREQ_OPEN:
    q.kind = ReqKind::Open;
    q.name = r.name("<Datenbankname>");
    break;
  case DBREQ_CLOSE:
    q.kind = ReqKind::Close;
    break;
  case DBREQ_CREATE_DATABASE:
    q.kind = ReqKind::Create;
    q.name = r.name("<Datenbankname>");
    break;
  case DBREQ_DROP_DATABASE:
    q.kind = ReqKind::Drop;
    if (!r.at_end()) {
      q.has_name = true;
      q.name = r.name("<Datenbankname>");
    }
    break;
  case DBREQ_MESSAGE:
    q.kind = ReqKind::Message;
    q.text = r.tagged_string(DBTAG_MESSAGE, "<Meldungstext>");
    break;
  case DBREQ_NOTICE:
    q.kind = ReqKind::Notice;
    break;
  case DBREQ_LOCKS:
    q.kind = ReqKind::Locks;
    break;
  case DBREQ_CREATE_TABLE:
    q.kind = ReqKind::CreateTable;
    decode_create_table(r, q);
    break;
  case DBREQ_DROP_TABLE:
    q.kind = ReqKind::DropTable;
    q.name = r.name("<Tabellenname>");
    break;
  case DBREQ_CREATE_INDEX:
  case DBREQ_CREATE_UNIQUE_INDEX:
    q.kind = ReqKind::CreateIndex;
    q.unique = cmd == DBREQ_CREATE_UNIQUE_INDEX;
    // The unique form is its code followed by the whole CREATE INDEX request.
    if (q.unique) r.expect(DBREQ_CREATE_INDEX, "CREATE INDEX");
    q.name = r.name("<Indexname>");
    q.table = r.name("<Tabellenname>");
    do q.attrs.push_back(r.name("<Attributname>"));
    while (!r.next_is(DBMARK_END));
    r.expect(DBMARK_END, "Ende der Anweisung");
    break;
  case DBREQ_DROP_INDEX:
    q.kind = ReqKind::DropIndex;
    q.name = r.name("<Indexname>");
    break;
  case DBREQ_SELECT:
    q.kind = ReqKind::Select;
    q.select = d.select_body(0);
    r.expect(DBMARK_END, "Ende der Anweisung");
    break;
  case DBREQ_DELETE:
    q.kind = ReqKind::Delete;
    q.name = r.name("<Tabellenname>");
    if (r.next_is(DBMARK_WHERE)) {
      r.byte("WHERE");
      q.where = d.expression(0);
    }
    r.expect(DBMARK_END, "Ende der Anweisung");
    break;
  case DBREQ_INSERT:
    q.kind = ReqKind::Insert;
    q.name = r.name("<Tabellenname>");
    while (r.next_is(DBTAG_NAME)) q.attrs.push_back(r.name("<Attributname>"));
    r.expect(DBMARK_VALUES, "VALUES");
    while (!r.next_is(DBMARK_END)) q.values.push_back(r.literal("<Wert> oder Ende der Werteliste"));
    r.expect(DBMARK_END, "Ende der Anweisung");
    break;
  case DBREQ_UPDATE:
    q.kind = ReqKind::Update;
    q.name = r.name("<Tabellenname>");
    while (r.next_is(DBTAG_NAME)) {
      Assignment a;
      a.attr = r.name("<Attributname>");
      a.value = r.literal("<Wert>");
      q.assigns.push_back(std::move(a));
    }
    if (q.assigns.empty()) {
      r.need(1, "<Attributname>");
      r.wrong("<Attributname>", r.peek(), r.pos());
    }
    if (r.next_is(DBMARK_WHERE)) {
      r.byte("WHERE");
      q.where = d.expression(0);
    }
    r.expect(DBMARK_END, "Ende der Anweisung");
    break;
  case DBREQ_BEGIN:
    q.kind = ReqKind::Begin;
    break;
  case DBREQ_COMMIT:
    q.kind = ReqKind::Commit;
    break;
  case DBREQ_ABORT:
    q.kind = ReqKind::Abort;
    break;
  case DBREQ_DECLARE:
    q.kind = ReqKind::Declare;
    q.name = r.name("<Cursorname>");
    q.select = d.select_body(0);
    r.expect(DBMARK_END, "Ende der Anweisung");
    break;
  case DBREQ_FETCH:
    q.kind = ReqKind::Fetch;
    if (r.next_is(DBMARK_ALL)) {
      r.byte("ALL");
      q.all = true;
    }
    q.name = r.name("<Cursorname>");
    break;
  case DBREQ_CLOSE_CURSOR:
    q.kind = ReqKind::CloseCursor;
    q.name = r.name("<Cursorname>");
    break;
  case DBREQ_SET_STATIC:
    q.kind = ReqKind::SetStatic;
    q.name = r.name("<Tabellenname>");
    break;
  case DBREQ_SAVE:
    q.kind = ReqKind::Save;
    break;
  case DBREQ_SHOW:
    q.kind = ReqKind::Show;
    decode_show(r, q);
    break;
  case DBREQ_MAX:
    q.kind = ReqKind::Max;
    if (r.next_is(DBMARK_NULL)) {
      r.byte("NULL");
      q.max_none = true;
    } else {
      r.expect(DBTAG_INT, "<Höchstzahl>");
      q.max = r.i32("<Höchstzahl>");
      if (q.max < 0) throw DecodeError{answer_errtext(Err::MAX_NEGATIV, {std::to_string(q.max)})};
    }
    break;
  case DBREQ_SET_SECURE:
    q.kind = ReqKind::SetSecure;
    q.name = r.name("<Tabellenname>");
    break;
  case DBREQ_STOP:
    q.kind = ReqKind::Stop;
    break;
  case DBREQ_SET_DATABASE:
    q.kind = ReqKind::SetDatabase;
    q.name = r.name("<Datenbankname>");
    break;
  default:
    throw DecodeError{answer_errtext(Err::ANFRAGECODE_UNBEKANNT, {byte_text(cmd)})};
  }
  // The one-way requests (close, notice, message text) get no answer, so
  // their trailing bytes are ignored rather than answered.
  if (!r.at_end() && q.kind != ReqKind::Close && q.kind != ReqKind::Notice &&
      q.kind != ReqKind::Message)
    throw DecodeError{answer_errtext(Err::ANFRAGE_UEBERLANG, {std::to_string(r.left())})};
}

} // namespace

int request_decode(const unsigned char *req, size_t len, Request &out, std::string &err) {
  Reader r(req, req ? len : 0);
  try {
    decode(r, out);
  } catch (const DecodeError &e) {
    err = e.text;
    return 0;
  }
  return 1;
}

} // namespace tavrind
