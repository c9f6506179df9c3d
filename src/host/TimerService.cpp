#include "host/TimerService.h"

#include <vector>

#include "platform/clock.h"

namespace lumo {

ThreadTimer::~ThreadTimer() {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_stop = true;
    ++m_generation;
    m_cv.notify_all();
  }
  m_thread.Join(Thread::kInfinite);
}

bool ThreadTimer::SetTimer(int id, uint32_t periodMs) {
  if (periodMs == 0) return false;
  std::lock_guard<std::mutex> guard(m_mutex);
  m_entries[id] = Entry{periodMs, PerfCounterUs() + static_cast<uint64_t>(periodMs) * 1000};
  ++m_generation;
  m_cv.notify_all();
  if (!m_thread.HasThread()) return m_thread.Start([this] { Run(); });
  return true;
}

void ThreadTimer::KillTimer(int id) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (m_entries.erase(id) != 0) {
    ++m_generation;
    m_cv.notify_all();
  }
}

void ThreadTimer::Run() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stop) {
    uint64_t now = PerfCounterUs();
    std::vector<int> due;
    uint64_t nextUs = UINT64_MAX;
    for (auto& [id, e] : m_entries) {
      if (e.dueUs <= now) {
        due.push_back(id);
        // Ticks that were missed while the callback ran are not replayed in a burst.
        while (e.dueUs <= now) e.dueUs += static_cast<uint64_t>(e.periodMs) * 1000;
      }
      if (e.dueUs < nextUs) nextUs = e.dueUs;
    }
    if (!due.empty()) {
      for (int id : due) {
        if (m_stop) break;
        if (m_entries.count(id) == 0) continue;  // killed by an earlier callback of this round
        lock.unlock();
        m_callback->OnTimer(id);
        lock.lock();
      }
      continue;
    }
    uint64_t generation = m_generation;
    uint64_t waitUs = nextUs == UINT64_MAX ? 3600ull * 1000000 : nextUs - now;
    GetClock().WaitFor(lock, m_cv, waitUs, [&] { return m_stop || m_generation != generation; });
  }
}

}  // namespace lumo
