// A phone on a cable, measured: the Android path through Debian's real adb forward (the
// simulated phone as an adb device), beside the same session over WiFi (KCP on loopback, no
// loss), at 1080p30 H.264 and 2160p30 H.265. For every picture the host pulls with GetYuvData:
//   capture   capture time (read from the picture's own stamp) to the pull, in ms;
//   pc side   the packet queued for the decoder (its last byte received and parsed) to the pull;
// and, side by side in the same run, the same packets decoded alone by FFmpeg on one thread.
// After the first two seconds of the stream (start-up, reported apart), every pulled picture
// counts; lost are the frame numbers missing between the first and the last of them. The host
// pulls each picture as soon as the decoder signals it (WaitYuvData). Arguments: --seconds N
// (per session, default 6), --quick (1080p only, 3 s).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PhoneSim.h"
#include "Stats.h"
#include "TimestampBlocks.h"
#include "device/AdbSrvMgr.h"
#include "device/CPhoneDeviceManager.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "protocol/PhoneDataParse.h"
#include "support/AdbTool.h"
#include "support/QuietHost.h"
#include "support/RawDecoder_media.h"
#include "usb/CUSBConnectMgr.h"
#include "wifi/KcpOnUdp.h"
#include "wifi/WifiConnectManager.h"

namespace {

using lumo::bench::Percentile;
using Steady = std::chrono::steady_clock;

constexpr uint32_t kStartupPictures = 60;

double NowUs() { return std::chrono::duration<double, std::micro>(Steady::now().time_since_epoch()).count(); }

struct Prepared : IUSBEventCallback, IWifiEventCallback {
  void OnPhonePrepared() override { ++prepared; }
  void OnConnectionError(const std::wstring&) override {}
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  void OnCaptureStarted() override {}
  void OnWifiReserved() override {}
  void OnAppStartProjection() override {}
  std::atomic<int> prepared{0};
};

// Polls, every 5 ms, set-up states that give no signal (a peer heard, a session prepared); the
// measured part waits on the decoder's own signal.
bool Until(const std::function<bool()>& ready, int seconds = 20) {
  for (int i = 0; i < seconds * 200; ++i) {
    if (ready()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return ready();
}

struct Result {
  std::vector<double> captureMs, pcSideMs, decodeAloneMs;
  std::vector<uint32_t> numbers;  // the pictures' own frame numbers, as pulled
  uint32_t startupPulled = 0;     // pictures of the first kStartupPictures that came through
  bool ok = false;
};

struct Scenario {
  const char* name;
  lumo::phonesim::VideoCodec codec;
  int width, height, bitRate;
};

Result RunSession(bool usb, const Scenario& s, double seconds, lumo::test::QuietHost& host) {
  Result r;
  host.SetProjectionResolution(s.width, s.height);
  lumo::phonesim::PhoneSimOptions o;
  o.codec = s.codec;
  o.width = s.width, o.height = s.height, o.bitRate = s.bitRate;
  o.cameraMaxResolution = std::to_string(s.width) + "x" + std::to_string(s.height);
  o.encoderThreads = 1;
  o.qualityIntervalMs = 0;
  std::mutex tapLock;
  std::vector<std::string> packets;  // the video the phone sent, for decoding alone
  if (usb) {
    o.transport = "adb";
    o.adbDevicePort = 5555;
  } else {
    o.transport = "kcp";
    o.port = 0;
  }
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  Prepared callback;
  parser->SetUSBCallback(&callback);
  parser->SetWifiCallback(&callback);
  std::mutex pushLock;
  std::map<unsigned long long, double> pushedAt;  // phone timestamp -> when queued
  H264DataReviever::GetInstance()->SetPushObserver([&](unsigned long long ts, unsigned long long) {
    std::lock_guard<std::mutex> guard(pushLock);
    pushedAt[ts] = NowUs();
  });

  auto phone = std::make_unique<lumo::phonesim::PhoneSim>(o);
  phone->SetSendTap([&](const std::string& frame) {
    if (frame.size() > 21 && frame[4] == 2) {
      std::lock_guard<std::mutex> guard(tapLock);
      packets.push_back(frame.substr(21));  // after the length, the type and the media header
    }
  });
  std::string error;
  if (!phone->Start(error)) {
    std::fprintf(stderr, "bench_usb: the phone did not start: %s\n", error.c_str());
    return r;
  }
  std::unique_ptr<lumo::test::AdbTool> adb;
  std::unique_ptr<CPhoneDeviceManager> devices;
  std::unique_ptr<CUSBConnectMgr> usbMgr;
  bool started = false;
  if (usb) {
    adb = std::make_unique<lumo::test::AdbTool>();
    if (adb->WaitForDevice("emulator-5554").empty()) {
      std::fprintf(stderr, "bench_usb: adb never listed the phone\n%s\n", adb->ServerLog().c_str());
      return r;
    }
    devices = std::make_unique<CPhoneDeviceManager>(
        std::make_shared<AdbSrvMgr>(lumo::Utf8ToWide(lumo::test::AdbTool::Program())));
    usbMgr = std::make_unique<CUSBConnectMgr>(nullptr, nullptr, nullptr, nullptr, devices.get());
    devices->RefreshDevices();
    started = usbMgr->Start(PHONE_TYPE_ANDROID, devices->GetAndroidDevice(L"").serial);
  } else {
    WifiConnectManager* wifi = WifiConnectManager::GetInstance();
    wifi->Start();
    started = Until([wifi] { return wifi->Endpoint()->PeerAddress().port != 0; });
    if (started) parser->StartConnect(PHONE_DATA_SOURCE_WIFI);
  }
  if (!started || !Until([&] { return callback.prepared > 0; })) {
    std::fprintf(stderr, "bench_usb: the %s session did not come up\n", usb ? "USB" : "WiFi");
  } else {
    if (!usb) parser->StartCapture(PHONE_DATA_SOURCE_WIFI);
    CVideoDecoder* decoder = CVideoDecoder::GetInstance();
    const auto end = Steady::now() + std::chrono::duration<double>(seconds + 2);
    while (Steady::now() < end) {
      int width = 0, height = 0;
      unsigned long long ts = 0;
      if (!decoder->WaitYuvData(10)) continue;  // woken by each picture
      unsigned char* yuv = decoder->GetYuvData(width, height, ts);
      if (yuv == nullptr) continue;
      const double now = NowUs();
      lumo::phonesim::FrameStamp stamp;
      if (!lumo::phonesim::ReadFrameStamp(yuv, width, width, height, stamp)) continue;
      // The first two seconds of the stream are the start-up, counted apart: the steady state is
      // what is measured.
      if (stamp.frameNumber < kStartupPictures) {
        ++r.startupPulled;
        continue;
      }
      r.numbers.push_back(stamp.frameNumber);
      r.captureMs.push_back(static_cast<double>(static_cast<uint32_t>(lumo::WallClock100ns() / 10000) - stamp.captureMs));
      std::lock_guard<std::mutex> guard(pushLock);
      auto it = pushedAt.find(ts);
      if (it != pushedAt.end()) r.pcSideMs.push_back((now - it->second) / 1000.0);
    }
    r.ok = true;
  }
  phone->Stop();
  if (usbMgr) usbMgr->Stop(false);
  if (!usb) WifiConnectManager::GetInstance()->Stop(false);
  CVideoDecoder::GetInstance()->StopDecode();
  H264DataReviever::GetInstance()->SetPushObserver(nullptr);
  parser->SetUSBCallback(nullptr);
  parser->SetWifiCallback(nullptr);
  usbMgr.reset();
  devices.reset();
  adb.reset();

  // The same packets decoded alone, one thread, timed per packet.
  lumo::test::RawVideoDecoder alone(s.codec == lumo::phonesim::VideoCodec::H265);
  std::vector<lumo::test::DecodedPicture> pictures;
  for (const std::string& p : packets) {
    const double t0 = NowUs();
    pictures.clear();
    alone.Decode(p, pictures);
    r.decodeAloneMs.push_back((NowUs() - t0) / 1000.0);
  }
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 6;
  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) quick = true, seconds = 3;
    if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) seconds = std::atof(argv[++i]);
  }
  if (!lumo::test::AdbTool::Available()) {
    std::fprintf(stderr, "bench_usb: adb is missing (scripts/install-deps installs it)\n");
    return 1;
  }
  lumo::test::QuietHost host;
  lumo::SetHostServices(&host);
  setenv("LUMO_AUDIO_OUTPUT", "null", 1);
  std::vector<Scenario> scenarios = {{"1080p30 H.264", lumo::phonesim::VideoCodec::H264, 1920, 1080, 8000000}};
  if (!quick) scenarios.push_back({"2160p30 H.265", lumo::phonesim::VideoCodec::H265, 3840, 2160, 20000000});
  std::printf("%-14s %-5s %8s %8s | %-26s | %-26s | %-17s\n", "video", "link", "pictures", "lost", "capture->pull p50/p95/p99",
              "pc side p50/p95/p99 (ms)", "decode alone p50");
  int rc = 0;
  for (const Scenario& s : scenarios) {
    for (bool usb : {true, false}) {
      Result r = RunSession(usb, s, seconds, host);
      if (!r.ok) {
        rc = 1;
        continue;
      }
      // Lost: frame numbers missing between the first and the last picture of the window.
      uint32_t first = r.numbers.empty() ? 0 : r.numbers.front(), last = r.numbers.empty() ? 0 : r.numbers.back();
      const long long expected = r.numbers.empty() ? 0 : static_cast<long long>(last - first) + 1;
      std::vector<uint32_t> unique = r.numbers;
      std::sort(unique.begin(), unique.end());
      unique.erase(std::unique(unique.begin(), unique.end()), unique.end());
      const long long lost = expected - static_cast<long long>(unique.size());
      std::fprintf(stderr, "  %s %s start-up: %u of the first %u pictures came through\n", s.name,
                   usb ? "usb" : "wifi", r.startupPulled, kStartupPictures);
      std::printf("%-14s %-5s %8llu %8lld | %7.1f %7.1f %7.1f ms | %7.2f %7.2f %7.2f    | %7.2f ms\n", s.name,
                  usb ? "usb" : "wifi", static_cast<unsigned long long>(r.numbers.size()), lost, Percentile(r.captureMs, 0.5),
                  Percentile(r.captureMs, 0.95), Percentile(r.captureMs, 0.99), Percentile(r.pcSideMs, 0.5),
                  Percentile(r.pcSideMs, 0.95), Percentile(r.pcSideMs, 0.99), Percentile(r.decodeAloneMs, 0.5));
      std::fflush(stdout);
    }
  }
  PhoneDataParse::GetInstance()->CancelDelayedWork();  // no retry may log into the host below
  lumo::SetHostServices(nullptr);
  return rc;
}
