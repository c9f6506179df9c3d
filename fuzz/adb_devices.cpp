// Reads bytes as the text `adb devices -l` printed (any bytes: a broken or foreign adb, a
// garbled pipe) through the device listing rules. Nothing may crash, read past the text or
// take time out of proportion to its size.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "device/AdbOutputParser.h"
#include "device/HostTools.h"
#include "host/HostServices.h"
#include "platform/text.h"
#include "support/QuietHost.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static lumo::test::QuietHost host;
  lumo::SetHostServices(&host);
  const std::wstring printed =
      WinCmdRun::ToCrlf(lumo::Utf8ToWide(std::string(reinterpret_cast<const char*>(data), size)));
  std::map<std::wstring, PHONE::AndroidDeviceInfo> online;
  PHONE::ParseDeviceListing(printed, online);
  for (auto& [serial, info] : online)
    if (serial.empty() || info.state != PHONE::kStateOnline) __builtin_trap();
  return 0;
}
