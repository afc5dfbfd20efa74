// The cached catalogue of the current database (see catalog.h).
#include "app/catalog.h"

#include <cctype>
#include <cstdlib>
#include <unordered_map>
#include <unordered_set>

#include "db/access/session.h"
#include "db/client/resdata.h"

namespace {

struct Catalog {
  bool tables_read = false;
  std::vector<ZqTable> tables;
  std::unordered_map<std::string, size_t> by_name; // folded name -> position
  ZqNameIndex table_index;
  ZqNameIndex attribute_index;           // every cached attribute name, kept sorted
  std::unordered_set<std::string> known; // folded table and attribute names
  unsigned generation = 0;
};

Catalog &cat() {
  static Catalog c;
  return c;
}

// 1 when the name is one the server could have given: letters, digits and
// "_" only. Anything else is never sent inside a SHOW statement.
bool plain_name(std::string_view name) {
  if (name.empty() || name.size() > 64) return false;
  for (char ch : name)
    if (!std::isalnum(static_cast<unsigned char>(ch)) && ch != '_') return false;
  return true;
}

// Runs one catalogue read on the session when no level of the user's is
// open. Returns the result (the caller clears it) or nullptr with *why set.
DBRESULT *read(DBSESSION *session, const std::string &stmt, std::string *why) {
  if (!session || !dbstatus(session)) {
    if (why) *why = "Datenbankverbindung nicht vorhanden";
    return nullptr;
  }
  if (db_depth() > 0) {
    if (why) *why = "Es läuft gerade ein Befehl";
    return nullptr;
  }
  DBRESULT *r = nullptr;
  int outcome = 0;
  if (dbexec1(session, stmt.c_str(), &r, &outcome) && r &&
      (DBresult_status(r) == DBRES_TUPLES || DBresult_status(r) == DBRES_TUPLES2))
    return r;
  if (why) {
    std::string t = r ? DBresult_error(r) : "keine Antwort";
    while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
    *why = t;
  }
  dbclear(session, r);
  return nullptr;
}

// The text of cell (row, col), trailing blanks cut.
std::string cell(DBRESULT *r, int row, int col) {
  const char *v = DBgetvalue(r, row, col);
  std::string s = v ? v : "";
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

// The column of a result by name, -1 when missing.
int column(DBRESULT *r, const char *name) {
  for (int c = 0; c < DBnfields(r); ++c) {
    const char *n = DBfieldname(r, c);
    if (n && zentiq_fold_name(n) == name) return c;
  }
  return -1;
}

void changed() { ++cat().generation; }

// Merges the names of one table's index into the index of all attribute
// names: one pass over both sorted lists, so that a database read table by
// table never sorts all its names again.
void merge_attributes(const ZqNameIndex &from) {
  ZqNameIndex &all = cat().attribute_index;
  ZqNameIndex out;
  out.keys.reserve(all.keys.size() + from.keys.size());
  out.names.reserve(all.keys.size() + from.keys.size());
  size_t i = 0, j = 0;
  while (i < all.keys.size() || j < from.keys.size()) {
    bool take_all = j >= from.keys.size() || (i < all.keys.size() && all.keys[i] <= from.keys[j]);
    if (take_all) {
      if (j < from.keys.size() && all.keys[i] == from.keys[j]) ++j; // the same name
      out.keys.push_back(std::move(all.keys[i]));
      out.names.push_back(std::move(all.names[i]));
      ++i;
    } else {
      out.keys.push_back(from.keys[j]);
      out.names.push_back(from.names[j]);
      ++j;
    }
  }
  all = std::move(out);
}

void index_tables() {
  Catalog &c = cat();
  c.by_name.clear();
  c.known.clear();
  std::vector<std::string> names;
  for (size_t i = 0; i < c.tables.size(); ++i) {
    std::string key = zentiq_fold_name(c.tables[i].name);
    c.by_name.emplace(key, i);
    c.known.insert(key);
    names.push_back(c.tables[i].name);
    for (const ZqAttribute &a : c.tables[i].attributes) c.known.insert(zentiq_fold_name(a.name));
  }
  zentiq_index_build(&c.table_index, std::move(names));
  changed();
}

// Reads the attributes and indices of table t into it. True when both reads
// succeeded.
bool load_attributes(DBSESSION *session, ZqTable &t, std::string *why) {
  if (!plain_name(t.name)) {
    if (why) *why = "Ungültiger Tabellenname";
    return false;
  }
  DBRESULT *r = read(session, "SHOW TABLE " + t.name + ";", why);
  if (!r) return false;
  int c_name = column(r, "ATTRIBUTE"), c_type = column(r, "TYPE"), c_size = column(r, "SIZE"),
      c_nn = column(r, "NOT_NULL");
  std::vector<ZqAttribute> attrs;
  for (int row = 0; c_name >= 0 && row < DBntuples(r); ++row) {
    ZqAttribute a;
    a.name = cell(r, row, c_name);
    a.type = c_type >= 0 ? cell(r, row, c_type) : "";
    // Only the text and binary types carry a length the user chose.
    if (c_size >= 0 && (a.type == "CHARACTER" || a.type == "BINARY"))
      a.type += "(" + cell(r, row, c_size) + ")";
    a.not_null = c_nn >= 0 && cell(r, row, c_nn) == "JA";
    attrs.push_back(std::move(a));
  }
  dbclear(session, r);
  r = read(session, "SHOW INDICES ON TABLE " + t.name + ";", why);
  if (!r) return false;
  int c_index = column(r, "INDEX_NAME"), c_unique = column(r, "UNIQUE_INDEX"),
      c_attrs = column(r, "ATTRIBUTES");
  for (int row = 0; c_index >= 0 && c_attrs >= 0 && row < DBntuples(r); ++row) {
    std::string index = cell(r, row, c_index);
    std::string unique = c_unique >= 0 ? cell(r, row, c_unique) : "";
    if (unique == "JA" || unique == "1" || unique == "Y") index += " (eindeutig)";
    // The attribute list is comma-separated, possibly with blanks.
    std::string list = cell(r, row, c_attrs) + ",";
    std::string name;
    for (char ch : list) {
      if (ch != ',') {
        if (ch != ' ') name += ch;
        continue;
      }
      for (ZqAttribute &a : attrs)
        if (zentiq_fold_name(a.name) == zentiq_fold_name(name))
          a.indices += (a.indices.empty() ? "" : ", ") + index;
      name.clear();
    }
  }
  dbclear(session, r);
  t.attributes = std::move(attrs);
  t.loaded = true;
  std::vector<std::string> names;
  for (const ZqAttribute &a : t.attributes) {
    names.push_back(a.name);
    cat().known.insert(zentiq_fold_name(a.name));
  }
  zentiq_index_build(&t.index, std::move(names));
  merge_attributes(t.index);
  changed();
  return true;
}

} // namespace

const std::vector<ZqTable> &zentiq_catalog_tables(DBSESSION *session, bool reload,
                                                  std::string *why) {
  Catalog &c = cat();
  if (c.tables_read && !reload) return c.tables;
  DBRESULT *r = read(session, "SHOW TABLES;", why);
  if (!r) return c.tables;
  int c_name = column(r, "TABLE_NAME"), c_count = column(r, "ATTRIBUTES"),
      c_mode = column(r, "MODE");
  std::vector<ZqTable> tables;
  for (int row = 0; c_name >= 0 && row < DBntuples(r); ++row) {
    ZqTable t;
    t.name = cell(r, row, c_name);
    t.mode = c_mode >= 0 ? cell(r, row, c_mode) : "";
    t.attribute_count = c_count >= 0 ? std::atoi(cell(r, row, c_count).c_str()) : 0;
    tables.push_back(std::move(t));
  }
  dbclear(session, r);
  // Read anew, the attributes are read anew too, as the tables are needed.
  c.tables = std::move(tables);
  c.tables_read = true;
  c.attribute_index = ZqNameIndex();
  index_tables();
  return c.tables;
}

const ZqTable *zentiq_catalog_table(DBSESSION *session, std::string_view name, std::string *why) {
  Catalog &c = cat();
  zentiq_catalog_tables(session, false, why);
  auto it = c.by_name.find(zentiq_fold_name(name));
  if (it == c.by_name.end()) {
    if (why && why->empty()) *why = "Tabelle nicht vorhanden";
    return nullptr;
  }
  ZqTable &t = c.tables[it->second];
  if (!t.loaded) load_attributes(session, t, why);
  return &t;
}

const ZqNameIndex &zentiq_catalog_table_index(DBSESSION *session) {
  zentiq_catalog_tables(session);
  return cat().table_index;
}

const ZqNameIndex &zentiq_catalog_attribute_index() { return cat().attribute_index; }

int zentiq_catalog_knows(std::string_view name) {
  return cat().known.count(zentiq_fold_name(name)) ? 1 : 0;
}

void zentiq_catalog_forget() {
  Catalog &c = cat();
  c.tables_read = false;
  c.tables.clear();
  c.attribute_index = ZqNameIndex();
  index_tables();
}

void zentiq_catalog_set(std::vector<ZqTable> tables) {
  Catalog &c = cat();
  c.tables = std::move(tables);
  c.tables_read = true;
  std::vector<std::string> all;
  for (ZqTable &t : c.tables) {
    std::vector<std::string> names;
    for (const ZqAttribute &a : t.attributes) names.push_back(a.name);
    all.insert(all.end(), names.begin(), names.end());
    zentiq_index_build(&t.index, std::move(names));
    t.loaded = true;
  }
  zentiq_index_build(&c.attribute_index, std::move(all));
  index_tables();
}

unsigned zentiq_catalog_generation() { return cat().generation; }
