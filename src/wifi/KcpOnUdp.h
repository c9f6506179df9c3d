// The WiFi endpoint: one UDP socket on port 10099 and one KCP conversation over it. Datagrams
// are received on their own thread(s) (an event-driven socket, or a completion port with a pool
// of workers) and only queued there; a single update thread feeds them into KCP, delivers whole
// messages to the handler, pushes queued outgoing messages into KCP and runs its clock, so KCP
// itself needs no lock. KCP's output goes to the address of the last datagram received.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/PhoneCameraTypes.h"
#include "host/WorkerThread.h"
#include "platform/socket.h"
#include "platform/udp_io.h"
#include "wifi/ikcp.h"

class CPhoneCameraCtrl;

class KcpOnUdp {
 public:
  static constexpr uint16_t kPort = 10099;
  static constexpr size_t kMessageBufferSize = 614400;
  static constexpr uintptr_t kCompletionKey = 10;
  // Datagrams waiting for the update thread, in bytes (a few seconds of 8 Mbit/s video).
  static constexpr size_t kMaxQueuedReceiveBytes = 32u << 20;

  // `ctrl` supplies the receive mode (its socket-mode setting); the process-wide one by default.
  explicit KcpOnUdp(CPhoneCameraCtrl* ctrl = nullptr);
  ~KcpOnUdp();
  KcpOnUdp(const KcpOnUdp&) = delete;
  KcpOnUdp& operator=(const KcpOnUdp&) = delete;

  // `bindAddr` in network byte order, as a host look-up stores it.
  bool StartListening(unsigned long bindAddr);
  // Both may be called from the handler, on the update thread itself: there Stop ends the loop
  // after the current step, and StartUpdate (after such a Stop, as Reset does) restarts the
  // conversation at the next tick on the same thread instead of waiting for itself.
  bool StartUpdate();
  void Stop();

  void SetHandler(IWiFiDataHandler* handler) { m_handler = handler; }
  // Queues one outgoing message (a copy) and wakes the update thread.
  void QueueSend(const char* data, int len);
  bool IsRunning() const { return m_bRunning; }

  // The endpoint clock: milliseconds, wrapping at 32 bits.
  static uint32_t ClockMs();

  // For tests and diagnostics.
  uint16_t BoundPort() const;
  lumo::Ipv4Endpoint PeerAddress() const;
  uint32_t NextUpdateForTest();

  static int output(const char* buf, int len, lumo::ikcpcb* kcp, void* user);

 private:
  using Buffer = std::string;
  void Intake(const unsigned char* data, size_t n, const lumo::Ipv4Endpoint& from);
  void EventReceiveProc();
  void CompletionWorkerProc(size_t index);
  void UpdateProc();
  void UpdateStep();
  void StopReceivers();
  void FreshConversation();
  void ReleaseKcp();
  void WakeUpdate();
  bool OnUpdateThread() const { return m_updateThread.IsCurrentThread(); }

  IWiFiDataHandler* m_handler = nullptr;
  std::atomic<bool> m_bRunning{false};
  lumo::SocketHandle m_socket = lumo::kInvalidSocket;
  lumo::Ipv4Endpoint m_peerAddr;
  lumo::ikcpcb* m_kcp = nullptr;
  int m_kcpMode = lumo::kLumoKcpMode;
  int32_t m_timeoutMs = 5000;
  std::atomic<uint32_t> m_lastRecvTime{0};
  std::atomic<bool> m_bUpdateNow{false};
  // Set by StartUpdate on the update thread: the next tick starts the conversation afresh.
  std::atomic<bool> m_restartPending{false};
  bool m_bTimeoutArmed = false;
  std::recursive_mutex m_sendLock, m_recvLock, m_spareLock;
  std::deque<Buffer> m_sendQueue, m_recvQueue, m_spareQueue;
  size_t m_recvQueueBytes = 0;  // under m_recvLock
  lumo::WorkerThread m_updateThread{"wifi kcp update"};
  std::mutex m_lifeLock;  // orders StartUpdate and Stop from threads other than the update thread

  // Event-driven mode.
  lumo::SocketHandle m_listenSocket = lumo::kInvalidSocket;
  lumo::NetEventWaiter m_netEvent;
  lumo::WorkerThread m_recvThread{"wifi udp receive"};
  uint32_t m_bindAddr = 0;  // network byte order

  // Completion-port mode.
  lumo::UdpCompletionPort m_iocp;
  uint32_t m_workerCount = 0;
  uint32_t m_processorCount = 0;
  std::vector<std::unique_ptr<lumo::UdpReceiveContext>> m_recvContexts;
  std::vector<std::unique_ptr<lumo::WorkerThread>> m_workerThreads;

  CPhoneCameraCtrl* m_ctrl;
  bool m_eventMode = true;
  bool m_netReady = false;
  std::atomic<bool> m_closing{false};
  mutable std::mutex m_peerLock;  // the peer address is written by receivers, read by the update thread
  std::vector<char> m_messageBuffer;
  std::vector<unsigned char> m_receiveBuffer;
};
