// The smallest PC that can talk to the simulated phone over loopback TCP: it sends JSON
// commands as the library frames them and reads the phone's frames one by one, so that a test
// sees exactly what the phone put on the wire, in order.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/socket.h"

namespace lumo::test {

struct PhoneFrame {
  uint8_t type = 0;
  std::string body;  // after the type byte
  Json::Value json;  // type 1: the command
  uint32_t Be32(size_t at) const {
    if (at + 4 > body.size()) return 0;
    const auto* p = reinterpret_cast<const unsigned char*>(body.data()) + at;
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 | p[3];
  }
  int CmdType() const { return json.isObject() && json["cmdType"].isInt() ? json["cmdType"].asInt() : -1; }
  // Types 2 and 6: the payload after the 16-byte media header.
  std::string Payload() const { return body.size() > 16 ? body.substr(16) : std::string(); }
};

class PcPeer {
 public:
  ~PcPeer() { CloseSocket(m_socket); }

  bool Connect(uint16_t port) {
    NetStartup();
    m_socket = OpenTcpSocket();
    // A real-time bound on every read: a phone that says nothing fails the test instead of hanging it.
    return m_socket != kInvalidSocket && ConnectSocket(m_socket, {kIpv4Loopback, port}) &&
           SetReceiveTimeout(m_socket, 10000);
  }

  bool Send(const Json::Value& command) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::string text = Json::writeString(builder, command);
    std::string frame(9, '\0');
    PutBe32(frame, 0, static_cast<uint32_t>(text.size() + 5));
    frame[4] = 1;
    PutBe32(frame, 5, ++m_sequence);
    frame += text;
    return SendSocket(m_socket, frame.data(), frame.size()) == static_cast<int>(frame.size());
  }
  bool Send(int cmdType) {
    Json::Value v(Json::objectValue);
    v["cmdType"] = cmdType;
    return Send(v);
  }

  // The next frame; false on time-out, close or a malformed length.
  bool Read(PhoneFrame& frame) {
    unsigned char prefix[4];
    if (RecvSocket(m_socket, prefix, 4, true) != 4) return false;
    const uint32_t size = static_cast<uint32_t>(prefix[0]) << 24 | static_cast<uint32_t>(prefix[1]) << 16 |
                          static_cast<uint32_t>(prefix[2]) << 8 | prefix[3];
    if (size == 0 || size > (64u << 20)) return false;
    std::string bytes(size, '\0');
    if (RecvSocket(m_socket, &bytes[0], size, true) != static_cast<int>(size)) return false;
    frame = PhoneFrame{static_cast<uint8_t>(bytes[0]), bytes.substr(1), Json::Value()};
    if (frame.type == 1 && frame.body.size() >= 4) {
      Json::CharReaderBuilder reader;
      std::string errors;
      std::unique_ptr<Json::CharReader> r(reader.newCharReader());
      r->parse(frame.body.data() + 4, frame.body.data() + frame.body.size(), &frame.json, &errors);
    }
    frames.push_back(frame);
    return true;
  }

  // Reads until the command `cmdType` arrives; every frame read stays in `frames`.
  bool Await(int cmdType, Json::Value* command = nullptr) {
    PhoneFrame f;
    while (Read(f)) {
      if (f.CmdType() == cmdType) {
        if (command != nullptr) *command = f.json;
        return true;
      }
    }
    return false;
  }
  // Reads until `count` frames of `type` arrived since the call.
  bool AwaitFrames(uint8_t type, size_t count, std::vector<PhoneFrame>* got = nullptr) {
    PhoneFrame f;
    size_t seen = 0;
    while (seen < count && Read(f)) {
      if (f.type != type) continue;
      ++seen;
      if (got != nullptr) got->push_back(f);
    }
    return seen == count;
  }

  std::vector<int> CommandTypes() const {
    std::vector<int> types;
    for (const PhoneFrame& f : frames)
      if (f.type == 1) types.push_back(f.CmdType());
    return types;
  }

  std::vector<PhoneFrame> frames;

 private:
  static void PutBe32(std::string& s, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (24 - 8 * i));
  }
  SocketHandle m_socket = kInvalidSocket;
  uint32_t m_sequence = 0;
};

// The handshake as the library drives it, on any PC peer with Send/Await/Read: 1005, the time
// match, the phone's net tests echoed until it reports prepared (2006), then 1006 and 1004.
template <class Peer>
void DriveHandshake(Peer& pc, uint64_t pcTimeMs = 1700000000000ull) {
  ASSERT_TRUE(pc.Send(1005));
  ASSERT_TRUE(pc.Await(2001));
  Json::Value match(Json::objectValue);
  match["cmdType"] = 1001, match["timestamp"] = Json::UInt64(pcTimeMs);
  ASSERT_TRUE(pc.Send(match));
  for (PhoneFrame f; f.CmdType() != 2006;) {
    ASSERT_TRUE(pc.Read(f));
    if (f.CmdType() != 2000) continue;
    Json::Value echo = f.json;
    echo["cmdType"] = 1000;
    ASSERT_TRUE(pc.Send(echo));
  }
  ASSERT_TRUE(pc.Send(1006));
  ASSERT_TRUE(pc.Send(1004));
  ASSERT_TRUE(pc.Await(2004));
}

}  // namespace lumo::test
