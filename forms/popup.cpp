// The pop-up menu (see popup.h). The one menu of the process and its items are
// process-wide state, as the toolkit has only one open menu at a time.
#include "forms/popup.h"

#include "forms/dialogs.h"

#include <QAction>
#include <QCursor>
#include <QMenu>
#include <QPointer>

#include <cctype>

namespace {

std::vector<std::string> g_items;
std::vector<char> g_letters; // per item its "%s" letter, 0 none
QPointer<QMenu> g_open_menu;

// Splits a definition into items and their "%s" letters.
void split(const char *definition, std::vector<std::string> *items, std::vector<char> *letters) {
  items->clear();
  letters->clear();
  if (!definition) return;
  std::string piece;
  char letter = 0;
  bool any = false;
  for (const char *s = definition; *s; ++s) {
    any = true;
    if (*s == '|') {
      items->push_back(piece);
      letters->push_back(letter);
      piece.clear();
      letter = 0;
      any = false;
    } else if (*s == '%') {
      // A flag such as %h or %l: accepted, no effect; %s names the letter.
      if (s[1] == 's' && s[2] && s[2] != '|') {
        letter = s[2];
        s += 2;
      } else if (s[1]) {
        ++s;
      }
    } else {
      piece += *s;
    }
  }
  if (any) {
    items->push_back(piece);
    letters->push_back(letter);
  }
}

bool is_letter(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }
char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

// The menu texts of the items: each underlines its letter (the "%s" one,
// else its first letter or digit that no item before took), so that the
// letter chooses the item while the menu is shown. A "&" of the text stays
// a "&".
std::vector<QString> menu_texts(const std::vector<std::string> &items,
                                const std::vector<char> &letters) {
  std::string taken;
  for (char c : letters)
    if (c) taken += lower(c);
  std::vector<QString> texts;
  for (size_t i = 0; i < items.size(); ++i) {
    const std::string &t = items[i];
    size_t at = std::string::npos;
    if (char c = letters[i]) {
      for (size_t k = 0; k < t.size() && at == std::string::npos; ++k)
        if (lower(t[k]) == lower(c)) at = k;
    } else {
      for (size_t k = 0; k < t.size() && at == std::string::npos; ++k)
        if (is_letter(t[k]) && taken.find(lower(t[k])) == std::string::npos) at = k;
      if (at != std::string::npos) taken += lower(t[at]);
    }
    std::string shown;
    for (size_t k = 0; k < t.size(); ++k) {
      if (k == at) shown += '&';
      shown += t[k];
      if (t[k] == '&') shown += '&';
    }
    texts.push_back(QString::fromLatin1(shown.c_str()));
  }
  return texts;
}

} // namespace

std::vector<std::string> fl_split_popup(const char *definition) {
  std::vector<std::string> items;
  std::vector<char> letters;
  split(definition, &items, &letters);
  return items;
}

QWidget *fl_define_popup(QWidget *window, const char *definition) {
  split(definition, &g_items, &g_letters);
  return window;
}

int fl_do_popup(QWidget *handle) {
  if (g_items.empty()) return 0;
  int item = 0;
  if (fl_seam_answer_popup(g_items, &item)) return item;
  QMenu menu(handle);
  const std::vector<QString> texts = menu_texts(g_items, g_letters);
  for (size_t i = 0; i < texts.size(); ++i) {
    QAction *a = menu.addAction(texts[i]);
    a->setData(static_cast<int>(i + 1));
  }
  g_open_menu = &menu;
  QAction *chosen = menu.exec(QCursor::pos());
  g_open_menu = nullptr;
  item = chosen ? chosen->data().toInt() : 0;
  fl_seam_record_popup(g_items, item);
  return item;
}

int fl_popup_is_open() { return g_open_menu ? 1 : 0; }

void fl_close_popup() {
  if (g_open_menu) g_open_menu->close();
}

const std::vector<std::string> &fl_popup_items() { return g_items; }
