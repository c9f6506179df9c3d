#include <windows.h>

#include <functional>
#include <memory>

#include "platform/errors.h"
#include "platform/thread.h"

namespace lumo {

struct Thread::Shared {};

struct Thread::Native {
  HANDLE handle = nullptr;
};

namespace {

DWORD WINAPI ThreadEntry(void* arg) {
  std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
  (*body)();
  return 0;
}

HANDLE Launch(std::function<void()> body, DWORD* id) {
  auto* heapBody = new std::function<void()>(std::move(body));
  HANDLE h = CreateThread(nullptr, 0, ThreadEntry, heapBody, 0, id);
  if (h == nullptr) delete heapBody;  // the thread never started: the body is still ours
  return h;
}

}  // namespace

Thread::Thread() = default;

Thread::~Thread() { Join(kInfinite); }

bool Thread::Start(std::function<void()> body) {
  if (m_native) {
    SetLastSystemError(ERROR_BUSY);
    return false;
  }
  DWORD id = 0;
  HANDLE h = Launch(std::move(body), &id);
  if (h == nullptr) return false;
  m_native = std::make_unique<Native>();
  m_native->handle = h;
  m_id = id;
  return true;
}

bool Thread::Join(uint32_t timeoutMs) {
  if (!m_native) return true;
  DWORD wait = WaitForSingleObject(m_native->handle, timeoutMs == kInfinite ? INFINITE : timeoutMs);
  bool finished = wait == WAIT_OBJECT_0;
  if (!finished) {
    // A thread that does not stop in time is ended from outside, as the owners expect.
    TerminateThread(m_native->handle, 1);
  }
  CloseHandle(m_native->handle);
  m_native.reset();
  m_id = 0;
  return finished;
}

bool Thread::WaitFinished(uint32_t timeoutMs) const {
  if (!m_native) return true;
  return WaitForSingleObject(m_native->handle, timeoutMs == kInfinite ? INFINITE : timeoutMs) == WAIT_OBJECT_0;
}

bool Thread::HasThread() const { return m_native != nullptr; }

bool Thread::IsFinished() const {
  if (!m_native) return true;
  return WaitForSingleObject(m_native->handle, 0) == WAIT_OBJECT_0;
}

uint32_t Thread::Id() const { return m_id; }

uint32_t Thread::CurrentId() { return GetCurrentThreadId(); }

// SetThreadDescription is not in every Windows this DLL runs on; log lines name threads anyway.
void Thread::SetCurrentName(const std::string&) {}

}  // namespace lumo
