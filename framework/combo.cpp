// Combo boxes (see combo.h).
#include "framework/combo.h"

#include "base/data.h"
#include "base/msg.h"
#include "db/access/session.h"

#include <QKeyEvent>
#include <QListWidget>
#include <QPointer>

#include <cstdio>
#include <map>
#include <memory>
#include <strings.h>

namespace {

// Every combo box, owned here; the map finds it by input and by button.
std::vector<std::unique_ptr<MYFL_CMB>> g_combos;
std::map<FL_OBJECT *, MYFL_CMB *> g_registry;

const char *const kEmptyText = " ";
const char *const kEmptyCode = "    ";

MYFL_CMB *lookup(FL_OBJECT *obj, const char *fn) {
  auto it = g_registry.find(obj);
  // Programming error (a call the code must never make): fatal by design.
  if (it == g_registry.end()) msg_fatal("(%s) Cmb not defined\n", fn);
  return it->second;
}

std::string rtrim(const std::string &s) {
  size_t n = s.size();
  while (n > 0 && s[n - 1] == ' ') --n;
  return s.substr(0, n);
}

bool is_blank(const std::string &s) { return s.find_first_not_of(' ') == std::string::npos; }

// Equality of codes with trailing blanks ignored (letter case counts).
bool same_code(const std::string &a, const std::string &b) { return rtrim(a) == rtrim(b); }

void add_entry(MYFL_CMB *c, const std::string &text, const std::string &code, const char *fn,
               const std::string &parent_code = std::string()) {
  // More keys than a combo box can hold: fatal by design.
  if (static_cast<int>(c->texts.size()) >= MYFL_CMB_MAX)
    msg_fatal("(%s) Too many keys (max = %d)\n", fn, MYFL_CMB_MAX);
  c->order.push_back(static_cast<int>(c->texts.size()));
  c->texts.push_back(text);
  c->codes.push_back(code);
  c->parent_codes.push_back(parent_code);
}

// Registers a new combo box under its input and button.
MYFL_CMB *create(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, int no_empty, const char *fn) {
  // Programming error (a call the code must never make): fatal by design.
  if (!input) msg_fatal("(%s) Cmb not defined\n", fn);
  fl_set_input_return(input, FL_RETURN_CHANGED);
  // Programming error (a call the code must never make): fatal by design.
  if (g_registry.count(input)) msg_fatal("(%s) Cmb already defined\n", fn);
  if (button && g_registry.count(button)) msg_fatal("(%s) Cmb (button) already defined\n", fn);
  auto c = std::make_unique<MYFL_CMB>();
  c->form = form;
  c->input = input;
  c->button = button;
  c->no_empty = no_empty;
  MYFL_CMB *raw = c.get();
  g_combos.push_back(std::move(c));
  g_registry[input] = raw;
  if (button) g_registry[button] = raw;
  return raw;
}

// The last steps of every creation: the empty choice, sorting, callbacks.
void finish(MYFL_CMB *c, const char *fn) {
  if (!c->no_empty) add_entry(c, kEmptyText, kEmptyCode, fn);
  myfl_sort_cmb(c->input);
  fl_set_object_callback(c->input, myfl_cb_cmb_field, 0);
  if (c->button) fl_set_object_callback(c->button, myfl_cb_open_cmb, 0);
}

// Whether entry i may be chosen now: a dependent combo box offers only the
// entries under the superordinate combo box's chosen code.
bool listed(const MYFL_CMB *c, size_t i) {
  if (!c->dependent || !c->parent) return true;
  if (is_blank(c->codes[i])) return true;
  auto it = g_registry.find(c->parent);
  if (it == g_registry.end()) return true;
  const MYFL_CMB *p = it->second;
  std::string parent_code = p->chosen >= 0 ? p->codes[static_cast<size_t>(p->chosen)] : "";
  return same_code(c->parent_codes[i], parent_code);
}

int find_code(const MYFL_CMB *c, const std::string &code) {
  for (size_t i = 0; i < c->codes.size(); ++i)
    if (same_code(c->codes[i], code) && listed(c, i)) return static_cast<int>(i);
  return -1;
}

// Shows entry i and remembers it as chosen; runs the change callback when
// wanted.
void choose(MYFL_CMB *c, int i, bool with_cb) {
  const std::string &text = c->texts[static_cast<size_t>(i)];
  fl_set_input(c->input, is_blank(text) ? "" : text.c_str());
  c->chosen = i;
  if (with_cb && c->change_cb) c->change_cb(c->input, c->change_arg);
}

int set_cmb_code(MYFL_CMB *c, const char *code_in, bool show, bool with_cb) {
  std::string code = code_in ? code_in : "";
  if (show && !c->dependent) {
    for (auto &d : g_combos) {
      if (d->dependent && d->parent == c->input) {
        // The old choice below may not exist under the new code.
        d->chosen = -1;
        set_cmb_code(d.get(), "", true, with_cb);
      }
    }
  }
  if (c->accept_any && code.empty()) {
    fl_set_input(c->input, "");
    code = kEmptyCode;
  }
  int i = find_code(c, code);
  if (i >= 0) {
    if (show) {
      const std::string &text = c->texts[static_cast<size_t>(i)];
      fl_set_input(c->input, is_blank(text) ? "" : text.c_str());
      c->chosen = i;
    }
    if (with_cb && c->change_cb) c->change_cb(c->input, c->change_arg);
    return 1;
  }
  if (!show) return 0;
  if (!is_blank(code)) {
    msg_print("(set_cmb_code) Warning: CMB-Code '%s' is invalid!\n", code.c_str());
    fl_set_input(c->input, code.c_str());
    return 0;
  }
  i = find_code(c, kEmptyCode);
  if (i >= 0) choose(c, i, with_cb);
  return 0;
}

// A character as the collating order folds it (ASCII letters upper-cased,
// the capitals Ä, Ö, Ü as A, O, U).
int fold(char ch) {
  unsigned char u = static_cast<unsigned char>(ch);
  if (u >= 'a' && u <= 'z') u = static_cast<unsigned char>(u - 'a' + 'A');
  if (u == 196) u = 'A';
  if (u == 214) u = 'O';
  if (u == 220) u = 'U';
  return u;
}

bool begins_with(const std::string &text, const std::string &prefix) {
  if (prefix.size() > text.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i)
    if (fold(text[i]) != fold(prefix[i])) return false;
  return true;
}

// ---- Database helpers -------------------------------------------------------------

std::string sql_quote(const std::string &s) {
  std::string out;
  for (char ch : s) {
    out += ch;
    if (ch == '\'') out += '\'';
  }
  return out;
}

// Column of result by name (case-blind), or -1.
int column(DBSESSION *session, DBRESULT *result, const char *name) {
  int n = dbnfields(session, result);
  for (int i = 0; i < n; ++i) {
    const char *f = dbfieldname(session, result, i);
    if (f && strcasecmp(f, name) == 0) return i;
  }
  return -1;
}

std::string value(DBSESSION *session, DBRESULT *result, int row, int col) {
  if (col < 0) return "";
  const char *v = dbgetvalue(session, result, row, col);
  return v ? v : "";
}

// Runs one query inside its own BEGIN level and hands every row to fn.
// Returns the number of rows (0 also for a failed statement).
template <typename Fn> int query_rows(DBSESSION *session, const std::string &sql, Fn fn) {
  if (!dbbegin(session)) db_backend_failure();
  DBRESULT *result = nullptr;
  int outcome = 0;
  int rows = 0;
  if (dbexec1(session, sql.c_str(), &result, &outcome) && outcome == DBOUT_TUPLES && result) {
    rows = dbntuples(session, result);
    for (int r = 0; r < rows; ++r) fn(result, r);
  }
  if (rows < 0) rows = 0;
  dbclear(session, result);
  if (!dbend(session)) db_backend_failure();
  return rows;
}

// Fills c from key directory svz; with `parents`, every entry keeps its
// superordinate code.
void fill_svz(MYFL_CMB *c, DBSESSION *session, int svz, const char *fn) {
  char sql[DB_STATEMENT_SIZE];
  std::snprintf(sql, sizeof sql, "SELECT * FROM SVZT WHERE  SPRACHE  = '%s' AND    TABELLE  = %d",
                session->language, svz);
  if (query_rows(session, sql, [](DBRESULT *, int) {}) == 0) {
    msg_print("(%s) Warning: SVZ %d not found\n", fn, svz);
    return;
  }
  std::snprintf(sql, sizeof sql, "SELECT * FROM SVZK WHERE  SPRACHE  = '%s' AND    TABELLE  = %d",
                session->language, svz);
  int rows = query_rows(session, sql, [&](DBRESULT *res, int r) {
    std::string code = rtrim(value(session, res, r, column(session, res, "Code")));
    std::string text = value(session, res, r, column(session, res, "Bezeichnung"));
    std::string parent = value(session, res, r, column(session, res, "Code_Uebergeordnet"));
    add_entry(c, rtrim(text), code, fn, parent);
  });
  if (rows == 0) msg_print("(%s) Warning: SVZ %d is empty\n", fn, svz);
}

// ---- The entry list -----------------------------------------------------------------

// The pop-up list of a combo box; Return chooses, Escape closes.
class EntryList : public QListWidget {
public:
  EntryList(MYFL_CMB *c) : QListWidget(nullptr), combo_(c) {
    setWindowFlags(Qt::Popup);
    setAttribute(Qt::WA_DeleteOnClose);
    connect(this, &QListWidget::itemClicked, [this](QListWidgetItem *item) { pick(item); });
  }
  std::vector<int> entries; // entry index of each row

protected:
  void keyPressEvent(QKeyEvent *e) override {
    if (e->key() == Qt::Key_Escape) {
      close();
      return;
    }
    if (e->key() == Qt::Key_Return || e->key() == Qt::Key_Enter) {
      pick(currentItem());
      return;
    }
    QListWidget::keyPressEvent(e);
  }

private:
  void pick(QListWidgetItem *item) {
    if (!item) return;
    int i = entries[static_cast<size_t>(row(item))];
    MYFL_CMB *c = combo_;
    close();
    if (g_registry.count(c->input))
      set_cmb_code(c, c->codes[static_cast<size_t>(i)].c_str(), true, true);
  }
  MYFL_CMB *combo_;
};

QPointer<EntryList> g_list;

void forget(MYFL_CMB *c) {
  if (g_list) myfl_close_cmb_list();
  g_registry.erase(c->input);
  if (c->button) g_registry.erase(c->button);
  for (auto it = g_combos.begin(); it != g_combos.end(); ++it) {
    if (it->get() == c) {
      g_combos.erase(it);
      break;
    }
  }
}

} // namespace

