// INI files in a scratch folder: finding, replacing, adding and deleting keyed
// lines, and the clean-up of empty lines that every rewrite does.
#include "base/ini.h"

#include "base_testutil.h"

using namespace base_test;

class IniFile : public ::testing::Test {
protected:
  ScratchDir dir{"ini", false}; // goes with every file a test made
  std::string base = dir.path() + "/app";
  std::string file = base + ".ini";
  Capture c;

  void TearDown() override { EXPECT_EQ(c.take(), ""); }
  void write(const std::string &text) { write_file(file, text); }
  std::string read() const { return read_file(file); }
  std::string get(const std::string &key) {
    const char *line = INI_GetLine(base.c_str(), key.c_str());
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
  EXPECT_EQ(get(""), "<none>");
  char line[INI_LINE_MAX];
  EXPECT_EQ(INI_FindKey(file.c_str(), "K1", line), 3);
  EXPECT_STREQ(line, "[K1] v 1\n");
  EXPECT_EQ(INI_FindKey(file.c_str(), "nope", line), 0);
  EXPECT_EQ(INI_FindKey((base + "_missing.ini").c_str(), "K1", line), 0);
  EXPECT_EQ(INI_GetLine((base + "_missing").c_str(), "K1"), nullptr);

  // A 12000-character line counts as two lines; its second piece is no key.
  write(std::string(12000, 'x') + "\n[K] v\n");
  EXPECT_EQ(INI_FindKey(file.c_str(), "K", line), 3);
  write("[" + std::string(12000, 'L') + "] v\n[K] w\n");
  EXPECT_EQ(get(std::string(12000, 'L')), "<none>");
  EXPECT_EQ(INI_FindKey(file.c_str(), "K", line), 3);
}

TEST_F(IniFile, PutReplacesTheFirstLineOrAppendsAndDeleteRemovesIt) {
  INI_PutLine(base.c_str(), "W_XY", "[W_XY] 10 20\n"); // creates the file
  EXPECT_EQ(read(), "[W_XY] 10 20\n");
  write("[A] 1\n\n");
  INI_PutLine(base.c_str(), "B", "[B] 2\n"); // appending keeps blank lines
  EXPECT_EQ(read(), "[A] 1\n\n[B] 2\n");

  // Replacing rewrites the file without its blank lines.
  write("\n[A] 1\n\nnot a key\n[K1] old\n\n[K1] twin\n[Z] 9\n\n");
  INI_PutLine(base.c_str(), "K1", "[K1] new\n");
  EXPECT_EQ(read(), "[A] 1\nnot a key\n[K1] new\n[K1] twin\n[Z] 9\n");

  write("[K] 1\n\n[X] 2\n[K] 3\n");
  INI_DeleteLine(base.c_str(), "K");
  EXPECT_EQ(read(), "[X] 2\n[K] 3\n");
  INI_DeleteLine(base.c_str(), "K");
  EXPECT_EQ(read(), "[X] 2\n");
  write("[X] 2\n\n");
  INI_DeleteLine(base.c_str(), "absent"); // nothing happens, not even a rewrite
  EXPECT_EQ(read(), "[X] 2\n\n");
  INI_DeleteLine((base + "_missing").c_str(), "K");
  EXPECT_FALSE(std::ifstream(base + "_missing.ini").good());

  std::string nowhere = base + "_no_such_dir/app";
  INI_PutLine(nowhere.c_str(), "K", "[K] 1\n");
  EXPECT_EQ(c.take(), "Cannot open file '" + nowhere + ".ini'!");
}
