// The table browser (see browser.h).
#include "app/browser.h"

#include <QLineEdit>
#include <QListWidget>
#include <QTimer>
#include <QTreeWidget>
#include <algorithm>

#include "app/catalog.h"
#include "app/completion.h"
#include "app/mainform.h"
#include "app/viewer.h"
#include "db/access/session.h"
#include "forms/dialogs.h"
#include "framework/combo.h"
#include "framework/help.h"
#include "framework/highlight.h"
#include "framework/place.h"

namespace {

constexpr int kAttributeListClass = 1010;

ZqBrowserForm g_form;
std::string g_shown_table; // folded name of the table whose attributes show

QListWidget *table_list() { return qobject_cast<QListWidget *>(g_form.tables->widget); }
QTreeWidget *attribute_tree() { return qobject_cast<QTreeWidget *>(g_form.attributes->widget); }
QString latin1(const std::string &s) { return QString::fromLatin1(s.data(), s.size()); }

// Replaces the text of a single-line input as one edit that Ctrl+Z takes
// back, so that what the user had typed is never lost.
void replace_input(FL_OBJECT *input, const std::string &text) {
  if (auto *le = qobject_cast<QLineEdit *>(input->widget)) {
    if (le->text() == latin1(text)) return;
    le->selectAll();
    le->insert(latin1(text));
  } else {
    fl_set_input(input, text.c_str());
  }
}

std::string title() {
  const char *db = myfl_get_cmb_code(zentiq_app().main.database);
  return std::string("Tabellen - ") + (db && *db ? db : "keine Datenbank");
}

// Shows only the tables whose names hold the filter text (any case).
void apply_filter() {
  QString f = qobject_cast<QLineEdit *>(g_form.filter->widget)->text().trimmed();
  QListWidget *l = table_list();
  for (int i = 0; i < l->count(); ++i)
    l->item(i)->setHidden(!f.isEmpty() && !l->item(i)->text().contains(f, Qt::CaseInsensitive));
}

void show_attributes(const std::string &name) {
  QTreeWidget *tree = attribute_tree();
  QSignalBlocker quiet(tree);
  tree->clear();
  g_shown_table = zentiq_fold_name(name);
  if (name.empty()) return;
  std::string why;
  const ZqTable *t = zentiq_catalog_table(zentiq_app().session, name, &why);
  if (!t || !t->loaded) {
    auto *item = new QTreeWidgetItem(tree);
    item->setText(0, latin1("(nicht lesbar: " + why + ")"));
    item->setFlags(Qt::ItemIsEnabled);
    return;
  }
  // The attributes named in "Attribute" show as chosen.
  std::string typed = zentiq_fold_name(fl_get_input(zentiq_app().main.attributes));
  std::vector<std::string> chosen;
  std::string word;
  for (char ch : typed + ",") {
    if (ch == ',') {
      chosen.push_back(word);
      word.clear();
    } else if (ch != ' ' && ch != '\t') {
      word += ch;
    }
  }
  for (const ZqAttribute &a : t->attributes) {
    auto *item = new QTreeWidgetItem(tree);
    item->setText(0, latin1(a.name));
    item->setText(1, latin1(a.type));
    item->setText(2, a.not_null ? "JA" : "NEIN");
    item->setText(3, latin1(a.indices));
    std::string key = zentiq_fold_name(a.name);
    item->setSelected(std::find(chosen.begin(), chosen.end(), key) != chosen.end());
  }
  for (int c = 0; c < 4; ++c) tree->resizeColumnToContents(c);
  zentiq_browser_names_changed();
}

// Fills the table list from the cache (read again with reload) and shows
// the attributes of the table in "Tabelle" when it is listed. A session
// lost with its server is opened again first, as every action of the user
// does (an empty level); when that fails the level has told the user why.
void fill(bool reload) {
  DBSESSION *session = zentiq_app().session;
  if (db_depth() > 0) return; // the refill waits for the level's end
  bool usable = zentiq_begin_level(session) != 0;
  if (usable) usable = zentiq_end_level(session) != 0;
  std::string why;
  const auto &tables = zentiq_catalog_tables(session, reload && usable, &why);
  QListWidget *l = table_list();
  {
    QSignalBlocker quiet(l);
    l->clear();
    for (const ZqTable &t : tables) {
      auto *item = new QListWidgetItem(latin1(t.name), l);
      item->setToolTip(latin1(std::to_string(t.attribute_count) + " Attribute" +
                              (t.mode == "STATIC" ? ", statisch" : "")));
    }
  }
  apply_filter();
  zentiq_browser_names_changed();
  fl_set_form_title(g_form.form, title().c_str());
  if (usable && tables.empty() && !why.empty())
    fl_show_message("Tabellen nicht lesbar:", why.c_str(), "");
  std::string typed = zentiq_fold_name(fl_get_input(zentiq_app().main.table));
  while (!typed.empty() && typed.back() == ' ') typed.pop_back();
  std::string chosen;
  for (int i = 0; i < l->count(); ++i)
    if (zentiq_fold_name(l->item(i)->text().toLatin1().toStdString()) == typed) {
      QSignalBlocker quiet(l);
      l->setCurrentRow(i);
      chosen = l->item(i)->text().toLatin1().toStdString();
    }
  show_attributes(chosen);
}

// The user chose a table in the list (click, Return or the arrow keys).
void table_chosen() {
  QListWidgetItem *item = table_list()->currentItem();
  if (!item) return;
  std::string name = item->text().toLatin1().toStdString();
  replace_input(zentiq_app().main.table, name);
  if (zentiq_fold_name(name) != g_shown_table) show_attributes(name);
}

// The user changed the choice of attributes: "Attribute" gets them in the
// table's order, or nothing (all attributes) when none is chosen.
void attributes_chosen() {
  QTreeWidget *tree = attribute_tree();
  std::string list;
  for (int i = 0; i < tree->topLevelItemCount(); ++i) {
    QTreeWidgetItem *item = tree->topLevelItem(i);
    if (!item->isSelected() || !(item->flags() & Qt::ItemIsSelectable)) continue;
    if (!list.empty()) list += ", ";
    list += item->text(0).toLatin1().toStdString();
  }
  replace_input(zentiq_app().main.attributes, list);
}

int close_browser(FL_FORM *form, void *) {
  myfl_hide_form(form);
  return -1;
}

void build() {
  fl_register_class(kAttributeListClass, "ATTRLIST", nullptr);
  FL_FORM *f = g_form.form = fl_begin_form(FL_NO_BOX, 720, 430);
  FL_OBJECT *bg = fl_add_box(FL_UP_BOX, 0, 0, 720, 430, "");
  fl_set_object_resize(bg, 0, 100, 0, 100);
  g_form.filter = fl_add_input(FL_NORMAL_INPUT, 60, 10, 150, 22, "Filter ");
  fl_set_object_lsize(g_form.filter, FL_MEDIUM_SIZE);
  QObject::connect(qobject_cast<QLineEdit *>(g_form.filter->widget), &QLineEdit::textEdited,
                   [] { apply_filter(); });
  g_form.tables = fl_add_listbox(FL_NORMAL_LISTBOX, 10, 60, 200, 320, "Tabellen");
  fl_set_object_lsize(g_form.tables, FL_MEDIUM_SIZE);
  fl_set_object_resize(g_form.tables, 0, 30, 0, 100);
  QObject::connect(table_list(), &QListWidget::currentRowChanged, [](int) { table_chosen(); });
  QObject::connect(table_list(), &QListWidget::itemClicked, [] { table_chosen(); });
  g_form.attributes = fl_add_object(
      kAttributeListClass, 0, 220, 60, 490, 320, "Attribute", [](FL_OBJECT *, QWidget *parent) {
        auto *tree = new QTreeWidget(parent);
        tree->setColumnCount(4);
        tree->setHeaderLabels({"Attribut", "Typ", "NOT NULL", "Indizes"});
        tree->setRootIsDecorated(false);
        tree->setSelectionMode(QAbstractItemView::ExtendedSelection);
        tree->setFocusPolicy(Qt::StrongFocus);
        QObject::connect(tree, &QTreeWidget::itemSelectionChanged, [] { attributes_chosen(); });
        return tree;
      });
  fl_set_object_lalign(g_form.attributes, FL_ALIGN_TOP);
  fl_set_object_lsize(g_form.attributes, FL_MEDIUM_SIZE);
  fl_set_object_resize(g_form.attributes, 30, 70, 0, 100);
  g_form.refresh = fl_add_button(FL_NORMAL_BUTTON, 10, 392, 120, 26, "Aktualisieren");
  fl_set_object_callback(
      g_form.refresh, [](FL_OBJECT *, long) { fill(true); }, 0);
  g_form.help = fl_add_button(FL_NORMAL_BUTTON, 490, 392, 100, 26, "Hilfe");
  g_form.close = fl_add_button(FL_NORMAL_BUTTON, 600, 392, 110, 26, "Schließen");
  fl_set_object_callback(
      g_form.close, [](FL_OBJECT *, long) { myfl_hide_form(g_form.form); }, 0);
  fl_set_object_resize(g_form.refresh, 0, 0, 100, 0);
  for (FL_OBJECT *o : {g_form.help, g_form.close}) fl_set_object_resize(o, 100, 0, 100, 0);
  for (FL_OBJECT *o : {g_form.refresh, g_form.help, g_form.close})
    fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_end_form();
  myfl_set_form_name(f, -1, "Tabellen");
  myfl_set_form_atclose(f, close_browser, nullptr);
  myfl_init_helpdialog(f, g_form.help, "TABB_HLP");
}

} // namespace

