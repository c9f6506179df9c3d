// The simulated iPhone's lockdown service (device port 62078): what a PC asks before it opens
// anything else, such as the device's name and model. Each message is a 4-byte big-endian length
// and a property list. No pairing and no SSL: a session starts in the clear, which is all that
// listing a device and reading its name need.
#pragma once

#include <string>

#include "platform/socket.h"

namespace lumo::phonesim {

constexpr uint16_t kLockdownPort = 62078;

struct LockdownIdentity {
  std::string udid, name, productType, productVersion;
};

// Answers requests on `link` until the client says Goodbye, closes, or sends something that is
// not a length-framed property list (then the link is abandoned: there is no way to resync).
// The caller owns `link`, closes it, and ends a blocked call by shutting it down.
void ServeLockdown(SocketHandle link, const LockdownIdentity& who);

}  // namespace lumo::phonesim
