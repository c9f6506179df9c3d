#include "platform/errors.h"

#include <cerrno>

namespace lumo {
int LastSystemError() { return errno; }
void SetLastSystemError(int code) { errno = code; }
}  // namespace lumo
