#include "platform/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "platform/command_line.h"
#include "platform/errors.h"
#include "platform/text.h"

extern char** environ;

namespace lumo {
namespace {

std::string ReadLink(const std::string& path) {
  char buf[4096];
  ssize_t n = ::readlink(path.c_str(), buf, sizeof(buf) - 1);
  if (n <= 0) return std::string();
  return std::string(buf, static_cast<size_t>(n));
}

std::vector<uint32_t> ListPids() {
  std::vector<uint32_t> pids;
  DIR* proc = ::opendir("/proc");
  if (!proc) return pids;
  while (dirent* e = ::readdir(proc)) {
    char* end = nullptr;
    unsigned long pid = std::strtoul(e->d_name, &end, 10);
    if (end && *end == '\0' && pid > 0) pids.push_back(static_cast<uint32_t>(pid));
  }
  ::closedir(proc);
  return pids;
}

void AppendBounded(std::string& out, const char* data, size_t n) {
  if (out.size() < kMaxCommandOutput) out.append(data, std::min(n, kMaxCommandOutput - out.size()));
}

}  // namespace

CommandResult RunCommandLine(const std::wstring& commandLine, uint32_t timeoutMs) {
  CommandResult result;
  std::vector<std::string> args = SplitCommandLine(WideToUtf8(commandLine));
  if (args.empty()) return result;
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);

  int outFds[2], errFds[2];
  if (::pipe2(outFds, O_CLOEXEC) != 0) return result;
  if (::pipe2(errFds, O_CLOEXEC) != 0) {
    ::close(outFds[0]);
    ::close(outFds[1]);
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outFds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errFds[1], 2);
  pid_t pid = 0;
  int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(outFds[1]);
  ::close(errFds[1]);
  if (rc != 0) {
    ::close(outFds[0]);
    ::close(errFds[0]);
    SetLastSystemError(rc);
    return result;
  }
  result.started = true;

  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  char buf[8192];
  bool exited = false;
  int status = 0;
  pollfd fds[2] = {{outFds[0], POLLIN, 0}, {errFds[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.output, &result.errors};
  auto drainAll = [&] {
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0) continue;
      ::fcntl(fds[i].fd, F_SETFL, O_NONBLOCK);
      ssize_t n;
      while ((n = ::read(fds[i].fd, buf, sizeof(buf))) > 0) AppendBounded(*sinks[i], buf, static_cast<size_t>(n));
    }
  };
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      result.timedOut = true;
      break;
    }
    if (fds[0].fd < 0 && fds[1].fd < 0) {  // both streams ended: only the exit is left
      exited = ::waitpid(pid, &status, 0) == pid;
      break;
    }
    // Short slices: a program may leave a daemon behind that keeps the pipes open (adb's server
    // does), so the end of the output is not always an end of file; the program's exit is.
    int ready = ::poll(fds, 2, static_cast<int>(std::min<long long>(left.count(), 50)));
    if (ready > 0) {
      for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        ssize_t n = ::read(fds[i].fd, buf, sizeof(buf));
        if (n > 0) {
          AppendBounded(*sinks[i], buf, static_cast<size_t>(n));
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
          fds[i].fd = -1;  // this stream is finished; poll skips negative descriptors
        }
      }
      continue;
    }
    if (::waitpid(pid, &status, WNOHANG) == pid) {
      exited = true;
      drainAll();  // whatever is still buffered in the pipes belongs to the output
      break;
    }
  }
  if (!exited) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  ::close(outFds[0]);
  ::close(errFds[0]);
  if (exited && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  return result;
}

uint32_t FindProcessByName(const std::wstring& exeName) {
  std::string name = WideToUtf8(exeName);
  for (uint32_t pid : ListPids()) {
    std::string exe = ReadLink("/proc/" + std::to_string(pid) + "/exe");
    size_t slash = exe.rfind('/');
    std::string base = slash == std::string::npos ? exe : exe.substr(slash + 1);
    if (!base.empty() && base == name) return pid;
  }
  return 0;
}

std::vector<ProcessEntry> ListProcesses() {
  std::vector<ProcessEntry> all;
  for (uint32_t pid : ListPids()) {
    std::string exe = ReadLink("/proc/" + std::to_string(pid) + "/exe");
    if (exe.empty()) continue;  // a kernel thread, or a process we may not look into
    size_t slash = exe.rfind('/');
    all.push_back({pid, Utf8ToWide(slash == std::string::npos ? exe : exe.substr(slash + 1))});
  }
  return all;
}

std::wstring GetProcessPathByPid(uint32_t pid) {
  return Utf8ToWide(ReadLink("/proc/" + std::to_string(pid) + "/exe"));
}

KillResult KillProcess(uint32_t pid) {
  if (pid == 0 || ::kill(static_cast<pid_t>(pid), 0) != 0) {
    if (pid == 0) SetLastSystemError(ESRCH);
    return KillResult::OpenFailed;
  }
  return ::kill(static_cast<pid_t>(pid), SIGKILL) == 0 ? KillResult::Killed : KillResult::TerminateFailed;
}

bool RunningUnderWine() { return false; }

uint32_t CurrentProcessId() { return static_cast<uint32_t>(::getpid()); }

std::wstring ExecutablePath() { return Utf8ToWide(ReadLink("/proc/self/exe")); }

std::map<std::string, std::string> ListeningTcpPortOwners() {
  // Listening sockets by inode, from the kernel's tables; then their owners from /proc/*/fd.
  std::map<std::string, std::string> inodeToPort;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string sl, local, remote, state, queues, timer, retr, uid, timeout, inode;
      if (!(fields >> sl >> local >> remote >> state >> queues >> timer >> retr >> uid >> timeout >> inode)) continue;
      if (state != "0A") continue;  // LISTEN
      size_t colon = local.rfind(':');
      if (colon == std::string::npos) continue;
      unsigned long port = std::strtoul(local.c_str() + colon + 1, nullptr, 16);
      inodeToPort.emplace(inode, std::to_string(port));
    }
  }
  std::map<std::string, std::string> owners;
  if (inodeToPort.empty()) return owners;
  for (uint32_t pid : ListPids()) {
    std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
    DIR* dir = ::opendir(fdDir.c_str());
    if (!dir) continue;
    while (dirent* e = ::readdir(dir)) {
      std::string target = ReadLink(fdDir + "/" + e->d_name);
      if (target.compare(0, 8, "socket:[") != 0 || target.back() != ']') continue;
      auto it = inodeToPort.find(target.substr(8, target.size() - 9));
      if (it != inodeToPort.end()) owners.emplace(it->second, std::to_string(pid));
    }
    ::closedir(dir);
  }
  return owners;
}

}  // namespace lumo

namespace lumo {
std::wstring ExecutableFileName(const std::wstring& base) { return base; }
}  // namespace lumo
