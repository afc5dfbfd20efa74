// Helpers of the client tests: answers and binary values built as the server
// sends them, and request bytes as the statement encoder must write them.
#pragma once

#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "base/date.h"
#include "tests/msg_capture.h"
#include "db/client/answer.h"
#include "db/client/connect.h"
#include "db/client/parser.h"
#include "db/client/reqbuf.h"

namespace ct {

// Connects to `database` (DBconnect upper-cases the name it is given in place).
inline DBCONN *connect_to(std::string database) { return DBconnect(database.data()); }

using Bytes = std::vector<unsigned char>;

inline Bytes operator+(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

template <typename T> Bytes bin(const T &v) {
  Bytes out(sizeof v);
  std::memcpy(out.data(), &v, sizeof v);
  return out;
}
inline Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()) + Bytes{0}; }

// An answer: its kind byte, then the fields appended in order.
struct Answer {
  Bytes b;
  explicit Answer(char kind) : b{uint8_t(kind)} {}
  Answer &raw(const Bytes &v) {
    b = b + v;
    return *this;
  }
  Answer &i32(int32_t v) { return raw(bin(v)); }
  Answer &u16(size_t v) { return raw({uint8_t(v), uint8_t(v >> 8)}); }
  // A column header: name with its zero byte, type code, size.
  Answer &column(const std::string &name, unsigned char type, int32_t size) {
    return u16(name.size() + 1).raw(text(name)).raw({type}).i32(size);
  }
  // A value: 16-bit length, then the bytes.
  Answer &value(const Bytes &v) { return u16(v.size()).raw(v); }
};

inline Bytes binary(const Bytes &bytes) {
  return Bytes{uint8_t(bytes.size()), uint8_t(bytes.size() >> 8)} + bytes;
}
inline Bytes date(int y, int m, int d) { return bin(DATE{int16_t(y), uint8_t(m), uint8_t(d)}); }
inline Bytes time(int h, int m, int s) { return bin(TIME{uint8_t(h), uint8_t(m), uint8_t(s)}); }
inline Bytes stamp(int y, int mo, int d, int h, int mi, int s, int us) {
  return bin(DATI{int16_t(y), uint8_t(mo), uint8_t(d), uint8_t(h), uint8_t(mi), uint8_t(s), us});
}
// The error answer '0' carrying `message` with its zero byte.
inline Bytes error_answer(const std::string &message) {
  return Answer('0').raw({'b'}).u16(message.size() + 1).raw(text(message)).b;
}

// Decodes an answer into a new result (owned by the caller).
inline DBRESULT *decode(const Bytes &answer, int *ok = nullptr) {
  DBRESULT *res = DBresult_new();
  int r = DBanswer_decode(answer.data(), answer.size(), res);
  if (ok) *ok = r;
  return res;
}

// One-column result holding `cells` of `type`, decoded from an answer.
inline DBRESULT *column_of(unsigned char type, const std::vector<Bytes> &cells, int size = 8) {
  Answer a('2');
  a.i32(1).i32(static_cast<int32_t>(cells.size())).column("V", type, size);
  for (const auto &c : cells) a.value(c);
  return decode(a.b);
}

// Every cell of a result as text: cells joined by ",", rows by "|", a
// missing text as "<null>".
inline std::string cells(DBRESULT *r) {
  std::string out;
  for (int row = 0; row < DBntuples(r); ++row)
    for (int c = 0; c < DBnfields(r); ++c) {
      const char *v = DBgetvalue(r, row, c);
      out += std::string(c ? "," : row ? "|" : "") + (v ? v : "<null>");
    }
  return out;
}

// The cells of a one-column result of `type` decoded from `values`.
inline std::string column_cells(unsigned char type, const std::vector<Bytes> &values) {
  DBRESULT *r = column_of(type, values);
  std::string out = cells(r);
  DBclear(r);
  return out;
}

// Request fields: a name (tag 'a') and a string value (tag 'f'), each with a
// 16-bit length that counts the zero byte.
inline Bytes tagged_text(char tag, const std::string &s) {
  uint16_t n = static_cast<uint16_t>(s.size() + 1);
  return Bytes{uint8_t(tag), uint8_t(n), uint8_t(n >> 8)} + text(s);
}
inline Bytes str(const std::string &s) { return tagged_text('f', s); }

// Request bytes written word by word, separated by blanks: a single
// character is that byte, "0xA6" a byte by its code, "<NAME>" a name,
// "'text'" a string value (without blanks), "#-7" an integer value (tag 'd')
// and "~2.5" a float value (tag 'e').
inline Bytes req(const std::string &words) {
  Bytes out;
  std::istringstream in(words);
  for (std::string w; in >> w;) {
    std::string inner = w.size() >= 2 ? w.substr(1, w.size() - 2) : "";
    if (w.size() == 1) {
      out.push_back(static_cast<unsigned char>(w[0]));
    } else if (w[0] == '<') {
      out = out + tagged_text('a', inner);
    } else if (w[0] == '\'') {
      out = out + str(inner);
    } else if (w[0] == '#') {
      out = out + Bytes{'d'} + bin(int32_t(std::stol(w.substr(1))));
    } else if (w[0] == '~') {
      out = out + Bytes{'e'} + bin(std::stod(w.substr(1)));
    } else {
      out.push_back(static_cast<unsigned char>(std::stoi(w, nullptr, 16)));
    }
  }
  return out;
}

// Runs the statement through the encoder as DBexec does (";" appended,
// buffer reset); returns its verdict, the message in `msg`.
inline int run_encoder(std::string text, char *msg) {
  if (text.empty() || text.back() != ';') text += ';';
  DBreq_reset();
  return DBexec_encode(text.data(), msg);
}
// The request bytes of a statement that must be accepted.
inline Bytes encode(const std::string &statement) {
  char msg[DB_MSG_SIZE];
  EXPECT_EQ(run_encoder(statement, msg), 1) << msg;
  return Bytes(DBreq_data(), DBreq_data() + DBreq_length());
}
// The parser's message for a statement that must fail ("<parsed>" if it
// did not fail).
inline std::string error(const std::string &statement) {
  char msg[DB_MSG_SIZE];
  return run_encoder(statement, msg) ? "<parsed>" : msg;
}

} // namespace ct
