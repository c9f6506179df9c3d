// `lumo-phonecam connect usb SERIAL | ios UDID | wifi`: the host's whole side of a session with a
// phone (a real one, or the simulator), in the order a streaming client drives the library:
// services and message sink, callbacks, the link, the handshake, capture, audio decoding started
// by the host, pictures pulled by a render loop, and on Ctrl-C StopCapture, Stop and OnExit.
//
// When to ask a WiFi phone to connect. The phone app speaks first: as soon as its WiFi link is
// up it sends pings to UDP port 10099, and keeps pinging once a second. So the host opens the
// port (WifiConnectManager::Start) and sends StartConnect(2) when a message arrives after its
// last request (WifiConnectManager::MessagesHeard grows), then again every 3 s while messages
// keep coming and the phone has not reported prepared. A phone that is already sending is answered on its next ping (within a second), one
// that starts later on its first, and a lost request is repeated; a phone that is silent is
// never sent anything.
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "Demo.h"
#include "HostSession.h"
#include "Preview.h"
#include "Recording.h"
#include "device/CPhoneDeviceManager.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CAudioDecoder.h"
#include "media/CVideoDecoder.h"
#include "platform/clock.h"
#include "platform/host_window.h"
#include "platform/text.h"
#include "protocol/PhoneDataParse.h"
#include "usb/CUSBConnectMgr.h"
#include "wifi/KcpOnUdp.h"
#include "wifi/WifiConnectManager.h"

namespace phonecam {
namespace {

using Steady = std::chrono::steady_clock;

const char* kHelp = R"(usage: lumo-phonecam connect usb SERIAL | ios UDID | wifi [flags]

Runs one session with a phone: an Android phone by its adb serial, an iPhone by its UDID (see
`lumo-phonecam devices`), or the phone that pings UDP port 10099 over WiFi. Prints a live status
line and, at the end, a summary and the recordings. Ctrl-C ends the session cleanly.

  --content N        projection content type to ask for: 0 camera (default), 1 game
  --size WxH         picture size to ask for (default 1920x1080)
  --fps N            frame rate to ask for (default 30)
  --rate N           video bit rate index 0-5 (3 to 8 Mbit/s; default: the configured one)
  --no-audio         no audio capture
  --mute             record the audio without playing it
  --seconds N        end after N seconds of pictures (default: run until Ctrl-C)
  --wait N           give up when the phone has not come up after N seconds (default 30)
  --reconnect        after a lost link, connect again until Ctrl-C
  --preview          show the live picture in a window, with the status line as its title
  --out DIR          recordings (default out): PNG snapshot, first --y4m-seconds (default 1)
                     as Y4M, the audio as WAV, latency plot (HTML)
  --quiet            no live status line
)";

struct ConnectOptions {
  std::string link;  // usb, ios, wifi
  std::string id;
  int content = 0, width = 1920, height = 1080, fps = 30, rate = -1;
  bool audio = true, reconnect = false, preview = false, quiet = false;
  double seconds = 0, waitSeconds = 30;
  RecordingPlan plan;
  ConnectOptions() { plan.play = true; }  // a person at a real phone wants to hear it
};

// What the host window would receive: kept for the main thread to print, and the one message
// that says a WiFi phone went silent.
class MessageLog {
 public:
  void Post(const Json::Value& message) {
    const Json::Value& inner = message["interMsg"];
    std::lock_guard<std::mutex> guard(m_lock);
    const unsigned id = inner["Msg"].asUInt();
    if (id == CPhoneCameraCtrl::kMsgAppStop && inner["wParam"].asUInt() == 2) m_wifiSilent = true;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    m_lines.push_back("host message " + Json::writeString(builder, inner));
  }
  void Print(bool quiet) {
    std::lock_guard<std::mutex> guard(m_lock);
    for (const std::string& line : m_lines)
      if (!quiet) std::fprintf(stderr, "\r%s\x1b[K\n", line.c_str());
    m_lines.clear();
  }
  bool TakeWifiSilent() {
    std::lock_guard<std::mutex> guard(m_lock);
    return std::exchange(m_wifiSilent, false);
  }

