#include <windows.h>

#include "platform/errors.h"

namespace lumo {
int LastSystemError() { return static_cast<int>(GetLastError()); }
void SetLastSystemError(int code) { SetLastError(static_cast<DWORD>(code)); }
}  // namespace lumo
