#include "Usbmuxd.h"

#include <algorithm>
#include <cstdio>

#include "LocalSocket.h"
#include "UsbmuxPackets.h"

namespace lumo::phonesim {
namespace {

using namespace usbmux;

// Requests are a few hundred bytes; a saved pair record a few KB. Anything far beyond is not a
// request, and its length cannot be trusted to skip it.
constexpr uint32_t kMaxRequest = 256 * 1024;
constexpr size_t kMaxClients = 32;
constexpr size_t kMaxWaitingAppTunnels = 4;  // like a listen backlog: more are refused
constexpr uint32_t kClientSendTimeoutMs = 2000;

bool SendAll(SocketHandle s, const std::string& bytes) {
  size_t done = 0;
  while (s != kInvalidSocket && done < bytes.size()) {
    const int n = SendSocket(s, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return s != kInvalidSocket;
}

// "13" is how an Android phone reports its system; lockdown clients want at least major.minor
// (and take anything below 7.0 for a phone that needs its pairing validated).
std::string ProductVersion(const std::string& sysVer) {
  return sysVer.find('.') == std::string::npos ? sysVer + ".0" : sysVer;
}

}  // namespace

UsbmuxDaemon::UsbmuxDaemon(const PhoneSimOptions& options) : m_options(options) {
  std::vector<std::string> udids = options.udids;
  if (udids.empty()) udids.push_back(kDefaultIosUdid);
  for (size_t i = 0; i < udids.size(); ++i) {
    Device d;
    d.udid = udids[i];
    d.id = ++m_nextId;
    // Several phones of one name would be told apart by their UDIDs only; numbering them as a
    // person naming their phones would keeps a device list readable.
    d.identity = {udids[i], i == 0 ? options.iosDeviceName : options.iosDeviceName + " " + std::to_string(i + 1),
                  options.iosProductType, ProductVersion(options.sysVer)};
    m_devices.push_back(d);
  }
}

UsbmuxDaemon::~UsbmuxDaemon() {
  Stop();
  std::lock_guard<std::mutex> guard(m_lock);
  for (auto& t : m_tunnels) {
    SocketHandle s = t.first;
    CloseSocket(s);
  }
  m_tunnels.clear();
  m_appTunnels.clear();
}

bool UsbmuxDaemon::Open(std::string& error) {
  std::string address = m_options.usbmuxdAddress;
  if (address.compare(0, 5, "UNIX:") == 0) address.erase(0, 5);
  unsigned a, b, c, d, port;
  char tail;
  if (address.find('/') != std::string::npos) {
    m_listener = ListenLocal(address, error);
    if (m_listener == kInvalidSocket) return false;
    m_localPath = address;
    m_ownsSocketFile = true;
  } else if (std::sscanf(address.c_str(), "%u.%u.%u.%u:%u%c", &a, &b, &c, &d, &port, &tail) == 5 && a < 256 &&
             b < 256 && c < 256 && d < 256 && port < 65536) {
    Ipv4Endpoint bound;
    NetStartup();
    m_listener = OpenTcpSocket();
    if (m_listener == kInvalidSocket || !BindSocket(m_listener, {a << 24 | b << 16 | c << 8 | d, static_cast<uint16_t>(port)}) ||
        !ListenSocket(m_listener, 16) || !LocalEndpoint(m_listener, bound)) {
      error = "cannot listen on " + address + " (error " + std::to_string(LastNetError()) + ")";
      CloseSocket(m_listener);
      return false;
    }
    m_tcpPort = bound.port;
  } else {
    error = "the usbmuxd address \"" + m_options.usbmuxdAddress + "\" is neither a socket path nor A.B.C.D:PORT";
    return false;
  }
  m_acceptThread = std::thread([this] { AcceptLoop(); });
  return true;
}

void UsbmuxDaemon::Stop() {
  std::lock_guard<std::mutex> stopping(m_stopLock);
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_stopped = true;
    for (const auto& c : m_clients) ShutdownSocket(c->socket);
    for (const auto& t : m_tunnels) ShutdownSocket(t.first);
  }
  m_changed.notify_all();
  if (m_acceptThread.joinable()) m_acceptThread.join();
  std::list<std::shared_ptr<Client>> clients;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    clients.swap(m_clients);
  }
  for (const auto& c : clients)
    if (c->thread.joinable()) c->thread.join();
  CloseSocket(m_listener);
  // Once only: by a second Stop the path may belong to another simulator.
  if (m_ownsSocketFile) RemoveLocalSocketFile(m_localPath);
  m_ownsSocketFile = false;
}

std::string UsbmuxDaemon::Address() const {
  if (!m_localPath.empty()) return "UNIX:" + m_localPath;
  if (m_tcpPort == 0) return m_options.usbmuxdAddress;
  const std::string& a = m_options.usbmuxdAddress;
  return a.substr(0, a.rfind(':')) + ":" + std::to_string(m_tcpPort);
}

std::vector<std::string> UsbmuxDaemon::AttachedUdids() const {
  std::lock_guard<std::mutex> guard(m_lock);
  std::vector<std::string> udids;
  for (const Device& d : m_devices)
    if (d.attached) udids.push_back(d.udid);
  return udids;
}

const UsbmuxDaemon::Device* UsbmuxDaemon::FindLocked(uint32_t id) const {
  for (const Device& d : m_devices)
    if (d.attached && d.id == id) return &d;
  return nullptr;
}

void UsbmuxDaemon::AcceptLoop() {
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(m_lock);
      if (m_stopped) return;
    }
    // Woken every 100 ms to notice Stop: a blocked accept cannot be interrupted portably.
    if (WaitReadable(m_listener, 100) != NetWait::Readable) continue;
    SocketHandle s = AcceptSocket(m_listener, nullptr);
    if (s == kInvalidSocket) continue;
    SetSendTimeout(s, kClientSendTimeoutMs);
    std::vector<std::shared_ptr<Client>> finished;
    {
      std::lock_guard<std::mutex> guard(m_lock);
      for (auto it = m_clients.begin(); it != m_clients.end();) {
        if ((*it)->done) {
          finished.push_back(*it);
          it = m_clients.erase(it);
        } else {
          ++it;
        }
      }
      if (m_stopped || m_clients.size() >= kMaxClients) {
        CloseSocket(s);
      } else {
        auto client = std::make_shared<Client>();
        client->socket = s;
        client->thread = std::thread([this, client] { ServeClient(client); });
        m_clients.push_back(client);
      }
    }
    for (const auto& c : finished) c->thread.join();
  }
}

