#include "device/AdbDeviceClient.h"

#include "device/AdbOutputParser.h"
#include "device/HostTools.h"
#include "host/Log.h"
#include "platform/text.h"

namespace PHONE {

namespace {
std::string Utf8(const std::wstring& text) { return lumo::WideToUtf8(text); }
}  // namespace

void AdbDeviceClient::SetDevice(const std::wstring& adbPath, const AndroidDeviceInfo& device) {
  m_adbPath = adbPath;
  m_device = device;
}

std::wstring AdbDeviceClient::CommandLine(const std::wstring& arguments) const {
  return m_adbPath + L" -s " + m_device.serial + L"  " + arguments;
}

bool AdbDeviceClient::CreateForward(uint32_t localPort, uint32_t remotePort) {
  const std::wstring printed = WinCmdRun::RunCmdLine(
      CommandLine(L"forward tcp:" + std::to_wstring(localPort) + L" tcp:" + std::to_wstring(remotePort)));
  Log(LOG_INFO, "[phoneVideo] forward:%s", Utf8(printed).c_str());
  // Any listed forward counts: the list is not searched for this one.
  return !ListForward().empty();
}

bool AdbDeviceClient::RemoveAllForward() {
  const std::wstring printed = WinCmdRun::RunCmdLine(CommandLine(L" forward  --remove-all"));
  Log(LOG_INFO, "[phoneVideo] RemoveForward:%s", Utf8(printed).c_str());
  return false;
}

std::vector<AdbForwardItem> AdbDeviceClient::ListForward() {
  const std::wstring printed = WinCmdRun::RunCmdLine(CommandLine(L"  forward --list"));
  Log(LOG_INFO, "[phoneVideo] forward list:%s", Utf8(printed).c_str());
  if (printed.empty()) {
    Log(LOG_INFO, "[phoneVideo] forward error none tcp tunnel build");
    return {};
  }
  return ParseForwardList(printed);
}

bool AdbDeviceClient::IsPackageInstalled(const std::wstring& name) {
  const std::wstring printed = WinCmdRun::RunCmdLine(CommandLine(L"  shell pm list package -3 | grep " + name));
  return !printed.empty() && printed.find(name) != std::wstring::npos;
}

bool AdbDeviceClient::IsProcessRunning(const std::wstring& name) {
  const std::wstring printed = WinCmdRun::RunCmdLine(CommandLine(L"  shell ps | grep " + name));
  return !printed.empty() && printed.find(name) != std::wstring::npos;
}

}  // namespace PHONE
