// Bare libavcodec and libfaad2 decoding, independent of the library's own decoders, so that a
// test of what the simulated phone sends does not lean on the code it will later test.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace lumo::test {

struct DecodedPicture {
  int width = 0, height = 0;
  std::vector<uint8_t> y;  // the luma plane, tightly packed (stride = width)
};

class RawVideoDecoder {
 public:
  explicit RawVideoDecoder(bool h265);
  ~RawVideoDecoder();
  RawVideoDecoder(const RawVideoDecoder&) = delete;
  RawVideoDecoder& operator=(const RawVideoDecoder&) = delete;
  // One Annex-B access unit in, the pictures it completes out (one, with no delay).
  bool Decode(const std::string& packet, std::vector<DecodedPicture>& out);

 private:
  AVCodecContext* m_context = nullptr;
  AVFrame* m_frame = nullptr;
  AVPacket* m_packet = nullptr;
};

// Raw AAC access units (no ADTS) at `sampleRate`/`channels` to interleaved 16-bit samples.
std::vector<int16_t> DecodeAacFrames(const std::vector<std::string>& frames, int sampleRate, int channels);

}  // namespace lumo::test
