// Everything the library asks of its host application. The original host supplied these as
// closed libraries (logger, ini files, timers, server switches, projection settings, user
// information, statistics, telemetry, graphics); here they are one interface. The library
// ships a default implementation that works on its own, and a host may install its own with
// SetHostServices. Every call the library makes to its host goes through Host().
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"

namespace Json {
class Value;
}

namespace TMR {

// Receives the ticks of a periodic timer (slot 0: the timer id).
class ITimerCB {
 public:
  virtual void OnTimer(int id) = 0;

 protected:
  ~ITimerCB() = default;
};

// A set of periodic timers, each known by an id, all calling back one ITimerCB.
class ITimer {
 public:
  virtual ~ITimer() = default;
  // Starts (or restarts) timer `id` with the given period; the first tick comes one period later.
  virtual bool SetTimer(int id, uint32_t periodMs) = 0;
  virtual void KillTimer(int id) = 0;
};

}  // namespace TMR

namespace lumo {

// Host statistics that the library counts or sets.
enum class HostStat : int {
  MaxCameraFrameCount = 0,  // encoded frames received from the phone
  CameraFrameCount,         // frames decoded and queued for the host
  PhoneConnectType,
  PhoneIsIOS,
  ProjectionContentType,
  PhoneRcvVideoFrameCount,
  PhoneRcvAudioFrameCount,
  PhoneDecodeVideoFrameCount,
  PhoneDecodeAudioFrameCount,
  Count_
};

// What one run of a command line left behind.
struct HostCommandResult {
  bool started = false;   // false when the program could not be run at all
  bool timedOut = false;  // it outlived its time limit and was ended
  int exitCode = -1;
  std::string output;     // its standard output, bytes as printed
  std::string errors;     // its standard error
};

// One entry of the process table.
struct HostProcessEntry {
  uint32_t pid = 0;
  std::wstring exeName;  // the executable's file name, without its folder
};

enum class HostKillResult { Killed, OpenFailed, TerminateFailed };

class LUMO_API HostServices {
 public:
  virtual ~HostServices();

  // Logger: one finished line (UTF-8, no trailing newline) at level 2 (information),
  // 3 (bad data, rate drops) or 4 (failures).
  virtual void WriteLog(int level, const std::string& line) = 0;
  // Log throttle: true when `key` was let through less than `intervalMs` ago (the caller then
  // stays silent); otherwise records now for `key` and returns false.
  virtual bool IsPrintTooFast(uint32_t intervalMs, const std::string& key) = 0;

  // Ini files, named relative to the product data folder ("phoneVideoCfg.ini", "HighQVideo.ini").
  virtual int GetConfigInt(const std::string& file, const std::string& section, const std::string& key,
                           int defaultValue) = 0;
  virtual std::string GetConfigString(const std::string& file, const std::string& section,
                                      const std::string& key, const std::string& defaultValue,
                                      size_t maxChars) = 0;
  virtual bool SetConfigString(const std::string& file, const std::string& section, const std::string& key,
                               const std::string& value) = 0;

  // A periodic timer service calling back `callback` on a host thread.
  virtual std::shared_ptr<TMR::ITimer> CreateTimer(TMR::ITimerCB* callback) = 0;

  // Server switch `id`: false when the switch is unknown; otherwise fills its flag and text.
  virtual bool GetSwitchConfig(const std::string& id, bool& enabled, std::string& text) = 0;

  // Projection settings of the host.
  virtual int GetProjectContentType() = 0;
  virtual void GetProjectionResolution(int& width, int& height) = 0;
  virtual bool Is169Video() = 0;
  virtual int GetVideoFps() = 0;
  virtual bool IsLive() = 0;

  virtual std::string GetMainVersionString() = 0;
  virtual std::string GetRoomId() = 0;
  virtual std::string GetLumoId() = 0;
  // The account id for telemetry; false when the host has none.
  virtual bool GetAccountId(std::string& id) = 0;

  // Statistics: Count adds, Set replaces.
  virtual void CountStatistic(HostStat stat, long long delta) = 0;
  virtual void SetStatistic(HostStat stat, long long value) = 0;
  virtual void SetPhoneName(const std::string& name) = 0;

  // Telemetry: one record for (module, event) to be shipped by the host.
  virtual void ReportTelemetry(const std::string& module, const std::string& event, const Json::Value& record) = 0;

  // Asks the host's renderer to drop the texture it is showing (the decoder has stopped).
  virtual void ClearCurrentTexture() = 0;

  // Other programs on this PC: the command runner and the port scanner of the original host's
  // base library, and the process table. These have working defaults on the platform layer, so
  // a host overrides them only to script or watch them (the tests do).
  //
  // Runs one command line to its end: the program and its arguments split at blanks as Windows
  // does (double quotes group), never through a shell, so "| grep" reaches the program as two
  // arguments. A program still running after `timeoutMs` is ended.
  virtual HostCommandResult RunCommand(const std::wstring& commandLine, uint32_t timeoutMs);
  // Listening TCP ports and the process that owns each, both as decimal text ("5037" -> "812").
  virtual std::map<std::string, std::string> ListeningTcpPorts();
  // The full path of a process's executable; empty when unknown.
  virtual std::wstring GetProcessPath(uint32_t pid);
  virtual std::vector<HostProcessEntry> ListProcesses();
  // Ends a process at once; on failure `systemError` says why.
  virtual HostKillResult KillProcess(uint32_t pid, uint32_t& systemError);
  // The host program's own executable (the adb that ships with it is found beside it).
  virtual std::wstring HostExecutablePath();
};

// Installs the host's own services; nullptr puts the built-in default back. The host keeps
// ownership and keeps the object alive until it has stopped the library.
LUMO_API void SetHostServices(HostServices* services);
// The services in force.
HostServices& Host();
// The built-in default, whatever is installed.
HostServices& DefaultHost();

}  // namespace lumo
