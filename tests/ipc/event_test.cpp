// Auto-reset events between processes, their time-outs and process watches.
#include "db/ipc/event.h"

#include "tests/ipc/ipc_testutil.h"

#include <chrono>

using namespace ipctest;
using ipc::WaitResult;

namespace {
double ms_since(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
}
} // namespace

TEST(IpcEvent, OneWaiterPassesPerSetAndSetsDoNotAccumulate) {
  fresh_namespace();
  ipc::Event e;
  ASSERT_TRUE(e.create_or_open("Ev"));
  EXPECT_EQ(e.wait(0), WaitResult::Timeout);
  e.set();
  e.set();
  EXPECT_TRUE(e.is_set());
  EXPECT_EQ(e.wait(0), WaitResult::Signalled);
  EXPECT_EQ(e.wait(0), WaitResult::Timeout);
  e.set();
  e.reset();
  auto t = std::chrono::steady_clock::now();
  EXPECT_EQ(e.wait(60), WaitResult::Timeout);
  EXPECT_GE(ms_since(t), 55.0);
  ipc::unlink_object("Ev");
}

TEST(IpcEvent, PingPongBetweenProcessesWithAndWithoutSpinning) {
  for (int spin : {0, 50}) {
    fresh_namespace();
    ipc::set_spin_limit_us(spin);
    ipc::Event ping, pong;
    ASSERT_TRUE(ping.create_or_open("Ping"));
    ASSERT_TRUE(pong.create_or_open("Pong"));
    pid_t child = spawn([] {
      ipc::Event a, b;
      if (!a.create_or_open("Ping") || !b.create_or_open("Pong")) return 1;
      for (int i = 0; i < 2000; ++i) {
        if (a.wait(5000) != WaitResult::Signalled) return 2;
        b.set();
      }
      return 0;
    });
    int passed = 0;
    for (int i = 0; i < 2000; ++i) {
      ping.set();
      if (pong.wait(5000) == WaitResult::Signalled) ++passed;
    }
    EXPECT_EQ(passed, 2000) << "spin " << spin;
    EXPECT_EQ(join(child), 0);
    ipc::unlink_object("Ping");
    ipc::unlink_object("Pong");
  }
  ipc::set_spin_limit_us(50);
}

TEST(IpcEvent, WaitEndsWhenTheWatchedProcessEnds) {
  fresh_namespace();
  ipc::Event e;
  ASSERT_TRUE(e.create_or_open("Ev"));
  pid_t child = spawn([] {
    usleep(100000);
    return 0;
  });
  ipc::Process p;
  ASSERT_TRUE(p.open(child));
  auto t = std::chrono::steady_clock::now();
  EXPECT_EQ(e.wait(-1, &p), WaitResult::ProcessEnded);
  EXPECT_LT(ms_since(t), 2000.0);
  join(child);
  // A set event wins over an ended process: the data is there.
  e.set();
  EXPECT_EQ(e.wait(-1, &p), WaitResult::Signalled);
  ipc::unlink_object("Ev");
}

TEST(IpcEvent, OpenLiveRefusesMissingObjectsAndLeftovers) {
  fresh_namespace();
  ipc::Event e;
  EXPECT_FALSE(e.open_live("Srv"));
  Gate ready;
  pid_t owner = spawn([&] {
    ipc::Event s;
    if (!s.create_owned("Srv")) return 1;
    ready.open_gate();
    // Signal whoever waits until we are killed.
    for (;;) {
      s.set();
      usleep(1000);
    }
  });
  ASSERT_TRUE(ready.pass());
  ipc::Event second;
  EXPECT_FALSE(second.create_owned("Srv"));
  ASSERT_TRUE(e.open_live("Srv"));
  EXPECT_EQ(e.wait(2000), WaitResult::Signalled);
  kill(owner, SIGKILL);
  join(owner);
  ipc::Event late;
  EXPECT_FALSE(late.open_live("Srv"));
  EXPECT_EQ(errno, ENOENT);
  ipc::unlink_object("Srv");
}
