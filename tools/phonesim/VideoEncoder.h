// H.264 (libx264) and H.265 (libx265) encoding as a phone app does it: Annex-B, one packet per
// picture and out at once (no B-frames, no look-ahead), parameter sets in front of every key
// frame so that a decoder can join at any key frame. The caller draws each picture straight
// into the encoder's own frame (Plane/Stride) and then encodes it: no copy on the way.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lumo::phonesim {

enum class VideoCodec { H264, H265 };
const char* CodecName(VideoCodec codec);  // "h264" / "h265"

struct VideoEncoderSettings {
  VideoCodec codec = VideoCodec::H264;
  int width = 1920;
  int height = 1080;
  int fps = 30;
  int bitRate = 0;  // bits per second; 0 encodes at constant quality `crf`
  int crf = 20;
  int gop = 30;     // a key frame every `gop` pictures
  std::string preset = "ultrafast";
  int threads = 1;  // slice/frame threads of the encoder; the stream stays one packet per picture
};

class VideoEncoder {
 public:
  VideoEncoder();
  ~VideoEncoder();
  VideoEncoder(const VideoEncoder&) = delete;
  VideoEncoder& operator=(const VideoEncoder&) = delete;

  // False (with Error() saying why) when the encoder is missing or refuses the settings.
  bool Open(const VideoEncoderSettings& settings);
  bool IsOpen() const;
  const VideoEncoderSettings& Settings() const { return m_settings; }
  const std::string& Error() const { return m_error; }

  // The picture to draw into before the next Encode (valid after Open until Encode).
  bool BeginPicture();
  uint8_t* Plane(int index);
  int Stride(int index) const;

  // Encodes the drawn picture; `forceKey` asks for a key frame now (a new stream, a codec
  // switch). Every `gop`-th picture is a key frame anyway.
  bool Encode(bool forceKey, std::vector<uint8_t>& packet, bool& key);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  VideoEncoderSettings m_settings;
  std::string m_error;
};

}  // namespace lumo::phonesim
