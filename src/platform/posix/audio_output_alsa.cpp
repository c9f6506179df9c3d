// The system output on Linux: ALSA's "default" device, interleaved S16_LE.
#include <alsa/asoundlib.h>

#include <cerrno>
#include <mutex>

#include "platform/audio_output.h"

namespace lumo {
namespace {

// ALSA prints its own complaints to stderr (a machine without a sound card produces several
// lines per attempt, and the decoder retries with every frame). A failed open is reported to
// our caller instead.
void QuietAlsaErrors(const char*, int, const char*, int, const char*, ...) {}

class AlsaAudioOutput final : public AudioOutput {
 public:
  ~AlsaAudioOutput() override { Close(); }

  bool Open(int channels, int sampleRate) override {
    Close();
    static std::once_flag quiet;
    std::call_once(quiet, [] { snd_lib_error_set_handler(QuietAlsaErrors); });
    if (channels < 1 || sampleRate < 1) return false;
    // Non-blocking: the playback thread paces itself, and a full device must not stall it while
    // it holds the player's lock.
    if (snd_pcm_open(&m_pcm, "default", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0) {
      m_pcm = nullptr;
      return false;
    }
    const unsigned kLatencyUs = 500000;  // room for the player's catch-up bursts
    if (snd_pcm_set_params(m_pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED,
                           static_cast<unsigned>(channels), static_cast<unsigned>(sampleRate), 1, kLatencyUs) < 0) {
      Close();
      return false;
    }
    m_frameBytes = static_cast<size_t>(channels) * 2;
    return true;
  }

  bool Write(const unsigned char* pcm, size_t length) override {
    if (m_pcm == nullptr) return false;
    snd_pcm_uframes_t frames = length / m_frameBytes;
    while (frames > 0) {
      snd_pcm_sframes_t n = snd_pcm_writei(m_pcm, pcm, frames);
      // The device is a full buffer ahead: the rest is dropped rather than waited for.
      if (n == -EAGAIN || n == 0) return false;
      if (n < 0) {
        // An underrun (the phone paused) or a suspended device: start again and retry.
        if (snd_pcm_recover(m_pcm, static_cast<int>(n), 1) < 0) return false;
        continue;
      }
      pcm += static_cast<size_t>(n) * m_frameBytes;
      frames -= static_cast<snd_pcm_uframes_t>(n);
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

 private:
  snd_pcm_t* m_pcm = nullptr;
  size_t m_frameBytes = 4;
};

}  // namespace

std::unique_ptr<AudioOutput> CreateSystemAudioOutput() { return std::make_unique<AlsaAudioOutput>(); }

}  // namespace lumo
