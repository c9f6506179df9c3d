#include "NetImpairProxy.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "platform/clock.h"

namespace lumo::netimpair {
namespace {

// A relay wakes at least this often even when nothing is due, so that a stop whose wake-up
// datagram went missing still ends it promptly.
constexpr uint32_t kLongestWaitMs = 100;
constexpr uint32_t kStopJoinMs = 5000;
constexpr size_t kLargestDatagram = 65536;

bool SameEndpoint(const Ipv4Endpoint& a, const Ipv4Endpoint& b) { return a.address == b.address && a.port == b.port; }

// A socket bound to "any" is reached through loopback from here.
Ipv4Endpoint Reachable(Ipv4Endpoint e) {
  if (e.address == kIpv4Any) e.address = kIpv4Loopback;
  return e;
}

SocketHandle OpenBound(const Ipv4Endpoint& at, Ipv4Endpoint& bound) {
  SocketHandle s = OpenUdpSocket();
  if (s == kInvalidSocket) return s;
  if (!BindSocket(s, at) || !LocalEndpoint(s, bound)) CloseSocket(s);
  return s;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

ImpairDecider::ImpairDecider(const ImpairConfig& config, uint32_t seed) : m_config(config), m_random(seed) {}

double ImpairDecider::Uniform() { return static_cast<double>(m_random()) / 4294967296.0; }

ImpairDecision ImpairDecider::Next() {
  const double drop = Uniform(), duplicate = Uniform(), reorder = Uniform(), jitter = Uniform();
  ImpairDecision d;
  d.drop = drop < m_config.dropRate;
  d.duplicate = !d.drop && duplicate < m_config.duplicateRate;
  d.reorder = !d.drop && reorder < m_config.reorderRate;
  int64_t delayUs = static_cast<int64_t>(m_config.delayMs) * 1000;
  if (m_config.jitterMs > 0) {
    const int64_t spanUs = static_cast<int64_t>(m_config.jitterMs) * 1000;
    delayUs += static_cast<int64_t>(jitter * static_cast<double>(2 * spanUs + 1)) - spanUs;
  }
  d.delayUs = delayUs > 0 ? static_cast<uint64_t>(delayUs) : 0;
  return d;
}

uint32_t ImpairDecider::SeedFor(uint32_t proxySeed, Direction direction) {
  // The two directions must not make the same choices for the same datagram number.
  return direction == Direction::ToTarget ? proxySeed : proxySeed ^ 0x9E3779B9u;
}

// ---------------------------------------------------------------------------------------------

struct NetImpairProxy::Relay {
  Relay(Direction d, SocketHandle from, SocketHandle to, const ImpairConfig& config, uint32_t seed)
      : direction(d), in(from), out(to), decider(config, seed), holdUs(uint64_t{config.reorderHoldMs} * 1000) {}

  Direction direction;
  SocketHandle in;   // datagrams of this direction arrive here
  SocketHandle out;  // and leave from here
  ImpairDecider decider;
  uint64_t holdUs;

  // Datagrams in flight by (time due, arrival order): equal times keep their order.
  std::map<std::pair<uint64_t, uint64_t>, std::vector<unsigned char>> queue;
  uint64_t nextOrder = 0;
  size_t queuedBytes = 0;

  bool holding = false;  // one datagram held back for reordering
  std::vector<unsigned char> held;
  uint64_t heldDueUs = 0;
  uint64_t heldDeadlineUs = 0;
  bool heldDuplicate = false;

  DirectionCounters counters;  // under the proxy's lock
};

NetImpairProxy::NetImpairProxy(const ProxyConfig& config) : m_config(config) {}

NetImpairProxy::~NetImpairProxy() { Stop(); }

bool NetImpairProxy::Start() {
  if (m_relays[0] && !m_stopping) return false;  // already running
  Stop();
  if (!NetStartup()) return false;
  Ipv4Endpoint listen, upstream, waker;
  SocketHandle l = OpenBound(m_config.listen, listen);
  SocketHandle u = OpenBound(Ipv4Endpoint{m_config.listen.address, 0}, upstream);
  SocketHandle w = OpenBound(Ipv4Endpoint{kIpv4Loopback, 0}, waker);
  if (l == kInvalidSocket || u == kInvalidSocket || w == kInvalidSocket) {
    CloseSocket(l);
    CloseSocket(u);
    CloseSocket(w);
    return false;
  }
  {
    std::lock_guard<std::recursive_mutex> guard(m_mutex);
    m_listen = l;
    m_upstream = u;
    m_waker = w;
    m_listenEndpoint = listen;
    m_upstreamEndpoint = upstream;
    m_client = Ipv4Endpoint{};
    m_relays[0] = std::make_unique<Relay>(Direction::ToTarget, l, u, m_config.toTarget,
                                          ImpairDecider::SeedFor(m_config.seed, Direction::ToTarget));
    m_relays[1] = std::make_unique<Relay>(Direction::ToClient, u, l, m_config.toClient,
                                          ImpairDecider::SeedFor(m_config.seed, Direction::ToClient));
  }
  m_stopping = false;
  for (int i = 0; i < 2; ++i) {
    Relay* relay = m_relays[i].get();
    if (!m_threads[i].Start([this, relay] { Run(*relay); })) {
      Stop();
      return false;
    }
  }
  return true;
}

bool NetImpairProxy::Stop() {
  SocketHandle waker;
  {
    std::lock_guard<std::recursive_mutex> guard(m_mutex);
    if (!m_relays[0] || m_stopping) return true;
    waker = m_waker;
  }
  m_stopping = true;
  // Each relay may be blocked waiting for its socket: one datagram each wakes it to see the flag.
  const unsigned char wake = 0;
  SendToSocket(waker, &wake, 1, Reachable(m_listenEndpoint));
  SendToSocket(waker, &wake, 1, Reachable(m_upstreamEndpoint));
  bool ended = m_threads[0].Join(kStopJoinMs);
  ended = m_threads[1].Join(kStopJoinMs) && ended;
  std::lock_guard<std::recursive_mutex> guard(m_mutex);
  CloseSocket(m_listen);
  CloseSocket(m_upstream);
  CloseSocket(m_waker);
  Discard();
  return ended;
}

void NetImpairProxy::Discard() {
  for (auto& relay : m_relays) {
    if (!relay) continue;
    relay->queue.clear();
    relay->queuedBytes = 0;
    relay->holding = false;
    relay->held.clear();
  }
}

Ipv4Endpoint NetImpairProxy::ListenEndpoint() const {
  std::lock_guard<std::recursive_mutex> guard(m_mutex);
  return m_listenEndpoint;
}

Ipv4Endpoint NetImpairProxy::UpstreamEndpoint() const {
  std::lock_guard<std::recursive_mutex> guard(m_mutex);
  return m_upstreamEndpoint;
}

Ipv4Endpoint NetImpairProxy::Client() const {
  std::lock_guard<std::recursive_mutex> guard(m_mutex);
  return m_client;
}

DirectionCounters NetImpairProxy::Counters(Direction direction) const {
  std::lock_guard<std::recursive_mutex> guard(m_mutex);
  const auto& relay = m_relays[static_cast<int>(direction)];
  return relay ? relay->counters : DirectionCounters{};
}

// Queues one or two copies; a full queue drops the copy that does not fit.
void NetImpairProxy::Enqueue(Relay& r, std::vector<unsigned char> bytes, uint64_t dueUs, bool duplicate) {
  std::lock_guard<std::recursive_mutex> guard(m_mutex);
  for (int copy = 0; copy < (duplicate ? 2 : 1); ++copy) {
    if (r.queue.size() >= m_config.maxQueuedDatagrams || r.queuedBytes + bytes.size() > m_config.maxQueuedBytes) {
      ++r.counters.overflowed;
      continue;
    }
    if (copy == 1) ++r.counters.duplicated;
    r.queuedBytes += bytes.size();
    r.queue.emplace(std::make_pair(dueUs, r.nextOrder++), copy == 0 && duplicate ? bytes : std::move(bytes));
  }
}

void NetImpairProxy::Run(Relay& r) {
  std::vector<unsigned char> buffer(kLargestDatagram);
  while (!m_stopping) {
    uint64_t now = PerfCounterUs();
    if (r.holding && now >= r.heldDeadlineUs) {
      // Nothing came to overtake it in time: it leaves in its own place, not reordered.
      r.holding = false;
      Enqueue(r, std::move(r.held), r.heldDueUs, r.heldDuplicate);
    }
    while (!r.queue.empty() && r.queue.begin()->first.first <= now) {
      auto node = r.queue.extract(r.queue.begin());
      const std::vector<unsigned char>& bytes = node.mapped();
      r.queuedBytes -= bytes.size();
      Ipv4Endpoint to = m_config.target;
      {
        std::lock_guard<std::recursive_mutex> guard(m_mutex);
        if (r.direction == Direction::ToClient) to = m_client;
      }
      bool sent = to.port != 0 && SendToSocket(r.out, bytes.data(), bytes.size(), to) == static_cast<int>(bytes.size());
      std::lock_guard<std::recursive_mutex> guard(m_mutex);
      ++(sent ? r.counters.forwarded : r.counters.dropped);
    }

    uint64_t nextUs = UINT64_MAX;
    if (!r.queue.empty()) nextUs = r.queue.begin()->first.first;
    if (r.holding) nextUs = std::min(nextUs, r.heldDeadlineUs);
    uint32_t waitMs = kLongestWaitMs;
    if (nextUs != UINT64_MAX) {
      // Rounded up, so a relay never spins on a wait of zero while a datagram is not yet due.
      uint64_t untilUs = nextUs > now ? nextUs - now : 0;
      waitMs = static_cast<uint32_t>(std::min<uint64_t>(kLongestWaitMs, (untilUs + 999) / 1000));
    }
    NetWait w = WaitReadable(r.in, waitMs);
    if (m_stopping || w == NetWait::Error) break;
    if (w != NetWait::Readable) continue;
    Ipv4Endpoint from;
    int n = RecvFromSocket(r.in, buffer.data(), buffer.size(), from);
    // A failed receive is an ICMP refusal left by an earlier send (the target not listening
    // yet); the relay goes on.
    if (n < 0) continue;
    now = PerfCounterUs();

    ImpairDecision d;
    {
      std::lock_guard<std::recursive_mutex> guard(m_mutex);
      if (r.direction == Direction::ToTarget && !SameEndpoint(from, m_client)) m_client = from;
      ++r.counters.received;
      d = r.decider.Next();
      if (d.drop) {
        ++r.counters.dropped;
        continue;
      }
    }
    std::vector<unsigned char> bytes(buffer.begin(), buffer.begin() + n);
    const uint64_t dueUs = now + d.delayUs;
    if (d.reorder && !r.holding) {
      r.holding = true;
      r.held = std::move(bytes);
      r.heldDueUs = dueUs;
      r.heldDeadlineUs = dueUs + r.holdUs;
      r.heldDuplicate = d.duplicate;
      continue;
    }
    Enqueue(r, std::move(bytes), dueUs, d.duplicate);
    if (r.holding) {
      // This is the datagram the held one waited for: it leaves right after it, unless that
      // would be later than the hold allows.
      r.holding = false;
      bool overtaken = dueUs <= r.heldDeadlineUs;
      Enqueue(r, std::move(r.held), overtaken ? std::max(dueUs, r.heldDueUs) : r.heldDueUs,
              r.heldDuplicate);
      if (overtaken) {
        std::lock_guard<std::recursive_mutex> guard(m_mutex);
        ++r.counters.reordered;
      }
    }
  }
}

}  // namespace lumo::netimpair
