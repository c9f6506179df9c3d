#include "support/SimClock.h"

#include <algorithm>

namespace lumo::test {

SimClock::SimClock(uint32_t startTickMs, uint64_t startWall100ns)
    : m_startTick(startTickMs), m_startWall(startWall100ns) {}

SimClock::~SimClock() {
  if (&GetClock() == this) SetClock(nullptr);
}

uint32_t SimClock::TickCount() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return static_cast<uint32_t>(m_startTick + m_nowUs / 1000);
}

uint64_t SimClock::PerfCounterUs() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_nowUs;
}

uint64_t SimClock::WallClock100ns() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_startWall + m_nowUs * 10;
}

void SimClock::SleepUs(uint64_t us) {
  std::unique_lock<std::mutex> lock(m_mutex);
  uint64_t deadline = m_nowUs + us;
  ++m_sleepers;
  m_cv.notify_all();
  m_cv.wait(lock, [&] { return m_nowUs >= deadline; });
  --m_sleepers;
}

void SimClock::AddWaiter(const std::shared_ptr<Waiter>& w) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_waiters.push_back(w);
  ++m_sleepers;
  m_cv.notify_all();
}

void SimClock::RemoveWaiter(const std::shared_ptr<Waiter>& w) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_waiters.erase(std::remove(m_waiters.begin(), m_waiters.end(), w), m_waiters.end());
  --m_sleepers;
}

bool SimClock::WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, uint64_t timeoutUs,
                       const std::function<bool()>& ready) {
  if (ready()) return true;
  uint64_t deadline = PerfCounterUs() + timeoutUs;
  auto w = std::make_shared<Waiter>();
  w->userMutex = lock.mutex();
  w->userCv = &cv;
  // Lock order: the caller's mutex, then ours. AdvanceUs never holds ours while it takes the
  // caller's, and it takes the caller's before notifying, so a wake-up cannot fall between
  // our deadline check and cv.wait.
  AddWaiter(w);
  bool result;
  for (;;) {
    if (ready()) {
      result = true;
      break;
    }
    if (PerfCounterUs() >= deadline) {
      result = false;
      break;
    }
    cv.wait(lock);
  }
  lock.unlock();
  {
    std::lock_guard<std::mutex> gate(w->gate);
    w->alive = false;
  }
  RemoveWaiter(w);
  lock.lock();
  // The signal may have come while the lock was released; report what holds now.
  return result || ready();
}

void SimClock::AdvanceUs(uint64_t us) {
  std::vector<std::shared_ptr<Waiter>> waiters;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_nowUs += us;
    waiters = m_waiters;
    m_cv.notify_all();
  }
  for (auto& w : waiters) {
    std::lock_guard<std::mutex> gate(w->gate);
    if (!w->alive) continue;
    { std::lock_guard<std::mutex> user(*w->userMutex); }
    w->userCv->notify_all();
  }
}

bool SimClock::WaitForSleepers(size_t count, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_cv.wait_for(lock, limit, [&] { return m_sleepers >= count; });
}

size_t SimClock::Sleepers() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_sleepers;
}

}  // namespace lumo::test
