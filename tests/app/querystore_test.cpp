// The query store: the file "zentiq.qry" read and written, its malformed
// forms, and the rules for adding, dropping, paging and marking entries.

#include "app/querystore.h"
#include "tests/framework/framework_testutil.h"
#include "tests/msg_capture.h"

namespace {

std::string read_file() { return zqtest::slurp(ZQ_QUERY_FILE); }
void write_file(const std::string &text) { zqtest::write_file(ZQ_QUERY_FILE, text); }

// Each test from an empty store and no file, and leaves none behind.
class QueryStore : public ::testing::Test {
protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    zentiq_store_reset();
    std::filesystem::remove_all(ZQ_QUERY_FILE);
  }
};

TEST_F(QueryStore, AddingAndPagingFollowTheShownEntry) {
  EXPECT_EQ(zentiq_store_prev(1), 0); // empty list: nothing to page or mark
  EXPECT_EQ(zentiq_store_mark(1, 1), 0);
  EXPECT_EQ(zentiq_store_add_select("KUNDE", "", ""), 1);
  EXPECT_EQ(zentiq_store_add_select("KUNDE", "", ""), 0); // same as the last one
  EXPECT_EQ(zentiq_store_add_select("KUNDE", "NAME", ""), 1);
  // Back from none shown starts at the last entry and stays on the first.
  for (int current : {1, 0, 0}) {
    ASSERT_EQ(zentiq_store_prev(1), 1);
    EXPECT_EQ(zentiq_store().select_current, current);
  }
  // Entry 0 shown: marks and comparisons go to it, not to the last one.
  EXPECT_EQ(zentiq_store_mark(1, 1), 1);
  EXPECT_TRUE(zentiq_store_saved(1, 0));
  EXPECT_EQ(zentiq_store_add_select("KUNDE", "", ""), 0);
  EXPECT_EQ(zentiq_store_add_select("KUNDE", "NAME", ""), 1);
  EXPECT_EQ(zentiq_store().select_count, 3);
  EXPECT_EQ(zentiq_store().select_current, -1);
  // Forward past the last entry: a fresh query.
  ASSERT_EQ(zentiq_store_prev(1), 1);
  EXPECT_EQ(zentiq_store_next(1), 0);
  EXPECT_EQ(zentiq_store().select_current, -1);
  // Texts of 1000 characters or more are not stored.
  EXPECT_EQ(zentiq_store_add_select(std::string(1000, 'T'), "", ""), 0);
  EXPECT_EQ(zentiq_store_add_sql(std::string(999, 's')), 1);
  EXPECT_EQ(zentiq_store_add_sql(std::string(1000, 's')), 0);
}

TEST_F(QueryStore, FullListsDropTheOldestButSqlMarksStayInPlace) {
  for (int i = 0; i < ZQ_STORE_MAX; ++i) {
    ASSERT_EQ(zentiq_store_add_select("T" + std::to_string(i), "", ""), 1);
    ASSERT_EQ(zentiq_store_add_sql("C" + std::to_string(i)), 1);
  }
  zentiq_store().select_saved[1] = 1;
  zentiq_store().sql_saved[1] = 1;
  ASSERT_EQ(zentiq_store_add_select("T100", "", ""), 1);
  ASSERT_EQ(zentiq_store_add_sql("C100"), 1);
  const ZqStore &s = zentiq_store();
  EXPECT_EQ(s.select_count, ZQ_STORE_MAX);
  EXPECT_EQ(s.select[0].table, "T1");
  EXPECT_EQ(s.select[99].table, "T100");
  // The SELECT mark moved with T1; the SQL mark stayed at slot 1, now C2.
  auto first_two = [](const auto &a) { return std::vector(a.begin(), a.begin() + 2); };
  EXPECT_EQ(first_two(s.select_saved), (std::vector{1, 0}));
  EXPECT_EQ(first_two(s.sql_saved), (std::vector<unsigned char>{0, 1}));
  EXPECT_EQ(first_two(s.sql), (std::vector<std::string>{"C1", "C2"}));
}

TEST_F(QueryStore, TextsWithLineFeedsAndDamagedOrUnwritableFiles) {
  // A text with a line feed or a backslash makes the whole file escaped;
  // it reads back as it was, and the entries stay in their places.
  zentiq_store_add_select("KUNDE", "NAME", "WHERE ORT = 'a\\b'\nORDER BY NAME\r");
  zentiq_store_mark(1, 1);
  zentiq_store_add_sql("select 1 from KUNDE\n");
  zentiq_store_mark(0, 1);
  ASSERT_EQ(zentiq_save_queries(), 1);
  EXPECT_EQ(read_file(), "ZENTIQ.QRY 2\nKUNDE\nNAME\nWHERE ORT = 'a\\\\b'\\nORDER BY NAME\\r\n"
                         "---\nselect 1 from KUNDE\\n\n");
  zentiq_store_reset();
  ASSERT_EQ(zentiq_load_queries(), 1);
  ASSERT_EQ(zentiq_store().select_count, 1);
  EXPECT_EQ(zentiq_store().select[0].where, "WHERE ORT = 'a\\b'\nORDER BY NAME\r");
  EXPECT_EQ(zentiq_store().sql[0], "select 1 from KUNDE\n");

  // A damaged file is kept aside, never deleted; an unknown escape damages.
  for (const char *bad : {"T\nA\n", "ZENTIQ.QRY 2\n---\nx\\q\n"}) {
    write_file(bad);
    testmsg::Capture printed;
    zentiq_open_store();
    EXPECT_EQ(zentiq_store().sql_count, 0);
    EXPECT_FALSE(std::filesystem::exists(ZQ_QUERY_FILE));
    EXPECT_EQ(zqtest::slurp("zentiq.qry.bad"), bad);
    EXPECT_EQ(printed.take(), "Fehler beim Lesen der SQL-Abfragen aus Datei 'zentiq.qry' "
                              "(Datei wird als 'zentiq.qry.bad' aufbewahrt)!\n");
  }
  std::filesystem::remove("zentiq.qry.bad");

  // A save that cannot be completed reports it and leaves the old file.
  write_file("---\nold\n");
  std::filesystem::create_directory("zentiq.qry.tmp");
  EXPECT_EQ(zentiq_save_queries(), 0);
  EXPECT_EQ(read_file(), "---\nold\n");
  std::filesystem::remove_all("zentiq.qry.tmp");
}

} // namespace
