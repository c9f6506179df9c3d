// PcmPlayer's ring, pacing and lifecycle, and the WAV and null outputs behind it. Time is
// simulated: every wait the playback thread asks for is noted, so each pause is checked exactly.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "media/PcmPlayer.h"
#include "platform/audio_output.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "support/FakeHost.h"
#include "support/RecordingAudioOutput.h"
#include "support/SimClock.h"
#include "support/TempDir.h"

namespace {

using lumo::test::AudioRecord;
using lumo::test::RecordingOutputFactory;
using Bytes = std::vector<unsigned char>;

// Passes everything to the simulated clock and notes each wait asked for by any thread but the
// test's own, so that a test knows how long the playback thread meant to pause and when it has
// gone back to sleep.
class WaitLog final : public lumo::Clock {
 public:
  explicit WaitLog(lumo::test::SimClock& sim) : m_sim(sim), m_testThread(lumo::Thread::CurrentId()) {
    lumo::SetClock(this);
  }
  ~WaitLog() override { lumo::SetClock(&m_sim); }

  uint32_t TickCount() override { return m_sim.TickCount(); }
  uint64_t PerfCounterUs() override { return m_sim.PerfCounterUs(); }
  uint64_t WallClock100ns() override { return m_sim.WallClock100ns(); }
  void SleepUs(uint64_t us) override {
    Note(us);
    m_sim.SleepUs(us);
  }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, uint64_t timeoutUs,
               const std::function<bool()>& ready) override {
    Note(timeoutUs);
    return m_sim.WaitFor(lock, cv, timeoutUs, ready);
  }

  // The length in ms of wait number `n` (from 1), once the thread is really asleep in it; -1
  // when it never came.
  long long Wait(size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, std::chrono::seconds(5), [&] { return m_waits.size() >= n; })) return -1;
    uint64_t us = m_waits[n - 1];
    lock.unlock();
    // Between noting a wait and starting it the thread has not yet fixed its deadline.
    if (!m_sim.WaitForSleepers(1)) return -1;
    return static_cast<long long>(us / 1000);
  }

 private:
  void Note(uint64_t us) {
    if (lumo::Thread::CurrentId() == m_testThread) return;
    std::lock_guard<std::mutex> guard(m_mutex);
    m_waits.push_back(us);
    m_cv.notify_all();
  }

  lumo::test::SimClock& m_sim;
  uint32_t m_testThread;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<uint64_t> m_waits;
};

class ScopedAudioOutputEnv {
 public:
  explicit ScopedAudioOutputEnv(const char* value) {
    if (const char* old = std::getenv("LUMO_AUDIO_OUTPUT")) m_old = old, m_had = true;
    if (value) lumo::test::SetEnv("LUMO_AUDIO_OUTPUT", value);
    else lumo::test::UnsetEnv("LUMO_AUDIO_OUTPUT");
  }
  ~ScopedAudioOutputEnv() {
    if (m_had) lumo::test::SetEnv("LUMO_AUDIO_OUTPUT", m_old);
    else lumo::test::UnsetEnv("LUMO_AUDIO_OUTPUT");
  }

 private:
  std::string m_old;
  bool m_had = false;
};

Bytes ReadAll(const std::string& path) {
  Bytes bytes;
  FILE* f = lumo::OpenFile(lumo::Utf8ToWide(path), "rb");
  if (f == nullptr) return bytes;
  int c;
  while ((c = std::fgetc(f)) != EOF) bytes.push_back(static_cast<unsigned char>(c));
  std::fclose(f);
  return bytes;
}

