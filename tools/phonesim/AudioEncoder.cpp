#include "AudioEncoder.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

namespace lumo::phonesim {

AacSineEncoder::~AacSineEncoder() {
  av_packet_free(&m_packet);
  av_frame_free(&m_frame);
  avcodec_free_context(&m_context);
}

bool AacSineEncoder::Open(double frequencyHz, double amplitude, int sampleRate, int channels, int bitRate) {
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec == nullptr) {
    m_error = "FFmpeg has no native aac encoder";
    return false;
  }
  m_context = avcodec_alloc_context3(codec);
  m_context->sample_fmt = AV_SAMPLE_FMT_FLTP;
  m_context->sample_rate = sampleRate;
  av_channel_layout_default(&m_context->ch_layout, channels);
  m_context->bit_rate = bitRate;
  m_context->profile = FF_PROFILE_AAC_LOW;
  if (avcodec_open2(m_context, codec, nullptr) < 0) {
    m_error = "aac encoder refused " + std::to_string(sampleRate) + " Hz x " + std::to_string(channels);
    avcodec_free_context(&m_context);
    return false;
  }
  m_frame = av_frame_alloc();
  m_packet = av_packet_alloc();
  m_frequency = frequencyHz;
  m_amplitude = amplitude;
  m_sampleRate = sampleRate;
  m_channels = channels;
  m_frameSize = m_context->frame_size;
  return true;
}

bool AacSineEncoder::Drain(std::vector<AacFrame>& out) {
  for (;;) {
    int rc = avcodec_receive_packet(m_context, m_packet);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
    if (rc < 0) return false;
    out.emplace_back(m_packet->data, m_packet->data + m_packet->size);
    av_packet_unref(m_packet);
  }
}

bool AacSineEncoder::EncodeNext(std::vector<AacFrame>& out, long long endSample) {
  if (m_context == nullptr) return false;
  constexpr double kPi = 3.14159265358979323846;
  m_frame->nb_samples = m_frameSize;
  m_frame->format = m_context->sample_fmt;
  m_frame->sample_rate = m_sampleRate;
  av_channel_layout_copy(&m_frame->ch_layout, &m_context->ch_layout);
  if (av_frame_get_buffer(m_frame, 0) < 0) return false;
  // The phase is carried from frame to frame and kept within one turn, so that hours of audio
  // keep full precision whatever the frequency.
  const double step = 2 * kPi * m_frequency / m_sampleRate;
  float* first = reinterpret_cast<float*>(m_frame->data[0]);
  for (int i = 0; i < m_frameSize; ++i) {
    const long long n = m_next + i;
    first[i] = endSample >= 0 && n >= endSample ? 0.f : static_cast<float>(m_amplitude * std::sin(m_phase));
    m_phase = std::fmod(m_phase + step, 2 * kPi);
  }
  for (int ch = 1; ch < m_channels; ++ch)
    std::copy(first, first + m_frameSize, reinterpret_cast<float*>(m_frame->data[ch]));
  m_frame->pts = m_next;
  m_next += m_frameSize;
  const bool ok = avcodec_send_frame(m_context, m_frame) >= 0 && Drain(out);
  av_frame_unref(m_frame);
  return ok;
}

bool AacSineEncoder::Flush(std::vector<AacFrame>& out) {
  return m_context != nullptr && avcodec_send_frame(m_context, nullptr) >= 0 && Drain(out);
}

}  // namespace lumo::phonesim
