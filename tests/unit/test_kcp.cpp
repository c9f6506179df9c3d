// KCP in one process: two endpoints over an in-memory link that drops (and may delay) datagrams,
// driven by a plain millisecond counter, so every loss and every timer is exact and repeatable.
// Single-endpoint cases decode what the output callback sees and feed hand-made datagrams.
#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "wifi/ikcp.h"

namespace {

using namespace lumo;

int32_t Diff(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b); }

struct Segment {
  uint32_t conv = kLumoKcpConv, cmd = IKCP_CMD_PUSH, frg = 0, wnd = 512, ts = 0, sn = 0, una = 0;
  std::string data;
};

// Field widths of the 24-byte header: conv, cmd, frg, wnd, ts, sn, una, len.
constexpr int kWidth[8] = {4, 1, 1, 2, 4, 4, 4, 4};

// The wire form; `len` overrides the length field to forge bad datagrams.
std::string Encode(const Segment& s, int64_t len = -1) {
  const uint32_t field[8] = {
      s.conv, s.cmd, s.frg, s.wnd,
      s.ts,   s.sn,  s.una, static_cast<uint32_t>(len < 0 ? static_cast<int64_t>(s.data.size()) : len)};
  std::string out;
  for (int f = 0; f < 8; ++f)
    for (int i = 0; i < kWidth[f]; ++i) out.push_back(static_cast<char>((field[f] >> (8 * i)) & 0xFF));
  return out + s.data;
}

std::vector<Segment> Decode(const std::string& datagram) {
  std::vector<Segment> out;
  for (size_t at = 0; at + 24 <= datagram.size();) {
    uint32_t f[8] = {};
    for (int k = 0; k < 8; at += kWidth[k++])
      for (int i = kWidth[k] - 1; i >= 0; --i) f[k] = (f[k] << 8) | static_cast<unsigned char>(datagram[at + i]);
    Segment s;
    s.conv = f[0], s.cmd = f[1], s.frg = f[2], s.wnd = f[3], s.ts = f[4], s.sn = f[5], s.una = f[6];
    EXPECT_LE(at + f[7], datagram.size());
    s.data = datagram.substr(at, f[7]);
    out.push_back(s);
    at += f[7];
  }
  return out;
}

// One endpoint with the system settings whose output is recorded.
struct Solo {
  explicit Solo(int mode = kLumoKcpMode) : kcp(CreateLumoKcp(this, mode)) { ikcp_setoutput(kcp, &Solo::Output); }
  ~Solo() { ikcp_release(kcp); }
  static int Output(const char* buf, int len, ikcpcb*, void* user) {
    static_cast<Solo*>(user)->sent.emplace_back(buf, static_cast<size_t>(len));
    return len;
  }
  int Feed(const std::string& d) { return ikcp_input(kcp, d.data(), static_cast<long>(d.size())); }
  // Segments of one command (0: all) sent since the last call.
  std::vector<Segment> Take(uint32_t cmd = 0) {
    std::vector<Segment> out;
    for (const auto& d : sent)
      for (auto& s : Decode(d))
        if (cmd == 0 || s.cmd == cmd) out.push_back(s);
    sent.clear();
    return out;
  }
  std::string Recv() {
    std::string buf(400000, '\0');
    int n = ikcp_recv(kcp, &buf[0], static_cast<int>(buf.size()));
    return n < 0 ? "<" + std::to_string(n) + ">" : buf.substr(0, static_cast<size_t>(n));
  }
  ikcpcb* kcp;
  std::vector<std::string> sent;
};

