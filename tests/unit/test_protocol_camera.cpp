// Camera parameters through the public calls and the phone's answers: the exact 1012/1011 bytes,
// repeats suppressed, locally locked settings written back, the host's information message and
// callbacks, the server switch cadence and the delayed fetch after a camera switch.
#include <gtest/gtest.h>
#include <json/json.h>

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
const char kSame[] = "[phoneCamParam] SetPhoneCameraParams , param is the same as last";

struct RecordingCallbacks : IUSBEventCallback, IWifiEventCallback {
  void OnPhonePrepared() override {}
  void OnConnectionError(const std::wstring&) override {}
  void OnCaptureStarted() override {}
  void OnWifiReserved() override {}
  void OnAppStartProjection() override {}
  void OnCameraParamsRefreshed(const Json::Value& params, bool range) override {
    calls.push_back({params, range});
  }
  std::vector<std::pair<Json::Value, bool>> calls;
};

class CameraParamsTest : public ::testing::Test, protected lumo::test::ParserWorld {
 protected:
  RecordingCallbacks usbEvents, wifiEvents;

  void SetUp() override {
    parser.SetUSBCallback(&usbEvents);
    parser.SetWifiCallback(&wifiEvents);
  }

  void Feed(const std::string& text, ePhoneDataSource source = kUsb, ePhoneType type = PHONE_TYPE_ANDROID) {
    std::string frame = Bytes({1, 0, 0, 0, 9}) + text;
    parser.ParsePhoneData(source, reinterpret_cast<signed char*>(&frame[0]), static_cast<unsigned>(frame.size()),
                          type);
  }
  // The JSON texts sent so far (each frame's text starts after the 9-byte header).
  // The 3340 information texts posted to the host window.
  std::vector<std::string> InfoTexts() {
    std::vector<std::string> out;
    for (auto& m : host.Messages()) {
      const Json::Value& inner = m.json["interMsg"];
      if (inner["Msg"].asInt() == 3340) {
        EXPECT_EQ(inner["wParam"].asString(), "");
        out.push_back(inner["lParam"].asString());
      }
    }
    return out;
  }
};

TEST_F(CameraParamsTest, SettingChangesAreFramedAndIdenticalRepeatsSuppressed) {
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_WHITE_BALANCE, 5, 1, 0);
  ASSERT_EQ(usb.Frames().size(), 1u);
  const std::string text = "{\"cmdType\":1012,\"whiteBalance\":{\"isCustom\":1,\"value\":5}}\n";
  EXPECT_EQ(usb.Frames()[0], Bytes({0, 0, 0, int(text.size() + 5), 1, 0, 0, 0, 1}) + text);
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] SetPhoneCameraParams from 2, paramVal 5"));
  EXPECT_TRUE(host.HasLog(2, "[phoneCamParam] SetPhoneCameraParams " + text));

  // The same change again: nothing goes out, and the line saying so is written once per 2 s.
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_WHITE_BALANCE, 5, 1, 0);
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_WHITE_BALANCE, 5, 1, 0);
  sim.clock.AdvanceMs(1999);
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_WHITE_BALANCE, 5, 1, 0);
  EXPECT_EQ(usb.Frames().size(), 1u);
  EXPECT_EQ(host.CountLog(2, kSame), 1u);
  sim.clock.AdvanceMs(1);
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_WHITE_BALANCE, 5, 1, 0);
  EXPECT_EQ(host.CountLog(2, kSame), 2u);
  EXPECT_EQ(usb.Frames().size(), 1u);

  // Any difference goes out; so does going back to the earlier value.
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_WHITE_BALANCE, 5, 0, 0);
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_WHITE_BALANCE, 5, 1, 0);
  EXPECT_EQ(usb.Frames().size(), 3u);

  // Unknown types send and log nothing.
  host.ClearLogs();
  parser.SetPhoneCameraParams(kUsb, static_cast<PHONE_CAMERA_PARAM_TYPE>(5), 1, 1, 0);
  EXPECT_EQ(usb.Frames().size(), 3u);
  EXPECT_TRUE(host.Logs().empty());
}

