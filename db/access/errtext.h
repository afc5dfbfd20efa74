// Numbered error and message texts and the error log: ERROR_Do looks up the
// text of an error number in the table ERROT (one row per number and
// language, "$" placeholders for parameters), fills in the parameters, prints
// it and writes a row into the table ERR; ERR_Internal and INFO_Internal log
// free texts the same way. The two table modules (ERROT_..., ERR_...) read
// and write single rows of these tables.
//
// The texts themselves live in the database (TDSYS), not in the program.
// Statements go through the session layer; what a caller does after an
// error is its own business.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/data.h"
#include "base/date.h"
#include "db/access/session.h"
#include "db/access/tablerec.h"

// The base context: the session, the identification of the running process
// and the count of errors reported so far.
struct BASECTX {
  DBSESSION *session = nullptr;
  char process_id[17] = {}; // 16 characters
  int errors = 0;
};

// Fills the context for a session: the process id is the process number and
// the start time, 16 hexadecimal characters. Returns 1.
int BASECTX_Init(BASECTX *ctx, DBSESSION *session);

// A message parameter: a typed value of base/data.h. With `as_text` the
// value is given in its plain C form instead of its storage: text types as
// characters, FLOAT/DOUBLE as a double (printed with `precision` decimals),
// integers and LOGICAL as an int, anything else as a char.
struct ERRPARAM {
  int type = 0;
  int as_text = 0;
  const void *value = nullptr;
  int precision = 2;
};

// Parameters for the usual cases.
inline ERRPARAM ERRPARAM_Text(const char *text) { return ERRPARAM{DT_STRING, 0, text, 0}; }
inline ERRPARAM ERRPARAM_Value(int type, const void *value) { return ERRPARAM{type, 0, value, 0}; }

// Reports error (is_error 1) or warning (0) `number` with `count`
// parameters (each a const ERRPARAM *): "Error %d: " / "Warning %d: ", the
// text of ERROT in the session's language with the parameters filled in, and
// an ERR row. Counts one more error in the context. Returns 1; a failing
// BEGIN or END level ends the program.
int ERROR_Do(BASECTX *ctx, int is_error, int number, int count, ...);

// One parameter as text into `text`. Returns 1; an unknown type id prints
// "(ERROR_Do1) Error: Unknown typeid '%d'!\n" and ends the program.
int ERROR_Do1(const ERRPARAM *param, std::string &text);

// Fills the "$" placeholders of `text` with the parameters in order (the
// digits after "$" are not an index). Prints the missing- and
// too-many-parameters warnings of `number`; with parameters missing the
// result is the text as it stands.
std::string ERROR_Expand(const std::string &text, int number,
                         const std::vector<std::string> &params);

// Logs a free text: prints it, writes an ERR row with Fehlercode 0 and
// Fehlertext "ERR_Internal: '%s'!" (resp. "INFO_Internal: '%s'!"). ERR rows
// get a new ROW_Id for each attempt, at most 9 for ERR_Internal. The error
// count of the context grows by one. Return 1; a failing BEGIN or END ends
// the program.
int ERR_Internal(BASECTX *ctx, const char *text);
int INFO_Internal(BASECTX *ctx, const char *text);

// ---- Table modules ------------------------------------------------------------

// Operation codes of the table modules' ..._Do.
enum : int { DB_SELECT = 1, DB_INSERT = 2, DB_UPDATE = 3, DB_DELETE = 4 };

// A row of ERROT (table 103), a size-prefixed record.
struct ERROT {
  int32_t size;
  char ERROT_Id[9];
  int16_t Fehlernummer;
  char Sprache[5];
  char Kuerzel[36];
  char Text[255];
};

// A row of ERR (table 102).
struct ERR {
  int32_t size;
  char ROW_Id[9];
  char Prozess_Id[17];
  DATI Zeitpunkt;
  int16_t Fehlercode;
  char Funktionsname[9];
  char Fehlertext[255];
};

// Characters of a ROW_Id (the column holds one more byte, the terminator).
constexpr size_t ERR_ROW_ID_LEN = 8;

// A fresh ROW_Id into id (ERR_ROW_ID_LEN characters and a zero byte): every
// character drawn from the kernel's random source over the printable
// characters the column keeps unchanged, apart from blanks, quotes, the
// backslash and the soft hyphen. Ids of different processes and hosts do not
// depend on each other; an insert that still finds its id taken draws a new
// one. Returns 1, or 0 with a message (id empty) when the kernel gives no
// random bytes.
int ERR_NewRowId(char *id);

// Definition texts with sizes and positions filled in, and column lists.
const char *ERROT_Definition();
const char *ERR_Definition();
extern const char *const ERROT_COLUMNS; // "ERROT_Id,Fehlernummer,Sprache,Kuerzel,Text"
extern const char *const ERR_COLUMNS;

// Empty records (null markers, size field set).
void ERROT_Init(ERROT *rec);
void ERR_Init(ERR *rec);

// Fills the record from a one-row result: outcome 2 and exactly one tuple,
// else "ERROT_Fill: Status is not DB_TUPLES_OK!\n" or "ERROT_Fill: None or
// more than one resulttuple!\n" and 0.
int ERROT_Fill(DBSESSION *session, DBRESULT *result, int outcome, ERROT *rec);
int ERR_Fill(DBSESSION *session, DBRESULT *result, int outcome, ERR *rec);

// The row of error `number` in `language`. Returns 1 found (the record
// filled), 0 otherwise (with ERROT_Fill's message).
int ERROT_Get(DBSESSION *session, int number, const char *language, ERROT *rec);

// DB_SELECT reads the row of the record's key (ERROT_Id resp. ROW_Id),
// DB_INSERT, DB_UPDATE, DB_DELETE write it. Returns 1 or 0; an unknown code
// prints "ERROT_Do: 'iDB'-code unknown!\n" (resp. "ERR_Do: ...").
int ERROT_Do(DBSESSION *session, int iDB, ERROT *rec);
int ERR_Do(DBSESSION *session, int iDB, ERR *rec);

// 1 when the record has its logical key (ROW_Id), else "ERR_CmpLk: No
// logical key!\n" and 0.
int ERR_CmpLk(const ERR *rec);

// The list queries of the modules.
std::string ERROT_Query_Number(const char *language, int number);
std::string ERROT_Query_Like(const char *language, const char *pattern);
extern const char *const ERROT_QUERY_ALL; // "SELECT * FROM ERROT "
extern const char *const ERR_QUERY_ALL;   // "SELECT * FROM ERR "
