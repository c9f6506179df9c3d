#include "support/TestVideo_media.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <cstdlib>

namespace lumo::test {

// Saw-tooth ramps with a 256-pixel period: smooth enough for a codec to keep within a level
// or two, steep enough that neighbouring frames differ by several levels on average.
uint8_t PatternY(int x, int y, int frame, int width, int height) {
  return static_cast<uint8_t>(16 + ((x + y + 8 * frame) & 255) * 200 / 256);
}

uint8_t PatternU(int cx, int cy, int frame, int width, int height) {
  return static_cast<uint8_t>(48 + ((cx + 2 * frame) & 127) * 160 / 128);
}

uint8_t PatternV(int cx, int cy, int frame, int width, int height) {
  return static_cast<uint8_t>(48 + ((cy + 2 * frame) & 127) * 160 / 128);
}

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

struct TestVideoEncoder::Impl {
  AVCodecContext* context = nullptr;
  AVFrame* frame = nullptr;
  AVPacket* packet = nullptr;
  ~Impl() {
    if (context != nullptr && packet != nullptr && avcodec_is_open(context)) {
      // Drain before closing: x265 frees its frame encoders only after a flush.
      avcodec_send_frame(context, nullptr);
      while (avcodec_receive_packet(context, packet) == 0) av_packet_unref(packet);
    }
    avcodec_free_context(&context);
    av_frame_free(&frame);
    av_packet_free(&packet);
  }
};

TestVideoEncoder::TestVideoEncoder() = default;
TestVideoEncoder::~TestVideoEncoder() = default;

bool TestVideoEncoder::Open(TestCodec codec, int width, int height, const TestVideoOptions& options) {
  m_impl = std::make_unique<Impl>();
  const char* name = codec == TestCodec::H264 ? "libx264" : "libx265";
  const AVCodec* encoder = avcodec_find_encoder_by_name(name);
  if (encoder == nullptr) {
    m_error = std::string(name) + " is not available";
    return false;
  }
  AVCodecContext* c = m_impl->context = avcodec_alloc_context3(encoder);
  c->width = width;
  c->height = height;
  c->pix_fmt = AV_PIX_FMT_YUV420P;
  c->time_base = AVRational{1, options.fps};
  c->framerate = AVRational{options.fps, 1};
  c->gop_size = options.gop;
  c->max_b_frames = 0;
  c->thread_count = options.threads;
  av_opt_set(c->priv_data, "preset", options.preset.c_str(), 0);
  av_opt_set(c->priv_data, "tune", "zerolatency", 0);
  if (options.bitRate > 0) {
    c->bit_rate = options.bitRate;
    c->rc_max_rate = options.bitRate;
    c->rc_buffer_size = options.bitRate;
  } else {
    av_opt_set_double(c->priv_data, "crf", options.crf, 0);
  }
  m_noise = options.noise;
  // Parameter sets before every key frame, as phones send them, so that any key frame can
  // start decoding.
  if (codec == TestCodec::H264) {
    av_opt_set(c->priv_data, "x264-params", "repeat-headers=1:bframes=0:rc-lookahead=0:sync-lookahead=0", 0);
  } else {
    av_opt_set(c->priv_data, "x265-params", "repeat-headers=1:bframes=0:rc-lookahead=0:log-level=error:frame-threads=1", 0);
  }
  av_opt_set(c->priv_data, "forced-idr", "1", 0);
  if (avcodec_open2(c, encoder, nullptr) < 0) {
    m_error = std::string(name) + " refused the settings";
    return false;
  }
  m_impl->frame = av_frame_alloc();
  m_impl->packet = av_packet_alloc();
  m_impl->frame->format = AV_PIX_FMT_YUV420P;
  m_impl->frame->width = width;
  m_impl->frame->height = height;
  if (av_frame_get_buffer(m_impl->frame, 0) < 0) {
    m_error = "no frame buffer";
    return false;
  }
  return true;
}

bool TestVideoEncoder::EncodeNext(int index, EncodedPacket& out) {
  if (!m_impl || m_impl->context == nullptr) return false;
  AVFrame* f = m_impl->frame;
  if (av_frame_make_writable(f) < 0) return false;
  const int w = f->width, h = f->height;
  uint32_t seed = 0x9E3779B9u * static_cast<uint32_t>(index + 1);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      int v = PatternY(x, y, index, w, h);
      if (m_noise > 0) {
        seed = seed * 1664525u + 1013904223u;
        v += static_cast<int>((seed >> 24) % (2 * m_noise + 1)) - m_noise;
      }
      f->data[0][y * f->linesize[0] + x] = static_cast<uint8_t>(v);
    }
  }
  for (int y = 0; y < h / 2; ++y) {
    for (int x = 0; x < w / 2; ++x) {
      f->data[1][y * f->linesize[1] + x] = PatternU(x, y, index, w, h);
      f->data[2][y * f->linesize[2] + x] = PatternV(x, y, index, w, h);
    }
  }
  f->pts = index;
  // Asking for the key frame keeps the group of pictures exact whatever the encoder decides.
  f->pict_type = index % m_impl->context->gop_size == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  if (avcodec_send_frame(m_impl->context, f) < 0) return false;
  // Zero latency: the packet of this picture comes out now.
  if (avcodec_receive_packet(m_impl->context, m_impl->packet) < 0) return false;
  out.data.assign(m_impl->packet->data, m_impl->packet->data + m_impl->packet->size);
  out.key = (m_impl->packet->flags & AV_PKT_FLAG_KEY) != 0;
  av_packet_unref(m_impl->packet);
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
