// Field comparison and the sort permutation of the tabbox (see mytabs_sort.h).
// Sorting precomputes each line's key fields once (number flag, value, text,
// an 8-byte prefix of the folded text) so that ranking the lines touches no
// raw text in the common case.
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

// The selection sort's scan over a comparison that mixes two consistent
// orders. Each line has a kind u (which keys hold numbers); lines of kinds u
// and w compare by the lexicographic order of their keys in which the keys
// that are numbers in both are read as values and the others as texts, so for
// each pair of kinds the comparison is one consistent order, given by a dense
// rank per line (rank(u, w, line)). The scan from position i keeps a
// candidate (the reign); it passes over the lines of its own kind as the
// scan over a consistent order does, ending at the leftmost smallest one,
// until a line of another kind compares below the candidate then reigning
// (a break), which becomes the candidate and changes the kind.
//
// A segment tree over the positions holds per node, for each kind u, the
// smallest own-kind rank with its leftmost position, for each other kind w the
// smallest rank(u, w) among the node's lines of kind w, and the scan's outcome
// over the right child for a reign coming out of the left child (its leftmost
// smallest line of kind u), so that one scan over a node follows a single
// path down: O(kinds * log n) per scan of a node, O(kinds^2 * log^2 n) per
// change of a position. A change of kind costs a new walk down; where the
// candidate changes kind more often than that pays, the rest of that scan
// is done plainly, so no step costs much more than the scan itself.
class ChainSort {
public:
  // kind[line] in 0..kinds-1; rank(u, w, line) as described.
  ChainSort(int n, int kinds, std::vector<int> kind, std::vector<std::vector<uint32_t>> ranks,
            std::vector<int> mask_of)
      : n_(n), kinds_(kinds), kind_(std::move(kind)), ranks_(std::move(ranks)),
        mask_of_(std::move(mask_of)) {
    size_ = 1;
    while (size_ < n_) size_ <<= 1;
    const size_t nodes = 2 * static_cast<size_t>(size_);
    min_.assign(static_cast<size_t>(kinds_) * nodes, kNone);
    arg_.assign(static_cast<size_t>(kinds_) * nodes, -1);
    pair_.assign(static_cast<size_t>(kinds_) * kinds_ * nodes, kNone);
    stored_.assign(static_cast<size_t>(kinds_) * nodes, Res{false, -1});
    cur_.assign(size_, -1);
    pos_kind_.assign(n_, 0);
    pos_rank_.assign(static_cast<size_t>(n_) * kinds_ * kinds_, kNone);
    for (int p = 0; p < n_; ++p) set_leaf(p, p);
    for (int v = size_ - 1; v >= 1; --v) pull(v);
  }

  std::vector<int> run() {
    std::vector<int> order(n_);
    for (int i = 0; i < n_; ++i) {
      int m = scan_from(i);
      int c = cur_[i], y = cur_[m];
      order[i] = y;
      set_leaf(i, -1); // finished
      update(i);
      if (m != i) {
        set_leaf(m, c);
        update(m);
      }
    }
    return order;
  }

private:
  static constexpr uint32_t kNone = 0xFFFFFFFFu;
  struct Res {
    bool brk; // pos is a line of another kind below the reign
    int pos;  // else the reign's position after the node
  };

  uint32_t rank(int u, int w, int line) const {
    return ranks_[static_cast<size_t>(mask_of_[u * kinds_ + w])][static_cast<size_t>(line)];
  }
  size_t at(int u, int node) const { return static_cast<size_t>(u) * 2 * size_ + node; }
  size_t at(int u, int w, int node) const {
    return (static_cast<size_t>(u) * kinds_ + w) * 2 * size_ + node;
  }

  void set_leaf(int pos, int line) {
    cur_[pos] = line;
    if (pos < n_ && line >= 0) {
      // By position: the line's kind and its rank against every kind.
      const int w = kind_[line];
      pos_kind_[pos] = w;
      for (int u = 0; u < kinds_; ++u)
        for (int v = 0; v < kinds_; ++v)
          pos_rank_[(static_cast<size_t>(pos) * kinds_ + u) * kinds_ + v] =
              (u == w || v == w) ? rank(u, v, line) : kNone;
    }
    const int node = size_ + pos;
    for (int u = 0; u < kinds_; ++u) {
      min_[at(u, node)] = kNone;
      arg_[at(u, node)] = -1;
      for (int w = 0; w < kinds_; ++w) pair_[at(u, w, node)] = kNone;
    }
    if (line < 0) return;
    const int w = kind_[line];
    min_[at(w, node)] = rank(w, w, line);
    arg_[at(w, node)] = pos;
    for (int u = 0; u < kinds_; ++u)
      if (u != w) pair_[at(u, w, node)] = rank(u, w, line);
  }

