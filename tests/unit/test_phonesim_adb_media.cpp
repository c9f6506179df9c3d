// The simulated phone as an adb device: first against a hand-driven server connection (what the
// device writes, byte for byte, and what it does with garbage), then against Debian's real adb,
// which must list it, query it and carry a whole session through a forward, also after its
// server was restarted. Every test here binds the emulator ports; ctest runs them one at a time.
#include <gtest/gtest.h>

#include <memory>

#include "AdbDevice.h"
#include "PhoneSim.h"
#include "TimestampBlocks.h"
#include "platform/socket.h"
#include "support/AdbTool.h"
#include "support/PcPeer.h"
#include "support/RawDecoder_media.h"

namespace lumo::phonesim {
namespace {

using namespace adbwire;
using test::AdbTool;
using test::PcPeer;
using test::PhoneFrame;

constexpr uint16_t kDevicePort = 5555;
const std::string kFound = "com.lumo.hqcamera";

struct Message {
  uint32_t command = 0, arg0 = 0, arg1 = 0;
  std::string data;
};

// The server's end of one device connection, driven by hand.
class RawServer {
 public:
  ~RawServer() { CloseSocket(m_socket); }
  bool Connect() {
    NetStartup();
    m_socket = OpenTcpSocket();
    return m_socket != kInvalidSocket && ConnectSocket(m_socket, {kIpv4Loopback, kDevicePort}) &&
           SetReceiveTimeout(m_socket, 10000);
  }
  bool SendBytes(const std::string& bytes) {
    return SendSocket(m_socket, bytes.data(), bytes.size()) == static_cast<int>(bytes.size());
  }
  bool Send(uint32_t command, uint32_t arg0, uint32_t arg1, const std::string& data = std::string()) {
    return SendBytes(Encode(command, arg0, arg1, data));
  }
  bool Read(Message& m) {
    unsigned char bytes[kHeaderSize];
    if (RecvSocket(m_socket, bytes, kHeaderSize, true) != static_cast<int>(kHeaderSize)) return false;
    const Header h = DecodeHeader(bytes);
    EXPECT_EQ(h.magic, h.command ^ 0xFFFFFFFFu);
    m = Message{h.command, h.arg0, h.arg1, std::string(h.length, '\0')};
    if (h.length > 0 && RecvSocket(m_socket, &m.data[0], h.length, true) != static_cast<int>(h.length)) return false;
    uint32_t sum = 0;
    for (unsigned char c : m.data) sum += c;
    EXPECT_EQ(h.checksum, sum);
    return true;
  }
  // Reads the next message and checks what it is.
  void Expect(uint32_t command, uint32_t arg0, uint32_t arg1, Message* out = nullptr) {
    Message m;
    ASSERT_TRUE(Read(m));
    EXPECT_EQ(m.command, command);
    if (arg0 != kAny) {
      EXPECT_EQ(m.arg0, arg0);
    }
    if (arg1 != kAny) {
      EXPECT_EQ(m.arg1, arg1);
    }
    if (out != nullptr) *out = m;
  }
  // True once the device closed the connection (not on a time-out).
  bool Ended() {
    char c;
    const int n = RecvSocket(m_socket, &c, 1, false);
    return n == 0 || (n < 0 && ClassifyNetError(LastNetError()) != NetErrorKind::TimedOut &&
                      ClassifyNetError(LastNetError()) != NetErrorKind::WouldBlock);
  }
  static constexpr uint32_t kAny = 0xFFFFFFFFu;

 private:
  SocketHandle m_socket = kInvalidSocket;
};

std::string Prefixed(const std::string& frame) {
  std::string out(4, '\0');
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>(frame.size() >> (24 - 8 * i));
  return out + frame;
}

std::string Pattern(size_t size, int seed) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131 + static_cast<size_t>(seed) * 7) >> 3);
  return s;
}

PhoneSimOptions AdbOptions(uint16_t port) {
  PhoneSimOptions o;
  o.transport = "adb";
  o.adbDevicePort = port;
  o.width = 640, o.height = 360, o.bitRate = 1000000;
  return o;
}

// Opens a link stream and returns its device-side id.
uint32_t OpenLink(RawServer& server, PhoneTransport& device, uint32_t remoteId) {
  Message m;
  EXPECT_TRUE(server.Send(kOpen, remoteId, 0, std::string("tcp:8182\0", 9)));
  server.Expect(kOkay, RawServer::kAny, remoteId, &m);
  EXPECT_TRUE(device.WaitForPeer());
  return m.arg0;
}