int myfl_init_data_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, const char *data,
                       int no_empty) {
  const char *fn = "myfl_init_data_cmb";
  MYFL_CMB *c = create(form, input, button, no_empty, fn);
  c->data = data ? data : "";
  const std::string &d = c->data;
  size_t pos = 0;
  while (pos < d.size()) {
    size_t end = d.find('|', pos);
    if (end == std::string::npos) end = d.size();
    std::string entry = d.substr(pos, end - pos);
    pos = end + 1;
    if (entry.empty()) continue;
    size_t comma = entry.find(',');
    std::string text = entry.substr(0, comma);
    std::string code = comma == std::string::npos ? "" : entry.substr(comma + 1);
    add_entry(c, rtrim(text), code, fn);
  }
  finish(c, fn);
  return 1;
}

int myfl_init_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, int no_empty) {
  MYFL_CMB *c = create(form, input, button, no_empty, "myfl_init_cmb");
  finish(c, "myfl_init_cmb");
  return 1;
}

int myfl_init_svz_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, DBSESSION *session,
                      int svz, int no_empty) {
  const char *fn = "myfl_init_svz_cmb";
  MYFL_CMB *c = create(form, input, button, no_empty, fn);
  if (session) fill_svz(c, session, svz, fn);
  finish(c, fn);
  return 1;
}

