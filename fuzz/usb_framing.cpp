// Feeds bytes, as they would come out of the USB link's socket, through the USB manager's outer
// framing into the dispatcher. The first byte picks the link (bit 0: iPhone over usbmux, else
// Android over adb's TCP) and how the bytes are cut into reads (bits 1-3: the largest read,
// bit 4: a quiet second between reads on usbmux). Nothing may read or write past a buffer,
// allocate on a length beyond the bound, or crash.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzWorld.h"
#include "device/AdbSrvMgr.h"
#include "device/CPhoneDeviceManager.h"
#include "usb/CUSBConnectMgr.h"

namespace {

struct World : lumo::test::FuzzWorld {
  CPhoneDeviceManager devices{std::make_shared<AdbSrvMgr>(L"adb")};
  CUSBConnectMgr usb{parser, ctrl, video, nullptr, &devices};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  World& w = lumo::test::TheWorld<World>();
  const uint8_t mode = data[0];
  const size_t maxRead = size_t{1} << (((mode >> 1) & 7) * 2);  // 1 byte .. 16 KB
  const bool quiet = (mode & 16) != 0;
  const uint8_t* stream = data + 1;
  const size_t length = size - 1;
  size_t at = 0;
  if (mode & 1) {
    bool quietNext = quiet;
    w.usb.ReceiveLoopIOS([&](char* buffer, uint32_t len, uint32_t* got, unsigned) {
      *got = 0;
      if (quietNext) {
        quietNext = false;
        return -7;
      }
      quietNext = quiet;
      if (at == length) return -2;  // the phone is gone
      const size_t n = std::min({static_cast<size_t>(len), maxRead, length - at});
      std::memcpy(buffer, stream + at, n);
      at += n;
      *got = static_cast<uint32_t>(n);
      return 0;
    });
  } else {
    w.usb.ReceiveLoopAndroid([&](char* buffer, size_t len) {
      // Whole reads, as the socket's wait-all gives them, or less at the end of the bytes.
      const size_t n = std::min(len, length - at);
      std::memcpy(buffer, stream + at, n);
      at += n;
      return static_cast<int>(n);
    });
  }
  w.usb.SetRunningForTest(false);
  w.EndInput();
  return 0;
}
