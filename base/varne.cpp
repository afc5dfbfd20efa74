// The Varne compressed-data format: encoder, decoder and their process-wide
// contexts (see varne.h for the stream layout).
//
// Encoder strategy. Input is collected in 1 MiB blocks; each block is coded
// on its own because repeats may not reach into an earlier block. The rank
// table is fixed from the byte counts when the first block is coded (for a
// short input: the whole input), so later blocks can be written out at once.
// Every token has a known exact cost in bits (literal 3/6/7/8/11 by rank, run
// 11 + count width + byte code, repeat 11 + distance width + length width), so
// all decisions compare "bits saved": the literal cost of the bytes a token
// covers (a prefix sum over the block) minus the token's cost.
//  - Fast parse (the default): matches are found in a bucketed hash table
//    over 6-byte prefixes, 2^14 buckets of the 32 most recent positions each
//    (2 MiB, in the first search buffer), written as rings so that entering
//    a position is one store. Every entry carries 3 more hash bits and the
//    byte after the prefix, so one SSE2 pass over the bucket picks the
//    candidates that match in 7 bytes without touching the block; only those
//    are compared, newest first, and the rest only when nothing longer was
//    found. The previous repeat's distance is tried first. A candidate is
//    kept when it saves most bits (a nearer shorter match can beat a farther
//    longer one). The next position's bucket is prefetched. In both parses
//    the size of the search buffers (Comp_Cache) bounds the distance.
//    Measured against the earlier 24-step hash chains over the whole block
//    (0.7-0.8x zlib -6's encoding speed): 8 positions per 5-byte bucket
//    were 1.6x zlib but 1.19x its size on the sources (target 1.15); 16
//    were 1.16x; 32 met the size at 1.0x zlib's speed, most of it spent
//    shifting the buckets and comparing candidates in the block. Rings
//    instead of shifting, 6-byte instead of 5-byte prefixes (also 0.3 %
//    smaller) and the 7th-byte check brought it to 1.1-1.3x. A second table
//    of 12-byte prefixes for long repeats far back saved another 0.4 % but
//    cost a quarter of the speed and was left out; so was inserting only
//    some positions inside long repeats (1 % larger for 5 % speed).
//  - At each position a run of the same byte is weighed against the best
//    repeat; runs cover 3..4098 bytes at 14..34 bits and usually win on
//    stretches of one byte.
//  - Lazy evaluation (the fast parse): before taking a token shorter than
//    40 bytes, the next two positions are searched too; a literal plus a
//    better token there is preferred. After a match of 20 bytes or more the
//    look-ahead checks only the 8 newest candidates (10 % faster on the
//    table dump for 1 % of its size, the text inputs within 0.1 %). After
//    32 searches in a row without a match (compressed or random data)
//    positions are skipped, more the longer it lasts.
//  - Thorough parse (Compress_Thorough): hash chains over 5-byte prefixes;
//    the two search buffers are the hash heads and the chain links (a ring
//    over the most recent positions). Every position is searched and a
//    forward pass keeps the cheapest way to reach each position from the
//    literal, run and repeat tokens there (all lengths of each candidate);
//    the cheapest path is written. Very long repeats and runs are taken at
//    once so that repetitive data does not cost quadratic time.
//  - Each repeat gets the smallest escape class whose distance (8..20 bits)
//    and length (4, 5 or 8 bits) fields hold it; longer repeats are split.
//
// Decoder. Tokens are decoded with a 2048-entry table over the next 11 bits
// (literal byte and code length, or the escape number). Input words past the
// end of the stream read as zero bits that are counted; a token that used any
// of them is a truncated stream. Every distance and length is checked against
// the block before a byte is copied.
#include "base/varne.h"

#include "base/msg.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr char kMagic[9] = {'z', '0', '1', 'm', 'o', 'r', 'l', 'e', 't'};
constexpr size_t kInputBuffer = 1114111; // a block plus slack for word loads
constexpr size_t kWorkBytes = 65532;     // staging of bit-stream words
constexpr size_t kWorkWords = kWorkBytes / 4;
constexpr size_t kOutputStep = 10000;
constexpr int kEndEscape = 14;
constexpr uint32_t kMaxRun = 4095 + 3;
constexpr uint32_t kMaxDistance = (1u << 20) - 1;

struct FreeDeleter {
  void operator()(void *p) const { std::free(p); }
};
template <class T> using Buffer = std::unique_ptr<T[], FreeDeleter>;

template <class T> Buffer<T> allocate(size_t count) {
  return Buffer<T>(static_cast<T *>(std::calloc(count, sizeof(T))));
}

