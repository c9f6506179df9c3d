// AudioDataReviever: where raw AAC frames from the phone wait for their decode thread.
//
// There are two independent audio chains (instance 1 and instance 2), each with its own
// receiver, so that two audio streams can be carried at once. Frames are copied into a fixed
// pool of 60 slots of 4,096 bytes; when the decoder falls behind, the newest frame is dropped.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>

#include "platform/export.h"

class CPhoneCameraCtrl;

class AudioDataReviever {
 public:
  // 1 gives instance 1, any other value instance 2.
  static AudioDataReviever* GetInstance(int n);

  explicit AudioDataReviever(CPhoneCameraCtrl* ctrl);
  ~AudioDataReviever();
  AudioDataReviever(const AudioDataReviever&) = delete;
  AudioDataReviever& operator=(const AudioDataReviever&) = delete;

  // Copies the frame; the caller keeps its buffer.
  void PushAACRawData(const unsigned char* data, unsigned long long len, unsigned long long timestamp);
  // `buffer` must hold kSlotSize bytes; length 0 means nothing was waiting.
  void PopAACRawData(unsigned char* buffer, unsigned int& length, unsigned long long& timestamp,
                     unsigned long long& index);

  size_t WaitingCount();
  size_t FreeCount();

  static constexpr size_t kSlotCount = 60;
  static constexpr unsigned long long kSlotSize = 4096;

 private:
  struct AudioPacketSlot {
    unsigned char* data = nullptr;  // kSlotSize bytes
    unsigned long long length = 0;
    unsigned long long timestamp = 0;
    unsigned long long index = 0;
  };

  CPhoneCameraCtrl* m_ctrl;
  std::deque<AudioPacketSlot*> m_freeSlots;
  std::deque<AudioPacketSlot*> m_waitingSlots;
  std::recursive_mutex m_lock;
  // One numbering for both instances, so that indices tell the order of arrival across them.
  static std::atomic<unsigned long long> s_sequence;
};
