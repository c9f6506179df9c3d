// The last system error code of the calling thread (errno here, GetLastError on Windows), for
// the log lines that report one. Platform calls that fail set it.
#pragma once

namespace lumo {
int LastSystemError();
void SetLastSystemError(int code);
}  // namespace lumo
