// Helpers of the executor tests: a scratch data folder with an executor,
// statements encoded by the real client encoder, and answers decoded by the
// strict decoder (answer_decode.h) with their values read typed.
#pragma once

#include "db/client/parser.h"
#include "db/client/reqbuf.h"
#include "db/client/tokenizer.h"
#include "server/executor.h"

#include <gmock/gmock.h>

#include <cstring>

#include "tests/scratch.h"
#include "tests/server/answer_decode.h"

namespace exectest {

// The tests of the executor and its modules speak their names unqualified.
using namespace tavrind;
using ::testing::HasSubstr;

using Texts = std::vector<std::string>;

// A decoded answer with its values read typed.
struct Answer : DecodedAnswer {
  Answer(DecodedAnswer a = {}) : DecodedAnswer(std::move(a)) {}

  std::string text(size_t r, size_t c) const {
    const Bytes &v = rows.at(r).at(c);
    return std::string(v.begin(), v.end() - (v.empty() ? 0 : 1));
  }
  int16_t i16(size_t r, size_t c) const { return get<int16_t>(r, c); }
  int32_t i32(size_t r, size_t c) const { return get<int32_t>(r, c); }
  double f64(size_t r, size_t c) const { return get<double>(r, c); }
  // DATE as "YYYY-MM-DD", TIME "HH:MM:SS", TIMESTAMP "YYYY-MM-DD-HH.MM.SS.UUUUUU".
  std::string when(size_t r, size_t c) const {
    const Bytes &v = rows.at(r).at(c);
    char buf[48] = "?";
    int32_t us = 0;
    if (v.size() == 12) memcpy(&us, v.data() + 8, 4);
    if (v.size() == 4 || v.size() == 12)
      snprintf(buf, sizeof buf, "%04d-%02d-%02d", v[0] | v[1] << 8, v[2], v[3]);
    if (v.size() == 12)
      snprintf(buf + 10, sizeof buf - 10, "-%02d.%02d.%02d.%06d", v[4], v[5], v[6], us);
    if (v.size() == 3) snprintf(buf, sizeof buf, "%02d:%02d:%02d", v[0], v[1], v[2]);
    return buf;
  }
  // Column c of every row, as text.
  Texts texts(size_t c) const {
    Texts r;
    for (size_t i = 0; i < rows.size(); ++i) r.push_back(text(i, c));
    return r;
  }

private:
  template <class T> T get(size_t r, size_t c) const {
    const Bytes &v = rows.at(r).at(c);
    T x{};
    EXPECT_EQ(v.size(), sizeof(T));
    if (v.size() == sizeof(T)) memcpy(&x, v.data(), sizeof(T));
    return x;
  }
};

inline Answer decode(const Bytes &a) { return decode_answer(a); }

// The request bytes of a statement as the client encodes it.
inline Bytes encode(const std::string &statement) {
  std::string s = statement;
  if (s.empty() || s.back() != ';') s += ';';
  std::vector<char> buf(s.begin(), s.end());
  buf.push_back(0);
  std::vector<char> msg(DB_MSG_SIZE);
  DBreq_reset();
  EXPECT_EQ(DBexec_encode(buf.data(), msg.data()), 1) << statement << ": " << msg.data();
  return Bytes(DBreq_data(), DBreq_data() + DBreq_length());
}

// A request of a command byte and an optional tagged name 'a'.
inline Bytes command(unsigned char cmd, const char *name = nullptr) {
  Bytes b{cmd};
  if (name) {
    size_t n = strlen(name) + 1;
    b.insert(b.end(), {'a', static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8)});
    b.insert(b.end(), name, name + n);
  }
  return b;
}

// A fresh data folder (with TDSYS and DEMO) and an executor on it; removed at
// the end of the test.
class ExecutorTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::string err;
    ASSERT_EQ(tavrind::catalog_init(ex.catalog, dir, err), 1) << err;
    ex.log = [this](const std::string &line) { log += line + "\n"; };
  }
  tavrind::Session &channel(size_t i = 0) {
    while (channels.size() <= i)
      channels.push_back(std::make_unique<tavrind::Session>(ex, static_cast<int>(channels.size())));
    return *channels[i];
  }

  // Sends raw request bytes; returns the answer's bytes (empty if none).
  Bytes raw(const Bytes &req, size_t ch = 0, int expect = tavrind::EXEC_ANSWER) {
    Bytes out;
    EXPECT_EQ(tavrind::exec_request(channel(ch), req.data(), req.size(), out), expect);
    return out;
  }
  Answer run(const Bytes &req, size_t ch = 0) {
    Answer a = decode(raw(req, ch));
    EXPECT_TRUE(a.ok) << "answer does not decode";
    return a;
  }
  Answer sql(const std::string &statement, size_t ch = 0) { return run(encode(statement), ch); }
  // Runs a statement that must succeed; returns its answer.
  Answer good(const std::string &statement, size_t ch = 0) {
    Answer a = sql(statement, ch);
    EXPECT_NE(a.kind, '0') << statement << ": " << a.error;
    return a;
  }
  // Runs a statement that must fail; returns the error text.
  std::string bad(const std::string &statement, size_t ch = 0) {
    Answer a = sql(statement, ch);
    EXPECT_EQ(a.kind, '0') << statement;
    return a.error;
  }
  void open(const char *db, size_t ch = 0) {
    Answer a = run(command('1', db), ch);
    ASSERT_EQ(a.kind, '1') << a.error;
  }

  // Declared first: the sessions and the executor end before their folder.
  scratch::ScratchDir folder{"exec", false};
  std::string dir = folder.path();
  std::string log;
  tavrind::Executor ex;
  std::vector<std::unique_ptr<tavrind::Session>> channels;
};

} // namespace exectest
