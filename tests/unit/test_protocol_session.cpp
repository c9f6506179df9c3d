// Whole phone sessions driven through the frame parser: the handshake, the keep-alive, capture
// start and its retry, the app's own stop, audio parameters, and the settings behind them. Every
// outgoing command is checked byte for byte, sequence number included.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/CAudioDecoder.h"
#include "media/H264DataReviever.h"
#include "media/PcmPlayer.h"
#include "protocol/PhoneDataParse.h"
#include "support/CapturingSender.h"
#include "support/FakeHost.h"
#include "support/ParserWorld.h"
#include "support/RecordingAudioOutput.h"
#include "support/ScopedThread.h"
#include "support/SimClock.h"
#include "support/TempDir.h"

using lumo::test::Bytes;
using lumo::test::CapturingSender;

namespace {

constexpr ePhoneDataSource kUsb = PHONE_DATA_SOURCE_USB;
constexpr ePhoneDataSource kWifi = PHONE_DATA_SOURCE_WIFI;
constexpr unsigned long long kSimNowMs = 17000000000000000ull / 10000;  // SimClock's wall start

struct Command {
  uint32_t seq;
  std::string json;
};

// Splits captured frames into sequence number and JSON text, checking the framing of each.
std::vector<Command> Commands(CapturingSender& sender) {
  std::vector<Command> out;
  for (const std::string& f : sender.Frames()) {
    EXPECT_GE(f.size(), 9u);
    if (f.size() < 9) continue;
    auto byte = [&](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(f[i])); };
    EXPECT_EQ((byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3)), f.size() - 4);
    EXPECT_EQ(byte(4), 1u);
    out.push_back({byte(5) << 24 | byte(6) << 16 | byte(7) << 8 | byte(8), f.substr(9)});
  }
  return out;
}

struct UsbCallback : IUSBEventCallback {
  int prepared = 0;
  void OnPhonePrepared() override { ++prepared; }
  void OnConnectionError(const std::wstring&) override {}
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
};

struct WifiCallback : IWifiEventCallback {
  int prepared = 0, captureStarted = 0, startProjection = 0;
  void OnPhonePrepared() override { ++prepared; }
  void OnCaptureStarted() override { ++captureStarted; }
  void OnWifiReserved() override {}
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  void OnAppStartProjection() override { ++startProjection; }
};

class SessionTest : public ::testing::Test, protected lumo::test::ParserWorld {
 protected:
  UsbCallback usbCallback;
  WifiCallback wifiCallback;

  void SetUp() override {
    parser.SetUSBCallback(&usbCallback);
    parser.SetWifiCallback(&wifiCallback);
  }
  void Feed(const std::string& json, ePhoneDataSource source = kUsb) {
    std::string frame = Bytes({1, 0, 0, 0, 9}) + json;
    parser.ParsePhoneData(source, reinterpret_cast<signed char*>(&frame[0]), static_cast<unsigned>(frame.size()),
                          PHONE_TYPE_ANDROID);
  }
  // Runs `body` on its own thread through one sleep of `ms` on the library clock. The delayed
  // work's thread, once settled, may already be one sleeper; the body's sleep is the next.
  template <class F>
  void ThroughSleep(uint32_t ms, F body) {
    EXPECT_TRUE(PhoneDataParseTestPeer(parser).DelayedSettled());
    const size_t before = sim.clock.Sleepers();
    std::atomic<bool> done{false};
    // Had the body not been seen asleep, time keeps moving until it is through: the join must
    // not hang on a failed test.
    lumo::test::ScopedThread t(
        [&] {
          body();
          done = true;
        },
        [&] {
          while (!done) {
            sim.clock.AdvanceMs(ms);
            std::this_thread::yield();
          }
        });
    const bool asleep = sim.clock.WaitForSleepers(before + 1);
    EXPECT_TRUE(asleep);
    sim.clock.AdvanceMs(ms);
    if (asleep) t.join();
  }
  void FeedThroughSleep(const std::string& json, uint32_t ms, ePhoneDataSource source = kUsb) {
    ThroughSleep(ms, [&] { Feed(json, source); });
  }
};

