// Work that must happen a while from now (a retry, a late fetch), run in due order on one thread
// that belongs to the object the work serves. Destroying or resetting that object cancels what
// is waiting and waits for what is running, so no task can outlive the state it uses.
//
// Time is the library clock's: a test moves it with SimClock. The thread is started by a
// Schedule that finds none and ends when the queue is empty, so an idle queue holds no thread
// (and no sleeper a simulated clock has to account for).
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "host/WorkerThread.h"

namespace lumo {

class DelayedTasks {
 public:
  // Enough for any real sequence of retries and fetches; a peer that repeats the messages
  // behind them finds the queue full instead of piling up work.
  static constexpr size_t kDefaultMaxPending = 16;

  // `name` appears in the log lines about this queue and its thread.
  explicit DelayedTasks(std::string name, size_t maxPending = kDefaultMaxPending);
  ~DelayedTasks();  // Close()
  DelayedTasks(const DelayedTasks&) = delete;
  DelayedTasks& operator=(const DelayedTasks&) = delete;

  // Runs `task` on the queue's thread `delayMs` from now; tasks due at the same time run in the
  // order they were scheduled. False (and a rate-limited log line) when `maxPending` tasks are
  // already waiting; false after Close, and from a task that was cancelled while it ran.
  bool Schedule(uint32_t delayMs, std::function<void()> task);

  // Drops every waiting task and waits for a running one to finish. From a task itself it
  // only drops (and refuses what that task schedules afterwards). Must not be called with a
  // lock held that a task takes.
  void CancelAll();

  // CancelAll, refuse all further work, and stop and join the thread. The owner calls it (or
  // the destructor does) before it frees anything a task uses; never from a task.
  void Close();

  size_t Pending() const;  // tasks waiting, not counting one that runs

  // For tests and harnesses: waits (in real time, at most `limitMs`) until no task is running,
  // none is due on the library clock, and the thread has begun its wait for the next one. False
  // on time-out.
  bool WaitSettled(uint32_t limitMs = 5000);

 private:
  void Run();
  bool IsSettled() const;  // under m_mutex

  const std::string m_name;
  const size_t m_maxPending;
  mutable std::mutex m_mutex;
  std::condition_variable m_cv;  // the queue changed or closed (to the thread); a task finished
  std::multimap<uint64_t, std::function<void()>> m_queue;  // by due time, library-clock µs
  bool m_started = false;  // a thread runs and has not found the queue empty
  bool m_closed = false;
  bool m_running = false;
  uint64_t m_epoch = 0;         // moved on by every CancelAll
  uint64_t m_runningEpoch = 0;  // the epoch the running task started in
  uint64_t m_startedRuns = 0;
  uint64_t m_finishedRuns = 0;
  uint64_t m_changes = 0;  // moved on by every change to the queue, so a waiting thread looks again
  bool m_parked = false;   // the thread waits for the first task's due time...
  uint64_t m_parkedChanges = 0;  // ...as the queue was at this change
  WorkerThread m_worker;        // last: joined before the queue it reads goes away
};

}  // namespace lumo
