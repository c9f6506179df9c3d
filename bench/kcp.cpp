// The WiFi transport under loss, two ways.
//
//  link       KCP alone: two control blocks with this system's settings joined by an in-memory
//             link (loss each way, 20 ms each way) on a simulated millisecond clock, one thread,
//             the sustained message pattern below for 120 simulated seconds. CPU per MB delivered
//             (process CPU time, user + sys) beside a bare memcpy of the same bytes, and one-way
//             message latency p50/p99 in simulated ms. The link is deterministic, so latency
//             figures from two builds differ only if KCP's behaviour does. Median of 5 runs.
//  loopback   the simulated phone's KCP sender, the impairment proxy and the library's
//             KCP-over-UDP endpoint, all on loopback in one process:
//    sustained  1080p30 video-sized messages (a 120 KB key frame every 30, 30 KB otherwise:
//               about 8.2 Mbit/s) paced at 30 per second for `seconds`; one-way message latency
//               (sender's Send to the endpoint's handler) p50/p99, and whether the rate held.
//    saturated  the same messages sent as fast as the sender's window lets: MB/s delivered.
//    cpu        process CPU seconds per MB delivered, over both runs (every thread: phone, proxy,
//               receive and update threads).
// Loss 0, 10 and 30% in both directions, 20 ms added delay in each direction.
// Arguments: --quick (shorter runs), --link (the in-memory link alone).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Stats.h"
#include "NetImpairProxy.h"
#include "Transport.h"
#include "host/HostServices.h"
#include "host/PhoneCameraCtrl.h"
#include "platform/clock.h"
#include "support/QuietHost.h"
#include "wifi/KcpOnUdp.h"
#include "wifi/ikcp.h"

namespace {

using lumo::bench::Median;
using lumo::bench::Percentile;

using Steady = std::chrono::steady_clock;

struct Arrivals : IWiFiDataHandler {
  void HandleReceive(const char* data, int len) override {
    if (len < 12) return;
    uint64_t sentUs = 0;
    std::memcpy(&sentUs, data + 4, 8);
    std::lock_guard<std::mutex> guard(lock);
    latenciesMs.push_back(static_cast<double>(lumo::PerfCounterUs() - sentUs) / 1000.0);
    bytes += static_cast<uint64_t>(len);
    ++count;
  }
  void HandleTimeout() override {}
  std::mutex lock;
  std::vector<double> latenciesMs;
  uint64_t bytes = 0, count = 0;
};


std::string Message(size_t size) {
  std::string m(size, '\x5a');
  const uint32_t n = static_cast<uint32_t>(size - 4);
  for (int i = 0; i < 4; ++i) m[i] = static_cast<char>(n >> (24 - 8 * i));
  const uint64_t now = lumo::PerfCounterUs();
  std::memcpy(&m[4], &now, 8);
  return m;
}

// ---- link: KCP alone on a simulated clock ----

struct LinkDatagram {
  uint32_t due;
  int to;
  uint32_t len;
  char bytes[(lumo::kLumoKcpMtu + lumo::IKCP_OVERHEAD) * 3];
};

// Two control blocks and the datagrams between them, delivered 20 ms after they were sent unless
// the seeded draw drops them.
class SimLink {
 public:
  SimLink(double loss, std::vector<LinkDatagram>& ring) : m_loss(loss), m_ring(ring) {
    for (int i = 0; i < 2; ++i) {
      m_ends[i] = End{this, i};
      kcp[i] = lumo::CreateLumoKcp(&m_ends[i], lumo::kLumoKcpMode);
      lumo::ikcp_setoutput(kcp[i], &SimLink::Output);
    }
  }
  ~SimLink() {
    lumo::ikcp_release(kcp[0]);
    lumo::ikcp_release(kcp[1]);
  }
  void Deliver() {
    while (m_count > 0 && static_cast<int32_t>(now - m_ring[m_head].due) >= 0) {
      const LinkDatagram& d = m_ring[m_head];
      lumo::ikcp_input(kcp[d.to], d.bytes, static_cast<long>(d.len));
      m_head = (m_head + 1) % m_ring.size();
      --m_count;
    }
  }
  lumo::ikcpcb* kcp[2];
  uint32_t now = 1000;

