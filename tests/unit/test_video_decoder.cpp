// CVideoDecoder without an encoder, so these run in the Windows build too. The pictures are
// H.264 key frames written here bit by bit with I_PCM macroblocks: the samples travel
// uncompressed, so every decoded byte is known exactly.
#include <gtest/gtest.h>

#include <thread>

#include <atomic>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "support/FakeHost.h"
#include "support/SimClock.h"
#include "support/TempDir.h"
#include "support/VideoDecoderPeer.h"

namespace {

using Bytes = std::vector<unsigned char>;
using lumo::test::FakeHost;
using lumo::test::SimClock;

class BitWriter {
 public:
  void Bits(uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) Bit((value >> i) & 1);
  }
  void Bit(int b) {
    if (m_used == 0) m_bytes.push_back(0);
    if (b) m_bytes.back() |= static_cast<unsigned char>(0x80 >> m_used);
    m_used = (m_used + 1) % 8;
  }
  void Ue(uint32_t v) {
    int len = 0;
    while ((v + 1) >> len) ++len;
    Bits(0, len - 1);
    Bits(v + 1, len);
  }
  void AlignZero() {
    while (m_used != 0) Bit(0);
  }
  void Byte(unsigned char b) { Bits(b, 8); }
  void Trailing() {
    Bit(1);
    AlignZero();
  }
  const Bytes& bytes() const { return m_bytes; }

 private:
  Bytes m_bytes;
  int m_used = 0;
};

void AppendNal(Bytes& out, unsigned char header, const Bytes& rbsp) {
  out.insert(out.end(), {0, 0, 0, 1, header});
  int zeros = 0;
  for (unsigned char b : rbsp) {
    if (zeros >= 2 && b <= 3) {
      out.push_back(3);  // emulation prevention
      zeros = 0;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
}

// The exact picture of frame `n` (any coordinates, also those cropped away).
unsigned char PcmY(int x, int y, int n) { return static_cast<unsigned char>(x * 3 + y * 7 + n * 11); }
unsigned char PcmU(int x, int y, int n) { return static_cast<unsigned char>(x * 5 + y * 2 + 64 + n); }
unsigned char PcmV(int x, int y, int n) { return static_cast<unsigned char>(x + y * 9 + 128 + n * 3); }

// SPS, PPS and one IDR picture of I_PCM macroblocks; even width and height.
Bytes PcmKeyFrame(int width, int height, int n) {
  const int mbw = (width + 15) / 16, mbh = (height + 15) / 16;
  Bytes out;
  BitWriter sps;
  sps.Byte(66);  // baseline
  sps.Byte(0);
  sps.Byte(51);
  sps.Ue(0);  // sps id
  sps.Ue(0);  // log2_max_frame_num - 4
  sps.Ue(2);  // picture order from frame_num
  sps.Ue(1);  // reference frames
  sps.Bit(0);
  sps.Ue(mbw - 1);
  sps.Ue(mbh - 1);
  sps.Bit(1);  // frames only
  sps.Bit(1);  // direct 8x8 inference
  const bool crop = mbw * 16 != width || mbh * 16 != height;
  sps.Bit(crop);
  if (crop) {
    sps.Ue(0);
    sps.Ue((mbw * 16 - width) / 2);
    sps.Ue(0);
    sps.Ue((mbh * 16 - height) / 2);
  }
  sps.Bit(0);  // no VUI
  sps.Trailing();
  AppendNal(out, 0x67, sps.bytes());

  BitWriter pps;
  pps.Ue(0);
  pps.Ue(0);
  pps.Bit(0);  // CAVLC
  pps.Bit(0);
  pps.Ue(0);  // one slice group
  pps.Ue(0);
  pps.Ue(0);
  pps.Bit(0);
  pps.Bits(0, 2);
  pps.Ue(0);  // pic_init_qp - 26 (se 0 is coded as ue 0)
  pps.Ue(0);  // pic_init_qs - 26
  pps.Ue(0);  // chroma_qp_index_offset
  pps.Bit(0);
  pps.Bit(0);
  pps.Bit(0);
  pps.Trailing();
  AppendNal(out, 0x68, pps.bytes());

  BitWriter slice;
  slice.Ue(0);      // first macroblock
  slice.Ue(7);      // I slice
  slice.Ue(0);      // pps id
  slice.Bits(0, 4);  // frame_num
  slice.Ue(n & 1);  // idr_pic_id differs between neighbouring key frames
  slice.Bit(0);     // no_output_of_prior_pics
  slice.Bit(0);     // long_term_reference
  slice.Ue(0);      // slice_qp_delta (se 0)
  for (int my = 0; my < mbh; ++my) {
    for (int mx = 0; mx < mbw; ++mx) {
      slice.Ue(25);  // I_PCM
      slice.AlignZero();
      for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x) slice.Byte(PcmY(mx * 16 + x, my * 16 + y, n));
      for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) slice.Byte(PcmU(mx * 8 + x, my * 8 + y, n));
      for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) slice.Byte(PcmV(mx * 8 + x, my * 8 + y, n));
    }
  }
  slice.Trailing();
  AppendNal(out, 0x65, slice.bytes());
  return out;
}

