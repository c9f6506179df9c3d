// The enumerations and interfaces shared between the host and the library.
#pragma once

#include <string>

#include "platform/export.h"

namespace Json {
class Value;
}

// Which kind of phone a USB link talks to. The WiFi path always passes 0.
enum ePhoneType : int {
  PHONE_TYPE_UNKNOWN = 0,
  PHONE_TYPE_ANDROID = 1,
  PHONE_TYPE_IOS = 2,
};

// The transport a frame came from or a command goes to. Code that distinguishes the two tests
// for 2 and treats every other value as USB.
enum ePhoneDataSource : int {
  PHONE_DATA_SOURCE_USB = 1,
  PHONE_DATA_SOURCE_WIFI = 2,
};

// Which camera setting PhoneDataParse::SetPhoneCameraParams changes.
enum PHONE_CAMERA_PARAM_TYPE : int {
  PHONE_CAMERA_PARAM_EXPOSE = 0,
  PHONE_CAMERA_PARAM_EXPOSE_COMPENSATION = 1,
  PHONE_CAMERA_PARAM_WHITE_BALANCE = 2,
  PHONE_CAMERA_PARAM_BOKEH = 3,
  PHONE_CAMERA_PARAM_SWITCH_CAM = 4,
};

// Sends one complete outgoing frame (length prefix included) to the phone. Implemented by the
// USB and WiFi managers; the library never owns a sender.
// SendData may be called from several threads at once (a transport's receive thread answering
// the phone, the protocol's delayed work, the host's own thread). Each implementation writes a
// frame whole under its own lock, so two frames never interleave on the link.
class IDataSender {
 public:
  virtual bool SendData(const std::string& frame) = 0;
  virtual ~IDataSender() = default;
};

// Upcalls from the KCP-over-UDP endpoint to its owner.
class IWiFiDataHandler {
 public:
  virtual void HandleReceive(const char* data, int len) = 0;
  virtual void HandleTimeout() = 0;
  virtual ~IWiFiDataHandler() = default;
};

// Implemented by the host; called from transport threads, never from the host's own thread.
class IUSBEventCallback {
 public:
  virtual void OnPhonePrepared() = 0;
  virtual void OnConnectionError(const std::wstring& message) = 0;
  virtual void OnCameraParamsRefreshed(const Json::Value& params, bool bHasValRange) = 0;

 protected:
  ~IUSBEventCallback() = default;
};

class IWifiEventCallback {
 public:
  virtual void OnPhonePrepared() = 0;
  virtual void OnCaptureStarted() = 0;
  // Not called by the library; the slot is the host's to declare.
  virtual void OnWifiReserved() = 0;
  virtual void OnCameraParamsRefreshed(const Json::Value& params, bool bHasValRange) = 0;
  virtual void OnAppStartProjection() = 0;

 protected:
  ~IWifiEventCallback() = default;
};
