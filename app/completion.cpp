// Name completion (see completion.h): the sorted name index and the list
// that opens under an input of the main form.
//
// The list is a pop-up window of its own, so that while it is open the keys
// reach it rather than the toolkit's keyboard filter of the form (which
// would take Up, Down and Escape for the result tabbox and the close
// question): the list keeps the navigation keys, Return and Tab take the
// chosen name, Escape closes it, and every other key goes on to the input,
// after which the list follows the new prefix.
#include "app/completion.h"

#include <QApplication>
#include <QEvent>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QScreen>
#include <QTextBlock>
#include <algorithm>
#include <cctype>
#include <map>
#include <memory>

#include "app/browser.h"
#include "app/catalog.h"
#include "app/viewer.h"

std::string zentiq_fold_name(std::string_view name) {
  std::string out(name);
  for (char &ch : out)
    if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 'a' + 'A');
  return out;
}

void zentiq_index_build(ZqNameIndex *index, std::vector<std::string> names) {
  std::vector<std::pair<std::string, std::string>> pairs;
  pairs.reserve(names.size());
  for (std::string &n : names) pairs.emplace_back(zentiq_fold_name(n), std::move(n));
  std::sort(pairs.begin(), pairs.end(),
            [](const auto &a, const auto &b) { return a.first < b.first; });
  index->keys.clear();
  index->names.clear();
  index->keys.reserve(pairs.size());
  index->names.reserve(pairs.size());
  for (auto &p : pairs) {
    if (!index->keys.empty() && index->keys.back() == p.first) continue;
    index->keys.push_back(std::move(p.first));
    index->names.push_back(std::move(p.second));
  }
}

size_t zentiq_index_prefix(const ZqNameIndex &index, std::string_view prefix, size_t limit,
                           std::vector<std::string> *out) {
  std::string key = zentiq_fold_name(prefix);
  size_t added = 0;
  auto it = std::lower_bound(index.keys.begin(), index.keys.end(), key);
  for (; it != index.keys.end() && out->size() < limit; ++it) {
    if (it->compare(0, key.size(), key) != 0) break;
    out->push_back(index.names[static_cast<size_t>(it - index.keys.begin())]);
    ++added;
  }
  return added;
}

std::vector<std::string> zentiq_complete(const std::vector<const ZqNameIndex *> &indices,
                                         std::string_view prefix, size_t limit) {
  // Each index gives its first `limit` matches; the merge keeps the first
  // `limit` of all of them in folded order, each name once.
  std::map<std::string, std::string> merged;
  for (const ZqNameIndex *index : indices) {
    if (!index) continue;
    std::vector<std::string> part;
    zentiq_index_prefix(*index, prefix, limit, &part);
    for (std::string &n : part) merged.emplace(zentiq_fold_name(n), std::move(n));
  }
  std::vector<std::string> out;
  for (auto &kv : merged) {
    if (out.size() >= limit) break;
    out.push_back(std::move(kv.second));
  }
  return out;
}

namespace {

bool name_char(unsigned char ch) { return std::isalnum(ch) || ch == '_' || ch >= 0xC0; }

// The words of a text that may be names, folded.
std::vector<std::string> words_of(const std::string &text) {
  std::vector<std::string> words;
  std::string cur;
  for (char ch : text + " ") {
    if (name_char(static_cast<unsigned char>(ch))) {
      cur += ch;
    } else if (!cur.empty()) {
      words.push_back(zentiq_fold_name(cur));
      cur.clear();
    }
  }
  return words;
}

class Completion : public QObject {
public:
  Completion(FL_OBJECT *input, ZqCompletionKind kind)
      : QObject(input->widget), input_(input), kind_(kind) {
    QWidget *w = input->widget;
    list_ = new QListWidget(w);
    list_->setWindowFlags(Qt::Popup);
    list_->setFocusPolicy(Qt::NoFocus);
    list_->setUniformItemSizes(true);
    list_->setFont(w->font());
    list_->installEventFilter(this);
    w->installEventFilter(this);
    connect(list_, &QListWidget::itemClicked,
            [this](QListWidgetItem *item) { choose(list_->row(item)); });
    if (auto *le = qobject_cast<QLineEdit *>(w))
      connect(le, &QLineEdit::textEdited, [this] { follow(); });
    else if (auto *te = qobject_cast<QPlainTextEdit *>(w))
      connect(te, &QPlainTextEdit::textChanged, [this, te] {
        // Only what the user types: text set by the program is left alone.
        if (te->hasFocus() || list_->isVisible()) follow();
      });
  }

