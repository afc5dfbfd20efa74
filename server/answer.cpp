// Answers of tavrind and the numbered error texts of the server.
#include "server/answer.h"

#include <cstring>

namespace {

// The server's errors. Numbers: 1xx request form, 2xx databases, 3xx tables,
// attributes and indices, 4xx values, 5xx transactions, cursors and queries,
// 9xx faults of the storage. The 10xx entries are texts that applications of
// the system report through ERROT.
const ErrorText kErrors[] = {
    {101, "ANFRAGE_UNVOLLSTAENDIG", "Anfrage endet vorzeitig: $1 erwartet"},
    {102, "ANFRAGE_FEHLERHAFT", "Anfrage fehlerhaft an Byte $1: $2 erwartet, $3 gefunden"},
    {103, "ANFRAGECODE_UNBEKANNT", "Unbekannter Anfragecode $1"},
    {104, "ANFRAGE_UEBERLANG", "Anfrage fehlerhaft: $1 überzählige Bytes am Ende"},
    {105, "NAME_UNGUELTIG", "Ungültiger Name '$1'"},
    {106, "ANFRAGE_ZU_TIEF", "Anfrage zu tief geschachtelt ($1)"},
    {107, "ANFRAGE_LEER", "Leere Anfrage"},
    {201, "KEINE_DATENBANK", "Keine Datenbank geöffnet"},
    {202, "DATENBANK_UNBEKANNT", "Datenbank $1 existiert nicht"},
    {203, "DATENBANK_EXISTIERT", "Datenbank $1 existiert bereits"},
    {204, "DATENBANK_BENUTZT", "Datenbank $1 wird noch von $2 anderen Verbindungen benutzt"},
    {205, "SYSTEMDATENBANK", "Die Systemdatenbank $1 kann nicht gelöscht werden"},
    {206, "DATENBANK_FEHLER", "Datenbank $1: $2"},
    {207, "SICHERUNG_FEHLER", "Sicherung der Datenbank $1 fehlgeschlagen: $2"},
    {301, "TABELLE_UNBEKANNT", "Tabelle $1 existiert nicht"},
    {302, "TABELLE_EXISTIERT", "Tabelle $1 existiert bereits"},
    {303, "ATTRIBUT_UNBEKANNT", "Attribut $1 existiert nicht"},
    {304, "ATTRIBUT_MEHRDEUTIG", "Attribut $1 ist mehrdeutig (in $2)"},
    {305, "ATTRIBUT_DOPPELT", "Attribut $1 ist mehrfach angegeben"},
    {306, "TABELLE_STATISCH", "Tabelle $1 ist statisch und kann nicht geändert werden"},
    {307, "INDEX_UNBEKANNT", "Index $1 existiert nicht"},
    {308, "NAME_VERGEBEN", "Der Name $1 ist bereits vergeben"},
    {309, "LAENGE_UNGUELTIG", "Ungültige Länge $2 für Attribut $1 (erlaubt: $3)"},
    {310, "TABELLE_NICHT_IN_ABFRAGE", "Tabelle oder Alias $1 kommt in der Abfrage nicht vor"},
    {311, "ALIAS_DOPPELT", "Tabelle oder Alias $1 ist in FROM mehrfach angegeben"},
    {401, "WERT_UNGUELTIG", "Ungültiger Wert für Attribut $1: $2"},
    {402, "NOT_NULL", "Attribut $1 ist NOT NULL und braucht einen Wert"},
    {403, "ANZAHL_WERTE", "Anzahl der Attribute ($1) passt nicht zur Anzahl der Werte ($2)"},
    {404, "ZU_VIELE_WERTE", "Tabelle $1 hat $2 Attribute, angegeben sind $3 Werte"},
    {405, "INDEX_VERLETZT", "Eindeutiger Index $1 verletzt: der Wert existiert bereits"},
    {406, "INDEX_DOPPELTE_WERTE",
     "Eindeutiger Index $1 kann nicht angelegt werden: Tabelle $2 enthält doppelte Werte"},
    {501, "TRANSAKTION_OFFEN", "Es ist bereits eine Transaktion offen"},
    {502, "CURSOR_UNBEKANNT", "Cursor $1 existiert nicht"},
    {503, "CURSOR_EXISTIERT", "Cursor $1 existiert bereits"},
    {504, "MAX_NEGATIV", "MAX: negative Höchstzahl $1"},
    {505, "TRANSAKTION_KONFLIKT",
     "Die Transaktion kollidiert mit der Änderung einer anderen Verbindung; bitte mit ABORT "
     "beenden und wiederholen"},
    {506, "UNTERABFRAGE_SPALTEN", "Unterabfrage muss genau ein Attribut liefern"},
    {507, "ZU_VIELE_WERTE_ANFRAGE", "Anweisung mit zu vielen Werten ($1, höchstens $2)"},
    {508, "CURSOR_OFFEN",
     "Ein offener Cursor dieser Verbindung liest die Tabelle noch; bitte erst mit CLOSE "
     "schließen"},
    {509, "SPERRE_ZEITABLAUF",
     "Zeitablauf: die Schreibsperre der Datenbank $1 wurde nach $2 Sekunden nicht frei; die "
     "Anweisung ist nicht ausgeführt"},
    {510, "VERKLEMMUNG",
     "Verklemmung: die Transaktion hat die Datenbank $1 gelesen und wartet auf deren "
     "Schreibsperre, die eine andere Verbindung mit eigenen Änderungen hält; die Anweisung ist "
     "nicht ausgeführt, bitte die Transaktion mit ABORT beenden und wiederholen"},
    {901, "SPEICHERFEHLER", "Interner Datenbankfehler: $1"},
    {1001, "DATEI_FEHLT", "Datei $1 nicht gefunden"},
    {1002, "DATEI_SCHREIBEN", "Datei $1 kann nicht geschrieben werden"},
    {1003, "DATEI_LESEN", "Datei $1 kann nicht gelesen werden"},
    {1004, "SATZ_FEHLT", "Datensatz $1 in Tabelle $2 nicht gefunden"},
    {1005, "SATZ_GESPERRT", "Datensatz $1 in Tabelle $2 wird gerade bearbeitet"},
    {1006, "SVZ_FEHLT", "Schlüsselverzeichnis $1 nicht gefunden"},
    {1007, "SVZ_CODE_FEHLT", "Code '$1' im Schlüsselverzeichnis $2 unbekannt"},
    {1008, "EINGABE_DATUM", "Ungültiges Datum '$1'"},
    {1009, "EINGABE_ZAHL", "Ungültige Zahl '$1'"},
    {1010, "VERBINDUNG", "Verbindung zur Datenbank $1 fehlgeschlagen"},
};

void put16(std::vector<unsigned char> &out, uint16_t v) {
  out.push_back(static_cast<unsigned char>(v & 0xFF));
  out.push_back(static_cast<unsigned char>(v >> 8));
}

void put32(std::vector<unsigned char> &out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

} // namespace

const ErrorText *answer_error_table(size_t *n) {
  *n = sizeof kErrors / sizeof kErrors[0];
  return kErrors;
}

std::string answer_errtext(int number, std::initializer_list<std::string> args) {
  const char *text = nullptr;
  for (const ErrorText &e : kErrors)
    if (e.number == number) text = e.text;
  std::string r = "(TAVRIN " + std::to_string(number) + ") ";
  if (!text) return r + "Unbekannter Fehler";
  auto arg = args.begin();
  for (const char *p = text; *p; ++p) {
    if (*p == '$' && p[1] >= '0' && p[1] <= '9') {
      while (p[1] >= '0' && p[1] <= '9') ++p;
      if (arg != args.end()) r += *arg++;
    } else {
      r += *p;
    }
  }
  return r;
}

void answer_error(std::vector<unsigned char> &out, const std::string &text) {
  std::string t = text.substr(0, 9000);
  out.clear();
  out.push_back('0');
  out.push_back('b');
  put16(out, static_cast<uint16_t>(t.size() + 1));
  out.insert(out.end(), t.begin(), t.end());
  out.push_back(0);
}

void answer_done(std::vector<unsigned char> &out) {
  out.clear();
  out.push_back('1');
}

void answer_count(std::vector<unsigned char> &out, int32_t count) {
  out.clear();
  out.push_back('3');
  put32(out, static_cast<uint32_t>(count));
}

void answer_tuples_begin(std::vector<unsigned char> &out, unsigned char kind,
                         const std::vector<AnswerColumn> &cols) {
  out.clear();
  out.push_back(kind);
  put32(out, static_cast<uint32_t>(cols.size()));
  put32(out, 0);
  for (const AnswerColumn &c : cols) {
    std::string n = c.name.substr(0, 65534);
    put16(out, static_cast<uint16_t>(n.size() + 1));
    out.insert(out.end(), n.begin(), n.end());
    out.push_back(0);
    out.push_back(c.type.code);
    put32(out, static_cast<uint32_t>(c.type.size));
  }
}

void answer_row(std::vector<unsigned char> &out) {
  uint32_t rows = static_cast<uint32_t>(answer_tuples_rows(out)) + 1;
  for (int i = 0; i < 4; ++i) out[5 + i] = static_cast<unsigned char>(rows >> (8 * i));
}

int32_t answer_tuples_rows(const std::vector<unsigned char> &out) {
  if (out.size() < 9) return 0;
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(out[5 + i]) << (8 * i);
  return static_cast<int32_t>(v);
}

void answer_value_text(std::vector<unsigned char> &out, const std::string &latin1) {
  std::string s = latin1.substr(0, 65534);
  put16(out, static_cast<uint16_t>(s.size() + 1));
  out.insert(out.end(), s.begin(), s.end());
  out.push_back(0);
}

void answer_value_smallint(std::vector<unsigned char> &out, int16_t v) {
  put16(out, 2);
  put16(out, static_cast<uint16_t>(v));
}

void answer_value_integer(std::vector<unsigned char> &out, int32_t v) {
  put16(out, 4);
  put32(out, static_cast<uint32_t>(v));
}
