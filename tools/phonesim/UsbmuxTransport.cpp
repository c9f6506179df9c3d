// The app's side of an iPhone link: tunnels that the simulated usbmuxd opened to the app's
// ports, one link at a time, with the outer framing the PC's usbmux receiver expects.
#include "Usbmuxd.h"

namespace lumo::phonesim {
namespace {

constexpr size_t kOuterHeader = 16;

void PutBe32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}
uint32_t Be32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 | p[3];
}

bool SendAll(SocketHandle s, const void* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const int n = SendSocket(s, static_cast<const char*>(data) + done, size - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

UsbmuxTransport::UsbmuxTransport(const PhoneSimOptions& options) : m_options(options), m_daemon(options) {}

UsbmuxTransport::~UsbmuxTransport() {
  Stop();
  std::lock_guard<std::mutex> guard(m_linkLock);
  m_daemon.CloseTunnel(m_link);
}

bool UsbmuxTransport::Open(std::string& error) {
  if (m_options.usbmuxdAddress.empty()) {
    error = "no usbmuxd address (a socket path or A.B.C.D:PORT)";
    return false;
  }
  return m_daemon.Open(error);
}

bool UsbmuxTransport::WaitForPeer() {
  {
    std::lock_guard<std::mutex> guard(m_linkLock);
    m_daemon.CloseTunnel(m_link);  // the previous link's threads have all returned by now
  }
  SocketHandle tunnel = kInvalidSocket;
  std::string udid;
  if (!m_daemon.TakeAppTunnel(tunnel, udid)) return false;
  std::lock_guard<std::mutex> guard(m_linkLock);
  m_link = tunnel;
  return true;
}

SocketHandle UsbmuxTransport::Link() {
  std::lock_guard<std::mutex> guard(m_linkLock);
  return m_link;
}

bool UsbmuxTransport::Send(const std::string& frame) {
  // The session's frame already starts with its 4-byte big-endian size, which is exactly the
  // body's "real size" word: the body is the frame as it stands, behind the outer header.
  if (frame.size() < 4) return false;
  unsigned char header[kOuterHeader];
  PutBe32(header, 1);
  PutBe32(header + 4, 101);
  PutBe32(header + 8, 0);
  PutBe32(header + 12, static_cast<uint32_t>(frame.size()));
  std::lock_guard<std::mutex> guard(m_sendLock);
  const SocketHandle s = Link();
  return s != kInvalidSocket && SendAll(s, header, sizeof header) && SendAll(s, frame.data(), frame.size());
}

bool UsbmuxTransport::Receive(std::string& frame) {
  std::string body;
  for (;;) {
    const SocketHandle s = Link();
    unsigned char header[kOuterHeader];
    if (s == kInvalidSocket || RecvSocket(s, header, sizeof header, true) != static_cast<int>(sizeof header)) return false;
    const uint32_t size = Be32(header + 12);
    // Past the bound the length cannot be trusted to find the next header: the link is done.
    if (size > kMaxFrameFromPc + 4) return false;
    body.resize(size);
    if (size > 0 && RecvSocket(s, &body[0], size, true) != static_cast<int>(size)) return false;
    // The PC's frame carries its own size first; a body whose size disagrees is not a frame,
    // and is skipped (the stream stays in step: the outer header said how long it was).
    if (size < 5 || Be32(reinterpret_cast<const unsigned char*>(body.data())) != size - 4) continue;
    frame.assign(body, 4, std::string::npos);
    return true;
  }
}

void UsbmuxTransport::DropLink() {
  std::lock_guard<std::mutex> guard(m_linkLock);
  // Shut down, not closed: a thread blocked in Receive on it returns at once, and the tunnel is
  // closed by the next WaitForPeer or by the destructor.
  ShutdownSocket(m_link);
}

void UsbmuxTransport::Stop() {
  m_daemon.Stop();
  DropLink();
}

std::string UsbmuxTransport::Describe() const {
  std::string udids;
  for (const std::string& udid : m_daemon.AttachedUdids()) udids += (udids.empty() ? "" : " ") + udid;
  return "usbmux " + m_daemon.Address() + ", " + (udids.empty() ? "no device attached" : udids) + " port " +
         std::to_string(kIosAppPort) + "/" + std::to_string(kIosAppPortContent1);
}

std::unique_ptr<PhoneTransport> MakeUsbmuxTransport(const PhoneSimOptions& options) {
  return std::make_unique<UsbmuxTransport>(options);
}

}  // namespace lumo::phonesim