void UsbmuxDaemon::ServeClient(const std::shared_ptr<Client>& client) {
  // Only this thread changes client->socket, so it reads it without a lock.
  std::string body;
  for (Next next = Next::Read; next == Next::Read;) {
    unsigned char header[kHeaderSize];
    if (RecvSocket(client->socket, header, kHeaderSize, true) != static_cast<int>(kHeaderSize)) break;
    const uint32_t length = Le32(header), version = Le32(header + 4), message = Le32(header + 8),
                   tag = Le32(header + 12);
    if (length < kHeaderSize || length > kMaxRequest) break;
    body.assign(length - kHeaderSize, '\0');
    if (!body.empty() && RecvSocket(client->socket, &body[0], body.size(), true) != static_cast<int>(body.size())) break;
    if (version != 1 || message != kPlistMessage) {
      std::lock_guard<std::mutex> send(client->sendLock);
      next = SendAll(client->socket, BinaryResultPacket(tag, kResultBadCommand)) ? Next::Read : Next::Close;
    } else {
      next = Handle(client, tag, body);
    }
  }
  {
    std::lock_guard<std::mutex> send(client->sendLock);
    std::lock_guard<std::mutex> guard(m_lock);
    m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), client), m_listeners.end());
    if (client->socket != kInvalidSocket) {
      m_tunnels.erase(client->socket);
      CloseSocket(client->socket);
    }
  }
  client->done = true;
}

