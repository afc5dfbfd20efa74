// The help system (see help.h).
#include "framework/help.h"

#include "base/datadir.h"
#include "base/msg.h"
#include "forms/dialogs.h"
#include "forms/editor.h"
#include "framework/place.h"

#include <QPlainTextEdit>
#include <QProcess>
#include <QStandardPaths>

#include <filesystem>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace {

struct HelpButton {
  FL_FORM *form;
  FL_OBJECT *button;
  std::string key;
};

std::vector<HelpButton> g_buttons;
std::map<FL_FORM *, void (*)(FL_FORM *)> g_info_hooks;
MYFL_HELPDIALOG g_dialog;

constexpr size_t kLineSize = 10000; // lines are read with at most 9999 characters
const char *const kTempFile = "hilfetxt.tmp";

struct FileCloser {
  void operator()(FILE *f) const {
    if (f) std::fclose(f);
  }
};
using File = std::unique_ptr<FILE, FileCloser>;

// The key of a header line "[KEY]...", or false when the line is none.
bool header_key(const char *line, std::string *key) {
  if (line[0] != '[') return false;
  const char *end = std::strchr(line + 1, ']');
  if (!end || end == line + 1) return false;
  key->assign(line + 1, end);
  return true;
}

// ---- Tags -----------------------------------------------------------------------------

const char *const kExactTags[] = {
    "h1",         "h2",  "h3",       "h4",     "h5",     "h6",       "p",     "ol",
    "ul",         "dl",  "menu",     "dir",    "li",     "br",       "nobr",  "wbr",
    "blockquote", "pre", "em",       "strong", "code",   "samp",     "kbd",   "var",
    "cite",       "dfn", "acronym",  "q",      "font",   "basefont", "b",     "u",
    "i",          "tt",  "big",      "small",  "sup",    "sub",      "blink", "center",
    "hr",         "div", "multicol", "spacer", "table",  "caption",  "col",   "colgroup",
    "tr",         "td",  "th",       "img",    "intern", "thead",    "tbody", "tfoot"};
const char *const kPrefixTags[] = {
    "h1 ",       "h2 ",       "h3 ",  "h4 ",         "h5 ",     "h6 ",    "p ",
    "ol ",       "ul ",       "dl ",  "blockquote ", "pre ",    "q ",     "font ",
    "basefont ", "hr ",       "div ", "multicol ",   "spacer ", "table ", "caption ",
    "col ",      "colgroup ", "td ",  "th ",         "img "};
static_assert(sizeof kExactTags / sizeof *kExactTags == 56, "56 tag names");
static_assert(sizeof kPrefixTags / sizeof *kPrefixTags == 26, "26 tag prefixes");

bool allowed_tag(const std::string &tag) {
  for (const char *t : kExactTags)
    if (tag == t) return true;
  for (const char *p : kPrefixTags)
    if (tag.compare(0, std::strlen(p), p) == 0) return true;
  return false;
}

// At text[i] == '<': true when this "<" is no tag (another "<" follows two
// places after it).
bool not_a_tag(const std::string &text, size_t i) {
  return i + 2 < text.size() && text[i + 2] == '<';
}

// ---- The dialog -------------------------------------------------------------------------

std::string display_text(FL_OBJECT *button) {
  std::string body;
  myfl_strip_intern(button, &body);
  return myfl_strip_tags(body);
}

void set_text_field(const std::string &text, bool editable) {
  fl_set_input(g_dialog.text, text.c_str());
  if (auto *te = qobject_cast<QPlainTextEdit *>(g_dialog.text->widget)) te->setReadOnly(!editable);
}

FL_OBJECT *shown_button() {
  for (const HelpButton &b : g_buttons)
    if (b.form == g_dialog.shown_form && b.key == g_dialog.key) return b.button;
  return nullptr;
}

// Checks and saves the edited text; on success back to display mode. Returns
// true when saved.
bool save_edited(const std::string &text) {
  std::string error;
  if (!myfl_check_html(text.c_str(), &error)) {
    fl_show_message("HTML-Syntaxfehler", error.c_str(), "");
    return false;
  }
  if (!myfl_save_help(g_dialog.key.c_str(), text.c_str())) {
    fl_show_message("Fehler bei Sichern des Hilfetexts", "", "");
    return false;
  }
  fl_set_object_label(g_dialog.edit, "Hilfetext editieren");
  fl_set_object_shortcut(g_dialog.edit, "^l^L", 0);
  fl_set_object_label(g_dialog.external, "Netscape Editor");
  fl_set_object_shortcut(g_dialog.external, "^N^n", 0);
  fl_activate_object(g_dialog.edit);
  fl_activate_object(g_dialog.external);
  fl_set_object_label(g_dialog.status, "");
  g_dialog.edit_mode = 0;
  FL_OBJECT *button = shown_button();
  set_text_field(
      button ? display_text(button) : myfl_strip_tags(myfl_read_help(g_dialog.key.c_str())), false);
  fl_show_message("Hilfetext wurde gesichert", "", "");
  return true;
}

