// Sockets over loopback, on ephemeral ports only (no fixed port is bound here).
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "platform/socket.h"
#include "support/ScopedThread.h"

namespace {

using lumo::Ipv4Endpoint;
using lumo::kInvalidSocket;
using lumo::SocketHandle;
using lumo::test::ScopedThread;

// A TCP listener on 127.0.0.1 with a port the system chose.
struct Listener {
  Listener() {
    EXPECT_TRUE(lumo::NetStartup());
    socket = lumo::OpenTcpSocket();
    EXPECT_NE(socket, kInvalidSocket);
    EXPECT_TRUE(lumo::BindSocket(socket, Ipv4Endpoint{lumo::kIpv4Loopback, 0}));
    EXPECT_TRUE(lumo::ListenSocket(socket, 4));
    EXPECT_TRUE(lumo::LocalEndpoint(socket, endpoint));
  }
  ~Listener() { lumo::CloseSocket(socket); }
  SocketHandle socket = kInvalidSocket;
  Ipv4Endpoint endpoint;
};

TEST(Sockets, TcpCarriesLengthPrefixedFramesAndReportsTheClose) {
  Listener listener;
  ASSERT_NE(listener.endpoint.port, 0);
  ScopedThread client([port = listener.endpoint.port] {
    SocketHandle s = lumo::OpenTcpSocket();
    ASSERT_TRUE(lumo::ConnectSocket(s, Ipv4Endpoint{lumo::kIpv4Loopback, port}));
    const char frame[] = "\x00\x00\x00\x05hello";
    // Sent in two pieces: the receiver's wait-all must put them together.
    EXPECT_EQ(lumo::SendSocket(s, frame, 6), 6);
    EXPECT_EQ(lumo::SendSocket(s, frame + 6, 3), 3);
    lumo::CloseSocket(s);
    EXPECT_EQ(s, kInvalidSocket);
  });
  Ipv4Endpoint peer;
  SocketHandle server = lumo::AcceptSocket(listener.socket, &peer);
  ASSERT_NE(server, kInvalidSocket);
  EXPECT_EQ(peer.address, lumo::kIpv4Loopback);
  unsigned char length[4];
  EXPECT_EQ(lumo::RecvSocket(server, length, 4, true), 4);
  EXPECT_EQ(length[3], 5);
  char body[5];
  EXPECT_EQ(lumo::RecvSocket(server, body, 5, true), 5);
  EXPECT_EQ(std::memcmp(body, "hello", 5), 0);
  client.join();
  EXPECT_EQ(lumo::RecvSocket(server, body, 5, true), 0);  // the peer closed
  lumo::CloseSocket(server);
}

// A wait-all receive that ends early must not look like a whole message: a receive time-out
// after part of it is an error, and a close after part of it returns only what came.
TEST(Sockets, WaitAllNeverPassesOffAShortReadAsWhole) {
  Listener listener;
  // Two bytes of five arrive, then the link times out (one connection) or closes (another):
  // never 5, and never a count that could pass for a whole message.
  for (bool closes : {false, true}) {
    SCOPED_TRACE(closes ? "peer closes" : "receive times out");
    SocketHandle client = lumo::OpenTcpSocket();
    ASSERT_TRUE(lumo::ConnectSocket(client, listener.endpoint));
    SocketHandle server = lumo::AcceptSocket(listener.socket, nullptr);
    ASSERT_NE(server, kInvalidSocket);
    ASSERT_EQ(lumo::SendSocket(client, "ab", 2), 2);
    if (closes) lumo::CloseSocket(client);
    ASSERT_TRUE(lumo::SetReceiveTimeout(server, closes ? 5000 : 50));
    char buf[8];
    EXPECT_EQ(lumo::RecvSocket(server, buf, 5, true), closes ? 2 : -1);
    lumo::CloseSocket(client);
    lumo::CloseSocket(server);
  }
}

TEST(Sockets, ConnectingToAClosedPortIsRefused) {
  Ipv4Endpoint unused;
  {
    Listener probe;  // a port that was free a moment ago, closed again
    unused = probe.endpoint;
  }
  SocketHandle s = lumo::OpenTcpSocket();
  EXPECT_FALSE(lumo::ConnectSocket(s, unused));
  EXPECT_EQ(lumo::ClassifyNetError(lumo::LastNetError()), lumo::NetErrorKind::ConnectionRefused);
  lumo::CloseSocket(s);
}

TEST(Sockets, ShutdownWakesABlockedReceive) {
  Listener listener;
  SocketHandle client = lumo::OpenTcpSocket();
  ASSERT_TRUE(lumo::ConnectSocket(client, listener.endpoint));
  SocketHandle server = lumo::AcceptSocket(listener.socket, nullptr);
  std::atomic<int> got{-2};
  ScopedThread reader([&] {
    char buf[16];
    got = lumo::RecvSocket(client, buf, sizeof(buf), true);
  });
  // The reader may or may not be inside recv yet; either way shutdown must end it.
  lumo::ShutdownSocket(client);
  reader.join();
  EXPECT_LE(got.load(), 0);
  lumo::CloseSocket(client);
  lumo::CloseSocket(server);
}

TEST(Sockets, UdpDatagramsCarryTheirSenderAndWaitsTimeOut) {
  SocketHandle a = lumo::OpenUdpSocket();
  SocketHandle b = lumo::OpenUdpSocket();
  ASSERT_TRUE(lumo::BindSocket(a, Ipv4Endpoint{lumo::kIpv4Loopback, 0}));
  ASSERT_TRUE(lumo::BindSocket(b, Ipv4Endpoint{lumo::kIpv4Loopback, 0}));
  Ipv4Endpoint ea, eb;
  ASSERT_TRUE(lumo::LocalEndpoint(a, ea));
  ASSERT_TRUE(lumo::LocalEndpoint(b, eb));

  EXPECT_EQ(lumo::WaitReadable(b, 20), lumo::NetWait::TimedOut);
  ASSERT_EQ(lumo::SendToSocket(a, "kcp!", 4, eb), 4);
  EXPECT_EQ(lumo::WaitReadable(b, 2000), lumo::NetWait::Readable);
  char buf[64];
  Ipv4Endpoint from;
  ASSERT_EQ(lumo::RecvFromSocket(b, buf, sizeof(buf), from), 4);
  EXPECT_EQ(from.port, ea.port);
  EXPECT_EQ(from.address, lumo::kIpv4Loopback);

  ASSERT_TRUE(lumo::SetReceiveTimeout(b, 30));
  EXPECT_EQ(lumo::RecvFromSocket(b, buf, sizeof(buf), from), -1);
  auto kind = lumo::ClassifyNetError(lumo::LastNetError());
  EXPECT_TRUE(kind == lumo::NetErrorKind::WouldBlock || kind == lumo::NetErrorKind::TimedOut);
  lumo::CloseSocket(a);
  lumo::CloseSocket(b);
}

}  // namespace
