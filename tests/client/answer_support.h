// Helpers of the result-data tests: building answers and binary values as
// the server sends them.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/date.h"
#include "db/client/answer.h"
#include "db/client/resdata.h"

namespace ans {

using Bytes = std::vector<unsigned char>;

struct Answer {
  Bytes b;
  explicit Answer(char kind) { b.push_back(static_cast<unsigned char>(kind)); }
  Answer &i32(int32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<unsigned char>(uint32_t(v) >> (8 * i)));
    return *this;
  }
  Answer &u16(size_t v) {
    b.push_back(static_cast<unsigned char>(v));
    b.push_back(static_cast<unsigned char>(v >> 8));
    return *this;
  }
  Answer &raw(const Bytes &v) {
    b.insert(b.end(), v.begin(), v.end());
    return *this;
  }
  // A column header: name with its zero byte, type code, size.
  Answer &column(const std::string &name, unsigned char type, int32_t size) {
    u16(name.size() + 1);
    b.insert(b.end(), name.begin(), name.end());
    b.push_back(0);
    b.push_back(type);
    return i32(size);
  }
  // A value: 16-bit length, then the bytes.
  Answer &value(const Bytes &v) { return u16(v.size()).raw(v); }
};

template <typename T> Bytes bin(const T &v) {
  Bytes out(sizeof v);
  std::memcpy(out.data(), &v, sizeof v);
  return out;
}
inline Bytes text(const std::string &s) {
  Bytes out(s.begin(), s.end());
  out.push_back(0);
  return out;
}
inline Bytes binary(const Bytes &bytes) {
  Bytes out{static_cast<unsigned char>(bytes.size()),
            static_cast<unsigned char>(bytes.size() >> 8)};
  out.insert(out.end(), bytes.begin(), bytes.end());
  return out;
}
inline Bytes date(int y, int m, int d) { return bin(DATE{int16_t(y), uint8_t(m), uint8_t(d)}); }
inline Bytes time(int h, int m, int s) { return bin(TIME{uint8_t(h), uint8_t(m), uint8_t(s)}); }
inline Bytes stamp(int y, int mo, int d, int h, int mi, int s, int us) {
  DATI t{};
  t.year = int16_t(y);
  t.month = uint8_t(mo);
  t.day = uint8_t(d);
  t.hour = uint8_t(h);
  t.minute = uint8_t(mi);
  t.second = uint8_t(s);
  t.usec = us;
  return bin(t);
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

} // namespace ans
