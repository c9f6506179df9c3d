// The frame layer: dispatch by type, the error paths, pings both ways, media headers, and the
// exact bytes of outgoing commands.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstring>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "media/VideoRawPkg.h"
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

class FramesTest : public ::testing::Test {
 protected:
  lumo::test::ScopedSimClock sim;
  lumo::test::FakeHost host;
  CPhoneCameraCtrl ctrl;
  H264DataReviever video{&ctrl};
  AudioDataReviever audio1{&ctrl};
  AudioDataReviever audio2{&ctrl};
  CapturingSender usb, wifi;
  PhoneDataParse parser{&ctrl, &video, &audio1, &audio2};
  PhoneDataParseTestPeer peer{parser};

  void SetUp() override {
    parser.SetDataSender(kUsb, &usb);
    parser.SetDataSender(kWifi, &wifi);
  }

  void Feed(const std::string& frame, ePhoneDataSource source = kUsb, ePhoneType type = PHONE_TYPE_ANDROID) {
    std::string copy = frame;  // the parser takes a mutable buffer, as the transports hand it
    parser.ParsePhoneData(source, reinterpret_cast<signed char*>(&copy[0]), static_cast<unsigned>(copy.size()),
                          type);
  }
  static std::string Json(const std::string& text) { return Bytes({1, 0, 0, 0, 9}) + text; }
  static std::string Media(int type, uint32_t selector, uint32_t ts, const std::string& payload) {
    std::string f(1, static_cast<char>(type));
    f += Bytes({0xAA, 0xBB, 0xCC, 0xDD});
    for (int shift : {24, 16, 8, 0}) f.push_back(static_cast<char>(selector >> shift));
    f += Bytes({0x11, 0x22, 0x33, 0x44});
    for (int shift : {24, 16, 8, 0}) f.push_back(static_cast<char>(ts >> shift));
    return f + payload;
  }
  static std::string Ping(uint32_t seq) {
    return Bytes({4, int(seq >> 24) & 255, int(seq >> 16) & 255, int(seq >> 8) & 255, int(seq) & 255});
  }
  size_t BadDataLogs() {
    size_t n = 0;
    for (auto& l : host.Logs()) n += l.level >= 3;
    return n;
  }
};

TEST_F(FramesTest, LengthGateRejectsThreeBytesAndPassesFour) {
  Feed(Bytes({0, 0, 0}));
  EXPECT_EQ(host.CountLog(3, "[phoneVideo]ParseRcvData. json data error,len invalid"), 1u);
  EXPECT_EQ(video.WaitingCount(), 0u);

  // Four bytes: a raw video frame with a 3-byte body reaches the receiver.
  Feed(Bytes({0, 0, 0, 1}));
  EXPECT_EQ(host.CountLog("[phoneVideo]ParseRcvData. json data error,len invalid"), 1u);
  EXPECT_EQ(video.WaitingCount(), 1u);
  parser.ParsePhoneData(kUsb, nullptr, 100, PHONE_TYPE_ANDROID);
  EXPECT_EQ(host.CountLog("[phoneVideo]ParseRcvData. json data error,len invalid"), 2u);
}

TEST_F(FramesTest, UnknownTypesAreLoggedWithTheirUnsignedValue) {
  for (int type : {3, 5, 7, 128, 255}) Feed(Bytes({type, 0, 0, 0, 0}));
  for (int type : {3, 5, 7, 128, 255})
    EXPECT_EQ(host.CountLog(2, "[phoneVideo] recievie error type:" + std::to_string(type)), 1u) << type;
  EXPECT_TRUE(usb.Frames().empty());
}

TEST_F(FramesTest, RawVideoGoesToTheReceiverWithTimestampZero) {
  std::string payload = Bytes({0, 0, 0, 1, 0x65, 0x88, 0x84});
  Feed(std::string(1, 0) + payload);
  VID::VideoRawPkg pkg;
  video.PopH264RawData(&pkg);
  ASSERT_EQ(pkg.length, payload.size());
  EXPECT_EQ(std::memcmp(pkg.data, payload.data(), payload.size()), 0);
  EXPECT_EQ(pkg.timestamp, 0u);
}

