#include "media/H264DataReviever.h"

#include <cstring>
#include <new>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "host/WorkerThread.h"
#include "platform/clock.h"
#include "platform/paths.h"

namespace {

const char kCfgFile[] = "phoneVideoCfg.ini";
constexpr int kCodecH264 = 1;
constexpr int kCodecH265 = 2;
constexpr int kKeyFrame = 1;
constexpr int kOtherFrame = 3;
constexpr uint64_t kBitrateIntervalMs = 30000;
constexpr unsigned long long kBitrateDivisor = 30 * 1024;  // bytes over 30 s -> KB/s
constexpr uint64_t kStatisticsWindowUs = 60000000;

bool IsH264Key(unsigned char header) { return (header & 0x1F) == 5; }  // IDR slice
// IDR_W_RADL (19) or IDR_N_LP (20) in bits 1-6.
bool IsH265Key(unsigned char header) { return (header & 0x7E) == 0x26 || (header & 0x7E) == 0x28; }

}  // namespace

H264DataReviever* H264DataReviever::GetInstance() {
  static H264DataReviever instance(CPhoneCameraCtrl::GetInstance());
  return &instance;
}

H264DataReviever::H264DataReviever(CPhoneCameraCtrl* ctrl) : m_ctrl(ctrl), m_windowStartUs(lumo::PerfCounterUs()) {
  while (m_freeSlots.size() < kSlotCount) {
    // Not zero-filled: pages nobody has written cost no memory until a packet lands in them.
    unsigned char* block = new (std::nothrow) unsigned char[kSlotSize];
    if (block == nullptr) continue;  // the pool is needed before anything works; try again
    VideoPacketSlot* slot = new (std::nothrow) VideoPacketSlot();
    if (slot == nullptr) {
      delete[] block;
      continue;
    }
    slot->data = block;
    m_freeSlots.push_back(slot);
  }

  lumo::HostServices& host = lumo::Host();
  m_saveH264 = host.GetConfigInt(kCfgFile, "SECT_VIDEO", "saveH264", -1);
  if (m_saveH264 == -1) {
    // Write the switch into the file so that a developer finds it there.
    host.SetConfigString(kCfgFile, "SECT_VIDEO", "saveH264", "0");
  } else if (m_saveH264 == 1) {
    lumo::CreateDirectoryOneLevel(lumo::AppDataDir());
    lumo::CreateDirectoryOneLevel(lumo::ProductDataDir());
    const wchar_t* name = m_ctrl->GetCodec() == kCodecH265 ? L"phoneData.h265" : L"phoneData.h264";
    m_dumpFile = lumo::OpenFile(lumo::JoinPath(lumo::ProductDataDir(), name), "wb+");
    if (m_dumpFile == nullptr) Log(LOG_ERROR, "[phoneVideo] cannot open the video dump file");
  }
}

H264DataReviever::~H264DataReviever() {
  for (VideoPacketSlot* slot : m_freeSlots) {
    delete[] slot->data;
    delete slot;
  }
  for (VideoPacketSlot* slot : m_waitingSlots) {
    delete[] slot->data;
    delete slot;
  }
  if (m_dumpFile != nullptr) std::fclose(m_dumpFile);
}

void H264DataReviever::PushH264RawData(const unsigned char* data, unsigned long long len,
                                       unsigned long long timestamp, ePhoneDataSource source) {
  // The phone names the size; without a bound it could make us allocate without limit.
  if (len > kMaxPacketSize) {
    Log(LOG_BAD_DATA, "[phoneVideo] video packet too large, dropped:%I64u", len);
    return;
  }
  if (len < 2 || data == nullptr) return;

  if (m_saveH264 == 1 && m_dumpFile != nullptr) {
    // Before any drop decision, so that the dump holds exactly what the phone sent.
    std::fwrite(data, 1, static_cast<size_t>(len), m_dumpFile);
    std::fflush(m_dumpFile);
  }
  lumo::Host().CountStatistic(lumo::HostStat::MaxCameraFrameCount, 1);

  LogBitrate(len);
  const int kind = AnalyseVideoFrame(data, len);
  CountFrameKinds(kind, source);

  if (m_dropping && kind != kKeyFrame) {
    // Once a packet was lost, what follows it up to the next key frame would decode broken.
    if (m_dropCounter.fetch_add(1) % 5 == 0) Log(LOG_INFO, "[phoneVideo] drop video packet");
    return;
  }

  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_freeSlots.empty()) {
    if (m_waitingSlots.size() > 1) {
      if (AnalyseVideoFrame(data, len) != kKeyFrame) {
        Log(LOG_INFO, "[phoneVideo] recieve other frame type , begin to drop recieve frame");
        m_dropping = true;
        return;
      }
      // A key frame makes everything queued before it unnecessary: start over from it.
      Log(LOG_INFO, "[phoneVideo] recieve I frame , clear all waiting for decode data ");
      m_dropping = false;
      while (!m_waitingSlots.empty()) {
        m_freeSlots.push_back(m_waitingSlots.front());
        m_waitingSlots.pop_front();
      }
    }
    if (m_freeSlots.empty()) return;
  }

  m_dropping = false;
  VideoPacketSlot* slot = m_freeSlots.front();
  m_freeSlots.pop_front();
  if (slot == nullptr || slot->data == nullptr) {
    Log(LOG_ERROR, "[phoneVideo] empy packet  ");
    return;
  }

  ++m_sequence;
  if (len > kSlotSize) {
    // nothrow: an allocation failure must not unwind through the transport thread. The slot
    // keeps its old block and goes back to the pool; only this packet is lost.
    unsigned char* bigger = new (std::nothrow) unsigned char[static_cast<size_t>(len)];
    if (bigger == nullptr) {
      m_freeSlots.push_front(slot);
      Log(LOG_ERROR, "[phoneVideo] no memory for video packet, dropped:%I64u", len);
      return;
    }
    delete[] slot->data;
    slot->data = bigger;
  }
  std::memcpy(slot->data, data, static_cast<size_t>(len));
  slot->length = static_cast<uint32_t>(len);  // fits: len <= kMaxPacketSize
  slot->timestamp = timestamp;
  slot->index = m_sequence;
  m_waitingSlots.push_back(slot);

  m_event.Set();
  if (m_consumer != nullptr) m_consumer->Wake();
  m_ctrl->AddReceivedVideoFrame();
  if (m_pushObserver) m_pushObserver(timestamp, len);

  if (m_waitFirstIFrame && len >= 5 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1 &&
      IsH264Key(data[4])) {
    Log(LOG_INFO, "[phoneVideo] recieve the first I frame");
    m_waitFirstIFrame = false;
  }
}