int myfl_init_fhk_svz_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, DBSESSION *session,
                          int svz, FL_OBJECT *parent_input, int no_empty) {
  const char *fn = "myfl_init_fhk_svz_cmb";
  MYFL_CMB *c = create(form, input, button, no_empty, fn);
  c->dependent = 1;
  c->parent = parent_input;
  if (session) fill_svz(c, session, svz, fn);
  finish(c, fn);
  return 1;
}

int myfl_init_ass_svz_cmb(FL_FORM *form, FL_OBJECT *input, FL_OBJECT *button, DBSESSION *session,
                          const char *name, int no_empty) {
  const char *fn = "myfl_init_ass_svz_cmb";
  MYFL_CMB *c = create(form, input, button, no_empty, fn);
  std::string heading = name ? name : "";
  if (heading.compare(0, 4, "SVZ ") != 0) heading = "SVZ " + heading;
  if (session) {
    char sql[DB_STATEMENT_SIZE];
    std::snprintf(sql, sizeof sql,
                  "SELECT * FROM SVZT WHERE  SPRACHE  = '%s' AND    BEZEICHNUNG  = '%s'",
                  session->language, sql_quote(heading).c_str());
    int svz = -1;
    query_rows(session, sql, [&](DBRESULT *res, int r) {
      if (svz < 0) svz = std::atoi(value(session, res, r, column(session, res, "Tabelle")).c_str());
    });
    if (svz < 0)
      msg_print("(%s) Warning: %s not found\n", fn, heading.c_str()); // heading: "SVZ <name>"
    else
      fill_svz(c, session, svz, fn);
  }
  finish(c, fn);
  return 1;
}

