// Test access to CVideoDecoder: the private steps a test drives on their own, and a decoder
// that reports each Decode so a test can wait for real decoding work instead of sleeping.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "media/CVideoDecoder.h"

class VideoDecoderTestPeer {
 public:
  explicit VideoDecoderTestPeer(CVideoDecoder& decoder) : m_d(decoder) {}
  // Opens the decoder for the controller's codec and allocates the frame queue, as
  // StartDecode does, without starting the thread.
  bool Prepare() {
    const bool ok = m_d.InitDecoder();
    m_d.AllocQueueBuf();
    return ok;
  }
  int ErrorCount() const { return m_d.m_errorCount; }
  bool HasThread() const { return m_d.m_worker.IsRunning(); }
  // Waits (real time, at most `ms`) for a thread that ends by itself, e.g. at the end of a file.
  // StopDecode collects it afterwards.
  bool WaitThreadEnded(uint32_t ms) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (m_d.m_worker.IsRunning()) {
      if (std::chrono::steady_clock::now() >= until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  // The codec context the decoder holds now: a test checks that it stays put under a decode.
  const void* CodecContext() const { return m_d.m_context; }
  size_t ReadyFrames() {
    std::lock_guard<std::recursive_mutex> guard(m_d.m_lock);
    return m_d.m_readyFrames.size();
  }
  size_t QueuedFrames() {
    std::lock_guard<std::recursive_mutex> guard(m_d.m_lock);
    return m_d.m_readyFrames.size() + m_d.m_freeFrames.size();
  }

 private:
  CVideoDecoder& m_d;
};

// Counts finished Decode calls and lets a test wait for them (in real time: decoding is real
// work).
class CountingVideoDecoder : public CVideoDecoder {
 public:
  using CVideoDecoder::CVideoDecoder;
  // The thread calls Decode through this object: it must end before our members go.
  ~CountingVideoDecoder() override { StopDecode(); }
  bool Decode(void* context, VID::VideoRawPkg* packet) override {
    const bool stored = CVideoDecoder::Decode(context, packet);
    std::lock_guard<std::mutex> guard(m_mutex);
    ++m_decodes;
    if (stored) ++m_stored;
    m_cv.notify_all();
    return stored;
  }
  bool WaitDecodes(int count, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, limit, [&] { return m_decodes >= count; });
  }
  int Decodes() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_decodes;
  }
  int Stored() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_stored;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  int m_decodes = 0;
  int m_stored = 0;
};
