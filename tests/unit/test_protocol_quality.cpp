// The video-delay verdict driven by real video frames on the simulated clock, the phone's
// video-quality report with its 1007 answer, and the telemetry records both produce.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "protocol/PhoneDataParse.h"
#include "support/CapturingSender.h"
#include "support/FakeHost.h"
#include "support/ParserWorld.h"
#include "support/SimClock.h"

using lumo::test::Bytes;
using lumo::test::CapturingSender;

namespace {

constexpr ePhoneDataSource kUsb = PHONE_DATA_SOURCE_USB;
constexpr ePhoneDataSource kWifi = PHONE_DATA_SOURCE_WIFI;

class QualityTest : public ::testing::Test, protected lumo::test::ParserWorld {
 protected:

  void Json(const std::string& text, ePhoneDataSource source = kUsb, ePhoneType type = PHONE_TYPE_ANDROID) {
    FeedJson(text, source, type);
  }
  // One video frame stamped so that the PC clock is `offset` ms ahead of the phone's.
  void Video(int32_t offset, ePhoneDataSource source = kUsb, PhoneDataParse* to = nullptr) {
    uint64_t pcMs = sim.clock.WallClock100ns() / 10000;
    uint32_t phoneTs = static_cast<uint32_t>(pcMs - static_cast<int64_t>(offset));
    std::string frame(1, 2);
    frame += std::string(12, '\0');
    for (int shift : {24, 16, 8, 0}) frame.push_back(static_cast<char>(phoneTs >> shift));
    frame += Bytes({0, 0, 0, 1, 0x41, 0x9A});
    (to ? *to : parser).ParsePhoneData(source, reinterpret_cast<signed char*>(&frame[0]),
                                       static_cast<unsigned>(frame.size()), PHONE_TYPE_ANDROID);
  }
  static std::string EvaluationLine(int count, int32_t sum, int details) {
    return "[phoneVideo] VideoQuality ave delay:" + std::to_string(sum / count) + " totalsize:" +
           std::to_string(count) + " totalvalue:" + std::to_string(sum) +
           " delay detail size:" + std::to_string(details) + " ";
  }
  std::vector<lumo::test::FakeHost::Telemetry> Records(const std::string& event) {
    std::vector<lumo::test::FakeHost::Telemetry> out;
    for (auto& r : host.TelemetryRecords())
      if (r.event == event) out.push_back(r);
    return out;
  }
  // The app-stop notifications posted to the host window: (source, code).
  std::vector<std::pair<int, int>> StopMessages() {
    std::vector<std::pair<int, int>> out;
    for (auto& m : host.Messages()) {
      const Json::Value& inner = m.json["interMsg"];
      if (inner["Msg"].asInt() == 7054) out.push_back({inner["wParam"].asInt(), inner["lParam"].asInt()});
    }
    return out;
  }
};

TEST_F(QualityTest, SingleFrameThresholdsAndTheirRateLimitedLines) {
  Video(300);
  Video(-300);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality aoffset:"), 0u);
  Video(301);
  Video(302);  // within 10 s of the last line: silent
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] VideoQuality aoffset:301 "), 1u);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality aoffset:"), 1u);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality offset:"), 0u);

  sim.clock.AdvanceMs(10000);
  Video(5999);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality offset:"), 0u);
  sim.clock.AdvanceMs(10000);
  uint64_t pcMs = sim.clock.WallClock100ns() / 10000;
  Video(-6000);
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] VideoQuality offset:-6000 pcts:" + std::to_string(pcMs) +
                                 ", appts:" + std::to_string(static_cast<uint32_t>(pcMs + 6000))),
            1u);
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] VideoQuality aoffset:-6000 "), 1u);
}

