// Reading what adb printed. Only parsing lives here, no process is run, so the rules are tested
// on captured adb output and fuzzed. The text comes from WinCmdRun::RunCmdLine, with "\r\n" line
// ends on every platform.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "device/PhoneDeviceTypes.h"

namespace PHONE {

// The header line of a device listing; its length is what is cut from the front.
extern const wchar_t kDeviceListHeader[];

// Lines longer than this are not searched. Real adb lines stay under a few hundred characters,
// and the standard regular-expression engine recurses once or more per character it matches,
// at some 250-500 bytes of stack each (measured): one endless line from a broken tool would
// otherwise overflow the stack of the thread that lists (1 MB on Windows).
constexpr size_t kMaxParsedLine = 1024;

// One line of `adb forward --list`; every field empty when the line is not a forward.
AdbForwardItem ParseForwardLine(const std::wstring& line);
// Every line of the printed list whose serial could be read, in order.
std::vector<AdbForwardItem> ParseForwardList(const std::wstring& printed);

// One line of `adb devices -l`, with or without its "\r\n". Logs a state other than "device".
AndroidDeviceInfo ParseDeviceLine(const std::wstring& line);

enum class DeviceListing { NoDevicesOrError, Parsed };
// The whole listing: the header is cut, the body split at "\r\n" (text after the last one is
// dropped), and every online phone with a serial is put in `online`, keyed by serial.
// NoDevicesOrError when the body is empty or reports "error:" (`online` is then empty).
DeviceListing ParseDeviceListing(const std::wstring& printed, std::map<std::wstring, AndroidDeviceInfo>& online);

}  // namespace PHONE