Bytes PcmI420(int width, int height, int n) {
  Bytes out;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) out.push_back(PcmY(x, y, n));
  for (int y = 0; y < height / 2; ++y)
    for (int x = 0; x < width / 2; ++x) out.push_back(PcmU(x, y, n));
  for (int y = 0; y < height / 2; ++y)
    for (int x = 0; x < width / 2; ++x) out.push_back(PcmV(x, y, n));
  return out;
}

void Fill(VID::VideoRawPkg& pkg, const Bytes& bytes, unsigned long long ts = 0, unsigned long long index = 0) {
  delete[] pkg.data;
  pkg.data = new unsigned char[bytes.size()];
  std::copy(bytes.begin(), bytes.end(), pkg.data);
  pkg.capacity = pkg.length = bytes.size();
  pkg.timestamp = ts;
  pkg.index = index;
}

Bytes Garbage(std::mt19937& rng, size_t size = 64) {
  // No start code anywhere: nothing the decoder could conceal into a picture.
  Bytes b;
  while (b.size() < size) b.push_back(static_cast<unsigned char>(rng() | 1));
  return b;
}

// Forwards to a SimClock and notes every sleep and timed wait by its length, so that a test
// knows which wait the decode thread has entered.
class RecordingClock final : public lumo::Clock {
 public:
  explicit RecordingClock(SimClock& sim) : m_sim(sim) { lumo::SetClock(this); }
  ~RecordingClock() override { lumo::SetClock(nullptr); }
  uint32_t TickCount() override { return m_sim.TickCount(); }
  uint64_t PerfCounterUs() override { return m_sim.PerfCounterUs(); }
  uint64_t WallClock100ns() override { return m_sim.WallClock100ns(); }
  void SleepUs(uint64_t us) override {
    Record(us);
    m_sim.SleepUs(us);
  }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, uint64_t timeoutUs,
               const std::function<bool()>& ready) override {
    Record(timeoutUs);
    return m_sim.WaitFor(lock, cv, timeoutUs, ready);
  }
  size_t Count(uint64_t us) {
    std::lock_guard<std::mutex> guard(m_mutex);
    size_t n = 0;
    for (uint64_t w : m_waits) n += w == us;
    return n;
  }
  // Waits (real time) until `n` waits of `us` have begun and the thread has gone to sleep.
  bool WaitForWaits(uint64_t us, size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool begun = m_cv.wait_for(lock, std::chrono::seconds(10), [&] {
      size_t c = 0;
      for (uint64_t w : m_waits) c += w == us;
      return c >= n;
    });
    lock.unlock();
    return begun && m_sim.WaitForSleepers(1);
  }

 private:
  void Record(uint64_t us) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_waits.push_back(us);
    m_cv.notify_all();
  }
  SimClock& m_sim;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<uint64_t> m_waits;
};

constexpr uint64_t kKeyFrameWait = 10000;
constexpr uint64_t kSettleWait = 500000;

// The decode thread may be waiting on the simulated clock for a packet: keep time moving
// until the stop has joined it.
void StopDriving(CVideoDecoder& decoder, SimClock& sim) {
  auto done = std::async(std::launch::async, [&] { decoder.StopDecode(); });
  while (done.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready) sim.AdvanceMs(10);
}

