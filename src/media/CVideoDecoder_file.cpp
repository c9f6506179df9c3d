// The development path that decodes a file instead of the phone stream, and the hardware path
// that is declared but never selected.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

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

void CVideoDecoder::VideoDecodeProc2() {
  if (!m_running) return;
  AVPacket* read = av_packet_alloc();
  if (read == nullptr) return;
  // Not on the phone path, so a stop is looked at between packets as well.
  for (int count = 0; m_running && count < kMaxFilePackets && m_input != nullptr; ++count) {
    if (av_read_frame(m_input, read) < 0) break;
    if (read->stream_index == m_videoStreamIndex && m_avPacket != nullptr) {
      std::lock_guard<std::recursive_mutex> guard(m_lock);
      av_packet_move_ref(m_avPacket, read);
      Decode2();
      av_packet_unref(m_avPacket);
    }
    av_packet_unref(read);
  }
  av_packet_free(&read);
}

bool CVideoDecoder::Decode2() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_context == nullptr || m_avPacket == nullptr || m_frame == nullptr) return false;
  // Packets read by libavformat already carry FFmpeg's padding.
  if (avcodec_send_packet(m_context, m_avPacket) < 0) return false;
  if (avcodec_receive_frame(m_context, m_frame) != 0) return false;
  const unsigned char* planes[3];
  int linesizes[3];
  if (!PictureAsI420(planes, linesizes)) return false;
  const auto size = static_cast<size_t>(m_frame->width * static_cast<double>(m_frame->height) * 1.5);
  if (!Grow(m_frontBuffer, m_frontCapacity, size)) return false;
  m_width = m_frame->width;
  m_height = m_frame->height;
  CopyI420(planes, linesizes, m_width, m_height, m_frontBuffer);
  return true;
}

bool CVideoDecoder::HwDecode(void*, VID::VideoRawPkg*) {
  // The hardware path is not built: no path selects it (InitDecoder always chooses type 1).
  return false;
}

bool CVideoDecoder::DxvaInit() {
  // Not built; see HwDecode.
  return false;
}

unsigned long CVideoDecoder::Dxva2_Thread(void*) {
  // Not built; see HwDecode.
  return 0;
}
