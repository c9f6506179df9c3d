#include "wifi/KcpOnUdp.h"

#include <cstring>
#include <thread>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "platform/clock.h"
#include "platform/errors.h"


namespace {

// A look-up result stores the address in network order; our sockets take host order.
uint32_t NetworkToHost(uint32_t stored) {
  unsigned char b[4];
  std::memcpy(b, &stored, 4);
  return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 | static_cast<uint32_t>(b[2]) << 8 | b[3];
}

}  // namespace

KcpOnUdp::KcpOnUdp(CPhoneCameraCtrl* ctrl) : m_ctrl(ctrl != nullptr ? ctrl : CPhoneCameraCtrl::GetInstance()) {
  m_netReady = lumo::NetStartup();
  if (!m_netReady) return;  // no socket and no buffers: every later step fails quietly
  m_eventMode = m_ctrl->GetSocketMode() == 1;
  if (m_eventMode) {
    m_socket = lumo::OpenUdpSocket();
    m_netEvent.Create();
  }
  m_messageBuffer.assign(kMessageBufferSize, 0);
}

KcpOnUdp::~KcpOnUdp() {
  Stop();
  StopReceivers();
  lumo::CloseSocket(m_socket);
  ReleaseKcp();
}

// Not a step of the system as it ran (its receivers lived as long as the process), but an
// endpoint that can be destroyed must not leave a thread reading a closed socket. Each receiver is
// woken through what it waits on (the stop event, a quit completion per worker), then joined with
// a logged bound.
void KcpOnUdp::StopReceivers() {
  m_closing = true;
  if (m_recvThread.IsRunning()) m_netEvent.Stop();
  m_recvThread.Stop();
  if (!m_workerThreads.empty()) {
    // One quit per worker: a worker that leaves on m_closing instead takes none, so every worker
    // still waiting finds one.
    for (size_t i = 0; i < m_workerThreads.size(); ++i) m_iocp.PostQuit();
    for (auto& worker : m_workerThreads) worker->Stop();
    m_workerThreads.clear();
    m_iocp.Close();
  }
}

uint32_t KcpOnUdp::ClockMs() {
  // Anchored once to the wall clock's seconds, then carried by the performance counter; the
  // counter here is already in microseconds (a frequency of 1,000,000).
  static const uint32_t anchor = [] {
    const uint64_t wallSeconds = lumo::WallClock100ns() / 10000000ull;
    return static_cast<uint32_t>((wallSeconds - lumo::PerfCounterUs() / 1000000ull) & 0x7FFFFFFFu);
  }();
  const uint64_t us = lumo::PerfCounterUs();
  const uint64_t seconds = anchor + us / 1000000ull;
  return static_cast<uint32_t>(seconds * 1000ull + (us % 1000000ull) / 1000ull);
}

bool KcpOnUdp::StartListening(unsigned long bindAddr) {
  m_bindAddr = static_cast<uint32_t>(bindAddr);
  const lumo::Ipv4Endpoint at{NetworkToHost(m_bindAddr), kPort};
  if (m_eventMode) {
    Log(LOG_INFO, "KcpOnUdp::StartListening, use async sock");
    if (!lumo::BindSocket(m_socket, at)) {
      Log(LOG_ERROR, "[wifi] bind IP failed, err %s", std::to_string(lumo::LastNetError()).c_str());
      return false;
    }
    m_listenSocket = m_socket;
    if (!m_netEvent.Select(m_socket)) return false;
    if (!m_recvThread.Start([this] { EventReceiveProc(); })) {
      Log(LOG_ERROR, "[phoneVideoWifi] create udp received thread error, error code:%d", lumo::LastSystemError());
      return false;
    }
    return true;
  }

  Log(LOG_INFO, "KcpOnUdp::StartListening, use IOCP sock");
  if (!m_iocp.Create()) Log(LOG_ERROR, "ERROR:Run IOCP is failure;ErrorCode:%d\n\n", lumo::LastSystemError());
  m_processorCount = std::max(1u, std::thread::hardware_concurrency());
  m_workerCount = 2 * m_processorCount + 2;
  const uint32_t wanted = m_workerCount;
  for (uint32_t i = 0; i < wanted; ++i) {
    m_recvContexts.push_back(std::make_unique<lumo::UdpReceiveContext>());
    auto worker = std::make_unique<lumo::WorkerThread>("wifi completion worker " + std::to_string(i));
    const size_t index = m_recvContexts.size() - 1;
    if (!worker->Start([this, index] { CompletionWorkerProc(index); })) {
      Log(LOG_ERROR, "ERROR:Create thread failure;ErrorCode:%d\n\n", lumo::LastSystemError());
      m_recvContexts.pop_back();
      --m_workerCount;
      continue;
    }
    m_workerThreads.push_back(std::move(worker));
  }
  m_socket = lumo::OpenUdpSocket();
  if (m_socket == lumo::kInvalidSocket) Log(LOG_ERROR, "ERROR:Run socket is failure;ErrorCode:%d\n\n", lumo::LastNetError());
  if (!lumo::BindSocket(m_socket, at)) Log(LOG_ERROR, "ERROR:socket bind info failur,Error Code:%d", lumo::LastNetError());
  if (!m_iocp.Associate(m_socket, kCompletionKey))
    Log(LOG_ERROR, " ERROR:iocp bind socket failure; ErrorCode:%d\n\n", lumo::LastNetError());
  for (auto& context : m_recvContexts) {
    int code = 0;
    if (!m_iocp.PostReceive(*context, code)) Log(LOG_ERROR, "ERROR:WSARecvFrom IO pending failure;ErrorCode:%d\n\n", code);
  }
  return true;
}

