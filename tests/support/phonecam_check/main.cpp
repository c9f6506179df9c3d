// Checks what the reference host left behind against what the simulated phone sent, for the
// scripts that run the host as a user would. Each check prints one line and exits non-zero
// when the file does not show what it must:
//   png FILE                 decodes, carries a readable capture stamp, and its luma is the
//                            phone's test pattern of the stamped frame
//   y4m FILE W H N           N pictures of W x H, each stamped, frame numbers rising
//   wav FILE HZ              a 16-bit WAV of at least half a second whose strongest tone is HZ
//   xwd FILE W H             an X screen dump whose top-left W x H shows a stamped picture of
//                            the pattern; prints the frame number (so two dumps show motion)
#include <png.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Camera.h"
#include "support/TestAudio_media.h"
#include "TimestampBlocks.h"

namespace {

int Fail(const std::string& what) {
  std::printf("FAIL %s\n", what.c_str());
  return 1;
}

// Luma back from RGB. The pattern's colours lie partly outside what RGB holds, and a clamped
// channel loses the luma: such pixels are marked (255 in `kept` means usable).
uint8_t LumaOf(int r, int g, int b, uint8_t& kept) {
  kept = (r > 0 && r < 255 && g > 0 && g < 255 && b > 0 && b < 255) ? 255 : 0;
  return static_cast<uint8_t>(std::lround(16 + (65.738 * r + 129.057 * g + 25.064 * b) / 256));
}

// Mean absolute luma error against the pattern of `frame`, below the stamp row, over the usable
// pixels.
double PatternError(const std::vector<uint8_t>& y, const std::vector<uint8_t>& kept, int width, int height, int frame) {
  const int top = 2 * lumo::phonesim::StampCellSize(width, height);
  double sum = 0;
  long count = 0;
  for (int row = top; row < height; ++row) {
    for (int x = 0; x < width; ++x) {
      const size_t i = static_cast<size_t>(row) * width + x;
      if (kept[i] == 0) continue;
      sum += std::abs(y[i] - lumo::phonesim::PatternY(x, row, frame));
      ++count;
    }
  }
  // A picture with hardly a usable pixel shows nothing.
  return count > static_cast<long>(width) * height / 4 ? sum / count : 255;
}

// A picture shows the pattern when its stamp reads and its luma is within codec (and colour
// conversion) noise of the stamped frame's pattern; the pattern half a period on (16 frames) is
// far off, so a wrong frame or a shifted plane fails.
int CheckLuma(const std::vector<uint8_t>& y, const std::vector<uint8_t>& kept, int width, int height, const char* what) {
  lumo::phonesim::FrameStamp stamp;
  if (!lumo::phonesim::ReadFrameStamp(y.data(), width, width, height, stamp)) return Fail(std::string(what) + ": no stamp");
  const double error = PatternError(y, kept, width, height, stamp.frameNumber);
  const double otherFrame = PatternError(y, kept, width, height, stamp.frameNumber + 16);
  const bool ok = error < 15 && otherFrame > 4 * error;
  std::printf("%s %s: %dx%d frame %u, luma error %.1f (another frame's pattern %.1f)\n", ok ? "OK" : "FAIL", what,
              width, height, stamp.frameNumber, error, otherFrame);
  return ok ? 0 : 1;
}

int CheckPng(const char* path) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path)) return Fail(std::string(path) + ": " + image.message);
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) return Fail(std::string(path) + ": " + image.message);
  const int w = static_cast<int>(image.width), h = static_cast<int>(image.height);
  std::vector<uint8_t> y(static_cast<size_t>(w) * h), kept(y.size());
  for (size_t i = 0; i < y.size(); ++i) y[i] = LumaOf(rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2], kept[i]);
  return CheckLuma(y, kept, w, h, "png");
}

