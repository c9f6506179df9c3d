// The two receive facilities of the WiFi endpoint, over loopback on ephemeral ports only.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "platform/socket.h"
#include "platform/thread.h"
#include "platform/udp_io.h"

namespace {

using lumo::Ipv4Endpoint;
using lumo::NetEventWaiter;
using lumo::SocketHandle;
using lumo::UdpCompletionPort;
using lumo::UdpReceiveContext;

constexpr uint32_t kJoinMs = 5000;
constexpr auto kGuard = std::chrono::seconds(10);  // only ever reached when something hangs

// A test's helper thread that is joined on every way out of the test, a failed ASSERT included.
// While it has not ended, `unblock` is repeated (a thread may be blocked more than once on its
// way out), so the join cannot hang and the binary is never aborted.
class GuardedThread {
 public:
  explicit GuardedThread(std::function<void()> unblock) : m_unblock(std::move(unblock)) {}
  ~GuardedThread() {
    if (!m_thread.HasThread()) return;
    while (!m_thread.WaitFinished(50)) m_unblock();
    m_thread.Join(lumo::Thread::kInfinite);
  }
  GuardedThread(const GuardedThread&) = delete;
  GuardedThread& operator=(const GuardedThread&) = delete;
  bool Start(std::function<void()> body) { return m_thread.Start(std::move(body)); }
  // True when the thread ended within the bound; it is joined then, and left for the destructor
  // otherwise (a timed-out Join would give it up while it still uses the test's objects).
  bool Finish() {
    if (!m_thread.WaitFinished(kJoinMs)) return false;
    return m_thread.Join(lumo::Thread::kInfinite);
  }

