// The simulated iPhone as a PC sees it through the real libimobiledevice: the simulator's own
// usbmuxd on a UNIX socket in a temporary folder (found through USBMUXD_SOCKET_ADDRESS), its
// lockdown, a whole app session through a usbmux tunnel with the iOS outer framing, unplugging,
// and clients that send garbage.
#include <gtest/gtest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

#include "LocalSocket.h"
#include "MuxPlist.h"
#include "PhoneSim.h"
#include "TimestampBlocks.h"
#include "Usbmuxd.h"
#include "support/PcPeer.h"
#include "support/RawDecoder_media.h"
#include "support/TempDir.h"
#include "support/TestAudio_media.h"

namespace lumo::phonesim {
namespace {

using test::PhoneFrame;

const std::string kUdidA = "00008110-000A1B2C3D4E5F60", kUdidB = "00008030-0019283746556473";

uint32_t Be32(const std::string& s, size_t at) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data()) + at;
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 | p[3];
}
void PutBe32(std::string& s, uint32_t v) {
  for (int i = 0; i < 4; ++i) s.push_back(static_cast<char>(v >> (24 - 8 * i)));
}
std::string OuterHeader(uint32_t bodySize) {
  std::string h;
  for (uint32_t word : {1u, 101u, 0u, bodySize}) PutBe32(h, word);
  return h;
}

// The PC's side of an app tunnel, over libimobiledevice: frames leave as the PC's sender writes
// them and arrive through the iOS receiver's framing, every outer header checked on the way.
class IosPcPeer {
 public:
  ~IosPcPeer() { Close(); }
  idevice_error_t Connect(const std::string& udid, uint16_t port) {
    Close();
    const idevice_error_t e = idevice_new(&m_device, udid.c_str());
    return e != IDEVICE_E_SUCCESS ? e : idevice_connect(m_device, port, &m_link);
  }
  void Close() {
    if (m_link != nullptr) idevice_disconnect(m_link);
    if (m_device != nullptr) idevice_free(m_device);
    m_link = nullptr, m_device = nullptr;
  }
  bool SendRaw(const std::string& bytes) {
    uint32_t sent = 0;
    return idevice_connection_send(m_link, bytes.data(), static_cast<uint32_t>(bytes.size()), &sent) ==
               IDEVICE_E_SUCCESS && sent == bytes.size();
  }
  bool Send(const Json::Value& command) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::string text = Json::writeString(builder, command);
    std::string frame;
    PutBe32(frame, static_cast<uint32_t>(text.size() + 5));
    frame.push_back(1);
    PutBe32(frame, ++m_sequence);
    frame += text;
    return SendRaw(OuterHeader(static_cast<uint32_t>(frame.size())) + frame);
  }
  bool Send(int cmdType) {
    Json::Value v(Json::objectValue);
    v["cmdType"] = cmdType;
    return Send(v);
  }
  bool ReadExact(std::string& out, uint32_t size) {
    out.assign(size, '\0');
    for (uint32_t got = 0; got < size;) {
      uint32_t n = 0;
      lastError = idevice_connection_receive_timeout(m_link, &out[got], size - got, &n, 10000);
      if (lastError != IDEVICE_E_SUCCESS || n == 0) return false;
      got += n;
    }
    return true;
  }
  bool Read(PhoneFrame& frame) {
    std::string header, body;
    if (!ReadExact(header, 16)) return false;
    const uint32_t size = Be32(header, 12);
    if (Be32(header, 0) != 1 || Be32(header, 4) != 101 || Be32(header, 8) != 0 || size < 5 || size > (64u << 20) ||
        !ReadExact(body, size) || Be32(body, 0) != size - 4) {
      ++badFraming;
      return false;
    }
    frame = PhoneFrame{static_cast<uint8_t>(body[4]), body.substr(5), Json::Value()};
    if (frame.type == 1 && frame.body.size() >= 4) {
      std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
      reader->parse(frame.body.data() + 4, frame.body.data() + frame.body.size(), &frame.json, nullptr);
    }
    return true;
  }
  bool Await(int cmdType) {
    for (PhoneFrame f; Read(f);)
      if (f.CmdType() == cmdType) return true;
    return false;
  }
  bool AwaitFrames(uint8_t type, size_t count, std::vector<PhoneFrame>& got) {
    for (PhoneFrame f; got.size() < count && Read(f);)
      if (f.type == type) got.push_back(f);
    return got.size() == count;
  }
  int badFraming = 0;
  idevice_error_t lastError = IDEVICE_E_SUCCESS;  // of the last receive: a close, unlike a time-out, is -2

 private:
  idevice_t m_device = nullptr;
  idevice_connection_t m_link = nullptr;
  uint32_t m_sequence = 0;
};

