// The two ways the WiFi endpoint receives datagrams, with the OS calls kept here:
//
// - NetEventWaiter: one socket watched for "readable" and "closed", plus a stop signal
//   (WSAEventSelect and WSAWaitForMultipleEvents on Windows; poll with a wake-up pipe elsewhere).
// - UdpCompletionPort: overlapped receives completed on a port that worker threads wait on
//   (a real I/O completion port with WSARecvFrom on Windows; elsewhere each waiting worker
//   performs the receive of a posted context itself, so the pool of workers is the pool of
//   receivers). Posting a quit completion wakes one worker with key 0: that is the shutdown path.
//
// Error codes are the system's own (as LastNetError gives them), so log lines carry numbers a
// developer can look up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/socket.h"

namespace lumo {

class NetEventWaiter {
 public:
  NetEventWaiter();
  ~NetEventWaiter();
  NetEventWaiter(const NetEventWaiter&) = delete;
  NetEventWaiter& operator=(const NetEventWaiter&) = delete;

  // Creates the event objects (the network event and the stop event). False when the system
  // refuses; LastNetError says why.
  bool Create();
  // Watches `socket` for FD_READ and FD_CLOSE. False on failure. The socket becomes non-blocking
  // (event selection does that on Windows; elsewhere it is done to match).
  bool Select(SocketHandle socket);

  enum class Wake {
    Readable,  // a datagram is waiting (errorCode 0) or the read event carries an error code
    Closed,    // the socket was closed or shut down
    Stop,      // Stop() was called
    Failed,    // the wait itself failed (errorCode says why); callers go round again
  };
  // Waits without a time-out. `errorCode` is the error the OS attached to the event (0 when none).
  Wake Wait(int& errorCode);
  // Wakes one Wait with Wake::Stop (an auto-reset stop event: one signal, one wake).
  void Stop();

 private:
  struct Native;
  std::unique_ptr<Native> m_native;
};

// A receive request handed to the port; owned by the caller and kept alive until its completion
// has been taken by a worker or the socket has been closed. (Closing the port is not enough: on
// Windows the receive stays pending on the socket and its end is written into the context.)
struct UdpReceiveContext {
  static constexpr size_t kBufferSize = 70000;
  unsigned char buffer[kBufferSize];
  Ipv4Endpoint from;
  uint32_t bytes = 0;
  // Platform bookkeeping (the OVERLAPPED on Windows); opaque to callers.
  alignas(16) unsigned char native[64];
};

class UdpCompletionPort {
 public:
  UdpCompletionPort();
  // Closes the port. Workers must have left Wait() by then: Close() first, join them, then destroy.
  ~UdpCompletionPort();
  UdpCompletionPort(const UdpCompletionPort&) = delete;
  UdpCompletionPort& operator=(const UdpCompletionPort&) = delete;

  bool Create();
  // Completions of receives on `socket` come back with `key` (never 0: 0 means quit). One socket
  // per port: receives are posted on the socket associated last.
  bool Associate(SocketHandle socket, uintptr_t key);
  // Starts a receive into `context`. False when it could not be started (errorCode set; a
  // pending receive is success, not an error).
  bool PostReceive(UdpReceiveContext& context, int& errorCode);

  enum class Result {
    Completed,  // `context` holds `context->bytes` bytes from `context->from`, under `key`
    Quit,       // a PostQuit completion (key 0)
    Failed,     // the dequeue or the receive failed (errorCode set; `context` may be set)
    Closed,     // the port is gone
  };
  Result Wait(uintptr_t& key, UdpReceiveContext*& context, int& errorCode);
  // Queues one key-0 completion: wakes exactly one waiting worker with Result::Quit.
  bool PostQuit();
  // Closes the port; waiters and later waits return Closed.
  void Close();

 private:
  struct Native;
  std::unique_ptr<Native> m_native;
};

}  // namespace lumo
