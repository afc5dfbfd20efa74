// Field comparison and the sort permutation of the tabbox (see mytabs_sort.h).
// Sorting precomputes each line's key fields once (number flag, value, text,
// an 8-byte prefix of the folded text) so that the comparisons of the
// tournament tree touch no raw text in the common case.
#include "forms/mytabs_sort.h"

#include "forms/mytabs_int.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace {

// The text rule's value of every byte: ASCII upper case, Ä Ö Ü folded, then
// read as a signed 8-bit number.
constexpr std::array<int, 256> make_fold() {
  std::array<int, 256> t{};
  for (int c = 0; c < 256; ++c) {
    int u = c;
    if (u >= 'a' && u <= 'z') u -= 32;
    if (u == 196) u = 'A';
    if (u == 214) u = 'O';
    if (u == 220) u = 'U';
    t[c] = static_cast<signed char>(static_cast<unsigned char>(u));
  }
  return t;
}
constexpr std::array<int, 256> kFold = make_fold();

int compare_folded(const char *a, size_t la, const char *b, size_t lb) {
  size_t n = la < lb ? la : lb;
  for (size_t i = 0; i < n; ++i) {
    int ca = kFold[static_cast<unsigned char>(a[i])];
    int cb = kFold[static_cast<unsigned char>(b[i])];
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  if (la == lb) return 0;
  return la < lb ? -1 : 1;
}

// One key field of one line, ready for comparison.
struct KeyField {
  double value;
  uint64_t prefix; // first 8 folded characters, +128 each, big-endian, 0-padded
  const char *text;
  uint32_t len;
  uint32_t is_number;
};

uint64_t folded_prefix(std::string_view f) {
  uint64_t p = 0;
  for (size_t i = 0; i < 8; ++i) {
    uint64_t c =
        i < f.size() ? static_cast<uint64_t>(kFold[static_cast<unsigned char>(f[i])] + 128) : 0;
    p = (p << 8) | c;
  }
  return p;
}

int compare_keys(const KeyField &a, const KeyField &b) {
  if (a.is_number && b.is_number) return a.value < b.value ? -1 : a.value > b.value ? 1 : 0;
  // Differing prefixes decide at a position where both texts still have a
  // character, or where the shorter ended (padding 0 is below every
  // character but one: equal prefixes fall through to the full walk).
  if (a.prefix != b.prefix) return a.prefix < b.prefix ? -1 : 1;
  return compare_folded(a.text, a.len, b.text, b.len);
}

// The field of column col without the surrounding "|" and blanks, as a view
// into the raw text.
std::string_view field_view(const FL_TABBOX_REC *rec, std::string_view text, int col) {
  if (col < 1 || col >= static_cast<int>(rec->col_end.size())) return {};
  int from = rec->col_end[col - 1], to = rec->col_end[col];
  if (from < 0 || to < from) return {};
  size_t a = std::min<size_t>(from, text.size()), b = std::min<size_t>(to, text.size());
  while (a < b && (text[a] == ' ' || text[a] == '|')) ++a;
  while (b > a && (text[b - 1] == ' ' || text[b - 1] == '|')) --b;
  return text.substr(a, b - a);
}

// Stable counting sort of the indexes idx by key[idx] (keys below range).
std::vector<uint32_t> counting_sort(const std::vector<uint32_t> &idx,
                                    const std::vector<uint32_t> &key, uint32_t range) {
  std::vector<uint32_t> count(static_cast<size_t>(range) + 1, 0), out(idx.size());
  for (uint32_t i : idx) ++count[key[i] + 1];
  for (uint32_t r = 0; r < range; ++r) count[r + 1] += count[r];
  for (uint32_t i : idx) out[count[key[i]]++] = i;
  return out;
}

// Dense ranks (0, 1, ...) of the lines by one key column whose fields are
// all numbers or all texts; the highest rank is returned in *top.
void rank_column(const std::vector<KeyField> &keys, int n, int k, int key,
                 std::vector<uint32_t> &rk, uint32_t *top) {
  auto field = [&](uint32_t line) -> const KeyField & {
    return keys[static_cast<size_t>(line) * k + key];
  };
  uint32_t r = 0;
  if (n > 0 && field(0).is_number) {
    std::vector<std::pair<double, uint32_t>> v(n);
    for (int i = 0; i < n; ++i) v[i] = {field(i).value, static_cast<uint32_t>(i)};
    std::sort(v.begin(), v.end());
    for (int i = 0; i < n; ++i) {
      if (i > 0 && v[i - 1].first != v[i].first) ++r;
      rk[v[i].second] = r;
    }
    *top = r;
    return;
  }
  // Texts: by their 8-character prefixes first; only runs of equal prefixes
  // that may still differ (a text longer than 8, or one holding the byte
  // whose folded value equals the padding) are compared character by
  // character.
  std::vector<std::pair<uint64_t, uint32_t>> v(n);
  for (int i = 0; i < n; ++i) v[i] = {field(i).prefix, static_cast<uint32_t>(i)};
  std::sort(v.begin(), v.end());
  auto exact = [&](uint32_t line) {
    const KeyField &f = field(line);
    if (f.len > 8) return false;
    return std::memchr(f.text, 0x80, f.len) == nullptr;
  };
  for (int i = 0; i < n;) {
    int j = i + 1;
    while (j < n && v[j].first == v[i].first) ++j;
    if (i > 0) ++r;
    bool all_exact = true;
    for (int q = i; q < j && all_exact && j - i > 1; ++q) all_exact = exact(v[q].second);
    if (j - i == 1 || all_exact) {
      for (int q = i; q < j; ++q) rk[v[q].second] = r;
    } else {
      auto less = [&](const std::pair<uint64_t, uint32_t> &a,
                      const std::pair<uint64_t, uint32_t> &b) {
        const KeyField &x = field(a.second), &y = field(b.second);
        return compare_folded(x.text, x.len, y.text, y.len) < 0;
      };
      std::sort(v.begin() + i, v.begin() + j, less);
      for (int q = i; q < j; ++q) {
        if (q > i && less(v[q - 1], v[q])) ++r;
        rk[v[q].second] = r;
      }
    }
    i = j;
  }
  *top = r;
}

// Dense ranks of the lines by all keys (keys: n lines of k fields each, row
// by row): lines comparing equal get equal ranks, and rank order is line
// order. Each key column is ranked on its own; the ranks of the keys so far
// and of the next key are then combined by two counting sorts.
std::vector<uint32_t> line_ranks(const std::vector<KeyField> &keys, int n, int k, const int *dirs) {
  std::vector<uint32_t> rank(n, 0), rk(n), next(n);
  uint32_t ranks = 1;
  std::vector<uint32_t> all(n);
  for (int i = 0; i < n; ++i) all[i] = static_cast<uint32_t>(i);
  for (int key = 0; key < k; ++key) {
    uint32_t r = 0;
    rank_column(keys, n, k, key, rk, &r);
    if (dirs[key] == 0)
      for (uint32_t &x : rk) x = r - x;
    std::vector<uint32_t> by = counting_sort(counting_sort(all, rk, r + 1), rank, ranks);
    uint32_t c = 0;
    for (int i = 0; i < n; ++i) {
      uint32_t cur = by[i];
      if (i > 0 && (rank[by[i - 1]] != rank[cur] || rk[by[i - 1]] != rk[cur])) ++c;
      next[cur] = c;
    }
    rank.swap(next);
    ranks = c + 1;
  }
  return rank;
}

} // namespace