TEST_F(SessionTest, UsbSessionFromConnectToCaptureStart) {
  host.contentType = 1;
  host.live = true;
  host.roomId = "room7";
  host.lumoId = "u42";
  host.SetConfig("HighQVideo.ini", "USERSET", "projectionPreview", "1");
  parser.SetConnectMode(1);
  parser.SetAudioRecordType(1);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] SetConnectMode:usb"));

  parser.StartConnect(kUsb);
  Feed(R"({"cmdType":2005,"appVer":"3.1","status":0})");
  Feed(R"({"cmdType":2001})");
  Feed(R"({"cmdType":2000,"seq":7,"pad":"abc"})");
  ASSERT_EQ(usbCallback.prepared, 0);
  FeedThroughSleep(R"({"cmdType":2006})", 10);  // the audio request pauses 10 ms
  Feed(R"({"cmdType":2004,"phoneName":"iPhone10,3","sysVer":"12.4"})");

  std::vector<Command> sent = Commands(usb);
  std::vector<std::string> expected = {
      "{\"cmdType\":1005,\"protocolver\":1002,\"supportverlist\":[1002],\"version\":\"9.8.7.6\"}\n",
      "{\"cmdType\":1001,\"timestamp\":" + std::to_string(kSimNowMs) + "}\n",
      "{\"bitRate\":4000000,\"cmdType\":1013,\"codeType\":1,\"fps\":30,\"height\":1080,\"liveType\":1,\"show\":1,"
      "\"width\":1920}\n",
      "{\"cmdType\":1000,\"pad\":\"abc\",\"seq\":7}\n",
      "{\"cmdType\":1006}\n",
      "{\"cmdType\":1004}\n",
      "{\"cmdType\":1014}\n",
      "{\"cmdType\":1002}\n",
      "{\"channelId\":\"\",\"cmdType\":1010,\"lumoId\":\"u42\",\"roomid\":\"room7\",\"status\":1}\n",
  };
  ASSERT_EQ(sent.size(), expected.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].json, expected[i]) << i;
    EXPECT_EQ(sent[i].seq, i + 1) << i;
  }
  EXPECT_TRUE(wifi.Frames().empty());
  EXPECT_EQ(usbCallback.prepared, 1);
  EXPECT_EQ(wifiCallback.prepared, 0);

  EXPECT_EQ(ctrl.GetPhoneTimeBase(), kSimNowMs);
  EXPECT_EQ(ctrl.GetPhoneTimeBaseSource(), kUsb);
  EXPECT_EQ(parser.GetPhoneStartTimeStamp(), kSimNowMs * 10000);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] current connect mode is not wifi 1"));
  EXPECT_FALSE(host.IsTimerActive(CPhoneCameraCtrl::kHeartbeatTimerId));
  EXPECT_FALSE(ctrl.IsTimerRunning());
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] pc is live, notify phone to pull stream"));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] OnRcvResponsePcConnnect: {\"appVer\":\"3.1\",\"cmdType\":2005,\"status\":0}\n"));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo]  send net test:" + expected[3]));
  EXPECT_EQ(ctrl.GetPhoneName(), "iPhone10,3");
  EXPECT_EQ(ctrl.GetSysVersion(), "12.4");
  EXPECT_TRUE(ctrl.IsHighIOSVersion());
}

