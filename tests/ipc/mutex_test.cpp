// The robust named mutex between processes.
#include "db/ipc/mutex.h"

#include "tests/ipc/ipc_testutil.h"

using namespace ipctest;
using ipc::WaitResult;

TEST(IpcMutex, ExcludesOtherProcessesAndTimesOut) {
  fresh_namespace();
  ipc::Mutex m;
  ASSERT_TRUE(m.create_or_open("Mx"));
  EXPECT_FALSE(m.unlock()); // not owned
  Gate locked, release;
  pid_t child = spawn([&] {
    ipc::Mutex c;
    if (!c.create_or_open("Mx") || c.lock() != WaitResult::Signalled) return 1;
    locked.open_gate();
    release.pass();
    return c.unlock() ? 0 : 2;
  });
  ASSERT_TRUE(locked.pass());
  EXPECT_EQ(m.lock(50), WaitResult::Timeout);
  release.open_gate();
  EXPECT_EQ(m.lock(5000), WaitResult::Signalled);
  EXPECT_TRUE(m.unlock());
  EXPECT_EQ(join(child), 0);
}

TEST(IpcMutex, OwnerKilledWhileHoldingGivesAbandonedOnceThenNormal) {
  fresh_namespace();
  Gate locked;
  pid_t child = spawn([&] {
    ipc::Mutex c;
    if (!c.create_or_open("Mx") || c.lock() != WaitResult::Signalled) return 1;
    locked.open_gate();
    pause();
    return 0;
  });
  ASSERT_TRUE(locked.pass());
  ipc::Mutex m;
  ASSERT_TRUE(m.create_or_open("Mx"));
  kill(child, SIGKILL);
  EXPECT_EQ(join(child), 128 + SIGKILL);
  EXPECT_EQ(m.lock(5000), WaitResult::Abandoned);
  EXPECT_TRUE(m.unlock());
  // Made consistent: the next process locks it normally.
  pid_t next = spawn([] {
    ipc::Mutex c;
    if (!c.create_or_open("Mx") || c.lock(5000) != WaitResult::Signalled) return 1;
    return c.unlock() ? 0 : 2;
  });
  EXPECT_EQ(join(next), 0);
}
