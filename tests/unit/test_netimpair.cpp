// The network impairment proxy, between two loopback sockets on ephemeral ports: a "client"
// standing in for the phone and a "target" standing in for the library.
#include <gtest/gtest.h>

#include <cstring>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "NetImpairProxy.h"
#include "platform/clock.h"
#include "platform/socket.h"

namespace {

using lumo::Ipv4Endpoint;
using lumo::SocketHandle;
using lumo::netimpair::Direction;
using lumo::netimpair::ImpairConfig;
using lumo::netimpair::ImpairDecider;
using lumo::netimpair::NetImpairProxy;
using lumo::netimpair::ProxyConfig;

constexpr uint32_t kArrivalGuardMs = 5000;  // only reached when a datagram is lost for good

struct BoundUdp {
  BoundUdp() {
    EXPECT_TRUE(lumo::NetStartup());
    socket = lumo::OpenUdpSocket();
    EXPECT_TRUE(lumo::BindSocket(socket, Ipv4Endpoint{lumo::kIpv4Loopback, 0}));
    EXPECT_TRUE(lumo::LocalEndpoint(socket, endpoint));
  }
  ~BoundUdp() { lumo::CloseSocket(socket); }
  SocketHandle socket = lumo::kInvalidSocket;
  Ipv4Endpoint endpoint;
};

bool Receive(SocketHandle s, std::vector<unsigned char>& bytes, Ipv4Endpoint& from) {
  if (lumo::WaitReadable(s, kArrivalGuardMs) != lumo::NetWait::Readable) return false;
  bytes.resize(65536);
  int n = lumo::RecvFromSocket(s, bytes.data(), bytes.size(), from);
  if (n < 0) return false;
  bytes.resize(static_cast<size_t>(n));
  return true;
}

// A numbered datagram of varying length (1400 bytes at most, as a KCP segment would be).
std::vector<unsigned char> Numbered(uint32_t seq, uint64_t stampUs = 0) {
  std::vector<unsigned char> d(12 + seq * 37 % 1389);
  std::memcpy(d.data(), &seq, 4);
  std::memcpy(d.data() + 4, &stampUs, 8);
  for (size_t i = 12; i < d.size(); ++i) d[i] = static_cast<unsigned char>(seq + i * 13);
  return d;
}

uint32_t SeqOf(const std::vector<unsigned char>& d) {
  uint32_t seq = 0;
  if (d.size() >= 4) std::memcpy(&seq, d.data(), 4);
  return seq;
}

ProxyConfig AimedAt(ProxyConfig config, const Ipv4Endpoint& target) {
  config.target = target;
  return config;
}

struct Rig {
  explicit Rig(const ProxyConfig& config) : proxy(AimedAt(config, target.endpoint)) {
    EXPECT_TRUE(proxy.Start());
    entry = proxy.ListenEndpoint();
    EXPECT_NE(entry.port, 0);
  }
  void Send(const std::vector<unsigned char>& d) {
    ASSERT_EQ(lumo::SendToSocket(client.socket, d.data(), d.size(), entry), static_cast<int>(d.size()));
  }
  BoundUdp client, target;
  NetImpairProxy proxy;
  Ipv4Endpoint entry;
};

TEST(NetImpairProxyTest, WithoutImpairmentAThousandDatagramsArriveIntactAndInOrder) {
  Rig rig(ProxyConfig{});
  constexpr uint32_t kBatch = 25;  // small batches keep loopback socket buffers from overflowing
  uint32_t expected = 0;
  for (uint32_t seq = 0; seq < 1000; seq += kBatch) {
    for (uint32_t i = seq; i < seq + kBatch; ++i) rig.Send(Numbered(i));
    for (uint32_t i = seq; i < seq + kBatch; ++i) {
      std::vector<unsigned char> got;
      Ipv4Endpoint from;
      ASSERT_TRUE(Receive(rig.target.socket, got, from)) << "datagram " << i << " never came";
      ASSERT_EQ(SeqOf(got), expected);
      EXPECT_EQ(got, Numbered(expected));
      EXPECT_EQ(from.port, rig.proxy.UpstreamEndpoint().port);
      ++expected;
    }
  }
  ASSERT_TRUE(rig.proxy.Stop());  // the counters are final once the relays have ended
  auto c = rig.proxy.Counters(Direction::ToTarget);
  EXPECT_EQ(c.received, 1000u);
  EXPECT_EQ(c.forwarded, 1000u);
  EXPECT_EQ(c.dropped + c.duplicated + c.reordered + c.overflowed, 0u);
  EXPECT_EQ(rig.proxy.Client().port, rig.client.endpoint.port);
}

TEST(ImpairDeciderTest, TheSameSeedGivesTheSameDecisionsAtAboutTheConfiguredRates) {
  ImpairConfig config;
  config.dropRate = 0.3;
  config.duplicateRate = 0.1;
  config.delayMs = 5;
  config.jitterMs = 10;  // more than the delay: some delays would be negative and must be zero
  ImpairDecider a(config, 42), b(config, 42), other(config, 43);
  int drops = 0, duplicates = 0, zeroDelays = 0, differences = 0;
  for (int i = 0; i < 1000; ++i) {
    auto x = a.Next();
    auto y = b.Next();
    auto z = other.Next();
    ASSERT_EQ(x.drop, y.drop);
    ASSERT_EQ(x.duplicate, y.duplicate);
    ASSERT_EQ(x.delayUs, y.delayUs);
    differences += x.drop != z.drop;
    drops += x.drop;
    duplicates += x.duplicate;
    EXPECT_FALSE(x.drop && x.duplicate);
    EXPECT_LE(x.delayUs, 15000u);
    zeroDelays += x.delayUs == 0;
  }
  EXPECT_GT(drops, 240);
  EXPECT_LT(drops, 360);
  EXPECT_GT(duplicates, 35);  // 10% of the ~700 that were not dropped
  EXPECT_LT(duplicates, 110);
  EXPECT_GT(zeroDelays, 100);  // a quarter of the jitter range lies below -5 ms
  EXPECT_GT(differences, 100);
  // The two directions of one proxy do not share their choices.
  EXPECT_NE(ImpairDecider::SeedFor(42, Direction::ToTarget), ImpairDecider::SeedFor(42, Direction::ToClient));
}

TEST(NetImpairProxyTest, DropsExactlyTheDatagramsItsSeedChooses) {
  ProxyConfig config;
  config.seed = 7;
  config.toTarget.dropRate = 0.3;
  Rig rig(config);
  ImpairDecider replay(config.toTarget, ImpairDecider::SeedFor(7, Direction::ToTarget));
  uint64_t predictedDrops = 0;
  uint32_t seq = 0;
  // Past the thousandth, datagrams go on until one survives: its arrival shows that the proxy
  // has dealt with every one before it, the dropped ones included.
  for (bool survived = false; seq < 1000 || !survived; ++seq) {
    rig.Send(Numbered(seq));
    survived = !replay.Next().drop;
    if (!survived) {
      ++predictedDrops;
      continue;
    }
    // Waiting for each survivor keeps the socket buffers small and checks it is the right one.
    std::vector<unsigned char> got;
    Ipv4Endpoint from;
    ASSERT_TRUE(Receive(rig.target.socket, got, from)) << "datagram " << seq << " never came";
    ASSERT_EQ(SeqOf(got), seq);
  }
  EXPECT_GT(predictedDrops, 240u);
  EXPECT_LT(predictedDrops, 360u);
  ASSERT_TRUE(rig.proxy.Stop());
  auto c = rig.proxy.Counters(Direction::ToTarget);
  EXPECT_EQ(c.received, seq);
  EXPECT_EQ(c.dropped, predictedDrops);
  EXPECT_EQ(c.forwarded, seq - predictedDrops);
}

TEST(NetImpairProxyTest, DuplicatesAndReordersHappenAtAboutTheirRates) {
  ProxyConfig config;
  config.seed = 11;
  config.toTarget.duplicateRate = 0.1;
  config.toTarget.reorderRate = 0.1;
  Rig rig(config);
  std::map<uint32_t, int> copies;
  uint64_t arrivals = 0, late = 0;
  uint32_t highest = 0;
  auto receiveOne = [&] {
    std::vector<unsigned char> got;
    Ipv4Endpoint from;
    if (!Receive(rig.target.socket, got, from)) return false;
    uint32_t seq = SeqOf(got);
    EXPECT_EQ(got, Numbered(seq));
    if (copies[seq]++ == 0 && arrivals > 0 && seq < highest) ++late;
    highest = std::max(highest, seq);
    ++arrivals;
    return true;
  };
  constexpr uint32_t kBatch = 20;
  for (uint32_t seq = 0; seq < 1000; seq += kBatch) {
    for (uint32_t i = seq; i < seq + kBatch; ++i) rig.Send(Numbered(i));
    while (copies.size() < seq + kBatch) ASSERT_TRUE(receiveOne()) << "batch from " << seq << " incomplete";
  }
  // Every original is in; the duplicates the proxy counted must all come too, and no more.
  auto c = rig.proxy.Counters(Direction::ToTarget);
  while (arrivals < 1000 + c.duplicated) ASSERT_TRUE(receiveOne());
  EXPECT_EQ(lumo::WaitReadable(rig.target.socket, 0), lumo::NetWait::TimedOut);
  ASSERT_TRUE(rig.proxy.Stop());
  c = rig.proxy.Counters(Direction::ToTarget);
  EXPECT_EQ(c.received, 1000u);
  EXPECT_EQ(c.forwarded, 1000u + c.duplicated);
  EXPECT_GT(c.duplicated, 60u);
  EXPECT_LT(c.duplicated, 140u);
  // A held datagram waits for the next one, and a second choice while one is held is void, so
  // about r/(1+r) of the datagrams come late; each reorder the proxy counted is one late arrival.
  EXPECT_GT(c.reordered, 45u);
  EXPECT_LT(c.reordered, 140u);
  EXPECT_EQ(late, c.reordered);
}

TEST(NetImpairProxyTest, NothingArrivesBeforeItsDelay) {
  for (uint32_t jitterMs : {0u, 10u}) {
    ProxyConfig config;
    config.toTarget.delayMs = 20;
    config.toTarget.jitterMs = jitterMs;
    Rig rig(config);
    const uint64_t earliestUs = (20 - jitterMs) * 1000;
    for (uint32_t seq = 0; seq < 10; ++seq) {
      rig.Send(Numbered(seq, lumo::PerfCounterUs()));
      std::vector<unsigned char> got;
      Ipv4Endpoint from;
      ASSERT_TRUE(Receive(rig.target.socket, got, from));
      uint64_t sentUs = 0;
      std::memcpy(&sentUs, got.data() + 4, 8);
      uint64_t tookUs = lumo::PerfCounterUs() - sentUs;
      EXPECT_GE(tookUs, earliestUs) << "jitter " << jitterMs << " datagram " << seq;
      EXPECT_LT(tookUs, 2000000u);  // sanity only: a datagram is not lost in the queue
    }
  }
}

TEST(NetImpairProxyTest, RepliesGoBackToTheNewestClient) {
  Rig rig(ProxyConfig{});
  std::vector<unsigned char> got;
  Ipv4Endpoint from;
  rig.Send({'h', 'i'});
  ASSERT_TRUE(Receive(rig.target.socket, got, from));
  // The target answers where the datagram came from, as the library does.
  ASSERT_EQ(lumo::SendToSocket(rig.target.socket, "reply1", 6, from), 6);
  ASSERT_TRUE(Receive(rig.client.socket, got, from));
  EXPECT_EQ(std::string(got.begin(), got.end()), "reply1");
  EXPECT_EQ(from.port, rig.entry.port);

  BoundUdp newer;  // the phone came back from another port
  ASSERT_EQ(lumo::SendToSocket(newer.socket, "again", 5, rig.entry), 5);
  ASSERT_TRUE(Receive(rig.target.socket, got, from));
  ASSERT_EQ(lumo::SendToSocket(rig.target.socket, "reply2", 6, from), 6);
  ASSERT_TRUE(Receive(newer.socket, got, from));
  EXPECT_EQ(std::string(got.begin(), got.end()), "reply2");
  EXPECT_EQ(lumo::WaitReadable(rig.client.socket, 0), lumo::NetWait::TimedOut);
  EXPECT_EQ(rig.proxy.Client().port, newer.endpoint.port);
  ASSERT_TRUE(rig.proxy.Stop());
  EXPECT_EQ(rig.proxy.Counters(Direction::ToClient).forwarded, 2u);
}

TEST(NetImpairProxyTest, AFullQueueDropsAndCountsTheOverflow) {
  ProxyConfig config;
  config.toTarget.delayMs = 1000;  // the burst is all in long before the first one leaves
  config.maxQueuedDatagrams = 4;
  Rig rig(config);
  for (uint32_t seq = 0; seq < 10; ++seq) rig.Send(Numbered(seq));
  for (uint32_t seq = 0; seq < 4; ++seq) {
    std::vector<unsigned char> got;
    Ipv4Endpoint from;
    ASSERT_TRUE(Receive(rig.target.socket, got, from));
    EXPECT_EQ(SeqOf(got), seq);
  }
  ASSERT_TRUE(rig.proxy.Stop());
  auto c = rig.proxy.Counters(Direction::ToTarget);
  EXPECT_EQ(c.received, 10u);
  EXPECT_EQ(c.overflowed, 6u);
  EXPECT_EQ(c.forwarded, 4u);
}

TEST(NetImpairProxyTest, StopEndsTheRelayAndStartBeginsAFreshOne) {
  Rig rig(ProxyConfig{});
  EXPECT_FALSE(rig.proxy.Start());  // already running
  rig.Send({1});
  std::vector<unsigned char> got;
  Ipv4Endpoint from;
  ASSERT_TRUE(Receive(rig.target.socket, got, from));
  EXPECT_TRUE(rig.proxy.Stop());
  EXPECT_TRUE(rig.proxy.Stop());  // twice is harmless
  EXPECT_EQ(rig.proxy.Counters(Direction::ToTarget).forwarded, 1u);  // still readable

  ASSERT_TRUE(rig.proxy.Start());
  EXPECT_EQ(rig.proxy.Counters(Direction::ToTarget).received, 0u);
  ASSERT_EQ(lumo::SendToSocket(rig.client.socket, "\x02", 1, rig.proxy.ListenEndpoint()), 1);
  ASSERT_TRUE(Receive(rig.target.socket, got, from));
  EXPECT_EQ(got, std::vector<unsigned char>{2});
  EXPECT_TRUE(rig.proxy.Stop());
}

}  // namespace
