#include "HostSession.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "Preview.h"
#include "device/CPhoneDeviceManager.h"
#include "Recording.h"
#include "TimestampBlocks.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "media/PcmPlayer.h"
#include "platform/clock.h"
#include "platform/text.h"

namespace phonecam {
namespace {

using Steady = std::chrono::steady_clock;

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

// A library counter that the phone's quality report may set back to zero at any time: adds up
// what it grew by between looks.
class CounterDelta {
 public:
  explicit CounterDelta(long long now) : m_last(now) {}
  long long Add(long long now) {
    const long long grew = now >= m_last ? now - m_last : now;
    m_last = now;
    return grew;
  }

 private:
  long long m_last;
};

}  // namespace

void HostCallback::OnPhonePrepared() {
  std::lock_guard<std::mutex> guard(lock);
  ++prepared;
  changed.notify_all();
}

void HostCallback::OnCaptureStarted() {}

void HostCallback::OnConnectionError(const std::wstring& message) {
  std::lock_guard<std::mutex> guard(lock);
  lastError = message;
  ++linkErrors;
  changed.notify_all();
}

bool HostCallback::WaitPrepared(int count, double seconds, const std::function<bool()>& stop) {
  const auto end = Steady::now() + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(seconds));
  std::unique_lock<std::mutex> guard(lock);
  while (prepared < count) {
    if (Steady::now() >= end || (stop && stop())) return false;
    changed.wait_for(guard, std::chrono::milliseconds(50));
  }
  return true;
}

int HostCallback::Prepared() {
  std::lock_guard<std::mutex> guard(lock);
  return prepared;
}

std::wstring HostCallback::LastError() {
  std::lock_guard<std::mutex> guard(lock);
  return lastError;
}

bool WaitFor(const std::function<bool()>& ready, double seconds, const std::function<bool()>& stop, uint32_t pollMs) {
  const auto end = Steady::now() + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(seconds));
  while (!ready()) {
    if (Steady::now() > end || (stop && stop())) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
  }
  return true;
}

std::wstring FindAndroidKey(const std::string& serial) {
  const std::wstring wanted = lumo::Utf8ToWide(serial);
  CPhoneDeviceManager* devices = CPhoneDeviceManager::GetInstance();
  devices->RefreshDevices();
  for (auto& [key, info] : devices->GetAllAndroidDevices()) {
    std::wstring trimmed = key;
    trimmed.erase(trimmed.find_last_not_of(L" \t") + 1);
    if (trimmed == wanted) return key;
  }
  return std::wstring();
}

void PhonecamHost::SetAudioOutput(const std::string& selection) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_audioOutput = selection;
}

std::string PhonecamHost::GetConfigString(const std::string& file, const std::string& section, const std::string& key,
                                          const std::string& defaultValue, size_t maxChars) {
  if (file == "phoneVideoCfg.ini" && section == "SECT_VIDEO" && key == "audioOutput") {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_audioOutput.empty()) return m_audioOutput;
  }
  return DefaultHostServices::GetConfigString(file, section, key, defaultValue, maxChars);
}

void BeginAudioRecording(PhonecamHost& host, const RecordingPlan& plan, const std::string& link) {
  std::error_code ec;
  std::filesystem::create_directories(plan.dir, ec);
  host.SetAudioOutput((plan.play ? "tee:" : "wav:") + plan.dir + "/" + link + "-audio");
}

void FinishRecording(PhonecamHost& host, const RecordingPlan& plan, Recorder& recorder, SessionStats& s) {
  // The library keeps its audio output open between sessions; closing it here writes the WAV
  // file's sizes, and the next session opens the output it is told to.
  PcmPlayer::GetInstance(1)->Close();
  host.SetAudioOutput("");
  std::string error;
  if (!recorder.Finish(s.files, error) && s.error.empty()) s.error = "recording: " + error;
  s.y4mFrames = recorder.Y4mFrames();
  const std::string wav = plan.dir + "/" + s.link + "-audio-1.wav";
  std::error_code ec;
  if (std::filesystem::exists(wav, ec)) s.files.push_back(wav);
}

