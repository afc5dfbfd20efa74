// Helpers of the session-layer tests: capturing the message output, a
// scratch directory as the current directory, and a disabled session (which
// lets the layers above run without a server).
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "base/msg.h"
#include "db/access/session.h"

namespace access_test {

inline std::string &captured() {
  static std::string text;
  return text;
}

// Collects every message printed while it lives.
class Capture {
public:
  Capture() {
    captured().clear();
    old_ = msg_set_handler([](const char *t) { captured() += t; });
  }
  ~Capture() { msg_set_handler(old_); }
  std::string take() {
    std::string t = captured();
    captured().clear();
    return t;
  }
  bool has(const std::string &part) const { return captured().find(part) != std::string::npos; }

private:
  MsgHandler old_;
};

// Makes a fresh temporary directory the current directory while it lives.
class ScratchDir {
public:
  ScratchDir() {
    char tmpl[] = "/tmp/zentiq_access_XXXXXX";
    dir_ = mkdtemp(tmpl);
    old_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
  }
  ~ScratchDir() {
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(dir_);
  }
  const std::filesystem::path &path() const { return dir_; }

private:
  std::filesystem::path dir_, old_;
};

// Writes a file's bytes.
inline void write_file(const std::string &name, const std::string &bytes) {
  std::FILE *f = std::fopen(name.c_str(), "wb");
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

inline std::string read_file(const std::string &name) {
  std::string out;
  std::FILE *f = std::fopen(name.c_str(), "rb");
  if (!f) return out;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  std::fclose(f);
  return out;
}

} // namespace access_test
