// TCP and UDP sockets over IPv4, as thin as the system calls under them. The handle and the
// error codes are the system's own (so that log lines carry the numbers a developer looks
// up), and ClassifyNetError says what a code means to the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lumo {

using SocketHandle = std::intptr_t;
constexpr SocketHandle kInvalidSocket = -1;

// Address and port in host byte order.
struct Ipv4Endpoint {
  uint32_t address = 0;
  uint16_t port = 0;
};
constexpr uint32_t kIpv4Loopback = 0x7F000001u;
constexpr uint32_t kIpv4Any = 0;

// Starts the socket library once per process (Winsock 2.2); true when usable.
bool NetStartup();

SocketHandle OpenTcpSocket();
SocketHandle OpenUdpSocket();
// Closes and marks the handle invalid; an invalid handle is left alone.
void CloseSocket(SocketHandle& socket);
// Ends both directions so that a thread blocked in a receive returns.
void ShutdownSocket(SocketHandle socket);

bool ConnectSocket(SocketHandle socket, const Ipv4Endpoint& to);
// Binds; TCP sockets with address reuse, so that a restarted listener gets its port back at once.
bool BindSocket(SocketHandle socket, const Ipv4Endpoint& at);
bool ListenSocket(SocketHandle socket, int backlog);
SocketHandle AcceptSocket(SocketHandle listener, Ipv4Endpoint* peer);
bool LocalEndpoint(SocketHandle socket, Ipv4Endpoint& endpoint);

// Bytes sent or received; -1 on error; a receive returns 0 when the peer closed. With
// `waitAll`, a receive loops until `size` bytes came; it returns fewer only when the peer closed
// (the bytes that came before the close), and -1 on an error or a receive time-out, whatever
// came before it. So anything but `size` means the link is done.
int SendSocket(SocketHandle socket, const void* data, size_t size);
int RecvSocket(SocketHandle socket, void* buffer, size_t size, bool waitAll);
int SendToSocket(SocketHandle socket, const void* data, size_t size, const Ipv4Endpoint& to);
int RecvFromSocket(SocketHandle socket, void* buffer, size_t size, Ipv4Endpoint& from);

bool SetReceiveTimeout(SocketHandle socket, uint32_t timeoutMs);
enum class NetWait { Readable, TimedOut, Error };
NetWait WaitReadable(SocketHandle socket, uint32_t timeoutMs);

// The first IPv4 address a host name resolves to (numeric names included), in host byte order.
bool ResolveHostIpv4(const char* name, uint32_t& address);

// The system's text for a socket error code, for log lines.
std::string NetErrorText(int code);

// The calling thread's last socket error (WSAGetLastError on Windows, errno elsewhere).
int LastNetError();
enum class NetErrorKind { None, WouldBlock, ConnectionReset, ConnectionRefused, TimedOut, Interrupted, Other };
NetErrorKind ClassifyNetError(int code);

}  // namespace lumo
