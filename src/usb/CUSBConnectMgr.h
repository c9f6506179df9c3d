// The phone link over a USB cable. Android: the adb client checks the app and forwards local
// port 8181 to the app's port on the phone, then a TCP socket connects to 127.0.0.1:8181.
// iPhone: a usbmux connection to the app's port through libimobiledevice. Either way one
// receive thread strips the outer framing and hands each frame to the dispatcher; outgoing
// frames come back through IDataSender.
//
// Threads: host threads call the operations; the receive thread (one per session, owned and
// joined by this object) runs the dispatcher and the host callbacks. Stop wakes the receive
// thread by shutting its socket down and waits for it, so no thread is ever left inside the
// dispatcher: it returns once the frame being dispatched has been handled (logged when that
// takes longer than 200 ms for Android, 1,200 ms for iOS).
#pragma once

#include <json/value.h>  // GetPhoneDeviceList returns one: a host needs the whole type

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device/PhoneDeviceTypes.h"
#include "host/PhoneCameraTypes.h"
#include "platform/export.h"
#include "platform/host_window.h"

namespace PHONE {
class IAdbClient;
}
namespace lumo {
class WorkerThread;
}
class PhoneDataParse;
class CPhoneCameraCtrl;
class H264DataReviever;
class CVideoDecoder;
class CPhoneDeviceManager;

class LUMO_API CUSBConnectMgr : public IDataSender {
 public:
  static CUSBConnectMgr* GetInstance();

  // Collaborators default to the process-wide ones; tests pass their own.
  CUSBConnectMgr(PhoneDataParse* parser = nullptr, CPhoneCameraCtrl* ctrl = nullptr, H264DataReviever* video = nullptr,
                 CVideoDecoder* decoder = nullptr, CPhoneDeviceManager* devices = nullptr);
  ~CUSBConnectMgr() override;
  CUSBConnectMgr(const CUSBConnectMgr&) = delete;
  CUSBConnectMgr& operator=(const CUSBConnectMgr&) = delete;

  // Also gives the camera controller its window for host messages (a null window is ignored there).
  void SetHwnd(HWND hwnd);
  void SetUSBEventCallback(IUSBEventCallback* callback);
  // Opens a session to the phone with that serial (Android, as listed) or UDID (iOS).
  bool Start(ePhoneType type, const std::wstring& udid);
  // With bSendMsg the phone is first asked to stop capture. Returns when the receive thread ended.
  void Stop(bool bSendMsg);
  void OnExit();
  bool IsRunning() { return m_bRunning.load(); }
  // One frame as the dispatcher built it, written whole under the send lock.
  bool SendData(const std::string& frame) override;
  void SendByteData(char* buf, int offset, unsigned int len);
  void NotifyLiveState(unsigned int state, const std::string& roomid, const std::string& lumoId,
                       const std::string& channelId);
  // {"devices":[{"uuid","type","name","product"}...]}, or {"devices":null} without phones.
  Json::Value GetPhoneDeviceList();
  void InitDeviceEnv();
  void RefleshDevice();
  bool HasAndroidDevice();
  bool HasIOSDevice();
  bool CheckAdbAlive();

  // The outer framings, on any byte source, for the receive threads, the tests and the fuzzers.
  // `readAll` fills the whole buffer and returns its size, or fewer when the link ended.
  // `receive` reads up to `len` bytes within `timeoutMs` as libimobiledevice does (its error code;
  // a time-out is not an end).
  using ReadAll = std::function<int(char* buffer, size_t len)>;
  using ReceiveSome = std::function<int(char* buffer, uint32_t len, uint32_t* got, unsigned int timeoutMs)>;
  void ReceiveLoopAndroid(const ReadAll& readAll);
  void ReceiveLoopIOS(const ReceiveSome& receive);
  // The receive buffer's size now (grows for a message above it, never shrinks).
  size_t ReceiveBufferSize() const { return m_revBuff.size(); }
  void SetRunningForTest(bool running) { m_bRunning = running; }

  static constexpr uint16_t kLocalForwardPort = 8181;
  static constexpr size_t kRevBuffSize = 6144000;
  // A length above this ends the session instead of being allocated: the phone's largest
  // frames (4K key frames) are a few MB, and a peer must not make us allocate gigabytes.
  static constexpr uint32_t kMaxAndroidMessage = 64u << 20;

 private:
  bool ConnectToAndroidDevice(unsigned int port);
  void CleanUpAndroid();
  void CleanUpIOS();
  int CloseSocket();
  void ParseRcvData(unsigned int len, char* data, ePhoneType type);
  void SendJsonData(const Json::Value& value);
  unsigned int GetStandardTime();
  void ReceiveProcAndroid();
  void ReceiveProcIOS();
  void NotifyConnectionClosed();
  bool WriteAndroid(const char* data, size_t len);
  bool WriteIOS(const char* data, uint32_t len);
  bool OnReceiveThread() const;

  std::atomic<HWND> m_hWnd{nullptr};
  std::shared_ptr<PHONE::IAdbClient> m_adbClient;
  const std::wstring m_appKeyword = L"lumo";
  std::atomic<IUSBEventCallback*> m_usbCallback{nullptr};
  uint64_t m_clockStartUs = 0;

  // The link: the socket or usbmux connection, and every write to it, under m_sendLock. The
  // receive thread reads without the lock; the handle is closed only once that thread is done.
  std::recursive_mutex m_sendLock;
  std::intptr_t m_socket;
  idevice_connection_t m_iosConnection = nullptr;
  std::shared_ptr<IOSDeviceInfo> m_iosDevice;  // the record of the connected iPhone

  std::vector<char> m_revBuff;  // used by the receive thread only
  std::atomic<bool> m_bRunning{false};
  std::atomic<int> m_eConnectPhoneType{0};
  std::unique_ptr<lumo::WorkerThread> m_androidThread;
  std::unique_ptr<lumo::WorkerThread> m_sIOSThread;

  PhoneDataParse* m_parser;
  CPhoneCameraCtrl* m_ctrl;
  H264DataReviever* m_video;
  CVideoDecoder* m_decoder;
  CPhoneDeviceManager* m_devices;
};
