#include "support/PrivateNetwork.h"

#if defined(__linux__)
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#endif

namespace lumo::test {

#if defined(__linux__)
bool EnterPrivateNetwork(std::string& why) {
  if (::unshare(CLONE_NEWNET) != 0) {
    why = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
    return false;
  }
  // A new namespace has its loopback down; 127.0.0.1 works only once it is up.
  int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    why = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
  if (up) {
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
    up = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  }
  if (!up) why = std::string("bringing lo up: ") + std::strerror(errno);
  ::close(fd);
  return up;
}
#else
bool EnterPrivateNetwork(std::string& why) {
  why = "no network namespaces on this system";
  return false;
}
#endif

}  // namespace lumo::test
