#include "platform/clock.h"

#include <atomic>

namespace lumo {
namespace {
std::atomic<Clock*> g_clock{nullptr};
}  // namespace

Clock& GetClock() {
  Clock* c = g_clock.load(std::memory_order_acquire);
  return c ? *c : RealClock();
}

void SetClock(Clock* clock) { g_clock.store(clock, std::memory_order_release); }

}  // namespace lumo
