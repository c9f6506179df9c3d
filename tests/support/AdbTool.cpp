#include "support/AdbTool.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include "platform/text.h"
#include "support/TempDir.h"

namespace lumo::test {
namespace {

std::string Remember(const char* name, bool& had) {
  const char* value = std::getenv(name);
  had = value != nullptr;
  return had ? value : std::string();
}

void Restore(const char* name, bool had, const std::string& value) {
  if (had) SetEnv(name, value);
  else UnsetEnv(name);
}

}  // namespace

AdbTool::AdbTool() {
  std::random_device rd;
  const auto dir = std::filesystem::temp_directory_path() / ("lumo-adb-" + std::to_string(rd()) + std::to_string(rd()));
  std::filesystem::create_directories(dir / "tmp");
  m_folder = dir.string();
  m_tmp = (dir / "tmp").string();
  m_oldHome = Remember("HOME", m_hadHome);
  m_oldTmp = Remember("TMPDIR", m_hadTmp);
  SetEnv("HOME", m_folder);
  SetEnv("TMPDIR", m_tmp);
}

AdbTool::~AdbTool() {
  // Also when no server runs: kill-server starts none, it only says that there was none.
  Run("kill-server", 10000);
  Restore("HOME", m_hadHome, m_oldHome);
  Restore("TMPDIR", m_hadTmp, m_oldTmp);
  std::error_code ec;
  std::filesystem::remove_all(m_folder, ec);
}

std::string AdbTool::Program() {
  const char* chosen = std::getenv("LUMO_TEST_ADB");
  return chosen != nullptr && *chosen != '\0' ? chosen : "/usr/bin/adb";
}

bool AdbTool::Available() {
  std::error_code ec;
  return std::filesystem::exists(Program(), ec);
}

CommandResult AdbTool::Run(const std::string& args, uint32_t timeoutMs) const {
  return RunCommandLine(Utf8ToWide("\"" + Program() + "\" " + args), timeoutMs);
}

std::string AdbTool::WaitForDevice(const std::string& serial, const std::string& mustContain, uint32_t timeoutMs) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return std::string();
    // Returns once the server has the phone online (or at the time limit); the listing then
    // says whether it is the phone wanted.
    Run("-s " + serial + " wait-for-device", static_cast<uint32_t>(left));
    const std::string line = DeviceLine(Run("devices -l", 10000).output, serial);
    std::istringstream words(line);
    std::string name, state;
    words >> name >> state;
    if (state == "device" && line.find(mustContain) != std::string::npos) return line;
  }
}

std::string AdbTool::ServerLog() const {
  std::error_code ec;
  std::string text;
  for (const auto& entry : std::filesystem::directory_iterator(m_tmp, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, 4, "adb.") != 0 || name.size() < 8 || name.compare(name.size() - 4, 4, ".log") != 0) continue;
    std::ifstream in(entry.path());
    std::stringstream all;
    all << in.rdbuf();
    text += all.str();
  }
  // The end is what explains a failure.
  return text.size() > 6000 ? text.substr(text.size() - 6000) : text;
}

std::string DeviceLine(const std::string& listing, const std::string& serial) {
  std::istringstream lines(listing);
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.compare(0, serial.size(), serial) == 0 && line.size() > serial.size() &&
        (line[serial.size()] == ' ' || line[serial.size()] == '\t'))
      return line;
  }
  return std::string();
}

}  // namespace lumo::test
