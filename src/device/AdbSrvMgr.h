// Keeps the adb environment usable and lists the attached Android phones. Other software often
// runs an adb server of its own that holds port 5037 and makes ours fail, so the manager stops
// whoever owns the port (politely through its own executable, then by ending the process),
// starts our adb's server and keeps the online phones in a map keyed by serial.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "device/PhoneDeviceTypes.h"

namespace lumo {
class WorkerThread;
}

class AdbSrvMgr {
 public:
  // The adb found by the path rule (AdbPathRule below).
  AdbSrvMgr();
  // A given adb; empty means the path rule.
  explicit AdbSrvMgr(const std::wstring& adbPath);
  // Waits for a reset that is still running.
  ~AdbSrvMgr();
  AdbSrvMgr(const AdbSrvMgr&) = delete;
  AdbSrvMgr& operator=(const AdbSrvMgr&) = delete;

  // Runs "devices -l" and rebuilds the map; the number of online phones.
  int EnumDevices();
  // The phone under that exact serial (blanks included), the first one for an empty serial;
  // an empty record when there is none.
  PHONE::AndroidDeviceInfo GetDevice(const std::wstring& serial);
  std::map<std::wstring, PHONE::AndroidDeviceInfo> GetDevices();
  bool HasDevices();
  // Starts the reset (stop the port's owner, start our server, list) on the manager's own
  // thread; false while a reset is still busy or when the thread cannot start.
  bool AsynicResetAdbEnv();
  bool ResetBusy() const { return m_resetBusy.load(); }
  // Waits until a reset thread has finished (tests, shutdown).
  void WaitResetFinished();
  // At shutdown: asks our server to end, then ends one adb process (see the source for which).
  void StopServer();
  // True when a process named adb runs from our own adb path.
  bool IsAdbAlive();
  bool KillAdb();  // always true
  bool KillProcess(uint32_t pid);
  uint32_t FindProcessByName(const std::wstring& name);
  std::wstring GetAdbPath() const { return m_adbPath; }

  // The adb that ships with the host: beside the host's executable in "for_android" (an "x64"
  // folder of the host maps to its parent). Elsewhere than Windows, when that file is missing,
  // the adb found on PATH. LUMO_ADB in the environment, or [DEVICE] adbPath in
  // phoneVideoCfg.ini, overrides both (environment first).
  static std::wstring AdbPathRule();
  // The Windows rule alone, on a given executable path and with given separator and file names.
  static std::wstring AdbPathBeside(const std::wstring& exePath, const std::wstring& tail);

 private:
  void ResetAdbEnv();
  std::wstring Run(const std::wstring& arguments);

  const std::string m_port = "5037";
  const std::wstring m_ownAdbName;
  const std::wstring m_adbName;
  const std::wstring m_adbPath;

  // Listings run on host threads and on the reset thread at once; the map is guarded.
  std::recursive_mutex m_devicesLock;
  std::map<std::wstring, PHONE::AndroidDeviceInfo> m_devices;

  std::atomic<bool> m_resetBusy{false};
  std::mutex m_resetLock;  // one reset request at a time
  std::unique_ptr<lumo::WorkerThread> m_resetThread;
};
