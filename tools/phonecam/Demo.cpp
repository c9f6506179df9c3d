// `lumo-phonecam demo`: the whole system on the built-in simulated phone, over both links. WiFi:
// the phone streams KCP over UDP to port 10099 (optionally through the impairment proxy). USB:
// the phone is an adb device that Debian's adb lists and forwards to, and the library connects
// through that forward exactly as it does to a phone on a cable. In each session the host pulls
// pictures as a renderer would, reads the capture time the phone wrote into each, and at the end
// a table sums up both sessions.
#include "Demo.h"

#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "NetImpairProxy.h"
#include "PhoneSim.h"
#include "TimestampBlocks.h"
#include "device/AdbSrvMgr.h"
#include "device/CPhoneDeviceManager.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CAudioDecoder.h"
#include "media/CVideoDecoder.h"
#include "platform/clock.h"
#include "platform/host_window.h"
#include "platform/process.h"
#include "platform/text.h"
#include "protocol/PhoneDataParse.h"
#include "usb/CUSBConnectMgr.h"
#include "wifi/KcpOnUdp.h"
#include "wifi/WifiConnectManager.h"

namespace phonecam {
namespace {

using Steady = std::chrono::steady_clock;

const char* kHelp = R"(usage: lumo-phonecam demo [flags]

Runs the library against the built-in simulated phone, one session over WiFi (KCP on UDP port
10099) and one over USB (the phone as an adb device behind Debian's adb, reached through the
forward of local port 8181), and prints a live status line and a summary per session: pictures
decoded, their rate, capture-to-screen latency read from the capture time each picture carries,
and audio decoded. An adb server that already runs is used as it is and left running.

