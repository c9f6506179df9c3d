// The reference host's recordings take pictures exactly as GetYuvData hands them out; pictures
// of odd size (which a phone may send) must be read within their bytes (ASan watches) and still
// come out right.
#include <gtest/gtest.h>
#include <png.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "Recording.h"
#include "support/TempDir.h"

namespace {

// A picture as the decoder copies it (chroma w / 2 by h / 2, rounded down), in a block of exactly
// its own size: luma `y` everywhere, chroma (u, v) in the first chroma column, neutral elsewhere.
std::unique_ptr<uint8_t[]> Picture(int w, int h, uint8_t y, uint8_t u, uint8_t v) {
  const size_t luma = static_cast<size_t>(w) * h, cw = w / 2, chroma = cw * (h / 2);
  std::unique_ptr<uint8_t[]> p(new uint8_t[luma + 2 * chroma]);
  std::memset(p.get(), y, luma);
  std::memset(p.get() + luma, 128, 2 * chroma);
  for (size_t i = 0; i < chroma; i += cw) p[luma + i] = u, p[luma + chroma + i] = v;
  return p;
}

TEST(PhonecamRecording, ConvertsPicturesOfEverySizeWithinTheirBytes) {
  struct Case {
    int w, h;
    uint8_t y, u, v;
    int x, row;           // the pixel looked at
    uint8_t r, g, b;      // what it must be
  } cases[] = {
      {4, 2, 16, 128, 128, 3, 1, 0, 0, 0},         // black
      {4, 2, 235, 128, 128, 0, 0, 255, 255, 255},  // white
      {2, 2, 128, 128, 128, 1, 1, 130, 130, 130},  // grey
      {3, 3, 81, 90, 240, 2, 2, 255, 0, 0},        // red: the odd last column and row take the chroma beside them
      {5, 1, 128, 90, 240, 4, 0, 130, 130, 130},   // one line high: no chroma at all
      {1, 7, 128, 90, 240, 0, 6, 130, 130, 130},   // one column wide: no chroma at all
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
    auto picture = Picture(c.w, c.h, c.y, c.u, c.v);
    std::vector<uint8_t> rgb;
    phonecam::I420ToRgb(picture.get(), c.w, c.h, rgb);
    ASSERT_EQ(rgb.size(), static_cast<size_t>(c.w) * c.h * 3);
    const uint8_t* px = &rgb[(static_cast<size_t>(c.row) * c.w + c.x) * 3];
    EXPECT_NEAR(px[0], c.r, 2);
    EXPECT_NEAR(px[1], c.g, 2);
    EXPECT_NEAR(px[2], c.b, 2);
  }
}

long FileSize(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return -1;
  std::fseek(f, 0, SEEK_END);
  const long size = std::ftell(f);
  std::fclose(f);
  return size;
}

// Even pictures go into the Y4M file whole; an odd one ends it (Y4M's chroma rounds up, ours
// down). The snapshot is a PNG of the picture's own size either way.
TEST(PhonecamRecording, RecordsEvenPicturesAsY4mAndAnySizeAsPng) {
  for (const auto& [w, h, y4mPictures] : std::vector<std::tuple<int, int, int>>{{6, 4, 3}, {5, 3, 0}}) {
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    lumo::test::ScopedAppData dir;  // a scratch folder of its own
    phonecam::Recorder recorder(dir.path, "t", 1.0, 30);
    auto picture = Picture(w, h, 128, 128, 128);
    for (int i = 0; i < 3; ++i) recorder.OnPicture(picture.get(), w, h, 0.1 * i, 20 + i);
    std::vector<std::string> written;
    std::string error;
    ASSERT_TRUE(recorder.Finish(written, error)) << error;
    EXPECT_EQ(recorder.Y4mFrames(), y4mPictures);
    const std::string header = "YUV4MPEG2 W" + std::to_string(w) + " H" + std::to_string(h) + " F30:1 Ip A1:1 C420jpeg\n";
    EXPECT_EQ(FileSize(dir.path + "/t-first.y4m"),
              y4mPictures ? static_cast<long>(header.size() + 3 * (6 + w * h * 3 / 2)) : -1);
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&image, (dir.path + "/t-snapshot.png").c_str()));
    EXPECT_EQ(image.width, static_cast<png_uint_32>(w));
    EXPECT_EQ(image.height, static_cast<png_uint_32>(h));
    png_image_free(&image);
    EXPECT_GT(FileSize(dir.path + "/t-latency.html"), 0);
  }
}

}  // namespace
