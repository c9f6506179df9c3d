// The simulated phone against a bare PC peer over loopback TCP: what it says, in which order,
// and whether the media it sends is what it claims to be.
#include <gtest/gtest.h>

#include <cmath>

#include "Camera.h"
#include "PhoneSim.h"
#include "TimestampBlocks.h"
#include "VideoEncoder.h"
#include "support/PcPeer.h"
#include "support/RawDecoder_media.h"
#include "support/SimClock.h"
#include "support/TestAudio_media.h"

namespace lumo::phonesim {
namespace {

using test::PcPeer;
using test::PhoneFrame;

PhoneSimOptions TestOptions() {
  PhoneSimOptions o;
  o.port = 0;  // a free port: these tests need no lock on a fixed one
  o.width = 640, o.height = 360, o.bitRate = 1000000;
  return o;
}

Json::Value Command(int type) {
  Json::Value v(Json::objectValue);
  v["cmdType"] = type;
  return v;
}

TEST(PhoneSimSession, HandshakeInOrderWithItsMembersAndCountingPings) {
  PhoneSimOptions o = TestOptions();
  o.phoneName = "Pixel 7";
  o.sysVer = "14";
  o.appVer = "9.1";
  o.netTests = 3;
  PhoneSim sim(o);
  std::string error;
  ASSERT_TRUE(sim.Start(error)) << error;
  PcPeer pc;
  ASSERT_TRUE(pc.Connect(sim.Port()));
  ASSERT_NO_FATAL_FAILURE(test::DriveHandshake(pc, 1700000000000ull));

  EXPECT_EQ(pc.CommandTypes(), (std::vector<int>{2005, 2001, 2000, 2000, 2000, 2006, 2004}));
  std::vector<uint32_t> pings, sequences;
  Json::Value connect, status;
  for (const PhoneFrame& f : pc.frames) {
    if (f.type == 4) pings.push_back(f.Be32(0));
    if (f.type == 1) sequences.push_back(f.Be32(0));
    if (f.CmdType() == 2005) connect = f.json;
    if (f.CmdType() == 2004) status = f.json;
    EXPECT_TRUE(f.type == 1 || f.type == 4) << "frame type " << int(f.type);
  }
  EXPECT_EQ(connect["appVer"].asString(), "9.1");
  EXPECT_TRUE(connect["status"].isInt());
  EXPECT_EQ(status["phoneName"].asString(), "Pixel 7");
  EXPECT_EQ(status["sysVer"].asString(), "14");
  EXPECT_EQ(status["cameraMaxResolution"].asString(), "1920x1080");
  ASSERT_FALSE(pings.empty());
  EXPECT_EQ(pings[0], 1u);
  for (size_t i = 1; i < pings.size(); ++i) EXPECT_EQ(pings[i], pings[i - 1] + 1);
  for (size_t i = 1; i < sequences.size(); ++i) EXPECT_EQ(sequences[i], sequences[i - 1] + 1);
  EXPECT_EQ(sim.Status().state, "connected");
  sim.Stop();
}

TEST(PhoneSimSession, AdoptsThePcClockWithItsSkewAndStampsEveryPicture) {
  test::ScopedSimClock clock;
  PhoneSimOptions o = TestOptions();
  o.clockSkewMs = 250;
  o.pingIntervalMs = 0;
  PhoneSim sim(o);
  std::string error;
  ASSERT_TRUE(sim.Start(error)) << error;
  PcPeer pc;
  ASSERT_TRUE(pc.Connect(sim.Port()));
  const uint64_t pcTime = 0x1234FFFFFF00ull;  // the low 32 bits wrap within the first second
  ASSERT_NO_FATAL_FAILURE(test::DriveHandshake(pc, pcTime));
  Json::Value content = Command(1013);
  content["width"] = 640, content["height"] = 360, content["fps"] = 30, content["bitRate"] = 1000000;
  ASSERT_TRUE(pc.Send(content));
  ASSERT_TRUE(pc.Send(1002));
  ASSERT_TRUE(pc.Await(2002));

  std::vector<PhoneFrame> video;
  ASSERT_TRUE(pc.AwaitFrames(2, 1, &video));
  ASSERT_TRUE(clock.clock.WaitForSleepers(2));
  clock.clock.AdvanceMs(34);
  ASSERT_TRUE(pc.AwaitFrames(2, 1, &video));
  ASSERT_TRUE(clock.clock.WaitForSleepers(2));
  clock.clock.AdvanceMs(400);  // past the 0xFFFFFFFF wrap of the low 32 bits
  ASSERT_TRUE(pc.AwaitFrames(2, 1, &video));

  const uint32_t expected[] = {static_cast<uint32_t>(pcTime + 250), static_cast<uint32_t>(pcTime + 250 + 34),
                               static_cast<uint32_t>(pcTime + 250 + 434)};
  test::RawVideoDecoder decoder(false);
  for (size_t i = 0; i < video.size(); ++i) {
    EXPECT_EQ(video[i].Be32(12), expected[i]) << "frame " << i;
    std::vector<test::DecodedPicture> pictures;
    ASSERT_TRUE(decoder.Decode(video[i].Payload(), pictures));
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_EQ(pictures[0].width, 640);
    EXPECT_EQ(pictures[0].height, 360);
    FrameStamp stamp;
    ASSERT_TRUE(ReadFrameStamp(pictures[0].y.data(), 640, 640, 360, stamp));
    EXPECT_EQ(stamp.captureMs, expected[i]);
    EXPECT_EQ(stamp.frameNumber, i);
  }
  // The first picture is a key frame with its parameter sets in front (SPS, NAL type 7).
  const std::string first = video[0].Payload();
  ASSERT_GE(first.size(), 5u);
  EXPECT_EQ(first.substr(0, 4), std::string("\0\0\0\1", 4));
  EXPECT_EQ(first[4] & 0x1F, 7);
  EXPECT_EQ(video[0].Be32(8), 1u);

  // Stopping: the answer, and no picture after it.
  ASSERT_TRUE(pc.Send(1003));
  ASSERT_TRUE(pc.Await(2003));
  clock.clock.AdvanceMs(1000);
  ASSERT_TRUE(pc.Send(1004));
  const size_t before = pc.frames.size();
  ASSERT_TRUE(pc.Await(2004));
  for (size_t i = before; i < pc.frames.size(); ++i) EXPECT_NE(pc.frames[i].type, 2);
  sim.Stop();
}

TEST(PhoneSimSession, AnswersAudioStartWithItsParametersAndSendsTheTone) {
  PhoneSimOptions o = TestOptions();
  o.toneHz = 1000;
  o.audioStream = 1;
  PhoneSim sim(o);
  std::string error;
  ASSERT_TRUE(sim.Start(error)) << error;
  PcPeer pc;
  ASSERT_TRUE(pc.Connect(sim.Port()));
  ASSERT_TRUE(pc.Send(1014));
  Json::Value answer;
  ASSERT_TRUE(pc.Await(2014, &answer));
  EXPECT_EQ(answer["dwSampleRate"], 44100);
  EXPECT_EQ(answer["aacType"], 1);
  EXPECT_EQ(answer["dwChannel"], 2);

  std::vector<PhoneFrame> audio;
  ASSERT_TRUE(pc.AwaitFrames(6, 50, &audio));
  std::vector<std::string> aac;
  for (const PhoneFrame& f : audio) {
    EXPECT_EQ(f.Be32(4), 1u);  // the stream selector
    aac.push_back(f.Payload());
  }
  const std::vector<int16_t> pcm = test::DecodeAacFrames(aac, 44100, 2);
  ASSERT_GT(pcm.size(), 44100u);  // about a second of stereo
  const std::vector<int16_t> left = test::Channel(pcm, 2, 0);
  EXPECT_NEAR(test::DominantFrequency(left, 44100, 200, 3000), 1000, 2);
  EXPECT_NEAR(test::RmsLevel(left), 0.5 / std::sqrt(2.0), 0.05);
  sim.Stop();
}

TEST(PhoneSimSession, CameraParametersClampChangesAndSwitchTheCamera) {
  PhoneSim sim(TestOptions());
  std::string error;
  ASSERT_TRUE(sim.Start(error)) << error;
  PcPeer pc;
  ASSERT_TRUE(pc.Connect(sim.Port()));
  Json::Value params;
  ASSERT_TRUE(pc.Send(1011));
  ASSERT_TRUE(pc.Await(2011, &params));
  EXPECT_EQ(params["isIOS"], 0);
  EXPECT_EQ(params["cameraId"], "0");
  EXPECT_EQ(params["maxVideoSize"], "1920x1080");
  EXPECT_EQ(params["exposeCompensation"]["min"], -4);
  EXPECT_EQ(params["exposeCompensation"]["max"], 4);

  Json::Value change = Command(1012), answer;
  change["exposeCompensation"]["value"] = 99;
  change["exposeCompensation"]["isCustom"] = 1;
  ASSERT_TRUE(pc.Send(change));
  ASSERT_TRUE(pc.Await(2012, &answer));
  EXPECT_FALSE(answer.isMember("switchCam"));
  Json::Value sw = Command(1012);
  sw["switchCam"]["state"] = 1;
  ASSERT_TRUE(pc.Send(sw));
  ASSERT_TRUE(pc.Await(2012, &answer));
  EXPECT_EQ(answer["switchCam"]["state"], 1);
  ASSERT_TRUE(pc.Send(1011));
  ASSERT_TRUE(pc.Await(2011, &params));
  EXPECT_EQ(params["cameraId"], "1");
  EXPECT_EQ(params["exposeCompensation"]["value"], 4);
  EXPECT_EQ(params["exposeCompensation"]["isCustom"], 1);

  Json::Value reset = Command(1012);
  reset["reset"] = 1;
  ASSERT_TRUE(pc.Send(reset));
  ASSERT_TRUE(pc.Await(2012));
  ASSERT_TRUE(pc.Send(1011));
  ASSERT_TRUE(pc.Await(2011, &params));
  EXPECT_EQ(params["exposeCompensation"]["value"], 0);
  EXPECT_EQ(params["whiteBalance"]["value"], 5000);

  Json::Value lock = Command(1016);
  lock["lock"] = 1;
  ASSERT_TRUE(pc.Send(lock));
  ASSERT_TRUE(pc.Await(2016, &answer));
  EXPECT_EQ(answer["lock"], 1);
  sim.Stop();
}

TEST(PhoneSimScenario, PlaysItsEventsOnTimeThenDropsAndServesTheNextPc) {
  test::ScopedSimClock clock;
  PhoneSimOptions o = TestOptions();
  o.pingIntervalMs = 0;
  o.switchCodecAtMs = 100;
  o.projectionAtMs = 150;
  o.switchPhoneAtMs = 200;
  o.stopVideoAtMs = 300, o.stopVideoCode = 7, o.stopVideoMessage = "camera busy";
  o.dropAtMs = 400;
  PhoneSim sim(o);
  std::string error;
  ASSERT_TRUE(sim.Start(error)) << error;
  PcPeer pc;
  ASSERT_TRUE(pc.Connect(sim.Port()));
  ASSERT_TRUE(pc.Send(1002));
  std::vector<PhoneFrame> video;
  ASSERT_TRUE(pc.AwaitFrames(2, 1, &video));
  EXPECT_EQ(video[0].Payload()[4] & 0x1F, 7);  // H.264 SPS
  // Each step waits for what it should bring before time moves on.
  auto advanceTo = [&](uint64_t ms) {
    ASSERT_TRUE(clock.clock.WaitForSleepers(2));
    clock.clock.AdvanceMs(ms - sim.Session().SinceBeginMs());
  };
  // At 100 ms the stream turns into H.265 starting with a key frame (VPS, NAL type 32); the video
  // thread may wake for its due picture a moment before the switch is made, so allow one more.
  advanceTo(100);
  bool switched = false;
  for (int i = 0; i < 2 && !switched; ++i) {
    ASSERT_TRUE(pc.AwaitFrames(2, 1, &video));
    switched = ((video.back().Payload()[4] >> 1) & 0x3F) == 32;
    if (!switched) clock.clock.AdvanceMs(34);
  }
  EXPECT_TRUE(switched);
  advanceTo(150);
  ASSERT_TRUE(pc.Await(2015));
  advanceTo(200);
  ASSERT_TRUE(pc.Await(2017));
  advanceTo(300);
  Json::Value stop;
  ASSERT_TRUE(pc.Await(2008, &stop));
  EXPECT_EQ(stop["code"], 7);
  EXPECT_EQ(stop["errMsg"], "camera busy");
  EXPECT_EQ(pc.CommandTypes(), (std::vector<int>{2002, 2015, 2017, 2008}));
  advanceTo(400);
  PhoneFrame f;
  while (pc.Read(f)) EXPECT_NE(f.type, 1);  // the link closes after the stop

  PcPeer next;
  ASSERT_TRUE(next.Connect(sim.Port()));
  ASSERT_TRUE(next.Send(1005));
  ASSERT_TRUE(next.Await(2005));
  EXPECT_EQ(sim.Status().links, 2u);
  sim.Stop();
}

// The blocks must survive compression at the simulator's own rate, at both usual sizes.
TEST(TimestampBlocks, ReadBackExactlyFromDecodedPictures) {
  struct Case {
    VideoCodec codec;
    int width, height;
  };
  for (const Case& c : {Case{VideoCodec::H264, 1920, 1080}, Case{VideoCodec::H264, 1280, 720},
                        Case{VideoCodec::H265, 1280, 720}}) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " " + CodecName(c.codec));
    VideoEncoderSettings s;
    s.codec = c.codec, s.width = c.width, s.height = c.height, s.bitRate = PhoneSimOptions().bitRate;
    VideoEncoder encoder;
    ASSERT_TRUE(encoder.Open(s)) << encoder.Error();
    test::RawVideoDecoder decoder(c.codec == VideoCodec::H265);
    for (int i = 0; i < 12; ++i) {
      ASSERT_TRUE(encoder.BeginPicture());
      uint8_t* planes[3] = {encoder.Plane(0), encoder.Plane(1), encoder.Plane(2)};
      int strides[3] = {encoder.Stride(0), encoder.Stride(1), encoder.Stride(2)};
      DrawPattern(planes, strides, c.width, c.height, i);
      const FrameStamp written{0xA5F00000u + 0x01010101u * static_cast<uint32_t>(i) * 37u, static_cast<uint16_t>(65530 + i)};
      ASSERT_TRUE(WriteFrameStamp(planes[0], strides[0], planes[1], strides[1], planes[2], strides[2], c.width,
                                  c.height, written));
      std::vector<uint8_t> packet;
      bool key = false;
      ASSERT_TRUE(encoder.Encode(false, packet, key));
      std::vector<test::DecodedPicture> pictures;
      ASSERT_TRUE(decoder.Decode(std::string(packet.begin(), packet.end()), pictures));
      ASSERT_EQ(pictures.size(), 1u);
      FrameStamp read;
      ASSERT_TRUE(ReadFrameStamp(pictures[0].y.data(), c.width, c.width, c.height, read)) << "frame " << i;
      EXPECT_EQ(read.captureMs, written.captureMs);
      EXPECT_EQ(read.frameNumber, written.frameNumber);
    }
  }
}

