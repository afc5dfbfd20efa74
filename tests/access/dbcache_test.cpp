// The list of changed tables and its file ".dbcache".
#include "db/access/dbcache.h"

#include "access_testutil.h"

using namespace access_test;

TEST(DbCache, KeepsUpperCasedNamesForOneBaselineAcrossRuns) {
  ScratchDir dir;
  dbcache_read(); // no file: no baseline, nothing is kept and everything counts
  dbcache_add("kunde");
  EXPECT_EQ(dbcache_count(), 0);
  EXPECT_EQ(dbcache_contains("anything"), 1);
  dbcache_write();
  EXPECT_FALSE(std::filesystem::exists(DBCACHE_FILE));

  dbcache_setbaseline("NACHT");
  EXPECT_EQ(dbcache_contains("kunde"), 1); // an empty list answers 1
  dbcache_add("kunde");
  dbcache_add("KUNDE");
  dbcache_add("Artikel");
  EXPECT_EQ(dbcache_count(), 2);
  EXPECT_EQ(dbcache_contains("Kunde"), 1);
  EXPECT_EQ(dbcache_contains("auftrag"), 0);
  dbcache_disable();
  dbcache_add("auftrag");
  dbcache_enable();
  EXPECT_EQ(dbcache_contains("auftrag"), 0);
  dbcache_write();
  EXPECT_EQ(read_file(DBCACHE_FILE), "NACHT\nKUNDE\nARTIKEL\n");

  // The next run reads the list back; reading deletes the file.
  dbcache_setbaseline("NACHT"); // the same baseline: list and file stay
  dbcache_read();
  EXPECT_FALSE(std::filesystem::exists(DBCACHE_FILE));
  EXPECT_STREQ(dbcache_baseline(), "NACHT");
  EXPECT_EQ(dbcache_count(), 2);
  EXPECT_EQ(dbcache_contains("artikel"), 1);
  // Another baseline empties the list and removes the file.
  dbcache_write();
  dbcache_setbaseline("TAG");
  EXPECT_EQ(dbcache_count(), 0);
  EXPECT_FALSE(std::filesystem::exists(DBCACHE_FILE));

  // Names keep 19 characters; the list has room for DBCACHE_MAX of them.
  dbcache_add("ABCDEFGHIJKLMNOPQRSxyz");
  EXPECT_EQ(dbcache_contains("abcdefghijklmnopqrs"), 1);
  for (int i = 1; i < DBCACHE_MAX + 5; ++i) dbcache_add(("T" + std::to_string(i)).c_str());
  EXPECT_EQ(dbcache_count(), DBCACHE_MAX);
  EXPECT_EQ(dbcache_contains("T9999"), 1);
  EXPECT_EQ(dbcache_contains("T10000"), 0);
  dbcache_setbaseline("");
}

TEST(DbCache, DamagedFilesAreReportedAndReadAsFarAsTheyGo) {
  ScratchDir dir;
  Capture cap;
  write_file(DBCACHE_FILE, "\nkunde  trailing words\n\n  artikel\n");
  dbcache_read();
  EXPECT_EQ(cap.take(), "(dbcache_read) DB-cache-file corrupted (baseline)!\n");
  EXPECT_STREQ(dbcache_baseline(), "");
  EXPECT_EQ(dbcache_count(), 2); // the entries are still read
  EXPECT_FALSE(std::filesystem::exists(DBCACHE_FILE));

  write_file(DBCACHE_FILE, "");
  dbcache_read();
  EXPECT_EQ(cap.take(), "(dbcache_read) DB-cache-file corrupted!\n");
  EXPECT_EQ(dbcache_count(), 0);

  // A file that cannot be created.
  dbcache_setbaseline("B");
  std::filesystem::create_directory(DBCACHE_FILE);
  dbcache_write();
  EXPECT_EQ(cap.take(), "(dbcache_write) DB-cache-file write-error!\n");
  std::filesystem::remove(DBCACHE_FILE);
  dbcache_setbaseline("");
}
