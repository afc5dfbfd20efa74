// tavrin as its users run it: the built program as a subprocess on files and
// pipes, its exit statuses and messages; and the terminal text conversion.
#include "tools/term.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

struct Result {
  int status;
  std::string err;
};

class Tavrin : public ::testing::Test {
protected:
  fs::path dir;
  std::string exe;

  void SetUp() override {
    // The build folder: from ctest's environment, else from this program's
    // own place (BUILD/tests/tools/tools_tests).
    std::string build;
    if (const char *b = std::getenv("ZENTIQ_BUILD_DIR")) {
      build = b;
    } else {
      std::error_code ec;
      build = fs::read_symlink("/proc/self/exe", ec).parent_path().parent_path().parent_path();
    }
    exe = build + "/tools/tavrin";
    ASSERT_TRUE(fs::exists(exe)) << exe;
    char tmpl[] = "/tmp/tavrin_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  void TearDown() override { fs::remove_all(dir); }

  std::string path(const char *name) const { return (dir / name).string(); }

  // Runs a shell command line in which "T" stands for the program; returns
  // its exit status and what it wrote to standard error.
  Result run(const std::string &line) {
    std::string cmd = "cd '" + dir.string() + "' && T='" + exe + "' && { " + line + "; } 2>'" +
                      path("stderr.txt") + "'";
    int rc = std::system(cmd.c_str());
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, read(path("stderr.txt"))};
  }

  static std::string read(const std::string &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  static void write(const std::string &p, const std::string &data) {
    std::ofstream(p, std::ios::binary) << data;
  }
};

TEST_F(Tavrin, HelpUsageAndExitStatuses) {
  Result r = run("$T help >out.txt");
  EXPECT_EQ(r.status, 0);
  std::string help = read(path("out.txt"));
  for (const char *cmd : {"help", "compress", "uncompress"})
    EXPECT_NE(help.find(std::string("  ") + cmd), std::string::npos) << cmd;
  EXPECT_EQ(run("$T help uncompress >out.txt").status, 0);
  EXPECT_NE(read(path("out.txt")).find("usage: tavrin uncompress [IN [OUT]]"), std::string::npos);
  EXPECT_EQ(run("$T compress --help >out.txt").status, 0);
  EXPECT_NE(read(path("out.txt")).find("-m MIN"), std::string::npos);

  r = run("$T");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("tavrin help"), std::string::npos);
  r = run("$T frobnicate");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("unknown command 'frobnicate'"), std::string::npos);
  r = run("$T compress -m x a b");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("usage: tavrin compress"), std::string::npos);
  EXPECT_EQ(run("$T compress a b c").status, 2);
  EXPECT_EQ(run("$T uncompress -m 5 a").status, 2); // uncompress has no options
  r = run("$T uncompress -x in.vz");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("unknown option '-x'"), std::string::npos);
  EXPECT_EQ(run("$T help nothing").status, 2);
}

TEST_F(Tavrin, CompressAndUncompressFilesAndPipes) {
  // Several blocks of mixed text and binary data.
  std::mt19937 rng(5);
  std::string data;
  while (data.size() < 2500000) {
    if (rng() % 10 == 0)
      for (int i = 0; i < 50; ++i) data += char(rng());
    else
      data += "Größe der Tabelle SVZT: " + std::to_string(rng() % 1000) + " Zeilen\n";
  }
  write(path("in.bin"), data);

  ASSERT_EQ(run("$T compress in.bin in.vz").status, 0);
  EXPECT_EQ(read(path("in.vz")).substr(0, 9), "z01morlet");
  EXPECT_LT(fs::file_size(path("in.vz")), data.size() / 2);
  ASSERT_EQ(run("$T uncompress in.vz back.bin").status, 0);
  EXPECT_TRUE(read(path("back.bin")) == data);

  // Standard input and output, "-" for them, and a pipe between two runs.
  ASSERT_EQ(run("cat in.bin | $T compress -m 8 -c 64 | $T uncompress - out1.bin").status, 0);
  EXPECT_TRUE(read(path("out1.bin")) == data);
  ASSERT_EQ(run("$T compress - <in.bin >s.vz && $T uncompress <s.vz >out2.bin").status, 0);
  EXPECT_TRUE(read(path("out2.bin")) == data);
  ASSERT_EQ(run("$T compress -b in.bin - | $T uncompress >out3.bin").status, 0);
  EXPECT_TRUE(read(path("out3.bin")) == data);

  // Empty input.
  write(path("empty"), "");
  ASSERT_EQ(run("$T compress empty e.vz && $T uncompress e.vz e.out").status, 0);
  EXPECT_EQ(fs::file_size(path("e.out")), 0u);

  // Parameter warnings of the library reach standard error; the run goes on.
  Result r = run("$T compress -m 4 empty w.vz");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("(Compress_Init) Warning: Comp_Min = 4 invalid"), std::string::npos);
}

TEST_F(Tavrin, FailuresReportAndLeaveNoOutput) {
  Result r = run("$T compress missing.bin x.vz");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot open 'missing.bin'"), std::string::npos);
  EXPECT_FALSE(fs::exists(path("x.vz")));

  write(path("plain.txt"), "just some text, not compressed\n");
  r = run("$T uncompress plain.txt x.out");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("(Uncompress_Init) Not in Varne-format!"), std::string::npos);
  EXPECT_FALSE(fs::exists(path("x.out")));

  // A truncated stream: the part before the damage is not passed off as the
  // whole file.
  std::string text;
  for (int i = 0; i < 20000; ++i) text += "Zeile " + std::to_string(i) + "\n";
  write(path("t.txt"), text);
  ASSERT_EQ(run("$T compress t.txt t.vz").status, 0);
  std::string z = read(path("t.vz"));
  write(path("cut.vz"), z.substr(0, z.size() - 9));
  r = run("$T uncompress cut.vz cut.out");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("damaged or truncated"), std::string::npos);
  EXPECT_FALSE(fs::exists(path("cut.out")));
  EXPECT_EQ(run("cat cut.vz | $T uncompress >/dev/null").status, 1);

  // The input is never overwritten by its own output.
  r = run("$T compress t.txt ./t.txt");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(read(path("t.txt")), text);
  EXPECT_EQ(run("$T compress t.txt nodir/x.vz").status, 1);
}

TEST(Term, Latin1AndUtf8AtTheTerminalEdge) {
  // "Größe" in Latin-1 (the literal) and in UTF-8.
  const std::string latin1 = "Größe";
  const std::string utf8 = "Gr\xC3\xB6\xC3\x9F"
                           "e";
  EXPECT_EQ(latin1.size(), 5u);
  EXPECT_EQ(term_from_latin1(latin1), utf8);
  bool exact = false;
  EXPECT_EQ(term_to_latin1(utf8, &exact), latin1);
  EXPECT_TRUE(exact);
  // Beyond Latin-1 (the euro sign), and bytes that are not UTF-8 at all.
  EXPECT_EQ(term_to_latin1("5 \xE2\x82\xAC", &exact), "5 ?");
  EXPECT_FALSE(exact);
  EXPECT_EQ(term_to_latin1(latin1, &exact), latin1);
  EXPECT_TRUE(exact);
  EXPECT_EQ(term_to_latin1("\xC3"), "\xC3");
  std::string all;
  for (int c = 1; c < 256; ++c) all += char(c);
  EXPECT_EQ(term_to_latin1(term_from_latin1(all)), all);
}

} // namespace
