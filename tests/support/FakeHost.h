// A complete in-memory host for unit tests: it records every log line, host message,
// statistic and telemetry record, keeps ini values in a map, and runs timers only when the
// test fires them. Constructing it installs it as the library's host services and window
// message sink; destroying it puts the defaults back. Set LUMO_TEST_LOG=1 to echo log lines.
#pragma once

#include <json/value.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "host/HostServices.h"
#include "platform/host_window.h"

namespace lumo::test {

class FakeHost : public HostServices {
 public:
  FakeHost();
  ~FakeHost() override;

  struct LogLine {
    int level;
    std::string text;
  };
  struct Message {
    HWND hwnd;
    uint32_t msg;
    uintptr_t wParam;
    intptr_t lParam;
    Json::Value json;  // the value posted behind lParam (msg 7025), already deleted as a host would
  };
  struct Telemetry {
    std::string module, event;
    Json::Value record;
  };

  std::vector<LogLine> Logs();
  size_t CountLog(const std::string& text);
  size_t CountLog(int level, const std::string& text);
  bool HasLog(const std::string& text) { return CountLog(text) > 0; }
  bool HasLog(int level, const std::string& text) { return CountLog(level, text) > 0; }
  size_t CountLogsStartingWith(const std::string& prefix);
  // Blocks (real time, at most `limitMs`) until a line containing `text` has been logged.
  bool WaitForLog(const std::string& text, uint32_t limitMs = 10000);
  void ClearLogs();

  std::vector<Message> Messages();
  void ClearMessages();
  // When false the sink refuses messages, as a failed PostMessageW would.
  std::atomic<bool> acceptMessages{true};

  void SetConfig(const std::string& file, const std::string& section, const std::string& key,
                 const std::string& value);
  bool GetConfigRaw(const std::string& file, const std::string& section, const std::string& key,
                    std::string& value);

  bool IsTimerActive(int id);
  uint32_t TimerPeriod(int id);
  // Calls back every fake timer that has `id` active, on the calling thread.
  void FireTimer(int id);

  std::atomic<int> contentType{0};
  std::atomic<int> projectionWidth{1920};
  std::atomic<int> projectionHeight{1080};
  std::atomic<bool> is169Video{false};
  std::atomic<int> videoFps{30};
  std::atomic<bool> live{false};
  std::string version = "9.8.7.6";
  std::string roomId, lumoId, accountId;
  std::map<std::string, std::pair<bool, std::string>> switches;  // absent: enabled, text ""

  // Other programs, scripted: no process is started. Each command line is recorded and handed
  // to `onCommand` (set it before the code under test runs); without it a command prints
  // nothing and exits 0. The port table, the process table and the paths are what the test set.
  std::function<HostCommandResult(const std::wstring& commandLine)> onCommand;
  std::vector<std::wstring> Commands();
  void SetListeningPorts(std::map<std::string, std::string> ports);
  void SetProcesses(std::vector<HostProcessEntry> processes, std::map<uint32_t, std::wstring> paths);
  std::vector<uint32_t> Kills();
  std::atomic<HostKillResult> killResult{HostKillResult::Killed};
  std::wstring hostExecutable = L"/opt/host/bin/host";
  // True: commands, tables and kills are the machine's real ones (still recorded).
  std::atomic<bool> realPrograms{false};

  long long Statistic(HostStat stat);
  std::string PhoneName();
  std::vector<Telemetry> TelemetryRecords();
  size_t ClearTextureCalls() { return m_clearTexture; }

  // HostServices
  void WriteLog(int level, const std::string& line) override;
  bool IsPrintTooFast(uint32_t intervalMs, const std::string& key) override;
  int GetConfigInt(const std::string& file, const std::string& section, const std::string& key,
                   int defaultValue) override;
  std::string GetConfigString(const std::string& file, const std::string& section, const std::string& key,
                              const std::string& defaultValue, size_t maxChars) override;
  bool SetConfigString(const std::string& file, const std::string& section, const std::string& key,
                       const std::string& value) override;
  std::shared_ptr<TMR::ITimer> CreateTimer(TMR::ITimerCB* callback) override;
  bool GetSwitchConfig(const std::string& id, bool& enabled, std::string& text) override;
  int GetProjectContentType() override { return contentType; }
  void GetProjectionResolution(int& width, int& height) override;
  bool Is169Video() override { return is169Video; }
  int GetVideoFps() override { return videoFps; }
  bool IsLive() override { return live; }
  std::string GetMainVersionString() override { return version; }
  std::string GetRoomId() override { return roomId; }
  std::string GetLumoId() override { return lumoId; }
  bool GetAccountId(std::string& id) override;
  void CountStatistic(HostStat stat, long long delta) override;
  void SetStatistic(HostStat stat, long long value) override;
  void SetPhoneName(const std::string& name) override;
  void ReportTelemetry(const std::string& module, const std::string& event, const Json::Value& record) override;
  void ClearCurrentTexture() override { ++m_clearTexture; }
  HostCommandResult RunCommand(const std::wstring& commandLine, uint32_t timeoutMs) override;
  std::map<std::string, std::string> ListeningTcpPorts() override;
  std::wstring GetProcessPath(uint32_t pid) override;
  std::vector<HostProcessEntry> ListProcesses() override;
  HostKillResult KillProcess(uint32_t pid, uint32_t& systemError) override;
  std::wstring HostExecutablePath() override { return hostExecutable; }

  class Timer;

 private:
  using ConfigKey = std::tuple<std::string, std::string, std::string>;
  static ConfigKey Key(const std::string& file, const std::string& section, const std::string& key);

  std::mutex m_mutex;
  std::condition_variable m_logged;
  std::vector<LogLine> m_logs;
  std::vector<Message> m_messages;
  std::map<ConfigKey, std::string> m_config;
  std::map<std::string, uint32_t> m_lastPrint;
  std::vector<std::weak_ptr<Timer>> m_timers;
  std::map<int, long long> m_stats;
  std::string m_phoneName;
  std::vector<Telemetry> m_telemetry;
  std::atomic<size_t> m_clearTexture{0};
  std::vector<std::wstring> m_commands;
  std::map<std::string, std::string> m_ports;
  std::vector<HostProcessEntry> m_processes;
  std::map<uint32_t, std::wstring> m_paths;
  std::vector<uint32_t> m_kills;
  bool m_echo = false;
};

// What a scripted command printed on its standard output, having run to its end.
inline HostCommandResult Printed(const std::string& text) {
  HostCommandResult r;
  r.started = true;
  r.exitCode = 0;
  r.output = text;
  return r;
}

}  // namespace lumo::test
