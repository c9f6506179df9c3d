// The WiFi transport under loss: the simulated phone's KCP sender, the impairment proxy and the
// library's KCP-over-UDP endpoint, all on loopback in one process.
//
//  sustained  1080p30 video-sized messages (a 120 KB key frame every 30, 30 KB otherwise:
//             about 8.2 Mbit/s) paced at 30 per second for `seconds`; one-way message latency
//             (sender's Send to the endpoint's handler) p50/p99, and whether the rate held.
//  saturated  the same messages sent as fast as the sender's window lets: MB/s delivered.
//  cpu        process CPU seconds per MB delivered, over both runs.
// Loss 0, 10 and 30% in both directions, 20 ms added delay in each direction.
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

#include "NetImpairProxy.h"
#include "Transport.h"
#include "host/HostServices.h"
#include "host/PhoneCameraCtrl.h"
#include "platform/clock.h"
#include "support/QuietHost.h"
#include "wifi/KcpOnUdp.h"

namespace {

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

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

std::string Message(size_t size) {
  std::string m(size, '\x5a');
  const uint32_t n = static_cast<uint32_t>(size - 4);
  for (int i = 0; i < 4; ++i) m[i] = static_cast<char>(n >> (24 - 8 * i));
  const uint64_t now = lumo::PerfCounterUs();
  std::memcpy(&m[4], &now, 8);
  return m;
}

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
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  const double seconds = quick ? 2 : 10;
  for (double loss : {0.0, 0.1, 0.3}) {
    const std::clock_t cpu0 = std::clock();
    const Result sustained = Run(loss, true, seconds, 11);
    const Result saturated = Run(loss, false, quick ? 1 : 4, 12);
    const double cpu = static_cast<double>(std::clock() - cpu0) / CLOCKS_PER_SEC;
    std::printf("kcp loss %2.0f%% +20 ms each way | sustained: %.1f Mbit/s offered, %.1f delivered, %llu/%llu "
                "messages, latency p50 %.1f ms p99 %.1f ms | saturated: %.2f MB/s (%llu/%llu) | cpu %.3f s/MB\n",
                loss * 100, sustained.offeredMbit, sustained.deliveredMbit,
                static_cast<unsigned long long>(sustained.delivered), static_cast<unsigned long long>(sustained.sent),
                sustained.p50, sustained.p99, saturated.mbPerSecond, static_cast<unsigned long long>(saturated.delivered),
                static_cast<unsigned long long>(saturated.sent), cpu / std::max(0.001, sustained.mb + saturated.mb));
    std::fflush(stdout);
  }
  return 0;
}
