#include "usb/CUSBConnectMgr.h"

#include <json/json.h>

#include <cstring>

#include "device/AdbDeviceClient.h"
#include "device/CPhoneDeviceManager.h"
#include "device/IosDeviceApi.h"
#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "host/WorkerThread.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/socket.h"
#include "platform/text.h"
#include "protocol/PhoneDataParse.h"

namespace {
constexpr unsigned kMsgAndroidStart = 3162;
constexpr unsigned kMsgIOSStart = 3166;
constexpr size_t kSendBufSize = 10240;
constexpr uint32_t kAndroidJoinLogMs = 200;
constexpr uint32_t kIOSJoinLogMs = 1200;
}  // namespace

CUSBConnectMgr* CUSBConnectMgr::GetInstance() {
  static CUSBConnectMgr instance;
  return &instance;
}

CUSBConnectMgr::CUSBConnectMgr(PhoneDataParse* parser, CPhoneCameraCtrl* ctrl, H264DataReviever* video,
                               CVideoDecoder* decoder, CPhoneDeviceManager* devices)
    : m_socket(lumo::kInvalidSocket),
      m_revBuff(kRevBuffSize),
      m_androidThread(std::make_unique<lumo::WorkerThread>("usb android receive")),
      m_sIOSThread(std::make_unique<lumo::WorkerThread>("usb ios receive")),
      m_parser(parser != nullptr ? parser : PhoneDataParse::GetInstance()),
      m_ctrl(ctrl != nullptr ? ctrl : CPhoneCameraCtrl::GetInstance()),
      m_video(video != nullptr ? video : H264DataReviever::GetInstance()),
      m_decoder(decoder),
      m_devices(devices != nullptr ? devices : CPhoneDeviceManager::GetInstance()) {
  lumo::NetStartup();
  m_clockStartUs = lumo::PerfCounterUs();
  m_parser->SetDataSender(PHONE_DATA_SOURCE_USB, this);
}

CUSBConnectMgr::~CUSBConnectMgr() {
  if (m_bRunning) Stop(true);
  // Whatever a session left behind, its thread included, goes before the object does.
  CleanUpAndroid();
  CleanUpIOS();
  m_parser->SetDataSender(PHONE_DATA_SOURCE_USB, nullptr);
}

void CUSBConnectMgr::SetHwnd(HWND hwnd) {
  m_hWnd = hwnd;
  if (hwnd != nullptr) m_ctrl->SetHwnd(hwnd);
}

void CUSBConnectMgr::SetUSBEventCallback(IUSBEventCallback* callback) { m_usbCallback = callback; }

