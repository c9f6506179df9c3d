#include <winsock2.h>
#include <ws2tcpip.h>

#include <climits>
#include <string>
#include <mutex>

#include "platform/socket.h"

namespace lumo {
namespace {

sockaddr_in ToSockaddr(const Ipv4Endpoint& e) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(e.address);
  a.sin_port = htons(e.port);
  return a;
}

Ipv4Endpoint FromSockaddr(const sockaddr_in& a) { return Ipv4Endpoint{ntohl(a.sin_addr.s_addr), ntohs(a.sin_port)}; }

SOCKET S(SocketHandle s) { return static_cast<SOCKET>(s); }
SocketHandle H(SOCKET s) { return s == INVALID_SOCKET ? kInvalidSocket : static_cast<SocketHandle>(s); }
int Clamp(size_t size) { return size > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(size); }

}  // namespace

bool NetStartup() {
  static bool ok = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return ok;
}

SocketHandle OpenTcpSocket() {
  NetStartup();
  return H(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
}

SocketHandle OpenUdpSocket() {
  NetStartup();
  return H(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
}

void CloseSocket(SocketHandle& socket) {
  if (socket == kInvalidSocket) return;
  ::closesocket(S(socket));
  socket = kInvalidSocket;
}

void ShutdownSocket(SocketHandle socket) {
  if (socket != kInvalidSocket) ::shutdown(S(socket), SD_BOTH);
}

bool ConnectSocket(SocketHandle socket, const Ipv4Endpoint& to) {
  sockaddr_in a = ToSockaddr(to);
  return ::connect(S(socket), reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
}

bool BindSocket(SocketHandle socket, const Ipv4Endpoint& at) {
  // Address reuse only for TCP listeners: on a UDP socket it would let another socket take the
  // same port and its datagrams.
  int type = 0;
  int typeLen = sizeof(type);
  if (::getsockopt(S(socket), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &typeLen) == 0 &&
      type == SOCK_STREAM) {
    BOOL on = TRUE;
    ::setsockopt(S(socket), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on), sizeof(on));
  }
  sockaddr_in a = ToSockaddr(at);
  return ::bind(S(socket), reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
}

bool ListenSocket(SocketHandle socket, int backlog) { return ::listen(S(socket), backlog) == 0; }

SocketHandle AcceptSocket(SocketHandle listener, Ipv4Endpoint* peer) {
  sockaddr_in a{};
  int len = sizeof(a);
  SOCKET s = ::accept(S(listener), reinterpret_cast<sockaddr*>(&a), &len);
  if (s == INVALID_SOCKET) return kInvalidSocket;
  if (peer) *peer = FromSockaddr(a);
  return H(s);
}

bool LocalEndpoint(SocketHandle socket, Ipv4Endpoint& endpoint) {
  sockaddr_in a{};
  int len = sizeof(a);
  if (::getsockname(S(socket), reinterpret_cast<sockaddr*>(&a), &len) != 0) return false;
  endpoint = FromSockaddr(a);
  return true;
}

int SendSocket(SocketHandle socket, const void* data, size_t size) {
  return ::send(S(socket), static_cast<const char*>(data), Clamp(size), 0);
}

int RecvSocket(SocketHandle socket, void* buffer, size_t size, bool waitAll) {
  // MSG_WAITALL can return early (seen under wine on a loaded machine), so the wait-all receive
  // loops until every byte came: a short read is never a whole message.
  char* bytes = static_cast<char*>(buffer);
  const int want = Clamp(size);
  int got = 0;
  for (;;) {
    int n = ::recv(S(socket), bytes + got, want - got, waitAll ? MSG_WAITALL : 0);
    if (n == SOCKET_ERROR) return -1;
    got += n;
    if (n == 0 || !waitAll || got >= want) break;
  }
  return got;
}

int SendToSocket(SocketHandle socket, const void* data, size_t size, const Ipv4Endpoint& to) {
  sockaddr_in a = ToSockaddr(to);
  return ::sendto(S(socket), static_cast<const char*>(data), Clamp(size), 0, reinterpret_cast<sockaddr*>(&a),
                  sizeof(a));
}

int RecvFromSocket(SocketHandle socket, void* buffer, size_t size, Ipv4Endpoint& from) {
  sockaddr_in a{};
  int len = sizeof(a);
  int n = ::recvfrom(S(socket), static_cast<char*>(buffer), Clamp(size), 0, reinterpret_cast<sockaddr*>(&a), &len);
  if (n >= 0) from = FromSockaddr(a);
  return n;
}

bool SetReceiveTimeout(SocketHandle socket, uint32_t timeoutMs) {
  DWORD ms = timeoutMs;
  return ::setsockopt(S(socket), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof(ms)) == 0;
}

NetWait WaitReadable(SocketHandle socket, uint32_t timeoutMs) {
  WSAPOLLFD p{S(socket), POLLRDNORM, 0};
  int rc = ::WSAPoll(&p, 1, timeoutMs > INT_MAX ? INT_MAX : static_cast<INT>(timeoutMs));
  if (rc == SOCKET_ERROR) return NetWait::Error;
  return rc == 0 ? NetWait::TimedOut : NetWait::Readable;
}

bool ResolveHostIpv4(const char* name, uint32_t& address) {
  if (!NetStartup() || name == nullptr) return false;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* result = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &result) != 0 || result == nullptr) return false;
  address = ntohl(reinterpret_cast<const sockaddr_in*>(result->ai_addr)->sin_addr.s_addr);
  freeaddrinfo(result);
  return true;
}

std::string NetErrorText(int code) {
  char text[256] = "";
  const DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                 static_cast<DWORD>(code), 0, text, sizeof text, nullptr);
  std::string out(text, n);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ')) out.pop_back();
  return out.empty() ? "error " + std::to_string(code) : out;
}

int LastNetError() { return WSAGetLastError(); }

NetErrorKind ClassifyNetError(int code) {
  switch (code) {
    case 0:
      return NetErrorKind::None;
    case WSAEWOULDBLOCK:
      return NetErrorKind::WouldBlock;
    case WSAECONNRESET:
    case WSAECONNABORTED:
      return NetErrorKind::ConnectionReset;
    case WSAECONNREFUSED:
      return NetErrorKind::ConnectionRefused;
    case WSAETIMEDOUT:
      return NetErrorKind::TimedOut;
    case WSAEINTR:
      return NetErrorKind::Interrupted;
    default:
      return NetErrorKind::Other;
  }
}

}  // namespace lumo
