#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "support/FakeHost.h"
#include "support/SimClock.h"
#include "support/TempDir.h"

namespace {

using Bytes = std::vector<unsigned char>;
using lumo::test::FakeHost;
using lumo::test::ScopedSimClock;

// A start code and NAL header followed by payload bytes that contain no zero, so that no
// start code hides in the payload.
Bytes Packet(Bytes head, size_t total = 32, unsigned char fill = 0xAB) {
  head.resize(std::max(total, head.size()), fill);
  return head;
}
const Bytes kIdr264 = Packet({0, 0, 0, 1, 0x65});
const Bytes kP264 = Packet({0, 0, 0, 1, 0x41});

const char kDropStart[] = "[phoneVideo] recieve other frame type , begin to drop recieve frame";
const char kDropLog[] = "[phoneVideo] drop video packet";
const char kClearLog[] = "[phoneVideo] recieve I frame , clear all waiting for decode data ";
const char kFirstIdr[] = "[phoneVideo] recieve the first I frame";

class H264ReceiverTest : public ::testing::Test {
 protected:
  void SetUp() override { host.ClearLogs(); }
  void Push(const Bytes& b, unsigned long long ts = 0, ePhoneDataSource src = PHONE_DATA_SOURCE_USB) {
    rx->PushH264RawData(b.data(), b.size(), ts, src);
  }
  // Fills every slot with non-key packets, then one more, which starts dropping.
  void FillAndStartDropping() {
    for (size_t i = 0; i < H264DataReviever::kSlotCount; ++i) Push(Packet({0, 0, 0, 1, 0x41}, 32, 0x10 + i));
    ASSERT_EQ(rx->FreeCount(), 0u);
    Push(kP264);
    ASSERT_TRUE(rx->IsDropping());
  }

  FakeHost host;
  ScopedSimClock sim;
  CPhoneCameraCtrl ctrl;
  std::unique_ptr<H264DataReviever> rx = std::make_unique<H264DataReviever>(&ctrl);
  VID::VideoRawPkg record;
};

TEST_F(H264ReceiverTest, PacketsShorterThanTwoBytesChangeNothing) {
  const unsigned char bytes[2] = {0, 0};
  rx->PushH264RawData(bytes, 0, 5, PHONE_DATA_SOURCE_USB);
  rx->PushH264RawData(bytes, 1, 5, PHONE_DATA_SOURCE_USB);
  EXPECT_TRUE(host.Logs().empty());
  EXPECT_EQ(host.Statistic(lumo::HostStat::MaxCameraFrameCount), 0);
  EXPECT_EQ(rx->WaitingCount(), 0u);

  // Two bytes are a packet: counted, classified as too short, and queued.
  rx->PushH264RawData(bytes, 2, 5, PHONE_DATA_SOURCE_USB);
  EXPECT_EQ(host.Statistic(lumo::HostStat::MaxCameraFrameCount), 1);
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] error video frame type.len too short"), 1u);
  EXPECT_EQ(rx->WaitingCount(), 1u);
  EXPECT_EQ(ctrl.GetFrameCounts().receivedVideo, 1);
}

TEST_F(H264ReceiverTest, FullPoolDropsUntilKeyFrameWhichReplacesTheQueue) {
  FillAndStartDropping();
  EXPECT_EQ(host.CountLog(2, kDropStart), 1u);
  EXPECT_EQ(rx->WaitingCount(), 15u);

  for (int i = 0; i < 5; ++i) Push(kP264);
  EXPECT_EQ(host.CountLog(2, kDropLog), 1u);  // one line for the 1st of every 5 drops
  Push(kP264);
  EXPECT_EQ(host.CountLog(2, kDropLog), 2u);
  EXPECT_EQ(rx->WaitingCount(), 15u);
  EXPECT_EQ(ctrl.GetFrameCounts().receivedVideo, 15);
  EXPECT_EQ(host.Statistic(lumo::HostStat::MaxCameraFrameCount), 22);

  Push(kIdr264, 777);
  EXPECT_EQ(host.CountLog(2, kClearLog), 1u);
  EXPECT_FALSE(rx->IsDropping());
  EXPECT_EQ(rx->WaitingCount(), 1u);
  EXPECT_EQ(rx->FreeCount(), 14u);
  rx->PopH264RawData(&record);
  ASSERT_EQ(record.length, kIdr264.size());
  EXPECT_EQ(Bytes(record.data, record.data + record.length), kIdr264);
  EXPECT_EQ(record.index, 16u);  // dropped packets take no sequence number
  EXPECT_EQ(record.timestamp, 777u);
}