TEST_F(FramesTest, FormatVideoCarriesThePhoneTimestampAndStampsMediaTime) {
  std::string payload = Bytes({0, 0, 0, 1, 0x41, 0x9A, 0x02, 0x03});
  Feed(Media(2, 0, 0xFFFFFFF0u, payload));
  VID::VideoRawPkg pkg;
  video.PopH264RawData(&pkg);
  ASSERT_EQ(pkg.length, payload.size());
  EXPECT_EQ(std::memcmp(pkg.data, payload.data(), payload.size()), 0);
  EXPECT_EQ(pkg.timestamp, 0xFFFFFFF0ull);  // widened without sign extension
  EXPECT_EQ(parser.GetPhoneStartTimeStamp(), sim.clock.WallClock100ns());

  sim.clock.AdvanceMs(5);
  EXPECT_EQ(parser.UpdateStartPhoneTimeStamp(), sim.clock.WallClock100ns());
  EXPECT_EQ(parser.GetPhoneStartTimeStamp(), sim.clock.WallClock100ns());
}

TEST_F(FramesTest, ShortMediaBodiesAreRejectedWithoutReadingPastThem) {
  // Bodies of 3 (would wrap the payload length), 15, 16, 17 and 18 bytes.
  for (size_t body : {3u, 15u, 16u, 17u, 18u}) {
    Feed(std::string(1, 2) + std::string(body, '\0'));
    Feed(std::string(1, 6) + std::string(body, '\0'));
  }
  parser.SetAudioRecordType(1);
  for (size_t body : {3u, 15u, 16u, 17u, 18u}) Feed(std::string(1, 6) + std::string(body, '\0'));
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] parse h264 format data len too short"), 5u);
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] parse aac format data len too short"), 5u);
  EXPECT_EQ(video.WaitingCount(), 0u);
  // 19 bytes: a 3-byte payload passes.
  Feed(Media(2, 0, 1, Bytes({0, 0, 1})));
  EXPECT_EQ(video.WaitingCount(), 1u);
}

TEST_F(FramesTest, AacIsDroppedUntilAudioIsWantedThenRoutedBySelector) {
  std::string aac = Bytes({0x21, 0x10, 0x05, 0x00, 0xA0});
  Feed(Media(6, 1, 100, aac));
  EXPECT_EQ(audio1.WaitingCount() + audio2.WaitingCount(), 0u);
  EXPECT_TRUE(host.Logs().empty() || BadDataLogs() == 0);

  parser.SetAudioRecordType(1);
  Feed(Media(6, 1, 100, aac));           // 00 00 00 01: the second stream
  Feed(Media(6, 0, 101, aac));           // anything else: the first
  Feed(Media(6, 0x01000001, 102, aac));  // only the exact value 1 selects the second
  Feed(Media(6, 2, 103, aac));
  EXPECT_EQ(audio2.WaitingCount(), 1u);
  EXPECT_EQ(audio1.WaitingCount(), 3u);

  unsigned char buf[AudioDataReviever::kSlotSize];
  unsigned int len = 0;
  unsigned long long ts = 0, index = 0;
  audio2.PopAACRawData(buf, len, ts, index);
  ASSERT_EQ(len, aac.size());
  EXPECT_EQ(std::memcmp(buf, aac.data(), len), 0);
  EXPECT_EQ(ts, 100u);
}

