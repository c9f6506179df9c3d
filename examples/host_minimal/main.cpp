// host_minimal: the smallest correct host of LumoHqPhoneCamera, built from the installed package
// alone. It lists the phones on USB cables, reports the WiFi link's state and shuts the library
// down in order. No phone is needed: without one the list is empty and the program still ends 0.
//
// Who owns what:
//  - The library owns its singletons (GetInstance) and every thread it starts; each manager
//    stops and joins its own threads in Stop/OnExit, so once the shutdown calls at the end have
//    returned, no library thread calls host code any more.
//  - The host owns what it hands in: its window and its callback objects, which must stay alive
//    until OnExit has returned. It also owns every Json::Value that comes with a host message
//    (lParam) once its sink or window procedure has accepted the message.
//  - What comes back by value (the phone list) is the host's copy.
//
// The order of calls in a full host:
//  1. SetHostServices, when the host brings its own logger, ini files and timers (the defaults
//     work on their own), and the message sink, before the first GetInstance.
//  2. Window and callbacks: CUSBConnectMgr::SetHwnd, SetUSBEventCallback,
//     PhoneDataParse::SetUSBCallback and SetWifiCallback.
//  3. USB: GetPhoneDeviceList, then CUSBConnectMgr::Start(type, uuid), which opens the link and
//     begins the handshake. WiFi: WifiConnectManager::Start (listens on UDP port 10099), then
//     PhoneDataParse::StartConnect once the phone is heard.
//  4. The render thread pulls pictures with CVideoDecoder::GetInstance()->GetYuvData.
//  5. Shutdown: OnExit on each manager, then CPhoneDeviceManager::Release (stops the adb server).
#include <json/value.h>
#include <json/writer.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "device/CPhoneDeviceManager.h"
#include "platform/host_window.h"
#include "protocol/PhoneDataParse.h"
#include "usb/CUSBConnectMgr.h"
#include "wifi/WifiConnectManager.h"

namespace {

// Called on the library's transport threads, never on the host's own thread.
struct UsbEvents final : IUSBEventCallback {
  void OnPhonePrepared() override { std::puts("usb: phone prepared"); }
  void OnConnectionError(const std::wstring&) override { std::puts("usb: connection closed"); }
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
};

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value);
}

}  // namespace

int main() {
  UsbEvents usbEvents;  // outlives every session: declared before the first call, gone after OnExit
  CUSBConnectMgr* usb = CUSBConnectMgr::GetInstance();
#ifndef _WIN32
  // Off Windows the library's window messages reach the host through this sink; the window handle
  // is only a token that comes back with each message. Accepting a message takes its Json::Value.
  static int windowToken;
  lumo::SetHostMessageSink([](HWND, uint32_t msg, uintptr_t, intptr_t lParam) {
    std::unique_ptr<Json::Value> body(reinterpret_cast<Json::Value*>(lParam));
    std::printf("host message %u: %s\n", static_cast<unsigned>(msg), Compact(*body).c_str());
    return true;
  });
  usb->SetHwnd(reinterpret_cast<HWND>(&windowToken));
#endif
  // A Windows host passes its own window to SetHwnd and receives the same messages in its window
  // procedure (PostMessageW). This one has no window, so nothing is posted there.
  usb->SetUSBEventCallback(&usbEvents);
  PhoneDataParse::GetInstance()->SetUSBCallback(&usbEvents);

  // Android phones through adb, iPhones through usbmux: {"devices":[...]} or {"devices":null}.
  const Json::Value list = usb->GetPhoneDeviceList();
  if (!list.isObject() || !list.isMember("devices")) {
    std::fprintf(stderr, "host_minimal: unexpected phone list %s\n", Compact(list).c_str());
    return 1;
  }
  const Json::Value& phones = list["devices"];
  std::printf("phones: %u\n", phones.size());
  for (const Json::Value& phone : phones) {
    std::printf("  %s %s \"%s\" %s\n", phone["type"].asInt() == PHONE_TYPE_IOS ? "ios" : "android",
                phone["uuid"].asCString(), phone["name"].asCString(), phone["product"].asCString());
  }

  // Not started here: Start would bind UDP port 10099 and wait for a phone on the network.
  std::printf("wifi: %s\n", WifiConnectManager::GetInstance()->IsRunning() ? "running" : "stopped");

  usb->OnExit();
  WifiConnectManager::GetInstance()->OnExit();
  CPhoneDeviceManager::GetInstance()->Release();
  usb->SetUSBEventCallback(nullptr);
  PhoneDataParse::GetInstance()->SetUSBCallback(nullptr);
#ifndef _WIN32
  lumo::SetHostMessageSink(nullptr);
#endif
  return 0;
}
