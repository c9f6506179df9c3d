// The one way the library runs a long-lived thread of its own: a stop flag, a wake that cuts any
// wait short, and a join whose bound is logged. A thread is never given up (detached or
// terminated): one that outlived its owner would go on using what the owner frees, and one
// killed inside the dispatcher would leave its locks held. So Stop waits; when the thread is
// slower than the bound, a line says so, and a second line says when it finally ended.
//
// Waits run on the library clock (a test moves them with SimClock); the join bound is real time,
// because it guards against a stuck thread and a test that freezes its clock must still finish.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "platform/thread.h"

namespace lumo {

class WorkerThread {
 public:
  static constexpr uint32_t kDefaultStopLogMs = 1000;

  // `name` appears in the log lines about this thread.
  explicit WorkerThread(std::string name);
  ~WorkerThread();  // Stop()
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Runs `body` on a new thread with the stop flag and any pending wake cleared. A previous
  // thread that has ended by itself is collected first. False when one is still running or the
  // system refuses (logged).
  bool Start(std::function<void()> body);

  // Sets the stop flag and wakes the thread; returns at once.
  void RequestStop();
  // RequestStop, then waits for the thread to end; logs when that takes longer than `logAfterMs`.
  // Called on the thread itself it only requests: the owner collects the thread later (Start or
  // the next Stop from outside).
  void Stop(uint32_t logAfterMs = kDefaultStopLogMs);

  // For the body: true once a stop was requested.
  bool StopRequested() const { return m_stop.load(std::memory_order_acquire); }
  // For the body: waits up to `timeoutUs` of library-clock time, or until Wake() or a stop
  // request. A wake that came while the body was busy is kept and ends the next wait at once,
  // so a producer's wake is never lost. Returns !StopRequested().
  bool WaitUs(uint64_t timeoutUs);
  bool WaitMs(uint32_t timeoutMs) { return WaitUs(static_cast<uint64_t>(timeoutMs) * 1000); }
  // For the body: sleeps the whole `us` of library-clock time; only a stop ends it early. A wake
  // that comes meanwhile is left pending for the next WaitUs. Returns !StopRequested().
  bool SleepUs(uint64_t us);
  bool SleepMs(uint32_t ms) { return SleepUs(static_cast<uint64_t>(ms) * 1000); }
  // For producers: ends the thread's current or next wait.
  void Wake();

  bool IsRunning() const;  // started and not yet finished
  bool IsCurrentThread() const;
  uint32_t Id() const { return m_thread.Id(); }
  const std::string& Name() const { return m_name; }

 private:
  std::string m_name;
  Thread m_thread;
  // The running thread's id, written by the thread itself before its body runs (the Thread
  // object is filled in by Start only after the new thread may already be asking) and cleared
  // when the body returns, so a later thread that gets the same id is not taken for it.
  std::atomic<uint32_t> m_tid{0};
  std::atomic<bool> m_stop{false};
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_wakePending = false;  // under m_mutex
};

}  // namespace lumo
