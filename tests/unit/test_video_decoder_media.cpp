// CVideoDecoder on real H.264 and H.265 streams encoded in the test (Linux: needs encoders).
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "support/FakeHost.h"
#include "support/TestVideo_media.h"
#include "support/VideoDecoderPeer.h"

namespace {

using lumo::test::EncodedPacket;
using lumo::test::FakeHost;
using lumo::test::TestCodec;

// Mean absolute error per sample that codec noise stays under at the test quality; a wrong
// frame, plane or stride gives tens.
constexpr double kTolerance = 3.0;

void Fill(VID::VideoRawPkg& pkg, const std::vector<uint8_t>& bytes, unsigned long long ts) {
  delete[] pkg.data;
  pkg.data = new unsigned char[bytes.size()];
  std::copy(bytes.begin(), bytes.end(), pkg.data);
  pkg.capacity = pkg.length = bytes.size();
  pkg.timestamp = ts;
}

struct Pulled {
  int width = 0, height = 0;
  unsigned long long ts = 0;
  std::vector<uint8_t> i420;
};

std::vector<Pulled> PullAll(CVideoDecoder& dec) {
  std::vector<Pulled> out;
  for (;;) {
    Pulled p;
    const unsigned char* data = dec.GetYuvData(p.width, p.height, p.ts);
    if (data == nullptr) return out;
    p.i420.assign(data, data + static_cast<size_t>(p.width) * p.height * 3 / 2);
    out.push_back(std::move(p));
  }
}

using Case = std::tuple<TestCodec, int, int>;

class VideoPatternTest : public ::testing::TestWithParam<Case> {};

TEST_P(VideoPatternTest, PicturesDecodeToThePatternAtTheirSize) {
  const auto [codec, width, height] = GetParam();
  FakeHost host;
  CPhoneCameraCtrl ctrl;
  ctrl.SetCodec(codec == TestCodec::H265 ? 2 : 1);
  H264DataReviever rx(&ctrl);
  CVideoDecoder dec(&ctrl, &rx);
  VideoDecoderTestPeer peer(dec);
  ASSERT_TRUE(peer.Prepare());

  const int frames = width > 1920 ? 4 : 8;
  lumo::test::TestVideoOptions options;
  options.gop = 4;  // key frames and predicted frames both
  const std::vector<EncodedPacket> packets = lumo::test::EncodeTestVideo(codec, width, height, frames, options);
  ASSERT_EQ(packets.size(), static_cast<size_t>(frames));
  VID::VideoRawPkg pkg;
  for (int n = 0; n < frames; ++n) {
    Fill(pkg, packets[n].data, 1000 + n);
    // Each packet gives its own picture at once: the decoder holds nothing back.
    ASSERT_TRUE(dec.Decode(nullptr, &pkg)) << "frame " << n;
    const std::vector<Pulled> got = PullAll(dec);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].width, width);
    EXPECT_EQ(got[0].height, height);
    EXPECT_EQ(got[0].ts, 1000u + n);
    EXPECT_LT(lumo::test::PatternError(got[0].i420.data(), width, height, n), kTolerance) << "frame " << n;
    // The check can tell frames apart.
    EXPECT_GT(lumo::test::PatternError(got[0].i420.data(), width, height, n + 8), 4 * kTolerance);
  }
  EXPECT_EQ(peer.ErrorCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(Streams, VideoPatternTest,
                         ::testing::Values(Case{TestCodec::H264, 1280, 720}, Case{TestCodec::H264, 1920, 1080},
                                           Case{TestCodec::H265, 1280, 720}, Case{TestCodec::H265, 1920, 1080},
                                           Case{TestCodec::H264, 3840, 2160}),
                         [](const ::testing::TestParamInfo<Case>& info) {
                           return std::string(std::get<0>(info.param) == TestCodec::H264 ? "H264_" : "H265_") +
                                  std::to_string(std::get<1>(info.param)) + "x" +
                                  std::to_string(std::get<2>(info.param));
                         });

TEST(VideoDecoderMediaTest, SwitchFrom264To265MidStreamRecreatesTheDecoder) {
  FakeHost host;
  host.contentType = 0;  // codec changes are recognised only for this content
  CPhoneCameraCtrl ctrl;
  ctrl.SetCodec(1);
  H264DataReviever rx(&ctrl);
  CountingVideoDecoder dec(&ctrl, &rx);
  lumo::test::TestVideoOptions options;
  options.gop = 30;
  const auto h264 = lumo::test::EncodeTestVideo(TestCodec::H264, 640, 360, 5, options);
  const auto h265 = lumo::test::EncodeTestVideo(TestCodec::H265, 1280, 720, 5, options);
  ASSERT_EQ(h264.size(), 5u);
  ASSERT_EQ(h265.size(), 5u);

  dec.StartDecode();
  for (int n = 0; n < 5; ++n) rx.PushH264RawData(h264[n].data.data(), h264[n].data.size(), n, PHONE_DATA_SOURCE_USB);
  ASSERT_TRUE(dec.WaitDecodes(5));  // after the one half-second pause
  std::vector<Pulled> got = PullAll(dec);
  ASSERT_EQ(got.size(), 3u);  // the newest three
  for (const Pulled& p : got) {
    EXPECT_EQ(p.width, 640);
    EXPECT_LT(lumo::test::PatternError(p.i420.data(), 640, 360, static_cast<int>(p.ts)), kTolerance);
  }

  for (int n = 0; n < 5; ++n) {
    rx.PushH264RawData(h265[n].data.data(), h265[n].data.size(), 100 + n, PHONE_DATA_SOURCE_USB);
  }
  ASSERT_TRUE(dec.WaitDecodes(10));
  EXPECT_EQ(dec.Stored(), 10);  // nothing was lost to the switch
  EXPECT_EQ(ctrl.GetCodec(), 2);
  EXPECT_FALSE(rx.IsDecoderChanged());
  EXPECT_EQ(host.CountLogsStartingWith("H264DataReviever::AnalyseVideoFrame,change decoder 264 to 265 "), 1u);
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::ReInitDecoder,current 265 decoder"));
  EXPECT_TRUE(host.HasLog(2, "CVideoDecoder::ReInitDecoder,ret:1"));
  got = PullAll(dec);
  ASSERT_EQ(got.size(), 3u);
  for (const Pulled& p : got) {
    EXPECT_EQ(p.width, 1280);
    EXPECT_EQ(p.height, 720);
    EXPECT_LT(lumo::test::PatternError(p.i420.data(), 1280, 720, static_cast<int>(p.ts - 100)), kTolerance);
  }
  dec.StopDecode();
}

}  // namespace
