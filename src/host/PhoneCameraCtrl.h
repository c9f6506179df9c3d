// CPhoneCameraCtrl: the one control object that the protocol, the transports and the decoders
// share. It holds the protocol-version settings, the facts of the current phone session, the
// WiFi heartbeat, the frame counters, and it is the only path by which the library posts
// messages to the host window.
//
// Settings read from "phoneVideoCfg.ini" at construction:
//   [DEBUG]      protocalVersion      our protocol version (default 1002)
//   [DEBUG]      supportProtocalList  comma-separated supported versions (default: by content type)
//   [SECT_VIDEO] encodeMode           the encode mode reported in telemetry (default 0)
//   [SECT_VIDEO] socketMode           WiFi receive mode: 1 event-driven socket, other values the
//                                     completion-port style worker pool (default 1)
#pragma once

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "host/HostServices.h"
#include "host/PhoneCameraTypes.h"
#include "platform/host_window.h"

class CPhoneCameraCtrl : public TMR::ITimerCB {
 public:
  static CPhoneCameraCtrl* GetInstance();

  CPhoneCameraCtrl();
  virtual ~CPhoneCameraCtrl();
  CPhoneCameraCtrl(const CPhoneCameraCtrl&) = delete;
  CPhoneCameraCtrl& operator=(const CPhoneCameraCtrl&) = delete;

  static constexpr int kHeartbeatTimerId = 131;
  static constexpr uint32_t kHeartbeatPeriodMs = 1000;
  static constexpr int64_t kHeartbeatTimeoutMs = 30000;
  static constexpr uint32_t kHostMessage = 7025;
  static constexpr uint32_t kHostMessageWParam = 1004;
  static constexpr unsigned kMsgAppStop = 7054;
  static constexpr unsigned kMsgCameraInfo = 3340;

  // Adds "version", "protocolver" and "supportverlist" to a connect command.
  void FillConnectInfo(Json::Value& command);

  // The WiFi heartbeat.
  void StartTimer();
  void StopTimer();
  void OnTimer(int id) override;
  // A phone ping with a new sequence number: the phone is alive.
  void RefreshHeartbeat();
  uint32_t GetLastHeartbeatTick();
  bool IsTimerRunning() const { return m_timerRunning; }

  // Host window messages. Callers of PostLiveMessage check that the window is set.
  void PostLiveMessage(unsigned int msg, unsigned int wParam, unsigned int lParam);
  void SendPostStrMsgCmdToHxProcess(const std::string& wParam, const std::string& lParam);
  void NotifyAppActiveStop(ePhoneDataSource source, int code, const std::string& message);

  // The per-phone camera-parameter file: <app data>/Lumoapp/PhoneCamParams/<phone name>.json
  void UpdateCameraParamPath();
  std::wstring GetCameraParamPath();

  // Frame counters, under their own lock.
  void AddDecodedFrame();
  void AddReceivedVideoFrame();
  void AddReceivedAudioFrame();
  void AddDecodedAudioFrame();
  struct FrameCounts {
    long long receivedVideo = 0;
    long long receivedAudio = 0;
    long long decodedVideo = 0;
    long long decodedAudio = 0;
  };
  FrameCounts GetFrameCounts();
  // Reads the counters and sets them to zero in one step.
  FrameCounts TakeFrameCounts();

  // Session facts shared by the protocol, the transports and the decoders.
  void SetHwnd(HWND hwnd);  // a null window leaves the present one
  HWND GetHwnd() const { return m_hWnd; }
  void SetConnectMode(int mode) { m_connectMode = mode; }
  int GetConnectMode() const { return m_connectMode; }
  void SetPhoneName(const std::string& name);
  std::string GetPhoneName();
  void SetSysVersion(const std::string& version);
  std::string GetSysVersion();
  void SetHighIOSVersion() { m_highIOSVersion = true; }
  bool IsHighIOSVersion() const { return m_highIOSVersion; }
  void SetIOS(bool isIOS) { m_isIOS = isIOS; }
  bool IsIOS() const { return m_isIOS; }
  void SetPhoneTimeBase(unsigned long long ms, ePhoneDataSource source);
  unsigned long long GetPhoneTimeBase() const { return m_phoneTimeBase; }
  ePhoneDataSource GetPhoneTimeBaseSource() const { return static_cast<ePhoneDataSource>(m_phoneTimeBaseSource.load()); }
  // Current video codec: 1 H.264, 2 H.265.
  void SetCodec(int codec) { m_codec = codec; }
  int GetCodec() const { return m_codec; }
  int GetEncodeMode() const { return m_encodeMode; }
  int GetSocketMode() const { return m_socketMode; }
  int GetProtocolVersion() const { return m_protocolVersion; }
  void SetCameraParamsEnabled(bool on) { m_cameraParamsEnabled = on; }
  bool IsCameraParamsEnabled() const { return m_cameraParamsEnabled; }
  Json::Value GetSupportedVersions();

 private:
  // Wraps `inner` as {"sockType":1,"interCmd":..,"interMsg":inner} and posts it (7025, 1004).
  void PostJson(int interCmd, const Json::Value& inner);

  std::recursive_mutex m_lock;  // guards the JSON list and the strings below
  Json::Value m_supportVersions{Json::arrayValue};
  std::shared_ptr<TMR::ITimer> m_timer;
  std::recursive_mutex m_heartbeatLock;
  uint32_t m_lastHeartbeatTick = 0;
  std::atomic<HWND> m_hWnd{nullptr};
  std::atomic<int> m_connectMode{0};
  std::atomic<bool> m_timerRunning{false};
  std::string m_phoneName;
  std::string m_sysVersion;
  std::atomic<bool> m_highIOSVersion{false};
  std::atomic<bool> m_isIOS{false};
  std::atomic<unsigned long long> m_phoneTimeBase{0};
  std::atomic<int> m_phoneTimeBaseSource{0};
  std::wstring m_cameraParamPath;
  std::recursive_mutex m_counterLock;
  FrameCounts m_counts;
  std::atomic<int> m_codec{1};
  int m_encodeMode = 0;
  int m_socketMode = 1;
  int m_protocolVersion = 1002;
  std::atomic<bool> m_cameraParamsEnabled{false};
};