// Two endpoints joined by a link that drops each datagram with probability `loss`, in both
// directions, and delivers the rest `delay` ms later, in order.
class Link {
 public:
  Link(double loss, uint32_t start, uint32_t delay = 0) : now(start), rng_(20261121), loss_(loss), delay_(delay) {
    for (int i = 0; i < 2; ++i) {
      ends_[i] = End{this, i};
      kcp[i] = CreateLumoKcp(&ends_[i], kLumoKcpMode);
      ikcp_setoutput(kcp[i], &Link::Output);
    }
  }
  ~Link() {
    ikcp_release(kcp[0]);
    ikcp_release(kcp[1]);
  }
  // One millisecond: deliver what is due, then update both ends as the endpoint's thread would.
  void Tick() {
    ++now;
    while (!wire_.empty() && Diff(now, wire_.front().due) >= 0) {
      auto& d = wire_.front();
      ikcp_input(kcp[d.to], d.bytes.data(), static_cast<long>(d.bytes.size()));
      wire_.pop_front();
    }
    ikcp_update(kcp[0], now);
    ikcp_update(kcp[1], now);
  }
  void Drain(int side, std::vector<std::string>& into) {
    std::string buf(400000, '\0');
    for (int n; (n = ikcp_recv(kcp[side], &buf[0], static_cast<int>(buf.size()))) >= 0;)
      into.push_back(buf.substr(0, static_cast<size_t>(n)));
  }
  ikcpcb* kcp[2];
  uint32_t now;

 private:
  struct End {
    Link* link;
    int index;
  };
  struct Datagram {
    uint32_t due;
    int to;
    std::string bytes;
  };
  static int Output(const char* buf, int len, ikcpcb*, void* user) {
    auto* end = static_cast<End*>(user);
    Link* link = end->link;
    if (std::uniform_real_distribution<double>(0, 1)(link->rng_) >= link->loss_)
      link->wire_.push_back(
          Datagram{link->now + link->delay_, 1 - end->index, std::string(buf, static_cast<size_t>(len))});
    return len;
  }
  End ends_[2];
  std::deque<Datagram> wire_;
  std::mt19937 rng_;
  double loss_;
  uint32_t delay_;
};

std::vector<std::string> Messages(std::mt19937& rng, std::vector<size_t> sizes, int random_count) {
  for (int i = 0; i < random_count; ++i) sizes.push_back(1 + rng() % (100 * 1024));
  std::vector<std::string> out;
  for (size_t size : sizes) {
    std::string m(size, '\0');
    for (auto& c : m) c = static_cast<char>(rng());
    out.push_back(m);
  }
  return out;
}

// Sends both lists, runs until everything arrived or `limit` ms passed, and checks the contract of
// ikcp_check on every tick.
void Exchange(Link& link, const std::vector<std::string> (&out)[2], uint32_t limit) {
  for (int side = 0; side < 2; ++side)
    for (const auto& m : out[side])
      ASSERT_EQ(ikcp_send(link.kcp[side], m.data(), static_cast<int>(m.size())), static_cast<int>(m.size()));
  std::vector<std::string> got[2];
  uint32_t start = link.now;
  while ((got[0].size() < out[1].size() || got[1].size() < out[0].size()) && Diff(link.now, start) < int32_t(limit)) {
    link.Tick();
    for (int side = 0; side < 2; ++side) {
      int32_t wait = Diff(ikcp_check(link.kcp[side], link.now), link.now);
      ASSERT_GE(wait, 0);
      ASSERT_LE(wait, kLumoKcpInterval);
      link.Drain(side, got[side]);
    }
  }
  for (int side = 0; side < 2; ++side) {
    ASSERT_EQ(got[1 - side].size(), out[side].size()) << "from side " << side;
    for (size_t i = 0; i < out[side].size(); ++i) ASSERT_TRUE(got[1 - side][i] == out[side][i]) << "message " << i;
  }
}

class KcpDelivery : public ::testing::TestWithParam<double> {};

TEST_P(KcpDelivery, MixedSizesArriveWholeAndInOrderBothWays) {
  std::mt19937 rng(7);
  Link link(GetParam(), 1000, 3);
  const std::vector<std::string> out[2] = {
      Messages(rng, {1, 2, 1375, 1376, 1377, 6000, 100 * 1024, 256 * kLumoKcpMss}, 30),
      Messages(rng, {1, 100 * 1024, 5}, 10)};
  Exchange(link, out, 120000);
}

