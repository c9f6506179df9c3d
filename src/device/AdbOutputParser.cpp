#include "device/AdbOutputParser.h"

// GCC 12 warns of a "maybe uninitialized" value inside its own std::regex when optimising with
// the sanitizers on; the warning is about the library's code, not ours.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <regex>

#include "device/HostTools.h"
#include "host/Log.h"
#include "platform/text.h"

namespace PHONE {

const wchar_t kDeviceListHeader[] = L"List of devices attached\r\n";

AdbForwardItem ParseForwardLine(const std::wstring& line) {
  AdbForwardItem item;
  if (line.empty() || line == L"\r\n" || line.find(L"tcp:") == std::wstring::npos) return item;
  if (line.size() > kMaxParsedLine) return item;
  static const std::wregex serialRe(L"^([a-zA-Z0-9_-]+)\\s+", std::regex::ECMAScript);
  static const std::wregex portsRe(L"\\s+tcp:(\\d{1,})\\s+tcp:(\\d{1,})", std::regex::ECMAScript);
  std::wsmatch m;
  if (std::regex_search(line, m, serialRe) && m.size() > 1) item.serial = m[1].str();
  if (std::regex_search(line, m, portsRe) && m.size() > 2 && m[1].matched && m[2].matched) {
    item.localPort = m[1].str();
    item.remotePort = m[2].str();
  }
  return item;
}

std::vector<AdbForwardItem> ParseForwardList(const std::wstring& printed) {
  std::vector<AdbForwardItem> items;
  for (const std::wstring& line : WinCmdRun::SplitCmdResult(printed)) {
    AdbForwardItem item = ParseForwardLine(line);
    if (!item.serial.empty()) items.push_back(std::move(item));
  }
  return items;
}

AndroidDeviceInfo ParseDeviceLine(const std::wstring& line) {
  AndroidDeviceInfo info;
  if (line == L"\r\n" || line.size() > kMaxParsedLine) return info;
  static const std::wregex serialRe(L"^([a-zA-Z0-9_-]+(?:\\s?[\\.a-zA-Z0-9_-]+)?(?:\\:\\d{1,})?)\\s+",
                                    std::regex::ECMAScript);
  static const std::wregex stateRe(L"(device|offline|unknown|bootloader|recovery|download|unauthorized|host)",
                                   std::regex::ECMAScript);
  static const std::wregex productRe(L"(\\s+product:([a-zA-Z0-9_-]+))", std::regex::ECMAScript);
  static const std::wregex modelRe(L"(\\s+model:([a-zA-Z0-9_-]+))", std::regex::ECMAScript);
  static const std::wregex deviceRe(L"(\\s+device:([\\S]+))", std::regex::ECMAScript);
  std::wsmatch m;
  // The whole match, blanks after the serial included (see AndroidDeviceInfo::serial).
  if (std::regex_search(line, m, serialRe)) info.serial = m[0].str();
  if (!std::regex_search(line, m, stateRe)) return info;
  const std::wstring state = m[1].str();
  if (state == L"device") {
    info.state = kStateOnline;
  } else if (state == L"no permissions") {
    // Kept for the day the state words above learn it; the search cannot produce it today.
    info.state = kStateNoPermissions;
  } else {
    Log(LOG_INFO, "[phoneVideo] device state error:%s", lumo::WideToUtf8(state).c_str());
    info.state = kStateOther;
  }
  if (std::regex_search(line, m, productRe) && m.size() > 2 && m[2].matched) info.product = m[2].str();
  if (std::regex_search(line, m, modelRe) && m.size() > 2 && m[2].matched) info.model = m[2].str();
  if (std::regex_search(line, m, deviceRe) && m.size() > 2 && m[2].matched) info.device = m[2].str();
  return info;
}

DeviceListing ParseDeviceListing(const std::wstring& printed, std::map<std::wstring, AndroidDeviceInfo>& online) {
  online.clear();
  // The header is taken to stand at the start of the text wherever it was found.
  static const size_t headerLength = std::wstring(kDeviceListHeader).size();
  const bool hasHeader = printed.find(kDeviceListHeader) != std::wstring::npos;
  const std::wstring body = hasHeader ? printed.substr(std::min(headerLength, printed.size())) : printed;
  if (body.empty() || body.find(L"error:") != std::wstring::npos) return DeviceListing::NoDevicesOrError;
  // Each line keeps its "\r\n"; whatever follows the last "\r\n" is not a finished line.
  size_t start = 0;
  for (size_t end; (end = body.find(L"\r\n", start)) != std::wstring::npos; start = end + 2) {
    AndroidDeviceInfo info = ParseDeviceLine(body.substr(start, end + 2 - start));
    if (!info.serial.empty() && info.state == kStateOnline) online[info.serial] = std::move(info);
  }
  return DeviceListing::Parsed;
}

}  // namespace PHONE
