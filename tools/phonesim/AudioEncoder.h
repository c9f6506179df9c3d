// The simulated microphone: a sine encoded as AAC-LC with FFmpeg's native encoder and handed
// out as raw access units (no ADTS), as the phone app sends them. 1,024 samples per channel per
// frame: at 44.1 kHz one frame every 23.2 ms.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace lumo::phonesim {

using AacFrame = std::vector<uint8_t>;

class AacSineEncoder {
 public:
  AacSineEncoder() = default;
  ~AacSineEncoder();
  AacSineEncoder(const AacSineEncoder&) = delete;
  AacSineEncoder& operator=(const AacSineEncoder&) = delete;

  bool Open(double frequencyHz, double amplitude, int sampleRate = 44100, int channels = 2, int bitRate = 128000);
  const std::string& Error() const { return m_error; }
  int SampleRate() const { return m_sampleRate; }
  int Channels() const { return m_channels; }
  int FrameSamples() const { return m_frameSize; }

  // Encodes the next 1,024 samples of the tone (silence from sample `endSample` on, when it is
  // not negative) and appends whatever access units the encoder has ready (the first call gives
  // none: the encoder's priming delay).
  bool EncodeNext(std::vector<AacFrame>& out, long long endSample = -1);
  // Hands out what the encoder still holds.
  bool Flush(std::vector<AacFrame>& out);

 private:
  bool Drain(std::vector<AacFrame>& out);

  AVCodecContext* m_context = nullptr;
  AVFrame* m_frame = nullptr;
  AVPacket* m_packet = nullptr;
  std::string m_error;
  double m_frequency = 0, m_amplitude = 0;
  int m_sampleRate = 0, m_channels = 0, m_frameSize = 1024;
  long long m_next = 0;  // index of the next sample
  double m_phase = 0;
};

}  // namespace lumo::phonesim
