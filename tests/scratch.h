// Scratch folders and whole files for the tests: a new folder under /tmp that
// goes with everything in it when its object ends (the current directory
// while it lives, if asked), and a file read or written in one piece.
#pragma once

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace scratch {

// A new folder /tmp/zentiq_<tag>_XXXXXX, removed with its contents when the
// object ends; with `enter`, the current directory until then. Throws
// std::system_error when no folder can be made, which fails the test.
class ScratchDir {
public:
  explicit ScratchDir(const std::string &tag = "test", bool enter = true) {
    std::string tmpl = "/tmp/zentiq_" + tag + "_XXXXXX";
    if (!mkdtemp(tmpl.data())) throw std::system_error(errno, std::generic_category(), tmpl);
    path_ = tmpl;
    if (enter) {
      old_ = std::filesystem::current_path();
      std::filesystem::current_path(path_);
    }
  }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  ~ScratchDir() {
    std::error_code ignored;
    if (!old_.empty()) std::filesystem::current_path(old_, ignored);
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string &path() const { return path_; }

private:
  std::string path_;
  std::filesystem::path old_;
};

// The bytes of a file; "" when it cannot be read.
inline std::string read_file(const std::filesystem::path &file) {
  return {std::istreambuf_iterator<char>(std::ifstream(file, std::ios::binary).rdbuf()), {}};
}

// Replaces the file's contents with `bytes`.
inline void write_file(const std::filesystem::path &file, const std::string &bytes) {
  std::ofstream(file, std::ios::binary) << bytes;
}

} // namespace scratch
