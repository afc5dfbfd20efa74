// The Varne format: parameter checks, round trips through the encoder and
// decoder, hand-built streams for every token class, and damaged streams.
#include "base/varne.h"

#include <cstdlib>
#include <cstring>
#include <random>

#include "base_testutil.h"

namespace {

using namespace base_test;
using Bytes = std::vector<uint8_t>;

// Compresses data in memory, writing it in pieces of `chunk` bytes.
Bytes compress(const Bytes &data, int comp_min = 5, int comp_cache = 4096, size_t chunk = 0,
               bool thorough = false) {
  EXPECT_EQ(Compress_Init(nullptr, comp_min, comp_cache), 1);
  EXPECT_EQ(Compress_Thorough(thorough), 1);
  if (chunk == 0) chunk = data.size() + 1;
  for (size_t i = 0; i < data.size(); i += chunk)
    EXPECT_EQ(Compress_Write(data.data() + i, std::min(chunk, data.size() - i)), 1);
  EXPECT_EQ(Compress_End(), 1);
  size_t len = 0;
  unsigned char *p = Compress_Take(&len);
  EXPECT_NE(p, nullptr);
  EXPECT_EQ(Compress_Take(&len), nullptr) << "a stream is handed out once";
  Bytes out(p, p + len);
  std::free(p);
  return out;
}

// Decodes a whole stream in reads of `chunk` bytes; -1 on a decoding error.
long uncompress(const Bytes &stream, Bytes &out, size_t chunk = 100000) {
  out.clear();
  if (Uncompress_Init(stream.data(), stream.size()) != 1) return -2;
  std::vector<uint8_t> buf(chunk);
  for (;;) {
    long n = Uncompress_Read(buf.data(), chunk);
    if (n < 0) return n;
    out.insert(out.end(), buf.begin(), buf.begin() + n);
    if (size_t(n) < chunk) return long(out.size());
  }
}

// The stream decodes, in reads of `chunk` bytes, to exactly `want`.
void expect_decodes(const Bytes &stream, const Bytes &want, size_t chunk = 100000) {
  Bytes back;
  ASSERT_EQ(uncompress(stream, back, chunk), long(want.size()));
  EXPECT_TRUE(back == want) << "decoded data differ, size " << want.size();
}

Bytes random_bytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (auto &x : b) x = uint8_t(rng());
  return b;
}

Bytes text(size_t n) {
  static const char *words[] = {"Datenbank ", "Tabelle ", "SELECT ", "FROM ", "WHERE ", "ORDER BY ",
                                "Schlüssel ", "der ",     "die ",    "und ",  "Wert\n", "Größe "};
  std::mt19937 rng(7);
  std::string s;
  while (s.size() < n) s += words[rng() % 12];
  s.resize(n);
  return Bytes(s.begin(), s.end());
}

// Round trip through both parses.
void expect_round_trip(const Bytes &data, int comp_min = 5, int comp_cache = 4096,
                       size_t wchunk = 0, size_t rchunk = 100000) {
  for (bool thorough : {false, true}) {
    SCOPED_TRACE(thorough ? "thorough" : "fast");
    expect_decodes(compress(data, comp_min, comp_cache, wchunk, thorough), data, rchunk);
  }
}

// Builds streams by hand: header, then fields written most significant bit
// first into 32-bit little-endian words.
struct StreamBuilder {
  Bytes bytes;
  uint64_t acc = 0;
  int n = 0;
  explicit StreamBuilder(int comp_min = 5) {
    bytes.assign({'z', '0', '1', 'm', 'o', 'r', 'l', 'e', 't'});
    for (int i = 0; i < 4; ++i) bytes.push_back(uint8_t(uint32_t(comp_min) >> (8 * i)));
    for (int i = 0; i < 256; ++i) bytes.push_back(uint8_t(i)); // entry r holds byte r
  }
  StreamBuilder &put(uint32_t v, int bits) {
    for (int i = bits - 1; i >= 0; --i) {
      acc = acc << 1 | ((v >> i) & 1);
      if (++n == 32) {
        for (int b = 0; b < 4; ++b) bytes.push_back(uint8_t(acc >> (8 * b)));
        acc = n = 0;
      }
    }
    return *this;
  }
  // Literal of rank table entry r (identity table: the byte value r).
  StreamBuilder &lit(int r) {
    if (r >= 252) return put(uint32_t(255 - r), 3);
    if (r >= 244) return put(4, 3).put(uint32_t(251 - r), 3);
    if (r >= 228) return put(5, 3).put(uint32_t(243 - r), 4);
    if (r >= 196) return put(6, 3).put(uint32_t(227 - r), 5);
    return put(7, 3).put(uint32_t(195 - r), 8);
  }
  StreamBuilder &esc(int k) { return put(7, 3).put(uint32_t(196 + k), 8); }
  StreamBuilder &run(int k, uint32_t count, int r) { return esc(k).put(count, 12 - k).lit(r); }
  StreamBuilder &rep(int k, uint32_t dist, uint32_t len) {
    int j = k - 21;
    static const int lbits[3] = {4, 5, 8};
    return esc(k).put(dist, 8 + j / 3).put(len, lbits[j % 3]);
  }
  Bytes end() {
    esc(14);
    if (n) put(0, 32 - n);
    return bytes;
  }
};

