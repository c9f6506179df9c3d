// The WiFi endpoint and its manager on the real port 10099 (these suites hold its ctest lock),
// driven by a phone-side KCP peer in the test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "platform/socket.h"
#include "protocol/PhoneDataParse.h"
#include "support/FakeHost.h"
#include "support/ScopedThread.h"
#include "support/SimClock.h"
#include "support/WifiLinkWorld.h"
#include "wifi/KcpOnUdp.h"
#include "wifi/WifiConnectManager.h"
#include "wifi/ikcp.h"

namespace {

using lumo::test::FakeHost;

// The phone's side: its own KCP conversation on an ephemeral UDP port, pumped by the test.
class PhonePeer {
 public:
  PhonePeer() {
    lumo::NetStartup();
    m_socket = lumo::OpenUdpSocket();
    lumo::BindSocket(m_socket, {lumo::kIpv4Loopback, 0});
    m_kcp = lumo::CreateLumoKcp(this, lumo::kLumoKcpMode);
    lumo::ikcp_setoutput(m_kcp, &PhonePeer::Output);
  }
  ~PhonePeer() {
    lumo::ikcp_release(m_kcp);
    lumo::CloseSocket(m_socket);
  }
  void Send(const std::string& message) { lumo::ikcp_send(m_kcp, message.data(), static_cast<int>(message.size())); }
  // Runs the conversation until `count` messages arrived (real time, at most `limitMs`).
  bool Pump(size_t count, uint32_t limitMs = 5000) {
    std::vector<char> buffer(1 << 20);
    const uint64_t end = lumo::RealClock().PerfCounterUs() + limitMs * 1000ull;
    // Until the messages are in and everything sent has been acknowledged.
    while ((received.size() < count || lumo::ikcp_waitsnd(m_kcp) > 0) && lumo::RealClock().PerfCounterUs() < end) {
      const uint32_t now = lumo::RealClock().TickCount();
      lumo::ikcp_update(m_kcp, now);
      lumo::Ipv4Endpoint from;
      while (lumo::WaitReadable(m_socket, 0) == lumo::NetWait::Readable) {
        int n = lumo::RecvFromSocket(m_socket, buffer.data(), buffer.size(), from);
        if (n <= 0) break;
        lumo::ikcp_input(m_kcp, buffer.data(), n);
      }
      for (int n = lumo::ikcp_recv(m_kcp, buffer.data(), static_cast<int>(buffer.size())); n > 0;
           n = lumo::ikcp_recv(m_kcp, buffer.data(), static_cast<int>(buffer.size())))
        received.emplace_back(buffer.data(), static_cast<size_t>(n));
      lumo::WaitReadable(m_socket, 5);
    }
    return received.size() >= count;
  }
  uint16_t Port() const {
    lumo::Ipv4Endpoint local;
    return lumo::LocalEndpoint(m_socket, local) ? local.port : 0;
  }
  // Reads datagrams without KCP until one carries `text` (real time, at most 2 s).
  bool AwaitRawContaining(const std::string& text) {
    std::vector<char> buffer(65536);
    lumo::Ipv4Endpoint from;
    for (int i = 0; i < 200; ++i) {
      if (lumo::WaitReadable(m_socket, 10) != lumo::NetWait::Readable) continue;
      const int n = lumo::RecvFromSocket(m_socket, buffer.data(), buffer.size(), from);
      if (n > 0 && std::string(buffer.data(), static_cast<size_t>(n)).find(text) != std::string::npos) return true;
    }
    return false;
  }
  // Reads datagrams without KCP until one acknowledges `sn` (real time, at most 5 s).
  bool AwaitAck(uint32_t sn) {
    std::vector<unsigned char> buffer(65536);
    lumo::Ipv4Endpoint from;
    auto get32 = [&buffer](size_t at) {
      return static_cast<uint32_t>(buffer[at]) | static_cast<uint32_t>(buffer[at + 1]) << 8 |
             static_cast<uint32_t>(buffer[at + 2]) << 16 | static_cast<uint32_t>(buffer[at + 3]) << 24;
    };
    for (int i = 0; i < 500; ++i) {
      if (lumo::WaitReadable(m_socket, 10) != lumo::NetWait::Readable) continue;
      const int n = lumo::RecvFromSocket(m_socket, buffer.data(), buffer.size(), from);
      for (size_t at = 0; n > 0 && at + 24 <= static_cast<size_t>(n); at += 24 + get32(at + 20))
        if (buffer[at + 4] == lumo::IKCP_CMD_ACK && get32(at + 12) == sn) return true;
    }
    return false;
  }
  // Raw datagrams, for what a well-behaved KCP would never send.
  void SendRaw(const std::string& datagram) {
    lumo::SendToSocket(m_socket, datagram.data(), datagram.size(), {lumo::kIpv4Loopback, KcpOnUdp::kPort});
  }
  std::vector<std::string> received;

