// The tabbox's field comparison and its sort permutation, checked against a
// direct transcription of the selection sort with exchanges.
#include "forms/mytabs_sort.h"
#include "tests/forms/forms_testutil.h"

#include <random>

namespace {

TEST(TabboxCompare, NumbersAndTexts) {
  struct {
    const char *a, *b;
    int result;
  } cases[] = {{"9", "10", -1},
               {"-3", "2", -1},
               {"2.5", "2.25", 1},
               {"1,5", "1", 0}, // a comma ends the conversion: 1,5 is a number but counts as 1
               {"", "0", 0},
               // Not both numbers: compared as texts.
               {"9", "1a", 1},
               {"abc", "ABC", 0},
               {"Oase", "Ölten", -1},
               {"Über", "Uber", 0},
               {"äpfel", "Apfel", -1}, // lower-case umlauts are negative bytes: before ASCII
               {"ab", "abc", -1},
               {"abcdefghij", "abcdefghik", -1},
               {"ABCDEFGHIJ", "abcdefghij", 0}};
  for (auto &c : cases) EXPECT_EQ(tabbox_compare_fields(c.a, c.b), c.result) << c.a << " " << c.b;
  EXPECT_EQ(tabbox_is_number(""), 1);
  EXPECT_EQ(tabbox_is_number("1.2.3"), 0);
  EXPECT_EQ(tabbox_is_number("1,2.3"), 0);
}

// The selection sort as defined, on raw line numbers.
template <class Cmp> std::vector<int> selection_sort(int n, Cmp cmp) {
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  for (int i = 0; i < n; ++i) {
    int m = i;
    for (int j = i + 1; j < n; ++j)
      if (cmp(order[m], order[j]) > 0) m = j;
    std::swap(order[i], order[m]);
  }
  return order;
}

TEST(TabboxSortLines, PermutationMatchesSelectionSort) {
  std::mt19937 rng(11);
  FL_FORM *form = nullptr; // each round's tabbox on a form of its own
  // The text column holds texts only, the number column numbers only (the
  // empty field is a number): those sort by ranks. The third column mixes
  // both.
  const char *words[] = {"abc",   "ABC",        "Ölten", "Oase",       "abcdefghijk",
                         "äpfel", "ABCDEFGHIJ", "b",     "abcdefghiJ "};
  const char *numbers[] = {"9", "10", "-1", "1,5", "1", "", "0.5", "10"};
  for (int round = 0; round < 60; ++round) {
    FL_OBJECT *tb = forms_test::tabbox_form(form, 1, 280, 180);
    fl_set_tabbox_title(tb, "Text         | Zahl  | Gemischt");
    int n = static_cast<int>(rng() % 400) + 2;
    std::vector<std::string> lines;
    for (int i = 0; i < n; ++i) {
      char buf[128];
      const char *mixed = rng() % 2 ? words[rng() % 9] : numbers[rng() % 8];
      std::snprintf(buf, sizeof buf, "%-12s | %-5s | %s", words[rng() % 9], numbers[rng() % 8],
                    mixed);
      lines.push_back(buf);
      fl_add_tabbox_line(tb, buf);
    }
    int ncols = static_cast<int>(rng() % 3) + 1;
    std::vector<int> cols(ncols), dirs(ncols);
    for (int k = 0; k < ncols; ++k) {
      cols[k] = static_cast<int>(rng() % 3) + 1;
      dirs[k] = static_cast<int>(rng() % 2);
    }
    fl_set_tabbox_sort(tb, ncols, cols.data(), dirs.data());
    auto cmp = [&](int a, int b) {
      for (int k = 0; k < ncols; ++k) {
        int c = tabbox_compare_fields(mytabs_get_field(tb, lines[a], cols[k]),
                                      mytabs_get_field(tb, lines[b], cols[k]));
        if (dirs[k] == 0) c = -c;
        if (c) return c;
      }
      return 0;
    };
    std::vector<std::string> shown, expected;
    for (int p = 1; p <= n; ++p) shown.push_back(fl_get_tabbox_full_line(tb, p));
    for (int raw : selection_sort(n, cmp)) expected.push_back(lines[raw]);
    ASSERT_EQ(shown, expected) << "round " << round;
  }
  fl_free_form(form);
}

} // namespace
