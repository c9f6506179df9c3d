#include "host/DelayedTasks.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "host/HostServices.h"
#include "host/Log.h"
#include "platform/clock.h"

namespace lumo {
namespace {

// One wait on the clock is never longer than this, so that no deadline computation can overflow
// on any clock; a thread whose next task is further away simply looks again.
constexpr uint64_t kLongestWaitUs = 3600ull * 1000 * 1000;
// How long CancelAll waits for a running task before it says so (it goes on waiting).
constexpr uint32_t kCancelLogAfterMs = 1000;

}  // namespace

DelayedTasks::DelayedTasks(std::string name, size_t maxPending)
    : m_name(name), m_maxPending(maxPending), m_worker(std::move(name)) {}

DelayedTasks::~DelayedTasks() { Close(); }

bool DelayedTasks::Schedule(uint32_t delayMs, std::function<void()> task) {
  const uint64_t due = PerfCounterUs() + static_cast<uint64_t>(delayMs) * 1000;
  size_t waiting = 0;
  bool wake = false;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_closed) return false;
    // A task cancelled while it ran must not bring its successor back.
    if (m_running && m_runningEpoch != m_epoch && m_worker.IsCurrentThread()) return false;
    waiting = m_queue.size();
    if (waiting < m_maxPending) {
      if (!m_started) {
        // A thread that found the queue empty has said so under the lock and is only
        // returning: it is collected before the next one starts.
        m_worker.Stop();
        if (!m_worker.Start([this] { Run(); })) return false;  // WorkerThread has logged why
        m_started = true;
      }
      // After any equal due time: scheduling order.
      auto it = m_queue.emplace(due, std::move(task));
      // The thread needs a wake only when this task is now the first one due; otherwise it
      // already waits for an earlier one and will find this one after it (and its wait, and
      // so WaitSettled, still holds).
      wake = it == m_queue.begin();
      if (wake) ++m_changes;
    }
  }
  if (waiting >= m_maxPending) {
    if (!Host().IsPrintTooFast(10000, "DelayedTasks full " + m_name)) {
      Log(LOG_BAD_DATA, "[delayed] %s: %u tasks waiting, one more refused", m_name.c_str(),
          static_cast<unsigned>(waiting));
    }
    return false;
  }
  if (wake) m_cv.notify_all();  // the thread, idle or waiting for a task due later than this one
  return true;
}

void DelayedTasks::CancelAll() {
  std::multimap<uint64_t, std::function<void()>> dropped;
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    dropped.swap(m_queue);
    ++m_epoch;
    ++m_changes;
    // A thread parked for a dropped task goes idle now rather than at its due time.
    if (m_parked && !dropped.empty()) m_cv.notify_all();
    if (m_running && !m_worker.IsCurrentThread()) {
      // Waits for the task that runs now, not for a state in which none runs: one scheduled
      // meanwhile by someone else may start at once.
      const uint64_t target = m_startedRuns;
      auto done = [this, target] { return m_finishedRuns >= target; };
      if (!m_cv.wait_for(lock, std::chrono::milliseconds(kCancelLogAfterMs), done)) {
        Log(LOG_ERROR, "[delayed] %s: a task still runs %u ms after cancel; waiting for it", m_name.c_str(),
            kCancelLogAfterMs);
        m_cv.wait(lock, done);
      }
    }
  }
  // `dropped` goes here, outside the lock: what the tasks captured may take locks of its own.
}

void DelayedTasks::Close() {
  CancelAll();
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_closed = true;
  }
  m_cv.notify_all();
  m_worker.Stop();  // the thread sees m_closed; Stop joins it
}

size_t DelayedTasks::Pending() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_queue.size();
}

// Settled: nothing runs, nothing is due, and the thread is parked in its wait for the next task
// (so a test that counts a simulated clock's sleepers counts it).
bool DelayedTasks::IsSettled() const {
  if (m_running) return false;
  if (m_queue.empty()) return true;
  return m_queue.begin()->first > PerfCounterUs() && m_parked && m_parkedChanges == m_changes;
}

bool DelayedTasks::WaitSettled(uint32_t limitMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  // The thread notifies when a task ends and when it parks; nothing else changes the answer.
  return m_cv.wait_for(lock, std::chrono::milliseconds(limitMs), [this] { return IsSettled(); });
}

void DelayedTasks::Run() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_closed) {
    if (m_queue.empty()) {
      // Nothing to wait for: the thread ends, so that a library between sessions keeps no idle
      // thread, and the next Schedule starts another.
      m_started = false;
      return;
    }
    const uint64_t now = PerfCounterUs();
    auto first = m_queue.begin();
    if (first->first > now) {
      // The wait ends when the queue changes, or when the clock says the task is due: asking
      // the clock itself (not only counting down the time left) matters on a simulated clock,
      // which may have moved on between reading it above and the wait's start.
      const uint64_t due = first->first;
      const uint64_t changes = m_changes;
      m_parked = true;
      m_parkedChanges = changes;
      m_cv.notify_all();  // WaitSettled; the lock is held until the wait below has begun
      GetClock().WaitFor(lock, m_cv, std::min(due - now, kLongestWaitUs),
                         [&] { return m_closed || m_changes != changes || PerfCounterUs() >= due; });
      m_parked = false;
      continue;
    }
    std::function<void()> task = std::move(first->second);
    m_queue.erase(first);
    m_running = true;
    m_runningEpoch = m_epoch;
    ++m_startedRuns;
    lock.unlock();
    try {
      task();
    } catch (const std::exception& e) {
      // Nothing may leave this thread as an exception: it would end the process.
      Log(LOG_ERROR, "[delayed] %s: a task failed: %s", m_name.c_str(), e.what());
    } catch (...) {
      Log(LOG_ERROR, "[delayed] %s: a task failed", m_name.c_str());
    }
    task = nullptr;  // its captures go before anyone is told that it has finished
    lock.lock();
    m_running = false;
    ++m_finishedRuns;
    m_cv.notify_all();
  }
}

}  // namespace lumo