TEST_F(H264ReceiverTest, DroppingLastsUntilKeyFrameEvenWithFreeSlots) {
  FillAndStartDropping();
  for (int i = 0; i < 15; ++i) rx->PopH264RawData(&record);
  ASSERT_EQ(rx->FreeCount(), 15u);

  Push(kP264);
  EXPECT_EQ(rx->WaitingCount(), 0u);
  EXPECT_TRUE(rx->IsDropping());
  Push(kIdr264);
  Push(kP264);
  EXPECT_FALSE(rx->IsDropping());
  EXPECT_EQ(rx->WaitingCount(), 2u);
  EXPECT_EQ(host.CountLog(kClearLog), 0u);
}

TEST_F(H264ReceiverTest, PopReusesRecordBufferOnlyWhileSizeStaysTheSame) {
  struct Step {
    size_t size;
    unsigned char fill;
    bool reallocated;
  };
  const Step steps[] = {{100, 0x11, false}, {100, 0x22, false}, {200, 0x33, true}, {150, 0x44, true}};
  for (const Step& st : steps) Push(Packet({0, 0, 0, 1, 0x41}, st.size, st.fill), 1000 + st.fill);

  record.reserved = 77;  // zeroed only when an existing buffer is replaced
  unsigned char* previous = nullptr;
  for (size_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    rx->PopH264RawData(&record);
    ASSERT_EQ(record.length, steps[i].size);
    EXPECT_EQ(record.capacity, steps[i].size);
    EXPECT_EQ(record.data[steps[i].size - 1], steps[i].fill);
    EXPECT_EQ(record.reserved, steps[i].reallocated ? 0u : 77u);
    // A kept buffer keeps its address; a replaced one may get the same address back from the
    // heap, so only `reserved` (zeroed on replacement) tells the two apart.
    if (i > 0 && !steps[i].reallocated) {
      EXPECT_EQ(record.data, previous);
    }
    EXPECT_EQ(record.mark1 + record.mark2, 2);
    EXPECT_EQ(record.index, i + 1);
    EXPECT_EQ(record.timestamp, 1000u + steps[i].fill);
    EXPECT_EQ(record.pending, 3 - i);
    previous = record.data;
  }

  // Nothing waiting: only length and pending change.
  record.pending = 9;
  rx->PopH264RawData(&record);
  EXPECT_EQ(record.length, 0u);
  EXPECT_EQ(record.pending, 0u);
  EXPECT_EQ(record.data, previous);
  EXPECT_EQ(record.capacity, 150u);
  EXPECT_EQ(record.data[149], 0x44);
  EXPECT_EQ(record.index, 4u);
}

struct CodecCase {
  const char* name;
  int codec;
  int contentType;
  bool iosHigh;
  Bytes packet;
  int result;
  int codecAfter;
  const char* log;  // the one AnalyseVideoFrame line expected, or nullptr
};

