// The adb device. One thread owns the emulator port: it accepts the adb server's connection,
// reads its messages and answers them; a stream the server opens to the app's port becomes the
// simulated app's link, which the session threads then use through Send and Receive. One server
// connection at a time, as a phone has one host; when that server goes away (killed, restarted),
// the next one that scans the emulator ports is accepted.
#include "AdbDevice.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "platform/clock.h"
#include "platform/socket.h"

namespace lumo::phonesim {

namespace {

using namespace adbwire;

// The PC's commands are small. Once this much of them waits unread, the acknowledgement of the
// server's last message is held back until the app reads: a stalled app pushes back on the PC
// as a full socket would.
constexpr size_t kInboundHoldAt = 64 * 1024;
// Frames for the PC queue up to this much before Send waits for the server's acknowledgements.
constexpr size_t kOutboundQueueLimit = 1u << 20;
// A server opens a handful of streams at a time; more than this is a broken or hostile peer.
constexpr size_t kMaxStreams = 64;
constexpr size_t kMaxPendingLinks = 4;
// How often a device without a server tells a running server about itself.
constexpr uint64_t kNotifyEveryUs = 1000000;

// The server splits the banner at ':', ';', '=' and ','; a value carrying one would break it.
std::string BannerValue(const std::string& v) {
  std::string out = v;
  for (char& c : out)
    if (c == ':' || c == ';' || c == '=' || c == ',' || static_cast<unsigned char>(c) < 0x20) c = '_';
  return out;
}

uint32_t Be32(const std::string& s) {
  return static_cast<uint32_t>(static_cast<unsigned char>(s[0])) << 24 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[1])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[2])) << 8 | static_cast<unsigned char>(s[3]);
}

// True when the app has something to read: a whole frame, or a length that ends the link.
bool HoldsFrame(const std::string& in) {
  if (in.size() < 4) return false;
  const uint32_t size = Be32(in);
  return size == 0 || size > kMaxFrameFromPc || in.size() - 4 >= size;
}

bool ParseTcpService(const std::string& service, uint16_t& port) {
  if (service.compare(0, 4, "tcp:") != 0 || service.size() < 5 || service.size() > 9) return false;
  uint32_t value = 0;
  for (size_t i = 4; i < service.size(); ++i) {
    if (service[i] < '0' || service[i] > '9') return false;
    value = value * 10 + static_cast<uint32_t>(service[i] - '0');
  }
  if (value == 0 || value > 65535) return false;
  port = static_cast<uint16_t>(value);
  return true;
}

struct Stream {
  uint32_t localId = 0, remoteId = 0;
  bool link = false;  // a stream to the app's port (else a shell)
  uint16_t port = 0;
  std::string out;    // for the server, not yet written
  bool inFlight = false;          // a WRTE is out and its OKAY has not come back
  bool closeWhenDrained = false;  // a shell: its answer is all queued
  std::string in;     // link: bytes from the PC not yet cut into frames
  bool okayOwed = false;
  bool closed = false;
};
using StreamPtr = std::shared_ptr<Stream>;

class AdbDeviceTransport final : public PhoneTransport {
 public:
  AdbDeviceTransport(const PhoneSimOptions& options, uint32_t maxPayload)
      : m_options(options),
        m_port(options.adbDevicePort != 0 ? options.adbDevicePort : 5555),
        m_maxPayload(std::max(maxPayload, kAdbDeviceMinPayload)) {
    m_serial = "emulator-" + std::to_string(m_port - 1);
    m_banner = "device::ro.product.name=" + BannerValue(options.adbProduct) + ";ro.product.model=" +
               BannerValue(options.adbModel) + ";ro.product.device=" + BannerValue(options.adbDevice) +
               ";features=shell_v2,cmd";
    // Read once here: the device thread must not race a test that changes its environment.
    const char* serverPort = std::getenv("ANDROID_ADB_SERVER_PORT");
    const long parsed = serverPort != nullptr ? std::strtol(serverPort, nullptr, 10) : 0;
    m_serverPort = parsed > 0 && parsed < 65536 ? static_cast<uint16_t>(parsed) : 5037;
  }
  ~AdbDeviceTransport() override {
    Stop();
    CloseSocket(m_listener);
  }

