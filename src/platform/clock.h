// The one clock of the library. Every tick count, performance counter, wall-clock reading,
// sleep and timed wait goes through GetClock(), so that a test can install a simulated clock
// and move time itself: a 30-second heartbeat or a 3-second retry then runs in milliseconds.
#pragma once

#include <condition_variable>
#include <ctime>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace lumo {

class Clock {
 public:
  virtual ~Clock() = default;

  // Milliseconds since an arbitrary start, wrapping at 2^32 like the Windows tick count.
  virtual uint32_t TickCount() = 0;
  // Monotonic microseconds (the performance counter, already scaled).
  virtual uint64_t PerfCounterUs() = 0;
  // Wall clock in 100-ns units since the Unix epoch.
  virtual uint64_t WallClock100ns() = 0;
  virtual void SleepUs(uint64_t us) = 0;
  // Waits on `cv` (with `lock` held on entry and on return) until `ready()` is true or
  // `timeoutUs` of this clock's time has passed. Returns the last value of ready().
  virtual bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                       uint64_t timeoutUs, const std::function<bool()>& ready) = 0;
};

// The clock in force: the real one unless a test installed another.
Clock& GetClock();
// Installs `clock` for the whole process; nullptr puts the real clock back. The caller keeps
// ownership and must restore the real clock before destroying its own.
void SetClock(Clock* clock);
Clock& RealClock();
// "YYYY-MM-DD hh:mm:ss.mmm" in UTC, for log lines.
std::string FormatWallClock(uint64_t wall100ns);
// Seconds since the Unix epoch as UTC calendar time (the platform's thread-safe gmtime).
void UtcTime(time_t secs, struct tm& out);

inline uint32_t TickCountMs() { return GetClock().TickCount(); }
inline uint64_t PerfCounterUs() { return GetClock().PerfCounterUs(); }
inline uint64_t WallClock100ns() { return GetClock().WallClock100ns(); }
inline void SleepMs(uint32_t ms) { GetClock().SleepUs(static_cast<uint64_t>(ms) * 1000); }
inline void SleepUs(uint64_t us) { GetClock().SleepUs(us); }

// A stopwatch on the performance counter (the host's MgrTimeClock in the original).
class Stopwatch {
 public:
  Stopwatch() : m_startUs(PerfCounterUs()) {}
  void Restart() { m_startUs = PerfCounterUs(); }
  uint64_t ElapsedUs() const { return PerfCounterUs() - m_startUs; }

 private:
  uint64_t m_startUs;
};

}  // namespace lumo
