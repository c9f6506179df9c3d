// The simulated phone's camera path: can one core keep up with 1080p30?
//
// For H.264 and H.265 at the simulator's defaults (1080p, 8 Mbit/s, ultrafast, one encoder
// thread), each picture is drawn (moving pattern), stamped with its capture time and encoded,
// as fast as possible on one core. Prints pictures per second and the real-time factor
// (fps / 30), the median of several runs.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "Camera.h"
#include "PhoneSimOptions.h"
#include "TimestampBlocks.h"
#include "VideoEncoder.h"

using namespace lumo::phonesim;

namespace {

double EncodeFps(VideoCodec codec, int frames, int threads) {
  const PhoneSimOptions defaults;
  VideoEncoderSettings s;
  s.codec = codec;
  s.width = defaults.width;
  s.height = defaults.height;
  s.fps = defaults.fps;
  s.bitRate = defaults.bitRate;
  s.gop = defaults.fps;
  s.preset = defaults.preset;
  s.threads = threads;
  VideoEncoder encoder;
  if (!encoder.Open(s)) {
    std::fprintf(stderr, "%s\n", encoder.Error().c_str());
    return 0;
  }
  std::vector<uint8_t> packet;
  bool key = false;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < frames; ++i) {
    if (!encoder.BeginPicture()) return 0;
    uint8_t* planes[3] = {encoder.Plane(0), encoder.Plane(1), encoder.Plane(2)};
    int strides[3] = {encoder.Stride(0), encoder.Stride(1), encoder.Stride(2)};
    DrawPattern(planes, strides, s.width, s.height, i);
    WriteFrameStamp(planes[0], strides[0], planes[1], strides[1], planes[2], strides[2], s.width, s.height,
                    FrameStamp{static_cast<uint32_t>(i * 33), static_cast<uint16_t>(i)});
    if (!encoder.Encode(false, packet, key)) return 0;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return frames / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  av_log_set_level(AV_LOG_ERROR);
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  const int runs = quick ? 1 : 5, frames = quick ? 60 : 300;
  for (VideoCodec codec : {VideoCodec::H264, VideoCodec::H265}) {
    std::vector<double> fps;
    for (int r = 0; r < runs; ++r) fps.push_back(EncodeFps(codec, frames, 1));
    std::sort(fps.begin(), fps.end());
    const double median = fps[fps.size() / 2];
    std::printf("phonesim encode 1080p %s 8 Mbit/s one thread: %.1f fps (median of %d x %d pictures), "
                "real-time factor %.2f at 30 fps (runs: ", CodecName(codec), median, runs, frames, median / 30);
    for (size_t i = 0; i < fps.size(); ++i) std::printf("%s%.1f", i ? ", " : "", fps[i]);
    std::printf(")\n");
  }
  return 0;
}