// A simulator with its usbmuxd in a temporary folder, and libimobiledevice pointed at it for the
// test's lifetime.
class PhonesimUsbmux : public ::testing::Test {
 protected:
  void Start(std::vector<std::string> udids) {
    if (const char* old = std::getenv("USBMUXD_SOCKET_ADDRESS")) m_oldAddress = old, m_hadAddress = true;
    options.udids = std::move(udids);
    options.transport = "usbmux";
    options.usbmuxdAddress = m_dir.path + "/usbmuxd";
    options.width = 640, options.height = 360, options.bitRate = 1000000;
    options.iosDeviceName = "Desk iPhone";
    options.iosProductType = "iPhone15,3";
    auto transport = std::make_unique<UsbmuxTransport>(options);
    mux = &transport->Daemon();
    sim = std::make_unique<PhoneSim>(options, std::move(transport));
    std::string error;
    ASSERT_TRUE(sim->Start(error)) << error;
    EXPECT_EQ(mux->Address(), "UNIX:" + options.usbmuxdAddress);
    test::SetEnv("USBMUXD_SOCKET_ADDRESS", mux->Address());
  }
  void TearDown() override {
    if (sim) sim->Stop();
    if (m_hadAddress) test::SetEnv("USBMUXD_SOCKET_ADDRESS", m_oldAddress);
    else test::UnsetEnv("USBMUXD_SOCKET_ADDRESS");
  }
  static std::vector<std::string> DeviceList() {
    char** list = nullptr;
    int count = 0;
    std::vector<std::string> udids;
    if (idevice_get_device_list(&list, &count) != IDEVICE_E_SUCCESS) return {"(no usbmuxd)"};
    for (int i = 0; i < count; ++i) udids.push_back(list[i]);
    idevice_device_list_free(list);
    return udids;
  }

  test::ScopedAppData m_dir;  // outlives the simulator whose socket it holds
  PhoneSimOptions options;
  UsbmuxDaemon* mux = nullptr;
  std::unique_ptr<PhoneSim> sim;

 private:
  std::string m_oldAddress;
  bool m_hadAddress = false;
};

TEST_F(PhonesimUsbmux, ListsEveryPhoneAndAnswersLockdownWithAndWithoutASession) {
  Start({kUdidA, kUdidB});
  EXPECT_EQ(DeviceList(), (std::vector<std::string>{kUdidA, kUdidB}));
  idevice_t unknown = nullptr;
  EXPECT_EQ(idevice_new(&unknown, "00008110-0000000000000BAD"), IDEVICE_E_NO_DEVICE);

  // Without a label and a session, as the PC lists its phones; with the handshake (pair record,
  // BUID, a session in the clear), as the usual command-line tools open lockdown.
  struct Case {
    std::string udid, name;
    bool handshake;
  };
  for (const Case& c : {Case{kUdidA, "Desk iPhone", false}, Case{kUdidB, "Desk iPhone 2", false},
                        Case{kUdidA, "Desk iPhone", true}}) {
    SCOPED_TRACE(c.udid + (c.handshake ? " with handshake" : ""));
    idevice_t device = nullptr;
    ASSERT_EQ(idevice_new(&device, c.udid.c_str()), IDEVICE_E_SUCCESS);
    lockdownd_client_t lockdown = nullptr;
    ASSERT_EQ(c.handshake ? lockdownd_client_new_with_handshake(device, &lockdown, "test")
                          : lockdownd_client_new(device, &lockdown, nullptr),
              LOCKDOWN_E_SUCCESS);
    char* name = nullptr;
    ASSERT_EQ(lockdownd_get_device_name(lockdown, &name), LOCKDOWN_E_SUCCESS);
    EXPECT_STREQ(name, c.name.c_str());
    std::free(name);
    char* type = nullptr;
    EXPECT_EQ(lockdownd_query_type(lockdown, &type), LOCKDOWN_E_SUCCESS);
    EXPECT_STREQ(type, "com.apple.mobile.lockdown");
    std::free(type);
    plist_t value = nullptr;
    ASSERT_EQ(lockdownd_get_value(lockdown, nullptr, "ProductType", &value), LOCKDOWN_E_SUCCESS);
    char* product = nullptr;
    plist_get_string_val(value, &product);
    EXPECT_STREQ(product, "iPhone15,3");
    std::free(product);
    plist_free(value);
    value = nullptr;
    ASSERT_EQ(lockdownd_get_value(lockdown, nullptr, nullptr, &value), LOCKDOWN_E_SUCCESS);  // every value
    const Plist all(value);
    std::string udid;
    EXPECT_TRUE(StringAt(all, "UniqueDeviceID", udid));
    EXPECT_EQ(udid, c.udid);
    value = nullptr;
    EXPECT_NE(lockdownd_get_value(lockdown, nullptr, "NoSuchValue", &value), LOCKDOWN_E_SUCCESS);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(lockdownd_client_free(lockdown), LOCKDOWN_E_SUCCESS);  // with a session: StopSession first
    idevice_free(device);
  }
}

