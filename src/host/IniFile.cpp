#include "host/IniFile.h"

#include <cctype>
#include <cstdio>
#include <vector>

#include "platform/paths.h"
#include "platform/text.h"

namespace lumo {
namespace {

std::string Trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

bool SameNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    std::string line = text.substr(start, nl - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = nl + 1;
  }
  return lines;
}

// A section header yields its name; anything else an empty optional-like false.
bool SectionName(const std::string& trimmed, std::string& name) {
  if (trimmed.size() < 2 || trimmed.front() != '[') return false;
  size_t close = trimmed.find(']');
  if (close == std::string::npos) return false;
  name = Trim(trimmed.substr(1, close - 1));
  return true;
}

bool KeyValue(const std::string& trimmed, std::string& key, std::string& value) {
  if (trimmed.empty() || trimmed[0] == ';' || trimmed[0] == '#') return false;
  size_t eq = trimmed.find('=');
  if (eq == std::string::npos) return false;
  key = Trim(trimmed.substr(0, eq));
  value = Trim(trimmed.substr(eq + 1));
  return true;
}

}  // namespace

bool IniFile::Find(const std::string& text, const std::string& section, const std::string& key,
                   std::string& value) {
  bool inSection = false;
  for (const std::string& raw : SplitLines(text)) {
    std::string line = Trim(raw);
    std::string name, k, v;
    if (SectionName(line, name)) {
      inSection = SameNoCase(name, section);
    } else if (inSection && KeyValue(line, k, v) && SameNoCase(k, key)) {
      value = v;
      return true;
    }
  }
  return false;
}

std::string IniFile::Update(const std::string& text, const std::string& section, const std::string& key,
                            const std::string& value) {
  std::vector<std::string> lines = SplitLines(text);
  bool inSection = false;
  long sectionEnd = -1;  // index after the last line of the matching section
  for (size_t i = 0; i < lines.size(); ++i) {
    std::string line = Trim(lines[i]);
    std::string name, k, v;
    if (SectionName(line, name)) {
      inSection = SameNoCase(name, section);
      if (inSection) sectionEnd = static_cast<long>(i) + 1;
    } else if (inSection) {
      if (KeyValue(line, k, v) && SameNoCase(k, key)) {
        lines[i] = k + "=" + value;
        sectionEnd = -2;
        break;
      }
      if (!line.empty()) sectionEnd = static_cast<long>(i) + 1;
    }
  }
  if (sectionEnd == -1) {
    if (!lines.empty() && !Trim(lines.back()).empty()) lines.emplace_back();
    lines.push_back("[" + section + "]");
    lines.push_back(key + "=" + value);
  } else if (sectionEnd >= 0) {
    lines.insert(lines.begin() + sectionEnd, key + "=" + value);
  }
  std::string out;
  for (const std::string& l : lines) {
    out += l;
    out += "\n";
  }
  return out;
}

int IniFile::ParseInt(const std::string& value) {
  size_t i = 0;
  bool negative = false;
  if (i < value.size() && (value[i] == '-' || value[i] == '+')) negative = value[i++] == '-';
  long long n = 0;
  while (i < value.size() && std::isdigit(static_cast<unsigned char>(value[i]))) {
    n = n * 10 + (value[i++] - '0');
    if (n > 0x7FFFFFFFLL) break;  // saturate rather than overflow on absurd input
  }
  if (n > 0x7FFFFFFFLL) n = 0x7FFFFFFFLL;
  return static_cast<int>(negative ? -n : n);
}

std::wstring IniStore::PathOf(const std::string& file) const { return JoinPath(m_dir, Utf8ToWide(file)); }

static std::string ReadAll(const std::wstring& path) {
  std::string text;
  FILE* f = OpenFile(path, "rb");
  if (!f) return text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

bool IniStore::Get(const std::string& file, const std::string& section, const std::string& key,
                   std::string& value) {
  std::lock_guard<std::mutex> guard(m_mutex);
  return IniFile::Find(ReadAll(PathOf(file)), section, key, value);
}

bool IniStore::Set(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& value) {
  std::lock_guard<std::mutex> guard(m_mutex);
  CreateDirectoryOneLevel(AppDataDir());
  CreateDirectoryOneLevel(m_dir);
  std::wstring path = PathOf(file);
  std::string text = IniFile::Update(ReadAll(path), section, key, value);
  // Write beside the file and rename over it, so that a crash never leaves half a config.
  std::wstring temp = path + L".tmp";
  FILE* f = OpenFile(temp, "wb");
  if (!f) return false;
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  ok = (std::fclose(f) == 0) && ok;
  if (!ok) return false;
  return RenameFile(temp, path);
}

}  // namespace lumo