TEST(Varne, ParameterWarningsAndFallbacks) {
  Capture c;
  Bytes s = compress({}, 4, 4096);
  EXPECT_EQ(c.take(), "(Compress_Init) Warning: Comp_Min = 4 invalid (must be between 5 and 256) "
                      "-> using 5.\n");
  EXPECT_EQ(s[9], 5);
  s = compress({}, 256, 5);
  EXPECT_EQ(c.take(), "");
  EXPECT_EQ(s[9], 0);
  EXPECT_EQ(s[10], 1);

  // Comp_Cache 4097 names 256 but uses 5 KiB search buffers: a repeat 5000
  // bytes back is then out of reach, while 4096 KiB finds it.
  Bytes data = random_bytes(300, 1);
  Bytes gap = random_bytes(5000, 2);
  data.insert(data.end(), gap.begin(), gap.end());
  data.insert(data.end(), data.begin(), data.begin() + 300);
  Bytes small = compress(data, 5, 4097);
  EXPECT_EQ(c.take(), "(Compress_Init) Warning: Comp_Cache = 4097 invalid (must be between 5 and "
                      "4096) -> using 256.\n");
  Bytes big = compress(data, 5, 4096);
  EXPECT_GT(small.size(), big.size() + 250);
  EXPECT_EQ(small, compress(data, 5, 5));
}

TEST(Varne, RoundTripsOfSmallAndStructuredInputs) {
  expect_round_trip({});
  expect_round_trip({255});
  Bytes all;
  for (int rep = 0; rep < 3; ++rep)
    for (int i = 0; i < 256; ++i) all.push_back(uint8_t(i));
  expect_round_trip(all, 5, 4096, 1, 1);

  // Runs of every length near the token limits.
  for (size_t len : {1u, 3u, 4u, 11u, 4099u, 9000u}) {
    expect_round_trip(Bytes(len, 'a'));
    Bytes mixed = text(2000);
    mixed.insert(mixed.begin() + 1000, len, 'x');
    expect_round_trip(mixed);
  }
  // The least frequent byte (rank entry 0) cannot be a run byte.
  Bytes base = random_bytes(256 * 150, 5);
  for (auto &b : base)
    if (b == 0x42) b = 0x43;
  for (size_t len : {3u, 11u, 100u}) {
    Bytes m = base;
    m.insert(m.begin() + 1000, len, 0x42);
    EXPECT_EQ(compress(m)[13], 0x42);
    expect_round_trip(m);
  }
  // The rank table orders by count, ties by byte value.
  Bytes ranks = compress({'a', 'a', 'a', 'b', 'c', 'c'});
  EXPECT_EQ(ranks[13 + 255], 'a');
  EXPECT_EQ(ranks[13 + 253], 'b');
  EXPECT_EQ(ranks[13 + 97], 'd'); // 0..96 before it

  // Repeats at distances of every width, with lengths around the field
  // limits; Comp_Min changes the lengths a token codes.
  for (size_t dist : {1u, 7u, 8u, 255u, 256u, 4095u, 65536u, 300000u, 1048000u}) {
    for (size_t len : {5u, 20u, 21u, 36u, 37u, 260u, 261u, 700u}) {
      if (dist + len > VARNE_BLOCK || (dist > 4096 && len != 5 && len != 261)) continue;
      Bytes d = random_bytes(dist, uint32_t(dist));
      d.insert(d.end(), d.begin(), d.begin() + std::min(len, dist));
      while (d.size() < dist + len) d.push_back(d[d.size() - dist]);
      expect_round_trip(d);
    }
  }
  expect_round_trip(text(50000), 17, 5);

  // Repeats longer than the search's "long enough" are still found when
  // Comp_Min is above it.
  Bytes chunk = random_bytes(1000, 9), rep;
  for (int i = 0; i < 10; ++i) rep.insert(rep.end(), chunk.begin(), chunk.end());
  for (bool thorough : {false, true})
    EXPECT_LT(compress(rep, 200, 4096, 0, thorough).size(), 1900u) << thorough;
}

