// One encoded video packet as the decoder receives it. The decode thread keeps one record and
// passes it to every pop, so its buffer is reused for as long as packets keep the same size.
#pragma once

namespace VID {

struct VideoRawPkg {
  unsigned char* data = nullptr;      // packet bytes, owned by the record
  unsigned long long capacity = 0;    // allocated size of `data`
  int mark1 = 0;                      // set by every successful pop
  int mark2 = 0;                      // set by every successful pop
  unsigned long long timestamp = 0;   // phone capture time, 0 for raw frames that carry none
  unsigned long long reserved = 0;
  unsigned long long index = 0;       // sequence number given when the packet was stored
  unsigned long long pending = 0;     // packets still waiting after this pop
  unsigned long long length = 0;      // valid bytes in `data`; 0 means no packet was taken

  VideoRawPkg() = default;
  ~VideoRawPkg() { delete[] data; }
  VideoRawPkg(const VideoRawPkg&) = delete;
  VideoRawPkg& operator=(const VideoRawPkg&) = delete;
};

}  // namespace VID
