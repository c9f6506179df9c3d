// The Android phone as an adb server sees it: a device on an emulator port (5555, 5557, ...)
// that speaks the adb transport protocol, answers the shell commands the PC runs to find the
// app, and hands each stream that `adb forward` opens to the app's port to the simulated app
// as its link. So the PC's real adb finds, lists, queries and forwards to the simulator exactly
// as it would to a phone on a cable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Transport.h"

namespace lumo::phonesim {

// The largest message payload this device takes and sends, as a current device advertises it.
// Old devices said 4096; a transport made with that splits every large frame over many
// messages, which is how the tests exercise reassembly.
constexpr uint32_t kAdbDeviceMaxPayload = 256 * 1024;
constexpr uint32_t kAdbDeviceMinPayload = 4096;
// The app's ports on the phone: the usual one and the one for content type 1.
constexpr uint16_t kAppPort = 8182;
constexpr uint16_t kAppPortContentType1 = 8183;

// Listens on 127.0.0.1:options.adbDevicePort (5555 when 0); the serial is "emulator-<port - 1>".
std::unique_ptr<PhoneTransport> MakeAdbDeviceTransport(const PhoneSimOptions& options,
                                                       uint32_t maxPayload = kAdbDeviceMaxPayload);

// The transport protocol's message: a 24-byte little-endian header, then the payload.
namespace adbwire {
constexpr uint32_t kCnxn = 0x4e584e43, kOpen = 0x4e45504f, kOkay = 0x59414b4f, kWrte = 0x45545257,
                   kClse = 0x45534c43, kAuth = 0x48545541, kSync = 0x434e5953;
constexpr uint32_t kVersion = 0x01000001;  // the version from which checksums may be left out
constexpr size_t kHeaderSize = 24;
struct Header {
  uint32_t command = 0, arg0 = 0, arg1 = 0, length = 0, checksum = 0, magic = 0;
};
// The checksum is the byte sum: servers since kVersion ignore it, older ones check it.
void AppendMessage(std::string& out, uint32_t command, uint32_t arg0, uint32_t arg1, const char* data, size_t size);
std::string Encode(uint32_t command, uint32_t arg0, uint32_t arg1, const std::string& data = std::string());
Header DecodeHeader(const unsigned char (&bytes)[kHeaderSize]);
}  // namespace adbwire

// The phone's shell, as far as the PC uses it: "pm list package[s] [-3|-s] [FILTER]" and "ps",
// each optionally piped through "grep WORD". Anything else fails as the phone's shell does.
struct DeviceShellResult {
  std::string out, err;
  int exitCode = 0;
};
DeviceShellResult RunDeviceShell(const std::string& commandLine, const PhoneSimOptions& options);
// What a stream to the service "shell[,OPTION...]:COMMAND" carries back: with the option "v2"
// the shell protocol's packets (stdout, stderr, then the exit code), else the bare text. False
// when `service` is not a shell.
bool AnswerShellService(const std::string& service, const PhoneSimOptions& options, std::string& answer);

}  // namespace lumo::phonesim
