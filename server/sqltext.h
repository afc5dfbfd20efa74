// Helpers that build SQL text, shared by the executor, the two stores and the
// copies between them: ASCII upper case of names, quoted identifiers and
// quoted string literals. Values from clients are never spliced in here; they
// are bound as parameters by the callers.
#pragma once

#include <string>

namespace tavrind {

// s with ASCII a-z made upper case; other bytes (UTF-8 included) unchanged.
inline std::string sql_upper(std::string s) {
  for (char &c : s)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return s;
}

// name as a quoted SQL identifier: in double quotes, with every double quote
// doubled. The same form serves SQLite and PostgreSQL.
inline std::string sql_quote(const std::string &name) {
  std::string r = "\"";
  for (char c : name) {
    if (c == '"') r += '"';
    r += c;
  }
  return r + "\"";
}

// s as a SQL string literal: in single quotes, with every single quote doubled.
inline std::string sql_literal(const std::string &s) {
  std::string r = "'";
  for (char c : s) {
    if (c == '\'') r += '\'';
    r += c;
  }
  return r + "'";
}

} // namespace tavrind
