// The device code against real programs: a fake adb that records its arguments, and Debian's
// adb itself (suite AdbServer*, run by ctest one at a time in a network of its own).
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "device/AdbDeviceClient.h"
#include "device/AdbSrvMgr.h"
#include "device/HostTools.h"
#include "platform/paths.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/text.h"
#include "support/FakeHost.h"
#include "support/TempDir.h"

namespace {

using lumo::test::FakeHost;

// Sets an environment variable for the scope of a test.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_old = old, m_had = true;
    lumo::test::SetEnv(name, value);
  }
  ~ScopedEnv() { m_had ? lumo::test::SetEnv(m_name, m_old) : lumo::test::UnsetEnv(m_name); }

 private:
  const char* m_name;
  std::string m_old;
  bool m_had = false;
};

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(CommandRunner, BlanksAndTheRemotePipeReachAdbAsArguments) {
  lumo::test::ScopedAppData dir;
  FakeHost host;
  host.realPrograms = true;
  const std::string log = dir.path + "/args.txt";
  ScopedEnv logEnv("LUMO_FAKE_ADB_LOG", log);
  ScopedEnv printEnv("LUMO_FAKE_ADB_PRINT", "package:com.lumo.hqcamera\n");
  PHONE::AdbDeviceClient client;
  PHONE::AndroidDeviceInfo phone;
  phone.serial = L"emulator-5554          ";
  client.SetDevice(lumo::Utf8ToWide(LUMO_FAKE_ADB), phone);
  EXPECT_TRUE(client.IsPackageInstalled(L"lumo"));
  EXPECT_EQ(ReadLines(log), (std::vector<std::string>{"-s", "emulator-5554", "shell", "pm", "list", "package", "-3",
                                                       "|", "grep", "lumo"}));
  // Standard error is logged, and kept out of the text the parsers read.
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] " LUMO_FAKE_ADB " -s emulator-5554"), 1u);
}

TEST(CommandRunner, AHungToolIsEndedAtItsTimeLimit) {
  FakeHost host;
  host.realPrograms = true;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WinCmdRun::RunCmdLine(lumo::Utf8ToWide(LUMO_FAKE_ADB) + L" hang", 300), L"");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_TRUE(host.HasLog(4, std::string("[phoneVideo] ended after 300 ms without finishing: ") + LUMO_FAKE_ADB + " hang"));
}

// Debian's adb with a home and temporary folder of its own; every server it started is stopped.
class AdbServerReal : public testing::Test {
 protected:
  void SetUp() override {
    m_adb = lumo::FindOnPath(L"adb");
    ASSERT_FALSE(m_adb.empty()) << "adb is not installed (scripts/install-deps installs it)";
    m_host.realPrograms = true;
    m_home = std::make_unique<ScopedEnv>("HOME", m_dir.path);
    m_tmp = std::make_unique<ScopedEnv>("TMPDIR", m_dir.path);
    m_mgr = std::make_unique<AdbSrvMgr>(m_adb);
  }
  void TearDown() override {
    if (m_mgr) m_mgr->WaitResetFinished();
    if (!m_adb.empty()) lumo::RunCommandLine(m_adb + L" kill-server", 10000);
    EXPECT_TRUE(WaitFor([] { return lumo::ListeningTcpPortOwners().count("5037") == 0; }))
        << "an adb server is still listening on 5037";
  }
  // Polls a condition for up to ten seconds: servers take a moment to come and go.
  static bool WaitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 200; ++i) {
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
  }

  lumo::test::ScopedAppData m_dir;
  FakeHost m_host;
  std::wstring m_adb;
  std::unique_ptr<ScopedEnv> m_home, m_tmp;
  std::unique_ptr<AdbSrvMgr> m_mgr;
};

TEST_F(AdbServerReal, ResetStartsTheServerAndKillAdbStopsWhoeverHoldsThePort) {
  ASSERT_TRUE(m_mgr->AsynicResetAdbEnv());
  m_mgr->WaitResetFinished();
  auto owners = lumo::ListeningTcpPortOwners();
  ASSERT_EQ(owners.count("5037"), 1u) << "the reset did not start a server";
  EXPECT_TRUE(m_host.HasLog("[phoneVideo] no process occupy 5037"));
  EXPECT_TRUE(m_mgr->IsAdbAlive());  // /usr/bin/adb is a link to the server's executable
  EXPECT_EQ(m_mgr->EnumDevices(), 0);  // no phone here

  m_host.ClearLogs();
  EXPECT_TRUE(m_mgr->KillAdb());
  EXPECT_TRUE(m_host.HasLog("[phoneVideo] find occupy port exe to kill-server  pid:" + owners["5037"] +
                            "  npid:" + owners["5037"] + " "));
  EXPECT_TRUE(WaitFor([] { return lumo::ListeningTcpPortOwners().count("5037") == 0; }));
  // The server itself is gone. (Not IsAdbAlive: it asks about any adb process on the machine,
  // and another may be running from the same binary.)
  const uint32_t server = static_cast<uint32_t>(std::stoul(owners["5037"]));
  EXPECT_TRUE(WaitFor([server] { return lumo::GetProcessPathByPid(server).empty(); }));
}

TEST_F(AdbServerReal, StopServerEndsOurServer) {
  lumo::RunCommandLine(m_adb + L" start-server", 20000);
  ASSERT_TRUE(WaitFor([] { return lumo::ListeningTcpPortOwners().count("5037") == 1; }));
  const uint32_t server = static_cast<uint32_t>(std::stoul(lumo::ListeningTcpPortOwners()["5037"]));
  m_mgr->StopServer();
  EXPECT_TRUE(m_host.HasLog("[phoneVideo] stopServer"));
  EXPECT_TRUE(WaitFor([server] { return lumo::GetProcessPathByPid(server).empty(); }));
}

#if defined(LUMO_PHONECAM)
// The reference host's doctor names a stranger that holds the adb port: here this very test.
TEST_F(AdbServerReal, DoctorNamesAForeignHolderOfThePort) {
  lumo::NetStartup();
  lumo::SocketHandle stranger = lumo::OpenTcpSocket();
  ASSERT_TRUE(lumo::BindSocket(stranger, {lumo::kIpv4Loopback, 5037}) && lumo::ListenSocket(stranger, 1));
  lumo::CommandResult r = lumo::RunCommandLine(lumo::Utf8ToWide(LUMO_PHONECAM) + L" doctor", 30000);
  lumo::CloseSocket(stranger);
  EXPECT_NE(r.output.find("[warn] port 5037: held by pid " + std::to_string(lumo::CurrentProcessId()) + " ("),
            std::string::npos)
      << r.output;
  EXPECT_NE(r.output.find("[ok] adb: "), std::string::npos) << r.output;
}
#endif

}  // namespace
#endif