 private:
  std::function<void()> m_unblock;
  lumo::Thread m_thread;
};

struct BoundUdp {
  BoundUdp() {
    EXPECT_TRUE(lumo::NetStartup());
    socket = lumo::OpenUdpSocket();
    EXPECT_NE(socket, lumo::kInvalidSocket);
    EXPECT_TRUE(lumo::BindSocket(socket, Ipv4Endpoint{lumo::kIpv4Loopback, 0}));
    EXPECT_TRUE(lumo::LocalEndpoint(socket, endpoint));
  }
  ~BoundUdp() { lumo::CloseSocket(socket); }
  SocketHandle socket = lumo::kInvalidSocket;
  Ipv4Endpoint endpoint;
};

// A port that nobody listens on: bound a moment ago, closed again.
Ipv4Endpoint ClosedPort() {
  BoundUdp probe;
  return probe.endpoint;
}

// Leaves an ICMP port-unreachable pending on `receiver` and then points it at `sender`, so the
// next receive reports the refusal and a datagram from `sender` follows it. (Connected, because
// Linux reports ICMP errors to connected datagram sockets only; the wait for the error to show
// keeps the reconnect from beating the ICMP answer.)
bool PrimeIcmpRefusal(const BoundUdp& receiver, const BoundUdp& sender) {
  if (!lumo::ConnectSocket(receiver.socket, ClosedPort())) return false;
  if (lumo::SendSocket(receiver.socket, "?", 1) != 1) return false;
#ifndef _WIN32
  // (Wine's socket poll does not show the pending error; there the ICMP answer has long been
  // handled by the time the send returns.)
  if (lumo::WaitReadable(receiver.socket, 5000) != lumo::NetWait::Readable) return false;
#endif
  return lumo::ConnectSocket(receiver.socket, sender.endpoint);
}

bool IsIcmpRefusal(int code) {
  auto kind = lumo::ClassifyNetError(code);
  return kind == lumo::NetErrorKind::ConnectionRefused || kind == lumo::NetErrorKind::ConnectionReset;
}

TEST(NetEventWaiterTest, ReportsADatagramThatCanThenBeRead) {
  BoundUdp sender, receiver;
  NetEventWaiter waiter;
  ASSERT_TRUE(waiter.Create());
  ASSERT_TRUE(waiter.Select(receiver.socket));
  ASSERT_EQ(lumo::SendToSocket(sender.socket, "kcp!", 4, receiver.endpoint), 4);
  int code = -1;
  ASSERT_EQ(waiter.Wait(code), NetEventWaiter::Wake::Readable);
  EXPECT_EQ(code, 0);
  char buf[16];
  Ipv4Endpoint from;
  ASSERT_EQ(lumo::RecvFromSocket(receiver.socket, buf, sizeof(buf), from), 4);
  EXPECT_EQ(std::memcmp(buf, "kcp!", 4), 0);
  EXPECT_EQ(from.port, sender.endpoint.port);
}

TEST(NetEventWaiterTest, StopWakesABlockedWaitOnceAndResetsItself) {
  BoundUdp sender, receiver;
  NetEventWaiter waiter;
  ASSERT_TRUE(waiter.Create());
  ASSERT_TRUE(waiter.Select(receiver.socket));

  std::promise<NetEventWaiter::Wake> first;
  std::promise<NetEventWaiter::Wake> second;
  auto firstDone = first.get_future();
  GuardedThread waiting([&waiter] { waiter.Stop(); });
  ASSERT_TRUE(waiting.Start([&] {
    int code = 0;
    first.set_value(waiter.Wait(code));
    second.set_value(waiter.Wait(code));
  }));
  waiter.Stop();
  ASSERT_EQ(firstDone.wait_for(kGuard), std::future_status::ready);
  EXPECT_EQ(firstDone.get(), NetEventWaiter::Wake::Stop);
  // The signal was consumed: the next wake is the datagram, not a second stop.
  ASSERT_EQ(lumo::SendToSocket(sender.socket, "x", 1, receiver.endpoint), 1);
  auto secondDone = second.get_future();
  ASSERT_EQ(secondDone.wait_for(kGuard), std::future_status::ready);
  EXPECT_EQ(secondDone.get(), NetEventWaiter::Wake::Readable);
  EXPECT_TRUE(waiting.Finish());

  // Two stops before anyone waits are one signal, as with an auto-reset event.
  char buf[4];
  Ipv4Endpoint from;
  ASSERT_EQ(lumo::RecvFromSocket(receiver.socket, buf, sizeof(buf), from), 1);
  waiter.Stop();
  waiter.Stop();
  int code = 0;
  EXPECT_EQ(waiter.Wait(code), NetEventWaiter::Wake::Stop);
  ASSERT_EQ(lumo::SendToSocket(sender.socket, "y", 1, receiver.endpoint), 1);
  EXPECT_EQ(waiter.Wait(code), NetEventWaiter::Wake::Readable);
}

TEST(NetEventWaiterTest, AnIcmpRefusalDoesNotStopLaterDatagrams) {
  BoundUdp sender, receiver;
  NetEventWaiter waiter;
  ASSERT_TRUE(waiter.Create());
  ASSERT_TRUE(waiter.Select(receiver.socket));
  ASSERT_TRUE(PrimeIcmpRefusal(receiver, sender));
  ASSERT_EQ(lumo::SendToSocket(sender.socket, "ok", 2, receiver.endpoint), 2);
  // The refusal shows as the read event's code or as the error of the next read, depending on
  // the system, but never as a close; the datagram behind it can still be read.
  char buf[8];
  Ipv4Endpoint from;
  int refusals = 0;
  for (int round = 0; round < 4; ++round) {
    int code = 0;
    auto wake = waiter.Wait(code);
    ASSERT_EQ(wake, NetEventWaiter::Wake::Readable) << "code " << code;
    if (code != 0) {
      EXPECT_TRUE(IsIcmpRefusal(code)) << code;
      ++refusals;
    }
    int n = lumo::RecvFromSocket(receiver.socket, buf, sizeof(buf), from);  // non-blocking now
    if (n < 0) {
      int error = lumo::LastNetError();
      if (lumo::ClassifyNetError(error) == lumo::NetErrorKind::WouldBlock) continue;
      EXPECT_TRUE(IsIcmpRefusal(error)) << error;
      ++refusals;
      continue;
    }
    ASSERT_EQ(n, 2);
    EXPECT_EQ(from.port, sender.endpoint.port);
    EXPECT_EQ(refusals, 1);
    return;
  }
  FAIL() << "the datagram after the refusal never came";
}

#ifndef _WIN32
// Windows signals FD_CLOSE for connection-oriented sockets only; elsewhere a shut-down datagram
// socket is how the endpoint's receive thread learns that its socket is gone.
TEST(NetEventWaiterTest, AShutDownSocketReportsClosed) {
  BoundUdp receiver;
  NetEventWaiter waiter;
  ASSERT_TRUE(waiter.Create());
  ASSERT_TRUE(waiter.Select(receiver.socket));
  lumo::ShutdownSocket(receiver.socket);
  int code = 0;
  EXPECT_EQ(waiter.Wait(code), NetEventWaiter::Wake::Closed);
}
#endif

// A pool of workers on one port, each re-posting its context after a completion as the endpoint
// does, recording what they got.
class PortPool {
 public:
  explicit PortPool(SocketHandle& socket) : m_socket(socket) {
    EXPECT_TRUE(port.Create());
    EXPECT_TRUE(port.Associate(socket, kKey));
  }
  ~PortPool() {
    Abandon();
    port.Close();
    // Close ends every worker's wait; a worker given up after a time-out would go on using this
    // object after it is gone, so each is waited for (and one that is slow to end is reported).
    for (auto& w : workers) {
      EXPECT_TRUE(w->WaitFinished(kJoinMs)) << "a worker outlived the port's close";
      w->Join(lumo::Thread::kInfinite);
    }
    // A posted receive stays pending on the socket after the port is gone, and Windows writes
    // its end into the context: the socket goes before the contexts do.
    lumo::CloseSocket(m_socket);
  }

