// H264DataReviever: where encoded video from the phone waits for the decode thread.
//
// The dispatcher pushes every H.264/H.265 packet (Annex-B) from the transport threads; the
// decode thread pops them one at a time. Packets are copied into a fixed pool of 15 slots so
// the network never waits for the decoder: when the decoder falls 15 packets behind, packets
// are dropped until the next key frame, which keeps what is decoded free of broken references.
// The push also classifies each packet and notices when the phone changes codec, raising
// decoderChanged for the decode thread. Settings ("phoneVideoCfg.ini", [SECT_VIDEO]):
//   saveH264   1 dumps every pushed packet to phoneData.h264/.h265 in the product data folder.
#pragma once

#include <functional>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>

#include "platform/export.h"
#include "host/PhoneCameraTypes.h"
#include "media/VideoRawPkg.h"
#include "platform/event.h"

class CPhoneCameraCtrl;
namespace lumo {
class WorkerThread;
}

class H264DataReviever {
 public:
  static H264DataReviever* GetInstance();

  // The codec and the high-version iOS flag are read from and written to `ctrl`.
  explicit H264DataReviever(CPhoneCameraCtrl* ctrl);
  ~H264DataReviever();
  H264DataReviever(const H264DataReviever&) = delete;
  H264DataReviever& operator=(const H264DataReviever&) = delete;

  // Copies the packet; the caller keeps its buffer. `timestamp` is 0 for raw frames.
  void PushH264RawData(const unsigned char* data, unsigned long long len, unsigned long long timestamp,
                       ePhoneDataSource source);
  // 1 key frame, 3 any other frame, 0 shorter than 4 bytes. May switch the codec.
  int AnalyseVideoFrame(const unsigned char* data, unsigned long long len);
  // Moves the oldest waiting packet into `record`; record->length 0 when none was waiting.
  void PopH264RawData(VID::VideoRawPkg* record);
  // Waits at most 10 ms for a push. The decode thread waits on its own worker instead (see
  // SetConsumer), which the push wakes just the same and which a stop also ends.
  void WaitH264RawData();
  // The decode thread that a push wakes (null: none). Set and cleared under the receiver's lock,
  // so once a clear has returned no push touches the old one.
  void SetConsumer(lumo::WorkerThread* consumer);
  // Clears the consumer when it is `consumer` (another decoder may have taken the place).
  void DropConsumer(lumo::WorkerThread* consumer);
  // Called on the transport's thread each time a packet was queued, with its phone timestamp and
  // length: for a host or a benchmark that measures arrival to picture or the bit rate. Set it
  // while no capture runs.
  void SetPushObserver(std::function<void(unsigned long long timestamp, unsigned long long bytes)> observer) {
    m_pushObserver = std::move(observer);
  }
  // Returns every waiting packet to the free pool.
  void OnStopCapture();

  void SetWaitFirstIFrame(bool on);
  bool IsWaitingFirstIFrame();
  void SetDecoderChanged(bool on);
  bool IsDecoderChanged();
  void SetGotIFrame(bool on);
  bool HasGotIFrame();
  bool IsDropping();
  size_t WaitingCount();
  size_t FreeCount();
  // Packets dropped since start-up because no slot was free or a key frame was awaited.
  unsigned long long DroppedPackets() const { return m_dropCounter.load(); }
  // The lock that guards the queues and the flags; other classes take it around compound use.
  std::recursive_mutex& Lock() { return m_lock; }

  static constexpr size_t kSlotCount = 15;
  static constexpr unsigned long long kSlotSize = 6144000;
  // The phone decides how big a packet is; above this bound we refuse to allocate for it.
  static constexpr unsigned long long kMaxPacketSize = 32ull * 1024 * 1024;

 private:
  struct VideoPacketSlot {
    unsigned char* data = nullptr;  // kSlotSize bytes, or more after a larger packet
    uint32_t length = 0;
    unsigned long long timestamp = 0;
    unsigned long long index = 0;
  };

  // Start code form (3 for 00 00 01, 4 for 00 00 00 01, 0 none) of the first key frame that
  // `primary` accepts and, when there is none, of the first that `fallback` accepts.
  using KeyTest = bool (*)(unsigned char header);
  static void FindKeyFrames(const unsigned char* data, unsigned long long len, KeyTest primary, KeyTest fallback,
                            int& primaryForm, int& fallbackForm);
  void SwitchCodec(int codec, const char* message);
  void LogBitrate(unsigned long long len);
  void CountFrameKinds(int kind, ePhoneDataSource source);

  CPhoneCameraCtrl* m_ctrl;
  std::deque<VideoPacketSlot*> m_freeSlots;
  std::deque<VideoPacketSlot*> m_waitingSlots;
  std::recursive_mutex m_lock;
  // The flags are atomic because the push reads `dropping`, and the classifier writes
  // `gotIFrame`, before it takes the lock; every other access is under m_lock.
  std::atomic<bool> m_waitFirstIFrame{true};
  std::atomic<bool> m_dropping{false};
  int m_saveH264 = -1;
  std::atomic<bool> m_decoderChanged{false};
  std::atomic<bool> m_gotIFrame{false};
  lumo::AutoResetEvent m_event;
  lumo::WorkerThread* m_consumer = nullptr;  // under m_lock
  std::function<void(unsigned long long, unsigned long long)> m_pushObserver;
  std::atomic<unsigned long long> m_byteCounter{0};
  std::atomic<unsigned long long> m_lastBitrateTick{0};
  FILE* m_dumpFile = nullptr;

  // Counters of the push alone. Two transports may push at once, hence atomics.
  std::atomic<int> m_keyFrameCount{0};
  std::atomic<int> m_otherFrameCount{0};
  std::atomic<int> m_windowPushCount{0};
  std::atomic<unsigned long long> m_dropCounter{0};
  std::atomic<unsigned long long> m_windowStartUs;
  unsigned long long m_sequence = 0;  // under m_lock
};
