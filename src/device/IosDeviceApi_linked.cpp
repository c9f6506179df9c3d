// libimobiledevice linked directly (Linux).
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

#include <cstdlib>

#include "device/IosDeviceApi.h"
#include "platform/socket.h"

namespace lumo {
namespace {

class LinkedIosDeviceApi final : public IosDeviceApi {
 public:
  bool Available(std::string&) override { return true; }
  int GetDeviceList(char*** list, int* count) override { return idevice_get_device_list(list, count); }
  int DeviceListFree(char** list) override { return idevice_device_list_free(list); }
  int NewDevice(idevice_t* device, const char* udid) override { return idevice_new(device, udid); }
  int FreeDevice(idevice_t device) override { return idevice_free(device); }
  int LockdownClientNew(idevice_t device, lockdownd_client_t* client) override {
    return lockdownd_client_new(device, client, nullptr);
  }
  int LockdownGetDeviceName(lockdownd_client_t client, char** name) override {
    return lockdownd_get_device_name(client, name);
  }
  int LockdownClientFree(lockdownd_client_t client) override { return lockdownd_client_free(client); }
  void FreeText(char* text) override { std::free(text); }
  int Connect(idevice_t device, uint16_t port, idevice_connection_t* connection) override {
    return idevice_connect(device, port, connection);
  }
  int Disconnect(idevice_connection_t connection) override { return idevice_disconnect(connection); }
  int Send(idevice_connection_t connection, const char* data, uint32_t len, uint32_t* sent) override {
    return idevice_connection_send(connection, data, len, sent);
  }
  int ReceiveTimeout(idevice_connection_t connection, char* data, uint32_t len, uint32_t* received,
                     unsigned int timeoutMs) override {
    return idevice_connection_receive_timeout(connection, data, len, received, timeoutMs);
  }
  int Receive(idevice_connection_t connection, char* data, uint32_t len, uint32_t* received) override {
    return idevice_connection_receive(connection, data, len, received);
  }
  void Shutdown(idevice_connection_t connection) override {
    int fd = -1;
    if (idevice_connection_get_fd(connection, &fd) == 0 && fd >= 0) ShutdownSocket(fd);
  }
};

}  // namespace

IosDeviceApi& SystemIosDeviceApi() {
  static LinkedIosDeviceApi api;
  return api;
}

}  // namespace lumo