TEST_F(QualityTest, VerdictNeedsFifteenSecondsAndFourHundredFiftySamples) {
  std::vector<int32_t> offsets;
  std::string details;
  auto feed = [&](int32_t offset) {
    Video(offset);
    offsets.push_back(offset);
    if (std::abs(offset) > 300) details += std::to_string(offset) + ";";
  };
  // 448 frames at once: the first one starts the 15 s period.
  feed(300);
  feed(301);
  for (int i = 0; i < 446; ++i) feed(-7000 - i);
  sim.clock.AdvanceMs(15001);
  feed(-7000);  // 449 samples after 15 s: not enough
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality ave delay:"), 0u);
  feed(-6999);
  feed(-6998);  // 451 samples, but the period restarted with the 449th
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality ave delay:"), 0u);
  EXPECT_TRUE(Records("delay").empty());

  sim.clock.AdvanceMs(15000);
  feed(-6500);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality ave delay:"), 0u);
  sim.clock.AdvanceMs(1);
  feed(-6500);
  int32_t sum = 0;
  for (int32_t v : offsets) sum += v;
  int count = static_cast<int>(offsets.size());
  ASSERT_EQ(count, 453);
  EXPECT_EQ(host.CountLog(4, EvaluationLine(count, sum, count - 1)), 1u);
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] VideoQuality average delay:" + std::to_string(sum / count) +
                                 " out of limit:6000"),
            1u);
  // The message names the size of this frame's offset, not the average.
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] NotifyAppActiveStop code:4,msg:video delay too much times 6500 "), 1u);
  EXPECT_EQ(StopMessages(), (std::vector<std::pair<int, int>>{{1, 4}}));
  auto delay = Records("delay");
  ASSERT_EQ(delay.size(), 1u);
  EXPECT_EQ(delay[0].module, "phoneVideo");
  EXPECT_EQ(delay[0].record["p1"].asInt(), 1);
  EXPECT_EQ(delay[0].record["p2"].asInt(), sum / count);
  EXPECT_EQ(delay[0].record["s1"].asString(), details);
  EXPECT_EQ(delay[0].record.size(), 3u);

  // The list kept the newest 450; the details started over.
  offsets.erase(offsets.begin(), offsets.begin() + 3);
  sim.clock.AdvanceMs(15001);
  Video(0);
  offsets.push_back(0);
  sum = 0;
  for (int32_t v : offsets) sum += v;
  EXPECT_EQ(host.CountLog(4, EvaluationLine(451, sum, 0)), 1u);
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] NotifyAppActiveStop code:4,msg:video delay too much times 0 "), 1u);
  ASSERT_EQ(Records("delay").size(), 2u);
  EXPECT_EQ(Records("delay")[1].record["s1"].asString(), "");
}

TEST_F(QualityTest, AverageLimitIsSixSecondsEitherWay) {
  struct Case {
    int32_t offset;
    bool outOfLimit;
  } cases[] = {{5999, false}, {-5999, false}, {-6000, true}, {6000, true}};
  for (const Case& c : cases) {
    host.ClearLogs();
    PhoneDataParse fresh(&ctrl, &video, &audio1, &audio2);  // no samples carried over
    for (int i = 0; i < 450; ++i) Video(c.offset, kWifi, &fresh);
    sim.clock.AdvanceMs(15001);
    Video(c.offset, kWifi, &fresh);
    EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] VideoQuality ave delay:" + std::to_string(c.offset) + " "), 1u)
        << c.offset;
    EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] NotifyAppActiveStop code:4"), c.outOfLimit ? 1u : 0u)
        << c.offset;
  }
  EXPECT_EQ(Records("delay").size(), 2u);
  EXPECT_EQ(StopMessages(), (std::vector<std::pair<int, int>>{{2, 4}, {2, 4}}));
}

TEST_F(QualityTest, DelayListsStayBoundedBetweenEvaluations) {
  // Far more frames than 15 s of video, all at one tick: the details stop at 900 and the
  // offsets drop their oldest half whenever they reach 28800.
  for (int i = 0; i < 28801; ++i) Video(400);
  sim.clock.AdvanceMs(15001);
  Video(400);
  EXPECT_EQ(host.CountLog(4, EvaluationLine(14402, 14402 * 400, 900)), 1u);
}

