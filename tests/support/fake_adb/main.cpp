// A stand-in for adb in the command runner's tests: it writes the arguments it was given, one
// per line, to the file named by LUMO_FAKE_ADB_LOG, prints LUMO_FAKE_ADB_PRINT on its standard
// output and a line on its standard error, and with the argument "hang" never finishes on its
// own (it gives up after a minute, so a broken runner cannot leave it behind for long).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

int main(int argc, char** argv) {
  bool hang = false;
  if (const char* logPath = std::getenv("LUMO_FAKE_ADB_LOG")) {
    if (FILE* log = std::fopen(logPath, "a")) {
      for (int i = 1; i < argc; ++i) std::fprintf(log, "%s\n", argv[i]);
      std::fclose(log);
    }
  }
  for (int i = 1; i < argc; ++i) hang = hang || std::strcmp(argv[i], "hang") == 0;
  if (const char* text = std::getenv("LUMO_FAKE_ADB_PRINT")) std::fputs(text, stdout);
  std::fputs("fake adb: note on stderr\n", stderr);
  std::fflush(nullptr);
  if (hang) std::this_thread::sleep_for(std::chrono::seconds(60));
  return 0;
}