  void pull(int v) {
    const int l = 2 * v, r = l + 1;
    for (int u = 0; u < kinds_; ++u) {
      bool left = min_[at(u, l)] <= min_[at(u, r)];
      min_[at(u, v)] = left ? min_[at(u, l)] : min_[at(u, r)];
      arg_[at(u, v)] = left ? arg_[at(u, l)] : arg_[at(u, r)];
      for (int w = 0; w < kinds_; ++w)
        pair_[at(u, w, v)] = std::min(pair_[at(u, w, l)], pair_[at(u, w, r)]);
    }
    for (int u = 0; u < kinds_; ++u)
      stored_[at(u, v)] = arg_[at(u, l)] >= 0 ? scan(u, r, arg_[at(u, l)]) : Res{false, -1};
  }

  void update(int pos) {
    for (int v = (size_ + pos) >> 1; v >= 1; v >>= 1) pull(v);
  }

  // Whether a line of another kind in the node compares below the reign.
  bool breaks_in(int u, int node, int reign_line) const {
    for (int w = 0; w < kinds_; ++w)
      if (w != u && pair_[at(u, w, node)] < rank(u, w, reign_line)) return true;
    return false;
  }

  // The first position in the node whose line of another kind compares below
  // the reign (one is there).
  int first_break(int u, int node, int reign_line) const {
    while (node < size_) node = breaks_in(u, 2 * node, reign_line) ? 2 * node : 2 * node + 1;
    return node - size_;
  }

  // The scan over the node's positions with the reign at position reign of
  // kind u.
  Res scan(int u, int node, int reign) const {
    const int rl = cur_[reign];
    const uint32_t ru = rank(u, u, rl);
    if (!(min_[at(u, node)] < ru) && !breaks_in(u, node, rl)) return {false, reign};
    if (node >= size_) {
      const int pos = node - size_;
      return {kind_[cur_[pos]] != u, pos}; // it compares below: a break or a new reign
    }
    const int l = 2 * node;
    if (min_[at(u, l)] < ru) {
      Res r = scan(u, l, reign);
      if (r.brk) return r;
      return stored_[at(u, node)]; // the reign is the left child's smallest
    }
    if (breaks_in(u, l, rl)) return {true, first_break(u, l, rl)};
    return scan(u, l + 1, reign);
  }

  // The position the selection sort exchanges with position i. Each change
  // of kind restarts the walk over the tree (about depth^2 steps); when the
  // candidate changes kind so often that this costs more than the plain
  // scan over the rest, the rest is scanned plainly from the same state.
  int scan_from(int i) const {
    int reign = i;
    int lo = i + 1;
    int depth = 1;
    while ((1 << depth) < size_) ++depth;
    const long step = 2L * depth;
    long spent = 0;
    std::vector<int> left, right;
    while (lo < n_) {
      if ((spent += step) > n_ - lo) return plain_scan(reign, lo);
      left.clear();
      right.clear();
      for (int l = lo + size_, r = 2 * size_; l < r; l >>= 1, r >>= 1) {
        if (l & 1) left.push_back(l++);
        if (r & 1) right.push_back(--r);
      }
      left.insert(left.end(), right.rbegin(), right.rend());
      bool broke = false;
      for (int node : left) {
        Res r = scan(kind_[cur_[reign]], node, reign);
        reign = r.pos;
        if (r.brk) {
          broke = true;
          break;
        }
      }
      if (!broke) break;
      lo = reign + 1;
    }
    return reign;
  }

  // The scan itself from position lo on, with the candidate at reign, over
  // the ranks kept by position.
  int plain_scan(int reign, int lo) const {
    const int K = kinds_;
    int u = pos_kind_[reign];
    const uint32_t *mine = &pos_rank_[static_cast<size_t>(reign) * K * K + u * K];
    for (int j = lo; j < n_; ++j) {
      const int w = pos_kind_[j];
      const uint32_t *theirs = &pos_rank_[static_cast<size_t>(j) * K * K];
      if (theirs[u * K + w] < mine[w]) {
        reign = j;
        u = w;
        mine = theirs + w * K;
      }
    }
    return reign;
  }

  int n_, kinds_, size_ = 1;
  std::vector<int> kind_;
  std::vector<std::vector<uint32_t>> ranks_;
  std::vector<int> mask_of_;
  std::vector<uint32_t> min_;
  std::vector<int> arg_;
  std::vector<uint32_t> pair_;
  std::vector<Res> stored_;
  std::vector<int> cur_; // position -> line, -1 finished
  // For plain scans: the kind at each position, and per position the ranks
  // rank(u, v, line) for the pairs of kinds the line belongs to.
  std::vector<int> pos_kind_;
  std::vector<uint32_t> pos_rank_;
};

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

namespace {

// The selection sort with exchanges written out: the definition, and the
// order where the lines are of too many kinds for the chain.
template <class Cmp> std::vector<int> scan_order(int n, Cmp cmp) {
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  for (int i = 0; i < n - 1; ++i) {
    int m = i;
    for (int j = i + 1; j < n; ++j)
      if (cmp(order[m], order[j]) > 0) m = j;
    std::swap(order[i], order[m]);
  }
  return order;
}

// Dense ranks of the ids by less (equal entries, equal ranks) into out.
template <class Less>
void dense_ranks(std::vector<uint32_t> ids, Less less, std::vector<uint32_t> &out) {
  std::sort(ids.begin(), ids.end(), less);
  uint32_t r = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0 && less(ids[i - 1], ids[i])) ++r;
    out[ids[i]] = r;
  }
}

} // namespace