void H264DataReviever::LogBitrate(unsigned long long len) {
  m_byteCounter.fetch_add(len);
  const uint64_t now = lumo::TickCountMs();
  if (now - m_lastBitrateTick.load() >= kBitrateIntervalMs) {
    m_lastBitrateTick.exchange(now);
    const unsigned long long bytes = m_byteCounter.exchange(0);
    Log(LOG_INFO, "H264DataReviever bitrate %lld KB", static_cast<long long>(bytes / kBitrateDivisor));
  }
}

void H264DataReviever::CountFrameKinds(int kind, ePhoneDataSource source) {
  if (kind == kKeyFrame) {
    ++m_keyFrameCount;
  } else {
    ++m_otherFrameCount;
  }
  if (m_windowPushCount.load() == 0) m_windowStartUs = lumo::PerfCounterUs();
  ++m_windowPushCount;
  if (lumo::PerfCounterUs() - m_windowStartUs.load() > kStatisticsWindowUs) {
    Log(LOG_INFO, "H264DataReviever::PushH264RawData . I frame count : %d, p frame count:%d,esourceType:%d",
        m_keyFrameCount.load(), m_otherFrameCount.load(), static_cast<int>(source));
    m_keyFrameCount = 0;
    m_otherFrameCount = 0;
    m_windowPushCount = 0;
  }
}

void H264DataReviever::FindKeyFrames(const unsigned char* data, unsigned long long len, KeyTest primary,
                                     KeyTest fallback, int& primaryForm, int& fallbackForm) {
  // Start codes are looked for at positions 0 .. len-6, the 3-byte form before the 4-byte form
  // at each position (a position holds at most one of them). Both forms begin with a zero
  // byte, so memchr skips to the candidates. One pass answers both questions the classifier
  // may ask: the first key frame of the current codec, and failing that the first of the other.
  primaryForm = 0;
  fallbackForm = 0;
  if (len < 6) return;
  const unsigned long long last = len - 6;
  unsigned long long i = 0;
  while (i <= last) {
    const void* zero = std::memchr(data + i, 0, static_cast<size_t>(last - i + 1));
    if (zero == nullptr) return;
    i = static_cast<unsigned long long>(static_cast<const unsigned char*>(zero) - data);
    if (data[i + 1] != 0) {
      i += 2;  // neither i nor i+1 can begin a start code
      continue;
    }
    int form = 0;
    if (data[i + 2] == 1) {
      form = 3;
    } else if (data[i + 2] == 0 && data[i + 3] == 1) {
      form = 4;
    }
    if (form != 0) {
      const unsigned char header = data[i + form];
      if (primary(header)) {
        primaryForm = form;
        return;
      }
      if (fallbackForm == 0 && fallback != nullptr && fallback(header)) fallbackForm = form;
    }
    ++i;
  }
}

void H264DataReviever::SwitchCodec(int codec, const char* message) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_ctrl->SetCodec(codec);
  m_decoderChanged = true;
  Log(LOG_INFO, "%s", message);
}