inline uint32_t load32(const uint8_t *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline uint64_t load64(const uint8_t *p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
inline uint32_t load_le32(const uint8_t *p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline void store_le32(uint8_t *p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
  p[3] = uint8_t(v >> 24);
}

// The literal code (class bits and value) of rank table entry r.
struct Code {
  uint32_t bits;
  uint32_t len;
};
Code literal_code(int r) {
  if (r >= 252) return {uint32_t(255 - r), 3};
  if (r >= 244) return {(4u << 3) | uint32_t(251 - r), 6};
  if (r >= 228) return {(5u << 4) | uint32_t(243 - r), 7};
  if (r >= 196) return {(6u << 5) | uint32_t(227 - r), 8};
  return {(7u << 8) | uint32_t(195 - r), 11};
}
inline uint32_t escape_code(int k) { return (7u << 8) | uint32_t(196 + k); }

inline uint32_t distance_bits(uint32_t dist) {
  return std::max<uint32_t>(8, uint32_t(std::bit_width(dist)));
}
inline uint32_t length_select(uint32_t stored) { return stored < 16 ? 0 : stored < 32 ? 1 : 2; }
constexpr uint32_t kLengthBits[3] = {4, 5, 8};

// ---------------------------------------------------------------------------
// Compressor

// Tuning of the match search.
constexpr int kThoroughChain = 16; // chain steps per search (thorough parse)
constexpr uint32_t kNiceLen = 96;  // a match this long ends the search
constexpr uint32_t kLazyLen = 40;  // matches this long are taken without lazy look
constexpr uint32_t kHashBits = 17; // at most 2^17 hash heads are used (thorough parse)
constexpr int kLazySteps = 2;      // positions looked ahead
constexpr uint32_t kSkipShift = 5; // after 32 searches without a match, skip positions
// Fast parse: buckets of 32 positions, at most 2^14 of them (2 MiB, which
// stays in the second-level cache together with the block).
constexpr uint32_t kWaysLog = 5;
constexpr uint32_t kWays = 1u << kWaysLog;
constexpr uint32_t kBucketBits = 14;
constexpr uint32_t kGoodLen = 20; // after a match this long, the lazy look checks only
constexpr uint32_t kGoodWays = 8; // the newest kGoodWays positions of a bucket
constexpr int kWeakTries = 2;     // candidates that differ in the 7th byte, tried last

struct Compressor {
  FILE *file = nullptr;
  uint32_t comp_min = 5;
  uint32_t max_token = 260; // longest repeat one token codes
  uint32_t nice_len = 96;   // a repeat this long is taken without further search
  int max_chain = kThoroughChain;
  bool thorough = false; // optimal parse instead of the lazy one
  uint32_t window_mask = 0;
  uint32_t max_dist = 0;
  uint32_t hash_shift = 0;
  uint32_t hash_size = 0;
  uint32_t bucket_shift = 0; // fast parse: hash shift for the bucket index

  Buffer<uint8_t> block; // input block
  size_t fill = 0;
  Buffer<uint32_t> work; // bit-stream words not yet in the output
  size_t work_len = 0;
  Buffer<uint32_t> head;  // search buffer 1: hash heads (position + 1)
  Buffer<uint32_t> chain; // search buffer 2: previous position + 1, by position
  Buffer<uint8_t> ring;   // fast parse: per bucket the slot written next
  Buffer<uint32_t> cum;   // literal cost prefix sums over the block
  Buffer<uint32_t> price; // optimal parse: fewest bits to reach each position
  Buffer<uint64_t> step;  // the token that reaches it: length << 32 | distance

  Buffer<uint8_t> out; // output not yet written to the file (or all of it)
  size_t out_len = 0, out_cap = 0;

  uint64_t counts[256] = {};
  bool ranked = false;
  Code lit[256] = {};    // literal code by byte value
  bool run_ok[256] = {}; // byte can be the byte of a run token
  uint32_t litcost[256] = {};

  uint64_t acc = 0; // bit writer
  uint32_t nacc = 0;

  bool failed = false, ended = false, taken = false;
  size_t inserted = 0; // next block position to enter into the hash chains
  uint32_t last_dist = 0;
};

// The one compression of the process (null before the first Compress_Init).
std::unique_ptr<Compressor> g_comp;

// Makes room for extra more bytes in the output buffer. Returns false (the
// buffer unchanged) when memory runs out.
bool out_reserve(Compressor &c, size_t extra) {
  size_t need = c.out_len + extra;
  if (need <= c.out_cap) return true;
  // Grow in steps of 10000 bytes, by at least half the size so that long
  // in-memory streams are not copied over and over.
  size_t cap = std::max(need, c.out_cap + c.out_cap / 2);
  cap = (cap + kOutputStep - 1) / kOutputStep * kOutputStep;
  void *p = std::realloc(c.out.get(), cap);
  if (!p) return false;
  (void)c.out.release();
  c.out.reset(static_cast<uint8_t *>(p));
  c.out_cap = cap;
  return true;
}

// Moves the staged bit-stream words into the output buffer as little-endian
// bytes. Returns false (nothing moved) when the buffer cannot grow.
bool flush_work(Compressor &c) {
  if (!out_reserve(c, c.work_len * 4)) return false;
  uint8_t *dst = c.out.get() + c.out_len;
  for (size_t i = 0; i < c.work_len; ++i) store_le32(dst + 4 * i, c.work[i]);
  c.out_len += c.work_len * 4;
  c.work_len = 0;
  return true;
}

// Writes the pending output to the file (FILE output only).
bool flush_file(Compressor &c) {
  if (!c.file || c.out_len == 0) return true;
  if (std::fwrite(c.out.get(), 1, c.out_len, c.file) != c.out_len) return false;
  c.out_len = 0;
  return true;
}

// Appends the n low bits of v (n <= 32) to the bit stream.
inline void put_bits(Compressor &c, uint32_t v, uint32_t n) {
  c.acc = (c.acc << n) | v;
  c.nacc += n;
  if (c.nacc >= 32) {
    c.nacc -= 32;
    c.work[c.work_len++] = uint32_t(c.acc >> c.nacc);
    if (c.work_len == kWorkWords && !flush_work(c)) c.failed = true;
  }
}

// Fixes the rank table from the counts so far and derives the codes.
void make_ranks(Compressor &c) {
  uint8_t order[256];
  for (int i = 0; i < 256; ++i) order[i] = uint8_t(i);
  std::stable_sort(order, order + 256,
                   [&](uint8_t a, uint8_t b) { return c.counts[a] < c.counts[b]; });
  std::memcpy(c.out.get() + 13, order, 256);
  for (int r = 0; r < 256; ++r) {
    uint8_t b = order[r];
    c.lit[b] = literal_code(r);
    c.litcost[b] = c.lit[b].len;
    c.run_ok[b] = r != 0; // class 7 value 195 is not accepted inside a run
  }
  c.ranked = true;
}

inline uint32_t hash5(const uint8_t *p, uint32_t shift) {
  return uint32_t(((load64(p) << 24) * 0xcf1bbcdcb7a56463ull) >> shift);
}

inline uint32_t match_length(const uint8_t *a, const uint8_t *b, uint32_t limit) {
  uint32_t len = 0;
  while (len + 8 <= limit) {
    uint64_t x = load64(a + len) ^ load64(b + len);
    if (x) return len + uint32_t(std::countr_zero(x) >> 3);
    len += 8;
  }
  while (len < limit && a[len] == b[len]) ++len;
  return len;
}

// One coding choice at a position: a repeat (dist > 0), a run (dist 0, len
// >= 3) or nothing (len 0). gain is the number of bits saved against literals.
struct Choice {
  int32_t gain = 0;
  uint32_t len = 0;
  uint32_t dist = 0;
};

inline int32_t repeat_cost(const Compressor &c, uint32_t len, uint32_t dist) {
  return int32_t(11 + distance_bits(dist) + kLengthBits[length_select(len - c.comp_min)]);
}
inline int32_t run_cost(const Compressor &c, uint32_t len, uint8_t b) {
  return int32_t(11 + std::max<uint32_t>(3, uint32_t(std::bit_width(len - 3))) + c.litcost[b]);
}

inline void insert_position(Compressor &c, const uint8_t *src, size_t p) {
  uint32_t h = hash5(src + p, c.hash_shift);
  c.chain[p & c.window_mask] = c.head[h];
  c.head[h] = uint32_t(p + 1);
}

// Fast parse: a bucketed hash table over 6-byte prefixes. A bucket holds
// the kWays most recent positions with its hash as a ring (c.ring keeps the
// slot written next), so entering a position is one store and a search reads
// two cache lines of the table. Each entry is position + 1 (21 bits, 0 =
// empty), 3 further bits of the hash and the byte after the hashed prefix.
// Candidates whose byte matches too ("strong") are checked newest first;
// the others can only give a 6-byte repeat and are tried only when nothing
// longer was found. Only the strong candidates touch the block, which is
// where the time of a search goes (cache misses in the 1 MiB block).
constexpr uint32_t kPosBits = 21;
constexpr uint32_t kPosMask = (1u << kPosBits) - 1;
constexpr uint32_t kHashCheck = 7u << kPosBits;

struct Slot {
  uint32_t *bucket;
  uint8_t *next; // slot of the bucket that the next position overwrites
  uint32_t tag;  // check bits and next byte, in place above the position
};

// The bucket of the position at p (which has at least 5 bytes left; the
// block buffer has slack, so the bytes read past the block only change the
// hash).
inline Slot slot_of(const Compressor &c, const uint8_t *p) {
  const uint64_t h = (load64(p) << 16) * 0xcf1bbcdcb7a56463ull;
  const size_t b = size_t(h >> c.bucket_shift);
  return {c.head.get() + (b << kWaysLog), c.ring.get() + b,
          (uint32_t(h >> (c.bucket_shift - 3)) & 7) << kPosBits | uint32_t(p[6]) << 24};
}

inline void bucket_push(const Slot &s, uint32_t pos1) {
  s.bucket[*s.next] = pos1 | s.tag;
  *s.next = uint8_t((*s.next + 1) & (kWays - 1));
}

// Enters every position before p into the buckets, then searches the best
// choice at p (and enters p), looking at the newest `ways` strong candidates.
// n is the block length.
Choice best_at(Compressor &c, const uint8_t *src, size_t n, size_t p, uint32_t ways = kWays) {
  const size_t last_start = n >= 5 ? n - 5 : 0; // positions with 5 bytes left
  if (n >= 5)
    for (size_t q = c.inserted; q < p && q <= last_start; ++q)
      bucket_push(slot_of(c, src + q), uint32_t(q + 1));
  c.inserted = std::max(c.inserted, p);

  Choice best;
  const uint32_t *cum = c.cum.get();
  const uint8_t *cur = src + p;
  const uint32_t remain = uint32_t(n - p);

  // A run of the byte at p.
  if (remain >= 3 && cur[1] == cur[0] && cur[2] == cur[0] && c.run_ok[cur[0]]) {
    uint32_t limit = std::min(remain, kMaxRun);
    uint32_t len = 3;
    while (len < limit && cur[len] == cur[0]) ++len;
    int32_t gain = int32_t(cum[p + len] - cum[p]) - run_cost(c, len, cur[0]);
    if (gain > 0) best = {gain, len, 0};
  }

  if (p > last_start || n < 5) return best;
  const Slot slot = slot_of(c, cur);
  const uint32_t *bucket = slot.bucket;
  // The next position is searched or entered soon: fetch its bucket now.
  if (p + 1 <= last_start) __builtin_prefetch(slot_of(c, cur + 1).bucket);
  const uint32_t maxlen = std::min(remain, c.max_token);
  uint32_t best_len = c.comp_min - 1;

  auto consider = [&](uint32_t cand) {
    uint32_t len = match_length(src + cand, cur, maxlen);
    if (len <= best_len) return;
    best_len = len;
    uint32_t dist = uint32_t(p - cand);
    int32_t gain = int32_t(cum[p + len] - cum[p]) - repeat_cost(c, len, dist);
    if (gain > best.gain) best = {gain, len, dist};
  };

  // The previous distance first: repeated records keep their distance.
  if (c.last_dist && c.last_dist <= p && c.last_dist <= c.max_dist)
    consider(uint32_t(p - c.last_dist));

  // Strong and weak candidates as masks by slot.
  uint64_t strong = 0, weak = 0;
#if defined(__SSE2__)
  const __m128i tag = _mm_set1_epi32(int(slot.tag));
  const __m128i high = _mm_set1_epi32(int(~kPosMask)), check = _mm_set1_epi32(int(kHashCheck));
  for (uint32_t w = 0; w < kWays; w += 4) {
    __m128i x = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(bucket + w)), tag);
    __m128i all_eq = _mm_cmpeq_epi32(_mm_and_si128(x, high), _mm_setzero_si128());
    __m128i hash_eq = _mm_cmpeq_epi32(_mm_and_si128(x, check), _mm_setzero_si128());
    strong |= uint64_t(_mm_movemask_ps(_mm_castsi128_ps(all_eq))) << w;
    weak |= uint64_t(_mm_movemask_ps(_mm_castsi128_ps(hash_eq))) << w;
  }
#else
  for (uint32_t w = 0; w < kWays; ++w) {
    strong |= uint64_t((bucket[w] & ~kPosMask) == slot.tag) << w;
    weak |= uint64_t(((bucket[w] ^ slot.tag) & kHashCheck) == 0) << w;
  }
#endif
  weak &= ~strong;
  // Rotated so that the newest entry is the highest bit, older ones below.
  const uint32_t next = *slot.next;
  auto newest_first = [&](uint64_t m) {
    return ((m >> next) | (m << (kWays - next))) & ((uint64_t(1) << kWays) - 1);
  };
  const uint32_t limit = p > c.max_dist ? uint32_t(p - c.max_dist) : 0;
  const uint32_t first4 = load32(cur);
  auto scan = [&](uint64_t match, int tries) {
    while (match && best_len < maxlen && tries-- > 0) {
      const uint32_t bit = uint32_t(63 - std::countl_zero(match));
      match &= ~(uint64_t(1) << bit);
      const uint32_t v = bucket[(bit + next) & (kWays - 1)] & kPosMask;
      if (v == 0 || v - 1 < limit) break; // empty entries and the ones too far back are last
      const uint32_t cand = v - 1;
      if (src[cand + best_len] == cur[best_len] && load32(src + cand) == first4) {
        consider(cand);
        if (best_len >= c.nice_len) break;
      }
    }
  };
  uint64_t strong_first = newest_first(strong);
  if (ways < kWays) strong_first &= ~((uint64_t(1) << (kWays - ways)) - 1);
  scan(strong_first, int(kWays));
  if (best_len < 6) scan(newest_first(weak), kWeakTries);

  bucket_push(slot, uint32_t(p + 1));
  c.inserted = p + 1;
  return best;
}

inline void emit_literal(Compressor &c, uint8_t b) { put_bits(c, c.lit[b].bits, c.lit[b].len); }

void emit_choice(Compressor &c, const uint8_t *src, size_t p, const Choice &ch) {
  if (ch.dist == 0) {
    uint32_t count = ch.len - 3;
    uint32_t width = std::max<uint32_t>(3, uint32_t(std::bit_width(count)));
    put_bits(c, escape_code(int(12 - width)), 11);
    put_bits(c, count, width);
    emit_literal(c, src[p]);
    return;
  }
  uint32_t stored = ch.len - c.comp_min;
  uint32_t dbits = distance_bits(ch.dist);
  uint32_t sel = length_select(stored);
  put_bits(c, escape_code(int(21 + 3 * (dbits - 8) + sel)), 11);
  put_bits(c, ch.dist, dbits);
  put_bits(c, stored, kLengthBits[sel]);
  c.last_dist = ch.dist;
}

// Thorough parse of src[0..n): every position is searched, and a forward
// pass keeps for each position the cheapest way to reach it. Repeats of
// nice_len and runs of kNiceLen bytes or more are taken at once. Returns
// false when the output cannot grow.
bool compress_block_optimal(Compressor &c, const uint8_t *src, size_t n) {
  uint32_t *price = c.price.get();
  uint64_t *step = c.step.get();
  price[0] = 0;
  for (size_t i = 1; i <= n; ++i) price[i] = UINT32_MAX;
  auto relax = [&](size_t to, uint32_t cost, uint32_t len, uint32_t dist) {
    if (cost < price[to]) {
      price[to] = cost;
      step[to] = uint64_t(len) << 32 | dist;
    }
  };
  const size_t last_start = n >= 5 ? n - 5 : 0;
  const uint32_t hash_shift = c.hash_shift;
  uint32_t run_left = 0; // length of the run at the previous position
  size_t i = 0;
  while (i < n) {
    const uint8_t *cur = src + i;
    const uint32_t base = price[i];
    relax(i + 1, base + c.litcost[cur[0]], 1, 0);
    const uint32_t remain = uint32_t(n - i);
    // Runs: the run length at i follows from the one at i - 1.
    uint32_t run = 0;
    if (run_left > 1 && i > 0 && cur[-1] == cur[0]) {
      run = run_left - 1;
      if (run == kMaxRun - 1 && remain > run && cur[run] == cur[0]) ++run;
    } else if (remain >= 3 && cur[1] == cur[0] && cur[2] == cur[0]) {
      uint32_t limit = std::min(remain, kMaxRun);
      run = 3;
      while (run < limit && cur[run] == cur[0]) ++run;
    }
    run_left = run;
    if (run >= 3 && c.run_ok[cur[0]]) {
      uint32_t lc = c.litcost[cur[0]];
      for (uint32_t len = 3; len <= std::min<uint32_t>(run, 34); ++len)
        relax(i + len, base + 11 + std::max<uint32_t>(3, uint32_t(std::bit_width(len - 3))) + lc,
              len, 0);
      for (uint32_t w = 6; w <= 12; ++w) {
        uint32_t len = std::min<uint32_t>(run, (1u << w) + 2);
        if (len > 34) relax(i + len, base + 11 + w + lc, len, 0);
      }
      if (run >= kNiceLen) {
        // A long run is taken as it is.
        if (n >= 5)
          for (size_t q = i; q < i + run && q <= last_start; ++q) insert_position(c, src, q);
        relax(i + run, base + uint32_t(run_cost(c, run, cur[0])), run, 0);
        i += run;
        run_left = 0;
        continue;
      }
    }
    if (i > last_start || n < 5) {
      ++i;
      continue;
    }
    // Repeats: candidates nearest first, each one counted for the lengths it
    // adds beyond the nearer ones.
    const uint32_t maxlen = std::min(remain, c.max_token);
    const uint32_t limit = i > c.max_dist ? uint32_t(i - c.max_dist) : 0;
    const uint32_t h = hash5(cur, hash_shift);
    uint32_t hv = c.head[h];
    const uint32_t first4 = load32(cur);
    uint32_t best_len = c.comp_min - 1, best_dist = 0;
    int depth = c.max_chain;
    while (hv != 0 && depth-- > 0 && best_len < maxlen) {
      uint32_t cand = hv - 1;
      if (cand < limit) break;
      if (src[cand + best_len] == cur[best_len] && load32(src + cand) == first4) {
        uint32_t len = match_length(src + cand, cur, maxlen);
        if (len > best_len) {
          uint32_t dist = uint32_t(i - cand);
          uint32_t dcost = base + 11 + distance_bits(dist);
          for (uint32_t l = best_len + 1; l <= len; ++l)
            relax(i + l, dcost + kLengthBits[length_select(l - c.comp_min)], l, dist);
          best_len = len;
          best_dist = dist;
          if (len >= c.nice_len) break;
        }
      }
      uint32_t next = c.chain[cand & c.window_mask];
      if (next == 0 || next - 1 >= cand) break;
      hv = next;
    }
    c.chain[i & c.window_mask] = c.head[h];
    c.head[h] = uint32_t(i + 1);
    if (best_dist != 0 && best_len >= c.nice_len) {
      // A long repeat is taken as it is.
      for (size_t q = i + 1; q < i + best_len && q <= last_start; ++q) insert_position(c, src, q);
      i += best_len;
      run_left = 0;
      continue;
    }
    ++i;
  }
  // Walk back from the end noting where each token ends (the prefix sums
  // are not needed by this parse), then emit the tokens front to back.
  uint32_t *ends = c.cum.get();
  size_t count = 0;
  for (size_t at = n; at > 0; at -= size_t(step[at] >> 32)) ends[count++] = uint32_t(at);
  for (size_t k = count; k-- > 0 && !c.failed;) {
    const size_t at = ends[k];
    const uint32_t len = uint32_t(step[at] >> 32), dist = uint32_t(step[at]);
    if (len == 1)
      emit_literal(c, src[at - 1]);
    else
      emit_choice(c, src, at - len, Choice{0, len, dist});
  }
  return !c.failed && flush_work(c);
}

// Codes src[0..n) as one block. Returns false when the output cannot grow.
bool compress_block(Compressor &c, const uint8_t *src, size_t n) {
  if (!c.ranked) make_ranks(c);
  if (c.thorough) {
    std::memset(c.head.get(), 0, sizeof(uint32_t) * c.hash_size);
  } else {
    const size_t buckets = size_t(1) << (64 - c.bucket_shift);
    std::memset(c.head.get(), 0, sizeof(uint32_t) * buckets * kWays);
    std::memset(c.ring.get(), 0, buckets);
  }
  c.inserted = 0;
  c.last_dist = 0;
  if (c.thorough) return compress_block_optimal(c, src, n);
  uint32_t *cum = c.cum.get();
  cum[0] = 0;
  for (size_t i = 0; i < n; ++i) cum[i + 1] = cum[i] + c.litcost[src[i]];

  size_t p = 0;
  uint32_t misses = 0;
  while (p < n && !c.failed) {
    Choice ch = best_at(c, src, n, p);
    if (ch.len == 0) {
      emit_literal(c, src[p++]);
      // Stretches without any match (compressed or random data) are
      // searched ever more sparsely.
      size_t skip = std::min<size_t>(++misses >> kSkipShift, n - p);
      for (size_t i = 0; i < skip; ++i) emit_literal(c, src[p++]);
      if (skip) c.inserted = p;
      continue;
    }
    misses = 0;
    // Lazy look: a literal here and a better token at the next position.
    for (int step = 0; step < kLazySteps && ch.len < kLazyLen && p + 1 < n; ++step) {
      Choice next = best_at(c, src, n, p + 1, ch.len >= kGoodLen ? kGoodWays : kWays);
      if (next.gain <= ch.gain) break;
      emit_literal(c, src[p++]);
      ch = next;
    }
    emit_choice(c, src, p, ch);
    p += ch.len;
  }
  return !c.failed && flush_work(c);
}

// ---------------------------------------------------------------------------
// Decompressor

constexpr size_t kReadChunk = 262144; // FILE input is read in pieces of this size
constexpr uint16_t kEscapeFlag = 0x8000;

struct Decompressor {
  // The input buffer is kept and only grown across runs.
  Buffer<uint8_t> in;
  size_t in_cap = 0, in_len = 0, in_pos = 0;
  FILE *file = nullptr;
  bool file_done = false;

  Buffer<uint8_t> out; // one output block plus slack for 8-byte copies
  size_t out_len = 0, out_pos = 0;

  int64_t comp_min = 5;
  uint16_t table[2048] = {}; // by the next 11 bits: literal (len << 8 | byte) or escape

  uint64_t bits = 0;  // left-aligned bit buffer
  uint32_t nbits = 0; // valid bits in it
  uint64_t pad = 0;   // zero bits appended past the end of the input

  bool ready = false, failed = false, end_seen = false;
};

// The one decompression of the process.
Decompressor g_dec;

// Makes the input buffer hold at least need bytes, keeping its contents.
// Returns false (the buffer unchanged) when memory runs out.
bool in_reserve(Decompressor &d, size_t need) {
  if (need <= d.in_cap) return true;
  size_t cap = std::max(need, d.in_cap + d.in_cap / 2);
  void *p = std::realloc(d.in.get(), cap);
  if (!p) return false;
  (void)d.in.release();
  d.in.reset(static_cast<uint8_t *>(p));
  d.in_cap = cap;
  return true;
}

// Reads more of a FILE input behind the unread bytes. Returns false when
// nothing more comes.
bool fetch_input(Decompressor &d) {
  if (!d.file || d.file_done) return false;
  size_t keep = d.in_len - d.in_pos;
  if (d.in_pos > 0) {
    std::memmove(d.in.get(), d.in.get() + d.in_pos, keep);
    d.in_pos = 0;
    d.in_len = keep;
  }
  if (!in_reserve(d, keep + kReadChunk)) return false;
  size_t got = std::fread(d.in.get() + d.in_len, 1, kReadChunk, d.file);
  if (got == 0) {
    d.file_done = true;
    return false;
  }
  d.in_len += got;
  return true;
}

// Loads the next input word; past the end of the input a zero word that is
// counted in pad.
[[gnu::noinline]] uint32_t next_word_slow(Decompressor &d) {
  while (d.in_len - d.in_pos < 4)
    if (!fetch_input(d)) {
      d.pad += 32;
      return 0;
    }
  uint32_t w = load_le32(d.in.get() + d.in_pos);
  d.in_pos += 4;
  return w;
}

// Makes at least 33 bits available.
inline void refill(Decompressor &d) {
  while (d.nbits <= 32) {
    uint32_t w;
    if (d.in_len - d.in_pos >= 4) [[likely]] {
      w = load_le32(d.in.get() + d.in_pos);
      d.in_pos += 4;
    } else {
      w = next_word_slow(d);
    }
    d.bits |= uint64_t(w) << (32 - d.nbits);
    d.nbits += 32;
  }
}

inline uint32_t take(Decompressor &d, uint32_t n) {
  uint32_t v = uint32_t(d.bits >> (64 - n));
  d.bits <<= n;
  d.nbits -= n;
  return v;
}
// True when the bits consumed so far reach into the padding past the input.
inline bool overdrawn(const Decompressor &d) { return d.pad > d.nbits; }

// Fills the token table for the rank table rank[0..255].
void build_table(Decompressor &d, const uint8_t *rank) {
  for (uint32_t idx = 0; idx < 2048; ++idx) {
    uint32_t cls = idx >> 8;
    int r;
    uint32_t len;
    if (cls < 4) {
      r = 255 - int(cls), len = 3;
    } else if (cls == 4) {
      r = 251 - int((idx >> 5) & 7), len = 6;
    } else if (cls == 5) {
      r = 243 - int((idx >> 4) & 15), len = 7;
    } else if (cls == 6) {
      r = 227 - int((idx >> 3) & 31), len = 8;
    } else {
      uint32_t v = idx & 255;
      if (v >= 196) {
        d.table[idx] = uint16_t(kEscapeFlag | (v - 196));
        continue;
      }
      r = 195 - int(v), len = 11;
    }
    d.table[idx] = uint16_t(len << 8 | rank[r]);
  }
}

// Copies a repeat of n bytes from dist bytes back; dst has 16 bytes of slack.
inline void copy_repeat(uint8_t *dst, size_t dist, size_t n) {
  const uint8_t *src = dst - dist;
  if (dist >= 16) {
    // 16-byte steps may write up to 15 bytes past the repeat: the buffer has
    // slack and those bytes are overwritten later.
    for (size_t i = 0; i < n; i += 16) std::memcpy(dst + i, src + i, 16);
  } else if (dist >= 8) {
    for (size_t i = 0; i < n; i += 8) std::memcpy(dst + i, src + i, 8);
  } else {
    for (size_t i = 0; i < n; ++i) dst[i] = src[i];
  }
}

// Decodes the next block into out (VARNE_BLOCK + 16 bytes) and stores its
// length in *produced. Returns false on a damaged stream.
bool decode_block(Decompressor &d, uint8_t *out, size_t *produced) {
  size_t o = 0;
  *produced = 0;
  const uint16_t *table = d.table;
  for (;;) {
    {
      // Fast loop: while 12 input bytes are left no token can reach past the
      // input, so only the block bounds are checked. The state lives in
      // locals because stores to out may alias any member.
      uint64_t bits = d.bits;
      uint32_t nbits = d.nbits;
      const uint8_t *ip = d.in.get() + d.in_pos;
      const uint8_t *const iend = d.in.get() + d.in_len;
      const uint32_t comp_min = uint32_t(d.comp_min);
      const bool plain_min = d.comp_min >= 0 && d.comp_min <= 1024;
      bool bad = false;
      while (o + 3 <= VARNE_BLOCK && iend - ip >= 12 && plain_min) {
        while (nbits <= 32) {
          bits |= uint64_t(load_le32(ip)) << (32 - nbits);
          ip += 4;
          nbits += 32;
        }
        uint32_t e = table[bits >> 53];
        if (!(e & kEscapeFlag)) [[likely]] {
          bits <<= e >> 8;
          nbits -= e >> 8;
          out[o++] = uint8_t(e);
          e = table[bits >> 53];
          if (e & kEscapeFlag) continue;
          bits <<= e >> 8;
          nbits -= e >> 8;
          out[o++] = uint8_t(e);
          e = table[bits >> 53];
          if (e & kEscapeFlag) continue;
          bits <<= e >> 8;
          nbits -= e >> 8;
          out[o++] = uint8_t(e);
          continue;
        }
        const uint32_t k = e & 0xff;
        if (k == kEndEscape || (k > 9 && k < 21)) break; // the careful path decides
        bits <<= 11;
        nbits -= 11;
        if (nbits <= 32) {
          bits |= uint64_t(load_le32(ip)) << (32 - nbits);
          ip += 4;
          nbits += 32;
        }
        if (k <= 9) {
          const uint32_t w = 12 - k;
          const size_t n = size_t(bits >> (64 - w)) + 3;
          bits <<= w;
          nbits -= w;
          const uint32_t idx = uint32_t(bits >> 53);
          const uint32_t b = table[idx];
          if (b & kEscapeFlag || (idx >> 8 == 7 && (idx & 255) == 195) || n > VARNE_BLOCK - o) {
            bad = true;
            break;
          }
          bits <<= b >> 8;
          nbits -= b >> 8;
          std::memset(out + o, uint8_t(b), n);
          o += n;
        } else {
          const uint32_t j = k - 21;
          const uint32_t dbits = 8 + j / 3, lbits = kLengthBits[j % 3];
          const size_t dist = size_t(bits >> (64 - dbits));
          bits <<= dbits;
          nbits -= dbits;
          const size_t n = size_t(bits >> (64 - lbits)) + comp_min;
          bits <<= lbits;
          nbits -= lbits;
          if (dist == 0 || dist > o || n > VARNE_BLOCK - o) {
            bad = true;
            break;
          }
          copy_repeat(out + o, dist, n);
          o += n;
        }
      }
      d.bits = bits;
      d.nbits = nbits;
      d.in_pos = size_t(ip - d.in.get());
      if (bad) return false;
    }
    if (o >= VARNE_BLOCK) break;

    // Careful path: one token near the end of the input or the block, or an
    // escape that ends the data or is invalid.
    refill(d);
    uint16_t e = table[d.bits >> 53];
    if (!(e & kEscapeFlag)) {
      take(d, e >> 8);
      if (overdrawn(d)) return false;
      out[o++] = uint8_t(e);
      continue;
    }
    uint32_t k = e & 0xff;
    take(d, 11);
    if (k == kEndEscape) {
      if (overdrawn(d)) return false;
      d.end_seen = true;
      break;
    }
    refill(d);
    if (k <= 9) {
      uint32_t count = take(d, 12 - k);
      uint32_t idx = uint32_t(d.bits >> 53);
      uint16_t b = table[idx];
      // The run byte: no escape, and class 7 only below 195.
      if (b & kEscapeFlag || (idx >> 8 == 7 && (idx & 255) == 195)) return false;
      take(d, b >> 8);
      if (overdrawn(d)) return false;
      size_t n = count + 3;
      if (n > VARNE_BLOCK - o) return false;
      std::memset(out + o, uint8_t(b), n);
      o += n;
    } else if (k >= 21 && k <= 59) {
      uint32_t j = k - 21;
      uint32_t dist = take(d, 8 + j / 3);
      int64_t len = int64_t(take(d, kLengthBits[j % 3])) + d.comp_min;
      if (overdrawn(d)) return false;
      if (dist == 0 || dist > o || len < 0 || uint64_t(len) > VARNE_BLOCK - o) return false;
      copy_repeat(out + o, dist, size_t(len));
      o += size_t(len);
    } else {
      return false; // escapes 10..13 and 15..20
    }
  }
  *produced = o;
  return true;
}

// Checks the header at d.in[0..in_len) and prepares the decoding.
int start_decoding(Decompressor &d) {
  d.ready = false;
  if (d.in_len < sizeof kMagic || std::memcmp(d.in.get(), kMagic, sizeof kMagic) != 0) {
    std::fputs("(Uncompress_Init) Not in Varne-format!\n", stderr);
    return 0;
  }
  if (d.in_len < VARNE_HEADER) return 0;
  if (!d.out) {
    d.out = allocate<uint8_t>(VARNE_BLOCK + 16);
    if (!d.out) return 0;
  }
  const uint8_t *h = d.in.get();
  d.comp_min = int32_t(load_le32(h + 9));
  build_table(d, h + 13);
  d.in_pos = VARNE_HEADER;
  d.bits = 0;
  d.nbits = 0;
  d.pad = 0;
  d.out_len = d.out_pos = 0;
  d.failed = d.end_seen = false;
  d.ready = true;
  return 1;
}

} // namespace

