// Read-only sessions of the viewer (see readonly.h).
#include "app/readonly.h"

#include <strings.h>

#include <cctype>
#include <memory>
#include <vector>

#include "app/journalrec.h"
#include "base/ini.h"
#include "db/access/session.h"
#include "db/client/tokenizer.h"
#include "forms/dialogs.h"
#include "framework/place.h"

namespace {

bool g_ro_given = false;
constexpr const char *kSuffix = " - nur lesen";

// The first and second token codes of a statement; 0 where there is none.
void first_tokens(const std::string &stmt, int *first, int *second) {
  *first = *second = 0;
  std::vector<char> text(stmt.begin(), stmt.end());
  text.push_back('\0');
  auto t = std::make_unique<DBtokenizer>();
  DBtoken_begin(t.get(), text.data());
  std::vector<char> message(DB_MSG_SIZE);
  if (DBtoken_next(t.get(), message.data()) != 1) return;
  *first = t->code;
  if (DBtoken_next(t.get(), message.data()) == 1) *second = t->code;
}

} // namespace

void zentiq_ro_init(int argc, char **argv) {
  for (int i = 1; i < argc; ++i)
    if (argv[i] && strcasecmp(argv[i], "-ro") == 0) g_ro_given = true;
}

int zentiq_ro_for(const std::string &database) {
  if (g_ro_given) return 1;
  const char *line = INI_GetLine(myfl_get_appl_name(), ZQ_INI_READ_ONLY);
  if (!line) return 0;
  std::string v = line;
  size_t close = v.find(']');
  v = close == std::string::npos ? "" : v.substr(close + 1);
  std::string name;
  for (size_t i = 0; i <= v.size(); ++i) {
    char c = i < v.size() ? v[i] : ',';
    if (c == ',' || c == '\n' || c == '\r') {
      if (!name.empty() && name == database) return 1;
      name.clear();
    } else if (!std::isspace(static_cast<unsigned char>(c))) {
      name += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
  }
  return 0;
}

int zentiq_read_only() { return zentiq_ro_for(zentiq_current_database()); }

int zentiq_ro_harmless(const std::string &stmt) {
  int first = 0, second = 0;
  first_tokens(stmt, &first, &second);
  switch (first) {
  case DBTOK_SELECT:
  case DBTOK_SHOW:
  case DBTOK_FETCH:
  case DBTOK_CLOSE:
  case DBTOK_MAX:
    return 1;
  case DBTOK_DECLARE: {
    // DECLARE c CURSOR FOR SELECT ...: a cursor only reads.
    std::string up = stmt;
    for (char &c : up) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    size_t at = up.find(" FOR ");
    int after = 0, unused = 0;
    if (at != std::string::npos) first_tokens(stmt.substr(at + 5), &after, &unused);
    return after == DBTOK_SELECT ? 1 : 0;
  }
  default:
    return 0;
  }
}

int zentiq_ro_permits(const char *what, const std::string &stmt) {
  if (!zentiq_read_only()) return 1;
  if (!stmt.empty() && zentiq_ro_harmless(stmt)) return 1;
  std::string line = std::string("Nur lesen: ") + what + " ist nicht erlaubt.";
  fl_show_warning(line.c_str(),
                  "Zentiq wurde mit -ro gestartet oder die Datenbank steht in zentiq.ini "
                  "unter [Nur_lesen].",
                  "Abfragen (SELECT, SHOW) bleiben möglich.");
  return 0;
}

std::string zentiq_ro_title(const std::string &title) {
  std::string t = title;
  size_t n = std::string(kSuffix).size();
  if (t.size() >= n && t.compare(t.size() - n, n, kSuffix) == 0) t.resize(t.size() - n);
  return zentiq_read_only() ? t + kSuffix : t;
}

void zentiq_ro_update_title(FL_FORM *form) {
  if (form) fl_set_form_title(form, zentiq_ro_title(form->title).c_str());
}
