// FFmpeg's log, routed into ours.
#include "media/FfmpegLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <cstdarg>
#include <cstring>
#include <mutex>

#include "host/Log.h"
#include "platform/clock.h"

namespace lumo {
namespace {

// FFmpeg's own messages go to our log. A broken stream makes the decoder complain about every
// packet, so at most kFfmpegLinesPerSecond lines get through each second; the rest are
// counted and the count is logged when the next second opens.
constexpr int kFfmpegLinesPerSecond = 20;
std::mutex g_ffmpegLogMutex;
uint32_t g_ffmpegWindowStart = 0;
int g_ffmpegLines = 0;
int g_ffmpegSuppressed = 0;
int g_ffmpegPrefix = 1;

void FfmpegLogCallback(void* avcl, int level, const char* fmt, va_list vl) {
  if (level > av_log_get_level() || level > AV_LOG_INFO) return;
  const int ourLevel = level <= AV_LOG_ERROR ? LOG_ERROR : level <= AV_LOG_WARNING ? LOG_BAD_DATA : LOG_INFO;
  char line[1024];
  int suppressedBefore = 0;
  {
    std::lock_guard<std::mutex> guard(g_ffmpegLogMutex);
    av_log_format_line2(avcl, level, fmt, vl, line, sizeof line, &g_ffmpegPrefix);
    const uint32_t now = lumo::TickCountMs();
    if (now - g_ffmpegWindowStart >= 1000) {
      g_ffmpegWindowStart = now;
      g_ffmpegLines = 0;
      suppressedBefore = g_ffmpegSuppressed;
      g_ffmpegSuppressed = 0;
    }
    if (g_ffmpegLines >= kFfmpegLinesPerSecond) {
      ++g_ffmpegSuppressed;
      return;
    }
    ++g_ffmpegLines;
  }
  size_t len = std::strlen(line);
  while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) line[--len] = '\0';
  if (suppressedBefore > 0) Log(LOG_BAD_DATA, "[ffmpeg] %d messages suppressed", suppressedBefore);
  if (len > 0) Log(ourLevel, "[ffmpeg] %s", line);
}

}  // namespace

void InstallFfmpegLog() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_callback(FfmpegLogCallback); });
}

}  // namespace lumo