TEST_F(FramesTest, LatencyLinesComeEvery300VideoAnd500AacFrames) {
  const std::string videoLine = "[phoneVideo] Video calculate latency";
  uint32_t phoneTs = 5000;
  for (int i = 0; i < 299; ++i) Feed(Media(2, 0, phoneTs, Bytes({0, 0, 1, 0x41})));
  EXPECT_EQ(host.CountLogsStartingWith(videoLine), 0u);
  Feed(Media(2, 0, phoneTs, Bytes({0, 0, 1, 0x41})));
  unsigned long long now = sim.clock.WallClock100ns() / 10000;
  std::string expected = "[phoneVideo] Video calculate latency, current " + std::to_string(now) +
                         " , phone:5000, diff:" + std::to_string(static_cast<long long>(now - 5000));
  EXPECT_EQ(host.CountLog(2, expected), 1u);
  for (int i = 0; i < 299; ++i) Feed(Media(2, 0, phoneTs, Bytes({0, 0, 1, 0x41})));
  EXPECT_EQ(host.CountLogsStartingWith(videoLine), 1u);  // the count restarted

  parser.SetAudioRecordType(1);
  for (int i = 0; i < 499; ++i) {
    Feed(Media(6, 0, 7, Bytes({1, 2, 3})));
    unsigned char buf[AudioDataReviever::kSlotSize];
    unsigned int len;
    unsigned long long ts, index;
    audio1.PopAACRawData(buf, len, ts, index);
  }
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo]AAC. calculate latency"), 0u);
  Feed(Media(6, 0, 7, Bytes({1, 2, 3})));
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo]AAC. calculate latency, current "), 1u);
}

TEST_F(FramesTest, FormatFramesAreCountedOnceAMinute) {
  Feed(Media(2, 0, 1, Bytes({0, 0, 1, 0x41})));
  sim.clock.AdvanceUs(60000000);
  Feed(Media(2, 0, 1, Bytes({0, 0, 1, 0x41})));
  EXPECT_EQ(host.CountLogsStartingWith("PhoneDataParse::Json2Str frame count"), 0u);
  sim.clock.AdvanceUs(1);
  Feed(Media(2, 0, 1, Bytes({0, 0, 1, 0x41})));
  EXPECT_EQ(host.CountLog(2, "PhoneDataParse::Json2Str frame count : 3"), 1u);
  // A short frame is still a type-2 frame and is counted; the next minute starts afresh.
  Feed(Media(2, 0, 1, ""));
  sim.clock.AdvanceUs(60000001);
  Feed(Media(2, 0, 1, Bytes({0, 0, 1, 0x41})));
  EXPECT_EQ(host.CountLog(2, "PhoneDataParse::Json2Str frame count : 2"), 1u);
}

TEST_F(FramesTest, PingsAreAnsweredAndOnlyNewSequencesRefreshTheHeartbeat) {
  Feed(Ping(0x01020304), kWifi);
  ASSERT_EQ(wifi.Frames().size(), 1u);
  EXPECT_EQ(wifi.Frames()[0], Bytes({0, 0, 0, 5, 5, 1, 2, 3, 4}));
  uint32_t first = ctrl.GetLastHeartbeatTick();
  EXPECT_EQ(first, sim.clock.TickCount());

  sim.clock.AdvanceMs(700);
  Feed(Ping(0x01020304), kWifi);
  EXPECT_EQ(wifi.Frames().size(), 2u);
  EXPECT_EQ(ctrl.GetLastHeartbeatTick(), first);  // a repeated number proves nothing

  sim.clock.AdvanceMs(700);
  Feed(Ping(0x01020305), kUsb);
  EXPECT_EQ(ctrl.GetLastHeartbeatTick(), sim.clock.TickCount());
  EXPECT_EQ(usb.Frames().size(), 1u);
  EXPECT_TRUE(usb.Frames()[0] == Bytes({0, 0, 0, 5, 5, 1, 2, 3, 5}));
  // The ping reply does not go through the command counter.
  EXPECT_EQ(peer.CommandCounter(), 0u);
}

