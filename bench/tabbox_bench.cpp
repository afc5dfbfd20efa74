// tabbox_bench: the tabbox with a million lines of eight columns (about 90
// characters each), offscreen. Measures adding all lines, the first layout,
// a sort by two keys, one redraw of the visible page with the top line in
// the middle (10 000 against 1 000 000 lines) and the memory per line, and
// loads the same rows into a QStandardItemModel shown in a QTableView for
// comparison. Ends with one TARGET line per target.
#include "forms/forms.h"
#include "forms/mytabs.h"

#include <QApplication>
#include <QHeaderView>
#include <QImage>
#include <QStandardItemModel>
#include <QTableView>

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kLines = 1000000;
constexpr int kSmall = 10000;
// Column widths of the eight fields; with the " | " separators a line is
// 8 + 14 + 12 + 10 + 10 + 6 + 9 + 6 + 7 * 3 = 96 characters at most.
constexpr int kWidths[8] = {8, 14, 12, 10, 10, 6, 9, 6};

std::vector<std::string> g_rows;
std::string g_title;
size_t g_raw_bytes = 0;

std::string pad(std::string s, int w) {
  s.resize(static_cast<size_t>(w), ' ');
  return s;
}

void make_rows() {
  const char *names[] = {"Müller", "Schmidt", "Schneider", "Fischer", "Weber", "Meyer", "Wagner",
                         "Becker", "Schulz",  "Hoffmann",  "Schäfer", "Koch",  "Bauer", "Richter"};
  const char *cities[] = {"Köln",  "Berlin",   "Hamburg", "München", "Ulm",      "Bonn",
                          "Essen", "Dortmund", "Leipzig", "Dresden", "Hannover", "Nürnberg"};
  const char *states[] = {"offen", "bezahlt", "storniert", "gemahnt", "geliefert"};
  const char *heads[] = {"Nr", "Name", "Ort", "Datum", "Betrag", "Code", "Status", "Menge"};
  for (int c = 0; c < 8; ++c) g_title += (c ? " | " : "") + pad(heads[c], kWidths[c]);
  std::mt19937 rng(42);
  g_rows.reserve(kLines);
  char buf[32];
  for (int i = 0; i < kLines; ++i) {
    std::string f[8];
    f[0] = std::to_string(i + 1);
    f[1] = std::string(names[rng() % 14]) + " " + static_cast<char>('A' + rng() % 26) + ".";
    f[2] = cities[rng() % 12];
    std::snprintf(buf, sizeof buf, "%04u-%02u-%02u", 2000 + static_cast<unsigned>(rng() % 25),
                  1 + static_cast<unsigned>(rng() % 12), 1 + static_cast<unsigned>(rng() % 28));
    f[3] = buf;
    std::snprintf(buf, sizeof buf, "%u.%02u", static_cast<unsigned>(rng() % 100000),
                  static_cast<unsigned>(rng() % 100));
    f[4] = buf;
    f[5] = std::string(1, static_cast<char>('A' + rng() % 26)) + std::to_string(rng() % 1000);
    f[6] = states[rng() % 5];
    f[7] = std::to_string(rng() % 500);
    std::string line;
    for (int c = 0; c < 8; ++c) line += (c ? " | " : "") + (c < 7 ? pad(f[c], kWidths[c]) : f[c]);
    g_raw_bytes += line.size();
    g_rows.push_back(std::move(line));
  }
}

size_t heap_bytes() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

struct Figures {
  double add_s = 0, layout_s = 0, sort_s = 0;
  double redraw_small_ms = 0, redraw_large_ms = 0;
  double tabbox_bytes_per_line = 0;
  double model_load_s = 0, model_bytes_per_line = 0;
};
Figures g_fig;

FL_FORM *g_form = nullptr;
FL_OBJECT *g_tabbox = nullptr;

FL_OBJECT *new_tabbox(int lines, double *add_s, double *layout_s, size_t *bytes) {
  g_form = fl_begin_form(0, 980, 640);
  FL_OBJECT *tb = fl_add_tabbox(3, 10, 10, 960, 620, "");
  fl_end_form();
  fl_set_tabbox_title(tb, g_title.c_str());
  size_t before = heap_bytes();
  auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < lines; ++i) fl_add_tabbox_line(tb, g_rows[static_cast<size_t>(i)].c_str());
  if (add_s) *add_s = seconds_since(t0);
  t0 = std::chrono::steady_clock::now();
  fl_layout_tabbox(tb);
  if (layout_s) *layout_s = seconds_since(t0);
  if (bytes) *bytes = heap_bytes() - before;
  return tb;
}

void BM_AddAndFirstLayout(benchmark::State &state) {
  for (auto _ : state) {
    size_t bytes = 0;
    g_tabbox = new_tabbox(kLines, &g_fig.add_s, &g_fig.layout_s, &bytes);
    g_fig.tabbox_bytes_per_line = static_cast<double>(bytes) / kLines;
    state.SetIterationTime(g_fig.add_s + g_fig.layout_s);
  }
  state.counters["add_s"] = g_fig.add_s;
  state.counters["layout_s"] = g_fig.layout_s;
  state.counters["bytes_per_line"] = g_fig.tabbox_bytes_per_line;
  state.counters["raw_bytes_per_line"] = static_cast<double>(g_raw_bytes) / kLines;
}

void BM_SortTwoKeys(benchmark::State &state) {
  int cols[2] = {3, 5}, dirs[2] = {1, 0}; // Ort ascending, Betrag descending
  for (auto _ : state) {
    fl_set_tabbox_sort(g_tabbox, 2, cols, dirs);
    auto t0 = std::chrono::steady_clock::now();
    fl_layout_tabbox(g_tabbox);
    g_fig.sort_s = seconds_since(t0);
    state.SetIterationTime(g_fig.sort_s);
  }
}

