#include "media/AudioDataReviever.h"

#include <cstring>
#include <new>

#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"

std::atomic<unsigned long long> AudioDataReviever::s_sequence{0};

AudioDataReviever* AudioDataReviever::GetInstance(int n) {
  if (n == 1) {
    static AudioDataReviever first(CPhoneCameraCtrl::GetInstance());
    return &first;
  }
  static AudioDataReviever second(CPhoneCameraCtrl::GetInstance());
  return &second;
}

AudioDataReviever::AudioDataReviever(CPhoneCameraCtrl* ctrl) : m_ctrl(ctrl) {
  while (m_freeSlots.size() < kSlotCount) {
    // The pool is needed before anything works; a failed attempt is tried again.
    unsigned char* block = new (std::nothrow) unsigned char[kSlotSize];
    if (block == nullptr) continue;
    AudioPacketSlot* slot = new (std::nothrow) AudioPacketSlot();
    if (slot == nullptr) {
      delete[] block;
      continue;
    }
    slot->data = block;
    m_freeSlots.push_back(slot);
  }
}

AudioDataReviever::~AudioDataReviever() {
  for (AudioPacketSlot* slot : m_freeSlots) {
    delete[] slot->data;
    delete slot;
  }
  for (AudioPacketSlot* slot : m_waitingSlots) {
    delete[] slot->data;
    delete slot;
  }
}

void AudioDataReviever::PushAACRawData(const unsigned char* data, unsigned long long len,
                                       unsigned long long timestamp) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (len < 2 || data == nullptr) return;
  m_ctrl->AddReceivedAudioFrame();

  // Slots are fixed at 4,096 bytes and the phone decides the length: a longer frame would be
  // written past the end of its slot.
  if (len > kSlotSize) {
    Log(LOG_BAD_DATA, "[AudioDataReviever] frame too large, dropped:%I64u", len);
    return;
  }
  if (m_freeSlots.empty()) {
    if (m_waitingSlots.size() < 2) return;
    Log(LOG_INFO, "[AudioDataReviever] decode frame too slow , begin to drop recieve frame");
    return;
  }

  AudioPacketSlot* slot = m_freeSlots.front();
  m_freeSlots.pop_front();
  if (slot == nullptr || slot->data == nullptr) {
    Log(LOG_ERROR, "[AudioDataReviever] empy packet  ");
    return;
  }
  slot->index = ++s_sequence;
  std::memcpy(slot->data, data, static_cast<size_t>(len));
  slot->length = len;
  slot->timestamp = timestamp;
  m_waitingSlots.push_back(slot);
}

void AudioDataReviever::PopAACRawData(unsigned char* buffer, unsigned int& length, unsigned long long& timestamp,
                                      unsigned long long& index) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_waitingSlots.empty()) {
    length = 0;
    return;
  }
  AudioPacketSlot* slot = m_waitingSlots.front();
  m_waitingSlots.pop_front();
  m_freeSlots.push_back(slot);
  length = static_cast<unsigned int>(slot->length);
  std::memcpy(buffer, slot->data, length);
  timestamp = slot->timestamp;
  index = slot->index;
}

size_t AudioDataReviever::WaitingCount() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_waitingSlots.size();
}

size_t AudioDataReviever::FreeCount() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_freeSlots.size();
}
