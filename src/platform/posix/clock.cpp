#include "platform/clock.h"

#include <time.h>

#include <chrono>
#include <cstdio>

namespace lumo {
namespace {

uint64_t MonotonicUs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

class PosixClock final : public Clock {
 public:
  uint32_t TickCount() override { return static_cast<uint32_t>(MonotonicUs() / 1000u); }
  uint64_t PerfCounterUs() override { return MonotonicUs(); }
  uint64_t WallClock100ns() override {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 10000000u + static_cast<uint64_t>(ts.tv_nsec) / 100u;
  }
  void SleepUs(uint64_t us) override {
    timespec req{static_cast<time_t>(us / 1000000u), static_cast<long>((us % 1000000u) * 1000u)};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &req, &req) != 0) {
    }
  }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, uint64_t timeoutUs,
               const std::function<bool()>& ready) override {
    return cv.wait_for(lock, std::chrono::microseconds(timeoutUs), ready);
  }
};

}  // namespace

void UtcTime(time_t secs, struct tm& out) { gmtime_r(&secs, &out); }

Clock& RealClock() {
  static PosixClock clock;
  return clock;
}

}  // namespace lumo
