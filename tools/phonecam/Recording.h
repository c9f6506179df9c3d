// What a reference-host session leaves behind for a person to look at: a PNG snapshot of the
// last picture shown, the first seconds of pictures as a Y4M file any player opens, and the
// capture-to-screen latency over time as a self-contained HTML page. (The audio goes to a WAV
// file through the library's own audio output selection.)
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace phonecam {

// Full-range RGB from limited-range BT.601 I420 with tightly packed planes (what GetYuvData
// hands out), 3 bytes per pixel.
void I420ToRgb(const uint8_t* i420, int width, int height, std::vector<uint8_t>& rgb);
// Writes 8-bit RGB as PNG; false with `error` set when the file cannot be written.
bool WritePng(const std::string& path, const uint8_t* rgb, int width, int height, std::string& error);

class Recorder {
 public:
  // Files go to `dir` (created if missing) named `<prefix>-snapshot.png`, `<prefix>-first.y4m`
  // and `<prefix>-latency.html`; the Y4M file holds the pictures of the first `y4mSeconds` from
  // the first picture on.
  Recorder(std::string dir, std::string prefix, double y4mSeconds, int fps);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // One picture the host pulled at `t` seconds into the session; `latencyMs` < 0 when the
  // picture says nothing about its capture time.
  void OnPicture(const uint8_t* i420, int width, int height, double t, int latencyMs);
  // Writes the snapshot and the latency page and closes the Y4M file. The paths written are
  // appended to `written`; false with `error` set when a file could not be written.
  bool Finish(std::vector<std::string>& written, std::string& error);

  int Y4mFrames() const { return m_y4mFrames; }

 private:
  std::string Path(const char* suffix) const;

  std::string m_dir, m_prefix;
  double m_y4mSeconds;
  double m_y4mStart = -1;  // the first picture's time
  int m_fps;
  FILE* m_y4m = nullptr;
  bool m_y4mDone = false;  // the first seconds are over, or the picture size changed
  int m_y4mWidth = 0, m_y4mHeight = 0, m_y4mFrames = 0;
  std::string m_y4mError;
  std::vector<uint8_t> m_last;  // the last picture, for the snapshot
  int m_lastWidth = 0, m_lastHeight = 0;
  std::vector<std::pair<double, int>> m_latency;  // (seconds, ms)
};

}  // namespace phonecam
