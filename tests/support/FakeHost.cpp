#include "support/FakeHost.h"

#include <chrono>

#include <json/json.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "host/IniFile.h"
#include "platform/clock.h"

namespace lumo::test {

class FakeHost::Timer : public TMR::ITimer {
 public:
  explicit Timer(TMR::ITimerCB* cb) : callback(cb) {}
  bool SetTimer(int id, uint32_t periodMs) override {
    std::lock_guard<std::mutex> guard(mutex);
    active[id] = periodMs;
    return true;
  }
  void KillTimer(int id) override {
    std::lock_guard<std::mutex> guard(mutex);
    active.erase(id);
  }
  TMR::ITimerCB* callback;
  std::mutex mutex;
  std::map<int, uint32_t> active;
};

FakeHost::FakeHost() {
  const char* echo = std::getenv("LUMO_TEST_LOG");
  m_echo = echo && *echo == '1';
  SetHostServices(this);
  SetHostMessageSink([this](HWND hwnd, uint32_t msg, uintptr_t wParam, intptr_t lParam) {
    if (!acceptMessages) return false;
    Message m{hwnd, msg, wParam, lParam, Json::Value()};
    if (msg == 7025 && lParam != 0) {
      auto* value = reinterpret_cast<Json::Value*>(lParam);
      m.json = *value;
      delete value;  // the host owns what it accepted
    }
    std::lock_guard<std::mutex> guard(m_mutex);
    m_messages.push_back(std::move(m));
    return true;
  });
}

FakeHost::~FakeHost() {
  SetHostMessageSink(nullptr);
  SetHostServices(nullptr);
}

FakeHost::ConfigKey FakeHost::Key(const std::string& file, const std::string& section, const std::string& key) {
  auto lower = [](std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
  };
  return ConfigKey{lower(file), lower(section), lower(key)};
}

std::vector<FakeHost::LogLine> FakeHost::Logs() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_logs;
}

size_t FakeHost::CountLog(const std::string& text) {
  std::lock_guard<std::mutex> guard(m_mutex);
  return std::count_if(m_logs.begin(), m_logs.end(), [&](const LogLine& l) { return l.text == text; });
}

size_t FakeHost::CountLog(int level, const std::string& text) {
  std::lock_guard<std::mutex> guard(m_mutex);
  return std::count_if(m_logs.begin(), m_logs.end(),
                       [&](const LogLine& l) { return l.level == level && l.text == text; });
}

size_t FakeHost::CountLogsStartingWith(const std::string& prefix) {
  std::lock_guard<std::mutex> guard(m_mutex);
  return std::count_if(m_logs.begin(), m_logs.end(),
                       [&](const LogLine& l) { return l.text.compare(0, prefix.size(), prefix) == 0; });
}

void FakeHost::ClearLogs() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_logs.clear();
}

std::vector<FakeHost::Message> FakeHost::Messages() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_messages;
}

void FakeHost::ClearMessages() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_messages.clear();
}

void FakeHost::SetConfig(const std::string& file, const std::string& section, const std::string& key,
                         const std::string& value) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_config[Key(file, section, key)] = value;
}

bool FakeHost::GetConfigRaw(const std::string& file, const std::string& section, const std::string& key,
                            std::string& value) {
  std::lock_guard<std::mutex> guard(m_mutex);
  auto it = m_config.find(Key(file, section, key));
  if (it == m_config.end()) return false;
  value = it->second;
  return true;
}

bool FakeHost::IsTimerActive(int id) { return TimerPeriod(id) != 0; }

uint32_t FakeHost::TimerPeriod(int id) {
  std::vector<std::shared_ptr<Timer>> timers;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    for (auto& w : m_timers)
      if (auto t = w.lock()) timers.push_back(t);
  }
  for (auto& t : timers) {
    std::lock_guard<std::mutex> guard(t->mutex);
    auto it = t->active.find(id);
    if (it != t->active.end()) return it->second;
  }
  return 0;
}

void FakeHost::FireTimer(int id) {
  std::vector<std::shared_ptr<Timer>> timers;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    for (auto& w : m_timers)
      if (auto t = w.lock()) timers.push_back(t);
  }
  for (auto& t : timers) {
    bool on;
    {
      std::lock_guard<std::mutex> guard(t->mutex);
      on = t->active.count(id) != 0;
    }
    if (on) t->callback->OnTimer(id);
  }
}

void FakeHost::WriteLog(int level, const std::string& line) {
  if (m_echo) std::fprintf(stderr, "[log L%d] %s\n", level, line.c_str());
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_logs.push_back(LogLine{level, line});
  }
  m_logged.notify_all();
}

bool FakeHost::WaitForLog(const std::string& text, uint32_t limitMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_logged.wait_for(lock, std::chrono::milliseconds(limitMs), [&] {
    for (const LogLine& l : m_logs)
      if (l.text.find(text) != std::string::npos) return true;
    return false;
  });
}

