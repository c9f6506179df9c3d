// The simulated phone as a whole: a transport, the protocol session, the camera with its
// encoder and the microphone with its encoder, each link served by three threads (receive,
// video, control: pings, reports, scenario and audio). Used by `lumo-phonesim`, the tests, the
// benchmarks and the reference host's demo.
#pragma once

#include <atomic>
#include <functional>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "PhoneSession.h"
#include "Transport.h"

namespace lumo::phonesim {

struct PhoneSimStatus {
  std::string state;
  std::string transport;
  SessionCounters counters;
  double fps = 0;        // video frames sent per second since the previous status
  uint64_t links = 0;    // links served so far
  std::string lastError;
};

class PhoneSim {
 public:
  // Without a transport, the one named in the options is made.
  explicit PhoneSim(const PhoneSimOptions& options, std::unique_ptr<PhoneTransport> transport = nullptr);
  ~PhoneSim();
  PhoneSim(const PhoneSim&) = delete;
  PhoneSim& operator=(const PhoneSim&) = delete;

  // Opens the transport and starts serving links. False with `error` set.
  bool Start(std::string& error);
  // Ends the link and every thread; safe more than once.
  void Stop();
  uint16_t Port() const;
  PhoneSimStatus Status();
  PhoneSession& Session() { return m_session; }
  // Sees every frame the transport accepted, in order (tests compare it with what arrived).
  // Set before Start.
  void SetSendTap(std::function<void(const std::string& frame)> tap) { m_tap = std::move(tap); }

 private:
  void ServeLinks();
  void VideoLoop();
  void ControlLoop();
  bool LinkStopping();
  void Wake();

  const PhoneSimOptions m_options;
  std::unique_ptr<PhoneTransport> m_transport;
  std::function<void(const std::string&)> m_tap;
  PhoneSession m_session;
  std::thread m_linkThread;
  std::atomic<bool> m_stopped{false};
  std::atomic<uint64_t> m_links{0};

  std::mutex m_wakeLock;
  std::condition_variable m_wake;
  bool m_linkStop = false;
  uint64_t m_wakeCount = 0;  // bumped by every Wake, so a waiter can tell it was woken

  std::mutex m_statusLock;
  std::string m_lastError;
  uint64_t m_statusFrames = 0, m_statusUs = 0;
};

}  // namespace lumo::phonesim
