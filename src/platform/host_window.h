// Posting a message to the host's window. On Windows this is PostMessageW; elsewhere (and in
// tests on every platform) the host registers a sink that receives the message instead.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/export.h"

// The same declaration as a STRICT windows.h, so that a Windows host can pass its HWND as it is.
struct HWND__;
typedef HWND__* HWND;

namespace lumo {

// Returns true when the message was accepted. A message that is not accepted stays the
// sender's to clean up (for example the Json::Value behind lParam).
using HostMessageSink = std::function<bool(HWND hwnd, uint32_t msg, uintptr_t wParam, intptr_t lParam)>;

// Registers the sink (an empty function removes it). Exported so that a host off Windows can
// receive the messages that a Windows host gets in its window procedure.
LUMO_API void SetHostMessageSink(HostMessageSink sink);

bool PostHostMessage(HWND hwnd, uint32_t msg, uintptr_t wParam, intptr_t lParam);

}  // namespace lumo
