// The libimobiledevice calls the library makes, behind one seam: linked directly on Linux,
// bound at run time on Windows (no Windows build of it ships with our dependencies), scripted
// by tests. Results are libimobiledevice's error codes (0 success).
#pragma once

#include <cstdint>
#include <string>

#include "device/PhoneDeviceTypes.h"

namespace lumo {

class IosDeviceApi {
 public:
  virtual ~IosDeviceApi() = default;

  // False (with the reason) when libimobiledevice is not there.
  virtual bool Available(std::string& why) = 0;

  virtual int GetDeviceList(char*** list, int* count) = 0;
  virtual int DeviceListFree(char** list) = 0;
  virtual int NewDevice(idevice_t* device, const char* udid) = 0;
  virtual int FreeDevice(idevice_t device) = 0;

  // lockdown without a label: only the device name is asked, which needs no pairing.
  virtual int LockdownClientNew(idevice_t device, lockdownd_client_t* client) = 0;
  virtual int LockdownGetDeviceName(lockdownd_client_t client, char** name) = 0;
  virtual int LockdownClientFree(lockdownd_client_t client) = 0;
  // Frees a text that the calls above handed out.
  virtual void FreeText(char* text) = 0;

  // usbmux connections to a port of the phone.
  virtual int Connect(idevice_t device, uint16_t port, idevice_connection_t* connection) = 0;
  virtual int Disconnect(idevice_connection_t connection) = 0;
  virtual int Send(idevice_connection_t connection, const char* data, uint32_t len, uint32_t* sent) = 0;
  virtual int ReceiveTimeout(idevice_connection_t connection, char* data, uint32_t len, uint32_t* received,
                             unsigned int timeoutMs) = 0;
  virtual int Receive(idevice_connection_t connection, char* data, uint32_t len, uint32_t* received) = 0;
  // Shuts the connection's socket down so that a receive blocked on it returns at once; the
  // connection stays valid until Disconnect.
  virtual void Shutdown(idevice_connection_t connection) = 0;
};

// The system's libimobiledevice (linked or loaded).
IosDeviceApi& SystemIosDeviceApi();

// The one in force: the system's unless a test installed its own (nullptr restores it).
IosDeviceApi& IosApi();
void SetIosDeviceApi(IosDeviceApi* api);

}  // namespace lumo
