#include "TimestampBlocks.h"

#include <cstring>

namespace lumo::phonesim {
namespace {

constexpr int kSyncBits = 4;
constexpr unsigned kSync = 0xB;  // 1 0 1 1, most significant first
constexpr int kPayloadBytes = 6; // capture time (4) and frame number (2)
constexpr int kCells = kSyncBits + 8 * kPayloadBytes + 8;
constexpr uint8_t kWhite = 235;
constexpr uint8_t kBlack = 16;

uint8_t Crc8(const uint8_t* data, int size) {
  uint8_t crc = 0;
  for (int i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int b = 0; b < 8; ++b) crc = static_cast<uint8_t>(crc & 0x80 ? (crc << 1) ^ 0x07 : crc << 1);
  }
  return crc;
}

void Payload(const FrameStamp& s, uint8_t out[kPayloadBytes]) {
  out[0] = static_cast<uint8_t>(s.captureMs >> 24);
  out[1] = static_cast<uint8_t>(s.captureMs >> 16);
  out[2] = static_cast<uint8_t>(s.captureMs >> 8);
  out[3] = static_cast<uint8_t>(s.captureMs);
  out[4] = static_cast<uint8_t>(s.frameNumber >> 8);
  out[5] = static_cast<uint8_t>(s.frameNumber);
}

// Bit i of the row, most significant first within each field.
bool RowBit(const uint8_t payload[kPayloadBytes], uint8_t crc, int i) {
  if (i < kSyncBits) return (kSync >> (kSyncBits - 1 - i)) & 1;
  i -= kSyncBits;
  if (i < 8 * kPayloadBytes) return (payload[i / 8] >> (7 - i % 8)) & 1;
  i -= 8 * kPayloadBytes;
  return (crc >> (7 - i)) & 1;
}

}  // namespace

int StampCellSize(int width, int height) {
  int cell = height >= 480 ? 16 : 8;
  return width >= kCells * cell && height >= cell ? cell : 0;
}

bool WriteFrameStamp(uint8_t* y, int yStride, uint8_t* u, int uStride, uint8_t* v, int vStride, int width,
                     int height, const FrameStamp& stamp) {
  const int cell = StampCellSize(width, height);
  if (cell == 0) return false;
  uint8_t payload[kPayloadBytes];
  Payload(stamp, payload);
  const uint8_t crc = Crc8(payload, kPayloadBytes);
  for (int i = 0; i < kCells; ++i) {
    const uint8_t level = RowBit(payload, crc, i) ? kWhite : kBlack;
    for (int row = 0; row < cell; ++row) std::memset(y + row * yStride + i * cell, level, cell);
  }
  for (int row = 0; row < cell / 2; ++row) {
    std::memset(u + row * uStride, 128, kCells * cell / 2);
    std::memset(v + row * vStride, 128, kCells * cell / 2);
  }
  return true;
}

bool ReadFrameStamp(const uint8_t* y, int yStride, int width, int height, FrameStamp& stamp) {
  const int cell = StampCellSize(width, height);
  if (cell == 0 || y == nullptr) return false;
  // The centre half of each cell: its edges are where the codec's blocking and deblocking blur.
  uint8_t bytes[kPayloadBytes + 1] = {};
  for (int i = 0; i < kCells; ++i) {
    unsigned sum = 0;
    for (int row = cell / 4; row < cell * 3 / 4; ++row)
      for (int col = cell / 4; col < cell * 3 / 4; ++col) sum += y[row * yStride + i * cell + col];
    const bool bit = sum / static_cast<unsigned>((cell / 2) * (cell / 2)) >= (kWhite + kBlack) / 2;
    if (i < kSyncBits) {
      if (bit != static_cast<bool>((kSync >> (kSyncBits - 1 - i)) & 1)) return false;
      continue;
    }
    const int bitIndex = i - kSyncBits;
    if (bit) bytes[bitIndex / 8] |= static_cast<uint8_t>(0x80 >> (bitIndex % 8));
  }
  if (Crc8(bytes, kPayloadBytes) != bytes[kPayloadBytes]) return false;
  stamp.captureMs = static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
                    static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
  stamp.frameNumber = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
  return true;
}

}  // namespace lumo::phonesim
