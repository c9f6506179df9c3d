// PhoneDataParse: the phone link's frame layer and command dispatcher. Every transport hands it
// whole frames (type byte first, outer length removed); it answers pings, routes video and AAC
// to their receivers and JSON commands to their handlers, and frames every outgoing command
// for the sender registered under the command's data source.
//
// The class is split by concern over several source files (frames, handshake, capture, camera,
// quality, reports); this header is the one place that lists its state.
#pragma once

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/export.h"
#include "host/PhoneCameraTypes.h"
#include "platform/clock.h"

namespace lumo {
class DelayedTasks;
}
class CPhoneCameraCtrl;
class H264DataReviever;
class AudioDataReviever;
class CVideoDecoder;
class CAudioDecoder;

class LUMO_API PhoneDataParse {
 public:
  static PhoneDataParse* GetInstance();

  // The singleton is wired to the process-wide collaborators; tests wire fresh ones. Without a
  // video decoder, capture start and stop leave decoding alone; without audio decoders the
  // phone's audio parameters are only logged.
  PhoneDataParse(CPhoneCameraCtrl* ctrl, H264DataReviever* video, AudioDataReviever* audio1,
                 AudioDataReviever* audio2, CVideoDecoder* decoder = nullptr, CAudioDecoder* audioDecoder1 = nullptr,
                 CAudioDecoder* audioDecoder2 = nullptr);
  // Cancels the delayed work and waits for a piece that is running, so none outlives the parser.
  ~PhoneDataParse();
  PhoneDataParse(const PhoneDataParse&) = delete;
  PhoneDataParse& operator=(const PhoneDataParse&) = delete;

  // One complete frame from a transport: type byte, then body. `phoneType` is passed on to the
  // JSON handlers that take it.
  void ParsePhoneData(ePhoneDataSource source, signed char* data, unsigned int len, ePhoneType phoneType);

  void SetDataSender(ePhoneDataSource source, IDataSender* sender);
  void SetUSBCallback(IUSBEventCallback* callback);
  void SetWifiCallback(IWifiEventCallback* callback);
  void SendPing(ePhoneDataSource source);
  // Drops the waiting capture retries and late camera fetches and waits for one that is running:
  // for a host that resets the link, or a harness between inputs. Not from a handler that a
  // delayed task can be waiting on (it holds no lock the tasks take).
  void CancelDelayedWork();

  // The last-media time: host clock (100-ns units) of the last media frame or time match.
  unsigned long long UpdateStartPhoneTimeStamp();
  unsigned long long GetPhoneStartTimeStamp();

  // Session (handshake and keep-alive).
  void StartConnect(ePhoneDataSource source);
  void SendPhoneConnected(ePhoneDataSource source);
  void MonitorPhoneStatus(ePhoneDataSource source);

  // Capture and projection.
  void StartCapture(ePhoneDataSource source);
  void StartAudioCapture(ePhoneDataSource source);
  void StopCapture(ePhoneDataSource source);
  void ReStartCapture(ePhoneDataSource source);
  void SetExposureStat(ePhoneDataSource source, int lock);
  void SendLiveEvent(ePhoneDataSource source, unsigned int status, const std::string& roomid,
                     const std::string& lumoId, const std::string& channelId);
  void MonitorPcLiving(ePhoneDataSource source);
  void SetPhoneVideoRate(int index);
  void SetPhoneVideoRateToConfig(int index);
  int GetPhoneVideoRateFromConfig();
  int GetPhoneVideoRate() const { return m_phoneVideoRate; }
  // 1 when the phone's microphone audio is wanted; AAC frames are dispatched only then.
  void SetAudioRecordType(int type) { m_audioRecordType = type; }
  int GetAudioRecordType() const { return m_audioRecordType; }
  void SetAudioRecordTypeToConfig(int type);
  int GetAudioRecordTypeFromConfig();
  void SetConnectMode(int mode);
  int GetConnectMode();

  // Camera parameters.
  void GetPhoneCameraParams(ePhoneDataSource source);
  void SetPhoneCameraParams(ePhoneDataSource source, PHONE_CAMERA_PARAM_TYPE type, int paramVal, int isCustom,
                            int reset);
  void RefreshCameraParam(ePhoneDataSource source, const Json::Value& params, bool bHasValRange);

