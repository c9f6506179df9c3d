// The adb side of device discovery on a scripted host: what is run (byte for byte), how adb's
// printed text is read, and how the server manager treats whoever holds port 5037.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "device/AdbDeviceClient.h"
#include "device/AdbOutputParser.h"
#include "device/AdbSrvMgr.h"
#include "device/HostTools.h"
#include "platform/paths.h"
#include "platform/process.h"
#include "platform/text.h"
#include "support/FakeHost.h"
#include "support/TempDir.h"

namespace {

using lumo::HostCommandResult;
using lumo::test::FakeHost;

using lumo::test::Printed;

// Debian's adb 29 as captured on Linux (LF line ends; the runner makes them CRLF). The listing
// with phones follows adb's own column layout: the serial padded to 22, then the state.
const char kNoPhones[] = "List of devices attached\n\n";
const char kPhones[] =
    "List of devices attached\n"
    "emulator-5554          device product:lumosim model:LumoSim_Phone device:lumosim transport_id:1\n"
    "0123456789ABCDEF       device usb:1-1.2 product:oriole model:Pixel_6 device:oriole transport_id:2\n"
    "R58M12ABCDE            unauthorized usb:1-1.3 transport_id:3\n"
    "emulator-5556          offline transport_id:4\n"
    "192.168.1.20:5555      device product:lumosim model:Net_Phone device:lumosim transport_id:5\n"
    "\n";

TEST(AdbOutput, CommandTextIsCutAtCrlfWhateverThePlatformPrinted) {
  EXPECT_EQ(WinCmdRun::ToCrlf(L"a\nb\r\nc\n\n"), L"a\r\nb\r\nc\r\n\r\n");
  struct Case {
    std::wstring text;
    std::vector<std::wstring> lines;
  } cases[] = {
      {L"", {}},
      {L"a\r\n", {L"a"}},
      {L"a\r\n\r\nb", {L"a", L"", L"b"}},
      {L"\r\n", {L""}},
  };
  for (const Case& c : cases) EXPECT_EQ(WinCmdRun::SplitCmdResult(c.text), c.lines);
}

TEST(AdbOutput, DeviceLines) {
  FakeHost host;
  struct Case {
    std::wstring line, serial;
    int state;
    std::wstring product, model, device;
  } cases[] = {
      {L"emulator-5554          device product:lumosim model:LumoSim_Phone device:lumosim transport_id:1\r\n",
       L"emulator-5554          ", 2, L"lumosim", L"LumoSim_Phone", L"lumosim"},
      {L"0123456789ABCDEF       device usb:1-1.2 product:oriole model:Pixel_6 device:oriole transport_id:2\r\n",
       L"0123456789ABCDEF       ", 2, L"oriole", L"Pixel_6", L"oriole"},
      {L"R58M12ABCDE            unauthorized usb:1-1.3 transport_id:3\r\n", L"R58M12ABCDE            ", 8, L"", L"", L""},
      {L"emulator-5556          offline transport_id:4\r\n", L"emulator-5556          ", 8, L"", L"", L""},
      // A phone on the network: address and port make one serial.
      {L"192.168.1.20:5555      device product:p model:m device:d\r\n", L"192.168.1.20:5555      ", 2, L"p", L"m", L"d"},
      // The state is the leftmost state word anywhere on the line: the help link of a phone
      // without permissions names "device", so such a phone reads as online.
      {L"0123456789ABCDEF       no permissions (missing udev rules? user is in the plugdev group); see "
       L"[http://developer.android.com/tools/device.html] usb:1-1 transport_id:6\r\n",
       L"0123456789ABCDEF       ", 2, L"", L"", L""},
      // With one blank between a long serial and its state, the state word joins the serial.
      {L"a-serial-of-22-letters device product:p\r\n", L"a-serial-of-22-letters device ", 2, L"p", L"", L""},
      {L"\r\n", L"", 0, L"", L"", L""},
      {L"* daemon started successfully\r\n", L"", 0, L"", L"", L""},
      {std::wstring(PHONE::kMaxParsedLine, L'a') + L" device\r\n", L"", 0, L"", L"", L""},
  };
  for (const Case& c : cases) {
    PHONE::AndroidDeviceInfo info = PHONE::ParseDeviceLine(c.line);
    EXPECT_EQ(info.serial, c.serial) << lumo::WideToUtf8(c.line);
    EXPECT_EQ(info.state, c.state) << lumo::WideToUtf8(c.line);
    EXPECT_EQ(info.product, c.product);
    EXPECT_EQ(info.model, c.model);
    EXPECT_EQ(info.device, c.device);
  }
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] device state error:unauthorized"));
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] device state error:offline"));
}