TEST_F(SessionTest, WifiSessionLeavesCaptureToTheHostAndRunsTheHeartbeat) {
  parser.SetConnectMode(2);
  EXPECT_EQ(parser.GetConnectMode(), 2);
  parser.StartConnect(kWifi);
  Feed(R"({"cmdType":2001})", kWifi);
  EXPECT_TRUE(host.IsTimerActive(CPhoneCameraCtrl::kHeartbeatTimerId));
  EXPECT_EQ(host.TimerPeriod(CPhoneCameraCtrl::kHeartbeatTimerId), 1000u);
  EXPECT_TRUE(ctrl.IsTimerRunning());
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] StartTimer,start phone video heartbeat timer"));
  EXPECT_EQ(ctrl.GetPhoneTimeBaseSource(), kWifi);

  Feed(R"({"cmdType":2006})", kWifi);
  EXPECT_EQ(wifiCallback.prepared, 1);
  EXPECT_EQ(usbCallback.prepared, 0);
  std::vector<std::string> expected = {
      "{\"cmdType\":1005,\"protocolver\":1002,\"supportverlist\":[1000,1001,1002],\"version\":\"9.8.7.6\"}\n",
      "{\"cmdType\":1001,\"timestamp\":" + std::to_string(kSimNowMs) + "}\n",
      "{\"cmdType\":1006}\n",
      "{\"cmdType\":1004}\n",
  };
  EXPECT_EQ(Texts(wifi), expected);
  EXPECT_TRUE(usb.Frames().empty());

  // The host starts capture after its callback; the phone confirms at once.
  parser.StartCapture(kWifi);
  Feed(R"({"cmdType":2002})", kWifi);
  EXPECT_EQ(wifiCallback.captureStarted, 1);
  EXPECT_EQ(host.Statistic(lumo::HostStat::ProjectionContentType), 0);
  EXPECT_EQ(Texts(wifi).at(4), "{\"cmdType\":1002}\n");
}

TEST_F(SessionTest, SupportedVersionListIsFilledOnceAndKept) {
  host.contentType = 1;
  parser.StartConnect(kUsb);
  host.contentType = 0;
  parser.StartConnect(kUsb);
  auto texts = Texts(usb);
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0], texts[1]);
  EXPECT_NE(texts[1].find("\"supportverlist\":[1002]"), std::string::npos);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] protocol " + texts[0]));
}

TEST_F(SessionTest, ContentTypeRidesOnNetTestsAtMostOncePer1001Ms) {
  auto netTest = [&] {
    usb.Clear();
    Feed(R"({"cmdType":2000})");
    std::vector<std::string> texts = Texts(usb);
    EXPECT_EQ(texts.back(), "{\"cmdType\":1000}\n");
    return texts.size() == 2 && texts[0].find("\"cmdType\":1013") != std::string::npos;
  };
  EXPECT_TRUE(netTest());  // the first always carries it
  sim.clock.AdvanceMs(500);
  EXPECT_FALSE(netTest());
  sim.clock.AdvanceMs(500);
  EXPECT_FALSE(netTest());  // 1000 ms after the last one: still too soon
  sim.clock.AdvanceMs(1);
  EXPECT_TRUE(netTest());
  sim.clock.AdvanceMs(1001);
  EXPECT_TRUE(netTest());

  host.contentType = 2;  // a content type 2 projection is never told
  sim.clock.AdvanceMs(5000);
  EXPECT_FALSE(netTest());
  host.contentType = 0;
  EXPECT_TRUE(netTest());  // the interval counts from the last one actually sent
}

TEST_F(SessionTest, ContentTypeNeverSentWithContentTypeTwo) {
  host.contentType = 2;
  for (int i = 0; i < 3; ++i) {
    Feed(R"({"cmdType":2000,"n":[1,2]})");
    sim.clock.AdvanceMs(2000);
  }
  EXPECT_EQ(Texts(usb), std::vector<std::string>(3, "{\"cmdType\":1000,\"n\":[1,2]}\n"));
}

TEST_F(SessionTest, ContentTypeCarriesResolutionRateAndPreview) {
  host.projectionWidth = 1280;
  host.projectionHeight = 720;
  host.videoFps = 25;
  host.is169Video = true;  // only a content type 1 projection takes the game's rate
  host.SetConfig("HighQVideo.ini", "USERSET", "projectionPreview", "1");
  parser.SetPhoneVideoRate(5);
  Feed(R"({"cmdType":2000})");
  EXPECT_EQ(Texts(usb).at(0),
            "{\"bitRate\":8000000,\"cmdType\":1013,\"codeType\":1,\"fps\":25,\"height\":720,\"liveType\":0,\"show\":1,"
            "\"width\":1280}\n");
}

