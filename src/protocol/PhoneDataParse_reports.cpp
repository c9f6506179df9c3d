// Telemetry records: the phone's video-quality report with our frame counts, and the delay
// verdict. The host's report service adds its common fields and ships them.
#include <json/json.h>

#include <mutex>
#include <string>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "protocol/PhoneDataParse.h"

void PhoneDataParse::ReportElk(ePhoneDataSource source, ePhoneType phoneType, Json::Value quality) {
  lumo::HostServices& host = lumo::Host();
  Json::Value record(Json::objectValue);
  int projectionType = host.GetProjectContentType();
  int encodeMode = m_ctrl->GetEncodeMode();
  record["quality"] = quality;
  record["projectionType"] = projectionType;
  record["decodeType"] = 2;  // fixed: whoever reads the record expects 2 whatever decoder runs
  record["connectType"] = static_cast<int>(source);
  record["phoneDef"] = static_cast<int>(phoneType);
  record["encodeMode"] = encodeMode;

  int width = 0, height = 0;
  host.GetProjectionResolution(width, height);
  record["px"] = std::to_string(width) + "x" + std::to_string(height);
  std::string accountId;
  if (host.GetAccountId(accountId)) record["tarroId"] = accountId;

  // Read and cleared in one step, so a frame counted meanwhile lands in the next record rather
  // than being lost between the read and the clear.
  CPhoneCameraCtrl::FrameCounts counts = m_ctrl->TakeFrameCounts();
  host.SetStatistic(lumo::HostStat::PhoneRcvVideoFrameCount, counts.receivedVideo);
  record["rcvRawVideoFrame"] = static_cast<Json::Int64>(counts.receivedVideo);
  host.SetStatistic(lumo::HostStat::PhoneRcvAudioFrameCount, counts.receivedAudio);
  record["rcvAudioFrame"] = static_cast<Json::Int64>(counts.receivedAudio);
  host.SetStatistic(lumo::HostStat::PhoneDecodeVideoFrameCount, counts.decodedVideo);
  record["decodeVideoFrame"] = static_cast<Json::Int64>(counts.decodedVideo);
  host.SetStatistic(lumo::HostStat::PhoneDecodeAudioFrameCount, counts.decodedAudio);
  record["decodeAudioFrame"] = static_cast<Json::Int64>(counts.decodedAudio);

  std::string cameraParamsText;
  {
    std::lock_guard<std::recursive_mutex> guard(m_cameraParamLock);
    cameraParamsText = m_phoneCameraParamsText;
  }
  record["s1"] = m_reportText1;
  record["s2"] = cameraParamsText;
  record["s3"] = m_reportText3;

  Log(LOG_INFO,
      "[PhoneVideo]PhoneDataParse::ReportElk, phoneType:%d,encodeMode:%d,connectType :%d,projecttion type:%d,decode "
      "Type:%d,phone frame count static:rcvRawVideoFrame:%d, decodeVideoFrame:%d, rcvAudioFrame:%d,decodeAudioFrame:%d",
      static_cast<int>(phoneType), encodeMode, static_cast<int>(source), projectionType, 2,
      static_cast<int>(counts.receivedVideo), static_cast<int>(counts.decodedVideo),
      static_cast<int>(counts.receivedAudio), static_cast<int>(counts.decodedAudio));
  host.ReportTelemetry("phoneVideo", "videoQuality", record);
}

void PhoneDataParse::ReportElkForTs(ePhoneDataSource source, int averageDelay, const std::string& details) {
  Json::Value record(Json::objectValue);
  record["p1"] = static_cast<int>(source);
  record["p2"] = averageDelay;
  record["s1"] = details;
  lumo::Host().ReportTelemetry("phoneVideo", "delay", record);
}
