// The session: connect, time match, net tests, phone prepared, phone status.
#include <json/json.h>

#include <climits>
#include <string>
#include <vector>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "protocol/JsonMember.h"
#include "protocol/PhoneDataParse.h"

namespace {

// Splits at every `sep`, keeping empty pieces, so that "a,b," counts as three pieces.
std::vector<std::string> SplitText(const std::string& text, char sep) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (;;) {
    size_t at = text.find(sep, start);
    if (at == std::string::npos) {
      pieces.push_back(text.substr(start));
      return pieces;
    }
    pieces.push_back(text.substr(start, at - start));
    start = at + 1;
  }
}

// Leading-number parse in the manner of atoi, but saturating: the text comes from the phone,
// and a long run of digits must not overflow.
int LeadingInt(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > static_cast<long long>(INT_MAX) + 1) break;
  }
  if (negative) value = -value;
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

}  // namespace

void PhoneDataParse::StartConnect(ePhoneDataSource source) {
  Json::Value command(Json::objectValue);
  command["cmdType"] = 1005;
  m_ctrl->FillConnectInfo(command);
  std::string text = Json2Str(command);
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] protocol %s", text.c_str());
}

void PhoneDataParse::SendPhoneConnected(ePhoneDataSource source) {
  Json::Value command(Json::objectValue);
  command["cmdType"] = 1006;
  SendJsonData(source, Json2Str(command));
}

void PhoneDataParse::MonitorPhoneStatus(ePhoneDataSource source) {
  Json::Value command(Json::objectValue);
  command["cmdType"] = 1004;
  std::string text = Json2Str(command);
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] MonitorPhoneStatus %s", text.c_str());
}

void PhoneDataParse::OnRcvResponseNetTest(ePhoneDataSource source, Json::Value root) {
  uint32_t now = lumo::TickCountMs();
  if (!m_netTestTickSet) {
    m_lastContentTypeTick = now;
    m_netTestTickSet = true;
  }
  if (lumo::Host().GetProjectContentType() != 2) {
    // The phone tests the network often; the content type rides along at most once a second.
    if (m_netTestFirst || static_cast<int32_t>(now - m_lastContentTypeTick) >= 1001) {
      SendContentType(source, root);
      m_lastContentTypeTick = now;
      m_netTestFirst = false;
    }
  }
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] protocol OnRcvResponseNetTest:%s", received.c_str());
  root["cmdType"] = 1000;
  std::string text = Json2Str(root);
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo]  send net test:%s", text.c_str());
}

void PhoneDataParse::OnRcvResponseMatchTimeSpam(ePhoneDataSource source, Json::Value root) {
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] protocol OnRcvResponseMatchTimeSpam:%s", received.c_str());
  unsigned long long q = lumo::WallClock100ns();
  m_lastMediaTime = q;
  unsigned long long now = q / 10000;
  Json::Value answer(Json::objectValue);
  answer["cmdType"] = 1001;
  answer["timestamp"] = static_cast<Json::UInt64>(now);
  std::string text = Json2Str(answer);
  SendJsonData(source, text);
  m_ctrl->SetPhoneTimeBase(now, source);
  Log(LOG_INFO, "[phoneVideo] [liveTs] set phone ts:%I64u phoneDataSrc:%d", now, static_cast<int>(source));
  m_ctrl->StartTimer();  // only a WiFi link has a heartbeat; the control object decides
  Log(LOG_INFO, "[phoneVideo] protocol send time spam:%s", text.c_str());
}

void PhoneDataParse::OnRcvResponsePcConnnect(ePhoneDataSource source, Json::Value root) {
  (void)source;
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] OnRcvResponsePcConnnect: %s", received.c_str());
  // The phone's version and status are read but change nothing: a refused connect shows up as
  // a phone that never prepares.
  const Json::Value* appVer = lumo::FindMember(root, "appVer");
  const Json::Value* status = lumo::FindMember(root, "status");
  if (appVer != nullptr && status != nullptr && appVer->isString() && status->isInt()) {
    std::string version = appVer->asString();
    int code = status->asInt();
    (void)version;
    (void)code;
  }
}

void PhoneDataParse::OnRcvResponsePhonePrepare(ePhoneDataSource source, Json::Value root) {
  std::string received = Json2Str(root);
  Log(LOG_INFO, "[phoneVideo] OnRcvResponsePhonePrepare: %s", received.c_str());
  SendPhoneConnected(source);
  MonitorPhoneStatus(source);
  {
    std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
    if (source != PHONE_DATA_SOURCE_WIFI) {
      if (m_usbCallback != nullptr) m_usbCallback->OnPhonePrepared();
    } else if (m_wifiCallback != nullptr) {
      m_wifiCallback->OnPhonePrepared();
    }
  }
  // Over WiFi the host starts capture itself once told; over USB nobody else will.
  if (source != PHONE_DATA_SOURCE_WIFI) {
    if (lumo::Host().GetProjectContentType() == 1) StartAudioCapture(source);
    StartCapture(source);
    MonitorPcLiving(source);
  }
}

void PhoneDataParse::OnRcvResponseMonitorPhone(ePhoneDataSource source, Json::Value root) {
  (void)source;
  std::string received = Json2Str(root);
  {
    std::lock_guard<std::mutex> guard(m_statusLock);
    m_phoneStatusText = received;
    m_phoneStatus = root;
  }
  Log(LOG_INFO, "[phoneVideo] OnRcvResponseMonitorPhone: %s", received.c_str());

  std::string name, version;
  const Json::Value* phoneName = lumo::FindMember(root, "phoneName");
  if (phoneName != nullptr && phoneName->isString()) {
    name = phoneName->asString();
    m_ctrl->SetPhoneName(name);
    m_ctrl->UpdateCameraParamPath();
  }
  const Json::Value* sysVer = lumo::FindMember(root, "sysVer");
  if (sysVer != nullptr && sysVer->isString()) {
    version = sysVer->asString();
    m_ctrl->SetSysVersion(version);
  }
  if (name.empty() || version.empty() || name.find("iPhone") == std::string::npos) return;

  std::vector<std::string> nameParts = SplitText(name, ',');
  std::vector<std::string> versionParts = SplitText(version, '.');
  if (nameParts.size() != 2 || versionParts.size() < 2) return;
  if (nameParts[0].find("iPhone") == std::string::npos) return;
  // The first piece holds "iPhone", so it is at least six characters long.
  int model = LeadingInt(nameParts[0].substr(6));
  int major = LeadingInt(versionParts[0]);
  if (model >= 9 && major >= 11) {
    m_ctrl->SetHighIOSVersion();
    Log(LOG_INFO, "[phoneVideo] OnRcvResponseMonitorPhone high ios version");
  } else {
    Log(LOG_INFO, "[phoneVideo] OnRcvResponseMonitorPhone not high ios version");
  }
}