void cb_edit(FL_OBJECT *, long) {
  if (!g_dialog.edit_mode) {
    g_dialog.edit_mode = 1;
    fl_set_object_label(g_dialog.edit, "Hilfetext ändern");
    fl_set_object_shortcut(g_dialog.edit, "^l^L", 0);
    fl_deactivate_object(g_dialog.external);
    fl_set_object_label(g_dialog.status, "Editier-Modus");
    set_text_field(myfl_read_help(g_dialog.key.c_str()), true);
    return;
  }
  save_edited(fl_get_input(g_dialog.text));
}

void cb_external(FL_OBJECT *, long) {
  if (!g_dialog.edit_mode) {
    // An editor that cannot start would leave the dialog waiting for an edit
    // that never comes: stay in display mode and say so.
    std::string command = myfl_html_editor_command();
    QStringList words = QProcess::splitCommand(QString::fromLatin1(command.c_str()));
    if (words.isEmpty() || QStandardPaths::findExecutable(words.first()).isEmpty()) {
      fl_show_warning(("HTML-Editor '" + command + "' kann nicht gestartet werden").c_str(),
                      "Den Editor nennt die Umgebungsvariable ZENTIQ_HTML_EDITOR; ohne sie "
                      "startet xdg-open den Editor der Arbeitsumgebung.",
                      "");
      return;
    }
    // Without the temporary file there is nothing to edit: stay in display mode.
    File f(std::fopen(kTempFile, "wb"));
    if (!f) {
      msg_print("Cannot open file '%s'!", kTempFile);
      return;
    }
    g_dialog.edit_mode = 1;
    fl_set_object_label(g_dialog.external, "Netscape speichern");
    fl_set_object_shortcut(g_dialog.external, "^N^n", 0);
    fl_deactivate_object(g_dialog.edit);
    fl_set_object_label(g_dialog.status, "Editier-Modus");
    std::string raw = myfl_read_help(g_dialog.key.c_str());
    std::fputs("<html>\n<body>\n", f.get());
    std::fwrite(raw.data(), 1, raw.size(), f.get());
    std::fputs("</html>\n</body>\n", f.get());
    f.reset();
    if (!QProcess::startDetached("/bin/sh", {"-c", QString::fromLatin1(command.c_str())}))
      msg_print("Unable to start %s\n", command.c_str());
    return;
  }
  char *data = fl_get_file_data(kTempFile);
  std::string all = data ? data : "";
  std::free(data);
  size_t body = all.find("<body>");
  size_t end = body == std::string::npos ? body : all.find("</body", body + 6);
  if (body == std::string::npos || end == std::string::npos) {
    fl_show_message("Hilfetext nicht gefunden (Datei hilfetxt.tmp)", "", "");
    return;
  }
  size_t start = body + 6;
  if (end > start) --end; // the line feed before the closing mark
  save_edited(all.substr(start, end - start));
}

void cb_close(FL_OBJECT *, long) { fl_close_form(g_dialog.form); }

int help_atclose(FL_FORM *, void *) {
  if (g_dialog.edit_mode &&
      fl_show_question("Nicht gespeicherte Änderungen am Hilfetext gehen verloren!",
                       "Wollen Sie dennoch fortfahren?", "", 2, "Ja", "Nein", "", 3) != 1)
    return -1;
  g_dialog.open = 0;
  g_dialog.edit_mode = 0;
  myfl_hide_form(g_dialog.form);
  // Hidden here: the toolkit must not close the window itself.
  return -1;
}

void build_dialog() {
  FL_FORM *form = fl_begin_form(0, 560, 440);
  // Fails only before the toolkit has its application, a programming error: fatal by design.
  if (!form) msg_fatal("(myfl_open_help) Cannot create the help dialog\n");
  fl_add_box(FL_UP_BOX, 0, 0, 560, 440, "");
  g_dialog.form = form;
  g_dialog.text = fl_add_input(FL_MULTILINE_INPUT, 10, 10, 540, 350, "");
  g_dialog.status = fl_add_text(0, 10, 365, 300, 20, "");
  g_dialog.edit = fl_add_button(FL_NORMAL_BUTTON, 10, 395, 170, 28, "Hilfetext editieren");
  g_dialog.external = fl_add_button(FL_NORMAL_BUTTON, 190, 395, 170, 28, "Netscape Editor");
  g_dialog.close = fl_add_button(FL_NORMAL_BUTTON, 440, 395, 110, 28, "Schließen");
  fl_set_object_callback(g_dialog.edit, cb_edit, 0);
  fl_set_object_callback(g_dialog.external, cb_external, 0);
  fl_set_object_callback(g_dialog.close, cb_close, 0);
  fl_end_form();
  myfl_set_form_name(form, -1, "Hilfedialog");
  myfl_set_form_atclose(form, help_atclose, nullptr);
}

} // namespace

