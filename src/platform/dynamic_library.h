// Loading a shared library at run time, for optional dependencies the build does not link.
#pragma once

#include <string>

namespace lumo {

// nullptr when it cannot be loaded; the system's error is then in LastSystemError().
void* OpenDynamicLibrary(const std::wstring& path);
void* DynamicLibrarySymbol(void* library, const char* name);
void CloseDynamicLibrary(void* library);
// The folder of the module that holds this code (our DLL, or the program it is linked into).
std::wstring OwnModuleFolder();

}  // namespace lumo
