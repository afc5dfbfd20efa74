// Helpers of the encoder tests: building expected request bytes and running
// DBexec_encode on a statement the way DBexec does.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "db/client/parser.h"
#include "db/client/reqbuf.h"
#include "db/client/tokenizer.h"

namespace enc {

using Bytes = std::vector<unsigned char>;

// Expected bytes, appended with <<: characters and bytes as they are, and the
// tagged fields below.
struct Expect {
  Bytes b;
  Expect &operator<<(char c) {
    b.push_back(static_cast<unsigned char>(c));
    return *this;
  }
  Expect &operator<<(unsigned char c) {
    b.push_back(c);
    return *this;
  }
  Expect &operator<<(const Bytes &more) {
    b.insert(b.end(), more.begin(), more.end());
    return *this;
  }
};

inline Bytes tagged_text(char tag, const std::string &s) {
  Bytes out{static_cast<unsigned char>(tag)};
  uint16_t n = static_cast<uint16_t>(s.size() + 1);
  out.push_back(static_cast<unsigned char>(n));
  out.push_back(static_cast<unsigned char>(n >> 8));
  out.insert(out.end(), s.begin(), s.end());
  out.push_back(0);
  return out;
}
// A name (tag 'a') and a string value (tag 'f').
inline Bytes name(const std::string &s) { return tagged_text('a', s); }
inline Bytes str(const std::string &s) { return tagged_text('f', s); }
// An integer value (tag 'd') and a float value (tag 'e').
inline Bytes integer(int32_t v) {
  Bytes out{'d'};
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(uint32_t(v) >> (8 * i)));
  return out;
}
inline Bytes real(double v) {
  Bytes out{'e'};
  unsigned char raw[8];
  std::memcpy(raw, &v, 8);
  out.insert(out.end(), raw, raw + 8);
  return out;
}

// Runs the statement as DBexec would (";" appended, buffer reset). Returns
// the request bytes; `message` receives the parser's text, `ok` its verdict.
inline Bytes encode(const std::string &statement, bool *ok = nullptr,
                    std::string *message = nullptr) {
  std::string text = statement;
  if (text.empty() || text.back() != ';') text += ';';
  static char msg[DB_MSG_SIZE];
  DBreq_reset();
  int r = DBexec_encode(text.data(), msg);
  if (ok) *ok = r == 1;
  if (message) *message = msg;
  return Bytes(DBreq_data(), DBreq_data() + DBreq_length());
}

// The parser's message for a statement that must fail ("<parsed>" if it
// did not fail).
inline std::string error(const std::string &statement) {
  bool ok;
  std::string message;
  encode(statement, &ok, &message);
  return ok ? "<parsed>" : message;
}

} // namespace enc