void myfl_init_helpdialog(FL_FORM *form, FL_OBJECT *button, const char *key) {
  // Programming error (a call the code must never make): fatal by design.
  for (const HelpButton &b : g_buttons)
    if (b.button == button)
      msg_fatal("(myfl_init_helpdialog) Helpdialog '%s' already defined\n", key ? key : "");
  g_buttons.push_back({form, button, key ? key : ""});
  if (button) {
    fl_set_object_shortcut(button, "&1^[", 0);
    fl_set_object_callback(button, myfl_cb_help, 0);
  }
}

const char *myfl_get_help_key_of_button(FL_OBJECT *button) {
  for (const HelpButton &b : g_buttons)
    if (b.button == button) return b.key.c_str();
  return nullptr;
}

const char *myfl_get_help_key(FL_FORM *form) {
  for (const HelpButton &b : g_buttons)
    if (b.form == form) return b.key.c_str();
  return nullptr;
}

void myfl_free_helpdialogs(FL_FORM *form) {
  for (size_t i = g_buttons.size(); i-- > 0;)
    if (g_buttons[i].form == form) g_buttons.erase(g_buttons.begin() + static_cast<long>(i));
  g_info_hooks.erase(form);
}

void myfl_set_form_info_hook(FL_FORM *form, void (*hook)(FL_FORM *)) { g_info_hooks[form] = hook; }

void myfl_cb_help(FL_OBJECT *button, long) {
  if (!button) return;
  int key = button->last_key;
  if (key == FL_KEY_HELP || key == FL_KEY_ACTIVATE) {
    myfl_open_help(button);
  } else if (key == 39) {
    auto it = g_info_hooks.find(button->form);
    if (it != g_info_hooks.end() && it->second) it->second(button->form);
  }
}

void myfl_open_help(FL_OBJECT *button) {
  MYFL_HELPDIALOG *d = myfl_get_helpdialog();
  if (d->open) {
    fl_show_message("Hilfedialog bereits geöffnet", "", "");
    return;
  }
  // Without the help file the dialog would stay empty: say which file was
  // looked for and where.
  if (File f(std::fopen(myfl_help_filename().c_str(), "rb")); !f) {
    std::string name = std::string(myfl_get_appl_name()) + ".hlp";
    std::error_code ec;
    std::string where = "Gesucht im Arbeitsordner " + std::filesystem::current_path(ec).string();
    std::string installed = datadir_installed();
    if (!installed.empty()) where += " und in " + installed;
    fl_show_warning(("Hilfedatei '" + name + "' nicht gefunden").c_str(), where.c_str(), "");
    return;
  }
  const char *key = myfl_get_help_key_of_button(button);
  d->key = key ? key : "";
  d->shown_form = button ? button->form : nullptr;
  d->edit_mode = 0;
  set_text_field(display_text(button), false);
  fl_set_object_label(d->edit, "Hilfetext editieren");
  fl_set_object_shortcut(d->edit, "^l^L", 0);
  fl_set_object_label(d->external, "Netscape Editor");
  fl_set_object_shortcut(d->external, "^N^n", 0);
  fl_activate_object(d->edit);
  fl_activate_object(d->external);
  fl_set_object_label(d->status, "");
  d->open = 1;
  myfl_show_form(d->form, "Hilfedialog");
}

MYFL_HELPDIALOG *myfl_get_helpdialog() {
  if (!g_dialog.form) build_dialog();
  return &g_dialog;
}

std::string myfl_html_editor_command() {
  const char *env = std::getenv("ZENTIQ_HTML_EDITOR");
  return env && *env ? env : std::string("xdg-open ") + kTempFile;
}

// ---- The help file ----------------------------------------------------------------------

std::string myfl_help_filename() {
  return datadir_find((std::string(myfl_get_appl_name()) + ".hlp").c_str());
}

int myfl_find_help(const char *key) {
  File f(std::fopen(myfl_help_filename().c_str(), "rb"));
  if (!f || !key) return 0;
  char line[kLineSize];
  std::string k;
  for (int n = 1; std::fgets(line, sizeof line, f.get()); ++n)
    if (header_key(line, &k) && k == key) return n;
  return 0;
}

