// The default "other programs" services of HostServices, on the platform layer.
#include "host/HostServices.h"
#include "platform/errors.h"
#include "platform/process.h"

namespace lumo {

HostCommandResult HostServices::RunCommand(const std::wstring& commandLine, uint32_t timeoutMs) {
  CommandResult run = RunCommandLine(commandLine, timeoutMs);
  HostCommandResult result;
  result.started = run.started;
  result.timedOut = run.timedOut;
  result.exitCode = run.exitCode;
  result.output = std::move(run.output);
  result.errors = std::move(run.errors);
  return result;
}

std::map<std::string, std::string> HostServices::ListeningTcpPorts() { return ListeningTcpPortOwners(); }

std::wstring HostServices::GetProcessPath(uint32_t pid) { return GetProcessPathByPid(pid); }

std::vector<HostProcessEntry> HostServices::ListProcesses() {
  std::vector<HostProcessEntry> out;
  for (ProcessEntry& e : lumo::ListProcesses()) out.push_back({e.pid, std::move(e.exeName)});
  return out;
}

HostKillResult HostServices::KillProcess(uint32_t pid, uint32_t& systemError) {
  systemError = 0;
  switch (lumo::KillProcess(pid)) {
    case KillResult::Killed:
      return HostKillResult::Killed;
    case KillResult::OpenFailed:
      systemError = static_cast<uint32_t>(LastSystemError());
      return HostKillResult::OpenFailed;
    case KillResult::TerminateFailed:
      break;
  }
  systemError = static_cast<uint32_t>(LastSystemError());
  return HostKillResult::TerminateFailed;
}

std::wstring HostServices::HostExecutablePath() { return ExecutablePath(); }

}  // namespace lumo
