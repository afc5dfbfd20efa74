// Answers of tavrind and the numbered error texts of the server.
//
// Every answer starts with its kind (DBANS_*, db/wire/wire.h): error (a tagged
// DBTAG_MESSAGE string with the text), done, count (one 32-bit integer),
// tuples and the tuples of a FETCH (32-bit column count, 32-bit row count, the
// column headers — name, wire type code, 32-bit size — and the values row by
// row, each a 16-bit length and the value's binary form). Integers are
// little-endian.
//
// The error texts are numbered; the same table fills the system table ERROT of
// TDSYS, so a number in an answer can be looked up there. Which error applies
// and the values of a row are the executor's and the types module's business.
#pragma once

#include "server/types.h"
#include "db/wire/wire.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace tavrind {

// The server's errors, one X(number, NAME, text) each. Numbers: 1xx request form, 2xx databases,
// 3xx tables, attributes and indices, 4xx values, 5xx transactions, cursors and queries, 9xx faults
// of the storage. The 10xx entries are texts that applications of the system report through ERROT.
#define TAVRIND_ERRORS(X)                                                                          \
  X(101, ANFRAGE_UNVOLLSTAENDIG, "Anfrage endet vorzeitig: $1 erwartet")                           \
  X(102, ANFRAGE_FEHLERHAFT, "Anfrage fehlerhaft an Byte $1: $2 erwartet, $3 gefunden")            \
  X(103, ANFRAGECODE_UNBEKANNT, "Unbekannter Anfragecode $1")                                      \
  X(104, ANFRAGE_UEBERLANG, "Anfrage fehlerhaft: $1 überzählige Bytes am Ende")                    \
  X(105, NAME_UNGUELTIG, "Ungültiger Name '$1'")                                                   \
  X(106, ANFRAGE_ZU_TIEF, "Anfrage zu tief geschachtelt ($1)")                                     \
  X(107, ANFRAGE_LEER, "Leere Anfrage")                                                            \
  X(201, KEINE_DATENBANK, "Keine Datenbank geöffnet")                                              \
  X(202, DATENBANK_UNBEKANNT, "Datenbank $1 existiert nicht")                                      \
  X(203, DATENBANK_EXISTIERT, "Datenbank $1 existiert bereits")                                    \
  X(204, DATENBANK_BENUTZT, "Datenbank $1 wird noch von $2 anderen Verbindungen benutzt")          \
  X(205, SYSTEMDATENBANK, "Die Systemdatenbank $1 kann nicht gelöscht werden")                     \
  X(206, DATENBANK_FEHLER, "Datenbank $1: $2")                                                     \
  X(207, SICHERUNG_FEHLER, "Sicherung der Datenbank $1 fehlgeschlagen: $2")                        \
  X(301, TABELLE_UNBEKANNT, "Tabelle $1 existiert nicht")                                          \
  X(302, TABELLE_EXISTIERT, "Tabelle $1 existiert bereits")                                        \
  X(303, ATTRIBUT_UNBEKANNT, "Attribut $1 existiert nicht")                                        \
  X(304, ATTRIBUT_MEHRDEUTIG, "Attribut $1 ist mehrdeutig (in $2)")                                \
  X(305, ATTRIBUT_DOPPELT, "Attribut $1 ist mehrfach angegeben")                                   \
  X(306, TABELLE_STATISCH, "Tabelle $1 ist statisch und kann nicht geändert werden")               \
  X(307, INDEX_UNBEKANNT, "Index $1 existiert nicht")                                              \
  X(308, NAME_VERGEBEN, "Der Name $1 ist bereits vergeben")                                        \
  X(309, LAENGE_UNGUELTIG, "Ungültige Länge $2 für Attribut $1 (erlaubt: $3)")                     \
  X(310, TABELLE_NICHT_IN_ABFRAGE, "Tabelle oder Alias $1 kommt in der Abfrage nicht vor")         \
  X(311, ALIAS_DOPPELT, "Tabelle oder Alias $1 ist in FROM mehrfach angegeben")                    \
  X(401, WERT_UNGUELTIG, "Ungültiger Wert für Attribut $1: $2")                                    \
  X(402, NOT_NULL, "Attribut $1 ist NOT NULL und braucht einen Wert")                              \
  X(403, ANZAHL_WERTE, "Anzahl der Attribute ($1) passt nicht zur Anzahl der Werte ($2)")          \
  X(404, ZU_VIELE_WERTE, "Tabelle $1 hat $2 Attribute, angegeben sind $3 Werte")                   \
  X(405, INDEX_VERLETZT, "Eindeutiger Index $1 verletzt: der Wert existiert bereits")              \
  X(406, INDEX_DOPPELTE_WERTE,                                                                     \
    "Eindeutiger Index $1 kann nicht angelegt werden: Tabelle $2 enthält doppelte Werte")          \
  X(501, TRANSAKTION_OFFEN, "Es ist bereits eine Transaktion offen")                               \
  X(502, CURSOR_UNBEKANNT, "Cursor $1 existiert nicht")                                            \
  X(503, CURSOR_EXISTIERT, "Cursor $1 existiert bereits")                                          \
  X(504, MAX_NEGATIV, "MAX: negative Höchstzahl $1")                                               \
  X(505, TRANSAKTION_KONFLIKT,                                                                     \
    "Die Transaktion kollidiert mit der Änderung einer anderen Verbindung; bitte mit ABORT "      \
    "beenden und wiederholen")                                                                     \
  X(506, UNTERABFRAGE_SPALTEN, "Unterabfrage muss genau ein Attribut liefern")                     \
  X(507, ZU_VIELE_WERTE_ANFRAGE, "Anweisung mit zu vielen Werten ($1, höchstens $2)")              \
  X(508, CURSOR_OFFEN,                                                                             \
    "Ein offener Cursor dieser Verbindung liest die Tabelle noch; bitte erst mit CLOSE "           \
    "schließen")                                                                                   \
  X(509, SPERRE_ZEITABLAUF,                                                                        \
    "Zeitablauf: die Schreibsperre der Datenbank $1 wurde nach $2 Sekunden nicht frei (sie hält " \
    "$3); die Anweisung ist nicht ausgeführt")                                                              \
  X(510, VERKLEMMUNG,                                                                              \
    "Verklemmung: die Transaktion hat die Datenbank $1 gelesen und wartet auf deren "              \
    "Schreibsperre, die eine andere Verbindung mit eigenen Änderungen hält; die Anweisung ist "  \
    "nicht ausgeführt, bitte die Transaktion mit ABORT beenden und wiederholen")                   \
  X(511, ANWEISUNG_ZEITABLAUF,                                                                     \
    "Zeitablauf: die Anweisung lief länger als $1 Sekunden und ist abgebrochen; $2")              \
  X(512, SERVER_ENDET, "Der Server wird beendet: die Anweisung ist abgebrochen; $1")              \
  X(513, KLIENT_ENDET, "Der Klient (Prozess $1) ist beendet: seine Anweisung ist abgebrochen; $2") \
  X(514, ANTWORT_ZU_GROSS,                                                                         \
    "Das Ergebnis ist größer als $1 MB und wird nicht gesendet; bitte mit WHERE oder MAX "        \
    "einschränken oder mit DECLARE und FETCH in Teilen lesen")                                      \
  X(515, ABGEBROCHEN, "Die Anweisung ist auf Wunsch des Klienten abgebrochen; $1")               \
  X(516, VERBINDUNG_VERLOREN,                                                                      \
    "Die Verbindung zum Datenbankserver ist abgebrochen ($1): die Anweisung ist abgebrochen, "   \
    "eine offene Transaktion ist verloren; die nächste Anweisung verbindet neu")                 \
  X(901, SPEICHERFEHLER, "Interner Datenbankfehler: $1")                                           \
  X(1001, DATEI_FEHLT, "Datei $1 nicht gefunden")                                                  \
  X(1002, DATEI_SCHREIBEN, "Datei $1 kann nicht geschrieben werden")                               \
  X(1003, DATEI_LESEN, "Datei $1 kann nicht gelesen werden")                                       \
  X(1004, SATZ_FEHLT, "Datensatz $1 in Tabelle $2 nicht gefunden")                                 \
  X(1005, SATZ_GESPERRT, "Datensatz $1 in Tabelle $2 wird gerade bearbeitet")                      \
  X(1006, SVZ_FEHLT, "Schlüsselverzeichnis $1 nicht gefunden")                                     \
  X(1007, SVZ_CODE_FEHLT, "Code '$1' im Schlüsselverzeichnis $2 unbekannt")                        \
  X(1008, EINGABE_DATUM, "Ungültiges Datum '$1'")                                                  \
  X(1009, EINGABE_ZAHL, "Ungültige Zahl '$1'")                                                     \
  X(1010, VERBINDUNG, "Verbindung zur Datenbank $1 fehlgeschlagen")

