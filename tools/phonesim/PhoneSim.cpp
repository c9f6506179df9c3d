#include "PhoneSim.h"

#include <algorithm>

#include "AdbDevice.h"
#include "AudioEncoder.h"
#include "Camera.h"
#include "TimestampBlocks.h"
#include "VideoEncoder.h"
#include "platform/clock.h"

namespace lumo::phonesim {
namespace {

std::unique_ptr<PhoneTransport> MakeTransport(const PhoneSimOptions& options) {
  if (options.transport == "adb") return MakeAdbDeviceTransport(options);
  if (options.transport == "usbmux") return MakeUsbmuxTransport(options);
  return options.transport == "kcp" ? MakeKcpTransport(options) : MakeTcpTransport(options);
}

}  // namespace

PhoneSim::PhoneSim(const PhoneSimOptions& options, std::unique_ptr<PhoneTransport> transport)
    : m_options(options),
      m_transport(transport ? std::move(transport) : MakeTransport(options)),
      m_session(options, [this](const std::string& frame) {
        if (!m_transport->Send(frame)) return false;
        if (m_tap) m_tap(frame);
        return true;
      }) {
  m_session.SetOnChange([this] { Wake(); });
}

PhoneSim::~PhoneSim() { Stop(); }

bool PhoneSim::Start(std::string& error) {
  if (!m_transport || !m_transport->Open(error)) return false;
  m_statusUs = PerfCounterUs();
  m_linkThread = std::thread([this] { ServeLinks(); });
  return true;
}

void PhoneSim::Stop() {
  m_stopped = true;
  if (m_transport) m_transport->Stop();
  Wake();
  if (m_linkThread.joinable()) m_linkThread.join();
}

uint16_t PhoneSim::Port() const { return m_transport ? m_transport->Port() : 0; }

void PhoneSim::Wake() {
  {
    std::lock_guard<std::mutex> guard(m_wakeLock);
    ++m_wakeCount;
  }
  m_wake.notify_all();
}

bool PhoneSim::LinkStopping() {
  std::lock_guard<std::mutex> guard(m_wakeLock);
  return m_linkStop;
}

PhoneSimStatus PhoneSim::Status() {
  PhoneSimStatus status;
  status.state = m_session.State();
  status.transport = m_transport ? m_transport->Describe() : "";
  status.counters = m_session.Counters();
  status.links = m_links;
  std::lock_guard<std::mutex> guard(m_statusLock);
  const uint64_t now = PerfCounterUs();
  if (now > m_statusUs)
    status.fps = static_cast<double>(status.counters.videoFrames - m_statusFrames) * 1e6 / static_cast<double>(now - m_statusUs);
  m_statusFrames = status.counters.videoFrames;
  m_statusUs = now;
  status.lastError = m_lastError;
  return status;
}

void PhoneSim::ServeLinks() {
  while (!m_stopped && m_transport->WaitForPeer()) {
    ++m_links;
    m_session.Begin();
    {
      std::lock_guard<std::mutex> guard(m_wakeLock);
      m_linkStop = false;
    }
    std::thread video([this] { VideoLoop(); });
    std::thread control([this] { ControlLoop(); });
    bool stalled = false;
    std::string frame;
    while (m_transport->Receive(frame)) {
      // A stall holds the first frame that arrives after its time: the PC's frames then back up
      // in the socket, as they do behind a phone app that stopped reading.
      if (!stalled && m_options.stallAtMs >= 0 && m_session.SinceBeginMs() >= static_cast<uint64_t>(m_options.stallAtMs)) {
        stalled = true;
        SleepMs(m_options.stallMs);
      }
      m_session.OnFrame(reinterpret_cast<const uint8_t*>(frame.data()), frame.size());
    }
    {
      std::lock_guard<std::mutex> guard(m_wakeLock);
      m_linkStop = true;
    }
    m_wake.notify_all();
    m_transport->DropLink();  // a send blocked on a full socket returns now
    video.join();
    control.join();
  }
}

void PhoneSim::VideoLoop() {
  VideoEncoder encoder;
  std::unique_ptr<CameraSource> camera;
  if (m_options.videoFile.empty()) {
    camera = MakePatternCamera();
  } else {
    std::string error;
    camera = MakeFileCamera(m_options.videoFile, error);
    if (!camera) {
      std::lock_guard<std::mutex> guard(m_statusLock);
      m_lastError = error;
      return;
    }
  }
  uint32_t generation = 0;
  int frame = 0;
  bool forceKey = false;
  uint64_t dueUs = 0;
  std::vector<uint8_t> packet;
  for (;;) {
    VideoPlan plan = m_session.Video();
    std::unique_lock<std::mutex> lock(m_wakeLock);
    if (m_linkStop) return;
    if (!plan.capturing) {
      const uint64_t seen = m_wakeCount;
      GetClock().WaitFor(lock, m_wake, 1000000, [&] { return m_linkStop || m_wakeCount != seen; });
      continue;
    }
    if (plan.generation != generation) {
      lock.unlock();
      VideoEncoderSettings settings;
      settings.codec = plan.codec;
      settings.width = plan.width;
      settings.height = plan.height;
      settings.fps = plan.fps;
      settings.bitRate = plan.bitRate;
      settings.gop = m_options.gop > 0 ? m_options.gop : plan.fps;
      settings.preset = m_options.preset;
      settings.threads = m_options.encoderThreads;
      generation = plan.generation;
      if (!encoder.Open(settings)) {
        std::lock_guard<std::mutex> guard(m_statusLock);
        m_lastError = encoder.Error();
        continue;  // waits for the next plan
      }
      frame = 0;
      forceKey = true;
      dueUs = PerfCounterUs();
      continue;
    }
    if (!encoder.IsOpen()) {
      const uint64_t seen = m_wakeCount;
      GetClock().WaitFor(lock, m_wake, 1000000, [&] { return m_linkStop || m_wakeCount != seen; });
      continue;
    }
    const uint64_t now = PerfCounterUs();
    if (now < dueUs) {
      const uint64_t seen = m_wakeCount;
      GetClock().WaitFor(lock, m_wake, dueUs - now, [&] { return m_linkStop || m_wakeCount != seen; });
      continue;
    }
    lock.unlock();

    // The capture time is read when the picture is taken, before encoding, as on a phone.
    const uint32_t phoneMs = static_cast<uint32_t>(m_session.PhoneClockMs());
    uint8_t* planes[3] = {nullptr, nullptr, nullptr};
    int strides[3] = {0, 0, 0};
    if (!encoder.BeginPicture()) return;
    for (int i = 0; i < 3; ++i) planes[i] = encoder.Plane(i), strides[i] = encoder.Stride(i);
    if (!camera->Draw(planes, strides, plan.width, plan.height, frame)) {
      std::lock_guard<std::mutex> guard(m_statusLock);
      m_lastError = "the camera gave no picture";
      return;
    }
    if (m_options.stampFrames)
      WriteFrameStamp(planes[0], strides[0], planes[1], strides[1], planes[2], strides[2], plan.width, plan.height,
                      FrameStamp{phoneMs, static_cast<uint16_t>(frame)});
    Stopwatch watch;
    bool key = false;
    if (!encoder.Encode(forceKey, packet, key)) return;
    m_session.NoteEncodeTime(watch.ElapsedUs());
    forceKey = false;
    ++frame;
    m_session.SendVideo(packet, key, phoneMs);
    // A phone that falls behind drops pictures instead of sending a burst to catch up.
    const uint64_t periodUs = 1000000 / static_cast<uint64_t>(plan.fps);
    dueUs += periodUs;
    const uint64_t after = PerfCounterUs();
    if (after > dueUs + periodUs) dueUs = after;
  }
}

void PhoneSim::ControlLoop() {
  AacSineEncoder audio;
  bool audioOpen = false;
  uint64_t nextAudioUs = 0;
  long long audioFrames = 0;
  uint64_t audioStartUs = 0;
  bool dropped = false;
  std::vector<AacFrame> aac;
  for (;;) {
    uint64_t waitUs = m_session.Tick();
    if (!dropped && m_options.dropAtMs >= 0 && m_session.SinceBeginMs() >= static_cast<uint64_t>(m_options.dropAtMs)) {
      dropped = true;
      m_transport->DropLink();
    }
    if (m_session.AudioOn()) {
      if (!audioOpen) {
        audioOpen = true;
        if (!audio.Open(m_options.toneHz, m_options.toneLevel, m_options.sampleRate, m_options.channels,
                        m_options.audioBitRate)) {
          std::lock_guard<std::mutex> guard(m_statusLock);
          m_lastError = audio.Error();
        }
        audioStartUs = nextAudioUs = PerfCounterUs();
      }
      // Frames are due by the sample clock, not by adding a rounded period.
      while (audio.SampleRate() > 0 && PerfCounterUs() >= nextAudioUs) {
        const uint32_t phoneMs = static_cast<uint32_t>(m_session.PhoneClockMs());
        aac.clear();
        if (!audio.EncodeNext(aac)) break;
        for (const AacFrame& f : aac) m_session.SendAudio(f, phoneMs);
        ++audioFrames;
        nextAudioUs = audioStartUs + static_cast<uint64_t>(audioFrames) * audio.FrameSamples() * 1000000ull /
                                         static_cast<uint64_t>(audio.SampleRate());
      }
      const uint64_t now = PerfCounterUs();
      if (audio.SampleRate() > 0) waitUs = std::min(waitUs, nextAudioUs > now ? nextAudioUs - now : 0);
    }
    std::unique_lock<std::mutex> lock(m_wakeLock);
    if (m_linkStop) return;
    const uint64_t seen = m_wakeCount;
    if (waitUs > 0) GetClock().WaitFor(lock, m_wake, waitUs, [&] { return m_linkStop || m_wakeCount != seen; });
  }
}

}  // namespace lumo::phonesim
