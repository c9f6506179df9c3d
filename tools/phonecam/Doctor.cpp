// `lumo-phonecam doctor`: what a session needs from this machine, checked one by one, each
// failure with what to do about it. Exit status 1 when something would block a session.
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "Demo.h"
#include "device/AdbSrvMgr.h"
#include "host/HostServices.h"
#include "platform/audio_output.h"
#include "platform/paths.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/text.h"

namespace phonecam {
namespace {

struct Report {
  int blocking = 0;
  void Line(const char* mark, const std::string& what, const std::string& fix = std::string()) {
    std::printf("[%s] %s\n", mark, what.c_str());
    if (!fix.empty()) std::printf("       fix: %s\n", fix.c_str());
  }
  void Ok(const std::string& what) { Line("ok", what); }
  void Warn(const std::string& what, const std::string& fix) { Line("warn", what, fix); }
  void Fail(const std::string& what, const std::string& fix) {
    Line("FAIL", what, fix);
    ++blocking;
  }
};

std::string Owner(const std::map<std::string, std::string>& ports, const char* port) {
  auto it = ports.find(port);
  if (it == ports.end()) return std::string();
  std::string path = lumo::WideToUtf8(lumo::GetProcessPathByPid(static_cast<uint32_t>(std::stoul(it->second))));
  return "pid " + it->second + " (" + (path.empty() ? "path unknown" : path) + ")";
}

bool UdpPortFree(uint16_t port) {
  lumo::NetStartup();
  lumo::SocketHandle s = lumo::OpenUdpSocket();
  const bool free = s != lumo::kInvalidSocket && lumo::BindSocket(s, {lumo::kIpv4Any, port});
  lumo::CloseSocket(s);
  return free;
}

}  // namespace

int Doctor(int argc, char** argv) {
  if (argc > 2) {
    std::printf("usage: lumo-phonecam doctor\n\nChecks adb, the ports, usbmuxd, the audio output and the "
                "configuration; exit status 1 when something would block a session.\n");
    return std::strcmp(argv[2], "--help") == 0 ? 0 : 2;
  }
  Report r;
  const std::map<std::string, std::string> ports = lumo::ListeningTcpPortOwners();

  // adb: which one, and why.
  const std::wstring adb = AdbSrvMgr::AdbPathRule();
  const std::string adbText = lumo::WideToUtf8(adb);
  std::string why = "the default: for_android beside the host, else the adb on PATH";
  if (!lumo::GetEnvironmentText("LUMO_ADB").empty()) why = "the LUMO_ADB environment variable";
  else if (!lumo::Host().GetConfigString("phoneVideoCfg.ini", "DEVICE", "adbPath", "", 1024).empty())
    why = "[DEVICE] adbPath in phoneVideoCfg.ini";
  if (lumo::FileExists(adb)) {
    r.Ok("adb: " + adbText + " (from " + why + ")");
  } else {
    r.Fail("adb: " + adbText + " does not exist (from " + why + ")",
           "install adb (scripts/install-deps), or set LUMO_ADB to an adb executable");
  }
  const std::string holder = Owner(ports, "5037");
  AdbSrvMgr manager(adb);
  if (holder.empty()) {
    r.Ok("port 5037: free (no adb server runs; the library starts one when it lists phones)");
  } else if (manager.IsAdbAlive()) {
    r.Ok("port 5037: our adb server, " + holder);
  } else {
    r.Warn("port 5037: held by " + holder + ", not our adb",
           "stop it (e.g. its own 'adb kill-server'); the library's adb reset would stop it for you");
  }

  // The local ports of the two links.
  const std::string forward = Owner(ports, "8181");
  if (forward.empty()) r.Ok("port 8181 (USB forward): free");
  else r.Warn("port 8181 (USB forward): held by " + forward, "stop that program; Android over USB forwards 8181");
  if (UdpPortFree(10099)) r.Ok("UDP port 10099 (WiFi): free");
  else r.Fail("UDP port 10099 (WiFi): in use", "stop the program bound to it (another instance of the host?)");

  // usbmuxd, for iPhones.
  std::string mux = lumo::WideToUtf8(lumo::GetEnvironmentText("USBMUXD_SOCKET_ADDRESS"));
  if (mux.empty()) mux = "UNIX:/var/run/usbmuxd";
  const bool unixSocket = mux.compare(0, 5, "UNIX:") == 0;
  if (!unixSocket || lumo::FileExists(lumo::Utf8ToWide(mux.substr(5)))) {
    r.Ok("usbmuxd: " + mux + (unixSocket ? "" : " (not checked)"));
  } else {
    r.Warn("usbmuxd: " + mux + " is not there, so no iPhone can be listed",
           "install and start usbmuxd (Debian package usbmuxd), or set USBMUXD_SOCKET_ADDRESS");
  }

  // Audio.
  const std::string selection = lumo::AudioOutputSelection(
      lumo::Host().GetConfigString("phoneVideoCfg.ini", "SECT_VIDEO", "audioOutput", "default", 1024));
  std::unique_ptr<lumo::AudioOutput> output = lumo::CreateAudioOutput(selection, 1);
  if (output && output->Open(2, 44100)) {
    r.Ok("audio output '" + selection + "' opens (stereo 44.1 kHz)");
    output->Close();
  } else {
    r.Warn("audio output '" + selection + "' does not open: the phone's sound will not play",
           "check the sound device, or set LUMO_AUDIO_OUTPUT=null (or wav:PREFIX) to run without one");
  }

  // Configuration and logs.
  const std::string folder = lumo::WideToUtf8(lumo::ProductDataDir());
  r.Ok("configuration and log folder: " + folder + " (phoneVideoCfg.ini, LumoHqPhoneCamera.log)");
  std::printf("%s\n", r.blocking ? "doctor: something blocks a session (see FAIL above)" : "doctor: nothing blocks a session");
  return r.blocking ? 1 : 0;
}

}  // namespace phonecam
