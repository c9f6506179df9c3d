// Whole WiFi sessions: the library's manager and dispatcher against the simulated phone over
// KCP, through the impairment proxy. These suites bind port 10099 and hold its ctest lock.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>

#include "NetImpairProxy.h"
#include "PhoneSim.h"
#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "protocol/PhoneDataParse.h"
#include "support/FakeHost.h"
#include "support/ScopedThread.h"
#include "support/SimClock.h"
#include "support/WifiLinkWorld.h"
#include "wifi/KcpOnUdp.h"
#include "wifi/WifiConnectManager.h"

namespace {

using lumo::test::FakeHost;

struct WifiCallback : IWifiEventCallback {
  void OnPhonePrepared() override { ++prepared; }
  void OnCaptureStarted() override { ++captureStarted; }
  void OnWifiReserved() override {}
  void OnCameraParamsRefreshed(const Json::Value&, bool) override {}
  void OnAppStartProjection() override {}
  std::atomic<int> prepared{0}, captureStarted{0};
};

// The PC side as a host wires it, on its own collaborators, plus the phone and the proxy.
struct WifiWorld : lumo::test::WifiLinkWorld {
  explicit WifiWorld(double loss = 0, uint32_t seed = 7) {
    ctrl.SetHwnd(reinterpret_cast<HWND>(0x1234));
    host.projectionWidth = 640;
    host.projectionHeight = 360;
    parser.SetWifiCallback(&callback);
    parser.SetAudioRecordType(1);  // the phone's microphone, not the PC's
    manager.Start();
    lumo::netimpair::ProxyConfig config;
    config.target = {lumo::kIpv4Loopback, KcpOnUdp::kPort};
    config.toTarget.dropRate = config.toClient.dropRate = loss;
    config.seed = seed;
    proxy = std::make_unique<lumo::netimpair::NetImpairProxy>(config);
  }
  ~WifiWorld() {
    phone.reset();
    manager.Stop(false);
  }

  lumo::phonesim::PhoneSimOptions PhoneOptions() {
    lumo::phonesim::PhoneSimOptions o;
    o.transport = "kcp";
    o.port = 0;
    o.pcPort = proxy->ListenEndpoint().port;
    o.width = 640, o.height = 360, o.bitRate = 3000000;
    return o;
  }
  // Starts the phone and brings the session up to "prepared", as a host does: StartConnect once
  // the phone has been heard from.
  void Connect(const lumo::phonesim::PhoneSimOptions& options) {
    phone = std::make_unique<lumo::phonesim::PhoneSim>(options);
    phone->SetSendTap([this](const std::string& frame) {
      std::lock_guard<std::mutex> guard(lock);
      if (frame[4] == 2) sentVideo.push_back(frame.substr(5));
      if (frame[4] == 6) sentAudio.push_back(frame.substr(5));
    });
    std::string error;
    ASSERT_TRUE(phone->Start(error)) << error;
    // The host connects once the phone has been heard: its first datagram came through the
    // proxy and told the endpoint where to answer.
    ASSERT_TRUE(Until([this] {
      return proxy->Client().port == phone->Port() && manager.Endpoint()->PeerAddress().port != 0;
    }));
    parser.StartConnect(PHONE_DATA_SOURCE_WIFI);
    const int prepared = callback.prepared;
    ASSERT_TRUE(host.WaitForLog("[phoneVideo] OnRcvResponseMonitorPhone: "));
    EXPECT_EQ(callback.prepared, prepared + 1);
  }

  // Polls in real time (at most 10 s) for something the threads bring about.
  static bool Until(const std::function<bool()>& ready) {
    for (int i = 0; i < 1000; ++i) {
      if (ready()) return true;
      lumo::RealClock().SleepUs(10000);
    }
    return ready();
  }

  WifiCallback callback;
  std::unique_ptr<lumo::netimpair::NetImpairProxy> proxy;
  std::unique_ptr<lumo::phonesim::PhoneSim> phone;
  std::mutex lock;
  std::vector<std::string> sentVideo, sentAudio;  // media header + payload, as sent
};

uint32_t Be32(const std::string& s, size_t at) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data()) + at;
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 | p[3];
}

class WifiSessionLoss : public ::testing::TestWithParam<double> {};