INSTANTIATE_TEST_SUITE_P(KcpLoss, KcpDelivery, ::testing::Values(0.0, 0.1, 0.3));

TEST(KcpDelivery, CarriesOnAcrossTheClockWrap) {
  std::mt19937 rng(11);
  Link link(0.1, 0xFFFFFF00u, 2);
  const std::vector<std::string> out[2] = {Messages(rng, {1, 6000}, 20), Messages(rng, {3}, 5)};
  Exchange(link, out, 60000);
  EXPECT_LT(link.now, 0x80000000u);  // the run went past the wrap
}

TEST(KcpWire, ASixThousandByteMessageLeavesAsFiveFragmentsCountingDown) {
  Solo a;
  std::string msg(6000, 'm');
  ASSERT_EQ(ikcp_send(a.kcp, msg.data(), 6000), 6000);
  ikcp_update(a.kcp, 500);
  ASSERT_FALSE(a.sent.empty());
  const std::string& first = a.sent[0];
  EXPECT_EQ(first.substr(0, 6), std::string("\x12\xD9\x01\x00\x51\x04", 6));  // conv 121106, PUSH, frg 4
  for (const auto& d : a.sent) EXPECT_LE(d.size(), 1400u);
  auto push = a.Take(IKCP_CMD_PUSH);
  ASSERT_EQ(push.size(), 5u);
  std::string joined;
  for (uint32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(push[i].frg, 4 - i);
    EXPECT_EQ(push[i].sn, i);
    EXPECT_EQ(push[i].ts, 500u);
    EXPECT_EQ(push[i].wnd, 512u);
    EXPECT_EQ(push[i].data.size(), i < 4 ? 1376u : 496u);
    joined += push[i].data;
  }
  EXPECT_EQ(joined, msg);
}

TEST(KcpWire, MessagesBeyondTwoHundredFiftySixFragmentsAreRefused) {
  Solo a;
  std::string big(256 * kLumoKcpMss + 1, 'x');
  EXPECT_LT(ikcp_send(a.kcp, big.data(), static_cast<int>(big.size())), 0);
  EXPECT_EQ(ikcp_waitsnd(a.kcp), 0);
  EXPECT_LT(ikcp_send(a.kcp, big.data(), -1), 0);
  EXPECT_EQ(ikcp_send(a.kcp, big.data(), static_cast<int>(big.size()) - 1), 256 * kLumoKcpMss);
  EXPECT_EQ(ikcp_waitsnd(a.kcp), 256);
  ikcp_update(a.kcp, 0);
  auto push = a.Take(IKCP_CMD_PUSH);
  ASSERT_EQ(push.size(), 256u);
  EXPECT_EQ(push.front().frg, 255u);
  EXPECT_EQ(push.back().frg, 0u);
}

TEST(KcpWire, StreamModeFillsUpTheLastQueuedSegment) {
  Solo a;
  a.kcp->stream = 1;
  std::string first(kLumoKcpMss - 2, 's');
  ASSERT_EQ(ikcp_send(a.kcp, first.data(), static_cast<int>(first.size())), kLumoKcpMss - 2);
  EXPECT_EQ(ikcp_send(a.kcp, "abcd", 4), 4);
  ikcp_update(a.kcp, 0);
  auto push = a.Take(IKCP_CMD_PUSH);
  ASSERT_EQ(push.size(), 2u);
  EXPECT_EQ(push[0].data, first + "ab");
  EXPECT_EQ(push[1].data, "cd");
  EXPECT_EQ(push[0].frg + push[1].frg, 0u);
}

