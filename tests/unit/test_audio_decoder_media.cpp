// CAudioDecoder on real AAC-LC from FFmpeg's encoder, sent as the phone sends it (raw frames):
// what reaches the WAV output must still be the tone that went in.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/CAudioDecoder.h"
#include "media/PcmPlayer.h"
#include "platform/audio_output.h"
#include "platform/paths.h"
#include "platform/text.h"
#include "support/FakeHost.h"
#include "support/RecordingAudioOutput.h"
#include "support/SimClock.h"
#include "support/TempDir.h"
#include "support/TestAudio_media.h"

namespace {

using lumo::test::AacStream;
using lumo::test::AudioRecord;
using lumo::test::WavFile;

const char kFrameError[] = "[AudioDecoder] decoder frame error";
constexpr size_t kPcmPerFrame = 1024 * 2 * 2;  // 1,024 stereo 16-bit samples

// Takes the decoder's calls itself instead of queueing them for playback.
class RecordingPlayer : public PcmPlayer {
 public:
  RecordingPlayer() : PcmPlayer(OutputFactory()) {}
  int Open(short channels, int sampleRate) override {
    std::lock_guard<std::mutex> guard(m_mutex);
    opens.emplace_back(channels, sampleRate);
    m_open = true;
    return 0;
  }
  int Write(const unsigned char* pcm, unsigned int length) override {
    std::lock_guard<std::mutex> guard(m_mutex);
    writes.emplace_back(pcm, pcm + length);
    m_cv.notify_all();
    return 0;
  }
  bool IsOpen() override {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_open;
  }
  bool WaitForWrites(size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::seconds(5), [&] { return writes.size() >= count; });
  }
  size_t WriteCount() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return writes.size();
  }

  std::vector<std::pair<int, int>> opens;
  std::vector<std::vector<unsigned char>> writes;

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_open = false;
};

void PushAll(AudioDataReviever& rx, const AacStream& s) {
  for (const auto& f : s.frames) rx.PushAACRawData(f.data(), f.size(), 0);
}

// Checks that `samples` (one channel) hold a tone of `hz` at `level` (RMS, of full scale), away
// from the start (decoder warm-up) and the end (encoder padding).
void ExpectTone(const std::vector<int16_t>& samples, int rate, double hz, double level) {
  ASSERT_GT(samples.size(), static_cast<size_t>(rate / 2 + 4096));
  std::vector<int16_t> middle(samples.begin() + 4096, samples.begin() + 4096 + rate / 2);
  EXPECT_NEAR(lumo::test::DominantFrequency(middle, rate), hz, 1.0);
  EXPECT_NEAR(lumo::test::ZeroCrossingFrequency(middle, rate), hz, hz * 0.01);
  EXPECT_NEAR(lumo::test::RmsLevel(middle), level, level * 0.08);
}

class AudioDecoderMediaTest : public ::testing::Test {
 protected:
  std::string Prefix(const std::wstring& name) {
    return lumo::WideToUtf8(lumo::JoinPath(lumo::Utf8ToWide(appData.path), name));
  }

  lumo::test::FakeHost host;
  lumo::test::ScopedAppData appData;
  CPhoneCameraCtrl ctrl;
};

TEST_F(AudioDecoderMediaTest, FirstFrameAfterAStartOnlyOpensTheDecoder) {
  AacStream s = lumo::test::EncodeAacSine(440, 0.3);
  ASSERT_GE(s.frames.size(), 6u);
  lumo::test::ScopedSimClock sim;
  AudioDataReviever rx(&ctrl);
  RecordingPlayer player;
  CAudioDecoder decoder(&rx, &player, &ctrl);

  rx.PushAACRawData(s.frames[0].data(), s.frames[0].size(), 0);
  rx.PushAACRawData(s.frames[1].data(), s.frames[1].size(), 0);
  decoder.StartDecode();
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));  // both frames taken, idle again
  // Frame 1 opened the decoder and was not decoded; frame 2 was, and libfaad2 2.10 gives no
  // samples for the first frame it decodes. Had frame 1 been decoded, frame 2 would have
  // produced PCM here.
  EXPECT_EQ(player.WriteCount(), 0u);
  EXPECT_TRUE(player.opens.empty());
  EXPECT_EQ(host.CountLog(4, kFrameError), 1u);
  EXPECT_EQ(ctrl.GetFrameCounts().decodedAudio, 0);

  rx.PushAACRawData(s.frames[2].data(), s.frames[2].size(), 0);
  sim.clock.AdvanceMs(10);
  ASSERT_TRUE(player.WaitForWrites(1));
  EXPECT_EQ(player.writes[0].size(), kPcmPerFrame);
  EXPECT_EQ(player.opens, (std::vector<std::pair<int, int>>{{2, 44100}}));
  EXPECT_EQ(ctrl.GetFrameCounts().decodedAudio, 1);
  decoder.StopDecode();

  // A stop releases the decoder: the next start opens it again with the first frame.
  rx.PushAACRawData(s.frames[3].data(), s.frames[3].size(), 0);
  rx.PushAACRawData(s.frames[4].data(), s.frames[4].size(), 0);
  rx.PushAACRawData(s.frames[5].data(), s.frames[5].size(), 0);
  decoder.StartDecode();
  ASSERT_TRUE(player.WaitForWrites(2));
  decoder.StopDecode();
  EXPECT_EQ(player.WriteCount(), 2u);
  EXPECT_EQ(host.CountLog(4, kFrameError), 2u);
  EXPECT_EQ(player.opens.size(), 1u);  // the player stays open
}

