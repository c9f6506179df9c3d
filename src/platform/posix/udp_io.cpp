#include "platform/udp_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>

namespace lumo {
namespace {

int Fd(SocketHandle s) { return static_cast<int>(s); }

// Non-blocking so that a waker never stalls and a drain reads only what is there.
bool OpenWakePipe(int (&fds)[2]) { return ::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0; }

void CloseWakePipe(int (&fds)[2]) {
  for (int& fd : fds) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
}

void WriteWakeByte(int fd) {
  const unsigned char b = 1;
  ssize_t n;
  do {
    n = ::write(fd, &b, 1);
  } while (n < 0 && errno == EINTR);
}

void ReadWakeByte(int fd) {
  unsigned char b;
  ssize_t n;
  do {
    n = ::read(fd, &b, 1);
  } while (n < 0 && errno == EINTR);
}

// Events that mean the socket will never deliver again: closed, shut down or not a socket.
short DeadSocketEvents() {
#ifdef POLLRDHUP
  return POLLHUP | POLLNVAL | POLLRDHUP;
#else
  return POLLHUP | POLLNVAL;
#endif
}

short WatchedSocketEvents() {
#ifdef POLLRDHUP
  return POLLIN | POLLRDHUP;
#else
  return POLLIN;
#endif
}

int DeadSocketError(short revents) { return (revents & POLLNVAL) ? EBADF : ESHUTDOWN; }

}  // namespace

// ---------------------------------------------------------------------------------------------
// NetEventWaiter: poll on the socket and on a pipe that stands in for the auto-reset stop event.

struct NetEventWaiter::Native {
  std::recursive_mutex mutex;
  int fd = -1;
  int wake[2] = {-1, -1};
  // The pipe holds exactly one byte while this is set, so repeated Stop calls before a Wait
  // collapse into one wake, as an auto-reset event's do.
  bool stopSignalled = false;
};

NetEventWaiter::NetEventWaiter() : m_native(std::make_unique<Native>()) {}

NetEventWaiter::~NetEventWaiter() { CloseWakePipe(m_native->wake); }

bool NetEventWaiter::Create() {
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->wake[0] >= 0) return true;
  return OpenWakePipe(m_native->wake);
}

bool NetEventWaiter::Select(SocketHandle socket) {
  if (socket == kInvalidSocket) {
    errno = EBADF;
    return false;
  }
  // Event selection makes a Windows socket non-blocking; doing the same here keeps a reader that
  // was woken for a datagram someone else took from hanging in recvfrom where Stop cannot reach.
  int flags = ::fcntl(Fd(socket), F_GETFL);
  if (flags < 0 || ::fcntl(Fd(socket), F_SETFL, flags | O_NONBLOCK) != 0) return false;
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  m_native->fd = Fd(socket);
  return true;
}

NetEventWaiter::Wake NetEventWaiter::Wait(int& errorCode) {
  errorCode = 0;
  int fd, wakeFd;
  {
    std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
    fd = m_native->fd;
    wakeFd = m_native->wake[0];
  }
  if (wakeFd < 0) {
    errorCode = EBADF;
    return Wake::Failed;
  }
  for (;;) {
    pollfd p[2] = {{fd, WatchedSocketEvents(), 0}, {wakeFd, POLLIN, 0}};
    int rc = ::poll(p, 2, -1);  // a negative fd (nothing selected yet) is ignored by poll
    if (rc < 0) {
      if (errno == EINTR) continue;
      errorCode = errno;
      return Wake::Failed;
    }
    // The socket goes first, as the network event comes before the stop event on Windows.
    if (p[0].revents & DeadSocketEvents()) return Wake::Closed;
    if (p[0].revents & POLLERR) {
      // A pending error (an ICMP port-unreachable after a send) comes with the read event;
      // fetching it also clears it, so the next poll does not report it again.
      int soError = 0;
      socklen_t len = sizeof(soError);
      if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) == 0) errorCode = soError;
      if (errorCode != 0 || (p[0].revents & POLLIN)) return Wake::Readable;
    } else if (p[0].revents & POLLIN) {
      return Wake::Readable;
    }
    if (p[1].revents & POLLIN) {
      std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
      if (m_native->stopSignalled) {
        m_native->stopSignalled = false;
        ReadWakeByte(wakeFd);
        return Wake::Stop;
      }
      // Another waiter consumed the signal between the poll and here: wait again.
    }
  }
}

void NetEventWaiter::Stop() {
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->wake[1] < 0 || m_native->stopSignalled) return;
  m_native->stopSignalled = true;
  WriteWakeByte(m_native->wake[1]);
}

// ---------------------------------------------------------------------------------------------
// UdpCompletionPort: without completion ports, each worker performs the receive of the context
// it dequeued. A wake pipe reaches workers inside their receive; it holds one byte exactly while
// a quit is pending or the port is closed, so the waiters that see it readable check those two
// under the lock and only one of them takes each quit.

struct UdpCompletionPort::Native {
  std::recursive_mutex mutex;
  std::condition_variable_any cv;
  int wake[2] = {-1, -1};
  int fd = -1;
  uintptr_t key = 0;
  std::deque<UdpReceiveContext*> posted;
  unsigned pendingQuits = 0;
  bool closed = false;

  bool WakeSignalled() const { return pendingQuits > 0 || closed; }

