#include "platform/clock.h"

#include <atomic>
#include <cstdio>

namespace lumo {
namespace {
std::atomic<Clock*> g_clock{nullptr};
}  // namespace

Clock& GetClock() {
  Clock* c = g_clock.load(std::memory_order_acquire);
  return c ? *c : RealClock();
}

void SetClock(Clock* clock) { g_clock.store(clock, std::memory_order_release); }

std::string FormatWallClock(uint64_t wall100ns) {
  time_t secs = static_cast<time_t>(wall100ns / 10000000u);
  unsigned ms = static_cast<unsigned>((wall100ns / 10000u) % 1000u);
  struct tm tm {};
  UtcTime(secs, tm);
  char text[40];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%03u", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
  return text;
}

}  // namespace lumo