TEST_F(SessionTest, HighIosRuleOnRealModelVersionPairs) {
  struct Case {
    const char* json;
    int verdict;  // 1 high, 0 not high, -1 not examined
  };
  const Case cases[] = {
      {R"({"cmdType":2004,"phoneName":"iPhone10,3","sysVer":"12.4"})", 1},
      {R"({"cmdType":2004,"phoneName":"iPhone8,1","sysVer":"14.0"})", 0},
      {R"({"cmdType":2004,"phoneName":"iPhone12,1","sysVer":"10.3.3"})", 0},
      {R"({"cmdType":2004,"phoneName":"iPhone9,1","sysVer":"11.0"})", 1},
      {R"({"cmdType":2004,"phoneName":"SM-G9910,1","sysVer":"14.0"})", -1},
      {R"({"cmdType":2004,"phoneName":"iPhone10,3","sysVer":"12"})", -1},
      {R"({"cmdType":2004,"phoneName":"iPhone10,3,1","sysVer":"12.4"})", -1},
      {R"({"cmdType":2004,"phoneName":"iPhone10,3","sysVer":""})", -1},
      {R"({"cmdType":2004,"phoneName":7,"sysVer":"12.4"})", -1},
      // A model number far past any integer saturates instead of overflowing.
      {R"({"cmdType":2004,"phoneName":"iPhone99999999999999999999,1","sysVer":"-99999999999999999999.1"})", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    host.ClearLogs();
    CPhoneCameraCtrl freshCtrl;
    H264DataReviever freshVideo{&freshCtrl};
    PhoneDataParse fresh{&freshCtrl, &freshVideo, &audio1, &audio2};
    std::string frame = Bytes({1, 0, 0, 0, 9}) + c.json;
    fresh.ParsePhoneData(kUsb, reinterpret_cast<signed char*>(&frame[0]), static_cast<unsigned>(frame.size()),
                         PHONE_TYPE_IOS);
    EXPECT_EQ(freshCtrl.IsHighIOSVersion(), c.verdict == 1);
    EXPECT_EQ(host.HasLog(2, "[phoneVideo] OnRcvResponseMonitorPhone high ios version"), c.verdict == 1);
    EXPECT_EQ(host.HasLog(2, "[phoneVideo] OnRcvResponseMonitorPhone not high ios version"), c.verdict == 0);
  }
}

TEST_F(SessionTest, HighIosFlagIsNeverCleared) {
  Feed(R"({"cmdType":2004,"phoneName":"iPhone11,2","sysVer":"13.1"})");
  Feed(R"({"cmdType":2004,"phoneName":"iPhone6,1","sysVer":"9.0"})");
  EXPECT_TRUE(ctrl.IsHighIOSVersion());
  EXPECT_EQ(ctrl.GetPhoneName(), "iPhone6,1");
}

TEST_F(SessionTest, CaptureRetryRepeatsAtThreeSixNineSecondsThenGivesUp) {
  parser.StartCapture(kUsb);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] reset video quality"));
  for (size_t attempt = 0; attempt < 3; ++attempt) {
    ASSERT_TRUE(Advance(2999));
    EXPECT_EQ(Commands(usb).size(), attempt + 1);
    ASSERT_TRUE(Advance(1));
    EXPECT_EQ(Commands(usb).size(), attempt + 2);
    EXPECT_TRUE(host.HasLog(2, "[phoneVideo] MonitorStartCaptureProcProxy looIdx: " + std::to_string(attempt)));
  }
  EXPECT_EQ(DelayedPending(), 0u);
  ASSERT_TRUE(Advance(10000));
  std::vector<Command> sent = Commands(usb);
  ASSERT_EQ(sent.size(), 4u);
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].json, "{\"cmdType\":1002}\n");
    EXPECT_EQ(sent[i].seq, i + 1);
  }
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] protocol ReStartCapture:{\"cmdType\":1002}\n"), 3u);
}