  // Fills and shows the list for the word before the cursor; the count.
  int open(bool force) {
    forced_ = force;
    std::string text, before;
    int start = 0;
    word(&text, &start, &before);
    if (!force && static_cast<int>(before.size()) < ZQ_COMPLETION_MIN_PREFIX) {
      hide();
      return 0;
    }
    std::vector<std::string> names = candidates(text, before);
    zentiq_browser_names_changed(); // names read just now take their colour
    // A name typed in full and alone is no reason to offer it again.
    if (names.empty() ||
        (!force && names.size() == 1 && zentiq_fold_name(names[0]) == zentiq_fold_name(before))) {
      hide();
      return 0;
    }
    list_->setUpdatesEnabled(false);
    list_->clear();
    QStringList items;
    items.reserve(static_cast<int>(names.size()));
    for (const std::string &n : names) items << QString::fromLatin1(n.data(), n.size());
    list_->addItems(items);
    list_->setCurrentRow(0);
    list_->setUpdatesEnabled(true);
    place();
    if (!list_->isVisible()) list_->show();
    return list_->count();
  }

  std::vector<std::string> shown() const {
    std::vector<std::string> out;
    if (!list_->isVisible()) return out;
    for (int i = 0; i < list_->count(); ++i)
      out.push_back(list_->item(i)->text().toLatin1().toStdString());
    return out;
  }

  // Replaces the typed prefix by name `row` of the list, keeping the
  // input's undo history (Ctrl+Z brings the prefix back).
  bool choose(int row) {
    if (row < 0 || row >= list_->count()) return false;
    QString name = list_->item(row)->text();
    hide();
    std::string text, before;
    int start = 0;
    word(&text, &start, &before);
    int typed = static_cast<int>(before.size());
    QWidget *w = input_->widget;
    if (auto *le = qobject_cast<QLineEdit *>(w)) {
      le->setSelection(le->cursorPosition() - typed, typed);
      le->insert(name);
    } else if (auto *te = qobject_cast<QPlainTextEdit *>(w)) {
      QTextCursor c = te->textCursor();
      c.movePosition(QTextCursor::Left, QTextCursor::KeepAnchor, typed);
      c.insertText(name);
      te->setTextCursor(c);
    }
    w->setFocus();
    return true;
  }

protected:
  bool eventFilter(QObject *obj, QEvent *e) override {
    if (e->type() != QEvent::KeyPress) return false;
    auto *ke = static_cast<QKeyEvent *>(e);
    if (obj == input_->widget) {
      // Ctrl+Space opens the list for whatever is typed.
      if (ke->key() == Qt::Key_Space && (ke->modifiers() & Qt::ControlModifier)) {
        open(true);
        return true;
      }
      return false;
    }
    if (obj != list_) return false;
    switch (ke->key()) {
    case Qt::Key_Up:
    case Qt::Key_Down:
    case Qt::Key_PageUp:
    case Qt::Key_PageDown:
      return false; // the list moves its choice
    case Qt::Key_Return:
    case Qt::Key_Enter:
    case Qt::Key_Tab:
      choose(list_->currentRow());
      return true;
    case Qt::Key_Escape:
      hide();
      return true;
    default:
      break;
    }
    // A key with Control or Alt is meant for the form (a shortcut such as
    // Ctrl+U): the list closes first, so that the form's keyboard handling
    // sees the key as if the list had never been open.
    if (ke->modifiers() & (Qt::ControlModifier | Qt::AltModifier)) {
      hide();
      QApplication::sendEvent(input_->widget, e);
      return true;
    }
    // Typing goes on in the input; the list follows the word before the
    // cursor, also when only the cursor moved.
    QApplication::sendEvent(input_->widget, e);
    if (list_->isVisible()) open(forced_);
    return true;
  }

private:
  // The input's text, the start of the word before the cursor and that
  // word (Latin-1 bytes, as the toolkit hands texts out).
  void word(std::string *text, int *start, std::string *before) const {
    QWidget *w = input_->widget;
    QString line;
    int pos = 0;
    if (auto *le = qobject_cast<QLineEdit *>(w)) {
      line = le->text();
      pos = le->cursorPosition();
      *text = line.toLatin1().toStdString();
    } else if (auto *te = qobject_cast<QPlainTextEdit *>(w)) {
      QTextCursor c = te->textCursor();
      line = c.block().text();
      pos = c.positionInBlock();
      *text = te->toPlainText().toLatin1().toStdString();
    }
    std::string l = line.left(pos).toLatin1().toStdString();
    int s = static_cast<int>(l.size());
    while (s > 0 && name_char(static_cast<unsigned char>(l[s - 1]))) --s;
    *start = s;
    *before = l.substr(static_cast<size_t>(s));
  }

