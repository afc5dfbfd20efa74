// The tabbox's sort order: the number test and comparison of fields, and the
// permutation of the lines by the sort keys.
//
// The order is defined by a selection sort with exchanges: for each display
// position i a scan from i to the end keeps a candidate m, replaced by every
// later entry that compares below it, and the entries at i and m are
// exchanged. Equal lines therefore do not keep their order; the permutation
// here is exactly that one, computed without the sort's O(n^2): from ranks of
// the lines with one heap per rank where the keys are a consistent order, and
// by following the scan's candidates through a segment tree where a key mixes
// numbers and texts (9 < 10 < 1a < 9). Field extraction and the record itself
// are the tabbox's (mytabs_int.h).
#pragma once

#include <cstdint>
#include <string_view>
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

// The same permutation for entries given by dense ranks (0, 1, ...; equal
// entries, equal ranks; the entries are 0..n-1 in their initial order): per
// rank a heap of the positions still holding that rank, O(n log n) at worst
// and linear when the ranks are distinct.
std::vector<int> tabbox_rank_order(const std::vector<uint32_t> &rank);

// The permutation of n lines by k key fields each (fields[i * k + q] is key q
// of line i; dirs[q] 1 ascending, 0 descending) that the selection sort with
// exchanges gives under tabbox_compare_fields, also where a key mixes numbers
// and texts and the comparison is no consistent order. O(n log^2 n) while the
// scan's candidate seldom changes between lines with and without numbers,
// as in columns of numbers with a few words; at worst (such changes all
// along, or more than four kinds of lines by which keys hold numbers) the
// quadratic scan itself. The views must stay valid during the call.
std::vector<int> tabbox_exact_order(const std::vector<std::string_view> &fields, int n, int k,
                                    const int *dirs);

// The permutation of the record's lines (display position -> raw line) by
// its sort keys; identity without keys.
std::vector<int> tabbox_sort_order(const FL_TABBOX_REC *rec);
