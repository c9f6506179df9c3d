#include "VideoEncoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

namespace lumo::phonesim {

const char* CodecName(VideoCodec codec) { return codec == VideoCodec::H264 ? "h264" : "h265"; }

struct VideoEncoder::Impl {
  AVCodecContext* context = nullptr;
  AVFrame* frame = nullptr;
  AVPacket* packet = nullptr;
  int64_t pts = 0;
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

VideoEncoder::VideoEncoder() = default;
VideoEncoder::~VideoEncoder() = default;

bool VideoEncoder::IsOpen() const { return m_impl && m_impl->frame != nullptr; }

bool VideoEncoder::Open(const VideoEncoderSettings& s) {
  m_impl = std::make_unique<Impl>();
  m_settings = s;
  const char* name = s.codec == VideoCodec::H264 ? "libx264" : "libx265";
  if (s.width < 16 || s.height < 16 || s.width > 8192 || s.height > 8192 || (s.width | s.height) & 1 || s.fps < 1 ||
      s.fps > 240) {
    m_error = "unsupported picture size or rate " + std::to_string(s.width) + "x" + std::to_string(s.height) + "@" +
              std::to_string(s.fps);
    m_impl.reset();
    return false;
  }
  const AVCodec* encoder = avcodec_find_encoder_by_name(name);
  if (encoder == nullptr) {
    m_error = std::string(name) + " is not available";
    m_impl.reset();
    return false;
  }
  AVCodecContext* c = m_impl->context = avcodec_alloc_context3(encoder);
  c->width = s.width;
  c->height = s.height;
  c->pix_fmt = AV_PIX_FMT_YUV420P;
  c->time_base = AVRational{1, s.fps};
  c->framerate = AVRational{s.fps, 1};
  c->gop_size = s.gop > 0 ? s.gop : s.fps;
  c->max_b_frames = 0;
  c->thread_count = s.threads;
  av_opt_set(c->priv_data, "preset", s.preset.c_str(), 0);
  av_opt_set(c->priv_data, "tune", "zerolatency", 0);
  if (s.bitRate > 0) {
    // One second of buffer: the rate holds over a second, as a phone's hardware encoder does.
    c->bit_rate = s.bitRate;
    c->rc_max_rate = s.bitRate;
    c->rc_buffer_size = s.bitRate;
  } else {
    av_opt_set_double(c->priv_data, "crf", s.crf, 0);
  }
  if (s.codec == VideoCodec::H264) {
    av_opt_set(c->priv_data, "x264-params", "repeat-headers=1:bframes=0:rc-lookahead=0:sync-lookahead=0", 0);
  } else {
    av_opt_set(c->priv_data, "x265-params",
               "repeat-headers=1:bframes=0:rc-lookahead=0:log-level=error:frame-threads=1", 0);
  }
  av_opt_set(c->priv_data, "forced-idr", "1", 0);
  if (avcodec_open2(c, encoder, nullptr) < 0) {
    m_error = std::string(name) + " refused the settings";
    m_impl.reset();
    return false;
  }
  m_impl->packet = av_packet_alloc();
  AVFrame* f = m_impl->frame = av_frame_alloc();
  f->format = AV_PIX_FMT_YUV420P;
  f->width = s.width;
  f->height = s.height;
  if (av_frame_get_buffer(f, 0) < 0) {
    m_error = "no frame buffer";
    m_impl.reset();
    return false;
  }
  return true;
}

bool VideoEncoder::BeginPicture() { return IsOpen() && av_frame_make_writable(m_impl->frame) >= 0; }

uint8_t* VideoEncoder::Plane(int index) { return IsOpen() && index >= 0 && index < 3 ? m_impl->frame->data[index] : nullptr; }

int VideoEncoder::Stride(int index) const {
  return IsOpen() && index >= 0 && index < 3 ? m_impl->frame->linesize[index] : 0;
}

bool VideoEncoder::Encode(bool forceKey, std::vector<uint8_t>& packet, bool& key) {
  if (!IsOpen()) return false;
  AVFrame* f = m_impl->frame;
  AVCodecContext* c = m_impl->context;
  f->pts = m_impl->pts++;
  // Asking for the key frame keeps the group of pictures exact whatever the encoder decides.
  f->pict_type = forceKey || f->pts % c->gop_size == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  if (avcodec_send_frame(c, f) < 0) return false;
  // Zero latency: the packet of this picture comes out now.
  if (avcodec_receive_packet(c, m_impl->packet) < 0) return false;
  packet.assign(m_impl->packet->data, m_impl->packet->data + m_impl->packet->size);
  key = (m_impl->packet->flags & AV_PKT_FLAG_KEY) != 0;
  av_packet_unref(m_impl->packet);
  return true;
}

}  // namespace lumo::phonesim
