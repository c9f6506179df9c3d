// Runs the test process in a network of its own, so that another process on the machine that
// sends to a fixed port (10099, 5037, 8181) cannot reach the suite that binds it. A ctest lock
// only orders our own tests; this keeps strangers out too.
#pragma once

#include <string>

namespace lumo::test {

// Moves the calling process into a new network namespace with only its loopback up. Call it
// before any thread starts. False, with the reason in `why`, where that is not possible (not
// Linux, not privileged): the suite then runs on the machine's own network as before.
bool EnterPrivateNetwork(std::string& why);

}  // namespace lumo::test
