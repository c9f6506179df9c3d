// The simulated usbmuxd's messages: a 16-byte little-endian header (length with the header,
// version, message, tag) and, for the plist protocol, an XML property list. Internal to the
// daemon's sources.
#pragma once

#include <cstdint>
#include <string>

#include "MuxPlist.h"

namespace lumo::phonesim::usbmux {

constexpr uint32_t kHeaderSize = 16;
constexpr uint32_t kPlistMessage = 8, kResultMessage = 1;
enum : uint32_t { kResultOk = 0, kResultBadCommand = 1, kResultBadDevice = 2, kResultRefused = 3 };
constexpr uint64_t kIphoneProductId = 0x12A8;
constexpr const char* kSystemBuid = "6A1D5C3E-8B2F-4C71-9E40-2B7D1F3A5C86";
constexpr const char* kHostId = "C4E8A2B6-1D3F-4A57-8B9C-0E1F2A3B4C5D";

inline void PutLe32(std::string& s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (8 * i));
}
inline uint32_t Le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

inline std::string Packet(uint32_t tag, const Plist& body) {
  const std::string xml = ToXml(body);
  std::string bytes(kHeaderSize, '\0');
  PutLe32(bytes, 0, static_cast<uint32_t>(kHeaderSize + xml.size()));
  PutLe32(bytes, 4, 1);
  PutLe32(bytes, 8, kPlistMessage);
  PutLe32(bytes, 12, tag);
  return bytes + xml;
}

inline std::string ResultPacket(uint32_t tag, uint32_t number) {
  Plist body = NewDict();
  SetString(body, "MessageType", "Result");
  SetUint(body, "Number", number);
  return Packet(tag, body);
}

// The binary protocol's result, for a client that does not speak plist.
inline std::string BinaryResultPacket(uint32_t tag, uint32_t number) {
  std::string bytes(kHeaderSize + 4, '\0');
  PutLe32(bytes, 0, kHeaderSize + 4);
  PutLe32(bytes, 8, kResultMessage);
  PutLe32(bytes, 12, tag);
  PutLe32(bytes, 16, number);
  return bytes;
}

inline plist_t AttachedEntry(uint32_t id, const std::string& udid) {
  Plist properties = NewDict();
  SetUint(properties, "ConnectionSpeed", 480000000);
  SetString(properties, "ConnectionType", "USB");
  SetUint(properties, "DeviceID", id);
  SetUint(properties, "LocationID", 0);
  SetUint(properties, "ProductID", kIphoneProductId);
  SetString(properties, "SerialNumber", udid);
  Plist entry = NewDict();
  SetUint(entry, "DeviceID", id);
  SetString(entry, "MessageType", "Attached");
  Set(entry, "Properties", properties.release());
  return entry.release();
}

inline std::string AttachedPacket(uint32_t id, const std::string& udid) { return Packet(0, Plist(AttachedEntry(id, udid))); }

inline std::string DetachedPacket(uint32_t id) {
  Plist body = NewDict();
  SetUint(body, "DeviceID", id);
  SetString(body, "MessageType", "Detached");
  return Packet(0, body);
}

// A record with the host's identity is all that lets a PC's tools start a lockdown session
// (which this phone runs without SSL); no certificates are needed for that.
inline std::string PairRecordPacket(uint32_t tag) {
  Plist record = NewDict();
  SetString(record, "HostID", kHostId);
  SetString(record, "SystemBUID", kSystemBuid);
  const std::string xml = ToXml(record);
  Plist body = NewDict();
  Set(body, "PairRecordData", plist_new_data(xml.data(), xml.size()));
  return Packet(tag, body);
}

}  // namespace lumo::phonesim::usbmux
