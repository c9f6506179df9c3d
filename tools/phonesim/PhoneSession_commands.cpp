// The phone's answers to the PC's commands, its timed duties and the scenario events.
#include <algorithm>
#include <iterator>

#include "PhoneSession.h"
#include "platform/clock.h"
#include "protocol/JsonMember.h"

namespace lumo::phonesim {
namespace {

Json::Value Cmd(int type) {
  Json::Value v(Json::objectValue);
  v["cmdType"] = type;
  return v;
}

}  // namespace

void PhoneSession::Command(const Json::Value& c, Outbox& out) {
  const Json::Value* typeValue = FindMember(c, "cmdType");
  if (typeValue == nullptr || !typeValue->isInt()) return;
  switch (typeValue->asInt()) {
    case 1005: {  // connect: who we are, then ask for the PC's clock
      Json::Value answer = Cmd(2005);
      answer["appVer"] = m_options.appVer;
      answer["status"] = 0;
      Send(answer, out);
      Send(Cmd(2001), out);
      m_stage = "time match";
      break;
    }
    case 1001: {  // the PC's clock becomes ours
      const Json::Value* ts = FindMember(c, "timestamp");
      if (ts == nullptr || !ts->isIntegral()) break;
      m_pcTimeMs = ts->asUInt64();
      m_adoptedAtUs = PerfCounterUs();
      m_clockAdopted = true;
      m_netTestsDone = 0;
      if (m_options.netTests > 0) {
        Json::Value test = Cmd(2000);
        test["index"] = 1;
        test["sendTime"] = Json::UInt64(PhoneClockLocked());
        Send(test, out);
        m_stage = "net test";
      } else {
        Send(Cmd(2006), out);
        m_stage = "prepared";
      }
      break;
    }
    case 1000: {  // our net test came back: the next one, or we are prepared
      const Json::Value* sent = FindMember(c, "sendTime");
      if (sent != nullptr && sent->isIntegral())
        m_counters.lastNetTestRttMs = static_cast<int>(PhoneClockLocked() - sent->asUInt64());
      if (++m_netTestsDone < m_options.netTests) {
        Json::Value test = Cmd(2000);
        test["index"] = m_netTestsDone + 1;
        test["sendTime"] = Json::UInt64(PhoneClockLocked());
        Send(test, out);
      } else if (m_netTestsDone == m_options.netTests) {
        Send(Cmd(2006), out);
        m_stage = "prepared";
      }
      break;
    }
    case 1006:
      if (!m_capturing) m_stage = "connected";
      break;
    case 1004: {
      Json::Value status = Cmd(2004);
      status["phoneName"] = m_options.phoneName;
      status["sysVer"] = m_options.sysVer;
      status["cameraMaxResolution"] = m_options.cameraMaxResolution;
      Send(status, out);
      break;
    }
    case 1002:
      if (!m_capturing) StartVideo();
      Send(Cmd(2002), out);
      break;
    case 1003:
      if (m_capturing) StopVideo();
      Send(Cmd(2003), out);
      break;
    case 1014: {
      m_audio = true;
      Json::Value answer = Cmd(2014);
      answer["dwSampleRate"] = m_options.sampleRate;
      answer["aacType"] = 1;  // AAC-LC
      answer["dwChannel"] = m_options.channels;
      Send(answer, out);
      break;
    }
    case 1013:
      ApplyContentType(c);
      Send(Cmd(2013), out);
      break;
    case 1011:
      Send(CameraParams(), out);
      break;
    case 1012:
      ApplyCameraChange(c, out);
      break;
    case 1016: {
      m_exposureLock = c.get("lock", 0).isInt() ? c.get("lock", 0).asInt() : 0;
      Json::Value answer = Cmd(2016);
      answer["lock"] = m_exposureLock;
      Send(answer, out);
      break;
    }
    default:  // 1007, 1008, 1009, 1010, 1015, 1017: acknowledgements and news; nothing to answer
      break;
  }
}

Json::Value PhoneSession::CameraParams() const {
  Json::Value params = Cmd(2011);
  params["isIOS"] = m_options.isIOS ? 1 : 0;
  params["cameraId"] = std::to_string(m_cameraId);
  params["maxVideoSize"] = m_options.cameraMaxResolution;
  for (const Setting& s : m_settings) {
    Json::Value& v = params[s.key];
    v["value"] = s.value;
    v["isCustom"] = s.isCustom;
    v["min"] = s.min;
    v["max"] = s.max;
  }
  return params;
}

void PhoneSession::ApplyCameraChange(const Json::Value& c, Outbox& out) {
  Json::Value answer = Cmd(2012);
  if (c.get("reset", 0).isInt() && c.get("reset", 0).asInt() == 1) {
    for (Setting& s : m_settings) s.value = s.initial, s.isCustom = 0;
  } else {
    for (Setting& s : m_settings) {
      const Json::Value* item = FindMember(c, s.key);
      if (item == nullptr || !item->isObject()) continue;
      const Json::Value value = item->get("value", s.value), custom = item->get("isCustom", s.isCustom);
      if (value.isInt()) s.value = std::clamp(value.asInt(), s.min, s.max);
      if (custom.isInt()) s.isCustom = custom.asInt() != 0 ? 1 : 0;
    }
  }
  const Json::Value* sw = FindMember(c, "switchCam");
  if (sw != nullptr && sw->isObject() && sw->get("state", 0).isInt() && sw->get("state", 0).asInt() != 0) {
    // Front and back camera: the picture restarts with a key frame, as on a phone.
    m_cameraId = m_cameraId == 0 ? 1 : 0;
    ++m_plan.generation;
    answer["switchCam"]["state"] = 1;
  }
  answer["result"] = 0;
  Send(answer, out);
}

void PhoneSession::RunScenario(uint64_t sinceMs, Outbox& out) {
  struct Event {
    int64_t at;
    bool* done;
    int kind;
  };
  Event events[] = {{m_options.stopVideoAtMs, &m_stopVideoDone, 0},
                    {m_options.projectionAtMs, &m_projectionDone, 1},
                    {m_options.switchPhoneAtMs, &m_switchPhoneDone, 2},
                    {m_options.switchCodecAtMs, &m_switchCodecDone, 3}};
  // Events that fall due together (a late tick) still leave in the order of their times.
  std::stable_sort(std::begin(events), std::end(events), [](const Event& a, const Event& b) { return a.at < b.at; });
  for (const Event& e : events) {
    if (e.at < 0 || *e.done || sinceMs < static_cast<uint64_t>(e.at)) continue;
    *e.done = true;
    if (e.kind == 0) {
      Json::Value stop = Cmd(2008);
      stop["code"] = m_options.stopVideoCode;
      stop["errMsg"] = m_options.stopVideoMessage;
      if (m_capturing) StopVideo();
      Send(stop, out);
    } else if (e.kind == 1) {
      Json::Value projection = Cmd(2015);
      projection["projection"] = 1;
      Send(projection, out);
    } else if (e.kind == 2) {
      Json::Value sw = Cmd(2017);
      sw["phoneName"] = m_options.phoneName;
      Send(sw, out);
    } else {
      m_plan.codec = m_plan.codec == VideoCodec::H264 ? VideoCodec::H265 : VideoCodec::H264;
      ++m_plan.generation;
    }
  }
}

uint64_t PhoneSession::Tick() {
  Outbox out;
  uint64_t waitUs = 1000000;
  {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    const uint64_t now = PerfCounterUs();
    if (m_options.pingIntervalMs > 0 && now >= m_nextPingUs) {
      out.push_back(PingFrame(++m_pingSeq));
      ++m_counters.pingsSent;
      m_nextPingUs = now + m_options.pingIntervalMs * 1000ull;
    }
    if (m_capturing && m_nextQualityUs != 0 && now >= m_nextQualityUs) {
      const uint64_t spanUs = std::max<uint64_t>(1, now - m_reportStartUs);
      Json::Value report = Cmd(2007);
      report["codec"] = CodecName(m_plan.codec);
      report["width"] = m_plan.width;
      report["height"] = m_plan.height;
      report["fps"] = static_cast<int>(m_reportFrames * 1000000 / spanUs);
      report["bitRate"] = static_cast<Json::UInt64>(m_reportBytes * 8 * 1000000 / spanUs);
      report["targetBitRate"] = m_plan.bitRate;
      report["sendFrames"] = static_cast<Json::UInt64>(m_reportFrames);
      report["encodeUs"] = static_cast<Json::UInt64>(m_encodeCount ? m_encodeUsTotal / m_encodeCount : 0);
      Send(report, out);
      m_reportFrames = m_reportBytes = m_encodeUsTotal = m_encodeCount = 0;
      m_reportStartUs = now;
      m_nextQualityUs = now + m_options.qualityIntervalMs * 1000ull;
    }
    RunScenario((now - m_beginUs) / 1000, out);
    if (m_options.pingIntervalMs > 0) waitUs = std::min(waitUs, m_nextPingUs - std::min(m_nextPingUs, now));
    if (m_capturing && m_nextQualityUs != 0) waitUs = std::min(waitUs, m_nextQualityUs - std::min(m_nextQualityUs, now));
    for (int64_t at : {m_options.stopVideoAtMs, m_options.projectionAtMs, m_options.switchPhoneAtMs,
                       m_options.switchCodecAtMs, m_options.dropAtMs, m_options.stallAtMs}) {
      const uint64_t atUs = m_beginUs + static_cast<uint64_t>(at) * 1000;
      if (at >= 0 && atUs > now) waitUs = std::min(waitUs, atUs - now);
    }
  }
  Flush(out);
  return waitUs;
}

}  // namespace lumo::phonesim
