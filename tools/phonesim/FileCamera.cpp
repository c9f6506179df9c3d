// A video file as the camera: decoded picture by picture, scaled to the negotiated size, and
// started again from the beginning at its end, so a short clip can feed a long session.
#include "Camera.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

namespace lumo::phonesim {
namespace {

class FileCamera final : public CameraSource {
 public:
  ~FileCamera() override {
    sws_freeContext(m_scaler);
    av_frame_free(&m_frame);
    av_packet_free(&m_packet);
    avcodec_free_context(&m_decoder);
    avformat_close_input(&m_format);
  }

  bool Open(const std::string& path, std::string& error) {
    m_path = path;
    if (avformat_open_input(&m_format, path.c_str(), nullptr, nullptr) < 0) {
      error = "cannot open " + path;
      return false;
    }
    if (avformat_find_stream_info(m_format, nullptr) < 0) {
      error = "cannot read the streams of " + path;
      return false;
    }
    const AVCodec* codec = nullptr;
    m_stream = av_find_best_stream(m_format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (m_stream < 0 || codec == nullptr) {
      error = path + " has no video stream that this FFmpeg decodes";
      return false;
    }
    m_decoder = avcodec_alloc_context3(codec);
    if (avcodec_parameters_to_context(m_decoder, m_format->streams[m_stream]->codecpar) < 0 ||
        avcodec_open2(m_decoder, codec, nullptr) < 0) {
      error = "cannot open the decoder for " + path;
      return false;
    }
    m_frame = av_frame_alloc();
    m_packet = av_packet_alloc();
    return true;
  }

  bool Draw(uint8_t* const planes[3], const int strides[3], int width, int height, int) override {
    if (!NextPicture()) return false;
    m_scaler = sws_getCachedContext(m_scaler, m_frame->width, m_frame->height,
                                    static_cast<AVPixelFormat>(m_frame->format), width, height, AV_PIX_FMT_YUV420P,
                                    SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (m_scaler == nullptr) return false;
    sws_scale(m_scaler, m_frame->data, m_frame->linesize, 0, m_frame->height, planes, strides);
    return true;
  }

  std::string Describe() const override { return "file " + m_path; }

 private:
  // The next decoded picture; at the end of the file, the first one again.
  bool NextPicture() {
    for (int rewinds = 0; rewinds < 2;) {
      int rc = avcodec_receive_frame(m_decoder, m_frame);
      if (rc == 0) return true;
      if (rc == AVERROR_EOF) {
        avcodec_flush_buffers(m_decoder);
        if (av_seek_frame(m_format, m_stream, 0, AVSEEK_FLAG_BACKWARD) < 0) return false;
        ++rewinds;
        continue;
      }
      rc = av_read_frame(m_format, m_packet);
      if (rc < 0) {
        avcodec_send_packet(m_decoder, nullptr);  // drain what the decoder still holds
        continue;
      }
      if (m_packet->stream_index == m_stream) avcodec_send_packet(m_decoder, m_packet);
      av_packet_unref(m_packet);
    }
    return false;  // a file whose start does not decode either
  }

  std::string m_path;
  AVFormatContext* m_format = nullptr;
  AVCodecContext* m_decoder = nullptr;
  AVFrame* m_frame = nullptr;
  AVPacket* m_packet = nullptr;
  SwsContext* m_scaler = nullptr;
  int m_stream = -1;
};

}  // namespace

std::unique_ptr<CameraSource> MakeFileCamera(const std::string& path, std::string& error) {
  auto camera = std::make_unique<FileCamera>();
  if (!camera->Open(path, error)) return nullptr;
  return camera;
}

}  // namespace lumo::phonesim