std::vector<int> tabbox_exact_order(const std::vector<std::string_view> &fields, int n, int k,
                                    const int *dirs) {
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  if (n < 2 || k < 1) return order;
  auto field = [&](int line, int q) { return fields[static_cast<size_t>(line) * k + q]; };
  // Per key: the text rank of every field and the value rank of the number
  // fields, turned round for a descending key, so that smaller is earlier.
  std::vector<std::vector<uint32_t>> text_rank(k, std::vector<uint32_t>(n)),
      value_rank(k, std::vector<uint32_t>(n, 0));
  std::vector<uint64_t> kind_mask(n, 0);
  std::vector<double> value(n);
  for (int q = 0; q < k; ++q) {
    std::vector<uint32_t> all(n), numbers;
    for (int i = 0; i < n; ++i) {
      all[i] = static_cast<uint32_t>(i);
      if (tabbox_is_number(field(i, q))) {
        numbers.push_back(static_cast<uint32_t>(i));
        value[i] = tabbox_number_value(field(i, q));
        if (q < 64) kind_mask[i] |= uint64_t{1} << q;
      }
    }
    dense_ranks(
        all,
        [&](uint32_t a, uint32_t b) { return tabbox_compare_text(field(a, q), field(b, q)) < 0; },
        text_rank[q]);
    dense_ranks(
        numbers, [&](uint32_t a, uint32_t b) { return value[a] < value[b]; }, value_rank[q]);
    if (dirs[q] == 0) {
      uint32_t top_t = *std::max_element(text_rank[q].begin(), text_rank[q].end()), top_v = 0;
      for (uint32_t i : numbers) top_v = std::max(top_v, value_rank[q][i]);
      for (uint32_t &r : text_rank[q]) r = top_t - r;
      for (uint32_t i : numbers) value_rank[q][i] = top_v - value_rank[q][i];
    }
  }
  auto cmp = [&](int a, int b) {
    for (int q = 0; q < k; ++q) {
      int r = tabbox_compare_fields(field(a, q), field(b, q));
      if (r != 0) return dirs[q] == 0 ? -r : r;
    }
    return 0;
  };
  // The kinds of lines: which keys hold numbers.
  std::vector<uint64_t> kinds;
  std::vector<int> kind(n);
  for (int i = 0; i < n; ++i) {
    auto it = std::find(kinds.begin(), kinds.end(), kind_mask[i]);
    if (it == kinds.end()) {
      if (kinds.size() == 4 || k > 64) return scan_order(n, cmp);
      it = kinds.insert(kinds.end(), kind_mask[i]);
    }
    kind[i] = static_cast<int>(it - kinds.begin());
  }
  // One dense rank per set of keys read as values (those that are numbers in
  // both kinds of a pair), over the lines that hold numbers there.
  const int nk = static_cast<int>(kinds.size());
  std::vector<uint64_t> masks;
  std::vector<int> mask_of(static_cast<size_t>(nk) * nk);
  std::vector<std::vector<uint32_t>> ranks;
  for (int u = 0; u < nk; ++u) {
    for (int w = 0; w < nk; ++w) {
      uint64_t m = kinds[u] & kinds[w];
      auto it = std::find(masks.begin(), masks.end(), m);
      if (it == masks.end()) {
        it = masks.insert(masks.end(), m);
        std::vector<uint32_t> lines;
        for (int i = 0; i < n; ++i)
          if ((kind_mask[i] & m) == m) lines.push_back(static_cast<uint32_t>(i));
        auto key = [&](uint32_t line, int q) {
          return (m >> q) & 1 ? value_rank[q][line] : text_rank[q][line];
        };
        ranks.emplace_back(n, 0);
        dense_ranks(
            lines,
            [&](uint32_t a, uint32_t b) {
              for (int q = 0; q < k; ++q)
                if (key(a, q) != key(b, q)) return key(a, q) < key(b, q);
              return false;
            },
            ranks.back());
      }
      mask_of[static_cast<size_t>(u) * nk + w] = static_cast<int>(it - masks.begin());
    }
  }
  return ChainSort(n, nk, std::move(kind), std::move(ranks), std::move(mask_of)).run();
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
  // A column holding both numbers and texts compares numbers with numbers by
  // value but with texts by the text rule, which need not be a consistent
  // order (9 < 10 < 1a < 9): the scan's own result, followed exactly.
  if (mixed) {
    std::vector<std::string_view> fields(keys.size());
    for (size_t f = 0; f < keys.size(); ++f) fields[f] = {keys[f].text, keys[f].len};
    return tabbox_exact_order(fields, n, k, dirs);
  }
  // Consistent keys: each line gets one number whose order is the lines'
  // order (equal lines, equal numbers), so that the scan is followed on
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
