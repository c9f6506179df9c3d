#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>

#include "platform/udp_io.h"

namespace lumo {
namespace {

SOCKET S(SocketHandle s) { return static_cast<SOCKET>(s); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// NetEventWaiter

struct NetEventWaiter::Native {
  WSAEVENT netEvent = WSA_INVALID_EVENT;
  HANDLE stopEvent = nullptr;
  SOCKET socket = INVALID_SOCKET;
  long pending = 0;  // FD_READ and FD_CLOSE enumerated but not reported yet
  int readCode = 0;
  int closeCode = 0;

  static bool IsRefusal(int code) { return code == WSAECONNREFUSED || code == WSAECONNRESET; }

  // One enumeration can carry both events, and each is signalled only once until the socket is
  // read again: what is not reported now is kept for the next Wait.
  bool TakePending(Wake& wake, int& errorCode) {
    // A datagram socket has no connection to lose. Wine raises FD_CLOSE for an ICMP refusal on
    // a connected one; that is the same news as a refusal on the read event, and treating it as
    // a close would end a receiver over one unreachable port. It goes first, as it came first.
    if ((pending & FD_CLOSE) && IsRefusal(closeCode)) {
      pending &= ~FD_CLOSE;
      errorCode = closeCode;
      wake = Wake::Readable;
      return true;
    }
    if (pending & FD_READ) {
      pending &= ~FD_READ;
      errorCode = readCode;
      wake = Wake::Readable;
      return true;
    }
    if (pending & FD_CLOSE) {
      pending &= ~FD_CLOSE;
      errorCode = closeCode;
      wake = Wake::Closed;
      return true;
    }
    return false;
  }
};

NetEventWaiter::NetEventWaiter() : m_native(std::make_unique<Native>()) {}

NetEventWaiter::~NetEventWaiter() {
  if (m_native->netEvent != WSA_INVALID_EVENT) WSACloseEvent(m_native->netEvent);
  if (m_native->stopEvent != nullptr) CloseHandle(m_native->stopEvent);
}

bool NetEventWaiter::Create() {
  NetStartup();
  if (m_native->netEvent == WSA_INVALID_EVENT) {
    m_native->netEvent = WSACreateEvent();
    if (m_native->netEvent == WSA_INVALID_EVENT) return false;
  }
  if (m_native->stopEvent == nullptr) {
    m_native->stopEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);  // auto-reset
    if (m_native->stopEvent == nullptr) {
      WSASetLastError(static_cast<int>(GetLastError()));
      return false;
    }
  }
  return true;
}

bool NetEventWaiter::Select(SocketHandle socket) {
  if (m_native->netEvent == WSA_INVALID_EVENT) {
    WSASetLastError(WSA_INVALID_HANDLE);
    return false;
  }
  if (WSAEventSelect(S(socket), m_native->netEvent, FD_READ | FD_CLOSE) != 0) return false;
  m_native->socket = S(socket);
  return true;
}

NetEventWaiter::Wake NetEventWaiter::Wait(int& errorCode) {
  Native& n = *m_native;
  errorCode = 0;
  if (n.netEvent == WSA_INVALID_EVENT || n.stopEvent == nullptr) {
    errorCode = WSA_INVALID_HANDLE;
    return Wake::Failed;
  }
  WSAEVENT events[2] = {n.netEvent, n.stopEvent};
  for (;;) {
    Wake wake;
    if (n.TakePending(wake, errorCode)) return wake;
    DWORD rc = WSAWaitForMultipleEvents(2, events, FALSE, WSA_INFINITE, FALSE);
    if (rc == WSA_WAIT_EVENT_0 + 1) return Wake::Stop;
    if (rc != WSA_WAIT_EVENT_0) {
      errorCode = WSAGetLastError();
      return Wake::Failed;
    }
    WSANETWORKEVENTS happened{};
    if (WSAEnumNetworkEvents(n.socket, n.netEvent, &happened) != 0) {
      errorCode = WSAGetLastError();
      return Wake::Failed;
    }
    if (happened.lNetworkEvents & FD_READ) n.readCode = happened.iErrorCode[FD_READ_BIT];
    if (happened.lNetworkEvents & FD_CLOSE) n.closeCode = happened.iErrorCode[FD_CLOSE_BIT];
    n.pending |= happened.lNetworkEvents & (FD_READ | FD_CLOSE);
  }
}

void NetEventWaiter::Stop() {
  if (m_native->stopEvent != nullptr) SetEvent(m_native->stopEvent);
}

// ---------------------------------------------------------------------------------------------
// UdpCompletionPort

namespace {

// What an overlapped WSARecvFrom needs to outlive the call: the OVERLAPPED itself (first, so
// that the pointer the port hands back is also a pointer to this), and the source address
// with its length, which the system fills in when the receive completes.
struct PendingReceive {
  OVERLAPPED overlapped;
  sockaddr_in from;
  INT fromLength;
  DWORD flags;
};
static_assert(sizeof(PendingReceive) <= sizeof(UdpReceiveContext::native),
              "the overlapped receive must fit in the context's platform bytes");
static_assert(alignof(PendingReceive) <= 16, "the context's platform bytes are 16-aligned");

PendingReceive* Pending(UdpReceiveContext& context) {
  return std::launder(reinterpret_cast<PendingReceive*>(context.native));
}

UdpReceiveContext* ContextOf(OVERLAPPED* overlapped) {
  auto* bytes = reinterpret_cast<unsigned char*>(overlapped) - offsetof(UdpReceiveContext, native);
  return reinterpret_cast<UdpReceiveContext*>(bytes);
}

}  // namespace

struct UdpCompletionPort::Native {
  std::recursive_mutex mutex;
  HANDLE port = nullptr;
  SOCKET socket = INVALID_SOCKET;
  // Set before the handle is closed: later waits answer Closed without touching a handle value
  // that the system may already have given to something else.
  std::atomic<bool> closed{false};
  // Workers inside GetQueuedCompletionStatus. Closing the handle should end their waits, but
  // Wine leaves them blocked, so Close first queues one of these markers for each of them.
  int waiting = 0;
  OVERLAPPED closeMarker{};
};

UdpCompletionPort::UdpCompletionPort() : m_native(std::make_unique<Native>()) {}

UdpCompletionPort::~UdpCompletionPort() { Close(); }

bool UdpCompletionPort::Create() {
  NetStartup();
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->port != nullptr) return true;
  m_native->port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
  if (m_native->port == nullptr) {
    WSASetLastError(static_cast<int>(GetLastError()));
    return false;
  }
  return true;
}

bool UdpCompletionPort::Associate(SocketHandle socket, uintptr_t key) {
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->port == nullptr || m_native->closed) {
    WSASetLastError(WSA_INVALID_HANDLE);
    return false;
  }
  HANDLE h = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(S(socket)));
  if (CreateIoCompletionPort(h, m_native->port, static_cast<ULONG_PTR>(key), 0) == nullptr) {
    WSASetLastError(static_cast<int>(GetLastError()));
    return false;
  }
  m_native->socket = S(socket);
  return true;
}

