// Feeds the phone's JSON commands to the dispatcher as type-1 frames: every cmdType from 2000 to
// 2017 with members that the handlers read (and others), each of any JSON type. The first byte
// picks the data source, phone type, content type and audio record type, whether time passes
// between commands (bit 6: the byte before each command, in tenths of a second, so that capture
// retries and late camera fetches fall due and run), and whether the rest of the input is read
// as a recipe for commands or appended to a command as raw JSON text (bit 7). An input holds at
// most kMaxCommands commands: a few reach any handler in any state (the world carries state from
// one input to the next), and more would only make each run slower.
// Nothing may crash, read past a frame or let an exception out.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "protocol/PhoneDataParse.h"
#include "FuzzWorld.h"

namespace {

using World = lumo::test::FuzzWorld;
constexpr int kMaxCommands = 4;

// Reads the recipe; past the end it yields zeros, so every input is a valid recipe.
class Recipe {
 public:
  Recipe(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  bool More() const { return m_pos < m_size; }
  uint8_t Next() { return m_pos < m_size ? m_data[m_pos++] : 0; }
  uint32_t Next32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | Next();
    return v;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
};

const char* const kKeys[] = {
    "cmdType", "isIOS", "cameraId", "maxVideoSize", "switchCam", "state", "phoneName", "sysVer",
    "cameraMaxResolution", "appVer", "status", "code", "errMsg", "timestamp", "aacType", "audioRecType",
    "dwChannel", "dwSampleRate", "lock", "fps", "width", "height", "value", "isCustom", "expose", "bokeh",
    "whiteBalance", "exposeCompensation", "liveType", "roomid", "lumoId", "channelId", "show", "x"};
const char* const kTexts[] = {"", "1", "10", "0", "iPhone10,3", "iPhone8,1", "12.4", "16.1.2", "Pixel 7",
                              "4000x3000", "1920x1080", "-100", "null", "\xff\xfe", "iPhone", "a,b,c"};

Json::Value MakeValue(Recipe& r, int depth) {
  switch (r.Next() % (depth < 3 ? 12 : 9)) {
    case 0: return Json::Value();
    case 1: return Json::Value(static_cast<int>(r.Next() % 4));  // the small values handlers test for
    case 2: return Json::Value(static_cast<int>(r.Next32()));
    case 3: {
      Json::UInt64 high = r.Next32();
      return Json::Value(high << 32 | r.Next32());
    }
    case 4: return Json::Value(static_cast<Json::Int64>(-1) - r.Next32());
    case 5: return Json::Value(static_cast<double>(static_cast<int32_t>(r.Next32())) / 7.0);
    case 6: return Json::Value((r.Next() & 1) != 0);
    case 7: return Json::Value(kTexts[r.Next() % (sizeof(kTexts) / sizeof(kTexts[0]))]);
    case 8: return Json::Value(std::string(r.Next() % 64, static_cast<char>(r.Next())));
    case 9: {
      Json::Value array(Json::arrayValue);
      for (int i = 0, n = r.Next() % 4; i < n; ++i) array.append(MakeValue(r, depth + 1));
      return array;
    }
    default: {
      Json::Value object(Json::objectValue);
      for (int i = 0, n = r.Next() % 4; i < n; ++i)
        object[kKeys[r.Next() % (sizeof(kKeys) / sizeof(kKeys[0]))]] = MakeValue(r, depth + 1);
      return object;
    }
  }
}

void Send(World& w, ePhoneDataSource source, ePhoneType type, const std::string& text) {
  // A private copy of exactly the frame, so that the sanitizer sees any read past it.
  size_t len = 5 + text.size();
  auto* frame = static_cast<signed char*>(std::malloc(len));
  frame[0] = 1;
  frame[1] = frame[2] = frame[3] = 0;
  frame[4] = 7;
  for (size_t i = 0; i < text.size(); ++i) frame[5 + i] = static_cast<signed char>(text[i]);
  w.parser->ParsePhoneData(source, frame, static_cast<unsigned>(len), type);
  std::free(frame);
}

void RunInput(World& w, const uint8_t* data, size_t size) {
  uint8_t mode = data[0];
  ePhoneDataSource source = (mode & 1) ? PHONE_DATA_SOURCE_WIFI : PHONE_DATA_SOURCE_USB;
  ePhoneType phoneType = static_cast<ePhoneType>((mode >> 1) % 3);
  w.host.SetProjectContentType((mode >> 3) & 3);
  w.parser->SetAudioRecordType((mode >> 5) & 1);
  Recipe r(data + 1, size - 1);
  {
    if (mode & 0x80) {
      // Raw text behind a valid command number: the reader's own error paths and oddly shaped
      // but valid documents.
      int cmdType = 2000 + r.Next() % 18;
      std::string rest(reinterpret_cast<const char*>(data) + 2, size - 2);
      Send(w, source, phoneType, "{\"cmdType\":" + std::to_string(cmdType) + "," + rest);
      Send(w, source, phoneType, rest);
      return;
    }
    for (int commands = 0; commands < kMaxCommands && r.More(); ++commands) {
      if (mode & 0x40) w.Advance(100u * r.Next());
      Json::Value command(Json::objectValue);
      uint8_t head = r.Next();
      // Now and then the command number itself has the wrong type.
      command["cmdType"] = (head & 0xE0) == 0xE0 ? MakeValue(r, 2) : Json::Value(2000 + head % 18);
      for (int i = 0, n = r.Next() % 8; i < n; ++i)
        command[kKeys[r.Next() % (sizeof(kKeys) / sizeof(kKeys[0]))]] = MakeValue(r, 0);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
      Json::FastWriter writer;
      Send(w, source, phoneType, writer.write(command));
#pragma GCC diagnostic pop
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  World& w = lumo::test::TheWorld<World>();
  // An exception out of ParsePhoneData ends the run through std::terminate: a finding.
  RunInput(w, data, size);
  w.EndInput();
  return 0;
}