TEST_F(SessionTest, CaptureRetryEndsWithTheStartAnswerOrACaptureStop) {
  struct Case {
    const char* name;
    std::function<void()> end;
  } cases[] = {
      {"2002 just before the first retry", [&] { Feed(R"({"cmdType":2002})"); }},
      {"capture stopped", [&] {
         ThroughSleep(200, [&] { parser.StopCapture(kUsb); });
         Feed(R"({"cmdType":2003})");
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    usb.Clear();
    host.ClearLogs();
    parser.StartCapture(kUsb);
    ASSERT_TRUE(Advance(2799));
    c.end();
    ASSERT_TRUE(Advance(10000));
    std::vector<std::string> texts = Texts(usb);
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts[0], "{\"cmdType\":1002}\n");
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "{\"cmdType\":1002}\n"), 1);  // never repeated
    EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] MonitorStartCaptureProcProxy looIdx"), 0u);
    EXPECT_EQ(DelayedPending(), 0u);
  }
}

TEST_F(SessionTest, RepeatedPrepareOrSwitchCannotPileUpDelayedWork) {
  // A phone that says "prepared" over and over restarts capture each time; the waiting retries,
  // and the late camera fetches with them, stay under one bound however often it does.
  for (int i = 0; i < 40; ++i) parser.StartCapture(kUsb);
  EXPECT_EQ(DelayedPending(), 16u);
  Feed(R"({"cmdType":2017})");
  Feed(R"({"cmdType":2012,"switchCam":{"state":1}})");
  EXPECT_FALSE(host.HasLog("[phoneVideo] DelayGetPhoneCameraHandle"));
  EXPECT_EQ(host.CountLog(3, "[delayed] protocol delayed work: 16 tasks waiting, one more refused"), 1u);
  // Each waiting retry fires once and queues its next attempt in its own place.
  ASSERT_TRUE(Advance(3000));
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] protocol ReStartCapture:{\"cmdType\":1002}\n"), 16u);
  EXPECT_EQ(DelayedPending(), 16u);
  Feed(R"({"cmdType":2002})");
  ASSERT_TRUE(Advance(3000));
  EXPECT_EQ(DelayedPending(), 0u);
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] protocol ReStartCapture:{\"cmdType\":1002}\n"), 16u);
}

TEST_F(SessionTest, DestroyingTheParserWithARetryWaitingRunsNothingLater) {
  auto owned = std::make_unique<PhoneDataParse>(&ctrl, &video, &audio1, &audio2);
  owned->SetDataSender(kUsb, &usb);
  owned->StartCapture(kUsb);
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));  // the retry waits for its time
  owned.reset();
  EXPECT_EQ(sim.clock.Sleepers(), 0u);  // and its thread is gone with the parser
  sim.clock.AdvanceMs(10000);
  EXPECT_EQ(Texts(usb), std::vector<std::string>{"{\"cmdType\":1002}\n"});
  EXPECT_FALSE(host.HasLog("[phoneVideo] protocol ReStartCapture:{\"cmdType\":1002}\n"));
}

TEST_F(SessionTest, NoCaptureRetryUnlessCameraProjection) {
  host.contentType = 1;
  parser.StartCapture(kUsb);
  EXPECT_EQ(DelayedPending(), 0u);
  EXPECT_EQ(Texts(usb), std::vector<std::string>{"{\"cmdType\":1002}\n"});
}

TEST_F(SessionTest, StopCaptureClearsTimeBaseAndPauses) {
  Feed(R"({"cmdType":2001})");
  ASSERT_NE(ctrl.GetPhoneTimeBase(), 0u);
  ThroughSleep(200, [&] { parser.StopCapture(kUsb); });
  EXPECT_EQ(ctrl.GetPhoneTimeBase(), 0u);
  EXPECT_EQ(static_cast<int>(ctrl.GetPhoneTimeBaseSource()), 0);
  EXPECT_EQ(Texts(usb).back(), "{\"cmdType\":1003}\n");
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] [liveTs] set phone ts:0 phoneDataSrc:0"));
  // The delay measurement starts afresh with the next capture.
  EXPECT_TRUE(host.HasLog(2, "[phoneSource] ResetVideoTsData"));

  Feed(R"({"cmdType":2004,"phoneName":"Pixel,7","sysVer":"14"})");
  Feed(R"({"cmdType":2003})");
  EXPECT_EQ(ctrl.GetPhoneName(), "");
}

