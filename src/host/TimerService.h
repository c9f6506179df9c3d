// The default periodic timer: one thread per timer object, started by the first SetTimer,
// sleeping on the library clock until the next tick is due. Callbacks run on that thread with
// no lock held, so a callback may set or kill timers (its own included).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include "host/HostServices.h"
#include "platform/thread.h"

namespace lumo {

class ThreadTimer final : public TMR::ITimer {
 public:
  explicit ThreadTimer(TMR::ITimerCB* callback) : m_callback(callback) {}
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
  std::condition_variable m_cv;
  std::map<int, Entry> m_entries;
  uint64_t m_generation = 0;  // bumped on every change so the thread re-plans its wait
  bool m_stop = false;
  Thread m_thread;
};

}  // namespace lumo