// Holds the decode thread inside Decode until the test opens the gate, so that a stop meets a
// slow loop. Notes how many loops decode at once and whether the codec moved under a decode.
class GatedVideoDecoder : public CVideoDecoder {
 public:
  using CVideoDecoder::CVideoDecoder;
  ~GatedVideoDecoder() override {
    OpenGate();
    StopDecode();
  }
  bool Decode(void* context, VID::VideoRawPkg* packet) override {
    VideoDecoderTestPeer peer(*this);
    const void* codec = peer.CodecContext();
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_entered;
    m_maxInside = std::max(m_maxInside, ++m_inside);
    m_cv.notify_all();
    m_cv.wait(lock, [this] { return m_open; });
    m_codecKept = m_codecKept && peer.CodecContext() == codec;
    lock.unlock();
    const bool stored = CVideoDecoder::Decode(context, packet);
    lock.lock();
    --m_inside;
    ++m_done;
    m_cv.notify_all();
    return stored;
  }
  bool WaitEntered(int n) { return WaitFor([&] { return m_entered >= n; }); }
  bool WaitDone(int n) { return WaitFor([&] { return m_done >= n; }); }
  void OpenGate() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_open = true;
    m_cv.notify_all();
  }
  int MaxInside() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_maxInside;
  }
  bool CodecKept() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_codecKept;
  }

 private:
  template <typename F>
  bool WaitFor(F ready) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::seconds(10), ready);
  }
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_open = false;
  int m_entered = 0, m_done = 0, m_inside = 0, m_maxInside = 0;
  bool m_codecKept = true;
};

// Stops `decoder` on another thread without moving the clock; true when that returned within
// 5 s of real time. Otherwise time is driven until the stop has joined, so the thread is
// collected on every path.
bool StopsWithoutTimeMoving(CVideoDecoder& decoder, SimClock& sim) {
  const uint64_t before = sim.PerfCounterUs();
  auto done = std::async(std::launch::async, [&] { decoder.StopDecode(); });
  const bool prompt = done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  while (done.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready) sim.AdvanceMs(10);
  return prompt && sim.PerfCounterUs() == before;
}

class VideoDecoderTest : public ::testing::Test {
 protected:
  void SetUp() override { host.ClearLogs(); }
  // Decodes one PCM picture directly (no thread).
  bool DecodePcm(int width, int height, int n, unsigned long long ts) {
    Fill(pkg, PcmKeyFrame(width, height, n), ts, ts);
    return dec->Decode(nullptr, &pkg);
  }
  // Pulls one picture and checks it against PCM frame `n`.
  void ExpectPicture(int width, int height, int n, unsigned long long ts) {
    int w = 0, h = 0;
    unsigned long long got = 0;
    const unsigned char* p = dec->GetYuvData(w, h, got);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(w, width);
    ASSERT_EQ(h, height);
    EXPECT_EQ(got, ts);
    const Bytes want = PcmI420(width, height, n);
    EXPECT_TRUE(std::equal(want.begin(), want.end(), p)) << "frame " << n << " differs";
  }

  FakeHost host;
  CPhoneCameraCtrl ctrl;
  std::unique_ptr<H264DataReviever> rx = std::make_unique<H264DataReviever>(&ctrl);
  std::unique_ptr<CountingVideoDecoder> dec = std::make_unique<CountingVideoDecoder>(&ctrl, rx.get());
  VideoDecoderTestPeer peer{*dec};
  VID::VideoRawPkg pkg;
};

TEST_F(VideoDecoderTest, InitDecoderTypeFollowsContentType) {
  host.contentType = 3;
  ctrl.SetCodec(2);
  dec->InitDecoderType();
  EXPECT_EQ(ctrl.GetCodec(), 1);
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::SetInitDecoderType game use 264 default"));
  host.contentType = 0;
  dec->InitDecoderType();
  EXPECT_EQ(ctrl.GetCodec(), 2);
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::SetInitDecoderType vertical use hevc default"));
}

TEST_F(VideoDecoderTest, GetYuvDataWithNothingReadyLeavesEverythingAlone) {
  int w = -7, h = -8;
  unsigned long long ts = 99;
  EXPECT_EQ(dec->GetYuvData(w, h, ts), nullptr);
  EXPECT_EQ(w, -7);
  EXPECT_EQ(h, -8);
  EXPECT_EQ(ts, 99u);
  EXPECT_EQ(dec->GetCurVideoFrameTs(), 0);

  ASSERT_TRUE(peer.Prepare());
  ASSERT_TRUE(DecodePcm(32, 32, 0, 1234));
  ExpectPicture(32, 32, 0, 1234);
  EXPECT_EQ(dec->GetCurVideoFrameTs(), 1234);
  EXPECT_EQ(dec->GetYuvData(w, h, ts), nullptr);
  EXPECT_EQ(ts, 99u);
  EXPECT_EQ(dec->GetCurVideoFrameTs(), 1234);
}