 private:
  struct End {
    SimLink* link;
    int index;
  };
  double Draw() {  // xorshift: cheap next to the KCP work being measured
    m_rng ^= m_rng << 13;
    m_rng ^= m_rng >> 7;
    m_rng ^= m_rng << 17;
    return static_cast<double>(m_rng >> 11) * (1.0 / 9007199254740992.0);
  }
  static int Output(const char* buf, int len, lumo::ikcpcb*, void* user) {
    auto* end = static_cast<End*>(user);
    SimLink* link = end->link;
    if (link->Draw() < link->m_loss || link->m_count == link->m_ring.size()) return len;
    LinkDatagram& d = link->m_ring[(link->m_head + link->m_count++) % link->m_ring.size()];
    d.due = link->now + 20;
    d.to = 1 - end->index;
    d.len = static_cast<uint32_t>(std::min<size_t>(static_cast<size_t>(len), sizeof(d.bytes)));
    std::memcpy(d.bytes, buf, d.len);
    return len;
  }
  End m_ends[2];
  double m_loss;
  uint64_t m_rng = 0x9E3779B97F4A7C15ull;
  std::vector<LinkDatagram>& m_ring;
  size_t m_head = 0, m_count = 0;
};

struct LinkResult {
  double cpuMsPerMb = 0, memcpyMsPerMb = 0, p50 = 0, p99 = 0, mb = 0;
  size_t delivered = 0, sent = 0;
};

LinkResult RunLink(double loss, uint32_t seconds) {
  static std::vector<LinkDatagram> ring(1024);  // allocated and touched once, outside the timing
  SimLink link(loss, ring);
  std::vector<char> buffer(KcpOnUdp::kMessageBufferSize);
  std::vector<double> latencies;
  std::vector<size_t> sizes;
  std::string message;
  LinkResult r;
  uint64_t bytes = 0;
  const uint32_t start = link.now, end = start + seconds * 1000;
  uint32_t nextSend = start;
  const std::clock_t cpu0 = std::clock();
  for (;;) {
    ++link.now;
    if (static_cast<int32_t>(link.now - end) < 0 && static_cast<int32_t>(link.now - nextSend) >= 0) {
      const size_t size = r.sent % 30 == 0 ? 120000 : 30000;
      message.assign(size, '\x5a');
      std::memcpy(&message[4], &link.now, 4);
      lumo::ikcp_send(link.kcp[0], message.data(), static_cast<int>(size));
      ++r.sent;
      nextSend = start + static_cast<uint32_t>(r.sent * 1000 / 30);
    }
    link.Deliver();
    for (int n; (n = lumo::ikcp_recv(link.kcp[1], buffer.data(), static_cast<int>(buffer.size()))) > 0;) {
      uint32_t sentAt = 0;
      std::memcpy(&sentAt, buffer.data() + 4, 4);
      latencies.push_back(static_cast<double>(link.now - sentAt));
      sizes.push_back(static_cast<size_t>(n));
      bytes += static_cast<uint64_t>(n);
    }
    lumo::ikcp_update(link.kcp[0], link.now);
    lumo::ikcp_update(link.kcp[1], link.now);
    const int32_t past = static_cast<int32_t>(link.now - end);
    if ((past >= 0 && latencies.size() >= r.sent) || past > 60000) break;
  }
  const double cpu = static_cast<double>(std::clock() - cpu0) / CLOCKS_PER_SEC;

  // The same bytes, message by message, with a bare memcpy into the same receive buffer.
  std::string source(120000, '\x5a');
  const std::clock_t copy0 = std::clock();
  for (size_t size : sizes) std::memcpy(buffer.data(), source.data(), size);
  volatile char sink = buffer[static_cast<size_t>(bytes % 1000)];
  (void)sink;
  const double copied = static_cast<double>(std::clock() - copy0) / CLOCKS_PER_SEC;

  r.mb = static_cast<double>(bytes) / 1e6;
  r.delivered = latencies.size();
  r.cpuMsPerMb = r.mb > 0 ? cpu * 1000 / r.mb : 0;
  r.memcpyMsPerMb = r.mb > 0 ? copied * 1000 / r.mb : 0;
  r.p50 = Percentile(latencies, 0.50);
  r.p99 = Percentile(latencies, 0.99);
  return r;
}

void LinkFigures(bool quick) {
  const int runs = quick ? 3 : 5;
  for (double loss : {0.0, 0.1, 0.3}) {
    std::vector<double> cpu, copy;
    LinkResult last;
    for (int i = 0; i < runs; ++i) {
      last = RunLink(loss, quick ? 30 : 120);
      cpu.push_back(last.cpuMsPerMb);
      copy.push_back(last.memcpyMsPerMb);
    }
    const double cpuMedian = Percentile(cpu, 0.5), copyMedian = Percentile(copy, 0.5);
    std::printf("kcp link loss %2.0f%% +20 ms each way | %.1f MB, %zu/%zu messages, latency p50 %.0f ms p99 %.0f ms | "
                "cpu %.3f ms/MB (median of %d, min %.3f) | memcpy %.4f ms/MB | kcp/memcpy %.0fx\n",
                loss * 100, last.mb, last.delivered, last.sent, last.p50, last.p99, cpuMedian, runs,
                *std::min_element(cpu.begin(), cpu.end()), copyMedian, copyMedian > 0 ? cpuMedian / copyMedian : 0.0);
    std::fflush(stdout);
  }
}

// ---- loopback: the endpoint, the proxy and the simulated phone ----

struct Result {
  double p50 = 0, p99 = 0, offeredMbit = 0, deliveredMbit = 0, mbPerSecond = 0, mb = 0;
  uint64_t sent = 0, delivered = 0;
};

Result Run(double loss, bool paced, double seconds, uint32_t seed) {
  lumo::netimpair::ProxyConfig config;
  config.target = {lumo::kIpv4Loopback, KcpOnUdp::kPort};
  config.toTarget.dropRate = config.toClient.dropRate = loss;
  config.toTarget.delayMs = config.toClient.delayMs = 20;
  config.seed = seed;
  lumo::netimpair::NetImpairProxy proxy(config);
  CPhoneCameraCtrl ctrl;
  Arrivals arrivals;
  KcpOnUdp endpoint(&ctrl);
  Result r;
  if (!proxy.Start() || !endpoint.StartListening(0)) {
    std::fprintf(stderr, "cannot start the proxy or bind port 10099\n");
    return r;
  }
  endpoint.SetHandler(&arrivals);
  endpoint.StartUpdate();
  lumo::phonesim::PhoneSimOptions options;
  options.transport = "kcp";
  options.port = 0;
  options.pcPort = proxy.ListenEndpoint().port;
  auto phone = lumo::phonesim::MakeKcpTransport(options);
  std::string error;
  if (!phone->Open(error) || !phone->WaitForPeer()) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return r;
  }
  const auto start = Steady::now();
  const auto end = start + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(seconds));
  uint64_t offered = 0;
  for (uint64_t i = 0; Steady::now() < end; ++i) {
    const size_t size = i % 30 == 0 ? 120000 : 30000;
    if (!phone->Send(Message(size))) break;
    offered += size;
    ++r.sent;
    if (paced) std::this_thread::sleep_until(start + std::chrono::microseconds((i + 1) * 1000000 / 30));
  }
  // Everything sent is given time to arrive (bounded).
  const auto drainEnd = Steady::now() + std::chrono::seconds(10);
  while (Steady::now() < drainEnd) {
    {
      std::lock_guard<std::mutex> guard(arrivals.lock);
      if (arrivals.count >= r.sent) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const double elapsed = std::chrono::duration<double>(Steady::now() - start).count();
  phone->Stop();
  endpoint.Stop();
  std::lock_guard<std::mutex> guard(arrivals.lock);
  r.delivered = arrivals.count;
  r.mb = static_cast<double>(arrivals.bytes) / 1e6;
  r.p50 = Percentile(arrivals.latenciesMs, 0.50);
  r.p99 = Percentile(arrivals.latenciesMs, 0.99);
  r.offeredMbit = static_cast<double>(offered) * 8 / seconds / 1e6;
  r.deliveredMbit = static_cast<double>(arrivals.bytes) * 8 / elapsed / 1e6;
  r.mbPerSecond = static_cast<double>(arrivals.bytes) / elapsed / 1e6;
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  lumo::test::QuietHost host;
  lumo::SetHostServices(&host);
  bool quick = false, linkOnly = false;
  for (int i = 1; i < argc; ++i) {
    quick = quick || std::strcmp(argv[i], "--quick") == 0;
    linkOnly = linkOnly || std::strcmp(argv[i], "--link") == 0;
  }
  LinkFigures(quick);
  if (linkOnly) return 0;
  const double seconds = quick ? 2 : 10;
  for (double loss : {0.0, 0.1, 0.3}) {
    const std::clock_t cpu0 = std::clock();
    const Result sustained = Run(loss, true, seconds, 11);
    const Result saturated = Run(loss, false, quick ? 1 : 4, 12);
    const double cpu = static_cast<double>(std::clock() - cpu0) / CLOCKS_PER_SEC;
    std::printf("kcp loss %2.0f%% +20 ms each way | sustained: %.1f Mbit/s offered, %.1f delivered, %llu/%llu "
                "messages, latency p50 %.1f ms p99 %.1f ms | saturated: %.2f MB/s (%llu/%llu) | cpu %.3f ms/MB\n",
                loss * 100, sustained.offeredMbit, sustained.deliveredMbit,
                static_cast<unsigned long long>(sustained.delivered), static_cast<unsigned long long>(sustained.sent),
                sustained.p50, sustained.p99, saturated.mbPerSecond, static_cast<unsigned long long>(saturated.delivered),
                static_cast<unsigned long long>(saturated.sent), cpu * 1000 / std::max(0.001, sustained.mb + saturated.mb));
    std::fflush(stdout);
  }
  return 0;
}