 private:
  std::mutex m_lock;
  std::deque<std::string> m_lines;
  bool m_wifiSilent = false;
};

struct Run {
  ConnectOptions o;
  PhonecamHost* host = nullptr;
  HostCallback* callback = nullptr;
  MessageLog* messages = nullptr;
  Recorder* recorder = nullptr;
  Preview* preview = nullptr;
  const PacketCounter* packets = nullptr;
  SessionStats stats;
};

bool StopAsked() { return Interrupted(); }

// "0", or the count and the names of the threads other than the main one.
std::string ThreadList() {
  const std::vector<std::string> threads = OtherThreads();
  std::string text = std::to_string(threads.size());
  for (size_t i = 0; i < threads.size(); ++i) text += (i ? ", " : " (") + threads[i] + (i + 1 == threads.size() ? ")" : "");
  return text;
}

// Pulls pictures until the end, a stop, or a lost link; true when the link was lost.
bool Stream(Run& run, const std::function<bool()>& linkLost, const std::function<std::string()>& state) {
  RenderOptions options;
  // What is left of --seconds over all attempts (never 0, which would mean "until stopped").
  options.seconds = run.o.seconds > 0 ? std::max(run.o.seconds - run.stats.seconds, 0.001) : 0;
  options.quiet = run.o.quiet;
  options.wantAudio = run.o.audio;
  options.recorder = run.recorder;
  options.preview = run.preview;
  options.packets = run.packets;
  options.state = state;
  bool lost = false;
  options.stop = [&] {
    run.messages->Print(run.o.quiet);
    return StopAsked() || (lost = lost || linkLost());
  };
  SessionStats part;
  part.link = run.stats.link;
  RenderLoop(part, options);
  SessionStats& s = run.stats;
  s.seconds += part.seconds;
  s.pictures += part.pictures, s.stamped += part.stamped, s.audioDecoded += part.audioDecoded;
  s.packets += part.packets, s.bytes += part.bytes, s.dropped += part.dropped;
  s.width = part.width, s.height = part.height;
  s.latencies.insert(s.latencies.end(), part.latencies.begin(), part.latencies.end());
  return lost;
}

// One USB attempt: Start, the handshake (the library starts capture itself), audio, pictures,
// Stop. True when the link was lost (worth another attempt).
bool UsbAttempt(Run& run, ePhoneType type, const std::wstring& key) {
  CUSBConnectMgr* usb = CUSBConnectMgr::GetInstance();
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  const int preparedBefore = run.callback->Prepared();
  const int errorsBefore = run.callback->LinkErrors();
  if (!usb->Start(type, key)) {
    std::fprintf(stderr, "connect: the USB connection did not start (see the log; `lumo-phonecam doctor`)\n");
    return true;
  }
  bool lost = false;
  if (!run.callback->WaitPrepared(preparedBefore + 1, run.o.waitSeconds, [&] {
        run.messages->Print(run.o.quiet);
        return StopAsked() || run.callback->LinkErrors() != errorsBefore;
      })) {
    if (!StopAsked())
      std::fprintf(stderr, "connect: the phone did not come up within %.0f s\n", run.o.waitSeconds), lost = true;
  } else {
    if (run.o.audio) {
      parser->StartAudioCapture(PHONE_DATA_SOURCE_USB);
      // Audio decoding is the host's to start; video decoding started with the capture.
      CAudioDecoder::GetInstance(1)->StartDecode();
    }
    lost = Stream(
        run, [&] { return run.callback->LinkErrors() != errorsBefore || !usb->IsRunning(); },
        [] { return std::string("streaming"); });
    if (!lost) parser->StopCapture(PHONE_DATA_SOURCE_USB);
  }
  if (lost && run.callback->LinkErrors() != errorsBefore)
    std::fprintf(stderr, "\nconnect: link lost: %s\n", lumo::WideToUtf8(run.callback->LastError()).c_str());
  else if (lost)
    std::fprintf(stderr, "\nconnect: link lost\n");
  usb->Stop(!lost);
  CVideoDecoder::GetInstance()->StopDecode();
  CAudioDecoder::GetInstance(1)->StopDecode();
  return lost;
}

// One WiFi attempt: the port open, StartConnect when the phone is heard (see the top of this
// file), then capture started by the host, audio, pictures, Stop.
bool WifiAttempt(Run& run) {
  WifiConnectManager* wifi = WifiConnectManager::GetInstance();
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  wifi->Start();
  const int preparedBefore = run.callback->Prepared();
  uint64_t heard = wifi->MessagesHeard();
  bool asked = false;
  auto lastAsk = Steady::now();
  const auto giveUp = Steady::now() + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(run.o.waitSeconds));
  bool prepared = false;
  if (!run.o.quiet) std::fprintf(stderr, "connect: waiting for the phone on UDP port %u\n", KcpOnUdp::kPort);
  while (!StopAsked() && Steady::now() < giveUp) {
    if (run.callback->WaitPrepared(preparedBefore + 1, 0.05)) {
      prepared = true;
      break;
    }
    run.messages->Print(run.o.quiet);
    const uint64_t now = wifi->MessagesHeard();
    if (now != heard && (!asked || Steady::now() - lastAsk >= std::chrono::seconds(3))) {
      parser->StartConnect(PHONE_DATA_SOURCE_WIFI);
      asked = true, lastAsk = Steady::now(), heard = now;
    }
  }
  bool lost = false;
  if (!prepared) {
    if (!StopAsked()) {
      std::fprintf(stderr, "connect: no phone came up on UDP port %u within %.0f s%s\n", KcpOnUdp::kPort,
                   run.o.waitSeconds, asked ? "" : " (none was heard: is the firewall open for it?)");
      lost = true;
    }
  } else {
    wifi->SetConnected(true);
    if (run.o.audio) parser->StartAudioCapture(PHONE_DATA_SOURCE_WIFI);
    if (run.o.audio) CAudioDecoder::GetInstance(1)->StartDecode();
    parser->StartCapture(PHONE_DATA_SOURCE_WIFI);
    lost = Stream(
        run, [&] { return !wifi->IsRunning() || run.messages->TakeWifiSilent(); },
        [] { return std::string("streaming"); });
    if (lost) std::fprintf(stderr, "\nconnect: link lost: the phone went silent\n");
  }
  // Stop(true) asks a phone that is still there to stop capturing first.
  wifi->Stop(!lost && prepared);
  CVideoDecoder::GetInstance()->StopDecode();
  CAudioDecoder::GetInstance(1)->StopDecode();
  return lost;
}