TEST(KcpInput, RejectsForeignOrMalformedDatagramsButKeepsSegmentsBeforeTheFault) {
  Segment hello;
  hello.data = "hello";
  Segment foreign = hello;
  foreign.conv = kLumoKcpConv + 1;
  Segment later = hello;
  later.sn = 1;
  later.data = "again";
  Segment unknown = later;
  unknown.cmd = 85;
  struct Case {
    std::string datagram;
    bool first_taken;
  } cases[] = {
      {Encode(foreign) + Encode(later), false},                    // a foreign conv drops the whole datagram
      {Encode(hello).substr(0, 23), false},                        // shorter than a header
      {Encode(later, 100), false},                                 // len beyond the datagram
      {Encode(later, 0x80000000u) + std::string(64, 'z'), false},  // len negative as an int
      {Encode(hello) + Encode(later, 6), true},                    // a good segment, then an overlong one
      {Encode(hello) + Encode(unknown), true},                     // a good segment, then an unknown command
  };
  for (const auto& c : cases) {
    Solo b;
    EXPECT_LT(b.Feed(c.datagram), 0);
    EXPECT_EQ(b.Recv(), c.first_taken ? "hello" : "<-1>");
    EXPECT_EQ(b.Recv(), "<-1>");  // nothing after the fault was taken
    ikcp_update(b.kcp, 0);
    EXPECT_EQ(b.Take(IKCP_CMD_ACK).size(), c.first_taken ? 1u : 0u);
  }
}

TEST(KcpInput, WhatAPeerCanMakeUsHoldIsBounded) {
  Solo b;
  // Hundreds of acknowledgements per datagram and no flush in between.
  std::string burst;
  for (uint32_t sn = 0; sn < 100; ++sn) {
    Segment s;
    s.sn = sn;
    s.data = "d";
    burst += Encode(s);
  }
  for (int i = 0; i < 100; ++i) ASSERT_EQ(b.Feed(burst), 0);
  EXPECT_EQ(b.kcp->ackcount, 2 * b.kcp->rcv_wnd);
  EXPECT_EQ(b.kcp->nrcv_que, 100u);
  ikcp_update(b.kcp, 0);
  EXPECT_EQ(b.kcp->ackcount, 0u);
  EXPECT_EQ(b.Take(IKCP_CMD_ACK).size(), 2 * b.kcp->rcv_wnd);

  // Beyond the window: neither kept nor acknowledged.
  Segment far;
  far.sn = 100 + 512;
  far.data = "f";
  EXPECT_EQ(b.Feed(Encode(far)), 0);
  EXPECT_EQ(b.kcp->nrcv_buf, 0u);
  EXPECT_EQ(b.kcp->ackcount, 0u);

  // Jumbo segments stop at the byte budget instead of filling the whole window.
  Segment jumbo;
  jumbo.data.assign(60000, 'j');
  for (uint32_t sn = 101; sn < 100 + 512; ++sn) {
    jumbo.sn = sn;
    b.Feed(Encode(jumbo));
  }
  EXPECT_LE(b.kcp->rcv_bytes, kLumoKcpMaxHeldBytes);
  EXPECT_EQ(b.kcp->nrcv_buf, (kLumoKcpMaxHeldBytes - 100) / 60000);
}

TEST(KcpRecv, SmallBufferKeepsTheMessageAndDiscardSkipsIt) {
  Solo b;
  Segment part;
  part.frg = 1;
  part.data = std::string(3000, 'a');
  ASSERT_EQ(b.Feed(Encode(part)), 0);
  EXPECT_EQ(ikcp_peeksize(b.kcp), -1);  // the last fragment is missing
  EXPECT_LT(ikcp_discard(b.kcp), 0);
  EXPECT_EQ(b.Recv(), "<-2>");
  Segment end = part, small;
  end.sn = 1, end.frg = 0, end.data = std::string(2000, 'b');
  small.sn = 2, small.data = "tail";
  ASSERT_EQ(b.Feed(Encode(end) + Encode(small)), 0);
  char buf[1000];
  EXPECT_EQ(ikcp_recv(b.kcp, buf, sizeof(buf)), -3);
  EXPECT_EQ(ikcp_peeksize(b.kcp), 5000);              // still queued
  EXPECT_EQ(ikcp_recv(b.kcp, nullptr, -5000), 5000);  // a peek keeps it too
  EXPECT_EQ(ikcp_discard(b.kcp), 5000);
  EXPECT_EQ(b.Recv(), "tail");
  EXPECT_LT(ikcp_discard(b.kcp), 0);
}

