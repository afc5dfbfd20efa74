// Field comparison and the sort permutation of the tabbox (see mytabs_sort.h).
// Sorting precomputes each line's key fields once (number flag, value, text,
// an 8-byte prefix of the folded text) so that the comparisons of the
// tournament tree touch no raw text in the common case.
#include "forms/mytabs_sort.h"

#include "forms/mytabs.h"

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
  // result then; it is used while it stays affordable.
  if (mixed && n <= 4096) {
    for (int i = 0; i < n - 1; ++i) {
      int m = i;
      for (int j = i + 1; j < n; ++j)
        if (cmp(order[m], order[j]) > 0) m = j;
      std::swap(order[i], order[m]);
    }
    return order;
  }
  tabbox_tournament_order(order, cmp);
  return order;
}
