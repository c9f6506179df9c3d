#include "platform/host_window.h"

#include <mutex>

namespace lumo {

bool PostNativeWindowMessage(HWND hwnd, uint32_t msg, uintptr_t wParam, intptr_t lParam);

namespace {
std::mutex g_sinkMutex;
HostMessageSink& Sink() {
  static HostMessageSink sink;
  return sink;
}
}  // namespace

void SetHostMessageSink(HostMessageSink sink) {
  std::lock_guard<std::mutex> guard(g_sinkMutex);
  Sink() = std::move(sink);
}

bool PostHostMessage(HWND hwnd, uint32_t msg, uintptr_t wParam, intptr_t lParam) {
  HostMessageSink sink;
  {
    std::lock_guard<std::mutex> guard(g_sinkMutex);
    sink = Sink();
  }
  // The sink is called outside the lock: it is host code and may post again.
  if (sink) return sink(hwnd, msg, wParam, lParam);
  return PostNativeWindowMessage(hwnd, msg, wParam, lParam);
}

}  // namespace lumo
