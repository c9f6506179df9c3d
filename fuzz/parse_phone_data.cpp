// Feeds arbitrary frames to the dispatcher, as a phone would send them: the first byte picks the
// data source, whether audio is wanted, the content type and the codec state; the rest is a
// sequence of frames, each with a 2-byte length. Frames reach the real receivers, pings and
// commands a capturing sender. Nothing may read past a frame, crash or throw.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzWorld.h"
#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "media/VideoRawPkg.h"
#include "protocol/PhoneDataParse.h"

namespace {

struct World : lumo::test::FuzzWorld {
  VID::VideoRawPkg pkg;
  unsigned char aac[AudioDataReviever::kSlotSize];
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  // Built once: the receivers' pools are large, and state carried between inputs is realistic.
  World& w = lumo::test::TheWorld<World>();
  uint8_t mode = data[0];
  ePhoneDataSource source = (mode & 1) ? PHONE_DATA_SOURCE_WIFI : PHONE_DATA_SOURCE_USB;
  w.parser->SetAudioRecordType((mode & 2) ? 1 : 0);
  w.host.SetProjectContentType((mode >> 2) & 3);
  w.ctrl->SetCodec((mode & 16) ? 2 : 1);
  if (mode & 32) w.ctrl->SetHighIOSVersion();
  size_t pos = 1;
  while (pos + 2 <= size) {
    size_t len = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
    pos += 2;
    if (len > size - pos) len = size - pos;
    // A private copy of exactly `len` bytes, so that the sanitizer sees any read past the frame.
    auto* frame = static_cast<signed char*>(std::malloc(len ? len : 1));
    for (size_t i = 0; i < len; ++i) frame[i] = static_cast<signed char>(data[pos + i]);
    w.parser->ParsePhoneData(source, frame, static_cast<unsigned>(len), PHONE_TYPE_ANDROID);
    std::free(frame);
    pos += len;
    // Drain sometimes, so that both the full-pool rules and the steady path are reached.
    if (mode & 64) {
      w.video->PopH264RawData(&w.pkg);
      unsigned int alen;
      unsigned long long ts, idx;
      w.audio1->PopAACRawData(w.aac, alen, ts, idx);
      w.audio2->PopAACRawData(w.aac, alen, ts, idx);
    }
  }
  if (mode & 128) {
    w.video->OnStopCapture();
    w.parser->SendPing(source);
  }
  w.EndInput();
  return 0;
}
