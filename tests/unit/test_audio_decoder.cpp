// CAudioDecoder without real audio: its parameters, its instances, its thread's lifecycle, what
// it does with frames that do not decode, and the debug dumps.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/CAudioDecoder.h"
#include "media/PcmPlayer.h"
#include "platform/paths.h"
#include "platform/text.h"
#include "support/FakeHost.h"
#include "support/RecordingAudioOutput.h"
#include "support/SimClock.h"
#include "support/TempDir.h"

namespace {

using Bytes = std::vector<unsigned char>;

const char kFrameError[] = "[AudioDecoder] decoder frame error";
const char kEnter[] = "[AudioDecoder] AudioDecodeProc enter";
const char kExit[] = "[AudioDecoder] AudioDecodeProc exit";

Bytes ReadAll(const std::wstring& path) {
  std::ifstream in(lumo::WideToUtf8(path), std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Bytes that are neither an ADTS nor an ADIF header and do not decode as raw AAC.
Bytes Garbage(unsigned char seed, size_t size = 200) {
  Bytes b(size);
  unsigned x = seed * 2654435761u + 1;
  for (auto& v : b) {
    x = x * 1103515245u + 12345u;
    v = static_cast<unsigned char>(x >> 16);
  }
  b[0] = 0x00;
  return b;
}

class AudioDecoderTest : public ::testing::Test {
 protected:
  void Push(const Bytes& frame) { rx.PushAACRawData(frame.data(), frame.size(), 0); }

  lumo::test::FakeHost host;
  lumo::test::ScopedAppData appData;
  CPhoneCameraCtrl ctrl;
  AudioDataReviever rx{&ctrl};
  std::shared_ptr<lumo::test::AudioRecord> record = std::make_shared<lumo::test::AudioRecord>();
  PcmPlayer player{lumo::test::RecordingOutputFactory(record)};
};

TEST_F(AudioDecoderTest, SetParamIgnoresAnyValueOutOfRange) {
  CAudioDecoder decoder(&rx, &player, &ctrl);
  int rate = 0, channels = 0, type = 0;
  decoder.GetParam(rate, channels, type);
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channels, 2);
  EXPECT_EQ(type, 1);

  decoder.SetParam(0, 2, 1);
  decoder.SetParam(48000, 0, 1);
  decoder.SetParam(48000, 2, 0);
  decoder.SetParam(-48000, 2, 1);
  decoder.SetParam(48000, -1, 1);
  decoder.GetParam(rate, channels, type);
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channels, 2);
  EXPECT_EQ(type, 1);

  decoder.SetParam(48000, 1, 5);
  decoder.GetParam(rate, channels, type);
  EXPECT_EQ(rate, 48000);
  EXPECT_EQ(channels, 1);
  EXPECT_EQ(type, 5);
}

TEST_F(AudioDecoderTest, GetInstanceKeepsTwoChainsAndTheSecondTakesTheNumberAskedFor) {
  CAudioDecoder* first = CAudioDecoder::GetInstance(1);
  CAudioDecoder* second = CAudioDecoder::GetInstance(2);
  ASSERT_NE(first, second);
  EXPECT_EQ(first->InstanceId(), 1);
  EXPECT_EQ(second->InstanceId(), 2);
  EXPECT_EQ(first->Receiver(), AudioDataReviever::GetInstance(1));
  EXPECT_EQ(first->Player(), PcmPlayer::GetInstance(1));
  EXPECT_EQ(second->Receiver(), AudioDataReviever::GetInstance(2));
  EXPECT_EQ(second->Player(), PcmPlayer::GetInstance(2));
  EXPECT_NE(first->Receiver(), second->Receiver());
  EXPECT_NE(first->Player(), second->Player());

  EXPECT_EQ(CAudioDecoder::GetInstance(7), second);
  EXPECT_EQ(second->InstanceId(), 7);  // set on every call
  EXPECT_EQ(CAudioDecoder::GetInstance(0), second);
  EXPECT_EQ(second->InstanceId(), 0);
  EXPECT_EQ(CAudioDecoder::GetInstance(1), first);
  EXPECT_EQ(first->InstanceId(), 1);
  EXPECT_EQ(CAudioDecoder::GetInstance(2)->InstanceId(), 2);
}

TEST_F(AudioDecoderTest, StopDecodeEndsAnIdleThreadWithoutTheClockMoving) {
  lumo::test::ScopedSimClock sim;  // never advanced: the idle wait must not hold the stop up
  CAudioDecoder decoder(&rx, &player, &ctrl);
  EXPECT_FALSE(decoder.IsRunning());
  decoder.StartDecode();
  EXPECT_TRUE(decoder.IsRunning());
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));  // idle, polling the empty receiver
  decoder.StartDecode();                      // already decoding: no second thread
  EXPECT_EQ(host.CountLogsStartingWith("[AudioDecoder] StartDecode create thread success with id:"), 1u);

  decoder.StopDecode();
  EXPECT_FALSE(decoder.IsRunning());
  EXPECT_EQ(host.CountLog(2, kEnter), 1u);
  EXPECT_EQ(host.CountLog(2, kExit), 1u);  // the thread has ended, not been given up
  EXPECT_EQ(sim.clock.Sleepers(), 0u);

  decoder.StartDecode();
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));
  decoder.StopDecode();
  EXPECT_EQ(host.CountLog(2, kExit), 2u);
  decoder.StopDecode();  // twice is harmless
}

