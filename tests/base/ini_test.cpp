// INI files on temporary files: finding, replacing, adding and deleting keyed
// lines, and the clean-up of empty lines that every rewrite does.
#include "base/ini.h"
#include "base/msg.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string g_out;
void collect(const char *text) { g_out += text; }

class IniFile : public ::testing::Test {
protected:
  std::string base;
  MsgHandler old = nullptr;

  void SetUp() override {
    static int serial = 0;
    base = ::testing::TempDir() + "zentiq_ini_" + std::to_string(getpid()) + "_" +
           std::to_string(++serial);
    std::remove(file().c_str());
    g_out.clear();
    old = msg_set_handler(collect);
  }
  void TearDown() override {
    msg_set_handler(old);
    std::remove(file().c_str());
  }
  std::string file() const { return base + ".ini"; }
  void write(const std::string &text) { std::ofstream(file(), std::ios::binary) << text; }
  std::string read() const {
    std::ifstream in(file(), std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
  }
  std::string get(const char *key) {
    const char *line = INI_GetLine(base.c_str(), key);
    return line ? line : "<none>";
  }
};

TEST_F(IniFile, FindsTheFirstLineOfAKeyExactly) {
  write("plain text\n[ABC]\n[K1] v 1\n[K1] second\n[A]B] z\n[k1] lower\n");
  EXPECT_EQ(get("ABC"), "[ABC]\n"); // a keyed line with an empty value
  EXPECT_EQ(get("K1"), "[K1] v 1\n");
  EXPECT_EQ(get("k1"), "[k1] lower\n");
  EXPECT_EQ(get("A"), "[A]B] z\n"); // the key ends at the first ']'
  EXPECT_EQ(get("A]B"), "<none>");  // so a key with ']' is never found
  EXPECT_EQ(get("plain text"), "<none>");
  EXPECT_EQ(get(""), "<none>");
  char line[INI_LINE_MAX];
  EXPECT_EQ(INI_FindKey(file().c_str(), "K1", line), 3);
  EXPECT_STREQ(line, "[K1] v 1\n");
  EXPECT_EQ(INI_FindKey(file().c_str(), "nope", line), 0);
  EXPECT_EQ(INI_FindKey((base + "_missing.ini").c_str(), "K1", line), 0);
  EXPECT_EQ(INI_GetLine((base + "_missing").c_str(), "K1"), nullptr);
  EXPECT_EQ(g_out, "");
}

TEST_F(IniFile, LongLinesAreReadInPieces) {
  // A 12000-character line counts as two lines; its second piece is no key.
  write(std::string(12000, 'x') + "\n[K] v\n");
  char line[INI_LINE_MAX];
  EXPECT_EQ(INI_FindKey(file().c_str(), "K", line), 3);
  write("[" + std::string(12000, 'L') + "] v\n[K] w\n");
  EXPECT_EQ(INI_FindKey(file().c_str(), std::string(12000, 'L').c_str(), line), 0);
  EXPECT_EQ(INI_FindKey(file().c_str(), "K", line), 3);
}

TEST_F(IniFile, PutReplacesTheFirstLineAndDropsBlankLines) {
  write("\n[A] 1\n\nnot a key\n[K1] old\n\n[K1] twin\n[Z] 9\n\n");
  INI_PutLine(base.c_str(), "K1", "[K1] new\n");
  EXPECT_EQ(read(), "[A] 1\nnot a key\n[K1] new\n[K1] twin\n[Z] 9\n");
  INI_PutLine(base.c_str(), "K1", "[K1] newer\n");
  EXPECT_EQ(read(), "[A] 1\nnot a key\n[K1] newer\n[K1] twin\n[Z] 9\n");
  EXPECT_EQ(g_out, "");
}

TEST_F(IniFile, PutAppendsAnAbsentKeyAndCreatesTheFile) {
  INI_PutLine(base.c_str(), "W_XY", "[W_XY] 10 20\n");
  EXPECT_EQ(read(), "[W_XY] 10 20\n");
  write("[A] 1\n\n");
  INI_PutLine(base.c_str(), "B", "[B] 2\n"); // appending keeps blank lines
  EXPECT_EQ(read(), "[A] 1\n\n[B] 2\n");
  EXPECT_EQ(get("B"), "[B] 2\n");
}

TEST_F(IniFile, DeleteRemovesTheFirstLineOnly) {
  write("[K] 1\n\n[X] 2\n[K] 3\n");
  INI_DeleteLine(base.c_str(), "K");
  EXPECT_EQ(read(), "[X] 2\n[K] 3\n");
  INI_DeleteLine(base.c_str(), "K");
  EXPECT_EQ(read(), "[X] 2\n");
  write("[X] 2\n\n");
  INI_DeleteLine(base.c_str(), "absent"); // nothing happens, not even a rewrite
  EXPECT_EQ(read(), "[X] 2\n\n");
  std::string missing = base + "_missing";
  INI_DeleteLine(missing.c_str(), "K");
  EXPECT_FALSE(std::ifstream(missing + ".ini").good());
  EXPECT_EQ(g_out, "");
}

TEST_F(IniFile, UnwritableFileIsReported) {
  std::string nowhere = base + "_no_such_dir/app";
  INI_PutLine(nowhere.c_str(), "K", "[K] 1\n");
  EXPECT_EQ(g_out, "Cannot open file '" + nowhere + ".ini'!");
}

} // namespace