  // Called with the lock held, after pendingQuits or closed changed.
  void SyncWakePipe(bool wasSignalled) {
    bool now = WakeSignalled();
    if (now && !wasSignalled) WriteWakeByte(wake[1]);
    if (!now && wasSignalled) ReadWakeByte(wake[0]);
  }

  // Takes one pending quit. The caller holds the lock and has seen pendingQuits > 0.
  void TakeQuit() {
    bool was = WakeSignalled();
    --pendingQuits;
    SyncWakePipe(was);
  }
};

UdpCompletionPort::UdpCompletionPort() : m_native(std::make_unique<Native>()) {}

UdpCompletionPort::~UdpCompletionPort() {
  Close();
  CloseWakePipe(m_native->wake);
}

bool UdpCompletionPort::Create() {
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->wake[0] >= 0) return true;
  return OpenWakePipe(m_native->wake);
}

bool UdpCompletionPort::Associate(SocketHandle socket, uintptr_t key) {
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->wake[0] < 0 || m_native->closed || socket == kInvalidSocket) {
    errno = EBADF;
    return false;
  }
  m_native->fd = Fd(socket);
  m_native->key = key;
  return true;
}

bool UdpCompletionPort::PostReceive(UdpReceiveContext& context, int& errorCode) {
  errorCode = 0;
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->closed || m_native->fd < 0) {
    errorCode = EBADF;
    return false;
  }
  // A receive on a dead socket fails when it is posted, as an overlapped one does; queuing it
  // would only have a worker fail it at once and its owner post it again, round and round.
  pollfd p{m_native->fd, WatchedSocketEvents(), 0};
  if (::poll(&p, 1, 0) > 0 && (p.revents & DeadSocketEvents())) {
    errorCode = DeadSocketError(p.revents);
    return false;
  }
  context.bytes = 0;
  m_native->posted.push_back(&context);
  m_native->cv.notify_one();
  return true;
}

UdpCompletionPort::Result UdpCompletionPort::Wait(uintptr_t& key, UdpReceiveContext*& context, int& errorCode) {
  Native& n = *m_native;
  key = 0;
  context = nullptr;
  errorCode = 0;
  int fd, wakeFd;
  {
    std::unique_lock<std::recursive_mutex> lock(n.mutex);
    n.cv.wait(lock, [&n] { return n.closed || n.pendingQuits > 0 || !n.posted.empty(); });
    if (n.closed) return Result::Closed;
    if (n.pendingQuits > 0) {
      n.TakeQuit();
      return Result::Quit;
    }
    context = n.posted.front();
    n.posted.pop_front();
    fd = n.fd;
    wakeFd = n.wake[0];
    key = n.key;
  }

  for (;;) {
    pollfd p[2] = {{fd, WatchedSocketEvents(), 0}, {wakeFd, POLLIN, 0}};
    int rc = ::poll(p, 2, -1);
    if (rc < 0 && errno != EINTR) {
      errorCode = errno;
      return Result::Failed;
    }
    if (rc > 0 && (p[1].revents & POLLIN)) {
      std::lock_guard<std::recursive_mutex> guard(n.mutex);
      if (n.closed || n.pendingQuits > 0) {
        // The receive never happened: the context goes back to the front so that the next
        // worker serves it and no posted receive is lost.
        n.posted.push_front(context);
        context = nullptr;
        key = 0;
        if (n.closed) return Result::Closed;
        n.TakeQuit();
        n.cv.notify_one();
        return Result::Quit;
      }
    }
    if (rc <= 0) continue;
    if (p[0].revents & DeadSocketEvents()) {
      errorCode = DeadSocketError(p[0].revents);
      return Result::Failed;
    }
    if (!(p[0].revents & (POLLIN | POLLERR))) continue;
    sockaddr_in from{};
    socklen_t len = sizeof(from);
    // Every worker on the socket wakes for each datagram; the ones that lose the race find
    // nothing and go back to waiting instead of blocking where the wake pipe cannot reach.
    ssize_t got = ::recvfrom(fd, context->buffer, UdpReceiveContext::kBufferSize, MSG_DONTWAIT,
                             reinterpret_cast<sockaddr*>(&from), &len);
    if (got < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
      // ECONNREFUSED (an ICMP answer to an earlier send) lands here too: the worker reports it
      // and its owner posts the context again.
      errorCode = errno;
      return Result::Failed;
    }
    context->bytes = static_cast<uint32_t>(got);
    context->from = Ipv4Endpoint{ntohl(from.sin_addr.s_addr), ntohs(from.sin_port)};
    return Result::Completed;
  }
}

bool UdpCompletionPort::PostQuit() {
  Native& n = *m_native;
  std::lock_guard<std::recursive_mutex> guard(n.mutex);
  if (n.closed || n.wake[1] < 0) {
    errno = EBADF;
    return false;
  }
  bool was = n.WakeSignalled();
  ++n.pendingQuits;
  n.SyncWakePipe(was);
  n.cv.notify_one();
  return true;
}

void UdpCompletionPort::Close() {
  Native& n = *m_native;
  std::lock_guard<std::recursive_mutex> guard(n.mutex);
  if (n.closed || n.wake[1] < 0) {
    n.closed = true;
    return;
  }
  bool was = n.WakeSignalled();
  n.closed = true;
  n.SyncWakePipe(was);
  n.posted.clear();
  n.cv.notify_all();
}

}  // namespace lumo
