// The SQL tokenizer (see tokenizer.h): white space, string and number
// literals, punctuation, the keyword set chosen by the first letter (with the
// two- and three-word keywords as single tokens) and identifiers.
#include "db/client/tokenizer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// ASCII classes; the process locale (set by Qt to the user's) must not
// change what counts as a letter in a statement.
inline bool is_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
inline bool is_letter(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
inline bool is_word(unsigned char c) { return is_letter(c) || is_digit(c) || c == '_'; }
inline char upper(unsigned char c) {
  return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
}

// Names of the token codes in messages; null entries are unnamed codes.
struct NameTable {
  const char *names[256] = {};
  NameTable() {
    auto set = [this](unsigned char code, const char *name) { names[code] = name; };
    set(DBTOK_IDENT, "<identifier value>");
    set(DBTOK_MESSAGE, "Fehlermeldung");
    set(DBTOK_SHORT, "<smallint value>");
    set(DBTOK_INT, "<integer value>");
    set(DBTOK_FLOAT, "<float value>");
    set(DBTOK_STRING, "<string value>");
    set(DBTOK_RESULT, "<result value>");
    set(DBTOK_BOOL, "<bool value>");
    set(DBTOK_ABORT, "ABORT");
    set(DBTOK_BEGIN, "BEGIN");
    set(DBTOK_COMMIT, "COMMIT");
    set(DBTOK_END, ";");
    set(DBTOK_DECLARE, "DECLARE");
    set(DBTOK_CLOSE, "CLOSE");
    set(DBTOK_CURSOR, "CURSOR");
    set(DBTOK_FOR, "FOR");
    set(DBTOK_FETCH, "FETCH");
    set(DBTOK_ALL, "ALL");
    set(DBTOK_IN, "IN");
    set(DBTOK_SHOW, "SHOW");
    set(DBTOK_DATABASES, "DATABASES");
    set(DBTOK_TABLES, "TABLES");
    set(DBTOK_INDICES, "INDICES");
    set(DBTOK_TABLE, "TABLE");
    set(DBTOK_INDEX, "INDEX");
    set(DBTOK_DATABASE, "DATABASE");
    set(DBTOK_SET, "SET");
    set(DBTOK_STATIC, "STATIC");
    set(DBTOK_SECURE, "SECURE");
    set(DBTOK_SAVE, "SAVE");
    set(DBTOK_MAX, "MAX");
    set(DBTOK_MIN, "MIN");
    set(DBTOK_CREATE_DATABASE, "CREATE DATABASE");
    set(DBTOK_CREATE_TABLE, "CREATE TABLE");
    set(DBTOK_CREATE_INDEX, "CREATE INDEX");
    set(DBTOK_CREATE_UNIQUE_INDEX, "CREATE UNIQUE INDEX");
    set(DBTOK_DROP_DATABASE, "DROP DATABASE");
    set(DBTOK_DROP_TABLE, "DROP TABLE");
    set(DBTOK_DROP_INDEX, "DROP INDEX");
    set(DBTOK_INSERT_INTO, "INSERT INTO");
    set(DBTOK_UPDATE, "UPDATE");
    set(DBTOK_DELETE_FROM, "DELETE FROM");
    set(DBTOK_SELECT, "SELECT");
    set(DBTOK_FROM, "FROM");
    set(DBTOK_WHERE, "WHERE");
    set(DBTOK_ASC, "ASC");
    set(DBTOK_DESC, "DESC");
    set(DBTOK_DISTINCT, "DISTINCT");
    set(DBTOK_COUNT, "COUNT");
    set(DBTOK_VALUES, "VALUES");
    set(DBTOK_AND, "AND");
    set(DBTOK_OR, "OR");
    set(DBTOK_NOT, "NOT");
    set(DBTOK_NULL, "NULL");
    set(DBTOK_EXISTS, "EXISTS");
    set(DBTOK_SELECT_EXISTS, "SELECT EXISTS");
    set(DBTOK_LIKE, "LIKE");
    set(DBTOK_BETWEEN, "BETWEEN");
    set(DBTOK_CHARACTER, "CHARACTER");
    set(DBTOK_SMALLINT, "SMALLINT");
    set(DBTOK_INTEGER, "INTEGER");
    set(DBTOK_FLOATTYPE, "FLOAT");
    set(DBTOK_DATE, "DATE");
    set(DBTOK_TIME, "TIME");
    set(DBTOK_TIMESTAMP, "TIMESTAMP");
    set(DBTOK_LPAREN, "(");
    set(DBTOK_RPAREN, ")");
    set(DBTOK_STAR, "*");
    set(DBTOK_COMMA, "COMMA");
    set(DBTOK_DOT, "DOT");
    set(DBTOK_LT, "<");
    set(DBTOK_GT, ">");
    set(DBTOK_LE, "<=");
    set(DBTOK_GE, ">=");
    set(DBTOK_EQ, "=");
    set(DBTOK_NE, "<>");
  }
};

const NameTable g_names;

// A keyword of one to three words; the later words follow after white space.
struct Keyword {
  const char *word[3];
  unsigned char code;
};

// The keyword set by first letter. Order within a letter does not matter:
// a word matches only when no letter, digit or "_" follows it.
const Keyword kw_a[] = {
    {{"AND"}, DBTOK_AND}, {{"ABORT"}, DBTOK_ABORT}, {{"ALL"}, DBTOK_ALL}, {{"ASC"}, DBTOK_ASC}};
const Keyword kw_b[] = {
    {{"BEGIN"}, DBTOK_BEGIN}, {{"BETWEEN"}, DBTOK_BETWEEN}, {{"BINARY"}, DBTOK_BINARY}};
const Keyword kw_c[] = {{{"CHARACTER"}, DBTOK_CHARACTER},
                        {{"CREATE", "TABLE"}, DBTOK_CREATE_TABLE},
                        {{"CREATE", "INDEX"}, DBTOK_CREATE_INDEX},
                        {{"CREATE", "UNIQUE", "INDEX"}, DBTOK_CREATE_UNIQUE_INDEX},
                        {{"CREATE", "DATABASE"}, DBTOK_CREATE_DATABASE},
                        {{"COUNT"}, DBTOK_COUNT},
                        {{"COMMIT"}, DBTOK_COMMIT},
                        {{"CURSOR"}, DBTOK_CURSOR},
                        {{"CLOSE"}, DBTOK_CLOSE}};
const Keyword kw_d[] = {{{"DATE"}, DBTOK_DATE},
                        {{"DROP", "TABLE"}, DBTOK_DROP_TABLE},
                        {{"DROP", "INDEX"}, DBTOK_DROP_INDEX},
                        {{"DROP", "DATABASE"}, DBTOK_DROP_DATABASE},
                        {{"DELETE", "FROM"}, DBTOK_DELETE_FROM},
                        {{"DECLARE"}, DBTOK_DECLARE},
                        {{"DESC"}, DBTOK_DESC},
                        {{"DATABASE"}, DBTOK_DATABASE},
                        {{"DATABASES"}, DBTOK_DATABASES},
                        {{"DISTINCT"}, DBTOK_DISTINCT}};
const Keyword kw_e[] = {{{"END"}, DBTOK_END}, {{"EXISTS"}, DBTOK_EXISTS}};
const Keyword kw_f[] = {{{"FROM"}, DBTOK_FROM},
                        {{"FLOAT"}, DBTOK_FLOATTYPE},
                        {{"FOR"}, DBTOK_FOR},
                        {{"FETCH"}, DBTOK_FETCH}};
const Keyword kw_i[] = {{{"INSERT", "INTO"}, DBTOK_INSERT_INTO},
                        {{"INTEGER"}, DBTOK_INTEGER},
                        {{"IN"}, DBTOK_IN},
                        {{"INDEX"}, DBTOK_INDEX},
                        {{"INDICES"}, DBTOK_INDICES}};
const Keyword kw_l[] = {{{"LIKE"}, DBTOK_LIKE}};
const Keyword kw_m[] = {{{"MIN"}, DBTOK_MIN}, {{"MAX"}, DBTOK_MAX}};
const Keyword kw_n[] = {{{"NOT"}, DBTOK_NOT}, {{"NULL"}, DBTOK_NULL}};
const Keyword kw_o[] = {{{"ORDER", "BY"}, DBTOK_ORDER_BY}, {{"OR"}, DBTOK_OR}, {{"ON"}, DBTOK_ON}};
const Keyword kw_s[] = {{{"SMALLINT"}, DBTOK_SMALLINT}, {{"SELECT"}, DBTOK_SELECT},
                        {{"SET"}, DBTOK_SET},           {{"STATIC"}, DBTOK_STATIC},
                        {{"SAVE"}, DBTOK_SAVE},         {{"SHOW"}, DBTOK_SHOW},
                        {{"SECURE"}, DBTOK_SECURE},     {{"STOP"}, DBTOK_STOP}};
const Keyword kw_t[] = {{{"TIME"}, DBTOK_TIME},
                        {{"TABLE"}, DBTOK_TABLE},
                        {{"TIMESTAMP"}, DBTOK_TIMESTAMP},
                        {{"TABLES"}, DBTOK_TABLES}};
const Keyword kw_u[] = {{{"UPDATE"}, DBTOK_UPDATE}};
const Keyword kw_v[] = {{{"VALUES"}, DBTOK_VALUES}};
const Keyword kw_w[] = {{{"WHERE"}, DBTOK_WHERE}};

struct KeywordList {
  const Keyword *first = nullptr;
  size_t count = 0;
};

template <size_t N> constexpr KeywordList list(const Keyword (&k)[N]) { return {k, N}; }

// Keyword lists indexed by the upper-case first letter.
KeywordList keywords_for(char first) {
  switch (first) {
  case 'A':
    return list(kw_a);
  case 'B':
    return list(kw_b);
  case 'C':
    return list(kw_c);
  case 'D':
    return list(kw_d);
  case 'E':
    return list(kw_e);
  case 'F':
    return list(kw_f);
  case 'I':
    return list(kw_i);
  case 'L':
    return list(kw_l);
  case 'M':
    return list(kw_m);
  case 'N':
    return list(kw_n);
  case 'O':
    return list(kw_o);
  case 'S':
    return list(kw_s);
  case 'T':
    return list(kw_t);
  case 'U':
    return list(kw_u);
  case 'V':
    return list(kw_v);
  case 'W':
    return list(kw_w);
  default:
    return {};
  }
}

// Compares `word` (upper case) with the text at `at`, ignoring the text's
// case, and requires that no word character follows. Returns the length of
// the match or 0.
size_t match_word(const char *at, const char *word) {
  size_t n = 0;
  for (; word[n]; ++n)
    if (upper(static_cast<unsigned char>(at[n])) != word[n]) return 0;
  return is_word(static_cast<unsigned char>(at[n])) ? 0 : n;
}

// Tries one keyword at text + pos, whose first word is already upper case.
// On a match upper-cases the later words in the text and returns the
// position after the keyword, else 0.
size_t match_keyword(char *text, size_t pos, const Keyword &kw) {
  size_t at = pos;
  for (int w = 0; w < 3 && kw.word[w]; ++w) {
    if (w > 0) {
      size_t gap = at;
      while (is_space(static_cast<unsigned char>(text[gap]))) ++gap;
      if (gap == at) return 0;
      at = gap;
    }
    size_t n = match_word(text + at, kw.word[w]);
    if (n == 0) return 0;
    at += n;
  }
  // Upper-case the later words now that the whole keyword matched.
  for (size_t i = pos; i < at; ++i) text[i] = upper(static_cast<unsigned char>(text[i]));
  return at;
}

void set_text(DBtokenizer *t, const char *from, size_t n) {
  std::memcpy(t->token, from, n);
  t->token[n] = '\0';
  t->length = n;
}

// A string literal starting after its opening quote. Returns 1 or -1.
int read_string(DBtokenizer *t, char *message) {
  const char *s = t->text;
  size_t p = t->pos;
  size_t n = 0;
  for (;;) {
    unsigned char c = static_cast<unsigned char>(s[p]);
    if (c == '\0') break; // the end of the text ends the literal quietly
    if (c == '\'') {
      // Two quotes in a row are one quote of the text, as standard SQL
      // writes it; the backslash form below works as well.
      if (s[p + 1] != '\'') {
        ++p;
        break;
      }
      p += 2;
    } else if (c == '\\') {
      if (s[p + 1] == '\0') {
        t->token[n] = '\0';
        std::snprintf(message, DB_MSG_SIZE, "Syntax error: unexpected end of string (%.*s)",
                      static_cast<int>(DB_MSG_SIZE - 64), t->token);
        return -1;
      }
      c = static_cast<unsigned char>(s[p + 1]);
      p += 2;
    } else {
      ++p;
    }
    t->token[n++] = static_cast<char>(c);
    if (n >= DB_TOKEN_MAX) {
      std::snprintf(message, DB_MSG_SIZE, "Syntax error: string too long (max = %d)",
                    static_cast<int>(DB_TOKEN_MAX));
      return -1;
    }
  }
  t->token[n] = '\0';
  t->length = n;
  t->pos = p;
  t->code = DBTOK_STRING;
  return 1;
}

// A number whose first digit is at t->pos; `negative` when a "-" came before
// it. Returns 1 or -1.
int read_number(DBtokenizer *t, bool negative, char *message) {
  const char *s = t->text;
  size_t start = t->pos;
  size_t p = start;
  bool is_float = false;
  while (is_digit(static_cast<unsigned char>(s[p]))) ++p;
  if (s[p] == '.') {
    is_float = true;
    ++p;
    while (is_digit(static_cast<unsigned char>(s[p]))) ++p;
  }
  if (s[p] == 'e' || s[p] == 'E') {
    size_t q = p + 1;
    if (s[q] == '+' || s[q] == '-') ++q;
    if (!is_digit(static_cast<unsigned char>(s[q]))) {
      // An exponent without digits is no number at all.
      t->pos = q;
      set_text(t, s + start, q - start);
      t->code = DBTOK_UNKNOWN;
      return 1;
    }
    while (is_digit(static_cast<unsigned char>(s[q]))) ++q;
    is_float = true;
    p = q;
  }
  size_t n = p - start;
  if (n + (negative ? 1 : 0) >= DB_TOKEN_MAX) {
    std::snprintf(message, DB_MSG_SIZE, "Syntax error: string too long (max = %d)",
                  static_cast<int>(DB_TOKEN_MAX));
    return -1;
  }
  size_t o = 0;
  if (negative) t->token[o++] = '-';
  std::memcpy(t->token + o, s + start, n);
  t->length = o + n;
  t->token[t->length] = '\0';
  t->pos = p;

  // std::from_chars reads "." whatever the locale.
  double d = 0;
  auto res = std::from_chars(t->token, t->token + t->length, d);
  if (res.ec == std::errc::result_out_of_range) {
    // Beyond the range of a double: overflow gives infinity, underflow zero.
    const char *e = std::strpbrk(t->token, "eE");
    bool underflow = e && e[1] == '-';
    d = underflow ? 0.0 : (negative ? -HUGE_VAL : HUGE_VAL);
    is_float = true;
  }
  t->fval = d;
  if (!is_float && d >= -2147483648.0 && d <= 2147483647.0) {
    t->ival = static_cast<int32_t>(d);
    t->code = DBTOK_INT;
  } else {
    // Integers beyond 32 bits travel as floats.
    t->code = DBTOK_FLOAT;
  }
  return 1;
}

// A word at t->pos (a letter): keyword or identifier. Returns 1 or -1.
int read_word(DBtokenizer *t, char *message) {
  char *s = t->text;
  size_t p = t->pos;
  size_t end = p;
  while (is_letter(static_cast<unsigned char>(s[end]))) {
    s[end] = upper(static_cast<unsigned char>(s[end]));
    ++end;
  }
  KeywordList kws = keywords_for(s[p]);
  for (size_t i = 0; i < kws.count; ++i) {
    size_t after = match_keyword(s, p, kws.first[i]);
    if (after) {
      set_text(t, s + p, after - p);
      t->code = kws.first[i].code;
      t->pos = after;
      return 1;
    }
  }
  // An identifier: letters, digits and "_", upper-cased.
  size_t n = 0;
  while (is_word(static_cast<unsigned char>(s[p + n]))) {
    s[p + n] = upper(static_cast<unsigned char>(s[p + n]));
    if (n == DB_NAME_MAX) {
      std::snprintf(message, DB_MSG_SIZE, "Syntax error: name too long (%.*s...)",
                    static_cast<int>(DB_NAME_MAX + 1), s + p);
      return -1;
    }
    ++n;
  }
  set_text(t, s + p, n);
  t->code = DBTOK_IDENT;
  t->pos = p + n;
  return 1;
}

} // namespace