TEST_F(AudioDecoderTest, FramesThatDoNotDecodeAreLoggedAndSkipped) {
  lumo::test::ScopedSimClock sim;
  CAudioDecoder decoder(&rx, &player, &ctrl);
  for (unsigned char i = 1; i <= 4; ++i) Push(Garbage(i));
  decoder.StartDecode();
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));  // every frame taken, the thread idles
  EXPECT_EQ(rx.WaitingCount(), 0u);

  // The first frame opens the decoder; each of the others fails on its own and the thread
  // carries on.
  EXPECT_EQ(host.CountLog(4, "[AudioDecoder] decoder obj init error"), 0u);
  EXPECT_EQ(host.CountLog(4, kFrameError), 3u);
  EXPECT_FALSE(player.IsOpen());
  EXPECT_EQ(ctrl.GetFrameCounts().decodedAudio, 0);
  EXPECT_TRUE(decoder.IsRunning());
  decoder.StopDecode();
}

TEST_F(AudioDecoderTest, DumpsHoldTheRawFramesAndAWavHeader) {
  if (lumo::DebugDumpDir() != lumo::ProductDataDir()) GTEST_SKIP() << "the dumps go to drive E: here";
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "saveAAC", "1");
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "savePcm", "1");
  lumo::test::ScopedSimClock sim;
  CAudioDecoder decoder(&rx, &player, &ctrl);
  decoder.SetParam(48000, 1, 1);
  Bytes a = Garbage(1, 50), b = Garbage(2, 70);
  Push(a);
  Push(b);
  decoder.StartDecode();
  ASSERT_TRUE(sim.clock.WaitForSleepers(1));
  decoder.StopDecode();

  Bytes both = a;
  both.insert(both.end(), b.begin(), b.end());
  EXPECT_EQ(ReadAll(lumo::JoinPath(lumo::DebugDumpDir(), L"inputAac.aac")), both);
  Bytes wav = ReadAll(lumo::JoinPath(lumo::DebugDumpDir(), L"outputPcm.wav"));
  ASSERT_EQ(wav.size(), 44u);  // nothing decoded: a header for 48 kHz mono and no data
  EXPECT_EQ(Bytes(wav.begin(), wav.begin() + 4), (Bytes{'R', 'I', 'F', 'F'}));
  EXPECT_EQ(wav[22], 1);
  EXPECT_EQ(wav[24] | wav[25] << 8 | wav[26] << 16, 48000);
  EXPECT_EQ(wav[40] | wav[41] | wav[42] | wav[43], 0);
}

TEST_F(AudioDecoderTest, ADumpThatCannotBeOpenedEndsTheThreadBeforeAnyFrameIsTaken) {
  if (lumo::DebugDumpDir() != lumo::ProductDataDir()) GTEST_SKIP() << "the dumps go to drive E: here";
  // The app-data folder is a file, so nothing can be created under it.
  std::string file = appData.path + "/not-a-folder";
  std::ofstream(file) << "x";
  lumo::test::SetEnv("LUMO_APPDATA", file);  // ScopedAppData puts the old value back
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "saveAAC", "1");
  CAudioDecoder decoder(&rx, &player, &ctrl);
  Push(Garbage(1));

  testing::internal::CaptureStderr();
  decoder.StartDecode();
  decoder.StopDecode();
  std::string err = testing::internal::GetCapturedStderr();
  std::string path = lumo::WideToUtf8(lumo::JoinPath(lumo::DebugDumpDir(), L"inputAac.aac"));
  EXPECT_NE(err.find("Error opening file: " + path + "\n"), std::string::npos) << err;
  EXPECT_EQ(rx.WaitingCount(), 1u);
  EXPECT_EQ(host.CountLog(2, kEnter), 1u);
  EXPECT_EQ(host.CountLog(2, kExit), 0u);
}

}  // namespace