ZqBrowserForm &zentiq_browser() { return g_form; }

void zentiq_add_browser_button(int x, int y, int w, int h) {
  FL_OBJECT *b = fl_add_button(FL_NORMAL_BUTTON, x, y, w, h, "Tabellen");
  fl_set_object_lsize(b, FL_MEDIUM_SIZE);
  fl_set_object_callback(
      b, [](FL_OBJECT *, long) { zentiq_open_browser(); }, 0);
  fl_set_object_resize(b, 0, 0, 100, 0);
  ZqMainForm &m = zentiq_app().main;
  zentiq_attach_completion(m.table, ZQ_COMPLETE_TABLES);
  zentiq_attach_completion(m.attributes, ZQ_COMPLETE_ATTRIBUTES);
  zentiq_attach_completion(m.where, ZQ_COMPLETE_ATTRIBUTES);
  zentiq_attach_completion(m.sql, ZQ_COMPLETE_ALL);
  auto known = [](std::string_view w) { return zentiq_catalog_knows(w) != 0; };
  myfl_highlight_sql(m.where, known);
  myfl_highlight_sql(m.sql, known);
}

void zentiq_build_browser() {
  if (!g_form.form) build();
}

void zentiq_open_browser() {
  zentiq_build_browser();
  fill(true);
  if (g_form.form->visible)
    fl_raise_form(g_form.form);
  else
    myfl_show_form(g_form.form, title().c_str());
  fl_set_focus_object(g_form.form, g_form.tables);
}

