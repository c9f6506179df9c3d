// The USB connection manager: both outer framings on scripted bytes, every failing step of
// Start with the host message it posts, and whole sessions with the phone side in the test
// (a loopback TCP peer behind a scripted adb forward; a scripted usbmux connection).
#include <gtest/gtest.h>

#include <json/json.h>

#include <chrono>
#include <thread>

#include "device/AdbSrvMgr.h"
#include "device/CPhoneDeviceManager.h"
#include "platform/socket.h"
#include "support/FakeIosApi.h"
#include "support/ParserWorld.h"
#include "usb/CUSBConnectMgr.h"

namespace {

using lumo::test::Bytes;
using lumo::test::FakeIosApi;

std::string Be32(uint32_t v) { return Bytes({int(v >> 24) & 255, int(v >> 16) & 255, int(v >> 8) & 255, int(v) & 255}); }
std::string Ping(uint32_t seq) { return Bytes({4}) + Be32(seq); }
std::string Pong(uint32_t seq) { return Be32(5) + Bytes({5}) + Be32(seq); }
// Phone to PC over usbmux: four big-endian words, the last the body length; the body is the
// real size and the frame.
std::string IosMessage(const std::string& frame, uint32_t realSize, uint32_t bodyLength) {
  return Be32(1) + Be32(101) + Be32(0) + Be32(bodyLength) + Be32(realSize) + frame;
}
std::string IosMessage(const std::string& frame) {
  return IosMessage(frame, static_cast<uint32_t>(frame.size()), static_cast<uint32_t>(frame.size() + 4));
}

using lumo::test::Printed;

class Callback : public IUSBEventCallback {
 public:
  void OnPhonePrepared() override {}
  void OnConnectionError(const std::wstring& message) override {
    std::lock_guard<std::mutex> guard(mutex);
    errors.push_back(message);
  }
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  std::vector<std::wstring> Errors() {
    std::lock_guard<std::mutex> guard(mutex);
    return errors;
  }
  std::mutex mutex;
  std::vector<std::wstring> errors;
};

// The parser and its fakes, an adb that answers as the phone's flags say, one iPhone, and the
// manager under test. Frames the parser answers with go to `w.usb` unless a session is up.
struct UsbWorld {
  lumo::test::ParserWorld w;
  FakeIosApi ios;
  bool installed = true, running = true, forwardListed = true;
  CPhoneDeviceManager devices{std::make_shared<AdbSrvMgr>(L"/opt/adb")};
  Callback callback;
  std::unique_ptr<CUSBConnectMgr> usb;

