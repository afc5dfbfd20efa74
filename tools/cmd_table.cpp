// tavrin table (see cmd_table.h).
#include "tools/cmd_table.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <strings.h>
#include <vector>

#include "base/msg.h"
#include "base/savefile.h"
#include "db/access/session.h"
#include "db/access/tablefile.h"
#include "db/access/tablerec.h"
#include "tools/cmd_sql.h"
#include "tools/commands.h"
#include "tools/term.h"

namespace {

struct FileCloser {
  void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// The definition of `table` as the server describes it now, with the table
// number `number`. Returns 1, or 0 with a message.
int describe(DBSESSION *s, const std::string &table, int number, TABLE_DEF &def) {
  DBRESULT *r = nullptr;
  int outcome = 0;
  std::string q = "SHOW TABLE " + table;
  if (!dbexec1(s, q.c_str(), &r, &outcome) || outcome != DBOUT_TUPLES) {
    dbclear(s, r); // the session layer has said why
    return 0;
  }
  int ok = TABLE_Def_FromShow(r, number, &def);
  dbclear(s, r);
  if (!ok || def.attribs.empty()) {
    term_error("table %s: its description cannot be read", table.c_str());
    return 0;
  }
  return 1;
}

// The table number of the first section of a file, read from its header;
// the file position is set back. -1 when the header does not read.
int file_table_number(std::FILE *f) {
  std::string header;
  int c;
  while ((c = std::fgetc(f)) != EOF && c != 0 && header.size() < TABLE_HEADER_MAX)
    header.push_back(static_cast<char>(c));
  std::rewind(f);
  int count, table, size;
  if (std::sscanf(header.c_str(), "%d,%d,%d", &count, &table, &size) != 3) return -1;
  return table;
}

int save(DBSESSION *s, const std::string &table, const std::string &file,
         const std::string &file_shown) {
  TABLE_DEF def;
  if (!describe(s, table, tavrin_table_number(table.c_str()), def)) return TAVRIN_FAIL;
  std::string text = TABLE_Text(def);
  std::vector<unsigned char> record(static_cast<size_t>(def.size));
  // The rows go into a temporary file that replaces the file only when the
  // save succeeds: a failed save leaves an existing file as it was.
  SaveFile f(SAVEFILE_Open(file.c_str()));
  if (!f) {
    term_error("cannot write %s: %s", file_shown.c_str(), std::strerror(errno));
    return TAVRIN_FAIL;
  }
  DBRESULT *rows = nullptr;
  int next = 0;
  int ok = TABLE_File_Save(
      s, SAVEFILE_Stream(f.get()), text.c_str(), record.data(),
      [&](void *, DBSESSION *session) {
        int outcome = 0;
        std::string q = "SELECT * FROM " + table;
        return dbexec1(session, q.c_str(), &rows, &outcome) && outcome == DBOUT_TUPLES ? 1 : 0;
      },
      [&](void *rec, DBSESSION *session) {
        if (next >= dbntuples(session, rows)) return 0;
        TABLE_Record_Init(def, rec);
        TABLE_Record_FromRow(def, rows, next++, rec);
        return 1;
      });
  dbclear(s, rows);
  if (!ok) return TAVRIN_FAIL; // the message is out; the old file stays
  if (!SAVEFILE_Commit(f.release())) {
    term_error("cannot write %s: %s", file_shown.c_str(), std::strerror(errno));
    return TAVRIN_FAIL;
  }
  term_write(stdout, std::to_string(next) + (next == 1 ? " row" : " rows") + " of " + table +
                         " saved to " + file_shown + "\n");
  return TAVRIN_OK;
}

// While a load runs, a warning that the load gives again for a later row is
// passed on only the first time; the number of messages held back is kept.
struct Dedup {
  static inline std::set<std::string> seen;
  static inline long held_back = 0;
  static inline MsgHandler next = nullptr;
  static void handler(const char *text) {
    if (!seen.insert(text).second) {
      ++held_back;
      return;
    }
    if (next) next(text);
  }
};

int load(DBSESSION *s, const std::string &table, const std::string &file,
         const std::string &file_shown) {
  File f(std::fopen(file.c_str(), "rb"));
  if (!f) {
    term_error("cannot read %s: %s", file_shown.c_str(), std::strerror(errno));
    return TAVRIN_FAIL;
  }
  int number = file_table_number(f.get());
  if (number < 0) {
    term_error("%s is not a TABLE file", file_shown.c_str());
    return TAVRIN_FAIL;
  }
  TABLE_DEF def;
  if (!describe(s, table, number, def)) return TAVRIN_FAIL;
  std::string text = TABLE_Text(def);
  int inserted = 0;
  Dedup::seen.clear();
  Dedup::held_back = 0;
  Dedup::next = msg_set_handler(Dedup::handler);
  int ok = TABLE_File_Load(
      s, f.get(), text.c_str(), [&](void *rec) { TABLE_Record_Init(def, rec); },
      [&](void *rec, DBSESSION *session) {
        // A binary request: a row of long texts or binary values does not
        // fit a statement text.
        TABLE_Record_InsertRequest(def, table.c_str(), rec);
        int outcome = 0;
        if (!dbbinexec1(session, nullptr, &outcome) || outcome != DBOUT_DONE) {
          // All or none: the rows inserted so far go too.
          dbrollback(session);
          return 0;
        }
        ++inserted;
        return 1;
      });
  msg_set_handler(Dedup::next);
  if (Dedup::held_back > 0)
    term_error("%ld repeated messages of later rows not shown", Dedup::held_back);
  if (!ok) return TAVRIN_FAIL;
  term_write(stdout, std::to_string(inserted) + (inserted == 1 ? " row" : " rows") +
                         " loaded into " + table + "\n");
  return TAVRIN_OK;
}

} // namespace

int tavrin_table_number(const char *table) {
  static const struct {
    const char *name;
    int number;
  } system_tables[] = {{"SVZT", 100}, {"SVZK", 101}, {"ERR", 102}, {"ERROT", 103}};
  for (const auto &t : system_tables)
    if (strcasecmp(t.name, table) == 0) return t.number;
  return TABLE_NUMBER_OTHER;
}

int cmd_table(int argc, char **argv) {
  const TavrinCommand &cmd = *tavrin_find_command("table");
  char name[DBSESSION_NAME_MAX + 1] = "";
  ARGV_GetDB_Name(argv, argc, name);
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "-db", 3) != 0) args.emplace_back(argv[i]);
  if (args.size() != 3) return tavrin_usage_error(cmd, "expected save|load, TABLE and FILE");
  if (args[0] != "save" && args[0] != "load")
    return tavrin_usage_error(cmd, "unknown action '%s'", term_to_latin1(args[0]).c_str());
  std::string table = term_to_latin1(args[1]);
  std::vector<std::string> ignored;
  DBSESSION *s = tavrin_open_session(argc, argv, ignored);
  if (!s) return TAVRIN_FAIL;
  // The file name stays as the terminal gave it; messages show it in Latin-1.
  std::string shown = term_to_latin1(args[2]);
  int rc = args[0] == "save" ? save(s, table, args[2], shown) : load(s, table, args[2], shown);
  dbclose(s);
  return rc;
}
