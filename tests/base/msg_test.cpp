// The message printer and the fatal stop.
#include "base/msg.h"

#include "base_testutil.h"

using namespace base_test;

TEST(Msg, HandlerReceivesFormattedTextsOfAnyLength) {
  Capture c;
  msg_print("(%s) Warning: %d\n", "X", 42);
  std::string longtext(5000, 'a');
  msg_print("%s", longtext.c_str());
  EXPECT_EQ(c.take(), "(X) Warning: 42\n" + longtext);
}

TEST(MsgDeathTest, FatalPrintsThenRunsEachCleanupOnceInReverse) {
  EXPECT_EXIT(
      {
        to_stderr();
        void (*a)() = [] { std::fputs("[a]", stderr); };
        void (*gone)() = [] { std::fputs("[gone]", stderr); };
        msg_at_fatal(a);
        msg_at_fatal(gone);
        msg_at_fatal([] { std::fputs("[b]", stderr); });
        msg_at_fatal(a); // registered already: keeps its place, runs once
        msg_remove_at_fatal(gone);
        msg_fatal("(f) Error %d\n", 7);
      },
      ::testing::ExitedWithCode(1), "^\\(f\\) Error 7\n\\[b\\]\\[a\\]$");
}
