// How frames travel between the simulated phone and the PC. The session and the media threads
// only see whole frames; the transport adds and strips the 4-byte length prefix, or carries
// each frame as one message (KCP). TCP (the Android app behind adb forwarding) is here; other
// transports plug in behind the same interface.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "PhoneSimOptions.h"

namespace lumo::phonesim {

class PhoneTransport {
 public:
  virtual ~PhoneTransport() = default;
  // Opens the local side (binds, listens). False with `error` set.
  virtual bool Open(std::string& error) = 0;
  // Blocks until a PC is there (TCP: accepted one connection). False once Stop was called.
  virtual bool WaitForPeer() = 0;
  // One frame, already carrying its length prefix. Safe from any thread; false when the link
  // is gone.
  virtual bool Send(const std::string& frame) = 0;
  // The next frame from the PC, without its prefix. False when the link is gone or stopped.
  virtual bool Receive(std::string& frame) = 0;
  // Ends the current link (the next WaitForPeer waits for a new one).
  virtual void DropLink() = 0;
  // Ends everything; blocked calls return false. Safe from any thread, and more than once.
  virtual void Stop() = 0;
  // Where the PC should connect, for the status line and the tests ("tcp 127.0.0.1:8182").
  virtual std::string Describe() const = 0;
  virtual uint16_t Port() const = 0;
};

// Frames from the PC are small commands; anything larger is a broken or hostile peer.
constexpr uint32_t kMaxFrameFromPc = 1u << 20;

std::unique_ptr<PhoneTransport> MakeTcpTransport(const PhoneSimOptions& options);
// WiFi: one KCP conversation over UDP to the PC's port; the phone speaks first.
std::unique_ptr<PhoneTransport> MakeKcpTransport(const PhoneSimOptions& options);
// iPhone over USB: a usbmuxd of our own, whose tunnels to the app's ports are the links.
std::unique_ptr<PhoneTransport> MakeUsbmuxTransport(const PhoneSimOptions& options);

}  // namespace lumo::phonesim