TEST_F(PhonesimUsbmux, CarriesAWholeSessionOnEitherAppPortWithTheIosFraming) {
  Start({kUdidA});
  IosPcPeer pc;
  ASSERT_EQ(pc.Connect(kUdidA, kIosAppPort), IDEVICE_E_SUCCESS);
  ASSERT_NO_FATAL_FAILURE(test::DriveHandshake(pc));

  Json::Value content(Json::objectValue);
  content["cmdType"] = 1013, content["width"] = 640, content["height"] = 360, content["fps"] = 30;
  ASSERT_TRUE(pc.Send(content));
  ASSERT_TRUE(pc.Send(1002));
  ASSERT_TRUE(pc.Await(2002));
  std::vector<PhoneFrame> video;
  ASSERT_TRUE(pc.AwaitFrames(2, 5, video));
  test::RawVideoDecoder decoder(false);
  for (size_t i = 0; i < video.size(); ++i) {
    std::vector<test::DecodedPicture> pictures;
    ASSERT_TRUE(decoder.Decode(video[i].Payload(), pictures));
    ASSERT_EQ(pictures.size(), 1u);
    FrameStamp stamp;
    ASSERT_TRUE(ReadFrameStamp(pictures[0].y.data(), 640, 640, 360, stamp));
    EXPECT_EQ(stamp.frameNumber, i);
  }
  ASSERT_TRUE(pc.Send(1014));
  ASSERT_TRUE(pc.Await(2014));
  std::vector<PhoneFrame> audio;
  ASSERT_TRUE(pc.AwaitFrames(6, 50, audio));
  std::vector<std::string> aac;
  for (const PhoneFrame& f : audio) aac.push_back(f.Payload());
  const std::vector<int16_t> pcm = test::DecodeAacFrames(aac, 44100, 2);
  EXPECT_NEAR(test::DominantFrequency(test::Channel(pcm, 2, 0), 44100, 200, 3000), options.toneHz, 2);
  EXPECT_EQ(pc.badFraming, 0);

  // The second port reaches the same app once the first link is gone; a port nobody serves is refused.
  pc.Close();
  IosPcPeer next;
  ASSERT_EQ(next.Connect(kUdidA, kIosAppPortContent1), IDEVICE_E_SUCCESS);
  ASSERT_TRUE(next.Send(1005));
  ASSERT_TRUE(next.Await(2005));
  EXPECT_EQ(sim->Status().links, 2u);
  IosPcPeer refused;
  EXPECT_EQ(refused.Connect(kUdidA, 2347), IDEVICE_E_UNKNOWN_ERROR);
}

struct EventLog {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::pair<int, std::string>> events;
  bool AwaitCount(size_t count) {
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, std::chrono::seconds(10), [&] { return events.size() >= count; });
  }
  static void OnEvent(const idevice_event_t* event, void* self) {
    auto* log = static_cast<EventLog*>(self);
    std::lock_guard<std::mutex> guard(log->lock);
    log->events.emplace_back(event->event, event->udid);
    log->changed.notify_all();
  }
};

