// The receive threads and the two outer framings. Bytes from the phone are untrusted: a length
// is believed only up to a bound, a short read is never taken for a whole message, and the
// frame handed on never reaches past what was received into the buffer.
#include <cerrno>
#include <cstring>

#include "device/IosDeviceApi.h"
#include "host/HostServices.h"
#include "host/Log.h"
#include "host/WorkerThread.h"
#include "platform/socket.h"
#include "protocol/PhoneDataParse.h"
#include "usb/CUSBConnectMgr.h"

namespace {

uint32_t BigEndian32(const char* p) {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 | static_cast<uint32_t>(b[2]) << 8 | b[3];
}

constexpr int kIdeviceTimeout = -7;  // libimobiledevice: nothing came within the time-out
constexpr unsigned kIOSReceiveTimeoutMs = 1000;
constexpr uint32_t kIOSHeader = 16;
constexpr uint32_t kAndroidStopSliceMs = 100;

}  // namespace

void CUSBConnectMgr::ParseRcvData(unsigned int len, char* data, ePhoneType type) {
  if (len > 3) {
    m_parser->ParsePhoneData(PHONE_DATA_SOURCE_USB, reinterpret_cast<signed char*>(data), len, type);
  } else {
    Log(LOG_BAD_DATA, "[phoneVideo]ParseRcvData. json data error,len invalid");
  }
}

void CUSBConnectMgr::NotifyConnectionClosed() {
  IUSBEventCallback* callback = m_usbCallback.load();
  if (callback == nullptr) return;
  if (lumo::Host().GetProjectContentType() == 1) {
    callback->OnConnectionError(L"打开Tarro直播-手游直播-有线投屏");
  } else {
    callback->OnConnectionError(L"联合开播连接失败，请检查设备和手机App开启了联合开播\n"
                                L"     （直播app - 我的 - 主播中心 - 联合开播）");
  }
}

void CUSBConnectMgr::ReceiveLoopAndroid(const ReadAll& readAll) {
  m_bRunning = true;
  while (m_bRunning && !m_androidThread->StopRequested()) {
    char prefix[4] = {};
    const int got = readAll(prefix, sizeof prefix);
    if (got < 1) Log(LOG_INFO, "[phoneVideo] ::recv failed: err code: %d", lumo::LastNetError());
    // A length cut short by the end of the link is no length: it ends the session like a 0.
    const uint32_t length = got == 4 ? BigEndian32(prefix) : 0;
    if (length == 0) break;
    if (length > kMaxAndroidMessage) {
      Log(LOG_ERROR, "[phoneVideo] ReceiveProc_Android: size %u is beyond any frame, link ended", length);
      break;
    }
    if (length > m_revBuff.size()) {
      m_revBuff.assign(length, 0);  // kept for later messages
      Log(LOG_BAD_DATA, "[phoneVideo] ReceiveProc_Android: too large size:%d", static_cast<int>(length));
    }
    if (readAll(m_revBuff.data(), length) != static_cast<int>(length)) break;
    ParseRcvData(length, m_revBuff.data(), PHONE_TYPE_ANDROID);
  }
}

void CUSBConnectMgr::ReceiveProcAndroid() {
  std::intptr_t socket;
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    socket = m_socket;
  }
  // The socket is closed only after this thread has been joined, so reading it unlocked is safe.
  // Each read waits for data in short slices and looks at the stop flag between them: a shut
  // socket does not wake a blocked receive everywhere (wine's does not), and Stop must never
  // wait on a thread that sleeps in one. Whole lengths and bodies are gathered across reads.
  auto readAll = [this, socket](char* buffer, size_t len) {
    size_t have = 0;
    while (have < len && !m_androidThread->StopRequested()) {
      const lumo::NetWait wait = lumo::WaitReadable(socket, kAndroidStopSliceMs);
      if (wait == lumo::NetWait::TimedOut) continue;
      if (wait == lumo::NetWait::Error) break;
      const int got = lumo::RecvSocket(socket, buffer + have, len - have, false);
      if (got <= 0) break;
      have += static_cast<size_t>(got);
    }
    return static_cast<int>(have);
  };
  if (socket != lumo::kInvalidSocket) ReceiveLoopAndroid(readAll);
  if (m_bRunning) {
    Log(LOG_INFO, "[phoneVideo] ReceiveProc_Android: connection closed ");
    NotifyConnectionClosed();
  }
  m_bRunning = false;
  m_eConnectPhoneType = 0;
  CloseSocket();  // under the send lock: no sender is using it
  Log(LOG_INFO, "[phoneVideo] tcp thread exit sucess");
}