  std::vector<std::string> candidates(const std::string &text, const std::string &prefix) {
    DBSESSION *session = zentiq_app().session;
    std::vector<const ZqNameIndex *> from;
    if (kind_ == ZQ_COMPLETE_TABLES) {
      from.push_back(&zentiq_catalog_table_index(session));
    } else {
      if (kind_ == ZQ_COMPLETE_ALL) from.push_back(&zentiq_catalog_table_index(session));
      // Attributes of the tables the statement names (the table in
      // "Tabelle" for the attribute and WHERE inputs); of every table
      // cached when it names none.
      std::vector<std::string> tables;
      if (kind_ == ZQ_COMPLETE_ATTRIBUTES) {
        tables = words_of(fl_get_input(zentiq_app().main.table));
      } else {
        const ZqNameIndex &ti = zentiq_catalog_table_index(session);
        for (std::string &w : words_of(text))
          if (std::binary_search(ti.keys.begin(), ti.keys.end(), w)) tables.push_back(w);
      }
      bool any = false;
      for (const std::string &t : tables) {
        const ZqTable *table = zentiq_catalog_table(session, t);
        if (table && table->loaded) {
          from.push_back(&table->index);
          any = true;
        }
      }
      if (!any) from.push_back(&zentiq_catalog_attribute_index());
    }
    return zentiq_complete(from, prefix, ZQ_COMPLETION_LIMIT);
  }

  // Keeps the list in step with the input's text: a list opened with
  // Ctrl+Space stays open for any prefix, else it needs the minimum.
  void follow() { open(list_->isVisible() && forced_); }

  void hide() {
    list_->hide();
    forced_ = false;
  }

  // Below the cursor, as wide as fits the names, on the screen.
  void place() {
    QWidget *w = input_->widget;
    QPoint at;
    if (auto *te = qobject_cast<QPlainTextEdit *>(w))
      at = te->viewport()->mapToGlobal(te->cursorRect().bottomLeft());
    else
      at = w->mapToGlobal(QPoint(0, w->height()));
    int width = std::max(200, list_->sizeHintForColumn(0) + 30);
    int rows = std::min(list_->count(), 12);
    int height = rows * std::max(list_->sizeHintForRow(0), 14) + 2 * list_->frameWidth() + 2;
    QRect geo(at, QSize(width, height));
    if (QScreen *s = w->screen()) {
      QRect avail = s->availableGeometry();
      if (geo.bottom() > avail.bottom()) geo.moveBottom(at.y() - w->fontMetrics().height() - 4);
      if (geo.right() > avail.right()) geo.moveRight(avail.right());
    }
    list_->setGeometry(geo);
  }

  FL_OBJECT *input_;
  ZqCompletionKind kind_;
  QListWidget *list_;
  bool forced_ = false;
};

std::map<FL_OBJECT *, Completion *> &attached() {
  static std::map<FL_OBJECT *, Completion *> m;
  return m;
}

Completion *of(FL_OBJECT *input) {
  auto it = attached().find(input);
  return it == attached().end() ? nullptr : it->second;
}

} // namespace

int zentiq_attach_completion(FL_OBJECT *input, ZqCompletionKind kind) {
  if (!input || input->objclass != FL_INPUT || !input->widget) return 0;
  if (of(input)) return 1;
  auto *c = new Completion(input, kind); // owned by the input's widget
  attached()[input] = c;
  QObject::connect(c, &QObject::destroyed, [input] { attached().erase(input); });
  return 1;
}

int zentiq_open_completion(FL_OBJECT *input, bool force) {
  Completion *c = of(input);
  return c ? c->open(force) : 0;
}

std::vector<std::string> zentiq_completion_shown(FL_OBJECT *input) {
  Completion *c = of(input);
  return c ? c->shown() : std::vector<std::string>();
}

int zentiq_choose_completion(FL_OBJECT *input, int row) {
  Completion *c = of(input);
  return c && c->choose(row) ? 1 : 0;
}
