#include "host/WorkerThread.h"

#include <chrono>
#include <utility>

#include "host/Log.h"
#include "platform/clock.h"
#include "platform/errors.h"

namespace lumo {

WorkerThread::WorkerThread(std::string name) : m_name(std::move(name)) {}

WorkerThread::~WorkerThread() { Stop(); }

bool WorkerThread::Start(std::function<void()> body) {
  if (m_thread.HasThread()) {
    if (!m_thread.IsFinished()) return false;
    m_thread.Join(Thread::kInfinite);
  }
  m_stop.store(false, std::memory_order_release);
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_wakePending = false;
  }
  if (!m_thread.Start([this, body = std::move(body)] {
        m_tid.store(Thread::CurrentId(), std::memory_order_release);
        Thread::SetCurrentName(m_name);
        body();
        m_tid.store(0, std::memory_order_release);
      })) {
    Log(LOG_ERROR, "[thread] %s: start failed, error %d", m_name.c_str(), LastSystemError());
    return false;
  }
  return true;
}

void WorkerThread::RequestStop() {
  {
    // The flag is set under the wait's mutex so a thread between its check and its wait
    // cannot miss it.
    std::lock_guard<std::mutex> guard(m_mutex);
    m_stop.store(true, std::memory_order_release);
  }
  m_cv.notify_all();
}

void WorkerThread::Stop(uint32_t logAfterMs) {
  RequestStop();
  if (!m_thread.HasThread() || IsCurrentThread()) return;
  if (!m_thread.WaitFinished(logAfterMs)) {
    Log(LOG_ERROR, "[thread] %s (tid %u) still running %u ms after stop; waiting for it", m_name.c_str(), Id(),
        logAfterMs);
    const auto start = std::chrono::steady_clock::now();
    m_thread.WaitFinished(Thread::kInfinite);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    Log(LOG_ERROR, "[thread] %s stopped %u ms later", m_name.c_str(), static_cast<unsigned>(ms.count()));
  }
  m_thread.Join(Thread::kInfinite);
}

bool WorkerThread::WaitUs(uint64_t timeoutUs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_wakePending && !StopRequested())
    GetClock().WaitFor(lock, m_cv, timeoutUs, [this] { return m_wakePending || StopRequested(); });
  m_wakePending = false;
  return !StopRequested();
}

bool WorkerThread::SleepUs(uint64_t us) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!StopRequested()) GetClock().WaitFor(lock, m_cv, us, [this] { return StopRequested(); });
  return !StopRequested();
}

void WorkerThread::Wake() {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_wakePending = true;
  }
  m_cv.notify_all();
}

bool WorkerThread::IsRunning() const { return m_thread.HasThread() && !m_thread.IsFinished(); }

bool WorkerThread::IsCurrentThread() const { return m_tid.load(std::memory_order_acquire) == Thread::CurrentId(); }

}  // namespace lumo