TEST_F(H264ReceiverTest, CodecSwitchesOnlyOnKeyFrameOfTheOtherCodec) {
  const char* k264to265a = "H264DataReviever::AnalyseVideoFrame,change decoder 264 to 265 a";
  const char* k264to265b = "H264DataReviever::AnalyseVideoFrame,change decoder 264 to 265 b";
  const char* k265to264a = "H264DataReviever::AnalyseVideoFrame,change decoder 265 to 264 a";
  const char* k265to264b = "H264DataReviever::AnalyseVideoFrame,change decoder 265 to 264 b";
  const char* kIos = "H264DataReviever::AnalyseVideoFrame,ios high version change decoder 264 to 265";
  const Bytes idrW265 = Packet({0, 0, 0, 1, 0x26, 0x01});
  const CodecCase cases[] = {
      {"265 IDR_W_RADL, 4-byte code", 1, 0, false, idrW265, 1, 2, k264to265b},
      {"265 IDR_W_RADL, 3-byte code", 1, 0, false, Packet({0, 0, 1, 0x26, 0x01}), 1, 2, k264to265a},
      {"265 IDR_N_LP", 1, 0, false, Packet({0, 0, 0, 1, 0x28, 0x01}), 1, 2, k264to265b},
      {"264 IDR, 4-byte code", 2, 0, false, kIdr264, 1, 1, k265to264b},
      {"264 IDR, 3-byte code", 2, 0, false, Packet({0, 0, 1, 0x65}), 1, 1, k265to264a},
      {"content type 1 keeps 264", 1, 1, false, idrW265, 3, 1, nullptr},
      {"content type 1 keeps 265", 2, 1, false, kIdr264, 3, 2, nullptr},
      {"high iOS never back to 264", 2, 0, true, kIdr264, 3, 2, nullptr},
      {"high iOS: first packet switches", 1, 0, true, kP264, 3, 2, kIos},
      {"high iOS: 265 key after switch", 1, 0, true, idrW265, 1, 2, kIos},
      {"high iOS with content type 1", 1, 1, true, idrW265, 3, 1, nullptr},
      {"5 bytes never switch", 1, 0, false, {0, 0, 1, 0x26, 0x01}, 3, 1, nullptr},
      {"6 bytes do", 1, 0, false, {0, 0, 1, 0x26, 0x01, 0xAB}, 1, 2, k264to265a},
      {"265 key on 265", 2, 0, false, idrW265, 1, 2, nullptr},
      {"265 VPS", 2, 0, false, Packet({0, 0, 0, 1, 0x40, 0x01}), 3, 2, nullptr},
      {"265 TRAIL_R on 264", 1, 0, false, Packet({0, 0, 0, 1, 0x02, 0x01}), 3, 1, nullptr},
  };
  for (const CodecCase& c : cases) {
    SCOPED_TRACE(c.name);
    CPhoneCameraCtrl fresh;
    fresh.SetCodec(c.codec);
    if (c.iosHigh) fresh.SetHighIOSVersion();
    host.contentType = c.contentType;
    H264DataReviever r(&fresh);
    host.ClearLogs();

    EXPECT_EQ(r.AnalyseVideoFrame(c.packet.data(), c.packet.size()), c.result);
    EXPECT_EQ(fresh.GetCodec(), c.codecAfter);
    EXPECT_EQ(r.IsDecoderChanged(), c.codec != c.codecAfter);
    EXPECT_EQ(r.HasGotIFrame(), c.result == 1);
    EXPECT_EQ(host.CountLogsStartingWith("H264DataReviever::AnalyseVideoFrame"), c.log ? 1u : 0u);
    if (c.log) {
      EXPECT_EQ(host.CountLog(2, c.log), 1u);
    }
  }
}

TEST_F(H264ReceiverTest, ScanLooksAtPositionsZeroToLengthMinusSix) {
  auto analyse = [&](const Bytes& b) { return rx->AnalyseVideoFrame(b.data(), b.size()); };
  const Bytes pad(10, 0xAB);
  auto tail = [&](Bytes end) {
    Bytes b = pad;
    b.insert(b.end(), end.begin(), end.end());
    return b;
  };
  // The IDR slice behind SPS and PPS is found.
  EXPECT_EQ(analyse({0, 0, 0, 1, 0x67, 0xAB, 0, 0, 0, 1, 0x68, 0xAB, 0, 0, 1, 0x65, 0xAB, 0xAB}), 1);
  // The last 4-byte code starts at len-6, the last 3-byte one is also tested at len-6.
  EXPECT_EQ(analyse(tail({0, 0, 0, 1, 0x65, 0xAB})), 1);
  EXPECT_EQ(analyse(tail({0, 0, 1, 0x65, 0xAB, 0xAB})), 1);
  EXPECT_EQ(analyse(tail({0, 0, 1, 0x65, 0xAB})), 3);
  EXPECT_EQ(analyse({0, 0, 1, 0x65, 0xAB}), 3);  // five bytes leave no position to scan
  // A zero followed by a non-zero byte is skipped, the code right after it is not.
  EXPECT_EQ(analyse({0, 0xAB, 0, 0, 1, 0x65, 0xAB, 0xAB}), 1);
  // Runs of zeros before the code.
  Bytes zeros(100000, 0);
  EXPECT_EQ(analyse(zeros), 3);
  zeros.insert(zeros.end(), {1, 0x65, 0xAB, 0xAB});
  EXPECT_EQ(analyse(zeros), 1);

  EXPECT_EQ(analyse({0, 0, 1}), 0);
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] error video frame type.len too short"), 1u);
  EXPECT_EQ(analyse({0, 0, 1, 0x65}), 3);
  EXPECT_EQ(ctrl.GetCodec(), 1);
}