bool CUSBConnectMgr::Start(ePhoneType type, const std::wstring& udid) {
  const std::string id = lumo::WideToUtf8(udid);
  Log(LOG_INFO, type == PHONE_TYPE_ANDROID ? "[phoneVideo] ConnectToPhone type:android , udid:%s"
                                           : "[phoneVideo] ConnectToPhone type:ios , udid:%s",
      id.c_str());
  if (type == PHONE_TYPE_UNKNOWN || udid.empty()) return false;
  m_ctrl->SetConnectMode(1);
  Log(LOG_INFO, "[phoneVideo] SetConnectMode:usb");
  m_video->SetWaitFirstIFrame(true);
  const bool secondContent = lumo::Host().GetProjectContentType() == 1;

  if (type == PHONE_TYPE_ANDROID) {
    const PHONE::AndroidDeviceInfo device = m_devices->GetAndroidDevice(udid);
    if (device.serial.empty()) return false;
    auto client = std::make_shared<PHONE::AdbDeviceClient>();
    client->SetDevice(m_devices->GetAdbFilePath(), device);
    m_adbClient = client;
    if (!m_adbClient->IsPackageInstalled(m_appKeyword)) {
      m_ctrl->PostLiveMessage(kMsgAndroidStart, 1, 24);
      return false;
    }
    if (!m_adbClient->IsProcessRunning(m_appKeyword)) {
      m_ctrl->PostLiveMessage(kMsgAndroidStart, 1, 25);
      return false;
    }
    if (!m_adbClient->CreateForward(kLocalForwardPort, secondContent ? 8183 : 8182)) {
      if (m_hWnd.load() != nullptr) m_ctrl->PostLiveMessage(kMsgAndroidStart, 1, 22);
      Log(LOG_ERROR, "[phoneVideo] connect adb tcp failed1,adb create forward fail");
      return false;
    }
    if (!ConnectToAndroidDevice(kLocalForwardPort)) {
      Log(LOG_ERROR, "[phoneVideo] connect adb tcp failed2,adb connect to local port fail.port:%d", kLocalForwardPort);
      m_ctrl->PostLiveMessage(kMsgAndroidStart, 1, 26);
      return false;
    }
    m_bRunning = true;
    m_eConnectPhoneType = PHONE_TYPE_ANDROID;
    Log(LOG_INFO, "[phoneVideo] connect phone server sucess");
    m_parser->StartConnect(PHONE_DATA_SOURCE_USB);
    return true;
  }

  if (type == PHONE_TYPE_IOS) {
    std::shared_ptr<IOSDeviceInfo> device = m_devices->GetIOSDevice(udid);
    if (!device || device->device == nullptr) {
      Log(LOG_INFO, "[phoneVideo] ios hand is null");
      m_ctrl->PostLiveMessage(kMsgIOSStart, 1, 0);
      return false;
    }
    CleanUpIOS();
    idevice_connection_t connection = nullptr;
    const int err = lumo::IosApi().Connect(device->device, secondContent ? 2346 : 2345, &connection);
    if (err != 0) {
      Log(LOG_ERROR, "[phoneVideo] idevice_connect failed, err is %d", err);
      m_ctrl->PostLiveMessage(kMsgIOSStart, 1, static_cast<unsigned>(err));
      return false;
    }
    {
      std::lock_guard<std::recursive_mutex> guard(m_sendLock);
      m_iosConnection = connection;
      m_iosDevice = device;
    }
    if (!m_sIOSThread->Start([this] { ReceiveProcIOS(); })) {
      Log(LOG_ERROR, "[phoneVideo] create thread error, error code:%d", lumo::LastSystemError());
      m_ctrl->PostLiveMessage(kMsgIOSStart, 1, 2);
      return false;
    }
    m_bRunning = true;
    m_eConnectPhoneType = PHONE_TYPE_IOS;
    Log(LOG_INFO, "[phoneVideo] connect phone tcp sucess");
    m_parser->StartConnect(PHONE_DATA_SOURCE_USB);
    return true;
  }
  return false;
}

bool CUSBConnectMgr::ConnectToAndroidDevice(unsigned int port) {
  std::intptr_t socket;
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    if (m_socket == lumo::kInvalidSocket) m_socket = lumo::OpenTcpSocket();
    socket = m_socket;
  }
  if (!lumo::ConnectSocket(socket, lumo::Ipv4Endpoint{lumo::kIpv4Loopback, static_cast<uint16_t>(port)})) {
    Log(LOG_ERROR, "[phoneVideo] connect error: %d", lumo::LastNetError());
    // Not every socket layer takes a second connect on a socket whose first one failed (wine's
    // does not), so a fresh one is made for the next try; a running session's socket stays.
    if (!m_androidThread->IsRunning()) CloseSocket();
    return false;
  }
  Log(LOG_INFO, "[phoneVideo] connect phone tcp sucess");
  if (!m_androidThread->Start([this] { ReceiveProcAndroid(); })) {
    Log(LOG_ERROR, "[phoneVideo] create thread error, error code:%d", lumo::LastSystemError());
    return false;
  }
  return true;
}

int CUSBConnectMgr::CloseSocket() {
  std::lock_guard<std::recursive_mutex> guard(m_sendLock);
  if (m_socket == lumo::kInvalidSocket) return 0;
  lumo::CloseSocket(m_socket);
  return 0;
}

