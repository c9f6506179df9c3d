// Where the simulated phone's pictures come from: a moving test pattern (the default), or a
// video file that any libavformat demuxer reads, scaled to the negotiated size and looped.
//
// The pattern: a diagonal luma saw-tooth moving 8 pixels per frame, U rising left to right and V
// top to bottom (each moving 2 chroma pixels per frame). A swapped plane, a wrong stride or a
// wrong frame shows as a large error while codec noise stays small.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace lumo::phonesim {

uint8_t PatternY(int x, int y, int frame);
uint8_t PatternU(int cx, int cy, int frame);  // chroma coordinates
uint8_t PatternV(int cx, int cy, int frame);
// Draws frame `frame` of the pattern into an I420 picture (row by row from precomputed lines).
void DrawPattern(uint8_t* const planes[3], const int strides[3], int width, int height, int frame);

class CameraSource {
 public:
  virtual ~CameraSource() = default;
  // Draws picture `frame` at width x height into the I420 planes. False when no picture can
  // be had (a file that stopped decoding).
  virtual bool Draw(uint8_t* const planes[3], const int strides[3], int width, int height, int frame) = 0;
  virtual std::string Describe() const = 0;
};

std::unique_ptr<CameraSource> MakePatternCamera();
// Null (with `error` set) when the file cannot be opened or has no video stream.
std::unique_ptr<CameraSource> MakeFileCamera(const std::string& path, std::string& error);

}  // namespace lumo::phonesim