TEST_F(SessionTest, AppStopWithOutOfRangeCodeIsAnsweredAndReportedAs223) {
  FeedThroughSleep(R"({"cmdType":2008,"code":20000,"errMsg":"camera busy"})", 5);
  auto sent = Commands(usb);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].json, "{\"cmdType\":1008}\n");
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] OnRevResponseAppActiveStopVideo json code:20000 to 223 "));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] NotifyAppActiveStop code:223,msg:camera busy "));

  auto messages = host.Messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].json["interMsg"]["Msg"].asInt(), 7054);
  EXPECT_EQ(messages[0].json["interMsg"]["wParam"].asInt(), 1);
  EXPECT_EQ(messages[0].json["interMsg"]["lParam"].asInt(), 223);
  const std::string info =
      "{\"cameraMaxResolution\":\"\",\"cameraType\":1,\"isIOS\":0,\"isUSB\":1,\"maxVideoSize\":\"\","
      "\"phoneConnect\":0,\"phoneName\":\"\"}\n";
  EXPECT_EQ(messages[1].json["interCmd"].asInt(), 419);
  EXPECT_EQ(messages[1].json["interMsg"]["Msg"].asInt(), 3340);
  EXPECT_EQ(messages[1].json["interMsg"]["wParam"].asString(), "");
  EXPECT_EQ(messages[1].json["interMsg"]["lParam"].asString(), info);
  EXPECT_TRUE(host.HasLog(2, "PhoneDataParse::OnRevResponseAppActiveStopVideo,SendPhoneCameraParamsToHx, info:" + info));
  EXPECT_EQ(host.PhoneName(), "null");
}

TEST_F(SessionTest, AppStopEdgesOfCodeRangeAndOtherContentTypes) {
  host.contentType = 1;
  FeedThroughSleep(R"({"cmdType":2008,"code":-10000,"errMsg":""})", 5, kWifi);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] NotifyAppActiveStop code:-10000,msg: "));
  FeedThroughSleep(R"({"cmdType":2008,"code":10000,"errMsg":"y"})", 5, kWifi);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] NotifyAppActiveStop code:10000,msg:y "));
  FeedThroughSleep(R"({"cmdType":2008,"code":-10001,"errMsg":"x"})", 5, kWifi);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] NotifyAppActiveStop code:223,msg:x "));
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] OnRevResponseAppActiveStopVideo json code:"), 1u);
  auto messages = host.Messages();
  ASSERT_EQ(messages.size(), 3u);  // no camera-information message outside a camera projection
  EXPECT_EQ(messages[2].json["interMsg"]["wParam"].asInt(), 2);
  EXPECT_EQ(host.PhoneName(), "");
  EXPECT_EQ(Texts(wifi), std::vector<std::string>(3, "{\"cmdType\":1008}\n"));
}

TEST_F(SessionTest, MalformedAppStopIsNotAnswered) {
  for (const char* json : {R"({"cmdType":2008,"code":5})", R"({"cmdType":2008,"code":"5","errMsg":"m"})",
                           R"({"cmdType":2008,"code":5,"errMsg":{"a":1}})", R"({"cmdType":2008,"code":5.5,"errMsg":"m"})",
                           R"({"cmdType":2008,"code":4294967295,"errMsg":"m"})"}) {
    Feed(json);
  }
  EXPECT_TRUE(usb.Frames().empty());
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] OnRevResponseAppActiveStopVideo json error"), 5u);
  EXPECT_TRUE(host.Messages().empty());
}