bool CUSBConnectMgr::OnReceiveThread() const {
  return m_androidThread->IsCurrentThread() || m_sIOSThread->IsCurrentThread();
}

void CUSBConnectMgr::Stop(bool bSendMsg) {
  Log(LOG_INFO, "[phoneVideo] disconnnect usb devices, bSendMsg: %d", bSendMsg ? 1 : 0);
  if (bSendMsg) m_parser->StopCapture(PHONE_DATA_SOURCE_USB);
  m_ctrl->SetConnectMode(0);
  m_bRunning = false;
  // Both ends are cleaned whatever the receive thread already cleared: a session that the phone
  // ended still has a thread to collect and, for iOS, a connection to close.
  CleanUpAndroid();
  CleanUpIOS();
}

void CUSBConnectMgr::CleanUpAndroid() {
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    lumo::ShutdownSocket(m_socket);  // wakes the blocked receive
  }
  // From the receive thread itself (a host callback that stops the link) this only asks; the
  // thread then sees the shut socket and ends by itself.
  m_androidThread->Stop(kAndroidJoinLogMs);
  if (!m_androidThread->IsCurrentThread()) CloseSocket();
}

void CUSBConnectMgr::CleanUpIOS() {
  idevice_connection_t connection;
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    connection = m_iosConnection;
  }
  if (connection == nullptr && !m_sIOSThread->IsRunning()) return;
  Log(LOG_INFO, "[phoneVideo] begin CleanUpIOS");
  m_bRunning = false;
  if (connection != nullptr) lumo::IosApi().Shutdown(connection);
  m_sIOSThread->Stop(kIOSJoinLogMs);
  Log(LOG_INFO, "[phoneVideo] wait end, dwRet is %d", 0);
  if (m_sIOSThread->IsCurrentThread()) return;  // the connection is closed by the next clean-up
  std::lock_guard<std::recursive_mutex> guard(m_sendLock);
  if (m_iosConnection != nullptr) lumo::IosApi().Disconnect(m_iosConnection);
  m_iosConnection = nullptr;
  m_iosDevice.reset();
}

void CUSBConnectMgr::OnExit() {
  if (m_bRunning) Stop(true);
}

bool CUSBConnectMgr::WriteAndroid(const char* data, size_t len) {
  std::lock_guard<std::recursive_mutex> guard(m_sendLock);
  if (m_socket == lumo::kInvalidSocket) return false;
  // A blocking socket may still take a frame in parts; the rest follows at once, under the
  // lock, so that frames from several threads never interleave.
  while (len > 0) {
    const int sent = lumo::SendSocket(m_socket, data, len);
    if (sent <= 0) return false;
    data += sent;
    len -= static_cast<size_t>(sent);
  }
  return true;
}

bool CUSBConnectMgr::WriteIOS(const char* data, uint32_t len) {
  std::lock_guard<std::recursive_mutex> guard(m_sendLock);
  if (m_iosConnection == nullptr) return false;
  while (len > 0) {
    uint32_t sent = 0;
    const int err = lumo::IosApi().Send(m_iosConnection, data, len, &sent);
    if (err != 0 || sent == 0 || sent > len) {
      Log(LOG_ERROR, "SendByteData to ios device failed, err %d", err);
      return false;
    }
    data += sent;
    len -= sent;
  }
  return true;
}

bool CUSBConnectMgr::SendData(const std::string& frame) {
  switch (m_eConnectPhoneType.load()) {
    case PHONE_TYPE_ANDROID:
      return WriteAndroid(frame.data(), frame.size());
    case PHONE_TYPE_IOS: {
      if (frame.size() > 0xFFFFFFFFu - 16) return false;
      const uint32_t size = static_cast<uint32_t>(frame.size());
      std::string packet(16, '\0');
      const uint32_t words[4] = {1, 101, 0, size};
      for (int w = 0; w < 4; ++w)
        for (int b = 0; b < 4; ++b) packet[w * 4 + b] = static_cast<char>(words[w] >> (24 - 8 * b));
      packet += frame;
      return WriteIOS(packet.data(), static_cast<uint32_t>(packet.size()));
    }
    default:
      return false;
  }
}

