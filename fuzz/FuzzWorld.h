// The dispatcher that the fuzz targets drive: fresh collaborators, quiet host services (no
// files, no log output), senders that only count, no decoders, and a simulated clock on which
// the protocol's pauses cost no real time. Built once per process and kept between inputs
// (state carried from one input to the next is realistic), except the delayed work, which each
// input leaves behind it; torn down at exit, so that no library thread outlives the process's
// last input.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "platform/clock.h"
#include "protocol/PhoneDataParse.h"
#include "support/ParserWorld.h"
#include "support/QuietHost.h"
#include "support/SimClock.h"

namespace lumo::test {

// Simulated time in which a sleep moves the clock on at once instead of waiting for someone
// else to: a 200-ms pause costs nothing, and a timed wait on another thread (the delayed work,
// the heartbeat timer) ends once sleeps or Advance have carried the time past its deadline.
class LeapingClock final : public Clock {
 public:
  uint32_t TickCount() override { return m_sim.TickCount(); }
  uint64_t PerfCounterUs() override { return m_sim.PerfCounterUs(); }
  uint64_t WallClock100ns() override { return m_sim.WallClock100ns(); }
  void SleepUs(uint64_t us) override { m_sim.AdvanceUs(us); }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, uint64_t timeoutUs,
               const std::function<bool()>& ready) override {
    return m_sim.WaitFor(lock, cv, timeoutUs, ready);
  }
  void AdvanceMs(uint64_t ms) { m_sim.AdvanceMs(ms); }

 private:
  SimClock m_sim;
};

class CountingSender : public IDataSender {
 public:
  // The delayed work's thread sends too.
  bool SendData(const std::string& frame) override {
    bytes += frame.size();
    return true;
  }
  std::atomic<size_t> bytes{0};
};

struct FuzzWorld {
  FuzzWorld() {
    SetClock(&clock);
    SetHostServices(&host);
    ctrl = new CPhoneCameraCtrl();
    video = new H264DataReviever(ctrl);
    audio1 = new AudioDataReviever(ctrl);
    audio2 = new AudioDataReviever(ctrl);
    parser = new PhoneDataParse(ctrl, video, audio1, audio2);
    parser->SetDataSender(PHONE_DATA_SOURCE_USB, &usb);
    parser->SetDataSender(PHONE_DATA_SOURCE_WIFI, &wifi);
  }
  // The parser first: it stops its delayed work; the camera control stops its heartbeat timer.
  ~FuzzWorld() {
    delete parser;
    delete audio2;
    delete audio1;
    delete video;
    delete ctrl;
    SetHostServices(nullptr);
    SetClock(nullptr);
  }
  FuzzWorld(const FuzzWorld&) = delete;
  FuzzWorld& operator=(const FuzzWorld&) = delete;

  // Lets time pass and waits until the delayed work that fell due has run, so that an input
  // replays the same way every time.
  void Advance(uint64_t ms) {
    clock.AdvanceMs(ms);
    if (!PhoneDataParseTestPeer(*parser).DelayedSettled()) std::abort();  // stuck: a finding
  }
  // After every input: a retry or camera fetch it scheduled must not run into the next one, and
  // a stream of inputs must not pile work up.
  void EndInput() { parser->CancelDelayedWork(); }

  LeapingClock clock;
  QuietHost host;
  CountingSender usb, wifi;
  CPhoneCameraCtrl* ctrl;
  H264DataReviever* video;
  AudioDataReviever* audio1;
  AudioDataReviever* audio2;
  PhoneDataParse* parser;
};

// The one world of a target's process, built by its first input and torn down at exit.
template <class World>
World& TheWorld() {
  static World* world = [] {
    auto* w = new World();
    std::atexit([] { delete &TheWorld<World>(); });
    return w;
  }();
  return *world;
}

}  // namespace lumo::test
