// Camera parameters: reading, changing, locally locked values, the host's information message.
#include <json/json.h>

#include <mutex>
#include <string>

#include "host/DelayedTasks.h"
#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "platform/clock.h"
#include "protocol/JsonMember.h"
#include "protocol/PhoneDataParse.h"

namespace {

constexpr uint32_t kSwitchRecheckMs = 300000;
constexpr int kUnlocked = -100;
constexpr uint32_t kDelayedFetchMs = 3000;

const char kCfgFile[] = "phoneVideoCfg.ini";
const char kCfgSection[] = "PHONECAM";

const Json::Value* Member(const Json::Value& object, const char* key) { return lumo::FindMember(object, key); }

Json::Value Setting(int value, int isCustom) {
  Json::Value v(Json::objectValue);
  v["value"] = value;
  v["isCustom"] = isCustom;
  return v;
}

void ZeroAllSettings(Json::Value& command) {
  for (const char* key : {"expose", "whiteBalance", "exposeCompensation", "bokeh"}) command[key] = Setting(0, 0);
}

}  // namespace

void PhoneDataParse::GetPhoneCameraParams(ePhoneDataSource source) {
  {
    std::lock_guard<std::recursive_mutex> guard(m_cameraParamLock);
    uint32_t now = lumo::TickCountMs();
    // Early in the PC's uptime the difference says nothing, so the switch is read every time.
    bool cached = now > kSwitchRecheckMs && now - m_lastSwitchCheckTick < kSwitchRecheckMs;
    if (!cached) {
      m_lastSwitchCheckTick = now;
      bool flag = false;
      std::string text;
      bool known = lumo::Host().GetSwitchConfig("10155", flag, text);
      m_ctrl->SetCameraParamsEnabled(known && flag);
    }
  }
  if (!m_ctrl->IsCameraParamsEnabled()) return;
  Json::Value command(Json::objectValue);
  command["cmdType"] = 1011;
  std::string text = Json2Str(command);
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneVideo] GetPhoneCameraParams %s", text.c_str());
}

void PhoneDataParse::SetPhoneCameraParams(ePhoneDataSource source, PHONE_CAMERA_PARAM_TYPE type, int paramVal,
                                          int isCustom, int reset) {
  std::lock_guard<std::recursive_mutex> guard(m_cameraParamLock);
  Json::Value command(Json::objectValue);
  command["cmdType"] = 1012;
  bool force = false;
  if (reset == 1) {
    command["reset"] = 1;
    ZeroAllSettings(command);
  } else {
    switch (type) {
      case PHONE_CAMERA_PARAM_EXPOSE: command["expose"] = Setting(paramVal, isCustom); break;
      case PHONE_CAMERA_PARAM_EXPOSE_COMPENSATION: command["exposeCompensation"] = Setting(paramVal, isCustom); break;
      case PHONE_CAMERA_PARAM_WHITE_BALANCE: command["whiteBalance"] = Setting(paramVal, isCustom); break;
      case PHONE_CAMERA_PARAM_BOKEH: command["bokeh"] = Setting(paramVal, isCustom); break;
      case PHONE_CAMERA_PARAM_SWITCH_CAM: {
        ZeroAllSettings(command);
        Json::Value state(Json::objectValue);
        state["state"] = paramVal;
        command["switchCam"] = state;
        force = true;  // the user may switch back and forth: every switch goes out
        break;
      }
      default: return;
    }
  }
  Log(LOG_INFO, "[phoneVideo] SetPhoneCameraParams from %d, paramVal %d", static_cast<int>(type), paramVal);
  SetPhoneCameraParams(source, command, force);
}

void PhoneDataParse::SetPhoneCameraParams(ePhoneDataSource source, const Json::Value& command, bool force) {
  std::lock_guard<std::recursive_mutex> guard(m_cameraParamLock);
  std::string text = Json2Str(command);
  if (!force && text == m_lastCameraParamJson) {
    // A slider held still repeats its value many times a second; one line every 2 s says so.
    if (!lumo::Host().IsPrintTooFast(2000, std::string("PhoneDataParse::SetPhoneCameraParams") + "1412")) {
      Log(LOG_INFO, "[phoneCamParam] SetPhoneCameraParams , param is the same as last");
    }
    return;
  }
  m_lastCameraParamJson = text;
  SendJsonData(source, text);
  Log(LOG_INFO, "[phoneCamParam] SetPhoneCameraParams %s", text.c_str());
}

