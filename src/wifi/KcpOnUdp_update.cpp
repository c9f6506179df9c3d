// The update side of the WiFi endpoint: the one thread that owns the KCP object.
#include <cstring>

#include "host/Log.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "wifi/KcpOnUdp.h"


bool KcpOnUdp::StartUpdate() {
  if (m_bRunning) return true;
  if (m_kcp != nullptr) lumo::ikcp_release(m_kcp);
  m_kcp = lumo::CreateLumoKcp(this, m_kcpMode);
  lumo::ikcp_setoutput(m_kcp, &KcpOnUdp::output);
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    m_sendQueue.clear();
    std::lock_guard<std::recursive_mutex> recvGuard(m_recvLock);
    m_recvQueue.clear();
    m_recvQueueBytes = 0;
  }
  m_lastRecvTime = ClockMs();
  // A thread that ended by itself (stopped from its own time-out handler) is collected first.
  m_updateThread.Join(lumo::Thread::kInfinite);
  // The thread would set the flag itself; setting it first closes the window in which a second
  // StartUpdate would see it clear and start another thread.
  m_bRunning = true;
  if (!m_updateThread.Start([this] { UpdateProc(); })) {
    Log(4, "[phoneVideoWifi] create kcp update thread error, error code:%d", lumo::LastSystemError());
    lumo::ikcp_release(m_kcp);
    m_kcp = nullptr;
    m_bRunning = false;
    return false;
  }
  return true;
}

void KcpOnUdp::Stop() {
  {
    std::lock_guard<std::mutex> guard(m_wakeLock);
    m_bRunning = false;
  }
  m_wake.notify_all();
  // Called from the update thread itself (the time-out handler): the loop ends after this step,
  // and the KCP object goes with the next StartUpdate or the destructor.
  if (m_updateThread.HasThread() && m_updateThread.Id() == lumo::Thread::CurrentId()) {
    m_bTimeoutArmed = false;
    return;
  }
  // The thread is waited for rather than terminated after 30 ms as it was: one killed inside the
  // dispatcher would leave the parser's locks held, and on POSIX it could not be stopped at all.
  // With it gone, the 30 ms pause before the release has nothing left to wait for.
  m_updateThread.Join(lumo::Thread::kInfinite);
  if (m_kcp != nullptr) {
    lumo::ikcp_release(m_kcp);
    m_kcp = nullptr;
  }
  m_bTimeoutArmed = false;
}

void KcpOnUdp::QueueSend(const char* data, int len) {
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    m_sendQueue.emplace_back(data, static_cast<size_t>(len));
  }
  {
    std::lock_guard<std::mutex> guard(m_wakeLock);
    m_bUpdateNow = true;
  }
  m_wake.notify_all();
}

void KcpOnUdp::UpdateProc() {
  Log(2, "[wifi] KCP_UpdateProc enter");
  // m_bRunning was set by StartUpdate: setting it here could undo a Stop that came first.
  while (m_bRunning) {
    const uint64_t t0 = lumo::PerfCounterUs();
    UpdateStep();
    // The rest of the 10 ms tick, cut short by new data in either direction.
    std::unique_lock<std::mutex> lock(m_wakeLock);
    const uint64_t now = lumo::PerfCounterUs();
    if (!m_bUpdateNow && m_bRunning && now < t0 + 10000)
      lumo::GetClock().WaitFor(lock, m_wake, t0 + 10000 - now, [this] { return m_bUpdateNow || !m_bRunning; });
  }
  m_bRunning = false;
  Log(2, "[wifi] KCP_UpdateProc exit");
}

void KcpOnUdp::UpdateStep() {
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
      Log(4, "[wifi] recieve data cross border:%d", size);
      lumo::ikcp_discard(m_kcp);
      continue;
    }
    // Only the message's own bytes reach the handler, so the rest of the buffer need not be cleared.
    const int n = lumo::ikcp_recv(m_kcp, m_messageBuffer.data(), static_cast<int>(kMessageBufferSize));
    if (n < 1) break;
    if (m_handler != nullptr) m_handler->HandleReceive(m_messageBuffer.data(), n);
  }

  {
    std::deque<Buffer> messages;
    {
      std::lock_guard<std::recursive_mutex> guard(m_sendLock);
      messages.swap(m_sendQueue);
    }
    for (const Buffer& m : messages) {
      const int rc = lumo::ikcp_send(m_kcp, m.data(), static_cast<int>(m.size()));
      if (rc < 0) Log(3, "[wifi] ikcp_send error, err code %d", rc);
    }
  }

  const uint32_t now = ClockMs();
  // An unsigned comparison without regard to the clock wrapping, as built.
  if (m_bUpdateNow || now >= m_kcp->nextUpdate) {
    lumo::ikcp_update(m_kcp, now);
    m_kcp->nextUpdate = lumo::ikcp_check(m_kcp, now);
    std::lock_guard<std::mutex> guard(m_wakeLock);
    m_bUpdateNow = false;
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
    Log(4, "[wifi] sendto error, %s", lumo::NetErrorText(lumo::LastNetError()).c_str());
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
