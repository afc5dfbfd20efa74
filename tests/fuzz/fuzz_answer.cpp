// libFuzzer target of the answer decoder and the result accessors: any bytes
// from the server must end in a result (or the one fatal stop of a CHARACTER
// value without zero byte), never in a read outside the answer or a cell.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "base/msg.h"
#include "db/client/answer.h"
#include "db/client/resdata.h"

namespace {

// The fatal stop ends the process in the program; here it unwinds back to
// the fuzz target so that the run can go on.
struct FatalStop {};
void stop() { throw FatalStop{}; }

// Reads every cell every way the application can.
void read_all(DBRESULT *r) {
  static std::vector<unsigned char> dest(70000);
  DBresult_status(r);
  DBresult_error(r);
  int cols = DBnfields(r);
  for (int c = -1; c <= cols; ++c) {
    DBfieldname(r, c);
    DBfieldtype(r, c);
    DBfieldsize(r, c);
  }
  int rows = r->data.stored_rows;
  for (int want : {1, 0}) {
    r->data.text_wanted = want;
    for (int row = 0; row < rows; ++row)
      for (int c = 0; c < cols; ++c) {
        const char *v = DBgetvalue(r, row, c);
        if (!v) __builtin_trap();
        if (want || r->data.types[c] == DBTYPE_CHARACTER) (void)std::strlen(v);
        DBgetrawvalue(r, row, c);
        DBfillbinary(r, dest.data(), row, c);
      }
  }
  DBgetvalue(r, rows, 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  msg_set_handler([](const char *) {});
  msg_at_fatal(stop); // the list is emptied by every fatal stop
  DBRESULT *r = DBresult_new();
  try {
    // An exact-size copy lets the address checker see any read past the end.
    std::vector<uint8_t> answer(data, data + size);
    int ok = DBanswer_decode(answer.data(), answer.size(), r);
    if (!ok && DBresult_status(r) != DBRES_ERROR) __builtin_trap();
    read_all(r);
    // Changing and deleting rows keeps every remaining cell readable.
    if (r->data.stored_rows > 1) {
      RESDATA_DelRow(&r->data, 0);
      if (DBnfields(r) > 0) RESDATA_XY_Fill_Binary(&r->data, 0, 0, answer.data(), answer.size());
      read_all(r);
    }
  } catch (const FatalStop &) {
  }
  DBclear(r);
  return 0;
}
