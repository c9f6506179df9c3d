#include "platform/thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/errors.h"

namespace lumo {

struct Thread::Shared {
  std::mutex mutex;
  std::condition_variable cv;
  bool finished = false;
  uint32_t tid = 0;  // the OS thread id, for log lines
  bool started = false;
};

struct Thread::Native {
  std::thread thread;
};

Thread::Thread() = default;

Thread::~Thread() { Join(kInfinite); }

bool Thread::Start(std::function<void()> body) {
  if (m_native) {
    SetLastSystemError(EBUSY);
    return false;
  }
  auto shared = std::make_shared<Shared>();
  auto native = std::make_unique<Native>();
  try {
    native->thread = std::thread([shared, body = std::move(body)]() {
      {
        std::lock_guard<std::mutex> guard(shared->mutex);
        shared->tid = CurrentId();
        shared->started = true;
        shared->cv.notify_all();
      }
      body();
      std::lock_guard<std::mutex> guard(shared->mutex);
      shared->finished = true;
      shared->cv.notify_all();
    });
  } catch (const std::system_error& e) {
    SetLastSystemError(e.code().value());
    return false;
  }
  {
    std::unique_lock<std::mutex> lock(shared->mutex);
    shared->cv.wait(lock, [&shared] { return shared->started; });
    m_id = shared->tid;
  }
  m_shared = std::move(shared);
  m_native = std::move(native);
  return true;
}

bool Thread::Join(uint32_t timeoutMs) {
  if (!m_native) return true;
  bool finished;
  {
    std::unique_lock<std::mutex> lock(m_shared->mutex);
    if (timeoutMs == kInfinite) {
      m_shared->cv.wait(lock, [this] { return m_shared->finished; });
    } else {
      m_shared->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [this] { return m_shared->finished; });
    }
    finished = m_shared->finished;
  }
  if (finished) {
    m_native->thread.join();
  } else {
    // POSIX cannot stop a thread from outside; let it run to its end on its own.
    m_native->thread.detach();
  }
  m_native.reset();
  m_shared.reset();
  m_id = 0;
  return finished;
}

bool Thread::WaitFinished(uint32_t timeoutMs) const {
  if (!m_shared) return true;
  std::unique_lock<std::mutex> lock(m_shared->mutex);
  if (timeoutMs == kInfinite) {
    m_shared->cv.wait(lock, [this] { return m_shared->finished; });
    return true;
  }
  return m_shared->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_shared->finished; });
}

bool Thread::HasThread() const { return m_native != nullptr; }

bool Thread::IsFinished() const {
  if (!m_shared) return true;
  std::lock_guard<std::mutex> guard(m_shared->mutex);
  return m_shared->finished;
}

uint32_t Thread::Id() const { return m_id; }

uint32_t Thread::CurrentId() { return static_cast<uint32_t>(::syscall(SYS_gettid)); }

void Thread::SetCurrentName(const std::string& name) { pthread_setname_np(pthread_self(), name.substr(0, 15).c_str()); }

}  // namespace lumo
