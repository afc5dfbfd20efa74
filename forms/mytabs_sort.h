// The tabbox's sort order: the number test and comparison of fields, and the
// permutation of the lines by the sort keys.
//
// The order is defined by a selection sort with exchanges: for each display
// position i the leftmost smallest remaining entry m is found and the entries
// at i and m are exchanged. Equal lines therefore do not keep their order; the
// permutation here is exactly that one, computed in O(n log n) instead of the
// sort's O(n^2): from ranks of the lines with one heap per rank, or, where the
// comparison is no consistent order, with a tournament tree. Field extraction and the record
// itself are mytabs.h's.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

struct FL_TABBOX_REC;

// 1 when every character is a digit, '.', ',' or '-' and at most one is '.'
// or ',' (the empty field is a number too).
int tabbox_is_number(std::string_view field);
// The value of a number field: its leading decimal number as the standard
// conversion reads it (independent of the locale), stopping at ','; 0 when
// there is none.
double tabbox_number_value(std::string_view field);
// Text rule: ASCII letters upper-cased, the Latin-1 capitals Ä, Ö, Ü count as
// A, O, U, characters compared as signed 8-bit values; a text that ends first
// is smaller. Returns -1, 0, 1.
int tabbox_compare_text(std::string_view a, std::string_view b);
// Two fields: numerically when both are numbers, else by the text rule.
int tabbox_compare_fields(std::string_view a, std::string_view b);

// Orders `order` (entries are anything cmp understands) as the selection sort
// with exchanges does: for i = 0.., m = leftmost position in [i, n) whose
// entry no later entry compares below (cmp(order[m], order[j]) > 0 moves the
// candidate to j), then order[i] and order[m] are exchanged. cmp must be a
// consistent ordering (a total preorder) on the entries; then the result is
// the same permutation as the quadratic scan.
template <class Cmp> void tabbox_tournament_order(std::vector<int> &order, Cmp cmp) {
  const int n = static_cast<int>(order.size());
  if (n < 2) return;
  int size = 1;
  while (size < n) size <<= 1;
  // Nodes hold positions into order; -1 is an empty (finished) slot.
  std::vector<int> tree(2 * size, -1);
  auto winner = [&](int a, int b) {
    if (a < 0) return b;
    if (b < 0) return a;
    return cmp(order[a], order[b]) > 0 ? b : a; // ties keep the left one
  };
  for (int k = 0; k < n; ++k) tree[size + k] = k;
  for (int v = size - 1; v >= 1; --v) tree[v] = winner(tree[2 * v], tree[2 * v + 1]);
  // Recomputes the winners on the path of one leaf up to the root.
  auto update = [&](int pos) {
    for (int v = (size + pos) >> 1; v >= 1; v >>= 1) tree[v] = winner(tree[2 * v], tree[2 * v + 1]);
  };
  for (int i = 0; i < n - 1; ++i) {
    int m = tree[1];
    std::swap(order[i], order[m]);
    tree[size + i] = -1;
    update(i);
    // Both paths are recomputed after both changes: the part they share is
    // done again by the second pass.
    if (m != i) update(m);
  }
}

// The same permutation for entries given by dense ranks (0, 1, ...; equal
// entries, equal ranks; the entries are 0..n-1 in their initial order): per
// rank a heap of the positions still holding that rank, O(n log n) at worst
// and linear when the ranks are distinct.
std::vector<int> tabbox_rank_order(const std::vector<uint32_t> &rank);

// The permutation of the record's lines (display position -> raw line) by
// its sort keys; identity without keys.
std::vector<int> tabbox_sort_order(const FL_TABBOX_REC *rec);
