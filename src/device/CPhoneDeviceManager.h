// The process-wide registry of phones on a USB cable. Android: forwards to the adb server
// manager. iOS: enumerates through libimobiledevice, opens a handle for each phone and keeps
// the records in one map for the process, which the USB transport looks up by UDID.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "device/PhoneDeviceTypes.h"
#include "platform/export.h"

class AdbSrvMgr;
class CUSBConnectMgr;

class LUMO_API CPhoneDeviceManager {
 public:
  static CPhoneDeviceManager* GetInstance();
  // A manager of its own (tests); without an adb server manager one is made by the adb path rule.
  explicit CPhoneDeviceManager(std::shared_ptr<AdbSrvMgr> adbSrvMgr = nullptr);
  ~CPhoneDeviceManager();
  CPhoneDeviceManager(const CPhoneDeviceManager&) = delete;
  CPhoneDeviceManager& operator=(const CPhoneDeviceManager&) = delete;

  // Starts the adb reset in the background, lists at once, then lists iPhones. Always false.
  bool Init();
  // Android phones online plus iPhones found.
  int RefreshDevices();

  bool HasAndroidDevice();
  // An empty serial means the first phone.
  PHONE::AndroidDeviceInfo GetAndroidDevice(const std::wstring& serial);
  std::map<std::wstring, PHONE::AndroidDeviceInfo> GetAllAndroidDevices();
  std::wstring GetAdbFilePath();
  // False when no adb runs from our own adb path.
  bool CheckAdbAlive();
  // At shutdown: stops the adb server.
  void Release();

  bool HasIOSDevice();
  std::map<std::wstring, std::shared_ptr<IOSDeviceInfo>> GetAllIOSDevices();
  // An empty UDID means the first phone; nullptr when there is none (an unknown UDID is logged).
  // Every enumeration frees the handles of the one before: take a fresh record after it.
  std::shared_ptr<IOSDeviceInfo> GetIOSDevice(const std::wstring& udid);
  void RemoveIOSDevice(const std::wstring& udid);

  // The adb server manager (tests and the reference host's diagnostics).
  std::shared_ptr<AdbSrvMgr> AdbServer() { return m_adbSrvMgr; }

 private:
  friend class CUSBConnectMgr;
  void InitAndroidEnv();
  int EnumAndroidDevices();
  void StartAndroidServer() {}
  int EnumIOSDevices();
  void UnInitIOS();

  std::wstring m_unused;
  std::shared_ptr<AdbSrvMgr> m_adbSrvMgr;
  std::recursive_mutex m_lock;  // guards m_mapIOSDevices and m_iosDeviceList
  char** m_iosDeviceList = nullptr;

  static std::map<std::wstring, std::shared_ptr<IOSDeviceInfo>> m_mapIOSDevices;
};