TEST_F(FramesTest, WifiPhoneRepeatingItsPingNumberTimesOutAlthoughAnswered) {
  ctrl.SetHwnd(reinterpret_cast<HWND>(0x77));
  ctrl.SetConnectMode(2);
  ctrl.StartTimer();
  Feed(Ping(1), kWifi);
  for (int second = 1; second <= 30; ++second) {
    sim.clock.AdvanceMs(1000);
    Feed(Ping(1), kWifi);  // answered every time, but proves nothing new
    host.FireTimer(131);
  }
  EXPECT_EQ(wifi.Frames().size(), 31u);
  EXPECT_TRUE(host.Messages().empty());
  sim.clock.AdvanceMs(1);
  host.FireTimer(131);
  auto messages = host.Messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].json["interMsg"]["Msg"].asUInt(), 7054u);
  EXPECT_EQ(messages[0].json["interMsg"]["wParam"].asUInt(), 2u);
  EXPECT_EQ(messages[0].json["interMsg"]["lParam"].asUInt(), 2u);

  // Only a new time match restarts the heartbeat; a fresh ping does not.
  Feed(Ping(2), kWifi);
  EXPECT_FALSE(host.IsTimerActive(131));
  EXPECT_FALSE(ctrl.IsTimerRunning());
}

TEST_F(FramesTest, ShortPingIsDroppedAndUnregisteredSourcesStaySilent) {
  Feed(Bytes({4, 0, 0, 7}));
  EXPECT_TRUE(usb.Frames().empty());
  EXPECT_EQ(host.CountLog(3, "[phoneVideo] ping data len too short:3"), 1u);

  parser.SetDataSender(kWifi, nullptr);
  Feed(Ping(9), kWifi);
  parser.SendPing(kWifi);
  EXPECT_TRUE(wifi.Frames().empty());
  // A source nobody registered is added to the registry with no sender.
  parser.SendPing(static_cast<ePhoneDataSource>(7));
  EXPECT_EQ(peer.SenderEntries(), 3u);
}

TEST_F(FramesTest, PcPingsCountFromOneAndWrap) {
  parser.SendPing(kUsb);
  parser.SendPing(kUsb);
  ASSERT_EQ(usb.Frames().size(), 2u);
  EXPECT_EQ(usb.Frames()[0], Bytes({0, 0, 0, 5, 4, 0, 0, 0, 1}));
  EXPECT_EQ(usb.Frames()[1], Bytes({0, 0, 0, 5, 4, 0, 0, 0, 2}));
  usb.Clear();
  peer.SetPingCounter(PhoneDataParse::kCounterWrap);
  parser.SendPing(kUsb);  // carries the low 32 bits of 10^13, then the counter restarts
  parser.SendPing(kUsb);
  uint32_t low = static_cast<uint32_t>(PhoneDataParse::kCounterWrap + 1);
  EXPECT_EQ(usb.Frames()[0], Bytes({0, 0, 0, 5, 4, int(low >> 24), int(low >> 16) & 255, int(low >> 8) & 255,
                                    int(low) & 255}));
  EXPECT_EQ(usb.Frames()[1], Bytes({0, 0, 0, 5, 4, 0, 0, 0, 1}));
}

TEST_F(FramesTest, CommandFramesHaveExactBytesAndSequenceNumbers) {
  Json::Value cmd(Json::objectValue);
  cmd["cmdType"] = 1005;
  cmd["version"] = "9.8.7.6";
  cmd["supportverlist"].append(1001);
  cmd["supportverlist"].append(1002);
  std::string text = peer.Json2Str(cmd);
  EXPECT_EQ(text, "{\"cmdType\":1005,\"supportverlist\":[1001,1002],\"version\":\"9.8.7.6\"}\n");

  peer.SendJsonData(kUsb, text);
  peer.SendJsonData(kUsb, "{}\n");
  auto frames = usb.Frames();
  ASSERT_EQ(frames.size(), 2u);
  uint32_t n = static_cast<uint32_t>(text.size());
  EXPECT_EQ(frames[0].substr(0, 9), Bytes({0, 0, 0, int(n + 5), 1, 0, 0, 0, 1}));
  EXPECT_EQ(frames[0].substr(9), text);
  EXPECT_EQ(frames[1], Bytes({0, 0, 0, 8, 1, 0, 0, 0, 2}) + "{}\n");

  // No sender: dropped, but a command sent to nobody does not advance the counter either.
  peer.SendJsonData(static_cast<ePhoneDataSource>(9), "{}\n");
  EXPECT_EQ(peer.CommandCounter(), 2u);
}