  UsbWorld() {
    w.host.onCommand = [this](const std::wstring& line) {
      if (line.find(L"devices -l") != std::wstring::npos)
        return Printed("List of devices attached\nemulator-5554          device product:p model:M device:d\n\n");
      if (line.find(L"pm list package") != std::wstring::npos)
        return Printed(installed ? "package:com.lumo.hqcamera\n" : "");
      if (line.find(L"shell ps") != std::wstring::npos) return Printed(running ? "u0 1 com.lumo.hqcamera\n" : "");
      if (line.find(L"--list") != std::wstring::npos)
        return Printed(forwardListed ? "emulator-5554 tcp:8181 tcp:8182\n" : "");
      return Printed("");
    };
    ios.udids = {"ios-udid-1"};
    ios.names = {{"ios-udid-1", "Sim iPhone"}};
    usb = std::make_unique<CUSBConnectMgr>(&w.parser, &w.ctrl, &w.video, nullptr, &devices);
    usb->SetUSBEventCallback(&callback);
    devices.RefreshDevices();
  }
  ~UsbWorld() { usb.reset(); }
  // Stop(true) gives the phone 200 ms of library time to answer the stop-capture request: the
  // test moves the clock once Stop sleeps on it.
  void StopSendingMsg() {
    const size_t sleepers = w.sim.clock.Sleepers();
    std::thread stopper([this] { usb->Stop(true); });
    EXPECT_TRUE(w.sim.clock.WaitForSleepers(sleepers + 1));
    w.sim.clock.AdvanceMs(200);
    stopper.join();
  }
  // Host messages 3162/3166 as (msg, lParam), in order.
  std::vector<std::pair<unsigned, unsigned>> StartMessages() {
    std::vector<std::pair<unsigned, unsigned>> out;
    for (auto& m : w.host.Messages()) {
      const Json::Value& inner = m.json["interMsg"];
      if (inner.isObject() && inner["wParam"].asUInt() == 1) out.emplace_back(inner["Msg"].asUInt(), inner["lParam"].asUInt());
    }
    return out;
  }
};

TEST(UsbFraming, AndroidLengthsAreBelievedOnlyWithinBounds) {
  struct Case {
    const char* what;
    std::string stream;
    size_t pongs;
    const char* log;
    size_t buffer;
  } cases[] = {
      {"two pings", Be32(5) + Ping(1) + Be32(5) + Ping(2), 2, nullptr, CUSBConnectMgr::kRevBuffSize},
      {"a zero length ends the link", Be32(0) + Be32(5) + Ping(1), 0, nullptr, CUSBConnectMgr::kRevBuffSize},
      {"short messages are dropped", Be32(3) + "abc" + Be32(1) + "x" + Be32(5) + Ping(1), 1,
       "[phoneVideo]ParseRcvData. json data error,len invalid", CUSBConnectMgr::kRevBuffSize},
      {"the buffer's own size", Be32(6144000) + Ping(7) + std::string(6144000 - 5, '\0'), 1, nullptr, 6144000},
      {"one byte more grows it", Be32(6144001) + Ping(7) + std::string(6144001 - 5, '\0'), 1,
       "[phoneVideo] ReceiveProc_Android: too large size:6144001", 6144001},
      {"beyond any frame ends the link", Be32(CUSBConnectMgr::kMaxAndroidMessage + 1) + Ping(1), 0, nullptr,
       CUSBConnectMgr::kRevBuffSize},
      {"a length cut short", Bytes({0, 0}), 0, nullptr, CUSBConnectMgr::kRevBuffSize},
      {"a body cut short", Be32(10) + Ping(1), 0, nullptr, CUSBConnectMgr::kRevBuffSize},
  };
  for (const Case& c : cases) {
    UsbWorld u;
    u.w.parser.SetDataSender(PHONE_DATA_SOURCE_USB, &u.w.usb);
    size_t at = 0;
    u.usb->ReceiveLoopAndroid([&](char* buffer, size_t len) {
      const size_t n = std::min(len, c.stream.size() - at);
      std::memcpy(buffer, c.stream.data() + at, n);
      at += n;
      return static_cast<int>(n);
    });
    u.usb->SetRunningForTest(false);  // no receive thread ran to clear it
    EXPECT_EQ(u.w.usb.Frames().size(), c.pongs) << c.what;
    if (c.log) {
      EXPECT_TRUE(u.w.host.HasLog(c.log)) << c.what;
    }
    EXPECT_EQ(u.usb->ReceiveBufferSize(), c.buffer) << c.what;
  }
}

TEST(UsbFraming, IosHeadersAndRealSizes) {
  struct Case {
    const char* what;
    std::vector<std::pair<std::string, int>> reads;  // bytes, or an error code
    size_t pongs;
    const char* log;
  } cases[] = {
      {"a ping, quiet seconds and a header in two parts",
       {{"", -7}, {IosMessage(Ping(1)).substr(0, 7), 0}, {"", -7}, {IosMessage(Ping(1)).substr(7), 0}}, 1, nullptr},
      {"body length 0 is skipped and the next header read",
       {{Be32(1) + Be32(101) + Be32(0) + Be32(0), 0}, {IosMessage(Ping(2)), 0}}, 1, "[phoneVideo] iDataSize invalid"},
      {"body length 6,144,000 likewise",
       {{Be32(1) + Be32(101) + Be32(0) + Be32(6144000), 0}, {IosMessage(Ping(2)), 0}}, 1, "[phoneVideo] iDataSize invalid"},
      {"real size 6,143,997", {{IosMessage(Ping(3), 6143997, 9), 0}, {IosMessage(Ping(4)), 0}}, 1,
       "[phoneVideo] iRealSize invalid,iRealSize:6143997"},
      {"real size 0", {{IosMessage(Ping(3), 0, 9), 0}}, 0, "[phoneVideo] iRealSize invalid,iRealSize:0"},
      {"real size 3", {{IosMessage("abc", 3, 7), 0}}, 0, "[phoneVideo]ParseRcvData. json data error,len invalid"},
      {"a real size beyond the body reads zeros, not old bytes",
       {{IosMessage(Ping(9)), 0}, {IosMessage(Bytes({4}), 5, 5), 0}}, 2, nullptr},
      {"a failed read ends the link", {{"", -2}, {IosMessage(Ping(1)), 0}}, 0, "[phoneVideo] recv failed: "},
  };
  for (const Case& c : cases) {
    UsbWorld u;
    u.w.parser.SetDataSender(PHONE_DATA_SOURCE_USB, &u.w.usb);
    size_t next = 0;
    std::string pending;
    u.usb->ReceiveLoopIOS([&](char* buffer, uint32_t len, uint32_t* got, unsigned) {
      *got = 0;
      if (pending.empty()) {
        if (next == c.reads.size()) return -2;  // the phone is gone
        auto [bytes, err] = c.reads[next++];
        if (err != 0) return err;
        pending = bytes;
      }
      const uint32_t n = static_cast<uint32_t>(std::min<size_t>(len, pending.size()));
      std::memcpy(buffer, pending.data(), n);
      pending.erase(0, n);
      *got = n;
      return 0;
    });
    u.usb->SetRunningForTest(false);
    EXPECT_EQ(u.w.usb.Frames().size(), c.pongs) << c.what;
    if (c.log) {
      EXPECT_EQ(u.w.host.CountLogsStartingWith(c.log), 1u) << c.what;
    }
  }
}

TEST(UsbStart, EachFailingStepPostsItsMessage) {
  UsbWorld u;
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_UNKNOWN, L"emulator-5554          "));
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_ANDROID, L""));
  EXPECT_EQ(u.w.ctrl.GetConnectMode(), 0);  // nothing changed
  EXPECT_TRUE(u.w.host.Commands().size() == 1);  // the listing only
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_ANDROID, L"unknown"));
  EXPECT_EQ(u.w.ctrl.GetConnectMode(), 1);

  const std::wstring serial = L"emulator-5554          ";
  u.installed = false;
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_ANDROID, serial));
  u.installed = true, u.running = false;
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_ANDROID, serial));
  u.running = true, u.forwardListed = false;
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_ANDROID, serial));  // no window yet: nothing posted
  u.usb->SetHwnd(reinterpret_cast<HWND>(0x77));
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_ANDROID, serial));
  EXPECT_TRUE(u.w.host.HasLog(4, "[phoneVideo] connect adb tcp failed1,adb create forward fail"));

  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_IOS, L"no-such-udid"));
  EXPECT_TRUE(u.w.host.HasLog("[phoneVideo] ios hand is null"));
  u.ios.connectError = -2;
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_IOS, L"ios-udid-1"));
  EXPECT_TRUE(u.w.host.HasLog(4, "[phoneVideo] idevice_connect failed, err is -2"));
  EXPECT_EQ(u.StartMessages(), (std::vector<std::pair<unsigned, unsigned>>{
                                   {3162, 24}, {3162, 25}, {3162, 22}, {3166, 0}, {3166, 0xFFFFFFFEu}}));
  EXPECT_EQ(u.ios.connectPorts, std::vector<uint16_t>{2345});
  EXPECT_FALSE(u.usb->IsRunning());
}

