// The update side of the WiFi endpoint: the one thread that owns the KCP object.
#include <cstring>

#include "host/Log.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "wifi/KcpOnUdp.h"


// Called on the update thread itself (the handler resetting the link), a join would wait for
// this very thread, and releasing the KCP object would pull it from under the step that is still
// using it. There the restart is only marked, and the loop carries it out at its next tick.
bool KcpOnUdp::StartUpdate() {
  if (OnUpdateThread()) {
    if (!m_bRunning) {
      m_restartPending = true;
      m_bRunning = true;
    }
    return true;
  }
  std::lock_guard<std::mutex> life(m_lifeLock);
  if (m_bRunning && m_updateThread.IsRunning()) return true;
  // The old thread (one that stopped itself, or is still leaving) is joined before its KCP object
  // goes: it may be inside a step that uses it.
  m_updateThread.Stop();
  m_restartPending = false;
  FreshConversation();
  // Set before the thread starts: a second StartUpdate must see it running, and the thread
  // setting it itself could undo a Stop that came first.
  m_bRunning = true;
  if (!m_updateThread.Start([this] { UpdateProc(); })) {
    Log(LOG_ERROR, "[phoneVideoWifi] create kcp update thread error, error code:%d", lumo::LastSystemError());
    ReleaseKcp();
    m_bRunning = false;
    return false;
  }
  return true;
}

void KcpOnUdp::Stop() {
  if (OnUpdateThread()) {
    // From the handler (the time-out, a reset): the loop ends after this step, and the KCP object
    // goes with the next StartUpdate from outside or the destructor.
    m_bRunning = false;
    m_restartPending = false;
    m_bTimeoutArmed = false;
    return;
  }
  std::lock_guard<std::mutex> life(m_lifeLock);
  m_bRunning = false;
  // Joined rather than terminated after 30 ms as it was: a thread killed inside the dispatcher
  // would leave the parser's locks held, and on POSIX it could not be stopped at all. With it
  // gone, the 30 ms pause before the release has nothing left to wait for.
  m_updateThread.Stop();
  m_restartPending = false;
  ReleaseKcp();
  m_bTimeoutArmed = false;
}

// A new KCP object and empty queues; only ever run where no other thread uses the KCP object
// (the update thread joined, or on the update thread between two steps).
void KcpOnUdp::FreshConversation() {
  ReleaseKcp();
  m_kcp = lumo::CreateLumoKcp(this, m_kcpMode);
  if (m_kcp != nullptr) lumo::ikcp_setoutput(m_kcp, &KcpOnUdp::output);
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    m_sendQueue.clear();
    std::lock_guard<std::recursive_mutex> recvGuard(m_recvLock);
    m_recvQueue.clear();
    m_recvQueueBytes = 0;
  }
  m_lastRecvTime = ClockMs();
}

void KcpOnUdp::ReleaseKcp() {
  if (m_kcp != nullptr) lumo::ikcp_release(m_kcp);
  m_kcp = nullptr;
}

void KcpOnUdp::WakeUpdate() {
  m_bUpdateNow = true;
  m_updateThread.Wake();
}

void KcpOnUdp::QueueSend(const char* data, int len) {
  {
    // One message per call, appended whole under the lock: frames from several threads never mix.
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    m_sendQueue.emplace_back(data, static_cast<size_t>(len));
  }
  WakeUpdate();
}

void KcpOnUdp::UpdateProc() {
  Log(LOG_INFO, "[wifi] KCP_UpdateProc enter");
  while (m_bRunning && !m_updateThread.StopRequested()) {
    if (m_restartPending.exchange(false)) FreshConversation();
    const uint64_t t0 = lumo::PerfCounterUs();
    UpdateStep();
    // The rest of the 10 ms tick, cut short by new data in either direction or a restart.
    for (;;) {
      if (m_bUpdateNow || !m_bRunning || m_restartPending) break;
      const uint64_t now = lumo::PerfCounterUs();
      if (now >= t0 + 10000 || !m_updateThread.WaitUs(t0 + 10000 - now)) break;
    }
  }
  m_bRunning = false;
  Log(LOG_INFO, "[wifi] KCP_UpdateProc exit");
}

