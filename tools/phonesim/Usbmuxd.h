// The simulated iPhone over USB: a usbmuxd that a PC's libimobiledevice finds through
// USBMUXD_SOCKET_ADDRESS, with one device per UDID, and the app's side of the link reached
// through it. The daemon speaks the plist protocol (a 16-byte little-endian header: length with
// the header, version 1, message 8, tag; then an XML property list): ListDevices, Listen with
// Attached/Detached events, Connect (the connection then becomes a raw tunnel to the device
// port), ReadBUID and the pair-record requests. On the device, port 62078 is lockdown, and ports
// 2345 and 2346 are the camera app, whose tunnels the transport serves as its links.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Lockdownd.h"
#include "Transport.h"

namespace lumo::phonesim {

constexpr uint16_t kIosAppPort = 2345, kIosAppPortContent1 = 2346;
constexpr const char* kDefaultIosUdid = "00008110-001A2B3C4D5E6F70";

class UsbmuxDaemon {
 public:
  explicit UsbmuxDaemon(const PhoneSimOptions& options);
  ~UsbmuxDaemon();
  UsbmuxDaemon(const UsbmuxDaemon&) = delete;
  UsbmuxDaemon& operator=(const UsbmuxDaemon&) = delete;

  // Listens at the options' address (a UNIX socket path, "UNIX:/path", or "A.B.C.D:PORT" with
  // port 0 for a free one) and starts serving clients. False with `error` set.
  bool Open(std::string& error);
  // Ends every client and tunnel and joins every thread; safe more than once.
  void Stop();

  // What a PC puts in USBMUXD_SOCKET_ADDRESS to find us ("UNIX:/path" or "127.0.0.1:PORT").
  std::string Address() const;
  // The UDIDs plugged in now, in the order they were configured.
  std::vector<std::string> AttachedUdids() const;

  // Unplugs the device (empty: every device): it leaves the list, listeners hear Detached, and
  // its tunnels close. False when no attached device matched.
  bool Detach(const std::string& udid);
  // Plugs it back in under a new DeviceID, as a real daemon numbers a device on every plug.
  bool Attach(const std::string& udid);

  // The next tunnel a PC opened to the app's ports, in order; blocks until there is one. False
  // once stopped. The tunnel stays registered (a Detach shuts it down) until CloseTunnel.
  bool TakeAppTunnel(SocketHandle& tunnel, std::string& udid);
  void CloseTunnel(SocketHandle& tunnel);

 private:
  struct Device {
    std::string udid;
    LockdownIdentity identity;
    uint32_t id = 0;
    bool attached = true;
  };
  struct Client {
    SocketHandle socket = kInvalidSocket;  // guarded by both sendLock and m_lock; either may read it
    std::mutex sendLock;                   // whole messages: answers and events never interleave
    std::thread thread;
    std::atomic<bool> done{false};
  };
  struct Tunnel {
    SocketHandle socket;
    uint32_t deviceId;
  };
  enum class Next { Read, Close, HandedOver };

  void AcceptLoop();
  void ServeClient(const std::shared_ptr<Client>& client);
  Next Handle(const std::shared_ptr<Client>& client, uint32_t tag, const std::string& body);
  Next Connect(const std::shared_ptr<Client>& client, uint32_t tag, uint64_t deviceId, uint64_t port);
  void Broadcast(const std::string& message);
  const Device* FindLocked(uint32_t id) const;

  const PhoneSimOptions m_options;
  std::string m_localPath;  // empty when listening on TCP
  bool m_ownsSocketFile = false;
  uint16_t m_tcpPort = 0;
  SocketHandle m_listener = kInvalidSocket;
  std::thread m_acceptThread;
  std::mutex m_stopLock;  // one Stop joins at a time

  mutable std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_stopped = false;
  std::vector<Device> m_devices;
  uint32_t m_nextId = 0;
  std::list<std::shared_ptr<Client>> m_clients;
  std::vector<std::shared_ptr<Client>> m_listeners;
  std::map<SocketHandle, uint32_t> m_tunnels;  // open tunnels and the device each goes to
  std::deque<Tunnel> m_appTunnels;            // opened, not yet taken by the transport
  std::mutex m_eventLock;                      // events reach every listener in the order they happened
};

// The app's side over usbmux: each tunnel to port 2345 or 2346 is one link. Phone to PC, a frame
// travels as a 16-byte header of four big-endian words (1, 101, 0, body length) and a body of the
// frame's 4-byte big-endian size and the frame; PC to phone, the same header and the frame as
// the PC built it, its own 4-byte size in front.
class UsbmuxTransport final : public PhoneTransport {
 public:
  explicit UsbmuxTransport(const PhoneSimOptions& options);
  ~UsbmuxTransport() override;

  bool Open(std::string& error) override;
  bool WaitForPeer() override;
  bool Send(const std::string& frame) override;
  bool Receive(std::string& frame) override;
  void DropLink() override;
  void Stop() override;
  std::string Describe() const override;
  uint16_t Port() const override { return kIosAppPort; }

  UsbmuxDaemon& Daemon() { return m_daemon; }

 private:
  SocketHandle Link();

  const PhoneSimOptions m_options;
  UsbmuxDaemon m_daemon;
  std::mutex m_linkLock, m_sendLock;
  SocketHandle m_link = kInvalidSocket;
};

}  // namespace lumo::phonesim