int tabbox_is_number(std::string_view f) {
  int seps = 0;
  for (char c : f) {
    if (c == '.' || c == ',') {
      if (++seps > 1) return 0;
    } else if (!((c >= '0' && c <= '9') || c == '-')) {
      return 0;
    }
  }
  return 1;
}

double tabbox_number_value(std::string_view f) {
  size_t end = f.find(' ');
  if (end == std::string_view::npos) end = f.size();
  if (end > 9999) end = 9999;
  double v = 0;
  // from_chars reads what strtod reads in the C locale, minus a leading '+'
  // and blanks, which number fields cannot hold.
  auto r = std::from_chars(f.data(), f.data() + end, v);
  if (r.ec != std::errc()) return 0;
  return v;
}

int tabbox_compare_text(std::string_view a, std::string_view b) {
  return compare_folded(a.data(), a.size(), b.data(), b.size());
}

int tabbox_compare_fields(std::string_view a, std::string_view b) {
  if (tabbox_is_number(a) && tabbox_is_number(b)) {
    double x = tabbox_number_value(a), y = tabbox_number_value(b);
    return x < y ? -1 : x > y ? 1 : 0;
  }
  return tabbox_compare_text(a, b);
}

std::vector<int> tabbox_sort_order(const FL_TABBOX_REC *rec) {
  const int n = rec->lines.size();
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  const int k = rec->nsort;
  if (k < 1 || n < 2) return order;
  std::vector<KeyField> keys(static_cast<size_t>(n) * k);
  bool mixed = false;
  for (int key = 0; key < k; ++key) {
    bool numbers = false, texts = false;
    for (int i = 0; i < n; ++i) {
      std::string_view f = field_view(rec, rec->lines.at(i), rec->sort_cols[key]);
      KeyField &kf = keys[static_cast<size_t>(i) * k + key];
      kf.is_number = tabbox_is_number(f);
      kf.value = kf.is_number ? tabbox_number_value(f) : 0;
      kf.prefix = folded_prefix(f);
      kf.text = f.data();
      kf.len = static_cast<uint32_t>(f.size());
      (kf.is_number ? numbers : texts) = true;
    }
    mixed = mixed || (numbers && texts);
  }
  const int *dirs = rec->sort_dirs.data();
  auto cmp = [&](int a, int b) {
    const KeyField *ka = &keys[static_cast<size_t>(a) * k];
    const KeyField *kb = &keys[static_cast<size_t>(b) * k];
    for (int key = 0; key < k; ++key) {
      int r = compare_keys(ka[key], kb[key]);
      if (r != 0) return dirs[key] == 0 ? -r : r;
    }
    return 0;
  };
  // A column holding both numbers and texts compares numbers with numbers by
  // value but with texts by the text rule, which need not be a consistent
  // order (9 < 10 < 1a < 9). Only the scan itself gives the selection sort's
  // result then; it is used while it stays affordable, beyond that the
  // tournament runs on the comparison as it is.
  if (mixed) {
    if (n <= 4096) {
      for (int i = 0; i < n - 1; ++i) {
        int m = i;
        for (int j = i + 1; j < n; ++j)
          if (cmp(order[m], order[j]) > 0) m = j;
        std::swap(order[i], order[m]);
      }
    } else {
      tabbox_tournament_order(order, cmp);
    }
    return order;
  }
  // Consistent keys: each line gets one number whose order is the lines'
  // order (equal lines, equal numbers), so that the tournament compares
  // integers that fit the cache instead of fields spread over the texts.
  return tabbox_rank_order(line_ranks(keys, n, k, dirs));
}

