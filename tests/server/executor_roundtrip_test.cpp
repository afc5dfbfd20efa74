// Values as the viewer edits them: every value the client shows as text
// (numbers, dates, times, timestamps, escaped binary) stores the same value
// when it is sent back as a literal, as the detail dialog does.
#include "tests/server/executor_testutil.h"

#include "db/client/answer.h"

#include <random>

namespace exectest {
namespace {

class RoundTrip : public ExecutorTest {
protected:
  // The texts the client makes of row 0 of a SELECT.
  std::vector<std::string> shown(const std::string &select) {
    Bytes a = raw(encode(select));
    DBRESULT *r = DBresult_new();
    EXPECT_EQ(DBanswer_decode(a.data(), a.size(), r), 1);
    std::vector<std::string> out;
    for (int c = 0; c < DBnfields(r) && DBntuples(r) > 0; ++c) out.push_back(DBgetvalue(r, 0, c));
    DBclear(r);
    return out;
  }
};

TEST_F(RoundTrip, ShownValuesSentBackStoreTheSameValue) {
  good("CREATE DATABASE RT");
  good("CREATE TABLE V (V_ID INTEGER, S SMALLINT, F FLOAT, D DATE, Z TIME, TS TIMESTAMP, "
       "B BINARY(64), C CHARACTER(40))");
  std::mt19937 rng(7);
  // Floats the client shows with all their digits (it shows about 15).
  const char *floats[] = {"0.5", "-1e20", "123456789012345", "3.14159265358", "-0.000123", "2"};
  for (int i = 0; i < 40; ++i) {
    std::string blob;
    int n = static_cast<int>(rng() % 20);
    for (int k = 0; k < n; ++k) {
      int b = static_cast<int>(rng() % 256);
      // A quote ends the literal the viewer builds and a backslash escapes the
      // next character in the client's tokenizer: such values cannot be
      // edited as text whatever the server does.
      if (b == '\'' || b == '\\') continue;
      // Build the literal from raw bytes through the escape of single bytes.
      char hex[4];
      snprintf(hex, sizeof hex, "$%02X", b);
      blob += hex;
    }
    char row[512];
    snprintf(row, sizeof row,
             "INSERT INTO V VALUES (%d, %d, %s, '%04d-%02d-%02d', '%02d:%02d:%02d', "
             "'%04d-%02d-%02d-%02d.%02d.%02d.%06d', '%s', 'Text \xE4\xF6\xFC $%d')",
             i, static_cast<int>(rng() % 65536) - 32768, floats[i % 6],
             1800 + static_cast<int>(rng() % 1001), 1 + static_cast<int>(rng() % 12),
             1 + static_cast<int>(rng() % 28), static_cast<int>(rng() % 24),
             static_cast<int>(rng() % 60), static_cast<int>(rng() % 60),
             1800 + static_cast<int>(rng() % 1001), 1 + static_cast<int>(rng() % 12),
             1 + static_cast<int>(rng() % 28), static_cast<int>(rng() % 24),
             static_cast<int>(rng() % 60), static_cast<int>(rng() % 60),
             static_cast<int>(rng() % 1000000), blob.c_str(), i);
    ASSERT_EQ(good(row).count, 1) << row;
  }
  const char *attrs[] = {"V_ID", "S", "F", "D", "Z", "TS", "B", "C"};
  for (int i = 0; i < 40; ++i) {
    std::string key = "SELECT * FROM V WHERE V_ID = " + std::to_string(i);
    Answer before = good(key);
    std::vector<std::string> texts = shown(key);
    ASSERT_EQ(texts.size(), 8u);
    // Send each text back the way the detail dialog quotes values.
    for (size_t c = 1; c < 8; ++c) {
      std::string lit = "'" + texts[c] + "'";
      Answer u = sql(std::string("UPDATE V SET ") + attrs[c] + " = " + lit + " WHERE V_ID = '" +
                     std::to_string(i) + "'");
      EXPECT_EQ(u.count, 1) << attrs[c] << " = " << lit << ": " << u.error;
    }
    Answer after = good(key);
    for (size_t c = 0; c < 8; ++c)
      EXPECT_EQ(after.rows[0][c], before.rows[0][c]) << attrs[c] << " shown as " << texts[c];
  }
}

} // namespace
} // namespace exectest
