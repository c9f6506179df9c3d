// A test's helper thread that is joined on every way out of the test, a failed ASSERT included,
// so a failure is reported instead of std::terminate aborting the whole binary. When the thread
// is still running at that point, `unblock` runs first (advance a SimClock, shut a socket down)
// so that the join cannot hang.
#pragma once

#include <functional>
#include <thread>
#include <utility>

namespace lumo::test {

class ScopedThread {
 public:
  template <class Body>
  explicit ScopedThread(Body&& body, std::function<void()> unblock = {})
      : m_unblock(std::move(unblock)), m_thread(std::forward<Body>(body)) {}
  ~ScopedThread() {
    if (!m_thread.joinable()) return;
    if (m_unblock) m_unblock();
    m_thread.join();
  }
  ScopedThread(const ScopedThread&) = delete;
  ScopedThread& operator=(const ScopedThread&) = delete;

  void join() { m_thread.join(); }

 private:
  std::function<void()> m_unblock;
  std::thread m_thread;
};

}  // namespace lumo::test
