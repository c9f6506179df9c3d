#include "host/TimerService.h"

#include <vector>

#include "platform/clock.h"

namespace lumo {

ThreadTimer::~ThreadTimer() { m_thread.Stop(); }

bool ThreadTimer::SetTimer(int id, uint32_t periodMs) {
  if (periodMs == 0) return false;
  bool running = true;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_entries[id] = Entry{periodMs, PerfCounterUs() + static_cast<uint64_t>(periodMs) * 1000};
    // Started by the first timer, under the lock so that two first timers start one thread. A
    // thread that found no timer left has said so under the lock and is only returning: it is
    // collected first.
    if (!m_threadActive) {
      m_thread.Stop();
      running = m_threadActive = m_thread.Start([this] { Run(); });
    }
  }
  m_thread.Wake();
  return running;
}

void ThreadTimer::KillTimer(int id) {
  bool changed;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    changed = m_entries.erase(id) != 0;
  }
  if (changed) m_thread.Wake();
}

void ThreadTimer::Run() {
  while (!m_thread.StopRequested()) {
    uint64_t now = PerfCounterUs();
    std::vector<int> due;
    uint64_t nextUs = UINT64_MAX;
    {
      std::lock_guard<std::mutex> guard(m_mutex);
      // No timer left: the thread ends (a library between sessions keeps no idle thread), and
      // the next SetTimer starts another.
      if (m_entries.empty()) {
        m_threadActive = false;
        return;
      }
      for (auto& [id, e] : m_entries) {
        if (e.dueUs <= now) {
          due.push_back(id);
          // Ticks that were missed while the callback ran are not replayed in a burst.
          while (e.dueUs <= now) e.dueUs += static_cast<uint64_t>(e.periodMs) * 1000;
        }
        if (e.dueUs < nextUs) nextUs = e.dueUs;
      }
    }
    if (!due.empty()) {
      for (int id : due) {
        if (m_thread.StopRequested()) break;
        {
          std::lock_guard<std::mutex> guard(m_mutex);
          if (m_entries.count(id) == 0) continue;  // killed by an earlier callback of this round
        }
        m_callback->OnTimer(id);
      }
      continue;
    }
    m_thread.WaitUs(nextUs == UINT64_MAX ? 3600ull * 1000000 : nextUs - now);
  }
}

}  // namespace lumo
