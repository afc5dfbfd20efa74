// The pop-up menu (see popup.h). The one menu of the process and its items are
// process-wide state, as the toolkit has only one open menu at a time.
#include "forms/popup.h"

#include "forms/dialogs.h"

#include <QAction>
#include <QCursor>
#include <QMenu>
#include <QPointer>

namespace {

std::vector<std::string> g_items;
QPointer<QMenu> g_open_menu;

} // namespace

std::vector<std::string> fl_split_popup(const char *definition) {
  std::vector<std::string> items;
  if (!definition) return items;
  std::string piece;
  bool any = false;
  for (const char *s = definition; *s; ++s) {
    any = true;
    if (*s == '|') {
      items.push_back(piece);
      piece.clear();
      any = false;
    } else if (*s == '%') {
      if (s[1]) ++s; // a flag such as %h or %l: accepted, no effect
    } else {
      piece += *s;
    }
  }
  if (any) items.push_back(piece);
  return items;
}

QWidget *fl_define_popup(QWidget *window, const char *definition) {
  g_items = fl_split_popup(definition);
  return window;
}

int fl_do_popup(QWidget *handle) {
  if (g_items.empty()) return 0;
  int item = 0;
  if (fl_seam_answer_popup(g_items, &item)) return item;
  QMenu menu(handle);
  for (size_t i = 0; i < g_items.size(); ++i) {
    QAction *a = menu.addAction(QString::fromLatin1(g_items[i].c_str()));
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
