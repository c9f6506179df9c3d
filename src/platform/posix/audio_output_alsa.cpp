// The system output on Linux: an ALSA PCM ("default" unless named), interleaved S16_LE.
//
// Latency: the player already holds about 230 ms of audio before it starts (its pre-fill), so
// the device is kept small: about 50 ms of buffer, and it starts playing once half of that is
// queued. The player paces itself slightly faster than real time while it has a backlog, so
// the device is mostly full; a write that finds it full waits for room instead of dropping the
// rest of the buffer, which makes the device, not the backlog, set the pace.
#include <alsa/asoundlib.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <utility>

#include "platform/audio_output.h"

namespace lumo {
namespace {

constexpr unsigned kBufferUs = 50000;
constexpr unsigned kPeriodUs = 12500;
// A write waits at most this long without progress. A running device frees a period every
// 12.5 ms; one that frees nothing for this long is stuck, and the rest of the buffer is dropped.
constexpr int kWriteWaitMs = 200;

// ALSA prints its own complaints to stderr (a machine without a sound card produces several
// lines per attempt, and the decoder retries with every frame). A failed open is reported to
// our caller instead.
void QuietAlsaErrors(const char*, int, const char*, int, const char*, ...) {}

class AlsaAudioOutput final : public AudioOutput {
 public:
  explicit AlsaAudioOutput(std::string device) : m_device(device.empty() ? "default" : std::move(device)) {}
  ~AlsaAudioOutput() override { Close(); }

  bool Open(int channels, int sampleRate) override {
    Close();
    static std::once_flag quiet;
    std::call_once(quiet, [] { snd_lib_error_set_handler(QuietAlsaErrors); });
    if (channels < 1 || sampleRate < 1) return false;
    // Non-blocking, so that every wait for room is bounded by us (see Write).
    if (snd_pcm_open(&m_pcm, m_device.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0) {
      m_pcm = nullptr;
      return false;
    }
    if (!SetHardware(static_cast<unsigned>(channels), static_cast<unsigned>(sampleRate)) || !SetSoftware()) {
      Close();
      return false;
    }
    m_frameBytes = static_cast<size_t>(channels) * 2;
    return true;
  }

  bool Write(const unsigned char* pcm, size_t length) override {
    if (m_pcm == nullptr) return false;
    snd_pcm_uframes_t frames = length / m_frameBytes;
    int waitedMs = 0;
    while (frames > 0) {
      snd_pcm_sframes_t n = snd_pcm_writei(m_pcm, pcm, frames);
      if (n == -EAGAIN || n == 0) {
        // Full: wait for a period to play out rather than drop the rest of the buffer.
        if (waitedMs >= kWriteWaitMs) return false;
        snd_pcm_wait(m_pcm, kWaitSliceMs);
        waitedMs += kWaitSliceMs;
        continue;
      }
      if (n < 0) {
        // An underrun (the phone paused) or a suspended device: start again and retry.
        if (snd_pcm_recover(m_pcm, static_cast<int>(n), 1) < 0) return false;
        continue;
      }
      pcm += static_cast<size_t>(n) * m_frameBytes;
      frames -= static_cast<snd_pcm_uframes_t>(n);
      waitedMs = 0;  // the device is draining: the bound is on a device that is not
    }
    return true;
  }

  void Close() override {
    if (m_pcm == nullptr) return;
    snd_pcm_drop(m_pcm);
    snd_pcm_close(m_pcm);
    m_pcm = nullptr;
  }

  bool IsOpen() const override { return m_pcm != nullptr; }

  bool QueueInfo(AudioQueueInfo& info) const override {
    info = AudioQueueInfo();
    if (m_pcm == nullptr) return false;
    info.bufferFrames = static_cast<long>(m_bufferFrames);
    info.startThresholdFrames = static_cast<long>(m_startThreshold);
    snd_pcm_sframes_t delay = 0;
    if (snd_pcm_delay(m_pcm, &delay) == 0) info.queuedFrames = static_cast<long>(delay);
    return true;
  }

 private:
  static constexpr int kWaitSliceMs = 20;

  bool SetHardware(unsigned channels, unsigned rate) {
    snd_pcm_hw_params_t* hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    unsigned bufferUs = kBufferUs;
    unsigned periodUs = kPeriodUs;
    int dir = 0;
    if (snd_pcm_hw_params_any(m_pcm, hw) < 0 || snd_pcm_hw_params_set_rate_resample(m_pcm, hw, 1) < 0 ||
        snd_pcm_hw_params_set_access(m_pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED) < 0 ||
        snd_pcm_hw_params_set_format(m_pcm, hw, SND_PCM_FORMAT_S16_LE) < 0 ||
        snd_pcm_hw_params_set_channels(m_pcm, hw, channels) < 0 ||
        snd_pcm_hw_params_set_rate(m_pcm, hw, rate, 0) < 0 ||
        snd_pcm_hw_params_set_buffer_time_near(m_pcm, hw, &bufferUs, &dir) < 0 ||
        snd_pcm_hw_params_set_period_time_near(m_pcm, hw, &periodUs, &dir) < 0 || snd_pcm_hw_params(m_pcm, hw) < 0) {
      return false;
    }
    snd_pcm_hw_params_get_buffer_size(hw, &m_bufferFrames);
    snd_pcm_hw_params_get_period_size(hw, &m_periodFrames, &dir);
    return m_bufferFrames > 0;
  }

  bool SetSoftware() {
    snd_pcm_sw_params_t* sw = nullptr;
    snd_pcm_sw_params_alloca(&sw);
    // Half the buffer: enough not to run dry between two of the player's writes, little
    // enough not to add to its pre-fill.
    m_startThreshold = m_bufferFrames / 2;
    if (snd_pcm_sw_params_current(m_pcm, sw) < 0 ||
        snd_pcm_sw_params_set_start_threshold(m_pcm, sw, m_startThreshold) < 0 ||
        snd_pcm_sw_params_set_avail_min(m_pcm, sw, m_periodFrames > 0 ? m_periodFrames : 1) < 0 ||
        snd_pcm_sw_params(m_pcm, sw) < 0) {
      return false;
    }
    return true;
  }

  std::string m_device;
  snd_pcm_t* m_pcm = nullptr;
  size_t m_frameBytes = 4;
  snd_pcm_uframes_t m_bufferFrames = 0;
  snd_pcm_uframes_t m_periodFrames = 0;
  snd_pcm_uframes_t m_startThreshold = 0;
};

}  // namespace

std::unique_ptr<AudioOutput> CreateSystemAudioOutput(const std::string& device) {
  return std::make_unique<AlsaAudioOutput>(device);
}

}  // namespace lumo
