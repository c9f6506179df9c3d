// A dispatcher wired to fresh collaborators on a simulated clock and a fake host, with capturing
// senders on both sources: the common ground of the protocol tests. Also the one definition of
// the parser's test peer.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/DelayedTasks.h"
#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/H264DataReviever.h"
#include "protocol/PhoneDataParse.h"
#include "support/CapturingSender.h"
#include "support/FakeHost.h"
#include "support/SimClock.h"
#include "support/TempDir.h"

// What the tests may see of the parser's inside.
class PhoneDataParseTestPeer {
 public:
  explicit PhoneDataParseTestPeer(PhoneDataParse& p) : p(p) {}
  std::string ConstrcutCmd(const std::string& json) { return p.ConstrcutCmd(json); }
  std::string Json2Str(const Json::Value& v) { return p.Json2Str(v); }
  void SendJsonData(ePhoneDataSource s, const std::string& json) { p.SendJsonData(s, json); }
  void SetCommandCounter(unsigned long long v) { p.m_commandCounter = v; }
  unsigned long long CommandCounter() { return p.m_commandCounter; }
  void SetPingCounter(unsigned long long v) { p.m_pingCounter = v; }
  bool IsNeedPrintLog(unsigned long long& c) { return p.IsNeedPrintLog(c); }
  size_t SenderEntries() { return p.m_senders.size(); }
  // The delayed work (capture retries, late camera fetches): how much waits, and a wait until
  // everything due on the clock has run.
  size_t DelayedPending() { return p.m_delayed->Pending(); }
  bool DelayedSettled() { return p.m_delayed->WaitSettled(); }
  PhoneDataParse& p;
};

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
  // Moves the clock and waits until the delayed work now due has run; false if it did not settle.
  bool Advance(uint64_t ms) {
    sim.clock.AdvanceMs(ms);
    return PhoneDataParseTestPeer(parser).DelayedSettled();
  }
  size_t DelayedPending() { return PhoneDataParseTestPeer(parser).DelayedPending(); }
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
  CapturingSender usb, wifi;  // before the parser: its delayed work may send until it is gone
  PhoneDataParse parser{&ctrl, &video, &audio1, &audio2};
};

}  // namespace lumo::test
