// The library's logger: printf formats, "%I64u"/"%I64d"/"%I64x" accepted on every platform, every
// "%s" argument UTF-8. The finished line goes to the host logger.
#pragma once

#include <cstdarg>
#include <string>

enum LogLevel : int { LOG_INFO = 2, LOG_BAD_DATA = 3, LOG_ERROR = 4 };

void Log(int level, const char* format, ...);
void LogV(int level, const char* format, va_list args);

namespace lumo {
// Formats like Log without logging; exposed for the tests of the format translation.
std::string FormatLogLine(const char* format, va_list args);
// Lines longer than this are cut: a phone can send megabytes of JSON, and a log line that
// large helps nobody.
constexpr size_t kMaxLogLine = 16 * 1024;
}  // namespace lumo
