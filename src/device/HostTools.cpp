#include "device/HostTools.h"

#include "host/HostServices.h"
#include "host/Log.h"
#include "platform/text.h"

namespace WinCmdRun {

std::wstring ToCrlf(const std::wstring& text) {
  std::wstring out;
  out.reserve(text.size() + text.size() / 16);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == L'\n' && (i == 0 || text[i - 1] != L'\r')) out.push_back(L'\r');
    out.push_back(text[i]);
  }
  return out;
}

std::wstring RunCmdLine(const std::wstring& commandLine, uint32_t timeoutMs) {
  lumo::HostCommandResult run = lumo::Host().RunCommand(commandLine, timeoutMs);
  const std::string line = lumo::WideToUtf8(commandLine);
  if (!run.started) {
    Log(LOG_ERROR, "[phoneVideo] cannot run: %s", line.c_str());
    return std::wstring();
  }
  if (run.timedOut) Log(LOG_ERROR, "[phoneVideo] ended after %u ms without finishing: %s", timeoutMs, line.c_str());
  if (!run.errors.empty()) Log(LOG_INFO, "[phoneVideo] %s printed on stderr: %s", line.c_str(), run.errors.c_str());
  return ToCrlf(lumo::Utf8ToWide(run.output));
}

std::vector<std::wstring> SplitCmdResult(const std::wstring& text) {
  std::vector<std::wstring> lines;
  size_t start = 0;
  for (size_t end; (end = text.find(L"\r\n", start)) != std::wstring::npos; start = end + 2)
    lines.push_back(text.substr(start, end - start));
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

}  // namespace WinCmdRun

namespace PortScan {

ScanTcpPortUtil* ScanTcpPortUtil::GetInstance() {
  static ScanTcpPortUtil instance;
  return &instance;
}

std::map<std::string, ProcessData> ScanTcpPortUtil::GetProcessDict() {
  std::map<std::string, ProcessData> dict;
  for (auto& [port, pid] : lumo::Host().ListeningTcpPorts()) dict[port] = ProcessData{pid};
  return dict;
}

std::wstring ScanTcpPortUtil::GetProcessPathByPid(uint32_t pid) { return lumo::Host().GetProcessPath(pid); }

}  // namespace PortScan
