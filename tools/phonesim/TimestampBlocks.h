// The capture time written into the picture itself, so that a host can measure
// capture-to-screen latency exactly from what it decodes, whatever the transport and decoder did.
//
// A row of square cells along the top edge of the luma plane, each fully black (bit 0) or fully
// white (bit 1), aligned to the 16-pixel macroblock grid so that compression keeps their centres
// clean: 4 sync cells (1 0 1 1), the capture time in milliseconds (32 bits), the frame number
// (16 bits) and a CRC-8 of those six bytes. The chroma under the row is neutral grey.
// Cells are 16 pixels for pictures at least 480 lines high and 8 pixels below that; the row is
// 60 cells long, so the picture must be at least 60 cells wide.
#pragma once

#include <cstdint>

namespace lumo::phonesim {

struct FrameStamp {
  uint32_t captureMs = 0;    // the low 32 bits of the phone clock in ms, as in the media header
  uint16_t frameNumber = 0;  // counts pictures since capture started (wraps)
};

// Cell edge in pixels for a picture of this size, 0 when the picture is too small for the row.
int StampCellSize(int width, int height);

// Writes the row into an I420 picture; false (nothing written) when the picture is too small.
bool WriteFrameStamp(uint8_t* y, int yStride, uint8_t* u, int uStride, uint8_t* v, int vStride, int width,
                     int height, const FrameStamp& stamp);

// Reads the row back from a decoded luma plane. False when the sync cells or the checksum do not
// match (no stamp, or a picture too damaged to trust).
bool ReadFrameStamp(const uint8_t* y, int yStride, int width, int height, FrameStamp& stamp);

}  // namespace lumo::phonesim