  static constexpr unsigned long long kCounterWrap = 9999999999999ull;
  static constexpr unsigned int kMediaHeaderSize = 16;

 private:
  friend class PhoneDataParseTestPeer;

  // Per-type readers; each receives the body (after the type byte) and its length.
  void ParseRcvRawH264Data(ePhoneDataSource source, unsigned int len, signed char* body);
  void ParseRcvFormatH264Data(ePhoneDataSource source, unsigned int len, signed char* body);
  void ParseRcvRawAACdata(ePhoneDataSource source, unsigned int len, signed char* body);
  void PareseRcvPingData(ePhoneDataSource source, unsigned int len, signed char* body);
  void ParseRcvJsonData(ePhoneDataSource source, unsigned int len, signed char* body, ePhoneType phoneType);
  // Routes a validated command to its handler; false when no handler takes `cmdType`.
  bool DispatchJsonCommand(ePhoneDataSource source, int cmdType, const Json::Value& root, ePhoneType phoneType);
  // Reads the phone timestamp and stamps the last-media time; returns the PC time in ms.
  unsigned long long StampMediaTime(const unsigned char* header, unsigned long long& phoneTs);
  // Keeps the latest PC-minus-phone difference and logs it every `every` frames.
  void CountLatency(int& count, long long& lastDiff, int every, const char* format, unsigned long long now,
                    unsigned long long phoneTs);

  // Session handlers.
  void OnRcvResponseNetTest(ePhoneDataSource source, Json::Value root);
  void OnRcvResponseMatchTimeSpam(ePhoneDataSource source, Json::Value root);
  void OnRcvResponsePcConnnect(ePhoneDataSource source, Json::Value root);
  void OnRcvResponsePhonePrepare(ePhoneDataSource source, Json::Value root);
  void OnRcvResponseMonitorPhone(ePhoneDataSource source, Json::Value root);

  // Capture handlers and helpers.
  void SendContentType(ePhoneDataSource source, Json::Value root);
  void OnRcvResponseStartCapture(ePhoneDataSource source, Json::Value root);
  void OnRcvResponseStopCapture(ePhoneDataSource source, Json::Value root);
  void OnRevResponseAppActiveStopVideo(ePhoneDataSource source, Json::Value root);
  void OnRcvResponseSetContentType(ePhoneDataSource source, Json::Value root);
  void OnRcvResponseStartAudioCapture(ePhoneDataSource source, Json::Value root);
  void OnRcvAppStartProjection(ePhoneDataSource source, Json::Value root);
  void OnRcvResponseSetExposureStat(ePhoneDataSource source, Json::Value root);
  void OnRcvAppSwitchPhone(ePhoneDataSource source, Json::Value root);
  void ResetVideoQualityForCapture();
  // The capture retry: each attempt is a delayed task that schedules the next.
  void ScheduleCaptureRetry(int attempt);
  static void MonitorStartCaptureProcProxy(PhoneDataParse* self, int attempt);
  void MonitorStartCaptureProc(int attempt);

  // Camera-parameter handlers and helpers.
  void SetPhoneCameraParams(ePhoneDataSource source, const Json::Value& command, bool force);
  int GetGameRenderFpsFromConfig();
  void SendPhoneCameraParamsToHx(ePhoneType phoneType, ePhoneDataSource source);
  void OnRcvResponseGetCameraParams(ePhoneDataSource source, Json::Value root, ePhoneType phoneType);
  void OnRcvResponseSetCameraParams(ePhoneDataSource source, Json::Value root);
  // The late camera fetch after a phone or camera switch: logged when scheduled, fetched when due.
  void StartDelayedCameraFetch();
  static void DelayGetPhoneCameraThread(PhoneDataParse* self);
  void DelayGetPhoneCameraHandle();

  // Video quality and latency.
  void AnalyseVideoQualityDelay(ePhoneDataSource source, unsigned long long pcTs, unsigned long long appTs);
  void ResetVideoTsData();
  void OnRcvResponseVideoQuality(ePhoneDataSource source, Json::Value root, ePhoneType phoneType);
  void AnanlyVideoQualityDrop(unsigned long long seq, unsigned long long size);
  void ResetVideoQualityDrop();
  void SendResetAppQueue(ePhoneDataSource source, long long delayTime);