TEST(PhonesimAdbProtocol, FramesCrossMessagesBothWaysUnderFlowControl) {
  PhoneSimOptions o = AdbOptions(kDevicePort);
  o.adbModel = "Model X:1";  // the separators must not reach the banner
  // Old devices' 4 KB messages: frames are cut and joined across them in both directions.
  auto device = MakeAdbDeviceTransport(o, kAdbDeviceMinPayload);
  std::string error;
  ASSERT_TRUE(device->Open(error)) << error;
  RawServer server;
  ASSERT_TRUE(server.Connect());
  ASSERT_TRUE(server.Send(kCnxn, kVersion, 1u << 20, "host::features=shell_v2,cmd"));
  Message m;
  server.Expect(kCnxn, kVersion, kAdbDeviceMinPayload, &m);
  EXPECT_EQ(m.data, "device::ro.product.name=lumosim;ro.product.model=Model X_1;ro.product.device=lumosim;"
                    "features=shell_v2,cmd");
  const uint32_t link = OpenLink(server, *device, 7);
  EXPECT_EQ(device->Describe(), "adb emulator-5554 (port 5555), stream tcp:8182");

  // From the PC: frames cut at odd places (the first cut inside a length), each message
  // acknowledged as soon as the app has room.
  const std::vector<std::string> frames = {Pattern(10, 1), Pattern(6000, 2), "xyz"};
  std::string bytes;
  for (const std::string& f : frames) bytes += Prefixed(f);
  const size_t cuts[] = {2, 4000, 4096};
  for (size_t at = 0, i = 0; at < bytes.size(); ++i) {
    const size_t n = std::min(cuts[i % 3], bytes.size() - at);
    ASSERT_TRUE(server.Send(kWrte, 7, link, bytes.substr(at, n)));
    server.Expect(kOkay, link, 7);
    at += n;
  }
  for (const std::string& f : frames) {
    std::string got;
    ASSERT_TRUE(device->Receive(got));
    EXPECT_EQ(got, f);
  }

  // To the PC: one message in flight until its OKAY. A shell opened behind two queued frames is
  // answered before the rest of them, which shows that they waited.
  const std::string big = Prefixed(Pattern(10000, 3)), small = Prefixed("hello");
  ASSERT_TRUE(device->Send(big));
  ASSERT_TRUE(device->Send(small));
  ASSERT_TRUE(server.Send(kOpen, 8, 0, "shell,v2,TERM=xterm,raw:ps | grep nothing-of-the-sort"));
  std::string toPc;
  server.Expect(kWrte, link, 7, &m);
  EXPECT_EQ(m.data.size(), kAdbDeviceMinPayload);
  toPc += m.data;
  server.Expect(kOkay, RawServer::kAny, 8, &m);
  const uint32_t shell = m.arg0;
  server.Expect(kWrte, shell, 8, &m);
  EXPECT_EQ(m.data, std::string("\x03\x01\x00\x00\x00\x01", 6));  // no output; grep's exit code 1
  ASSERT_TRUE(server.Send(kOkay, 8, shell));
  server.Expect(kClse, shell, 8);
  while (toPc.size() < big.size() + small.size() && !testing::Test::HasFailure()) {
    ASSERT_TRUE(server.Send(kOkay, 7, link));
    server.Expect(kWrte, link, 7, &m);
    EXPECT_LE(m.data.size(), kAdbDeviceMinPayload);
    toPc += m.data;
  }
  EXPECT_EQ(toPc, big + small);
  ASSERT_TRUE(server.Send(kOkay, 7, link));

  // An app that does not read holds back the server's next message once 64 KB wait: the OKAY
  // of the message that crossed that line comes only when the app reads.
  const std::string chunk = Prefixed(Pattern(4000, 4));
  int sent = 0;
  for (; sent < 16; ++sent) {
    ASSERT_TRUE(server.Send(kWrte, 7, link, chunk));
    server.Expect(kOkay, link, 7);
  }
  ASSERT_TRUE(server.Send(kWrte, 7, link, chunk));
  ++sent;
  ASSERT_TRUE(server.Send(kOpen, 9, 0, "shell:ps"));
  server.Expect(kOkay, RawServer::kAny, 9);  // before the held OKAY
  std::string got;
  ASSERT_TRUE(device->Receive(got));
  Message next;
  do ASSERT_TRUE(server.Read(next));  // the shell's answer may come first
  while (next.command != kOkay || next.arg1 != 7);
  EXPECT_EQ(next.arg0, link);
  for (int i = 1; i < sent; ++i) ASSERT_TRUE(device->Receive(got));
  EXPECT_EQ(got, Pattern(4000, 4));

  // The PC goes away: the app's next read and write fail, as after a pulled cable.
  ASSERT_TRUE(server.Send(kClse, 7, link));
  EXPECT_FALSE(device->Receive(got));
  EXPECT_FALSE(device->Send(small));
  device->Stop();
}

