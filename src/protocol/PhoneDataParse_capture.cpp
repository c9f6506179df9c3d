// Capture and projection control, and the settings that shape it.
#include <json/json.h>

#include <string>

#include "host/DelayedTasks.h"
#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CAudioDecoder.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "protocol/JsonMember.h"
#include "protocol/PhoneDataParse.h"

namespace {

const char kVideoCfg[] = "phoneVideoCfg.ini";
const int kRateByIndex[] = {3000, 4000, 5000, 6000, 7000, 8000};
constexpr int kCaptureRetries = 3;
constexpr uint32_t kCaptureRetryMs = 3000;

bool IsRateIndex(int index) { return static_cast<unsigned>(index) < sizeof(kRateByIndex) / sizeof(kRateByIndex[0]); }

int ProjectionPreview() { return lumo::Host().GetConfigInt("HighQVideo.ini", "USERSET", "projectionPreview", 0); }

Json::Value Command(int cmdType) {
  Json::Value command(Json::objectValue);
  command["cmdType"] = cmdType;
  return command;
}

// Reads an integer member; false (value untouched) when it is absent or of another type.
bool ReadInt(const Json::Value& root, const char* key, int& value) {
  const Json::Value* member = lumo::FindMember(root, key);
  if (member == nullptr || !member->isInt()) return false;
  value = member->asInt();
  return true;
}

}  // namespace

void PhoneDataParse::StartCapture(ePhoneDataSource source) {
  int fps = lumo::Host().GetVideoFps();
  if (m_decoder != nullptr) {
    m_decoder->SetFps(static_cast<unsigned int>(fps));
    m_decoder->InitDecoderType();
    m_decoder->StartDecode();
  }
  m_capturePending = true;
  m_captureSource = source;
  // Only a camera projection is worth insisting on: the phone may have missed the request.
  // (A full queue refuses the retry and says so itself.)
  if (lumo::Host().GetProjectContentType() == 0) ScheduleCaptureRetry(0);
  std::string text = Json2Str(Command(1002));
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] protocol StartCapture:%s", text.c_str());

  ResetVideoQualityForCapture();
  if (m_video != nullptr) m_video->OnStopCapture();
}

// A capture start or stop begins the delay measurement afresh: offsets from one capture say
// nothing about the next.
void PhoneDataParse::ResetVideoQualityForCapture() {
  m_qualityLastSeq = ~0ull;
  Log(LOG_INFO, "[phoneVideo] reset video quality");
  ResetVideoTsData();
}

void PhoneDataParse::ScheduleCaptureRetry(int attempt) {
  m_delayed->Schedule(kCaptureRetryMs, [this, attempt] { MonitorStartCaptureProcProxy(this, attempt); });
}

void PhoneDataParse::MonitorStartCaptureProcProxy(PhoneDataParse* self, int attempt) {
  self->MonitorStartCaptureProc(attempt);
}

// One attempt, 3 s after the start or the previous attempt; the next is scheduled from here, so
// an unanswered start is repeated at 3, 6 and 9 s and then given up.
void PhoneDataParse::MonitorStartCaptureProc(int attempt) {
  if (!m_capturePending) return;
  Log(LOG_INFO, "[phoneVideo] MonitorStartCaptureProcProxy looIdx: %d", attempt);
  ReStartCapture(static_cast<ePhoneDataSource>(m_captureSource.load()));
  if (attempt + 1 < kCaptureRetries) ScheduleCaptureRetry(attempt + 1);
}

void PhoneDataParse::ReStartCapture(ePhoneDataSource source) {
  std::string text = Json2Str(Command(1002));
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] protocol ReStartCapture:%s", text.c_str());
}

void PhoneDataParse::StopCapture(ePhoneDataSource source) {
  // A start still waiting for its answer is no longer wanted: without this a retry could
  // restart the capture the host has just stopped.
  m_capturePending = false;
  std::string text = Json2Str(Command(1003));
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] protocol StopCapture:%s", text.c_str());
  if (m_video != nullptr) m_video->OnStopCapture();
  ResetVideoQualityForCapture();
  m_ctrl->SetPhoneTimeBase(0, static_cast<ePhoneDataSource>(0));
  Log(LOG_INFO, "[phoneVideo] [liveTs] set phone ts:%I64u phoneDataSrc:%d", 0ull, 0);
  // Gives the phone a moment to stop before the caller tears anything down.
  lumo::SleepMs(200);
}

void PhoneDataParse::StartAudioCapture(ePhoneDataSource source) {
  if (m_audioRecordType != 1) return;
  std::string text = Json2Str(Command(1014));
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] protocol StartAudioCapture:%s", text.c_str());
  lumo::SleepMs(10);
}

