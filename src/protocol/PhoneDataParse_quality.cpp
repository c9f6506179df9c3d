// Video delay against the phone clock, the 2007 report, the packet-loss counter.
#include <json/json.h>

#include <mutex>
#include <string>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "platform/clock.h"
#include "protocol/PhoneDataParse.h"

namespace {

constexpr long long kFrameAlarmMs = 6000;
constexpr long long kDetailAboveMs = 300;
constexpr uint32_t kEvaluateEveryMs = 15001;
constexpr size_t kDelaySamples = 450;
constexpr long long kAverageLimitMs = 6000;
constexpr uint32_t kLogEveryMs = 10000;
constexpr uint32_t kLossPeriodMs = 10000;

// Between two evaluations the lists grow by one entry per frame. A phone flooding tiny video
// frames could make that unbounded, so both are capped far above what 15 s of real video
// fills: the details simply stop growing, the offsets lose their oldest half.
constexpr size_t kMaxDelayDetails = 2 * kDelaySamples;
constexpr size_t kMaxDelayOffsets = 64 * kDelaySamples;

// Capture start and stop reset the delay data from the host's thread while video frames add to
// it on a receive thread; the lists must not be touched by both at once.
std::mutex& DelayLock() {
  static std::mutex lock;
  return lock;
}

}  // namespace

void PhoneDataParse::AnalyseVideoQualityDelay(ePhoneDataSource source, unsigned long long pcTs,
                                              unsigned long long appTs) {
  int32_t offset = static_cast<int32_t>(static_cast<uint32_t>(pcTs - appTs));
  long long size = offset < 0 ? -static_cast<long long>(offset) : offset;  // no overflow at INT32_MIN
  lumo::HostServices& host = lumo::Host();
  const std::string key = "PhoneDataParse::AnalyseVideoQualityDelay";
  if (size >= kFrameAlarmMs && !host.IsPrintTooFast(kLogEveryMs, key + "1035")) {
    Log(LOG_ERROR, "[phoneVideo] VideoQuality offset:%d pcts:%lld, appts:%lld", offset,
        static_cast<long long>(pcTs), static_cast<long long>(appTs));
  }
  uint32_t now = lumo::TickCountMs();
  if (size > kDetailAboveMs && !host.IsPrintTooFast(kLogEveryMs, key + "1044")) {
    Log(LOG_ERROR, "[phoneVideo] VideoQuality aoffset:%d ", offset);
  }

  bool outOfLimit = false;
  int32_t average = 0;
  std::string details;
  {
    std::lock_guard<std::mutex> guard(DelayLock());
    if (size > kDetailAboveMs && m_delayDetails.size() < kMaxDelayDetails) {
      m_delayDetails.push_back(std::to_string(offset) + ";");
    }
    if (m_delayOffsets.size() >= kMaxDelayOffsets) {
      m_delayOffsets.erase(m_delayOffsets.begin(), m_delayOffsets.begin() + kMaxDelayOffsets / 2);
    }
    m_delayOffsets.push_back(offset);

    if (static_cast<uint32_t>(now - m_lastDelayReportTick) < kEvaluateEveryMs) return;
    m_lastDelayReportTick = now;
    if (m_delayOffsets.size() < kDelaySamples) return;

    // The sum wraps at 32 bits, as the phone's offsets always have been summed.
    uint32_t wrapped = 0;
    for (int32_t v : m_delayOffsets) wrapped += static_cast<uint32_t>(v);
    int32_t sum = static_cast<int32_t>(wrapped);
    int count = static_cast<int>(m_delayOffsets.size());
    average = sum / count;
    for (const std::string& d : m_delayDetails) details += d;
    Log(LOG_ERROR, "[phoneVideo] VideoQuality ave delay:%d totalsize:%d totalvalue:%d delay detail size:%d ", average,
        count, sum, static_cast<int>(m_delayDetails.size()));
    outOfLimit = average >= kAverageLimitMs || average <= -kAverageLimitMs;

    m_delayOffsets.erase(m_delayOffsets.begin(), m_delayOffsets.end() - kDelaySamples);
    m_delayDetails.clear();
  }
  if (!outOfLimit) return;
  // The host and the report service are called outside the lock.
  Log(LOG_ERROR, "[phoneVideo] VideoQuality average delay:%d out of limit:%d", average,
      static_cast<int>(kAverageLimitMs));
  m_ctrl->NotifyAppActiveStop(source, 4, "video delay too much times " + std::to_string(size));
  ReportElkForTs(source, average, details);
}

void PhoneDataParse::ResetVideoTsData() {
  {
    std::lock_guard<std::mutex> guard(DelayLock());
    m_lastDelayReportTick = lumo::TickCountMs();
    m_delayOffsets.clear();
    m_delayDetails.clear();
  }
  Log(LOG_INFO, "[phoneSource] ResetVideoTsData");
}

void PhoneDataParse::OnRcvResponseVideoQuality(ePhoneDataSource source, Json::Value root, ePhoneType phoneType) {
  Log(LOG_INFO, "[phoneVideo] OnRcvResponseVideoQuality: %s", Json2Str(root).c_str());
  ReportElk(source, phoneType, root);
  Json::Value answer(Json::objectValue);
  answer["cmdType"] = 1007;
  SendJsonData(source, Json2Str(answer));
}

// The packet-loss counter and the queue-reset command are understood by the phone app but not
// used by this side of the link today; they stay so that either can be switched on.
void PhoneDataParse::AnanlyVideoQualityDrop(unsigned long long seq, unsigned long long size) {
  uint32_t now = lumo::TickCountMs();
  if (!m_qualityStartTickSet) {
    m_qualityStartTick = now;
    m_qualityStartTickSet = true;
  }
  if (m_qualityLastSeq == ~0ull) {
    ++m_qualityRecvCount;
    m_qualityRecvBytes += size;
    m_qualityLastSeq = seq;
    m_qualityStartTick = now;
  } else {
    if (seq == m_qualityLastSeq + 1) {
      ++m_qualityRecvCount;
      m_qualityRecvBytes += size;
    } else {
      // The distance, not the number of missing packets: one gap of one packet adds 2.
      m_qualityLostCount += seq > m_qualityLastSeq ? seq - m_qualityLastSeq : m_qualityLastSeq - seq;
    }
    m_qualityLastSeq = seq;
  }
  if (static_cast<uint32_t>(now - m_qualityStartTick) > kLossPeriodMs) {
    m_qualityLastSeq = ~0ull;
    m_qualityRecvCount = m_qualityRecvBytes = m_qualityLostCount = 0;
    m_qualityStartTick = now;
    Log(LOG_INFO, "[phoneVideo] reset video quality");
  }
}

void PhoneDataParse::ResetVideoQualityDrop() {
  m_qualityLastSeq = ~0ull;
  m_qualityRecvCount = m_qualityRecvBytes = m_qualityLostCount = 0;
  Log(LOG_INFO, "[phoneVideo] reset video quality");
}

void PhoneDataParse::SendResetAppQueue(ePhoneDataSource source, long long delayTime) {
  Json::Value command(Json::objectValue);
  command["cmdType"] = 1009;
  command["delayTime"] = static_cast<Json::Int64>(delayTime);
  SendJsonData(source, Json2Str(command));
}
