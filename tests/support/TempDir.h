// A temporary folder, pointed to by LUMO_APPDATA for the scope of a test, removed afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

namespace lumo::test {

inline void SetEnv(const char* name, const std::string& value) {
#if defined(_WIN32)
  _putenv_s(name, value.c_str());
#else
  ::setenv(name, value.c_str(), 1);
#endif
}

inline void UnsetEnv(const char* name) {
#if defined(_WIN32)
  _putenv_s(name, "");
#else
  ::unsetenv(name);
#endif
}

class ScopedAppData {
 public:
  ScopedAppData() {
    std::random_device rd;
    auto dir = std::filesystem::temp_directory_path() / ("lumo-test-" + std::to_string(rd()) + std::to_string(rd()));
    std::filesystem::create_directories(dir);
    path = dir.string();
    const char* old = std::getenv("LUMO_APPDATA");
    if (old) m_old = old, m_hadOld = true;
    SetEnv("LUMO_APPDATA", path);
  }
  ~ScopedAppData() {
    if (m_hadOld) SetEnv("LUMO_APPDATA", m_old);
    else UnsetEnv("LUMO_APPDATA");
    std::error_code ec;
    if (!path.empty()) std::filesystem::remove_all(path, ec);
  }
  std::string path;

 private:
  std::string m_old;
  bool m_hadOld = false;
};

}  // namespace lumo::test
