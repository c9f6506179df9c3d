// The Android app's side: a TCP listener that the PC reaches through adb port forwarding, one
// PC at a time, each frame preceded by its 4-byte big-endian length.
#include <atomic>
#include <cstdio>
#include <mutex>

#include "Transport.h"
#include "platform/socket.h"

namespace lumo::phonesim {
namespace {

std::string Dotted(uint32_t a) {
  char text[32];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
  return text;
}

class TcpTransport final : public PhoneTransport {
 public:
  explicit TcpTransport(const PhoneSimOptions& options) : m_options(options) {}
  ~TcpTransport() override {
    Stop();
    CloseSocket(m_listener);
    std::lock_guard<std::mutex> guard(m_linkLock);
    CloseSocket(m_link);
  }

  bool Open(std::string& error) override {
    if (!NetStartup()) {
      error = "the socket library did not start";
      return false;
    }
    m_listener = OpenTcpSocket();
    Ipv4Endpoint at{m_options.bindAddress, m_options.port}, bound;
    if (m_listener == kInvalidSocket || !BindSocket(m_listener, at) || !ListenSocket(m_listener, 1) ||
        !LocalEndpoint(m_listener, bound)) {
      error = "cannot listen on " + Dotted(at.address) + ":" + std::to_string(at.port) + " (error " +
              std::to_string(LastNetError()) + ")";
      CloseSocket(m_listener);
      return false;
    }
    m_port = bound.port;
    return true;
  }

  bool WaitForPeer() override {
    while (!m_stopped) {
      // Woken every 100 ms to notice Stop: a blocked accept cannot be interrupted portably.
      if (WaitReadable(m_listener, 100) != NetWait::Readable) continue;
      SocketHandle s = AcceptSocket(m_listener, nullptr);
      if (s == kInvalidSocket) continue;
      std::lock_guard<std::mutex> guard(m_linkLock);
      CloseSocket(m_link);
      m_link = s;
      if (!m_stopped) return true;
      CloseSocket(m_link);
    }
    return false;
  }

  bool Send(const std::string& frame) override {
    std::lock_guard<std::mutex> guard(m_sendLock);
    SocketHandle s = Link();
    size_t done = 0;
    while (s != kInvalidSocket && done < frame.size()) {
      int n = SendSocket(s, frame.data() + done, frame.size() - done);
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return s != kInvalidSocket;
  }

  bool Receive(std::string& frame) override {
    SocketHandle s = Link();
    unsigned char prefix[4];
    if (s == kInvalidSocket || RecvSocket(s, prefix, 4, true) != 4) return false;
    const uint32_t size = static_cast<uint32_t>(prefix[0]) << 24 | static_cast<uint32_t>(prefix[1]) << 16 |
                          static_cast<uint32_t>(prefix[2]) << 8 | prefix[3];
    if (size == 0 || size > kMaxFrameFromPc) return false;
    frame.resize(size);
    return RecvSocket(s, &frame[0], size, true) == static_cast<int>(size);
  }

  void DropLink() override {
    std::lock_guard<std::mutex> guard(m_linkLock);
    // Shut down, not closed: a thread blocked in Receive on this handle returns at once, and
    // the handle is closed by the next accept or by the destructor.
    if (m_link != kInvalidSocket) ShutdownSocket(m_link);
  }

  void Stop() override {
    m_stopped = true;
    DropLink();
  }

  std::string Describe() const override { return "tcp " + Dotted(m_options.bindAddress) + ":" + std::to_string(m_port); }
  uint16_t Port() const override { return m_port; }

 private:
  SocketHandle Link() {
    std::lock_guard<std::mutex> guard(m_linkLock);
    return m_link;
  }

  const PhoneSimOptions m_options;
  SocketHandle m_listener = kInvalidSocket;
  SocketHandle m_link = kInvalidSocket;
  std::mutex m_linkLock, m_sendLock;
  std::atomic<bool> m_stopped{false};
  uint16_t m_port = 0;
};

}  // namespace

std::unique_ptr<PhoneTransport> MakeTcpTransport(const PhoneSimOptions& options) {
  return std::make_unique<TcpTransport>(options);
}

}  // namespace lumo::phonesim
