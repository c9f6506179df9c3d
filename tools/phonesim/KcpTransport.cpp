// The phone app's WiFi side: one KCP conversation (the PC's conv, MTU and message mode) over a
// UDP socket, sending first to the PC's port. Each frame, length prefix included, is one KCP
// message. One thread owns the KCP object: it reads datagrams, queues outgoing messages into
// KCP, runs its clock and hands complete messages to Receive.
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

#include "Transport.h"
#include "platform/clock.h"
#include "platform/socket.h"
#include "wifi/ikcp.h"

namespace lumo::phonesim {
namespace {

// Outgoing segments in flight or waiting beyond which Send blocks: the phone's encoder then
// falls behind and drops pictures, as over a congested radio, instead of queueing without end.
constexpr int kMaxWaitingSegments = 2048;
constexpr size_t kMaxInbox = 256;

class KcpTransport final : public PhoneTransport {
 public:
  explicit KcpTransport(const PhoneSimOptions& options) : m_options(options) {}
  ~KcpTransport() override {
    Stop();
    if (m_thread.joinable()) m_thread.join();
    CloseSocket(m_socket);
    if (m_kcp != nullptr) ikcp_release(m_kcp);
  }

  bool Open(std::string& error) override {
    if (!NetStartup()) {
      error = "the socket library did not start";
      return false;
    }
    m_socket = OpenUdpSocket();
    Ipv4Endpoint bound;
    if (m_socket == kInvalidSocket || !BindSocket(m_socket, {kIpv4Any, m_options.port}) ||
        !LocalEndpoint(m_socket, bound)) {
      error = "cannot open a UDP socket on port " + std::to_string(m_options.port) + " (error " +
              std::to_string(LastNetError()) + ")";
      return false;
    }
    m_port = bound.port;
    m_kcp = CreateLumoKcp(this, kLumoKcpMode);
    // The PC fixes conv, MTU and message mode; the rest is the phone's own. A sender of live
    // video retransmits early: after 2 later acknowledgements, and with the usual nodelay RTO
    // floor, so that a lost segment costs about one round trip rather than a timer.
    ikcp_nodelay(m_kcp, 1, kLumoKcpInterval, 2, 1);
    m_kcp->rx_minrto = static_cast<int32_t>(IKCP_RTO_NDL);
    ikcp_setoutput(m_kcp, &KcpTransport::Output);
    m_thread = std::thread([this] { Run(); });
    return true;
  }

  // The first link starts at once (the phone speaks first); a dropped WiFi conversation is gone
  // for good: the PC needs a fresh one, which a new simulator run gives it.
  bool WaitForPeer() override {
    std::unique_lock<std::mutex> lock(m_lock);
    if (!m_linkUsed && !m_stopped) {
      m_linkUsed = true;
      return true;
    }
    m_changed.wait(lock, [this] { return m_stopped; });
    return false;
  }

  bool Send(const std::string& frame) override {
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_stopped || m_dropped || m_waiting < kMaxWaitingSegments; });
    if (m_stopped || m_dropped) return false;
    m_outbox.push_back(frame);
    m_waiting += static_cast<int>(frame.size() / kLumoKcpMss + 1);
    Poke();
    return true;
  }

  bool Receive(std::string& frame) override {
    for (;;) {
      std::unique_lock<std::mutex> lock(m_lock);
      m_changed.wait(lock, [this] { return m_stopped || m_dropped || !m_inbox.empty(); });
      if (m_inbox.empty()) return false;
      std::string message = std::move(m_inbox.front());
      m_inbox.pop_front();
      lock.unlock();
      const auto* p = reinterpret_cast<const unsigned char*>(message.data());
      if (message.size() < 5) continue;
      const uint64_t size = static_cast<uint64_t>(p[0]) << 24 | static_cast<uint64_t>(p[1]) << 16 |
                            static_cast<uint64_t>(p[2]) << 8 | p[3];
      if (size + 4 != message.size() || size > kMaxFrameFromPc) continue;  // not a frame: skipped
      frame.assign(message, 4, std::string::npos);
      return true;
    }
  }

