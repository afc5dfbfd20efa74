// tavrin compress / uncompress (see cmd_varne.h).
#include "tools/cmd_varne.h"

#include "base/savefile.h"
#include "base/varne.h"
#include "tools/commands.h"
#include "tools/term.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kChunk = 1 << 20; // bytes moved per read and write

// The input and output of one command: named files or the standard streams.
// A named output is written through a temporary file that replaces it only
// when the command succeeds, so a failure leaves an existing file as it was.
struct Streams {
  const char *cmd = "";
  const char *in_name = nullptr; // nullptr: standard input
  const char *out_name = nullptr;
  FILE *in = stdin;
  FILE *out = stdout;
  SaveFile out_file; // the named output until it is committed

  ~Streams() {
    if (in && in != stdin) std::fclose(in);
  }
  std::string in_label() const {
    return in_name ? "'" + term_to_latin1(in_name) + "'" : std::string("standard input");
  }
  std::string out_label() const {
    return out_name ? "'" + term_to_latin1(out_name) + "'" : std::string("standard output");
  }
  int fail(const char *what, const std::string &label, int err = 0) {
    if (err)
      term_error("%s: %s %s: %s", cmd, what, label.c_str(), std::strerror(err));
    else
      term_error("%s: %s %s", cmd, what, label.c_str());
    return TAVRIN_FAIL;
  }
  // Finishes the output (a named one takes the place of the old file);
  // returns false when the last writes failed.
  bool close_out() {
    if (out == stdout) return std::fflush(stdout) == 0 && !std::ferror(stdout);
    out = nullptr;
    return SAVEFILE_Commit(out_file.release()) == 1;
  }
};

// Reads "[options] [IN [OUT]]". Options (only for compress): -b, -m MIN,
// -c CACHE. Returns TAVRIN_OK or the usage error.
int parse(const TavrinCommand &cmd, int argc, char **argv, bool with_options, Streams &s,
          int &comp_min, int &comp_cache, bool &thorough) {
  std::vector<const char *> names;
  bool options = true;
  for (int i = 1; i < argc; ++i) {
    const char *a = argv[i];
    if (options && std::strcmp(a, "--") == 0) {
      options = false;
    } else if (options && a[0] == '-' && a[1] != '\0') {
      char opt = a[1];
      if (!with_options)
        return tavrin_usage_error(cmd, "unknown option '%s'", term_to_latin1(a).c_str());
      if (opt == 'b' && a[2] == '\0') {
        thorough = true;
        continue;
      }
      if (opt != 'm' && opt != 'c')
        return tavrin_usage_error(cmd, "unknown option '%s'", term_to_latin1(a).c_str());
      const char *value = a[2] ? a + 2 : (i + 1 < argc ? argv[++i] : nullptr);
      if (!value) return tavrin_usage_error(cmd, "option -%c needs a number", opt);
      char *end = nullptr;
      errno = 0;
      long v = std::strtol(value, &end, 10);
      if (end == value || *end != '\0' || errno == ERANGE || v < -1000000 || v > 1000000)
        return tavrin_usage_error(cmd, "option -%c needs a number, not '%s'", opt,
                                  term_to_latin1(value).c_str());
      (opt == 'm' ? comp_min : comp_cache) = int(v);
    } else {
      names.push_back(a);
    }
  }
  if (names.size() > 2) return tavrin_usage_error(cmd, "too many arguments");
  if (names.size() >= 1 && std::strcmp(names[0], "-") != 0) s.in_name = names[0];
  if (names.size() == 2 && std::strcmp(names[1], "-") != 0) s.out_name = names[1];
  return TAVRIN_OK;
}

// Opens the named input and output. Returns TAVRIN_OK or TAVRIN_FAIL.
int open_streams(Streams &s) {
  if (s.in_name && !(s.in = std::fopen(s.in_name, "rb")))
    return s.fail("cannot open", s.in_label(), errno);
  if (s.out_name) {
    struct stat a, b;
    if (s.in_name && stat(s.in_name, &a) == 0 && stat(s.out_name, &b) == 0 &&
        a.st_dev == b.st_dev && a.st_ino == b.st_ino)
      return s.fail("input and output are the same file", s.in_label());
    s.out_file.reset(SAVEFILE_Open(s.out_name));
    if (!s.out_file) return s.fail("cannot create", s.out_label(), errno);
    s.out = SAVEFILE_Stream(s.out_file.get());
  }
  return TAVRIN_OK;
}

} // namespace

int cmd_compress(int argc, char **argv) {
  const TavrinCommand &cmd = *tavrin_find_command("compress");
  Streams s;
  s.cmd = "compress";
  int comp_min = 5, comp_cache = 4096;
  bool thorough = false;
  if (int rc = parse(cmd, argc, argv, true, s, comp_min, comp_cache, thorough)) return rc;
  if (!s.out_name && isatty(STDOUT_FILENO)) {
    term_error("compress: compressed data is not written to a terminal; name OUT or redirect "
               "standard output");
    return TAVRIN_FAIL;
  }
  if (int rc = open_streams(s)) return rc;
  if (!Compress_Init(s.out, comp_min, comp_cache)) {
    term_error("compress: out of memory");
    return TAVRIN_FAIL;
  }
  if (!Compress_Thorough(thorough)) {
    term_error("compress: out of memory");
    return TAVRIN_FAIL;
  }
  std::vector<unsigned char> buf(kChunk);
  for (;;) {
    size_t n = std::fread(buf.data(), 1, buf.size(), s.in);
    if (n > 0 && !Compress_Write(buf.data(), n))
      return s.fail("cannot write", s.out_label(), errno);
    if (n < buf.size()) break;
  }
  if (std::ferror(s.in)) return s.fail("cannot read", s.in_label(), errno);
  if (!Compress_End() || !s.close_out()) return s.fail("cannot write", s.out_label(), errno);
  return TAVRIN_OK;
}

int cmd_uncompress(int argc, char **argv) {
  const TavrinCommand &cmd = *tavrin_find_command("uncompress");
  Streams s;
  s.cmd = "uncompress";
  int unused_min = 0, unused_cache = 0;
  bool unused_thorough = false;
  if (int rc = parse(cmd, argc, argv, false, s, unused_min, unused_cache, unused_thorough))
    return rc;
  if (int rc = open_streams(s)) return rc;
  if (!Uncompress_Open(s.in)) {
    if (std::ferror(s.in)) return s.fail("cannot read", s.in_label(), errno);
    return s.fail("no Varne data in", s.in_label());
  }
  std::vector<unsigned char> buf(kChunk);
  for (;;) {
    long n = Uncompress_Read(buf.data(), buf.size());
    if (n < 0) {
      if (std::ferror(s.in)) return s.fail("cannot read", s.in_label(), errno);
      return s.fail("damaged or truncated Varne data in", s.in_label());
    }
    if (n > 0 && std::fwrite(buf.data(), 1, size_t(n), s.out) != size_t(n))
      return s.fail("cannot write", s.out_label(), errno);
    if (size_t(n) < buf.size()) break;
  }
  if (!s.close_out()) return s.fail("cannot write", s.out_label(), errno);
  return TAVRIN_OK;
}
