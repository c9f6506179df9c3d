// An IDataSender that keeps every frame it is given.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "host/PhoneCameraTypes.h"

namespace lumo::test {

class CapturingSender : public IDataSender {
 public:
  bool SendData(const std::string& frame) override {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_frames.push_back(frame);
    return result;
  }
  std::vector<std::string> Frames() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_frames;
  }
  void Clear() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_frames.clear();
  }
  bool result = true;

 private:
  std::mutex m_mutex;
  std::vector<std::string> m_frames;
};

// Bytes written as a C string literal with embedded zeros.
inline std::string Bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s.push_back(static_cast<char>(v));
  return s;
}

}  // namespace lumo::test
