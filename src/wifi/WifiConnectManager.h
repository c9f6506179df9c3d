// The phone link over the local network: one KCP-over-UDP endpoint, the dispatcher's frames
// queued into it, and every KCP message checked against its length prefix before the frame goes
// to the dispatcher with the WiFi source.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/export.h"
#include "host/PhoneCameraTypes.h"

class KcpOnUdp;
class PhoneDataParse;
class CPhoneCameraCtrl;
class H264DataReviever;
class CVideoDecoder;

class LUMO_API WifiConnectManager : public IWiFiDataHandler, public IDataSender {
 public:
  static WifiConnectManager* GetInstance();

  // Collaborators default to the process-wide ones; tests pass their own.
  WifiConnectManager(PhoneDataParse* parser = nullptr, CPhoneCameraCtrl* ctrl = nullptr,
                     H264DataReviever* video = nullptr, CVideoDecoder* decoder = nullptr);
  ~WifiConnectManager() override;
  WifiConnectManager(const WifiConnectManager&) = delete;
  WifiConnectManager& operator=(const WifiConnectManager&) = delete;

  void Start();
  void Stop(bool bSendMsg);
  void OnExit();
  void Reset(bool bSendMsg);
  bool IsRunning();
  void SetConnected(bool connected);
  // Safe from several threads at once: each frame is queued whole as one KCP message, so frames
  // never interleave and each thread's frames keep their order.
  bool SendData(const std::string& frame) override;
  void HandleReceive(const char* data, int len) override;
  void HandleTimeout() override;
  void NotifyLiveState(unsigned int state, const std::string& roomid, const std::string& lumoId,
                       const std::string& channelId);

  // Messages a phone sent since start-up, malformed ones included. The phone app speaks first
  // (it pings as soon as its WiFi link is up), so a host that sees this grow knows a phone is
  // there and can ask it to connect with PhoneDataParse::StartConnect(2).
  uint64_t MessagesHeard() const { return m_messagesHeard.load(); }

  // The endpoint, for tests (null before the first Start).
  KcpOnUdp* Endpoint() { return CurrentEndpoint().get(); }

 private:
  bool SendMsgToPhone(const char* data, int len);
  unsigned long GetIPAddr();
  void StopLink(bool stopCapture);
  std::shared_ptr<KcpOnUdp> CurrentEndpoint();

  std::shared_ptr<KcpOnUdp> m_endpoint;
  std::atomic<bool> m_bConnected{false};
  // Guards the m_endpoint pointer only (set by the first Start, read by senders on any thread);
  // never held while the endpoint works.
  std::mutex m_endpointLock;

  PhoneDataParse* m_parser;
  CPhoneCameraCtrl* m_ctrl;
  H264DataReviever* m_video;
  CVideoDecoder* m_decoder;
  // Per-second receive counters (kept, not reported) and the message index of the log line.
  uint64_t m_secondStart = 0;
  uint64_t m_secondMessages = 0, m_secondBytes = 0;
  uint64_t m_messageIndex = 0;
  std::atomic<uint64_t> m_messagesHeard{0};
};
