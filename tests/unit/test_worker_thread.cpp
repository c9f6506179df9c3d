// WorkerThread: how every long-lived library thread is woken, stopped and joined.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "host/WorkerThread.h"
#include "support/FakeHost.h"
#include "support/ScopedThread.h"
#include "support/SimClock.h"

namespace {

using lumo::WorkerThread;
using lumo::test::ScopedSimClock;

TEST(WorkerThread, StopEndsALongWaitAtOnceAndTheThreadCanStartAgain) {
  ScopedSimClock sim;
  WorkerThread worker("test");
  for (int round = 0; round < 2; ++round) {
    std::atomic<int> waits{0};
    std::atomic<bool> wentOn{true};
    ASSERT_TRUE(worker.Start([&] {
      ++waits;
      wentOn = worker.WaitMs(3600 * 1000);  // an hour of simulated time that never passes
    }));
    EXPECT_FALSE(worker.Start([] {}));  // one loop at a time
    ASSERT_TRUE(sim.clock.WaitForSleepers(1));
    worker.Stop();
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_EQ(waits, 1);
    EXPECT_FALSE(wentOn);
  }
}

TEST(WorkerThread, WaitsLastTheirTimeOnTheLibraryClockAndKeepAWakeThatCameEarlyOrDuringASleep) {
  ScopedSimClock sim;
  WorkerThread worker("test");
  std::promise<void> busy;
  std::shared_future<void> release = busy.get_future().share();
  std::atomic<int> phase{0};
  ASSERT_TRUE(worker.Start([&] {
    release.wait();              // busy while the producer wakes it
    worker.WaitMs(10);           // ends at once: the wake was kept
    phase = 1;
    worker.WaitMs(10);           // a real wait: ten simulated milliseconds
    phase = 2;
    worker.SleepMs(10);          // a wake does not end a sleep...
    phase = 3;
    worker.WaitMs(3600 * 1000);  // ...but stays pending for the next wait
    phase = 4;
  }));
  worker.Wake();
  busy.set_value();
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));
  EXPECT_EQ(phase, 1);
  sim.clock.AdvanceMs(9);
  EXPECT_EQ(phase, 1);
  sim.clock.AdvanceMs(1);
  for (int i = 0; i < 5000 && phase != 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(phase, 2);  // ended by its deadline, before any stop
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));
  worker.Wake();
  EXPECT_NE(phase, 4);
  sim.clock.AdvanceMs(10);
  for (int i = 0; i < 5000 && phase != 4; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(phase, 4);
  worker.Stop();
}

TEST(WorkerThread, AStopFromTheThreadItselfOnlyRequestsAndTheOwnerCollectsIt) {
  WorkerThread worker("test");
  std::atomic<bool> flagSeen{false};
  ASSERT_TRUE(worker.Start([&] {
    worker.Stop();  // must not join itself
    flagSeen = worker.StopRequested();
  }));
  worker.Stop();
  EXPECT_TRUE(flagSeen);
  // A thread that ended on its own is collected by the next Start.
  std::atomic<bool> ran{false};
  ASSERT_TRUE(worker.Start([&] { ran = true; }));
  worker.Stop();
  EXPECT_TRUE(ran);
}

TEST(WorkerThread, ASlowStopIsLoggedWhileItIsWaitedForNeverGivenUp) {
  lumo::test::FakeHost host;
  WorkerThread worker("slowpoke");
  std::promise<void> go;
  std::shared_future<void> release = go.get_future().share();
  std::atomic<bool> finished{false};
  ASSERT_TRUE(worker.Start([&] {
    release.wait();  // ignores the stop request until released
    finished = true;
  }));
  // Released only once the bound has been logged, so Stop must have waited past it.
  lumo::test::ScopedThread releaser(
      [&] {
        host.WaitForLog("[thread] slowpoke (tid ");
        go.set_value();
      },
      [] {});
  worker.Stop(20);
  EXPECT_TRUE(finished);
  EXPECT_EQ(host.CountLogsStartingWith("[thread] slowpoke (tid "), 1u);
  EXPECT_EQ(host.CountLogsStartingWith("[thread] slowpoke stopped "), 1u);
}

}  // namespace