const char *DBtoken_name(int code) {
  if (code < 0 || code > 255 || !g_names.names[code]) return "<unknown token>";
  return g_names.names[code];
}

void DBtoken_begin(DBtokenizer *t, char *text) {
  t->text = text;
  t->pos = 0;
  t->code = DBTOK_UNKNOWN;
  t->length = 0;
  t->token[0] = '\0';
}

int DBtoken_next(DBtokenizer *t, char *message) {
  const char *s = t->text;
  size_t p = t->pos;
  while (is_space(static_cast<unsigned char>(s[p]))) ++p;
  t->pos = p;
  unsigned char c = static_cast<unsigned char>(s[p]);
  if (c == '\0') return 0;
  if (is_letter(c)) return read_word(t, message);
  if (is_digit(c)) return read_number(t, false, message);

  unsigned char code = DBTOK_UNKNOWN;
  size_t len = 1;
  switch (c) {
  case '\'':
    t->pos = p + 1;
    return read_string(t, message);
  case '(':
    code = DBTOK_LPAREN;
    break;
  case ')':
    code = DBTOK_RPAREN;
    break;
  case '*':
    code = DBTOK_STAR;
    break;
  case ',':
    code = DBTOK_COMMA;
    break;
  case '.':
    code = DBTOK_DOT;
    break;
  case ';':
    code = DBTOK_END;
    break;
  case '=':
    code = DBTOK_EQ;
    break;
  case '<':
    code = DBTOK_LT;
    if (s[p + 1] == '=')
      code = DBTOK_LE, len = 2;
    else if (s[p + 1] == '>')
      code = DBTOK_NE, len = 2;
    break;
  case '>':
    code = DBTOK_GT;
    if (s[p + 1] == '=') code = DBTOK_GE, len = 2;
    break;
  case '-': {
    // A minus, blanks allowed after it, before a digit is a negative number.
    size_t q = p + 1;
    while (is_space(static_cast<unsigned char>(s[q]))) ++q;
    if (is_digit(static_cast<unsigned char>(s[q]))) {
      t->pos = q;
      return read_number(t, true, message);
    }
    break;
  }
  default:
    break;
  }
  set_text(t, s + p, len);
  t->code = code;
  t->pos = p + len;
  return 1;
}