TEST_F(H264ReceiverTest, FirstIFrameIsRecognisedOnlyAsFourByteCodeWithIdrAtTheStart) {
  ASSERT_TRUE(rx->IsWaitingFirstIFrame());
  Push(Packet({0, 0, 1, 0x65}));                                           // 3-byte code
  Push({0, 0, 0, 1, 0x67, 0xAB, 0xAB, 0, 0, 0, 1, 0x65, 0xAB, 0xAB, 0xAB});  // IDR not first
  EXPECT_EQ(rx->WaitingCount(), 2u);
  EXPECT_EQ(host.CountLog(kFirstIdr), 0u);
  EXPECT_TRUE(rx->IsWaitingFirstIFrame());

  Push(kIdr264);
  Push(kIdr264);
  EXPECT_EQ(host.CountLog(2, kFirstIdr), 1u);
  EXPECT_FALSE(rx->IsWaitingFirstIFrame());

  rx->SetWaitFirstIFrame(true);  // a new connection
  Push(kIdr264);
  EXPECT_EQ(host.CountLog(2, kFirstIdr), 2u);
}

TEST_F(H264ReceiverTest, BitrateEvery30sAndFrameCountsEvery60sOnTheLibraryClock) {
  Push(Packet({0, 0, 0, 1, 0x41}, 61440));
  EXPECT_EQ(host.CountLog(2, "H264DataReviever bitrate 2 KB"), 1u);  // the first push logs at once
  sim.clock.AdvanceMs(29999);
  Push(Packet({0, 0, 0, 1, 0x41}, 30720));
  EXPECT_EQ(host.CountLogsStartingWith("H264DataReviever bitrate"), 1u);
  sim.clock.AdvanceMs(1);
  Push(Packet({0, 0, 0, 1, 0x41}, 61440));
  EXPECT_EQ(host.CountLog(2, "H264DataReviever bitrate 3 KB"), 1u);

  // The statistics window opened with the first push; exactly 60 s is not yet past it.
  sim.clock.AdvanceMs(30000);
  Push(kP264);
  EXPECT_EQ(host.CountLogsStartingWith("H264DataReviever::PushH264RawData"), 0u);
  sim.clock.AdvanceMs(1);
  Push(kIdr264);
  EXPECT_EQ(host.CountLog(2, "H264DataReviever::PushH264RawData . I frame count : 1, p frame count:4,esourceType:1"),
            1u);

  // The counts start over and the next push opens a new window.
  Push(kP264, 0, PHONE_DATA_SOURCE_WIFI);
  sim.clock.AdvanceMs(60001);
  Push(kP264, 0, PHONE_DATA_SOURCE_WIFI);
  EXPECT_EQ(host.CountLog(2, "H264DataReviever::PushH264RawData . I frame count : 0, p frame count:2,esourceType:2"),
            1u);
}

std::filesystem::path ProductFile(const lumo::test::ScopedAppData& dir, const char* name) {
  return std::filesystem::path(dir.path) / "Lumoapp" / name;
}

TEST_F(H264ReceiverTest, SaveH264AbsentIsWrittenBackAsZeroAndNothingIsDumped) {
  lumo::test::ScopedAppData dir;
  rx = std::make_unique<H264DataReviever>(&ctrl);
  std::string value;
  ASSERT_TRUE(host.GetConfigRaw("phoneVideoCfg.ini", "SECT_VIDEO", "saveH264", value));
  EXPECT_EQ(value, "0");
  Push(kIdr264);
  EXPECT_FALSE(std::filesystem::exists(ProductFile(dir, "phoneData.h264")));
}

