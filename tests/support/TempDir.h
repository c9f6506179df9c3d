// A temporary folder, pointed to by LUMO_APPDATA for the scope of a test, removed afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace lumo::test {

class ScopedAppData {
 public:
  ScopedAppData() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumo-test-XXXXXX").string();
    char* made = ::mkdtemp(&pattern[0]);
    path = made ? made : "";
    const char* old = std::getenv("LUMO_APPDATA");
    if (old) m_old = old, m_hadOld = true;
    ::setenv("LUMO_APPDATA", path.c_str(), 1);
  }
  ~ScopedAppData() {
    if (m_hadOld) ::setenv("LUMO_APPDATA", m_old.c_str(), 1);
    else ::unsetenv("LUMO_APPDATA");
    std::error_code ec;
    if (!path.empty()) std::filesystem::remove_all(path, ec);
  }
  std::string path;

 private:
  std::string m_old;
  bool m_hadOld = false;
};

}  // namespace lumo::test
