#include "device/IosDeviceApi.h"

#include <atomic>

namespace lumo {

namespace {
std::atomic<IosDeviceApi*> g_api{nullptr};
}  // namespace

IosDeviceApi& IosApi() {
  IosDeviceApi* api = g_api.load(std::memory_order_acquire);
  return api ? *api : SystemIosDeviceApi();
}

void SetIosDeviceApi(IosDeviceApi* api) { g_api.store(api, std::memory_order_release); }

}  // namespace lumo
