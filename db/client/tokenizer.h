// The SQL tokenizer of the TAVRIN client: splits a statement text into
// one-byte token codes (identifiers, literals, keywords, punctuation) and
// names the codes for messages.
//
// Token codes double as the tags and markers of the binary request, so the
// constants below are the bytes the encoder writes. The tokenizer upper-cases
// words in the statement text itself; it knows nothing of grammar, which is
// the parser's business (parser.h). All texts are Latin-1; letters, digits
// and white space are the ASCII ones whatever the process locale says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Size of the parser's and the result's message buffers, zero included.
constexpr size_t DB_MSG_SIZE = 10000;
// Longest token text: a string literal that reaches this length is refused.
constexpr size_t DB_TOKEN_MAX = 10000;
// Longest identifier; one character more is refused.
constexpr size_t DB_NAME_MAX = 31;

// Token codes. Byte values above 127 are written in hexadecimal.
enum : unsigned char {
  DBTOK_IDENT = 'a',
  DBTOK_MESSAGE = 'b',
  DBTOK_SHORT = 'c',
  DBTOK_INT = 'd',
  DBTOK_FLOAT = 'e',
  DBTOK_STRING = 'f',
  DBTOK_RESULT = 'h',
  DBTOK_BOOL = 'i',
  DBTOK_ABORT = '(',
  DBTOK_BEGIN = ')',
  DBTOK_COMMIT = '/',
  DBTOK_END = 'x', // ";" and the keyword END
  DBTOK_DECLARE = '$',
  DBTOK_CLOSE = '&',
  DBTOK_CURSOR = 'Z',
  DBTOK_FOR = '!',
  DBTOK_FETCH = 0xA7,
  DBTOK_ALL = '%',
  DBTOK_IN = 'M',
  DBTOK_SHOW = '8',
  DBTOK_DATABASES = 0xF6,
  DBTOK_TABLES = 0xFC,
  DBTOK_INDICES = 0xE4,
  DBTOK_ON = 'j',
  DBTOK_TABLE = '?',
  DBTOK_INDEX = '9',
  DBTOK_DATABASE = '}',
  DBTOK_SET = 'U',
  DBTOK_STATIC = 0xDF,
  DBTOK_SECURE = 0xC4,
  DBTOK_SAVE = '{',
  DBTOK_STOP = 0xD6,
  DBTOK_MAX = 'J',
  DBTOK_MIN = 'I',
  DBTOK_CREATE_DATABASE = 'k',
  DBTOK_CREATE_TABLE = 'l',
  DBTOK_CREATE_INDEX = 'm',
  DBTOK_CREATE_UNIQUE_INDEX = 'n',
  DBTOK_DROP_DATABASE = 'o',
  DBTOK_DROP_TABLE = 'p',
  DBTOK_DROP_INDEX = 'q',
  DBTOK_INSERT_INTO = 'r',
  DBTOK_UPDATE = 's',
  DBTOK_DELETE_FROM = 't',
  DBTOK_SELECT = 'u',
  DBTOK_FROM = 'v',
  DBTOK_WHERE = 'w',
  DBTOK_ORDER_BY = 'H',
  DBTOK_ASC = '[',
  DBTOK_DESC = ']',
  DBTOK_DISTINCT = '7',
  DBTOK_COUNT = 'C',
  DBTOK_VALUES = 'X',
  DBTOK_AND = 'y',
  DBTOK_OR = 'z',
  DBTOK_NOT = 'T',
  DBTOK_NULL = 'F',
  DBTOK_EXISTS = 'L',
  DBTOK_SELECT_EXISTS = '=', // request marker before an EXISTS subquery
  DBTOK_LIKE = 'V',
  DBTOK_BETWEEN = 'Y',
  DBTOK_CHARACTER = '0',
  DBTOK_SMALLINT = '1',
  DBTOK_INTEGER = '2',
  DBTOK_FLOATTYPE = '3',
  DBTOK_DATE = '4',
  DBTOK_TIME = '5',
  DBTOK_TIMESTAMP = '6',
  DBTOK_BINARY = 0xA6,
  DBTOK_LPAREN = 'A',
  DBTOK_RPAREN = 'B',
  DBTOK_STAR = 'W',
  DBTOK_COMMA = 'E',
  DBTOK_DOT = 'D',
  DBTOK_LT = 'N',
  DBTOK_GT = 'O',
  DBTOK_LE = 'P',
  DBTOK_GE = 'Q',
  DBTOK_EQ = 'R',
  DBTOK_NE = 'S',
  DBTOK_UNKNOWN = '-', // no token / unknown character
};

// The name of a token code in messages; "<unknown token>" for codes without
// a name. The text is static.
const char *DBtoken_name(int code);

// One tokenizer over one statement text. The text belongs to the caller and
// must stay alive (and writable: words are upper-cased in place) while the
// tokenizer reads it.
struct DBtokenizer {
  char *text = nullptr; // the statement, zero-terminated
  size_t pos = 0;       // where the next token starts to be looked for
  int code = DBTOK_UNKNOWN;
  size_t length = 0;              // length of token
  char token[DB_TOKEN_MAX + 1]{}; // the current token's text, zero-terminated
  int32_t ival = 0;               // value of an integer literal ('d')
  double fval = 0;                // value of a float literal ('e')
};

// Starts tokenizing `text` (not copied; modified in place).
void DBtoken_begin(DBtokenizer *t, char *text);

// Reads the next token. Returns 1 with t->code, t->token (and t->ival or
// t->fval for numbers); 0 at the end of the text; -1 on a lexical error with
// the message in `message` (DB_MSG_SIZE bytes), the position then is
// unspecified.
int DBtoken_next(DBtokenizer *t, char *message);

// The process-wide tokenizer behind DBnext_token: DBtoken_start gives it a
// text (modified in place, owned by the caller); DBnext_token returns 0 at the
// end, 1 with the code and the token text copied into `text` (DB_TOKEN_MAX + 1
// bytes), or -1 with the error message in `text`.
void DBtoken_start(char *statement);
int DBnext_token(int *code, char *text);

// Splits a text at every ";" outside string literals, by the literal rules
// of DBtoken_next ('' and a backslash escape a character inside a literal;
// an unterminated literal runs to the end of the text). Returns the pieces
// in order without their ";", white space kept: one piece more than there
// are such ";" (so "A;" gives "A" and "").
std::vector<std::string> DBsplit_statements(const char *text);

// Every word of the keyword set (each word of "CREATE UNIQUE INDEX" and the
// others on its own), upper case, sorted and without repeats: for
// highlighting and completion. Built once; owned by the tokenizer.
const std::vector<std::string> &DBtoken_keyword_words();
