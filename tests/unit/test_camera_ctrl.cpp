// The control object: configuration at start, the WiFi heartbeat, host window messages and
// the camera-parameter file path.
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <thread>

#include "host/PhoneCameraCtrl.h"
#include "support/FakeHost.h"
#include "support/SimClock.h"
#include "support/TempDir.h"
#include "platform/paths.h"
#include "platform/text.h"

namespace {

HWND FakeWindow() { return reinterpret_cast<HWND>(0x1234); }

class CameraCtrlTest : public ::testing::Test {
 protected:
  lumo::test::ScopedSimClock sim;
  lumo::test::FakeHost host;
};

TEST_F(CameraCtrlTest, ConnectInfoUsesTheConfiguredVersionsVerbatim) {
  host.SetConfig("phoneVideoCfg.ini", "DEBUG", "protocalVersion", "1001");
  host.SetConfig("phoneVideoCfg.ini", "DEBUG", "supportProtocalList", "1001,1002");
  CPhoneCameraCtrl ctrl;
  Json::Value cmd(Json::objectValue);
  ctrl.FillConnectInfo(cmd);
  EXPECT_EQ(cmd["version"].asString(), "9.8.7.6");
  EXPECT_EQ(cmd["protocolver"].asInt(), 1001);
  ASSERT_EQ(cmd["supportverlist"].size(), 2u);
  EXPECT_EQ(cmd["supportverlist"][0].asInt(), 1001);
  EXPECT_EQ(cmd["supportverlist"][1].asInt(), 1002);
}

TEST_F(CameraCtrlTest, EmptyVersionListIsFilledOnceByContentType) {
  {
    CPhoneCameraCtrl ctrl;  // no configuration: 1002 and a list chosen at the first connect
    Json::Value cmd;
    ctrl.FillConnectInfo(cmd);
    EXPECT_EQ(cmd["protocolver"].asInt(), 1002);
    Json::Value expected(Json::arrayValue);
    for (int v : {1000, 1001, 1002}) expected.append(v);
    EXPECT_EQ(cmd["supportverlist"], expected);
    host.contentType = 1;  // the list, once filled, is kept
    Json::Value again;
    ctrl.FillConnectInfo(again);
    EXPECT_EQ(again["supportverlist"], expected);
  }
  host.contentType = 1;
  CPhoneCameraCtrl ctrl;
  Json::Value cmd;
  ctrl.FillConnectInfo(cmd);
  ASSERT_EQ(cmd["supportverlist"].size(), 1u);
  EXPECT_EQ(cmd["supportverlist"][0].asInt(), 1002);
}

TEST_F(CameraCtrlTest, VersionListIgnoresPiecesWithoutNumbers) {
  host.SetConfig("phoneVideoCfg.ini", "DEBUG", "supportProtocalList", "1000,,x, 1002");
  CPhoneCameraCtrl ctrl;
  Json::Value list = ctrl.GetSupportedVersions();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1].asInt(), 1002);
}

TEST_F(CameraCtrlTest, HeartbeatNeverStartsOverUsb) {
  CPhoneCameraCtrl ctrl;
  ctrl.SetHwnd(FakeWindow());
  ctrl.SetConnectMode(1);
  ctrl.StartTimer();
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] StartTimer"));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] current connect mode is not wifi 1"));
  EXPECT_FALSE(host.IsTimerActive(CPhoneCameraCtrl::kHeartbeatTimerId));
  sim.clock.AdvanceMs(120000);
  host.FireTimer(CPhoneCameraCtrl::kHeartbeatTimerId);
  EXPECT_TRUE(host.Messages().empty());
}

