// The process-wide request buffer and its encoding primitives (see reqbuf.h).
#include "db/client/reqbuf.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/msg.h"

namespace {

struct FreeDeleter {
  void operator()(unsigned char *p) const { std::free(p); }
};

// The one request buffer of the process.
struct RequestBuffer {
  std::unique_ptr<unsigned char, FreeDeleter> data;
  size_t length = 0;
  size_t capacity = 0; // 0: not yet allocated
} g_req;

// Makes room for n more bytes with the growth rule of the buffer.
// Running out of memory is fatal: a request cannot be half built.
unsigned char *reserve(size_t n) {
  size_t need = g_req.length + n;
  if (need > g_req.capacity) {
    size_t cap;
    if (g_req.capacity == 0)
      cap = n > 100000 ? n : 100000;
    else
      cap = g_req.capacity + 1000000 > need ? g_req.capacity + 1000000 : need;
    auto *p = static_cast<unsigned char *>(std::realloc(g_req.data.get(), cap));
    // Out of memory for a request: the program cannot go on; fatal by design.
    if (!p) msg_fatal("(DBreq) Out of memory (%zu bytes)\n", cap);
    (void)g_req.data.release();
    g_req.data.reset(p);
    g_req.capacity = cap;
  }
  unsigned char *at = g_req.data.get() + g_req.length;
  g_req.length = need;
  return at;
}

void put16(uint16_t v) {
  unsigned char *p = reserve(2);
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

void put32(uint32_t v) {
  unsigned char *p = reserve(4);
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

} // namespace

void DBreq_reset() { g_req.length = 0; }
const unsigned char *DBreq_data() { return g_req.data.get(); }
size_t DBreq_length() { return g_req.length; }
size_t DBreq_capacity() { return g_req.capacity; }

void DBreq_bytes(const void *data, size_t n) {
  if (n == 0) return;
  std::memcpy(reserve(n), data, n);
}

void DBreq_byte(unsigned char b) { *reserve(1) = b; }
void DBreq_short(int16_t v) { put16(static_cast<uint16_t>(v)); }
void DBreq_int(int32_t v) { put32(static_cast<uint32_t>(v)); }

void DBreq_string(const char *s) {
  size_t n = std::strlen(s) + 1;
  put16(static_cast<uint16_t>(n));
  DBreq_bytes(s, n);
}

void DBreq_value(const void *value_with_length) {
  uint16_t own;
  std::memcpy(&own, value_with_length, 2);
  uint16_t size = static_cast<uint16_t>(own + 2);
  put16(size);
  DBreq_bytes(value_with_length, size);
}

void DBreq_block(const void *data, uint32_t n) {
  put32(n);
  DBreq_bytes(data, n);
}

void DBreq_tag_int(unsigned char tag, int32_t v) {
  DBreq_byte(tag);
  DBreq_int(v);
}

void DBreq_tag_int64(unsigned char tag, const void *eight_bytes) {
  DBreq_byte(tag);
  DBreq_bytes(eight_bytes, 8);
}

void DBreq_tag_double(unsigned char tag, double v) { DBreq_tag_int64(tag, &v); }

void DBreq_tag_string(unsigned char tag, const char *s) {
  DBreq_byte(tag);
  DBreq_string(s);
}

void DBreq_tag_short_block(unsigned char tag, const void *data, uint16_t n) {
  DBreq_byte(tag);
  put16(n);
  DBreq_bytes(data, n);
}

void DBreq_tag_long_block(unsigned char tag, const void *data, uint32_t n) {
  DBreq_byte(tag);
  DBreq_block(data, n);
}

void DBreq_message(const char *text) {
  DBreq_byte(DBREQ_MESSAGE);
  DBreq_tag_string(DBTAG_MESSAGE, text);
}
