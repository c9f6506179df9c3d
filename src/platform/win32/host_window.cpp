#include <windows.h>

#include "platform/host_window.h"

namespace lumo {

bool PostNativeWindowMessage(HWND hwnd, uint32_t msg, uintptr_t wParam, intptr_t lParam) {
  return PostMessageW(hwnd, msg, static_cast<WPARAM>(wParam), static_cast<LPARAM>(lParam)) != 0;
}

}  // namespace lumo
