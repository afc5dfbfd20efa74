// tabbox_demo: a form with a tabbox of many lines (default 1 000 000, option
// --lines N) of eight columns, the name column cut to a maximum width, the
// list scrolled to its middle with a few lines selected. Clicks, keys and
// popup choices are printed on standard output. With "--screenshot FILE" it
// saves a PNG of the form once it is drawn and exits 0 (1 when the file
// cannot be written). With "--detail" it shows instead one line in vertical
// display (attribute / value) above an editor holding an SQL statement.
#include "forms/editor.h"
#include "forms/entry.h"
#include "forms/forms.h"
#include "forms/mytabs.h"

#include <QPixmap>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

namespace {

FL_FORM *g_form;
FL_OBJECT *g_tabbox;

std::string pad(std::string s, size_t w) {
  s.resize(w, ' ');
  return s;
}

void print_selection(FL_OBJECT *obj, long) {
  std::printf("callback: line %d selected, %d lines selected\n", fl_get_tabbox(obj),
              fl_get_tabbox_selectcount(obj));
  std::fflush(stdout);
}

void print_dblclick(FL_OBJECT *obj, long shift) {
  int line = fl_get_tabbox(obj);
  std::printf("double-click%s: %s\n", shift ? " (Shift)" : "",
              line ? fl_get_tabbox_full_line(obj, line) : "");
  std::fflush(stdout);
}

void print_popup(FL_OBJECT *, int item) {
  std::printf("popup item %d\n", item);
  std::fflush(stdout);
}

void fill(int lines) {
  static const int widths[8] = {8, 14, 12, 10, 10, 6, 9, 6};
  const char *heads[8] = {"Nr", "Name", "Ort", "Datum", "Betrag", "Code", "Status", "Menge"};
  const char *names[] = {"Müller-Lüdenscheidt",
                         "Schmidt",
                         "Schneider",
                         "Fischer",
                         "Weber",
                         "Meyer",
                         "Wagner",
                         "Becker",
                         "Schäfer",
                         "Hoffmann-Özdemir"};
  const char *cities[] = {"Köln", "Berlin", "Hamburg", "München", "Ulm", "Bonn", "Nürnberg"};
  const char *states[] = {"offen", "bezahlt", "storniert", "gemahnt", "geliefert"};
  std::string title;
  for (int c = 0; c < 8; ++c) title += (c ? " | " : "") + pad(heads[c], widths[c]);
  fl_set_tabbox_title(g_tabbox, title.c_str());
  std::mt19937 rng(1);
  char buf[160];
  for (int i = 0; i < lines; ++i) {
    std::snprintf(
        buf, sizeof buf, "%-8d | %-14.14s | %-12s | %04u-%02u-%02u | %10.2f | %c%-5u | %-9s | %u",
        i + 1, names[rng() % 10], cities[rng() % 7], 2000 + static_cast<unsigned>(rng() % 25),
        1 + static_cast<unsigned>(rng() % 12), 1 + static_cast<unsigned>(rng() % 28),
        static_cast<double>(rng() % 10000000) / 100.0, static_cast<char>('A' + rng() % 26),
        static_cast<unsigned>(rng() % 1000), states[rng() % 5], static_cast<unsigned>(rng() % 500));
    fl_add_tabbox_line(g_tabbox, buf);
  }
}

void build_form(int lines) {
  g_form = fl_begin_form(0, 820, 520);
  fl_add_box(FL_UP_BOX, 0, 0, 820, 520, "");
  g_tabbox = fl_add_tabbox(3, 10, 10, 800, 500, "");
  fl_set_object_callback(g_tabbox, print_selection, 0);
  fl_set_tabbox_dblclick_callback(g_tabbox, print_dblclick, 0);
  fl_set_tabbox_popup(g_tabbox, "#Kopieren|#Details|#Löschen", print_popup);
  fl_end_form();
  fill(lines);
  // The name column is cut to 9 characters: longer names end in "~|".
  int nslots, *end, *order, *visible, nsort, *sort_cols, *sort_dirs, maxwidth, *colmax;
  fl_get_tabbox_properties(g_tabbox, &nslots, &end, &order, &visible, &nsort, &sort_cols,
                           &sort_dirs, &maxwidth, &colmax);
  colmax[2] = 9;
  fl_draw_tabbox(g_tabbox);
  int middle = lines / 2;
  fl_set_tabbox_topline(g_tabbox, middle > 0 ? middle : 1);
  for (int k = 3; k <= 5; ++k)
    if (middle + k <= lines) fl_select_tabbox_line(g_tabbox, middle + k);
  if (middle + 8 <= lines) fl_select_tabbox_line(g_tabbox, middle + 8);
}

void build_detail_form() {
  g_form = fl_begin_form(0, 820, 520);
  fl_add_box(FL_UP_BOX, 0, 0, 820, 520, "");
  g_tabbox = fl_add_tabbox(0, 10, 10, 800, 300, "");
  fl_set_tabbox_dblclick_callback(g_tabbox, print_dblclick, 0);
  FL_OBJECT *editor = fl_add_editor(0, 10, 350, 800, 160, "");
  fl_end_form();
  fill(1);
  fl_set_tabbox_vert(g_tabbox);
  fl_select_tabbox_line(g_tabbox, 2);
  fl_set_input(editor, "SELECT Nr, Name, Ort, Datum, Betrag, Code, Status, Menge FROM Bestellung "
                       "WHERE Ort = 'Köln' AND Betrag > 1000 ORDER BY Datum DESC, Name");
  fl_wrap_editor(editor);
}

int demo_main(int argc, char **argv) {
  const char *shot = nullptr;
  int lines = 1000000;
  bool detail = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--screenshot") == 0 && i + 1 < argc)
      shot = argv[++i];
    else if (std::strcmp(argv[i], "--lines") == 0 && i + 1 < argc)
      lines = std::atoi(argv[++i]);
    else if (std::strcmp(argv[i], "--detail") == 0)
      detail = true;
  }
  if (!fl_init_toolkit("tabbox_demo", argv, -1)) return 1;
  if (detail)
    build_detail_form();
  else
    build_form(lines);
  fl_show_form(g_form, FL_PLACE_CENTER, 1, "Tabbox-Demo");
  fl_set_focus_object(g_form, g_tabbox);
  int status = 0;
  if (shot) {
    status = 1;
    QTimer::singleShot(300, [shot, &status] {
      QPixmap pm = g_form->window->grab();
      status = pm.save(QString::fromLocal8Bit(shot), "PNG") ? 0 : 1;
      fl_finish_event_loop();
    });
  }
  fl_run_forms();
  fl_exit_toolkit();
  return status;
}

} // namespace

int main(int argc, char **argv) { return fl_main(argc, argv, demo_main); }