int PhoneDataParse::GetGameRenderFpsFromConfig() {
  std::lock_guard<std::recursive_mutex> guard(m_cameraParamLock);
  if (!m_gameRenderFpsLoaded) {
    m_gameRenderFps = lumo::Host().GetConfigInt("HighQVideo.ini", "USERSET", "GameRenderFps", -1);
    m_gameRenderFpsLoaded = true;
    Log(LOG_INFO, "Utility::GetGameRenderFps,get config game render fps:%d", m_gameRenderFps);
  }
  return m_gameRenderFps < 0 ? 30 : m_gameRenderFps;
}

void PhoneDataParse::SendPhoneCameraParamsToHx(ePhoneType phoneType, ePhoneDataSource source) {
  (void)phoneType;  // the message describes the link by its source, not by the phone type
  Json::Value params, status;
  {
    std::lock_guard<std::recursive_mutex> guard(m_cameraParamLock);
    params = m_phoneCameraParams;
  }
  {
    std::lock_guard<std::mutex> guard(m_statusLock);
    status = m_phoneStatus;
  }
  if (!params.isObject() || !status.isObject()) {
    Log(LOG_ERROR, "PhoneDataParse::SendPhoneCameraParamsToHx error,phone cam or status param empty ");
    return;
  }
  const Json::Value* phoneName = Member(status, "phoneName");
  if (phoneName == nullptr || !phoneName->isString()) {
    Log(LOG_ERROR, "PhoneDataParse::SendPhoneCameraParamsToHx error,phone cam or status param not enough");
    return;
  }

  const Json::Value* isIOSValue = Member(params, "isIOS");
  int isIOS = (isIOSValue != nullptr && isIOSValue->isInt()) ? isIOSValue->asInt() : 0;
  int isUSB = source == PHONE_DATA_SOURCE_USB ? 1 : 0;
  const Json::Value* cameraId = Member(params, "cameraId");
  int cameraType = 1;
  if (cameraId != nullptr && cameraId->isString()) cameraType = cameraId->asString() == "1" ? 1 : 2;
  const Json::Value* maxResolution = Member(status, "cameraMaxResolution");
  const Json::Value* maxVideoSize = Member(params, "maxVideoSize");

  Json::Value info(Json::objectValue);
  info["phoneConnect"] = 1;
  info["isUSB"] = isUSB;
  info["isIOS"] = isIOS;
  info["cameraType"] = cameraType;
  info["phoneName"] = phoneName->asString();
  info["cameraMaxResolution"] =
      (maxResolution != nullptr && maxResolution->isString()) ? maxResolution->asString() : std::string();
  info["maxVideoSize"] =
      (maxVideoSize != nullptr && maxVideoSize->isString() && isIOS == 0) ? maxVideoSize->asString() : std::string();
  std::string text = Json2Str(info);
  Log(LOG_INFO, "PhoneDataParse::SendPhoneCameraParamsToHx, info:%s", text.c_str());

  m_ctrl->SendPostStrMsgCmdToHxProcess(std::string(), text);
  lumo::Host().SetPhoneName(phoneName->asString());
  lumo::Host().SetStatistic(lumo::HostStat::PhoneConnectType, isUSB);
  lumo::Host().SetStatistic(lumo::HostStat::PhoneIsIOS, isIOS);
}

