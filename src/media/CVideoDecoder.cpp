#include "media/CVideoDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "media/H264DataReviever.h"
#include "media/VPMVideoDecimator.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/process.h"

namespace {

constexpr int kCodecH265 = 2;
constexpr uint64_t kSlowUs = 30000;
constexpr uint64_t kKeyFrameWaitUs = 10000;
constexpr uint64_t kSettleWaitUs = 500000;
constexpr uint64_t kStatisticsWindowUs = 60000000;
constexpr uint32_t kStopJoinMs = 1000;
constexpr int kMaxFilePackets = 502;

// FFmpeg's own messages go to our log. A broken stream makes the decoder complain about every
// packet, so at most kFfmpegLinesPerSecond lines get through each second; the rest are
// counted and the count is logged when the next second opens.
constexpr int kFfmpegLinesPerSecond = 20;
std::mutex g_ffmpegLogMutex;
uint32_t g_ffmpegWindowStart = 0;
int g_ffmpegLines = 0;
int g_ffmpegSuppressed = 0;
int g_ffmpegPrefix = 1;

void FfmpegLogCallback(void* avcl, int level, const char* fmt, va_list vl) {
  if (level > av_log_get_level() || level > AV_LOG_INFO) return;
  const int ourLevel = level <= AV_LOG_ERROR ? LOG_ERROR : level <= AV_LOG_WARNING ? LOG_BAD_DATA : LOG_INFO;
  char line[1024];
  int suppressedBefore = 0;
  {
    std::lock_guard<std::mutex> guard(g_ffmpegLogMutex);
    av_log_format_line2(avcl, level, fmt, vl, line, sizeof line, &g_ffmpegPrefix);
    const uint32_t now = lumo::TickCountMs();
    if (now - g_ffmpegWindowStart >= 1000) {
      g_ffmpegWindowStart = now;
      g_ffmpegLines = 0;
      suppressedBefore = g_ffmpegSuppressed;
      g_ffmpegSuppressed = 0;
    }
    if (g_ffmpegLines >= kFfmpegLinesPerSecond) {
      ++g_ffmpegSuppressed;
      return;
    }
    ++g_ffmpegLines;
  }
  size_t len = std::strlen(line);
  while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) line[--len] = '\0';
  if (suppressedBefore > 0) Log(LOG_BAD_DATA, "[ffmpeg] %d messages suppressed", suppressedBefore);
  if (len > 0) Log(ourLevel, "[ffmpeg] %s", line);
}

void InstallFfmpegLog() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_callback(FfmpegLogCallback); });
}

}  // namespace

CVideoDecoder* CVideoDecoder::GetInstance() {
  static CVideoDecoder instance(CPhoneCameraCtrl::GetInstance(), H264DataReviever::GetInstance());
  return &instance;
}

CVideoDecoder::CVideoDecoder(CPhoneCameraCtrl* ctrl, H264DataReviever* receiver)
    : m_ctrl(ctrl), m_receiver(receiver), m_decimator(std::make_shared<FPS::VPMVideoDecimator>()) {
  InstallFfmpegLog();
  Grow(m_frontBuffer, m_frontCapacity, kFrameBlockSize);
  m_windowStartUs = lumo::PerfCounterUs();
}

CVideoDecoder::~CVideoDecoder() {
  SetRunning(false);
  // The decode thread ends within one packet once `running` is clear. The limit is for a
  // library unloaded with the thread still running: on Windows that thread cannot finish
  // while the loader is unloading us, and is terminated instead of waited for forever.
  m_thread.Join(kStopJoinMs);
  delete[] m_frontBuffer;
  FreeQueueBuf();
  CloseCodec();
  avformat_close_input(&m_input);
  av_buffer_unref(&m_paddedPacket);
  sws_freeContext(m_convert);
  av_frame_free(&m_converted);
}

bool CVideoDecoder::Grow(unsigned char*& block, size_t& capacity, size_t needed) {
  if (block != nullptr && capacity >= needed) return true;
  unsigned char* bigger = new (std::nothrow) unsigned char[needed]();
  if (bigger == nullptr) return false;
  delete[] block;
  block = bigger;
  capacity = needed;
  return true;
}

