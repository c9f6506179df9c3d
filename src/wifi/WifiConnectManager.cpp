#include "wifi/WifiConnectManager.h"

#include <algorithm>
#include <cstring>

#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "platform/socket.h"
#include "protocol/PhoneDataParse.h"
#include "wifi/KcpOnUdp.h"


WifiConnectManager* WifiConnectManager::GetInstance() {
  static WifiConnectManager instance;
  return &instance;
}

WifiConnectManager::WifiConnectManager(PhoneDataParse* parser, CPhoneCameraCtrl* ctrl, H264DataReviever* video,
                                       CVideoDecoder* decoder)
    : m_parser(parser != nullptr ? parser : PhoneDataParse::GetInstance()),
      m_ctrl(ctrl != nullptr ? ctrl : CPhoneCameraCtrl::GetInstance()),
      m_video(video != nullptr ? video : H264DataReviever::GetInstance()),
      m_decoder(decoder) {
  lumo::NetStartup();
  m_parser->SetDataSender(PHONE_DATA_SOURCE_WIFI, this);
}

WifiConnectManager::~WifiConnectManager() {
  // The endpoint's threads call back into this object: they end before it goes.
  std::shared_ptr<KcpOnUdp> endpoint;
  {
    std::lock_guard<std::mutex> guard(m_endpointLock);
    endpoint.swap(m_endpoint);
  }
  if (endpoint) endpoint->Stop();
  endpoint.reset();
  m_parser->SetDataSender(PHONE_DATA_SOURCE_WIFI, nullptr);
}

std::shared_ptr<KcpOnUdp> WifiConnectManager::CurrentEndpoint() {
  std::lock_guard<std::mutex> guard(m_endpointLock);
  return m_endpoint;
}

void WifiConnectManager::Start() {
  std::shared_ptr<KcpOnUdp> endpoint = CurrentEndpoint();
  if (!endpoint) {
    endpoint = std::make_shared<KcpOnUdp>(m_ctrl);
    endpoint->StartListening(GetIPAddr());
    endpoint->SetHandler(this);
    std::lock_guard<std::mutex> guard(m_endpointLock);
    m_endpoint = endpoint;
  }
  m_bConnected = false;
  endpoint->StartUpdate();
  m_ctrl->SetConnectMode(2);
  Log(LOG_INFO, "[phoneVideo] SetConnectMode:wifi");
  m_video->SetWaitFirstIFrame(true);
}

// The common end of Stop and OnExit: the endpoint's update thread and KCP object go, the
// socket stays for the next Start.
void WifiConnectManager::StopLink(bool stopCapture) {
  if (std::shared_ptr<KcpOnUdp> endpoint = CurrentEndpoint()) {
    if (stopCapture) m_parser->StopCapture(PHONE_DATA_SOURCE_WIFI);
    endpoint->Stop();
  }
  m_bConnected = false;
  m_ctrl->StopTimer();
  m_ctrl->SetConnectMode(0);
  Log(LOG_INFO, "[wifi] Stop wifi connect, ");
}

void WifiConnectManager::Stop(bool bSendMsg) { StopLink(bSendMsg); }

void WifiConnectManager::OnExit() {
  std::shared_ptr<KcpOnUdp> endpoint = CurrentEndpoint();
  if (endpoint && endpoint->IsRunning()) StopLink(true);
}

void WifiConnectManager::Reset(bool bSendMsg) {
  Stop(bSendMsg);
  Start();
}

bool WifiConnectManager::IsRunning() {
  std::shared_ptr<KcpOnUdp> endpoint = CurrentEndpoint();
  return endpoint && endpoint->IsRunning() && m_bConnected;
}

void WifiConnectManager::SetConnected(bool connected) {
  Log(LOG_INFO, "[wifiUI] SetConnected, %d", connected ? 1 : 0);
  m_bConnected = connected;
}