class AudioParamsTest : public SessionTest {
 protected:
  std::shared_ptr<lumo::test::AudioRecord> record = std::make_shared<lumo::test::AudioRecord>();
  PcmPlayer player{lumo::test::RecordingOutputFactory(record)};
  CAudioDecoder decoder1{&audio1, &player, &ctrl, 1};
  CAudioDecoder decoder2{&audio2, &player, &ctrl, 2};
  PhoneDataParse withDecoders{&ctrl, &video, &audio1, &audio2, nullptr, &decoder1, &decoder2};

  void FeedAudio(const std::string& json) {
    std::string frame = Bytes({1, 0, 0, 0, 9}) + json;
    withDecoders.ParsePhoneData(kUsb, reinterpret_cast<signed char*>(&frame[0]), static_cast<unsigned>(frame.size()),
                                PHONE_TYPE_ANDROID);
  }
  void ExpectBoth(int rate, int channels, int type) {
    for (CAudioDecoder* d : {&decoder1, &decoder2}) {
      int r = 0, c = 0, t = 0;
      d->GetParam(r, c, t);
      EXPECT_EQ(r, rate);
      EXPECT_EQ(c, channels);
      EXPECT_EQ(t, type);
    }
  }
  size_t ErrorLogs() {
    size_t n = 0;
    for (auto& l : host.Logs()) n += l.level == 4;
    return n;
  }
};

TEST_F(AudioParamsTest, PartialAnswerFallsBackWithOneMessagePerMissingMember) {
  FeedAudio(R"({"cmdType":2014,"dwSampleRate":48000})");
  ExpectBoth(48000, 2, 1);
  EXPECT_EQ(ErrorLogs(), 2u);
  EXPECT_TRUE(host.HasLog(4, "OnRcvResponseStartAudioCapture, aacType not exist or not int."));
  EXPECT_TRUE(host.HasLog(4, "OnRcvResponseStartAudioCapture, dwChannel not exist or not int."));

  host.ClearLogs();
  FeedAudio(R"({"cmdType":2014,"dwSampleRate":"16000","aacType":[2],"dwChannel":1.5})");
  ExpectBoth(44100, 2, 1);
  EXPECT_EQ(ErrorLogs(), 3u);
  EXPECT_TRUE(host.HasLog(4, "OnRcvResponseStartAudioCapture, dwSampleRate not exist or not int."));

  FeedAudio(R"({"cmdType":2014,"dwSampleRate":16000,"aacType":2,"dwChannel":1})");
  ExpectBoth(16000, 1, 2);
}

TEST_F(AudioParamsTest, ZeroChannelsStoresNothing) {
  FeedAudio(R"({"cmdType":2014,"dwSampleRate":16000,"aacType":2,"dwChannel":1})");
  FeedAudio(R"({"cmdType":2014,"dwSampleRate":48000,"aacType":1,"dwChannel":0})");
  ExpectBoth(16000, 1, 2);
  EXPECT_EQ(ErrorLogs(), 0u);
}

TEST_F(SessionTest, VideoRateIndexAndItsConfigKey) {
  parser.SetPhoneVideoRate(3);
  EXPECT_EQ(parser.GetPhoneVideoRate(), 6000);
  parser.SetPhoneVideoRate(7);  // unknown index: rate kept, index still written
  EXPECT_EQ(parser.GetPhoneVideoRate(), 6000);
  std::string value;
  ASSERT_TRUE(host.GetConfigRaw("phoneVideoCfg.ini", "SECT_VIDEO", "videoRateIdx", value));
  EXPECT_EQ(value, "7");
  EXPECT_EQ(parser.GetPhoneVideoRateFromConfig(), 7);
  EXPECT_EQ(parser.GetPhoneVideoRate(), 6000);
  parser.SetPhoneVideoRate(-1);
  EXPECT_EQ(parser.GetPhoneVideoRate(), 6000);
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "videoRateIdx", "0");
  EXPECT_EQ(parser.GetPhoneVideoRateFromConfig(), 0);
  EXPECT_EQ(parser.GetPhoneVideoRate(), 3000);
}

