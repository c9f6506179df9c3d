#include "host/PhoneCameraCtrl.h"

#include <json/json.h>

#include <cstdio>
#include <cstdlib>

#include "host/Log.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "platform/text.h"

namespace {
const char kCfgFile[] = "phoneVideoCfg.ini";
}

CPhoneCameraCtrl* CPhoneCameraCtrl::GetInstance() {
  static CPhoneCameraCtrl instance;
  return &instance;
}

CPhoneCameraCtrl::CPhoneCameraCtrl() {
  lumo::HostServices& host = lumo::Host();
  m_protocolVersion = host.GetConfigInt(kCfgFile, "DEBUG", "protocalVersion", 1002);
  std::string list = host.GetConfigString(kCfgFile, "DEBUG", "supportProtocalList", "", 1000);
  // Each comma-separated piece is read as "%d" reads it; a piece with no number adds nothing.
  size_t start = 0;
  while (start < list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    std::string piece = list.substr(start, comma - start);
    int value = 0;
    if (std::sscanf(piece.c_str(), "%d", &value) == 1) m_supportVersions.append(value);
    start = comma + 1;
  }
  m_encodeMode = host.GetConfigInt(kCfgFile, "SECT_VIDEO", "encodeMode", 0);
  m_socketMode = host.GetConfigInt(kCfgFile, "SECT_VIDEO", "socketMode", 1);
  m_timer = host.CreateTimer(this);
}

CPhoneCameraCtrl::~CPhoneCameraCtrl() {
  // Stop the timer thread before the object it calls back goes away.
  m_timer.reset();
}

Json::Value CPhoneCameraCtrl::GetSupportedVersions() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_supportVersions;
}

void CPhoneCameraCtrl::FillConnectInfo(Json::Value& command) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_supportVersions.empty()) {
    if (lumo::Host().GetProjectContentType() != 1) {
      m_supportVersions.append(1000);
      m_supportVersions.append(1001);
    }
    m_supportVersions.append(1002);
  }
  command["version"] = lumo::Host().GetMainVersionString();
  command["protocolver"] = m_protocolVersion;
  command["supportverlist"] = m_supportVersions;
}

void CPhoneCameraCtrl::StartTimer() {
  Log(LOG_INFO, "[phoneVideo] StartTimer");
  int mode = m_connectMode;
  if (mode != 2) {
    Log(LOG_INFO, "[phoneVideo] current connect mode is not wifi %d", mode);
    return;
  }
  Log(LOG_INFO, "[phoneVideo] StartTimer,start phone video heartbeat timer");
  RefreshHeartbeat();
  if (m_timer) m_timer->SetTimer(kHeartbeatTimerId, kHeartbeatPeriodMs);
  m_timerRunning = true;
}

void CPhoneCameraCtrl::StopTimer() {
  Log(LOG_INFO, "[phoneVideo] StopTimer");
  RefreshHeartbeat();
  if (m_timer) m_timer->KillTimer(kHeartbeatTimerId);
  m_timerRunning = false;
}

void CPhoneCameraCtrl::RefreshHeartbeat() {
  std::lock_guard<std::recursive_mutex> guard(m_heartbeatLock);
  m_lastHeartbeatTick = lumo::TickCountMs();
}

uint32_t CPhoneCameraCtrl::GetLastHeartbeatTick() {
  std::lock_guard<std::recursive_mutex> guard(m_heartbeatLock);
  return m_lastHeartbeatTick;
}

void CPhoneCameraCtrl::OnTimer(int id) {
  if (id != kHeartbeatTimerId) return;
  uint32_t last = GetLastHeartbeatTick();
  uint32_t now = lumo::TickCountMs();
  // Widened before subtracting, as the original does: across a tick-count wrap the difference
  // is negative and no time-out is declared until the phone pings again.
  int64_t diff = static_cast<int64_t>(now) - static_cast<int64_t>(last);
  if (diff <= kHeartbeatTimeoutMs) return;
  Log(LOG_ERROR, "[phoneVideo] timeout Diff:%d, last:%d,current:%d", static_cast<int>(diff),
      static_cast<int>(last), static_cast<int>(now));
  StopTimer();
  if (m_hWnd.load()) PostLiveMessage(kMsgAppStop, 2, 2);
}