TEST(Varne, LargeInputsAcrossBlocksAndFileStreams) {
  // Both parses write the same header and sizes close to each other (on
  // this word salad the fast parse's buckets find more than the thorough
  // parse's 16 chain steps; on real text the thorough one is smaller).
  Bytes data = text(400000);
  Bytes more = random_bytes(20000, 4);
  data.insert(data.begin() + 1000, more.begin(), more.end());
  data.insert(data.begin() + 50000, 5000, ' ');
  Bytes fast = compress(data, 5, 4096, 4093, false);
  Bytes best = compress(data, 5, 4096, 4093, true);
  EXPECT_LT(best.size(), fast.size() * 104 / 100);
  EXPECT_FALSE(best == fast) << "the thorough parse was not used";
  EXPECT_LT(fast.size(), data.size() / 4);
  EXPECT_EQ(std::memcmp(best.data(), fast.data(), VARNE_HEADER), 0);
  expect_decodes(best, data);

  Bytes txt = text(3 * VARNE_BLOCK), back;
  Bytes ts = compress(txt, 5, 4096, 1000003);
  EXPECT_LT(ts.size(), txt.size() / 4);
  expect_decodes(ts, txt);

  // FILE output equals memory output; FILE input decodes it piece by piece.
  FILE *f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(Compress_Init(f, 5, 4096), 1);
  ASSERT_EQ(Compress_Write(txt.data(), txt.size()), 1);
  ASSERT_EQ(Compress_End(), 1);
  size_t len = 0;
  EXPECT_EQ(Compress_Take(&len), nullptr);
  std::rewind(f);
  Bytes fromfile(ts.size() + 10);
  ASSERT_EQ(std::fread(fromfile.data(), 1, fromfile.size(), f), ts.size());
  fromfile.resize(ts.size());
  EXPECT_TRUE(fromfile == ts);
  // A memory stream decoded before leaves nothing the file's decoding reads.
  ASSERT_EQ(uncompress(compress(text(100)), back), 100);
  std::rewind(f);
  ASSERT_EQ(Uncompress_Open(f), 1);
  back.assign(txt.size() + 1, 0);
  EXPECT_EQ(Uncompress_Read(back.data(), back.size()), long(txt.size()));
  back.resize(txt.size());
  EXPECT_TRUE(back == txt);
  EXPECT_EQ(Uncompress_Read(back.data(), 10), 0);
  std::fclose(f);
}

TEST(Varne, HandBuiltTokensOfEveryClass) {
  // Literals of each class; class 7 value 195 is entry 0.
  StreamBuilder lits;
  for (int r : {255, 254, 253, 252, 251, 244, 243, 228, 227, 196, 195, 100, 0}) lits.lit(r);
  expect_decodes(lits.end(), {255, 254, 253, 252, 251, 244, 243, 228, 227, 196, 195, 100, 0});

  // Runs with every count width; the run byte coded in several classes.
  StreamBuilder runs;
  Bytes want;
  for (int k = 0; k <= 9; ++k) {
    uint32_t count = (1u << (12 - k)) - 1;
    int r = k * 25 + 1;
    runs.run(k, count, r);
    want.insert(want.end(), count + 3, uint8_t(r));
  }
  runs.run(9, 0, 255);
  want.insert(want.end(), 3, 255);
  expect_decodes(runs.end(), want, 4096);

  // Every repeat class at a distance of its full width and its largest length, checked against
  // a byte-by-byte copy. Runs of changing bytes build the history.
  for (int k = 21; k <= 59; ++k) {
    int j = k - 21;
    uint32_t dist = (1u << (7 + j / 3)) + 1; // needs all 8 + j / 3 bits
    uint32_t len = (1u << (j % 3 == 2 ? 8 : 4 + j % 3)) - 1;
    StreamBuilder s(7);
    want.clear();
    for (int i = 0; want.size() < dist; ++i) {
      uint32_t count = uint32_t(i * 37 % 4000);
      s.run(0, count, i % 200 + 1);
      want.insert(want.end(), count + 3, uint8_t(i % 200 + 1));
    }
    s.lit(9);
    want.push_back(9);
    s.rep(k, dist, len);
    for (uint32_t i = 0; i < len + 7; ++i) want.push_back(want[want.size() - dist]);
    SCOPED_TRACE(k);
    expect_decodes(s.end(), want, VARNE_BLOCK);
  }
  // Overlapping repeats repeat a short pattern.
  expect_decodes(StreamBuilder().lit(1).lit(2).lit(3).rep(21, 3, 4).rep(21, 1, 0).end(),
                 {1, 2, 3, 1, 2, 3, 1, 2, 3, 1, 2, 3, 3, 3, 3, 3, 3});

  // End of data ends everything; what follows it is never read.
  Bytes stream = StreamBuilder().lit(255).esc(14).esc(11).end();
  ASSERT_EQ(Uncompress_Init(stream.data(), stream.size()), 1);
  uint8_t buf[8];
  EXPECT_EQ(Uncompress_Read(buf, 8), 1);
  EXPECT_EQ(buf[0], 255);
  EXPECT_EQ(Uncompress_Read(buf, 8), 0);
}