void PutLe(Bytes& out, uint32_t v, int n) {
  for (int i = 0; i < n; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

Bytes WavHeader(int channels, int rate, uint32_t dataBytes) {
  Bytes h = {'R', 'I', 'F', 'F'};
  PutLe(h, 36 + dataBytes, 4);
  for (char c : std::string("WAVEfmt ")) h.push_back(static_cast<unsigned char>(c));
  PutLe(h, 16, 4);
  PutLe(h, 1, 2);
  PutLe(h, channels, 2);
  PutLe(h, rate, 4);
  PutLe(h, rate * channels * 2, 4);
  PutLe(h, channels * 2, 2);
  PutLe(h, 16, 2);
  for (char c : std::string("data")) h.push_back(static_cast<unsigned char>(c));
  PutLe(h, dataBytes, 4);
  return h;
}

Bytes Buffer(unsigned char value, size_t size = PcmPlayer::kBufferBytes) { return Bytes(size, value); }

class PcmPlayerTest : public ::testing::Test {
 protected:
  // Lets the playback thread run through its waits, advancing the clock by each one, until it
  // asks for `last` (ms); returns every wait it asked for on the way, starting with wait `from`.
  std::vector<long long> RunUntilWait(WaitLog& waits, size_t& from, long long last, size_t limit = 40) {
    std::vector<long long> seen;
    for (size_t i = 0; i < limit; ++i) {
      long long ms = waits.Wait(from++);
      seen.push_back(ms);
      if (ms < 0 || ms == last) break;
      sim.clock.AdvanceMs(static_cast<uint64_t>(ms));
    }
    return seen;
  }

  lumo::test::FakeHost host;
  lumo::test::ScopedAppData appData;
  lumo::test::ScopedSimClock sim;
  std::shared_ptr<AudioRecord> record = std::make_shared<AudioRecord>();
};

TEST_F(PcmPlayerTest, StartsAfterTenBuffersAndCatchesUpWhileABacklogLasts) {
  WaitLog waits(sim.clock);
  PcmPlayer player(RecordingOutputFactory(record));
  ASSERT_EQ(player.Open(2, 44100), 0);
  EXPECT_EQ(waits.Wait(1), 10);  // waiting for the pre-fill

  for (int i = 0; i < 9; ++i) ASSERT_EQ(player.Write(Buffer(i + 1).data(), PcmPlayer::kBufferBytes), 0);
  sim.clock.AdvanceMs(10);
  EXPECT_EQ(waits.Wait(2), 10);  // nine are not enough
  EXPECT_TRUE(record->Buffers().empty());

  for (int i = 9; i < 12; ++i) ASSERT_EQ(player.Write(Buffer(i + 1).data(), PcmPlayer::kBufferBytes), 0);
  EXPECT_EQ(player.FilledCount(), 12u);
  sim.clock.AdvanceMs(10);

  // 4,096 bytes at 44.1 kHz stereo last 23.2 ms: paced at 22 ms, 13 (× 0.6) while 11 or more
  // wait, 17 (× 0.8) from 6, then 22; an empty ring is looked at every 20 ms.
  size_t next = 3;
  std::vector<long long> expected = {13, 13, 17, 17, 17, 17, 17, 22, 22, 22, 22, 22, 20};
  EXPECT_EQ(RunUntilWait(waits, next, 20), expected);

  auto played = record->Buffers();
  ASSERT_EQ(played.size(), 12u);
  uint64_t at = 20;
  for (size_t i = 0; i < played.size(); ++i) {
    EXPECT_EQ(played[i].bytes, Buffer(static_cast<unsigned char>(i + 1))) << i;
    EXPECT_EQ(played[i].timeUs, at * 1000) << i;
    at += static_cast<uint64_t>(expected[i]);
  }
  EXPECT_EQ(player.FilledCount(), 0u);
  EXPECT_EQ(record->Opens(), (std::vector<std::pair<int, int>>{{2, 44100}}));
}

TEST_F(PcmPlayerTest, PausesAtMost500MsAfterABuffer) {
  WaitLog waits(sim.clock);
  PcmPlayer player(RecordingOutputFactory(record));
  // 4,096 bytes of 1 kHz mono last 2 s; the pause is held to 500 ms before any catch-up.
  ASSERT_EQ(player.Open(1, 1000), 0);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(player.Write(Buffer(i + 1).data(), PcmPlayer::kBufferBytes), 0);
  EXPECT_EQ(waits.Wait(1), 10);
  sim.clock.AdvanceMs(10);
  size_t next = 2;
  std::vector<long long> expected = {400, 400, 400, 400, 400, 500, 500, 500, 500, 500, 20};
  EXPECT_EQ(RunUntilWait(waits, next, 20), expected);
  EXPECT_EQ(record->Buffers().size(), 10u);
}

TEST(PcmPlayerPacing, RulesAtTheirEdges) {
  EXPECT_EQ(PcmPlayer::FrameDurationMs(4096, 16, 2, 44100), 22);
  EXPECT_EQ(PcmPlayer::FrameDurationMs(4096, 16, 2, 48000), 20);
  EXPECT_EQ(PcmPlayer::FrameDurationMs(2048, 16, 1, 44100), 22);

  // 1000 / writes of the last second, held to [95 % of the frame, the frame].
  EXPECT_EQ(PcmPlayer::IntervalForNewSecond(43, 22), 22);  // 23 is longer than the frame
  EXPECT_EQ(PcmPlayer::IntervalForNewSecond(30, 22), 22);
  EXPECT_EQ(PcmPlayer::IntervalForNewSecond(47, 22), 21);  // within the band
  EXPECT_EQ(PcmPlayer::IntervalForNewSecond(60, 22), 20);  // 16 is raised to 20 (20.9 truncated)

  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(22, 12), 13u);
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(22, 11), 13u);
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(22, 10), 17u);
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(22, 6), 17u);
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(22, 5), 22u);
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(1, 12), 0u);  // 0.6 truncated: no pause
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(1, 8), 0u);
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(501, 1), 500u);
  EXPECT_EQ(PcmPlayer::SleepAfterSubmitMs(0xFFFFFFFFu, 12), 300u);  // the cap comes first
}