  static constexpr uintptr_t kKey = 10;

  void PostContexts(size_t count) {
    for (size_t i = 0; i < count; ++i) {
      contexts.push_back(std::make_unique<UdpReceiveContext>());
      int code = 0;
      EXPECT_TRUE(port.PostReceive(*contexts.back(), code)) << code;
    }
  }

  void StartWorkers(size_t count) {
    for (size_t i = 0; i < count; ++i) {
      workers.push_back(std::make_unique<lumo::Thread>());
      ASSERT_TRUE(workers.back()->Start([this] { Work(); }));
    }
  }

  // Waits until `ready` holds for the shared record (false when the guard time passed).
  template <typename Ready>
  bool WaitUntil(Ready ready) {
    std::unique_lock<std::recursive_mutex> lock(mutex);
    return cv.wait_for(lock, kGuard, [&] { return abandoned || ready(); }) && !abandoned;
  }

  // Ends every WaitUntil at once: the test is leaving.
  void Abandon() {
    std::lock_guard<std::recursive_mutex> guard(mutex);
    abandoned = true;
    cv.notify_all();
  }

  // True when every worker ended within the bound; those are joined, the rest are left to the
  // destructor, which closes the port first.
  bool JoinAll() {
    bool all = true;
    for (auto& w : workers) {
      if (!w->HasThread()) continue;
      const bool finished = w->WaitFinished(kJoinMs);
      if (finished) w->Join(lumo::Thread::kInfinite);
      all = finished && all;
    }
    return all;
  }

  UdpCompletionPort port;
  std::vector<std::unique_ptr<UdpReceiveContext>> contexts;
  std::vector<std::unique_ptr<lumo::Thread>> workers;
  std::recursive_mutex mutex;
  std::condition_variable_any cv;
  std::vector<std::vector<unsigned char>> received;
  std::vector<Ipv4Endpoint> sources;
  std::vector<int> failures;
  int quits = 0;
  int closes = 0;
  int badKeys = 0;
  bool abandoned = false;

