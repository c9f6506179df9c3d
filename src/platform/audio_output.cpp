#include "platform/audio_output.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "platform/paths.h"
#include "platform/text.h"

namespace lumo {
namespace {

class NullAudioOutput final : public AudioOutput {
 public:
  bool Open(int, int) override {
    m_open = true;
    return true;
  }
  bool Write(const unsigned char*, size_t) override { return m_open; }
  void Close() override { m_open = false; }
  bool IsOpen() const override { return m_open; }

 private:
  bool m_open = false;
};

void PutLe16(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

void PutLe32(unsigned char* p, uint32_t v) {
  PutLe16(p, v);
  PutLe16(p + 2, v >> 16);
}

class WavFileAudioOutput final : public AudioOutput {
 public:
  explicit WavFileAudioOutput(std::wstring path) : m_path(std::move(path)) {}
  ~WavFileAudioOutput() override { Close(); }

  bool Open(int channels, int sampleRate) override {
    Close();
    if (channels < 1 || channels > 0xFFFF || sampleRate < 1) return false;
    m_file = OpenFile(m_path, "wb");
    if (m_file == nullptr) return false;
    m_channels = static_cast<uint32_t>(channels);
    m_sampleRate = static_cast<uint32_t>(sampleRate);
    m_dataBytes = 0;
    // The sizes are not known yet; Close fills them in.
    unsigned char header[kHeaderSize];
    FillHeader(header);
    if (std::fwrite(header, 1, sizeof(header), m_file) != sizeof(header)) {
      std::fclose(m_file);
      m_file = nullptr;
      return false;
    }
    return true;
  }

  bool Write(const unsigned char* pcm, size_t length) override {
    if (m_file == nullptr) return false;
    // A WAV file counts its bytes in 32 bits; past that the header could not describe the file.
    if (length > kMaxDataBytes - m_dataBytes) return false;
    size_t written = std::fwrite(pcm, 1, length, m_file);
    m_dataBytes += written;
    return written == length;
  }

  void Close() override {
    if (m_file == nullptr) return;
    unsigned char header[kHeaderSize];
    FillHeader(header);
    if (std::fseek(m_file, 0, SEEK_SET) == 0) std::fwrite(header, 1, sizeof(header), m_file);
    std::fclose(m_file);
    m_file = nullptr;
  }

  bool IsOpen() const override { return m_file != nullptr; }

 private:
  static constexpr size_t kHeaderSize = 44;
  static constexpr uint64_t kMaxDataBytes = 0xFFFFFFFFull - (kHeaderSize - 8);

  void FillHeader(unsigned char* h) const {
    const uint32_t blockAlign = m_channels * 2;
    const uint32_t data = static_cast<uint32_t>(m_dataBytes);
    std::copy_n("RIFF", 4, h);
    PutLe32(h + 4, static_cast<uint32_t>(kHeaderSize - 8) + data);
    std::copy_n("WAVEfmt ", 8, h + 8);
    PutLe32(h + 16, 16);  // size of the PCM format block
    PutLe16(h + 20, 1);   // PCM
    PutLe16(h + 22, m_channels);
    PutLe32(h + 24, m_sampleRate);
    PutLe32(h + 28, m_sampleRate * blockAlign);
    PutLe16(h + 32, blockAlign);
    PutLe16(h + 34, 16);
    std::copy_n("data", 4, h + 36);
    PutLe32(h + 40, data);
  }

  std::wstring m_path;
  FILE* m_file = nullptr;
  uint32_t m_channels = 0;
  uint32_t m_sampleRate = 0;
  uint64_t m_dataBytes = 0;
};

// Plays on the system device and keeps a WAV copy of exactly what was played. The file decides
// success: a machine without a sound card still records.
class TeeAudioOutput final : public AudioOutput {
 public:
  TeeAudioOutput(std::unique_ptr<AudioOutput> device, std::unique_ptr<AudioOutput> file)
      : m_device(std::move(device)), m_file(std::move(file)) {}
  bool Open(int channels, int sampleRate) override {
    m_device->Open(channels, sampleRate);
    return m_file->Open(channels, sampleRate);
  }
  bool Write(const unsigned char* pcm, size_t length) override {
    if (m_device->IsOpen()) m_device->Write(pcm, length);
    return m_file->Write(pcm, length);
  }
  void Close() override {
    m_device->Close();
    m_file->Close();
  }
  bool IsOpen() const override { return m_file->IsOpen(); }
  bool QueueInfo(AudioQueueInfo& info) const override { return m_device->QueueInfo(info); }

 private:
  std::unique_ptr<AudioOutput> m_device, m_file;
};

}  // namespace

std::unique_ptr<AudioOutput> CreateNullAudioOutput() { return std::make_unique<NullAudioOutput>(); }

std::unique_ptr<AudioOutput> CreateWavFileAudioOutput(const std::wstring& path) {
  return std::make_unique<WavFileAudioOutput>(path);
}

std::unique_ptr<AudioOutput> CreateAudioOutput(const std::string& selection, int instance) {
  if (selection == "null") return CreateNullAudioOutput();
  for (const char* kind : {"wav:", "tee:"}) {
    if (selection.rfind(kind, 0) != 0 || selection.size() <= 4) continue;
    std::unique_ptr<AudioOutput> file =
        CreateWavFileAudioOutput(Utf8ToWide(selection.substr(4) + "-" + std::to_string(instance) + ".wav"));
    if (kind[0] == 'w') return file;
    return std::make_unique<TeeAudioOutput>(CreateSystemAudioOutput(), std::move(file));
  }
  return CreateSystemAudioOutput();
}

std::string AudioOutputSelection(const std::string& configured) {
  std::wstring fromEnvironment = GetEnvironmentText("LUMO_AUDIO_OUTPUT");
  if (!fromEnvironment.empty()) return WideToUtf8(fromEnvironment);
  return configured;
}

}  // namespace lumo