TEST_F(FramesTest, CommandCounterWrapsAfterTenToTheThirteen) {
  peer.SetCommandCounter(PhoneDataParse::kCounterWrap - 1);
  std::string a = peer.ConstrcutCmd("{}");  // carries 9,999,999,999,999
  std::string b = peer.ConstrcutCmd("{}");  // carries 10^13, then the counter goes back to 0
  std::string c = peer.ConstrcutCmd("{}");
  auto seq = [](const std::string& f) {
    return (uint32_t(uint8_t(f[5])) << 24) | (uint32_t(uint8_t(f[6])) << 16) | (uint32_t(uint8_t(f[7])) << 8) |
           uint32_t(uint8_t(f[8]));
  };
  EXPECT_EQ(seq(a), static_cast<uint32_t>(PhoneDataParse::kCounterWrap));
  EXPECT_EQ(seq(b), static_cast<uint32_t>(PhoneDataParse::kCounterWrap + 1));
  EXPECT_EQ(seq(c), 1u);
}

TEST_F(FramesTest, JsonErrorPathsEachLogTheirLineAndTheText) {
  Feed(Json("{}"));
  EXPECT_EQ(host.CountLog(3, "[phoneVideo]ParseRcvJsonData. json data error,cmdType not int!sParam={}"), 1u);
  Feed(Json("[1,2]"));
  EXPECT_EQ(host.CountLog(3, "[phoneVideo]ParseRcvJsonData. Not Object sParam=[1,2]"), 1u);
  Feed(Json("{\"cmdType\":\"2005\"}"));
  Feed(Json("{\"cmdType\":99999999999}"));
  Feed(Json("{\"cmdType\":null}"));
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo]ParseRcvJsonData. json data error,cmdType not int!"), 4u);
  Feed(Json("{\"cmdType\":"));
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo]ParseRcvJsonData. Json error:"), 1u);
  // A body too short for its sequence number is empty text: a parse error with sParam empty.
  Feed(Bytes({1, 0, 0, 0}));
  auto logs = host.Logs();
  ASSERT_FALSE(logs.empty());
  EXPECT_EQ(logs.back().level, 3);
  EXPECT_EQ(logs.back().text.substr(0, 40), "[phoneVideo]ParseRcvJsonData. Json error");
  EXPECT_EQ(logs.back().text.substr(logs.back().text.size() - 7), "sParam=");
}

TEST_F(FramesTest, DeepNestingIsBadJsonNotACrash) {
  std::string deep(5000, '[');
  Feed(Json(deep));
  Feed(Json("{\"a\":" + std::string(3000, '{')));
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo]ParseRcvJsonData. Json error:"), 2u);
}

TEST_F(FramesTest, UnhandledCommandNumbersAreIgnoredQuietly) {
  for (int cmd : {2009, 2010, 0, -1, 1005, 3000}) Feed(Json("{\"cmdType\":" + std::to_string(cmd) + "}"));
  EXPECT_EQ(BadDataLogs(), 0u);
  EXPECT_TRUE(usb.Frames().empty());
}

TEST_F(FramesTest, PrintThrottleLetsEverySixtiethThrough) {
  unsigned long long counter = 0;
  int passed = 0;
  for (int i = 0; i < 121; ++i) passed += peer.IsNeedPrintLog(counter);
  EXPECT_EQ(passed, 3);  // 0, 60, 120
  EXPECT_EQ(counter, 121u);
  counter = 9999999999ull;  // 9,999,999,999 is not a multiple of 60: refused, and past the limit
  EXPECT_FALSE(peer.IsNeedPrintLog(counter));
  EXPECT_EQ(counter, 0u);
  EXPECT_TRUE(peer.IsNeedPrintLog(counter));
}

}  // namespace
