#include "platform/paths.h"

namespace lumo {

std::wstring ProductDataDir() { return JoinPath(AppDataDir(), L"Lumoapp"); }

std::wstring JoinPath(const std::wstring& dir, const std::wstring& name) {
  if (dir.empty()) return name;
  wchar_t last = dir.back();
  if (last == L'/' || last == PathSeparator()) return dir + name;
  return dir + PathSeparator() + name;
}

}  // namespace lumo
