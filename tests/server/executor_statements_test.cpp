// Every statement kind through the executor, with the answers checked value by
// value: queries, changes, schema statements, cursors, transactions between
// channels, databases created, saved and dropped, and the error answers.
#include "tests/server/executor_testutil.h"

#include <sqlite3.h>

#include <algorithm>

namespace exectest {
namespace {

class StatementsTest : public ExecutorTest {
protected:
  void SetUp() override {
    ExecutorTest::SetUp();
    good("CREATE DATABASE SHOP");
    good("CREATE TABLE KUNDE (KUNDE_ID INTEGER NOT NULL, NAME CHARACTER(21), ORT CHARACTER(21))");
    good("CREATE TABLE AUFTRAG (AUFTRAG_ID INTEGER NOT NULL, KUNDE_ID INTEGER, BETRAG FLOAT, "
         "DATUM DATE)");
    good("CREATE UNIQUE INDEX KUNDE_PK ON KUNDE (KUNDE_ID)");
    good("INSERT INTO KUNDE VALUES (1, 'Müller', 'Köln')");
    good("INSERT INTO KUNDE VALUES (2, 'Schmidt', 'Berlin')");
    good("INSERT INTO KUNDE VALUES (3, 'Weber', 'Köln')");
    good("INSERT INTO AUFTRAG VALUES (10, 1, 100.5, '2003-07-12')");
    good("INSERT INTO AUFTRAG VALUES (11, 1, 20, '2003-08-01')");
    good("INSERT INTO AUFTRAG VALUES (12, 2, 7.25, '2004-01-02')");
  }
  std::vector<int32_t> ids(const std::string &select) {
    Answer a = good(select);
    std::vector<int32_t> r;
    for (size_t i = 0; i < a.rows.size(); ++i) r.push_back(a.i32(i, 0));
    return r;
  }
  using V = std::vector<int32_t>;
};

TEST_F(StatementsTest, SelectListsJoinsAndConditions) {
  EXPECT_EQ(good("SELECT DISTINCT ORT FROM KUNDE ORDER BY ORT").texts(0),
            (Texts{"Berlin", "K\xF6ln"}));
  Answer a = good("SELECT COUNT(*), MIN(BETRAG), MAX(DATUM) FROM AUFTRAG");
  EXPECT_EQ(a.cols[1].name, "MIN(BETRAG)");
  EXPECT_EQ(a.i32(0, 0), 3);
  EXPECT_EQ(a.f64(0, 1), 7.25);
  EXPECT_EQ(a.when(0, 2), "2004-01-02");
  a = good("SELECT k.NAME, a.* FROM KUNDE k, AUFTRAG a WHERE k.KUNDE_ID = a.KUNDE_ID "
           "ORDER BY a.BETRAG DESC");
  ASSERT_EQ(a.cols.size(), 5u);
  EXPECT_EQ(a.texts(0), (Texts{"M\xFCller", "M\xFCller", "Schmidt"}));
  EXPECT_EQ(a.i32(0, 1), 10);
  EXPECT_EQ(good("SELECT * FROM KUNDE, AUFTRAG").cols.size(), 7u);

  // Conditions, with the keys they select in order. A subquery as a
  // condition of its own is true when its value is not zero.
  const std::pair<V, const char *> conditions[] = {
      {{1}, "SELECT KUNDE_ID FROM KUNDE WHERE ORT = 'Köln' AND NOT NAME LIKE 'W%'"},
      {{3, 2},
       "SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID = 3 OR (ORT = 'Berlin' AND KUNDE_ID > 1) "
       "ORDER BY KUNDE_ID DESC"},
      {{10, 11},
       "SELECT AUFTRAG_ID FROM AUFTRAG WHERE BETRAG BETWEEN 10 AND 100.5 ORDER BY AUFTRAG_ID"},
      {{2, 3}, "SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID IN (3, 2, 9) ORDER BY KUNDE_ID"},
      {{1, 2},
       "SELECT KUNDE_ID FROM KUNDE WHERE KUNDE_ID IN (SELECT KUNDE_ID FROM AUFTRAG WHERE "
       "BETRAG < 50) ORDER BY KUNDE_ID"},
      {{3},
       "SELECT KUNDE_ID FROM KUNDE k WHERE NOT EXISTS (SELECT * FROM AUFTRAG a WHERE "
       "a.KUNDE_ID = k.KUNDE_ID)"},
      {{10}, "SELECT AUFTRAG_ID FROM AUFTRAG WHERE BETRAG = (SELECT MAX(BETRAG) FROM AUFTRAG)"},
      {{1, 2},
       "SELECT KUNDE_ID FROM KUNDE k WHERE (SELECT COUNT(*) FROM AUFTRAG a WHERE "
       "a.KUNDE_ID = k.KUNDE_ID)"},
      {{1, 2}, "SELECT KUNDE_ID FROM KUNDE WHERE KUNDE.KUNDE_ID <= 2 ORDER BY KUNDE.NAME"},
  };
  for (const auto &[want, query] : conditions) EXPECT_EQ(ids(query), want) << query;

  // MAX n limits the rows of a SELECT; MAX alone lifts the limit.
  good("MAX 2");
  EXPECT_EQ(good("SELECT * FROM KUNDE").rows.size(), 2u);
  good("MAX");
  EXPECT_EQ(good("SELECT * FROM KUNDE").rows.size(), 3u);
}

// A plain query's rows are written as SQLite hands them over, a cursor's
// (and an ordered query's) are read column by column: both must give the
// same bytes, over rows enough for the answer to grow many times, with
// texts, Latin-1, empty values and MAX.
TEST_F(StatementsTest, PlainQueriesAnswerAsCursorsDo) {
  good("CREATE TABLE ZAHL (N INTEGER NOT NULL, T CHARACTER(30), F FLOAT, D DATE, "
       "Z TIMESTAMP, S SMALLINT)");
  good("BEGIN");
  const int rows = 3000;
  for (int i = 0; i < rows; ++i) {
    std::string n = std::to_string(i);
    good(i % 7 == 0 ? "INSERT INTO ZAHL (N) VALUES (" + n + ")"
                    : "INSERT INTO ZAHL VALUES (" + n + ", 'Größe " + n + "', " + n + ".5, '" +
                          std::to_string(1900 + i % 500) + "-03-1" + n.back() + "', '2003-07-12-10.30.0" +
                          n.back() + ".000123', " + std::to_string(i % 300 - 150) + ")");
  }
  good("COMMIT");
  const std::string q = "SELECT * FROM ZAHL WHERE N >= 0";
  Answer plain = good(q);
  ASSERT_EQ(plain.rows.size(), size_t(rows));
  good("DECLARE C CURSOR FOR " + q);
  EXPECT_TRUE(plain.rows == good("FETCH ALL IN C").rows);
  EXPECT_TRUE(plain.rows == good(q + " ORDER BY N").rows);
  EXPECT_EQ(plain.text(1, 1), "Gr\xF6\xDF" "e 1");
  EXPECT_EQ(plain.text(7, 1), "");
  EXPECT_EQ(plain.when(1, 4), "2003-07-12-10.30.01.000123");
  good("MAX 2500");
  Answer some = good(q);
  ASSERT_EQ(some.rows.size(), 2500u);
  EXPECT_TRUE(std::equal(some.rows.begin(), some.rows.end(), plain.rows.begin()));
  good("MAX");
}

// Queries of one shape share one translation: each binds its own values,
// also those of its subqueries, and a change of the schema by another
// channel or a rolled-back one of its own is seen by the next query.
TEST_F(StatementsTest, QueriesOfOneShapeBindTheirValuesAndFollowTheSchema) {
  const char *shape = "SELECT AUFTRAG_ID FROM AUFTRAG WHERE KUNDE_ID = %d AND DATUM > '%s' AND "
                      "AUFTRAG_ID IN (SELECT AUFTRAG_ID FROM AUFTRAG WHERE BETRAG < %d) "
                      "ORDER BY AUFTRAG_ID";
  auto query = [&](int kunde, const char *datum, int betrag) {
    char sql[300];
    snprintf(sql, sizeof sql, shape, kunde, datum, betrag);
    return ids(sql);
  };
  EXPECT_EQ(query(1, "2003.07.12", 50), V{11});
  EXPECT_EQ(query(2, "2003.01.01", 10), V{12});
  EXPECT_EQ(query(1, "2003.01.01", 1000), (V{10, 11}));

  open("SHOP", 1);
  const char *by_key = "SELECT * FROM KUNDE WHERE KUNDE_ID = 1";
  const char *ort = "SELECT ORT FROM KUNDE WHERE KUNDE_ID = 1";
  const char *name = "SELECT NAME FROM KUNDE WHERE KUNDE_ID = 1";
  EXPECT_EQ(good(by_key).cols.size(), 3u);
  EXPECT_EQ(good(ort).text(0, 0), "K\xF6ln");
  good(name);
  good("DROP TABLE KUNDE", 1);
  good("CREATE TABLE KUNDE (KUNDE_ID INTEGER, ORT SMALLINT)", 1);
  good("INSERT INTO KUNDE VALUES (1, 5067)", 1);
  EXPECT_EQ(good(ort).i16(0, 0), 5067);
  Answer a = good(by_key);
  ASSERT_EQ(a.cols.size(), 2u);
  EXPECT_EQ(a.i16(0, 1), 5067);
  open("SHOP", 2);
  EXPECT_EQ(bad(name), bad(name, 2));
  good("CREATE TABLE NEU (A INTEGER)", 1);
  EXPECT_EQ(good("SELECT * FROM NEU").cols.size(), 1u);

  // The schema version that a rolled-back change counted up to comes again
  // with another channel's change.
  good("BEGIN");
  good("CREATE TABLE WEG (B INTEGER)");
  EXPECT_EQ(good("SELECT * FROM WEG").cols.size(), 1u);
  good("ABORT");
  good("CREATE TABLE WEG (C SMALLINT, D SMALLINT)", 1);
  EXPECT_EQ(good("SELECT * FROM WEG").cols.size(), 2u);
}

TEST_F(StatementsTest, NamesThatDoNotResolveAreRefused) {
  EXPECT_EQ(bad("SELECT * FROM KUNDEN"), "(TAVRIN 301) Tabelle KUNDEN existiert nicht");
  EXPECT_EQ(bad("SELECT NAMEN FROM KUNDE"), "(TAVRIN 303) Attribut NAMEN existiert nicht");
  EXPECT_EQ(bad("SELECT KUNDE_ID FROM KUNDE, AUFTRAG"),
            "(TAVRIN 304) Attribut KUNDE_ID ist mehrdeutig (in KUNDE, AUFTRAG)");
  EXPECT_EQ(bad("SELECT x.NAME FROM KUNDE"),
            "(TAVRIN 310) Tabelle oder Alias X kommt in der Abfrage nicht vor");
  EXPECT_EQ(bad("SELECT k.BETRAG FROM KUNDE k"), "(TAVRIN 303) Attribut K.BETRAG existiert nicht");
  EXPECT_EQ(bad("SELECT * FROM KUNDE k, AUFTRAG k"),
            "(TAVRIN 311) Tabelle oder Alias K ist in FROM mehrfach angegeben");
  EXPECT_EQ(bad("SELECT * FROM KUNDE WHERE KUNDE_ID IN (SELECT * FROM AUFTRAG)"),
            "(TAVRIN 506) Unterabfrage muss genau ein Attribut liefern");
  EXPECT_EQ(bad("UPDATE KUNDE SET PLZ = '1'"), "(TAVRIN 303) Attribut PLZ existiert nicht");
  EXPECT_EQ(bad("INSERT INTO KUNDE (NAME, NAME) VALUES ('a', 'b')"),
            "(TAVRIN 305) Attribut NAME ist mehrfach angegeben");
  EXPECT_EQ(bad("INSERT INTO KUNDE VALUES (4, 'a', 'b', 'c')"),
            "(TAVRIN 404) Tabelle KUNDE hat 3 Attribute, angegeben sind 4 Werte");
  EXPECT_EQ(bad("SELECT * FROM sqlite_schema"),
            "(TAVRIN 301) Tabelle SQLITE_SCHEMA existiert nicht");
}

TEST_F(StatementsTest, ChangesAnswerTheirCountsAndKeepIndicesAndStaticTables) {
  EXPECT_EQ(good("UPDATE KUNDE SET ORT = 'Bonn' WHERE ORT = 'Köln'").count, 2);
  EXPECT_EQ(good("UPDATE KUNDE SET ORT = 'Bonn' WHERE KUNDE_ID = 99").count, 0);
  EXPECT_EQ(good("DELETE FROM AUFTRAG WHERE KUNDE_ID = 1").count, 2);
  EXPECT_EQ(good("DELETE FROM AUFTRAG").count, 1);
  EXPECT_EQ(good("INSERT INTO AUFTRAG (AUFTRAG_ID) VALUES (1)").count, 1);

  EXPECT_EQ(bad("INSERT INTO KUNDE VALUES (2, 'Doppelt', '')"),
            "(TAVRIN 405) Eindeutiger Index KUNDE_PK verletzt: der Wert existiert bereits");
  EXPECT_EQ(bad("UPDATE KUNDE SET KUNDE_ID = 1"),
            "(TAVRIN 405) Eindeutiger Index KUNDE_PK verletzt: der Wert existiert bereits");
  good("INSERT INTO AUFTRAG (AUFTRAG_ID) VALUES (1)");
  EXPECT_EQ(bad("CREATE UNIQUE INDEX AUFTRAG_PK ON AUFTRAG (AUFTRAG_ID)"),
            "(TAVRIN 406) Eindeutiger Index AUFTRAG_PK kann nicht angelegt werden: Tabelle "
            "AUFTRAG enthält doppelte Werte");
  good("CREATE INDEX AUFTRAG_K ON AUFTRAG (KUNDE_ID, DATUM)");
  EXPECT_EQ(bad("CREATE INDEX AUFTRAG_K ON KUNDE (NAME)"),
            "(TAVRIN 308) Der Name AUFTRAG_K ist bereits vergeben");
  EXPECT_EQ(bad("CREATE TABLE KUNDE (A SMALLINT)"), "(TAVRIN 302) Tabelle KUNDE existiert bereits");
  EXPECT_EQ(bad("CREATE TABLE X (A SMALLINT, A INTEGER)"),
            "(TAVRIN 305) Attribut A ist mehrfach angegeben");
  EXPECT_EQ(bad("DROP INDEX NIX"), "(TAVRIN 307) Index NIX existiert nicht");
  good("DROP INDEX AUFTRAG_K");

  good("SET TABLE KUNDE STATIC");
  const char *refused = "(TAVRIN 306) Tabelle KUNDE ist statisch und kann nicht geändert werden";
  EXPECT_EQ(bad("INSERT INTO KUNDE VALUES (7, 'x', 'y')"), refused);
  EXPECT_EQ(bad("UPDATE KUNDE SET NAME = 'x'"), refused);
  EXPECT_EQ(bad("DELETE FROM KUNDE"), refused);
  EXPECT_EQ(bad("DROP TABLE KUNDE"), refused);
  EXPECT_EQ(good("SELECT COUNT(*) FROM KUNDE").i32(0, 0), 3);
  good("SET TABLE KUNDE SECURE");
  EXPECT_EQ(good("DELETE FROM KUNDE WHERE KUNDE_ID = 3").count, 1);
  good("DROP TABLE KUNDE");
  EXPECT_EQ(bad("SELECT * FROM KUNDE"), "(TAVRIN 301) Tabelle KUNDE existiert nicht");
}

TEST_F(StatementsTest, ShowListsDatabasesTablesAttributesAndIndices) {
  EXPECT_EQ(good("SHOW DATABASES").texts(0), (Texts{"DEMO", "SHOP", "TDSYS"}));
  good("SET TABLE AUFTRAG STATIC");
  Answer a = good("SHOW TABLES");
  EXPECT_EQ(a.texts(0), (Texts{"AUFTRAG", "KUNDE"}));
  EXPECT_EQ(a.i16(0, 1), 4);
  EXPECT_EQ(a.texts(2), (Texts{"STATIC", "SECURE"}));
  a = good("SHOW TABLE KUNDE");
  EXPECT_EQ(a.texts(1), (Texts{"INTEGER", "CHARACTER", "CHARACTER"}));
  EXPECT_EQ(a.i32(1, 2), 21);
  EXPECT_EQ(a.texts(3), (Texts{"JA", "NEIN", "NEIN"}));
  good("CREATE INDEX AUFTRAG_K ON AUFTRAG (KUNDE_ID, DATUM)");
  a = good("SHOW INDICES");
  EXPECT_EQ(a.texts(0), (Texts{"AUFTRAG_K", "KUNDE_PK"}));
  EXPECT_EQ(a.texts(3), (Texts{"KUNDE_ID,DATUM", "KUNDE_ID"}));
  EXPECT_EQ(a.texts(2), (Texts{"NEIN", "JA"}));
  EXPECT_EQ(good("SHOW INDICES ON TABLE KUNDE").texts(0), Texts{"KUNDE_PK"});
  a = good("SHOW INDEX AUFTRAG_K");
  EXPECT_EQ(a.texts(4), (Texts{"KUNDE_ID", "DATUM"}));
  EXPECT_EQ(a.i16(1, 3), 2);
  EXPECT_EQ(bad("SHOW TABLE NIX"), "(TAVRIN 301) Tabelle NIX existiert nicht");
}

TEST_F(StatementsTest, TransactionsAndLocksBetweenChannels) {
  open("SHOP", 1);
  good("BEGIN");
  EXPECT_EQ(bad("BEGIN"), "(TAVRIN 501) Es ist bereits eine Transaktion offen");
  good("INSERT INTO KUNDE VALUES (4, 'Neu', 'Ulm')");
  // A failing statement is undone alone; the transaction goes on.
  bad("INSERT INTO KUNDE VALUES (4, 'Doppelt', 'Ulm')");
  EXPECT_EQ(good("SELECT COUNT(*) FROM KUNDE").i32(0, 0), 4);
  // The other channel sees the committed state and must wait to write.
  EXPECT_EQ(good("SELECT COUNT(*) FROM KUNDE", 1).i32(0, 0), 3);
  Bytes insert = encode("INSERT INTO KUNDE VALUES (5, 'Zweiter', 'Hof')");
  EXPECT_TRUE(raw(insert, 1, EXEC_WOULD_BLOCK).empty());
  EXPECT_TRUE(raw(encode("CREATE TABLE X (A SMALLINT)"), 1, EXEC_WOULD_BLOCK).empty());
  good("ABORT");
  EXPECT_EQ(good("SELECT COUNT(*) FROM KUNDE").i32(0, 0), 3);
  // The retried request now goes through.
  EXPECT_EQ(run(insert, 1).count, 1);

  // A transaction that has read data changed since cannot write any more
  // (one that waits for the lock before it reads goes on: the locking tests).
  good("BEGIN", 1);
  good("SELECT COUNT(*) FROM KUNDE", 1);
  good("DELETE FROM KUNDE WHERE KUNDE_ID = 3");
  EXPECT_EQ(bad("DELETE FROM KUNDE WHERE KUNDE_ID = 5", 1),
            "(TAVRIN 505) Die Transaktion kollidiert mit der Änderung einer anderen Verbindung; "
            "bitte mit ABORT beenden und wiederholen");
  good("ABORT", 1);

  good("BEGIN", 1);
  good("DELETE FROM AUFTRAG", 1);
  good("END", 1);
  EXPECT_EQ(good("SELECT COUNT(*) FROM AUFTRAG").i32(0, 0), 0);
  // COMMIT and ABORT outside a transaction have nothing to do.
  good("COMMIT");
  good("ABORT");
}

TEST_F(StatementsTest, DatabasesAreCreatedSavedSwitchedAndDropped) {
  EXPECT_EQ(bad("CREATE DATABASE SHOP"), "(TAVRIN 203) Datenbank SHOP existiert bereits");
  EXPECT_EQ(bad("SET DATABASE NIX"), "(TAVRIN 202) Datenbank NIX existiert nicht");
  EXPECT_EQ(good("SELECT COUNT(*) FROM KUNDE").i32(0, 0), 3) << "a failed switch keeps SHOP";

  // The saved copy is a database of its own with the data in it.
  good("SAVE DATABASE");
  Texts saved;
  for (const auto &e : std::filesystem::directory_iterator(dir + "/backup"))
    saved.push_back(e.path().string());
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_THAT(saved[0], HasSubstr("/backup/SHOP_"));
  sqlite3 *copy = nullptr;
  std::string name;
  ASSERT_EQ(sqlite3_open_v2(saved[0].c_str(), &copy, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_exec(
      copy, "SELECT NAME FROM KUNDE WHERE KUNDE_ID = 1",
      [](void *out, int, char **v, char **) { return *static_cast<std::string *>(out) = v[0], 0; },
      &name, nullptr);
  sqlite3_close(copy);
  EXPECT_EQ(name, "M\xC3\xBCller");

  // In use by another channel: not dropped.
  open("SHOP", 1);
  EXPECT_EQ(bad("DROP DATABASE"),
            "(TAVRIN 204) Datenbank SHOP wird noch von 1 anderen Verbindungen benutzt");
  good("SET DATABASE DEMO", 1);
  EXPECT_EQ(good("DROP DATABASE").kind, '1');
  EXPECT_FALSE(std::filesystem::exists(dir + "/SHOP.db"));
  EXPECT_EQ(bad("SELECT * FROM KUNDE"), "(TAVRIN 201) Keine Datenbank geöffnet");
  EXPECT_EQ(run(command('4', "TDSYS")).error, "(TAVRIN 205) Die Systemdatenbank TDSYS kann nicht "
                                              "gelöscht werden");
  EXPECT_EQ(run(command('4', "DEMO")).error,
            "(TAVRIN 204) Datenbank DEMO wird noch von 1 anderen Verbindungen benutzt");
  EXPECT_EQ(good("SHOW DATABASES").texts(0), (Texts{"DEMO", "TDSYS"}));

  // The connection requests: '3' creates and opens, '2' closes without answer,
  // '1' opens again, '4' with the name drops.
  EXPECT_EQ(run(command('3', "NEU")).kind, '1');
  good("CREATE TABLE T (A SMALLINT)");
  EXPECT_TRUE(raw(command('2'), 0, EXEC_NO_ANSWER).empty());
  EXPECT_EQ(bad("SELECT * FROM T"), "(TAVRIN 201) Keine Datenbank geöffnet");
  EXPECT_EQ(run(command('1', "NEU")).kind, '1');
  EXPECT_EQ(good("SELECT * FROM T").cols.size(), 1u);
  EXPECT_EQ(run(command('4', "NEU")).kind, '1');
  EXPECT_FALSE(std::filesystem::exists(dir + "/NEU.db"));
}

TEST_F(ExecutorTest, LogsErrorsAlwaysAndStatementsWhenVerbose) {
  open("DEMO");
  bad("SELECT * FROM NIX");
  EXPECT_THAT(log, HasSubstr("channel 0 [DEMO]: error: (TAVRIN 301) Tabelle NIX existiert nicht"));
  EXPECT_EQ(log.find("SELECT"), std::string::npos);
  ex.verbose = true;
  good("SELECT NAME FROM KUNDE WHERE KUNDE_ID = 1");
  EXPECT_THAT(log, HasSubstr("SELECT t0.\"NAME\" FROM \"KUNDE\" AS t0 WHERE"));
}

} // namespace
} // namespace exectest