TEST(UsbStart, DeviceListAndQueries) {
  UsbWorld u;
  Json::Value list = u.usb->GetPhoneDeviceList();
  ASSERT_EQ(list["devices"].size(), 2u);
  EXPECT_EQ(list["devices"][0]["uuid"].asString(), "emulator-5554          ");
  EXPECT_EQ(list["devices"][0]["type"].asInt(), 1);
  EXPECT_EQ(list["devices"][0]["name"].asString(), "d");
  EXPECT_EQ(list["devices"][0]["product"].asString(), "p");
  EXPECT_EQ(list["devices"][1]["uuid"].asString(), "ios-udid-1");
  EXPECT_EQ(list["devices"][1]["name"].asString(), "Sim iPhone");
  EXPECT_TRUE(u.usb->HasAndroidDevice() && u.usb->HasIOSDevice());

  u.ios.udids.clear();
  u.w.host.onCommand = [](const std::wstring&) { return Printed("List of devices attached\n\n"); };
  EXPECT_EQ(Json::FastWriter().write(u.usb->GetPhoneDeviceList()), "{\"devices\":null}\n");
  EXPECT_FALSE(u.usb->HasAndroidDevice() || u.usb->HasIOSDevice());
}

TEST(UsbIos, SessionFramesBothWaysAndEndsCleanly) {
  UsbWorld u;
  ASSERT_TRUE(u.usb->Start(PHONE_TYPE_IOS, L"ios-udid-1"));
  EXPECT_TRUE(u.usb->IsRunning());
  // The connect request went out behind the 1/101/0/size header.
  ASSERT_TRUE(u.ios.WaitSent(16));
  const std::string first = u.ios.Sent();
  EXPECT_EQ(first.substr(0, 12), Be32(1) + Be32(101) + Be32(0));
  EXPECT_EQ(first.substr(12, 4), Be32(static_cast<uint32_t>(first.size() - 16)));

  u.ios.Deliver(IosMessage(Ping(42)));
  ASSERT_TRUE(u.ios.WaitSent(first.size() + 16 + 9));
  EXPECT_EQ(u.ios.Sent().substr(first.size()), Be32(1) + Be32(101) + Be32(0) + Be32(9) + Pong(42));

  u.usb->Stop(false);  // sends nothing more, and returns with the thread gone
  EXPECT_EQ(u.ios.Sent().size(), first.size() + 25);
  EXPECT_EQ(u.ios.disconnects, 1);
  EXPECT_TRUE(u.callback.Errors().empty());

  // The phone ending the link reaches the host once; Stop then collects what is left.
  u.w.host.ClearLogs();
  ASSERT_TRUE(u.usb->Start(PHONE_TYPE_IOS, L"ios-udid-1"));
  u.ios.ClosePhoneSide();
  ASSERT_TRUE(u.w.host.WaitForLog("[phoneVideo] CUSBConnectMgr IOS ReceiveProc exit"));
  EXPECT_EQ(u.callback.Errors(), std::vector<std::wstring>{L"联合开播连接失败，请检查设备和手机App开启了联合开播\n"
                                                           L"     （直播app - 我的 - 主播中心 - 联合开播）"});
  // The thread clears the running flag just after its last log line.
  for (int i = 0; i < 1000 && u.usb->IsRunning(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_FALSE(u.usb->IsRunning());
  u.StopSendingMsg();
  EXPECT_EQ(u.ios.disconnects, 2);
}

// The phone app behind the adb forward: a listener on 127.0.0.1:8181 (in this suite's own
// network namespace), each frame with its 4-byte length.
class PhoneOn8181 {
 public:
  PhoneOn8181() {
    lumo::NetStartup();
    m_listener = lumo::OpenTcpSocket();
    EXPECT_TRUE(lumo::BindSocket(m_listener, {lumo::kIpv4Loopback, 8181}) && lumo::ListenSocket(m_listener, 1));
  }
  ~PhoneOn8181() {
    lumo::CloseSocket(m_link);
    lumo::CloseSocket(m_listener);
  }
  bool Accept() {
    if (lumo::WaitReadable(m_listener, 10000) != lumo::NetWait::Readable) return false;
    m_link = lumo::AcceptSocket(m_listener, nullptr);
    return m_link != lumo::kInvalidSocket && lumo::SetReceiveTimeout(m_link, 10000);
  }
  // The next frame from the PC, without its length; empty at the end of the link.
  std::string Read() {
    char prefix[4];
    if (lumo::RecvSocket(m_link, prefix, 4, true) != 4) return "";
    uint32_t n = 0;
    for (char c : prefix) n = n << 8 | static_cast<unsigned char>(c);
    std::string frame(n, '\0');
    if (n > 0 && lumo::RecvSocket(m_link, &frame[0], n, true) != static_cast<int>(n)) return "";
    return frame;
  }
  void Send(const std::string& frame) {
    const std::string bytes = Be32(static_cast<uint32_t>(frame.size())) + frame;
    lumo::SendSocket(m_link, bytes.data(), bytes.size());
  }
  void Close() { lumo::CloseSocket(m_link); }

 private:
  lumo::SocketHandle m_listener = lumo::kInvalidSocket;
  lumo::SocketHandle m_link = lumo::kInvalidSocket;
};

TEST(UsbAndroid, SessionThroughTheForwardedPort) {
  UsbWorld u;
  const std::wstring serial = L"emulator-5554          ";
  // Nobody on 8181 yet.
  u.usb->SetHwnd(reinterpret_cast<HWND>(0x77));
  EXPECT_FALSE(u.usb->Start(PHONE_TYPE_ANDROID, serial));
  EXPECT_EQ(u.StartMessages(), (std::vector<std::pair<unsigned, unsigned>>{{3162, 26}}));
  EXPECT_TRUE(u.w.host.HasLog(4, "[phoneVideo] connect adb tcp failed2,adb connect to local port fail.port:8181"));

  PhoneOn8181 phone;
  ASSERT_TRUE(u.usb->Start(PHONE_TYPE_ANDROID, serial));
  EXPECT_EQ(u.w.host.Commands().back(), L"/opt/adb -s " + serial + L"    forward --list");
  ASSERT_TRUE(phone.Accept());
  EXPECT_EQ(phone.Read().substr(0, 1), Bytes({1}));  // the connect request, a JSON command
  phone.Send(Ping(7));
  EXPECT_EQ(phone.Read(), Bytes({5}) + Be32(7));
  u.StopSendingMsg();  // asks the phone to stop capture first, then the link ends
  const std::string stop = phone.Read();
  EXPECT_NE(stop.find("1003"), std::string::npos) << stop;
  EXPECT_EQ(phone.Read(), "");
  EXPECT_TRUE(u.callback.Errors().empty());

  // The phone closing the link reaches the host once, with the content type's text.
  u.w.host.contentType = 1;
  u.w.host.ClearLogs();
  ASSERT_TRUE(u.usb->Start(PHONE_TYPE_ANDROID, serial));
  ASSERT_TRUE(phone.Accept());
  phone.Close();
  ASSERT_TRUE(u.w.host.WaitForLog("[phoneVideo] tcp thread exit sucess"));
  EXPECT_EQ(u.callback.Errors(), std::vector<std::wstring>{L"打开Tarro直播-手游直播-有线投屏"});
  EXPECT_TRUE(u.w.host.HasLog("[phoneVideo] ReceiveProc_Android: connection closed "));
  u.usb->Stop(false);
}

}  // namespace