TEST_F(CameraParamsTest, ResetAndCameraSwitchCarryEverySettingAndSwitchesAreNeverSuppressed) {
  parser.SetPhoneCameraParams(kWifi, PHONE_CAMERA_PARAM_SWITCH_CAM, 1, 0, 0);
  parser.SetPhoneCameraParams(kWifi, PHONE_CAMERA_PARAM_SWITCH_CAM, 1, 0, 0);
  const std::string zeros =
      "\"bokeh\":{\"isCustom\":0,\"value\":0},\"cmdType\":1012,\"expose\":{\"isCustom\":0,\"value\":0},"
      "\"exposeCompensation\":{\"isCustom\":0,\"value\":0},";
  std::string switchText = "{" + zeros + "\"switchCam\":{\"state\":1},\"whiteBalance\":{\"isCustom\":0,\"value\":0}}\n";
  EXPECT_EQ(Texts(wifi), (std::vector<std::string>{switchText, switchText}));
  EXPECT_EQ(host.CountLog(kSame), 0u);

  // A reset ignores the type and its value.
  parser.SetPhoneCameraParams(kWifi, PHONE_CAMERA_PARAM_BOKEH, 9, 1, 1);
  parser.SetPhoneCameraParams(kWifi, PHONE_CAMERA_PARAM_EXPOSE, 3, 1, 1);
  ASSERT_EQ(wifi.Frames().size(), 3u);  // the second reset repeats the first
  EXPECT_EQ(Texts(wifi)[2], "{" + zeros + "\"reset\":1,\"whiteBalance\":{\"isCustom\":0,\"value\":0}}\n");
  EXPECT_TRUE(usb.Frames().empty());
}

TEST_F(CameraParamsTest, PhoneAnswerClearsTheMemoryAndWritesBackLocalLocks) {
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_BOKEH, 2, 1, 0);
  // 0 is a real lock; -100 (written or missing) means unlocked.
  host.SetConfig("phoneVideoCfg.ini", "PHONECAM", "localLockWhiteBalance", "0");
  host.SetConfig("phoneVideoCfg.ini", "PHONECAM", "localLockExposeCompensation", "-100");
  host.SetConfig("phoneVideoCfg.ini", "PHONECAM", "localLockBokeh", "7");
  Feed("{\"cmdType\":2011,\"isIOS\":1}");
  ASSERT_EQ(usb.Frames().size(), 2u);
  EXPECT_EQ(Texts(usb)[1],
            "{\"bokeh\":{\"isCustom\":1,\"value\":7},\"cmdType\":1012,\"reset\":0,"
            "\"whiteBalance\":{\"isCustom\":1,\"value\":0}}\n");
  EXPECT_TRUE(host.HasLog(2, "[phoneCamParam] OnRcvResponseGetCameraParams need write back."));
  EXPECT_TRUE(ctrl.IsIOS());

  // The write-back is now the last change, and a second answer resends it all the same.
  Feed("{\"cmdType\":2011,\"isIOS\":\"1\"}");
  EXPECT_EQ(usb.Frames().size(), 3u);
  EXPECT_EQ(Texts(usb)[2], Texts(usb)[1]);
  EXPECT_FALSE(ctrl.IsIOS());  // only the integer 1 means iOS

  // Without locks nothing is written back, but the memory is still cleared.
  host.SetConfig("phoneVideoCfg.ini", "PHONECAM", "localLockWhiteBalance", "-100");
  host.SetConfig("phoneVideoCfg.ini", "PHONECAM", "localLockBokeh", "-100");
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_BOKEH, 2, 1, 0);
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_BOKEH, 2, 1, 0);
  EXPECT_EQ(usb.Frames().size(), 4u);
  Feed("{\"cmdType\":2011}");
  EXPECT_EQ(usb.Frames().size(), 4u);
  parser.SetPhoneCameraParams(kUsb, PHONE_CAMERA_PARAM_BOKEH, 2, 1, 0);
  EXPECT_EQ(usb.Frames().size(), 5u);
  EXPECT_EQ(Texts(usb)[4], Texts(usb)[3]);
}

