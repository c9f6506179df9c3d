// The default periodic timer: one thread per timer object, started by the first SetTimer and
// ended once no timer is left, sleeping on the library clock until the next tick is due.
// Callbacks run on that thread with no lock held, so a callback may set or kill timers (its own
// included).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "host/HostServices.h"
#include "host/WorkerThread.h"

namespace lumo {

class ThreadTimer final : public TMR::ITimer {
 public:
  explicit ThreadTimer(TMR::ITimerCB* callback) : m_callback(callback), m_thread("timer") {}
  ~ThreadTimer() override;
  bool SetTimer(int id, uint32_t periodMs) override;
  void KillTimer(int id) override;

 private:
  struct Entry {
    uint32_t periodMs;
    uint64_t dueUs;
  };
  void Run();

  TMR::ITimerCB* m_callback;
  std::mutex m_mutex;
  std::map<int, Entry> m_entries;
  bool m_threadActive = false;  // under m_mutex: a thread runs and has not found the map empty
  WorkerThread m_thread;  // woken on every change so it re-plans its wait
};

}  // namespace lumo
