// Auto-reset events between processes and their time-outs.
#include "db/ipc/event.h"

#include "tests/ipc/ipc_testutil.h"

#include <chrono>
#include <thread>

using namespace ipctest;
using ipc::WaitResult;

static double ms_since(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
}

// Every test in a namespace of its own, with the event "Ev" open in it.
class IpcEvent : public ::testing::Test {
protected:
  void SetUp() override {
    fresh_namespace();
    ASSERT_TRUE(e.create_or_open("Ev"));
  }
  ipc::Event e;
};

TEST_F(IpcEvent, OneWaiterPassesPerSetAndSetsDoNotAccumulate) {
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
}

// A nudge ends a wait early as a time-out and is taken by it, leaving the
// event clear; a set after a nudge is not lost.
TEST_F(IpcEvent, NudgeEndsAWaitWithoutSettingTheEvent) {
  std::thread nudger([&] {
    usleep(50000); // the waiter is asleep by then
    e.nudge();
  });
  auto t = std::chrono::steady_clock::now();
  EXPECT_EQ(e.wait(10000), WaitResult::Timeout);
  EXPECT_LT(ms_since(t), 5000.0);
  nudger.join();
  EXPECT_FALSE(e.is_set());
  EXPECT_EQ(e.wait(0), WaitResult::Timeout);
  e.nudge();
  e.set();
  EXPECT_EQ(e.wait(0), WaitResult::Signalled);
}

TEST_F(IpcEvent, PingPongBetweenProcessesWithAndWithoutSpinning) {
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
  }
  ipc::set_spin_limit_us(150);
}

// Many processes wait for one event, each for its own value of a shared
// word (as parked clients wait for their channel in the owner word). Each
// hand-over reaches the waiter the word names, in any order, also when two
// waiters share a futex bit (1 and 33); the taker sets the word free. An
// event set for nobody the word names stays set.
TEST_F(IpcEvent, AddressedWaitTakesOnlyTheEventMeantForIt) {
  ipc::Section word;
  ASSERT_TRUE(word.create_or_open("Word", 4));
  auto *w = static_cast<uint32_t *>(word.data());
  __atomic_store_n(w, UINT32_MAX, __ATOMIC_SEQ_CST);
  const std::vector<uint32_t> ids = {1, 2, 33, 7};
  std::vector<pid_t> kids;
  for (uint32_t id : ids)
    kids.push_back(spawn([id] {
      ipc::Event ev;
      ipc::Section sec;
      if (!ev.create_or_open("Ev") || !sec.create_or_open("Word", 4)) return 1;
      auto *word = static_cast<uint32_t *>(sec.data());
      if (ev.wait_for(10000, nullptr, word, id) != WaitResult::Signalled) return 2;
      if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != id) return 3;
      __atomic_store_n(word, UINT32_MAX, __ATOMIC_SEQ_CST);
      return 0;
    }));
  usleep(50000); // all of them asleep on the event
  __atomic_store_n(w, 99u, __ATOMIC_SEQ_CST);
  e.set_for(99);
  usleep(30000);
  EXPECT_TRUE(e.is_set()) << "meant for nobody waiting: nobody takes it";
  e.reset();
  for (uint32_t id : {7u, 33u, 1u, 2u}) {
    __atomic_store_n(w, id, __ATOMIC_SEQ_CST);
    e.set_for(id);
    auto t = std::chrono::steady_clock::now();
    while (__atomic_load_n(w, __ATOMIC_SEQ_CST) != UINT32_MAX && ms_since(t) < 5000) usleep(100);
    EXPECT_EQ(__atomic_load_n(w, __ATOMIC_SEQ_CST), UINT32_MAX) << "waiter " << id;
    EXPECT_FALSE(e.is_set());
  }
  for (size_t i = 0; i < kids.size(); ++i) EXPECT_EQ(join_within(kids[i], 5000), 0) << ids[i];
}

TEST_F(IpcEvent, OpenLiveRefusesMissingObjectsAndLeftovers) {
  ipc::Event live;
  EXPECT_FALSE(live.open_live("Srv"));
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
  EXPECT_FALSE(second.is_open()); // a refused owner keeps nothing open
  ASSERT_TRUE(live.open_live("Srv"));
  EXPECT_EQ(live.wait(2000), WaitResult::Signalled);
  kill(owner, SIGKILL);
  join(owner);
  ipc::Event late;
  EXPECT_FALSE(late.open_live("Srv"));
  EXPECT_EQ(errno, ENOENT);
}