  // Telemetry.
  void ReportElk(ePhoneDataSource source, ePhoneType phoneType, Json::Value quality);
  void ReportElkForTs(ePhoneDataSource source, int averageDelay, const std::string& details);

  std::string Json2Str(Json::Value value);
  std::string ConstrcutCmd(std::string json);
  void SendJsonData(ePhoneDataSource source, std::string json);
  IDataSender* FindSender(ePhoneDataSource source);
  bool IsNeedPrintLog(unsigned long long& counter);

  CPhoneCameraCtrl* m_ctrl;
  H264DataReviever* m_video;
  AudioDataReviever* m_audio1;
  AudioDataReviever* m_audio2;
  CVideoDecoder* m_decoder;
  CAudioDecoder* m_audioDecoder1;
  CAudioDecoder* m_audioDecoder2;

  // The registry is filled when the transports are constructed, but a host may name any
  // source when it sends, and the lookup inserts; a small lock keeps that from racing a
  // receive thread's lookup.
  std::mutex m_senderLock;
  std::map<ePhoneDataSource, IDataSender*> m_senders;

  std::recursive_mutex m_callbackLock;  // the parser lock: host callbacks and last-media time
  IUSBEventCallback* m_usbCallback = nullptr;
  IWifiEventCallback* m_wifiCallback = nullptr;
  std::atomic<unsigned long long> m_lastMediaTime{0};

  std::atomic<int> m_audioRecordType{0};
  std::atomic<int> m_phoneVideoRate{4000};

  // Counters that carry over from one phone session to the next.
  std::atomic<unsigned long long> m_commandCounter{0};
  std::atomic<unsigned long long> m_pingCounter{0};
  std::atomic<uint32_t> m_lastPingSeq{0};
  int m_videoLatencyCount = 0;  // touched only by the thread that delivers video
  long long m_lastVideoDiff = 0;
  int m_aacLatencyCount = 0;
  long long m_lastAacDiff = 0;
  int m_formatFrameCount = 0;
  lumo::Stopwatch m_formatFrameWatch;

  // Session: the last phone status, as text and as a value.
  std::mutex m_statusLock;
  std::string m_phoneStatusText;
  Json::Value m_phoneStatus;
  // Net-test cadence of the content-type command.
  bool m_netTestFirst = true;
  bool m_netTestTickSet = false;
  uint32_t m_lastContentTypeTick = 0;

  // Capture.
  std::atomic<bool> m_capturePending{false};
  std::atomic<int> m_captureSource{PHONE_DATA_SOURCE_USB};
  std::atomic<bool> m_audioParamsReceived{false};
  std::string m_lastSwitchPhoneText;

  // Camera parameters.
  std::recursive_mutex m_cameraParamLock;
  std::string m_lastCameraParamJson;
  Json::Value m_phoneCameraParams;
  std::string m_phoneCameraParamsText;
  uint32_t m_lastSwitchCheckTick = 0;
  int m_gameRenderFps = -1;
  bool m_gameRenderFpsLoaded = false;

  // Video quality: delay offsets and the packet-loss counter.
  std::vector<int32_t> m_delayOffsets;  // oldest first; trimmed to kDelaySamples
  std::vector<std::string> m_delayDetails;
  uint32_t m_lastDelayReportTick = 0;
  unsigned long long m_qualityLastSeq = ~0ull;
  unsigned long long m_qualityRecvCount = 0;
  unsigned long long m_qualityRecvBytes = 0;
  unsigned long long m_qualityLostCount = 0;
  uint32_t m_qualityStartTick = 0;
  bool m_qualityStartTickSet = false;

  // Telemetry texts kept during a link (sent as "s1" and "s3"; empty until something defines them).
  std::string m_reportText1;
  std::string m_reportText3;

  // Capture retries and late camera fetches, under one bound: a phone that repeats "prepared",
  // "switch phone" or "camera switched" finds it full instead of piling work up. Declared last,
  // so that it is stopped before anything its tasks use is destroyed.
  // Behind a pointer so that this public header needs none of the threading headers.
  std::unique_ptr<lumo::DelayedTasks> m_delayed;
};
