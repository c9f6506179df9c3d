// A dispatcher wired to fresh collaborators on a simulated clock and a fake host, with capturing
// senders on both sources: the common ground of the protocol tests.
#pragma once

#include <string>
#include <vector>

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "protocol/PhoneDataParse.h"
#include "support/CapturingSender.h"
#include "support/FakeHost.h"
#include "support/SimClock.h"
#include "support/TempDir.h"

namespace lumo::test {

struct ParserWorld {
  ParserWorld() {
    parser.SetDataSender(PHONE_DATA_SOURCE_USB, &usb);
    parser.SetDataSender(PHONE_DATA_SOURCE_WIFI, &wifi);
    ctrl.SetHwnd(reinterpret_cast<HWND>(0x1234));
  }

  // One frame as a transport hands it over (the parser takes a mutable buffer).
  void FeedFrame(std::string frame, ePhoneDataSource source = PHONE_DATA_SOURCE_USB,
                 ePhoneType type = PHONE_TYPE_ANDROID) {
    parser.ParsePhoneData(source, reinterpret_cast<signed char*>(&frame[0]), static_cast<unsigned>(frame.size()),
                          type);
  }
  void FeedJson(const std::string& text, ePhoneDataSource source = PHONE_DATA_SOURCE_USB,
                ePhoneType type = PHONE_TYPE_ANDROID) {
    FeedFrame(Bytes({1, 0, 0, 0, 9}) + text, source, type);
  }
  // The JSON texts of the commands a sender was given (each after its 9-byte header).
  static std::vector<std::string> Texts(CapturingSender& sender) {
    std::vector<std::string> out;
    for (const std::string& f : sender.Frames()) out.push_back(f.substr(9));
    return out;
  }

  ScopedSimClock sim;
  FakeHost host;
  ScopedAppData appData;  // the camera-parameter folder lands here, not in the user's
  CPhoneCameraCtrl ctrl;
  H264DataReviever video{&ctrl};
  AudioDataReviever audio1{&ctrl};
  AudioDataReviever audio2{&ctrl};
  PhoneDataParse parser{&ctrl, &video, &audio1, &audio2};
  CapturingSender usb, wifi;
};

}  // namespace lumo::test
