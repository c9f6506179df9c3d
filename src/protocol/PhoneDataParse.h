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
#include <mutex>
#include <string>

#include "host/LumoExport.h"
#include "host/PhoneCameraTypes.h"
#include "platform/clock.h"

class CPhoneCameraCtrl;
class H264DataReviever;
class AudioDataReviever;

class LUMO_API PhoneDataParse {
 public:
  static PhoneDataParse* GetInstance();

  // The singleton is wired to the process-wide collaborators; tests wire fresh ones.
  PhoneDataParse(CPhoneCameraCtrl* ctrl, H264DataReviever* video, AudioDataReviever* audio1,
                 AudioDataReviever* audio2);
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

  // The last-media time: host clock (100-ns units) of the last media frame or time match.
  unsigned long long UpdateStartPhoneTimeStamp();
  unsigned long long GetPhoneStartTimeStamp();

  // 1 when the phone's microphone audio is wanted; AAC frames are dispatched only then.
  void SetAudioRecordType(int type) { m_audioRecordType = type; }
  int GetAudioRecordType() const { return m_audioRecordType; }

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

  std::string Json2Str(Json::Value value);
  std::string ConstrcutCmd(std::string json);
  void SendJsonData(ePhoneDataSource source, std::string json);
  IDataSender* FindSender(ePhoneDataSource source);
  bool IsNeedPrintLog(unsigned long long& counter);

  CPhoneCameraCtrl* m_ctrl;
  H264DataReviever* m_video;
  AudioDataReviever* m_audio1;
  AudioDataReviever* m_audio2;

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
};