  void DropLink() override {
    std::lock_guard<std::mutex> guard(m_lock);
    m_dropped = true;
    m_changed.notify_all();
    Poke();
  }

  void Stop() override {
    std::lock_guard<std::mutex> guard(m_lock);
    m_stopped = true;
    m_changed.notify_all();
    Poke();
  }

  std::string Describe() const override {
    const uint32_t a = m_options.pcAddress;
    char text[64];
    std::snprintf(text, sizeof text, "kcp :%u -> %u.%u.%u.%u:%u", m_port, a >> 24, (a >> 16) & 255, (a >> 8) & 255,
                  a & 255, m_options.pcPort);
    return text;
  }
  uint16_t Port() const override { return m_port; }

 private:
  // Wakes the KCP thread from its socket wait: an empty datagram to ourselves, which the thread
  // reads and ignores (it is not from the PC).
  void Poke() {
    if (m_socket != kInvalidSocket) SendToSocket(m_socket, "", 0, {kIpv4Loopback, m_port});
  }

  static int Output(const char* buf, int len, ikcpcb*, void* user) {
    auto* self = static_cast<KcpTransport*>(user);
    return SendToSocket(self->m_socket, buf, static_cast<size_t>(len), {self->m_options.pcAddress, self->m_options.pcPort});
  }

  void Run() {
    std::vector<unsigned char> datagram(65536);
    std::vector<char> message;
    for (;;) {
      std::deque<std::string> outgoing;
      {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_stopped || m_dropped) return;  // a dropped link goes silent at once
        outgoing.swap(m_outbox);
      }
      for (const std::string& m : outgoing) ikcp_send(m_kcp, m.data(), static_cast<int>(m.size()));
      // Datagrams from anyone but the PC are not ours to read.
      Ipv4Endpoint from;
      bool heard = false;
      while (WaitReadable(m_socket, 0) == NetWait::Readable) {
        const int n = RecvFromSocket(m_socket, datagram.data(), datagram.size(), from);
        if (n > 0 && from.address == m_options.pcAddress && from.port == m_options.pcPort)
          heard |= ikcp_input(m_kcp, reinterpret_cast<const char*>(datagram.data()), n) >= 0;
        if (n < 0) break;
      }
      const uint32_t now = TickCountMs();
      ikcp_update(m_kcp, now);
      // New data or news from the PC leaves at once rather than on the next 10 ms tick: a
      // fresh picture and the retransmissions that acknowledgements call for are never held.
      if (!outgoing.empty() || heard) ikcp_flush(m_kcp);
      for (int size = ikcp_peeksize(m_kcp); size >= 0; size = ikcp_peeksize(m_kcp)) {
        if (size == 0) {  // an empty message would block the queue; it carries no frame
          ikcp_discard(m_kcp);
          continue;
        }
        message.resize(static_cast<size_t>(size));
        if (ikcp_recv(m_kcp, message.data(), size) != size) break;
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_inbox.size() < kMaxInbox) m_inbox.emplace_back(message.data(), message.size());
        m_changed.notify_all();
      }
      {
        std::lock_guard<std::mutex> guard(m_lock);
        m_waiting = ikcp_waitsnd(m_kcp);
        m_changed.notify_all();
        if (!m_outbox.empty()) continue;
      }
      WaitReadable(m_socket, ikcp_check(m_kcp, now) - now);
    }
  }

  const PhoneSimOptions m_options;
  SocketHandle m_socket = kInvalidSocket;
  ikcpcb* m_kcp = nullptr;
  uint16_t m_port = 0;
  std::thread m_thread;
  std::mutex m_lock;
  std::condition_variable m_changed;
  std::deque<std::string> m_outbox, m_inbox;
  int m_waiting = 0;
  bool m_stopped = false, m_dropped = false, m_linkUsed = false;
};

}  // namespace

std::unique_ptr<PhoneTransport> MakeKcpTransport(const PhoneSimOptions& options) {
  return std::make_unique<KcpTransport>(options);
}

}  // namespace lumo::phonesim