  --seconds N        how long each session streams (default 10)
  --link wifi|usb|both  which sessions to run (default both)
  --codec h264|h265  the phone's codec (default h264)
  --loss PCT         WiFi: drop this share of datagrams each way through the impairment proxy (default 0)
  --delay MS         WiFi: add this delay each way through the proxy (default 0)
  --quiet            no live status line
)";

struct Callback : IWifiEventCallback, IUSBEventCallback {
  void OnPhonePrepared() override {
    std::lock_guard<std::mutex> guard(lock);
    ++prepared;
    preparedCv.notify_all();
  }
  // Waits (real time, at most `seconds`) for the phone to report prepared.
  bool WaitPrepared(double seconds) {
    std::unique_lock<std::mutex> guard(lock);
    return preparedCv.wait_for(guard, std::chrono::duration<double>(seconds), [this] { return prepared > 0; });
  }
  void OnCaptureStarted() override {}
  void OnWifiReserved() override {}
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  void OnAppStartProjection() override {}
  void OnConnectionError(const std::wstring&) override { ++linkErrors; }
  std::mutex lock;
  std::condition_variable preparedCv;
  int prepared = 0;  // under lock
  std::atomic<int> linkErrors{0};
};

// Polls what gives no signal (another program's state, a peer's first datagram) every 5 ms.
bool WaitFor(const std::function<bool()>& ready, double seconds) {
  const auto end = Steady::now() + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(seconds));
  while (!ready()) {
    if (Steady::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

double Percentile(std::vector<int> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

struct Session {
  std::string link, detail, error;
  double seconds = 0;
  long long pictures = 0, unreadable = 0, audioDecoded = 0;
  uint64_t phoneSent = 0;
  std::vector<int> latencies;
  bool Ok() const { return error.empty() && pictures > 0 && !latencies.empty() && audioDecoded > 0; }
};

// The host's render loop: pull pictures for `seconds`, reading each one's capture stamp.
void Pull(Session& s, double seconds, bool quiet, const std::function<std::string()>& state) {
  CVideoDecoder* decoder = CVideoDecoder::GetInstance();
  const long long audioBefore = CPhoneCameraCtrl::GetInstance()->GetFrameCounts().decodedAudio;
  const auto start = Steady::now();
  auto nextStatus = start + std::chrono::milliseconds(500);
  std::vector<int> recent;
  int shownWidth = 0, shownHeight = 0;
  while ((s.seconds = std::chrono::duration<double>(Steady::now() - start).count()) < seconds) {
    int width = 0, height = 0;
    unsigned long long ts = 0;
    // A render thread woken by each picture (or every 10 ms, for the status line).
    if (!decoder->WaitYuvData(10)) {
      // nothing yet
    } else if (unsigned char* yuv = decoder->GetYuvData(width, height, ts)) {
      ++s.pictures;
      shownWidth = width, shownHeight = height;
      lumo::phonesim::FrameStamp stamp;
      if (lumo::phonesim::ReadFrameStamp(yuv, width, width, height, stamp)) {
        const uint32_t nowMs = static_cast<uint32_t>(lumo::WallClock100ns() / 10000);
        const int latency = static_cast<int>(nowMs - stamp.captureMs);
        s.latencies.push_back(latency);
        recent.push_back(latency);
      } else {
        ++s.unreadable;
      }
    }
    if (!quiet && Steady::now() >= nextStatus) {
      const auto counts = CPhoneCameraCtrl::GetInstance()->GetFrameCounts();
      std::fprintf(stderr, "\r[%s %s] %.1f s | pictures %lld (%dx%d) | latency p50 %.0f ms | audio frames decoded %lld\x1b[K",
                   s.link.c_str(), state().c_str(), s.seconds, s.pictures, shownWidth, shownHeight,
                   Percentile(recent, 0.5), counts.decodedAudio - audioBefore);
      recent.clear();
      nextStatus += std::chrono::milliseconds(500);
    }
  }
  if (!quiet) std::fputs("\n", stderr);
  s.audioDecoded = CPhoneCameraCtrl::GetInstance()->GetFrameCounts().decodedAudio - audioBefore;
}

Session WifiSession(lumo::phonesim::PhoneSimOptions phone, double seconds, double loss, uint32_t delay, bool quiet) {
  Session s;
  s.link = "wifi";
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  Callback callback;
  parser->SetWifiCallback(&callback);
  WifiConnectManager* wifi = WifiConnectManager::GetInstance();
  wifi->Start();
  lumo::netimpair::ProxyConfig proxyConfig;
  proxyConfig.target = {lumo::kIpv4Loopback, KcpOnUdp::kPort};
  proxyConfig.toTarget.dropRate = proxyConfig.toClient.dropRate = loss;
  proxyConfig.toTarget.delayMs = proxyConfig.toClient.delayMs = delay;
  lumo::netimpair::NetImpairProxy proxy(proxyConfig);
  const bool viaProxy = loss > 0 || delay > 0;
  s.detail = viaProxy ? "KCP through the impairment proxy" : "KCP on loopback";
  phone.transport = "kcp";
  phone.port = 0;
  std::unique_ptr<lumo::phonesim::PhoneSim> sim;
  std::string error;
  if (viaProxy && !proxy.Start()) {
    s.error = "the impairment proxy did not start";
  } else {
    phone.pcPort = viaProxy ? proxy.ListenEndpoint().port : KcpOnUdp::kPort;
    sim = std::make_unique<lumo::phonesim::PhoneSim>(phone);
    if (!sim->Start(error)) s.error = "the simulated phone did not start: " + error;
  }
  // The host's part of a WiFi session: connect once the phone is heard, start capture once it
  // is prepared.
  if (s.error.empty() && !WaitFor([wifi] { return wifi->Endpoint()->PeerAddress().port != 0; }, 10))
    s.error = "the phone was never heard on port 10099";
  if (s.error.empty()) {
    parser->StartConnect(PHONE_DATA_SOURCE_WIFI);
    if (!callback.WaitPrepared(10)) s.error = "the phone did not finish its handshake";
  }
  if (s.error.empty()) {
    wifi->SetConnected(true);
    parser->StartAudioCapture(PHONE_DATA_SOURCE_WIFI);
    // Audio decoding is the host's to start (the phone's parameters arrive with its 2014 answer,
    // before its first frame).
    CAudioDecoder::GetInstance(1)->StartDecode();
    parser->StartCapture(PHONE_DATA_SOURCE_WIFI);
    Pull(s, seconds, quiet, [&sim] { return sim->Status().state; });
    parser->StopCapture(PHONE_DATA_SOURCE_WIFI);
  }
  if (sim) {
    s.phoneSent = sim->Status().counters.videoFrames;
    sim->Stop();
  }
  wifi->OnExit();
  wifi->Stop(false);
  CVideoDecoder::GetInstance()->StopDecode();
  CAudioDecoder::GetInstance(1)->StopDecode();
  if (viaProxy) proxy.Stop();
  parser->SetWifiCallback(nullptr);
  return s;
}

// A free emulator port pair (console port, adb port) in the range adb servers scan.
uint16_t FreeEmulatorPort() {
  const auto listening = lumo::ListeningTcpPortOwners();
  for (uint16_t port = 5555; port <= 5585; port += 2)
    if (!listening.count(std::to_string(port)) && !listening.count(std::to_string(port - 1))) return port;
  return 0;
}

Session UsbSession(lumo::phonesim::PhoneSimOptions phone, double seconds, bool quiet) {
  Session s;
  s.link = "usb";
  const std::wstring adb = AdbSrvMgr::AdbPathRule();
  const std::string adbText = lumo::WideToUtf8(adb);
  const bool serverWasRunning = lumo::ListeningTcpPortOwners().count("5037") > 0;
  phone.transport = "adb";
  phone.adbDevicePort = FreeEmulatorPort();
  const std::wstring serial = L"emulator-" + std::to_wstring(phone.adbDevicePort - 1);
  s.detail = "adb forward through " + adbText + (serverWasRunning ? " (the server already running)" : "");
  if (phone.adbDevicePort == 0) {
    s.error = "no free emulator port in 5555-5585";
    return s;
  }
  std::string error;
  auto sim = std::make_unique<lumo::phonesim::PhoneSim>(phone);
  if (!sim->Start(error)) {
    s.error = "the simulated phone did not start: " + error;
    return s;
  }
  // A server that runs already learns of the phone from the phone itself; otherwise ours
  // starts now and finds it by its scan. The library's own adb reset (which stops whoever
  // holds 5037) is not used: the demo leaves a user's server alone.
  if (!serverWasRunning) lumo::RunCommandLine(adb + L" start-server", 20000);
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  Callback callback;
  parser->SetUSBCallback(&callback);
  CUSBConnectMgr* usb = CUSBConnectMgr::GetInstance();
  usb->SetUSBEventCallback(&callback);
  CPhoneDeviceManager* devices = CPhoneDeviceManager::GetInstance();
  std::wstring listed;
  WaitFor(
      [&] {
        devices->RefreshDevices();
        for (auto& [key, info] : devices->GetAllAndroidDevices())
          if (key.compare(0, serial.size(), serial) == 0) listed = key;
        return !listed.empty();
      },
      15);
  if (listed.empty()) {
    s.error = "adb never listed the simulated phone " + lumo::WideToUtf8(serial);
  } else if (!usb->Start(PHONE_TYPE_ANDROID, listed)) {
    s.error = "the USB connection did not start (is port 8181 free?)";
  } else if (!callback.WaitPrepared(10)) {
    s.error = "the phone did not finish its handshake";
  } else {
    // Capture is started by the library once the phone is prepared; audio is the host's.
    parser->StartAudioCapture(PHONE_DATA_SOURCE_USB);
    CAudioDecoder::GetInstance(1)->StartDecode();
    Pull(s, seconds, quiet, [&sim] { return sim->Status().state; });
  }
  usb->Stop(true);
  s.phoneSent = sim->Status().counters.videoFrames;
  sim->Stop();
  CVideoDecoder::GetInstance()->StopDecode();
  CAudioDecoder::GetInstance(1)->StopDecode();
  usb->SetUSBEventCallback(nullptr);
  parser->SetUSBCallback(nullptr);
  if (serverWasRunning) {
    lumo::RunCommandLine(adb + L" -s " + listed + L" forward --remove tcp:8181", 10000);
  } else {
    lumo::RunCommandLine(adb + L" kill-server", 10000);
  }
  return s;
}

}  // namespace

int Demo(int argc, char** argv) {
  double seconds = 10, loss = 0;
  uint32_t delay = 0;
  bool quiet = false, wifi = true, usb = true;
  lumo::phonesim::PhoneSimOptions phone;
  // The phone's quality report reads and clears the host's frame counters, which the demo
  // reports from: without it they count the whole run.
  phone.qualityIntervalMs = 0;
  for (int i = 2; i < argc; ++i) {
    const std::string flag = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : "";
    if (flag == "--quiet") quiet = true;
    else if (flag == "--seconds") seconds = std::atof(v), ++i;
    else if (flag == "--loss") loss = std::atof(v) / 100, ++i;
    else if (flag == "--delay") delay = static_cast<uint32_t>(std::atoi(v)), ++i;
    else if (flag == "--link") wifi = std::strcmp(v, "usb") != 0, usb = std::strcmp(v, "wifi") != 0, ++i;
    else if (flag == "--codec") phone.codec = std::strcmp(v, "h265") == 0 ? lumo::phonesim::VideoCodec::H265 : lumo::phonesim::VideoCodec::H264, ++i;
    else {
      std::fputs(kHelp, flag == "--help" ? stdout : stderr);
      return flag == "--help" ? 0 : 2;
    }
  }
  av_log_set_level(AV_LOG_ERROR);
  // No sound card is assumed: the decoded audio is played on the null device unless the user
  // chose another output.
  if (std::getenv("LUMO_AUDIO_OUTPUT") == nullptr) setenv("LUMO_AUDIO_OUTPUT", "null", 1);
  std::atomic<int> hostMessages{0};
  lumo::SetHostMessageSink([&hostMessages](HWND, uint32_t, uintptr_t, intptr_t lParam) {
    ++hostMessages;
    delete reinterpret_cast<Json::Value*>(lParam);
    return true;
  });
  CPhoneCameraCtrl::GetInstance()->SetHwnd(reinterpret_cast<HWND>(0x1));
  PhoneDataParse::GetInstance()->SetAudioRecordType(1);

  std::vector<Session> sessions;
  if (wifi) sessions.push_back(WifiSession(phone, seconds, loss, delay, quiet));
  if (usb) sessions.push_back(UsbSession(phone, seconds, quiet));

  std::printf("demo: %s, %.0f s per session\n", lumo::phonesim::CodecName(phone.codec), seconds);
  std::printf("%-5s %-8s %-8s %-7s %-9s %-9s %-9s %-11s %s\n", "link", "sent", "pictures", "fps", "lat p50", "lat p99",
              "lat max", "audio dec", "how");
  int rc = 0;
  for (const Session& s : sessions) {
    if (!s.error.empty()) std::printf("%-5s failed: %s\n", s.link.c_str(), s.error.c_str());
    std::printf("%-5s %-8llu %-8lld %-7.1f %-9.0f %-9.0f %-9.0f %-11lld %s\n", s.link.c_str(),
                static_cast<unsigned long long>(s.phoneSent), s.pictures, s.seconds > 0 ? s.pictures / s.seconds : 0.0,
                Percentile(s.latencies, 0.5), Percentile(s.latencies, 0.99), Percentile(s.latencies, 1.0), s.audioDecoded,
                s.detail.c_str());
    if (!s.Ok()) rc = 1;
  }
  std::printf("demo: latency is capture-to-screen in ms, read from each picture's own stamp; host messages %d\n",
              hostMessages.load());
  lumo::SetHostMessageSink(nullptr);
  return rc;
}

}  // namespace phonecam
