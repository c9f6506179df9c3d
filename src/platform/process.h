// Other programs: running a command line and capturing what it printed, the process table, and
// which process listens on which TCP port. Time limits here are real time: they guard against a
// tool that hangs, not protocol timing.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace lumo {

struct CommandResult {
  bool started = false;   // false when the program could not be run at all
  bool timedOut = false;  // the time limit passed and the program was ended
  int exitCode = -1;
  std::string output;     // standard output, as printed
  std::string errors;     // standard error, kept apart: status chatter ("* daemon started")
                          // must not land in text that is parsed line by line
};

// Runs `commandLine`: the program followed by its arguments, split at blanks, where double
// quotes group a blank-containing argument (as the Windows command line is read). No shell is
// involved, so "|" and "grep" reach the program as arguments. No console window is shown.
// Output beyond kMaxCommandOutput bytes (on each stream) is read and discarded.
CommandResult RunCommandLine(const std::wstring& commandLine, uint32_t timeoutMs);
constexpr size_t kMaxCommandOutput = 4 * 1024 * 1024;

// The first process whose executable file name equals `exeName` exactly (case-sensitive); 0
// when there is none.
uint32_t FindProcessByName(const std::wstring& exeName);
struct ProcessEntry {
  uint32_t pid = 0;
  std::wstring exeName;  // the executable's file name, without its folder
};
// Every process, in the system's own order.
std::vector<ProcessEntry> ListProcesses();
// The full path of a process's executable; empty when unknown.
std::wstring GetProcessPathByPid(uint32_t pid);

enum class KillResult { Killed, OpenFailed, TerminateFailed };
// Ends a process at once. On failure LastSystemError() tells why.
KillResult KillProcess(uint32_t pid);
uint32_t CurrentProcessId();
// The running program's own path.
std::wstring ExecutablePath();

// Whether the tools the library drives (adb) belong to the host alone. A Windows host ships its
// own adb.exe beside itself and may stop any adb on the machine; elsewhere the adb on the
// machine is the user's own too, so the library finds it on PATH and ends only its own copy.
#if defined(_WIN32)
constexpr bool kHostOwnsItsTools = true;
#else
constexpr bool kHostOwnsItsTools = false;
#endif
// "adb" -> "adb.exe" where programs carry that suffix.
std::wstring ExecutableFileName(const std::wstring& base);

// True for a Windows build running under wine, whose process and network tables are
// incomplete (its TCP table names no owning process, for one).
bool RunningUnderWine();

// Listening TCP ports (IPv4 and IPv6) and their owners, both as decimal text: "5037" -> "1234".
std::map<std::string, std::string> ListeningTcpPortOwners();

}  // namespace lumo