TEST_F(PcmPlayerTest, RefusesWritesUntilOpenedAndWhileAResetIsPending) {
  PcmPlayer player(RecordingOutputFactory(record));
  Bytes pcm = Buffer(7);
  EXPECT_FALSE(player.IsOpen());
  EXPECT_EQ(player.Write(pcm.data(), 4096), -1);
  EXPECT_TRUE(record->Opens().empty());  // nothing was opened by the write

  ASSERT_EQ(player.Open(2, 44100), 0);
  EXPECT_EQ(player.Write(pcm.data(), 4096), 0);
  player.RequestReset();
  EXPECT_EQ(player.Write(pcm.data(), 4096), -2);
  EXPECT_EQ(player.FilledCount(), 1u);

  player.Close();
  EXPECT_FALSE(player.IsOpen());
  EXPECT_EQ(player.Write(pcm.data(), 4096), -1);
}

TEST_F(PcmPlayerTest, CloseEndsEveryWaitOfThePlaybackThreadWithoutTheClockMoving) {
  // The pre-fill wait (10 ms), the pause after a buffer (17 ms: 22 × 0.8 with a backlog) and
  // the look at an empty ring (20 ms). The clock is frozen, so only the stop can end each one;
  // a reopen then starts a new thread.
  for (long long stage : {10, 17, 20}) {
    SCOPED_TRACE(stage);
    WaitLog waits(sim.clock);
    PcmPlayer player(RecordingOutputFactory(record));
    ASSERT_EQ(player.Open(2, 44100), 0);
    size_t next = 1;
    ASSERT_EQ(waits.Wait(next++), 10);
    if (stage != 10) {
      for (int i = 0; i < 10; ++i) ASSERT_EQ(player.Write(Buffer(1).data(), PcmPlayer::kBufferBytes), 0);
      sim.clock.AdvanceMs(10);
      std::vector<long long> seen = RunUntilWait(waits, next, stage);
      ASSERT_EQ(seen.back(), stage);
    }
    const uint64_t at = sim.clock.PerfCounterUs();
    player.Close();  // a hang here is the failure
    EXPECT_EQ(sim.clock.PerfCounterUs(), at);
    EXPECT_FALSE(player.IsOpen());
    ASSERT_EQ(player.Open(2, 44100), 0);
    EXPECT_EQ(waits.Wait(next), 10);  // the new thread waits for its pre-fill
  }
}

TEST_F(PcmPlayerTest, FrameLargerThanABufferIsSpreadOverTwo) {
  PcmPlayer player(RecordingOutputFactory(record));
  ASSERT_EQ(player.Open(2, 44100), 0);
  Bytes frame(8192);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<unsigned char>(i / 4096 + 1);
  ASSERT_EQ(player.Write(frame.data(), 8192), 0);
  EXPECT_EQ(player.FilledCount(), 2u);
  ASSERT_EQ(player.Write(frame.data(), 100), 0);
  EXPECT_EQ(player.FilledCount(), 3u);
  EXPECT_EQ(player.Write(frame.data(), 0), 0);  // nothing to queue
  EXPECT_EQ(player.FilledCount(), 3u);
}

TEST_F(PcmPlayerTest, OpenFailsWithMinus4WithoutADeviceAndTheNextOpenTriesAgain) {
  PcmPlayer player(RecordingOutputFactory(record));
  record->RefuseOpens(1);
  EXPECT_EQ(player.Open(2, 44100), -4);
  EXPECT_FALSE(player.IsOpen());
  EXPECT_EQ(player.Write(Buffer(1).data(), 4096), -1);
  EXPECT_EQ(player.Open(2, 44100), 0);
  EXPECT_TRUE(player.IsOpen());

  // Formats the phone should never send are refused before the device is asked.
  EXPECT_EQ(player.Open(0, 44100), -4);
  EXPECT_EQ(player.Open(9, 44100), -4);
  EXPECT_EQ(player.Open(-2, 44100), -4);
  EXPECT_EQ(player.Open(2, 0), -4);
  EXPECT_EQ(player.Open(2, 500000), -4);
  EXPECT_FALSE(player.IsOpen());
  EXPECT_EQ(record->Opens().size(), 2u);
  EXPECT_EQ(host.CountLog(3, "[PcmPlayer] unsupported format, channels:0 sampleRate:44100"), 1u);

  // Opening again starts over with the new format.
  EXPECT_EQ(player.Open(1, 48000), 0);
  EXPECT_EQ(record->Opens().back(), std::make_pair(1, 48000));
}