TEST(TimestampBlocks, RefuseUnstampedDamagedOrTooSmallPictures) {
  const int w = 1280, h = 720;
  std::vector<uint8_t> y(w * h, 128), u(w * h / 4, 128), v(w * h / 4, 128);
  FrameStamp stamp;
  EXPECT_FALSE(ReadFrameStamp(y.data(), w, w, h, stamp));  // plain grey: no sync cells
  ASSERT_TRUE(WriteFrameStamp(y.data(), w, u.data(), w / 2, v.data(), w / 2, w, h, FrameStamp{123456789u, 42}));
  ASSERT_TRUE(ReadFrameStamp(y.data(), w, w, h, stamp));
  EXPECT_EQ(stamp.captureMs, 123456789u);
  // Flip one payload cell: the checksum must catch it.
  const int cell = StampCellSize(w, h), flipped = 10;
  for (int row = 0; row < cell; ++row)
    for (int col = 0; col < cell; ++col) y[row * w + flipped * cell + col] ^= 0xFF;
  EXPECT_FALSE(ReadFrameStamp(y.data(), w, w, h, stamp));
  EXPECT_EQ(StampCellSize(400, 240), 0);  // 60 cells of 8 pixels do not fit in 400
  EXPECT_FALSE(WriteFrameStamp(y.data(), 400, u.data(), 200, v.data(), 200, 400, 240, FrameStamp{}));
}

}  // namespace
}  // namespace lumo::phonesim