TEST_F(PhonesimUsbmux, UnpluggingSendsDetachedDropsTheListingAndEndsTheLink) {
  Start({kUdidA, kUdidB});
  EventLog log;
  ASSERT_EQ(idevice_event_subscribe(&EventLog::OnEvent, &log), IDEVICE_E_SUCCESS);
  // The library's event thread outlives a test that fails half-way unless told to stop.
  struct Unsubscribe {
    ~Unsubscribe() { idevice_event_unsubscribe(); }
  } unsubscribe;
  ASSERT_TRUE(log.AwaitCount(2));
  IosPcPeer pc;
  ASSERT_EQ(pc.Connect(kUdidA, kIosAppPort), IDEVICE_E_SUCCESS);
  ASSERT_TRUE(pc.Send(1005));
  ASSERT_TRUE(pc.Await(2005));

  EXPECT_TRUE(mux->Detach(kUdidA));
  EXPECT_FALSE(mux->Detach(kUdidA));  // already out
  ASSERT_TRUE(log.AwaitCount(3));
  EXPECT_EQ(DeviceList(), (std::vector<std::string>{kUdidB}));
  idevice_t gone = nullptr;
  EXPECT_EQ(idevice_new(&gone, kUdidA.c_str()), IDEVICE_E_NO_DEVICE);
  PhoneFrame f;
  for (int i = 0; i < 5 && pc.Read(f); ++i) {
  }  // the link ends with the cable: what was on its way, then the close
  EXPECT_EQ(pc.lastError, IDEVICE_E_UNKNOWN_ERROR);
  EXPECT_EQ(pc.badFraming, 0);
  IosPcPeer other;
  ASSERT_EQ(other.Connect(kUdidB, kIosAppPort), IDEVICE_E_SUCCESS);
  ASSERT_TRUE(other.Send(1005));
  ASSERT_TRUE(other.Await(2005));

  EXPECT_TRUE(mux->Attach(kUdidA));
  ASSERT_TRUE(log.AwaitCount(4));
  EXPECT_EQ(DeviceList(), (std::vector<std::string>{kUdidA, kUdidB}));
  const std::vector<std::pair<int, std::string>> expected = {
      {IDEVICE_DEVICE_ADD, kUdidA}, {IDEVICE_DEVICE_ADD, kUdidB}, {IDEVICE_DEVICE_REMOVE, kUdidA}, {IDEVICE_DEVICE_ADD, kUdidA}};
  std::lock_guard<std::mutex> guard(log.lock);
  EXPECT_EQ(log.events, expected);
}

// A raw client of the daemon: requests as bytes, answers as the Result number (-1: the daemon
// closed the connection, -2: an answer that is not a result, -3: no answer in time).
class RawMuxClient {
 public:
  explicit RawMuxClient(const std::string& path) : m_socket(ConnectLocal(path)) { SetReceiveTimeout(m_socket, 5000); }
  ~RawMuxClient() { CloseSocket(m_socket); }
  static std::string Request(const std::string& body, uint32_t version = 1, uint32_t message = 8, uint32_t length = 0) {
    std::string bytes;
    for (uint32_t word : {length != 0 ? length : static_cast<uint32_t>(16 + body.size()), version, message, 7u})
      for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<char>(word >> (8 * i)));
    return bytes + body;
  }
  static std::string Message(const std::string& type, uint64_t deviceId = 0, uint64_t port = 0) {
    Plist dict = NewDict();
    SetString(dict, "MessageType", type);
    if (deviceId != 0) SetUint(dict, "DeviceID", deviceId);
    if (port != 0) SetUint(dict, "PortNumber", (port & 0xFF) << 8 | port >> 8);
    return ToXml(dict);
  }
  int Ask(const std::string& bytes) {
    if (SendSocket(m_socket, bytes.data(), bytes.size()) != static_cast<int>(bytes.size())) return -1;
    unsigned char header[16];
    const int got = RecvSocket(m_socket, header, 16, true);
    if (got != 16) return got < 0 ? -3 : -1;
    const uint32_t length = header[0] | header[1] << 8 | header[2] << 16 | static_cast<uint32_t>(header[3]) << 24;
    if (length < 16 || length > 65536) return -2;
    std::string body(length - 16, '\0');
    if (!body.empty() && RecvSocket(m_socket, &body[0], body.size(), true) != static_cast<int>(body.size())) return -1;
    if (header[8] == 1 && body.size() == 4) return body[0];  // the binary protocol's result
    uint64_t number = 0;
    return UintAt(ParsePlist(body), "Number", number) ? static_cast<int>(number) : -2;
  }
  SocketHandle socket() const { return m_socket; }

 private:
  SocketHandle m_socket;
};