int CheckY4m(const char* path, int width, int height, int frames) {
  std::ifstream in(path, std::ios::binary);
  std::string header;
  if (!std::getline(in, header)) return Fail(std::string(path) + ": unreadable");
  int w = 0, h = 0;
  if (std::sscanf(header.c_str(), "YUV4MPEG2 W%d H%d", &w, &h) != 2 || w != width || h != height)
    return Fail(std::string(path) + ": header " + header);
  const size_t bytes = static_cast<size_t>(w) * h * 3 / 2;
  std::vector<uint8_t> picture(bytes);
  int count = 0, last = -1;
  std::string marker;
  while (std::getline(in, marker)) {
    if (marker != "FRAME" || !in.read(reinterpret_cast<char*>(picture.data()), static_cast<std::streamsize>(bytes)))
      return Fail(std::string(path) + ": picture " + std::to_string(count) + " is cut short");
    lumo::phonesim::FrameStamp stamp;
    if (!lumo::phonesim::ReadFrameStamp(picture.data(), w, w, h, stamp) || static_cast<int>(stamp.frameNumber) <= last)
      return Fail(std::string(path) + ": picture " + std::to_string(count) + " is not the next stamped picture");
    last = stamp.frameNumber;
    ++count;
  }
  std::printf("%s y4m: %d pictures of %dx%d (expected %d), frames up to %d\n", count == frames ? "OK" : "FAIL", count, w,
              h, frames, last);
  return count == frames && count > 0 ? 0 : 1;
}

int CheckWav(const char* path, double hz) {
  lumo::test::WavFile wav;
  if (!lumo::test::ReadWavFile(path, wav) || wav.channels < 1) return Fail(std::string(path) + ": not a PCM WAV file");
  const auto left = lumo::test::Channel(wav.samples, wav.channels, 0);
  const double seconds = static_cast<double>(left.size()) / wav.sampleRate;
  const double dominant = lumo::test::DominantFrequency(left, wav.sampleRate);
  const double level = lumo::test::RmsLevel(left);
  const bool ok = seconds >= 0.5 && std::abs(dominant - hz) <= 2 && level > 0.05;
  std::printf("%s wav: %.2f s, %d Hz x %d, strongest tone %.0f Hz, level %.2f\n", ok ? "OK" : "FAIL", seconds,
              wav.sampleRate, wav.channels, dominant, level);
  return ok ? 0 : 1;
}

uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

int CheckXwd(const char* path, int width, int height) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (file.size() < 100) return Fail(std::string(path) + ": not an XWD file");
  const uint8_t* h = file.data();
  const uint32_t headerSize = Be32(h), bpp = Be32(h + 44), bytesPerLine = Be32(h + 48), ncolors = Be32(h + 76);
  const uint32_t screenW = Be32(h + 16), screenH = Be32(h + 20), byteOrder = Be32(h + 28);
  const uint32_t masks[3] = {Be32(h + 56), Be32(h + 60), Be32(h + 64)};  // red, green, blue
  const size_t start = static_cast<size_t>(headerSize) + static_cast<size_t>(ncolors) * 12;
  if (bpp != 32 || screenW < static_cast<uint32_t>(width) || screenH < static_cast<uint32_t>(height) ||
      bytesPerLine < 4 * static_cast<uint32_t>(width) ||
      file.size() < start + static_cast<size_t>(bytesPerLine) * height)
    return Fail(std::string(path) + ": unexpected screen format");
  std::vector<uint8_t> y(static_cast<size_t>(width) * height), kept(y.size());
  for (int row = 0; row < height; ++row) {
    for (int x = 0; x < width; ++x) {
      const uint8_t* p = file.data() + start + static_cast<size_t>(row) * bytesPerLine + 4 * x;
      const uint32_t pixel = byteOrder == 0 ? uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0] : Be32(p);
      int c[3];
      for (int i = 0; i < 3; ++i) {
        uint32_t mask = masks[i];
        int shift = 0;
        while (mask != 0 && (mask & 1) == 0) mask >>= 1, ++shift;
        c[i] = static_cast<int>((pixel >> shift) & 0xFF);
      }
      const size_t i = static_cast<size_t>(row) * width + x;
      y[i] = LumaOf(c[0], c[1], c[2], kept[i]);
    }
  }
  return CheckLuma(y, kept, width, height, "screen");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 2 ? argv[1] : "";
  if (what == "png" && argc == 3) return CheckPng(argv[2]);
  if (what == "y4m" && argc == 6) return CheckY4m(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]));
  if (what == "wav" && argc == 4) return CheckWav(argv[2], std::atof(argv[3]));
  if (what == "xwd" && argc == 5) return CheckXwd(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  std::fprintf(stderr, "usage: lumo_phonecam_check png FILE | y4m FILE W H N | wav FILE HZ | xwd FILE W H\n");
  return 2;
}
