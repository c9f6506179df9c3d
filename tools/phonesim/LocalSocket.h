// Local (UNIX-domain) stream sockets, which the usbmux side of the simulated iPhone listens on as
// a usbmuxd does. The library itself never listens on a local socket, so this lives beside the
// simulator, a Linux program, rather than in the platform layer; the handles it returns are
// ordinary SocketHandles that the platform's send, receive, wait and close calls work on.
#pragma once

#include <cstdint>
#include <string>

#include "platform/socket.h"

namespace lumo::phonesim {

// Binds and listens at `path`. A socket file left behind by a process that is gone is replaced;
// one that still answers, or a file that is not a socket, is an error.
SocketHandle ListenLocal(const std::string& path, std::string& error);
SocketHandle ConnectLocal(const std::string& path);
// Removes the socket file at `path` (and nothing that is not a socket).
void RemoveLocalSocketFile(const std::string& path);
// A send that cannot finish in this time fails, so that a client that stopped reading cannot
// hold a thread of ours for ever. 0: no time-out.
bool SetSendTimeout(SocketHandle socket, uint32_t timeoutMs);

}  // namespace lumo::phonesim