void PhoneDataParse::OnRcvResponseGetCameraParams(ePhoneDataSource source, Json::Value root, ePhoneType phoneType) {
  {
    std::lock_guard<std::recursive_mutex> guard(m_cameraParamLock);
    m_lastCameraParamJson.clear();  // the phone has told us its state: the next change always goes out

    const Json::Value* isIOS = Member(root, "isIOS");
    m_ctrl->SetIOS(isIOS != nullptr && isIOS->isInt() && isIOS->asInt() == 1);

    lumo::HostServices& host = lumo::Host();
    int lockCompensation = host.GetConfigInt(kCfgFile, kCfgSection, "localLockExposeCompensation", kUnlocked);
    int lockWhiteBalance = host.GetConfigInt(kCfgFile, kCfgSection, "localLockWhiteBalance", kUnlocked);
    int lockBokeh = host.GetConfigInt(kCfgFile, kCfgSection, "localLockBokeh", kUnlocked);

    // Settings the user locked on the PC win over what the phone reports.
    Json::Value writeBack(Json::objectValue);
    bool anyLock = false;
    auto lockIfSet = [&](const char* key, int value) {
      if (value == kUnlocked) return;
      writeBack[key] = Setting(value, 1);
      anyLock = true;
    };
    lockIfSet("whiteBalance", lockWhiteBalance);
    lockIfSet("exposeCompensation", lockCompensation);
    lockIfSet("bokeh", lockBokeh);
    if (anyLock) {
      writeBack["cmdType"] = 1012;
      writeBack["reset"] = 0;
      Log(LOG_INFO, "[phoneCamParam] OnRcvResponseGetCameraParams need write back.");
      SetPhoneCameraParams(source, writeBack, true);
    }

    m_phoneCameraParams = root;
    std::string text = Json2Str(root);
    Log(LOG_INFO, "[phoneCamParam] OnRcvResponseGetCameraParams %s", text.c_str());
    m_phoneCameraParamsText = text;
  }
  // The host hears about it outside the parameter lock: its callbacks run under the callback
  // lock and may well call back into SetPhoneCameraParams from another thread.
  SendPhoneCameraParamsToHx(phoneType, source);
  RefreshCameraParam(source, root, true);
}

void PhoneDataParse::OnRcvResponseSetCameraParams(ePhoneDataSource source, Json::Value root) {
  (void)source;  // the follow-up fetch goes to wherever capture runs
  std::string text = Json2Str(root);
  Log(LOG_INFO, "[phoneCamParam] OnRcvResponseSetCameraParams %s", text.c_str());
  if (!root.isObject()) {
    Log(LOG_ERROR, "OnRcvResponseSetCameraParams, jsVal is not an object");
    return;
  }
  const Json::Value* switchCam = Member(root, "switchCam");
  const Json::Value* state = switchCam != nullptr ? Member(*switchCam, "state") : nullptr;
  if (state == nullptr || !state->isInt() || state->asInt() != 1) return;

  // The other camera's parameters are only known once the phone has finished switching.
  StartDelayedCameraFetch();
}

// Shared by a phone switch and a camera switch. A full queue refuses the fetch (and says so
// itself): a phone that answers every change with "switched" cannot pile fetches up.
void PhoneDataParse::StartDelayedCameraFetch() {
  if (m_delayed->Schedule(kDelayedFetchMs, [this] { DelayGetPhoneCameraThread(this); }))
    Log(LOG_INFO, "[phoneVideo] DelayGetPhoneCameraHandle");
}

void PhoneDataParse::DelayGetPhoneCameraThread(PhoneDataParse* self) { self->DelayGetPhoneCameraHandle(); }

// Runs 3 s after the switch, on the delayed-work thread; it fetches from wherever capture runs.
void PhoneDataParse::DelayGetPhoneCameraHandle() {
  GetPhoneCameraParams(static_cast<ePhoneDataSource>(m_captureSource.load()));
}

void PhoneDataParse::RefreshCameraParam(ePhoneDataSource source, const Json::Value& params, bool bHasValRange) {
  Log(LOG_INFO, "[phoneCamParam] RefreshCameraParam bHasValRange %d", bHasValRange ? 1 : 0);
  std::lock_guard<std::recursive_mutex> guard(m_callbackLock);
  if (source == PHONE_DATA_SOURCE_USB) {
    if (m_usbCallback) m_usbCallback->OnCameraParamsRefreshed(params, bHasValRange);
  } else if (source == PHONE_DATA_SOURCE_WIFI) {
    if (m_wifiCallback) m_wifiCallback->OnCameraParamsRefreshed(params, bHasValRange);
  }
}
