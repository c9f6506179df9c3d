#include <windows.h>

#include "platform/dynamic_library.h"

namespace lumo {

void* OpenDynamicLibrary(const std::wstring& path) {
  // Search the library's own folder for what it needs in turn (its libusbmuxd and libplist).
  return reinterpret_cast<void*>(LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
}

void* DynamicLibrarySymbol(void* library, const char* name) {
  return library ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name)) : nullptr;
}

void CloseDynamicLibrary(void* library) {
  if (library) FreeLibrary(static_cast<HMODULE>(library));
}

std::wstring OwnModuleFolder() {
  HMODULE self = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCWSTR>(&OwnModuleFolder), &self))
    return L"";
  wchar_t path[MAX_PATH];
  DWORD n = GetModuleFileNameW(self, path, MAX_PATH);
  if (n == 0 || n >= MAX_PATH) return L"";
  std::wstring folder(path, n);
  const size_t slash = folder.find_last_of(L"\\/");
  return slash == std::wstring::npos ? L"." : folder.substr(0, slash);
}

}  // namespace lumo