  bool Open(std::string& error) override {
    if (!NetStartup()) {
      error = "the socket library did not start";
      return false;
    }
    m_listener = OpenTcpSocket();
    if (m_listener == kInvalidSocket || !BindSocket(m_listener, {kIpv4Loopback, m_port}) || !ListenSocket(m_listener, 4)) {
      error = "cannot listen on 127.0.0.1:" + std::to_string(m_port) + " for adb (error " + std::to_string(LastNetError()) + ")";
      CloseSocket(m_listener);
      return false;
    }
    m_thread = std::thread([this] { Run(); });
    return true;
  }

  bool WaitForPeer() override {
    std::unique_lock<std::mutex> lock(m_lock);
    m_wake.wait(lock, [&] { return m_stopped || !m_pendingLinks.empty(); });
    if (m_stopped) return false;
    m_link = m_pendingLinks.front();
    m_pendingLinks.pop_front();
    return true;
  }

  bool Send(const std::string& frame) override {
    std::unique_lock<std::mutex> lock(m_lock);
    const StreamPtr link = m_link;
    m_wake.wait(lock, [&] { return m_stopped || !link || link->closed || link->out.size() <= kOutboundQueueLimit; });
    if (m_stopped || !link || link->closed) return false;
    link->out += frame;
    Pump(link);
    return !link->closed;
  }

  bool Receive(std::string& frame) override {
    std::unique_lock<std::mutex> lock(m_lock);
    const StreamPtr link = m_link;
    for (;;) {
      if (m_stopped || !link) return false;
      if (HoldsFrame(link->in)) {
        const uint32_t size = Be32(link->in);
        if (size == 0 || size > kMaxFrameFromPc) return false;
        frame.assign(link->in, 4, size);
        link->in.erase(0, 4 + size);
        if (link->okayOwed && !HoldBack(*link)) {
          link->okayOwed = false;
          if (!link->closed) Write(kOkay, link->localId, link->remoteId);
        }
        return true;
      }
      if (link->closed) return false;
      m_wake.wait(lock);
    }
  }