TEST_F(PhonesimUsbmux, GarbageFromClientsIsAnsweredOrCutOffAndTheNextClientIsServed) {
  Start({kUdidA});
  using C = RawMuxClient;
  struct Case {
    const char* what;
    std::string bytes;
    int answer;
  };
  const Case cases[] = {
      {"length below the header", C::Request("", 1, 8, 8), -1},
      {"length far beyond any request", C::Request("", 1, 8, 0x7FFFFFFF), -1},
      {"binary protocol", C::Request("", 0, 3), 1},
      {"body not a property list", C::Request("hello, usbmuxd"), 1},
      {"property list not a dictionary", C::Request("<?xml version=\"1.0\"?><plist><array/></plist>"), 1},
      {"unknown message", C::Request(C::Message("Reboot")), 1},
      {"connect without a port", C::Request(C::Message("Connect", 1)), 1},
      {"connect to an unknown device", C::Request(C::Message("Connect", 99, kIosAppPort)), 2},
      {"connect to a port nobody serves", C::Request(C::Message("Connect", 1, 22)), 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    C client(options.usbmuxdAddress);
    EXPECT_EQ(client.Ask(c.bytes), c.answer);
  }

  // A lockdown tunnel: a request without "Request" is answered with an error; a length that no
  // request has ends the tunnel.
  C lockdown(options.usbmuxdAddress);
  ASSERT_EQ(lockdown.Ask(C::Request(C::Message("Connect", 1, kLockdownPort))), 0);
  const std::string empty = "<?xml version=\"1.0\"?><plist><dict/></plist>";
  std::string message;
  PutBe32(message, static_cast<uint32_t>(empty.size()));
  message += empty;
  ASSERT_EQ(SendSocket(lockdown.socket(), message.data(), message.size()), static_cast<int>(message.size()));
  char prefix[4];
  ASSERT_EQ(RecvSocket(lockdown.socket(), prefix, 4, true), 4);
  std::string answer(Be32(std::string(prefix, 4), 0), '\0');
  ASSERT_EQ(RecvSocket(lockdown.socket(), &answer[0], answer.size(), true), static_cast<int>(answer.size()));
  std::string error;
  EXPECT_TRUE(StringAt(ParsePlist(answer), "Error", error));
  ASSERT_EQ(SendSocket(lockdown.socket(), "\xFF\xFF\xFF\xFF", 4), 4);
  EXPECT_EQ(RecvSocket(lockdown.socket(), prefix, 4, true), 0);

  // An app tunnel whose outer header claims more than any PC frame: the app ends that link and
  // serves the next one.
  C app(options.usbmuxdAddress);
  ASSERT_EQ(app.Ask(C::Request(C::Message("Connect", 1, kIosAppPort))), 0);
  const std::string huge = OuterHeader(64u << 20);
  ASSERT_EQ(SendSocket(app.socket(), huge.data(), huge.size()), static_cast<int>(huge.size()));
  int got = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);  // pings keep coming otherwise
  for (char byte; std::chrono::steady_clock::now() < deadline && (got = RecvSocket(app.socket(), &byte, 1, false)) > 0;) {
  }
  EXPECT_EQ(got, 0);  // closed by the phone, not timed out
  IosPcPeer pc;
  ASSERT_EQ(pc.Connect(kUdidA, kIosAppPort), IDEVICE_E_SUCCESS);
  ASSERT_TRUE(pc.Send(1005));
  ASSERT_TRUE(pc.Await(2005));
  EXPECT_EQ(DeviceList(), (std::vector<std::string>{kUdidA}));
}

}  // namespace
}  // namespace lumo::phonesim