UsbmuxDaemon::Next UsbmuxDaemon::Handle(const std::shared_ptr<Client>& client, uint32_t tag, const std::string& body) {
  const Plist request = ParsePlist(body);
  std::string type;
  StringAt(request, "MessageType", type);
  auto reply = [&](const std::string& packet) {
    std::lock_guard<std::mutex> send(client->sendLock);
    return SendAll(client->socket, packet) ? Next::Read : Next::Close;
  };

  if (type == "ListDevices") {
    // The answer carries no MessageType: that is how a client tells it from a result or an event.
    Plist answer = NewDict();
    plist_t list = plist_new_array();
    {
      std::lock_guard<std::mutex> guard(m_lock);
      for (const Device& d : m_devices)
        if (d.attached) plist_array_append_item(list, AttachedEntry(d.id, d.udid));
    }
    Set(answer, "DeviceList", list);
    return reply(Packet(tag, answer));
  }
  if (type == "Listen") {
    // The result and the devices present come before any later event: the send lock is held
    // from before this listener becomes visible to Detach and Attach until they are out.
    std::lock_guard<std::mutex> send(client->sendLock);
    std::vector<Device> present;
    {
      std::lock_guard<std::mutex> guard(m_lock);
      for (const Device& d : m_devices)
        if (d.attached) present.push_back(d);
      if (std::find(m_listeners.begin(), m_listeners.end(), client) == m_listeners.end()) m_listeners.push_back(client);
    }
    bool ok = SendAll(client->socket, ResultPacket(tag, kResultOk));
    for (const Device& d : present) ok = ok && SendAll(client->socket, AttachedPacket(d.id, d.udid));
    return ok ? Next::Read : Next::Close;
  }
  if (type == "Connect") {
    uint64_t id = 0, port = 0;
    if (!UintAt(request, "DeviceID", id) || !UintAt(request, "PortNumber", port) || port > 0xFFFF || id > 0xFFFFFFFFu)
      return reply(ResultPacket(tag, kResultBadCommand));
    return Connect(client, tag, id, port);
  }
  if (type == "ReadBUID") {
    Plist answer = NewDict();
    SetString(answer, "BUID", kSystemBuid);
    return reply(Packet(tag, answer));
  }
  if (type == "ReadPairRecord") {
    std::string udid;
    bool known = false;
    if (StringAt(request, "PairRecordID", udid)) {
      std::lock_guard<std::mutex> guard(m_lock);
      known = std::any_of(m_devices.begin(), m_devices.end(), [&](const Device& d) { return d.udid == udid; });
    }
    return reply(known ? PairRecordPacket(tag) : ResultPacket(tag, kResultBadDevice));
  }
  if (type == "SavePairRecord" || type == "DeletePairRecord") {
    // Accepted and forgotten: this phone never asks for a pairing.
    return reply(ResultPacket(tag, kResultOk));
  }
  return reply(ResultPacket(tag, kResultBadCommand));
}