TEST_F(H264ReceiverTest, SaveH264DumpsEveryPushedPacketDroppedOnesIncluded) {
  lumo::test::ScopedAppData dir;
  host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "saveH264", "1");
  ctrl.SetCodec(2);
  rx = std::make_unique<H264DataReviever>(&ctrl);
  const Bytes p265 = Packet({0, 0, 0, 1, 0x02, 0x01}, 40, 0x55);
  Bytes expected;
  for (size_t i = 0; i < H264DataReviever::kSlotCount + 2; ++i) {  // the last two are dropped
    Push(p265);
    expected.insert(expected.end(), p265.begin(), p265.end());
  }
  const unsigned char one = 0x77;
  rx->PushH264RawData(&one, 1, 0, PHONE_DATA_SOURCE_USB);
  ASSERT_TRUE(rx->IsDropping());
  rx.reset();

  std::ifstream in(ProductFile(dir, "phoneData.h265"), std::ios::binary);
  ASSERT_TRUE(in.good());
  EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), expected);
}

TEST_F(H264ReceiverTest, LargePacketsGrowTheirSlotAndOversizedOnesAreRefused) {
  Bytes big(H264DataReviever::kMaxPacketSize + 1);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i % 251);

  rx->PushH264RawData(big.data(), big.size(), 0, PHONE_DATA_SOURCE_USB);
  EXPECT_EQ(host.CountLog(3, "[phoneVideo] video packet too large, dropped:33554433"), 1u);
  EXPECT_EQ(host.Statistic(lumo::HostStat::MaxCameraFrameCount), 0);
  EXPECT_EQ(rx->WaitingCount(), 0u);

  for (unsigned long long len : {7000000ull, H264DataReviever::kMaxPacketSize, 100ull}) {
    SCOPED_TRACE(len);
    rx->PushH264RawData(big.data(), len, 5, PHONE_DATA_SOURCE_USB);
    rx->PopH264RawData(&record);
    ASSERT_EQ(record.length, len);
    EXPECT_EQ(std::memcmp(record.data, big.data(), len), 0);
  }
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] video packet too large"), 1u);
}

TEST_F(H264ReceiverTest, StopCaptureReturnsWaitingSlotsAndKeepsTheSequence) {
  for (int i = 0; i < 3; ++i) Push(kP264);
  rx->OnStopCapture();
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] OnStopCapture, clear data queue, size is 12"), 1u);
  EXPECT_EQ(rx->WaitingCount(), 0u);
  EXPECT_EQ(rx->FreeCount(), 15u);
  rx->PopH264RawData(&record);
  EXPECT_EQ(record.length, 0u);
  Push(kP264);
  rx->PopH264RawData(&record);
  EXPECT_EQ(record.index, 4u);
}

TEST_F(H264ReceiverTest, WaitEndsOnPushOrAfterTenMilliseconds) {
  const uint32_t start = lumo::TickCountMs();
  // Waits on a thread of its own; the future gives the tick at which the wait returned.
  auto waitOnThread = [&](std::thread& thread) {
    auto task = std::make_shared<std::packaged_task<uint32_t()>>([&] {
      rx->WaitH264RawData();
      return lumo::TickCountMs();
    });
    std::future<uint32_t> returned = task->get_future();
    thread = std::thread([task] { (*task)(); });
    return returned;
  };
  // Should the wait not end, moving the clock releases it: a fault fails the test, not hangs it.
  auto ended = [&](std::thread& thread, std::future<uint32_t>& returned) {
    const bool ready = returned.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    if (!ready) sim.clock.AdvanceMs(1000);
    thread.join();
    return ready;
  };

  std::thread idleThread;
  std::future<uint32_t> idle = waitOnThread(idleThread);
  EXPECT_TRUE(sim.clock.WaitForSleepers(1));
  sim.clock.AdvanceMs(9);
  EXPECT_TRUE(sim.clock.WaitForSleepers(1));
  sim.clock.AdvanceMs(1);
  EXPECT_TRUE(ended(idleThread, idle));
  EXPECT_EQ(idle.get(), start + 10);

  std::thread wokenThread;
  std::future<uint32_t> woken = waitOnThread(wokenThread);
  EXPECT_TRUE(sim.clock.WaitForSleepers(1));
  Push(kP264);
  EXPECT_TRUE(ended(wokenThread, woken));
  EXPECT_EQ(woken.get(), start + 10);  // no time passed: the push ended it
}

}  // namespace