 private:
  static int Output(const char* buf, int len, lumo::ikcpcb*, void* user) {
    auto* self = static_cast<PhonePeer*>(user);
    return lumo::SendToSocket(self->m_socket, buf, static_cast<size_t>(len), {lumo::kIpv4Loopback, KcpOnUdp::kPort});
  }
  lumo::SocketHandle m_socket;
  lumo::ikcpcb* m_kcp;
};

class RecordingHandler : public IWiFiDataHandler {
 public:
  void HandleReceive(const char* data, int len) override {
    std::lock_guard<std::mutex> guard(m_lock);
    messages.emplace_back(data, static_cast<size_t>(len));
  }
  void HandleTimeout() override { ++timeouts; }
  size_t Count() {
    std::lock_guard<std::mutex> guard(m_lock);
    return messages.size();
  }
  // Read under the lock: the update thread may still be appending.
  std::string At(size_t i) {
    std::lock_guard<std::mutex> guard(m_lock);
    return i < messages.size() ? messages[i] : "<none>";
  }
  std::string Last() {
    std::lock_guard<std::mutex> guard(m_lock);
    return messages.empty() ? "<none>" : messages.back();
  }
  std::atomic<int> timeouts{0};

 private:
  std::mutex m_lock;
  std::vector<std::string> messages;
};

// Polls (real time) for the update thread to have delivered `count` messages.
bool AwaitMessages(RecordingHandler& handler, size_t count) {
  for (int i = 0; i < 500 && handler.Count() < count; ++i) lumo::RealClock().SleepUs(10000);
  return handler.Count() >= count;
}

std::string Segment(uint32_t sn, uint8_t frg, const std::string& data) {
  std::string s(24, '\0');
  auto put32 = [&s](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (8 * i));
  };
  put32(0, lumo::kLumoKcpConv);
  s[4] = 81;
  s[5] = static_cast<char>(frg);
  s[6] = static_cast<char>(512 & 255), s[7] = static_cast<char>(512 >> 8);
  put32(8, 0);
  put32(12, sn);
  put32(16, 0);
  put32(20, static_cast<uint32_t>(data.size()));
  return s + data;
}

// An endpoint listening in the receive mode of the parameter (1 event-driven, 0 completion port).
class KcpOnUdpTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "socketMode", std::to_string(GetParam()));
    ctrl = std::make_unique<CPhoneCameraCtrl>();
    endpoint = std::make_unique<KcpOnUdp>(ctrl.get());
    ASSERT_TRUE(endpoint->StartListening(0));
    endpoint->SetHandler(&handler);
  }
  FakeHost host;
  std::unique_ptr<CPhoneCameraCtrl> ctrl;
  RecordingHandler handler;
  std::unique_ptr<KcpOnUdp> endpoint;
};

