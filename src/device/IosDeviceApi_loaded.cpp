// libimobiledevice bound at run time (Windows): the DLL is looked for beside our own module,
// then beside the host's executable. Without it there are no iPhones, and one log line says so.
#include <mutex>

#include "device/IosDeviceApi.h"
#include "host/HostServices.h"
#include "host/Log.h"
#include "platform/dynamic_library.h"
#include "platform/errors.h"
#include "platform/paths.h"
#include "platform/socket.h"
#include "platform/text.h"

namespace lumo {
namespace {

constexpr wchar_t kLibraryName[] = L"libimobiledevice-1.0.dll";
constexpr int kNotLoaded = -255;  // what every call answers without the library

class LoadedIosDeviceApi final : public IosDeviceApi {
 public:
  bool Available(std::string& why) override {
    Load();
    why = m_why;
    return m_library != nullptr;
  }

  int GetDeviceList(char*** list, int* count) override { return Call(m_getDeviceList, list, count); }
  int DeviceListFree(char** list) override { return Call(m_deviceListFree, list); }
  int NewDevice(idevice_t* device, const char* udid) override { return Call(m_new, device, udid); }
  int FreeDevice(idevice_t device) override { return Call(m_free, device); }
  int LockdownClientNew(idevice_t device, lockdownd_client_t* client) override {
    return Call(m_lockdownNew, device, client, static_cast<const char*>(nullptr));
  }
  int LockdownGetDeviceName(lockdownd_client_t client, char** name) override {
    return Call(m_lockdownName, client, name);
  }
  int LockdownClientFree(lockdownd_client_t client) override { return Call(m_lockdownFree, client); }
  // The text was allocated by the DLL's C runtime, which need not be ours: freeing it here
  // could corrupt either heap, so the few bytes of a device name are left.
  void FreeText(char*) override {}
  int Connect(idevice_t device, uint16_t port, idevice_connection_t* connection) override {
    return Call(m_connect, device, port, connection);
  }
  int Disconnect(idevice_connection_t connection) override { return Call(m_disconnect, connection); }
  int Send(idevice_connection_t connection, const char* data, uint32_t len, uint32_t* sent) override {
    return Call(m_send, connection, data, len, sent);
  }
  int ReceiveTimeout(idevice_connection_t connection, char* data, uint32_t len, uint32_t* received,
                     unsigned int timeoutMs) override {
    return Call(m_receiveTimeout, connection, data, len, received, timeoutMs);
  }
  int Receive(idevice_connection_t connection, char* data, uint32_t len, uint32_t* received) override {
    return Call(m_receive, connection, data, len, received);
  }
  void Shutdown(idevice_connection_t connection) override {
    int fd = -1;
    if (Call(m_getFd, connection, &fd) == 0 && fd >= 0) ShutdownSocket(fd);
  }

 private:
  template <typename F, typename... A>
  int Call(F* fn, A... args) {
    Load();
    return fn ? fn(args...) : kNotLoaded;
  }

  template <typename F>
  bool Bind(F*& fn, const char* name) {
    fn = reinterpret_cast<F*>(DynamicLibrarySymbol(m_library, name));
    if (!fn) m_why = std::string("libimobiledevice has no ") + name;
    return fn != nullptr;
  }

  void Load() {
    std::call_once(m_once, [this] {
      std::wstring hostFolder = Host().HostExecutablePath();
      const size_t slash = hostFolder.find_last_of(L"\\/");
      if (slash != std::wstring::npos) hostFolder.resize(slash);
      for (const std::wstring& folder : {OwnModuleFolder(), hostFolder}) {
        m_library = OpenDynamicLibrary(JoinPath(folder, kLibraryName));
        if (m_library) break;
      }
      if (!m_library) {
        m_why = "libimobiledevice-1.0.dll was not found beside the library or the host (error " +
                std::to_string(LastSystemError()) + ")";
      } else if (!(Bind(m_getDeviceList, "idevice_get_device_list") && Bind(m_deviceListFree, "idevice_device_list_free") &&
                   Bind(m_new, "idevice_new") && Bind(m_free, "idevice_free") &&
                   Bind(m_lockdownNew, "lockdownd_client_new") && Bind(m_lockdownName, "lockdownd_get_device_name") &&
                   Bind(m_lockdownFree, "lockdownd_client_free") && Bind(m_connect, "idevice_connect") &&
                   Bind(m_disconnect, "idevice_disconnect") && Bind(m_send, "idevice_connection_send") &&
                   Bind(m_receiveTimeout, "idevice_connection_receive_timeout") &&
                   Bind(m_receive, "idevice_connection_receive") && Bind(m_getFd, "idevice_connection_get_fd"))) {
        CloseDynamicLibrary(m_library);
        m_library = nullptr;
        m_getDeviceList = nullptr;  // every call then answers kNotLoaded
      }
      if (!m_library) Log(LOG_ERROR, "[phoneVideo] iOS devices unavailable: %s", m_why.c_str());
    });
  }

  std::once_flag m_once;
  void* m_library = nullptr;
  std::string m_why;
  int (*m_getDeviceList)(char***, int*) = nullptr;
  int (*m_deviceListFree)(char**) = nullptr;
  int (*m_new)(idevice_t*, const char*) = nullptr;
  int (*m_free)(idevice_t) = nullptr;
  int (*m_lockdownNew)(idevice_t, lockdownd_client_t*, const char*) = nullptr;
  int (*m_lockdownName)(lockdownd_client_t, char**) = nullptr;
  int (*m_lockdownFree)(lockdownd_client_t) = nullptr;
  int (*m_connect)(idevice_t, uint16_t, idevice_connection_t*) = nullptr;
  int (*m_disconnect)(idevice_connection_t) = nullptr;
  int (*m_send)(idevice_connection_t, const char*, uint32_t, uint32_t*) = nullptr;
  int (*m_receiveTimeout)(idevice_connection_t, char*, uint32_t, uint32_t*, unsigned int) = nullptr;
  int (*m_receive)(idevice_connection_t, char*, uint32_t, uint32_t*) = nullptr;
  int (*m_getFd)(idevice_connection_t, int*) = nullptr;
};

}  // namespace

IosDeviceApi& SystemIosDeviceApi() {
  static LoadedIosDeviceApi api;
  return api;
}

}  // namespace lumo
