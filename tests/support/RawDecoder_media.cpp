#include "support/RawDecoder_media.h"

#include <neaacdec.h>

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace lumo::test {

RawVideoDecoder::RawVideoDecoder(bool h265) {
  const AVCodec* codec = avcodec_find_decoder(h265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
  m_context = avcodec_alloc_context3(codec);
  m_context->thread_count = 1;
  m_context->flags |= AV_CODEC_FLAG_LOW_DELAY;
  if (avcodec_open2(m_context, codec, nullptr) < 0) avcodec_free_context(&m_context);
  m_frame = av_frame_alloc();
  m_packet = av_packet_alloc();
}

RawVideoDecoder::~RawVideoDecoder() {
  av_packet_free(&m_packet);
  av_frame_free(&m_frame);
  avcodec_free_context(&m_context);
}

bool RawVideoDecoder::Decode(const std::string& packet, std::vector<DecodedPicture>& out) {
  if (m_context == nullptr || av_new_packet(m_packet, static_cast<int>(packet.size())) < 0) return false;
  std::memcpy(m_packet->data, packet.data(), packet.size());
  const int rc = avcodec_send_packet(m_context, m_packet);
  av_packet_unref(m_packet);
  if (rc < 0) return false;
  while (avcodec_receive_frame(m_context, m_frame) == 0) {
    DecodedPicture p;
    p.width = m_frame->width;
    p.height = m_frame->height;
    p.y.resize(static_cast<size_t>(p.width) * p.height);
    for (int row = 0; row < p.height; ++row)
      std::memcpy(&p.y[static_cast<size_t>(row) * p.width], m_frame->data[0] + row * m_frame->linesize[0], p.width);
    out.push_back(std::move(p));
    av_frame_unref(m_frame);
  }
  return true;
}

std::vector<int16_t> DecodeAacFrames(const std::vector<std::string>& frames, int sampleRate, int channels) {
  std::vector<int16_t> pcm;
  NeAACDecHandle decoder = NeAACDecOpen();
  NeAACDecConfigurationPtr config = NeAACDecGetCurrentConfiguration(decoder);
  config->defObjectType = LC;
  config->defSampleRate = static_cast<unsigned long>(sampleRate);
  config->outputFormat = FAAD_FMT_16BIT;
  NeAACDecSetConfiguration(decoder, config);
  bool open = false;
  for (const std::string& f : frames) {
    auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(f.data()));
    if (!open) {
      unsigned long rate = 0;
      unsigned char ch = 0;
      if (NeAACDecInit(decoder, bytes, static_cast<unsigned long>(f.size()), &rate, &ch) < 0) break;
      open = true;
    }
    NeAACDecFrameInfo info;
    auto* samples = static_cast<int16_t*>(NeAACDecDecode(decoder, &info, bytes, static_cast<unsigned long>(f.size())));
    if (info.error == 0 && samples != nullptr && static_cast<int>(info.channels) == channels)
      pcm.insert(pcm.end(), samples, samples + info.samples);
  }
  NeAACDecClose(decoder);
  return pcm;
}

}  // namespace lumo::test
