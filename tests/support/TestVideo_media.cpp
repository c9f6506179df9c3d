#include "support/TestVideo_media.h"

#include "Camera.h"
#include "VideoEncoder.h"

#include <cstdlib>

namespace lumo::test {

uint8_t PatternY(int x, int y, int frame, int, int) { return phonesim::PatternY(x, y, frame); }
uint8_t PatternU(int cx, int cy, int frame, int, int) { return phonesim::PatternU(cx, cy, frame); }
uint8_t PatternV(int cx, int cy, int frame, int, int) { return phonesim::PatternV(cx, cy, frame); }

std::vector<uint8_t> PatternI420(int width, int height, int frame) {
  std::vector<uint8_t> out;
  out.reserve(static_cast<size_t>(width) * height * 3 / 2);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) out.push_back(PatternY(x, y, frame, width, height));
  for (int y = 0; y < height / 2; ++y)
    for (int x = 0; x < width / 2; ++x) out.push_back(PatternU(x, y, frame, width, height));
  for (int y = 0; y < height / 2; ++y)
    for (int x = 0; x < width / 2; ++x) out.push_back(PatternV(x, y, frame, width, height));
  return out;
}

double PatternError(const uint8_t* i420, int width, int height, int frame) {
  const std::vector<uint8_t> want = PatternI420(width, height, frame);
  double sum = 0;
  for (size_t i = 0; i < want.size(); ++i) sum += std::abs(static_cast<int>(i420[i]) - static_cast<int>(want[i]));
  return want.empty() ? 0.0 : sum / static_cast<double>(want.size());
}

// The simulator's encoder, fed with the pattern (and, when asked, sensor-like noise).
struct TestVideoEncoder::Impl {
  phonesim::VideoEncoder encoder;
};

TestVideoEncoder::TestVideoEncoder() = default;
TestVideoEncoder::~TestVideoEncoder() = default;

bool TestVideoEncoder::Open(TestCodec codec, int width, int height, const TestVideoOptions& options) {
  m_impl = std::make_unique<Impl>();
  phonesim::VideoEncoderSettings s;
  s.codec = codec == TestCodec::H264 ? phonesim::VideoCodec::H264 : phonesim::VideoCodec::H265;
  s.width = width;
  s.height = height;
  s.fps = options.fps;
  s.gop = options.gop;
  s.crf = options.crf;
  s.bitRate = options.bitRate;
  s.preset = options.preset;
  s.threads = options.threads;
  m_noise = options.noise;
  if (!m_impl->encoder.Open(s)) {
    m_error = m_impl->encoder.Error();
    return false;
  }
  return true;
}

bool TestVideoEncoder::EncodeNext(int index, EncodedPacket& out) {
  if (!m_impl || !m_impl->encoder.BeginPicture()) return false;
  phonesim::VideoEncoder& e = m_impl->encoder;
  const int w = e.Settings().width, h = e.Settings().height;
  uint8_t* planes[3] = {e.Plane(0), e.Plane(1), e.Plane(2)};
  const int strides[3] = {e.Stride(0), e.Stride(1), e.Stride(2)};
  phonesim::DrawPattern(planes, strides, w, h, index);
  uint32_t seed = 0x9E3779B9u * static_cast<uint32_t>(index + 1);
  for (int y = 0; m_noise > 0 && y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      seed = seed * 1664525u + 1013904223u;
      int v = planes[0][y * strides[0] + x] + static_cast<int>((seed >> 24) % (2 * m_noise + 1)) - m_noise;
      planes[0][y * strides[0] + x] = static_cast<uint8_t>(v);
    }
  }
  std::vector<uint8_t> packet;
  if (!e.Encode(false, packet, out.key)) return false;
  out.data = std::move(packet);
  return true;
}

std::vector<EncodedPacket> EncodeTestVideo(TestCodec codec, int width, int height, int count,
                                           const TestVideoOptions& options) {
  TestVideoEncoder encoder;
  std::vector<EncodedPacket> packets;
  if (!encoder.Open(codec, width, height, options)) return packets;
  for (int i = 0; i < count; ++i) {
    EncodedPacket p;
    if (!encoder.EncodeNext(i, p)) return {};
    packets.push_back(std::move(p));
  }
  return packets;
}

}  // namespace lumo::test

// libx265 3.5 keeps some frame-filter buffers past x265_encoder_close whatever the settings;
// the leak is the encoder's, not ours, so the sanitizer build is told to overlook it there.
// Default visibility: the sanitizer runtime looks the hook up in the executable.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
  return "leak:libx265.so\n";
}