double redraw_ms(FL_OBJECT *tb, benchmark::State &state) {
  fl_set_tabbox_topline(tb, fl_get_tabbox_maxline(tb) / 2);
  fl_select_tabbox_line(tb, fl_get_tabbox_maxline(tb) / 2 + 3);
  fl_layout_tabbox(tb);
  QImage img(tb->w, tb->h, QImage::Format_ARGB32_Premultiplied);
  tb->widget->render(&img); // warm the font caches
  double total = 0;
  int n = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    tb->widget->render(&img);
    double s = seconds_since(t0);
    state.SetIterationTime(s);
    total += s;
    ++n;
  }
  return n ? total * 1000 / n : 0;
}

void BM_RedrawPage(benchmark::State &state) {
  if (state.range(0) == kLines) {
    g_fig.redraw_large_ms = redraw_ms(g_tabbox, state);
  } else {
    FL_FORM *big = g_form;
    FL_OBJECT *small = new_tabbox(kSmall, nullptr, nullptr, nullptr);
    g_fig.redraw_small_ms = redraw_ms(small, state);
    fl_free_form(g_form);
    g_form = big;
  }
}

void BM_StandardItemModel(benchmark::State &state) {
  for (auto _ : state) {
    // The tabbox is gone; the model is measured on its own.
    fl_free_form(g_form);
    g_form = nullptr;
    g_tabbox = nullptr;
    size_t before = heap_bytes();
    auto t0 = std::chrono::steady_clock::now();
    auto *model = new QStandardItemModel(kLines, 8);
    for (int c = 0; c < 8; ++c) {
      int from = 0;
      for (int k = 0; k < c; ++k) from += kWidths[k] + 3;
      model->setHorizontalHeaderItem(
          c, new QStandardItem(
                 QString::fromLatin1(g_title.substr(from, kWidths[c]).c_str()).trimmed()));
    }
    for (int i = 0; i < kLines; ++i) {
      const std::string &row = g_rows[static_cast<size_t>(i)];
      int from = 0;
      for (int c = 0; c < 8; ++c) {
        int len = c < 7 ? kWidths[c] : static_cast<int>(row.size()) - from;
        QString text = QString::fromLatin1(row.data() + from, len).trimmed();
        model->setItem(i, c, new QStandardItem(text));
        from += kWidths[c] + 3;
      }
    }
    QTableView view;
    view.resize(960, 620);
    view.setModel(model);
    QImage img(960, 620, QImage::Format_ARGB32_Premultiplied);
    view.render(&img);
    g_fig.model_load_s = seconds_since(t0);
    g_fig.model_bytes_per_line = static_cast<double>(heap_bytes() - before) / kLines;
    state.SetIterationTime(g_fig.model_load_s);
    view.setModel(nullptr);
    delete model;
  }
  state.counters["bytes_per_line"] = g_fig.model_bytes_per_line;
}

BENCHMARK(BM_AddAndFirstLayout)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SortTwoKeys)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RedrawPage)
    ->Arg(kSmall)
    ->Arg(kLines)
    ->Iterations(50)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StandardItemModel)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void target(const char *name, double measured, const char *unit, const char *op, double limit,
            bool met) {
  std::printf("TARGET %s: %.3g%s %s %.3g%s %s\n", name, measured, unit, op, limit, unit,
              met ? "met" : "missed");
}

} // namespace

int main(int argc, char **argv) {
  if (!std::getenv("QT_QPA_PLATFORM")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QApplication app(argc, argv);
  fl_init_toolkit("tabbox_bench", argv, -1);
  make_rows();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (g_form) fl_free_form(g_form);
  fl_exit_toolkit();

  const Figures &f = g_fig;
  double raw_per_line = static_cast<double>(g_raw_bytes) / kLines;
  double mem_ratio = f.tabbox_bytes_per_line / raw_per_line;
  std::printf("tabbox: add %.3f s, first layout %.3f s, two-key sort %.3f s, page redraw %.3f ms "
              "(10 000 lines: %.3f ms), %.1f bytes per line (raw text %.1f)\n",
              f.add_s, f.layout_s, f.sort_s, f.redraw_large_ms, f.redraw_small_ms,
              f.tabbox_bytes_per_line, raw_per_line);
  std::printf("QStandardItemModel + QTableView: load %.3f s, %.1f bytes per line\n", f.model_load_s,
              f.model_bytes_per_line);
  target("add_and_first_layout", f.add_s + f.layout_s, "s", "<", 1.5, f.add_s + f.layout_s < 1.5);
  target("two_key_sort", f.sort_s, "s", "<", 2.0, f.sort_s < 2.0);
  target("page_redraw", f.redraw_large_ms, "ms", "<", 10.0, f.redraw_large_ms < 10.0);
  // The page costs the same with a million lines as with ten thousand.
  double limit = 1.5 * f.redraw_small_ms;
  target("page_redraw_1M_vs_10k", f.redraw_large_ms, "ms", "<=", limit, f.redraw_large_ms <= limit);
  target("memory_vs_raw_text", mem_ratio, "x", "<=", 2.5, mem_ratio <= 2.5);
  target("memory_vs_standard_item_model", f.tabbox_bytes_per_line, "B/line", "<",
         f.model_bytes_per_line, f.tabbox_bytes_per_line < f.model_bytes_per_line);
  return 0;
}
