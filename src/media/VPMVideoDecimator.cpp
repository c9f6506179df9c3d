#include "media/VPMVideoDecimator.h"

#include "platform/clock.h"

namespace FPS {

void VPMVideoDecimator::Reset() {
  m_first = 0;
  m_count = 0;
  m_maxFps = 0;
  m_targetFps = 0;
  m_accumulator = 0;
}

void VPMVideoDecimator::SetMaxFrameRate(unsigned int fps) {
  m_maxFps = fps;
  if (m_maxFps != 0 && m_targetFps > m_maxFps) m_targetFps = m_maxFps;
}

void VPMVideoDecimator::SetTargetFrameRate(unsigned int fps) {
  m_targetFps = (m_maxFps != 0 && fps > m_maxFps) ? m_maxFps : fps;
}

void VPMVideoDecimator::UpdateIncomingFrameRate() {
  const uint64_t now = lumo::PerfCounterUs();
  if (m_count == kHistory) {
    m_first = (m_first + 1) % kHistory;
    --m_count;
  }
  m_stamps[(m_first + m_count) % kHistory] = now;
  ++m_count;
  // Keep only the last second, so that a change of rate shows within a second.
  while (m_count > 1 && now - m_stamps[m_first] > kWindowUs) {
    m_first = (m_first + 1) % kHistory;
    --m_count;
  }
}

double VPMVideoDecimator::IncomingFrameRate() const {
  if (m_count < 2) return 0.0;
  const uint64_t newest = m_stamps[(m_first + m_count - 1) % kHistory];
  const uint64_t span = newest - m_stamps[m_first];
  if (span == 0) return 0.0;
  return static_cast<double>(m_count - 1) * 1e6 / static_cast<double>(span);
}

unsigned int VPMVideoDecimator::TargetFrameRate() const { return m_targetFps; }

bool VPMVideoDecimator::IsDropFrame() {
  // Whole frames per second: sources run at whole rates, and integer steps keep the pattern
  // exact (in floating point, 0.6 added five times does not reach 3).
  const unsigned long long incoming = static_cast<unsigned long long>(IncomingFrameRate() + 0.5);
  if (m_targetFps == 0 || m_count < 3 || incoming * 100 <= m_targetFps * kTolerancePercent) {
    m_accumulator = 0;
    return false;
  }
  m_accumulator += m_targetFps;
  if (m_accumulator >= incoming) {
    m_accumulator -= incoming;
    return false;
  }
  return true;
}

}  // namespace FPS
