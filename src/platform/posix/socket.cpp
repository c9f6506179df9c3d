#include "platform/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

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

int Fd(SocketHandle s) { return static_cast<int>(s); }

size_t Clamp(size_t size) { return size > static_cast<size_t>(INT_MAX) ? static_cast<size_t>(INT_MAX) : size; }

}  // namespace

bool NetStartup() { return true; }

SocketHandle OpenTcpSocket() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  return fd < 0 ? kInvalidSocket : fd;
}

SocketHandle OpenUdpSocket() {
  int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  return fd < 0 ? kInvalidSocket : fd;
}

void CloseSocket(SocketHandle& socket) {
  if (socket == kInvalidSocket) return;
  ::close(Fd(socket));
  socket = kInvalidSocket;
}

void ShutdownSocket(SocketHandle socket) {
  if (socket != kInvalidSocket) ::shutdown(Fd(socket), SHUT_RDWR);
}

bool ConnectSocket(SocketHandle socket, const Ipv4Endpoint& to) {
  sockaddr_in a = ToSockaddr(to);
  int rc;
  do {
    rc = ::connect(Fd(socket), reinterpret_cast<sockaddr*>(&a), sizeof(a));
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

bool BindSocket(SocketHandle socket, const Ipv4Endpoint& at) {
  // Address reuse is for TCP listeners coming back while old connections linger. On a UDP socket
  // it would let two sockets share a port (even two "free" ports handed out for port 0), and
  // datagrams would go to the wrong one.
  int type = 0;
  socklen_t typeLen = sizeof(type);
  if (::getsockopt(Fd(socket), SOL_SOCKET, SO_TYPE, &type, &typeLen) == 0 && type == SOCK_STREAM) {
    int on = 1;
    ::setsockopt(Fd(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  }
  sockaddr_in a = ToSockaddr(at);
  return ::bind(Fd(socket), reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
}

bool ListenSocket(SocketHandle socket, int backlog) { return ::listen(Fd(socket), backlog) == 0; }

SocketHandle AcceptSocket(SocketHandle listener, Ipv4Endpoint* peer) {
  sockaddr_in a{};
  socklen_t len = sizeof(a);
  int fd;
  do {
    fd = ::accept4(Fd(listener), reinterpret_cast<sockaddr*>(&a), &len, SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return kInvalidSocket;
  if (peer) *peer = FromSockaddr(a);
  return fd;
}

bool LocalEndpoint(SocketHandle socket, Ipv4Endpoint& endpoint) {
  sockaddr_in a{};
  socklen_t len = sizeof(a);
  if (::getsockname(Fd(socket), reinterpret_cast<sockaddr*>(&a), &len) != 0) return false;
  endpoint = FromSockaddr(a);
  return true;
}

int SendSocket(SocketHandle socket, const void* data, size_t size) {
  ssize_t n;
  do {
    n = ::send(Fd(socket), data, Clamp(size), MSG_NOSIGNAL);  // a closed peer is an error, not a signal
  } while (n < 0 && errno == EINTR);
  return static_cast<int>(n);
}

int RecvSocket(SocketHandle socket, void* buffer, size_t size, bool waitAll) {
  // MSG_WAITALL may still return early (a signal, a time-out, a stack that gives up on it), so
  // the wait-all receive loops until every byte came: a short read is never a whole message.
  char* bytes = static_cast<char*>(buffer);
  const size_t want = Clamp(size);
  size_t got = 0;
  for (;;) {
    ssize_t n = ::recv(Fd(socket), bytes + got, want - got, waitAll ? MSG_WAITALL : 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    got += static_cast<size_t>(n);
    if (n == 0 || !waitAll || got >= want) break;
  }
  return static_cast<int>(got);
}

int SendToSocket(SocketHandle socket, const void* data, size_t size, const Ipv4Endpoint& to) {
  sockaddr_in a = ToSockaddr(to);
  return static_cast<int>(
      ::sendto(Fd(socket), data, Clamp(size), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&a), sizeof(a)));
}

int RecvFromSocket(SocketHandle socket, void* buffer, size_t size, Ipv4Endpoint& from) {
  sockaddr_in a{};
  socklen_t len = sizeof(a);
  ssize_t n;
  do {
    n = ::recvfrom(Fd(socket), buffer, Clamp(size), 0, reinterpret_cast<sockaddr*>(&a), &len);
  } while (n < 0 && errno == EINTR);
  if (n >= 0) from = FromSockaddr(a);
  return static_cast<int>(n);
}

bool SetReceiveTimeout(SocketHandle socket, uint32_t timeoutMs) {
  timeval tv{static_cast<time_t>(timeoutMs / 1000), static_cast<suseconds_t>((timeoutMs % 1000) * 1000)};
  return ::setsockopt(Fd(socket), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) == 0;
}

NetWait WaitReadable(SocketHandle socket, uint32_t timeoutMs) {
  pollfd p{Fd(socket), POLLIN, 0};
  int rc;
  do {
    rc = ::poll(&p, 1, timeoutMs > INT_MAX ? INT_MAX : static_cast<int>(timeoutMs));
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) return NetWait::Error;
  return rc == 0 ? NetWait::TimedOut : NetWait::Readable;
}

bool ResolveHostIpv4(const char* name, uint32_t& address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* result = nullptr;
  if (name == nullptr || getaddrinfo(name, nullptr, &hints, &result) != 0 || result == nullptr) return false;
  address = ntohl(reinterpret_cast<const sockaddr_in*>(result->ai_addr)->sin_addr.s_addr);
  freeaddrinfo(result);
  return true;
}

std::string NetErrorText(int code) { return std::strerror(code); }

int LastNetError() { return errno; }

NetErrorKind ClassifyNetError(int code) {
  switch (code) {
    case 0:
      return NetErrorKind::None;
    case EAGAIN:
      return NetErrorKind::WouldBlock;
    case ECONNRESET:
    case EPIPE:
      return NetErrorKind::ConnectionReset;
    case ECONNREFUSED:
      return NetErrorKind::ConnectionRefused;
    case ETIMEDOUT:
      return NetErrorKind::TimedOut;
    case EINTR:
      return NetErrorKind::Interrupted;
    default:
      return NetErrorKind::Other;
  }
}

}  // namespace lumo