// The error numbers by name: answer_errtext(Err::CURSOR_OFFEN, ...).
enum class Err : int {
#define TAVRIND_ERROR_ENUM(number, name, text) name = number,
  TAVRIND_ERRORS(TAVRIND_ERROR_ENUM)
#undef TAVRIND_ERROR_ENUM
};

// One numbered error: its number, a short name and the German text with "$n"
// placeholders that are filled in order.
struct ErrorText {
  int number;
  const char *name;
  const char *text;
};

// The whole table, in number order; count in *n.
const ErrorText *answer_error_table(size_t *n);

// The text of error err with its placeholders filled in order by args,
// prefixed "(TAVRIN <number>) ". An unknown number gives a text that says so.
std::string answer_errtext(Err err, std::initializer_list<std::string> args);

// Replaces the answer with an error answer: DBANS_ERROR, DBTAG_MESSAGE, 16-bit length (text
// length + 1), the Latin-1 text and a zero byte. Texts longer than 9000 bytes
// are cut.
void answer_error(std::vector<unsigned char> &out, const std::string &text);
// Replaces the answer with DBANS_DONE.
void answer_done(std::vector<unsigned char> &out);
// Replaces the answer with DBANS_COUNT and the count.
void answer_count(std::vector<unsigned char> &out, int32_t count);

// One column of a tuples answer.
struct AnswerColumn {
  std::string name; // Latin-1, at most 65534 bytes
  ColType type;
};

// Builds a tuples answer in place: begin writes kind, column count, a row
// count to be patched and the headers; each row's values are appended by the
// caller (type_append_value), each finished row counted with answer_row; end
// patches the row count. Headers are written for every answer, also for one
// without rows (readers skip them then).
void answer_tuples_begin(std::vector<unsigned char> &out, unsigned char kind,
                         const std::vector<AnswerColumn> &cols);
void answer_row(std::vector<unsigned char> &out);
// Counts n more finished rows at once, for row loops that count their rows
// when they end; an answer without the tuples head is left as it is.
void answer_rows_add(std::vector<unsigned char> &out, int32_t n);
int32_t answer_tuples_rows(const std::vector<unsigned char> &out);

// Appends values in their binary forms (16-bit length first), for answers
// that the executor builds from its own data (SHOW).
void answer_value_text(std::vector<unsigned char> &out, const std::string &latin1);
void answer_value_smallint(std::vector<unsigned char> &out, int16_t v);
void answer_value_integer(std::vector<unsigned char> &out, int32_t v);

} // namespace tavrind
