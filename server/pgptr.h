// Owning pointers for libpq handles: a result is cleared, a connection
// finished and a cancel object freed when its pointer goes.
#pragma once

#include <libpq-fe.h>

#include <memory>

namespace tavrind {

struct PgResultClear {
  void operator()(PGresult *r) const { PQclear(r); }
};
using PgResult = std::unique_ptr<PGresult, PgResultClear>;

struct PgConnFinish {
  void operator()(PGconn *c) const { PQfinish(c); }
};
using PgConnPtr = std::unique_ptr<PGconn, PgConnFinish>;

struct PgCancelFree {
  void operator()(PGcancel *c) const { PQfreeCancel(c); }
};
using PgCancelPtr = std::unique_ptr<PGcancel, PgCancelFree>;

} // namespace tavrind
