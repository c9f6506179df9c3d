// The cancellable timer queue behind the protocol's retries and late fetches, on a simulated
// clock: due order, the bound, cancelling (from outside, while a task runs, from a task),
// teardown while work waits, and tasks that schedule tasks.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/DelayedTasks.h"
#include "support/FakeHost.h"
#include "support/ScopedThread.h"
#include "support/SimClock.h"

namespace {

using Strings = std::vector<std::string>;

class DelayedTasksTest : public ::testing::Test {
 protected:
  lumo::test::ScopedSimClock sim;
  lumo::test::FakeHost host;
  std::mutex lock;
  Strings ran;                                 // under `lock`
  lumo::DelayedTasks tasks{"test tasks", 4};  // declared last: joined before the rest goes

  std::function<void()> Record(const std::string& what) {
    return [this, what] {
      std::lock_guard<std::mutex> guard(lock);
      ran.push_back(what);
    };
  }
  Strings Ran() {
    std::lock_guard<std::mutex> guard(lock);
    return ran;
  }
  // Moves the clock and waits until the queue's thread has run everything now due.
  void Advance(uint64_t ms) {
    sim.clock.AdvanceMs(ms);
    ASSERT_TRUE(tasks.WaitSettled());
  }
};

TEST_F(DelayedTasksTest, RunsInDueOrderAndNotBefore) {
  for (auto [ms, name] : {std::pair<uint32_t, const char*>{300, "a"}, {100, "b"}, {200, "c"}, {100, "d"}})
    ASSERT_TRUE(tasks.Schedule(ms, Record(name)));
  Advance(99);
  EXPECT_TRUE(Ran().empty());
  Advance(1);
  EXPECT_EQ(Ran(), (Strings{"b", "d"}));  // equal due times keep their order
  Advance(1000);
  EXPECT_EQ(Ran(), (Strings{"b", "d", "c", "a"}));
  EXPECT_EQ(tasks.Pending(), 0u);
}

TEST_F(DelayedTasksTest, BoundRefusesWithOneLogLineAndFreesAsTasksRun) {
  ASSERT_TRUE(tasks.Schedule(10, Record("first")));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(tasks.Schedule(1000, Record("later")));
  EXPECT_FALSE(tasks.Schedule(1, Record("refused")));
  EXPECT_FALSE(tasks.Schedule(1, Record("refused")));
  EXPECT_EQ(host.CountLog(3, "[delayed] test tasks: 4 tasks waiting, one more refused"), 1u);  // rate-limited
  Advance(10);
  EXPECT_EQ(tasks.Pending(), 3u);
  EXPECT_TRUE(tasks.Schedule(1, Record("room again")));
  Advance(1000);
  EXPECT_EQ(Ran(), (Strings{"first", "room again", "later", "later", "later"}));
}

TEST_F(DelayedTasksTest, CancelDropsWaitingTasksAndTheQueueStaysUsable) {
  ASSERT_TRUE(tasks.Schedule(100, Record("x")));
  ASSERT_TRUE(tasks.Schedule(200, Record("y")));
  tasks.CancelAll();
  EXPECT_EQ(tasks.Pending(), 0u);
  Advance(1000);
  EXPECT_TRUE(Ran().empty());
  ASSERT_TRUE(tasks.Schedule(100, Record("z")));
  Advance(100);
  EXPECT_EQ(Ran(), Strings{"z"});
}

TEST_F(DelayedTasksTest, DestroyingWhileATaskWaitsRunsNothingAndJoins) {
  auto queue = std::make_unique<lumo::DelayedTasks>("short-lived");
  ASSERT_TRUE(queue->Schedule(1000, Record("never")));
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));  // its thread waits for the due time
  queue.reset();
  EXPECT_EQ(sim.clock.Sleepers(), 0u);  // the thread is gone, not merely told to go
  sim.clock.AdvanceMs(5000);
  EXPECT_TRUE(Ran().empty());

  lumo::DelayedTasks closed{"closed"};
  closed.Close();
  EXPECT_FALSE(closed.Schedule(1, Record("after close")));
}

TEST_F(DelayedTasksTest, TaskSchedulesAnotherWithoutHoldingTheQueue) {
  bool accepted = false;
  ASSERT_TRUE(tasks.Schedule(100, [&] {
    Record("first")();
    accepted = tasks.Schedule(50, Record("second"));  // would deadlock if the queue were held
  }));
  Advance(100);
  EXPECT_TRUE(accepted);
  Advance(49);
  EXPECT_EQ(Ran(), Strings{"first"});
  Advance(1);
  EXPECT_EQ(Ran(), (Strings{"first", "second"}));
}

TEST_F(DelayedTasksTest, CancelWaitsForTheRunningTaskAndRefusesItsSuccessor) {
  std::promise<void> started, release, cancelled;
  std::future<void> releaseSignal = release.get_future();
  bool rescheduled = true;
  ASSERT_TRUE(tasks.Schedule(100, [&] {
    started.set_value();
    // Bounded, so that a failed check below cannot leave the queue's teardown waiting for ever.
    releaseSignal.wait_for(std::chrono::seconds(5));
    rescheduled = tasks.Schedule(10, Record("successor"));
  }));
  bool released = false;
  auto letGo = [&] {
    if (!released) release.set_value();
    released = true;
  };

  sim.clock.AdvanceMs(100);
  ASSERT_EQ(started.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  lumo::test::ScopedThread canceller(
      [&] {
        tasks.CancelAll();
        cancelled.set_value();
      },
      letGo);
  std::future<void> cancelReturned = cancelled.get_future();
  // A negative check: CancelAll must still be waiting while the task runs.
  EXPECT_EQ(cancelReturned.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  letGo();
  canceller.join();
  EXPECT_EQ(cancelReturned.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  EXPECT_FALSE(rescheduled);  // written before CancelAll returned
  Advance(1000);
  EXPECT_TRUE(Ran().empty());
}

TEST_F(DelayedTasksTest, CancelFromATaskDropsTheRestAndItsOwnSuccessor) {
  bool rescheduled = true;
  ASSERT_TRUE(tasks.Schedule(100, [&] {
    tasks.CancelAll();  // must not wait for itself
    rescheduled = tasks.Schedule(10, Record("successor"));
    Record("canceller")();
  }));
  ASSERT_TRUE(tasks.Schedule(200, Record("dropped")));
  Advance(100);
  Advance(1000);
  EXPECT_EQ(Ran(), Strings{"canceller"});
  EXPECT_FALSE(rescheduled);
}

TEST_F(DelayedTasksTest, ThrowingTaskIsLoggedAndTheThreadGoesOn) {
  ASSERT_TRUE(tasks.Schedule(10, [] { throw std::runtime_error("boom"); }));
  ASSERT_TRUE(tasks.Schedule(20, Record("after")));
  Advance(20);
  EXPECT_EQ(Ran(), Strings{"after"});
  EXPECT_TRUE(host.HasLog(4, "[delayed] test tasks: a task failed: boom"));
}

}  // namespace
