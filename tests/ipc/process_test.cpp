// Watches on other processes.
#include "db/ipc/process.h"

#include "tests/ipc/ipc_testutil.h"

using namespace ipctest;

TEST(IpcProcess, SeesTheEndOfAProcessEvenBeforeItIsReaped) {
  Gate go;
  pid_t child = spawn([&] { return go.pass() ? 0 : 1; });
  ipc::Process p;
  ASSERT_TRUE(p.open(child));
  EXPECT_TRUE(p.alive());
  go.open_gate();
  // The child is a zombie until we reap it; it must count as ended already.
  for (int i = 0; i < 2000 && p.alive(); ++i) usleep(1000);
  EXPECT_FALSE(p.alive());
  EXPECT_EQ(join(child), 0);

  ipc::Process none;
  EXPECT_FALSE(none.alive());
  EXPECT_FALSE(none.open(0));
  EXPECT_FALSE(none.open(child)); // reaped: no such process any more
  EXPECT_FALSE(none.is_open());
}
