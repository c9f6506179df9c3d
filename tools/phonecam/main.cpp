// lumo-phonecam: the reference host. `demo` runs the whole system on the built-in simulated
// phone: the phone streams over WiFi (KCP over UDP, optionally through the impairment proxy) to
// the library, which decodes video and audio; the host pulls pictures as a renderer would,
// reads the capture time the phone wrote into each one, and reports what it saw.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "NetImpairProxy.h"
#include "PhoneSim.h"
#include "TimestampBlocks.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CAudioDecoder.h"
#include "media/CVideoDecoder.h"
#include "platform/clock.h"
#include "platform/host_window.h"
#include "protocol/PhoneDataParse.h"
#include "wifi/KcpOnUdp.h"
#include "wifi/WifiConnectManager.h"

namespace {

using Steady = std::chrono::steady_clock;

const char* kHelp = R"(usage: lumo-phonecam demo [flags]

Runs the library against the built-in simulated phone over WiFi (KCP on UDP port 10099) and
prints a live status line and a summary: pictures decoded, their rate, and capture-to-screen
latency read from the capture time each picture carries.

  --seconds N        how long to stream (default 10)
  --codec h264|h265  the phone's codec (default h264)
  --loss PCT         drop this share of datagrams each way through the impairment proxy (default 0)
  --delay MS         add this delay each way through the proxy (default 0)
  --quiet            no live status line
)";

struct Callback : IWifiEventCallback {
  void OnPhonePrepared() override { prepared = true; }
  void OnCaptureStarted() override { captureStarted = true; }
  void OnWifiReserved() override {}
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  void OnAppStartProjection() override {}
  std::atomic<bool> prepared{false}, captureStarted{false};
};

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

