// CVideoDecoder: turns the packets queued in H264DataReviever into I420 pictures for the host.
//
// One decode thread pops packets, decodes them with FFmpeg's software H.264/H.265 decoder,
// thins them to the host's frame rate (FPS::VPMVideoDecimator) and copies each kept picture,
// tightly packed, into a queue of three frame blocks. The host's render thread takes the
// oldest with GetYuvData; when the host falls behind, the oldest waiting picture is recycled
// so the decoder never blocks. The decoder is re-created when the receiver reports a codec
// change or after 91 decode failures in a row.
//
// Ownership: GetYuvData and GetData return a buffer that belongs to the decoder and stays
// valid until the next call of either (the buffer may move when a larger picture arrives).
//
// A development facility, SetH264File, makes StartDecode read an H.264/H.265 file with
// libavformat instead of the receiver; GetData then returns the last decoded picture.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "platform/export.h"
#include "media/VideoRawPkg.h"
#include "host/WorkerThread.h"

struct AVBufferRef;
struct AVCodec;
struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;
class CPhoneCameraCtrl;
class H264DataReviever;
namespace FPS {
class VPMVideoDecimator;
}

class LUMO_API CVideoDecoder {
 public:
  // Wired to CPhoneCameraCtrl::GetInstance() and H264DataReviever::GetInstance().
  static CVideoDecoder* GetInstance();

  // `ctrl` holds the codec and counts decoded frames; `receiver` supplies the packets.
  CVideoDecoder(CPhoneCameraCtrl* ctrl, H264DataReviever* receiver);
  CVideoDecoder(const CVideoDecoder&) = delete;
  CVideoDecoder& operator=(const CVideoDecoder&) = delete;

  // Decodes one packet and queues its picture; true when a picture was stored. `context` is
  // unused (0).
  virtual bool Decode(void* context, VID::VideoRawPkg* packet);
  virtual ~CVideoDecoder();

  // File path: decodes one packet read from the file into the front buffer.
  bool Decode2();
  // The hardware path is not built; these exist for the interface and report failure.
  bool HwDecode(void* context, VID::VideoRawPkg* packet);
  bool DxvaInit();
  static unsigned long Dxva2_Thread(void* param);

  // Chooses the default codec from the host's projection content type.
  void InitDecoderType();
  void StartDecode();
  void StopDecode();
  void Done();
  bool IsDecoding();

  unsigned char* GetData(int& width, int& height, unsigned long long& ts, bool& frameRead);
  // The oldest ready picture as I420 (Y, then U, then V, no padding), or null with the
  // outputs untouched when none is ready.
  unsigned char* GetYuvData(int& width, int& height, unsigned long long& ts);
  // Waits up to `timeoutMs` (real time: it paces a host's render thread) until a picture is
  // ready for GetYuvData; true when one is. Lets a host render as pictures come instead of
  // polling.
  bool WaitYuvData(uint32_t timeoutMs);
  long long GetCurVideoFrameTs();
  bool GetVideoBufferFrameAvailableStat();
  void SetFps(unsigned int fps);
  void SetH264File(char* path);

  // A 1920x1080 I420 picture; frame blocks start at this size and grow for larger pictures.
  static constexpr size_t kFrameBlockSize = 3110400;
  static constexpr size_t kQueueFrames = 3;
  // Pictures wider or taller than this are refused: a phone must not make us allocate
  // without bound.
  static constexpr int kMaxDimension = 8192;
  static constexpr int kFailuresBeforeReset = 91;

 private:
  static constexpr int kCodecH265 = 2;
  static constexpr uint64_t kSlowUs = 30000;           // a decode slower than this is logged
  static constexpr uint64_t kKeyFrameWaitUs = 10000;   // poll while no key frame has come
  static constexpr uint64_t kSettleWaitUs = 500000;    // once, after the first key frame
  static constexpr uint64_t kPushWaitUs = 10000;       // longest idle wait for a push
  static constexpr uint64_t kStatisticsWindowUs = 60000000;
  static constexpr uint32_t kStopJoinMs = 1000;
  static constexpr int kMaxFilePackets = 502;
  friend class VideoDecoderTestPeer;