TEST(PhonesimAdbProtocol, GarbageEndsTheConnectionAndUnknownServicesAreRefused) {
  PhoneSimOptions o = AdbOptions(kDevicePort);
  o.appRunning = false;  // installed, but nothing listens on its port
  auto device = MakeAdbDeviceTransport(o);
  std::string error;
  ASSERT_TRUE(device->Open(error)) << error;

  std::string badMagic = Encode(kCnxn, kVersion, 4096, "host::");
  badMagic[20] ^= 1;
  std::string huge = Encode(kCnxn, kVersion, 4096);
  huge[12] = huge[13] = huge[14] = '\xFF', huge[15] = '\x7F';
  const struct {
    const char* what;
    std::string bytes;
  } garbage[] = {
      {"a header with the wrong magic", badMagic},
      {"a length beyond what the device takes", huge},
      {"a stream opened before CNXN", Encode(kOpen, 1, 0, "shell:ps")},
  };
  for (const auto& g : garbage) {
    SCOPED_TRACE(g.what);
    RawServer server;
    ASSERT_TRUE(server.Connect());
    ASSERT_TRUE(server.SendBytes(g.bytes));
    EXPECT_TRUE(server.Ended());
  }

  // The device is still there for the next server, which may say CNXN twice.
  RawServer server;
  ASSERT_TRUE(server.Connect());
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(server.Send(kCnxn, kVersion, 1u << 20, "host::"));
    server.Expect(kCnxn, kVersion, kAdbDeviceMaxPayload);
  }
  ASSERT_TRUE(server.Send(kWrte, 5, 12345, "to no stream"));  // ignored
  ASSERT_TRUE(server.Send(kOkay, 5, 12345));                  // ignored
  const char* refused[] = {"tcp:9999", "sync:", "tcp:8182", "tcp:99999", "jdwp:1", ""};
  uint32_t id = 10;
  for (const char* service : refused) {
    SCOPED_TRACE(service);
    ASSERT_TRUE(server.Send(kOpen, ++id, 0, service));
    server.Expect(kClse, 0, id);
  }
  // The old shell protocol: the text alone, then the close.
  Message m;
  ASSERT_TRUE(server.Send(kOpen, 40, 0, std::string("shell:pm list package -3\0", 25)));
  server.Expect(kOkay, RawServer::kAny, 40, &m);
  const uint32_t shell = m.arg0;
  server.Expect(kWrte, shell, 40, &m);
  EXPECT_EQ(m.data, "package:com.lumo.hqcamera\npackage:com.example.notes\npackage:org.example.reader\n");
  ASSERT_TRUE(server.Send(kOkay, 40, shell));
  server.Expect(kClse, shell, 40);
  device->Stop();
}

TEST(PhonesimAdbDevice, ListedWithItsIdentityAndAnswersAsTheAppIs) {
  ASSERT_TRUE(AdbTool::Available()) << AdbTool::Program() << " is missing (scripts/install-deps installs it)";
  AdbTool adb;
  PhoneSimOptions a = AdbOptions(kDevicePort), b = AdbOptions(kDevicePort + 2);
  a.adbProduct = "prodA", a.adbModel = "Phone_A", a.adbDevice = "devA";
  b.adbModel = "Phone_B", b.appInstalled = false;
  auto simA = std::make_unique<PhoneSim>(a);
  PhoneSim simB(b);
  std::string error;
  ASSERT_TRUE(simA->Start(error)) << error;
  ASSERT_TRUE(simB.Start(error)) << error;

  // The server starts after the phones and finds both by scanning the emulator ports.
  const std::string lineA = adb.WaitForDevice("emulator-5554", "model:Phone_A");
  ASSERT_FALSE(lineA.empty()) << adb.Run("devices -l").output << adb.ServerLog();
  EXPECT_NE(lineA.find(" device product:prodA model:Phone_A device:devA"), std::string::npos) << lineA;
  ASSERT_FALSE(adb.WaitForDevice("emulator-5556", "model:Phone_B").empty()) << adb.ServerLog();

  // The PC's questions, with the remote grep; exit codes are grep's.
  struct Ask {
    const char* serial;
    const char* command;
    bool found;
  };
  auto ask = [&](const Ask& q) {
    SCOPED_TRACE(std::string(q.serial) + ": " + q.command);
    const CommandResult r = adb.Run(std::string("-s ") + q.serial + "  shell " + q.command);
    EXPECT_EQ(r.exitCode, q.found ? 0 : 1) << r.output;
    EXPECT_EQ(r.output.find(kFound) != std::string::npos, q.found) << r.output;
  };
  for (const Ask& q : {Ask{"emulator-5554", "pm list package -3 | grep lumo", true},
                       Ask{"emulator-5554", "ps | grep lumo", true},
                       Ask{"emulator-5556", "pm list package -3 | grep lumo", false},
                       Ask{"emulator-5556", "ps | grep lumo", false}})
    ask(q);
  EXPECT_EQ(adb.Run("-s emulator-5554 shell no-such-tool").exitCode, 127);

  // A phone that comes up while the server runs announces itself: installed, not running.
  simA.reset();
  a.adbModel = "Phone_A2", a.appRunning = false;
  simA = std::make_unique<PhoneSim>(a);
  ASSERT_TRUE(simA->Start(error)) << error;
  ASSERT_FALSE(adb.WaitForDevice("emulator-5554", "model:Phone_A2").empty()) << adb.ServerLog();
  for (const Ask& q : {Ask{"emulator-5554", "pm list package -3 | grep lumo", true},
                       Ask{"emulator-5554", "ps | grep lumo", false}})
    ask(q);
}

