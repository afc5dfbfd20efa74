// The request buffer: one process-wide growing byte buffer in which every
// request to the TAVRIN server is built before it is sent.
//
// The first append allocates 100000 bytes (or exactly the appended size if it
// is larger); an append that would overflow grows the buffer to the larger of
// capacity + 1000000 and the needed size. Integers are written little-endian.
// Sending the buffer is the transport's business; what goes into it for a
// statement is the encoder's.
#pragma once

#include <cstddef>
#include <cstdint>

#include "db/wire/wire.h"

// Empties the buffer; keeps its memory.
void DBreq_reset();
// The bytes built so far; valid until the next append. Null before the first
// append. The buffer owns the memory.
const unsigned char *DBreq_data();
size_t DBreq_length();
size_t DBreq_capacity();

// Raw bytes.
void DBreq_bytes(const void *data, size_t n);
// One byte.
void DBreq_byte(unsigned char b);
// A 16-bit word.
void DBreq_short(int16_t v);
// A 32-bit word.
void DBreq_int(int32_t v);
// A plain string: 16-bit length (string length + 1), the string, its zero byte.
void DBreq_string(const char *s);
// A counted value: 16-bit size (the value's own 16-bit length + 2), then that
// many bytes starting at the value's length field.
void DBreq_value(const void *value_with_length);
// A block: 32-bit length, then the bytes.
void DBreq_block(const void *data, uint32_t n);
// Tagged fields.
void DBreq_tag_int(unsigned char tag, int32_t v);
void DBreq_tag_int64(unsigned char tag, const void *eight_bytes);
void DBreq_tag_double(unsigned char tag, double v);
void DBreq_tag_string(unsigned char tag, const char *s);
void DBreq_tag_short_block(unsigned char tag, const void *data, uint16_t n);
void DBreq_tag_long_block(unsigned char tag, const void *data, uint32_t n);
// The message-text request: byte '0' and a tagged string 'b'.
void DBreq_message(const char *text);
