// libFuzzer target of the statement encoder: any text must end in either a
// request or one message, never in a read outside the text or the buffers;
// the same statement always gives the same bytes, also after the encoder
// upper-cased its words in place.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/msg.h"
#include "db/client/parser.h"
#include "db/client/reqbuf.h"
#include "db/client/tokenizer.h"

namespace {

// Encodes text (which the tokenizer upper-cases in place) and returns the
// verdict, the request and the message.
int encode(std::string &text, std::vector<unsigned char> *bytes, std::string *message) {
  static char msg[DB_MSG_SIZE];
  std::memset(msg, 'z', sizeof msg);
  DBreq_reset();
  int ok = DBexec_encode(text.data(), msg);
  if (std::memchr(msg, 0, sizeof msg) == nullptr) __builtin_trap(); // unterminated message
  bytes->assign(DBreq_data(), DBreq_data() + DBreq_length());
  *message = msg;
  return ok;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  msg_set_handler([](const char *) {});
  // A statement is a zero-terminated text.
  std::string text(reinterpret_cast<const char *>(data), size);
  text.resize(std::strlen(text.c_str()));

  std::vector<unsigned char> first, again;
  std::string msg1, msg2;
  int ok = encode(text, &first, &msg1);
  if (ok != (msg1.empty() ? 1 : 0)) __builtin_trap(); // success iff no message
  if (ok && first.empty()) __builtin_trap();          // every statement writes a command

  // The tokenizer's in-place upper-casing must not change the meaning:
  // encoding the upper-cased text gives the same result.
  int ok2 = encode(text, &again, &msg2);
  if (ok2 != ok || (ok && again != first) || msg2 != msg1) __builtin_trap();
  return 0;
}