std::string myfl_read_help(const char *key) {
  std::string body;
  File f(std::fopen(myfl_help_filename().c_str(), "rb"));
  if (!f || !key) return body;
  char line[kLineSize];
  std::string k;
  bool collecting = false;
  while (std::fgets(line, sizeof line, f.get())) {
    if (header_key(line, &k)) {
      if (collecting) break;
      if (k == key) {
        collecting = true;
        body.reserve(10000);
      }
      continue;
    }
    if (collecting) body += line;
  }
  return body;
}

int myfl_save_help(const char *key, const char *text_in) {
  std::string name = myfl_help_filename();
  std::string text = text_in ? text_in : "";
  bool needs_lf = text.empty() || text.back() != '\n';
  int n = myfl_find_help(key);
  if (n == 0) {
    File f(std::fopen(name.c_str(), "ab"));
    if (!f) {
      msg_print("Cannot open file '%s'!", name.c_str());
      return 0;
    }
    std::fprintf(f.get(), "\n[%s]\n", key);
    std::fwrite(text.data(), 1, text.size(), f.get());
    if (needs_lf) std::fputc('\n', f.get());
    return 1;
  }
  File tmp(std::tmpfile());
  if (!tmp) {
    msg_print("ERROR: Cannot open temporary file!\n");
    return 0;
  }
  File in(std::fopen(name.c_str(), "rb+"));
  if (!in) {
    msg_print("Cannot open file '%s'!", name.c_str());
    return 0;
  }
  char line[kLineSize];
  int count = 0;
  while (count < n && std::fgets(line, sizeof line, in.get())) {
    ++count;
    std::fputs(line, tmp.get());
  }
  std::fwrite(text.data(), 1, text.size(), tmp.get());
  if (needs_lf) std::fputc('\n', tmp.get());
  // The old body ends at the next header whose key holds "HLP".
  std::string k;
  bool copying = false;
  while (std::fgets(line, sizeof line, in.get())) {
    if (!copying && header_key(line, &k) && k.find("HLP") != std::string::npos) copying = true;
    if (copying) std::fputs(line, tmp.get());
  }
  in.reset();
  std::rewind(tmp.get());
  File out(std::fopen(name.c_str(), "wb"));
  if (!out) {
    msg_print("Cannot open file '%s'!", name.c_str());
    return 0;
  }
  size_t got;
  while ((got = std::fread(line, 1, sizeof line, tmp.get())) > 0)
    if (std::fwrite(line, 1, got, out.get()) != got) return 0;
  return 1;
}

int myfl_check_html(const char *text_in, std::string *error) {
  std::string text = text_in ? text_in : "";
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '<') continue;
    if (not_a_tag(text, i)) continue;
    size_t close = text.find('>', i + 1);
    if (close == std::string::npos) {
      if (error) *error = "Schließende Befehlsklammer '>' fehlt.";
      return 0;
    }
    std::string tag = text.substr(i + 1, close - i - 1);
    if (!tag.empty() && tag[0] == '/') tag.erase(0, 1);
    for (char &c : tag) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!allowed_tag(tag)) {
      if (error) *error = "HTML-Befehl '" + tag + "' nicht zulässig.";
      return 0;
    }
    i = close;
  }
  if (error) error->clear();
  return 1;
}

std::string myfl_strip_tags(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '<') {
      out += text[i];
      continue;
    }
    if (not_a_tag(text, i)) {
      out += '<';
      continue;
    }
    size_t close = text.find('>', i + 1);
    if (close == std::string::npos) break;
    i = close;
  }
  return out;
}

std::string myfl_strip_html(const char *key) { return myfl_strip_tags(myfl_read_help(key)); }

int myfl_strip_intern(FL_OBJECT *button, std::string *out) {
  const char *key = myfl_get_help_key_of_button(button);
  std::string text = key ? myfl_read_help(key) : "";
  int ok = key ? 1 : 0;
  for (size_t from = 0;;) {
    size_t open = text.find("<intern>", from);
    if (open == std::string::npos) break;
    size_t close = text.find("</intern>", open);
    if (close == std::string::npos) {
      msg_print("Warnung (Hilfetext '%s'): <intern> ohne </intern>!\n", key);
      ok = 0;
      break;
    }
    // Rebuilt rather than replaced in place: GCC 12 at -O3 reports a false
    // overlap (-Wrestrict) for std::string::replace with a literal.
    text = text.substr(0, open) + '\n' + text.substr(close + 9);
    from = open + 1;
  }
  if (out) *out = text;
  return ok;
}