int Compress_Init(FILE *output, int comp_min, int comp_cache) {
  g_comp.reset();
  if (comp_min < 5 || comp_min > 256) {
    msg_print("(Compress_Init) Warning: Comp_Min = %d invalid (must be between 5 and 256) -> "
              "using 5.\n",
              comp_min);
    comp_min = 5;
  }
  if (comp_cache < 5 || comp_cache > 4096) {
    msg_print("(Compress_Init) Warning: Comp_Cache = %d invalid (must be between 5 and 4096) -> "
              "using 256.\n",
              comp_cache);
    comp_cache = 5;
  }
  auto c = std::unique_ptr<Compressor>(new (std::nothrow) Compressor);
  if (!c) return 0;
  const size_t entries = size_t(comp_cache) * 1024 / sizeof(uint32_t);
  c->block = allocate<uint8_t>(kInputBuffer);
  c->work = allocate<uint32_t>(kWorkWords);
  c->head = allocate<uint32_t>(entries);
  c->chain = allocate<uint32_t>(entries);
  c->cum = allocate<uint32_t>(VARNE_BLOCK + 1);
  if (!c->block || !c->work || !c->head || !c->chain || !c->cum) return 0;

  c->file = output;
  c->comp_min = uint32_t(comp_min);
  c->max_token = c->comp_min + 255;
  c->nice_len = std::max(kNiceLen, c->comp_min);
  // The chain ring and the hash heads use the largest power of two of
  // entries that fits their buffer.
  const uint32_t window = std::bit_floor(uint32_t(entries));
  c->window_mask = window - 1;
  c->max_dist = std::min(window - 1, kMaxDistance);
  const uint32_t hash_bits = std::min<uint32_t>(kHashBits, uint32_t(std::bit_width(window)) - 1);
  c->hash_size = 1u << hash_bits;
  c->hash_shift = 64 - hash_bits;
  // The fast parse's buckets live in the first search buffer (the second
  // one is used by the thorough parse only).
  const uint32_t bucket_bits =
      std::min<uint32_t>(kBucketBits, uint32_t(std::bit_width(window)) - 1 - kWaysLog);
  c->bucket_shift = 64 - bucket_bits;
  c->ring = allocate<uint8_t>(size_t(1) << bucket_bits);
  if (!c->ring) return 0;

  if (!out_reserve(*c, VARNE_HEADER)) return 0;
  uint8_t *h = c->out.get();
  std::memcpy(h, kMagic, sizeof kMagic);
  store_le32(h + 9, uint32_t(comp_min));
  for (int i = 0; i < 256; ++i) h[13 + i] = uint8_t(i);
  c->out_len = VARNE_HEADER;
  g_comp = std::move(c);
  return 1;
}