TEST(AdbOutput, ListingsKeepOnlineSerialsAndDropTheUnfinishedLastLine) {
  FakeHost host;
  auto serials = [](const std::wstring& printed, PHONE::DeviceListing expect) {
    std::map<std::wstring, PHONE::AndroidDeviceInfo> online;
    EXPECT_EQ(PHONE::ParseDeviceListing(printed, online), expect);
    std::vector<std::wstring> keys;
    for (auto& [k, v] : online) keys.push_back(k);
    return keys;
  };
  const std::wstring phones = WinCmdRun::ToCrlf(lumo::Utf8ToWide(kPhones));
  EXPECT_EQ(serials(phones, PHONE::DeviceListing::Parsed),
            (std::vector<std::wstring>{L"0123456789ABCDEF       ", L"192.168.1.20:5555      ", L"emulator-5554          "}));
  // Without the header every line is a phone line; a last line without "\r\n" is not read.
  EXPECT_EQ(serials(L"emulator-5554          device\r\nemulator-5556          device", PHONE::DeviceListing::Parsed),
            (std::vector<std::wstring>{L"emulator-5554          "}));
  EXPECT_TRUE(serials(WinCmdRun::ToCrlf(lumo::Utf8ToWide(kNoPhones)), PHONE::DeviceListing::Parsed).empty());
  EXPECT_TRUE(serials(L"List of devices attached\r\n", PHONE::DeviceListing::NoDevicesOrError).empty());
  EXPECT_TRUE(serials(L"", PHONE::DeviceListing::NoDevicesOrError).empty());
  EXPECT_TRUE(serials(L"error: protocol fault\r\n", PHONE::DeviceListing::NoDevicesOrError).empty());
}

TEST(AdbOutput, ForwardLines) {
  struct Case {
    std::wstring line, serial, local, remote;
  } cases[] = {
      {L"emulator-5554 tcp:8181 tcp:8182", L"emulator-5554", L"8181", L"8182"},
      {L"ab_C-9 tcp:12345 tcp:8000", L"ab_C-9", L"12345", L"8000"},
      {L"emulator-5554 tcp:8181 localabstract:x", L"emulator-5554", L"", L""},  // kept, without ports
      {L"192.168.1.20:5555 tcp:8181 tcp:8182", L"", L"8181", L"8182"},  // a network serial is not read
      {L"emulator-5554 udp:1 udp:2", L"", L"", L""},
      {L"\r\n", L"", L"", L""},
      {L"", L"", L"", L""},
  };
  for (const Case& c : cases) {
    AdbForwardItem item = PHONE::ParseForwardLine(c.line);
    EXPECT_EQ(item.serial, c.serial) << lumo::WideToUtf8(c.line);
    EXPECT_EQ(item.localPort, c.local);
    EXPECT_EQ(item.remotePort, c.remote);
  }
  EXPECT_EQ(PHONE::ParseForwardList(L"emulator-5554 tcp:8181 tcp:8182\r\n192.168.1.20:5555 tcp:1 tcp:2\r\n\r\n").size(), 1u);
}

struct ClientWorld {
  FakeHost host;
  PHONE::AdbDeviceClient client;
  std::map<std::wstring, std::string> printed;  // what a command line prints, by a part of it
  ClientWorld() {
    host.onCommand = [this](const std::wstring& line) {
      for (auto& [part, text] : printed)
        if (line.find(part) != std::wstring::npos) return Printed(text);
      return Printed("");
    };
    PHONE::AndroidDeviceInfo phone;
    phone.serial = L"emulator-5554    ";
    client.SetDevice(L"/opt/host/for_android/adb", phone);
  }
};