TEST_F(CameraCtrlTest, SilentWifiPhoneTimesOutAfterThirtySeconds) {
  CPhoneCameraCtrl ctrl;
  ctrl.SetHwnd(FakeWindow());
  ctrl.SetConnectMode(2);
  ctrl.StartTimer();
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] StartTimer,start phone video heartbeat timer"));
  EXPECT_EQ(host.TimerPeriod(131), 1000u);
  EXPECT_TRUE(ctrl.IsTimerRunning());
  uint32_t start = sim.clock.TickCount();

  sim.clock.AdvanceMs(30000);
  host.FireTimer(131);
  EXPECT_TRUE(host.Messages().empty());  // exactly 30 s is not yet too long

  sim.clock.AdvanceMs(1);
  host.FireTimer(131);
  EXPECT_TRUE(host.HasLog(4, "[phoneVideo] timeout Diff:30001, last:" + std::to_string(start) +
                                 ",current:" + std::to_string(start + 30001)));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] StopTimer"));
  EXPECT_FALSE(host.IsTimerActive(131));
  EXPECT_FALSE(ctrl.IsTimerRunning());
  auto messages = host.Messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].hwnd, FakeWindow());
  EXPECT_EQ(messages[0].msg, 7025u);
  EXPECT_EQ(messages[0].wParam, 1004u);
  Json::Value expected;
  expected["sockType"] = 1;
  expected["interCmd"] = 409;
  expected["interMsg"]["Msg"] = 7054;
  expected["interMsg"]["wParam"] = 2;
  expected["interMsg"]["lParam"] = 2;
  EXPECT_EQ(messages[0].json.toStyledString(), expected.toStyledString());
  EXPECT_TRUE(host.HasLog(2, "[lumosource]_msglive 7054, wp:2, lp:2"));
}

TEST_F(CameraCtrlTest, RefreshedHeartbeatKeepsTheSessionAliveAndOtherIdsAreIgnored) {
  CPhoneCameraCtrl ctrl;
  ctrl.SetHwnd(FakeWindow());
  ctrl.SetConnectMode(2);
  ctrl.StartTimer();
  for (int i = 0; i < 5; ++i) {
    sim.clock.AdvanceMs(20000);
    ctrl.RefreshHeartbeat();
    host.FireTimer(131);
  }
  sim.clock.AdvanceMs(40000);
  ctrl.OnTimer(132);
  EXPECT_TRUE(host.Messages().empty());
  EXPECT_TRUE(ctrl.IsTimerRunning());
}

TEST_F(CameraCtrlTest, TimeoutWithoutWindowPostsNothingAndAcrossTheTickWrapIsNotDeclared) {
  lumo::test::ScopedSimClock nearWrap(0xFFFFFF00u);
  CPhoneCameraCtrl ctrl;
  ctrl.SetConnectMode(2);
  ctrl.StartTimer();
  // The tick count wraps 256 ms from now: the widened difference is negative, no time-out.
  nearWrap.clock.AdvanceMs(40000);
  host.FireTimer(131);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] timeout"), 0u);
  EXPECT_TRUE(ctrl.IsTimerRunning());
  ctrl.RefreshHeartbeat();
  nearWrap.clock.AdvanceMs(30001);
  host.FireTimer(131);
  EXPECT_FALSE(ctrl.IsTimerRunning());
  EXPECT_TRUE(host.Messages().empty());  // no window: nothing to post
}

TEST_F(CameraCtrlTest, StringMessageNeedsAWindow) {
  CPhoneCameraCtrl ctrl;
  ctrl.SendPostStrMsgCmdToHxProcess("", "{\"a\":1}");
  EXPECT_TRUE(host.HasLog(4, "[CPhoneCameraCtrl] SendPostStrMsgCmdToHxProcess hwnd is null"));
  EXPECT_TRUE(host.Messages().empty());
  ctrl.SetHwnd(FakeWindow());
  ctrl.SetHwnd(nullptr);  // a null window leaves the present one
  ctrl.SendPostStrMsgCmdToHxProcess("cmd", "{\"a\":1}");
  auto messages = host.Messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].hwnd, FakeWindow());
  const Json::Value& v = messages[0].json;
  EXPECT_EQ(v["sockType"].asInt(), 1);
  EXPECT_EQ(v["interCmd"].asInt(), 419);
  EXPECT_EQ(v["interMsg"]["Msg"].asUInt(), 3340u);
  EXPECT_TRUE(v["interMsg"]["wParam"].isString());
  EXPECT_EQ(v["interMsg"]["wParam"].asString(), "cmd");
  EXPECT_EQ(v["interMsg"]["lParam"].asString(), "{\"a\":1}");
}

