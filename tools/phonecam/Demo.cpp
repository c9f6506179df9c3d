// `lumo-phonecam demo`: the whole system on the built-in simulated phone, over both links. WiFi:
// the phone streams KCP over UDP to port 10099 (optionally through the impairment proxy). USB:
// the phone is an adb device that Debian's adb lists and forwards to, and the library connects
// through that forward exactly as it does to a phone on a cable. In each session the host pulls
// pictures as a renderer would, reads the capture time the phone wrote into each, and at the end
// a table sums up both sessions.
#include "Demo.h"

#include "HostSession.h"
#include "Recording.h"

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
  --out DIR          where the recordings go (default out): per link a PNG snapshot, the first
                     --y4m-seconds (default 1) as Y4M, the audio as WAV and a latency plot (HTML)
  --quiet            no live status line
)";

struct DemoRun {
  PhonecamHost* host = nullptr;
  RecordingPlan plan;
  double seconds = 10;
  bool quiet = false;
  const PacketCounter* packets = nullptr;
};

// The render loop with this session's recordings.
void Render(SessionStats& s, const DemoRun& run, lumo::phonesim::PhoneSim& sim) {
  Recorder recorder(run.plan.dir, s.link, run.plan.y4mSeconds, 30);
  RenderOptions options;
  options.seconds = run.seconds;
  options.quiet = run.quiet;
  options.recorder = &recorder;
  options.packets = run.packets;
  options.state = [&sim] { return sim.Status().state; };
  RenderLoop(s, options);
  // The decoders stop before the audio output is closed: nothing may write to it then.
  CVideoDecoder::GetInstance()->StopDecode();
  CAudioDecoder::GetInstance(1)->StopDecode();
  FinishRecording(*run.host, run.plan, recorder, s);
}

SessionStats WifiSession(lumo::phonesim::PhoneSimOptions phone, const DemoRun& run, double loss, uint32_t delay) {
  SessionStats s;
  s.link = "wifi";
  BeginAudioRecording(*run.host, run.plan, s.link);
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  HostCallback callback;
  parser->SetWifiCallback(&callback);
  WifiConnectManager* wifi = WifiConnectManager::GetInstance();
  wifi->Start();
  const uint64_t heard = wifi->MessagesHeard();
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
  if (s.error.empty() && !WaitFor([wifi, heard] { return wifi->MessagesHeard() != heard; }, 10))
    s.error = "the phone was never heard on port 10099";
  if (s.error.empty()) {
    parser->StartConnect(PHONE_DATA_SOURCE_WIFI);
    if (!callback.WaitPrepared(1, 10)) s.error = "the phone did not finish its handshake";
  }
  if (s.error.empty()) {
    wifi->SetConnected(true);
    parser->StartAudioCapture(PHONE_DATA_SOURCE_WIFI);
    // Audio decoding is the host's to start (the phone's parameters arrive with its 2014 answer,
    // before its first frame).
    CAudioDecoder::GetInstance(1)->StartDecode();
    parser->StartCapture(PHONE_DATA_SOURCE_WIFI);
    Render(s, run, *sim);
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

SessionStats UsbSession(lumo::phonesim::PhoneSimOptions phone, const DemoRun& run) {
  SessionStats s;
  s.link = "usb";
  BeginAudioRecording(*run.host, run.plan, s.link);
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
  HostCallback callback;
  parser->SetUSBCallback(&callback);
  CUSBConnectMgr* usb = CUSBConnectMgr::GetInstance();
  usb->SetUSBEventCallback(&callback);
  std::wstring listed;
  WaitFor([&] { return !(listed = FindAndroidKey(lumo::WideToUtf8(serial))).empty(); }, 15, {}, kPollOtherProgramMs);
  if (listed.empty()) {
    s.error = "adb never listed the simulated phone " + lumo::WideToUtf8(serial);
  } else if (!usb->Start(PHONE_TYPE_ANDROID, listed)) {
    s.error = "the USB connection did not start (is port 8181 free?)";
  } else if (!callback.WaitPrepared(1, 10)) {
    s.error = "the phone did not finish its handshake";
  } else {
    // Capture is started by the library once the phone is prepared; audio is the host's.
    parser->StartAudioCapture(PHONE_DATA_SOURCE_USB);
    CAudioDecoder::GetInstance(1)->StartDecode();
    Render(s, run, *sim);
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
  double loss = 0;
  uint32_t delay = 0;
  bool wifi = true, usb = true;
  DemoRun run;
  lumo::phonesim::PhoneSimOptions phone;
  // The phone's quality report is not needed here and would only add log lines.
  phone.qualityIntervalMs = 0;
  for (int i = 2; i < argc; ++i) {
    const std::string flag = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : "";
    if (flag == "--quiet") run.quiet = true;
    else if (flag == "--seconds") run.seconds = std::atof(v), ++i;
    else if (flag == "--loss") loss = std::atof(v) / 100, ++i;
    else if (flag == "--delay") delay = static_cast<uint32_t>(std::atoi(v)), ++i;
    else if (flag == "--link") wifi = std::strcmp(v, "usb") != 0, usb = std::strcmp(v, "wifi") != 0, ++i;
    else if (flag == "--codec") phone.codec = std::strcmp(v, "h265") == 0 ? lumo::phonesim::VideoCodec::H265 : lumo::phonesim::VideoCodec::H264, ++i;
    else if (flag == "--out" && *v) run.plan.dir = v, ++i;
    else if (flag == "--y4m-seconds") run.plan.y4mSeconds = std::atof(v), ++i;
    else {
      std::fputs(kHelp, flag == "--help" ? stdout : stderr);
      return flag == "--help" ? 0 : 2;
    }
  }
  av_log_set_level(AV_LOG_ERROR);
  // Installed before the library's first use, and removed only after the last session stopped.
  PhonecamHost host;
  lumo::SetHostServices(&host);
  run.host = &host;
  std::atomic<int> hostMessages{0};
  lumo::SetHostMessageSink([&hostMessages](HWND, uint32_t, uintptr_t, intptr_t lParam) {
    ++hostMessages;
    delete reinterpret_cast<Json::Value*>(lParam);
    return true;
  });
  CPhoneCameraCtrl::GetInstance()->SetHwnd(reinterpret_cast<HWND>(0x1));
  PhoneDataParse::GetInstance()->SetAudioRecordType(1);

  std::vector<SessionStats> sessions;
  {
    PacketCounter packets;
    run.packets = &packets;
    if (wifi) sessions.push_back(WifiSession(phone, run, loss, delay));
    if (usb) sessions.push_back(UsbSession(phone, run));
  }

  std::printf("demo: %s, %.0f s per session, recordings in %s/\n", lumo::phonesim::CodecName(phone.codec), run.seconds,
              run.plan.dir.c_str());
  PrintSummary(sessions);
  int rc = 0;
  for (const SessionStats& s : sessions)
    if (!s.error.empty() || !s.HasMedia() || s.latencies.empty()) rc = 1;
  std::printf("demo: latency is capture-to-screen in ms, read from each picture's own stamp; host messages %d\n",
              hostMessages.load());
  lumo::SetHostMessageSink(nullptr);
  lumo::SetHostServices(nullptr);
  return rc;
}

}  // namespace phonecam
