#include <windows.h>

#include <cstdio>
#include <ctime>

#include "platform/clock.h"

namespace lumo {
namespace {

// 100-ns intervals between 1601-01-01 (FILETIME) and 1970-01-01.
constexpr uint64_t kUnixEpochIn100ns = 116444736000000000ull;

class Win32Clock final : public Clock {
 public:
  Win32Clock() {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    m_frequency = static_cast<uint64_t>(f.QuadPart);
  }
  uint32_t TickCount() override { return GetTickCount(); }
  uint64_t PerfCounterUs() override {
    LARGE_INTEGER c;
    QueryPerformanceCounter(&c);
    uint64_t counts = static_cast<uint64_t>(c.QuadPart);
    // Split so that the multiplication cannot overflow for any realistic uptime.
    return (counts / m_frequency) * 1000000u + (counts % m_frequency) * 1000000u / m_frequency;
  }
  uint64_t WallClock100ns() override {
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    uint64_t t = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
    return t - kUnixEpochIn100ns;
  }
  void SleepUs(uint64_t us) override {
    // Sleep has millisecond resolution; round up so that a sleep is never shorter than asked.
    uint64_t ms = (us + 999) / 1000;
    while (ms > 0) {
      DWORD step = ms > 0x7FFFFFFFull ? 0x7FFFFFFF : static_cast<DWORD>(ms);
      Sleep(step);
      ms -= step;
    }
  }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, uint64_t timeoutUs,
               const std::function<bool()>& ready) override {
    return cv.wait_for(lock, std::chrono::microseconds(timeoutUs), ready);
  }

 private:
  uint64_t m_frequency = 1;
};

}  // namespace

void UtcTime(time_t secs, struct tm& out) { gmtime_s(&out, &secs); }

Clock& RealClock() {
  static Win32Clock clock;
  return clock;
}

}  // namespace lumo