TEST(KcpTiming, FastResendAfterTenLaterAcknowledgementsBeforeTheTimeout) {
  Solo a;
  for (int i = 0; i < 12; ++i) ikcp_send(a.kcp, "0123456789", 10);
  ikcp_update(a.kcp, 1000);
  ASSERT_EQ(a.Take(IKCP_CMD_PUSH).size(), 12u);  // sn 0 is "lost" on the way
  auto ack = [&a](uint32_t sn) {
    Segment s;
    s.cmd = IKCP_CMD_ACK, s.sn = sn, s.ts = 1000;
    EXPECT_EQ(a.Feed(Encode(s)), 0);
  };
  for (uint32_t sn = 1; sn <= 9; ++sn) ack(sn);
  ikcp_update(a.kcp, 1010);
  EXPECT_TRUE(a.Take(IKCP_CMD_PUSH).empty());
  ack(10);
  ikcp_update(a.kcp, 1020);  // the first timeout is at 1200
  auto again = a.Take(IKCP_CMD_PUSH);
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again[0].sn, 0u);
  EXPECT_EQ(again[0].ts, 1020u);
}

TEST(KcpTiming, SegmentsAcknowledgedOutOfOrderAreNeverSentAgain) {
  Solo a;
  for (int i = 0; i < 5; ++i) ikcp_send(a.kcp, "0123456789", 10);
  ikcp_update(a.kcp, 1000);
  ASSERT_EQ(a.Take(IKCP_CMD_PUSH).size(), 5u);
  auto ack = [&a](uint32_t sn, uint32_t una) {
    Segment s;
    s.cmd = IKCP_CMD_ACK, s.sn = sn, s.ts = 1000, s.una = una;
    EXPECT_EQ(a.Feed(Encode(s)), 0);
  };
  ack(3, 0);
  ack(1, 0);
  ack(3, 0);  // a repeat changes nothing
  EXPECT_EQ(ikcp_waitsnd(a.kcp), 3);
  EXPECT_EQ(a.kcp->snd_una, 0u);
  ikcp_update(a.kcp, 1300);  // past the first time-out: only what is still unacknowledged
  std::vector<uint32_t> again;
  for (const auto& s : a.Take(IKCP_CMD_PUSH)) again.push_back(s.sn);
  EXPECT_EQ(again, (std::vector<uint32_t>{0, 2, 4}));
  ack(0, 0);  // the oldest goes, and with it the acknowledged one behind it
  EXPECT_EQ(a.kcp->snd_una, 2u);
  EXPECT_EQ(ikcp_waitsnd(a.kcp), 2);
  ack(4, 0);
  ack(2, 0);
  EXPECT_EQ(a.kcp->snd_una, 5u);
  EXPECT_EQ(ikcp_waitsnd(a.kcp), 0);
  EXPECT_EQ(ikcp_check(a.kcp, 1305), 1310u);  // the next flush: nothing left to time out
}

TEST(KcpInput, BuffersKeptForReuseAreBoundedInCountAndSize) {
  Solo b;
  Segment jumbo;
  jumbo.data.assign(60000, 'j');
  Segment small = jumbo;
  small.data = std::string(kLumoKcpMss, 's');
  for (uint32_t sn = 0; sn < 600; ++sn) {
    Segment& s = sn % 2 ? small : jumbo;
    s.sn = sn;
    ASSERT_EQ(b.Feed(Encode(s)), 0);
    EXPECT_EQ(b.Recv(), s.data);
  }
  EXPECT_LE(b.kcp->spare.size(), kLumoKcpSpareBuffers);
  for (const auto& buffer : b.kcp->spare) EXPECT_LE(buffer.capacity(), static_cast<size_t>(kLumoKcpMss));
}