void CUSBConnectMgr::SendByteData(char* buf, int offset, unsigned int len) {
  if (buf == nullptr || offset < 0) return;
  switch (m_eConnectPhoneType.load()) {
    case PHONE_TYPE_ANDROID:
      WriteAndroid(buf + offset, len);
      break;
    case PHONE_TYPE_IOS:
      WriteIOS(buf + offset, len);
      break;
    default:
      break;
  }
}

void CUSBConnectMgr::SendJsonData(const Json::Value& value) {
  const std::string text = Json::FastWriter().write(value);
  // The buffer is fixed; a text that does not fit is refused rather than written past it.
  if (text.size() + 5 > kSendBufSize) {
    Log(LOG_ERROR, "[phoneVideo] SendJsonData: %u bytes do not fit", static_cast<unsigned>(text.size()));
    return;
  }
  char buf[kSendBufSize] = {};
  const uint32_t length = static_cast<uint32_t>(text.size() + 1);
  for (int b = 0; b < 4; ++b) buf[b] = static_cast<char>(length >> (24 - 8 * b));
  buf[4] = 1;
  std::memcpy(buf + 5, text.data(), text.size());
  SendByteData(buf, 0, static_cast<unsigned>(text.size() + 5));
}

unsigned int CUSBConnectMgr::GetStandardTime() {
  return static_cast<unsigned int>((lumo::PerfCounterUs() - m_clockStartUs) / 1000.0);
}

void CUSBConnectMgr::NotifyLiveState(unsigned int state, const std::string& roomid, const std::string& lumoId,
                                     const std::string& channelId) {
  CVideoDecoder* decoder = m_decoder != nullptr ? m_decoder : CVideoDecoder::GetInstance();
  if (decoder->IsDecoding()) m_parser->SendLiveEvent(PHONE_DATA_SOURCE_USB, state, roomid, lumoId, channelId);
}

Json::Value CUSBConnectMgr::GetPhoneDeviceList() {
  m_devices->EnumAndroidDevices();
  m_devices->EnumIOSDevices();
  Json::Value list;
  Json::Value& devices = list["devices"];  // null until the first phone is appended
  for (auto& [serial, info] : m_devices->GetAllAndroidDevices()) {
    Json::Value phone;
    phone["uuid"] = lumo::WideToUtf8(info.serial);
    phone["type"] = 1;
    phone["name"] = lumo::WideToUtf8(info.device);
    phone["product"] = lumo::WideToUtf8(info.product);
    devices.append(phone);
  }
  for (auto& [udid, info] : m_devices->GetAllIOSDevices()) {
    Json::Value phone;
    phone["uuid"] = lumo::WideToUtf8(info->udid);
    phone["type"] = 2;
    phone["name"] = lumo::WideToUtf8(info->name);
    // Lockdown is asked for the device name alone, which needs no pairing; the product type
    // would need more, so it is left empty.
    phone["product"] = "";
    devices.append(phone);
  }
  return list;
}

void CUSBConnectMgr::InitDeviceEnv() {
  m_devices->InitAndroidEnv();
  m_devices->EnumAndroidDevices();
  m_devices->EnumIOSDevices();
}

void CUSBConnectMgr::RefleshDevice() {
  m_devices->EnumAndroidDevices();
  m_devices->EnumIOSDevices();
}

bool CUSBConnectMgr::HasAndroidDevice() { return m_devices->HasAndroidDevice(); }

bool CUSBConnectMgr::HasIOSDevice() { return !m_devices->GetAllIOSDevices().empty(); }

bool CUSBConnectMgr::CheckAdbAlive() { return m_devices->CheckAdbAlive(); }