TEST_F(CameraParamsTest, AnswerTellsTheHostAboutCameraAndPhoneAndCallsBackBySource) {
  const std::string params = "{\"cmdType\":2011,\"isIOS\":0,\"cameraId\":\"10\",\"maxVideoSize\":\"1920x1080\"}";
  // Before the phone's status is known the host message is skipped, the callback is not.
  Feed(params, kWifi, PHONE_TYPE_IOS);
  EXPECT_TRUE(host.HasLog(4, "PhoneDataParse::SendPhoneCameraParamsToHx error,phone cam or status param empty "));
  EXPECT_TRUE(InfoTexts().empty());
  ASSERT_EQ(wifiEvents.calls.size(), 1u);
  EXPECT_EQ(wifiEvents.calls[0].first["cameraId"].asString(), "10");
  EXPECT_TRUE(wifiEvents.calls[0].second);
  EXPECT_TRUE(usbEvents.calls.empty());
  EXPECT_TRUE(host.HasLog(2, "[phoneCamParam] RefreshCameraParam bHasValRange 1"));

  Feed("{\"cmdType\":2004,\"phoneName\":7,\"sysVer\":\"14\"}", kWifi);
  Feed(params, kWifi);
  EXPECT_TRUE(host.HasLog(4, "PhoneDataParse::SendPhoneCameraParamsToHx error,phone cam or status param not enough"));
  EXPECT_TRUE(InfoTexts().empty());

  Feed("{\"cmdType\":2004,\"phoneName\":\"Pixel 7\",\"sysVer\":\"14\",\"cameraMaxResolution\":\"4000x3000\"}", kWifi);
  Feed(params, kWifi);
  const std::string info =
      "{\"cameraMaxResolution\":\"4000x3000\",\"cameraType\":2,\"isIOS\":0,\"isUSB\":0,\"maxVideoSize\":"
      "\"1920x1080\",\"phoneConnect\":1,\"phoneName\":\"Pixel 7\"}\n";
  EXPECT_EQ(InfoTexts(), std::vector<std::string>{info});
  EXPECT_TRUE(host.HasLog(2, "PhoneDataParse::SendPhoneCameraParamsToHx, info:" + info));
  EXPECT_EQ(host.PhoneName(), "Pixel 7");
  EXPECT_EQ(host.Statistic(lumo::HostStat::PhoneConnectType), 0);
  EXPECT_EQ(wifiEvents.calls.size(), 3u);

  // Over USB, on iOS: the size the phone names is not passed on, and the USB callback is used.
  Feed("{\"cmdType\":2011,\"isIOS\":1,\"cameraId\":\"1\",\"maxVideoSize\":\"1920x1080\"}", kUsb);
  ASSERT_EQ(InfoTexts().size(), 2u);
  EXPECT_EQ(InfoTexts()[1],
            "{\"cameraMaxResolution\":\"4000x3000\",\"cameraType\":1,\"isIOS\":1,\"isUSB\":1,\"maxVideoSize\":\"\","
            "\"phoneConnect\":1,\"phoneName\":\"Pixel 7\"}\n");
  EXPECT_EQ(host.Statistic(lumo::HostStat::PhoneConnectType), 1);
  EXPECT_EQ(host.Statistic(lumo::HostStat::PhoneIsIOS), 1);
  EXPECT_EQ(usbEvents.calls.size(), 1u);
  EXPECT_EQ(wifiEvents.calls.size(), 3u);
}

TEST_F(CameraParamsTest, CameraTypeAndMistypedMembersFallBack) {
  Feed("{\"cmdType\":2004,\"phoneName\":\"P\",\"cameraMaxResolution\":[1]}");
  struct Case {
    const char* members;
    int cameraType, isIOS;
    const char* maxVideoSize;
  } cases[] = {
      {"\"cameraId\":\"1\"", 1, 0, ""},
      {"\"cameraId\":\"10\"", 2, 0, ""},
      {"\"cameraId\":\"\"", 2, 0, ""},
      {"\"cameraId\":1", 1, 0, ""},
      {"\"isIOS\":\"0\",\"maxVideoSize\":\"720\"", 1, 0, "720"},
      {"\"isIOS\":2,\"maxVideoSize\":\"720\"", 1, 2, ""},
      {"\"isIOS\":{},\"maxVideoSize\":7,\"cameraId\":null", 1, 0, ""},
  };
  for (const Case& c : cases) {
    host.ClearMessages();
    Feed(std::string("{\"cmdType\":2011,") + c.members + "}");
    auto texts = InfoTexts();
    ASSERT_EQ(texts.size(), 1u) << c.members;
    Json::Value info;
    ASSERT_TRUE(Json::Reader().parse(texts[0], info));
    EXPECT_EQ(info["cameraType"].asInt(), c.cameraType) << c.members;
    EXPECT_EQ(info["isIOS"].asInt(), c.isIOS) << c.members;
    EXPECT_EQ(info["maxVideoSize"].asString(), c.maxVideoSize) << c.members;
    EXPECT_EQ(info["cameraMaxResolution"].asString(), "") << c.members;
  }
}

