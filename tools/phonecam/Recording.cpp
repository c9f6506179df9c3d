#include "Recording.h"

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace phonecam {
namespace {

uint8_t Clamp(int v) { return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v); }

}  // namespace

void I420ToRgb(const uint8_t* i420, int width, int height, std::vector<uint8_t>& rgb) {
  const I420Layout layout(width, height);
  rgb.resize(layout.LumaBytes() * 3);
  const uint8_t* yPlane = i420;
  const uint8_t* uPlane = yPlane + layout.LumaBytes();
  const uint8_t* vPlane = uPlane + layout.ChromaBytes();
  uint8_t* out = rgb.data();
  for (int y = 0; y < height; ++y) {
    const int cy = std::min(y / 2, layout.chromaHeight - 1);
    for (int x = 0; x < width; ++x) {
      // Fixed point (x 256) of the usual limited-range BT.601 matrix; a picture one pixel wide
      // or high has no chroma at all and comes out grey.
      const int c = 298 * (yPlane[static_cast<size_t>(y) * width + x] - 16);
      int d = 0, e = 0;
      if (cy >= 0 && layout.chromaWidth > 0) {
        const size_t ci = static_cast<size_t>(cy) * layout.chromaWidth + std::min(x / 2, layout.chromaWidth - 1);
        d = uPlane[ci] - 128, e = vPlane[ci] - 128;
      }
      *out++ = Clamp((c + 409 * e + 128) >> 8);
      *out++ = Clamp((c - 100 * d - 208 * e + 128) >> 8);
      *out++ = Clamp((c + 516 * d + 128) >> 8);
    }
  }
}

bool WritePng(const std::string& path, const uint8_t* rgb, int width, int height, std::string& error) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = PNG_FORMAT_RGB;
  if (png_image_write_to_file(&image, path.c_str(), 0, rgb, width * 3, nullptr) == 0) {
    error = path + ": " + image.message;
    return false;
  }
  return true;
}

Recorder::Recorder(std::string dir, std::string prefix, double y4mSeconds, int fps)
    : m_dir(std::move(dir)), m_prefix(std::move(prefix)), m_y4mSeconds(y4mSeconds), m_fps(fps > 0 ? fps : 30) {
  std::error_code ec;
  std::filesystem::create_directories(m_dir, ec);
}

Recorder::~Recorder() {
  if (m_y4m != nullptr) std::fclose(m_y4m);
}

std::string Recorder::Path(const char* suffix) const { return m_dir + "/" + m_prefix + suffix; }

void Recorder::OnPicture(const uint8_t* i420, int width, int height, double t, int latencyMs) {
  const size_t bytes = I420Layout(width, height).Bytes();
  // Twice a second is enough for a snapshot, and spares the render loop a copy of every picture.
  if (m_lastTime < 0 || t - m_lastTime >= 0.5 || width != m_lastWidth || height != m_lastHeight) {
    m_last.assign(i420, i420 + bytes);
    m_lastWidth = width, m_lastHeight = height, m_lastTime = t;
  }
  if (latencyMs >= 0) m_latency.emplace_back(t, latencyMs);

  if (m_y4mDone) return;
  if (m_y4mStart < 0) m_y4mStart = t;
  // A Y4M stream has one picture size, and its 4:2:0 chroma rounds odd sizes up, which the
  // pictures we get do not carry: a phone that changes the size, or sends an odd one, ends it.
  if (t - m_y4mStart > m_y4mSeconds || (m_y4m != nullptr && (width != m_y4mWidth || height != m_y4mHeight)) ||
      width % 2 != 0 || height % 2 != 0) {
    m_y4mDone = true;
    return;
  }
  if (m_y4m == nullptr) {
    m_y4m = std::fopen(Path("-first.y4m").c_str(), "wb");
    if (m_y4m == nullptr) {
      m_y4mError = Path("-first.y4m") + ": " + std::strerror(errno);
      m_y4mDone = true;
      return;
    }
    m_y4mWidth = width, m_y4mHeight = height;
    std::fprintf(m_y4m, "YUV4MPEG2 W%d H%d F%d:1 Ip A1:1 C420jpeg\n", width, height, m_fps);
  }
  std::fputs("FRAME\n", m_y4m);
  if (std::fwrite(i420, 1, bytes, m_y4m) != bytes) {
    m_y4mError = Path("-first.y4m") + ": write failed";
    m_y4mDone = true;
    return;
  }
  ++m_y4mFrames;
}

bool Recorder::Finish(std::vector<std::string>& written, std::string& error) {
  bool ok = true;
  if (m_y4m != nullptr) {
    if (std::fclose(m_y4m) != 0 && m_y4mError.empty()) m_y4mError = Path("-first.y4m") + ": close failed";
    m_y4m = nullptr;
    if (m_y4mError.empty()) written.push_back(Path("-first.y4m"));
  }
  if (!m_y4mError.empty()) error = m_y4mError, ok = false;

  if (!m_last.empty()) {
    std::vector<uint8_t> rgb;
    I420ToRgb(m_last.data(), m_lastWidth, m_lastHeight, rgb);
    std::string pngError;
    if (WritePng(Path("-snapshot.png"), rgb.data(), m_lastWidth, m_lastHeight, pngError))
      written.push_back(Path("-snapshot.png"));
    else
      error = pngError, ok = false;
  }

  if (!m_latency.empty()) {
    // An SVG polyline scaled to the slowest picture, in a page that needs nothing else.
    const double seconds = std::max(1.0, m_latency.back().first);
    int top = 10;
    for (const auto& point : m_latency) top = std::max(top, point.second);
    const int w = 900, h = 320, left = 50, bottom = 30;
    FILE* page = std::fopen(Path("-latency.html").c_str(), "wb");
    if (page == nullptr) {
      error = Path("-latency.html") + ": " + std::strerror(errno);
      return false;
    }
    std::fprintf(page,
                 "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>%s: capture-to-screen latency</title></head>\n"
                 "<body style=\"font-family:sans-serif\"><h3>%s: capture-to-screen latency, %zu pictures</h3>\n"
                 "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\">\n"
                 "<rect x=\"%d\" y=\"0\" width=\"%d\" height=\"%d\" fill=\"#f4f4f4\"/>\n"
                 "<text x=\"0\" y=\"12\" font-size=\"11\">%d ms</text><text x=\"0\" y=\"%d\" font-size=\"11\">0</text>\n"
                 "<text x=\"%d\" y=\"%d\" font-size=\"11\">%.1f s</text>\n<polyline fill=\"none\" stroke=\"#1060c0\" points=\"",
                 m_prefix.c_str(), m_prefix.c_str(), m_latency.size(), w, h, left, w - left, h - bottom, top,
                 h - bottom, w - 40, h - 10, seconds);
    for (const auto& [t, ms] : m_latency)
      std::fprintf(page, "%.1f,%.1f ", left + (w - left) * t / seconds, (h - bottom) * (1.0 - static_cast<double>(ms) / top));
    std::fputs("\"/>\n</svg></body></html>\n", page);
    if (std::fclose(page) != 0) {
      error = Path("-latency.html") + ": write failed";
      return false;
    }
    written.push_back(Path("-latency.html"));
  }
  return ok;
}

}  // namespace phonecam