  void DropLink() override {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_link && !m_link->closed) CloseStream(m_link, true);
  }

  void Stop() override {
    m_stopped = true;
    {
      std::lock_guard<std::mutex> guard(m_connLock);
      if (m_conn != kInvalidSocket) ShutdownSocket(m_conn);  // a blocked read or write returns now
    }
    {
      std::lock_guard<std::mutex> guard(m_lock);
      m_wake.notify_all();
    }
    std::lock_guard<std::mutex> guard(m_joinLock);
    if (m_thread.joinable()) m_thread.join();
  }

  std::string Describe() const override {
    std::lock_guard<std::mutex> guard(m_lock);
    std::string text = "adb " + m_serial + " (port " + std::to_string(m_port) + ")";
    if (m_link && !m_link->closed) text += ", stream tcp:" + std::to_string(m_link->port);
    else text += m_online ? ", adb server connected" : ", no adb server";
    return text;
  }
  uint16_t Port() const override { return m_port; }

 private:
  // The device thread: tells a running server about the device, then serves each server that
  // connects, one after the other, until Stop.
  void Run() {
    uint64_t nextNotifyUs = 0;
    while (!m_stopped) {
      // Real time: this paces talk with another program, not the protocol.
      const uint64_t now = RealClock().PerfCounterUs();
      if (now >= nextNotifyUs) {
        NotifyServer();
        nextNotifyUs = now + kNotifyEveryUs;
      }
      // Woken every 100 ms to notice Stop: a blocked accept cannot be interrupted portably.
      if (WaitReadable(m_listener, 100) != NetWait::Readable) continue;
      SocketHandle s = AcceptSocket(m_listener, nullptr);
      if (s == kInvalidSocket) continue;
      {
        std::lock_guard<std::mutex> guard(m_lock);
        std::lock_guard<std::mutex> connGuard(m_connLock);
        m_conn = s;
      }
      if (!m_stopped) Serve();
      EndConnection();
      nextNotifyUs = RealClock().PerfCounterUs() + kNotifyEveryUs;
    }
  }

  // A server started before this device scanned the emulator ports without finding it; asking
  // it to connect ("host:emulator:PORT") is how an emulator announces itself.
  void NotifyServer() {
    SocketHandle s = OpenTcpSocket();
    if (s != kInvalidSocket && ConnectSocket(s, {kIpv4Loopback, m_serverPort})) {
      const std::string request = "host:emulator:" + std::to_string(m_port);
      char length[8];
      std::snprintf(length, sizeof length, "%04x", static_cast<unsigned>(request.size()));
      const std::string message = length + request;
      SendSocket(s, message.data(), message.size());  // the server answers nothing
    }
    CloseSocket(s);
  }

  void Serve() {
    std::string data;
    for (;;) {
      unsigned char bytes[kHeaderSize];
      if (RecvSocket(m_conn, bytes, kHeaderSize, true) != static_cast<int>(kHeaderSize)) return;
      const Header h = DecodeHeader(bytes);
      // A message that is not one ends the connection, as a device does; its length is
      // believed only up to what this device said it takes.
      if (h.magic != (h.command ^ 0xFFFFFFFFu) || h.length > m_maxPayload) return;
      data.resize(h.length);
      if (h.length > 0 && RecvSocket(m_conn, &data[0], h.length, true) != static_cast<int>(h.length)) return;
      std::lock_guard<std::mutex> guard(m_lock);
      if (!Handle(h, data)) return;
    }
  }

  void EndConnection() {
    std::lock_guard<std::mutex> guard(m_lock);
    CloseAllStreams();
    m_online = false;
    std::lock_guard<std::mutex> connGuard(m_connLock);
    CloseSocket(m_conn);
  }

  // With m_lock held. False ends the connection.
  bool Handle(const Header& h, const std::string& data) {
    if (h.command == kCnxn) {
      // A server that connects again on the same socket starts over: its old streams are gone.
      CloseAllStreams();
      m_online = true;
      m_outMax = std::max<uint32_t>(256, std::min(h.arg1, m_maxPayload));
      return Write(kCnxn, kVersion, m_maxPayload, m_banner.data(), m_banner.size());
    }
    if (!m_online) return false;  // nothing but CNXN is valid before CNXN
    if (h.command == kOpen) {
      OpenStream(h.arg0, data.substr(0, data.find('\0')));
    } else if (h.command == kOkay) {
      const StreamPtr s = Find(h.arg1, h.arg0);
      if (s && s->inFlight) {
        s->inFlight = false;
        Pump(s);
        m_wake.notify_all();  // Send may be waiting for room
      }
    } else if (h.command == kWrte) {
      const StreamPtr s = Find(h.arg1, h.arg0);
      if (s) Received(s, data);
    } else if (h.command == kClse) {
      // Old servers close with a zero remote id.
      auto it = m_streams.find(h.arg1);
      if (it != m_streams.end() && (h.arg0 == 0 || h.arg0 == it->second->remoteId)) CloseStream(it->second, false);
    }
    // Anything else (SYNC, AUTH unasked) means nothing to this device and is ignored.
    return true;
  }

  void OpenStream(uint32_t remoteId, const std::string& service) {
    if (remoteId == 0) return;
    uint16_t port = 0;
    std::string answer;
    if (m_streams.size() < kMaxStreams && AnswerShellService(service, m_options, answer)) {
      const StreamPtr s = NewStream(remoteId);
      s->out = std::move(answer);
      s->closeWhenDrained = true;
      if (Write(kOkay, s->localId, remoteId)) Pump(s);
      return;
    }
    // The app listens only while it is installed and running; otherwise nothing is there.
    const bool appListens = m_options.appInstalled && m_options.appRunning;
    if (m_streams.size() < kMaxStreams && m_pendingLinks.size() < kMaxPendingLinks && appListens &&
        ParseTcpService(service, port) && (port == kAppPort || port == kAppPortContentType1)) {
      const StreamPtr s = NewStream(remoteId);
      s->link = true;
      s->port = port;
      if (!Write(kOkay, s->localId, remoteId)) return;
      m_pendingLinks.push_back(s);
      m_wake.notify_all();
      return;
    }
    Write(kClse, 0, remoteId);
  }

  void Received(const StreamPtr& s, const std::string& data) {
    if (!s->link) {
      Write(kOkay, s->localId, s->remoteId);  // the shell's input: nothing reads it
      return;
    }
    // A server that ignores held-back acknowledgements would grow this without bound.
    if (s->in.size() + data.size() > kInboundHoldAt + kMaxFrameFromPc + 4 + m_maxPayload) {
      CloseStream(s, true);
      return;
    }
    s->in += data;
    if (HoldBack(*s)) s->okayOwed = true;
    else Write(kOkay, s->localId, s->remoteId);
    m_wake.notify_all();
  }

  static bool HoldBack(const Stream& s) { return s.in.size() >= kInboundHoldAt && HoldsFrame(s.in); }

  StreamPtr NewStream(uint32_t remoteId) {
    auto s = std::make_shared<Stream>();
    if (++m_nextId == 0) ++m_nextId;
    s->localId = m_nextId;
    s->remoteId = remoteId;
    m_streams[s->localId] = s;
    return s;
  }

  StreamPtr Find(uint32_t localId, uint32_t remoteId) {
    auto it = m_streams.find(localId);
    return it != m_streams.end() && it->second->remoteId == remoteId ? it->second : nullptr;
  }

  // One message at a time for each stream: the next WRTE leaves when the last one's OKAY came.
  void Pump(const StreamPtr& s) {
    if (s->inFlight || s->closed) return;
    if (!s->out.empty()) {
      const size_t n = std::min<size_t>(s->out.size(), m_outMax);
      s->inFlight = true;
      if (Write(kWrte, s->localId, s->remoteId, s->out.data(), n)) s->out.erase(0, n);
      return;
    }
    if (s->closeWhenDrained) CloseStream(s, true);
  }

  void CloseStream(const StreamPtr& s, bool tellServer) {
    if (tellServer && !s->closed) Write(kClse, s->localId, s->remoteId);
    s->closed = true;
    m_streams.erase(s->localId);
    m_pendingLinks.erase(std::remove(m_pendingLinks.begin(), m_pendingLinks.end(), s), m_pendingLinks.end());
    m_wake.notify_all();
  }

  // The server is gone or starts over: every stream ends as a pulled cable ends it.
  void CloseAllStreams() {
    for (auto& entry : m_streams) entry.second->closed = true;
    m_streams.clear();
    m_pendingLinks.clear();
    m_wake.notify_all();
  }

  // With m_lock held, which also keeps messages whole and in order. A failed write shuts the
  // connection down; the device thread then ends it.
  bool Write(uint32_t command, uint32_t arg0, uint32_t arg1, const char* data = nullptr, size_t size = 0) {
    if (m_conn == kInvalidSocket) return false;
    m_writeBuffer.clear();
    AppendMessage(m_writeBuffer, command, arg0, arg1, data, size);
    size_t done = 0;
    while (done < m_writeBuffer.size()) {
      const int n = SendSocket(m_conn, m_writeBuffer.data() + done, m_writeBuffer.size() - done);
      if (n <= 0) {
        ShutdownSocket(m_conn);
        return false;
      }
      done += static_cast<size_t>(n);
    }
    return true;
  }

  const PhoneSimOptions m_options;
  const uint16_t m_port;
  const uint32_t m_maxPayload;
  std::string m_serial, m_banner;
  uint16_t m_serverPort = 5037;

  SocketHandle m_listener = kInvalidSocket;
  std::thread m_thread;
  std::mutex m_joinLock;
  std::atomic<bool> m_stopped{false};

  // m_lock guards everything below and keeps writes on the connection whole; m_connLock guards
  // only the handle, so that Stop can shut it down while a write holds m_lock.
  mutable std::mutex m_lock;
  std::mutex m_connLock;
  std::condition_variable m_wake;
  SocketHandle m_conn = kInvalidSocket;
  bool m_online = false;
  uint32_t m_outMax = kAdbDeviceMinPayload;
  uint32_t m_nextId = 0;
  std::map<uint32_t, StreamPtr> m_streams;
  std::deque<StreamPtr> m_pendingLinks;
  StreamPtr m_link;
  std::string m_writeBuffer;
};

}  // namespace

std::unique_ptr<PhoneTransport> MakeAdbDeviceTransport(const PhoneSimOptions& options, uint32_t maxPayload) {
  return std::make_unique<AdbDeviceTransport>(options, maxPayload);
}

}  // namespace lumo::phonesim
