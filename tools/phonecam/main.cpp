// lumo-phonecam: the reference host. `demo` runs the whole system on the built-in simulated
// phone over both links; `connect` runs a session with a phone; `devices` lists the phones
// attached now; `doctor` checks the machine.
#include <cstdio>
#include <cstring>

#include "Demo.h"

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "demo") == 0) return phonecam::Demo(argc, argv);
  if (argc >= 2 && std::strcmp(argv[1], "connect") == 0) return phonecam::Connect(argc, argv);
  if (argc >= 2 && std::strcmp(argv[1], "devices") == 0) return phonecam::Devices(argc, argv);
  if (argc >= 2 && std::strcmp(argv[1], "doctor") == 0) return phonecam::Doctor(argc, argv);
  const bool help = argc >= 2 && std::strcmp(argv[1], "--help") == 0;
  std::fprintf(help ? stdout : stderr,
               "usage: lumo-phonecam demo [flags]     the library against the simulated phone, WiFi and USB\n"
               "       lumo-phonecam connect usb SERIAL | ios UDID | wifi [flags]  a session with a phone\n"
               "       lumo-phonecam devices [--json] the phones attached now\n"
               "       lumo-phonecam doctor           what a session needs from this machine\n"
               "(each command takes --help)\n");
  return help ? 0 : 2;
}
