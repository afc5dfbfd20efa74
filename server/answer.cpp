// Answers of tavrind and the numbered error texts of the server.
#include "server/answer.h"

#include <cstring>

namespace tavrind {

namespace {

// The table of the error list in answer.h, in number order.
const ErrorText kErrors[] = {
#define TAVRIND_ERROR_ROW(number, name, text) {number, #name, text},
    TAVRIND_ERRORS(TAVRIND_ERROR_ROW)
#undef TAVRIND_ERROR_ROW
};

void put16(std::vector<unsigned char> &out, uint16_t v) {
  out.push_back(static_cast<unsigned char>(v & 0xFF));
  out.push_back(static_cast<unsigned char>(v >> 8));
}

void put32(std::vector<unsigned char> &out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

} // namespace

const ErrorText *answer_error_table(size_t *n) {
  *n = sizeof kErrors / sizeof kErrors[0];
  return kErrors;
}

std::string answer_errtext(Err err, std::initializer_list<std::string> args) {
  const int number = static_cast<int>(err);
  const char *text = nullptr;
  for (const ErrorText &e : kErrors)
    if (e.number == number) text = e.text;
  std::string r = "(TAVRIN " + std::to_string(number) + ") ";
  if (!text) return r + "Unbekannter Fehler";
  auto arg = args.begin();
  for (const char *p = text; *p; ++p) {
    if (*p == '$' && p[1] >= '0' && p[1] <= '9') {
      while (p[1] >= '0' && p[1] <= '9') ++p;
      if (arg != args.end()) r += *arg++;
    } else {
      r += *p;
    }
  }
  return r;
}

void answer_error(std::vector<unsigned char> &out, const std::string &text) {
  std::string t = text.substr(0, 9000);
  out.clear();
  out.push_back(DBANS_ERROR);
  out.push_back(DBTAG_MESSAGE);
  put16(out, static_cast<uint16_t>(t.size() + 1));
  out.insert(out.end(), t.begin(), t.end());
  out.push_back(0);
}

void answer_done(std::vector<unsigned char> &out) {
  out.clear();
  out.push_back(DBANS_DONE);
}

void answer_count(std::vector<unsigned char> &out, int32_t count) {
  out.clear();
  out.push_back(DBANS_COUNT);
  put32(out, static_cast<uint32_t>(count));
}

void answer_tuples_begin(std::vector<unsigned char> &out, unsigned char kind,
                         const std::vector<AnswerColumn> &cols) {
  out.clear();
  out.push_back(kind);
  put32(out, static_cast<uint32_t>(cols.size()));
  put32(out, 0);
  for (const AnswerColumn &c : cols) {
    std::string n = c.name.substr(0, 65534);
    put16(out, static_cast<uint16_t>(n.size() + 1));
    out.insert(out.end(), n.begin(), n.end());
    out.push_back(0);
    out.push_back(c.type.code);
    put32(out, static_cast<uint32_t>(c.type.size));
  }
}

void answer_row(std::vector<unsigned char> &out) {
  uint32_t rows = static_cast<uint32_t>(answer_tuples_rows(out)) + 1;
  for (int i = 0; i < 4; ++i) out[5 + i] = static_cast<unsigned char>(rows >> (8 * i));
}

void answer_rows_add(std::vector<unsigned char> &out, int32_t n) {
  if (out.size() < 9 || n == 0) return;
  uint32_t rows = static_cast<uint32_t>(answer_tuples_rows(out)) + static_cast<uint32_t>(n);
  for (int i = 0; i < 4; ++i) out[5 + i] = static_cast<unsigned char>(rows >> (8 * i));
}

int32_t answer_tuples_rows(const std::vector<unsigned char> &out) {
  if (out.size() < 9) return 0;
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(out[5 + i]) << (8 * i);
  return static_cast<int32_t>(v);
}

void answer_value_text(std::vector<unsigned char> &out, const std::string &latin1) {
  std::string s = latin1.substr(0, 65534);
  put16(out, static_cast<uint16_t>(s.size() + 1));
  out.insert(out.end(), s.begin(), s.end());
  out.push_back(0);
}

void answer_value_smallint(std::vector<unsigned char> &out, int16_t v) {
  put16(out, 2);
  put16(out, static_cast<uint16_t>(v));
}

void answer_value_integer(std::vector<unsigned char> &out, int32_t v) {
  put16(out, 4);
  put32(out, static_cast<uint32_t>(v));
}

} // namespace tavrind