TEST_P(KcpOnUdpTest, DeliversBothWaysAndAnswersTheLastPeer) {
  {
    KcpOnUdp& endpoint = *this->endpoint;
    ASSERT_TRUE(endpoint.StartUpdate());
    EXPECT_TRUE(endpoint.StartUpdate());  // already running: nothing changes

    PhonePeer first;
    const std::string big(6000, 'x');
    first.Send("hello");
    first.Send(big);
    ASSERT_TRUE(first.Pump(0, 50));
    ASSERT_TRUE(AwaitMessages(handler, 2));
    EXPECT_EQ(handler.At(0), "hello");
    EXPECT_EQ(handler.At(1), big);
    endpoint.QueueSend("reply", 5);
    ASSERT_TRUE(first.Pump(1));
    EXPECT_EQ(first.received[0], "reply");
    EXPECT_EQ(host.CountLog("[wifi] KCP_UpdateProc enter"), 1u);

    // Any datagram from a new address, even one KCP rejects, redirects the output there.
    PhonePeer second;
    second.SendRaw("?");
    for (int i = 0; i < 500 && endpoint.PeerAddress().port != second.Port(); ++i) lumo::RealClock().SleepUs(2000);
    ASSERT_EQ(endpoint.PeerAddress().port, second.Port());
    endpoint.QueueSend("to second", 9);
    EXPECT_TRUE(second.AwaitRawContaining("to second"));
    endpoint.Stop();
    EXPECT_TRUE(host.HasLog("[wifi] KCP_UpdateProc exit"));
  }
  endpoint.reset();  // the receivers end with it
  EXPECT_EQ(host.CountLog(GetParam() == 1 ? "KcpOnUdp::StartListening, use async sock"
                                          : "KcpOnUdp::StartListening, use IOCP sock"),
            1u);
}

TEST_P(KcpOnUdpTest, DropsAMessageBeyondItsBufferAndDeliversTheNext) {
  ASSERT_TRUE(endpoint->StartUpdate());
  PhonePeer phone;
  // 256 fragments of 2,500 bytes: 640,000 bytes, more than the 614,400-byte buffer.
  const std::string piece(2500, 'p');
  std::string datagram;
  for (uint32_t sn = 0; sn < 256; ++sn) {
    datagram += Segment(sn, static_cast<uint8_t>(255 - sn), piece);
    if (datagram.size() < 50000 && sn != 255) continue;
    phone.SendRaw(datagram);
    datagram.clear();
    // Paced by the endpoint's acknowledgements, so the socket's receive buffer never overflows
    // however slowly the endpoint runs (a sanitizer build, a busy machine).
    ASSERT_TRUE(phone.AwaitAck(sn)) << "sn " << sn;
  }
  phone.SendRaw(Segment(256, 0, "next"));
  ASSERT_TRUE(AwaitMessages(handler, 1));
  EXPECT_EQ(handler.At(0), "next");
  EXPECT_TRUE(host.HasLog(4, "[wifi] recieve data cross border:640000"));
  endpoint->Stop();
}

TEST_P(KcpOnUdpTest, DatagramsWaitingForTheUpdateThreadAreBounded) {
  // No update thread: nothing drains the queue, so a flood must meet the bound.
  PhonePeer phone;
  const std::string datagram(60000, 'f');
  for (int i = 0; i < 3000 && !host.HasLog(3, "[wifi] receive queue full, datagram dropped:60000"); ++i) {
    phone.SendRaw(datagram);
    if (i % 4 == 3) lumo::RealClock().SleepUs(1000);  // paced, so the kernel's buffer is not what drops them
  }
  EXPECT_TRUE(host.WaitForLog("[wifi] receive queue full, datagram dropped:60000", 2000));
  // Starting the update thread empties the queue, and the link works as usual.
  ASSERT_TRUE(endpoint->StartUpdate());
  phone.Send("after the flood");
  ASSERT_TRUE(phone.Pump(0, 2000));
  ASSERT_TRUE(AwaitMessages(handler, 1));
  EXPECT_EQ(handler.Last(), "after the flood");
  endpoint->Stop();
}

TEST_P(KcpOnUdpTest, StopThenStartRunsAFreshConversation) {
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    ASSERT_TRUE(endpoint->StartUpdate());
    PhonePeer phone;  // a new KCP conversation, numbered from 0 again
    phone.Send("round " + std::to_string(round));
    ASSERT_TRUE(phone.Pump(0, 50));
    ASSERT_TRUE(AwaitMessages(handler, static_cast<size_t>(round) + 1));
    EXPECT_EQ(handler.Last(), "round " + std::to_string(round));
    endpoint->QueueSend("ok", 2);
    ASSERT_TRUE(phone.Pump(1));
    endpoint->Stop();
  }
}

// The handler stops and/or restarts the endpoint from the update thread itself on the message
// "reset" (as WifiConnectManager's Reset or time-out does): no join of the thread by itself, no
// KCP object released under the step that uses it, and the restart taking effect at the next tick.
struct LifecycleCase {
  const char* name;
  bool stop, start;
};

