// tavrin encode (see cmd_encode.h).
#include "tools/cmd_encode.h"

#include <cstdio>
#include <string>

#include "db/client/parser.h"
#include "db/client/reqbuf.h"
#include "db/client/tokenizer.h"
#include "tools/commands.h"
#include "tools/term.h"

int cmd_encode(int argc, char **argv) {
  if (argc < 2) return tavrin_usage_error(*tavrin_find_command("encode"), "no statement given");
  std::string statement;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) statement += ' ';
    statement += argv[i];
  }
  // The terminal speaks UTF-8, the client Latin-1.
  std::string text = term_to_latin1(statement);
  if (text.empty() || text.back() != ';') text += ';';
  DBreq_reset();
  char message[DB_MSG_SIZE];
  if (!DBexec_encode(text.data(), message)) {
    term_write(stderr, std::string(message) + "\n");
    return TAVRIN_FAIL;
  }
  static const char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * DBreq_length() + 1);
  const unsigned char *bytes = DBreq_data();
  for (size_t i = 0; i < DBreq_length(); ++i) {
    out += hex[bytes[i] >> 4];
    out += hex[bytes[i] & 15];
  }
  out += '\n';
  bool ok =
      std::fwrite(out.data(), 1, out.size(), stdout) == out.size() && std::fflush(stdout) == 0;
  return ok ? TAVRIN_OK : TAVRIN_FAIL;
}