TEST_F(SessionTest, AudioTypeGatesAudioRequest) {
  parser.StartAudioCapture(kUsb);
  EXPECT_TRUE(usb.Frames().empty());
  EXPECT_EQ(parser.GetAudioRecordTypeFromConfig(), 0);
  parser.SetAudioRecordTypeToConfig(1);
  std::string value;
  ASSERT_TRUE(host.GetConfigRaw("phoneVideoCfg.ini", "SECT_VIDEO", "audioRecType", value));
  EXPECT_EQ(value, "1");
  EXPECT_EQ(parser.GetAudioRecordTypeFromConfig(), 1);
  EXPECT_EQ(parser.GetAudioRecordType(), 1);
  ThroughSleep(10, [&] { parser.StartAudioCapture(kUsb); });
  EXPECT_EQ(Texts(usb), std::vector<std::string>{"{\"cmdType\":1014}\n"});
}

TEST_F(SessionTest, LiveEventNeedsPreviewAndLivePc) {
  host.live = true;
  host.roomId = "r";
  host.lumoId = "u";
  parser.MonitorPcLiving(kWifi);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] pc is live, notify phone to pull stream"));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] not SendLiveEvent for showpreview 0"));
  EXPECT_TRUE(wifi.Frames().empty());

  host.SetConfig("HighQVideo.ini", "USERSET", "projectionPreview", "1");
  host.live = false;
  parser.MonitorPcLiving(kWifi);
  EXPECT_TRUE(wifi.Frames().empty());
  parser.SendLiveEvent(kWifi, 0, "a\"b", "", "ch");
  EXPECT_EQ(Texts(wifi), std::vector<std::string>{
                             "{\"channelId\":\"ch\",\"cmdType\":1010,\"lumoId\":\"\",\"roomid\":\"a\\\"b\",\"status\":0}\n"});
}

TEST_F(SessionTest, ExposureAndEchoedAppCommands) {
  parser.SetExposureStat(kUsb, -3);
  Feed(R"({"cmdType":2016,"ok":1})");
  Feed(R"({"cmdType":2013})");
  host.contentType = 1;
  parser.SetConnectMode(2);
  Feed(R"({"cmdType":2015,"x":[1,{"y":null}]})", kWifi);
  EXPECT_EQ(wifiCallback.startProjection, 1);
  parser.SetConnectMode(1);
  Feed(R"({"cmdType":2015})", kWifi);
  EXPECT_EQ(wifiCallback.startProjection, 1);  // only a WiFi link reports it

  Feed(R"({"cmdType":2017,"phone":"p2"})");
  std::vector<std::string> expectedUsb = {"{\"cmdType\":1016,\"lock\":-3}\n", "{\"cmdType\":1017,\"phone\":\"p2\"}\n"};
  auto usbTexts = Texts(usb);
  ASSERT_GE(usbTexts.size(), 2u);
  EXPECT_EQ(std::vector<std::string>(usbTexts.begin(), usbTexts.begin() + 2), expectedUsb);
  EXPECT_EQ(Texts(wifi), (std::vector<std::string>{"{\"cmdType\":1015,\"x\":[1,{\"y\":null}]}\n", "{\"cmdType\":1015}\n"}));
  for (const char* key : {"localLockExposeCompensation", "localLockWhiteBalance", "localLockBokeh"}) {
    std::string value;
    EXPECT_TRUE(host.GetConfigRaw("phoneVideoCfg.ini", "PHONECAM", key, value)) << key;
    EXPECT_EQ(value, "-100") << key;
  }
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] OnRcvResponseSetExposureStat: {\"cmdType\":2016,\"ok\":1}\n"));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] OnRcvResponseSetContentType: {\"cmdType\":2013}\n"));
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] protocol OnRcvAppStartProjection,WifiAppStartProjection"), 1u);

  // The new phone's camera is fetched 3 s later, from where capture runs (USB by default).
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] DelayGetPhoneCameraHandle"));
  ASSERT_TRUE(Advance(2999));
  EXPECT_EQ(Texts(usb).size(), 2u);
  ASSERT_TRUE(Advance(1));
  EXPECT_EQ(Texts(usb).back(), "{\"cmdType\":1011}\n");
}

}  // namespace
