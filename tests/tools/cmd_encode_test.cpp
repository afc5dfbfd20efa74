// tavrin encode as its users run it: the built program prints the request
// bytes of a statement as hex, or the parser's message with exit status 1.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

// The build folder: from ctest's environment, else found from this test
// program's own place (build/tests/tools/tools_tests).
std::string build_dir() {
  if (const char *b = std::getenv("ZENTIQ_BUILD_DIR")) return b;
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  return exe.parent_path().parent_path().parent_path().string();
}

// Runs tavrin with a shell-quoted argument string.
Outcome tavrin(const std::string &args) {
  std::string build = build_dir();
  char dir[] = "/tmp/tavrin_encode_XXXXXX";
  EXPECT_NE(mkdtemp(dir), nullptr);
  std::string d = dir;
  std::string cmd = build + "/tools/tavrin " + args + " >" + d + "/out 2>" + d + "/err";
  int rc = std::system(cmd.c_str());
  auto slurp = [](const std::string &p) {
    std::string s;
    if (FILE *f = std::fopen(p.c_str(), "rb")) {
      char buf[4096];
      size_t n;
      while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
      std::fclose(f);
    }
    return s;
  };
  Outcome r{WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(d + "/out"), slurp(d + "/err")};
  std::system(("rm -rf " + d).c_str());
  return r;
}

TEST(TavrinEncode, PrintsRequestBytesOrParserMessage) {
  // 'C' '*' 'v' name "T" 'x'
  Outcome r = tavrin("encode 'select * from t'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "4357766102005400"
                   "78\n");
  EXPECT_EQ(r.err, "");
  // Arguments are joined with blanks; a given ";" is not doubled.
  EXPECT_EQ(tavrin("encode DELETE FROM t';'").out, "47610200540078\n");
  EXPECT_EQ(tavrin("encode BEGIN").out, "4a\n");
  EXPECT_EQ(tavrin("encode ''").out, "4b\n");
  // Terminal text is UTF-8; the request carries Latin-1 ("ä" is e4).
  EXPECT_EQ(tavrin("encode \"INSERT INTO t VALUES ('ä')\"").out, "45610200540058660200e40078\n");

  r = tavrin("encode DROP DATABASE x");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Syntax error: end of SQL-command expected (found '<identifier value>')\n");
  r = tavrin("encode 'INSERT INTO t (a, b) VALUES (1, 2, 3)'");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "(INSERT) attributes (2) do not match values (3)\n");

  r = tavrin("encode");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("usage: tavrin encode STATEMENT..."), std::string::npos);
  EXPECT_NE(tavrin("help").out.find("  encode"), std::string::npos);
}

} // namespace