class ResettingHandler : public RecordingHandler {
 public:
  ResettingHandler(KcpOnUdp*& endpoint, LifecycleCase c) : m_endpoint(endpoint), m_case(c) {}
  void HandleReceive(const char* data, int len) override {
    RecordingHandler::HandleReceive(data, len);
    if (std::string(data, static_cast<size_t>(len)) != "reset") return;
    if (m_case.stop) m_endpoint->Stop();
    if (m_case.start) {
      EXPECT_TRUE(m_endpoint->StartUpdate());
    }
    std::unique_lock<std::mutex> lock(m_gate);
    handled = true;
    m_cv.notify_all();
    // Held inside the handler until the test has its own StartUpdate under way.
    if (m_case.stop && !m_case.start) m_cv.wait_for(lock, std::chrono::seconds(5), [this] { return released; });
  }
  bool AwaitHandled() {
    std::unique_lock<std::mutex> lock(m_gate);
    return m_cv.wait_for(lock, std::chrono::seconds(5), [this] { return handled; });
  }
  void Release() {
    std::lock_guard<std::mutex> guard(m_gate);
    released = true;
    m_cv.notify_all();
  }

 private:
  KcpOnUdp*& m_endpoint;
  LifecycleCase m_case;
  std::mutex m_gate;
  std::condition_variable m_cv;
  bool handled = false, released = false;
};

TEST(KcpOnUdpLifecycle, StopAndStartFromTheHandlerTakeEffectAtTheNextTick) {
  for (const LifecycleCase c : {LifecycleCase{"reset", true, true}, LifecycleCase{"stop, then start from outside", true, false},
                                LifecycleCase{"start while running", false, true}}) {
    SCOPED_TRACE(c.name);
    FakeHost host;
    host.SetConfig("phoneVideoCfg.ini", "SECT_VIDEO", "socketMode", "1");
    CPhoneCameraCtrl ctrl;
    KcpOnUdp* raw = nullptr;
    ResettingHandler handler(raw, c);
    KcpOnUdp endpoint(&ctrl);
    raw = &endpoint;
    ASSERT_TRUE(endpoint.StartListening(0));
    endpoint.SetHandler(&handler);
    ASSERT_TRUE(endpoint.StartUpdate());

    PhonePeer old;
    old.Send("before");
    old.Send("reset");
    old.Send("tail");  // same conversation, right behind the reset
    ASSERT_TRUE(old.Pump(0, 50));
    ASSERT_TRUE(handler.AwaitHandled());
    if (c.stop && !c.start) {
      // The thread is still inside the handler, inside its step: the restart must wait for it to
      // leave before the KCP object it is using goes.
      handler.Release();
      ASSERT_TRUE(endpoint.StartUpdate());
      EXPECT_TRUE(host.HasLog("[wifi] KCP_UpdateProc exit"));
    }
    EXPECT_TRUE(endpoint.IsRunning());

    if (!c.stop) {
      ASSERT_TRUE(AwaitMessages(handler, 3));
      EXPECT_EQ(handler.At(2), "tail");
    } else {
      // A fresh conversation: a new phone numbering from 0 again is heard, which the old KCP
      // object (expecting sn 3) would have taken for a repeat.
      PhonePeer fresh;
      fresh.Send("fresh");
      ASSERT_TRUE(fresh.Pump(0, 50));
      ASSERT_TRUE(AwaitMessages(handler, 3));
      EXPECT_EQ(handler.At(2), "fresh");  // "tail" belonged to the conversation that ended
      endpoint.QueueSend("ok", 2);
      ASSERT_TRUE(fresh.Pump(1));
    }
    // A second thread only where the old one had ended; otherwise the same thread carried on.
    EXPECT_EQ(host.CountLog("[wifi] KCP_UpdateProc enter"), c.stop && !c.start ? 2u : 1u);
    endpoint.Stop();
    EXPECT_FALSE(endpoint.IsRunning());
  }
}

INSTANTIATE_TEST_SUITE_P(KcpOnUdp, KcpOnUdpTest, ::testing::Values(1, 0),
                         [](const ::testing::TestParamInfo<int>& info) { return info.param == 1 ? "Event" : "CompletionPort"; });