PacketCounter::PacketCounter() {
  H264DataReviever::GetInstance()->SetPushObserver([this](unsigned long long, unsigned long long bytes) {
    m_packets.fetch_add(1, std::memory_order_relaxed);
    m_bytes.fetch_add(static_cast<long long>(bytes), std::memory_order_relaxed);
  });
}

PacketCounter::~PacketCounter() { H264DataReviever::GetInstance()->SetPushObserver(nullptr); }

int PictureLatencyMs(const uint8_t* i420, int width, int height, unsigned long long phoneTs, bool& stamped) {
  const uint32_t nowMs = static_cast<uint32_t>(lumo::WallClock100ns() / 10000);
  lumo::phonesim::FrameStamp stamp;
  stamped = lumo::phonesim::ReadFrameStamp(i420, width, width, height, stamp);
  // Both clocks are the low 32 bits of milliseconds: the difference is right across a wrap.
  const int latency = static_cast<int>(nowMs - (stamped ? stamp.captureMs : static_cast<uint32_t>(phoneTs)));
  // A phone whose clock was never matched gives nonsense; it is not a latency.
  return latency >= 0 && latency < 60000 ? latency : -1;
}

double Percentile(std::vector<int> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

void RenderLoop(SessionStats& s, const RenderOptions& o) {
  CVideoDecoder* decoder = CVideoDecoder::GetInstance();
  CPhoneCameraCtrl* ctrl = CPhoneCameraCtrl::GetInstance();
  H264DataReviever* receiver = H264DataReviever::GetInstance();
  const CPhoneCameraCtrl::FrameCounts first = ctrl->GetFrameCounts();
  CounterDelta audio(first.decodedAudio), decoded(first.decodedVideo);
  long long windowDecoded = 0;
  const long long packetsBefore = o.packets ? o.packets->Packets() : 0;
  const long long bytesBefore = o.packets ? o.packets->Bytes() : 0;
  const unsigned long long droppedBefore = receiver->DroppedPackets();
  const auto start = Steady::now();
  auto nextStatus = start + std::chrono::milliseconds(500);
  // The last half second, for the rates on the status line.
  long long windowPictures = 0, windowPackets = s.packets, windowBytes = s.bytes;
  std::vector<int> recent;
  while (true) {
    s.seconds = std::chrono::duration<double>(Steady::now() - start).count();
    if ((o.seconds > 0 && s.seconds >= o.seconds) || (o.stop && o.stop())) break;
    int width = 0, height = 0;
    unsigned long long ts = 0;
    // A render thread woken by each picture (or every 10 ms, for the status line and Ctrl-C).
    unsigned char* yuv = decoder->WaitYuvData(10) ? decoder->GetYuvData(width, height, ts) : nullptr;
    if (yuv != nullptr) {
      ++s.pictures, ++windowPictures;
      s.width = width, s.height = height;
      bool stamped = false;
      const int latency = PictureLatencyMs(yuv, width, height, ts, stamped);
      if (stamped) ++s.stamped;
      if (latency >= 0) s.latencies.push_back(latency), recent.push_back(latency);
      if (o.recorder) o.recorder->OnPicture(yuv, width, height, s.seconds, latency);
      if (o.preview) o.preview->Show(yuv, width, height);
    }
    const CPhoneCameraCtrl::FrameCounts counts = ctrl->GetFrameCounts();
    s.audioDecoded += audio.Add(counts.decodedAudio);
    windowDecoded += decoded.Add(counts.decodedVideo);
    if (o.packets) s.packets = o.packets->Packets() - packetsBefore, s.bytes = o.packets->Bytes() - bytesBefore;
    s.dropped = static_cast<long long>(receiver->DroppedPackets() - droppedBefore);
    if (o.preview && o.preview->CloseRequested()) break;
    if (Steady::now() >= nextStatus) {
      char line[320];
      std::snprintf(line, sizeof line,
                    "%s %s %.0fs | in %.0f/s %.1f Mbit/s | decoded %.0f/s | shown %.0f/s %dx%d | latency p50 %.0f ms | dropped %lld | audio %s",
                    s.link.c_str(), o.state ? o.state().c_str() : "", s.seconds, (s.packets - windowPackets) * 2.0,
                    (s.bytes - windowBytes) * 16.0 / 1e6, windowDecoded * 2.0, windowPictures * 2.0, s.width, s.height,
                    Percentile(recent, 0.5), s.dropped,
                    !o.wantAudio ? "off" : s.audioDecoded > 0 ? "playing" : "waiting");
      if (!o.quiet) std::fprintf(stderr, "\r%s\x1b[K", line);
      if (o.preview) o.preview->SetTitle(line);
      recent.clear();
      windowPictures = 0, windowDecoded = 0, windowPackets = s.packets, windowBytes = s.bytes;
      nextStatus += std::chrono::milliseconds(500);
    }
  }
  if (!o.quiet) std::fputs("\n", stderr);
}

void PrintSummary(const std::vector<SessionStats>& sessions) {
  std::printf("%-5s %-8s %-8s %-7s %-9s %-9s %-9s %-9s %-11s %s\n", "link", "sent", "pictures", "fps", "lat p50",
              "lat p99", "lat max", "dropped", "audio dec", "how");
  for (const SessionStats& s : sessions) {
    if (!s.error.empty()) std::printf("%-5s failed: %s\n", s.link.c_str(), s.error.c_str());
    std::printf("%-5s %-8llu %-8lld %-7.1f %-9.0f %-9.0f %-9.0f %-9lld %-11lld %s\n", s.link.c_str(),
                static_cast<unsigned long long>(s.phoneSent), s.pictures, s.seconds > 0 ? s.pictures / s.seconds : 0.0,
                Percentile(s.latencies, 0.5), Percentile(s.latencies, 0.99), Percentile(s.latencies, 1.0), s.dropped,
                s.audioDecoded, s.detail.c_str());
  }
  for (const SessionStats& s : sessions) {
    if (s.y4mFrames > 0) std::printf("%s: Y4M %d pictures of %dx%d\n", s.link.c_str(), s.y4mFrames, s.width, s.height);
    for (const std::string& file : s.files) std::printf("%s: wrote %s\n", s.link.c_str(), file.c_str());
  }
}

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() { return g_interrupted != 0; }

namespace {

std::vector<std::string> ThreadIds() {
  std::vector<std::string> ids;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.') ids.push_back(entry->d_name);
    closedir(dir);
  }
  return ids;
}

// The threads that ran before the host started anything (the main thread, a sanitizer's own).
std::vector<std::string>& Baseline() {
  static std::vector<std::string> ids;
  return ids;
}

}  // namespace

void NoteBaselineThreads() {
#ifdef __SANITIZE_THREAD__
  // ThreadSanitizer starts its own background thread with the program's first thread.
  std::thread([] {}).join();
#endif
  Baseline() = ThreadIds();
}

std::vector<std::string> OtherThreads() {
  std::vector<std::string> names;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return {"(unknown: no /proc)"};
  const std::string self = std::to_string(getpid());
  const std::vector<std::string>& baseline = Baseline();
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.' || self == entry->d_name) continue;
    if (std::find(baseline.begin(), baseline.end(), entry->d_name) != baseline.end()) continue;
    std::string name = entry->d_name;
    if (FILE* comm = std::fopen(("/proc/self/task/" + name + "/comm").c_str(), "r")) {
      char text[64] = {};
      if (std::fgets(text, sizeof text, comm)) name = text, name.erase(name.find_last_not_of('\n') + 1);
      std::fclose(comm);
    }
    names.push_back(name);
  }
  closedir(dir);
  return names;
}

}  // namespace phonecam