TEST_F(VideoDecoderTest, PicturesAreTightlyPackedI420) {
  ASSERT_TRUE(peer.Prepare());
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::InitDecoder,current 264 decoder"));
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::InitDecoder,ret:1,loopIdx:5"));
  // 40x24 is cropped from 48x32 and its rows are shorter than FFmpeg's line size; 22x18
  // has odd chroma halves.
  ASSERT_TRUE(DecodePcm(40, 24, 0, 1));
  ExpectPicture(40, 24, 0, 1);
  ASSERT_TRUE(DecodePcm(22, 18, 1, 2));
  ExpectPicture(22, 18, 1, 2);
  ASSERT_TRUE(DecodePcm(1920, 1080, 2, 3));
  ExpectPicture(1920, 1080, 2, 3);
  EXPECT_EQ(host.CountLog(2, "[phoneVideo]Decode first  frame width:40, height:24"), 1u);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo]Decode first  frame"), 1u);
  EXPECT_EQ(host.Statistic(lumo::HostStat::CameraFrameCount), 3);
  EXPECT_EQ(ctrl.GetFrameCounts().decodedVideo, 3);
}

TEST_F(VideoDecoderTest, PicturesAbove1080pGrowTheFrameBlocks) {
  ASSERT_TRUE(peer.Prepare());
  ASSERT_TRUE(DecodePcm(3840, 2160, 0, 1));
  ASSERT_TRUE(DecodePcm(1280, 720, 1, 2));
  ASSERT_TRUE(DecodePcm(3840, 2160, 2, 3));
  ExpectPicture(3840, 2160, 0, 1);
  ExpectPicture(1280, 720, 1, 2);
  ExpectPicture(3840, 2160, 2, 3);
  EXPECT_EQ(peer.QueuedFrames(), CVideoDecoder::kQueueFrames);
}

TEST_F(VideoDecoderTest, PicturesBeyondTheBoundAreRefused) {
  ASSERT_TRUE(peer.Prepare());
  EXPECT_FALSE(DecodePcm(CVideoDecoder::kMaxDimension + 16, 16, 0, 1));
  EXPECT_EQ(peer.ReadyFrames(), 0u);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] picture refused, width:8208, height:16"), 1u);
  ASSERT_TRUE(DecodePcm(64, 64, 1, 2));  // and the next picture is fine
  ExpectPicture(64, 64, 1, 2);
}

TEST_F(VideoDecoderTest, The91stFailureInARowRecreatesTheDecoder) {
  SimClock sim;
  RecordingClock clock(sim);  // freezes time: FFmpeg's own lines stay in one rate window
  ASSERT_TRUE(peer.Prepare());
  std::mt19937 rng(5);
  auto fail = [&](int times) {
    for (int i = 0; i < times; ++i) {
      Fill(pkg, Garbage(rng), 0, 7);
      ASSERT_FALSE(dec->Decode(nullptr, &pkg));
    }
  };
  fail(90);
  EXPECT_FALSE(rx->IsDecoderChanged());
  EXPECT_EQ(peer.ErrorCount(), 90);
  fail(1);
  EXPECT_TRUE(rx->IsDecoderChanged());
  EXPECT_EQ(peer.ErrorCount(), 0);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo]:decode failed, size is 64 ,index:7,nRet:"), 91u);
  // A broken stream cannot flood the log through FFmpeg's messages.
  const size_t ffmpegLines = host.CountLogsStartingWith("[ffmpeg] ");
  EXPECT_GT(ffmpegLines, 0u);
  EXPECT_LE(ffmpegLines, 20u);
  // The next second says how many were held back.
  sim.AdvanceMs(1000);
  fail(1);
  size_t summaries = 0;
  for (const auto& line : host.Logs()) {
    const std::string tail = " messages suppressed";
    if (line.text.rfind("[ffmpeg] ", 0) == 0 && line.text.size() > tail.size() &&
        line.text.compare(line.text.size() - tail.size(), tail.size(), tail) == 0) {
      ++summaries;
    }
  }
  EXPECT_EQ(summaries, 1u);

  // One picture in between starts the count again.
  rx->SetDecoderChanged(false);
  fail(49);
  ASSERT_TRUE(DecodePcm(32, 32, 0, 1));
  EXPECT_EQ(peer.ErrorCount(), 0);
  fail(90);
  EXPECT_FALSE(rx->IsDecoderChanged());
  fail(1);
  EXPECT_TRUE(rx->IsDecoderChanged());
}