TEST_F(AudioDecoderMediaTest, A440HzToneReachesTheWavOutputAndThePcmDump) {
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "savePcm", "1");
  AacStream s = lumo::test::EncodeAacSine(440, 1.0, 44100, 2, 0.5);
  ASSERT_GE(s.frames.size(), 44u);
  ASSERT_LE(s.frames.size(), AudioDataReviever::kSlotCount);
  AudioDataReviever rx(&ctrl);
  auto record = std::make_shared<AudioRecord>();
  // No device at the first try: that frame's PCM is lost and the next frame opens the player.
  record->RefuseOpens(1);
  // PCM from the third frame on, less the one that found no device.
  const size_t expected = (s.frames.size() - 3) * kPcmPerFrame;
  std::string prefix = Prefix(L"tone");
  PcmPlayer player(lumo::test::RecordingOutputFactory(
      record, [prefix] { return lumo::CreateAudioOutput("wav:" + prefix, 1); }));
  CAudioDecoder decoder(&rx, &player, &ctrl);
  PushAll(rx, s);
  decoder.StartDecode();
  ASSERT_TRUE(record->WaitForBytes(expected));
  decoder.StopDecode();
  player.Close();
  EXPECT_EQ(record->ByteCount(), expected);
  EXPECT_EQ(record->Opens(), (std::vector<std::pair<int, int>>{{2, 44100}, {2, 44100}}));
  EXPECT_EQ(ctrl.GetFrameCounts().decodedAudio, static_cast<long long>(s.frames.size() - 2));

  WavFile wav;
  ASSERT_TRUE(lumo::test::ReadWavFile(prefix + "-1.wav", wav));
  EXPECT_EQ(wav.channels, 2);
  EXPECT_EQ(wav.sampleRate, 44100);
  EXPECT_EQ(wav.dataSize, expected);
  EXPECT_EQ(wav.riffSize, expected + 36);
  const double level = 0.5 / std::sqrt(2.0);
  ExpectTone(lumo::test::Channel(wav.samples, 2, 0), 44100, 440, level);
  ExpectTone(lumo::test::Channel(wav.samples, 2, 1), 44100, 440, level);

  // The dump holds every decoded frame: the one that found no device, then what was played.
  WavFile dump;
  ASSERT_TRUE(lumo::test::ReadWavFile(lumo::WideToUtf8(lumo::JoinPath(lumo::DebugDumpDir(), L"outputPcm.wav")), dump));
  EXPECT_EQ(dump.channels, 2);
  EXPECT_EQ(dump.sampleRate, 44100);
  ASSERT_EQ(dump.samples.size(), wav.samples.size() + kPcmPerFrame / 2);
  EXPECT_TRUE(std::equal(wav.samples.begin(), wav.samples.end(), dump.samples.begin() + kPcmPerFrame / 2));
}

TEST_F(AudioDecoderMediaTest, TwoChainsPlayTheirOwnTonesIntoTheirOwnFiles) {
  struct Chain {
    Chain(CPhoneCameraCtrl* ctrl, const std::string& prefix, int n)
        : rx(ctrl),
          player(lumo::test::RecordingOutputFactory(record, [prefix, n] { return lumo::CreateAudioOutput("wav:" + prefix, n); })),
          decoder(&rx, &player, ctrl, n) {}
    AudioDataReviever rx;
    std::shared_ptr<AudioRecord> record = std::make_shared<AudioRecord>();
    PcmPlayer player;
    CAudioDecoder decoder;
  };
  std::string prefix = Prefix(L"chain");
  Chain one(&ctrl, prefix, 1), two(&ctrl, prefix, 2);
  AacStream low = lumo::test::EncodeAacSine(440, 1.0, 44100, 2, 0.5);
  AacStream high = lumo::test::EncodeAacSine(1000, 1.0, 44100, 2, 0.25);

  PushAll(one.rx, low);
  PushAll(two.rx, high);
  one.decoder.StartDecode();
  two.decoder.StartDecode();
  ASSERT_TRUE(one.record->WaitForBytes((low.frames.size() - 2) * kPcmPerFrame));
  ASSERT_TRUE(two.record->WaitForBytes((high.frames.size() - 2) * kPcmPerFrame));
  one.decoder.StopDecode();
  two.decoder.StopDecode();
  one.player.Close();
  two.player.Close();

  WavFile a, b;
  ASSERT_TRUE(lumo::test::ReadWavFile(prefix + "-1.wav", a));
  ASSERT_TRUE(lumo::test::ReadWavFile(prefix + "-2.wav", b));
  ExpectTone(lumo::test::Channel(a.samples, 2, 0), 44100, 440, 0.5 / std::sqrt(2.0));
  ExpectTone(lumo::test::Channel(b.samples, 2, 1), 44100, 1000, 0.25 / std::sqrt(2.0));
}

}  // namespace
