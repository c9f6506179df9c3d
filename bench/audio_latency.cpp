// Audio latency: an AAC frame pushed into the receiver -> its PCM handed to the device, and
// how much the device itself holds on top, for the ALSA settings of before and of now.
//
// This machine has no sound card, and ALSA's "null" device consumes everything at once, so it
// says nothing about timing. The device here is therefore a model sound card in real time: it
// starts once `startThreshold` frames are queued, then plays at the sample rate; it holds at
// most `buffer` frames; a write that finds it full either waits for room (now) or drops what
// does not fit (before: the non-blocking write gave up on -EAGAIN). Its buffer and start
// threshold are the ones ALSA really gave: for "now" they are read back from our ALSA output
// opened on "null"; for "before" they are what snd_pcm_set_params(..., 500000) gave on this
// machine (buffer 22,050 frames, start threshold 22,048, read back from alsa-lib 1.2).
//
// The chain is the library's own: AudioDataReviever -> CAudioDecoder (libfaad2) -> PcmPlayer
// (its 10-buffer pre-fill and pacing) -> the model card. Frames of a 44.1 kHz stereo AAC-LC
// tone are pushed at their real rate (one every 23.2 ms). The first two frames give no PCM
// (one opens the decoder, libfaad2's first decode is empty), so buffer k is frame k + 2's.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Stats.h"
#include "AudioEncoder.h"
#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/CAudioDecoder.h"
#include "media/PcmPlayer.h"
#include "platform/audio_output.h"
#include "support/QuietHost.h"

namespace {

using lumo::bench::Median;
using lumo::bench::Percentile;

using Clock = std::chrono::steady_clock;

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }



struct CardSettings {
  long buffer = 0;
  long startThreshold = 0;
  bool waitForRoom = true;
};

// What the model card saw: per buffer handed over, when, and when its first sample is heard.
struct CardLog {
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<Clock::time_point> handed, heard;
  std::vector<double> queuedMs;  // frames already in the device when the buffer came, in ms
  long dropped = 0;              // frames that did not fit
  int underruns = 0;
};

class ModelCard final : public lumo::AudioOutput {
 public:
  ModelCard(CardSettings settings, std::shared_ptr<CardLog> log) : m_set(settings), m_log(std::move(log)) {}

  bool Open(int channels, int sampleRate) override {
    m_frameBytes = static_cast<size_t>(channels) * 2;
    m_rate = sampleRate;
    m_open = true;
    return true;
  }
  bool Write(const unsigned char*, size_t length) override {
    // Called by the playback thread only; the lock is for the bench reading the log.
    std::unique_lock<std::mutex> lock(m_log->mutex);
    const auto now = Clock::now();
    long frames = static_cast<long>(length / m_frameBytes);
    Advance(now);
    const size_t index = m_log->handed.size();
    m_log->handed.push_back(now);
    m_log->heard.push_back(Clock::time_point{});
    m_log->queuedMs.push_back((m_written - m_played) * 1000.0 / m_rate);
    const long position = m_written;  // the buffer's first frame
    if (m_written - m_played + frames > m_set.buffer) {
      if (m_set.waitForRoom) {
        // Real time, like snd_pcm_wait: the device frees room as it plays.
        const long excess = m_written - m_played + frames - m_set.buffer;
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::microseconds(excess * 1000000L / m_rate + 1));
        lock.lock();
        Advance(Clock::now());
      } else {
        const long fits = std::max(0L, m_set.buffer - (m_written - m_played));
        m_log->dropped += frames - fits;
        frames = fits;
      }
    }
    m_written += frames;
    if (m_started) {
      m_log->heard[index] = m_startTime + Frames(position - m_startFrame);
    } else {
      m_pending.push_back({index, position});
      if (m_written - m_played >= m_set.startThreshold) Start(Clock::now());
    }
    return true;
  }
  void Close() override { m_open = false; }
  bool IsOpen() const override { return m_open; }

 private:
  Clock::duration Frames(long n) const {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(static_cast<double>(n) / m_rate));
  }
  void Start(Clock::time_point at) {
    m_started = true;
    m_startTime = at;
    m_startFrame = m_played;
    for (const auto& p : m_pending) m_log->heard[p.first] = at + Frames(p.second - m_startFrame);
    m_pending.clear();
  }
  // Under the log's lock. Plays what the time since the start allows; running dry is an underrun, after which the
  // device waits for its start threshold again (what snd_pcm_recover leads to).
  void Advance(Clock::time_point now) {
    if (!m_started) return;
    const long played = m_startFrame + static_cast<long>(std::chrono::duration<double>(now - m_startTime).count() * m_rate);
    if (played >= m_written) {
      m_played = m_written;
      m_started = false;
      ++m_log->underruns;
    } else {
      m_played = played;
    }
  }

  CardSettings m_set;
  std::shared_ptr<CardLog> m_log;
  size_t m_frameBytes = 4;
  int m_rate = 44100;
  bool m_open = false;
  long m_written = 0, m_played = 0, m_startFrame = 0;
  bool m_started = false;
  Clock::time_point m_startTime;
  std::vector<std::pair<size_t, long>> m_pending;
};

