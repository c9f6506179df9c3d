// Test audio: AAC-LC streams of a pure tone made with FFmpeg's native encoder, handed out as the
// phone sends them (raw access units, no ADTS), and the measurements that tell whether what came
// out of the other end is still that tone. Needs libavcodec's encoders, so Linux builds only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lumo::test {

using AacFrame = std::vector<unsigned char>;

struct AacStream {
  int sampleRate = 0;
  int channels = 0;
  std::vector<AacFrame> frames;  // one raw AAC access unit each, 1,024 samples per channel
};

// A sine of `frequencyHz` at `amplitude` (of full scale) in every channel, `seconds` long,
// encoded as AAC-LC. Empty frames (and a failed test) when the encoder is missing.
AacStream EncodeAacSine(double frequencyHz, double seconds, int sampleRate = 44100, int channels = 2,
                        double amplitude = 0.5, int bitRate = 128000);

// Interleaved 16-bit samples, one channel picked out.
std::vector<int16_t> Channel(const std::vector<int16_t>& interleaved, int channels, int channel);

// The frequency of the strongest tone between `minHz` and `maxHz` (1 Hz steps, Goertzel).
double DominantFrequency(const std::vector<int16_t>& samples, int sampleRate, double minHz = 50, double maxHz = 4000);
// Zero crossings per second divided by two: the frequency of a clean tone, measured another way.
double ZeroCrossingFrequency(const std::vector<int16_t>& samples, int sampleRate);
// Root-mean-square level as a fraction of full scale.
double RmsLevel(const std::vector<int16_t>& samples);

struct WavFile {
  int channels = 0;
  int sampleRate = 0;
  int bitsPerSample = 0;
  uint32_t riffSize = 0;  // as written in the header
  uint32_t dataSize = 0;  // as written in the header
  std::vector<int16_t> samples;
};
// Reads a canonical PCM WAV file (RIFF, "fmt " then "data"); false when it is not one.
bool ReadWavFile(const std::string& path, WavFile& wav);

}  // namespace lumo::test
