// The system output on Windows: waveOut on the default device (WAVE_MAPPER).
//
// The device reads a buffer some time after waveOutWrite returns, so every buffer handed to it
// is one of our own, copied from the caller's bytes, and it is filled again only once the
// device has set WHDR_DONE on it. The caller's buffer is free as soon as Write returns.
#include <windows.h>
#include <mmsystem.h>

#include <algorithm>
#include <vector>

#include "platform/audio_output.h"

namespace lumo {
namespace {

class WaveOutAudioOutput final : public AudioOutput {
 public:
  WaveOutAudioOutput() : m_blocks(kBlockCount) {
    for (Block& b : m_blocks) b.data.resize(kBlockBytes);
  }
  ~WaveOutAudioOutput() override { Close(); }

  bool Open(int channels, int sampleRate) override {
    Close();
    if (channels < 1 || channels > 0xFFFF || sampleRate < 1) return false;
    WAVEFORMATEX format{};
    format.wFormatTag = WAVE_FORMAT_PCM;
    format.nChannels = static_cast<WORD>(channels);
    format.nSamplesPerSec = static_cast<DWORD>(sampleRate);
    format.wBitsPerSample = 16;
    format.nBlockAlign = static_cast<WORD>(channels * 2);
    format.nAvgBytesPerSec = static_cast<DWORD>(sampleRate) * format.nBlockAlign;
    format.cbSize = 18;  // ignored for PCM
    m_event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_event == nullptr) return false;
    if (waveOutOpen(&m_device, WAVE_MAPPER, &format, reinterpret_cast<DWORD_PTR>(m_event), 0,
                    CALLBACK_EVENT | WAVE_FORMAT_DIRECT) != MMSYSERR_NOERROR) {
      m_device = nullptr;
      CloseHandle(m_event);
      m_event = nullptr;
      return false;
    }
    for (Block& b : m_blocks) {
      b.header = WAVEHDR{};
      b.header.lpData = b.data.data();
      b.header.dwBufferLength = kBlockBytes;
      b.prepared = waveOutPrepareHeader(m_device, &b.header, sizeof(WAVEHDR)) == MMSYSERR_NOERROR;
      b.queued = false;
    }
    return true;
  }

  bool Write(const unsigned char* pcm, size_t length) override {
    if (m_device == nullptr) return false;
    while (length > 0) {
      Block* b = FreeBlock();
      if (b == nullptr) return false;
      DWORD n = static_cast<DWORD>(std::min<size_t>(length, kBlockBytes));
      std::copy(pcm, pcm + n, b->data.data());
      b->header.dwBufferLength = n;
      b->header.dwFlags &= ~static_cast<DWORD>(WHDR_DONE);
      b->queued = true;
      if (waveOutWrite(m_device, &b->header, sizeof(WAVEHDR)) != MMSYSERR_NOERROR) {
        b->queued = false;
        return false;
      }
      pcm += n;
      length -= n;
    }
    return true;
  }

  void Close() override {
    if (m_device != nullptr) {
      // Hands every queued buffer back (marked done) so that it can be unprepared.
      waveOutReset(m_device);
      for (Block& b : m_blocks) {
        if (b.prepared) waveOutUnprepareHeader(m_device, &b.header, sizeof(WAVEHDR));
        b.prepared = false;
        b.queued = false;
      }
      waveOutClose(m_device);
      m_device = nullptr;
    }
    if (m_event != nullptr) {
      CloseHandle(m_event);
      m_event = nullptr;
    }
  }

  bool IsOpen() const override { return m_device != nullptr; }

 private:
  // About 1.5 s of 44.1 kHz stereo: more than the player ever runs ahead of the device.
  static constexpr size_t kBlockCount = 64;
  static constexpr DWORD kBlockBytes = 4096;
  static constexpr DWORD kWaitSliceMs = 50;
  static constexpr int kWaitSlices = 20;

  struct Block {
    WAVEHDR header{};
    std::vector<char> data;
    bool prepared = false;
    bool queued = false;  // handed to the device and not yet seen done
  };

  Block* FreeBlock() {
    for (int attempt = 0; attempt <= kWaitSlices; ++attempt) {
      for (Block& b : m_blocks) {
        if (!b.prepared) continue;
        // The device sets WHDR_DONE from its own thread.
        DWORD flags = *static_cast<volatile DWORD*>(&b.header.dwFlags);
        if (!b.queued || (flags & WHDR_DONE) != 0) {
          b.queued = false;
          return &b;
        }
      }
      // Every buffer is still with the device; the event is set as each one comes back.
      if (attempt < kWaitSlices) WaitForSingleObject(m_event, kWaitSliceMs);
    }
    return nullptr;
  }

  std::vector<Block> m_blocks;
  HWAVEOUT m_device = nullptr;
  HANDLE m_event = nullptr;
};

}  // namespace

std::unique_ptr<AudioOutput> CreateSystemAudioOutput(const std::string&) {
  return std::make_unique<WaveOutAudioOutput>();
}

}  // namespace lumo
