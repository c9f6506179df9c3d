// Frames per second through the frame path: a 100 KB type-2 frame into ParsePhoneData, through
// the video receiver's classification and queue, and out of PopH264RawData, beside a bare
// memcpy of the same bytes measured in the same run. Prints the medians and their ratio.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Stats.h"
#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "media/VideoRawPkg.h"
#include "protocol/PhoneDataParse.h"
#include "support/QuietHost.h"

namespace {

using lumo::bench::Median;
using lumo::bench::Percentile;

constexpr size_t kPayload = 100 * 1024;
constexpr int kFramesPerRound = 30;  // one second of 30 fps video: an IDR, then 29 P frames

std::vector<std::string> MakeFrames() {
  std::mt19937 rng(7);
  std::vector<std::string> frames;
  for (int i = 0; i < kFramesPerRound; ++i) {
    std::string f(1, 2);
    f += std::string(12, '\0');
    f += std::string("\x00\x00\x10\x00", 4);  // phone timestamp
    f += std::string("\x00\x00\x00\x01", 4);
    f.push_back(i == 0 ? 0x65 : 0x41);
    // Entropy-coded slice data: random bytes, as an encoder's output looks to a scanner.
    while (f.size() < 1 + 16 + kPayload) f.push_back(static_cast<char>(rng()));
    frames.push_back(std::move(f));
  }
  return frames;
}


}  // namespace

int main(int argc, char** argv) {
  bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  const int rounds = quick ? 20 : 200;  // rounds of 30 frames per measurement
  const int reps = quick ? 3 : 7;

  lumo::test::QuietHost host;
  lumo::SetHostServices(&host);
  CPhoneCameraCtrl ctrl;
  H264DataReviever video(&ctrl);
  AudioDataReviever audio1(&ctrl), audio2(&ctrl);
  PhoneDataParse parser(&ctrl, &video, &audio1, &audio2);
  std::vector<std::string> frames = MakeFrames();
  VID::VideoRawPkg pkg;
  std::vector<char> sink(kPayload);

  auto runPath = [&] {
    auto t0 = std::chrono::steady_clock::now();
    for (int r = 0; r < rounds; ++r) {
      for (std::string& f : frames) {
        parser.ParsePhoneData(PHONE_DATA_SOURCE_USB, reinterpret_cast<signed char*>(&f[0]),
                              static_cast<unsigned>(f.size()), PHONE_TYPE_ANDROID);
        video.PopH264RawData(&pkg);
        if (pkg.length != kPayload) std::abort();
      }
    }
    std::chrono::duration<double> s = std::chrono::steady_clock::now() - t0;
    return rounds * kFramesPerRound / s.count();
  };
  auto runMemcpy = [&] {
    auto t0 = std::chrono::steady_clock::now();
    for (int r = 0; r < rounds; ++r) {
      for (std::string& f : frames) {
        std::memcpy(sink.data(), f.data() + 17, kPayload);
        asm volatile("" : : "r"(sink.data()) : "memory");  // keep the copy
      }
    }
    std::chrono::duration<double> s = std::chrono::steady_clock::now() - t0;
    return rounds * kFramesPerRound / s.count();
  };

  runPath();  // warm-up: first-touch of the slot and record buffers
  runMemcpy();
  std::vector<double> path, copy;
  for (int i = 0; i < reps; ++i) {
    path.push_back(runPath());
    copy.push_back(runMemcpy());
  }
  double p = Median(path), c = Median(copy);
  std::printf("dispatch: 100 KB frames, median of %d runs x %d frames\n", reps, rounds * kFramesPerRound);
  std::printf("  ParsePhoneData -> receiver -> PopH264RawData: %.0f frames/s (%.2f GB/s)\n", p,
              p * kPayload / 1e9);
  std::printf("  bare memcpy of the same payload:             %.0f frames/s (%.2f GB/s)\n", c, c * kPayload / 1e9);
  std::printf("dispatch_ratio %.3f\n", p / c);
  lumo::SetHostServices(nullptr);
  return 0;
}