int Demo(int argc, char** argv) {
  double seconds = 10, loss = 0;
  uint32_t delay = 0;
  bool quiet = false;
  lumo::phonesim::PhoneSimOptions phone;
  phone.transport = "kcp";
  phone.port = 0;
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

  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  CPhoneCameraCtrl::GetInstance()->SetHwnd(reinterpret_cast<HWND>(0x1));
  Callback callback;
  parser->SetWifiCallback(&callback);
  parser->SetAudioRecordType(1);
  WifiConnectManager* wifi = WifiConnectManager::GetInstance();
  wifi->Start();

  lumo::netimpair::ProxyConfig proxyConfig;
  proxyConfig.target = {lumo::kIpv4Loopback, KcpOnUdp::kPort};
  proxyConfig.toTarget.dropRate = proxyConfig.toClient.dropRate = loss;
  proxyConfig.toTarget.delayMs = proxyConfig.toClient.delayMs = delay;
  lumo::netimpair::NetImpairProxy proxy(proxyConfig);
  const bool viaProxy = loss > 0 || delay > 0;
  if (viaProxy && !proxy.Start()) {
    std::fprintf(stderr, "lumo-phonecam: the impairment proxy did not start\n");
    return 1;
  }
  phone.pcPort = viaProxy ? proxy.ListenEndpoint().port : KcpOnUdp::kPort;
  lumo::phonesim::PhoneSim sim(phone);
  std::string error;
  if (!sim.Start(error)) {
    std::fprintf(stderr, "lumo-phonecam: the simulated phone did not start: %s\n", error.c_str());
    return 1;
  }

  int rc = 0;
  // The host's part of a WiFi session: connect once the phone is heard, start capture once it
  // is prepared.
  if (!WaitFor([wifi] { return wifi->Endpoint()->PeerAddress().port != 0; }, 10)) {
    std::fprintf(stderr, "lumo-phonecam: the phone was never heard on port 10099\n");
    rc = 1;
  } else {
    parser->StartConnect(PHONE_DATA_SOURCE_WIFI);
    if (!WaitFor([&callback] { return callback.prepared.load(); }, 10)) {
      std::fprintf(stderr, "lumo-phonecam: the phone did not finish its handshake\n");
      rc = 1;
    }
  }
  std::vector<int> latencies;
  long long pictures = 0, unreadable = 0;
  double elapsed = 0;
  if (rc == 0) {
    wifi->SetConnected(true);
    parser->StartAudioCapture(PHONE_DATA_SOURCE_WIFI);
    // Audio decoding is the host's to start (the phone's parameters arrive with its 2014 answer,
    // before its first frame).
    CAudioDecoder::GetInstance(1)->StartDecode();
    parser->StartCapture(PHONE_DATA_SOURCE_WIFI);
    CVideoDecoder* decoder = CVideoDecoder::GetInstance();
    const auto start = Steady::now();
    auto nextStatus = start + std::chrono::milliseconds(500);
    std::vector<int> recent;
    int shownWidth = 0, shownHeight = 0;
    while ((elapsed = std::chrono::duration<double>(Steady::now() - start).count()) < seconds) {
      int width = 0, height = 0;
      unsigned long long ts = 0;
      // A renderer's pace: look for a new picture every 2 ms.
      if (unsigned char* yuv = decoder->GetYuvData(width, height, ts)) {
        ++pictures;
        shownWidth = width, shownHeight = height;
        lumo::phonesim::FrameStamp stamp;
        if (lumo::phonesim::ReadFrameStamp(yuv, width, width, height, stamp)) {
          const uint32_t nowMs = static_cast<uint32_t>(lumo::WallClock100ns() / 10000);
          const int latency = static_cast<int>(nowMs - stamp.captureMs);
          latencies.push_back(latency);
          recent.push_back(latency);
        } else {
          ++unreadable;
        }
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      if (!quiet && Steady::now() >= nextStatus) {
        const auto counts = CPhoneCameraCtrl::GetInstance()->GetFrameCounts();
        std::fprintf(stderr, "\r[%s] %.1f s | pictures %lld (%dx%d) | latency p50 %.0f ms | audio frames decoded %lld\x1b[K",
                     sim.Status().state.c_str(), elapsed, pictures, shownWidth, shownHeight, Percentile(recent, 0.5),
                     counts.decodedAudio);
        recent.clear();
        nextStatus += std::chrono::milliseconds(500);
      }
    }
    if (!quiet) std::fputs("\n", stderr);
    parser->StopCapture(PHONE_DATA_SOURCE_WIFI);
  }
  const auto counts = CPhoneCameraCtrl::GetInstance()->GetFrameCounts();
  const auto phoneStatus = sim.Status();
  sim.Stop();
  wifi->OnExit();
  wifi->Stop(false);
  CVideoDecoder::GetInstance()->StopDecode();
  CAudioDecoder::GetInstance(1)->StopDecode();
  if (viaProxy) proxy.Stop();

  std::printf("demo: %s over WiFi%s, %.1f s: phone sent %llu pictures and %llu audio frames; host got %lld pictures "
              "(%.1f fps), %lld audio frames decoded\n",
              lumo::phonesim::CodecName(phone.codec), viaProxy ? " through the impairment proxy" : "", elapsed,
              static_cast<unsigned long long>(phoneStatus.counters.videoFrames),
              static_cast<unsigned long long>(phoneStatus.counters.audioFrames), pictures,
              elapsed > 0 ? pictures / elapsed : 0.0, counts.decodedAudio);
  std::printf("demo: capture-to-screen latency from the pictures' own stamps: p50 %.0f ms, p99 %.0f ms, max %.0f ms "
              "(%zu read, %lld unreadable); host messages %d\n",
              Percentile(latencies, 0.5), Percentile(latencies, 0.99), Percentile(latencies, 1.0), latencies.size(),
              unreadable, hostMessages.load());
  if (rc == 0 && (pictures == 0 || latencies.empty())) rc = 1;
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "demo") == 0) return Demo(argc, argv);
  std::fprintf(argc >= 2 && std::strcmp(argv[1], "--help") == 0 ? stdout : stderr,
               "usage: lumo-phonecam demo [flags]   (see lumo-phonecam demo --help)\n"
               "Only the demo is built so far; devices, connect and doctor come with the USB work.\n");
  return argc >= 2 && std::strcmp(argv[1], "--help") == 0 ? 0 : 2;
}
