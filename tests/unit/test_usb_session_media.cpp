// Whole USB sessions with the real tools in the loop: the library's device discovery and USB
// manager against the simulated phone, as an adb device behind Debian's adb (suite UsbAndroid*,
// which ctest runs alone in a network of its own: it owns 5037, 5555 and 8181) and as an
// iPhone behind a simulated usbmuxd reached by the real libimobiledevice.
#include <gtest/gtest.h>

#include <json/json.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>

#include "PhoneSim.h"
#include "TimestampBlocks.h"
#include "device/AdbSrvMgr.h"
#include "device/CPhoneDeviceManager.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CAudioDecoder.h"
#include "media/CVideoDecoder.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "protocol/PhoneDataParse.h"
#include "support/AdbTool.h"
#include "support/FakeHost.h"
#include "support/TempDir.h"
#include "usb/CUSBConnectMgr.h"

namespace {

using lumo::test::AdbTool;
using lumo::test::FakeHost;

class Callback : public IUSBEventCallback {
 public:
  void OnPhonePrepared() override { ++prepared; }
  void OnConnectionError(const std::wstring& message) override {
    std::lock_guard<std::mutex> guard(mutex);
    errors.push_back(message);
  }
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  size_t Errors() {
    std::lock_guard<std::mutex> guard(mutex);
    return errors.size();
  }
  std::atomic<int> prepared{0};
  std::mutex mutex;
  std::vector<std::wstring> errors;
};

// Polls in real time (at most `seconds`) for what the threads bring about.
bool Until(const std::function<bool()>& ready, int seconds = 15) {
  for (int i = 0; i < seconds * 100; ++i) {
    if (ready()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return ready();
}

size_t CountEntries(const char* folder) {
  size_t n = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator(); ++it) ++n;
  return n;
}

// The host's side as a host wires it: the process-wide parser, controller and decoders, our own
// device manager (on the adb under test) and USB manager.
struct UsbSessionWorld {
  explicit UsbSessionWorld(const std::wstring& adbPath) {
    host.realPrograms = true;
    host.projectionWidth = 640;
    host.projectionHeight = 360;
    lumo::test::SetEnv("LUMO_AUDIO_OUTPUT", "wav:" + dir.path + "/audio");
    CPhoneCameraCtrl::GetInstance()->SetHwnd(reinterpret_cast<HWND>(0x1234));
    parser->SetUSBCallback(&callback);
    parser->SetAudioRecordType(1);
    devices = std::make_unique<CPhoneDeviceManager>(std::make_shared<AdbSrvMgr>(adbPath));
    usb = std::make_unique<CUSBConnectMgr>(nullptr, nullptr, nullptr, nullptr, devices.get());
    usb->SetUSBEventCallback(&callback);
  }
  ~UsbSessionWorld() {
    usb->Stop(false);
    CVideoDecoder::GetInstance()->StopDecode();
    CAudioDecoder::GetInstance(1)->StopDecode();
    usb.reset();
    devices.reset();
    // The process-wide parser outlives this world: its capture retries must not log into the
    // fake host after it is gone.
    parser->CancelDelayedWork();
    parser->SetUSBCallback(nullptr);
    lumo::test::UnsetEnv("LUMO_AUDIO_OUTPUT");
  }

  // Start, handshake, capture (started by the library once the phone is prepared), audio (the
  // host's to start), then pictures whose capture stamps read back, and decoded audio.
  void RunSession(ePhoneType type, const std::wstring& id, int pictures) {
    const int prepared = callback.prepared;
    ASSERT_TRUE(usb->Start(type, id));
    ASSERT_TRUE(Until([&] { return callback.prepared > prepared; })) << "the phone never reported prepared";
    parser->StartAudioCapture(PHONE_DATA_SOURCE_USB);
    CAudioDecoder::GetInstance(1)->StartDecode();
    int stamped = 0;
    ASSERT_TRUE(Until([&] {
      int width = 0, height = 0;
      unsigned long long ts = 0;
      while (unsigned char* yuv = CVideoDecoder::GetInstance()->GetYuvData(width, height, ts)) {
        lumo::phonesim::FrameStamp stamp;
        stamped += lumo::phonesim::ReadFrameStamp(yuv, width, width, height, stamp) ? 1 : 0;
      }
      return stamped >= pictures;
    })) << stamped << " stamped pictures";
    ASSERT_TRUE(Until([] { return CPhoneCameraCtrl::GetInstance()->GetFrameCounts().decodedAudio > 10; }));
  }

  // Twenty short sessions: together they leave no thread and no socket behind.
  void CyclesLeaveNothingBehind(ePhoneType type, const std::wstring& id) {
    const size_t threads = CountEntries("/proc/self/task"), fds = CountEntries("/proc/self/fd");
    for (int i = 0; i < 20; ++i) {
      const int before = callback.prepared;
      ASSERT_TRUE(usb->Start(type, id)) << i;
      ASSERT_TRUE(Until([&] { return callback.prepared > before; })) << i;
      usb->Stop(false);
    }
    EXPECT_TRUE(Until([&] { return CountEntries("/proc/self/task") <= threads && CountEntries("/proc/self/fd") <= fds; }, 5))
        << CountEntries("/proc/self/task") << " threads (" << threads << "), " << CountEntries("/proc/self/fd")
        << " fds (" << fds << ")";
  }

  FakeHost host;
  lumo::test::ScopedAppData dir;
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  Callback callback;
  std::unique_ptr<CPhoneDeviceManager> devices;
  std::unique_ptr<CUSBConnectMgr> usb;
};

lumo::phonesim::PhoneSimOptions SimOptions() {
  lumo::phonesim::PhoneSimOptions o;
  o.width = 640, o.height = 360, o.bitRate = 1000000;
  return o;
}

TEST(UsbAndroidSession, ThroughTheRealAdbForwardThenCyclesLeaveNothingBehind) {
  ASSERT_TRUE(AdbTool::Available()) << AdbTool::Program() << " is missing (scripts/install-deps installs it)";
  AdbTool adb;
  lumo::phonesim::PhoneSimOptions o = SimOptions();
  o.transport = "adb";
  o.adbDevicePort = 5555;
  auto phone = std::make_unique<lumo::phonesim::PhoneSim>(o);
  std::string error;
  ASSERT_TRUE(phone->Start(error)) << error;
  ASSERT_FALSE(adb.WaitForDevice("emulator-5554").empty()) << adb.ServerLog();

  UsbSessionWorld w(lumo::Utf8ToWide(AdbTool::Program()));
  Json::Value list = w.usb->GetPhoneDeviceList();
  ASSERT_EQ(list["devices"].size(), 1u) << list.toStyledString();
  EXPECT_EQ(list["devices"][0]["product"].asString(), "lumosim");
  const std::wstring serial = lumo::Utf8ToWide(list["devices"][0]["uuid"].asString());
  ASSERT_NO_FATAL_FAILURE(w.RunSession(PHONE_TYPE_ANDROID, serial, 10));

  const auto stopStart = std::chrono::steady_clock::now();
  w.usb->Stop(true);  // 1003 first, then the link goes and the thread is joined
  EXPECT_LT(std::chrono::steady_clock::now() - stopStart, std::chrono::seconds(2));
  EXPECT_TRUE(w.host.HasLog("[phoneVideo] tcp thread exit sucess"));
  EXPECT_EQ(w.callback.Errors(), 0u);
  CAudioDecoder::GetInstance(1)->StopDecode();
  std::error_code ec;
  EXPECT_GT(std::filesystem::file_size(w.dir.path + "/audio-1.wav", ec), 44u) << ec.message();

  ASSERT_NO_FATAL_FAILURE(w.CyclesLeaveNothingBehind(PHONE_TYPE_ANDROID, serial));

  // The phone going away reaches the host once.
  ASSERT_TRUE(w.usb->Start(PHONE_TYPE_ANDROID, serial));
  phone->Stop();
  ASSERT_TRUE(Until([&] { return w.callback.Errors() == 1; }));
  EXPECT_TRUE(Until([&] { return !w.usb->IsRunning(); }, 5));  // cleared just after the callback
}

TEST(UsbIosSession, ThroughTheRealLibimobiledeviceThenCyclesLeaveNothingBehind) {
  lumo::test::ScopedAppData muxDir;
  lumo::phonesim::PhoneSimOptions o = SimOptions();
  o.transport = "usbmux";
  o.usbmuxdAddress = muxDir.path + "/usbmuxd";
  o.udids = {"00008110-000A1B2C3D4E5F60"};
  o.iosDeviceName = "Desk iPhone";
  o.isIOS = true;
  auto phone = std::make_unique<lumo::phonesim::PhoneSim>(o);
  std::string error;
  ASSERT_TRUE(phone->Start(error)) << error;
  const char* oldAddress = std::getenv("USBMUXD_SOCKET_ADDRESS");
  const std::string restore = oldAddress ? oldAddress : "";
  lumo::test::SetEnv("USBMUXD_SOCKET_ADDRESS", "UNIX:" + o.usbmuxdAddress);
  {
    UsbSessionWorld w(L"adb-not-used");
    w.host.realPrograms = false;  // no adb here: its listing prints nothing
    Json::Value list = w.usb->GetPhoneDeviceList();
    ASSERT_EQ(list["devices"].size(), 1u) << list.toStyledString();
    EXPECT_EQ(list["devices"][0]["type"].asInt(), 2);
    EXPECT_EQ(list["devices"][0]["name"].asString(), "Desk iPhone");
    const std::wstring udid = lumo::Utf8ToWide(list["devices"][0]["uuid"].asString());
    EXPECT_FALSE(w.usb->Start(PHONE_TYPE_IOS, L"00000000-unknown"));
    ASSERT_NO_FATAL_FAILURE(w.RunSession(PHONE_TYPE_IOS, udid, 10));
    const auto stopStart = std::chrono::steady_clock::now();
    w.usb->Stop(true);
    EXPECT_LT(std::chrono::steady_clock::now() - stopStart, std::chrono::seconds(3));
    EXPECT_TRUE(w.host.HasLog("[phoneVideo] CUSBConnectMgr IOS ReceiveProc exit"));
    EXPECT_EQ(w.callback.Errors(), 0u);

    ASSERT_NO_FATAL_FAILURE(w.CyclesLeaveNothingBehind(PHONE_TYPE_IOS, udid));

    ASSERT_TRUE(w.usb->Start(PHONE_TYPE_IOS, udid));
    phone->Stop();
    ASSERT_TRUE(Until([&] { return w.callback.Errors() == 1; }));
    EXPECT_TRUE(Until([&] { return !w.usb->IsRunning(); }, 5));  // cleared just after the callback
    // The host message for a UDID nobody has.
    bool posted = false;
    for (auto& m : w.host.Messages())
      posted = posted || (m.json["interMsg"]["Msg"].asUInt() == 3166 && m.json["interMsg"]["lParam"].asUInt() == 0);
    EXPECT_TRUE(posted);
  }
  if (oldAddress) lumo::test::SetEnv("USBMUXD_SOCKET_ADDRESS", restore);
  else lumo::test::UnsetEnv("USBMUXD_SOCKET_ADDRESS");
}

}  // namespace
