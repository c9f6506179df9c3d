// An audio output for tests: it records every open and every buffer played, with the library
// clock's time, can pass both on to another output (a WAV file), and lets a test wait for them.
// The player owns the output; the test keeps the shared AudioRecord.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/audio_output.h"
#include "platform/clock.h"

namespace lumo::test {

class AudioRecord {
 public:
  struct Buffer {
    std::vector<unsigned char> bytes;
    uint64_t timeUs;  // PerfCounterUs() when it was handed to the output
  };

  std::vector<Buffer> Buffers() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_buffers;
  }
  std::vector<std::pair<int, int>> Opens() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_opens;
  }
  size_t ByteCount() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_bytes;
  }
  // Waits in real time, at most `limit`, until `count` buffers were played.
  bool WaitForBuffers(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, limit, [&] { return m_buffers.size() >= count; });
  }
  bool WaitForBytes(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, limit, [&] { return m_bytes >= count; });
  }
  // The next `count` opens fail, as with no audio device.
  void RefuseOpens(int count) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_refuseOpens = count;
  }

  bool OnOpen(int channels, int sampleRate) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_opens.emplace_back(channels, sampleRate);
    if (m_refuseOpens > 0) {
      --m_refuseOpens;
      return false;
    }
    return true;
  }
  void OnWrite(const unsigned char* pcm, size_t length) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_buffers.push_back({std::vector<unsigned char>(pcm, pcm + length), PerfCounterUs()});
    m_bytes += length;
    m_cv.notify_all();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<Buffer> m_buffers;
  std::vector<std::pair<int, int>> m_opens;
  size_t m_bytes = 0;
  int m_refuseOpens = 0;
};

class RecordingAudioOutput final : public AudioOutput {
 public:
  RecordingAudioOutput(std::shared_ptr<AudioRecord> record, std::unique_ptr<AudioOutput> inner)
      : m_record(std::move(record)), m_inner(std::move(inner)) {}

  bool Open(int channels, int sampleRate) override {
    m_open = m_record->OnOpen(channels, sampleRate) && (!m_inner || m_inner->Open(channels, sampleRate));
    return m_open;
  }
  bool Write(const unsigned char* pcm, size_t length) override {
    if (!m_open) return false;
    // Into the file first, so that a test woken by the record finds the bytes there.
    bool ok = !m_inner || m_inner->Write(pcm, length);
    m_record->OnWrite(pcm, length);
    return ok;
  }
  void Close() override {
    if (m_inner) m_inner->Close();
    m_open = false;
  }
  bool IsOpen() const override { return m_open; }

 private:
  std::shared_ptr<AudioRecord> m_record;
  std::unique_ptr<AudioOutput> m_inner;
  bool m_open = false;
};

// A factory for PcmPlayer: every output it makes records into `record` and, when `inner` is
// given, plays into what `inner` makes.
inline std::function<std::unique_ptr<AudioOutput>()> RecordingOutputFactory(
    std::shared_ptr<AudioRecord> record, std::function<std::unique_ptr<AudioOutput>()> inner = {}) {
  return [record, inner]() -> std::unique_ptr<AudioOutput> {
    return std::make_unique<RecordingAudioOutput>(record, inner ? inner() : nullptr);
  };
}

}  // namespace lumo::test