TEST_F(CameraParamsTest, ServerSwitchIsReadAgainOnlyEveryFiveMinutes) {
  host.switches["10155"] = {false, ""};
  parser.GetPhoneCameraParams(kUsb);
  EXPECT_TRUE(usb.Frames().empty());

  host.switches["10155"] = {true, ""};
  parser.GetPhoneCameraParams(kUsb);
  sim.clock.AdvanceMs(299999);
  parser.GetPhoneCameraParams(kUsb);
  EXPECT_TRUE(usb.Frames().empty());  // still the cached "off"

  sim.clock.AdvanceMs(1);
  parser.GetPhoneCameraParams(kUsb);
  EXPECT_EQ(Texts(usb), std::vector<std::string>{"{\"cmdType\":1011}\n"});
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] GetPhoneCameraParams {\"cmdType\":1011}\n"));

  host.switches["10155"] = {false, ""};
  parser.GetPhoneCameraParams(kWifi);  // cached "on"
  EXPECT_EQ(wifi.Frames().size(), 1u);
}

TEST_F(CameraParamsTest, GameRenderFpsDefaultsToThirtyAndIsReadOnce) {
  // The 16:9 game projection asks for the game's render rate in the content-type command.
  host.is169Video = true;
  host.contentType = 1;
  Feed("{\"cmdType\":2000}");
  ASSERT_FALSE(usb.Frames().empty());
  Json::Value command;
  ASSERT_TRUE(Json::Reader().parse(Texts(usb)[0], command));
  EXPECT_EQ(command["cmdType"].asInt(), 1013);
  EXPECT_EQ(command["fps"].asInt(), 30);
  EXPECT_TRUE(host.HasLog(2, "Utility::GetGameRenderFps,get config game render fps:-1"));

  host.SetConfig("HighQVideo.ini", "USERSET", "GameRenderFps", "60");
  sim.clock.AdvanceMs(1001);
  Feed("{\"cmdType\":2000}");
  auto texts = Texts(usb);
  ASSERT_TRUE(Json::Reader().parse(texts[texts.size() - 2], command));
  EXPECT_EQ(command["cmdType"].asInt(), 1013);
  EXPECT_EQ(command["fps"].asInt(), 30);  // cached for the life of the process
  EXPECT_EQ(host.CountLogsStartingWith("Utility::GetGameRenderFps"), 1u);
}

TEST(CameraParamsEarly, SwitchIsReadOnEveryCallDuringTheFirstFiveMinutes) {
  lumo::test::ScopedSimClock sim(1000);
  lumo::test::FakeHost host;
  CPhoneCameraCtrl ctrl;
  H264DataReviever video{&ctrl};
  AudioDataReviever audio1{&ctrl}, audio2{&ctrl};
  PhoneDataParse parser{&ctrl, &video, &audio1, &audio2};
  CapturingSender usb;
  parser.SetDataSender(kUsb, &usb);
  host.switches["10155"] = {false, ""};
  parser.GetPhoneCameraParams(kUsb);
  host.switches["10155"] = {true, ""};
  parser.GetPhoneCameraParams(kUsb);
  EXPECT_EQ(usb.Frames().size(), 1u);
}

TEST_F(CameraParamsTest, SwitchedCameraIsFetchedThreeSecondsLaterOnTheCaptureSource) {
  Feed("{\"cmdType\":2012,\"switchCam\":{\"state\":0}}");
  Feed("{\"cmdType\":2012,\"switchCam\":{\"state\":\"1\"}}");
  Feed("{\"cmdType\":2012,\"switchCam\":1}");
  Feed("{\"cmdType\":2012,\"state\":1}");
  EXPECT_TRUE(host.HasLog(2, "[phoneCamParam] OnRcvResponseSetCameraParams {\"cmdType\":2012,\"state\":1}\n"));
  Feed("{\"cmdType\":2012,\"switchCam\":{\"state\":1}}", kWifi);

  // Only the real switch started a fetch.
  EXPECT_EQ(DelayedPending(), 1u);
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] DelayGetPhoneCameraHandle"), 1u);
  ASSERT_TRUE(Advance(2999));
  EXPECT_TRUE(usb.Frames().empty());
  ASSERT_TRUE(Advance(1));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] GetPhoneCameraParams {\"cmdType\":1011}\n"));
  // Capture never started here, so the fetch goes to the default capture source, USB.
  EXPECT_EQ(Texts(usb), std::vector<std::string>{"{\"cmdType\":1011}\n"});
  EXPECT_TRUE(wifi.Frames().empty());
}

}  // namespace