void CUSBConnectMgr::ReceiveLoopIOS(const ReceiveSome& receive) {
  Log(LOG_INFO, "[phoneVideo] IOS ReceiveProc enter");
  m_bRunning = true;
  // Reads exactly `len` bytes; a time-out between parts is waited out (the phone is only
  // quiet), an error or a stop ends it.
  auto readExactly = [&](char* buffer, uint32_t len, int& err) {
    uint32_t have = 0;
    while (have < len) {
      if (!m_bRunning || m_sIOSThread->StopRequested()) return false;
      uint32_t got = 0;
      err = receive(buffer + have, len - have, &got, kIOSReceiveTimeoutMs);
      if (err == kIdeviceTimeout || (err == 0 && got == 0)) continue;
      if (err != 0 || got > len - have) return false;
      have += got;
    }
    return true;
  };
  while (m_bRunning && !m_sIOSThread->StopRequested()) {
    char header[kIOSHeader];
    uint32_t got = 0;
    int err = receive(header, kIOSHeader, &got, kIOSReceiveTimeoutMs);
    // libimobiledevice reports a quiet second as a time-out with nothing read: not an end.
    if (got == 0 && (err == 0 || err == kIdeviceTimeout)) continue;
    if (err != 0 || got < 1 || got > kIOSHeader) {
      Log(LOG_ERROR, "[phoneVideo] recv failed: %s", std::strerror(errno));
      break;
    }
    // The rest of a header that came in parts.
    if (got < kIOSHeader && !readExactly(header + got, kIOSHeader - got, err)) {
      Log(LOG_ERROR, "[phoneVideo] recv failed: %s", std::strerror(errno));
      break;
    }
    const uint32_t bodyLength = BigEndian32(header + 12);
    if (bodyLength < 1 || bodyLength > kRevBuffSize - 1) {
      Log(LOG_BAD_DATA, "[phoneVideo] iDataSize invalid");
      continue;
    }
    if (!readExactly(m_revBuff.data(), bodyLength, err)) {
      if (m_bRunning && !m_sIOSThread->StopRequested()) Log(LOG_ERROR, "[phoneVideo] receive error, err: %d", err);
      break;
    }
    const uint32_t realSize = bodyLength >= 4 ? BigEndian32(m_revBuff.data()) : 0;
    if (realSize == 0 || realSize > kRevBuffSize - 4) {
      Log(LOG_BAD_DATA, "[phoneVideo] iRealSize invalid,iRealSize:%d", static_cast<int>(realSize));
      continue;
    }
    // The real size is not checked against the body: a frame that claims more than came reads
    // on into the buffer, never past it (real size + 4 stays within its first 6,144,000 bytes),
    // and finds zeros there as it always has, not an older message.
    if (realSize + 4 > bodyLength) std::memset(m_revBuff.data() + bodyLength, 0, realSize + 4 - bodyLength);
    ParseRcvData(realSize, m_revBuff.data() + 4, PHONE_TYPE_IOS);
  }
}

void CUSBConnectMgr::ReceiveProcIOS() {
  idevice_connection_t connection;
  {
    std::lock_guard<std::recursive_mutex> guard(m_sendLock);
    connection = m_iosConnection;
  }
  // The connection is closed only after this thread has been joined.
  ReceiveLoopIOS([connection](char* buffer, uint32_t len, uint32_t* got, unsigned int timeoutMs) {
    return lumo::IosApi().ReceiveTimeout(connection, buffer, len, got, timeoutMs);
  });
  if (m_bRunning) {
    Log(LOG_INFO, "[phoneVideo] ReceiveProc_IOS: connection closed ");
    NotifyConnectionClosed();
  }
  Log(LOG_INFO, "[phoneVideo] CUSBConnectMgr IOS ReceiveProc exit");
  m_bRunning = false;
  m_eConnectPhoneType = 0;
}
