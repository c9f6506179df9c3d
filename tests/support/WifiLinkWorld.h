// The library's side of a WiFi link as a host wires it, on fresh collaborators and a fake
// host: the common ground of the WiFi manager tests and the whole-session tests.
#pragma once

#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "protocol/PhoneDataParse.h"
#include "support/FakeHost.h"
#include "wifi/WifiConnectManager.h"

namespace lumo::test {

struct WifiLinkWorld {
  FakeHost host;
  CPhoneCameraCtrl ctrl;
  H264DataReviever video{&ctrl};
  AudioDataReviever audio1{&ctrl}, audio2{&ctrl};
  PhoneDataParse parser{&ctrl, &video, &audio1, &audio2};
  WifiConnectManager manager{&parser, &ctrl, &video};
};

}  // namespace lumo::test
