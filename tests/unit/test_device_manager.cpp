// The device manager on a scripted libimobiledevice and a scripted adb.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "device/AdbSrvMgr.h"
#include "device/CPhoneDeviceManager.h"
#include "device/IosDeviceApi.h"
#include "platform/process.h"
#include "support/FakeHost.h"
#include "support/FakeIosApi.h"

namespace {

using lumo::test::FakeHost;

using lumo::test::FakeIosApi;

using lumo::test::Printed;

struct ManagerWorld {
  FakeHost host;
  FakeIosApi ios;
  std::unique_ptr<CPhoneDeviceManager> mgr;
  ManagerWorld() {
    host.onCommand = [](const std::wstring& line) {
      return Printed(line.find(L"devices -l") == std::wstring::npos
                         ? ""
                         : "List of devices attached\nemulator-5554          device product:a model:A device:a\n"
                           "emulator-5556          device product:b model:B device:b\n\n");
    };
    mgr = std::make_unique<CPhoneDeviceManager>(std::make_shared<AdbSrvMgr>(L"/opt/adb"));
  }
  ~ManagerWorld() {
    mgr->AdbServer()->WaitResetFinished();
    mgr.reset();
    EXPECT_TRUE(ios.open.empty()) << "a device handle outlived the manager";
    EXPECT_EQ(ios.listsOut, 0) << "a device list was not freed";
    EXPECT_EQ(ios.clientsOut, 0) << "a lockdown client was not freed";
  }
};

TEST(DeviceManager, CountsBothKindsAndInitAnswersFalse) {
  ManagerWorld w;
  w.ios.udids = {"00008110-AAA", "00008110-BBB"};
  w.ios.names = {{"00008110-AAA", "Anna’s iPhone"}};  // UTF-8 beyond ASCII
  w.ios.unopenable = {"00008110-BBB"};
  EXPECT_FALSE(w.mgr->Init());
  EXPECT_EQ(w.mgr->RefreshDevices(), 3);  // two Android phones and the one iPhone that opened
  EXPECT_TRUE(w.host.HasLog(4, "[phoneVideo] create ios device failed, err code -3"));
  EXPECT_TRUE(w.host.HasLog(2, "[phoneVideo] get device name success: Anna’s iPhone"));
  EXPECT_EQ(w.mgr->GetIOSDevice(L"")->name, L"Anna\u2019s iPhone");
  EXPECT_TRUE(w.mgr->HasAndroidDevice());
  EXPECT_EQ(w.mgr->GetAndroidDevice(L"").model, L"A");
  EXPECT_EQ(w.mgr->GetAllAndroidDevices().size(), 2u);
  EXPECT_EQ(w.mgr->GetAdbFilePath(), L"/opt/adb");
}

TEST(DeviceManager, IosMapRules) {
  ManagerWorld w;
  EXPECT_EQ(w.mgr->RefreshDevices(), 2);  // no iPhone
  EXPECT_TRUE(w.host.HasLog(2, "[phoneVideo] Get ios device failed, err code 0, count 0"));
  EXPECT_FALSE(w.mgr->HasIOSDevice());
  EXPECT_EQ(w.mgr->GetIOSDevice(L""), nullptr);

  w.ios.udids = {"bbbb", "aaaa"};
  w.ios.names = {{"aaaa", "A"}};  // "bbbb" has no name and is kept all the same
  w.mgr->RefreshDevices();
  EXPECT_TRUE(w.mgr->HasIOSDevice());
  EXPECT_EQ(w.mgr->GetIOSDevice(L"")->udid, L"aaaa");  // the smallest UDID
  EXPECT_EQ(w.mgr->GetIOSDevice(L"bbbb")->name, L"");
  EXPECT_EQ(w.mgr->GetIOSDevice(L"cccc"), nullptr);
  EXPECT_TRUE(w.host.HasLog(4, "[phoneVideo] Get ios device failed, udid cccc"));

  // A held record survives the next enumeration without its handle, which was freed.
  std::shared_ptr<IOSDeviceInfo> held = w.mgr->GetIOSDevice(L"aaaa");
  w.mgr->RefreshDevices();
  EXPECT_EQ(held->device, nullptr);
  EXPECT_EQ(w.ios.open.size(), 2u);  // not four: the first two handles were freed

  w.mgr->RemoveIOSDevice(L"aaaa");
  w.mgr->RemoveIOSDevice(L"zzzz");
  EXPECT_EQ(w.mgr->GetAllIOSDevices().size(), 1u);
  EXPECT_EQ(w.ios.open.size(), 1u);

  w.ios.listError = -3;
  w.mgr->RefreshDevices();
  EXPECT_TRUE(w.host.HasLog(2, "[phoneVideo] Get ios device failed, err code -3, count 0"));
  EXPECT_FALSE(w.mgr->HasIOSDevice());
}

TEST(DeviceManager, AdbAliveCheck) {
  ManagerWorld w;
  w.host.SetProcesses({{9, lumo::ExecutableFileName(L"adb")}}, {{9, L"/elsewhere/adb"}});
  EXPECT_FALSE(w.mgr->CheckAdbAlive());
  EXPECT_TRUE(w.host.HasLog(2, "[phoneVideo] adb is dead"));
  w.host.SetProcesses({{9, lumo::ExecutableFileName(L"adb")}}, {{9, L"/opt/adb"}});
  EXPECT_TRUE(w.mgr->CheckAdbAlive());
  EXPECT_TRUE(w.host.HasLog(2, "[phoneVideo] adb still alive"));
}

}  // namespace
