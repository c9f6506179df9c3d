// A thread that can be joined with a time-out. When the time-out passes the thread is given up:
// terminated on Windows, detached on POSIX (where nothing can stop a thread from outside).
// Join time-outs are measured in real time, not on the library clock: they guard against a
// stuck thread, and a test that freezes the clock must still be able to finish.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace lumo {

class Thread {
 public:
  Thread();
  ~Thread();  // waits for a thread that is still running; owners stop theirs first
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts `body` on a new thread. False (with LastSystemError set) when the system refuses,
  // or when this object still holds a thread.
  bool Start(std::function<void()> body);
  // True when the thread ended within `timeoutMs`; false when it had to be given up.
  // Without a thread it returns true at once.
  bool Join(uint32_t timeoutMs);
  // True when the thread has ended within `timeoutMs` (real time); unlike Join it never gives
  // the thread up, and the thread stays joinable.
  bool WaitFinished(uint32_t timeoutMs) const;
  static constexpr uint32_t kInfinite = 0xFFFFFFFFu;
  bool HasThread() const;
  bool IsFinished() const;
  uint32_t Id() const;  // numeric id for log lines; 0 without a thread

  static uint32_t CurrentId();
  // Names the calling thread for debuggers and process listings (the first 15 bytes on Linux;
  // nothing on Windows).
  static void SetCurrentName(const std::string& name);

 private:
  struct Shared;
  struct Native;
  std::shared_ptr<Shared> m_shared;
  std::unique_ptr<Native> m_native;
  uint32_t m_id = 0;
};

}  // namespace lumo