int myfl_addto_cmb(FL_OBJECT *input, const char *text, const char *code) {
  MYFL_CMB *c = lookup(input, "myfl_addto_cmb");
  add_entry(c, rtrim(text ? text : ""), code ? code : "", "myfl_addto_cmb");
  return 1;
}

int myfl_load_db_cmb(DBSESSION *session, FL_OBJECT *input, const char *statement) {
  const char *fn = "myfl_load_db_cmb";
  MYFL_CMB *c = lookup(input, fn);
  int rows = query_rows(session, statement ? statement : "", [&](DBRESULT *res, int r) {
    std::string code = value(session, res, r, 0);
    std::string text = dbnfields(session, res) > 1 ? value(session, res, r, 1) : code;
    add_entry(c, rtrim(text), code, fn);
  });
  if (rows == 0) msg_print("(%s) Warning: Table is empty\n", fn);
  myfl_sort_cmb(input);
  return rows;
}

int myfl_load_multiple_cmb(DBSESSION *session, FL_OBJECT *input, const char *table,
                           const char *code_attr, const char *text_attr, const char *where) {
  const char *fn = "myfl_load_multiple_cmb";
  MYFL_CMB *c = lookup(input, fn);
  std::string sql = std::string("SELECT ") + (code_attr ? code_attr : "") + "," +
                    (text_attr ? text_attr : "") + " FROM " + (table ? table : "");
  if (where && *where) sql += std::string(" WHERE ") + where;
  int rows = query_rows(session, sql, [&](DBRESULT *res, int r) {
    add_entry(c, rtrim(value(session, res, r, 1)), value(session, res, r, 0), fn);
  });
  if (rows == 0) msg_print("(%s) Warning: Table is empty\n", fn);
  myfl_sort_cmb(input);
  return rows;
}

void myfl_free_cmb(FL_OBJECT *input) { forget(lookup(input, "myfl_free_cmb")); }

void myfl_free_form_cmbs(FL_FORM *form) {
  for (size_t i = g_combos.size(); i-- > 0;)
    if (g_combos[i]->form == form) forget(g_combos[i].get());
}

void myfl_sort_cmb(FL_OBJECT *input) {
  MYFL_CMB *c = lookup(input, "myfl_sort_cmb");
  size_t n = c->texts.size();
  std::string chosen_code = c->chosen >= 0 ? c->codes[static_cast<size_t>(c->chosen)] : "";
  int chosen_order = c->chosen >= 0 ? c->order[static_cast<size_t>(c->chosen)] : -1;
  for (size_t i = 0; i + 1 < n; ++i) {
    size_t m = i;
    for (size_t j = i + 1; j < n; ++j)
      if (DATA_Compare(c->texts[m].c_str(), DT_STRING, c->texts[j].c_str(), DT_STRING) > 0) m = j;
    if (m != i) {
      std::swap(c->texts[i], c->texts[m]);
      std::swap(c->codes[i], c->codes[m]);
      std::swap(c->parent_codes[i], c->parent_codes[m]);
      std::swap(c->order[i], c->order[m]);
    }
  }
  // The chosen entry stays chosen wherever it went.
  if (chosen_order >= 0)
    for (size_t i = 0; i < n; ++i)
      if (c->order[i] == chosen_order && c->codes[i] == chosen_code)
        c->chosen = static_cast<int>(i);
}

void myfl_cb_open_cmb(FL_OBJECT *obj, long) {
  MYFL_CMB *c = lookup(obj, "myfl_cb_open_cmb");
  myfl_close_cmb_list();
  if (!c->input->widget) return;
  auto *list = new EntryList(c);
  int current = -1;
  for (size_t i = 0; i < c->texts.size(); ++i) {
    if (!listed(c, i)) continue;
    if (static_cast<int>(i) == c->chosen) current = static_cast<int>(list->entries.size());
    list->entries.push_back(static_cast<int>(i));
    list->addItem(QString::fromLatin1(is_blank(c->texts[i]) ? "" : c->texts[i].c_str()));
  }
  int rows = std::max(1, std::min(static_cast<int>(list->entries.size()), 10));
  int row_h = list->sizeHintForRow(0) > 0 ? list->sizeHintForRow(0) : c->input->h;
  int width = c->input->w + (c->button ? c->button->w : 0);
  list->resize(width, rows * row_h + 2 * list->frameWidth());
  list->move(c->input->widget->mapToGlobal(QPoint(0, c->input->h)));
  if (current >= 0) list->setCurrentRow(current);
  g_list = list;
  list->show();
  list->setFocus(Qt::PopupFocusReason);
}