UsbmuxDaemon::Next UsbmuxDaemon::Connect(const std::shared_ptr<Client>& client, uint32_t tag, uint64_t deviceId,
                                         uint64_t portNumber) {
  // The port comes in network byte order inside the number.
  const uint16_t port = static_cast<uint16_t>((portNumber & 0xFF) << 8 | (portNumber >> 8 & 0xFF));
  const uint32_t id = static_cast<uint32_t>(deviceId);
  std::unique_lock<std::mutex> send(client->sendLock);
  std::unique_lock<std::mutex> lock(m_lock);
  const Device* device = FindLocked(id);
  const bool listening = std::find(m_listeners.begin(), m_listeners.end(), client) != m_listeners.end();
  const bool app = port == kIosAppPort || port == kIosAppPortContent1;
  uint32_t result = kResultOk;
  if (listening) result = kResultBadCommand;  // its events would land in the tunnel
  else if (device == nullptr) result = kResultBadDevice;
  else if (port != kLockdownPort && (!app || m_appTunnels.size() >= kMaxWaitingAppTunnels)) result = kResultRefused;
  if (result != kResultOk) {
    lock.unlock();
    return SendAll(client->socket, ResultPacket(tag, result)) ? Next::Read : Next::Close;
  }
  const LockdownIdentity who = device->identity;
  // Registered before the answer leaves, so that a Detach from now on ends this tunnel too.
  m_tunnels[client->socket] = id;
  lock.unlock();
  if (!SendAll(client->socket, ResultPacket(tag, kResultOk))) return Next::Close;
  send.unlock();
  if (!app) {
    ServeLockdown(client->socket, who);
    return Next::Close;
  }
  send.lock();
  lock.lock();
  if (m_stopped || FindLocked(id) == nullptr) return Next::Close;  // unplugged in between
  // The transport takes the tunnel from here; this thread's part is done. Its sends block as on
  // any link whose reader falls behind: a time-out could cut a frame in half.
  SetSendTimeout(client->socket, 0);
  m_appTunnels.push_back(Tunnel{client->socket, id});
  client->socket = kInvalidSocket;
  m_changed.notify_all();
  return Next::HandedOver;
}

bool UsbmuxDaemon::TakeAppTunnel(SocketHandle& tunnel, std::string& udid) {
  std::unique_lock<std::mutex> lock(m_lock);
  m_changed.wait(lock, [this] { return m_stopped || !m_appTunnels.empty(); });
  if (m_stopped) return false;
  const Tunnel t = m_appTunnels.front();
  m_appTunnels.pop_front();
  tunnel = t.socket;
  udid.clear();
  for (const Device& d : m_devices)
    if (d.id == t.deviceId) udid = d.udid;
  return true;
}

void UsbmuxDaemon::CloseTunnel(SocketHandle& tunnel) {
  std::lock_guard<std::mutex> guard(m_lock);
  if (tunnel == kInvalidSocket) return;
  m_tunnels.erase(tunnel);
  CloseSocket(tunnel);
}

void UsbmuxDaemon::Broadcast(const std::string& message) {
  std::vector<std::shared_ptr<Client>> listeners;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    listeners = m_listeners;
  }
  // A listener that cannot take the event is left to its own thread, which sees the broken link.
  for (const auto& l : listeners) {
    std::lock_guard<std::mutex> send(l->sendLock);
    SendAll(l->socket, message);
  }
}

bool UsbmuxDaemon::Detach(const std::string& udid) {
  std::lock_guard<std::mutex> events(m_eventLock);
  std::vector<uint32_t> ids;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    for (Device& d : m_devices) {
      if (!d.attached || (!udid.empty() && d.udid != udid)) continue;
      d.attached = false;
      ids.push_back(d.id);
    }
    auto gone = [&](uint32_t id) { return std::find(ids.begin(), ids.end(), id) != ids.end(); };
    // Pulling the cable ends every tunnel to the device; shut down, not closed, as their
    // owners may be blocked on them.
    for (const auto& t : m_tunnels)
      if (gone(t.second)) ShutdownSocket(t.first);
    for (auto it = m_appTunnels.begin(); it != m_appTunnels.end();) {
      if (!gone(it->deviceId)) {
        ++it;
        continue;
      }
      m_tunnels.erase(it->socket);
      CloseSocket(it->socket);
      it = m_appTunnels.erase(it);
    }
  }
  for (uint32_t id : ids) Broadcast(DetachedPacket(id));
  return !ids.empty();
}

bool UsbmuxDaemon::Attach(const std::string& udid) {
  std::lock_guard<std::mutex> events(m_eventLock);
  std::vector<std::pair<uint32_t, std::string>> plugged;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    for (Device& d : m_devices) {
      if (d.attached || (!udid.empty() && d.udid != udid)) continue;
      d.attached = true;
      d.id = ++m_nextId;
      plugged.emplace_back(d.id, d.udid);
    }
  }
  for (const auto& p : plugged) Broadcast(AttachedPacket(p.first, p.second));
  return !plugged.empty();
}

}  // namespace lumo::phonesim
