#include "device/CPhoneDeviceManager.h"

#include "device/AdbSrvMgr.h"
#include "device/IosDeviceApi.h"
#include "host/Log.h"
#include "platform/text.h"

std::map<std::wstring, std::shared_ptr<IOSDeviceInfo>> CPhoneDeviceManager::m_mapIOSDevices;

CPhoneDeviceManager* CPhoneDeviceManager::GetInstance() {
  static CPhoneDeviceManager instance;
  return &instance;
}

CPhoneDeviceManager::CPhoneDeviceManager(std::shared_ptr<AdbSrvMgr> adbSrvMgr) : m_adbSrvMgr(std::move(adbSrvMgr)) {
  if (!m_adbSrvMgr) m_adbSrvMgr = std::make_shared<AdbSrvMgr>();
  // The system's iOS library object is built now, before this object is finished, so that at
  // process exit (or DLL unload) it is destroyed after us: our destructor still frees handles
  // through it.
  lumo::IosApi();
}

CPhoneDeviceManager::~CPhoneDeviceManager() {
  UnInitIOS();
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  // An enumeration that opened no phone left its list behind (see EnumIOSDevices).
  if (m_iosDeviceList) lumo::IosApi().DeviceListFree(m_iosDeviceList);
  m_iosDeviceList = nullptr;
}

bool CPhoneDeviceManager::Init() {
  m_adbSrvMgr->AsynicResetAdbEnv();
  m_adbSrvMgr->EnumDevices();  // at once, not after the reset: the reset lists again when done
  EnumIOSDevices();
  return false;
}

int CPhoneDeviceManager::RefreshDevices() { return EnumAndroidDevices() + EnumIOSDevices(); }

void CPhoneDeviceManager::InitAndroidEnv() { m_adbSrvMgr->AsynicResetAdbEnv(); }

int CPhoneDeviceManager::EnumAndroidDevices() { return m_adbSrvMgr->EnumDevices(); }

bool CPhoneDeviceManager::HasAndroidDevice() { return m_adbSrvMgr->HasDevices(); }

PHONE::AndroidDeviceInfo CPhoneDeviceManager::GetAndroidDevice(const std::wstring& serial) {
  return m_adbSrvMgr->GetDevice(serial);
}

std::map<std::wstring, PHONE::AndroidDeviceInfo> CPhoneDeviceManager::GetAllAndroidDevices() {
  return m_adbSrvMgr->GetDevices();
}

std::wstring CPhoneDeviceManager::GetAdbFilePath() { return m_adbSrvMgr ? m_adbSrvMgr->GetAdbPath() : L""; }

bool CPhoneDeviceManager::CheckAdbAlive() {
  Log(LOG_INFO, "[phoneVideo] check adb alive");
  if (!m_adbSrvMgr) {
    Log(LOG_INFO, "[phoneVideo] m_adbSrvMgr is null");
    return true;
  }
  if (!m_adbSrvMgr->IsAdbAlive()) {
    Log(LOG_INFO, "[phoneVideo] adb is dead");
    return false;
  }
  Log(LOG_INFO, "[phoneVideo] adb still alive");
  return true;
}

void CPhoneDeviceManager::Release() {
  if (m_adbSrvMgr) m_adbSrvMgr->StopServer();
}

int CPhoneDeviceManager::EnumIOSDevices() {
  lumo::IosDeviceApi& api = lumo::IosApi();
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  UnInitIOS();
  // A list that UnInitIOS kept (no phone of it could be opened) is freed before it is replaced,
  // or every enumeration of such a phone would lose it.
  if (m_iosDeviceList) api.DeviceListFree(m_iosDeviceList);
  m_iosDeviceList = nullptr;

  char** list = nullptr;
  int count = 0;
  const int err = api.GetDeviceList(&list, &count);
  if (err != 0 || count < 1 || list == nullptr) {
    Log(LOG_INFO, "[phoneVideo] Get ios device failed, err code %d, count %d", err, count);
    if (err == 0 && list) api.DeviceListFree(list);  // an empty list is still allocated
    return 0;
  }
  m_iosDeviceList = list;
  Log(LOG_INFO, "[phoneVideo] Get ios device success, count is %d", count);
  for (int i = 0; i < count && list[i] != nullptr; ++i) {
    const char* udid = list[i];
    Log(LOG_INFO, "[phoneVideo] create idevice for udid %s", udid);
    idevice_t device = nullptr;
    const int newErr = api.NewDevice(&device, udid);
    if (newErr != 0) {
      Log(LOG_ERROR, "[phoneVideo] create ios device failed, err code %d", newErr);
      continue;
    }
    std::wstring name;
    lockdownd_client_t client = nullptr;
    if (api.LockdownClientNew(device, &client) == 0) {
      char* deviceName = nullptr;
      if (api.LockdownGetDeviceName(client, &deviceName) == 0 && deviceName != nullptr) {
        name = lumo::Utf8ToWide(deviceName);
        Log(LOG_INFO, "[phoneVideo] get device name success: %s", deviceName);
        api.FreeText(deviceName);
      }
      // Freed whether or not the name came: a client kept open would hold the connection.
      api.LockdownClientFree(client);
    }
    auto info = std::make_shared<IOSDeviceInfo>();
    info->udid = lumo::Utf8ToWide(udid);
    info->device = device;
    info->name = std::move(name);
    auto& slot = m_mapIOSDevices[info->udid];
    if (slot && slot->device) api.FreeDevice(slot->device);  // the same UDID listed twice
    slot = std::move(info);
  }
  return static_cast<int>(m_mapIOSDevices.size());
}

void CPhoneDeviceManager::UnInitIOS() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_mapIOSDevices.empty()) return;
  lumo::IosDeviceApi& api = lumo::IosApi();
  // A record held elsewhere survives this, but its handle does not.
  for (auto& [udid, info] : m_mapIOSDevices) {
    if (info->device) api.FreeDevice(info->device);
    info->device = nullptr;
  }
  if (m_iosDeviceList) api.DeviceListFree(m_iosDeviceList);
  m_iosDeviceList = nullptr;
  m_mapIOSDevices.clear();
}

bool CPhoneDeviceManager::HasIOSDevice() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return !m_mapIOSDevices.empty();
}

std::map<std::wstring, std::shared_ptr<IOSDeviceInfo>> CPhoneDeviceManager::GetAllIOSDevices() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_mapIOSDevices;
}

std::shared_ptr<IOSDeviceInfo> CPhoneDeviceManager::GetIOSDevice(const std::wstring& udid) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (udid.empty()) return m_mapIOSDevices.empty() ? nullptr : m_mapIOSDevices.begin()->second;
  auto it = m_mapIOSDevices.find(udid);
  if (it != m_mapIOSDevices.end()) return it->second;
  Log(LOG_ERROR, "[phoneVideo] Get ios device failed, udid %s", lumo::WideToUtf8(udid).c_str());
  return nullptr;
}

void CPhoneDeviceManager::RemoveIOSDevice(const std::wstring& udid) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  auto it = m_mapIOSDevices.find(udid);
  if (it == m_mapIOSDevices.end()) return;
  if (it->second->device) lumo::IosApi().FreeDevice(it->second->device);
  it->second->device = nullptr;
  m_mapIOSDevices.erase(it);
}
