// The original host's command runner and port scanner, under the names the device code has
// always called them by, on top of HostServices (which a test host scripts).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace WinCmdRun {

// adb can take seconds to start its server on a slow PC; a tool that takes longer than this is
// hung, and is ended so that the caller's thread is not.
constexpr uint32_t kDefaultTimeoutMs = 30000;

// Runs the command line to its end and returns what it printed on its standard output, as wide
// text whose lines all end in "\r\n" whatever the platform printed (the parsers cut at "\r\n").
// Standard error is logged, not returned: tools print progress there ("* daemon started") that
// would otherwise be read as data. Empty when nothing was printed or the run failed (logged).
std::wstring RunCmdLine(const std::wstring& commandLine, uint32_t timeoutMs = kDefaultTimeoutMs);

// Cuts text at "\r\n" into lines without their separators; text after the last "\r\n" is the
// last line when it is not empty.
std::vector<std::wstring> SplitCmdResult(const std::wstring& text);

// Every "\n" not already preceded by "\r" becomes "\r\n".
std::wstring ToCrlf(const std::wstring& text);

}  // namespace WinCmdRun

namespace PortScan {

struct ProcessData {
  std::string pid;  // the owning process id as decimal text
};

class ScanTcpPortUtil {
 public:
  static ScanTcpPortUtil* GetInstance();
  // Listening TCP port (decimal text) -> its owner.
  std::map<std::string, ProcessData> GetProcessDict();
  std::wstring GetProcessPathByPid(uint32_t pid);
};

}  // namespace PortScan
