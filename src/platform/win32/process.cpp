// winsock2.h must come before windows.h.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <vector>

#include "platform/errors.h"
#include "platform/process.h"
#include "platform/text.h"

namespace lumo {

CommandResult RunCommandLine(const std::wstring& commandLine, uint32_t timeoutMs) {
  CommandResult result;
  if (commandLine.empty()) return result;
  SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  HANDLE errRead = nullptr, errWrite = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &sa, 0)) return result;
  if (!CreatePipe(&errRead, &errWrite, &sa, 0)) {
    CloseHandle(readEnd);
    CloseHandle(writeEnd);
    return result;
  }
  // Only the child's ends are inherited.
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
  HANDLE nul = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);

  STARTUPINFOW si{};
  si.cb = sizeof(si);
  si.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  si.wShowWindow = SW_HIDE;
  si.hStdInput = nul;
  si.hStdOutput = writeEnd;
  si.hStdError = errWrite;
  PROCESS_INFORMATION pi{};
  std::vector<wchar_t> mutableLine(commandLine.begin(), commandLine.end());
  mutableLine.push_back(L'\0');
  BOOL ok = CreateProcessW(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                           &si, &pi);
  DWORD spawnError = GetLastError();
  CloseHandle(writeEnd);
  CloseHandle(errWrite);
  if (nul != INVALID_HANDLE_VALUE) CloseHandle(nul);
  if (!ok) {
    CloseHandle(readEnd);
    CloseHandle(errRead);
    SetLastError(spawnError);
    return result;
  }
  CloseHandle(pi.hThread);
  result.started = true;

  ULONGLONG deadline = GetTickCount64() + timeoutMs;
  char buf[8192];
  auto drainOne = [&](HANDLE pipe, std::string& sink) {
    DWORD avail = 0;
    while (PeekNamedPipe(pipe, nullptr, 0, nullptr, &avail, nullptr) && avail > 0) {
      DWORD got = 0;
      if (!ReadFile(pipe, buf, std::min<DWORD>(avail, sizeof(buf)), &got, nullptr) || got == 0) break;
      if (sink.size() < kMaxCommandOutput) sink.append(buf, std::min<size_t>(got, kMaxCommandOutput - sink.size()));
    }
  };
  auto drain = [&] {
    drainOne(readEnd, result.output);
    drainOne(errRead, result.errors);
  };
  bool exited = false;
  for (;;) {
    drain();
    // The program's exit ends the run, not the end of the pipe: a daemon it started (adb's
    // server) may keep the pipe open for good.
    if (WaitForSingleObject(pi.hProcess, 10) == WAIT_OBJECT_0) {
      exited = true;
      drain();
      break;
    }
    if (GetTickCount64() >= deadline) {
      result.timedOut = true;
      TerminateProcess(pi.hProcess, 1);
      WaitForSingleObject(pi.hProcess, 1000);
      break;
    }
  }
  DWORD code = 0;
  if (exited && GetExitCodeProcess(pi.hProcess, &code)) result.exitCode = static_cast<int>(code);
  CloseHandle(pi.hProcess);
  CloseHandle(readEnd);
  CloseHandle(errRead);
  return result;
}

uint32_t FindProcessByName(const std::wstring& exeName) {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return 0;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  uint32_t pid = 0;
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
    if (exeName == entry.szExeFile) {
      pid = entry.th32ProcessID;
      break;
    }
  }
  CloseHandle(snapshot);
  return pid;
}

std::vector<ProcessEntry> ListProcesses() {
  std::vector<ProcessEntry> all;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return all;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry))
    all.push_back({entry.th32ProcessID, entry.szExeFile});
  CloseHandle(snapshot);
  return all;
}

std::wstring GetProcessPathByPid(uint32_t pid) {
  HANDLE h = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
  if (!h) return std::wstring();
  wchar_t path[32768];
  DWORD size = sizeof(path) / sizeof(path[0]);
  std::wstring result;
  if (QueryFullProcessImageNameW(h, 0, path, &size)) result.assign(path, size);
  CloseHandle(h);
  return result;
}

KillResult KillProcess(uint32_t pid) {
  HANDLE h = OpenProcess(0x1FFFFF, FALSE, pid);  // all access rights
  if (!h) return KillResult::OpenFailed;
  BOOL ok = TerminateProcess(h, 0);
  DWORD error = GetLastError();
  CloseHandle(h);
  if (!ok) {
    SetLastError(error);
    return KillResult::TerminateFailed;
  }
  return KillResult::Killed;
}

bool RunningUnderWine() {
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

uint32_t CurrentProcessId() { return GetCurrentProcessId(); }

std::wstring ExecutablePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    DWORD n = GetModuleFileNameW(nullptr, &path[0], static_cast<DWORD>(path.size()));
    if (n < path.size()) {
      path.resize(n);
      return path;
    }
    path.resize(path.size() * 2);
  }
}

std::map<std::string, std::string> ListeningTcpPortOwners() {
  std::map<std::string, std::string> owners;
  for (ULONG family : {static_cast<ULONG>(AF_INET), static_cast<ULONG>(AF_INET6)}) {
    DWORD size = 0;
    GetExtendedTcpTable(nullptr, &size, FALSE, family, TCP_TABLE_OWNER_PID_LISTENER, 0);
    if (size == 0) continue;
    std::vector<unsigned char> buffer(size);
    if (GetExtendedTcpTable(buffer.data(), &size, FALSE, family, TCP_TABLE_OWNER_PID_LISTENER, 0) != NO_ERROR)
      continue;
    if (family == AF_INET) {
      auto* table = reinterpret_cast<MIB_TCPTABLE_OWNER_PID*>(buffer.data());
      for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        const auto& row = table->table[i];
        owners.emplace(std::to_string(ntohs(static_cast<u_short>(row.dwLocalPort))), std::to_string(row.dwOwningPid));
      }
    } else {
      auto* table = reinterpret_cast<MIB_TCP6TABLE_OWNER_PID*>(buffer.data());
      for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        const auto& row = table->table[i];
        owners.emplace(std::to_string(ntohs(static_cast<u_short>(row.dwLocalPort))), std::to_string(row.dwOwningPid));
      }
    }
  }
  return owners;
}

}  // namespace lumo

namespace lumo {
std::wstring ExecutableFileName(const std::wstring& base) { return base + L".exe"; }
}  // namespace lumo