namespace {

// Fills the open dialog once no level is open any more: the database may
// change inside one (a lost session opened again chooses its database
// again), and nothing may be read or asked then.
void refill_when_idle() {
  QTimer::singleShot(100, [] {
    if (!g_form.form || !g_form.form->visible) return;
    if (db_depth() > 0)
      refill_when_idle();
    else
      fill(false);
  });
}

} // namespace

void zentiq_browser_follow_database() {
  zentiq_catalog_forget();
  if (!g_form.form || !g_form.form->visible) return;
  if (db_depth() > 0)
    refill_when_idle();
  else
    fill(false);
}

void zentiq_browser_tables_changed() { zentiq_catalog_forget(); }

void zentiq_browser_names_changed() {
  static unsigned seen = 0;
  unsigned now = zentiq_catalog_generation();
  if (now == seen) return;
  seen = now;
  myfl_rehighlight_sql(zentiq_app().main.where);
  myfl_rehighlight_sql(zentiq_app().main.sql);
}

std::vector<std::string> zentiq_browser_listed() {
  std::vector<std::string> out;
  if (!g_form.form) return out;
  QListWidget *l = table_list();
  for (int i = 0; i < l->count(); ++i)
    if (!l->item(i)->isHidden()) out.push_back(l->item(i)->text().toLatin1().toStdString());
  return out;
}

int zentiq_browser_choose_table(const std::string &name) {
  if (!g_form.form) return 0;
  QListWidget *l = table_list();
  for (int i = 0; i < l->count(); ++i)
    if (!l->item(i)->isHidden() && l->item(i)->text() == latin1(name)) {
      l->setCurrentRow(i);
      table_chosen();
      return 1;
    }
  return 0;
}

std::vector<std::string> zentiq_browser_attribute_lines() {
  std::vector<std::string> out;
  if (!g_form.form) return out;
  QTreeWidget *tree = attribute_tree();
  for (int i = 0; i < tree->topLevelItemCount(); ++i) {
    QTreeWidgetItem *it = tree->topLevelItem(i);
    out.push_back((it->text(0) + "|" + it->text(1) + "|" + it->text(2) + "|" + it->text(3))
                      .toLatin1()
                      .toStdString());
  }
  return out;
}

int zentiq_browser_choose_attributes(const std::vector<std::string> &names) {
  if (!g_form.form) return 0;
  QTreeWidget *tree = attribute_tree();
  int found = 0;
  {
    QSignalBlocker quiet(tree);
    for (int i = 0; i < tree->topLevelItemCount(); ++i) {
      QTreeWidgetItem *it = tree->topLevelItem(i);
      bool want = false;
      for (const std::string &n : names) want = want || it->text(0) == latin1(n);
      it->setSelected(want);
      found += want;
    }
  }
  attributes_chosen();
  return found;
}