// "tee:" also plays on the system device; the file is the same whether or not there is one.
TEST_F(PcmPlayerTest, WavOutputChosenByTheEnvironmentHoldsWhatWasPlayed) {
  for (const std::string kind : {"wav:", "tee:"}) {
    SCOPED_TRACE(kind);
    std::string prefix = lumo::WideToUtf8(lumo::JoinPath(lumo::Utf8ToWide(appData.path), L"played")) + kind[0];
    ScopedAudioOutputEnv env((kind + prefix).c_str());
    host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "audioOutput", "null");  // the environment wins
    WaitLog waits(sim.clock);
    PcmPlayer player(2);
    ASSERT_EQ(player.Open(2, 44100), 0);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(player.Write(Buffer(i + 1, 1000).data(), 1000), 0);
    size_t next = 1;
    RunUntilWait(waits, next, 20);  // the pre-fill wait, ten buffers, then the empty ring
    player.Close();

    Bytes expected = WavHeader(2, 44100, 10000);
    for (int i = 0; i < 10; ++i) {
      Bytes b = Buffer(i + 1, 1000);
      expected.insert(expected.end(), b.begin(), b.end());
    }
    EXPECT_EQ(ReadAll(prefix + "-2.wav"), expected);
  }
}

TEST_F(PcmPlayerTest, OutputComesFromTheIniFileWhenTheEnvironmentSaysNothing) {
  ScopedAudioOutputEnv env(nullptr);
  std::string prefix = lumo::WideToUtf8(lumo::JoinPath(lumo::Utf8ToWide(appData.path), L"cfg"));
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "audioOutput", "wav:" + prefix);
  {
    PcmPlayer player(1);
    ASSERT_EQ(player.Open(1, 8000), 0);
  }
  EXPECT_EQ(ReadAll(prefix + "-1.wav"), WavHeader(1, 8000, 0));
  EXPECT_TRUE(host.HasLog(2, "[PcmPlayer] instance 1 audio output:wav:" + prefix));

  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "audioOutput", "null");
  PcmPlayer player(1);
  EXPECT_EQ(player.Open(2, 44100), 0);
  EXPECT_EQ(player.Write(Buffer(1).data(), 4096), 0);
}

TEST(WavFileOutput, WritesAStandardHeaderAndFillsInTheSizesOnClose) {
  lumo::test::ScopedAppData dir;
  std::string path = lumo::WideToUtf8(lumo::JoinPath(lumo::Utf8ToWide(dir.path), L"out.wav"));
  auto wav = lumo::CreateWavFileAudioOutput(lumo::Utf8ToWide(path));
  EXPECT_FALSE(wav->Write(Bytes{1}.data(), 1));  // not open yet
  ASSERT_TRUE(wav->Open(2, 44100));
  Bytes a = {1, 2, 3, 4, 5, 6}, b = {0xFF, 0x80};
  EXPECT_TRUE(wav->Write(a.data(), a.size()));
  EXPECT_TRUE(wav->Write(b.data(), b.size()));
  wav->Close();
  Bytes expected = WavHeader(2, 44100, 8);
  expected.insert(expected.end(), a.begin(), a.end());
  expected.insert(expected.end(), b.begin(), b.end());
  EXPECT_EQ(ReadAll(path), expected);
  EXPECT_FALSE(wav->IsOpen());
  EXPECT_FALSE(wav->Write(a.data(), a.size()));

  // Every open starts a new file with the new format.
  ASSERT_TRUE(wav->Open(1, 8000));
  wav->Close();
  EXPECT_EQ(ReadAll(path), WavHeader(1, 8000, 0));

  auto unwritable = lumo::CreateWavFileAudioOutput(lumo::Utf8ToWide(dir.path + "/no/such/dir/x.wav"));
  EXPECT_FALSE(unwritable->Open(2, 44100));
  EXPECT_FALSE(unwritable->IsOpen());
}

}  // namespace