  struct YuvFrame {
    unsigned char* data = nullptr;
    size_t capacity = 0;  // allocated bytes of `data`
    unsigned long long size = 0;
    unsigned long long timestamp = 0;
    long long width = 0;
    long long height = 0;
  };

  bool InitDecoder();
  bool ReInitDecoder();
  void ReleaseDecoder();
  // Frees the codec context, the frame and the packet.
  void CloseCodec();
  // Finds, allocates and opens the decoder for the controller's codec; `step` tells how far
  // it got (the loopIdx of the log line).
  bool OpenCodec(int& step, const char* logPrefix);
  void AllocQueueBuf();
  void FreeQueueBuf();
  void CleanQueueData();
  void VideoDecodeProc();
  void VideoDecodeProc2();
  // Sends the record's bytes, padded as FFmpeg requires, and receives one picture.
  // Returns FFmpeg's status; `got` is 1 when m_frame holds a picture.
  int SendAndReceive(const unsigned char* data, size_t size, int& got);
  // The picture in m_frame as 8-bit 4:2:0 planes (converted when the decoder gives another
  // format); false when it cannot be had.
  bool PictureAsI420(const unsigned char* planes[3], int linesizes[3]);
  static void CopyI420(const unsigned char* const planes[3], const int linesizes[3], int width, int height,
                       unsigned char* out);
  static bool Grow(unsigned char*& block, size_t& capacity, size_t needed);

  CPhoneCameraCtrl* m_ctrl;
  H264DataReviever* m_receiver;

  AVFormatContext* m_input = nullptr;
  int m_videoStreamIndex = -1;
  const AVCodec* m_codec = nullptr;
  AVCodecContext* m_context = nullptr;
  AVFrame* m_frame = nullptr;
  AVPacket* m_avPacket = nullptr;
  AVBufferRef* m_paddedPacket = nullptr;  // reused while no larger packet comes
  SwsContext* m_convert = nullptr;         // only for pictures that are not 8-bit 4:2:0
  AVFrame* m_converted = nullptr;

  std::recursive_mutex m_lock;
  std::condition_variable_any m_pictureReady;  // a picture was queued (waits under m_lock)
  unsigned char* m_frontBuffer = nullptr;
  size_t m_frontCapacity = 0;
  int m_width = 1080;
  int m_height = 1920;
  bool m_frameAvailable = false;
  long long m_currentTs = 0;
  std::string m_inputFile;
  unsigned long long m_fileFrameTs = 0;
  std::atomic<bool> m_running{true};
  bool m_frameRead = false;
  // The decode thread. Its waits end on a stop, and the pop-empty wait also on a push (the
  // receiver wakes it while we are its consumer).
  lumo::WorkerThread m_worker{"phoneVideo decode"};
  bool m_threadStarted = false;  // a thread was started and not yet collected by StopDecode

  std::mutex m_decimatorLock;  // SetFps comes from the host while the decode thread decimates
  std::shared_ptr<FPS::VPMVideoDecimator> m_decimator;
  std::deque<YuvFrame*> m_freeFrames;
  std::deque<YuvFrame*> m_readyFrames;
  int m_decodeType = 1;
  VID::VideoRawPkg m_packet;
  std::atomic<bool> m_firstFrame{true};

  // Counters of the decode thread alone.
  int m_errorCount = 0;
  unsigned long long m_slowDecodes = 0;
  unsigned long long m_decimated = 0;
  unsigned long long m_renderDrops = 0;
  unsigned long long m_oversized = 0;
  int m_windowFrames = 0;
  uint64_t m_windowStartUs = 0;
};