namespace {
// The tokenizer behind DBnext_token; the parser uses its own.
std::unique_ptr<DBtokenizer> g_tokenizer;
} // namespace

void DBtoken_start(char *statement) {
  if (!g_tokenizer) g_tokenizer = std::make_unique<DBtokenizer>();
  DBtoken_begin(g_tokenizer.get(), statement);
}

int DBnext_token(int *code, char *text) {
  if (!g_tokenizer || !g_tokenizer->text) return 0;
  char message[DB_MSG_SIZE];
  int r = DBtoken_next(g_tokenizer.get(), message);
  if (r < 0) {
    std::snprintf(text, DB_TOKEN_MAX + 1, "%s", message);
    return -1;
  }
  if (r == 0) return 0;
  *code = g_tokenizer->code;
  std::memcpy(text, g_tokenizer->token, g_tokenizer->length + 1);
  return 1;
}

std::vector<std::string> DBsplit_statements(const char *text) {
  std::vector<std::string> out;
  std::string cur;
  const char *p = text ? text : "";
  bool literal = false;
  for (; *p; ++p) {
    char c = *p;
    if (literal) {
      cur += c;
      if (c == '\\' && p[1]) {
        cur += *++p;
      } else if (c == '\'') {
        // '' inside a literal is a quote of the text, not its end.
        if (p[1] == '\'')
          cur += *++p;
        else
          literal = false;
      }
    } else if (c == ';') {
      out.push_back(cur);
      cur.clear();
    } else {
      if (c == '\'') literal = true;
      cur += c;
    }
  }
  out.push_back(cur);
  return out;
}

const std::vector<std::string> &DBtoken_keyword_words() {
  static const std::vector<std::string> words = [] {
    std::vector<std::string> all;
    for (char c = 'A'; c <= 'Z'; ++c) {
      KeywordList l = keywords_for(c);
      for (size_t i = 0; i < l.count; ++i)
        for (const char *w : l.first[i].word)
          if (w) all.emplace_back(w);
    }
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
  }();
  return words;
}