void CPhoneCameraCtrl::PostJson(int interCmd, const Json::Value& inner) {
  auto* value = new Json::Value(Json::objectValue);
  (*value)["sockType"] = 1;
  (*value)["interCmd"] = interCmd;
  (*value)["interMsg"] = inner;
  // Ownership passes to the host only when it accepted the message.
  if (!lumo::PostHostMessage(m_hWnd.load(), kHostMessage, kHostMessageWParam, reinterpret_cast<intptr_t>(value))) {
    delete value;
  }
}

void CPhoneCameraCtrl::PostLiveMessage(unsigned int msg, unsigned int wParam, unsigned int lParam) {
  Json::Value inner(Json::objectValue);
  inner["Msg"] = msg;
  inner["wParam"] = wParam;
  inner["lParam"] = lParam;
  PostJson(409, inner);
  Log(LOG_INFO, "[lumosource]_msglive %d, wp:%d, lp:%d", msg, wParam, lParam);
}

void CPhoneCameraCtrl::SendPostStrMsgCmdToHxProcess(const std::string& wParam, const std::string& lParam) {
  if (!m_hWnd.load()) {
    Log(LOG_ERROR, "[CPhoneCameraCtrl] SendPostStrMsgCmdToHxProcess hwnd is null");
    return;
  }
  Json::Value inner(Json::objectValue);
  inner["Msg"] = kMsgCameraInfo;
  inner["wParam"] = wParam;
  inner["lParam"] = lParam;
  PostJson(419, inner);
}

void CPhoneCameraCtrl::NotifyAppActiveStop(ePhoneDataSource source, int code, const std::string& message) {
  Log(LOG_INFO, "[phoneVideo] NotifyAppActiveStop code:%d,msg:%s ", code, message.c_str());
  if (m_hWnd.load()) PostLiveMessage(kMsgAppStop, static_cast<unsigned>(source), static_cast<unsigned>(code));
}

void CPhoneCameraCtrl::UpdateCameraParamPath() {
  std::wstring dir = lumo::JoinPath(lumo::JoinPath(lumo::AppDataDir(), L"Lumoapp"), L"PhoneCamParams");
  // Only the last level is created, as the host did; the product folder exists once anything
  // has been logged or configured.
  lumo::CreateDirectoryOneLevel(dir);
  std::wstring path = lumo::JoinPath(dir, lumo::Utf8ToWide(GetPhoneName()) + L".json");
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_cameraParamPath = path;
}

std::wstring CPhoneCameraCtrl::GetCameraParamPath() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_cameraParamPath;
}

void CPhoneCameraCtrl::SetHwnd(HWND hwnd) {
  if (hwnd) m_hWnd = hwnd;
}

void CPhoneCameraCtrl::SetPhoneName(const std::string& name) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_phoneName = name;
}

std::string CPhoneCameraCtrl::GetPhoneName() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_phoneName;
}

void CPhoneCameraCtrl::SetSysVersion(const std::string& version) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_sysVersion = version;
}

std::string CPhoneCameraCtrl::GetSysVersion() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_sysVersion;
}

void CPhoneCameraCtrl::SetPhoneTimeBase(unsigned long long ms, ePhoneDataSource source) {
  m_phoneTimeBase = ms;
  m_phoneTimeBaseSource = source;
}

void CPhoneCameraCtrl::AddDecodedFrame() {
  std::lock_guard<std::recursive_mutex> guard(m_counterLock);
  ++m_counts.decodedVideo;
}

void CPhoneCameraCtrl::AddReceivedVideoFrame() {
  std::lock_guard<std::recursive_mutex> guard(m_counterLock);
  ++m_counts.receivedVideo;
}

void CPhoneCameraCtrl::AddReceivedAudioFrame() {
  std::lock_guard<std::recursive_mutex> guard(m_counterLock);
  ++m_counts.receivedAudio;
}

void CPhoneCameraCtrl::AddDecodedAudioFrame() {
  std::lock_guard<std::recursive_mutex> guard(m_counterLock);
  ++m_counts.decodedAudio;
}

CPhoneCameraCtrl::FrameCounts CPhoneCameraCtrl::GetFrameCounts() {
  std::lock_guard<std::recursive_mutex> guard(m_counterLock);
  return m_counts;
}

CPhoneCameraCtrl::FrameCounts CPhoneCameraCtrl::TakeFrameCounts() {
  std::lock_guard<std::recursive_mutex> guard(m_counterLock);
  FrameCounts taken = m_counts;
  m_counts = FrameCounts{};
  return taken;
}
