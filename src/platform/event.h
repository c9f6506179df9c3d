// An auto-reset event: Set wakes one waiter (or the next one to wait); a successful Wait
// consumes the signal. Timed waits run on the library clock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace lumo {

class AutoResetEvent {
 public:
  void Set();
  void Reset();
  // True when the event was signalled within `timeoutMs` (the signal is consumed).
  bool Wait(uint32_t timeoutMs);
  bool IsSet();

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_signalled = false;
};

}  // namespace lumo