TEST_F(CameraCtrlTest, RefusedMessagesAreFreedAndAppStopReportsSourceAndCode) {
  CPhoneCameraCtrl ctrl;
  ctrl.SetHwnd(FakeWindow());
  host.acceptMessages = false;  // the sanitizer build catches the value if it leaked
  ctrl.PostLiveMessage(7054, 1, 4);
  ctrl.SendPostStrMsgCmdToHxProcess("", "x");
  EXPECT_TRUE(host.Messages().empty());
  host.acceptMessages = true;
  ctrl.NotifyAppActiveStop(PHONE_DATA_SOURCE_WIFI, 223, "camera busy");
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] NotifyAppActiveStop code:223,msg:camera busy "));
  auto messages = host.Messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].json["interMsg"]["wParam"].asUInt(), 2u);
  EXPECT_EQ(messages[0].json["interMsg"]["lParam"].asUInt(), 223u);
}

TEST_F(CameraCtrlTest, CameraParamPathFollowsThePhoneName) {
  lumo::test::ScopedAppData appData;
  std::filesystem::create_directories(appData.path + "/Lumoapp");
  CPhoneCameraCtrl ctrl;
  ctrl.SetPhoneName("iPhone12,1 的相机");
  ctrl.UpdateCameraParamPath();
  std::wstring dir = lumo::JoinPath(lumo::JoinPath(lumo::Utf8ToWide(appData.path), L"Lumoapp"), L"PhoneCamParams");
  std::wstring expected = lumo::JoinPath(dir, L"iPhone12,1 \u7684\u76f8\u673a.json");
  EXPECT_EQ(ctrl.GetCameraParamPath(), expected);
  EXPECT_TRUE(std::filesystem::is_directory(appData.path + "/Lumoapp/PhoneCamParams"));
  ctrl.SetPhoneName("");
  ctrl.UpdateCameraParamPath();
  EXPECT_EQ(ctrl.GetCameraParamPath(), lumo::JoinPath(dir, L".json"));
}

TEST_F(CameraCtrlTest, FrameCountersAreTakenAndCleared) {
  CPhoneCameraCtrl ctrl;
  ctrl.AddReceivedVideoFrame();
  ctrl.AddReceivedVideoFrame();
  ctrl.AddReceivedAudioFrame();
  ctrl.AddDecodedFrame();
  ctrl.AddDecodedAudioFrame();
  ctrl.AddDecodedAudioFrame();
  auto taken = ctrl.TakeFrameCounts();
  EXPECT_EQ(taken.receivedVideo, 2);
  EXPECT_EQ(taken.receivedAudio, 1);
  EXPECT_EQ(taken.decodedVideo, 1);
  EXPECT_EQ(taken.decodedAudio, 2);
  auto after = ctrl.GetFrameCounts();
  EXPECT_EQ(after.receivedVideo + after.receivedAudio + after.decodedVideo + after.decodedAudio, 0);
}

TEST_F(CameraCtrlTest, SettingsComeFromTheConfiguration) {
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "encodeMode", "3");
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "socketMode", "2");
  CPhoneCameraCtrl ctrl;
  EXPECT_EQ(ctrl.GetEncodeMode(), 3);
  EXPECT_EQ(ctrl.GetSocketMode(), 2);
  CPhoneCameraCtrl defaults;
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "socketMode", "1");
  EXPECT_EQ(CPhoneCameraCtrl().GetSocketMode(), 1);
  EXPECT_EQ(defaults.GetCodec(), 1);
}

TEST(CameraCtrlSingleton, TwoThreadsGetOneObject) {
  CPhoneCameraCtrl* a = nullptr;
  CPhoneCameraCtrl* b = nullptr;
  std::thread t1([&] { a = CPhoneCameraCtrl::GetInstance(); });
  std::thread t2([&] { b = CPhoneCameraCtrl::GetInstance(); });
  t1.join();
  t2.join();
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(a, b);
}

}  // namespace
