// The adb transport's message format: six little-endian words, then the payload.
#include "AdbDevice.h"

namespace lumo::phonesim {

namespace adbwire {

void AppendMessage(std::string& out, uint32_t command, uint32_t arg0, uint32_t arg1, const char* data, size_t size) {
  uint32_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum += static_cast<unsigned char>(data[i]);
  const uint32_t words[6] = {command, arg0, arg1, static_cast<uint32_t>(size), sum, command ^ 0xFFFFFFFFu};
  for (uint32_t w : words)
    for (int b = 0; b < 4; ++b) out.push_back(static_cast<char>(w >> (8 * b)));
  if (size > 0) out.append(data, size);
}

std::string Encode(uint32_t command, uint32_t arg0, uint32_t arg1, const std::string& data) {
  std::string m;
  AppendMessage(m, command, arg0, arg1, data.data(), data.size());
  return m;
}

Header DecodeHeader(const unsigned char (&bytes)[kHeaderSize]) {
  uint32_t w[6];
  for (int i = 0; i < 6; ++i)
    w[i] = static_cast<uint32_t>(bytes[i * 4]) | static_cast<uint32_t>(bytes[i * 4 + 1]) << 8 |
           static_cast<uint32_t>(bytes[i * 4 + 2]) << 16 | static_cast<uint32_t>(bytes[i * 4 + 3]) << 24;
  return Header{w[0], w[1], w[2], w[3], w[4], w[5]};
}

}  // namespace adbwire

}  // namespace lumo::phonesim
