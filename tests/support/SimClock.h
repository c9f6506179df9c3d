// A clock whose time moves only when the test says so. Sleeping threads and timed waits wake
// when simulated time reaches their deadline. Installing it (Install/the scoped guard) makes it
// the library's clock for the whole process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace lumo::test {

class SimClock final : public Clock {
 public:
  // `startTickMs` lets a test start just before the 32-bit tick count wraps.
  explicit SimClock(uint32_t startTickMs = 1000000, uint64_t startWall100ns = 17000000000000000ull);
  ~SimClock() override;

  uint32_t TickCount() override;
  uint64_t PerfCounterUs() override;
  uint64_t WallClock100ns() override;
  void SleepUs(uint64_t us) override;
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, uint64_t timeoutUs,
               const std::function<bool()>& ready) override;

  void AdvanceUs(uint64_t us);
  void AdvanceMs(uint64_t ms) { AdvanceUs(ms * 1000); }
  // Blocks (in real time, at most `limit`) until at least `count` threads are asleep or
  // waiting on this clock; false on time-out. Lets a test advance time only once the thread it
  // drives has really gone to sleep.
  bool WaitForSleepers(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5));
  size_t Sleepers();

 private:
  struct Waiter {
    std::mutex gate;  // serialises a wake-up against the waiter leaving
    bool alive = true;
    std::mutex* userMutex = nullptr;
    std::condition_variable* userCv = nullptr;
  };
  void AddWaiter(const std::shared_ptr<Waiter>& w);
  void RemoveWaiter(const std::shared_ptr<Waiter>& w);

  std::mutex m_mutex;
  std::condition_variable m_cv;  // wakes SleepUs and WaitForSleepers
  uint64_t m_nowUs = 0;
  uint32_t m_startTick;
  uint64_t m_startWall;
  size_t m_sleepers = 0;
  std::vector<std::shared_ptr<Waiter>> m_waiters;
};

// Installs a SimClock for the scope of a test and puts the real clock back afterwards.
class ScopedSimClock {
 public:
  explicit ScopedSimClock(uint32_t startTickMs = 1000000) : clock(startTickMs) { SetClock(&clock); }
  ~ScopedSimClock() { SetClock(nullptr); }
  SimClock clock;
};

}  // namespace lumo::test