TEST_P(WifiSessionLoss, EveryVideoAndAudioFrameArrivesInOrderAndIntact) {
  WifiWorld w(GetParam());
  ASSERT_TRUE(w.proxy->Start());
  ASSERT_NO_FATAL_FAILURE(w.Connect(w.PhoneOptions()));
  w.parser.StartAudioCapture(PHONE_DATA_SOURCE_WIFI);
  w.parser.StartCapture(PHONE_DATA_SOURCE_WIFI);
  ASSERT_TRUE(w.host.WaitForLog("[phoneVideo] GetPhoneCameraParams"));  // after the capture callback
  EXPECT_EQ(w.callback.captureStarted, 1);

  // The host's side of the receivers: pop as the decoders would, as fast as packets come.
  std::vector<std::pair<std::string, unsigned long long>> gotVideo, gotAudio;  // under gotLock
  std::mutex gotLock;
  std::atomic<bool> done{false};
  size_t audioSent = 0;  // audio frames the phone had sent when the PC had its answer to the stop
  {
    // Joined on every way out, a failed ASSERT included (the consumer waits at most 10 ms).
    lumo::test::ScopedThread consumer(
        [&] {
          VID::VideoRawPkg record;
          std::vector<unsigned char> aac(AudioDataReviever::kSlotSize);
          while (!done) {
            w.video.PopH264RawData(&record);
            unsigned int length = 0;
            unsigned long long ts = 0, index = 0;
            w.audio1.PopAACRawData(aac.data(), length, ts, index);
            {
              std::lock_guard<std::mutex> guard(gotLock);
              if (record.length > 0)
                gotVideo.emplace_back(std::string(reinterpret_cast<char*>(record.data), record.length), record.timestamp);
              if (length > 0) gotAudio.emplace_back(std::string(reinterpret_cast<char*>(aac.data()), length), ts);
            }
            if (record.length == 0 && length == 0) w.video.WaitH264RawData();
          }
        },
        [&done] { done = true; });
    auto sent = [&w](std::vector<std::string>& list) {
      std::lock_guard<std::mutex> guard(w.lock);
      return list.size();
    };
    ASSERT_TRUE(w.Until([&] { return sent(w.sentVideo) >= 45; }));
    // Stopping capture: no picture leaves the phone after its 2003, and KCP keeps order, so once
    // the PC has the 2003 it has every picture. Audio goes on; what was sent by then must be in.
    // The stop command goes straight to the link: the parser's StopCapture would also empty the
    // receiver's queue, dropping pictures that had arrived but were not yet taken.
    const std::string stop = "{\"cmdType\":1003}";
    // Length (big-endian, type and sequence included), type 1, sequence 0, then the text.
    std::string frame{0, 0, 0, static_cast<char>(stop.size() + 5), 1, 0, 0, 0, 0};
    frame += stop;
    ASSERT_TRUE(w.manager.SendData(frame));
    ASSERT_TRUE(w.host.WaitForLog("[phoneVideo] OnRcvResponseStopCapture: "));
    audioSent = sent(w.sentAudio);
    ASSERT_TRUE(w.Until([&] {
      const size_t videoSent = sent(w.sentVideo);
      std::lock_guard<std::mutex> guard(gotLock);
      return gotVideo.size() >= videoSent && gotAudio.size() >= audioSent;
    }));
    done = true;
    consumer.join();
  }
  w.phone->Stop();

  ASSERT_GE(w.sentVideo.size(), 45u);
  ASSERT_EQ(gotVideo.size(), w.sentVideo.size());
  for (size_t i = 0; i < gotVideo.size(); ++i) {
    ASSERT_EQ(gotVideo[i].first, w.sentVideo[i].substr(16)) << "video frame " << i;
    EXPECT_EQ(gotVideo[i].second, Be32(w.sentVideo[i], 12));
  }
  ASSERT_GT(audioSent, 30u);
  ASSERT_LE(gotAudio.size(), w.sentAudio.size());
  for (size_t i = 0; i < gotAudio.size(); ++i) ASSERT_EQ(gotAudio[i].first, w.sentAudio[i].substr(16)) << "audio frame " << i;
  const auto toPc = w.proxy->Counters(lumo::netimpair::Direction::ToTarget);
  EXPECT_GT(toPc.dropped, 0u);  // the loss was real
}

INSTANTIATE_TEST_SUITE_P(WifiSession, WifiSessionLoss, ::testing::Values(0.1, 0.3),
                         [](const ::testing::TestParamInfo<double>& info) { return "Loss" + std::to_string(int(info.param * 100)); });

TEST(WifiSession, StopThenStartRunsASecondSessionOnTheSameSocket) {
  WifiWorld w;
  ASSERT_TRUE(w.proxy->Start());
  ASSERT_NO_FATAL_FAILURE(w.Connect(w.PhoneOptions()));
  w.manager.Stop(true);
  w.phone.reset();
  w.host.ClearLogs();
  w.manager.Start();  // the same endpoint and socket, a fresh KCP conversation
  ASSERT_NO_FATAL_FAILURE(w.Connect(w.PhoneOptions()));
  EXPECT_EQ(w.callback.prepared, 2);
  EXPECT_EQ(w.host.CountLog("KcpOnUdp::StartListening, use async sock"), 0u);
}

// The heartbeat runs on the simulated clock: time is pumped forward while the session comes up,
// then the phone falls silent and 30 s pass at once.
TEST(WifiSession, HeartbeatPostsAfterThirtySecondsOfSilence) {
  lumo::test::ScopedSimClock clock;
  WifiWorld w;
  std::atomic<bool> pumping{true};
  {
    // Joined on every way out, a failed ASSERT included.
    lumo::test::ScopedThread pump(
        [&] {
          while (pumping) {
            clock.clock.AdvanceUs(1000);
            lumo::RealClock().SleepUs(250);
          }
        },
        [&pumping] { pumping = false; });
    ASSERT_TRUE(w.proxy->Start());
    ASSERT_NO_FATAL_FAILURE(w.Connect(w.PhoneOptions()));
    pumping = false;
  }
  ASSERT_TRUE(w.host.IsTimerActive(131));
  w.phone.reset();  // silence

  clock.clock.AdvanceMs(29000);
  w.host.FireTimer(131);
  auto appStops = [&w] {
    std::vector<Json::Value> stops;
    for (const auto& m : w.host.Messages())
      if (m.json["interMsg"]["Msg"].asInt() == 7054) stops.push_back(m.json["interMsg"]);
    return stops;
  };
  EXPECT_TRUE(appStops().empty());
  clock.clock.AdvanceMs(2000);
  w.host.FireTimer(131);
  const std::vector<Json::Value> stops = appStops();
  ASSERT_EQ(stops.size(), 1u);
  EXPECT_EQ(stops[0]["wParam"].asInt(), 2);
  EXPECT_EQ(stops[0]["lParam"].asInt(), 2);
}

}  // namespace