int H264DataReviever::AnalyseVideoFrame(const unsigned char* data, unsigned long long len) {
  if (len < 4 || data == nullptr) {
    Log(LOG_ERROR, "[phoneVideo] error video frame type.len too short");
    return 0;
  }
  const bool contentTypeZero = lumo::Host().GetProjectContentType() == 0;
  const bool iosHigh = m_ctrl->IsHighIOSVersion();

  // A recent iPhone sends H.265 whatever it announced.
  if (contentTypeZero && m_ctrl->GetCodec() == kCodecH264 && iosHigh) {
    SwitchCodec(kCodecH265, "H264DataReviever::AnalyseVideoFrame,ios high version change decoder 264 to 265");
  }

  const int codec = m_ctrl->GetCodec();
  if (codec != kCodecH265 && codec != kCodecH264) return kOtherFrame;
  const bool h265 = codec == kCodecH265;
  // Only a key frame of the other codec is evidence of a change, and never while the host
  // projects other content, for a 5-byte packet, or (H.265 to H.264) from a recent iPhone,
  // which always sends H.265.
  const bool maySwitch = contentTypeZero && len != 5 && !(h265 && iosHigh);
  int form = 0;
  int otherForm = 0;
  FindKeyFrames(data, len, h265 ? IsH265Key : IsH264Key, maySwitch ? (h265 ? IsH264Key : IsH265Key) : nullptr,
                form, otherForm);
  if (form != 0) {
    m_gotIFrame = true;
    return kKeyFrame;
  }
  if (otherForm == 0) return kOtherFrame;
  if (h265) {
    SwitchCodec(kCodecH264, otherForm == 3 ? "H264DataReviever::AnalyseVideoFrame,change decoder 265 to 264 a"
                                           : "H264DataReviever::AnalyseVideoFrame,change decoder 265 to 264 b");
  } else {
    SwitchCodec(kCodecH265, otherForm == 3 ? "H264DataReviever::AnalyseVideoFrame,change decoder 264 to 265 a"
                                           : "H264DataReviever::AnalyseVideoFrame,change decoder 264 to 265 b");
  }
  m_gotIFrame = true;
  return kKeyFrame;
}

void H264DataReviever::PopH264RawData(VID::VideoRawPkg* record) {
  if (record == nullptr) {
    Log(LOG_ERROR, "[phoneVideo] ptr is null");
    return;
  }
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_waitingSlots.empty()) {
    record->length = 0;
    record->pending = 0;
    return;
  }
  // The slot goes back to the pool at once; the copy below is made under the lock, so no push
  // can reuse it meanwhile.
  VideoPacketSlot* slot = m_waitingSlots.front();
  m_waitingSlots.pop_front();
  m_freeSlots.push_back(slot);

  // The record's buffer always has exactly the size of the last packet.
  if (record->data == nullptr || record->capacity != slot->length) {
    if (record->data != nullptr) {
      delete[] record->data;
      record->data = nullptr;
      record->capacity = 0;
      record->mark1 = 0;
      record->mark2 = 0;
      record->timestamp = 0;
      record->reserved = 0;
    }
    record->data = new (std::nothrow) unsigned char[slot->length]();
    if (record->data == nullptr) {
      // Out of memory on the decode thread: lose this packet rather than unwind.
      record->length = 0;
      record->pending = m_waitingSlots.size();
      Log(LOG_ERROR, "[phoneVideo] no memory for video packet, dropped:%I64u",
          static_cast<unsigned long long>(slot->length));
      return;
    }
    record->capacity = slot->length;
  }
  std::memcpy(record->data, slot->data, slot->length);
  record->mark1 = 1;
  record->mark2 = 1;
  record->timestamp = slot->timestamp;
  record->index = slot->index;
  record->length = slot->length;
  record->pending = m_waitingSlots.size();
}

void H264DataReviever::WaitH264RawData() {
  m_event.Wait(10);
  m_event.Reset();
}

void H264DataReviever::SetConsumer(lumo::WorkerThread* consumer) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_consumer = consumer;
}

void H264DataReviever::DropConsumer(lumo::WorkerThread* consumer) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  if (m_consumer == consumer) m_consumer = nullptr;
}

void H264DataReviever::OnStopCapture() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  Log(LOG_INFO, "[phoneVideo] OnStopCapture, clear data queue, size is %d", static_cast<int>(m_freeSlots.size()));
  while (!m_waitingSlots.empty()) {
    m_freeSlots.push_back(m_waitingSlots.front());
    m_waitingSlots.pop_front();
  }
}

void H264DataReviever::SetWaitFirstIFrame(bool on) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_waitFirstIFrame = on;
}

bool H264DataReviever::IsWaitingFirstIFrame() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_waitFirstIFrame;
}

void H264DataReviever::SetDecoderChanged(bool on) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_decoderChanged = on;
}

bool H264DataReviever::IsDecoderChanged() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_decoderChanged;
}

void H264DataReviever::SetGotIFrame(bool on) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_gotIFrame = on;
}

bool H264DataReviever::HasGotIFrame() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_gotIFrame;
}

bool H264DataReviever::IsDropping() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_dropping;
}

size_t H264DataReviever::WaitingCount() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_waitingSlots.size();
}

size_t H264DataReviever::FreeCount() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_freeSlots.size();
}