bool UdpCompletionPort::PostReceive(UdpReceiveContext& context, int& errorCode) {
  errorCode = 0;
  SOCKET socket;
  {
    std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
    socket = m_native->socket;
    if (m_native->closed || socket == INVALID_SOCKET) {
      errorCode = WSA_INVALID_HANDLE;
      return false;
    }
  }
  PendingReceive* pending = new (context.native) PendingReceive{};
  pending->fromLength = sizeof(pending->from);
  context.bytes = 0;
  // The buffer descriptor may live on the stack: the provider captures it before returning.
  WSABUF buffer{static_cast<ULONG>(UdpReceiveContext::kBufferSize), reinterpret_cast<char*>(context.buffer)};
  int rc = WSARecvFrom(socket, &buffer, 1, nullptr, &pending->flags, reinterpret_cast<sockaddr*>(&pending->from),
                       &pending->fromLength, &pending->overlapped, nullptr);
  if (rc == 0) return true;  // finished at once; its completion is queued all the same
  int error = WSAGetLastError();
  if (error == WSA_IO_PENDING) return true;
  errorCode = error;
  return false;
}

UdpCompletionPort::Result UdpCompletionPort::Wait(uintptr_t& key, UdpReceiveContext*& context, int& errorCode) {
  key = 0;
  context = nullptr;
  errorCode = 0;
  HANDLE port;
  {
    std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
    port = m_native->port;
    if (m_native->closed || port == nullptr) return Result::Closed;
    ++m_native->waiting;
  }
  DWORD bytes = 0;
  ULONG_PTR completionKey = 0;
  OVERLAPPED* overlapped = nullptr;
  BOOL ok = GetQueuedCompletionStatus(port, &bytes, &completionKey, &overlapped, INFINITE);
  DWORD error = ok ? 0 : GetLastError();
  {
    std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
    --m_native->waiting;
  }
  if (overlapped == &m_native->closeMarker) return Result::Closed;
  if (overlapped == nullptr) {
    if (ok) return completionKey == 0 ? Result::Quit : Result::Failed;
    // A port closed under a waiting worker abandons the wait; one closed before reads as invalid.
    if (m_native->closed || error == ERROR_ABANDONED_WAIT_0 || error == ERROR_INVALID_HANDLE) return Result::Closed;
    errorCode = static_cast<int>(error);
    return Result::Failed;
  }
  key = static_cast<uintptr_t>(completionKey);
  context = ContextOf(overlapped);
  PendingReceive* pending = Pending(*context);
  if (!ok) {
    // The port reports the failed receive as a system status; the socket's own error code (the
    // number the caller classifies, e.g. WSAECONNRESET after an ICMP answer) comes from here.
    DWORD transferred = 0, flags = 0;
    SOCKET socket = m_native->socket;
    if (!WSAGetOverlappedResult(socket, overlapped, &transferred, FALSE, &flags)) {
      errorCode = WSAGetLastError();
    } else {
      errorCode = static_cast<int>(error);
    }
    return Result::Failed;
  }
  context->bytes = static_cast<uint32_t>(bytes);
  context->from = Ipv4Endpoint{ntohl(pending->from.sin_addr.s_addr), ntohs(pending->from.sin_port)};
  return Result::Completed;
}

bool UdpCompletionPort::PostQuit() {
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->closed || m_native->port == nullptr) {
    WSASetLastError(WSA_INVALID_HANDLE);
    return false;
  }
  if (!PostQueuedCompletionStatus(m_native->port, 0, 0, nullptr)) {
    WSASetLastError(static_cast<int>(GetLastError()));
    return false;
  }
  return true;
}

void UdpCompletionPort::Close() {
  std::lock_guard<std::recursive_mutex> guard(m_native->mutex);
  if (m_native->closed.exchange(true)) return;
  if (m_native->port == nullptr) return;
  for (int i = 0; i < m_native->waiting; ++i) {
    PostQueuedCompletionStatus(m_native->port, 0, 0, &m_native->closeMarker);
  }
  CloseHandle(m_native->port);
}

}  // namespace lumo