struct RunResult {
  std::vector<double> handMs;   // frame pushed -> its PCM handed to the device
  std::vector<double> heardMs;  // frame pushed -> its first sample played by the device
  std::vector<double> queuedMs;
  long dropped = 0;
  int underruns = 0;
};

RunResult Run(const std::vector<lumo::phonesim::AacFrame>& frames, CardSettings settings) {
  auto log = std::make_shared<CardLog>();
  CPhoneCameraCtrl ctrl;
  AudioDataReviever rx(&ctrl);
  PcmPlayer player([settings, log]() { return std::make_unique<ModelCard>(settings, log); });
  RunResult result;
  {
    CAudioDecoder decoder(&rx, &player, &ctrl);
    decoder.SetParam(44100, 2, 1);
    decoder.StartDecode();
    const auto frameTime = std::chrono::microseconds(1024 * 1000000L / 44100);
    std::vector<Clock::time_point> pushed(frames.size());
    const auto start = Clock::now();
    for (size_t i = 0; i < frames.size(); ++i) {
      std::this_thread::sleep_until(start + frameTime * static_cast<int>(i));
      pushed[i] = Clock::now();
      rx.PushAACRawData(frames[i].data(), frames[i].size(), i);
    }
    // The player still holds its pre-fill: let it play out (real time, bounded).
    const size_t expected = frames.size() - 2;
    {
      std::unique_lock<std::mutex> lock(log->mutex);
      const auto until = Clock::now() + std::chrono::seconds(5);
      while (log->handed.size() < expected && Clock::now() < until) {
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        lock.lock();
      }
    }
    decoder.StopDecode();
    player.Close();
    std::lock_guard<std::mutex> guard(log->mutex);
    for (size_t k = 0; k < log->handed.size() && k + 2 < frames.size(); ++k) {
      result.handMs.push_back(Ms(log->handed[k] - pushed[k + 2]));
      if (log->heard[k] != Clock::time_point{}) result.heardMs.push_back(Ms(log->heard[k] - pushed[k + 2]));
    }
    result.queuedMs = log->queuedMs;
    result.dropped = log->dropped;
    result.underruns = log->underruns;
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const int reps = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  lumo::test::QuietHost host;
  lumo::SetHostServices(&host);

  // What our ALSA output asks of a device, read back from ALSA itself.
  CardSettings now;
  {
    auto alsa = lumo::CreateSystemAudioOutput("null");
    lumo::AudioQueueInfo info;
    if (!alsa->Open(2, 44100) || !alsa->QueueInfo(info)) {
      std::fprintf(stderr, "ALSA null device unavailable\n");
      return 1;
    }
    now.buffer = info.bufferFrames;
    now.startThreshold = info.startThresholdFrames;
    alsa->Close();
  }
  const CardSettings before{22050, 22048, false};
  std::printf("ALSA settings at 44.1 kHz: before buffer %ld start %ld frames (%.1f / %.1f ms); now buffer %ld "
              "start %ld frames (%.1f / %.1f ms)\n",
              before.buffer, before.startThreshold, before.buffer / 44.1, before.startThreshold / 44.1, now.buffer,
              now.startThreshold, now.buffer / 44.1, now.startThreshold / 44.1);

  lumo::phonesim::AacSineEncoder encoder;
  if (!encoder.Open(440, 0.5)) {
    std::fprintf(stderr, "AAC encoder unavailable: %s\n", encoder.Error().c_str());
    return 1;
  }
  std::vector<lumo::phonesim::AacFrame> frames;
  while (frames.size() < 200) encoder.EncodeNext(frames);  // 4.6 s of audio
  frames.resize(200);

  for (const auto& [name, settings] : {std::make_pair("before", before), std::make_pair("now", now)}) {
    std::vector<double> hand50, hand99, heard50, heard99, queued50, queuedMax;
    long dropped = 0;
    int underruns = 0;
    for (int r = 0; r < reps; ++r) {
      RunResult run = Run(frames, settings);
      hand50.push_back(Percentile(run.handMs, 0.5));
      hand99.push_back(Percentile(run.handMs, 0.99));
      heard50.push_back(Percentile(run.heardMs, 0.5));
      heard99.push_back(Percentile(run.heardMs, 0.99));
      queued50.push_back(Percentile(run.queuedMs, 0.5));
      queuedMax.push_back(Percentile(run.queuedMs, 1.0));
      dropped += run.dropped;
      underruns += run.underruns;
    }
    std::printf("audio %-6s (medians of %d runs): push->handed to device p50 %.1f p99 %.1f ms; device queue when a "
                "buffer arrives p50 %.1f max %.1f ms; push->heard p50 %.1f p99 %.1f ms; dropped %ld frames, "
                "underruns %d in all runs\n",
                name, reps, Median(hand50), Median(hand99), Median(queued50), Median(queuedMax), Median(heard50),
                Median(heard99), dropped, underruns);
  }
  lumo::SetHostServices(nullptr);
  return 0;
}
