#include "media/PcmPlayer.h"

#include <algorithm>
#include <cstring>

#include "host/HostServices.h"
#include "host/Log.h"
#include "platform/audio_output.h"
#include "platform/clock.h"
#include "platform/errors.h"

namespace {

// The phone names the format; it must not be able to ask for something absurd.
constexpr int kMaxChannels = 8;
constexpr int kMinSampleRate = 1000;
constexpr int kMaxSampleRate = 384000;

}  // namespace

PcmPlayer* PcmPlayer::GetInstance(int n) {
  if (n == 1) {
    static PcmPlayer first(1);
    return &first;
  }
  static PcmPlayer second(2);
  return &second;
}

PcmPlayer::PcmPlayer(int instance)
    : PcmPlayer(OutputFactory([instance]() {
        std::string configured =
            lumo::Host().GetConfigString("phoneVideoCfg.ini", "SECT_VIDEO", "audioOutput", "default", 1024);
        std::string selection = lumo::AudioOutputSelection(configured);
        Log(LOG_INFO, "[PcmPlayer] instance %d audio output:%s", instance, selection.c_str());
        return lumo::CreateAudioOutput(selection, instance);
      })) {}

PcmPlayer::PcmPlayer(OutputFactory factory) : m_factory(std::move(factory)), m_ring(new Slot[kBufferCount]) {
  for (unsigned i = 0; i < kBufferCount; ++i) m_ring[i].data.reset(new unsigned char[kBufferBytes]());
}

PcmPlayer::~PcmPlayer() { Close(); }

int PcmPlayer::FrameDurationMs(unsigned length, int bitsPerSample, int channels, int sampleRate) {
  double bytesPerMs = static_cast<double>(bitsPerSample) * channels * sampleRate / 8 / 1000;
  return static_cast<int>(length / bytesPerMs) - 1;
}

int PcmPlayer::IntervalForNewSecond(int writesLastSecond, int frameMs) {
  int interval = 1000 / writesLastSecond;
  int floor = static_cast<int>(frameMs * 0.95);
  if (interval > frameMs) return frameMs;
  if (interval < floor) return floor;
  return interval;
}

uint32_t PcmPlayer::SleepAfterSubmitMs(uint32_t slotSleepMs, unsigned filledCount) {
  uint32_t t = std::min(slotSleepMs, kMaxSleepMs);
  if (filledCount >= 11 && t >= 1) return static_cast<uint32_t>(t * 0.6);
  if (filledCount >= 6) return static_cast<uint32_t>(t * 0.8);
  return t;
}

void PcmPlayer::EmptyRing() {
  for (unsigned i = 0; i < kBufferCount; ++i) {
    std::memset(m_ring[i].data.get(), 0, kBufferBytes);
    m_ring[i].length = 0;
  }
  m_filledCount = 0;
  m_writeIndex = 0;
  m_readIndex = 0;
  ++m_generation;
  m_cv.notify_all();
}

int PcmPlayer::Open(short channels, int sampleRate) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_opened) {
    for (unsigned i = 0; i < kBufferCount; ++i) m_ring[i].length = 0;
    m_opened = false;
  }
  if (m_output && m_output->IsOpen()) m_output->Close();
  if (m_output && m_output->IsOpen()) return -1;

  // The channel count and rate size the device's buffers and the pacing arithmetic.
  if (channels < 1 || channels > kMaxChannels || sampleRate < kMinSampleRate || sampleRate > kMaxSampleRate) {
    if (!lumo::Host().IsPrintTooFast(5000, "PcmPlayerFormat")) {
      Log(LOG_BAD_DATA, "[PcmPlayer] unsupported format, channels:%d sampleRate:%d", channels, sampleRate);
    }
    return -4;
  }
  if (!m_output) m_output = m_factory();
  if (!m_output || !m_output->Open(channels, sampleRate)) return -4;

  m_sampleRate = sampleRate;
  m_channels = channels;
  m_bitsPerSample = 16;
  m_opened = true;
  EmptyRing();
  m_writesThisSecond = 0;
  m_writesLastSecond = 0;
  m_resetRequested = false;

  if (!m_worker.IsRunning()) {
    m_threadState = 1;
    if (m_worker.Start([this] { PlaybackProc(); })) {
      // A hand-shake rather than a poll: the thread says when it runs.
      m_cv.wait(lock, [this] { return m_threadState != 1; });
    } else {
      m_threadState = 0;
      Log(LOG_ERROR, "[PcmPlayer] create play thread fail:%d", lumo::LastSystemError());
    }
  }
  m_writeIndex = 0;
  return 0;
}

