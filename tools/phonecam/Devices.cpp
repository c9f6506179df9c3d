// `lumo-phonecam devices`: the attached phones as the library lists them
// (CUSBConnectMgr::GetPhoneDeviceList), as a table or, with --json, as the JSON itself.
#include <json/json.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Demo.h"
#include "usb/CUSBConnectMgr.h"

namespace phonecam {

int Devices(int argc, char** argv) {
  bool json = false;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      json = true;
    } else {
      std::fprintf(std::strcmp(argv[i], "--help") == 0 ? stdout : stderr,
                   "usage: lumo-phonecam devices [--json]\n\nLists the Android phones adb sees and the iPhones "
                   "usbmuxd sees.\n");
      return std::strcmp(argv[i], "--help") == 0 ? 0 : 2;
    }
  }
  const Json::Value list = CUSBConnectMgr::GetInstance()->GetPhoneDeviceList();
  if (json) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::printf("%s\n", Json::writeString(builder, list).c_str());
    return 0;
  }
  const Json::Value& devices = list["devices"];
  if (devices.empty()) {
    std::printf("no phones attached (Android: adb devices; iPhone: idevice_id -l)\n");
    return 0;
  }
  std::printf("%-8s %-42s %-24s %s\n", "type", "id", "name", "product");
  for (const Json::Value& d : devices) {
    std::string id = d["uuid"].asString();
    id.erase(id.find_last_not_of(" \t") + 1);  // the library keeps adb's padding in the key
    std::printf("%-8s %-42s %-24s %s\n", d["type"].asInt() == 2 ? "iPhone" : "Android", id.c_str(),
                d["name"].asString().c_str(), d["product"].asString().c_str());
  }
  return 0;
}

}  // namespace phonecam