void KcpOnUdp::Intake(const unsigned char* data, size_t n, const lumo::Ipv4Endpoint& from) {
  {
    std::lock_guard<std::mutex> guard(m_peerLock);
    m_peerAddr = from;
  }
  {
    std::lock_guard<std::recursive_mutex> guard(m_recvLock);
    // A peer can send faster than the update thread drains: beyond the bound a datagram is
    // dropped (KCP retransmits what mattered) rather than the queue growing without end.
    if (m_recvQueueBytes + n > kMaxQueuedReceiveBytes) {
      if (!lumo::Host().IsPrintTooFast(10000, "KcpOnUdp::Intake queue full"))
        Log(LOG_BAD_DATA, "[wifi] receive queue full, datagram dropped:%d", static_cast<int>(n));
      return;
    }
    m_recvQueue.emplace_back(reinterpret_cast<const char*>(data), n);
    m_recvQueueBytes += n;
    m_lastRecvTime = ClockMs();
  }
  WakeUpdate();
}

void KcpOnUdp::EventReceiveProc() {
  if (m_receiveBuffer.empty()) m_receiveBuffer.assign(kMessageBufferSize, 0);
  for (;;) {
    int code = 0;
    const lumo::NetEventWaiter::Wake wake = m_netEvent.Wait(code);
    if (wake == lumo::NetEventWaiter::Wake::Failed) continue;
    if (wake != lumo::NetEventWaiter::Wake::Readable) break;  // the stop event or FD_CLOSE
    if (code != 0) continue;
    lumo::Ipv4Endpoint from;
    const int n = lumo::RecvFromSocket(m_socket, m_receiveBuffer.data(), m_receiveBuffer.size(), from);
    if (n < 1) {
      const int error = lumo::LastNetError();
      const lumo::NetErrorKind kind = lumo::ClassifyNetError(error);
      // An ICMP port-unreachable from an earlier send shows up here; the socket is still fine.
      if (kind == lumo::NetErrorKind::ConnectionReset || kind == lumo::NetErrorKind::ConnectionRefused ||
          kind == lumo::NetErrorKind::WouldBlock || kind == lumo::NetErrorKind::Interrupted || n == 0)
        continue;
      Log(LOG_ERROR, "[wifi] recvfrom() failed:%d", error);
      break;
    }
    Intake(m_receiveBuffer.data(), static_cast<size_t>(n), from);
  }
  if (m_closing || m_socket == lumo::kInvalidSocket) return;
  // As built: the endpoint closes its socket and listens again on the closed handle, which
  // fails with the bind log line. Kept.
  m_bRunning = false;
  lumo::CloseSocket(m_socket);
  StartListening(m_bindAddr);
}

void KcpOnUdp::CompletionWorkerProc(size_t index) {
  for (;;) {
    uintptr_t key = 0;
    lumo::UdpReceiveContext* context = nullptr;
    int code = 0;
    const lumo::UdpCompletionPort::Result result = m_iocp.Wait(key, context, code);
    if (result == lumo::UdpCompletionPort::Result::Quit || result == lumo::UdpCompletionPort::Result::Closed) return;
    if (result == lumo::UdpCompletionPort::Result::Failed) {
      Log(LOG_ERROR, "ERROR:Get IOCP Queued Failure,ErrorCode:%d\n\n", code);
      if (context == nullptr) continue;
    } else if (key == kCompletionKey && context->bytes >= 1) {
      Intake(context->buffer, context->bytes, context->from);
    }
    if (m_closing) return;
    if (!m_iocp.PostReceive(*context, code)) Log(LOG_ERROR, "ERROR:WSARecvFrom failure;ErrorCode:%d\n\n", code);
  }
}
