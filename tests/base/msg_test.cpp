// The message printer, the fatal stop and the Latin-1 execution character set.
#include "base/msg.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string g_seen;
void collect(const char *text) { g_seen += text; }

TEST(Charset, NarrowLiteralsAreLatin1) {
  // The sources are UTF-8; the program's texts are single bytes.
  const char *s = "Ä";
  ASSERT_EQ(std::char_traits<char>::length(s), 1u);
  EXPECT_EQ(static_cast<unsigned char>(s[0]), 196);
  EXPECT_EQ(static_cast<unsigned char>("ü"[0]), 252);
}

TEST(Msg, HandlerReceivesFormattedTextsOfAnyLength) {
  g_seen.clear();
  MsgHandler old = msg_set_handler(collect);
  msg_print("(%s) Warning: %d\n", "X", 42);
  std::string longtext(5000, 'a');
  msg_print("%s", longtext.c_str());
  msg_set_handler(old);
  EXPECT_EQ(g_seen, "(X) Warning: 42\n" + longtext);
}

void cleanup_a() { std::fputs("A", stdout); }
void cleanup_b() { std::fputs("B", stdout); }

TEST(MsgDeathTest, FatalPrintsRunsCleanupsInReverseAndExitsWith1) {
  EXPECT_EXIT(
      {
        msg_at_fatal(cleanup_a);
        msg_at_fatal(cleanup_b);
        msg_at_fatal(cleanup_a);
        msg_fatal("(f) Error\n");
      },
      ::testing::ExitedWithCode(1), "");
  // Standard output of the child is not matched by EXPECT_EXIT; check the
  // order through a handler writing to stderr instead.
  EXPECT_EXIT(
      {
        msg_set_handler([](const char *t) { std::fputs(t, stderr); });
        msg_at_fatal([] { std::fputs("[clean]", stderr); });
        msg_fatal("(f) Error %d\n", 7);
      },
      ::testing::ExitedWithCode(1), "\\(f\\) Error 7\n\\[clean\\]");
}

} // namespace
