// Statements per second through the client's SQL encoder (DBexec_encode),
// measured side by side with SQLite's sqlite3_prepare_v2 + finalize of the
// same SQL on an in-memory database holding the same tables. The mix is ten
// typical statements: short SELECTs, a SELECT with a five-term WHERE and
// ORDER BY, a join, INSERTs of ten values, UPDATE and DELETE. The run ends
// with one TARGET line: encoding at least 5 times as fast as preparing.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "db/client/parser.h"
#include "db/client/reqbuf.h"
#include "db/client/tokenizer.h"

namespace {

const char *const kTables[] = {
    "CREATE TABLE KUNDEN (NR INTEGER, NAME CHARACTER(30), ORT CHARACTER(30), PLZ "
    "CHARACTER(5), UMSATZ FLOAT, SEIT DATE, RABATT SMALLINT, TEL CHARACTER(20), MAIL "
    "CHARACTER(40), AKTIV SMALLINT)",
    "CREATE TABLE ARTIKEL (NR INTEGER, NAME CHARACTER(30), PREIS FLOAT, MENGE INTEGER, LAGER "
    "CHARACTER(10), GRUPPE SMALLINT, EINHEIT CHARACTER(5), GEWICHT FLOAT, ANGELEGT DATE, "
    "GEAENDERT DATE)",
    "CREATE TABLE AUFTRAG (NR INTEGER, KDNR INTEGER, ARTNR INTEGER, MENGE INTEGER, DATUM "
    "DATE, SUMME FLOAT)",
};

const char *const kStatements[] = {
    "SELECT * FROM KUNDEN;",
    "SELECT NR, NAME, PREIS FROM ARTIKEL WHERE NR = 17;",
    "SELECT NR, NAME, PREIS FROM ARTIKEL WHERE NR > 10 AND PREIS < 100.5 AND NAME LIKE 'B%' "
    "AND MENGE >= 3 OR LAGER = 'Nord' ORDER BY NAME, NR DESC;",
    "SELECT K.NAME, A.SUMME FROM KUNDEN K, AUFTRAG A WHERE K.NR = A.KDNR ORDER BY K.NAME;",
    "INSERT INTO ARTIKEL (NR, NAME, PREIS, MENGE, LAGER, GRUPPE, EINHEIT, GEWICHT, ANGELEGT, "
    "GEAENDERT) VALUES (4711, 'Schraube M6', 0.12, 5000, 'Nord', 3, 'Stk', 0.004, "
    "'2026-01-02', '2026-11-22');",
    "INSERT INTO KUNDEN VALUES (17, 'Meier GmbH', 'Hamburg', '20095', 125000.5, '2019-05-01', "
    "5, '040-123456', 'info@meier.example', 1);",
    "UPDATE ARTIKEL SET PREIS = 12.5, MENGE = 3 WHERE NR = 42;",
    "DELETE FROM ARTIKEL WHERE NR = 42;",
    "DELETE FROM AUFTRAG WHERE KDNR = 7 AND DATUM < '2020-01-01';",
    "SELECT COUNT(*) FROM AUFTRAG WHERE KDNR BETWEEN 1 AND 100;",
};
constexpr int kCount = sizeof kStatements / sizeof kStatements[0];

// The statements with room to be upper-cased in place, as DBexec copies them.
struct Copies {
  std::vector<std::string> originals;
  std::vector<std::vector<char>> work;
  Copies() {
    for (const char *s : kStatements) {
      originals.emplace_back(s);
      work.emplace_back(originals.back().begin(), originals.back().end());
      work.back().push_back('\0');
    }
  }
};

void bm_encode(benchmark::State &st) {
  Copies c;
  char msg[DB_MSG_SIZE];
  for (auto _ : st) {
    for (int i = 0; i < kCount; ++i) {
      // Each statement is copied fresh, like DBexec does.
      std::memcpy(c.work[i].data(), c.originals[i].c_str(), c.originals[i].size() + 1);
      DBreq_reset();
      if (!DBexec_encode(c.work[i].data(), msg)) {
        st.SkipWithError(msg);
        return;
      }
      benchmark::DoNotOptimize(DBreq_data());
    }
  }
  st.SetItemsProcessed(st.iterations() * kCount);
}

void bm_sqlite_prepare(benchmark::State &st) {
  sqlite3 *db = nullptr;
  if (sqlite3_open(":memory:", &db) != SQLITE_OK) {
    st.SkipWithError("sqlite3_open failed");
    return;
  }
  for (const char *t : kTables) sqlite3_exec(db, t, nullptr, nullptr, nullptr);
  for (auto _ : st) {
    for (int i = 0; i < kCount; ++i) {
      sqlite3_stmt *stmt = nullptr;
      if (sqlite3_prepare_v2(db, kStatements[i], -1, &stmt, nullptr) != SQLITE_OK) {
        st.SkipWithError(sqlite3_errmsg(db));
        sqlite3_close(db);
        return;
      }
      sqlite3_finalize(stmt);
    }
  }
  st.SetItemsProcessed(st.iterations() * kCount);
  sqlite3_close(db);
}

// Keeps the best statements-per-second figure of every benchmark.
class Collector : public benchmark::ConsoleReporter {
public:
  std::map<std::string, double> best;
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const auto &r : runs) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred || r.iterations == 0) continue;
      double rate = double(r.iterations) * kCount / r.real_accumulated_time;
      double &b = best[r.run_name.function_name];
      if (rate > b) b = rate;
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

} // namespace

int main(int argc, char **argv) {
  benchmark::RegisterBenchmark("encode_mix", bm_encode)->MinTime(0.5)->Repetitions(3);
  benchmark::RegisterBenchmark("sqlite_prepare_mix", bm_sqlite_prepare)
      ->MinTime(0.5)
      ->Repetitions(3);
  benchmark::Initialize(&argc, argv);
  Collector rep;
  benchmark::RunSpecifiedBenchmarks(&rep);
  benchmark::Shutdown();
  double enc = rep.best["encode_mix"], sql = rep.best["sqlite_prepare_mix"];
  std::printf("\nstatements per second: encoder %.0f, sqlite3_prepare_v2 %.0f\n", enc, sql);
  double ratio = sql > 0 ? enc / sql : 0;
  std::printf("TARGET encode_vs_sqlite_prepare: %.1fx >= 5.0x %s\n", ratio,
              ratio >= 5.0 ? "met" : "missed");
  return 0;
}
