// Named sections and the liveness lock that tells a live owner from a
// leftover.
#include "db/ipc/named.h"

#include "tests/ipc/ipc_testutil.h"

#include <cstring>

using namespace ipctest;

TEST(IpcNamed, NamesCarryTheNamespace) {
  setenv("TAVRIN_NAMESPACE", "abc_", 1);
  EXPECT_EQ(ipc::object_name("TavrinDB_Mutex"), "/abc_TavrinDB_Mutex");
  setenv("TAVRIN_NAMESPACE", "", 1);
  EXPECT_EQ(ipc::object_name("TavrinDB_Mutex"), "/TavrinDB_Mutex");
  // Unset: the user's own namespace.
  unsetenv("TAVRIN_NAMESPACE");
  EXPECT_EQ(ipc::object_name("TavrinDB_Mutex"),
            "/u" + std::to_string(geteuid()) + "_TavrinDB_Mutex");
}

TEST(IpcNamed, SectionIsSharedBetweenProcessesAndOpenExistingNeedsTheObject) {
  fresh_namespace();
  ipc::Section missing;
  EXPECT_FALSE(missing.open_existing("Area", 16));
  EXPECT_EQ(errno, ENOENT);

  ipc::Section a;
  ASSERT_TRUE(a.create_or_open("Area", 10020));
  EXPECT_EQ(static_cast<unsigned char *>(a.data())[10019], 0); // new bytes are zero
  pid_t child = spawn([] {
    ipc::Section b;
    if (!b.open_existing("Area", 10020)) return 1;
    std::memcpy(static_cast<char *>(b.data()) + 10000, "hello", 6);
    // Too long for the object: refused, not mapped past its end.
    ipc::Section c;
    if (c.open_existing("Area", 20000) || errno != EINVAL) return 2;
    return 0;
  });
  EXPECT_EQ(join(child), 0);
  EXPECT_STREQ(static_cast<char *>(a.data()) + 10000, "hello");
  EXPECT_TRUE(ipc::unlink_object("Area"));
  EXPECT_FALSE(ipc::unlink_object("Area"));
}

TEST(IpcNamed, LivenessLockTellsLiveOwnerFromLeftover) {
  fresh_namespace();
  Gate ready;
  pid_t owner = spawn([&] {
    ipc::Section s;
    if (!s.create_or_open("Srv", 8) || !s.lock_exclusive()) return 1;
    ready.open_gate();
    pause();
    return 0;
  });
  ASSERT_TRUE(ready.pass());

  ipc::Section probe;
  ASSERT_TRUE(probe.open_existing("Srv", 8));
  EXPECT_TRUE(probe.held_by_live_owner());
  EXPECT_TRUE(probe.held_by_live_owner()); // testing leaves no lock behind
  ipc::Section second;
  ASSERT_TRUE(second.create_or_open("Srv", 8));
  EXPECT_FALSE(second.lock_exclusive(20)); // one owner at a time

  kill(owner, SIGKILL);
  join(owner);
  // The object is still there, but nobody holds it: a leftover.
  EXPECT_FALSE(probe.held_by_live_owner());
  EXPECT_TRUE(second.lock_exclusive());
  EXPECT_TRUE(probe.held_by_live_owner()); // and now we own it ourselves
}
