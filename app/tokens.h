// Walking the tokens of a statement the user typed, for the viewer's checks
// of what a statement is and which table it changes. The tokenizer's rules
// are the client library's; this only feeds it a copy and reports positions.
#pragma once

#include <cctype>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "db/client/tokenizer.h"

// Reads the tokens of a statement (a copy: the tokenizer upper-cases words in
// place) and hands each token's code, text and start in the statement to fn
// until fn returns false. Returns false on a lexical error, true otherwise.
template <typename Fn> bool zentiq_each_token(const std::string &statement, Fn fn) {
  std::vector<char> text(statement.begin(), statement.end());
  text.push_back('\0');
  auto t = std::make_unique<DBtokenizer>();
  DBtoken_begin(t.get(), text.data());
  std::vector<char> message(DB_MSG_SIZE);
  for (;;) {
    size_t start = t->pos;
    while (start < statement.size() && std::isspace(static_cast<unsigned char>(statement[start])))
      ++start;
    int r = DBtoken_next(t.get(), message.data());
    if (r < 0) return false;
    if (r == 0 || !fn(t->code, t->token, start)) return true;
  }
}
