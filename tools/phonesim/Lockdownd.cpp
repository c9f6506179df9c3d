#include "Lockdownd.h"

#include <cstdio>

#include "MuxPlist.h"

namespace lumo::phonesim {
namespace {

// Lockdown requests are a few hundred bytes; a pair request with its certificates a few KB.
constexpr uint32_t kMaxRequest = 64 * 1024;

bool ReadMessage(SocketHandle link, std::string& body) {
  unsigned char prefix[4];
  if (RecvSocket(link, prefix, 4, true) != 4) return false;
  const uint32_t size = static_cast<uint32_t>(prefix[0]) << 24 | static_cast<uint32_t>(prefix[1]) << 16 |
                        static_cast<uint32_t>(prefix[2]) << 8 | prefix[3];
  if (size == 0 || size > kMaxRequest) return false;
  body.resize(size);
  return RecvSocket(link, &body[0], size, true) == static_cast<int>(size);
}

bool WriteMessage(SocketHandle link, const Plist& message) {
  const std::string xml = ToXml(message);
  std::string bytes(4, '\0');
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<char>(xml.size() >> (24 - 8 * i));
  bytes += xml;
  return SendSocket(link, bytes.data(), bytes.size()) == static_cast<int>(bytes.size());
}

// The values of the default domain that a PC reads; a GetValue without a key returns them all.
Plist AllValues(const LockdownIdentity& who) {
  Plist values = NewDict();
  SetString(values, "DeviceName", who.name);
  SetString(values, "ProductType", who.productType);
  SetString(values, "UniqueDeviceID", who.udid);
  SetString(values, "ProductVersion", who.productVersion);
  SetString(values, "DeviceClass", "iPhone");
  SetString(values, "ProductName", "iPhone OS");
  SetString(values, "BuildVersion", "20E252");
  SetString(values, "SerialNumber", who.udid.substr(who.udid.size() > 12 ? who.udid.size() - 12 : 0));
  SetString(values, "ActivationState", "Activated");
  SetString(values, "CPUArchitecture", "arm64e");
  return values;
}

void Fail(const Plist& answer, const char* error) { SetString(answer, "Error", error); }

}  // namespace

void ServeLockdown(SocketHandle link, const LockdownIdentity& who) {
  std::string body, request, key;
  uint64_t sessions = 0;
  while (ReadMessage(link, body)) {
    const Plist message = ParsePlist(body);
    if (!message) return;  // not a property list: nothing sensible to answer
    Plist answer = NewDict();
    const bool hasRequest = StringAt(message, "Request", request);
    if (hasRequest) SetString(answer, "Request", request);
    if (!hasRequest) {
      Fail(answer, "InvalidRequest");
    } else if (request == "QueryType") {
      SetString(answer, "Type", "com.apple.mobile.lockdown");
    } else if (request == "GetValue") {
      std::string domain;
      const bool hasDomain = StringAt(message, "Domain", domain);
      const bool hasKey = StringAt(message, "Key", key);
      if (hasDomain) SetString(answer, "Domain", domain);
      if (hasKey) SetString(answer, "Key", key);
      Plist values = AllValues(who);
      if (hasDomain) {
        Fail(answer, "MissingValue");  // no domain but the default one is simulated
      } else if (!hasKey) {
        Set(answer, "Value", plist_copy(values.get()));
      } else if (plist_t value = Item(values, key.c_str())) {
        Set(answer, "Value", plist_copy(value));
      } else {
        Fail(answer, "MissingValue");
      }
    } else if (request == "StartSession") {
      // A session without SSL: the PC's tools go on in the clear, and nothing they ask of this
      // phone is secret.
      char id[64];
      std::snprintf(id, sizeof id, "5E55A0D1-0000-4000-8000-%012llX", static_cast<unsigned long long>(++sessions));
      SetString(answer, "SessionID", id);
      Set(answer, "EnableSessionSSL", plist_new_bool(0));
    } else if (request == "StopSession") {
      SetString(answer, "Result", "Success");
    } else if (request == "Goodbye") {
      SetString(answer, "Result", "Success");
      WriteMessage(link, answer);
      return;
    } else {
      // Pairing, values that cannot be set, services: nothing the PC's calls need.
      Fail(answer, "UnsupportedRequest");
    }
    if (!WriteMessage(link, answer)) return;
  }
}

}  // namespace lumo::phonesim