bool FakeHost::IsPrintTooFast(uint32_t intervalMs, const std::string& key) {
  uint32_t now = TickCountMs();
  std::lock_guard<std::mutex> guard(m_mutex);
  auto it = m_lastPrint.find(key);
  if (it != m_lastPrint.end() && static_cast<uint32_t>(now - it->second) < intervalMs) return true;
  m_lastPrint[key] = now;
  return false;
}

int FakeHost::GetConfigInt(const std::string& file, const std::string& section, const std::string& key,
                           int defaultValue) {
  std::string value;
  if (!GetConfigRaw(file, section, key, value)) return defaultValue;
  return IniFile::ParseInt(value);
}

std::string FakeHost::GetConfigString(const std::string& file, const std::string& section,
                                      const std::string& key, const std::string& defaultValue,
                                      size_t maxChars) {
  std::string value;
  if (!GetConfigRaw(file, section, key, value)) value = defaultValue;
  if (value.size() > maxChars) value.resize(maxChars);
  return value;
}

bool FakeHost::SetConfigString(const std::string& file, const std::string& section, const std::string& key,
                               const std::string& value) {
  SetConfig(file, section, key, value);
  return true;
}

std::shared_ptr<TMR::ITimer> FakeHost::CreateTimer(TMR::ITimerCB* callback) {
  auto timer = std::make_shared<Timer>(callback);
  std::lock_guard<std::mutex> guard(m_mutex);
  m_timers.push_back(timer);
  return timer;
}

bool FakeHost::GetSwitchConfig(const std::string& id, bool& enabled, std::string& text) {
  std::lock_guard<std::mutex> guard(m_mutex);
  auto it = switches.find(id);
  enabled = it == switches.end() ? true : it->second.first;
  text = it == switches.end() ? std::string() : it->second.second;
  return true;
}

void FakeHost::GetProjectionResolution(int& width, int& height) {
  width = projectionWidth;
  height = projectionHeight;
}

bool FakeHost::GetAccountId(std::string& id) {
  id = accountId;
  return !id.empty();
}

void FakeHost::CountStatistic(HostStat stat, long long delta) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_stats[static_cast<int>(stat)] += delta;
}

void FakeHost::SetStatistic(HostStat stat, long long value) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_stats[static_cast<int>(stat)] = value;
}

long long FakeHost::Statistic(HostStat stat) {
  std::lock_guard<std::mutex> guard(m_mutex);
  auto it = m_stats.find(static_cast<int>(stat));
  return it == m_stats.end() ? 0 : it->second;
}

void FakeHost::SetPhoneName(const std::string& name) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_phoneName = name;
}

std::string FakeHost::PhoneName() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_phoneName;
}

void FakeHost::ReportTelemetry(const std::string& module, const std::string& event, const Json::Value& record) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_telemetry.push_back(Telemetry{module, event, record});
}

std::vector<FakeHost::Telemetry> FakeHost::TelemetryRecords() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_telemetry;
}

}  // namespace lumo::test

namespace lumo::test {

HostCommandResult FakeHost::RunCommand(const std::wstring& commandLine, uint32_t timeoutMs) {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_commands.push_back(commandLine);
  }
  if (onCommand) return onCommand(commandLine);
  if (realPrograms) return HostServices::RunCommand(commandLine, timeoutMs);
  HostCommandResult r;
  r.started = true;
  r.exitCode = 0;
  return r;
}

std::vector<std::wstring> FakeHost::Commands() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_commands;
}

void FakeHost::SetListeningPorts(std::map<std::string, std::string> ports) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_ports = std::move(ports);
}

std::map<std::string, std::string> FakeHost::ListeningTcpPorts() {
  if (realPrograms) return HostServices::ListeningTcpPorts();
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_ports;
}

void FakeHost::SetProcesses(std::vector<HostProcessEntry> processes, std::map<uint32_t, std::wstring> paths) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_processes = std::move(processes);
  m_paths = std::move(paths);
}

std::vector<HostProcessEntry> FakeHost::ListProcesses() {
  if (realPrograms) return HostServices::ListProcesses();
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_processes;
}

std::wstring FakeHost::GetProcessPath(uint32_t pid) {
  if (realPrograms) return HostServices::GetProcessPath(pid);
  std::lock_guard<std::mutex> guard(m_mutex);
  auto it = m_paths.find(pid);
  return it == m_paths.end() ? std::wstring() : it->second;
}

HostKillResult FakeHost::KillProcess(uint32_t pid, uint32_t& systemError) {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_kills.push_back(pid);
  }
  if (realPrograms) return HostServices::KillProcess(pid, systemError);
  std::lock_guard<std::mutex> guard(m_mutex);
  HostKillResult r = killResult;
  systemError = r == HostKillResult::Killed ? 0 : 5;
  return r;
}

std::vector<uint32_t> FakeHost::Kills() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_kills;
}

}  // namespace lumo::test
