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

namespace {

using lumo::test::FakeHost;

// Phones by UDID; a handle is a distinct address per open, so frees can be counted and checked.
class FakeIosApi : public lumo::IosDeviceApi {
 public:
  std::vector<std::string> udids;
  std::map<std::string, std::string> names;  // absent: lockdown answers with an error
  std::set<std::string> unopenable;
  int listError = 0;
  std::set<idevice_t> open;
  int listsOut = 0, clientsOut = 0;

  FakeIosApi() { lumo::SetIosDeviceApi(this); }
  ~FakeIosApi() override { lumo::SetIosDeviceApi(nullptr); }

  bool Available(std::string&) override { return true; }
  int GetDeviceList(char*** list, int* count) override {
    if (listError) return listError;
    *list = static_cast<char**>(std::calloc(udids.size() + 1, sizeof(char*)));
    for (size_t i = 0; i < udids.size(); ++i) (*list)[i] = strdup(udids[i].c_str());
    *count = static_cast<int>(udids.size());
    ++listsOut;
    return 0;
  }
  int DeviceListFree(char** list) override {
    for (char** p = list; *p; ++p) std::free(*p);
    std::free(list);
    --listsOut;
    return 0;
  }
  int NewDevice(idevice_t* device, const char* udid) override {
    if (unopenable.count(udid)) return -3;
    *device = reinterpret_cast<idevice_t>(new std::string(udid));
    open.insert(*device);
    return 0;
  }
  int FreeDevice(idevice_t device) override {
    EXPECT_EQ(open.erase(device), 1u) << "freed twice or never opened";
    delete reinterpret_cast<std::string*>(device);
    return 0;
  }
  int LockdownClientNew(idevice_t device, lockdownd_client_t* client) override {
    *client = reinterpret_cast<lockdownd_client_t>(device);
    ++clientsOut;
    return 0;
  }
  int LockdownGetDeviceName(lockdownd_client_t client, char** name) override {
    auto it = names.find(*reinterpret_cast<std::string*>(client));
    if (it == names.end()) return -4;
    *name = strdup(it->second.c_str());
    return 0;
  }
  int LockdownClientFree(lockdownd_client_t) override {
    --clientsOut;
    return 0;
  }
  void FreeText(char* text) override { std::free(text); }
  int Connect(idevice_t, uint16_t, idevice_connection_t*) override { return -2; }
  int Disconnect(idevice_connection_t) override { return 0; }
  int Send(idevice_connection_t, const char*, uint32_t, uint32_t*) override { return -1; }
  int ReceiveTimeout(idevice_connection_t, char*, uint32_t, uint32_t*, unsigned int) override { return -1; }
  int Receive(idevice_connection_t, char*, uint32_t, uint32_t*) override { return -1; }
};

lumo::HostCommandResult Printed(const std::string& text) {
  lumo::HostCommandResult r;
  r.started = true;
  r.exitCode = 0;
  r.output = text;
  return r;
}

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