TEST_F(VideoDecoderTest, ReadyQueueRecyclesTheOldestWhenTheHostPullsNone) {
  ASSERT_TRUE(peer.Prepare());
  for (int n = 1; n <= 4; ++n) ASSERT_TRUE(DecodePcm(48, 32, n, n));
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] render frame too slow , drop one pkt"), 1u);
  for (int n = 2; n <= 4; ++n) ExpectPicture(48, 32, n, n);
  int w, h;
  unsigned long long ts;
  EXPECT_EQ(dec->GetYuvData(w, h, ts), nullptr);
}

TEST_F(VideoDecoderTest, WaitYuvDataWakesWhenAPictureIsQueued) {
  ASSERT_TRUE(peer.Prepare());
  EXPECT_FALSE(dec->WaitYuvData(0));
  std::atomic<bool> waiting{false}, woke{false};
  const auto start = std::chrono::steady_clock::now();
  std::thread waiter([&] {
    waiting = true;
    woke = dec->WaitYuvData(30000);
  });
  while (!waiting) std::this_thread::yield();
  const bool decoded = DecodePcm(48, 32, 1, 1);
  waiter.join();
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(woke);
  // Woken by the picture, not by the end of its wait.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST_F(VideoDecoderTest, SetFpsHalvesSixtyFramesPerSecond) {
  SimClock sim;
  RecordingClock clock(sim);
  ASSERT_TRUE(peer.Prepare());
  dec->SetFps(30);
  int stored = 0;
  for (int n = 0; n < 120; ++n) {
    stored += DecodePcm(16, 16, n, n) ? 1 : 0;
    sim.AdvanceUs(16667);
  }
  // Two frames pass before a rate can be measured; then every other one.
  EXPECT_EQ(stored, 2 + 59);
  EXPECT_EQ(host.CountLog(3, "[phoneVideo] match decode rate and render rate , drop one pkt"), 1u);
}

TEST_F(VideoDecoderTest, DecodeThreadWaitsForAKeyFrameThenHalfASecondOnce) {
  SimClock sim;
  RecordingClock clock(sim);
  host.contentType = 1;  // no codec guessing from the packets
  for (int session = 1; session <= 2; ++session) {
    const int decodes = dec->Decodes();
    const int stored = dec->Stored();
    dec->StartDecode();
    ASSERT_TRUE(clock.WaitForWaits(kKeyFrameWait, 1));
    const Bytes nonKey = {0, 0, 0, 1, 0x41, 0x9A, 0x22, 0x10};
    rx->PushH264RawData(nonKey.data(), nonKey.size(), 0, PHONE_DATA_SOURCE_USB);
    const size_t before = clock.Count(kKeyFrameWait);
    sim.AdvanceMs(10);
    ASSERT_TRUE(clock.WaitForWaits(kKeyFrameWait, before + 1));  // still waiting: no key frame yet
    EXPECT_EQ(clock.Count(kSettleWait), static_cast<size_t>(session - 1));

    const Bytes key = PcmKeyFrame(32, 32, 1);
    rx->PushH264RawData(key.data(), key.size(), 100 * session, PHONE_DATA_SOURCE_USB);
    sim.AdvanceMs(10);
    ASSERT_TRUE(clock.WaitForWaits(kSettleWait, session));
    EXPECT_EQ(dec->Decodes(), decodes);
    sim.AdvanceMs(499);
    EXPECT_EQ(dec->Decodes(), decodes);
    sim.AdvanceMs(1);
    ASSERT_TRUE(dec->WaitDecodes(decodes + 2));  // the queued non-key packet fails, the key frame decodes
    EXPECT_EQ(dec->Stored(), stored + 1);
    ExpectPicture(32, 32, 1, 100 * session);

    // From now on packets decode as they come, without another pause.
    rx->PushH264RawData(key.data(), key.size(), 100 * session + 1, PHONE_DATA_SOURCE_USB);
    ASSERT_TRUE(dec->WaitDecodes(decodes + 3));
    ExpectPicture(32, 32, 1, 100 * session + 1);
    EXPECT_EQ(clock.Count(kSettleWait), static_cast<size_t>(session));
    StopDriving(*dec, sim);
  }
}

