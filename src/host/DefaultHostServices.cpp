#include "host/DefaultHostServices.h"

#include <json/json.h>

#include <atomic>

#include "host/TimerService.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace lumo {

HostServices::~HostServices() = default;

namespace {
std::atomic<HostServices*> g_services{nullptr};
}  // namespace

void SetHostServices(HostServices* services) { g_services.store(services, std::memory_order_release); }

HostServices& DefaultHost() {
  static DefaultHostServices services;
  return services;
}

HostServices& Host() {
  HostServices* s = g_services.load(std::memory_order_acquire);
  return s ? *s : DefaultHost();
}

DefaultHostServices::DefaultHostServices() : m_ini(ProductDataDir()) {
  std::wstring toStderr = GetEnvironmentText("LUMO_LOG_STDERR");
  if (toStderr == L"0") m_logToStderr = false;
}

DefaultHostServices::~DefaultHostServices() {
  if (m_logFile) std::fclose(m_logFile);
}

void DefaultHostServices::WriteLog(int level, const std::string& line) {
  if (level < m_logLevel) return;
  char head[64];
  std::snprintf(head, sizeof(head), "%s %5u L%d ", FormatWallClock(WallClock100ns()).c_str(),
                Thread::CurrentId(), level);
  std::lock_guard<std::mutex> guard(m_logMutex);
  if (!m_logOpenTried) {
    m_logOpenTried = true;
    CreateDirectoryOneLevel(AppDataDir());
    CreateDirectoryOneLevel(ProductDataDir());
    m_logFile = OpenFile(JoinPath(ProductDataDir(), L"LumoHqPhoneCamera.log"), "ab");
  }
  if (m_logFile) {
    std::fputs(head, m_logFile);
    std::fwrite(line.data(), 1, line.size(), m_logFile);
    std::fputc('\n', m_logFile);
    std::fflush(m_logFile);
  }
  if (m_logToStderr) {
    std::fputs(head, stderr);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
  }
}

bool DefaultHostServices::IsPrintTooFast(uint32_t intervalMs, const std::string& key) {
  uint32_t now = TickCountMs();
  std::lock_guard<std::mutex> guard(m_throttleMutex);
  auto it = m_lastPrint.find(key);
  if (it != m_lastPrint.end() && static_cast<uint32_t>(now - it->second) < intervalMs) return true;
  m_lastPrint[key] = now;
  return false;
}

int DefaultHostServices::GetConfigInt(const std::string& file, const std::string& section,
                                      const std::string& key, int defaultValue) {
  std::string value;
  if (!m_ini.Get(file, section, key, value)) return defaultValue;
  return IniFile::ParseInt(value);
}

std::string DefaultHostServices::GetConfigString(const std::string& file, const std::string& section,
                                                 const std::string& key, const std::string& defaultValue,
                                                 size_t maxChars) {
  std::string value;
  if (!m_ini.Get(file, section, key, value)) value = defaultValue;
  if (value.size() > maxChars) value.resize(maxChars);
  return value;
}

bool DefaultHostServices::SetConfigString(const std::string& file, const std::string& section,
                                          const std::string& key, const std::string& value) {
  return m_ini.Set(file, section, key, value);
}

std::shared_ptr<TMR::ITimer> DefaultHostServices::CreateTimer(TMR::ITimerCB* callback) {
  return std::make_shared<ThreadTimer>(callback);
}

// Without a server to ask, every switch is on: the features it guards work out of the box.
bool DefaultHostServices::GetSwitchConfig(const std::string&, bool& enabled, std::string& text) {
  enabled = true;
  text.clear();
  return true;
}

int DefaultHostServices::GetProjectContentType() { return m_contentType; }

void DefaultHostServices::SetProjectionResolution(int width, int height) {
  m_width = width;
  m_height = height;
}

void DefaultHostServices::GetProjectionResolution(int& width, int& height) {
  width = m_width;
  height = m_height;
}

bool DefaultHostServices::Is169Video() { return false; }
int DefaultHostServices::GetVideoFps() { return m_fps; }
bool DefaultHostServices::IsLive() { return m_live; }

std::string DefaultHostServices::GetMainVersionString() { return "0.1.0.0"; }

void DefaultHostServices::SetUser(const std::string& roomId, const std::string& lumoId,
                                  const std::string& accountId) {
  std::lock_guard<std::mutex> guard(m_textMutex);
  m_roomId = roomId;
  m_lumoId = lumoId;
  m_accountId = accountId;
}

std::string DefaultHostServices::GetRoomId() {
  std::lock_guard<std::mutex> guard(m_textMutex);
  return m_roomId;
}

std::string DefaultHostServices::GetLumoId() {
  std::lock_guard<std::mutex> guard(m_textMutex);
  return m_lumoId;
}

bool DefaultHostServices::GetAccountId(std::string& id) {
  std::lock_guard<std::mutex> guard(m_textMutex);
  id = m_accountId;
  return !id.empty();
}

void DefaultHostServices::CountStatistic(HostStat stat, long long delta) {
  size_t i = static_cast<size_t>(stat);
  if (i < m_stats.size()) m_stats[i] += delta;
}

void DefaultHostServices::SetStatistic(HostStat stat, long long value) {
  size_t i = static_cast<size_t>(stat);
  if (i < m_stats.size()) m_stats[i] = value;
}

long long DefaultHostServices::GetStatistic(HostStat stat) const {
  size_t i = static_cast<size_t>(stat);
  return i < m_stats.size() ? m_stats[i].load() : 0;
}

void DefaultHostServices::SetPhoneName(const std::string& name) {
  std::lock_guard<std::mutex> guard(m_textMutex);
  m_phoneName = name;
}

std::string DefaultHostServices::GetPhoneName() {
  std::lock_guard<std::mutex> guard(m_textMutex);
  return m_phoneName;
}

void DefaultHostServices::SetTelemetryCallback(std::function<void(const std::string&)> callback) {
  std::lock_guard<std::mutex> guard(m_textMutex);
  m_telemetryCallback = std::move(callback);
}

void DefaultHostServices::ReportTelemetry(const std::string& module, const std::string& event,
                                          const Json::Value& record) {
  Json::Value line(Json::objectValue);
  line["time"] = static_cast<Json::UInt64>(WallClock100ns() / 10000u);
  line["module"] = module;
  line["event"] = event;
  line["record"] = record;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  std::string text = Json::writeString(builder, line);
  std::function<void(const std::string&)> callback;
  {
    std::lock_guard<std::mutex> guard(m_textMutex);
    callback = m_telemetryCallback;
    CreateDirectoryOneLevel(AppDataDir());
    CreateDirectoryOneLevel(ProductDataDir());
    if (FILE* f = OpenFile(JoinPath(ProductDataDir(), L"telemetry.jsonl"), "ab")) {
      std::fwrite(text.data(), 1, text.size(), f);
      std::fputc('\n', f);
      std::fclose(f);
    }
  }
  if (callback) callback(text);
}

}  // namespace lumo
