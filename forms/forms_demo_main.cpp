// forms_demo: a form with one object of every class of the toolkit; every
// callback it receives is printed on standard output. With "--screenshot FILE"
// it saves a PNG of the form once it is drawn and exits 0 (1 when the file
// cannot be written). Tests and reviews use it.
#include "forms/console.h"
#include "forms/dialogs.h"
#include "forms/entry.h"
#include "forms/forms.h"
#include "forms/popup.h"

#include <QApplication>
#include <QPixmap>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

FL_FORM *g_form;
FL_OBJECT *g_list;

void print_callback(FL_OBJECT *obj, long arg) {
  std::string text;
  if (obj->objclass == FL_INPUT) text = fl_get_input(obj);
  if (obj->objclass == FL_CHECKBUTTON) text = fl_get_button(obj) ? "1" : "0";
  if (obj->objclass == FL_LISTBOX) {
    int line = fl_get_listbox(obj);
    const char *t = line ? fl_get_listbox_line(obj, line) : nullptr;
    text = t ? t : "";
  }
  std::printf("callback %s \"%s\" arg=%ld key=%d text=\"%s\"\n", fl_class_name(obj->objclass),
              obj->label.c_str(), arg, obj->last_key, text.c_str());
  std::fflush(stdout);
}

void popup_callback(FL_OBJECT *obj, long arg) {
  print_callback(obj, arg);
  fl_define_popup(obj->widget, "Sortierung%h|Spalten optimieren%h%l|Export%h|");
  int item = fl_do_popup(obj->widget);
  std::printf("popup item=%d\n", item);
  std::fflush(stdout);
}

void question_callback(FL_OBJECT *obj, long arg) {
  print_callback(obj, arg);
  int answer =
      fl_show_question("Eine Frage an den Benutzer?", "", "", 3, "Ja", "Nein", "Abbrechen", 3);
  std::printf("question answer=%d\n", answer);
  std::fflush(stdout);
}

int demo_atclose(FL_FORM *, void *) {
  int answer = fl_show_question("Soll die Demo beendet werden?", "", "", 2, "Ja", "Nein", "", 3);
  std::printf("close answer=%d\n", answer);
  std::fflush(stdout);
  return answer == 1 ? 0 : -1;
}

void build_form() {
  g_form = fl_begin_form(0, 480, 330);
  fl_add_box(FL_UP_BOX, 0, 0, 480, 330, "");
  FL_OBJECT *help = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 479, 329, "");
  fl_set_object_callback(help, print_callback, 99);
  fl_set_object_shortcut(help, "&1^[", 0);

  FL_OBJECT *t = fl_add_text(0, 20, 10, 200, 20, "Forms-Demo");
  fl_set_object_lsize(t, 12);
  fl_set_object_lstyle(t, FL_EMBOSSED_STYLE);
  fl_set_object_lalign(t, FL_ALIGN_LEFT | FL_ALIGN_INSIDE);

  FL_OBJECT *cb = fl_add_checkbutton(FL_PUSH_BUTTON, 290, 10, 90, 21, "gespeichert");
  fl_set_object_callback(cb, print_callback, 2);
  FL_OBJECT *up = fl_add_button(FL_NORMAL_BUTTON, 390, 10, 20, 21, "@8");
  fl_set_object_callback(up, print_callback, 3);
  FL_OBJECT *down = fl_add_button(FL_NORMAL_BUTTON, 410, 10, 20, 21, "@2");
  fl_set_object_callback(down, print_callback, 4);

  fl_add_frame(FL_ENGRAVED_FRAME, 20, 35, 440, 120, "");
  FL_OBJECT *in = fl_add_input(FL_NORMAL_INPUT, 100, 45, 340, 21, "Tabelle ");
  fl_set_object_callback(in, print_callback, 5);
  FL_OBJECT *fin = fl_add_input(FL_FLOAT_INPUT, 100, 70, 120, 21, "Betrag ");
  fl_set_object_callback(fin, print_callback, 6);
  FL_OBJECT *iin = fl_add_input(FL_INT_INPUT, 320, 70, 120, 21, "Anzahl ");
  fl_set_object_callback(iin, print_callback, 7);
  FL_OBJECT *cmb = fl_add_input(FL_NORMAL_INPUT, 100, 95, 320, 21, "Database ");
  fl_set_object_callback(cmb, print_callback, 8);
  FL_OBJECT *open = fl_add_button(FL_NORMAL_BUTTON, 420, 95, 20, 21, "@2->|");
  fl_set_object_callback(open, print_callback, 9);
  FL_OBJECT *ml = fl_add_input(FL_MULTILINE_INPUT, 100, 120, 340, 30, "WHERE ");
  fl_set_object_lstyle(ml, FL_FIXED_STYLE);
  fl_set_object_callback(ml, print_callback, 10);

  g_list = fl_add_listbox(FL_NORMAL_LISTBOX, 20, 180, 200, 90, "Datenbanken");
  for (const char *name : {"TDSYS", "KUNDEN", "LAGER", "Ärzte"}) fl_addto_listbox(g_list, name);
  fl_set_object_callback(g_list, print_callback, 11);

  FL_OBJECT *run = fl_add_button(FL_NORMAL_BUTTON, 250, 180, 190, 25, "SELECT durchführen");
  fl_set_object_shortcut(run, "^u^U", 1);
  fl_set_object_callback(run, print_callback, 12);
  FL_OBJECT *menu = fl_add_button(FL_NORMAL_BUTTON, 250, 212, 90, 25, "Menü");
  fl_set_object_callback(menu, popup_callback, 13);
  FL_OBJECT *ask = fl_add_button(FL_NORMAL_BUTTON, 350, 212, 90, 25, "Frage");
  fl_set_object_callback(ask, question_callback, 14);
  FL_OBJECT *left = fl_add_button(FL_NORMAL_BUTTON, 250, 245, 25, 25, "@<");
  fl_set_object_callback(left, print_callback, 15);
  FL_OBJECT *right = fl_add_button(FL_NORMAL_BUTTON, 280, 245, 25, 25, "@>");
  fl_set_object_callback(right, print_callback, 16);
  FL_OBJECT *off = fl_add_button(FL_NORMAL_BUTTON, 350, 245, 90, 25, "Inaktiv");
  fl_deactivate_object(off);
  fl_add_text(0, 20, 290, 440, 20, "Strg+U: SELECT, F1: Hilfe, Esc: Beenden");
  fl_end_form();
  fl_set_form_atclose(g_form, demo_atclose, nullptr);
  fl_set_focus_object(g_form, in);
}

int demo_main(int argc, char **argv) {
  const char *shot = nullptr;
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--screenshot") == 0 && i + 1 < argc) shot = argv[++i];
  if (!fl_init_toolkit("forms_demo", argv, -1)) return 1;
  build_form();
  fl_show_form(g_form, FL_PLACE_CENTER, 1, "Forms-Demo");
  fl_console_print("forms_demo gestartet");
  if (shot) {
    int status = 1;
    // Grab the form once the loop has drawn it.
    QTimer::singleShot(300, [shot, &status] {
      QPixmap pm = g_form->window->grab();
      status = pm.save(QString::fromLocal8Bit(shot), "PNG") ? 0 : 1;
      fl_finish_event_loop();
    });
    fl_run_forms();
    fl_exit_toolkit();
    return status;
  }
  fl_run_forms();
  fl_exit_toolkit();
  return 0;
}

} // namespace

int main(int argc, char **argv) { return fl_main(argc, argv, demo_main); }