TEST_F(VideoDecoderTest, DecodeThreadRecreatesTheDecoderWhenAsked) {
  host.contentType = 1;
  ctrl.SetHighIOSVersion();  // no half-second pause on the real clock
  dec->StartDecode();
  const Bytes key = PcmKeyFrame(48, 48, 2);
  rx->PushH264RawData(key.data(), key.size(), 1, PHONE_DATA_SOURCE_USB);
  ASSERT_TRUE(dec->WaitDecodes(1));
  ExpectPicture(48, 48, 2, 1);

  rx->SetDecoderChanged(true);
  rx->PushH264RawData(key.data(), key.size(), 2, PHONE_DATA_SOURCE_USB);
  ASSERT_TRUE(dec->WaitDecodes(2));
  ExpectPicture(48, 48, 2, 2);
  EXPECT_FALSE(rx->IsDecoderChanged());
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::ReInitDecoder,current 264 decoder"));
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::ReInitDecoder enter 6"));
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::ReInitDecoder,ret:1"));
  dec->StopDecode();
}

TEST_F(VideoDecoderTest, StartAndStopLeaveNoThreadBehind) {
  EXPECT_FALSE(peer.HasThread());
  dec->StartDecode();
  EXPECT_TRUE(dec->IsDecoding());
  EXPECT_TRUE(peer.HasThread());
  EXPECT_TRUE(host.HasLog(2, "[phoneVideo] Use decode type cpu"));
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] StartDecode create thread success with id:"), 1u);
  dec->StartDecode();  // a second start replaces the thread
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] StopDecode stop thread"), 1u);
  dec->StopDecode();
  EXPECT_FALSE(dec->IsDecoding());
  EXPECT_FALSE(peer.HasThread());
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] StopDecode stop thread"), 2u);
  // Both threads ended by themselves: none was given up.
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] VideoDecodeProc exit"), 2u);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] terminate thread fail"), 0u);
  EXPECT_EQ(host.ClearTextureCalls(), 3u);
  dec->StopDecode();  // without a thread: nothing to stop
  EXPECT_EQ(host.CountLog(4, "[phoneVideo] StopDecode stop thread"), 2u);

  // Destroying a decoder whose thread runs waits for the thread.
  auto other = std::make_unique<CVideoDecoder>(&ctrl, rx.get());
  other->StartDecode();
  other.reset();
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] VideoDecodeProc exit"), 3u);
}

TEST_F(VideoDecoderTest, StopEndsEveryWaitOfTheDecodeThreadWithoutTheClockMoving) {
  // Where the thread sleeps: before the first key frame, the half second after it, and while
  // the receiver is empty.
  enum Stage { kNoKeyFrame, kSettling, kIdle };
  for (Stage stage : {kNoKeyFrame, kSettling, kIdle}) {
    SCOPED_TRACE(stage);
    SimClock sim;
    RecordingClock clock(sim);
    host.contentType = 1;
    if (stage == kIdle) ctrl.SetHighIOSVersion();  // straight to decoding, then idle
    const int decodes = dec->Decodes();
    dec->StartDecode();
    ASSERT_TRUE(clock.WaitForWaits(kKeyFrameWait, 1)) << "no key frame yet";
    if (stage != kNoKeyFrame) {
      const Bytes key = PcmKeyFrame(32, 32, 1);
      rx->PushH264RawData(key.data(), key.size(), 1, PHONE_DATA_SOURCE_USB);
      sim.AdvanceMs(10);
    }
    if (stage == kSettling) {
      ASSERT_TRUE(clock.WaitForWaits(kSettleWait, 1));
    }
    if (stage == kIdle) {
      ASSERT_TRUE(dec->WaitDecodes(decodes + 1));
      ASSERT_TRUE(sim.WaitForSleepers(1));
    }
    EXPECT_TRUE(StopsWithoutTimeMoving(*dec, sim));
    EXPECT_FALSE(peer.HasThread());
  }
}