void PhoneDataParse::SetExposureStat(ePhoneDataSource source, int lock) {
  Json::Value command = Command(1016);
  command["lock"] = lock;
  std::string text = Json2Str(command);
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] protocol SetExposureStat:%s", text.c_str());
}

void PhoneDataParse::SendLiveEvent(ePhoneDataSource source, unsigned int status, const std::string& roomid,
                                   const std::string& lumoId, const std::string& channelId) {
  if (ProjectionPreview() == 0) {
    Log(LOG_INFO, "[phoneVideo] not SendLiveEvent for showpreview 0");
    return;
  }
  Json::Value command = Command(1010);
  command["roomid"] = roomid;
  command["lumoId"] = lumoId;
  command["channelId"] = channelId;
  command["status"] = status;
  std::string text = Json2Str(command);
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] SendLiveEvent %s", text.c_str());
}

void PhoneDataParse::MonitorPcLiving(ePhoneDataSource source) {
  if (!lumo::Host().IsLive()) return;
  Log(LOG_INFO, "[phoneVideo] pc is live, notify phone to pull stream");
  SendLiveEvent(source, 1, lumo::Host().GetRoomId(), lumo::Host().GetLumoId(), std::string());
}

void PhoneDataParse::SetPhoneVideoRate(int index) {
  if (IsRateIndex(index)) m_phoneVideoRate = kRateByIndex[index];
  SetPhoneVideoRateToConfig(index);
}

void PhoneDataParse::SetPhoneVideoRateToConfig(int index) {
  lumo::Host().SetConfigString(kVideoCfg, "SECT_VIDEO", "videoRateIdx", std::to_string(index));
}

int PhoneDataParse::GetPhoneVideoRateFromConfig() {
  int index = lumo::Host().GetConfigInt(kVideoCfg, "SECT_VIDEO", "videoRateIdx", 1);
  if (IsRateIndex(index)) m_phoneVideoRate = kRateByIndex[index];
  return index;
}

void PhoneDataParse::SetAudioRecordTypeToConfig(int type) {
  lumo::Host().SetConfigString(kVideoCfg, "SECT_VIDEO", "audioRecType", std::to_string(type));
}

int PhoneDataParse::GetAudioRecordTypeFromConfig() {
  int type = lumo::Host().GetConfigInt(kVideoCfg, "SECT_VIDEO", "audioRecType", 0);
  m_audioRecordType = type;
  return type;
}

void PhoneDataParse::SetConnectMode(int mode) {
  m_ctrl->SetConnectMode(mode);
  if (mode == 1) Log(LOG_INFO, "[phoneVideo] SetConnectMode:usb");
  if (mode == 2) Log(LOG_INFO, "[phoneVideo] SetConnectMode:wifi");
}

int PhoneDataParse::GetConnectMode() { return m_ctrl->GetConnectMode(); }

void PhoneDataParse::SendContentType(ePhoneDataSource source, Json::Value root) {
  (void)root;  // the phone's net test is not part of the answer
  lumo::HostServices& host = lumo::Host();
  int contentType = host.GetProjectContentType();
  int width = 1920, height = 1080;
  host.GetProjectionResolution(width, height);
  int fps = (host.Is169Video() && contentType == 1) ? GetGameRenderFpsFromConfig() : host.GetVideoFps();
  Json::Value command = Command(1013);
  command["liveType"] = contentType;
  command["width"] = width;
  command["height"] = height;
  command["fps"] = fps;
  command["bitRate"] = m_phoneVideoRate * 1000;
  command["codeType"] = 1;
  command["show"] = ProjectionPreview();
  std::string text = Json2Str(command);
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] protocol send content type:%s", text.c_str());
}

void PhoneDataParse::OnRcvResponseStartCapture(ePhoneDataSource source, Json::Value root) {
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] OnRcvResponseStartCapture: %s", received.c_str());
  m_capturePending = false;
  lumo::Host().SetStatistic(lumo::HostStat::ProjectionContentType, lumo::Host().GetProjectContentType());
  std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
  if (source == PHONE_DATA_SOURCE_WIFI) {
    if (m_wifiCallback != nullptr) {
      m_wifiCallback->OnCaptureStarted();
      GetPhoneCameraParams(PHONE_DATA_SOURCE_WIFI);
    }
  } else if (source == PHONE_DATA_SOURCE_USB) {
    GetPhoneCameraParams(PHONE_DATA_SOURCE_USB);
  }
}

void PhoneDataParse::OnRcvResponseStopCapture(ePhoneDataSource source, Json::Value root) {
  (void)source;
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] OnRcvResponseStopCapture: %s", received.c_str());
  m_ctrl->SetPhoneName("");
  m_ctrl->UpdateCameraParamPath();
}

