// The part every reference-host session shares, whatever the link: the render loop that pulls
// pictures as a host's renderer would, the live status line, the recordings and the summary.
#pragma once

#include <json/value.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <string>
#include <mutex>
#include <vector>

#include "host/DefaultHostServices.h"
#include "host/PhoneCameraTypes.h"

namespace phonecam {

class Preview;
class Recorder;

// What one session did, for the status line and the summary table.
struct SessionStats {
  std::string link, detail, error;
  double seconds = 0;
  long long pictures = 0, stamped = 0, audioDecoded = 0;
  long long packets = 0, bytes = 0, dropped = 0;  // video packets queued for decoding / dropped
  uint64_t phoneSent = 0;                         // the simulated phone's own count (0: a real phone)
  int width = 0, height = 0;
  std::vector<int> latencies;  // ms, one per picture that told its capture time
  int y4mFrames = 0;
  std::vector<std::string> files;
  bool HasMedia() const { return pictures > 0 && audioDecoded > 0; }
};

// Counts the video packets the receiver queues (its push observer) for the packet rate, the bit
// rate and the drops. Installed once for the whole program, before any session starts.
class PacketCounter {
 public:
  PacketCounter();
  ~PacketCounter();
  long long Packets() const { return m_packets.load(); }
  long long Bytes() const { return m_bytes.load(); }

 private:
  std::atomic<long long> m_packets{0}, m_bytes{0};
};

// The host's callbacks, one object for both links. They run on the library's transport threads,
// under its callback lock: they only note what happened and wake the host's own thread.
struct HostCallback : IWifiEventCallback, IUSBEventCallback {
  void OnPhonePrepared() override;
  void OnCaptureStarted() override;
  void OnWifiReserved() override {}
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  void OnAppStartProjection() override {}
  void OnConnectionError(const std::wstring& message) override;

  // Waits (real time, at most `seconds`) until the phone has reported prepared `count` times,
  // or `stop` says so (polled every 50 ms).
  bool WaitPrepared(int count, double seconds, const std::function<bool()>& stop = {});
  int Prepared();
  int LinkErrors() { return linkErrors.load(); }
  std::wstring LastError();

 private:
  std::mutex lock;
  std::condition_variable changed;
  int prepared = 0;       // under lock
  std::wstring lastError;  // under lock
  std::atomic<int> linkErrors{0};
};

// Polls what gives no signal (another program's state, a counter of the library's) every
// `pollMs` until `ready`, `seconds` have passed, or `stop` says so. A `ready` that asks another
// program (adb, usbmuxd) takes a long interval: each look runs that program.
bool WaitFor(const std::function<bool()>& ready, double seconds, const std::function<bool()>& stop = {},
             uint32_t pollMs = 5);
constexpr uint32_t kPollOtherProgramMs = 250;

// The key under which the library lists the Android phone with adb serial `serial` (it keeps
// adb's padding in its keys), after asking adb afresh; empty when adb does not list it.
std::wstring FindAndroidKey(const std::string& serial);

// The reference host's services: the library's defaults, with the audio output chosen per
// session (so that each session's audio lands in its own WAV file) without touching the user's
// configuration file.
class PhonecamHost : public lumo::DefaultHostServices {
 public:
  // Empty: whatever the user configured.
  void SetAudioOutput(const std::string& selection);
  std::string GetConfigString(const std::string& file, const std::string& section, const std::string& key,
                              const std::string& defaultValue, size_t maxChars) override;

 private:
  std::mutex m_lock;
  std::string m_audioOutput;  // under m_lock
};

// Where a session's recordings go.
struct RecordingPlan {
  std::string dir = "out";
  double y4mSeconds = 1;  // 1080p I420 is 3 MB a picture
  bool play = false;      // also play the audio on the system's output
};

// Before a session starts: its audio goes to <dir>/<link>-audio-1.wav.
void BeginAudioRecording(PhonecamHost& host, const RecordingPlan& plan, const std::string& link);
// After the session's decoders have stopped: closes the audio output (which completes the WAV
// file) and the recorder, and lists what was written in `s.files` (a failure in `s.error`).
void FinishRecording(PhonecamHost& host, const RecordingPlan& plan, Recorder& recorder, SessionStats& s);

struct RenderOptions {
  double seconds = 0;  // <= 0: until `stop` says so
  bool quiet = false;
  bool wantAudio = true;
  Recorder* recorder = nullptr;
  Preview* preview = nullptr;
  const PacketCounter* packets = nullptr;
  std::function<bool()> stop;          // polled every 10 ms; true ends the loop
  std::function<std::string()> state;  // the link's state for the status line
};

// Capture-to-screen latency of a picture in ms: from the capture time the simulated phone draws
// into the picture when there is one (`stamped` true), else from the phone timestamp the
// picture came with (the phone's clock is matched to ours during the handshake).
int PictureLatencyMs(const uint8_t* i420, int width, int height, unsigned long long phoneTs, bool& stamped);

// The host's render loop: pulls pictures until `seconds` or `stop`, reading each one's latency,
// recording it and showing it, with a status line twice a second.
void RenderLoop(SessionStats& s, const RenderOptions& options);

double Percentile(std::vector<int> values, double p);
// The summary table of the sessions on stdout.
void PrintSummary(const std::vector<SessionStats>& sessions);

// Ctrl-C (SIGINT, SIGTERM): the first asks the session to end cleanly; the flag is polled.
void InstallInterruptHandler();
bool Interrupted();
// Notes the threads that run before the host starts anything (the main thread, a sanitizer's
// own), which OtherThreads leaves out.
void NoteBaselineThreads();
// The names of this process's threads other than those, right now.
std::vector<std::string> OtherThreads();

}  // namespace phonecam