// A recent iPhone skips the settle wait after the first key frame, and once idle the thread is
// woken by a push alone.
TEST_F(VideoDecoderTest, ARecentIPhoneDecodesAtOnceAndAPushWakesTheIdleThread) {
  SimClock sim;
  RecordingClock clock(sim);
  host.contentType = 1;
  ctrl.SetHighIOSVersion();
  dec->StartDecode();
  ASSERT_TRUE(clock.WaitForWaits(kKeyFrameWait, 1));
  const Bytes key = PcmKeyFrame(32, 32, 3);
  rx->PushH264RawData(key.data(), key.size(), 1, PHONE_DATA_SOURCE_USB);
  sim.AdvanceMs(10);
  ASSERT_TRUE(dec->WaitDecodes(1));
  ExpectPicture(32, 32, 3, 1);
  EXPECT_EQ(clock.Count(kSettleWait), 0u);
  // Idle now, waiting for a push on the frozen clock: only the push can end the wait.
  for (int n = 2; n <= 4; ++n) {
    ASSERT_TRUE(sim.WaitForSleepers(1));
    const uint64_t before = sim.PerfCounterUs();
    rx->PushH264RawData(key.data(), key.size(), n, PHONE_DATA_SOURCE_USB);
    ASSERT_TRUE(dec->WaitDecodes(n));
    ExpectPicture(32, 32, 3, n);
    EXPECT_EQ(sim.PerfCounterUs(), before);
  }
  EXPECT_TRUE(StopsWithoutTimeMoving(*dec, sim));
}

TEST_F(VideoDecoderTest, StartAfterASlowStopWaitsForTheOldLoopAndKeepsItsCodec) {
  host.contentType = 1;
  ctrl.SetHighIOSVersion();
  GatedVideoDecoder slow(&ctrl, rx.get());
  slow.StartDecode();
  const Bytes key = PcmKeyFrame(32, 32, 5);
  rx->PushH264RawData(key.data(), key.size(), 1, PHONE_DATA_SOURCE_USB);
  ASSERT_TRUE(slow.WaitEntered(1));

  // The host restarts capture while the loop is stuck in a decode for longer than the stop's
  // bound. The old loop must end before a new one starts and before the codec is re-opened.
  auto restart = std::async(std::launch::async, [&] {
    slow.StopDecode();
    slow.StartDecode();
  });
  struct OpenOnExit {  // a failed assertion must not leave the restart blocked on the gate
    GatedVideoDecoder& d;
    ~OpenOnExit() { d.OpenGate(); }
  } guard{slow};
  ASSERT_TRUE(host.WaitForLog("still running 1000 ms after stop; waiting for it"));
  EXPECT_EQ(restart.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] VideoDecodeProc enter"), 1u);

  slow.OpenGate();
  restart.get();
  EXPECT_TRUE(slow.CodecKept());
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] VideoDecodeProc exit"), 1u);
  EXPECT_EQ(host.CountLogsStartingWith("[phoneVideo] terminate thread fail"), 0u);

  // The new loop decodes on its own codec.
  rx->PushH264RawData(key.data(), key.size(), 2, PHONE_DATA_SOURCE_USB);
  ASSERT_TRUE(slow.WaitDone(2));
  EXPECT_EQ(slow.MaxInside(), 1);
  EXPECT_EQ(host.CountLog(2, "[phoneVideo] VideoDecodeProc enter"), 2u);
  slow.StopDecode();
}

TEST_F(VideoDecoderTest, FilePathDecodesAnAnnexBFile) {
  lumo::test::ScopedAppData dir;
  const std::string path = dir.path + "/clip.h264";
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  for (int n = 0; n < 3; ++n) {
    const Bytes frame = PcmKeyFrame(64, 48, n);
    std::fwrite(frame.data(), 1, frame.size(), f);
  }
  std::fclose(f);
  std::string arg = path;
  dec->SetH264File(&arg[0]);
  dec->StartDecode();
  ASSERT_TRUE(peer.WaitThreadEnded(20000));  // the thread ends at the end of the file
  int w = 0, h = 0;
  unsigned long long ts = 1;
  bool read = true;
  const unsigned char* p = dec->GetData(w, h, ts, read);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(w, 64);
  EXPECT_EQ(h, 48);
  EXPECT_EQ(ts, 0u);
  const Bytes want = PcmI420(64, 48, 2);
  EXPECT_TRUE(std::equal(want.begin(), want.end(), p));
  dec->GetData(w, h, ts, read);
  EXPECT_TRUE(read);
  dec->StopDecode();
}

}  // namespace
