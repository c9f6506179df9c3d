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
#include "media/FfmpegLog.h"


CVideoDecoder* CVideoDecoder::GetInstance() {
  static CVideoDecoder instance(CPhoneCameraCtrl::GetInstance(), H264DataReviever::GetInstance());
  return &instance;
}

CVideoDecoder::CVideoDecoder(CPhoneCameraCtrl* ctrl, H264DataReviever* receiver)
    : m_ctrl(ctrl), m_receiver(receiver), m_decimator(std::make_shared<FPS::VPMVideoDecimator>()) {
  lumo::InstallFfmpegLog();
  Grow(m_frontBuffer, m_frontCapacity, kFrameBlockSize);
  m_windowStartUs = lumo::PerfCounterUs();
}

CVideoDecoder::~CVideoDecoder() {
  m_running = false;
  // Waits for the decode thread however long it takes: everything freed below is what it uses.
  m_worker.Stop(kStopJoinMs);
  m_receiver->DropConsumer(&m_worker);
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
  // StopDecode returns only once the previous thread has ended, so there is never a second
  // loop, and InitDecoder below never frees the codec under a running one.
  StopDecode();
  InitDecoder();
  m_receiver->SetGotIFrame(false);
  m_running = true;
  m_fileFrameTs = 0;

  bool started = false;
  if (!m_inputFile.empty()) {
    started = m_worker.Start([this] { VideoDecodeProc2(); });
  } else if (m_decodeType == 3 && DxvaInit()) {
    // Not reached: the hardware path is never selected (InitDecoder sets type 1).
  } else {
    {
      std::lock_guard<std::recursive_mutex> guard(m_lock);
      if (m_freeFrames.empty() && m_readyFrames.empty()) AllocQueueBuf();
    }
    m_receiver->SetConsumer(&m_worker);
    started = m_worker.Start([this] { VideoDecodeProc(); });
    Log(LOG_INFO, "[phoneVideo] Use decode type cpu");
  }
  if (started) {
    m_threadStarted = true;
    Log(LOG_INFO, "[phoneVideo] StartDecode create thread success with id:%u", m_worker.Id());
  } else {
    m_running = false;
    m_receiver->DropConsumer(&m_worker);
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
  m_running = false;
  lumo::Host().ClearCurrentTexture();
  if (m_threadStarted) {
    // A thread slower than the bound is waited for (the worker logs it), never terminated: a
    // killed thread would leave FFmpeg's state and our locks half-held.
    m_worker.Stop(kStopJoinMs);
    m_receiver->DropConsumer(&m_worker);
    m_threadStarted = false;
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
      m_worker.SleepUs(kKeyFrameWaitUs);
      keyFrameRounds = 0;
    } else if (keyFrameRounds < 2 && ++keyFrameRounds < 2 && !m_ctrl->IsHighIOSVersion()) {
      // Once after the first key frame: let the receiver's queue fill before decoding.
      m_worker.SleepUs(kSettleWaitUs);
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
        // At most 10 ms, like the receiver's own wait, but on our worker: a push wakes it at
        // once and so does a stop. A wake left by a push during the last decode ends it at
        // once; the next pop then finds nothing and waits again.
        m_worker.WaitUs(kPushWaitUs);
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