void PhoneDataParse::OnRevResponseAppActiveStopVideo(ePhoneDataSource source, Json::Value root) {
  const Json::Value* codeMember = lumo::FindMember(root, "code");
  const Json::Value* messageMember = lumo::FindMember(root, "errMsg");
  if (codeMember == nullptr || !codeMember->isInt() || messageMember == nullptr || !messageMember->isString()) {
    Log(LOG_INFO, "[phoneVideo] OnRevResponseAppActiveStopVideo json error");
    return;
  }
  SendJsonData(source, Json2Str(Command(1008)));
  lumo::SleepMs(5);
  int code = codeMember->asInt();
  std::string message = messageMember->asString();
  if (code < -10000 || code > 10000) {
    Log(LOG_INFO, "[phoneVideo] OnRevResponseAppActiveStopVideo json code:%d to 223 ", code);
    code = 223;
  }
  m_ctrl->NotifyAppActiveStop(source, code, message);
  if (lumo::Host().GetProjectContentType() != 0) return;

  // A camera projection has lost its camera: the host is told there is none.
  Json::Value info(Json::objectValue);
  info["phoneConnect"] = 0;
  info["isIOS"] = 0;
  info["isUSB"] = source == PHONE_DATA_SOURCE_USB ? 1 : 0;
  info["cameraType"] = 1;
  info["phoneName"] = "";
  info["cameraMaxResolution"] = "";
  info["maxVideoSize"] = "";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::FastWriter writer;
  std::string text = writer.write(info);
#pragma GCC diagnostic pop
  Log(LOG_INFO, "PhoneDataParse::OnRevResponseAppActiveStopVideo,SendPhoneCameraParamsToHx, info:%s", text.c_str());
  m_ctrl->SendPostStrMsgCmdToHxProcess("", text);
  lumo::Host().SetPhoneName("null");
}

void PhoneDataParse::OnRcvResponseSetContentType(ePhoneDataSource source, Json::Value root) {
  (void)source;
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] OnRcvResponseSetContentType: %s", received.c_str());
}

void PhoneDataParse::OnRcvResponseStartAudioCapture(ePhoneDataSource source, Json::Value root) {
  (void)source;
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] OnRcvResponseStartAudioCapture: %s", received.c_str());
  int sampleRate = 44100, aacType = 1, channels = 2;
  if (!ReadInt(root, "dwSampleRate", sampleRate))
    Log(LOG_ERROR, "OnRcvResponseStartAudioCapture, dwSampleRate not exist or not int.");
  if (!ReadInt(root, "aacType", aacType)) Log(LOG_ERROR, "OnRcvResponseStartAudioCapture, aacType not exist or not int.");
  if (!ReadInt(root, "dwChannel", channels))
    Log(LOG_ERROR, "OnRcvResponseStartAudioCapture, dwChannel not exist or not int.");
  m_audioParamsReceived = true;
  if (sampleRate < 1 || aacType < 1 || channels < 1) return;
  // The phone records one microphone stream; both decoding chains play it, so both take its
  // parameters.
  if (m_audioDecoder1 != nullptr) m_audioDecoder1->SetParam(sampleRate, channels, aacType);
  if (m_audioDecoder2 != nullptr) m_audioDecoder2->SetParam(sampleRate, channels, aacType);
}

void PhoneDataParse::OnRcvAppStartProjection(ePhoneDataSource source, Json::Value root) {
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] protocol OnRcvAppStartProjection:%s", received.c_str());
  root["cmdType"] = 1015;
  SendJsonData(source, Json2Str(root));
  std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
  if (lumo::Host().GetProjectContentType() == 1 && m_ctrl->GetConnectMode() == 2 && m_wifiCallback != nullptr) {
    Log(LOG_INFO, "[phoneVideo] protocol OnRcvAppStartProjection,WifiAppStartProjection");
    m_wifiCallback->OnAppStartProjection();
  }
}

void PhoneDataParse::OnRcvResponseSetExposureStat(ePhoneDataSource source, Json::Value root) {
  (void)source;
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] OnRcvResponseSetExposureStat: %s", received.c_str());
}

void PhoneDataParse::OnRcvAppSwitchPhone(ePhoneDataSource source, Json::Value root) {
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] protocol OnRcvAppSwitchPhone:%s", received.c_str());
  {
    // USB and WiFi receive threads may both deliver one.
    std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
    m_lastSwitchPhoneText = received;
  }
  root["cmdType"] = 1017;
  SendJsonData(source, Json2Str(root));
  // A new phone brings its own camera: the local locks no longer apply.
  for (const char* key : {"localLockExposeCompensation", "localLockWhiteBalance", "localLockBokeh"}) {
    lumo::Host().SetConfigString(kVideoCfg, "PHONECAM", key, "-100");
  }
  StartDelayedCameraFetch();
}
