// The platform layer and the simulated clock that every timing test relies on.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/host_window.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "support/ScopedThread.h"
#include "support/SimClock.h"

namespace {

TEST(Text, Utf8AndWideRoundTrip) {
  std::string text = "iPhone \xe7\x9b\xb8\xe6\x9c\xba \xf0\x9f\x93\xb7";  // CJK and an emoji
  std::wstring wide = lumo::Utf8ToWide(text);
  EXPECT_EQ(wide[7], static_cast<wchar_t>(0x76F8));
  EXPECT_EQ(wide[8], static_cast<wchar_t>(0x673A));
  if (sizeof(wchar_t) == 2) {  // UTF-16: the emoji is a surrogate pair
    ASSERT_EQ(wide.size(), 12u);
    EXPECT_EQ(wide[10], static_cast<wchar_t>(0xD83D));
    EXPECT_EQ(wide[11], static_cast<wchar_t>(0xDCF7));
  } else {
    ASSERT_EQ(wide.size(), 11u);
    EXPECT_EQ(wide[10], static_cast<wchar_t>(0x1F4F7));
  }
  EXPECT_EQ(lumo::WideToUtf8(wide), text);
}

TEST(Text, MalformedUtf8BecomesReplacementWithoutOverrun) {
  // A lead byte at the very end, a stray continuation byte, an overlong form and a surrogate.
  std::string bad = std::string("a\xe7\x9b", 3);
  EXPECT_EQ(lumo::Utf8ToWide(bad), std::wstring(L"a\xFFFD\xFFFD"));
  EXPECT_EQ(lumo::Utf8ToWide("\x80z"), std::wstring(L"\xFFFDz"));
  EXPECT_EQ(lumo::Utf8ToWide("\xc0\xaf"), std::wstring(L"\xFFFD\xFFFD"));
  EXPECT_EQ(lumo::Utf8ToWide("\xed\xa0\x80").front(), L'\xFFFD');
  // A lone surrogate has no UTF-8 form.
  EXPECT_EQ(lumo::WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xDC00))) + "|", "\xef\xbf\xbd|");
}

TEST(ThreadTest, JoinWaitsForTheEndAndGivesUpOnAStuckThread) {
  lumo::Thread quick;
  std::atomic<bool> ran{false};
  ASSERT_TRUE(quick.Start([&] { ran = true; }));
  EXPECT_NE(quick.Id(), 0u);
  EXPECT_TRUE(quick.Join(lumo::Thread::kInfinite));
  EXPECT_TRUE(ran);
  EXPECT_FALSE(quick.HasThread());

  // A thread that does not end within the time-out is given up: detached on POSIX, terminated
  // on Windows. It spins on an atomic so that ending it from outside cannot leave a lock held.
  auto release = std::make_shared<std::atomic<bool>>(false);
  lumo::Thread stuck;
  ASSERT_TRUE(stuck.Start([release] {
    while (!*release) std::this_thread::yield();
  }));
  EXPECT_FALSE(stuck.Join(20));
  EXPECT_FALSE(stuck.HasThread());
  *release = true;
  // A thread object can be used again once its thread was joined or given up.
  ASSERT_TRUE(stuck.Start([] {}));
  EXPECT_TRUE(stuck.Join(lumo::Thread::kInfinite));
}

TEST(SimClockTest, SleepersWakeOnlyWhenSimulatedTimeReachesTheirDeadline) {
  lumo::test::ScopedSimClock sim;
  std::atomic<int> woke{0};
  lumo::test::ScopedThread sleeper(
      [&] {
        lumo::SleepMs(3000);
        woke = 1;
      },
      [&] { sim.clock.AdvanceMs(3000); });
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));
  sim.clock.AdvanceMs(2999);
  EXPECT_EQ(sim.clock.Sleepers(), 1u);
  EXPECT_EQ(woke, 0);
  sim.clock.AdvanceMs(1);
  sleeper.join();
  EXPECT_EQ(woke, 1);
}

TEST(SimClockTest, TickCountWrapsAt32Bits) {
  lumo::test::SimClock clock(0xFFFFFFF0u);
  clock.AdvanceMs(0x20);
  EXPECT_EQ(clock.TickCount(), 0x10u);
  EXPECT_EQ(clock.PerfCounterUs(), 0x20u * 1000);
}

TEST(EventTest, TimedWaitRunsOnTheLibraryClockAndSignalsAreConsumed) {
  lumo::test::ScopedSimClock sim;
  lumo::AutoResetEvent event;
  event.Set();
  EXPECT_TRUE(event.Wait(10));
  EXPECT_FALSE(event.IsSet());

  std::atomic<int> result{-1};
  lumo::test::ScopedThread waiter([&] { result = event.Wait(10) ? 1 : 0; }, [&] { sim.clock.AdvanceMs(10); });
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));
  sim.clock.AdvanceMs(9);
  EXPECT_EQ(result, -1);
  sim.clock.AdvanceMs(1);
  waiter.join();
  EXPECT_EQ(result, 0);

  lumo::test::ScopedThread signalled([&] { result = event.Wait(1000000) ? 1 : 0; }, [&] { event.Set(); });
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));
  event.Set();
  signalled.join();
  EXPECT_EQ(result, 1);
}

TEST(HostWindow, WithoutASinkNothingIsAcceptedOffWindows) {
  lumo::SetHostMessageSink(nullptr);
  EXPECT_FALSE(lumo::PostHostMessage(reinterpret_cast<HWND>(1), 7025, 1004, 0));
  int seen = 0;
  lumo::SetHostMessageSink([&](HWND, uint32_t msg, uintptr_t, intptr_t) {
    seen = static_cast<int>(msg);
    return true;
  });
  EXPECT_TRUE(lumo::PostHostMessage(reinterpret_cast<HWND>(1), 42, 0, 0));
  EXPECT_EQ(seen, 42);
  lumo::SetHostMessageSink(nullptr);
}

}  // namespace
