#include "Camera.h"

#include <cstring>
#include <vector>

namespace lumo::phonesim {

// Saw-tooth ramps with a 256-pixel period: smooth enough for a codec to keep within a level
// or two, steep enough that neighbouring frames differ by several levels on average.
uint8_t PatternY(int x, int y, int frame) { return static_cast<uint8_t>(16 + ((x + y + 8 * frame) & 255) * 200 / 256); }
uint8_t PatternU(int cx, int, int frame) { return static_cast<uint8_t>(48 + ((cx + 2 * frame) & 127) * 160 / 128); }
uint8_t PatternV(int, int cy, int frame) { return static_cast<uint8_t>(48 + ((cy + 2 * frame) & 127) * 160 / 128); }

void DrawPattern(uint8_t* const planes[3], const int strides[3], int width, int height, int frame) {
  // Every luma row is the same saw-tooth shifted by one pixel: cut each from one long line.
  std::vector<uint8_t> line(static_cast<size_t>(width) + 256);
  for (size_t i = 0; i < line.size(); ++i) line[i] = PatternY(static_cast<int>(i), 0, 0);
  for (int y = 0; y < height; ++y) std::memcpy(planes[0] + y * strides[0], line.data() + ((y + 8 * frame) & 255), width);
  const int cw = width / 2, ch = height / 2;
  for (int x = 0; x < cw; ++x) planes[1][x] = PatternU(x, 0, frame);
  for (int y = 1; y < ch; ++y) std::memcpy(planes[1] + y * strides[1], planes[1], cw);
  for (int y = 0; y < ch; ++y) std::memset(planes[2] + y * strides[2], PatternV(0, y, frame), cw);
}

namespace {

class PatternCamera final : public CameraSource {
 public:
  bool Draw(uint8_t* const planes[3], const int strides[3], int width, int height, int frame) override {
    DrawPattern(planes, strides, width, height, frame);
    return true;
  }
  std::string Describe() const override { return "pattern"; }
};

}  // namespace

std::unique_ptr<CameraSource> MakePatternCamera() { return std::make_unique<PatternCamera>(); }

}  // namespace lumo::phonesim
