#include "platform/dynamic_library.h"

#include <dlfcn.h>

#include "platform/text.h"

namespace lumo {

void* OpenDynamicLibrary(const std::wstring& path) { return ::dlopen(WideToUtf8(path).c_str(), RTLD_NOW | RTLD_LOCAL); }

void* DynamicLibrarySymbol(void* library, const char* name) { return library ? ::dlsym(library, name) : nullptr; }

void CloseDynamicLibrary(void* library) {
  if (library) ::dlclose(library);
}

std::wstring OwnModuleFolder() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&OwnModuleFolder), &info) == 0 || info.dli_fname == nullptr) return L"";
  std::wstring path = Utf8ToWide(info.dli_fname);
  const size_t slash = path.rfind(L'/');
  return slash == std::wstring::npos ? L"." : path.substr(0, slash);
}

}  // namespace lumo
