// The built-in host services: a log file in the product data folder plus stderr, ini files in
// the same folder, a timer thread, a log throttle, statistics kept in memory, telemetry written
// as JSON lines (and handed to a callback when one is set). The setters let a host that does not
// implement HostServices itself still give the library its projection settings and user facts.
#pragma once

#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>

#include "host/HostServices.h"
#include "host/IniFile.h"

namespace lumo {

class LUMO_API DefaultHostServices : public HostServices {
 public:
  DefaultHostServices();
  ~DefaultHostServices() override;

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
  int GetProjectContentType() override;
  void GetProjectionResolution(int& width, int& height) override;
  bool Is169Video() override;
  int GetVideoFps() override;
  bool IsLive() override;
  std::string GetMainVersionString() override;
  std::string GetRoomId() override;
  std::string GetLumoId() override;
  bool GetAccountId(std::string& id) override;
  void CountStatistic(HostStat stat, long long delta) override;
  void SetStatistic(HostStat stat, long long value) override;
  void SetPhoneName(const std::string& name) override;
  void ReportTelemetry(const std::string& module, const std::string& event, const Json::Value& record) override;
  void ClearCurrentTexture() override {}

  // Settings for a host that uses these defaults.
  void SetProjectContentType(int type) { m_contentType = type; }
  void SetProjectionResolution(int width, int height);
  void SetVideoFps(int fps) { m_fps = fps; }
  void SetLive(bool live) { m_live = live; }
  void SetUser(const std::string& roomId, const std::string& lumoId, const std::string& accountId);
  void SetTelemetryCallback(std::function<void(const std::string& jsonLine)> callback);
  // Lines below this level are not written (default 2: everything).
  void SetLogLevel(int level) { m_logLevel = level; }
  void SetLogToStderr(bool on) { m_logToStderr = on; }
  long long GetStatistic(HostStat stat) const;
  std::string GetPhoneName();

 private:
  IniStore m_ini;
  std::mutex m_logMutex;
  FILE* m_logFile = nullptr;
  bool m_logOpenTried = false;
  std::atomic<int> m_logLevel{2};
  std::atomic<bool> m_logToStderr{true};

  std::mutex m_throttleMutex;
  std::map<std::string, uint32_t> m_lastPrint;

  std::atomic<int> m_contentType{0};
  std::atomic<int> m_width{1920};
  std::atomic<int> m_height{1080};
  std::atomic<int> m_fps{30};
  std::atomic<bool> m_live{false};

  std::mutex m_textMutex;  // guards the strings below
  std::string m_roomId, m_lumoId, m_accountId, m_phoneName;
  std::function<void(const std::string&)> m_telemetryCallback;

  std::array<std::atomic<long long>, static_cast<size_t>(HostStat::Count_)> m_stats{};
};

}  // namespace lumo