TEST(KcpOnUdpClock, TheUnarmedTimeOutWatchNeverFires) {
  FakeHost host;
  lumo::test::ScopedSimClock clock;
  CPhoneCameraCtrl ctrl;
  RecordingHandler handler;
  KcpOnUdp endpoint(&ctrl);
  ASSERT_TRUE(endpoint.StartListening(0));
  endpoint.SetHandler(&handler);
  ASSERT_TRUE(endpoint.StartUpdate());
  for (int i = 0; i < 12; ++i) {
    ASSERT_TRUE(clock.clock.WaitForSleepers(1));
    clock.clock.AdvanceMs(1000);
  }
  ASSERT_TRUE(clock.clock.WaitForSleepers(1));
  EXPECT_EQ(handler.timeouts, 0);
  // With nothing received or queued, the first KCP update waits until the endpoint clock reaches
  // 0x7FFFFFFF (an unsigned comparison): below it the initial value stays, above it updates ran.
  if (KcpOnUdp::ClockMs() < 0x7FFFFFFFu)
    EXPECT_EQ(endpoint.NextUpdateForTest(), 0x7FFFFFFFu);
  else
    EXPECT_NE(endpoint.NextUpdateForTest(), 0x7FFFFFFFu);
  endpoint.Stop();
}

}  // namespace