TEST(PhonesimAdbForward, WholeSessionThroughAForwardAndAgainAfterTheServerRestarts) {
  ASSERT_TRUE(AdbTool::Available()) << AdbTool::Program() << " is missing (scripts/install-deps installs it)";
  AdbTool adb;
  const PhoneSimOptions o = AdbOptions(kDevicePort);
  // 4 KB messages: every picture crosses several of them on its way through the server.
  PhoneSim sim(o, MakeAdbDeviceTransport(o, kAdbDeviceMinPayload));
  std::string error;
  ASSERT_TRUE(sim.Start(error)) << error;
  ASSERT_FALSE(adb.WaitForDevice("emulator-5554").empty()) << adb.ServerLog();
  CommandResult r = adb.Run("-s emulator-5554  forward tcp:8181 tcp:8182");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  {
    PcPeer pc;
    ASSERT_TRUE(pc.Connect(8181));
    ASSERT_NO_FATAL_FAILURE(test::DriveHandshake(pc));
    Json::Value content(Json::objectValue);
    content["cmdType"] = 1013;
    content["width"] = 640, content["height"] = 360, content["fps"] = 30, content["bitRate"] = 1000000;
    ASSERT_TRUE(pc.Send(content));
    ASSERT_TRUE(pc.Send(1002));
    ASSERT_TRUE(pc.Await(2002));
    std::vector<PhoneFrame> video, audio;
    ASSERT_TRUE(pc.AwaitFrames(2, 5, &video));
    test::RawVideoDecoder decoder(false);
    int lastNumber = -1;
    for (const PhoneFrame& f : video) {
      std::vector<test::DecodedPicture> pictures;
      ASSERT_TRUE(decoder.Decode(f.Payload(), pictures));
      ASSERT_EQ(pictures.size(), 1u);
      FrameStamp stamp;
      ASSERT_TRUE(ReadFrameStamp(pictures[0].y.data(), 640, 640, 360, stamp));
      EXPECT_GT(static_cast<int>(stamp.frameNumber), lastNumber);
      lastNumber = stamp.frameNumber;
    }
    ASSERT_TRUE(pc.Send(1014));
    ASSERT_TRUE(pc.Await(2014));
    ASSERT_TRUE(pc.AwaitFrames(6, 20, &audio));
    std::vector<std::string> aac;
    for (const PhoneFrame& f : audio) aac.push_back(f.Payload());
    EXPECT_GT(test::DecodeAacFrames(aac, 44100, 2).size(), 20u * 1024);
    EXPECT_EQ(sim.Status().transport, "adb emulator-5554 (port 5555), stream tcp:8182");

    // The server goes away under a running session: the PC's connection ends with it.
    r = adb.Run("kill-server");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    PhoneFrame f;
    while (pc.Read(f)) {
    }
  }
  // A new server finds the phone by its scan; a forward to the other app port works at once.
  ASSERT_FALSE(adb.WaitForDevice("emulator-5554").empty()) << adb.ServerLog();
  r = adb.Run("-s emulator-5554  forward tcp:8181 tcp:8183");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  PcPeer pc;
  ASSERT_TRUE(pc.Connect(8181));
  ASSERT_TRUE(pc.Send(1005));
  ASSERT_TRUE(pc.Await(2005));
  EXPECT_EQ(sim.Status().links, 2u);
  EXPECT_EQ(sim.Status().transport, "adb emulator-5554 (port 5555), stream tcp:8183");
  sim.Stop();
}

}  // namespace
}  // namespace lumo::phonesim
