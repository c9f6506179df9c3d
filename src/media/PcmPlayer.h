// PcmPlayer: plays one audio chain's decoded PCM on an audio output.
//
// The audio decode thread fills a ring of 100 fixed 4,096-byte buffers; a playback thread hands
// them to the output one by one and, after each, sleeps for about as long as that buffer lasts:
// the measured arrival interval of the frames, held between 95 % and 100 % of the buffer's own
// duration (less a millisecond). When a backlog builds it sleeps less (0.8 from 6 buffers
// waiting, 0.6 from 11) so that latency comes back down. Playback starts once 10 buffers are
// waiting (about 230 ms at 44.1 kHz), which rides out the jitter of the phone link.
//
// There are two players, one per audio chain. Every wait runs on the library clock, so a test
// can drive the pacing with a simulated clock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "host/WorkerThread.h"

namespace lumo {
class AudioOutput;
}

class PcmPlayer {
 public:
  using OutputFactory = std::function<std::unique_ptr<lumo::AudioOutput>()>;

  // 1 gives instance 1, any other value instance 2 (each created on first use).
  static PcmPlayer* GetInstance(int n);

  // Plays through the output chosen for `instance`: LUMO_AUDIO_OUTPUT, or else
  // "phoneVideoCfg.ini" [SECT_VIDEO] audioOutput ("default", "null", "wav:<prefix>"). The
  // choice is made at an Open that finds no output, so it can change after a Close.
  explicit PcmPlayer(int instance);
  // Plays through whatever `factory` makes (tests record what was played and when).
  explicit PcmPlayer(OutputFactory factory);
  // Stops and joins the playback thread.
  virtual ~PcmPlayer();
  PcmPlayer(const PcmPlayer&) = delete;
  PcmPlayer& operator=(const PcmPlayer&) = delete;

  // Opens the output for 16-bit PCM and starts the playback thread if there is none.
  // 0; -1 when the output cannot be closed for reopening; -4 when the output refuses (or the
  // format is out of range), and the player stays closed so that the next frame tries again.
  virtual int Open(short channels, int sampleRate);
  // Queues one decoded frame, blocking while the ring is full. 0; -1 not open; -2 a reset is
  // pending.
  virtual int Write(const unsigned char* pcm, unsigned int length);
  virtual bool IsOpen();
  // Stops and joins the playback thread and closes the output (a WAV file gets its sizes
  // then). Queued buffers are dropped. A later Open starts over.
  void Close();
  // Asks the playback thread to empty the ring; writes return -2 until it has.
  void RequestReset();
  unsigned FilledCount();

  static constexpr unsigned kBufferCount = 100;
  static constexpr unsigned kBufferBytes = 4096;
  static constexpr unsigned kPrefillBuffers = 10;
  static constexpr uint32_t kMaxSleepMs = 500;

  // The pacing rules, apart so that their edges can be checked on their own.
  // The duration of `length` bytes in whole milliseconds, less one.
  static int FrameDurationMs(unsigned length, int bitsPerSample, int channels, int sampleRate);
  // The interval for a new second: 1000 / writes of the last second, kept within
  // [frameMs × 0.95, frameMs].
  static int IntervalForNewSecond(int writesLastSecond, int frameMs);
  // The sleep after submitting a buffer paced at `slotSleepMs` with `filledCount` waiting.
  static uint32_t SleepAfterSubmitMs(uint32_t slotSleepMs, unsigned filledCount);

 private:
  struct Slot {
    std::unique_ptr<unsigned char[]> data;  // kBufferBytes
    unsigned length = 0;                    // 0: free
    uint32_t sleepMs = 0;                   // the playback thread's pause after this buffer
  };

  int WriteSlot(std::unique_lock<std::mutex>& lock, const unsigned char* pcm, unsigned length);
  void PlaybackProc();
  void EmptyRing();
  // Sleeps `ms` on the library clock with `lock` released; only a stop ends it early.
  void WaitMs(std::unique_lock<std::mutex>& lock, uint32_t ms);

  OutputFactory m_factory;
  std::unique_ptr<lumo::AudioOutput> m_output;
  std::unique_ptr<Slot[]> m_ring;
  unsigned m_writeIndex = 0;
  unsigned m_readIndex = 0;
  bool m_opened = false;
  int m_writesThisSecond = 0;
  int m_writesLastSecond = 43;
  unsigned m_filledCount = 0;
  int m_sampleRate = 0;
  int m_channels = 0;
  int m_bitsPerSample = 16;
  int m_intervalMs = 23;
  long long m_currentSecond = 0;
  int m_threadState = 0;  // 0 stopped, 1 starting, 2 running, 3 stop requested
  bool m_resetRequested = false;
  // Bumped whenever the ring is emptied under the playback thread's feet (Open, reset), so that
  // it does not free a slot that was already emptied and refilled meanwhile.
  unsigned m_generation = 0;
  std::mutex m_mutex;  // guards everything above; a plain mutex because the clock waits on it
  std::condition_variable m_cv;  // a slot freed, the thread running, the player closed
  lumo::WorkerThread m_worker{"PcmPlayer"};  // the playback thread; Close stops it
};
