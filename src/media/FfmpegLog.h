// Routes FFmpeg's own log messages into the library's log, rate-limited. Installed once per
// process by the first decoder.
#pragma once

namespace lumo {
void InstallFfmpegLog();
}  // namespace lumo
