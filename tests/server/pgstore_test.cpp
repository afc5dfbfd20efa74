// The PostgreSQL store against the SQLite store in one process: the same
// statements on an executor of each store must give byte-equal answers
// (the string rule on tricky texts, every type's values and null markers),
// and a connection lost inside a transaction fails with 516 and is made
// anew. They run in the postgres pass only (ZENTIQ_TEST_STORE=postgres).
#include "tests/pgcluster.h"
#include "tests/server/executor_testutil.h"

#include "server/store.h"

namespace {

using namespace exectest;

class PgStoreUnit : public ExecutorTest {
protected:
  void SetUp() override {
    if (!pgcluster::postgres_store())
      GTEST_SKIP() << "PostgreSQL store tests run in the postgres pass (ctest -L postgres)";
    ExecutorTest::SetUp();
    std::string why;
    ASSERT_TRUE(pgcluster::store_conninfo(conninfo, why)) << why;
    pg.catalog.dir = dir;
    pg.store = tavrind::store_pg(pg.catalog, conninfo, why);
    ASSERT_TRUE(pg.store) << why;
    ASSERT_EQ(pg.store->init(false, why), 1) << why;
    pg_channel = std::make_unique<tavrind::Session>(pg, 0);
    // The same empty database on both stores.
    for (int s = 0; s < 2; ++s) ASSERT_EQ(both_raw(command('3', "T"), s).kind, '1');
  }
  void TearDown() override {
    pg_channel.reset();
    ExecutorTest::TearDown();
  }

  // The answer of a request on the SQLite store (s = 0) or the PostgreSQL
  // store (s = 1).
  Answer both_raw(const Bytes &req, int s) {
    if (s == 0) return run(req);
    Bytes out;
    tavrind::exec_request(*pg_channel, req.data(), req.size(), out);
    return decode(out);
  }
  // Runs statement on both stores; the answers must be equal byte for byte.
  Answer same(const std::string &statement) {
    Answer a = both_raw(encode(statement), 0), b = both_raw(encode(statement), 1);
    EXPECT_EQ(std::tie(a.kind, a.error, a.count, a.rows),
              std::tie(b.kind, b.error, b.count, b.rows))
        << statement;
    return b;
  }