 private:
  SocketHandle& m_socket;

  void Work() {
    for (;;) {
      uintptr_t key = 0;
      UdpReceiveContext* context = nullptr;
      int code = 0;
      UdpCompletionPort::Result r = port.Wait(key, context, code);
      std::lock_guard<std::recursive_mutex> guard(mutex);
      if (r == UdpCompletionPort::Result::Quit) ++quits;
      if (r == UdpCompletionPort::Result::Closed) ++closes;
      if (r == UdpCompletionPort::Result::Completed) {
        if (key != kKey) ++badKeys;
        received.emplace_back(context->buffer, context->buffer + context->bytes);
        sources.push_back(context->from);
      }
      if (r == UdpCompletionPort::Result::Failed) failures.push_back(code);
      cv.notify_all();
      if (r == UdpCompletionPort::Result::Quit || r == UdpCompletionPort::Result::Closed) return;
      if (context != nullptr) port.PostReceive(*context, code);
    }
  }
};

std::vector<unsigned char> Datagram(uint32_t seq) {
  std::vector<unsigned char> d(4 + seq % 300);
  std::memcpy(d.data(), &seq, 4);
  for (size_t i = 4; i < d.size(); ++i) d[i] = static_cast<unsigned char>(seq * 31 + i);
  return d;
}

TEST(UdpCompletionPortTest, ThreeWorkersReceiveEveryDatagramOnceIntactWithItsSender) {
  BoundUdp sender, receiver;
  PortPool pool(receiver.socket);
  pool.PostContexts(3);
  pool.StartWorkers(3);
  constexpr uint32_t kCount = 200;
  constexpr uint32_t kWindow = 16;  // keeps the socket's receive buffer from overflowing
  GuardedThread sending([&pool] { pool.Abandon(); });
  ASSERT_TRUE(sending.Start([&] {
    for (uint32_t seq = 0; seq < kCount; ++seq) {
      if (!pool.WaitUntil([&] { return pool.received.size() + kWindow > seq; })) return;
      auto d = Datagram(seq);
      lumo::SendToSocket(sender.socket, d.data(), d.size(), receiver.endpoint);
    }
  }));
  ASSERT_TRUE(pool.WaitUntil([&] { return pool.received.size() >= kCount; }));
  EXPECT_TRUE(sending.Finish());

  std::lock_guard<std::recursive_mutex> guard(pool.mutex);
  std::set<uint32_t> seen;
  for (size_t i = 0; i < pool.received.size(); ++i) {
    const auto& d = pool.received[i];
    ASSERT_GE(d.size(), 4u);
    uint32_t seq;
    std::memcpy(&seq, d.data(), 4);
    EXPECT_TRUE(seen.insert(seq).second) << "datagram " << seq << " completed twice";
    EXPECT_EQ(d, Datagram(seq));
    EXPECT_EQ(pool.sources[i].address, lumo::kIpv4Loopback);
    EXPECT_EQ(pool.sources[i].port, sender.endpoint.port);
  }
  EXPECT_EQ(seen.size(), kCount);
  EXPECT_EQ(pool.badKeys, 0);
  EXPECT_TRUE(pool.failures.empty());
}

TEST(UdpCompletionPortTest, EmptyAndLargestDatagramsComplete) {
  BoundUdp sender, receiver;
  PortPool pool(receiver.socket);
  pool.PostContexts(1);
  pool.StartWorkers(1);
  std::vector<unsigned char> largest(65507);
  for (size_t i = 0; i < largest.size(); ++i) largest[i] = static_cast<unsigned char>(i * 7);
  ASSERT_EQ(lumo::SendToSocket(sender.socket, "", 0, receiver.endpoint), 0);
  ASSERT_EQ(lumo::SendToSocket(sender.socket, largest.data(), largest.size(), receiver.endpoint), 65507);
  ASSERT_TRUE(pool.WaitUntil([&] { return pool.received.size() >= 2; }));
  std::lock_guard<std::recursive_mutex> guard(pool.mutex);
  EXPECT_TRUE(pool.received[0].empty());
  EXPECT_EQ(pool.received[1], largest);
}

TEST(UdpCompletionPortTest, EachQuitEndsExactlyOneWorkerAndLosesNoContext) {
  BoundUdp sender, receiver;
  PortPool pool(receiver.socket);
  pool.PostContexts(3);
  pool.StartWorkers(3);
  for (int quit = 1; quit <= 3; ++quit) {
    ASSERT_TRUE(pool.port.PostQuit());
    ASSERT_TRUE(pool.WaitUntil([&] { return pool.quits >= quit; }));
    if (quit == 3) break;
    // The workers left serve every context, including the one the quitting worker held.
    size_t before;
    {
      std::lock_guard<std::recursive_mutex> guard(pool.mutex);
      before = pool.received.size();
    }
    for (uint32_t seq = 0; seq < 6; ++seq) {
      auto d = Datagram(seq);
      ASSERT_EQ(lumo::SendToSocket(sender.socket, d.data(), d.size(), receiver.endpoint), static_cast<int>(d.size()));
      ASSERT_TRUE(pool.WaitUntil([&] { return pool.received.size() > before + seq; }));
    }
    std::lock_guard<std::recursive_mutex> guard(pool.mutex);
    EXPECT_EQ(pool.quits, quit);
  }
  EXPECT_TRUE(pool.JoinAll());
  EXPECT_EQ(pool.closes, 0);
}

TEST(UdpCompletionPortTest, AContextHeldByAQuittingWorkerGoesToTheNextOne) {
  BoundUdp sender, receiver;
  PortPool pool(receiver.socket);
  pool.PostContexts(1);
  pool.StartWorkers(1);
  ASSERT_TRUE(pool.port.PostQuit());
  ASSERT_TRUE(pool.WaitUntil([&] { return pool.quits == 1; }));
  ASSERT_TRUE(pool.JoinAll());
  pool.StartWorkers(1);  // nothing is posted again: the only context must still be there
  ASSERT_EQ(lumo::SendToSocket(sender.socket, "again", 5, receiver.endpoint), 5);
  ASSERT_TRUE(pool.WaitUntil([&] { return pool.received.size() == 1; }));
}

TEST(UdpCompletionPortTest, CloseEndsEveryWorkerAndLaterCalls) {
  BoundUdp receiver;
  PortPool pool(receiver.socket);
  pool.PostContexts(2);
  pool.StartWorkers(3);  // two inside a receive, one idle
  pool.port.Close();
  EXPECT_TRUE(pool.JoinAll());
  EXPECT_EQ(pool.closes, 3);
  uintptr_t key = 1;
  UdpReceiveContext* context = nullptr;
  int code = 0;
  EXPECT_EQ(pool.port.Wait(key, context, code), UdpCompletionPort::Result::Closed);
  EXPECT_FALSE(pool.port.PostQuit());
  EXPECT_FALSE(pool.port.PostReceive(*pool.contexts[0], code));
}

TEST(UdpCompletionPortTest, AnIcmpRefusalFailsOneReceiveAndTheWorkerGoesOn) {
  BoundUdp sender, receiver;
  PortPool pool(receiver.socket);
  pool.PostContexts(1);
  ASSERT_TRUE(PrimeIcmpRefusal(receiver, sender));
  pool.StartWorkers(1);
  ASSERT_EQ(lumo::SendToSocket(sender.socket, "ok", 2, receiver.endpoint), 2);
  ASSERT_TRUE(pool.WaitUntil([&] { return pool.received.size() == 1; }));
  std::lock_guard<std::recursive_mutex> guard(pool.mutex);
  EXPECT_EQ(pool.received[0].size(), 2u);
  ASSERT_EQ(pool.failures.size(), 1u);  // the refusal came before the datagram
  EXPECT_TRUE(IsIcmpRefusal(pool.failures[0])) << pool.failures[0];
}

}  // namespace
