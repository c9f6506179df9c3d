// Real H.264 and H.265 streams of a known picture, encoded in the process with libavcodec
// (libx264, libx265), for tests, benchmarks and the simulator. Packets are Annex-B, one
// picture each, as a phone sends them: no B-frames, no look-ahead, parameter sets in front of
// every key frame. Linux only (the Windows FFmpeg has no encoders).
//
// The picture of frame n is a diagonal luma saw-tooth that moves 8 pixels per frame, with U
// rising left to right and V rising top to bottom (each moving 2 chroma pixels per frame), so
// a swapped plane, a wrong stride or a wrong frame shows as a large error while codec noise
// stays small.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lumo::test {

enum class TestCodec { H264, H265 };

struct TestVideoOptions {
  int fps = 30;
  int gop = 30;          // a key frame every `gop` frames
  int crf = 20;          // quality: lower is better (when no bit rate is given)
  int bitRate = 0;       // bits per second; 0 uses `crf`
  int noise = 0;         // amplitude of per-frame luma noise, as a camera sensor adds
  std::string preset = "ultrafast";
  int threads = 1;       // encoder threads (the stream is the same whatever the count)
};

uint8_t PatternY(int x, int y, int frame, int width, int height);
uint8_t PatternU(int cx, int cy, int frame, int width, int height);  // chroma coordinates
uint8_t PatternV(int cx, int cy, int frame, int width, int height);
// Mean absolute difference between tightly packed I420 and the pattern of `frame`.
double PatternError(const uint8_t* i420, int width, int height, int frame);
// The pattern as tightly packed I420 (without noise).
std::vector<uint8_t> PatternI420(int width, int height, int frame);

struct EncodedPacket {
  std::vector<uint8_t> data;
  bool key = false;
};

// Encodes one picture after another; each call gives the packet of the next frame.
class TestVideoEncoder {
 public:
  TestVideoEncoder();
  ~TestVideoEncoder();
  TestVideoEncoder(const TestVideoEncoder&) = delete;
  TestVideoEncoder& operator=(const TestVideoEncoder&) = delete;

  // False (with Error() saying why) when the encoder is missing or refuses the settings.
  bool Open(TestCodec codec, int width, int height, const TestVideoOptions& options = {});
  // The packet of frame `frame` of the pattern (frames should be given in order).
  bool EncodeNext(int frame, EncodedPacket& out);
  const std::string& Error() const { return m_error; }

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  std::string m_error;
  int m_noise = 0;
};

// `count` packets of the pattern, frames 0 .. count-1; empty on failure.
std::vector<EncodedPacket> EncodeTestVideo(TestCodec codec, int width, int height, int count,
                                           const TestVideoOptions& options = {});

}  // namespace lumo::test
