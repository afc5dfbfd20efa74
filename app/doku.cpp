// The HTML manual of the viewer's dialogs (see doku.h).
#include "app/doku.h"

#include <cstdio>
#include <memory>

#include "app/browser.h"
#include "app/viewer.h"
#include "framework/help.h"
#include "framework/place.h"
#include "framework/tabdialogs.h"

namespace {

std::string escape(const std::string &text) {
  std::string out;
  for (char c : text) {
    switch (c) {
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '&':
      out += "&amp;";
      break;
    case '"':
      out += "&quot;";
      break;
    default:
      out += c;
    }
  }
  return out;
}

// A readable name for the toolkit's symbol labels.
std::string label_text(const std::string &label) {
  if (label == "@8") return "Pfeil nach oben";
  if (label == "@2") return "Pfeil nach unten";
  if (label == "@2->|") return "Auswahlliste";
  return label;
}

const char *kind_of(const FL_OBJECT *obj) {
  switch (obj->objclass) {
  case FL_BUTTON:
    return "Schaltfläche";
  case FL_CHECKBUTTON:
    return "Anzeige";
  case FL_INPUT:
    return obj->type == FL_MULTILINE_INPUT ? "Mehrzeiliges Eingabefeld" : "Eingabefeld";
  case FL_TABBOX:
    return "Tabbox";
  case FL_LISTBOX:
    return "Liste";
  default:
    return nullptr;
  }
}

struct FileCloser {
  void operator()(FILE *f) const {
    if (f) std::fclose(f);
  }
};

} // namespace

std::string zentiq_manual_filename() { return std::string(myfl_get_appl_name()) + "_hlp.htm"; }

std::string zentiq_manual_section(FL_FORM *form, FL_OBJECT *help_button) {
  char name[1000];
  if (!myfl_get_form_name(form, name, sizeof name)) name[0] = '\0';
  std::string title = name;
  while (!title.empty() && title.back() == '\n') title.pop_back();
  std::string out = "<h2>" + escape(title) + "</h2>\n";
  std::string help;
  if (myfl_strip_intern(help_button, &help) && !help.empty()) out += help + "\n";
  out += "<table border=\"1\">\n<tr><th>Element</th><th>Beschriftung</th>"
         "<th>Tastenkürzel</th></tr>\n";
  for (FL_OBJECT *obj : form->objects) {
    const char *kind = kind_of(obj);
    if (!kind || (obj->objclass == FL_BUTTON && obj->type == FL_HIDDEN_BUTTON)) continue;
    out += "<tr><td>" + std::string(kind) + "</td><td>" + escape(label_text(obj->label)) +
           "</td><td>" + escape(obj->shortcut) + "</td></tr>\n";
  }
  out += "</table>\n";
  return out;
}

int zentiq_write_manual() {
  ZqApp &app = zentiq_app();
  std::string text = "<html>\n<head><meta charset=\"iso-8859-1\"><title>Zentiq</title></head>\n"
                     "<body>\n<h1>Zentiq " +
                     std::string(ZQ_VERSION) + "</h1>\n";
  text += zentiq_manual_section(app.main.form, app.main.help);
  text += zentiq_manual_section(app.detail.form, app.detail.help);
  // The tabbox dialogs (settings, sort, export, viewer, zoom) with theirs.
  myfl_create_tabbox_dialogs();
  MYFL_TABBOX_DIALOGS &d = myfl_tabbox_dialogs();
  FL_FORM *dialogs[] = {d.settings, d.sort, d.exp, d.viewer, d.zoom};
  for (int i = 0; i < 5; ++i)
    if (dialogs[i] && d.help[i]) text += zentiq_manual_section(dialogs[i], d.help[i]);
  // The table browser with its own.
  zentiq_build_browser();
  text += zentiq_manual_section(zentiq_browser().form, zentiq_browser().help);
  text += "</body>\n</html>\n";
  std::unique_ptr<FILE, FileCloser> f(std::fopen(zentiq_manual_filename().c_str(), "w"));
  if (!f) return 0;
  if (std::fwrite(text.data(), 1, text.size(), f.get()) != text.size()) return 0;
  return std::fclose(f.release()) == 0 ? 1 : 0;
}
