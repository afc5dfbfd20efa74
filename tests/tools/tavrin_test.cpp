// tavrin as its users run it, without a server: the built program as a
// subprocess on files and pipes, its exit statuses and messages, compressing,
// and the terminal text conversion.
#include "tools/term.h"
#include "tools_testutil.h"

#include <random>
#include <tuple>

namespace {

namespace fs = std::filesystem;
using tooltest::Outcome;
using tooltest::slurp;
using tooltest::spill;

class Tavrin : public tooltest::InScratch {};

TEST_F(Tavrin, HelpUsageAndExitStatuses) {
  Outcome r = run("$T help");
  EXPECT_EQ(r.status, 0);
  for (const char *cmd : {"help", "compress", "uncompress", "encode", "sql", "table", "ping"})
    EXPECT_NE(r.out.find(std::string("\n  ") + cmd + " "), std::string::npos) << cmd;
  // The command line, its exit status and a text in its output (0) or in its
  // messages (otherwise).
  const std::tuple<const char *, int, const char *> cases[] = {
      {"help uncompress", 0, "usage: tavrin uncompress [IN [OUT]]"},
      {"compress --help", 0, "-m MIN"},
      {"", 2, "tavrin help"},
      {"frobnicate", 2, "unknown command 'frobnicate'"},
      {"compress -m x a b", 2, "usage: tavrin compress"},
      {"compress -m 2000000 a b", 2, "option -m needs a number, not '2000000'"},
      {"compress a b c", 2, ""},
      {"uncompress -m 5 a", 2, ""}, // uncompress has no options
      {"uncompress -x in.vz", 2, "unknown option '-x'"},
      {"help nothing", 2, ""},
  };
  for (const auto &[line, status, says] : cases) {
    r = run(std::string("$T ") + line);
    EXPECT_EQ(r.status, status) << line;
    EXPECT_NE((status ? r.err : r.out).find(says), std::string::npos) << line;
  }
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
  spill(dir / "in.bin", data);

  ASSERT_EQ(run("$T compress in.bin in.vz").status, 0);
  EXPECT_EQ(slurp(dir / "in.vz").substr(0, 9), "z01morlet");
  EXPECT_LT(fs::file_size(dir / "in.vz"), data.size() / 2);
  // Files, standard input and output, "-" for them, and pipes between runs.
  for (const char *line : {"$T uncompress in.vz back.bin",
                           "cat in.bin | $T compress -m 8 -c 64 | $T uncompress - back.bin",
                           "$T compress - <in.bin >s.vz && $T uncompress <s.vz >back.bin",
                           "$T compress -b in.bin - | $T uncompress >back.bin"}) {
    fs::remove(dir / "back.bin");
    ASSERT_EQ(run(line).status, 0) << line;
    EXPECT_TRUE(slurp(dir / "back.bin") == data) << line;
  }

  // Empty input.
  spill(dir / "empty", "");
  ASSERT_EQ(run("$T compress empty e.vz && $T uncompress e.vz e.out").status, 0);
  EXPECT_EQ(fs::file_size(dir / "e.out"), 0u);

  // Parameter warnings of the library reach standard error; the run goes on.
  EXPECT_TRUE(
      exits("$T compress -m 4 empty w.vz", 0, "(Compress_Init) Warning: Comp_Min = 4 invalid"));
}

TEST_F(Tavrin, FailuresReportAndLeaveNoOutput) {
  spill(dir / "plain.txt", "just some text, not compressed\n");
  std::string text;
  for (int i = 0; i < 20000; ++i) text += "Zeile " + std::to_string(i) + "\n";
  spill(dir / "t.txt", text);
  ASSERT_EQ(run("$T compress t.txt t.vz && head -c -9 t.vz >cut.vz").status, 0);

  spill(dir / "old.txt", "the user's file\n");

  // The command line, its message and the output it must not leave behind.
  // A truncated stream: the part before the damage is not passed off as the
  // whole file. The input is never overwritten by its own output, and an
  // existing output file survives a failure as it was, also a write failure
  // (a file size limit stands in for a full disk).
  const std::tuple<const char *, const char *, const char *> cases[] = {
      {"$T compress missing.bin x.vz", "cannot open 'missing.bin'", "x.vz"},
      {"$T uncompress plain.txt x.out", "(Uncompress_Init) Not in Varne-format!", "x.out"},
      {"$T uncompress cut.vz cut.out", "damaged or truncated", "cut.out"},
      {"cat cut.vz | $T uncompress", "damaged or truncated", ""},
      {"$T compress t.txt ./t.txt", "", ""},
      {"$T compress t.txt nodir/x.vz", "", ""},
      {"$T uncompress cut.vz old.txt", "damaged or truncated", ""},
      {"trap '' XFSZ; ulimit -f 4; $T compress t.txt old.txt", "cannot write 'old.txt'", ""},
  };
  for (const auto &[line, says, output] : cases) {
    EXPECT_TRUE(exits(line, 1, says));
    EXPECT_TRUE(!*output || !fs::exists(dir / output)) << line;
  }
  EXPECT_EQ(slurp(dir / "t.txt"), text);
  EXPECT_EQ(slurp(dir / "old.txt"), "the user's file\n");
  for (auto &e : fs::directory_iterator(dir)) // no temporary file is left
    EXPECT_TRUE(e.path().filename() == ".out" || e.path().filename() == ".err" ||
                e.path().filename().string()[0] != '.')
        << e.path();
  // A successful run replaces the file and keeps its permissions.
  fs::permissions(dir / "old.txt", fs::perms(0640));
  ASSERT_EQ(run("$T uncompress t.vz old.txt").status, 0);
  EXPECT_EQ(slurp(dir / "old.txt"), text);
  EXPECT_EQ(fs::status(dir / "old.txt").permissions(), fs::perms(0640));
}

TEST(Term, Latin1AndUtf8AtTheTerminalEdge) {
  // "Größe" in Latin-1 (the literal) and in UTF-8.
  const std::string latin1 = "Größe";
  const std::string utf8 = "Gr\xC3\xB6\xC3\x9F"
                           "e";
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
  EXPECT_EQ(term_to_latin1("\xC1\x81"), "\xC1\x81"); // an overlong 'A' is not UTF-8
  std::string all;
  for (int c = 1; c < 256; ++c) all += char(c);
  EXPECT_EQ(term_to_latin1(term_from_latin1(all)), all);
}

} // namespace
