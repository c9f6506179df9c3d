// lumo-phonesim: the phone app's side of the link, for working without a phone.
#include <atomic>
#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "PhoneSim.h"
#include "Usbmuxd.h"

using namespace lumo::phonesim;

namespace {

std::atomic<bool> g_interrupted{false};
void OnSignal(int) { g_interrupted = true; }

const char* kHelp = R"(usage: lumo-phonesim [flags]

Plays a phone running the camera app: waits for the PC, answers its commands, and streams a
moving test pattern (or a video file) as H.264/H.265 and a sine tone as AAC. Each picture
carries its capture time in a row of blocks along its top edge.

Link
  --transport tcp|kcp      tcp: the Android app's TCP side (default); kcp: WiFi, KCP over UDP
  --bind A.B.C.D           tcp: address to listen on (default 127.0.0.1)
  --port N                 tcp: port to listen on (default 8182; 0 picks a free one);
                           kcp: our own UDP port (default 8182; 0 picks a free one)
  --pc A.B.C.D[:PORT]      kcp: where the PC listens (default 127.0.0.1:10099); the phone speaks first
iPhone over USB (a usbmuxd of our own; the PC's libimobiledevice finds it through
USBMUXD_SOCKET_ADDRESS, printed at start; the app answers on device ports 2345 and 2346)
  --usbmuxd SOCKET         listen as usbmuxd on SOCKET: a path (or UNIX:/path) or A.B.C.D:PORT
                           (port 0 picks a free one); implies --ios
  --udid UDID              a phone with this UDID (repeat for more; default 00008110-001A2B3C4D5E6F70)
  --ios-name TEXT          lockdown DeviceName (default "LumoSim iPhone"; further phones get " 2", " 3")
  --ios-product TEXT       lockdown ProductType (default iPhone14,2)
  --detach-at MS           unplug every phone MS ms after start (listeners hear Detached)
Android phone over adb (a device on an emulator port that the PC's real adb lists, queries
and forwards to; the app answers on device ports 8182 and 8183)
  --adb-device [PORT]      be an adb device on 127.0.0.1:PORT (default 5555; the serial is
                           emulator-<PORT-1>; 5557 makes a second phone, emulator-5556)
  --adb-product TEXT       ro.product.name (default lumosim)
  --adb-model TEXT         ro.product.model (default LumoSim_Phone)
  --adb-device-name TEXT   ro.product.device (default lumosim)
  --app-package NAME       the app's package in "pm list package -3" and "ps" (default com.lumo.hqcamera)
  --app-not-installed      the app is missing: not listed, not running, its ports refuse
  --app-not-running        the app is installed but not running: not in "ps", its ports refuse
Identity
  --phone-name TEXT        2004 "phoneName" (default LumoSim,1)
  --sys-ver TEXT           2004 "sysVer" (default 13)
  --app-ver TEXT           2005 "appVer" (default 5.2.0)
  --max-resolution TEXT    "cameraMaxResolution" and "maxVideoSize" (default 1920x1080)
  --ios                    report "isIOS" 1 in the camera parameters
Video (until the PC's content type says otherwise)
  --codec h264|h265        (default h264)
  --size WxH               (default 1920x1080)
  --fps N                  (default 30)
  --bitrate BPS            (default 8000000)
  --gop N                  pictures per key frame (default: one second)
  --preset NAME            encoder preset (default ultrafast)
  --encoder-threads N      encoder threads (default 1)
  --video-file PATH        a video file as the camera instead of the pattern (looped)
  --no-stamp               leave out the capture-time blocks
Audio (after the PC's 1014)
  --tone HZ                sine frequency (default 440)
  --tone-level X           amplitude, 0..1 of full scale (default 0.5)
  --sample-rate HZ         (default 44100)
  --channels N             (default 2)
  --audio-bitrate BPS      (default 128000)
  --audio-stream N         media header stream selector (default 0)
Clock and cadence
  --clock-skew MS          run the phone clock this far ahead of the PC's (negative: behind)
  --net-tests N            2000 round trips before 2006 (default 3)
  --ping-interval MS       pings (frame type 4) (default 1000; 0: none)
  --quality-interval MS    2007 reports while streaming (default 5000; 0: none)
Scenario (times in ms after the link came up)
  --stop-video-at MS[:CODE[:MESSAGE]]  send 2008 and stop the video (default code 4)
  --projection-at MS       send 2015
  --switch-phone-at MS     send 2017
  --switch-codec-at MS     switch H.264 <-> H.265, the next picture a key frame
  --drop-at MS             close the link (the simulator then waits for the PC again)
  --stall-at MS:DURATION   stop reading from the PC for DURATION ms, from the first frame after MS
Program
  --duration S             exit after S seconds (default: run until Ctrl-C)
  --quiet                  no live status line
  --help                   this text
)";

bool ParseSize(const char* text, int& w, int& h) { return std::sscanf(text, "%dx%d", &w, &h) == 2 && w > 0 && h > 0; }

bool ParseIpv4(const char* text, uint32_t& out) {
  unsigned a, b, c, d;
  char tail;
  if (std::sscanf(text, "%u.%u.%u.%u%c", &a, &b, &c, &d, &tail) != 4 || a > 255 || b > 255 || c > 255 || d > 255)
    return false;
  out = a << 24 | b << 16 | c << 8 | d;
  return true;
}

bool ValidUdid(const std::string& udid) {
  if (udid.empty() || udid.size() > 40) return false;  // the PC's device records hold 40 characters
  for (char c : udid)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') return false;
  return true;
}

bool ParseFlags(int argc, char** argv, PhoneSimOptions& o, double& duration, bool& quiet, long long& detachAtMs) {
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      std::fputs(kHelp, stdout);
      std::exit(0);
    }
    if (flag == "--ios") { o.isIOS = true; continue; }
    if (flag == "--no-stamp") { o.stampFrames = false; continue; }
    if (flag == "--quiet") { quiet = true; continue; }
    if (flag == "--app-not-installed") { o.appInstalled = false; continue; }
    if (flag == "--app-not-running") { o.appRunning = false; continue; }
    if (flag == "--adb-device") {
      // The port is optional: a number right after the flag is taken as it.
      o.transport = "adb";
      o.adbDevicePort = 5555;
      if (i + 1 < argc && std::isdigit(static_cast<unsigned char>(argv[i + 1][0]))) {
        const long port = std::strtol(argv[++i], nullptr, 10);
        if (port <= 0 || port > 65535) {
          std::fprintf(stderr, "lumo-phonesim: bad value for --adb-device: %s\n", argv[i]);
          return false;
        }
        o.adbDevicePort = static_cast<uint16_t>(port);
      }
      continue;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "lumo-phonesim: %s needs a value (see --help)\n", flag.c_str());
      return false;
    }
    const char* v = argv[++i];
    bool ok = true;
    if (flag == "--transport") ok = (o.transport = v) == "tcp" || o.transport == "kcp";
    else if (flag == "--pc") {
      std::string text = v;
      const size_t colon = text.find(':');
      if (colon != std::string::npos) {
        const int port = std::atoi(text.c_str() + colon + 1);
        ok = port > 0 && port < 65536;
        o.pcPort = static_cast<uint16_t>(port);
        text.resize(colon);
      }
      ok = ok && ParseIpv4(text.c_str(), o.pcAddress);
    }
    else if (flag == "--usbmuxd") o.transport = "usbmux", o.usbmuxdAddress = v, o.isIOS = true, ok = *v != '\0';
    else if (flag == "--udid") ok = ValidUdid(v), o.udids.push_back(v);
    else if (flag == "--ios-name") o.iosDeviceName = v;
    else if (flag == "--ios-product") o.iosProductType = v;
    else if (flag == "--detach-at") ok = (detachAtMs = std::atoll(v)) >= 0;
    else if (flag == "--adb-product") o.adbProduct = v;
    else if (flag == "--adb-model") o.adbModel = v;
    else if (flag == "--adb-device-name") o.adbDevice = v;
    else if (flag == "--app-package") ok = *v != '\0', o.appPackage = v;
    else if (flag == "--bind") ok = ParseIpv4(v, o.bindAddress);
    else if (flag == "--port") o.port = static_cast<uint16_t>(std::atoi(v)), ok = std::atoi(v) >= 0 && std::atoi(v) < 65536;
    else if (flag == "--phone-name") o.phoneName = v;
    else if (flag == "--sys-ver") o.sysVer = v;
    else if (flag == "--app-ver") o.appVer = v;
    else if (flag == "--max-resolution") o.cameraMaxResolution = v;
    else if (flag == "--codec") ok = std::strcmp(v, "h264") == 0 || std::strcmp(v, "h265") == 0,
                                o.codec = std::strcmp(v, "h265") == 0 ? VideoCodec::H265 : VideoCodec::H264;
    else if (flag == "--size") ok = ParseSize(v, o.width, o.height);
    else if (flag == "--fps") ok = (o.fps = std::atoi(v)) > 0;
    else if (flag == "--bitrate") ok = (o.bitRate = std::atoi(v)) > 0;
    else if (flag == "--gop") ok = (o.gop = std::atoi(v)) > 0;
    else if (flag == "--preset") o.preset = v;
    else if (flag == "--encoder-threads") ok = (o.encoderThreads = std::atoi(v)) > 0;
    else if (flag == "--video-file") o.videoFile = v;
    else if (flag == "--tone") ok = (o.toneHz = std::atof(v)) > 0;
    else if (flag == "--tone-level") ok = (o.toneLevel = std::atof(v)) >= 0 && o.toneLevel <= 1;
    else if (flag == "--sample-rate") ok = (o.sampleRate = std::atoi(v)) > 0;
    else if (flag == "--channels") ok = (o.channels = std::atoi(v)) > 0 && o.channels <= 8;
    else if (flag == "--audio-bitrate") ok = (o.audioBitRate = std::atoi(v)) > 0;
    else if (flag == "--audio-stream") o.audioStream = static_cast<uint32_t>(std::strtoul(v, nullptr, 10));
    else if (flag == "--clock-skew") o.clockSkewMs = std::atoll(v);
    else if (flag == "--net-tests") ok = (o.netTests = std::atoi(v)) >= 0;
    else if (flag == "--ping-interval") o.pingIntervalMs = static_cast<uint32_t>(std::strtoul(v, nullptr, 10));
    else if (flag == "--quality-interval") o.qualityIntervalMs = static_cast<uint32_t>(std::strtoul(v, nullptr, 10));
    else if (flag == "--stop-video-at") {
      char message[256] = "";
      int n = std::sscanf(v, "%lld:%d:%255[^\n]", reinterpret_cast<long long*>(&o.stopVideoAtMs), &o.stopVideoCode, message);
      ok = n >= 1;
      if (n == 3) o.stopVideoMessage = message;
    } else if (flag == "--projection-at") o.projectionAtMs = std::atoll(v);
    else if (flag == "--switch-phone-at") o.switchPhoneAtMs = std::atoll(v);
    else if (flag == "--switch-codec-at") o.switchCodecAtMs = std::atoll(v);
    else if (flag == "--drop-at") o.dropAtMs = std::atoll(v);
    else if (flag == "--stall-at") {
      long long at = 0;
      unsigned long ms = 0;
      ok = std::sscanf(v, "%lld:%lu", &at, &ms) == 2;
      o.stallAtMs = at, o.stallMs = static_cast<uint32_t>(ms);
    } else if (flag == "--duration") ok = (duration = std::atof(v)) > 0;
    else {
      std::fprintf(stderr, "lumo-phonesim: unknown flag %s (see --help)\n", flag.c_str());
      return false;
    }
    if (!ok) {
      std::fprintf(stderr, "lumo-phonesim: bad value for %s: %s\n", flag.c_str(), v);
      return false;
    }
  }
  return true;
}

