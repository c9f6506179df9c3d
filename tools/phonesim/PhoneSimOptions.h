// Every knob of the simulated phone: who it claims to be, what it streams, and the scenario
// events it plays at given times after the link comes up.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VideoEncoder.h"

namespace lumo::phonesim {

struct PhoneSimOptions {
  // Identity, as the 2004/2005/2011 answers report it.
  std::string phoneName = "LumoSim,1";
  std::string sysVer = "13";
  std::string appVer = "5.2.0";
  std::string cameraMaxResolution = "1920x1080";
  bool isIOS = false;

  // Video until the PC's content type (1013) says otherwise.
  VideoCodec codec = VideoCodec::H264;
  int width = 1920;
  int height = 1080;
  int fps = 30;
  int bitRate = 8000000;
  int gop = 0;  // 0: one key frame a second
  std::string preset = "ultrafast";
  int encoderThreads = 1;
  std::string videoFile;  // empty: the moving pattern
  bool stampFrames = true;

  // Audio: a sine as AAC-LC; `audioStream` is the media header's stream selector.
  double toneHz = 440;
  double toneLevel = 0.5;
  int sampleRate = 44100;
  int channels = 2;
  int audioBitRate = 128000;
  uint32_t audioStream = 0;

  // Clock: the phone adopts the PC's time match and runs this far ahead of it (or behind).
  int64_t clockSkewMs = 0;

  // Protocol cadence.
  int netTests = 3;                  // 2000 round trips before 2006
  uint32_t pingIntervalMs = 1000;
  uint32_t qualityIntervalMs = 5000; // 2007 while capturing; 0: never

  // Scenario, in ms after the link came up; negative: never.
  int64_t stopVideoAtMs = -1;  // 2008
  int stopVideoCode = 4;
  std::string stopVideoMessage = "video stopped on the phone";
  int64_t projectionAtMs = -1;   // 2015
  int64_t switchPhoneAtMs = -1;  // 2017
  int64_t switchCodecAtMs = -1;  // H.264 <-> H.265, next picture a key frame
  int64_t dropAtMs = -1;         // close the link
  int64_t stallAtMs = -1;        // stop reading from the PC ...
  uint32_t stallMs = 0;          // ... for this long

  // Transport: "tcp" (the Android app behind adb forwarding) or "kcp" (WiFi).
  std::string transport = "tcp";
  uint32_t bindAddress = 0x7F000001u;  // host byte order
  uint16_t port = 8182;                // tcp: where the PC connects (0: any free port); kcp: our UDP port (0: any)
  uint32_t pcAddress = 0x7F000001u;    // kcp: where the PC listens (host byte order)
  uint16_t pcPort = 10099;

  // USB phone, Android: an adb device on this emulator port that adb servers find (0: off).
  uint16_t adbDevicePort = 0;
  std::string adbProduct = "lumosim";
  std::string adbModel = "LumoSim_Phone";
  std::string adbDevice = "lumosim";
  std::string appPackage = "com.lumo.hqcamera";  // what "pm list package -3" lists
  bool appInstalled = true;
  bool appRunning = true;

  // USB phone, iPhone: a usbmuxd on this UNIX socket path or 127.0.0.1:PORT (empty: off).
  std::string usbmuxdAddress;
  std::vector<std::string> udids;  // one phone per UDID (empty: one default UDID)
  std::string iosDeviceName = "LumoSim iPhone";
  std::string iosProductType = "iPhone14,2";
};

}  // namespace lumo::phonesim