int Compress_Thorough(int on) {
  if (!g_comp) msg_fatal("(Compress_Thorough) No compression started\n");
  Compressor &c = *g_comp;
  if (c.fill > 0 || c.ranked || c.ended)
    msg_fatal("(Compress_Thorough) Compression already running\n");
  if (on && !c.price) {
    // The forward pass needs a cost and a token per position of a block.
    c.price = allocate<uint32_t>(VARNE_BLOCK + 1);
    c.step = allocate<uint64_t>(VARNE_BLOCK + 1);
    if (!c.price || !c.step) {
      c.price.reset();
      c.step.reset();
      return 0;
    }
  }
  c.thorough = on != 0;
  return 1;
}

int Compress_Write(const void *data, size_t length) {
  if (!g_comp) msg_fatal("(Compress_Write) No compression started\n");
  Compressor &c = *g_comp;
  if (c.ended) msg_fatal("(Compress_Write) Compression already ended\n");
  if (c.failed) return 0;
  const uint8_t *src = static_cast<const uint8_t *>(data);
  while (length > 0) {
    size_t n = std::min(length, VARNE_BLOCK - c.fill);
    std::memcpy(c.block.get() + c.fill, src, n);
    for (size_t i = 0; i < n; ++i) ++c.counts[src[i]];
    c.fill += n;
    src += n;
    length -= n;
    if (c.fill == VARNE_BLOCK) {
      if (!compress_block(c, c.block.get(), c.fill) || !flush_file(c)) {
        c.failed = true;
        return 0;
      }
      c.fill = 0;
    }
  }
  return 1;
}