  std::string conninfo;
  tavrind::Executor pg;
  std::unique_ptr<tavrind::Session> pg_channel;
};

TEST_F(PgStoreUnit, StringRuleAndTypesAnswerAsOnSqlite) {
  same("CREATE TABLE W (K INTEGER NOT NULL, S CHARACTER(12), D DATE, T TIME, "
       "TS TIMESTAMP, F FLOAT, N SMALLINT, B BINARY(6))");
  same("CREATE UNIQUE INDEX W_K ON W (K)");
  // Texts around the rule's edges: case, umlauts as their vowels (upper
  // case only), other bytes above 127 before ASCII, trailing blanks, a
  // prefix before its extensions, punctuation between digits and letters.
  // (Latin-1, as clients send them: \xc4 is Ä, \xe4 ä, \xd6 Ö, \xdc Ü.)
  const char *texts[] = {"abc", "ABC  ", "\xc4pfel", "apfel", "\xe4pfel", "\xd6l", "ol",
                         "\xdc" "ber", "\xfc" "ber", "\xdf", "\xe9", "a", "a b", "ab", "~", "0",
                         "Z", "zz", "_x", "%", "", "\xff", "a\xe4"};
  int k = 0;
  for (const char *t : texts)
    same("INSERT INTO W (K, S) VALUES (" + std::to_string(++k) + ", '" + t + "')");
  for (const char *q :
       {"SELECT K, S FROM W ORDER BY S, K", "SELECT K FROM W ORDER BY S DESC, K",
        "SELECT MIN(S), MAX(S) FROM W", "SELECT K FROM W WHERE S < 'apfel' ORDER BY K",
        "SELECT K FROM W WHERE S >= 'OL' ORDER BY K", "SELECT K FROM W WHERE S = 'abc' ORDER BY K",
        "SELECT K FROM W WHERE S <> 'abc   ' ORDER BY K",
        "SELECT K FROM W WHERE S BETWEEN 'A' AND 'OZ' ORDER BY K",
        "SELECT K FROM W WHERE S IN ('ab ', 'ß') ORDER BY K",
        "SELECT K FROM W WHERE S LIKE 'A%' ORDER BY K", "SELECT K FROM W WHERE S LIKE '_b%' ORDER BY K",
        "SELECT K FROM W WHERE S LIKE '%l' ORDER BY K", "SELECT DISTINCT S FROM W WHERE K > 7 ORDER BY S",
        "SELECT K FROM W WHERE S IN (SELECT S FROM W WHERE K < 3) ORDER BY K"})
    same(q);

  // Every type at its limits and as its null marker (an empty text).
  same("INSERT INTO W VALUES (100, 'x', '2800-12-31', '23:59:59', '1800-01-01-00.00.00.000001', "
       "-1.2345678901234567e-300, 32767, '$00$FF\xa7" "0102\xa7')");
  same("INSERT INTO W VALUES (101, '', '', '', '', '', '', '')");
  same("INSERT INTO W VALUES (102, 'y', '2004.02.29', '00:00:00', '2004-02-29 12:30:00', "
       "1e308, -32767, '$$')");
  same("INSERT INTO W (K, N) VALUES (103, 40000)"); // refused alike
  same("INSERT INTO W (K) VALUES (100)");          // unique index, refused alike
  same("SELECT * FROM W WHERE K >= 100 ORDER BY K");
  same("SELECT MIN(D), MAX(TS), MIN(F), MAX(N), COUNT(*) FROM W WHERE K >= 100");
  same("SELECT K FROM W WHERE D = '2004-02-29' OR F = 1e308 ORDER BY K");
  same("SELECT K FROM W WHERE B = '$$' ORDER BY K");
}

TEST_F(PgStoreUnit, LostConnectionFailsTheTransactionAndTheNextRequestReconnects) {
  same("CREATE TABLE A (K INTEGER, V INTEGER)");
  for (int k = 1; k <= 100; ++k) same("INSERT INTO A VALUES (" + std::to_string(k) + ", 10)");
  same("BEGIN");
  same("UPDATE A SET V = 11 WHERE K = 1");
  // A statement stopped inside the transaction (cancelled as soon as it
  // runs; it would run for seconds) is undone alone.
  tavrind::session_cancel(*pg_channel);
  Answer stopped = both_raw(
      encode("UPDATE A SET V = 12 WHERE K = (SELECT COUNT(*) FROM A X, A Y, A Z, A Q)"), 1);
  tavrind::session_cancel_clear(*pg_channel);
  EXPECT_EQ(stopped.kind, '0');
  EXPECT_THAT(stopped.error, HasSubstr("515"));
  Answer kept = both_raw(encode("SELECT V FROM A WHERE K = 1"), 1);
  ASSERT_EQ(kept.rows.size(), 1u);
  EXPECT_EQ(kept.i32(0, 0), 11);

  std::string why;
  ASSERT_TRUE(pgcluster::query(conninfo,
                               "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE "
                               "application_name LIKE 'tavrind % ch0%'",
                               nullptr, why))
      << why;
  Answer lost = both_raw(encode("SELECT V FROM A WHERE K = 1"), 1);
  EXPECT_EQ(lost.kind, '0');
  EXPECT_THAT(lost.error, HasSubstr("(TAVRIN 516)"));
  // The next request runs on a new connection; the lost change is gone.
  Answer again = both_raw(encode("SELECT V FROM A WHERE K = 1"), 1);
  ASSERT_EQ(again.kind, '2') << again.error;
  ASSERT_EQ(again.rows.size(), 1u);
  EXPECT_EQ(again.i32(0, 0), 10);
  EXPECT_FALSE(pg_channel->in_transaction());
}

} // namespace