std::vector<int> tabbox_rank_order(const std::vector<uint32_t> &rank) {
  const int n = static_cast<int>(rank.size());
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  if (n < 2) return order;
  uint32_t groups = *std::max_element(rank.begin(), rank.end()) + 1;
  // Per rank a min-heap of the unfinished positions holding a line of that
  // rank, each in its own slice of one array; filled in position order, so
  // every slice starts as a sorted (and thus valid) heap.
  std::vector<uint32_t> start(static_cast<size_t>(groups) + 1, 0), size(groups, 0);
  for (uint32_t r : rank) ++size[r];
  for (uint32_t g = 0; g < groups; ++g) start[g + 1] = start[g] + size[g];
  std::vector<int> heap(n);
  {
    std::vector<uint32_t> fill(start.begin(), start.end() - 1);
    for (int p = 0; p < n; ++p) heap[fill[rank[p]]++] = p;
  }
  auto sift_down = [](int *h, uint32_t sz) {
    uint32_t i = 0;
    for (;;) {
      uint32_t l = 2 * i + 1, m = i;
      if (l < sz && h[l] < h[m]) m = l;
      if (l + 1 < sz && h[l + 1] < h[m]) m = l + 1;
      if (m == i) return;
      std::swap(h[i], h[m]);
      i = m;
    }
  };
  std::vector<uint32_t> rank_at(rank);
  uint32_t r = 0;
  for (int i = 0; i < n; ++i) {
    while (size[r] == 0) ++r;
    // m: the leftmost unfinished position of the smallest rank left. It
    // leaves its heap; position i is the smallest unfinished position of
    // all, so it is the top of its own rank's heap, where m takes its place.
    int *hr = &heap[start[r]];
    int m = hr[0];
    hr[0] = hr[--size[r]];
    sift_down(hr, size[r]);
    uint32_t gi = rank_at[i];
    if (gi != r) {
      int *hg = &heap[start[gi]];
      hg[0] = m;
      sift_down(hg, size[gi]);
      std::swap(order[i], order[m]);
      rank_at[m] = gi;
      rank_at[i] = r;
    }
  }
  return order;
}