TEST_F(QualityTest, PhoneReportIsAnsweredAndRecordedWithFramesSinceTheLastReport) {
  host.contentType = 1;
  host.projectionWidth = 1280;
  host.projectionHeight = 720;
  host.accountId = "acc-42";
  Json("{\"cmdType\":2011,\"cameraId\":\"0\"}");
  for (int i = 0; i < 3; ++i) ctrl.AddReceivedVideoFrame();
  for (int i = 0; i < 2; ++i) ctrl.AddReceivedAudioFrame();
  ctrl.AddDecodedFrame();
  for (int i = 0; i < 4; ++i) ctrl.AddDecodedAudioFrame();

  const std::string report = "{\"cmdType\":2007,\"fps\":28,\"jitter\":[1,2],\"net\":{\"rtt\":\"x\"}}";
  Json(report, kWifi, PHONE_TYPE_IOS);
  const std::string answer = "{\"cmdType\":1007}\n";
  ASSERT_EQ(wifi.Frames().size(), 1u);
  EXPECT_EQ(wifi.Frames()[0], Bytes({0, 0, 0, int(answer.size() + 5), 1, 0, 0, 0, 1}) + answer);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] OnRcvResponseVideoQuality: "
                             "{\"cmdType\":2007,\"fps\":28,\"jitter\":[1,2],\"net\":{\"rtt\":\"x\"}}\n"));

  auto records = Records("videoQuality");
  ASSERT_EQ(records.size(), 1u);
  const Json::Value& r = records[0].record;
  Json::Value quality;
  ASSERT_TRUE(Json::Reader().parse(report, quality));
  EXPECT_EQ(records[0].module, "phoneVideo");
  EXPECT_EQ(r["quality"], quality);
  EXPECT_EQ(r["projectionType"].asInt(), 1);
  EXPECT_EQ(r["decodeType"].asInt(), 2);
  EXPECT_EQ(r["connectType"].asInt(), 2);
  EXPECT_EQ(r["phoneDef"].asInt(), 2);
  EXPECT_EQ(r["encodeMode"].asInt(), ctrl.GetEncodeMode());
  EXPECT_EQ(r["px"].asString(), "1280x720");
  EXPECT_EQ(r["tarroId"].asString(), "acc-42");
  EXPECT_EQ(r["rcvRawVideoFrame"].asInt(), 3);
  EXPECT_EQ(r["rcvAudioFrame"].asInt(), 2);
  EXPECT_EQ(r["decodeVideoFrame"].asInt(), 1);
  EXPECT_EQ(r["decodeAudioFrame"].asInt(), 4);
  EXPECT_EQ(r["s1"].asString(), "");
  EXPECT_EQ(r["s2"].asString(), "{\"cameraId\":\"0\",\"cmdType\":2011}\n");
  EXPECT_EQ(r["s3"].asString(), "");
  EXPECT_EQ(r.size(), 15u);
  EXPECT_EQ(host.Statistic(lumo::HostStat::PhoneRcvVideoFrameCount), 3);
  EXPECT_EQ(host.Statistic(lumo::HostStat::PhoneDecodeAudioFrameCount), 4);
  EXPECT_TRUE(host.HasLog(2,
                          "[PhoneVideo]PhoneDataParse::ReportElk, phoneType:2,encodeMode:" +
                              std::to_string(ctrl.GetEncodeMode()) +
                              ",connectType :2,projecttion type:1,decode Type:2,phone frame count "
                              "static:rcvRawVideoFrame:3, decodeVideoFrame:1, rcvAudioFrame:2,decodeAudioFrame:4"));

  // The second report counts only what came since the first; without an account id the key is left out.
  ctrl.AddReceivedVideoFrame();
  host.accountId.clear();
  Json("{\"cmdType\":2007}", kUsb);
  EXPECT_EQ(Texts(usb).back(), answer);
  records = Records("videoQuality");
  ASSERT_EQ(records.size(), 2u);
  const Json::Value& second = records[1].record;
  EXPECT_EQ(second["rcvRawVideoFrame"].asInt(), 1);
  EXPECT_EQ(second["rcvAudioFrame"].asInt(), 0);
  EXPECT_EQ(second["decodeVideoFrame"].asInt(), 0);
  EXPECT_EQ(second["decodeAudioFrame"].asInt(), 0);
  EXPECT_EQ(second["connectType"].asInt(), 1);
  EXPECT_EQ(second["phoneDef"].asInt(), 1);
  EXPECT_FALSE(second.isMember("tarroId"));
  EXPECT_EQ(host.Statistic(lumo::HostStat::PhoneRcvVideoFrameCount), 1);
  EXPECT_EQ(host.Statistic(lumo::HostStat::PhoneDecodeAudioFrameCount), 0);
  auto counts = ctrl.GetFrameCounts();
  EXPECT_EQ(counts.receivedVideo + counts.receivedAudio + counts.decodedVideo + counts.decodedAudio, 0);
}

}  // namespace