int Compress_End() {
  if (!g_comp) msg_fatal("(Compress_End) No compression started\n");
  Compressor &c = *g_comp;
  if (c.ended) msg_fatal("(Compress_End) Compression already ended\n");
  c.ended = true;
  if (c.failed) return 0;
  if ((c.fill > 0 || !c.ranked) && !compress_block(c, c.block.get(), c.fill)) {
    c.failed = true;
    return 0;
  }
  c.fill = 0;
  put_bits(c, escape_code(kEndEscape), 11);
  if (c.nacc > 0) put_bits(c, 0, 32 - c.nacc);
  if (c.failed || !flush_work(c) || !flush_file(c) || (c.file && std::fflush(c.file) != 0)) {
    c.failed = true;
    return 0;
  }
  return 1;
}

unsigned char *Compress_Take(size_t *length) {
  if (!g_comp) return nullptr;
  Compressor &c = *g_comp;
  if (c.file || !c.ended || c.failed || c.taken) return nullptr;
  c.taken = true;
  *length = c.out_len;
  c.out_len = c.out_cap = 0;
  return c.out.release();
}

int Uncompress_Init(const void *data, size_t length) {
  Decompressor &d = g_dec;
  d.ready = false;
  d.file = nullptr;
  d.file_done = true;
  if (!in_reserve(d, std::max<size_t>(length, 1))) return 0;
  if (length > 0) std::memcpy(d.in.get(), data, length);
  d.in_len = length;
  d.in_pos = 0;
  return start_decoding(d);
}

