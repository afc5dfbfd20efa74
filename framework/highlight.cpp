// SQL highlighting of multi-line inputs (see highlight.h).
#include "framework/highlight.h"

#include <QPlainTextEdit>
#include <QSyntaxHighlighter>
#include <QTextCharFormat>
#include <algorithm>
#include <cctype>
#include <cstring>

#include "db/client/tokenizer.h"

namespace {

bool word_char(unsigned char ch) { return std::isalnum(ch) || ch == '_' || ch >= 0xC0; }

class SqlHighlighter : public QSyntaxHighlighter {
public:
  SqlHighlighter(QTextDocument *doc, std::function<bool(std::string_view)> known)
      : QSyntaxHighlighter(doc), known_(std::move(known)) {
    keyword_.setForeground(QColor(0x00, 0x33, 0x99));
    keyword_.setFontWeight(QFont::Bold);
    string_.setForeground(QColor(0xA3, 0x15, 0x15));
    number_.setForeground(QColor(0x09, 0x86, 0x58));
    name_.setForeground(QColor(0x6F, 0x00, 0x8A));
  }
  void set_known(std::function<bool(std::string_view)> known) { known_ = std::move(known); }

protected:
  void highlightBlock(const QString &text) override {
    bool in_string = previousBlockState() == 1;
    QByteArray bytes = text.toLatin1();
    for (const MyflSqlSpan &s :
         myfl_sql_spans(std::string_view(bytes.constData(), static_cast<size_t>(bytes.size())),
                        &in_string, known_)) {
      const QTextCharFormat &f = s.kind == MYFL_SQL_KEYWORD  ? keyword_
                                 : s.kind == MYFL_SQL_STRING ? string_
                                 : s.kind == MYFL_SQL_NUMBER ? number_
                                                             : name_;
      setFormat(s.start, s.length, f);
    }
    setCurrentBlockState(in_string ? 1 : 0);
  }

private:
  std::function<bool(std::string_view)> known_;
  QTextCharFormat keyword_, string_, number_, name_;
};

SqlHighlighter *highlighter_of(FL_OBJECT *input) {
  auto *te = input ? qobject_cast<QPlainTextEdit *>(input->widget) : nullptr;
  return te ? te->document()->findChild<SqlHighlighter *>() : nullptr;
}

} // namespace

int myfl_sql_keyword(std::string_view word) {
  if (word.empty() || word.size() > 12) return 0;
  char up[16];
  for (size_t i = 0; i < word.size(); ++i)
    up[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(word[i])));
  up[word.size()] = '\0';
  const std::vector<std::string> &words = DBtoken_keyword_words();
  return std::binary_search(words.begin(), words.end(), std::string_view(up)) ? 1 : 0;
}

std::vector<MyflSqlSpan> myfl_sql_spans(std::string_view line, bool *in_string,
                                        const std::function<bool(std::string_view)> &known) {
  std::vector<MyflSqlSpan> spans;
  const int n = static_cast<int>(line.size());
  int i = 0;
  auto at = [&](int k) { return k < n ? static_cast<unsigned char>(line[k]) : 0u; };
  // A string left open by the line before goes on up to its closing quote
  // ('' inside is a quote, not the end).
  auto close_string = [&](int from) {
    int k = from;
    for (; k < n; ++k) {
      if (line[k] != '\'') continue;
      if (at(k + 1) == '\'') {
        ++k;
        continue;
      }
      *in_string = false;
      return k + 1;
    }
    *in_string = true;
    return n;
  };
  if (*in_string) {
    i = close_string(0);
    spans.push_back({0, i, MYFL_SQL_STRING});
  }
  while (i < n) {
    unsigned char ch = at(i);
    if (ch == '\'') {
      int end = close_string(i + 1);
      spans.push_back({i, end - i, MYFL_SQL_STRING});
      i = end;
    } else if (std::isdigit(ch) || (ch == '.' && std::isdigit(at(i + 1)))) {
      int k = i;
      while (std::isdigit(at(k)) || at(k) == '.') ++k;
      if ((at(k) == 'e' || at(k) == 'E') &&
          (std::isdigit(at(k + 1)) ||
           ((at(k + 1) == '+' || at(k + 1) == '-') && std::isdigit(at(k + 2))))) {
        k += 2;
        while (std::isdigit(at(k))) ++k;
      }
      // Digits that run into letters are part of a name, not a number.
      if (word_char(at(k))) {
        while (word_char(at(k))) ++k;
      } else {
        spans.push_back({i, k - i, MYFL_SQL_NUMBER});
      }
      i = k;
    } else if (word_char(ch)) {
      int k = i;
      while (word_char(at(k))) ++k;
      std::string_view w = line.substr(static_cast<size_t>(i), static_cast<size_t>(k - i));
      if (myfl_sql_keyword(w))
        spans.push_back({i, k - i, MYFL_SQL_KEYWORD});
      else if (known && known(w))
        spans.push_back({i, k - i, MYFL_SQL_NAME});
      i = k;
    } else {
      ++i;
    }
  }
  return spans;
}

int myfl_highlight_sql(FL_OBJECT *input, std::function<bool(std::string_view)> known) {
  auto *te = input ? qobject_cast<QPlainTextEdit *>(input->widget) : nullptr;
  if (!te) return 0;
  if (SqlHighlighter *h = highlighter_of(input)) {
    h->set_known(std::move(known));
    h->rehighlight();
    return 1;
  }
  new SqlHighlighter(te->document(), std::move(known)); // owned by the document
  return 1;
}

void myfl_rehighlight_sql(FL_OBJECT *input) {
  if (SqlHighlighter *h = highlighter_of(input)) h->rehighlight();
}
