#include "platform/event.h"

#include "platform/clock.h"

namespace lumo {

void AutoResetEvent::Set() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_signalled = true;
  m_cv.notify_all();
}

void AutoResetEvent::Reset() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_signalled = false;
}

bool AutoResetEvent::IsSet() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_signalled;
}

bool AutoResetEvent::Wait(uint32_t timeoutMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  bool got = GetClock().WaitFor(lock, m_cv, static_cast<uint64_t>(timeoutMs) * 1000,
                                [this] { return m_signalled; });
  if (got) m_signalled = false;
  return got;
}

}  // namespace lumo