TEST(KcpTiming, AClosedWindowIsProbedAfterTheWaitAndSendingResumesOnItsAnnouncement) {
  Solo a;
  ikcp_send(a.kcp, "a", 1);
  ikcp_update(a.kcp, 5000);
  ASSERT_EQ(a.Take(IKCP_CMD_PUSH).size(), 1u);
  Segment closed;
  closed.cmd = IKCP_CMD_ACK, closed.wnd = 0, closed.una = 1, closed.ts = 5000;
  ASSERT_EQ(a.Feed(Encode(closed)), 0);
  ikcp_send(a.kcp, "b", 1);
  uint32_t now = 5000, probed = 0;
  while (!probed && now < 5000 + 20000) {
    now += 10;
    ikcp_update(a.kcp, now);
    for (const auto& s : a.Take()) {
      EXPECT_NE(s.cmd, IKCP_CMD_PUSH) << "sent into a closed window at " << now;
      if (s.cmd == IKCP_CMD_WASK) probed = now;
    }
  }
  EXPECT_EQ(probed, 5010u + IKCP_PROBE_INIT);  // the wait starts at the first flush that saw it closed
  Segment open;
  open.cmd = IKCP_CMD_WINS, open.wnd = 512, open.una = 1;
  ASSERT_EQ(a.Feed(Encode(open)), 0);
  ikcp_update(a.kcp, now + 10);
  auto push = a.Take(IKCP_CMD_PUSH);
  ASSERT_EQ(push.size(), 1u);
  EXPECT_EQ(push[0].data, "b");

  // The other side of the exchange: a probe is answered with our window.
  Solo b;
  Segment ask;
  ask.cmd = IKCP_CMD_WASK;
  ASSERT_EQ(b.Feed(Encode(ask)), 0);
  ikcp_update(b.kcp, 0);
  auto tell = b.Take(IKCP_CMD_WINS);
  ASSERT_EQ(tell.size(), 1u);
  EXPECT_EQ(tell[0].wnd, 512u);
}

TEST(KcpTiming, WithoutCongestionWindowAFullRemoteWindowLeavesInTheFirstFlush) {
  for (int mode : {2, 0}) {
    Solo a(mode);
    for (int i = 0; i < 600; ++i) ikcp_send(a.kcp, "x", 1);
    ikcp_update(a.kcp, 0);
    auto push = a.Take(IKCP_CMD_PUSH);
    if (mode == 2) {
      ASSERT_EQ(push.size(), 512u);
      EXPECT_EQ(push.back().sn, 511u);
    } else {
      EXPECT_LE(push.size(), 1u);  // slow start holds the same burst back
    }
  }
}

TEST(KcpTiming, CheckIsNeverLaterThanOneIntervalAhead) {
  Solo a;
  EXPECT_EQ(ikcp_check(a.kcp, 1234), 1234u);  // never updated: now
  ikcp_update(a.kcp, 1000);
  EXPECT_EQ(ikcp_check(a.kcp, 1000), 1010u);
  EXPECT_EQ(ikcp_check(a.kcp, 1005), 1010u);
  EXPECT_EQ(ikcp_check(a.kcp, 1010), 1010u);
  // A caller whose clock stepped back must still come back within one interval.
  EXPECT_EQ(ikcp_check(a.kcp, 995), 1005u);
  // With a long interval the retransmission timer decides.
  Solo c;
  ikcp_interval(c.kcp, 5000);
  ikcp_update(c.kcp, 1000);  // next flush at 6000
  ikcp_send(c.kcp, "x", 1);
  ikcp_flush(c.kcp);  // sent at 1000, times out at 1200
  EXPECT_EQ(ikcp_check(c.kcp, 1100), 1200u);
  EXPECT_EQ(ikcp_check(c.kcp, 1250), 1250u);  // overdue: now
}

}  // namespace