bool WifiConnectManager::SendData(const std::string& frame) {
  return SendMsgToPhone(frame.data(), static_cast<int>(std::min<size_t>(frame.size(), 0x7FFFFFFF)));
}

bool WifiConnectManager::SendMsgToPhone(const char* data, int len) {
  // A copy of the pointer: the endpoint stays alive while this frame is queued even if the
  // manager is going away on another thread.
  const std::shared_ptr<KcpOnUdp> endpoint = CurrentEndpoint();
  if (!endpoint) {
    Log(LOG_ERROR, "[wifi] SendMsgToPhone, kcp instance is empty");
    return false;
  }
  if (data == nullptr || len < 1) {
    Log(LOG_ERROR, "[wifi] SendMsgToPhone, size error");
    return false;
  }
  // The whole frame is copied into the send queue as one message under the endpoint's send-queue
  // lock, so callers on several threads never interleave their frames.
  endpoint->QueueSend(data, len);
  return true;
}

void WifiConnectManager::HandleReceive(const char* data, int len) {
  m_messagesHeard.fetch_add(1, std::memory_order_relaxed);  // a count, ordering nothing
  const uint64_t second = lumo::WallClock100ns() / 10000000ull;
  if (second != m_secondStart) m_secondStart = second, m_secondMessages = 0, m_secondBytes = 0;
  ++m_secondMessages;
  m_secondBytes += len > 0 ? static_cast<uint64_t>(len) : 0;

  // A message too short to hold its prefix has no tag to read: it fails the check like any other
  // mismatch (tag shown as 0) instead of being read past its end.
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  const uint32_t tag = len >= 4 ? static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
                                      static_cast<uint32_t>(bytes[2]) << 8 | bytes[3]
                                : 0;
  if (len < 4 || static_cast<uint64_t>(tag) + 4 != static_cast<uint64_t>(len)) {
    Log(LOG_ERROR, "[wifi] recieve data size not fit tag:%d, recieve:%d", static_cast<int>(tag), len);
    return;
  }
  const uint64_t index = m_messageIndex++;
  if (index % 100 == 0) {
    ++m_messageIndex;
    Log(LOG_INFO, "[wifi] HandleReceive, composite data ok, size is %u, index:%I64u", static_cast<unsigned>(len), index + 1);
  }
  // The endpoint's message buffer is ours to hand over; the dispatcher takes a mutable pointer.
  m_parser->ParsePhoneData(PHONE_DATA_SOURCE_WIFI, reinterpret_cast<signed char*>(const_cast<char*>(data + 4)), tag,
                           static_cast<ePhoneType>(0));
}

void WifiConnectManager::HandleTimeout() {
  if (std::shared_ptr<KcpOnUdp> endpoint = CurrentEndpoint()) endpoint->Stop();
  Log(LOG_BAD_DATA, "[wifi] timeout");
}

void WifiConnectManager::NotifyLiveState(unsigned int state, const std::string& roomid, const std::string& lumoId,
                                         const std::string& channelId) {
  CVideoDecoder* decoder = m_decoder != nullptr ? m_decoder : CVideoDecoder::GetInstance();
  if (decoder->IsDecoding()) m_parser->SendLiveEvent(PHONE_DATA_SOURCE_WIFI, state, roomid, lumoId, channelId);
}

unsigned long WifiConnectManager::GetIPAddr() {
  uint32_t address = 0;
  if (!lumo::ResolveHostIpv4("0.0.0.0", address)) {
    Log(LOG_ERROR, "[wifi] gethostbyname error");
    return 0;
  }
  // Network byte order, as a host look-up stores it.
  const unsigned char b[4] = {static_cast<unsigned char>(address >> 24), static_cast<unsigned char>(address >> 16),
                              static_cast<unsigned char>(address >> 8), static_cast<unsigned char>(address)};
  uint32_t stored = 0;
  std::memcpy(&stored, b, 4);
  return stored;
}
