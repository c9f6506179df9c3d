// What a reference-host session leaves behind for a person to look at: a PNG snapshot of a
// picture shown in the last half second, the first seconds of pictures as a Y4M file any player opens, and the
// capture-to-screen latency over time as a self-contained HTML page. (The audio goes to a WAV
// file through the library's own audio output selection.)
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace phonecam {

// The picture GetYuvData hands out: tightly packed I420 whose chroma planes are width / 2 by
// height / 2, rounded down, so a picture of odd size has no chroma for its last column or row.
struct I420Layout {
  I420Layout(int w, int h) : width(w), height(h), chromaWidth(w / 2), chromaHeight(h / 2) {}
  size_t LumaBytes() const { return static_cast<size_t>(width) * height; }
  size_t ChromaBytes() const { return static_cast<size_t>(chromaWidth) * chromaHeight; }
  size_t Bytes() const { return LumaBytes() + 2 * ChromaBytes(); }
  int width, height, chromaWidth, chromaHeight;
};

// Full-range RGB from limited-range BT.601 I420 as GetYuvData hands it out, 3 bytes per pixel.
// The last column and row of an odd-sized picture take the chroma next to them.
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
  std::vector<uint8_t> m_last;  // a picture of the last half second, for the snapshot
  int m_lastWidth = 0, m_lastHeight = 0;
  double m_lastTime = -1;
  std::vector<std::pair<double, int>> m_latency;  // (seconds, ms)
};

}  // namespace phonecam