void PrintStatus(const PhoneSimStatus& s, bool final) {
  std::fprintf(stderr, "%s[%s] %s link %llu | video %llu (%llu key) %.1f MB %.1f fps | audio %llu | sent %.1f MB%s%s",
               final ? "" : "\r", s.state.c_str(), s.transport.c_str(), static_cast<unsigned long long>(s.links),
               static_cast<unsigned long long>(s.counters.videoFrames), static_cast<unsigned long long>(s.counters.keyFrames),
               s.counters.videoBytes / 1e6, s.fps, static_cast<unsigned long long>(s.counters.audioFrames),
               s.counters.bytesSent / 1e6, s.lastError.empty() ? "" : " | ", s.lastError.c_str());
  std::fputs(final ? "\n" : "\x1b[K", stderr);
  std::fflush(stderr);
}

}  // namespace

int main(int argc, char** argv) {
  av_log_set_level(AV_LOG_ERROR);  // the encoders' own statistics are not for the console
  PhoneSimOptions options;
  double duration = 0;
  bool quiet = false;
  long long detachAtMs = -1;
  if (!ParseFlags(argc, argv, options, duration, quiet, detachAtMs)) return 2;
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);

  // The usbmux transport is made here rather than by the simulator, so that a detach can reach it.
  UsbmuxTransport* usbmux = nullptr;
  std::unique_ptr<PhoneTransport> transport;
  if (options.transport == "usbmux") {
    auto made = std::make_unique<UsbmuxTransport>(options);
    usbmux = made.get();
    transport = std::move(made);
  }
  PhoneSim sim(options, std::move(transport));
  std::string error;
  if (!sim.Start(error)) {
    std::fprintf(stderr, "lumo-phonesim: %s\n", error.c_str());
    return 1;
  }
  std::fprintf(stderr, "lumo-phonesim: %s %s\n", options.transport == "kcp" ? "talking to the PC over" : "waiting for the PC on",
               sim.Status().transport.c_str());
  if (usbmux != nullptr)
    std::fprintf(stderr, "lumo-phonesim: export USBMUXD_SOCKET_ADDRESS=%s\n", usbmux->Daemon().Address().c_str());
  const auto start = std::chrono::steady_clock::now();
  while (!g_interrupted) {
    auto nap = std::chrono::milliseconds(500);
    const auto detachAt = start + std::chrono::milliseconds(detachAtMs);
    if (usbmux != nullptr && detachAtMs >= 0) {
      const auto now = std::chrono::steady_clock::now();
      if (now >= detachAt) {
        usbmux->Daemon().Detach("");
        detachAtMs = -1;
        if (!quiet) std::fputs("\nlumo-phonesim: every phone unplugged\n", stderr);
      } else {
        nap = std::min(nap, std::chrono::duration_cast<std::chrono::milliseconds>(detachAt - now) + std::chrono::milliseconds(1));
      }
    }
    std::this_thread::sleep_for(nap);
    if (!quiet) PrintStatus(sim.Status(), false);
    if (duration > 0 && std::chrono::steady_clock::now() - start >= std::chrono::duration<double>(duration)) break;
  }
  sim.Stop();
  PrintStatus(sim.Status(), true);
  return 0;
}
