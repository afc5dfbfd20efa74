// The Varne compressed-data format (magic "z01morlet").
//
// A stream is a 269-byte header (magic, Comp_Min as a 32-bit little-endian
// integer, a 256-byte rank table of the byte values by increasing frequency)
// followed by one bit stream of tokens: literals coded by the rank of their
// byte, runs of one byte, repeats (distance, length) inside the current 1 MiB
// block, and an end-of-data token. Compression collects input in blocks of
// 1 MiB and codes each block on its own; decompression hands out the bytes of
// one decoded 1 MiB block after another.
//
// Both directions keep their state in one process-wide context each (one
// compression and one decompression at a time, one thread). The compressed
// bytes go either into memory or to a FILE; the decoder reads from a copy of
// the whole stream or, for inputs larger than memory buffers, from a FILE.
// What the bytes mean (records, files) is left to the callers.
#pragma once

#include <cstddef>
#include <cstdio>

// Size of one input block of the compressor and one output block of the
// decompressor; repeats never reach across it.
inline constexpr size_t VARNE_BLOCK = 1048576;
// Header: magic, Comp_Min, rank table.
inline constexpr size_t VARNE_HEADER = 269;

// Starts a compression and discards any earlier one. output is where the
// compressed stream goes: a FILE it is written to block by block (the caller
// keeps owning and closing it), or nullptr to collect it in memory for
// Compress_Take. comp_min (5..256) is the shortest coded repeat, comp_cache
// (5..4096) the size in KiB of each of the two search buffers, which bounds
// how far back repeats are searched; invalid values print a warning and fall
// back. Returns 1, or 0 (nothing left allocated) when memory runs out.
int Compress_Init(FILE *output, int comp_min, int comp_cache);

// Chooses the parse of the compression just started (before the first
// Compress_Write): on = 0 the fast lazy parse (the default), otherwise the
// thorough one, which searches every position and takes the cheapest token
// sequence: output some 3 to 5 percent smaller, several times slower, and
// 12 MiB more memory. Returns 1, or 0 when that memory is not available (the
// fast parse stays chosen).
int Compress_Thorough(int on);

// Appends length bytes of input, counting their frequencies, and codes every
// block that becomes full. Returns 1, or 0 when the output cannot be written
// or grown; the compression is then unusable until the next Compress_Init.
int Compress_Write(const void *data, size_t length);

// Codes the last (partial) block, writes the end-of-data token and, for FILE
// output, writes and flushes everything that is left. Returns 1 or 0 as
// Compress_Write. Afterwards only Compress_Take and Compress_Init are valid.
int Compress_End();

// Hands out the finished in-memory stream: returns a buffer that the caller
// owns and releases with std::free, and stores its size in *length. Returns
// nullptr for FILE output, before Compress_End, or when taken already.
unsigned char *Compress_Take(size_t *length);

// Starts a decompression of the complete stream data[0..length), which is
// copied into the decoder's own input buffer (kept and grown across runs).
// Checks the magic (else prints "(Uncompress_Init) Not in Varne-format!" on
// standard error) and reads Comp_Min and the rank table. Returns 1 when
// ready, 0 for input that is not a Varne stream or ends inside the header.
int Uncompress_Init(const void *data, size_t length);

// As Uncompress_Init, but reads the stream from input piece by piece as the
// decoding needs it; the caller keeps owning and closing the FILE. Returns 1
// or 0 as Uncompress_Init; a read error counts as the end of the input.
int Uncompress_Open(FILE *input);

// Copies up to length decoded bytes into buffer, decoding the next block when
// the current one is used up. Returns the number of bytes delivered (fewer
// than length only at the end of the data, 0 after it), or -1 when the stream
// is damaged: an invalid escape, a repeat reaching before the block or a token
// overrunning it, or input that ends before the end-of-data token. After -1
// (or without a successful init) every further call returns -1.
long Uncompress_Read(void *buffer, size_t length);