int PcmPlayer::Write(const unsigned char* pcm, unsigned int length) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_opened || !m_ring) return -1;
  if (m_resetRequested) return -2;
  // An empty buffer would be counted as waiting but look free, and the count would never come
  // back down.
  if (pcm == nullptr || length == 0) return 0;
  // A frame larger than a buffer (HE-AAC doubles the samples per frame) is spread over
  // consecutive buffers instead of being copied past the end of one.
  while (length > 0) {
    unsigned n = std::min(length, kBufferBytes);
    int rc = WriteSlot(lock, pcm, n);
    if (rc != 0) return rc;
    pcm += n;
    length -= n;
  }
  return 0;
}

int PcmPlayer::WriteSlot(std::unique_lock<std::mutex>& lock, const unsigned char* pcm, unsigned length) {
  // The writer waits for the player rather than dropping: the decoder is the one to fall behind.
  while (m_ring[m_writeIndex].length != 0) {
    lumo::GetClock().WaitFor(lock, m_cv, 2000, [this] {
      return !m_opened || m_threadState == 3 || m_ring[m_writeIndex].length == 0;
    });
    if (!m_opened || m_threadState == 3) return -1;
  }
  if (m_resetRequested) return -2;

  Slot& slot = m_ring[m_writeIndex];
  std::memcpy(slot.data.get(), pcm, length);
  slot.length = length;
  m_writeIndex = (m_writeIndex + 1) % kBufferCount;

  int frameMs = FrameDurationMs(length, m_bitsPerSample, m_channels, m_sampleRate);
  if (m_intervalMs == 0) m_intervalMs = 23;
  long long now = static_cast<long long>(lumo::WallClock100ns() / 10000000u);
  if (now == m_currentSecond) {
    ++m_writesThisSecond;
  } else {
    m_writesLastSecond = m_writesThisSecond != 0 ? m_writesThisSecond : 43;
    m_writesThisSecond = 1;
    m_currentSecond = now;
    m_intervalMs = IntervalForNewSecond(m_writesLastSecond, frameMs);
  }
  // A negative interval (a buffer shorter than a millisecond) wraps, as the player always had
  // it, and is then held to the 500 ms cap.
  slot.sleepMs = static_cast<uint32_t>(m_intervalMs);
  ++m_filledCount;
  return 0;
}

bool PcmPlayer::IsOpen() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_opened;
}

unsigned PcmPlayer::FilledCount() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_filledCount;
}

void PcmPlayer::RequestReset() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_resetRequested = true;
}

void PcmPlayer::WaitMs(std::unique_lock<std::mutex>& lock, uint32_t ms) {
  // The writer and Open need the lock meanwhile; whoever changes the ring under our feet bumps
  // m_generation, which the caller checks after the sleep.
  lock.unlock();
  m_worker.SleepMs(ms);
  lock.lock();
}

void PcmPlayer::PlaybackProc() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_threadState = 2;
  m_cv.notify_all();

  while (m_filledCount < kPrefillBuffers && m_threadState != 3) WaitMs(lock, 10);

  while (m_threadState != 3) {
    if (!m_output || !m_output->IsOpen()) {
      WaitMs(lock, 100);
      continue;
    }
    if (m_resetRequested) {
      EmptyRing();
      m_resetRequested = false;
      continue;
    }
    Slot& slot = m_ring[m_readIndex];
    if (slot.length == 0) {
      WaitMs(lock, 20);
      continue;
    }
    bool written = m_output->Write(slot.data.get(), slot.length);
    if (!written) WaitMs(lock, 10);  // the buffer still counts as played
    uint32_t t = SleepAfterSubmitMs(slot.sleepMs, m_filledCount);
    unsigned generation = m_generation;
    // The buffer is released by this timer, not by the device: the device has its own copy.
    if (t > 0) WaitMs(lock, t);
    if (m_threadState == 3) break;
    if (generation != m_generation) continue;  // the ring was emptied meanwhile
    slot.length = 0;
    --m_filledCount;
    m_readIndex = (m_readIndex + 1) % kBufferCount;
    m_cv.notify_all();
  }
  m_threadState = 0;
  m_cv.notify_all();
}

void PcmPlayer::Close() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_opened = false;
  if (m_threadState != 0) m_threadState = 3;
  m_cv.notify_all();  // a writer waiting for a free slot gives up
  lock.unlock();
  m_worker.Stop();  // ends a sleep of the playback thread at once, then joins it
  lock.lock();
  m_threadState = 0;
  if (m_output) {
    m_output->Close();
    m_output.reset();
  }
  for (unsigned i = 0; i < kBufferCount; ++i) m_ring[i].length = 0;
  m_filledCount = 0;
  m_writeIndex = 0;
  m_readIndex = 0;
  ++m_generation;
}
