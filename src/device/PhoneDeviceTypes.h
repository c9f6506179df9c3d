// The records of attached phones that the device code shares with the USB transport and the host.
#pragma once

#include <cstdint>
#include <string>

namespace PHONE {

// One Android phone as `adb devices -l` lists it.
struct AndroidDeviceInfo {
  // As listed, with the blanks that follow it on the line: it is only ever used as a map key and
  // after " -s " on an adb command line, where the blanks do no harm, and every user takes the
  // same text.
  std::wstring serial;
  int32_t state = 0;  // kStateOnline, kStateNoPermissions or kStateOther; 0 when not parsed
  std::wstring product;
  std::wstring model;
  std::wstring device;
};

constexpr int32_t kStateOnline = 2;         // "device"
constexpr int32_t kStateNoPermissions = 5;  // "no permissions"
constexpr int32_t kStateOther = 8;          // any other state text

}  // namespace PHONE

// One line of `adb forward --list`.
struct AdbForwardItem {
  std::wstring localPort;   // decimal digits
  std::wstring remotePort;  // decimal digits
  std::wstring serial;
};

// libimobiledevice's handles, declared as that library declares them, so that our public
// headers need none of its headers (the Windows DLL loads it at run time).
extern "C" {
typedef struct idevice_private idevice_private;
typedef idevice_private* idevice_t;
typedef struct idevice_connection_private idevice_connection_private;
typedef idevice_connection_private* idevice_connection_t;
typedef struct lockdownd_client_private lockdownd_client_private;
typedef lockdownd_client_private* lockdownd_client_t;
}

// One iPhone: held by shared pointer by the device manager and the USB transport.
struct IOSDeviceInfo {
  std::wstring udid;
  idevice_t device = nullptr;  // freed by the device manager at the next enumeration
  std::wstring name;           // empty when lockdown could not tell it
};
