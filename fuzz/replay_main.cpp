// Runs a fuzz target without libFuzzer: over the files and folders named on the command line,
// and over `--generated N` inputs made from a fixed seed (structured frames, mutated frames and
// plain noise). Used by ctest in every build so the harness is exercised on every run.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Run(const std::string& input) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

void AddFrame(std::string& input, const std::string& frame) {
  input.push_back(static_cast<char>(frame.size() >> 8));
  input.push_back(static_cast<char>(frame.size()));
  input += frame;
}

std::string Structured(std::mt19937& rng) {
  static const char* kJson[] = {
      "{}", "[]", "{\"cmdType\":2005,\"appVer\":\"1\",\"status\":0}", "{\"cmdType\":\"x\"}",
      "{\"cmdType\":2009}", "{\"cmdType\":1e40}", "[[[[[[[[[[", "{\"cmdType\":2001", "null", "\"s\"",
      "{\"cmdType\":2004,\"phoneName\":\"iPhone10,3\",\"sysVer\":\"12.4\"}", "{\"cmdType\":-2147483648}"};
  static const uint8_t kNal[] = {0x65, 0x41, 0x67, 0x26, 0x28, 0x02, 0x40, 0x01};
  std::string input(1, static_cast<char>(rng()));
  int frames = 1 + static_cast<int>(rng() % 6);
  for (int f = 0; f < frames; ++f) {
    std::string frame;
    switch (rng() % 6) {
      case 0:  // JSON command
        frame = std::string("\x01\x00\x00\x00\x01", 5) + kJson[rng() % (sizeof(kJson) / sizeof(kJson[0]))];
        break;
      case 1:  // ping
        frame = std::string(1, 4) + std::string(rng() % 6, static_cast<char>(rng()));
        break;
      case 2:
      case 3: {  // video or AAC with a media header and start codes
        frame = std::string(1, (rng() % 2) ? 2 : 6) + std::string(16, '\0');
        frame[8] = static_cast<char>(rng() % 2);
        size_t payload = rng() % 300;
        for (size_t i = 0; i < payload; ++i) frame.push_back(static_cast<char>(rng() % 4 == 0 ? 0 : rng()));
        if (payload > 5) {
          frame[17] = 0, frame[18] = 0, frame[19] = static_cast<char>(rng() % 2);
          frame[20] = static_cast<char>(kNal[rng() % sizeof(kNal)]);
        }
        break;
      }
      case 4:  // raw video
        frame = std::string("\x00\x00\x00\x00\x01", 5) + static_cast<char>(kNal[rng() % sizeof(kNal)]);
        break;
      default:  // noise of any type
        for (size_t i = 0, n = rng() % 40; i < n; ++i) frame.push_back(static_cast<char>(rng()));
    }
    // Truncate or flip a byte now and then.
    if (!frame.empty() && rng() % 4 == 0) frame.resize(rng() % frame.size());
    if (!frame.empty() && rng() % 4 == 0) frame[rng() % frame.size()] ^= static_cast<char>(1u << (rng() % 8));
    AddFrame(input, frame);
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  size_t runs = 0;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--generated" && i + 1 < argc) {
      long n = std::strtol(argv[++i], nullptr, 10);
      std::mt19937 rng(20261121);
      for (long k = 0; k < n; ++k, ++runs) Run(Structured(rng));
      continue;
    }
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(arg)) {
      for (auto& e : std::filesystem::directory_iterator(arg))
        if (e.is_regular_file()) files.push_back(e.path());
    } else {
      files.emplace_back(arg);
    }
    for (auto& f : files) {
      std::ifstream in(f, std::ios::binary);
      Run(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
      ++runs;
    }
  }
  std::printf("replayed %zu inputs\n", runs);
  return 0;
}