int Uncompress_Open(FILE *input) {
  Decompressor &d = g_dec;
  d.ready = false;
  d.file = input;
  d.file_done = false;
  d.in_len = d.in_pos = 0;
  while (d.in_len < VARNE_HEADER && fetch_input(d)) {
  }
  return start_decoding(d);
}

long Uncompress_Read(void *buffer, size_t length) {
  Decompressor &d = g_dec;
  if (!d.ready || d.failed) return -1;
  length = std::min<size_t>(length, size_t(LONG_MAX));
  uint8_t *dst = static_cast<uint8_t *>(buffer);
  size_t done = 0;
  while (done < length) {
    if (d.out_pos == d.out_len) {
      if (d.end_seen) break;
      d.out_pos = d.out_len = 0;
      size_t n = 0;
      if (length - done >= VARNE_BLOCK + 16) {
        // A whole block (and the copy slack) fits: decode in place.
        if (!decode_block(d, dst + done, &n)) {
          d.failed = true;
          return -1;
        }
        done += n;
        if (n < VARNE_BLOCK) break;
        continue;
      }
      if (!decode_block(d, d.out.get(), &n)) {
        d.failed = true;
        return -1;
      }
      d.out_len = n;
      if (n == 0) break;
    }
    size_t n = std::min(length - done, d.out_len - d.out_pos);
    std::memcpy(dst + done, d.out.get() + d.out_pos, n);
    d.out_pos += n;
    done += n;
  }
  return long(done);
}
