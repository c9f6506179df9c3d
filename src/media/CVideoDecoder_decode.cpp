// Decoding one packet, the ready queue and the hand-over of pictures to the host.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <chrono>
#include <climits>
#include <cstring>
#include <new>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "media/VPMVideoDecimator.h"
#include "platform/clock.h"

int CVideoDecoder::SendAndReceive(const unsigned char* data, size_t size, int& got) {
  got = 0;
  if (m_context == nullptr || m_avPacket == nullptr || m_frame == nullptr) return AVERROR(EINVAL);
  if (size > static_cast<size_t>(INT_MAX) - AV_INPUT_BUFFER_PADDING_SIZE) return AVERROR(EINVAL);
  // The record holds exactly the packet, but FFmpeg's bit readers may read past the end:
  // the bytes go into a buffer of ours with zeroed padding. It is reference-counted so that
  // FFmpeg takes a reference instead of copying it again, and it is reused while nobody
  // else holds it and it is large enough.
  const size_t needed = size + AV_INPUT_BUFFER_PADDING_SIZE;
  if (m_paddedPacket == nullptr || static_cast<size_t>(m_paddedPacket->size) < needed ||
      !av_buffer_is_writable(m_paddedPacket)) {
    av_buffer_unref(&m_paddedPacket);
    size_t grown = needed + needed / 4;  // room for the next, slightly larger key frame
    if (grown > static_cast<size_t>(INT_MAX)) grown = needed;
    m_paddedPacket = av_buffer_alloc(grown);
    if (m_paddedPacket == nullptr) return AVERROR(ENOMEM);
  }
  std::memcpy(m_paddedPacket->data, data, size);
  std::memset(m_paddedPacket->data + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  m_avPacket->buf = av_buffer_ref(m_paddedPacket);
  if (m_avPacket->buf == nullptr) return AVERROR(ENOMEM);
  m_avPacket->data = m_paddedPacket->data;
  m_avPacket->size = static_cast<int>(size);
  int ret = avcodec_send_packet(m_context, m_avPacket);
  av_packet_unref(m_avPacket);
  // EAGAIN from send means a picture is still waiting inside: it is taken now, and this
  // packet is lost like any failed one. It does not happen on a stream without B-frames.
  if (ret >= 0 || ret == AVERROR(EAGAIN)) {
    const int received = avcodec_receive_frame(m_context, m_frame);
    if (received == 0) {
      got = 1;
    } else if (received != AVERROR(EAGAIN)) {
      ret = received;
    }
  }
  return ret;
}

bool CVideoDecoder::PictureAsI420(const unsigned char* planes[3], int linesizes[3]) {
  const AVFrame* f = m_frame;
  if (f->width <= 0 || f->height <= 0 || f->width > kMaxDimension || f->height > kMaxDimension) return false;
  if (f->format == AV_PIX_FMT_YUV420P || f->format == AV_PIX_FMT_YUVJ420P) {
    for (int i = 0; i < 3; ++i) {
      planes[i] = f->data[i];
      linesizes[i] = f->linesize[i];
    }
    return true;
  }
  // 10-bit or 4:2:2 streams: the host takes 8-bit I420 only, so convert. Rare, so the
  // conversion context is made on first need and kept.
  m_convert = sws_getCachedContext(m_convert, f->width, f->height, static_cast<AVPixelFormat>(f->format), f->width,
                                   f->height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
  if (m_convert == nullptr) return false;
  if (m_converted == nullptr || m_converted->width != f->width || m_converted->height != f->height) {
    av_frame_free(&m_converted);
    m_converted = av_frame_alloc();
    if (m_converted == nullptr) return false;
    m_converted->format = AV_PIX_FMT_YUV420P;
    m_converted->width = f->width;
    m_converted->height = f->height;
    if (av_frame_get_buffer(m_converted, 0) < 0) {
      av_frame_free(&m_converted);
      return false;
    }
  }
  if (sws_scale(m_convert, f->data, f->linesize, 0, f->height, m_converted->data, m_converted->linesize) <= 0) {
    return false;
  }
  for (int i = 0; i < 3; ++i) {
    planes[i] = m_converted->data[i];
    linesizes[i] = m_converted->linesize[i];
  }
  return true;
}

void CVideoDecoder::CopyI420(const unsigned char* const planes[3], const int linesizes[3], int width, int height,
                             unsigned char* out) {
  const unsigned char* src = planes[0];
  for (int y = 0; y < height; ++y, src += linesizes[0], out += width) std::memcpy(out, src, width);
  for (int p = 1; p < 3; ++p) {
    src = planes[p];
    for (int y = 0; y < height / 2; ++y, src += linesizes[p], out += width / 2) std::memcpy(out, src, width / 2);
  }
}

bool CVideoDecoder::Decode(void* context, VID::VideoRawPkg* packet) {
  if (packet == nullptr || packet->data == nullptr || packet->length > packet->capacity) return false;

  lumo::Stopwatch stopwatch;
  int got = 0;
  const int ret = SendAndReceive(packet->data, static_cast<size_t>(packet->length), got);
  const uint64_t used = stopwatch.ElapsedUs();
  if (used > kSlowUs && m_slowDecodes++ % 60 == 0) {
    Log(LOG_INFO, "VideoDecoder::Decode frame too slow . timeUsed1 : %d", static_cast<int>(used));
  }
  if (ret < 0 || got < 1) {
    Log(LOG_ERROR, "[phoneVideo]:decode failed, size is %d ,index:%I64u,nRet:%d, outSize:%d,errorCount:%d",
        static_cast<int>(packet->length), packet->index, ret, got, m_errorCount);
    if (++m_errorCount >= kFailuresBeforeReset) {
      m_receiver->SetDecoderChanged(true);
      m_errorCount = 0;
    }
    return false;
  }
  m_errorCount = 0;

  const unsigned char* planes[3];
  int linesizes[3];
  if (!PictureAsI420(planes, linesizes)) {
    if (m_oversized++ % 300 == 0) {
      Log(LOG_BAD_DATA, "[phoneVideo] picture refused, width:%d, height:%d, format:%d", m_frame->width,
          m_frame->height, m_frame->format);
    }
    return false;
  }
  bool drop;
  {
    std::lock_guard<std::mutex> guard(m_decimatorLock);
    m_decimator->UpdateIncomingFrameRate();
    drop = m_decimator->IsDropFrame();
  }
  if (drop) {
    if (m_decimated++ % 300 == 0) Log(LOG_BAD_DATA, "[phoneVideo] match decode rate and render rate , drop one pkt");
    return false;
  }

  lumo::Host().CountStatistic(lumo::HostStat::CameraFrameCount, 1);
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_freeFrames.empty() && !m_readyFrames.empty()) {
    // The host has not taken the last three pictures: the oldest goes unseen.
    m_freeFrames.push_back(m_readyFrames.front());
    m_readyFrames.pop_front();
    if (m_renderDrops++ % 300 == 0) Log(LOG_ERROR, "[phoneVideo] render frame too slow , drop one pkt");
  }
  YuvFrame* frame = m_freeFrames.empty() ? nullptr : m_freeFrames.front();
  if (frame == nullptr || frame->data == nullptr) {
    if (frame != nullptr) m_freeFrames.pop_front();
    Log(LOG_ERROR, "[phoneVideo] empty yuv video packet  ");
    return false;
  }
  const int width = m_frame->width;
  const int height = m_frame->height;
  const auto size = static_cast<unsigned long long>(width * static_cast<double>(height) * 1.5);
  // Blocks are made for 1080p; a 4K phone needs more. Dimensions are bounded above, so the
  // growth is too.
  if (!Grow(frame->data, frame->capacity, static_cast<size_t>(size))) {
    Log(LOG_ERROR, "[phoneVideo] no memory for picture, width:%d, height:%d", width, height);
    return false;
  }
  m_freeFrames.pop_front();

  if (m_windowFrames == 0) m_windowStartUs = lumo::PerfCounterUs();
  ++m_windowFrames;
  if (lumo::PerfCounterUs() - m_windowStartUs > kStatisticsWindowUs) {
    Log(LOG_INFO, "[phoneVideo]VideoDecoder::Decode frame count : %d", m_windowFrames);
    m_windowFrames = 0;
  }
  m_ctrl->AddDecodedFrame();

  m_readyFrames.push_back(frame);
  frame->size = size;
  frame->width = width;
  frame->height = height;
  frame->timestamp = packet->timestamp;
  bool first = true;
  if (m_firstFrame.compare_exchange_strong(first, false)) {
    Log(LOG_INFO, "[phoneVideo]Decode first  frame width:%d, height:%d", width, height);
  }
  CopyI420(planes, linesizes, width, height, frame->data);
  m_pictureReady.notify_all();
  return true;
}

bool CVideoDecoder::WaitYuvData(uint32_t timeoutMs) {
  std::unique_lock<std::recursive_mutex> lock(m_lock);
  return m_pictureReady.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !m_readyFrames.empty(); });
}

unsigned char* CVideoDecoder::GetYuvData(int& width, int& height, unsigned long long& ts) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_readyFrames.empty()) return nullptr;
  YuvFrame* frame = m_readyFrames.front();
  m_readyFrames.pop_front();
  m_freeFrames.push_back(frame);
  m_currentTs = static_cast<long long>(frame->timestamp);
  if (!Grow(m_frontBuffer, m_frontCapacity, static_cast<size_t>(frame->size))) {
    Log(LOG_ERROR, "[phoneVideo] no memory for picture, width:%d, height:%d", static_cast<int>(frame->width),
        static_cast<int>(frame->height));
    return nullptr;
  }
  std::memcpy(m_frontBuffer, frame->data, static_cast<size_t>(frame->size));
  width = static_cast<int>(frame->width);
  height = static_cast<int>(frame->height);
  ts = frame->timestamp;
  return m_frontBuffer;
}

unsigned char* CVideoDecoder::GetData(int& width, int& height, unsigned long long& ts, bool& frameRead) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  width = m_width;
  height = m_height;
  ts = m_fileFrameTs;
  frameRead = m_frameRead;
  m_frameRead = true;
  return m_frontBuffer;
}