void CVideoDecoder::SetRunning(bool on) {
  std::lock_guard<std::mutex> guard(m_wakeMutex);
  m_running = on;
  m_wake.notify_all();
}

void CVideoDecoder::WaitWhileRunning(uint64_t us) {
  // A stop must not wait out a 500 ms pause: the wait ends as soon as `running` is cleared.
  std::unique_lock<std::mutex> lock(m_wakeMutex);
  lumo::GetClock().WaitFor(lock, m_wake, us, [this] { return !m_running; });
}

void CVideoDecoder::InitDecoderType() {
  if (lumo::Host().GetProjectContentType() != 0) {
    m_ctrl->SetCodec(1);
    Log(LOG_INFO, "CVideoDecoder::SetInitDecoderType game use 264 default");
  } else {
    m_ctrl->SetCodec(kCodecH265);
    Log(LOG_INFO, "CVideoDecoder::SetInitDecoderType vertical use hevc default");
  }
}

void CVideoDecoder::CloseCodec() {
  av_frame_free(&m_frame);
  av_packet_free(&m_avPacket);
  avcodec_free_context(&m_context);
  m_codec = nullptr;
}

bool CVideoDecoder::OpenCodec(int& step, const char* reinitLog) {
  auto mark = [reinitLog](int n) {
    if (reinitLog != nullptr) Log(LOG_INFO, "%s %d", reinitLog, n);
  };
  const bool h265 = m_ctrl->GetCodec() == kCodecH265;
  step = 0;
  mark(1);
  m_codec = avcodec_find_decoder(h265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
  if (m_codec == nullptr) return false;
  step = 1;
  mark(2);
  m_context = avcodec_alloc_context3(m_codec);
  if (m_context == nullptr) return false;
  if (m_input != nullptr && m_videoStreamIndex >= 0) {
    // A file in a container keeps its parameter sets beside the stream, not in it.
    const AVCodecParameters* par = m_input->streams[m_videoStreamIndex]->codecpar;
    if (par->codec_id == m_codec->id) avcodec_parameters_to_context(m_context, par);
  }
  // Lowest latency: whole frames arrive from the phone, without B-frames, so with
  // LOW_DELAY and a single thread each packet gives its picture before send returns.
  // Frame threads would hold back one picture per extra thread; slice threads would add no
  // delay, but phone encoders send one slice per picture, so they would only add threads
  // that wait. One thread also leaves the other cores to the host's renderer and encoder.
  m_context->flags |= AV_CODEC_FLAG_LOW_DELAY;
  m_context->thread_count = 1;
  m_context->thread_type = FF_THREAD_SLICE;
  // FFmpeg itself refuses pictures whose area is beyond what we would store.
  m_context->max_pixels = static_cast<int64_t>(kMaxDimension) * kMaxDimension;
  step = 2;
  mark(3);
  if (avcodec_open2(m_context, m_codec, nullptr) < 0) return false;
  step = 3;
  mark(4);
  m_avPacket = av_packet_alloc();
  if (m_avPacket == nullptr) return false;
  step = 4;
  mark(5);
  m_frame = av_frame_alloc();
  if (m_frame == nullptr) return false;
  step = 5;
  mark(6);
  return true;
}

bool CVideoDecoder::InitDecoder() {
  Log(LOG_INFO, "CVideoDecoder::InitDecoder enter");
  m_firstFrame = true;
  // Type 3 (the hardware path) is never selected, so the decoder is always released here.
  if (!(m_decodeType == 3 && lumo::Host().GetProjectContentType() == 1)) {
    m_decodeType = 3;
    CloseCodec();
    avformat_close_input(&m_input);
    m_videoStreamIndex = -1;
  }
  m_decodeType = 1;
  if (m_frame != nullptr && m_avPacket != nullptr) return true;

  if (m_ctrl->GetCodec() == kCodecH265) {
    Log(LOG_INFO, "CVideoDecoder::InitDecoder,current 265 decoder");
  } else {
    Log(LOG_INFO, "CVideoDecoder::InitDecoder,current 264 decoder");
  }
  int step = 0;
  bool ok = true;
  if (!m_inputFile.empty()) {
    ok = avformat_open_input(&m_input, m_inputFile.c_str(), nullptr, nullptr) == 0;
    if (ok) {
      for (unsigned i = 0; i < m_input->nb_streams; ++i) {
        if (m_input->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
          m_videoStreamIndex = static_cast<int>(i);
          break;
        }
      }
      if (m_videoStreamIndex < 0) {
        avformat_close_input(&m_input);
        ok = false;
      } else {
        avformat_find_stream_info(m_input, nullptr);
        av_dump_format(m_input, 0, m_inputFile.c_str(), 0);
      }
    }
  }
  if (ok && OpenCodec(step, nullptr)) {
    Log(LOG_INFO, "CVideoDecoder::InitDecoder,ret:%d,loopIdx:%d", 1, step);
    return true;
  }
  m_running = false;
  m_frameRead = false;
  Log(LOG_ERROR, "CVideoDecoder::InitDecoder,ret:%d,loopIdx:%d", 0, step);
  return false;
}

bool CVideoDecoder::ReInitDecoder() {
  Log(LOG_INFO, "CVideoDecoder::ReInitDecoder enter");
  CloseCodec();
  if (m_ctrl->GetCodec() == kCodecH265) {
    Log(LOG_INFO, "CVideoDecoder::ReInitDecoder,current 265 decoder");
  } else {
    Log(LOG_INFO, "CVideoDecoder::ReInitDecoder,current 264 decoder");
  }
  int step = 0;
  const bool ok = OpenCodec(step, "CVideoDecoder::ReInitDecoder enter");
  if (!ok) {
    m_running = false;
    m_frameRead = false;
  }
  Log(ok ? LOG_INFO : LOG_ERROR, "CVideoDecoder::ReInitDecoder,ret:%d", ok ? 1 : 0);
  return ok;
}

void CVideoDecoder::ReleaseDecoder() { m_running = false; }

void CVideoDecoder::StartDecode() {
  StopDecode();
  InitDecoder();
  m_receiver->SetGotIFrame(false);
  SetRunning(true);
  m_fileFrameTs = 0;

  bool started = false;
  if (!m_inputFile.empty()) {
    started = m_thread.Start([this] { VideoDecodeProc2(); });
  } else if (m_decodeType == 3 && DxvaInit()) {
    // Not reached: the hardware path is never selected (InitDecoder sets type 1).
  } else {
    {
      std::lock_guard<std::recursive_mutex> guard(m_lock);
      if (m_freeFrames.empty() && m_readyFrames.empty()) AllocQueueBuf();
    }
    started = m_thread.Start([this] { VideoDecodeProc(); });
    Log(LOG_INFO, "[phoneVideo] Use decode type cpu");
  }
  if (started) {
    Log(LOG_INFO, "[phoneVideo] StartDecode create thread success with id:%u", m_thread.Id());
  } else {
    SetRunning(false);
    Log(LOG_INFO, "[phoneVideo]StartDecode create thread fail with last error:%u",
        static_cast<unsigned>(lumo::LastSystemError()));
  }
}

void CVideoDecoder::StopDecode() {
  {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    if (m_frontBuffer != nullptr) std::memset(m_frontBuffer, 0, m_frontCapacity);
  }
  CleanQueueData();
  SetRunning(false);
  lumo::Host().ClearCurrentTexture();
  if (m_thread.HasThread()) {
    // Join gives the thread up after the time-out (terminated on Windows, detached on POSIX);
    // the decode thread ends within one packet, so this is a stuck decoder.
    if (!m_thread.Join(kStopJoinMs)) {
      Log(LOG_ERROR, "[phoneVideo] terminate thread fail:%d", lumo::LastSystemError());
    }
    m_firstFrame = true;
    Log(LOG_ERROR, "[phoneVideo] StopDecode stop thread");
  }
}

bool CVideoDecoder::IsDecoding() { return m_running; }

void CVideoDecoder::Done() {
  // A console leftover: harmless, it returns at once or fails to start.
  lumo::RunCommandLine(L"pause", 1000);
}

void CVideoDecoder::SetFps(unsigned int fps) {
  std::lock_guard<std::mutex> guard(m_decimatorLock);
  m_decimator->Reset();
  m_decimator->SetMaxFrameRate(fps);
  m_decimator->SetTargetFrameRate(fps);
}

void CVideoDecoder::SetH264File(char* path) { m_inputFile = path != nullptr ? path : ""; }

long long CVideoDecoder::GetCurVideoFrameTs() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_currentTs;
}