bool ParseSize(const char* text, int& width, int& height) {
  return std::sscanf(text, "%dx%d", &width, &height) == 2 && width >= 16 && height >= 16 && width <= 8192 &&
         height <= 8192;
}

}  // namespace

int Connect(int argc, char** argv) {
  ConnectOptions o;
  int i = 2;
  if (argc > i) o.link = argv[i++];
  if ((o.link == "usb" || o.link == "ios") && argc > i) o.id = argv[i++];
  bool usage = !(o.link == "wifi" || ((o.link == "usb" || o.link == "ios") && !o.id.empty()));
  for (; i < argc && !usage; ++i) {
    const std::string flag = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    auto number = [&](auto& into) {
      if (v == nullptr) return usage = true, false;
      char* end = nullptr;
      const double value = std::strtod(v, &end);
      if (end == v || *end != '\0' || value < 0) return usage = true, false;
      into = static_cast<std::remove_reference_t<decltype(into)>>(value);
      ++i;
      return true;
    };
    if (flag == "--content") number(o.content);
    else if (flag == "--fps") number(o.fps);
    else if (flag == "--rate") number(o.rate), usage = usage || o.rate > 5;
    else if (flag == "--seconds") number(o.seconds);
    else if (flag == "--wait") number(o.waitSeconds);
    else if (flag == "--y4m-seconds") number(o.plan.y4mSeconds);
    else if (flag == "--size") usage = v == nullptr || !ParseSize(v, o.width, o.height), ++i;
    else if (flag == "--out" && v != nullptr) o.plan.dir = v, ++i;
    else if (flag == "--no-audio") o.audio = false;
    else if (flag == "--mute") o.plan.play = false;
    else if (flag == "--reconnect") o.reconnect = true;
    else if (flag == "--preview") o.preview = true;
    else if (flag == "--quiet") o.quiet = true;
    else usage = true;
  }
  if (usage || o.link.empty()) {
    const bool help = argc > 2 && std::strcmp(argv[argc - 1], "--help") == 0;
    std::fputs(kHelp, help ? stdout : stderr);
    return help ? 0 : 2;
  }
  av_log_set_level(AV_LOG_ERROR);
  InstallInterruptHandler();
  NoteBaselineThreads();
  // Registered before the library's objects exist, so it runs after they are destroyed: what
  // a host sees once it has unloaded the library.
  std::atexit([] { std::printf("connect: after unload, threads left: %s\n", ThreadList().c_str()); });

  Run run;
  run.o = o;
  PhonecamHost host;
  host.SetProjectContentType(o.content);
  host.SetProjectionResolution(o.width, o.height);
  host.SetVideoFps(o.fps);
  lumo::SetHostServices(&host);
  run.host = &host;
  MessageLog messages;
  run.messages = &messages;
  lumo::SetHostMessageSink([&messages](HWND, uint32_t, uintptr_t, intptr_t lParam) {
    std::unique_ptr<Json::Value> message(reinterpret_cast<Json::Value*>(lParam));  // the host deletes it
    messages.Post(*message);
    return true;
  });
  HostCallback callback;
  run.callback = &callback;
  PhoneDataParse* parser = PhoneDataParse::GetInstance();
  CUSBConnectMgr* usb = CUSBConnectMgr::GetInstance();
  WifiConnectManager* wifi = WifiConnectManager::GetInstance();
  usb->SetHwnd(reinterpret_cast<HWND>(0x1));
  usb->SetUSBEventCallback(&callback);
  parser->SetUSBCallback(&callback);
  parser->SetWifiCallback(&callback);
  parser->SetAudioRecordType(1);
  if (o.rate >= 0) parser->SetPhoneVideoRate(o.rate);

  std::unique_ptr<Preview> preview;
  if (o.preview) {
    std::string error;
    preview = Preview::Open(error);
    if (!preview) std::fprintf(stderr, "connect: --preview: %s; going on without a window\n", error.c_str());
  }
  run.preview = preview.get();
  run.stats.link = o.link;
  Recorder recorder(o.plan.dir, o.link, o.plan.y4mSeconds, o.fps);
  run.recorder = &recorder;
  BeginAudioRecording(host, o.plan, o.link);

  int rc = 0;
  {
    PacketCounter packets;
    run.packets = &packets;
    std::wstring key;
    if (o.link == "usb") {
      // The phone must be listed before Start: adb may take a moment to see a phone just plugged in.
      WaitFor([&] { return !(key = FindAndroidKey(o.id)).empty(); }, std::min(o.waitSeconds, 10.0), StopAsked,
              kPollOtherProgramMs);
      if (key.empty() && !StopAsked()) {
        std::fprintf(stderr, "connect: adb does not list %s (`lumo-phonecam devices` shows what it lists)\n", o.id.c_str());
        rc = 1;
      }
    } else if (o.link == "ios") {
      // The library connects to iPhones it has listed; usbmuxd may take a moment to see one.
      const std::wstring udid = lumo::Utf8ToWide(o.id);
      CPhoneDeviceManager* devices = CPhoneDeviceManager::GetInstance();
      if (WaitFor([&] { return devices->RefreshDevices(), devices->GetIOSDevice(udid) != nullptr; },
                  std::min(o.waitSeconds, 10.0), StopAsked, kPollOtherProgramMs)) {
        key = udid;
      } else if (!StopAsked()) {
        std::fprintf(stderr, "connect: usbmuxd does not list %s (`lumo-phonecam devices` shows what it lists)\n", o.id.c_str());
        rc = 1;
      }
    }
    for (int attempt = 0; rc == 0 && !StopAsked(); ++attempt) {
      if (attempt > 0) {
        std::fprintf(stderr, "connect: connecting again (attempt %d)\n", attempt + 1);
        WaitFor([] { return false; }, 1.0, StopAsked, 50);  // a moment for the phone's side to settle
      }
      const bool lost = o.link == "wifi" ? WifiAttempt(run) : UsbAttempt(run, o.link == "ios" ? PHONE_TYPE_IOS : PHONE_TYPE_ANDROID, key);
      if (!lost) break;
      if (!o.reconnect) rc = 1;
    }
  }
  // The host's shutdown: every manager told, then callbacks and window taken back.
  usb->OnExit();
  wifi->OnExit();
  wifi->Stop(false);
  parser->CancelDelayedWork();
  usb->SetUSBEventCallback(nullptr);
  parser->SetUSBCallback(nullptr);
  parser->SetWifiCallback(nullptr);
  FinishRecording(host, o.plan, recorder, run.stats);
  preview.reset();
  lumo::SetHostMessageSink(nullptr);
  lumo::SetHostServices(nullptr);

  run.stats.detail = o.link + (o.id.empty() ? "" : " " + o.id);
  PrintSummary({run.stats});
  if (run.stats.pictures == 0 && rc == 0) rc = 1;
  // After the shutdown calls only what the library keeps until it is unloaded may run: the
  // WiFi port's receive thread, once WiFi was started (its socket stays open for the next Start).
  std::printf("connect: %s, threads left: %s\n", StopAsked() ? "interrupted" : "ended", ThreadList().c_str());
  std::fflush(stdout);
  return rc;
}

}  // namespace phonecam
