#include "platform/paths.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/text.h"

namespace lumo {

std::wstring GetEnvironmentText(const char* name) {
  const char* v = std::getenv(name);
  return v ? Utf8ToWide(v) : std::wstring();
}

std::wstring AppDataDir() {
  std::wstring dir = GetEnvironmentText("LUMO_APPDATA");
  if (!dir.empty()) return dir;
  dir = GetEnvironmentText("XDG_CONFIG_HOME");
  if (!dir.empty()) return dir;
  std::wstring home = GetEnvironmentText("HOME");
  if (home.empty()) home = L"/tmp";
  return JoinPath(home, L".config");
}

std::wstring DebugDumpDir() { return ProductDataDir(); }

wchar_t PathSeparator() { return L'/'; }

bool CreateDirectoryOneLevel(const std::wstring& path) {
  std::string p = WideToUtf8(path);
  if (::mkdir(p.c_str(), 0755) == 0) return true;
  if (errno != EEXIST) return false;
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool FileExists(const std::wstring& path) {
  struct stat st {};
  return ::stat(WideToUtf8(path).c_str(), &st) == 0;
}

FILE* OpenFile(const std::wstring& path, const char* mode) {
  return std::fopen(WideToUtf8(path).c_str(), mode);
}

bool RenameFile(const std::wstring& from, const std::wstring& to) {
  return std::rename(WideToUtf8(from).c_str(), WideToUtf8(to).c_str()) == 0;
}

}  // namespace lumo

namespace lumo {

std::wstring ResolvedPath(const std::wstring& path) {
  char* resolved = ::realpath(WideToUtf8(path).c_str(), nullptr);
  if (resolved == nullptr) return path;
  std::wstring out = Utf8ToWide(resolved);
  std::free(resolved);
  return out;
}

std::wstring FindOnPath(const std::wstring& program) {
  if (program.find(L'/') != std::wstring::npos) return ::access(WideToUtf8(program).c_str(), X_OK) == 0 ? program : L"";
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  const std::string name = WideToUtf8(program);
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string dir = dirs.substr(start, end - start);
    if (dir.empty()) dir = ".";
    const std::string candidate = dir + "/" + name;
    struct stat st;
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
      return Utf8ToWide(candidate);
    start = end + 1;
  }
  return std::wstring();
}

}  // namespace lumo
