#include "LocalSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace lumo::phonesim {
namespace {

bool ToAddress(const std::string& path, sockaddr_un& a) {
  a = sockaddr_un{};
  a.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof a.sun_path) return false;
  std::memcpy(a.sun_path, path.data(), path.size());
  return true;
}

bool IsSocketFile(const std::string& path, bool& exists) {
  struct stat st {};
  exists = ::lstat(path.c_str(), &st) == 0;
  return exists && S_ISSOCK(st.st_mode);
}

}  // namespace

SocketHandle ConnectLocal(const std::string& path) {
  sockaddr_un a;
  if (!ToAddress(path, a)) return kInvalidSocket;
  SocketHandle s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s == kInvalidSocket) return s;
  int rc;
  do {
    rc = ::connect(static_cast<int>(s), reinterpret_cast<sockaddr*>(&a), sizeof a);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) CloseSocket(s);
  return s;
}

SocketHandle ListenLocal(const std::string& path, std::string& error) {
  sockaddr_un a;
  if (!ToAddress(path, a)) {
    error = "the socket path \"" + path + "\" is empty or longer than " + std::to_string(sizeof a.sun_path - 1) + " bytes";
    return kInvalidSocket;
  }
  bool exists = false;
  if (IsSocketFile(path, exists)) {
    SocketHandle probe = ConnectLocal(path);
    if (probe != kInvalidSocket) {
      CloseSocket(probe);
      error = "another usbmuxd already listens on " + path;
      return kInvalidSocket;
    }
    ::unlink(path.c_str());  // left behind by a simulator that did not stop cleanly
  } else if (exists) {
    error = path + " exists and is not a socket";
    return kInvalidSocket;
  }
  SocketHandle s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s == kInvalidSocket || ::bind(static_cast<int>(s), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::listen(static_cast<int>(s), 16) != 0) {
    error = "cannot listen on " + path + " (" + std::strerror(errno) + ")";
    CloseSocket(s);
    return kInvalidSocket;
  }
  return s;
}

void RemoveLocalSocketFile(const std::string& path) {
  bool exists = false;
  if (IsSocketFile(path, exists)) ::unlink(path.c_str());
}

bool SetSendTimeout(SocketHandle socket, uint32_t timeoutMs) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(timeoutMs / 1000);
  tv.tv_usec = static_cast<suseconds_t>((timeoutMs % 1000) * 1000);
  return ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
}

}  // namespace lumo::phonesim
