// A small ini-file store with the behaviour of the Windows profile functions that the host used:
// case-insensitive sections and keys, the first match wins, a missing key gives the default, an
// integer read of text that is not a number gives 0, and a write keeps every other line.
#pragma once

#include <mutex>
#include <string>

namespace lumo {

class IniFile {
 public:
  // Reads `key` of `section` from `text`; false when absent.
  static bool Find(const std::string& text, const std::string& section, const std::string& key,
                   std::string& value);
  // Returns `text` with `key` of `section` set to `value` (section and key added when missing).
  static std::string Update(const std::string& text, const std::string& section, const std::string& key,
                            const std::string& value);
  // Integer as GetPrivateProfileInt reads it: optional sign, then decimal digits; else 0.
  static int ParseInt(const std::string& value);
};

// Ini files on disk, one mutex for all of them (they are read a handful of times per session).
class IniStore {
 public:
  explicit IniStore(std::wstring dir) : m_dir(std::move(dir)) {}
  bool Get(const std::string& file, const std::string& section, const std::string& key, std::string& value);
  bool Set(const std::string& file, const std::string& section, const std::string& key, const std::string& value);
  std::wstring PathOf(const std::string& file) const;

 private:
  std::mutex m_mutex;
  std::wstring m_dir;
};

}  // namespace lumo
