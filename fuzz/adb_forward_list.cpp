// Reads bytes as the text `adb forward --list` printed through the forward-list rules. Nothing
// may crash, read past the text or take time out of proportion to its size.
#include <cstddef>
#include <cstdint>
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
  for (const AdbForwardItem& item : PHONE::ParseForwardList(printed))
    if (item.serial.empty()) __builtin_trap();
  return 0;
}