TEST(AdbClient, EveryCommandLineByteForByte) {
  ClientWorld w;
  w.client.CreateForward(8181, 8182);
  w.client.RemoveAllForward();
  w.client.IsPackageInstalled(L"lumo");
  w.client.IsProcessRunning(L"lumo");
  const std::wstring p = L"/opt/host/for_android/adb -s emulator-5554      ";
  EXPECT_EQ(w.host.Commands(), (std::vector<std::wstring>{
                                   p + L"forward tcp:8181 tcp:8182",
                                   p + L"  forward --list",
                                   p + L" forward  --remove-all",
                                   p + L"  shell pm list package -3 | grep lumo",
                                   p + L"  shell ps | grep lumo",
                               }));
  EXPECT_FALSE(w.client.Reserved1() || w.client.Reserved2());
  EXPECT_EQ(w.host.Commands().size(), 5u);  // the reserved slots run nothing
}

TEST(AdbClient, ForwardSucceedsWhenAnyForwardIsListedAndQuestionsAreSubstringTests) {
  ClientWorld w;
  EXPECT_FALSE(w.client.CreateForward(8181, 8182));  // nothing printed at all
  EXPECT_TRUE(w.host.HasLog("[phoneVideo] forward error none tcp tunnel build"));
  // Another phone's forward makes this one count as built: the list is not filtered.
  w.printed[L"--list"] = "0123456789ABCDEF tcp:9000 tcp:9001\n";
  EXPECT_TRUE(w.client.CreateForward(8181, 8182));
  EXPECT_TRUE(w.host.HasLog("[phoneVideo] forward list:0123456789ABCDEF tcp:9000 tcp:9001\r\n"));
  EXPECT_FALSE(w.client.RemoveAllForward());

  EXPECT_FALSE(w.client.IsPackageInstalled(L"lumo"));
  w.printed[L"pm list"] = "package:com.lumo.hqcamera\n";
  EXPECT_TRUE(w.client.IsPackageInstalled(L"lumo"));
  EXPECT_TRUE(w.client.IsPackageInstalled(L"com.lu"));  // a prefix is enough
  EXPECT_FALSE(w.client.IsPackageInstalled(L"LUMO"));   // but case counts
  w.printed[L"ps"] = "u0_a123  4242  1 0 0 S com.lumo.hqcamera\n";
  EXPECT_TRUE(w.client.IsProcessRunning(L"lumo"));
}

TEST(AdbServerManager, AdbPathRule) {
  struct Case {
    std::wstring exe, expect;
  } cases[] = {
      {L"C:\\Lumo\\bin\\x64\\host.exe", L"C:\\Lumo\\bin\\for_android\\adb.exe"},
      {L"C:\\Lumo\\bin\\host.exe", L"C:\\Lumo\\bin\\for_android\\adb.exe"},
      {L"C:\\Lumo\\x64\\sub\\host.exe", L"C:\\Lumo\\for_android\\adb.exe"},
      {L"/opt/lumo/x64/host", L"/opt/lumo\\for_android\\adb.exe"},
      {L"host.exe", L"host.exe\\for_android\\adb.exe"},  // no separator: the whole text is kept
  };
  for (const Case& c : cases) EXPECT_EQ(AdbSrvMgr::AdbPathBeside(c.exe, L"\\for_android\\adb.exe"), c.expect);

  lumo::test::ScopedAppData appData;
  FakeHost host;
  lumo::test::SetEnv("LUMO_ADB", "/from/env/adb");
  host.SetConfig("phoneVideoCfg.ini", "DEVICE", "adbPath", "/from/ini/adb");
  EXPECT_EQ(AdbSrvMgr::AdbPathRule(), L"/from/env/adb");
  lumo::test::UnsetEnv("LUMO_ADB");
  EXPECT_EQ(AdbSrvMgr::AdbPathRule(), L"/from/ini/adb");
  host.SetConfig("phoneVideoCfg.ini", "DEVICE", "adbPath", "");
  const std::wstring rule = AdbSrvMgr::AdbPathRule();
  if (lumo::kHostOwnsItsTools) {
    EXPECT_EQ(rule, L"/opt/host/bin\\for_android\\adb.exe");  // exactly the rule, found or not
  } else {
    // No for_android folder beside the host: the adb on PATH, when there is one.
    EXPECT_TRUE(rule == lumo::FindOnPath(L"adb") || rule == L"/opt/host/bin/for_android/adb") << lumo::WideToUtf8(rule);
  }
}

