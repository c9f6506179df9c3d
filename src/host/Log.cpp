#include "host/Log.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "host/HostServices.h"

namespace lumo {
namespace {

// "%I64u" is the Windows spelling of "%llu"; rewrite it so that one format works everywhere.
// Formats without it (nearly all) are used as they are.
const char* TranslateFormat(const char* format, std::string& storage) {
  if (!std::strstr(format, "%I64")) return format;
  storage.clear();
  for (const char* p = format; *p;) {
    if (p[0] == '%' && p[1] == '%') {
      storage.append(p, 2);
      p += 2;
    } else if (p[0] == '%' && p[1] == 'I' && p[2] == '6' && p[3] == '4') {
      storage.append("%ll");
      p += 4;
    } else {
      storage.push_back(*p++);
    }
  }
  return storage.c_str();
}

}  // namespace

std::string FormatLogLine(const char* format, va_list args) {
  if (!format) return std::string();
  std::string translated;
  const char* fmt = TranslateFormat(format, translated);
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(small, sizeof(small), fmt, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, static_cast<size_t>(n));
  size_t want = static_cast<size_t>(n) < kMaxLogLine ? static_cast<size_t>(n) : kMaxLogLine;
  std::vector<char> big(want + 1);
  va_copy(copy, args);
  std::vsnprintf(big.data(), big.size(), fmt, copy);
  va_end(copy);
  return std::string(big.data(), want);
}

}  // namespace lumo

void LogV(int level, const char* format, va_list args) {
  std::string line = lumo::FormatLogLine(format, args);
  lumo::Host().WriteLog(level, line);
}

void Log(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  LogV(level, format, args);
  va_end(args);
}
