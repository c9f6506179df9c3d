// A UDP relay on loopback that sits between a simulated phone and the library and makes the
// link as bad as a test or benchmark asks: dropped, duplicated, reordered and delayed datagrams,
// each decided by a seeded generator so that a run can be repeated.
//
// The first address that sends to the listening socket is the client (the phone side); its
// datagrams leave for the target from a second, upstream socket, and whatever arrives on the
// upstream socket goes back to the client. The library answers the address its last datagram
// came from, which is the upstream socket, so replies find their way without configuration.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "platform/socket.h"
#include "platform/thread.h"

namespace lumo::netimpair {

// Rates are probabilities per datagram (0..1). A datagram leaves delayMs +- jitterMs (uniform)
// after it arrived, never before it arrived.
struct ImpairConfig {
  double dropRate = 0;
  double duplicateRate = 0;
  // A datagram chosen for reordering is held back and leaves right after the next one of its
  // direction; when no next one comes within reorderHoldMs it leaves on its own, so that a hold
  // never stalls a quiet link.
  double reorderRate = 0;
  uint32_t reorderHoldMs = 10;
  uint32_t delayMs = 0;
  uint32_t jitterMs = 0;
};

enum class Direction { ToTarget = 0, ToClient = 1 };

struct ProxyConfig {
  Ipv4Endpoint listen{kIpv4Loopback, 0};  // port 0: the system picks one (see ListenEndpoint)
  Ipv4Endpoint target{kIpv4Loopback, 0};
  ImpairConfig toTarget;
  ImpairConfig toClient;
  uint32_t seed = 1;
  // Datagrams waiting for their time are bounded in count and bytes; beyond either, new ones
  // are dropped and counted as overflowed rather than growing the queue without end.
  size_t maxQueuedDatagrams = 4096;
  size_t maxQueuedBytes = 16u << 20;
};

struct DirectionCounters {
  uint64_t received = 0;    // datagrams that came in
  uint64_t forwarded = 0;   // datagrams sent on (a duplicate counts as one more)
  uint64_t dropped = 0;     // dropped on purpose, or with nobody to send them to
  uint64_t duplicated = 0;  // extra copies made
  uint64_t reordered = 0;   // held datagrams that did leave after a later one
  uint64_t overflowed = 0;  // dropped because the queue in flight was full
};

// What happens to one datagram. Each decision draws the same number of values from the
// generator whatever the rates, so a seed gives the same sequence under any configuration.
struct ImpairDecision {
  bool drop = false;
  bool duplicate = false;
  bool reorder = false;
  uint64_t delayUs = 0;
};

class ImpairDecider {
 public:
  ImpairDecider(const ImpairConfig& config, uint32_t seed);
  ImpairDecision Next();
  // The seed each direction's decider gets from the proxy's seed, so a test can replay them.
  static uint32_t SeedFor(uint32_t proxySeed, Direction direction);

 private:
  double Uniform();  // [0, 1), computed here so every standard library gives the same numbers
  ImpairConfig m_config;
  std::mt19937 m_random;
};

class NetImpairProxy {
 public:
  explicit NetImpairProxy(const ProxyConfig& config);
  ~NetImpairProxy();  // stops
  NetImpairProxy(const NetImpairProxy&) = delete;
  NetImpairProxy& operator=(const NetImpairProxy&) = delete;

  // Binds both sockets and starts the two relay threads. False when a socket or thread could
  // not be had (nothing is left running then) or when already started.
  bool Start();
  // Ends the threads and closes the sockets; datagrams still waiting are discarded. True when
  // both threads ended in time. Start may be called again afterwards (with fresh counters).
  bool Stop();

  Ipv4Endpoint ListenEndpoint() const;
  Ipv4Endpoint UpstreamEndpoint() const;
  // The current client; port 0 until someone has sent to the listening socket.
  Ipv4Endpoint Client() const;
  DirectionCounters Counters(Direction direction) const;

 private:
  struct Relay;
  void Run(Relay& relay);
  void Enqueue(Relay& relay, std::vector<unsigned char> bytes, uint64_t dueUs, bool duplicate);
  void Discard();

  ProxyConfig m_config;
  mutable std::recursive_mutex m_mutex;
  Ipv4Endpoint m_listenEndpoint;
  Ipv4Endpoint m_upstreamEndpoint;
  Ipv4Endpoint m_client;
  SocketHandle m_listen = kInvalidSocket;
  SocketHandle m_upstream = kInvalidSocket;
  SocketHandle m_waker = kInvalidSocket;  // sends the datagram that wakes a relay to stop
  std::atomic<bool> m_stopping{false};
  std::unique_ptr<Relay> m_relays[2];
  Thread m_threads[2];
};

}  // namespace lumo::netimpair