struct ServerWorld {
  FakeHost host;
  AdbSrvMgr mgr{L"/opt/host/for_android/adb"};
  std::string devices = kPhones;
  ServerWorld() {
    host.onCommand = [this](const std::wstring& line) {
      if (line == L"/opt/host/for_android/adb devices -l") return Printed(devices);
      return Printed("");
    };
  }
};

TEST(AdbServerManager, EnumDevicesAndGetDevice) {
  ServerWorld w;
  EXPECT_TRUE(w.mgr.GetDevice(L"").serial.empty());
  EXPECT_EQ(w.mgr.EnumDevices(), 3);
  EXPECT_EQ(w.host.Commands().back(), L"/opt/host/for_android/adb devices -l");
  EXPECT_EQ(w.mgr.GetDevice(L"").serial, L"0123456789ABCDEF       ");  // the smallest serial
  EXPECT_EQ(w.mgr.GetDevice(L"emulator-5554          ").model, L"LumoSim_Phone");
  EXPECT_TRUE(w.mgr.GetDevice(L"emulator-5554").serial.empty());  // the key keeps its blanks
  EXPECT_TRUE(w.mgr.GetDevice(L"R58M12ABCDE            ").serial.empty());  // not online
  EXPECT_TRUE(w.mgr.HasDevices());

  w.devices = "error: cannot connect to daemon\n";
  EXPECT_EQ(w.mgr.EnumDevices(), 0);
  EXPECT_TRUE(w.mgr.GetDevices().empty());
  EXPECT_TRUE(w.host.HasLog(4, "设备错误或枚举不到设备"));
  EXPECT_FALSE(w.mgr.HasDevices());
}

TEST(AdbServerManager, KillAdbAsksThePortOwnerFirstThenEndsIt) {
  enum class Owner { None, Polite, Stubborn, Garbage, Ourselves };
  const uint32_t self = lumo::CurrentProcessId();
  for (Owner owner : {Owner::None, Owner::Polite, Owner::Stubborn, Owner::Garbage, Owner::Ourselves}) {
    ServerWorld w;
    w.host.SetProcesses({{7, L"xadb.exe"}, {7, L"xadb"}}, {{7, L"/opt/tools/xadb"}, {4242, L"/opt/suite/adb"}});
    const std::string ownerPid = owner == Owner::Garbage ? "12ab" : owner == Owner::Ourselves ? std::to_string(self) : "4242";
    if (owner != Owner::None) w.host.SetListeningPorts({{"5037", ownerPid}, {"8080", "1"}});
    w.host.onCommand = [&](const std::wstring& line) {
      if (line == L"/opt/suite/adb kill-server" && owner == Owner::Polite) w.host.SetListeningPorts({});
      return Printed("");
    };
    EXPECT_TRUE(w.mgr.KillAdb());
    std::vector<std::wstring> expectCommands{L"/opt/tools/xadb kill-server"};
    std::vector<uint32_t> expectKills;
    switch (owner) {
      case Owner::None:
        EXPECT_TRUE(w.host.HasLog("[phoneVideo] no process occupy 5037"));
        break;
      case Owner::Polite:
        expectCommands.push_back(L"/opt/suite/adb kill-server");
        EXPECT_TRUE(w.host.HasLog("[phoneVideo] find occupy port exe to kill-server  pid:4242  npid:4242 "));
        EXPECT_TRUE(w.host.HasLog("[phoneVideo] kill-server success"));
        break;
      case Owner::Stubborn:
        expectCommands.push_back(L"/opt/suite/adb kill-server");
        expectKills.push_back(4242);
        EXPECT_TRUE(w.host.HasLog("[phoneVideo] enforce kill process pid:4242"));
        break;
      case Owner::Garbage:
      case Owner::Ourselves:
        EXPECT_EQ(w.host.CountLogsStartingWith("[phoneVideo] find occupy port"), 0u);
        break;
    }
    EXPECT_EQ(w.host.Commands(), expectCommands) << static_cast<int>(owner);
    EXPECT_EQ(w.host.Kills(), expectKills) << static_cast<int>(owner);
    EXPECT_TRUE(w.host.HasLog("[phoneVideo] kill tarro adb  pid:7 , path:/opt/tools/xadb"));
  }
}