void myfl_cb_cmb_field(FL_OBJECT *obj, long) {
  MYFL_CMB *c = lookup(obj, "myfl_cb_cmb_field");
  std::string typed = rtrim(fl_get_input(c->input));
  if (typed.empty()) {
    set_cmb_code(c, "", true, true);
    return;
  }
  int found = -1;
  for (size_t i = 0; i < c->texts.size() && found < 0; ++i)
    if (listed(c, i) && DATA_Compare(c->texts[i].c_str(), DT_STRING, typed.c_str(), DT_STRING) == 0)
      found = static_cast<int>(i);
  for (size_t i = 0; i < c->texts.size() && found < 0; ++i)
    if (listed(c, i) && !is_blank(c->texts[i]) && begins_with(c->texts[i], typed))
      found = static_cast<int>(i);
  if (found >= 0) {
    set_cmb_code(c, c->codes[static_cast<size_t>(found)].c_str(), true, true);
    return;
  }
  // Unknown text: the field shows the chosen entry again.
  if (c->chosen >= 0) {
    const std::string &text = c->texts[static_cast<size_t>(c->chosen)];
    fl_set_input(c->input, is_blank(text) ? "" : text.c_str());
  } else {
    fl_set_input(c->input, "");
  }
}

const char *myfl_get_cmb_code(FL_OBJECT *input) {
  MYFL_CMB *c = lookup(input, "myfl_get_cmb_code");
  return c->chosen >= 0 ? c->codes[static_cast<size_t>(c->chosen)].c_str() : "";
}

const char *myfl_get_cmb_text(FL_OBJECT *input) {
  MYFL_CMB *c = lookup(input, "myfl_get_cmb_text");
  return c->chosen >= 0 ? c->texts[static_cast<size_t>(c->chosen)].c_str() : "";
}

const char *myfl_get_cmbtext(FL_OBJECT *input) {
  MYFL_CMB *c = lookup(input, "myfl_get_cmbtext");
  return fl_get_input(c->input);
}

int myfl_set_cmb_code(FL_OBJECT *input, const char *code) {
  return set_cmb_code(lookup(input, "myfl_set_cmb_code"), code, true, true);
}

int myfl_set_cmb_code_no_cb(FL_OBJECT *input, const char *code) {
  return set_cmb_code(lookup(input, "myfl_set_cmb_code_no_cb"), code, true, false);
}

int myfl_valid_cmb_code(FL_OBJECT *input, const char *code) {
  MYFL_CMB *c = lookup(input, "myfl_valid_cmb_code");
  return find_code(c, code ? code : "") >= 0 ? 1 : 0;
}

void myfl_set_cmb_callback(FL_OBJECT *input, FL_CALLBACKPTR callback, long argument) {
  // The diagnostic keeps the name this operation has always reported.
  MYFL_CMB *c = lookup(input, "myfl_get_cmb_text");
  c->change_cb = callback;
  c->change_arg = argument;
}

void myfl_set_cmb_accept_any(FL_OBJECT *input, int flag) {
  lookup(input, "myfl_set_cmb_accept_any")->accept_any = flag ? 1 : 0;
}

MYFL_CMB *myfl_get_cmb(FL_OBJECT *obj) {
  auto it = g_registry.find(obj);
  return it == g_registry.end() ? nullptr : it->second;
}

int myfl_is_cmb(FL_OBJECT *obj) {
  MYFL_CMB *c = obj ? myfl_get_cmb(obj) : nullptr;
  return c && c->input == obj ? 1 : 0;
}

int myfl_step_cmb(FL_OBJECT *input, int delta) {
  MYFL_CMB *c = lookup(input, "myfl_step_cmb");
  int n = static_cast<int>(c->texts.size());
  for (int i = c->chosen + delta; i >= 0 && i < n; i += delta) {
    if (!listed(c, static_cast<size_t>(i))) continue;
    choose(c, i, true);
    return 1;
  }
  if (c->chosen < 0 && delta < 0) return myfl_step_cmb(input, 1);
  return 0;
}

QListWidget *myfl_cmb_list() { return g_list.data(); }

void myfl_close_cmb_list() {
  if (g_list) g_list->close();
  g_list = nullptr;
}