namespace {

// A manager wired to fresh collaborators (its own parser and camera control).
struct ManagerWorld : lumo::test::WifiLinkWorld {
  void Receive(const std::string& message) { manager.HandleReceive(message.data(), static_cast<int>(message.size())); }
};

std::string Prefixed(const std::string& frame) {
  const uint32_t n = static_cast<uint32_t>(frame.size());
  return std::string{static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                     static_cast<char>(n)} + frame;
}

TEST(WifiConnectManager, SendsOnlyWithAnEndpointAndSomethingToSend) {
  ManagerWorld w;
  EXPECT_FALSE(w.manager.SendData(Prefixed("\x04\0\0\0\1")));
  EXPECT_TRUE(w.host.HasLog(4, "[wifi] SendMsgToPhone, kcp instance is empty"));
  w.manager.Start();
  EXPECT_FALSE(w.manager.SendData(""));
  EXPECT_TRUE(w.host.HasLog(4, "[wifi] SendMsgToPhone, size error"));
  EXPECT_TRUE(w.manager.SendData(Prefixed(std::string("\x04\0\0\0\1", 5))));
  w.manager.Stop(false);
}

// The dispatcher's delayed work, the transport thread and the host all send at once: every frame
// reaches the phone whole, as one message, and each thread's frames keep their order.
TEST(WifiConnectManager, FramesSentFromSeveralThreadsAtOnceArriveWholeAndInOrderPerThread) {
  ManagerWorld w;
  w.manager.Start();
  PhonePeer phone;
  phone.SendRaw("?");  // the endpoint answers wherever it last heard from
  for (int i = 0; i < 500 && w.manager.Endpoint()->PeerAddress().port != phone.Port(); ++i)
    lumo::RealClock().SleepUs(2000);
  ASSERT_EQ(w.manager.Endpoint()->PeerAddress().port, phone.Port());

  constexpr int kThreads = 4, kFrames = 40;
  // Sizes across the segment size, so a frame spans several fragments; the body repeats the
  // sender's mark, so a frame mixed from two senders shows.
  auto frame = [](int thread, int seq) {
    const size_t size = 1 + static_cast<size_t>((seq * 977 + thread * 131) % 4000);
    std::string body = std::to_string(thread) + ":" + std::to_string(seq) + ":";
    body += std::string(size, static_cast<char>('a' + thread));
    return Prefixed(body);
  };
  {
    std::atomic<bool> go{false};
    std::vector<std::unique_ptr<lumo::test::ScopedThread>> senders;
    for (int t = 0; t < kThreads; ++t)
      senders.push_back(std::make_unique<lumo::test::ScopedThread>([&, t] {
        while (!go) std::this_thread::yield();
        for (int seq = 0; seq < kFrames; ++seq) EXPECT_TRUE(w.manager.SendData(frame(t, seq)));
      }));
    go = true;
  }  // joined here, a failed expectation included
  ASSERT_TRUE(phone.Pump(kThreads * kFrames, 10000));
  ASSERT_EQ(phone.received.size(), static_cast<size_t>(kThreads * kFrames));
  int next[kThreads] = {};
  for (const std::string& m : phone.received) {
    const int thread = m[4] - '0';
    ASSERT_TRUE(thread >= 0 && thread < kThreads) << m.substr(0, 16);
    const int seq = next[thread]++;
    ASSERT_EQ(m, frame(thread, seq)) << "thread " << thread << " frame " << seq;
  }
  w.manager.Stop(false);
}

TEST(WifiConnectManager, ChecksTheLengthPrefixAndLogsEveryHundredthWithADoubleStep) {
  ManagerWorld w;
  w.Receive(std::string(4, '\0'));  // length 0: passes the check, the dispatcher sees 0 bytes
  EXPECT_TRUE(w.host.HasLog("[phoneVideo]ParseRcvData. json data error,len invalid"));
  w.Receive(std::string("\0\0\0\x64", 4) + std::string(99, 'x'));  // says 100, holds 103 in all
  EXPECT_TRUE(w.host.HasLog(4, "[wifi] recieve data size not fit tag:100, recieve:103"));
  w.Receive(std::string("\0\x01", 2));  // too short to hold a prefix at all
  EXPECT_TRUE(w.host.HasLog(4, "[wifi] recieve data size not fit tag:0, recieve:2"));
  EXPECT_EQ(w.manager.MessagesHeard(), 3u);  // a phone that sends garbage is still there

  w.host.ClearLogs();
  const std::string ping = Prefixed(std::string("\x04\0\0\0\x07", 5));
  std::vector<size_t> logged;
  for (size_t i = 1; i < 300; ++i) {
    const size_t before = w.host.CountLogsStartingWith("[wifi] HandleReceive, composite data ok");
    w.Receive(ping);
    if (w.host.CountLogsStartingWith("[wifi] HandleReceive, composite data ok") > before) logged.push_back(i);
  }
  // The length-0 message above was the first accepted one (index 1); these continue from there.
  EXPECT_EQ(logged, (std::vector<size_t>{99, 198, 297}));
  EXPECT_TRUE(w.host.HasLog(2, "[wifi] HandleReceive, composite data ok, size is 9, index:101"));
  EXPECT_TRUE(w.host.HasLog(2, "[wifi] HandleReceive, composite data ok, size is 9, index:301"));
}

TEST(WifiConnectManager, StartAndStopSetTheConnectModeAndTheRunningState) {
  ManagerWorld w;
  w.manager.Start();
  EXPECT_EQ(w.ctrl.GetConnectMode(), 2);
  EXPECT_TRUE(w.host.HasLog(2, "[phoneVideo] SetConnectMode:wifi"));
  EXPECT_TRUE(w.video.IsWaitingFirstIFrame());
  EXPECT_FALSE(w.manager.IsRunning());  // not connected until the host says so
  w.manager.SetConnected(true);
  EXPECT_TRUE(w.host.HasLog(2, "[wifiUI] SetConnected, 1"));
  EXPECT_TRUE(w.manager.IsRunning());
  w.manager.Stop(false);
  EXPECT_FALSE(w.manager.IsRunning());
  EXPECT_EQ(w.ctrl.GetConnectMode(), 0);
  EXPECT_TRUE(w.host.HasLog(2, "[phoneVideo] StopTimer"));
  EXPECT_TRUE(w.host.HasLog(2, "[wifi] Stop wifi connect, "));
  w.host.ClearLogs();
  w.manager.OnExit();  // nothing running: nothing to do
  EXPECT_FALSE(w.host.HasLog("[wifi] Stop wifi connect, "));
  w.manager.Reset(false);  // Stop, then Start on the same endpoint
  EXPECT_EQ(w.ctrl.GetConnectMode(), 2);
  EXPECT_EQ(w.host.CountLog("KcpOnUdp::StartListening, use async sock"), 0u);
  w.manager.OnExit();
  EXPECT_TRUE(w.host.HasLog("[wifi] Stop wifi connect, "));
}

}  // namespace