TEST(AdbServerManager, KillProcessFailuresAreLogged) {
  ServerWorld w;
  w.host.killResult = lumo::HostKillResult::OpenFailed;
  EXPECT_FALSE(w.mgr.KillProcess(99));
  EXPECT_TRUE(w.host.HasLog(4, "[phoneVideo] open process failed  pid: 99 error code:5"));
  w.host.killResult = lumo::HostKillResult::TerminateFailed;
  EXPECT_FALSE(w.mgr.KillProcess(98));
  EXPECT_TRUE(w.host.HasLog(4, "[phoneVideo]  kill process failed  98 error code:5 "));
}

TEST(AdbServerManager, StopServerAndAliveCheckLookAtOurAdbOnly) {
  ServerWorld w;
  const std::wstring adb = lumo::ExecutableFileName(L"adb");
  EXPECT_FALSE(w.mgr.IsAdbAlive());
  w.host.SetProcesses({{3, L"sh"}, {10, adb}, {11, adb}}, {{10, L"/home/user/sdk/adb"}, {11, L"/opt/host/for_android/adb"}});
  // The first adb is a stranger's: not alive for us, and on a machine where adb is shared it is
  // not ours to end.
  EXPECT_FALSE(w.mgr.IsAdbAlive());
  w.mgr.StopServer();
  EXPECT_EQ(w.host.Commands().back(), L"/opt/host/for_android/adb kill-server");
  EXPECT_EQ(w.host.Kills(), std::vector<uint32_t>{lumo::kHostOwnsItsTools ? 10u : 11u});
  EXPECT_TRUE(w.host.HasLog(lumo::kHostOwnsItsTools ? "[phoneVideo] kill adb sucess 10" : "[phoneVideo] kill adb sucess 11"));
  w.host.SetProcesses({{11, adb}}, {{11, L"/opt/host/for_android/adb"}});
  EXPECT_TRUE(w.mgr.IsAdbAlive());
}

TEST(AdbServerManager, ResetRunsOnItsOwnThreadAndRefusesASecondRequest) {
  ServerWorld w;
  std::mutex m;
  std::condition_variable cv;
  bool release = false;
  w.host.onCommand = [&](const std::wstring& line) {
    if (line.find(L"start-server") != std::wstring::npos) {
      std::unique_lock<std::mutex> lock(m);
      cv.wait(lock, [&] { return release; });
      return Printed("");
    }
    return Printed(line.find(L"devices -l") != std::wstring::npos ? kPhones : "");
  };
  ASSERT_TRUE(w.mgr.AsynicResetAdbEnv());
  EXPECT_FALSE(w.mgr.AsynicResetAdbEnv());
  EXPECT_TRUE(w.host.HasLog(4, "[phoneVideo] AsynicResetAdbEnv  error, thread is still working"));
  {
    std::lock_guard<std::mutex> lock(m);
    release = true;
  }
  cv.notify_all();
  w.mgr.WaitResetFinished();
  EXPECT_FALSE(w.mgr.ResetBusy());
  EXPECT_EQ(w.mgr.GetDevices().size(), 3u);  // the reset lists when the server is up
  EXPECT_TRUE(w.host.HasLog("[phoneVideo] AdbSrvMgr  ResetAdbEnv"));
  EXPECT_EQ(w.host.CountLogsStartingWith("[phoneVideo] StartServer:  cost times:"), 1u);
  EXPECT_TRUE(w.mgr.AsynicResetAdbEnv());  // free again
  w.mgr.WaitResetFinished();
}

}  // namespace
