#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <cstdlib>

#include "platform/paths.h"
#include "platform/text.h"

namespace lumo {

std::wstring GetEnvironmentText(const char* name) {
  std::wstring wideName = Utf8ToWide(name);
  DWORD n = GetEnvironmentVariableW(wideName.c_str(), nullptr, 0);
  if (n == 0) return std::wstring();
  std::wstring value(n, L'\0');
  n = GetEnvironmentVariableW(wideName.c_str(), &value[0], n);
  value.resize(n);
  return value;
}

std::wstring AppDataDir() {
  std::wstring dir = GetEnvironmentText("LUMO_APPDATA");
  if (!dir.empty()) return dir;
  wchar_t path[MAX_PATH] = {0};
  if (SUCCEEDED(SHGetFolderPathW(nullptr, CSIDL_APPDATA, nullptr, 0, path))) return path;
  return GetEnvironmentText("APPDATA");
}

std::wstring DebugDumpDir() { return L"e:\\"; }

wchar_t PathSeparator() { return L'\\'; }

bool CreateDirectoryOneLevel(const std::wstring& path) {
  if (CreateDirectoryW(path.c_str(), nullptr)) return true;
  if (GetLastError() != ERROR_ALREADY_EXISTS) return false;
  DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool FileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

FILE* OpenFile(const std::wstring& path, const char* mode) {
  return _wfopen(path.c_str(), Utf8ToWide(mode).c_str());
}

bool RenameFile(const std::wstring& from, const std::wstring& to) {
  return MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
}

}  // namespace lumo

namespace lumo {

std::wstring ResolvedPath(const std::wstring& path) { return path; }

std::wstring FindOnPath(const std::wstring& program) {
  wchar_t found[MAX_PATH];
  DWORD n = SearchPathW(nullptr, program.c_str(), L".exe", MAX_PATH, found, nullptr);
  return n > 0 && n < MAX_PATH ? std::wstring(found, n) : std::wstring();
}

}  // namespace lumo