TEST(Varne, DamagedStreamsFailWithoutHarm) {
  Bytes out;
  testing::internal::CaptureStderr();
  Bytes bad = StreamBuilder().end();
  bad[3] = 'M';
  EXPECT_EQ(uncompress(bad, out), -2);
  EXPECT_EQ(uncompress(Bytes{'z', '0'}, out), -2);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "(Uncompress_Init) Not in Varne-format!\n(Uncompress_Init) Not in Varne-format!\n");
  Bytes good = StreamBuilder().end();
  EXPECT_EQ(uncompress(Bytes(good.begin(), good.begin() + 13), out), -2);
  EXPECT_EQ(uncompress(Bytes(good.begin(), good.begin() + 268), out), -2);
  uint8_t buf[4];
  EXPECT_EQ(Uncompress_Read(buf, 4), -1);

  for (int k : {10, 11, 12, 13, 15, 16, 17, 18, 19, 20})
    EXPECT_EQ(uncompress(StreamBuilder().lit(255).esc(k).end(), out), -1) << k;
  // Distance 0, distance before the block, the run byte entry 0, and a
  // run byte that is an escape.
  EXPECT_EQ(uncompress(StreamBuilder().lit(1).lit(2).rep(21, 0, 0).end(), out), -1);
  EXPECT_EQ(uncompress(StreamBuilder().lit(1).lit(2).rep(21, 3, 0).end(), out), -1);
  EXPECT_EQ(uncompress(StreamBuilder().run(0, 5, 0).end(), out), -1);
  EXPECT_EQ(uncompress(StreamBuilder().esc(0).put(5, 12).esc(14).end(), out), -1);
  // A negative Comp_Min in the header makes every repeat length invalid.
  EXPECT_EQ(uncompress(StreamBuilder(-100).lit(1).rep(21, 1, 3).end(), out), -1);

  // Runs and repeats that overrun the 1 MiB block; filling it exactly is fine.
  StreamBuilder fill;
  for (int i = 0; i < 256; ++i) fill.run(0, 4093, 1); // 256 * 4096 = 1 MiB
  fill.lit(2);
  ASSERT_EQ(uncompress(fill.end(), out, 2 * VARNE_BLOCK), long(VARNE_BLOCK + 1));
  EXPECT_EQ(out.back(), 2);
  StreamBuilder almost; // 3 bytes short of a full block
  for (int i = 0; i < 255; ++i) almost.run(0, 4093, 1);
  almost.run(0, 4090, 1);
  StreamBuilder over_run = almost, over_rep = almost;
  EXPECT_EQ(uncompress(over_run.run(9, 3, 1).end(), out, 2 * VARNE_BLOCK), -1);
  EXPECT_EQ(uncompress(over_rep.rep(21, 1, 0).end(), out, 2 * VARNE_BLOCK), -1);

  // Every truncation of a real stream fails: the end-of-data token is in
  // its last word.
  Bytes stream = compress(text(3000));
  for (size_t cut = VARNE_HEADER; cut < stream.size(); ++cut)
    ASSERT_EQ(uncompress(Bytes(stream.begin(), stream.begin() + long(cut)), out), -1) << cut;
}

TEST(VarneDeathTest, CallsOutOfOrderEndTheProgram) {
  EXPECT_FATAL((Compress_Init(nullptr, 5, 256), Compress_End(), Compress_Write("x", 1)),
               "\\(Compress_Write\\) Compression already ended");
  EXPECT_FATAL((Compress_Init(nullptr, 5, 256), Compress_Write("x", 1), Compress_Thorough(1)),
               "\\(Compress_Thorough\\) Compression already running");
}

} // namespace
