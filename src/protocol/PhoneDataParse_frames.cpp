// The frame layer: dispatch by frame type, pings both ways, the media header, and the framing of
// outgoing JSON commands.
#include <json/json.h>

#include <cstring>
#include <exception>

#include "host/DelayedTasks.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/CAudioDecoder.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "protocol/JsonMember.h"
#include "protocol/PhoneDataParse.h"

namespace {

uint32_t ReadBE32(const unsigned char* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

void AppendBE32(std::string& out, uint32_t v) {
  out.push_back(static_cast<char>(v >> 24));
  out.push_back(static_cast<char>(v >> 16));
  out.push_back(static_cast<char>(v >> 8));
  out.push_back(static_cast<char>(v));
}

// Increments a sequence counter and returns the value the frame carries; a counter past the
// wrap point goes back to 0 after the frame is built, so the next frame carries 1 again.
unsigned long long NextSequence(std::atomic<unsigned long long>& counter) {
  unsigned long long value = ++counter;
  if (value > PhoneDataParse::kCounterWrap) counter.compare_exchange_strong(value, 0);
  return value;
}

}  // namespace

PhoneDataParse* PhoneDataParse::GetInstance() {
  static PhoneDataParse instance(CPhoneCameraCtrl::GetInstance(), H264DataReviever::GetInstance(),
                                 AudioDataReviever::GetInstance(1), AudioDataReviever::GetInstance(2),
                                 CVideoDecoder::GetInstance(), CAudioDecoder::GetInstance(1),
                                 CAudioDecoder::GetInstance(2));
  return &instance;
}

PhoneDataParse::PhoneDataParse(CPhoneCameraCtrl* ctrl, H264DataReviever* video, AudioDataReviever* audio1,
                               AudioDataReviever* audio2, CVideoDecoder* decoder, CAudioDecoder* audioDecoder1,
                               CAudioDecoder* audioDecoder2)
    : m_ctrl(ctrl),
      m_video(video),
      m_audio1(audio1),
      m_audio2(audio2),
      m_decoder(decoder),
      m_audioDecoder1(audioDecoder1),
      m_audioDecoder2(audioDecoder2),
      m_delayed(std::make_unique<lumo::DelayedTasks>("protocol delayed work")) {
  m_senders[PHONE_DATA_SOURCE_USB] = nullptr;
  m_senders[PHONE_DATA_SOURCE_WIFI] = nullptr;
  Log(LOG_INFO, "[phoneVideo] reset video quality");
}

// Delayed tasks use the parser and the senders registered with it: they are stopped first.
PhoneDataParse::~PhoneDataParse() { m_delayed->Close(); }

void PhoneDataParse::CancelDelayedWork() { m_delayed->CancelAll(); }

void PhoneDataParse::ParsePhoneData(ePhoneDataSource source, signed char* data, unsigned int len,
                                    ePhoneType phoneType) {
  if (len < 4 || data == nullptr) {
    Log(LOG_BAD_DATA, "[phoneVideo]ParseRcvData. json data error,len invalid");
    return;
  }
  unsigned char type = static_cast<unsigned char>(data[0]);
  signed char* body = data + 1;
  unsigned int bodyLen = len - 1;
  switch (type) {
    case 0:
      ParseRcvRawH264Data(source, bodyLen, body);
      break;
    case 1:
      ParseRcvJsonData(source, bodyLen, body, phoneType);
      break;
    case 2:
      ParseRcvFormatH264Data(source, bodyLen, body);
      // Counts video frames once a minute; the text names Json2Str for historical reasons.
      if (m_formatFrameCount == 0) m_formatFrameWatch.Restart();
      ++m_formatFrameCount;
      if (m_formatFrameWatch.ElapsedUs() > 60000000ull) {
        Log(LOG_INFO, "PhoneDataParse::Json2Str frame count : %d", m_formatFrameCount);
        m_formatFrameCount = 0;
      }
      break;
    case 4:
      PareseRcvPingData(source, bodyLen, body);
      break;
    case 6:
      if (m_audioRecordType == 1) ParseRcvRawAACdata(source, bodyLen, body);
      break;
    default:
      Log(LOG_INFO, "[phoneVideo] recievie error type:%d", type);
      break;
  }
}

void PhoneDataParse::ParseRcvRawH264Data(ePhoneDataSource source, unsigned int len, signed char* body) {
  m_video->PushH264RawData(reinterpret_cast<const unsigned char*>(body), len, 0, source);
}

unsigned long long PhoneDataParse::StampMediaTime(const unsigned char* header, unsigned long long& phoneTs) {
  phoneTs = ReadBE32(header + 12);  // widened without sign extension
  unsigned long long q = lumo::WallClock100ns();
  m_lastMediaTime = q;
  return q / 10000;
}

void PhoneDataParse::CountLatency(int& count, long long& lastDiff, int every, const char* format,
                                  unsigned long long now, unsigned long long phoneTs) {
  ++count;
  lastDiff = static_cast<long long>(now - phoneTs);
  if (count == every) {
    Log(LOG_INFO, format, now, phoneTs, lastDiff);
    count = 0;
    lastDiff = 0;
  }
}

void PhoneDataParse::ParseRcvFormatH264Data(ePhoneDataSource source, unsigned int len, signed char* body) {
  // A body shorter than the header would make the payload length wrap around; it is rejected
  // like one that leaves fewer than 3 payload bytes.
  if (len < kMediaHeaderSize + 3) {
    Log(LOG_INFO, "[phoneVideo] parse h264 format data len too short");
    return;
  }
  const auto* header = reinterpret_cast<const unsigned char*>(body);
  unsigned long long phoneTs = 0;
  unsigned long long now = StampMediaTime(header, phoneTs);
  CountLatency(m_videoLatencyCount, m_lastVideoDiff, 300,
               "[phoneVideo] Video calculate latency, current %I64u , phone:%I64u, diff:%lld", now, phoneTs);
  AnalyseVideoQualityDelay(source, now, phoneTs);
  m_video->PushH264RawData(header + kMediaHeaderSize, len - kMediaHeaderSize, phoneTs, source);
}

void PhoneDataParse::ParseRcvRawAACdata(ePhoneDataSource source, unsigned int len, signed char* body) {
  if (len < kMediaHeaderSize + 3) {
    Log(LOG_INFO, "[phoneVideo] parse aac format data len too short");
    return;
  }
  const auto* header = reinterpret_cast<const unsigned char*>(body);
  bool second = header[4] == 0 && header[5] == 0 && header[6] == 0 && header[7] == 1;
  unsigned long long phoneTs = 0;
  unsigned long long now = StampMediaTime(header, phoneTs);
  CountLatency(m_aacLatencyCount, m_lastAacDiff, 500,
               "[phoneVideo]AAC. calculate latency, current %I64u , phone:%I64u, diff:%lld", now, phoneTs);
  AudioDataReviever* receiver = second ? m_audio2 : m_audio1;
  receiver->PushAACRawData(header + kMediaHeaderSize, len - kMediaHeaderSize, phoneTs);
}

void PhoneDataParse::PareseRcvPingData(ePhoneDataSource source, unsigned int len, signed char* body) {
  if (len < 4) {
    Log(LOG_BAD_DATA, "[phoneVideo] ping data len too short:%u", len);
    return;
  }
  const auto* seqBytes = reinterpret_cast<const unsigned char*>(body);
  uint32_t seq = ReadBE32(seqBytes);
  if (seq != m_lastPingSeq) {
    m_ctrl->RefreshHeartbeat();
    m_lastPingSeq = seq;
  }
  std::string reply("\x00\x00\x00\x05\x05", 5);
  reply.append(reinterpret_cast<const char*>(seqBytes), 4);
  if (IDataSender* sender = FindSender(source)) sender->SendData(reply);
}

void PhoneDataParse::SendPing(ePhoneDataSource source) {
  std::string frame("\x00\x00\x00\x05\x04", 5);
  AppendBE32(frame, static_cast<uint32_t>(NextSequence(m_pingCounter)));
  if (IDataSender* sender = FindSender(source)) sender->SendData(frame);
}

void PhoneDataParse::ParseRcvJsonData(ePhoneDataSource source, unsigned int len, signed char* body,
                                      ePhoneType phoneType) {
  // A body too short to hold the sequence number carries no text at all.
  std::string text;
  if (len > 4) text.assign(reinterpret_cast<const char*>(body) + 4, len - 4);
  Json::Value root;
  std::string errors;
  bool parsed = false;
  try {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
    parsed = reader.parse(text, root, true);
    if (!parsed) errors = reader.getFormattedErrorMessages();
#pragma GCC diagnostic pop
  } catch (const std::exception& e) {
    // The reader throws on nesting deeper than its stack limit; for us that is bad JSON.
    parsed = false;
    errors = e.what();
  }
  if (!parsed) {
    Log(LOG_BAD_DATA, "[phoneVideo]ParseRcvJsonData. Json error:%s sParam=%s", errors.c_str(), text.c_str());
    return;
  }
  if (!root.isObject()) {
    Log(LOG_BAD_DATA, "[phoneVideo]ParseRcvJsonData. Not Object sParam=%s", text.c_str());
    return;
  }
  const Json::Value* cmdType = lumo::FindMember(root, "cmdType");
  if (cmdType == nullptr || !cmdType->isInt()) {
    Log(LOG_BAD_DATA, "[phoneVideo]ParseRcvJsonData. json data error,cmdType not int!sParam=%s", text.c_str());
    return;
  }
  DispatchJsonCommand(source, cmdType->asInt(), root, phoneType);
}

bool PhoneDataParse::DispatchJsonCommand(ePhoneDataSource source, int cmdType, const Json::Value& root,
                                         ePhoneType phoneType) {
  // The phone's messages; 2009, 2010 and every number not listed are ignored.
  switch (cmdType) {
    case 2000: OnRcvResponseNetTest(source, root); return true;
    case 2001: OnRcvResponseMatchTimeSpam(source, root); return true;
    case 2002: OnRcvResponseStartCapture(source, root); return true;
    case 2003: OnRcvResponseStopCapture(source, root); return true;
    case 2004: OnRcvResponseMonitorPhone(source, root); return true;
    case 2005: OnRcvResponsePcConnnect(source, root); return true;
    case 2006: OnRcvResponsePhonePrepare(source, root); return true;
    case 2007: OnRcvResponseVideoQuality(source, root, phoneType); return true;
    case 2008: OnRevResponseAppActiveStopVideo(source, root); return true;
    case 2011: OnRcvResponseGetCameraParams(source, root, phoneType); return true;
    case 2012: OnRcvResponseSetCameraParams(source, root); return true;
    case 2013: OnRcvResponseSetContentType(source, root); return true;
    case 2014: OnRcvResponseStartAudioCapture(source, root); return true;
    case 2015: OnRcvAppStartProjection(source, root); return true;
    case 2016: OnRcvResponseSetExposureStat(source, root); return true;
    case 2017: OnRcvAppSwitchPhone(source, root); return true;
    default: return false;
  }
}

std::string PhoneDataParse::Json2Str(Json::Value value) {
  // The phone expects exactly the compact text of the classic writer (with its newline). A
  // writer per call: it keeps its output in a member, so a shared one would race, and a
  // thread_local one is destroyed after its thread's storage is gone with mingw-w64's emulated
  // TLS (a heap corruption when a short-lived thread that sent a command ends).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::FastWriter writer;
  return writer.write(value);
#pragma GCC diagnostic pop
}

std::string PhoneDataParse::ConstrcutCmd(std::string json) {
  std::string frame;
  frame.reserve(json.size() + 9);
  uint32_t seq = static_cast<uint32_t>(NextSequence(m_commandCounter));
  AppendBE32(frame, static_cast<uint32_t>(json.size() + 5));
  frame.push_back(1);
  AppendBE32(frame, seq);
  frame.append(json);
  return frame;
}

void PhoneDataParse::SendJsonData(ePhoneDataSource source, std::string json) {
  IDataSender* sender = FindSender(source);
  if (!sender) return;
  sender->SendData(ConstrcutCmd(json));
}

IDataSender* PhoneDataParse::FindSender(ePhoneDataSource source) {
  std::lock_guard<std::mutex> guard(m_senderLock);
  return m_senders[source];  // an unknown source is registered with no sender, as a lookup would
}

void PhoneDataParse::SetDataSender(ePhoneDataSource source, IDataSender* sender) {
  std::lock_guard<std::mutex> guard(m_senderLock);
  m_senders[source] = sender;
}

void PhoneDataParse::SetUSBCallback(IUSBEventCallback* callback) {
  std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
  m_usbCallback = callback;
}

void PhoneDataParse::SetWifiCallback(IWifiEventCallback* callback) {
  std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
  m_wifiCallback = callback;
}

unsigned long long PhoneDataParse::UpdateStartPhoneTimeStamp() {
  unsigned long long q = lumo::WallClock100ns();
  m_lastMediaTime = q;
  return q;
}

unsigned long long PhoneDataParse::GetPhoneStartTimeStamp() {
  std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
  return m_lastMediaTime;
}

bool PhoneDataParse::IsNeedPrintLog(unsigned long long& counter) {
  unsigned long long before = counter++;
  if (before % 60 == 0) return true;
  if (counter > 9999999999ull) counter = 0;
  return false;
}
