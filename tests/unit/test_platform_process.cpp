// Running other programs, the process table and the listening-port owners.
#include <gtest/gtest.h>

#include <chrono>

#include "platform/command_line.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/text.h"

#if !defined(_WIN32)
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
extern char** environ;
#endif

namespace {

TEST(CommandLine, SplitsLikeAWindowsProgramReadsItsArguments) {
  using V = std::vector<std::string>;
  EXPECT_EQ(lumo::SplitCommandLine("adb -s  ABC123   forward tcp:8181 tcp:8182"),
            V({"adb", "-s", "ABC123", "forward", "tcp:8181", "tcp:8182"}));
  EXPECT_EQ(lumo::SplitCommandLine("\"C:\\Program Files\\adb.exe\" shell ps | grep lumo"),
            V({"C:\\Program Files\\adb.exe", "shell", "ps", "|", "grep", "lumo"}));
  EXPECT_EQ(lumo::SplitCommandLine("a \"\" b"), V({"a", "", "b"}));
  EXPECT_TRUE(lumo::SplitCommandLine("   ").empty());
}

#if defined(_WIN32)
const wchar_t kEcho[] = L"cmd /c echo hello";
const char kEchoOut[] = "hello\r\n";
const wchar_t kExit3[] = L"cmd /c exit 3";
const wchar_t kBothStreams[] = L"cmd /c echo hello& echo oops 1>&2";
#else
const wchar_t kEcho[] = L"echo hello";
const char kEchoOut[] = "hello\n";
const wchar_t kExit3[] = L"sh -c \"exit 3\"";
const wchar_t kBothStreams[] = L"sh -c \"echo hello; echo oops >&2\"";
#endif

TEST(RunCommand, CapturesOutputAndExitCode) {
  lumo::CommandResult r = lumo::RunCommandLine(kEcho, 10000);
  EXPECT_TRUE(r.started);
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.output, kEchoOut);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(lumo::RunCommandLine(kExit3, 10000).exitCode, 3);
  // Standard error is kept apart from the output that parsers read.
  lumo::CommandResult both = lumo::RunCommandLine(kBothStreams, 10000);
  EXPECT_EQ(both.output, kEchoOut);
  EXPECT_NE(both.errors.find("oops"), std::string::npos);
  lumo::CommandResult missing = lumo::RunCommandLine(L"no-such-program-5037 devices", 10000);
  EXPECT_FALSE(missing.started);
  EXPECT_TRUE(missing.output.empty());
}

#if !defined(_WIN32)
TEST(RunCommand, ArgumentsReachTheProgramWithoutAShell) {
  lumo::CommandResult r = lumo::RunCommandLine(L"printf %s| \"a b\" c | grep x", 10000);
  EXPECT_EQ(r.output, "a b|c|||grep|x|");  // the pipe is an argument, not a shell pipe
}

TEST(RunCommand, TimeLimitEndsAHungProgramAndOutputIsBounded) {
  auto start = std::chrono::steady_clock::now();
  lumo::CommandResult r = lumo::RunCommandLine(L"sleep 20", 200);
  EXPECT_TRUE(r.started);
  EXPECT_TRUE(r.timedOut);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));

  lumo::CommandResult big = lumo::RunCommandLine(L"head -c 6000000 /dev/zero", 20000);
  EXPECT_FALSE(big.timedOut);
  EXPECT_EQ(big.output.size(), lumo::kMaxCommandOutput);
}

TEST(Processes, KillEndsARealProcess) {
  pid_t pid = 0;
  char sleepName[] = "sleep", seconds[] = "30";
  char* argv[] = {sleepName, seconds, nullptr};
  ASSERT_EQ(posix_spawnp(&pid, "sleep", nullptr, nullptr, argv, environ), 0);
  EXPECT_NE(lumo::GetProcessPathByPid(static_cast<uint32_t>(pid)).find(L"sleep"), std::wstring::npos);
  EXPECT_EQ(lumo::KillProcess(static_cast<uint32_t>(pid)), lumo::KillResult::Killed);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}
#endif

TEST(Processes, FindsItselfByNameAndPath) {
  std::wstring self = lumo::ExecutablePath();
  ASSERT_FALSE(self.empty());
  EXPECT_EQ(lumo::GetProcessPathByPid(lumo::CurrentProcessId()), self);
  std::wstring name = self.substr(self.find_last_of(L"/\\") + 1);
  uint32_t found = lumo::FindProcessByName(name);
  // This process, or another run of a program with the same name (a second build's tests).
  ASSERT_NE(found, 0u);
  std::wstring foundPath = lumo::GetProcessPathByPid(found);
  ASSERT_GE(foundPath.size(), name.size());
  EXPECT_EQ(foundPath.substr(foundPath.size() - name.size()), name);
  EXPECT_EQ(lumo::FindProcessByName(L"no-such-program-5037"), 0u);
  EXPECT_EQ(lumo::KillProcess(0x7FFFFFF0u), lumo::KillResult::OpenFailed);
}

TEST(Processes, ListeningPortsMapToTheirOwner) {
  ASSERT_TRUE(lumo::NetStartup());
  lumo::SocketHandle s = lumo::OpenTcpSocket();
  ASSERT_TRUE(lumo::BindSocket(s, lumo::Ipv4Endpoint{lumo::kIpv4Loopback, 0}));
  ASSERT_TRUE(lumo::ListenSocket(s, 1));
  lumo::Ipv4Endpoint e;
  ASSERT_TRUE(lumo::LocalEndpoint(s, e));
  auto owners = lumo::ListeningTcpPortOwners();
  auto it = owners.find(std::to_string(e.port));
  ASSERT_NE(it, owners.end());
  if (lumo::RunningUnderWine()) {
    EXPECT_EQ(it->second, "0");  // wine's TCP table names no owner; Windows itself does
  } else {
    EXPECT_EQ(it->second, std::to_string(lumo::CurrentProcessId()));
  }
  lumo::CloseSocket(s);
  EXPECT_EQ(lumo::ListeningTcpPortOwners().count(std::to_string(e.port)), 0u);
}

}  // namespace
