// The data folder of tavrind: database files, system and demo databases.
#include "server/catalog.h"

#include "server/answer.h"
#include "server/sqliteptr.h"
#include "server/types.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

namespace tavrind {

const char *const CATALOG_SYSTEM_DB = "TDSYS";
const char *const CATALOG_DEMO_DB = "DEMO";

namespace {

// Thrown while filling a database; the text of SQLite's error.
struct FillError {
  std::string text;
};

void run(sqlite3 *db, const std::string &sql) {
  char *msg = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &msg) != SQLITE_OK) {
    std::string t = msg ? msg : "SQLite-Fehler";
    sqlite3_free(msg);
    throw FillError{t + " (" + sql.substr(0, 80) + ")"};
  }
}

// One attribute of a table made here: name, wire type, length, NOT NULL.
struct Attr {
  const char *name;
  unsigned char code;
  int32_t length;
  bool not_null;
};

void create_table(sqlite3 *db, const char *name, std::initializer_list<Attr> attrs) {
  std::string sql = std::string("CREATE TABLE \"") + name + "\" (";
  bool first = true;
  for (const Attr &a : attrs) {
    sql += (first ? "\"" : ", \"") + std::string(a.name) + "\" " +
           type_declaration(type_make(a.code, a.length), a.not_null);
    first = false;
  }
  run(db, sql + ")");
}

// A value of a row written here: NULL-free, in stored form. Texts are given in
// Latin-1 (the program's literals) and stored as UTF-8.
struct Val {
  enum Kind { I, F, T, B } kind;
  int64_t i = 0;
  double f = 0;
  std::string t;
  Val(int v) : kind(I), i(v) {}
  Val(double v) : kind(F), f(v) {}
  Val(const char *s) : kind(T), t(s) {}
  Val(std::string s) : kind(T), t(std::move(s)) {}
  static Val blob(std::string bytes) {
    Val v{""};
    v.kind = B;
    v.t = std::move(bytes);
    return v;
  }
};

// A prepared INSERT for rows of one table.
class Inserter {
public:
  Inserter(sqlite3 *db, const char *table, int ncols) : db_(db) {
    std::string sql = std::string("INSERT INTO \"") + table + "\" VALUES (";
    for (int i = 0; i < ncols; ++i) sql += i ? ", ?" : "?";
    sql += ")";
    sqlite3_stmt *s = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) != SQLITE_OK)
      throw FillError{sqlite3_errmsg(db)};
    s_.reset(s);
  }
  void row(std::initializer_list<Val> vals) {
    int i = 1;
    for (const Val &v : vals) {
      switch (v.kind) {
      case Val::I:
        sqlite3_bind_int64(s_.get(), i, v.i);
        break;
      case Val::F:
        sqlite3_bind_double(s_.get(), i, v.f);
        break;
      case Val::T: {
        std::string u = latin1_to_utf8(v.t);
        sqlite3_bind_text(s_.get(), i, u.c_str(), static_cast<int>(u.size()), SQLITE_TRANSIENT);
        break;
      }
      case Val::B:
        sqlite3_bind_blob(s_.get(), i, v.t.data(), static_cast<int>(v.t.size()), SQLITE_TRANSIENT);
        break;
      }
      ++i;
    }
    if (sqlite3_step(s_.get()) != SQLITE_DONE) throw FillError{sqlite3_errmsg(db_)};
    sqlite3_reset(s_.get());
  }

private:
  sqlite3 *db_;
  SqliteStmt s_;
};

std::string key8(int n) {
  char buf[128];
  snprintf(buf, sizeof buf, "%08d", n);
  return buf;
}

