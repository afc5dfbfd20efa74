// The answer of the executor read back by a strict decoder: every field
// with a bounds check, and the whole answer used. Shared by the executor
// tests and the executor's fuzz target, so it needs no test framework;
// values keep their binary form (the tests read them typed).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/wire/wire.h"

namespace exectest {

using Bytes = std::vector<unsigned char>;

struct Column {
  std::string name;
  unsigned char type = 0;
  int32_t size = 0;
};

// kind is the first byte; ok says the answer decoded completely.
struct DecodedAnswer {
  char kind = 0;
  std::string error;
  int32_t count = 0;
  std::vector<Column> cols;
  std::vector<std::vector<Bytes>> rows;
  bool ok = false;
};

inline DecodedAnswer decode_answer(const Bytes &a) {
  DecodedAnswer r;
  size_t p = 0;
  auto need = [&](size_t n) { return p + n <= a.size(); };
  auto u16 = [&] {
    p += 2;
    return static_cast<uint16_t>(a[p - 2] | a[p - 1] << 8);
  };
  auto i32 = [&] {
    p += 4;
    return static_cast<int32_t>(DBwire_get32(a.data() + p - 4));
  };
  // A text of a 16-bit length that counts its final zero byte.
  auto text = [&](std::string &out, size_t after) {
    if (!need(2)) return false;
    uint16_t n = u16();
    if (n < 1 || !need(n + after) || a[p + n - 1] != 0) return false;
    out.assign(reinterpret_cast<const char *>(a.data() + p), n - 1);
    p += n;
    return true;
  };
  if (!need(1)) return r;
  r.kind = static_cast<char>(a[p++]);
  if (r.kind == '0') {
    if (!need(1) || a[p++] != 'b' || !text(r.error, 0)) return r;
  } else if (r.kind == '3') {
    if (!need(4)) return r;
    r.count = i32();
  } else if (r.kind == '2' || r.kind == '4') {
    if (!need(8)) return r;
    int32_t nc = i32(), nr = i32();
    if (nc < 0 || nr < 0 || (nc == 0 && nr > 0)) return r;
    for (int32_t c = 0; c < nc; ++c) {
      Column col;
      if (!text(col.name, 5)) return r;
      col.type = a[p++];
      col.size = i32();
      r.cols.push_back(col);
    }
    for (int32_t i = 0; i < nr; ++i) {
      r.rows.emplace_back();
      for (int32_t c = 0; c < nc; ++c) {
        if (!need(2)) return r;
        uint16_t n = u16();
        if (!need(n)) return r;
        r.rows.back().emplace_back(a.begin() + long(p), a.begin() + long(p + n));
        p += n;
      }
    }
  } else if (r.kind != '1') {
    return r;
  }
  r.ok = p == a.size();
  return r;
}

} // namespace exectest
