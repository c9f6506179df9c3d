// Debian's real adb for tests, kept away from the developer's own: while an AdbTool lives, the
// process's HOME (adb's key) and TMPDIR (the server's log) point into a temporary folder, so
// every adb started from the test, by the tool or by the library's own command runner, uses
// them; and whatever server was started is stopped when the tool goes, a failed test included.
// Make it before starting threads that read the environment, and let it go after they stopped.
#pragma once

#include <cstdint>
#include <string>

#include "platform/process.h"

namespace lumo::test {

class AdbTool {
 public:
  AdbTool();
  ~AdbTool();  // "adb kill-server", then the environment and the folder as they were
  AdbTool(const AdbTool&) = delete;
  AdbTool& operator=(const AdbTool&) = delete;

  // LUMO_TEST_ADB when set, else /usr/bin/adb.
  static std::string Program();
  static bool Available();

  // Runs adb with `args` split at blanks, with no shell ("|" reaches adb as an argument).
  CommandResult Run(const std::string& args, uint32_t timeoutMs = 20000) const;
  // Waits until `adb devices -l` lists `serial` in state "device" with `mustContain` on its
  // line (a model, say, to tell a restarted phone from the one before) and returns that line;
  // empty when `timeoutMs` passed. Right after a server starts a phone is briefly missing or
  // offline; adb's own wait-for-device does the waiting, so nothing here sleeps.
  std::string WaitForDevice(const std::string& serial, const std::string& mustContain = std::string(),
                            uint32_t timeoutMs = 20000) const;
  // The server's log, for a failure message.
  std::string ServerLog() const;
  const std::string& Folder() const { return m_folder; }

 private:
  std::string m_folder, m_tmp;
  std::string m_oldHome, m_oldTmp;
  bool m_hadHome = false, m_hadTmp = false;
};

// The line of `serial` in `adb devices -l` output (without its line end); empty when absent.
std::string DeviceLine(const std::string& listing, const std::string& serial);

}  // namespace lumo::test