std::string now_timestamp() {
  time_t t = time(nullptr);
  struct tm tm;
  localtime_r(&t, &tm);
  char buf[128];
  snprintf(buf, sizeof buf, "%04d-%02d-%02d-%02d.%02d.%02d.000000", tm.tm_year + 1900,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return buf;
}

// --- TDSYS -----------------------------------------------------------------

struct SvzEntry {
  const char *code;
  const char *parent;
  const char *text;
};

struct SvzDir {
  int number;
  int parent;
  const char *title;
  std::initializer_list<SvzEntry> entries;
};

const SvzDir kDirectories[] = {
    {1,
     0,
     "Anrede",
     {{"HERR", "", "Herr"}, {"FRAU", "", "Frau"}, {"FIRM", "", "Firma"}, {"DIV", "", "Divers"}}},
    {2,
     0,
     "Länder",
     {{"D", "", "Deutschland"},
      {"A", "", "Österreich"},
      {"CH", "", "Schweiz"},
      {"NL", "", "Niederlande"},
      {"B", "", "Belgien"},
      {"L", "", "Luxemburg"},
      {"F", "", "Frankreich"},
      {"I", "", "Italien"},
      {"DK", "", "Dänemark"},
      {"PL", "", "Polen"},
      {"CZ", "", "Tschechien"}}},
    {3,
     2,
     "Bundesländer und Kantone",
     {{"BW", "D", "Baden-Württemberg"},
      {"BY", "D", "Bayern"},
      {"BE", "D", "Berlin"},
      {"BB", "D", "Brandenburg"},
      {"HB", "D", "Bremen"},
      {"HH", "D", "Hamburg"},
      {"HE", "D", "Hessen"},
      {"MV", "D", "Mecklenburg-Vorpommern"},
      {"NI", "D", "Niedersachsen"},
      {"NW", "D", "Nordrhein-Westfalen"},
      {"RP", "D", "Rheinland-Pfalz"},
      {"SL", "D", "Saarland"},
      {"SN", "D", "Sachsen"},
      {"ST", "D", "Sachsen-Anhalt"},
      {"SH", "D", "Schleswig-Holstein"},
      {"TH", "D", "Thüringen"},
      {"W", "A", "Wien"},
      {"STMK", "A", "Steiermark"},
      {"T", "A", "Tirol"},
      {"SBG", "A", "Salzburg"},
      {"ZH", "CH", "Zürich"},
      {"BS", "CH", "Basel-Stadt"},
      {"GR", "CH", "Graubünden"}}},
    {4,
     0,
     "Mengeneinheiten",
     {{"STK", "", "Stück"},
      {"KG", "", "Kilogramm"},
      {"M", "", "Meter"},
      {"L", "", "Liter"},
      {"PAK", "", "Packung"},
      {"KAR", "", "Karton"},
      {"ROL", "", "Rolle"}}},
    {5,
     0,
     "Auftragsstatus",
     {{"OFF", "", "offen"},
      {"BEAR", "", "in Bearbeitung"},
      {"GELI", "", "geliefert"},
      {"BEZ", "", "bezahlt"},
      {"STOR", "", "storniert"}}},
    {6,
     0,
     "Zahlungsarten",
     {{"BAR", "", "Barzahlung"},
      {"RECH", "", "Rechnung (30 Tage netto)"},
      {"LAST", "", "Lastschrift"},
      {"KART", "", "Kreditkarte"},
      {"VORK", "", "Vorkasse"},
      {"SKON", "", "Rechnung, 2 % Skonto in 10 Tagen"}}},
    {7,
     0,
     "Sprachen",
     {{"D", "", "Deutsch"},
      {"E", "", "Englisch"},
      {"F", "", "Französisch"},
      {"I", "", "Italienisch"}}},
};

void fill_system(sqlite3 *db) {
  create_table(db, "SVZT",
               {{"SVZT_ID", DBTYPE_CHARACTER, 9, false},
                {"TABELLE", DBTYPE_SMALLINT, 0, false},
                {"TAB_UEBERGEORDNET", DBTYPE_SMALLINT, 0, false},
                {"SPRACHE", DBTYPE_CHARACTER, 5, false},
                {"BEZEICHNUNG", DBTYPE_CHARACTER, 36, false},
                {"SVZT_TST_AB", DBTYPE_TIMESTAMP, 0, false}});
  create_table(db, "SVZK",
               {{"SVZK_ID", DBTYPE_CHARACTER, 9, false},
                {"CODE", DBTYPE_CHARACTER, 5, false},
                {"SPRACHE", DBTYPE_CHARACTER, 5, false},
                {"CODE_UEBERGEORDNET", DBTYPE_CHARACTER, 5, false},
                {"SVZK_SYSSTATUS", DBTYPE_SMALLINT, 0, false},
                {"TABELLE", DBTYPE_SMALLINT, 0, false},
                {"BEZEICHNUNG", DBTYPE_CHARACTER, 36, false}});
  create_table(db, "ERROT",
               {{"ERROT_ID", DBTYPE_CHARACTER, 9, false},
                {"FEHLERNUMMER", DBTYPE_SMALLINT, 0, false},
                {"SPRACHE", DBTYPE_CHARACTER, 5, false},
                {"KUERZEL", DBTYPE_CHARACTER, 36, false},
                {"TEXT", DBTYPE_CHARACTER, 255, false}});
  create_table(db, "ERR",
               {{"ROW_ID", DBTYPE_CHARACTER, 9, false},
                {"PROZESS_ID", DBTYPE_CHARACTER, 17, false},
                {"ZEITPUNKT", DBTYPE_TIMESTAMP, 0, false},
                {"FEHLERCODE", DBTYPE_SMALLINT, 0, false},
                {"FUNKTIONSNAME", DBTYPE_CHARACTER, 9, false},
                {"FEHLERTEXT", DBTYPE_CHARACTER, 255, false}});
  run(db, "CREATE UNIQUE INDEX SVZT_PK ON SVZT (SVZT_ID);"
          "CREATE UNIQUE INDEX SVZT_SPRACHE ON SVZT (SPRACHE, TABELLE);"
          "CREATE UNIQUE INDEX SVZK_PK ON SVZK (SVZK_ID);"
          "CREATE INDEX SVZK_CODE ON SVZK (TABELLE, SPRACHE, CODE);"
          "CREATE UNIQUE INDEX ERROT_PK ON ERROT (ERROT_ID);"
          "CREATE UNIQUE INDEX ERROT_NUMMER ON ERROT (FEHLERNUMMER, SPRACHE);"
          "CREATE UNIQUE INDEX ERR_PK ON ERR (ROW_ID);");

  const char *lang = "D   ";
  Inserter svzt(db, "SVZT", 6), svzk(db, "SVZK", 7);
  int nt = 0, nk = 0;
  for (const SvzDir &d : kDirectories) {
    svzt.row({"SVZT" + key8(++nt).substr(4), d.number, d.parent, lang, d.title,
              "2000-01-01-00.00.00.000000"});
    for (const SvzEntry &e : d.entries)
      svzk.row({key8(++nk), e.code, lang, e.parent, 0, d.number, e.text});
  }

  Inserter errot(db, "ERROT", 5);
  size_t n = 0;
  const ErrorText *errors = answer_error_table(&n);
  for (size_t i = 0; i < n; ++i)
    errot.row({"ERR" + key8(static_cast<int>(i + 1)).substr(3), errors[i].number, lang,
               errors[i].name, errors[i].text});

  Inserter err(db, "ERR", 6);
  char pid[128];
  snprintf(pid, sizeof pid, "TAVRIND-%08d", static_cast<int>(getpid()));
  err.row({key8(1), pid, now_timestamp(), 0, "tavrind",
           "INFO_Internal: 'Systemdatenbank TDSYS angelegt'!"});
}

// --- DEMO ------------------------------------------------------------------

// A small deterministic generator, so that every first start makes the same
// demo data.
class Rng {
public:
  int next(int n) { // 0 .. n-1
    s_ = s_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<int>((s_ >> 33) % static_cast<uint64_t>(n));
  }
  template <class T, size_t N> const T &pick(const T (&a)[N]) { return a[next(N)]; }

private:
  uint64_t s_ = 20030712;
};

const char *const kSurnames[] = {
    "Müller",   "Schmidt", "Schneider", "Fischer", "Weber",   "Meyer",      "Wagner",
    "Becker",   "Schulz",  "Hoffmann",  "Schäfer", "Koch",    "Bauer",      "Richter",
    "Klein",    "Wolf",    "Schröder",  "Neumann", "Schwarz", "Zimmermann", "Braun",
    "Krüger",   "Hofmann", "Hartmann",  "Lange",   "Schmitt", "Werner",     "Schmitz",
    "Krause",   "Meier",   "Lehmann",   "Schmid",  "Schulze", "Maier",      "Köhler",
    "Herrmann", "König",   "Walter",    "Mayer",   "Huber",   "Kaiser",     "Fuchs",
    "Peters",   "Lang",    "Scholz",    "Möller",  "Weiß",    "Jung",       "Hahn",
    "Schubert", "Vogel",   "Friedrich", "Keller",  "Günther", "Frank",      "Berger",
    "Winkler",  "Roth",    "Beck",      "Lorenz",  "Baumann", "Franke",     "Albrecht",
    "Böhm",     "Jäger",   "Groß",      "Krämer",  "Kühn",    "Förster",    "Brückner",
    "Öztürk",   "Ullrich", "Dürr",      "Strauß",  "Gärtner", "Nüßlein",    "Bäcker",
};
const char *const kMen[] = {"Jürgen", "Jörg",  "Günter",   "Björn",   "Uwe",    "Klaus",
                            "Peter",  "Hans",  "Wolfgang", "Michael", "Thomas", "Andreas",
                            "Stefan", "Frank", "Lukas",    "Jonas",   "Sören",  "Ömer"};
const char *const kWomen[] = {"Sabine", "Petra",  "Monika", "Gisela", "Renate", "Brigitte",
                              "Käthe",  "Lena",   "Jana",   "Anna",   "Marie",  "Sophie",
                              "Hannah", "Jülide", "Bärbel", "Gülay",  "Maike",  "Dörte"};
const char *const kStreets[] = {
    "Hauptstraße",  "Schulstraße",    "Gartenstraße", "Bahnhofstraße", "Dorfstraße",
    "Bergstraße",   "Birkenweg",      "Lindenstraße", "Kirchstraße",   "Waldstraße",
    "Ringstraße",   "Mühlenweg",      "Am Anger",     "Königsallee",   "Schloßstraße",
    "Goethestraße", "Schillerstraße", "Rosenstraße",  "Buchenweg",     "Lärchenweg",
};

struct City {
  const char *plz, *ort, *land;
};
const City kCities[] = {
    {"10115", "Berlin", "D"},
    {"20095", "Hamburg", "D"},
    {"80331", "München", "D"},
    {"50667", "Köln", "D"},
    {"60311", "Frankfurt am Main", "D"},
    {"70173", "Stuttgart", "D"},
    {"40213", "Düsseldorf", "D"},
    {"44135", "Dortmund", "D"},
    {"04109", "Leipzig", "D"},
    {"28195", "Bremen", "D"},
    {"01067", "Dresden", "D"},
    {"30159", "Hannover", "D"},
    {"90402", "Nürnberg", "D"},
    {"53111", "Bonn", "D"},
    {"48143", "Münster", "D"},
    {"97070", "Würzburg", "D"},
    {"23552", "Lübeck", "D"},
    {"37073", "Göttingen", "D"},
    {"90762", "Fürth", "D"},
    {"72070", "Tübingen", "D"},
    {"1010", "Wien", "A"},
    {"8010", "Graz", "A"},
    {"5020", "Salzburg", "A"},
    {"8001", "Zürich", "CH"},
    {"3011", "Bern", "CH"},
    {"4051", "Basel", "CH"},
};

struct Product {
  const char *name;
  const char *unit;
  double price;
  double weight;
};
const Product kProducts[] = {
    {"Kühlschrank", "STK", 449.0, 58.0},
    {"Bürostuhl", "STK", 189.9, 14.5},
    {"Schreibtischlampe", "STK", 34.95, 1.2},
    {"Lötkolben 60 W", "STK", 24.5, 0.4},
    {"Gießkanne 10 l", "STK", 12.99, 0.8},
    {"Fußmatte", "STK", 19.9, 1.5},
    {"Türschloss", "STK", 39.0, 0.9},
    {"Glühbirne 60 W", "PAK", 4.49, 0.1},
    {"Rührgerät", "STK", 49.0, 1.3},
    {"Bügeleisen", "STK", 59.9, 1.4},
    {"Küchenwaage", "STK", 22.5, 0.7},
    {"Kaffeemühle", "STK", 39.99, 1.1},
    {"Wärmflasche", "STK", 9.95, 0.3},
    {"Schraubendreher-Satz", "PAK", 18.0, 0.6},
    {"Holzdübel 8 mm", "PAK", 3.2, 0.2},
    {"Spülmittel", "L", 2.15, 1.0},
    {"Blumenerde", "KG", 0.69, 1.0},
    {"Gartenschlauch", "M", 1.35, 0.15},
    {"Klebeband", "ROL", 2.8, 0.1},
    {"Umzugskarton", "KAR", 3.9, 0.9},
    {"Sägeblatt", "STK", 11.5, 0.2},
    {"Mörtel", "KG", 0.45, 1.0},
    {"Öllampe", "STK", 27.0, 0.8},
    {"Zündhölzer", "PAK", 0.99, 0.05},
};
const char *const kVariants[] = {"",         " klein", " groß", " weiß",
                                 " schwarz", " grün",  " blau", " rot"};
const char *const kStatus[] = {"OFF", "BEAR", "GELI", "BEZ", "BEZ", "BEZ", "STOR"};
const char *const kPayment[] = {"BAR", "RECH", "RECH", "LAST", "KART", "VORK", "SKON"};
const char *const kNotes[] = {
    "",
    "",
    "",
    "",
    "Lieferung bitte über den Hof",
    "Kunde wünscht Rückruf",
    "Anlieferung nur vormittags",
    "Rechnung an die Zentrale",
    "Teillieferung möglich",
    "Geschenkverpackung",
    "Abholung durch den Kunden",
};

std::string date_text(int y, int m, int d) {
  char buf[128];
  snprintf(buf, sizeof buf, "%04d-%02d-%02d", y, m, d);
  return buf;
}

void fill_demo(sqlite3 *db) {
  create_table(db, "KUNDE",
               {{"KUNDE_ID", DBTYPE_INTEGER, 0, true},
                {"ANREDE", DBTYPE_CHARACTER, 5, false},
                {"VORNAME", DBTYPE_CHARACTER, 21, false},
                {"NAME", DBTYPE_CHARACTER, 31, true},
                {"STRASSE", DBTYPE_CHARACTER, 41, false},
                {"PLZ", DBTYPE_CHARACTER, 6, false},
                {"ORT", DBTYPE_CHARACTER, 31, false},
                {"LAND", DBTYPE_CHARACTER, 5, false},
                {"TELEFON", DBTYPE_CHARACTER, 21, false},
                {"GEBURTSDATUM", DBTYPE_DATE, 0, false},
                {"KUNDE_SEIT", DBTYPE_DATE, 0, false},
                {"RABATT", DBTYPE_SMALLINT, 0, false},
                {"KREDITLIMIT", DBTYPE_FLOAT, 0, false},
                {"ANGELEGT", DBTYPE_TIMESTAMP, 0, false}});
  create_table(db, "ARTIKEL",
               {{"ARTIKEL_ID", DBTYPE_INTEGER, 0, true},
                {"BEZEICHNUNG", DBTYPE_CHARACTER, 41, true},
                {"EINHEIT", DBTYPE_CHARACTER, 5, false},
                {"PREIS", DBTYPE_FLOAT, 0, false},
                {"BESTAND", DBTYPE_INTEGER, 0, false},
                {"MINDESTBESTAND", DBTYPE_SMALLINT, 0, false},
                {"GEWICHT", DBTYPE_FLOAT, 0, false},
                {"PRUEFCODE", DBTYPE_BINARY, 8, false},
                {"GEAENDERT", DBTYPE_TIMESTAMP, 0, false}});
  create_table(db, "AUFTRAG",
               {{"AUFTRAG_ID", DBTYPE_INTEGER, 0, true},
                {"KUNDE_ID", DBTYPE_INTEGER, 0, true},
                {"AUFTRAGSDATUM", DBTYPE_DATE, 0, false},
                {"UHRZEIT", DBTYPE_TIME, 0, false},
                {"STATUS", DBTYPE_CHARACTER, 5, false},
                {"ZAHLUNGSART", DBTYPE_CHARACTER, 5, false},
                {"LIEFERDATUM", DBTYPE_DATE, 0, false},
                {"BETRAG", DBTYPE_FLOAT, 0, false},
                {"ERFASST", DBTYPE_TIMESTAMP, 0, false},
                {"BEMERKUNG", DBTYPE_CHARACTER, 81, false}});
  create_table(db, "POSITION",
               {{"POSITION_ID", DBTYPE_INTEGER, 0, true},
                {"AUFTRAG_ID", DBTYPE_INTEGER, 0, true},
                {"POS_NR", DBTYPE_SMALLINT, 0, false},
                {"ARTIKEL_ID", DBTYPE_INTEGER, 0, true},
                {"MENGE", DBTYPE_INTEGER, 0, false},
                {"EINZELPREIS", DBTYPE_FLOAT, 0, false},
                {"RABATT", DBTYPE_SMALLINT, 0, false}});

  Rng rng;
  const int customers = 600;
  Inserter kunde(db, "KUNDE", 14);
  for (int id = 1; id <= customers; ++id) {
    bool firm = rng.next(10) == 0;
    bool woman = rng.next(2) == 0;
    const City &c = rng.pick(kCities);
    std::string vorname = firm ? "" : (woman ? rng.pick(kWomen) : rng.pick(kMen));
    std::string name = rng.pick(kSurnames);
    if (firm) name += rng.next(2) ? " GmbH" : " & Söhne KG";
    std::string street = std::string(rng.pick(kStreets)) + " " + std::to_string(1 + rng.next(120));
    char phone[128];
    snprintf(phone, sizeof phone, "0%d %d", 30 + rng.next(900), 100000 + rng.next(900000));
    std::string birth = firm || rng.next(8) == 0
                            ? "1800-01-01"
                            : date_text(1935 + rng.next(70), 1 + rng.next(12), 1 + rng.next(28));
    int since_y = 1995 + rng.next(30);
    int rabatt = rng.next(4) == 0 ? 5 * rng.next(5) : 0;
    char stamp[128];
    snprintf(stamp, sizeof stamp, "%04d-%02d-%02d-%02d.%02d.%02d.%06d", since_y, 1 + rng.next(12),
             1 + rng.next(28), 7 + rng.next(11), rng.next(60), rng.next(60), rng.next(1000000));
    kunde.row({id, firm ? "FIRM" : (woman ? "FRAU" : "HERR"), vorname, name, street, c.plz, c.ort,
               c.land, firm || rng.next(3) ? std::string(phone) : std::string(""), birth,
               std::string(stamp).substr(0, 10), rabatt, 500.0 * (1 + rng.next(40)), stamp});
  }

  const int nprod = static_cast<int>(sizeof kProducts / sizeof kProducts[0]);
  const int nvar = static_cast<int>(sizeof kVariants / sizeof kVariants[0]);
  std::vector<double> prices;
  Inserter artikel(db, "ARTIKEL", 9);
  int aid = 0;
  for (int v = 0; v < nvar; ++v)
    for (int p = 0; p < nprod; ++p) {
      if (v > 0 && rng.next(3) == 0) continue;
      const Product &pr = kProducts[p];
      double price =
          static_cast<double>(static_cast<int64_t>(pr.price * (1.0 + 0.1 * v) * 100 + 0.5)) / 100;
      prices.push_back(price);
      std::string code;
      for (int k = 0; k < 8; ++k) code += static_cast<char>(rng.next(256));
      if (aid % 5 == 0) code = code.substr(0, 4);
      char stamp[128];
      snprintf(stamp, sizeof stamp, "2024-%02d-%02d-%02d.%02d.%02d.%06d", 1 + rng.next(12),
               1 + rng.next(28), 8 + rng.next(10), rng.next(60), rng.next(60), rng.next(1000000));
      ++aid;
      artikel.row({aid, std::string(pr.name) + kVariants[v], pr.unit, price, rng.next(500),
                   5 * rng.next(10), pr.weight, Val::blob(code), stamp});
    }

  Inserter auftrag(db, "AUFTRAG", 10), position(db, "POSITION", 7);
  int pos_id = 0;
  for (int id = 1; id <= 2000; ++id) {
    int y = 2020 + rng.next(6), m = 1 + rng.next(12), d = 1 + rng.next(28);
    int hh = 7 + rng.next(12), mi = rng.next(60), ss = rng.next(60);
    const char *status = rng.pick(kStatus);
    bool delivered = strcmp(status, "GELI") == 0 || strcmp(status, "BEZ") == 0;
    int ld = d + 1 + rng.next(10);
    std::string lieferdatum = delivered
                                  ? date_text(ld > 28 ? (m == 12 ? y + 1 : y) : y,
                                              ld > 28 ? m % 12 + 1 : m, ld > 28 ? ld - 28 : ld)
                                  : "1800-01-01";
    double sum = 0;
    int lines = 1 + rng.next(5);
    for (int l = 1; l <= lines; ++l) {
      int art = 1 + rng.next(aid);
      int menge = 1 + rng.next(12);
      int rabatt = rng.next(5) == 0 ? 10 : 0;
      double ep = prices[static_cast<size_t>(art - 1)];
      sum += menge * ep * (100 - rabatt) / 100.0;
      position.row({++pos_id, id, l, art, menge, ep, rabatt});
    }
    char time_text[128], stamp[128];
    snprintf(time_text, sizeof time_text, "%02d:%02d:%02d", hh, mi, ss);
    snprintf(stamp, sizeof stamp, "%04d-%02d-%02d-%02d.%02d.%02d.%06d", y, m, d, hh, mi, ss,
             rng.next(1000000));
    auftrag.row({id, 1 + rng.next(customers), date_text(y, m, d), time_text, status,
                 rng.pick(kPayment), lieferdatum,
                 static_cast<double>(static_cast<int64_t>(sum * 100 + 0.5)) / 100, stamp,
                 rng.pick(kNotes)});
  }
  run(db, "CREATE UNIQUE INDEX KUNDE_PK ON KUNDE (KUNDE_ID);"
          "CREATE INDEX KUNDE_NAME ON KUNDE (NAME);"
          "CREATE UNIQUE INDEX ARTIKEL_PK ON ARTIKEL (ARTIKEL_ID);"
          "CREATE UNIQUE INDEX AUFTRAG_PK ON AUFTRAG (AUFTRAG_ID);"
          "CREATE INDEX AUFTRAG_KUNDE ON AUFTRAG (KUNDE_ID);"
          "CREATE UNIQUE INDEX POSITION_PK ON POSITION (POSITION_ID);"
          "CREATE INDEX POSITION_AUFTRAG ON POSITION (AUFTRAG_ID);");
}

// Builds database name in a temporary file with fill and renames it into
// place, so that a failed or interrupted first start leaves no half database.
int build_database(const Catalog &cat, const std::string &name, void (*fill)(sqlite3 *),
                   std::string &err) {
  std::string final_path = catalog_path(cat, name);
  std::string tmp = cat.dir + "/." + name + ".db.new";
  unlink(tmp.c_str());
  {
    sqlite3 *raw = nullptr;
    int rc =
        sqlite3_open_v2(tmp.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    SqliteDb db(raw);
    if (rc != SQLITE_OK) {
      err = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
      return 0;
    }
    try {
      run(db.get(), "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; BEGIN");
      fill(db.get());
      run(db.get(), "COMMIT; PRAGMA journal_mode=WAL");
    } catch (const FillError &e) {
      err = e.text;
      db.reset();
      unlink(tmp.c_str());
      return 0;
    }
  }
  if (rename(tmp.c_str(), final_path.c_str()) != 0) {
    err = std::string("Umbenennen nach ") + final_path + ": " + strerror(errno);
    unlink(tmp.c_str());
    return 0;
  }
  return 1;
}

} // namespace

bool catalog_valid_name(const std::string &name) {
  if (name.empty() || name.size() > 19 || !(name[0] >= 'A' && name[0] <= 'Z')) return false;
  for (char c : name)
    if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')) return false;
  return true;
}

std::string catalog_path(const Catalog &cat, const std::string &name) {
  return cat.dir + "/" + name + ".db";
}

bool catalog_exists(const Catalog &cat, const std::string &name) {
  struct stat sb;
  return catalog_valid_name(name) && stat(catalog_path(cat, name).c_str(), &sb) == 0 &&
         S_ISREG(sb.st_mode);
}

std::vector<std::string> catalog_list(const Catalog &cat) {
  std::vector<std::string> names;
  DIR *d = opendir(cat.dir.c_str());
  if (!d) return names;
  while (struct dirent *e = readdir(d)) {
    std::string f = e->d_name;
    if (f.size() < 4 || f.compare(f.size() - 3, 3, ".db") != 0) continue;
    std::string n = f.substr(0, f.size() - 3);
    if (catalog_exists(cat, n)) names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

int catalog_configure(sqlite3 *db, std::string &err) {
  if (type_register_collation(db) != SQLITE_OK) {
    err = sqlite3_errmsg(db);
    return 0;
  }
  char *msg = nullptr;
  // Switching to WAL needs the database for a moment: while another
  // channel's last connection closes it (checkpointing the log) it waits a
  // little instead of failing. Statements never wait (busy timeout 0).
  sqlite3_busy_timeout(db, 5000);
  // WAL with NORMAL sync keeps every commit across a crash of the server
  // process. Reads go through a memory map and a 16 MiB page cache per
  // connection, so large SELECTs do not copy every page from the OS cache.
  int rc = sqlite3_exec(db,
                        "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                        "PRAGMA cache_size=-16384; PRAGMA mmap_size=268435456",
                        nullptr, nullptr, &msg);
  sqlite3_busy_timeout(db, 0);
  if (rc != SQLITE_OK) {
    err = msg ? msg : sqlite3_errmsg(db);
    sqlite3_free(msg);
    return 0;
  }
  return 1;
}

sqlite3 *catalog_open(const Catalog &cat, const std::string &name, bool create, std::string &err) {
  if (!catalog_valid_name(name)) {
    err = "ungültiger Name";
    return nullptr;
  }
  if (create && catalog_exists(cat, name)) {
    err = "existiert bereits";
    return nullptr;
  }
  std::string path = catalog_path(cat, name);
  // A new database's file is made here, exclusively, so that a failure
  // below (a full disk) removes just what this call made: a file left
  // behind would be listed as a database and block the next CREATE.
  if (create) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
      err = errno == EEXIST ? "existiert bereits" : path + ": " + strerror(errno);
      return nullptr;
    }
    close(fd);
  }
  sqlite3 *raw = nullptr;
  // Each connection belongs to one channel, whose requests run one at a
  // time (on whichever thread): SQLite need not lock around every call.
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  SqliteDb db(raw);
  if (rc != SQLITE_OK) err = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
  if (rc == SQLITE_OK && !catalog_configure(db.get(), err)) rc = SQLITE_ERROR;
  // With --sync full every commit syncs the WAL (catalog_configure leaves
  // NORMAL, which syncs at checkpoints only).
  if (rc == SQLITE_OK && cat.sync_full &&
      sqlite3_exec(db.get(), "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) != SQLITE_OK) {
    err = sqlite3_errmsg(db.get());
    rc = SQLITE_ERROR;
  }
  if (rc != SQLITE_OK) {
    db.reset();
    if (create)
      for (const char *suffix : {"", "-wal", "-shm", "-journal"}) unlink((path + suffix).c_str());
    return nullptr;
  }
  return db.release();
}

int catalog_drop(const Catalog &cat, const std::string &name, std::string &err) {
  std::string path = catalog_path(cat, name);
  if (unlink(path.c_str()) != 0) {
    err = path + ": " + strerror(errno);
    return 0;
  }
  unlink((path + "-wal").c_str());
  unlink((path + "-shm").c_str());
  return 1;
}

int catalog_backup_path(const Catalog &cat, const std::string &name, std::string &path,
                        std::string &err) {
  std::string dir = cat.dir + "/backup";
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    err = dir + ": " + strerror(errno);
    return 0;
  }
  time_t t = time(nullptr);
  struct tm tm;
  localtime_r(&t, &tm);
  char stamp[128];
  snprintf(stamp, sizeof stamp, "%04d%02d%02d_%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1,
           tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  path = dir + "/" + name + "_" + stamp + ".db";
  struct stat sb;
  for (int n = 2; stat(path.c_str(), &sb) == 0; ++n)
    path = dir + "/" + name + "_" + stamp + "_" + std::to_string(n) + ".db";
  return 1;
}

int catalog_save(const Catalog &cat, const std::string &name, std::string &path, std::string &err) {
  return catalog_backup_path(cat, name, path, err) && catalog_save_to(cat, name, path, err);
}

int catalog_save_to(const Catalog &cat, const std::string &name, const std::string &path,
                    std::string &err) {
  // A connection of its own reads the committed state, whatever the channel
  // that asks has pending.
  sqlite3 *rsrc = nullptr, *rdst = nullptr;
  int rc = sqlite3_open_v2(catalog_path(cat, name).c_str(), &rsrc, SQLITE_OPEN_READONLY, nullptr);
  SqliteDb src(rsrc);
  if (rc != SQLITE_OK) {
    err = rsrc ? sqlite3_errmsg(rsrc) : sqlite3_errstr(rc);
    return 0;
  }
  rc = sqlite3_open_v2(path.c_str(), &rdst, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  SqliteDb dst(rdst);
  if (rc != SQLITE_OK) {
    err = rdst ? sqlite3_errmsg(rdst) : sqlite3_errstr(rc);
    return 0;
  }
  sqlite3_backup *b = sqlite3_backup_init(dst.get(), "main", src.get(), "main");
  if (!b) {
    err = sqlite3_errmsg(dst.get());
    unlink(path.c_str());
    return 0;
  }
  rc = sqlite3_backup_step(b, -1);
  sqlite3_backup_finish(b);
  if (rc != SQLITE_DONE) {
    err = sqlite3_errstr(rc);
    dst.reset();
    unlink(path.c_str());
    return 0;
  }
  return 1;
}

int catalog_fill_system(sqlite3 *db, std::string &err) {
  try {
    fill_system(db);
  } catch (const FillError &e) {
    err = e.text;
    return 0;
  }
  return 1;
}

int catalog_fill_demo(sqlite3 *db, std::string &err) {
  try {
    fill_demo(db);
  } catch (const FillError &e) {
    err = e.text;
    return 0;
  }
  return 1;
}

void catalog_sqlite_setup() {
  // SQLITE_MISUSE once SQLite is initialized: the setting stays as it was.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

int catalog_folder(Catalog &cat, const std::string &dir, std::string &err) {
  cat.dir = dir;
  while (cat.dir.size() > 1 && cat.dir.back() == '/') cat.dir.pop_back();
  if (mkdir(cat.dir.c_str(), 0700) != 0 && errno != EEXIST) {
    err = cat.dir + ": " + strerror(errno);
    return 0;
  }
  struct stat sb;
  if (stat(cat.dir.c_str(), &sb) != 0 || !S_ISDIR(sb.st_mode)) {
    err = cat.dir + ": kein Verzeichnis";
    return 0;
  }
  return 1;
}

int catalog_create_first(const Catalog &cat, bool with_demo, std::string &err) {
  if (catalog_exists(cat, CATALOG_SYSTEM_DB)) return 1;
  if (with_demo && !catalog_exists(cat, CATALOG_DEMO_DB) &&
      !build_database(cat, CATALOG_DEMO_DB, fill_demo, err))
    return 0;
  return build_database(cat, CATALOG_SYSTEM_DB, fill_system, err);
}

int catalog_init(Catalog &cat, const std::string &dir, std::string &err, bool with_demo) {
  return catalog_folder(cat, dir, err) && catalog_create_first(cat, with_demo, err);
}

std::vector<std::string> catalog_make_private(const Catalog &cat) {
  std::vector<std::string> lines;
  auto mode_text = [](mode_t m) {
    char t[8];
    snprintf(t, sizeof t, "%04o", static_cast<unsigned>(m & 07777));
    return std::string(t);
  };
  // Takes group and other access away from one entry (symbolic links are
  // left alone: their own mode means nothing). True when it had any.
  auto tighten = [&](const std::string &path, bool dir) {
    struct stat sb;
    if (lstat(path.c_str(), &sb) != 0 || (dir ? !S_ISDIR(sb.st_mode) : !S_ISREG(sb.st_mode)) ||
        (sb.st_mode & 077) == 0)
      return false;
    if (chmod(path.c_str(), sb.st_mode & 07700) != 0) {
      lines.push_back("cannot make " + path + " private (mode " + mode_text(sb.st_mode) +
                      "): " + strerror(errno));
      return false;
    }
    if (dir)
      lines.push_back("made the folder " + path + " private (was " + mode_text(sb.st_mode) +
                      ", now " + mode_text(sb.st_mode & 07700) + ")");
    return true;
  };
  for (const std::string &folder : {cat.dir, cat.dir + "/backup"}) {
    tighten(folder, true);
    DIR *d = opendir(folder.c_str());
    if (!d) continue;
    int files = 0;
    while (struct dirent *e = readdir(d)) files += tighten(folder + "/" + e->d_name, false);
    closedir(d);
    if (files > 0)
      lines.push_back("made " + std::to_string(files) + (files == 1 ? " file" : " files") + " in " +
                      folder + " private (no access for group and others)");
  }
  return lines;
}

} // namespace tavrind
