#include "support/TestAudio_media.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "AudioEncoder.h"

namespace lumo::test {
namespace {

constexpr double kPi = 3.14159265358979323846;

uint32_t Le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}
uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

}  // namespace

AacStream EncodeAacSine(double frequencyHz, double seconds, int sampleRate, int channels, double amplitude,
                        int bitRate) {
  AacStream stream;
  stream.sampleRate = sampleRate;
  stream.channels = channels;
  phonesim::AacSineEncoder encoder;
  if (!encoder.Open(frequencyHz, amplitude, sampleRate, channels, bitRate)) {
    ADD_FAILURE() << encoder.Error();
    return stream;
  }
  const long long total = static_cast<long long>(seconds * sampleRate);
  bool ok = true;
  for (long long start = 0; ok && start < total; start += encoder.FrameSamples()) ok = encoder.EncodeNext(stream.frames, total);
  if (!ok || !encoder.Flush(stream.frames)) ADD_FAILURE() << "aac encoding failed";
  return stream;
}

std::vector<int16_t> Channel(const std::vector<int16_t>& interleaved, int channels, int channel) {
  std::vector<int16_t> out;
  if (channels < 1) return out;
  out.reserve(interleaved.size() / channels);
  for (size_t i = channel; i < interleaved.size(); i += channels) out.push_back(interleaved[i]);
  return out;
}

double DominantFrequency(const std::vector<int16_t>& samples, int sampleRate, double minHz, double maxHz) {
  double bestHz = 0, bestPower = -1;
  for (double f = minHz; f <= maxHz; f += 1) {
    // Goertzel: the power of one DFT bin without computing the rest.
    double coeff = 2 * std::cos(2 * kPi * f / sampleRate);
    double s1 = 0, s2 = 0;
    for (int16_t x : samples) {
      double s0 = x + coeff * s1 - s2;
      s2 = s1;
      s1 = s0;
    }
    double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
    if (power > bestPower) bestPower = power, bestHz = f;
  }
  return bestHz;
}

double ZeroCrossingFrequency(const std::vector<int16_t>& samples, int sampleRate) {
  if (samples.size() < 2) return 0;
  size_t crossings = 0;
  for (size_t i = 1; i < samples.size(); ++i) {
    if ((samples[i - 1] < 0) != (samples[i] < 0)) ++crossings;
  }
  double seconds = static_cast<double>(samples.size()) / sampleRate;
  return crossings / seconds / 2;
}

double RmsLevel(const std::vector<int16_t>& samples) {
  if (samples.empty()) return 0;
  double sum = 0;
  for (int16_t x : samples) sum += static_cast<double>(x) * x;
  return std::sqrt(sum / samples.size()) / 32768.0;
}

bool ReadWavFile(const std::string& path, WavFile& wav) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  std::vector<unsigned char> bytes;
  unsigned char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
  std::fclose(f);
  if (bytes.size() < 44 || std::memcmp(bytes.data(), "RIFF", 4) != 0 || std::memcmp(bytes.data() + 8, "WAVE", 4) != 0 ||
      std::memcmp(bytes.data() + 12, "fmt ", 4) != 0 || Le32(&bytes[16]) != 16 || Le16(&bytes[20]) != 1 ||
      std::memcmp(bytes.data() + 36, "data", 4) != 0) {
    return false;
  }
  wav.riffSize = Le32(&bytes[4]);
  wav.channels = Le16(&bytes[22]);
  wav.sampleRate = static_cast<int>(Le32(&bytes[24]));
  wav.bitsPerSample = Le16(&bytes[34]);
  wav.dataSize = Le32(&bytes[40]);
  size_t available = bytes.size() - 44;
  if (wav.bitsPerSample != 16 || wav.dataSize > available) return false;
  wav.samples.resize(wav.dataSize / 2);
  for (size_t i = 0; i < wav.samples.size(); ++i) {
    wav.samples[i] = static_cast<int16_t>(Le16(&bytes[44 + 2 * i]));
  }
  return true;
}

}  // namespace lumo::test
