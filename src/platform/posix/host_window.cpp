#include "platform/host_window.h"

namespace lumo {

// There is no window system to post to off Windows: without a registered sink the message is
// refused, and the caller keeps what it would have handed over.
bool PostNativeWindowMessage(HWND, uint32_t, uintptr_t, intptr_t) { return false; }

}  // namespace lumo
