// FPS::VPMVideoDecimator: thins decoded video down to the rate the host renders at.
//
// How it decides:
//  - UpdateIncomingFrameRate() stamps each decoded frame with the library clock. The incoming
//    rate is measured over the frames of the last second: (frames - 1) / (newest - oldest).
//  - IsDropFrame() keeps target/incoming of the frames with an error accumulator, the way a
//    line is drawn on a pixel grid: every frame adds the target to the accumulator; when it
//    reaches the incoming rate the frame is kept and the incoming rate is taken off, otherwise
//    the frame is dropped (both rates in whole frames per second). Drops are therefore spread
//    evenly: 60 in with 30 wanted drops every other frame, 50 in with 30 wanted drops 2 of
//    every 5, 30 in with 30 wanted drops none.
//  - Nothing is dropped while the incoming rate is within 5% of the target (a 30 fps source
//    measured on a millisecond clock jitters by a frame or so), before three frames have
//    been seen, or while no target is set (0, the state after construction and Reset).
// Not thread-safe: CVideoDecoder serialises SetFps against the decode thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace FPS {

class VPMVideoDecimator {
 public:
  VPMVideoDecimator() { Reset(); }

  // Forgets the measured rate and the targets.
  void Reset();
  // The highest rate that a target may ask for; 0 means no limit.
  void SetMaxFrameRate(unsigned int fps);
  // The rate the host wants; 0 lets everything through.
  void SetTargetFrameRate(unsigned int fps);
  // Called once for every frame that arrives, before IsDropFrame for that frame.
  void UpdateIncomingFrameRate();
  bool IsDropFrame();

  // The measured incoming rate in frames per second, 0 until there are two frames.
  double IncomingFrameRate() const;
  unsigned int TargetFrameRate() const;

 private:
  static constexpr size_t kHistory = 256;           // enough for one second above 240 fps
  static constexpr uint64_t kWindowUs = 1000000;    // rate measured over the last second
  static constexpr unsigned long long kTolerancePercent = 105;

  uint64_t m_stamps[kHistory];  // ring of arrival times, microseconds
  size_t m_first = 0;           // oldest stamp in the ring
  size_t m_count = 0;
  unsigned int m_maxFps = 0;
  unsigned int m_targetFps = 0;
  unsigned long long m_accumulator = 0;
};

}  // namespace FPS