void KcpOnUdp::UpdateStep() {
  if (m_kcp == nullptr) return;  // the system had no memory for it
  // Taken here rather than cleared after the update: a datagram or message that comes in while
  // this step runs sets it again, so the next step is not put off by a tick.
  const bool urgent = m_bUpdateNow.exchange(false);
  {
    std::deque<Buffer> datagrams;
    {
      std::lock_guard<std::recursive_mutex> guard(m_recvLock);
      datagrams.swap(m_recvQueue);
      m_recvQueueBytes = 0;
    }
    for (const Buffer& d : datagrams) lumo::ikcp_input(m_kcp, d.data(), static_cast<long>(d.size()));
  }

  for (int size = lumo::ikcp_peeksize(m_kcp); size >= 0; size = lumo::ikcp_peeksize(m_kcp)) {
    if (size == 0) {
      // An empty message (a zero-length push) carries nothing to deliver but would otherwise
      // stay at the head of the queue and hold back everything behind it.
      lumo::ikcp_discard(m_kcp);
      continue;
    }
    if (static_cast<size_t>(size) > kMessageBufferSize) {
      // As built the message was copied past the buffer before this line was logged; here it is
      // logged and dropped whole, so the next message is delivered as usual.
      Log(LOG_ERROR, "[wifi] recieve data cross border:%d", size);
      lumo::ikcp_discard(m_kcp);
      continue;
    }
    // Only the message's own bytes reach the handler, so the rest of the buffer need not be cleared.
    const int n = lumo::ikcp_recv(m_kcp, m_messageBuffer.data(), static_cast<int>(kMessageBufferSize));
    if (n < 1) break;
    if (m_handler != nullptr) m_handler->HandleReceive(m_messageBuffer.data(), n);
    // The handler stopped or reset the link: this conversation is over, as it was when the thread
    // ended itself at once; nothing more of it is delivered or sent.
    if (!m_bRunning || m_restartPending) return;
  }

  {
    std::deque<Buffer> messages;
    {
      std::lock_guard<std::recursive_mutex> guard(m_sendLock);
      messages.swap(m_sendQueue);
    }
    for (const Buffer& m : messages) {
      const int rc = lumo::ikcp_send(m_kcp, m.data(), static_cast<int>(m.size()));
      if (rc < 0) Log(LOG_BAD_DATA, "[wifi] ikcp_send error, err code %d", rc);
    }
  }

  const uint32_t now = ClockMs();
  // An unsigned comparison without regard to the clock wrapping, as built.
  if (urgent || now >= m_kcp->nextUpdate) {
    lumo::ikcp_update(m_kcp, now);
    m_kcp->nextUpdate = lumo::ikcp_check(m_kcp, now);
  }

  const uint32_t last = m_lastRecvTime;
  if (m_bTimeoutArmed && m_timeoutMs > 0 && last != 0 && static_cast<int64_t>(now - last) > m_timeoutMs &&
      m_handler != nullptr)
    m_handler->HandleTimeout();
}

int KcpOnUdp::output(const char* buf, int len, lumo::ikcpcb*, void* user) {
  auto* self = static_cast<KcpOnUdp*>(user);
  const lumo::Ipv4Endpoint to = self->PeerAddress();
  const int sent = lumo::SendToSocket(self->m_socket, buf, static_cast<size_t>(len), to);
  if (sent < 0) {
    Log(LOG_ERROR, "[wifi] sendto error, %s", lumo::NetErrorText(lumo::LastNetError()).c_str());
    return -1;
  }
  return sent;
}

lumo::Ipv4Endpoint KcpOnUdp::PeerAddress() const {
  std::lock_guard<std::mutex> guard(m_peerLock);
  return m_peerAddr;
}

uint16_t KcpOnUdp::BoundPort() const {
  lumo::Ipv4Endpoint local;
  return lumo::LocalEndpoint(m_socket, local) ? local.port : 0;
}

uint32_t KcpOnUdp::NextUpdateForTest() { return m_kcp != nullptr ? m_kcp->nextUpdate : 0; }