bool CVideoDecoder::GetVideoBufferFrameAvailableStat() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_frameAvailable;
}

void CVideoDecoder::AllocQueueBuf() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  while (m_freeFrames.size() < kQueueFrames) {
    YuvFrame* frame = new (std::nothrow) YuvFrame();
    if (frame == nullptr) continue;
    if (!Grow(frame->data, frame->capacity, kFrameBlockSize)) {
      delete frame;
      continue;  // the attempt does not count
    }
    m_freeFrames.push_back(frame);
  }
}

void CVideoDecoder::FreeQueueBuf() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  for (auto* queue : {&m_freeFrames, &m_readyFrames}) {
    for (YuvFrame* frame : *queue) {
      delete[] frame->data;
      delete frame;
    }
    queue->clear();
  }
}

void CVideoDecoder::CleanQueueData() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  Log(LOG_INFO, "[phoneVideo] CleanQueueData, clear data queue, size is %d", static_cast<int>(m_freeFrames.size()));
  while (!m_readyFrames.empty()) {
    m_freeFrames.push_back(m_readyFrames.front());
    m_readyFrames.pop_front();
  }
}

void CVideoDecoder::VideoDecodeProc() {
  Log(LOG_INFO, "[phoneVideo] VideoDecodeProc enter");
  unsigned char* data = m_packet.data;
  const unsigned long long capacity = m_packet.capacity;
  if (data != nullptr) std::memset(data, 0, static_cast<size_t>(capacity));
  m_packet.mark1 = m_packet.mark2 = 0;
  m_packet.timestamp = m_packet.reserved = m_packet.index = m_packet.pending = m_packet.length = 0;
  // `running` is set by StartDecode before the thread starts, not here: setting it here could
  // undo a StopDecode that came first and leave the thread running.
  int keyFrameRounds = 0;
  for (;;) {
    lumo::Stopwatch stopwatch;
    if (!m_receiver->HasGotIFrame()) {
      WaitWhileRunning(kKeyFrameWaitUs);
      keyFrameRounds = 0;
    } else if (keyFrameRounds < 2 && ++keyFrameRounds < 2 && !m_ctrl->IsHighIOSVersion()) {
      // Once after the first key frame: let the receiver's queue fill before decoding.
      WaitWhileRunning(kSettleWaitUs);
    } else {
      if (m_receiver->IsDecoderChanged()) {
        if (!ReInitDecoder()) {
          Log(LOG_ERROR, "CVideoDecoder::VideoDecodeProc reinit decoder failed");
          Log(LOG_INFO, "[phoneVideo] VideoDecodeProc exit");
          return;
        }
        m_receiver->SetDecoderChanged(false);
      }
      m_receiver->PopH264RawData(&m_packet);
      if (m_packet.length == 0) {
        m_receiver->WaitH264RawData();
      } else {
        if (m_decodeType == 2) {
          HwDecode(nullptr, &m_packet);
        } else {
          Decode(nullptr, &m_packet);
        }
        const uint64_t used = stopwatch.ElapsedUs();
        if (used > kSlowUs && !lumo::Host().IsPrintTooFast(10000, "CVideoDecoder::VideoDecodeProc469")) {
          Log(LOG_INFO, "CVideoDecoder::VideoDecodeProc  too slow . timeUsed1 : %d", static_cast<int>(used));
        }
      }
    }
    if (!m_running) {
      Log(LOG_INFO, "[phoneVideo] VideoDecodeProc exit");
      return;
    }
  }
}

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
  return true;
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
