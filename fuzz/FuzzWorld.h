// The dispatcher that the fuzz targets drive: fresh collaborators, quiet host services (no
// files, no log output), senders that only count, and no decoders, so that nothing heavy starts.
// Built once per process and kept: state carried from one input to the next is realistic.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <thread>
#include <string>

#include "host/PhoneCameraCtrl.h"
#include "platform/clock.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "protocol/PhoneDataParse.h"
#include "support/QuietHost.h"

namespace lumo {
int DetachedProtocolThreads();
int DelayedCameraFetchThreads();
}  // namespace lumo

namespace lumo::test {

// The capture retry and the delayed camera fetch run detached and sleep for seconds on the real
// clock. Left running at exit, one would wake into a clock already torn down; so exit waits for
// them (at most the longest retry, 9 s).
inline void WaitForDetachedThreads() {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while ((lumo::DetachedProtocolThreads() > 0 || lumo::DelayedCameraFetchThreads() > 0) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// Before anything else of the world exists: the clock is built first, so that it is torn down
// only after the wait above has run.
struct WaitAtExit {
  WaitAtExit() {
    lumo::RealClock();
    std::atexit(WaitForDetachedThreads);
  }
};


class CountingSender : public IDataSender {
 public:
  bool SendData(const std::string& frame) override {
    bytes += frame.size();
    return true;
  }
  size_t bytes = 0;
};

struct FuzzWorld : WaitAtExit {
  FuzzWorld() {
    SetHostServices(&host);
    ctrl = new CPhoneCameraCtrl();
    video = new H264DataReviever(ctrl);
    audio1 = new AudioDataReviever(ctrl);
    audio2 = new AudioDataReviever(ctrl);
    parser = new PhoneDataParse(ctrl, video, audio1, audio2);
    parser->SetDataSender(PHONE_DATA_SOURCE_USB, &usb);
    parser->SetDataSender(PHONE_DATA_SOURCE_WIFI, &wifi);
  }
  QuietHost host;
  CountingSender usb, wifi;
  // Never deleted: detached protocol threads may still use them while the process exits.
  CPhoneCameraCtrl* ctrl;
  H264DataReviever* video;
  AudioDataReviever* audio1;
  AudioDataReviever* audio2;
  PhoneDataParse* parser;
};

}  // namespace lumo::test
