#include "device/AdbSrvMgr.h"

#include <cerrno>
#include <cstdlib>

#include "device/AdbOutputParser.h"
#include "device/HostTools.h"
#include "host/HostServices.h"
#include "host/Log.h"
#include "host/WorkerThread.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/paths.h"
#include "platform/process.h"
#include "platform/text.h"

namespace {

std::string Utf8(const std::wstring& text) { return lumo::WideToUtf8(text); }

// A process id as the port table gives it. The table is read from the system and could hold
// anything; a text that is not a whole decimal number is refused instead of thrown about.
bool ParsePid(const std::string& text, uint32_t& pid) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (errno == ERANGE || value > 0xFFFFFFFFull) return false;
  pid = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

AdbSrvMgr::AdbSrvMgr() : AdbSrvMgr(std::wstring()) {}

AdbSrvMgr::AdbSrvMgr(const std::wstring& adbPath)
    : m_ownAdbName(lumo::ExecutableFileName(L"xadb")),
      m_adbName(lumo::ExecutableFileName(L"adb")),
      m_adbPath(adbPath.empty() ? AdbPathRule() : adbPath),
      m_resetThread(std::make_unique<lumo::WorkerThread>("adb reset")) {}

AdbSrvMgr::~AdbSrvMgr() { m_resetThread->Stop(); }

std::wstring AdbSrvMgr::AdbPathBeside(const std::wstring& exePath, const std::wstring& tail) {
  std::wstring dir = exePath;
  const size_t slash = dir.find_last_of(L"/\\");
  if (slash != std::wstring::npos) dir.resize(slash);
  // An x64 sub-folder of the host maps to its parent: everything from the separator before
  // "x64" on is dropped.
  const size_t x64 = dir.rfind(L"x64");
  if (x64 != std::wstring::npos && x64 > 0) dir.resize(x64 - 1);
  return dir + tail;
}

std::wstring AdbSrvMgr::AdbPathRule() {
  std::wstring chosen = lumo::GetEnvironmentText("LUMO_ADB");
  if (!chosen.empty()) return chosen;
  chosen = lumo::Utf8ToWide(lumo::Host().GetConfigString("phoneVideoCfg.ini", "DEVICE", "adbPath", "", 1024));
  if (!chosen.empty()) return chosen;
  const wchar_t sep = lumo::PathSeparator();
  const std::wstring beside = AdbPathBeside(lumo::Host().HostExecutablePath(),
                                            std::wstring(1, sep) + L"for_android" + sep +
                                                lumo::ExecutableFileName(L"adb"));
  if (lumo::kHostOwnsItsTools || lumo::FileExists(beside)) return beside;
  const std::wstring onPath = lumo::FindOnPath(L"adb");
  return onPath.empty() ? beside : onPath;
}

std::wstring AdbSrvMgr::Run(const std::wstring& arguments) { return WinCmdRun::RunCmdLine(m_adbPath + L" " + arguments); }

int AdbSrvMgr::EnumDevices() {
  const std::wstring printed = Run(L"devices -l");
  std::lock_guard<std::recursive_mutex> guard(m_devicesLock);
  std::map<std::wstring, PHONE::AndroidDeviceInfo> online;
  if (PHONE::ParseDeviceListing(printed, online) == PHONE::DeviceListing::NoDevicesOrError) {
    m_devices.clear();
    Log(LOG_ERROR, "设备错误或枚举不到设备");
    return 0;
  }
  m_devices = std::move(online);
  return static_cast<int>(m_devices.size());
}

PHONE::AndroidDeviceInfo AdbSrvMgr::GetDevice(const std::wstring& serial) {
  std::lock_guard<std::recursive_mutex> guard(m_devicesLock);
  if (m_devices.empty()) return {};
  if (serial.empty()) return m_devices.begin()->second;
  auto it = m_devices.find(serial);
  return it == m_devices.end() ? PHONE::AndroidDeviceInfo() : it->second;
}

std::map<std::wstring, PHONE::AndroidDeviceInfo> AdbSrvMgr::GetDevices() {
  std::lock_guard<std::recursive_mutex> guard(m_devicesLock);
  return m_devices;
}

bool AdbSrvMgr::HasDevices() {
  std::lock_guard<std::recursive_mutex> guard(m_devicesLock);
  return !m_devices.empty() && !m_devices.begin()->second.serial.empty();
}

uint32_t AdbSrvMgr::FindProcessByName(const std::wstring& name) {
  for (const lumo::HostProcessEntry& p : lumo::Host().ListProcesses())
    if (p.exeName == name) return p.pid;
  return 0;
}

bool AdbSrvMgr::KillProcess(uint32_t pid) {
  uint32_t error = 0;
  switch (lumo::Host().KillProcess(pid, error)) {
    case lumo::HostKillResult::Killed:
      return true;
    case lumo::HostKillResult::OpenFailed:
      Log(LOG_ERROR, "[phoneVideo] open process failed  pid: %d error code:%d", pid, error);
      return false;
    case lumo::HostKillResult::TerminateFailed:
      break;
  }
  Log(LOG_ERROR, "[phoneVideo]  kill process failed  %d error code:%d ", pid, error);
  return false;
}

bool AdbSrvMgr::KillAdb() {
  Log(LOG_INFO, "[phoneVideo] begin to kill adb ");
  if (uint32_t pid = FindProcessByName(m_ownAdbName)) {
    const std::wstring path = lumo::Host().GetProcessPath(pid);
    WinCmdRun::RunCmdLine(path + L" kill-server");
    Log(LOG_INFO, "[phoneVideo] kill tarro adb  pid:%d , path:%s", pid, Utf8(path).c_str());
  }
  Log(LOG_INFO, "[phoneVideo] search process which use 5037");
  PortScan::ScanTcpPortUtil* scanner = PortScan::ScanTcpPortUtil::GetInstance();
  auto table = scanner->GetProcessDict();
  auto entry = table.find(m_port);
  if (entry == table.end()) {
    Log(LOG_INFO, "[phoneVideo] no process occupy 5037");
    return true;
  }
  const std::string pidText = entry->second.pid;
  uint32_t npid = 0;
  if (!ParsePid(pidText, npid)) {
    Log(LOG_ERROR, "[phoneVideo] owner of 5037 has no usable pid: %s", pidText.c_str());
    return true;
  }
  // The port's owner is asked through its own executable; that must never be this process (a
  // host that serves 5037 itself would run itself, and then end itself).
  if (npid == lumo::CurrentProcessId()) {
    Log(LOG_ERROR, "[phoneVideo] 5037 is held by this process (pid %u); left alone", npid);
    return true;
  }
  Log(LOG_INFO, "[phoneVideo] find occupy port exe to kill-server  pid:%s  npid:%d ", pidText.c_str(), npid);
  const std::wstring path = scanner->GetProcessPathByPid(npid);
  const uint32_t start = lumo::TickCountMs();
  WinCmdRun::RunCmdLine(path + L" kill-server");
  Log(LOG_INFO, "[phoneVideo] kill third part adb costtime :%d  thirdparty adb path %s ",
      static_cast<int>(lumo::TickCountMs() - start), Utf8(path).c_str());

  table = scanner->GetProcessDict();
  entry = table.find(m_port);
  if (entry == table.end()) {
    Log(LOG_INFO, "[phoneVideo] kill-server success");
    return true;
  }
  Log(LOG_INFO, "[phoneVideo] enforce kill process pid:%s", entry->second.pid.c_str());
  uint32_t stubborn = 0;
  if (!ParsePid(entry->second.pid, stubborn)) {
    Log(LOG_ERROR, "[phoneVideo] owner of 5037 has no usable pid: %s", entry->second.pid.c_str());
  } else if (stubborn == lumo::CurrentProcessId()) {
    Log(LOG_ERROR, "[phoneVideo] 5037 is held by this process (pid %u); left alone", stubborn);
  } else {
    KillProcess(stubborn);
  }
  return true;
}

void AdbSrvMgr::ResetAdbEnv() {
  Log(LOG_INFO, "[phoneVideo] AdbSrvMgr  ResetAdbEnv");
  KillAdb();
  m_resetThread->SleepMs(10);
  const uint32_t start = lumo::TickCountMs();
  const std::wstring printed = Run(L"start-server");
  Log(LOG_INFO, "[phoneVideo] StartServer:%s  cost times:%d ", Utf8(printed).c_str(),
      static_cast<int>(lumo::TickCountMs() - start));
  m_resetBusy = false;
  EnumDevices();
}

bool AdbSrvMgr::AsynicResetAdbEnv() {
  Log(LOG_INFO, "[phoneVideo] AsynicResetAdbEnv  begin");
  std::lock_guard<std::mutex> guard(m_resetLock);
  if (m_resetBusy) {
    Log(LOG_ERROR, "[phoneVideo] AsynicResetAdbEnv  error, thread is still working");
    return false;
  }
  // The previous reset may still be in its closing listing; it is collected, never abandoned.
  m_resetThread->Stop();
  // Busy before the thread runs: set afterwards, a quick thread could clear it first and leave
  // the manager refusing every later reset.
  m_resetBusy = true;
  if (!m_resetThread->Start([this] { ResetAdbEnv(); })) {
    m_resetBusy = false;
    Log(LOG_ERROR, "[phoneVideo] AsynicResetAdbEnv create thread error, error code:%d", lumo::LastSystemError());
    return false;
  }
  return true;
}

void AdbSrvMgr::WaitResetFinished() {
  std::lock_guard<std::mutex> guard(m_resetLock);
  m_resetThread->Stop();
}

void AdbSrvMgr::StopServer() {
  Log(LOG_INFO, "[phoneVideo] stopServer");
  Run(L"kill-server");
  const std::wstring ours = lumo::ResolvedPath(m_adbPath);
  for (const lumo::HostProcessEntry& p : lumo::Host().ListProcesses()) {
    if (p.exeName != m_adbName) continue;
    // Where the adb on the machine is also the user's own, only a process of our adb is ended.
    if (!lumo::kHostOwnsItsTools && lumo::ResolvedPath(lumo::Host().GetProcessPath(p.pid)) != ours) continue;
    KillProcess(p.pid);
    Log(LOG_INFO, "[phoneVideo] kill adb sucess %d", p.pid);
    break;
  }
}

bool AdbSrvMgr::IsAdbAlive() {
  const uint32_t pid = FindProcessByName(m_adbName);
  if (pid == 0) return false;
  // A link to our adb (Debian's /usr/bin/adb) and the adb it points to are one program.
  return lumo::ResolvedPath(lumo::Host().GetProcessPath(pid)) == lumo::ResolvedPath(m_adbPath);
}
