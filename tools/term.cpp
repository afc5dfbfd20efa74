// Latin-1 / UTF-8 conversion at tavrin's terminal edge (see term.h).
#include "tools/term.h"

#include "base/msg.h"

#include <cstdarg>

std::string term_from_latin1(std::string_view latin1) {
  std::string out;
  out.reserve(latin1.size() + latin1.size() / 8);
  for (unsigned char c : latin1) {
    if (c < 0x80) {
      out += char(c);
    } else {
      out += char(0xC0 | (c >> 6));
      out += char(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::string term_to_latin1(std::string_view utf8, bool *exact) {
  std::string out;
  out.reserve(utf8.size());
  bool all = true;
  const auto *s = reinterpret_cast<const unsigned char *>(utf8.data());
  const size_t n = utf8.size();
  for (size_t i = 0; i < n;) {
    unsigned char c = s[i];
    // Length of a well-formed UTF-8 sequence starting here, 0 if none.
    size_t len = c < 0x80                   ? 1
                 : (c >= 0xC2 && c <= 0xDF) ? 2
                 : (c >= 0xE0 && c <= 0xEF) ? 3
                 : (c >= 0xF0 && c <= 0xF4) ? 4
                                            : 0;
    if (len > 1) {
      if (i + len > n) {
        len = 0;
      } else {
        for (size_t k = 1; k < len; ++k)
          if ((s[i + k] & 0xC0) != 0x80) len = 0;
      }
    }
    if (len == 0) { // not UTF-8: take the byte as Latin-1
      out += char(c);
      ++i;
    } else if (len == 1) {
      out += char(c);
      ++i;
    } else if (len == 2 && c <= 0xC3) {
      out += char(((c & 0x1F) << 6) | (s[i + 1] & 0x3F));
      i += 2;
    } else {
      out += '?';
      all = false;
      i += len;
    }
  }
  if (exact) *exact = all;
  return out;
}

bool term_write(FILE *stream, std::string_view latin1) {
  std::string text = term_from_latin1(latin1);
  return std::fwrite(text.data(), 1, text.size(), stream) == text.size() && !std::ferror(stream);
}

void term_error(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string text = "tavrin: ";
  if (n > 0) {
    std::string body(size_t(n) + 1, '\0');
    std::vsnprintf(body.data(), body.size(), fmt, ap);
    body.resize(size_t(n));
    text += body;
  }
  va_end(ap);
  if (text.back() != '\n') text += '\n';
  term_write(stderr, text);
  std::fflush(stderr);
}

namespace {
void to_stderr(const char *text) {
  term_write(stderr, text);
  std::fflush(stderr);
}
} // namespace

void term_install_msg_handler() { msg_set_handler(to_stderr); }
