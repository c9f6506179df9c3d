#include <gtest/gtest.h>

#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "support/FakeHost.h"

namespace {

using Bytes = std::vector<unsigned char>;

const char kTooSlow[] = "[AudioDataReviever] decode frame too slow , begin to drop recieve frame";

class AudioReceiverTest : public ::testing::Test {
 protected:
  void Push(AudioDataReviever& r, const Bytes& b, unsigned long long ts = 0) {
    r.PushAACRawData(b.data(), b.size(), ts);
  }
  // Pops into a full-size buffer and returns the frame; empty when nothing was waiting.
  Bytes Pop(AudioDataReviever& r, unsigned long long* ts = nullptr, unsigned long long* index = nullptr) {
    Bytes buffer(AudioDataReviever::kSlotSize, 0xEE);
    unsigned int length = 12345;
    unsigned long long t = 0, i = 0;
    r.PopAACRawData(buffer.data(), length, t, i);
    if (ts) *ts = t;
    if (index) *index = i;
    buffer.resize(length);
    return buffer;
  }

  lumo::test::FakeHost host;
  CPhoneCameraCtrl ctrl;
  AudioDataReviever rx{&ctrl};
};

TEST_F(AudioReceiverTest, FullPoolDropsTheNewestFrameAndSaysSoEveryTime) {
  EXPECT_EQ(rx.FreeCount(), 60u);
  for (int i = 0; i < 60; ++i) Push(rx, Bytes(10, static_cast<unsigned char>(i + 1)));
  EXPECT_EQ(rx.FreeCount(), 0u);
  EXPECT_EQ(host.CountLog(kTooSlow), 0u);

  Push(rx, Bytes(10, 0xF0));
  Push(rx, Bytes(10, 0xF1));
  EXPECT_EQ(host.CountLog(2, kTooSlow), 2u);
  EXPECT_EQ(rx.WaitingCount(), 60u);
  EXPECT_EQ(Pop(rx), Bytes(10, 1));  // the oldest frames were kept

  Push(rx, Bytes(10, 0xF2));
  EXPECT_EQ(rx.WaitingCount(), 60u);
  EXPECT_EQ(ctrl.GetFrameCounts().receivedAudio, 63);
}

TEST_F(AudioReceiverTest, PopsInOrderWithIndicesSharedByBothInstances) {
  AudioDataReviever other(&ctrl);
  Push(rx, {1, 2, 3}, 10);
  Push(other, {4, 5}, 20);
  Push(rx, Bytes(AudioDataReviever::kSlotSize, 6), 30);

  unsigned long long ts = 0, a = 0, b = 0, c = 0;
  EXPECT_EQ(Pop(rx, &ts, &a), Bytes({1, 2, 3}));
  EXPECT_EQ(ts, 10u);
  EXPECT_EQ(Pop(other, &ts, &b), Bytes({4, 5}));
  EXPECT_EQ(ts, 20u);
  EXPECT_EQ(Pop(rx, &ts, &c), Bytes(AudioDataReviever::kSlotSize, 6));
  EXPECT_EQ(ts, 30u);
  EXPECT_EQ(b, a + 1);
  EXPECT_EQ(c, a + 2);
  EXPECT_TRUE(Pop(rx).empty());
  EXPECT_EQ(rx.FreeCount(), 60u);
}

TEST_F(AudioReceiverTest, ShortAndOversizedFramesAreNotQueued) {
  const unsigned char one[1] = {9};
  rx.PushAACRawData(one, 0, 0);
  rx.PushAACRawData(one, 1, 0);
  EXPECT_EQ(ctrl.GetFrameCounts().receivedAudio, 0);

  Push(rx, Bytes(AudioDataReviever::kSlotSize + 1, 7));
  EXPECT_EQ(host.CountLog(3, "[AudioDataReviever] frame too large, dropped:4097"), 1u);
  EXPECT_EQ(rx.WaitingCount(), 0u);
  EXPECT_EQ(rx.FreeCount(), 60u);

  Push(rx, {1, 2});
  EXPECT_EQ(rx.WaitingCount(), 1u);
  EXPECT_EQ(ctrl.GetFrameCounts().receivedAudio, 2);
}

TEST_F(AudioReceiverTest, GetInstanceKeepsTwoReceivers) {
  AudioDataReviever* first = AudioDataReviever::GetInstance(1);
  AudioDataReviever* second = AudioDataReviever::GetInstance(2);
  EXPECT_NE(first, second);
  EXPECT_EQ(AudioDataReviever::GetInstance(1), first);
  EXPECT_EQ(AudioDataReviever::GetInstance(7), second);
  EXPECT_EQ(AudioDataReviever::GetInstance(0), second);
}

}  // namespace
