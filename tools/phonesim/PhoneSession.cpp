#include "PhoneSession.h"

#include <algorithm>

#include "platform/clock.h"
#include "protocol/JsonMember.h"

namespace lumo::phonesim {
namespace {

constexpr uint8_t kFrameJson = 1, kFrameVideo = 2, kFramePing = 4, kFrameAudio = 6;

void PutBe32(std::string& s, size_t at, uint32_t v) {
  s[at] = static_cast<char>(v >> 24);
  s[at + 1] = static_cast<char>(v >> 16);
  s[at + 2] = static_cast<char>(v >> 8);
  s[at + 3] = static_cast<char>(v);
}

int IntMember(const Json::Value& object, const char* key, int fallback) {
  const Json::Value* v = FindMember(object, key);
  return v != nullptr && v->isInt() ? v->asInt() : fallback;
}

}  // namespace

PhoneSession::PhoneSession(const PhoneSimOptions& options, Sink sink) : m_options(options), m_sink(std::move(sink)) {
  // Ranges as a typical phone camera reports them; "value" starts at the neutral setting.
  m_settings = {{"expose", 0, 0, -8, 8, 0},
                {"exposeCompensation", 0, 0, -4, 4, 0},
                {"whiteBalance", 5000, 0, 2800, 7500, 5000},
                {"bokeh", 0, 0, 0, 100, 0}};
  Begin();
}

void PhoneSession::Begin() {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_beginUs = PerfCounterUs();
  m_clockAdopted = false;
  m_commandSeq = m_pingSeq = m_mediaSeq = 0;
  m_netTestsDone = 0;
  m_stage = "waiting for 1005";
  m_capturing = m_audio = false;
  m_plan = VideoPlan{false, m_options.codec, m_options.width, m_options.height, m_options.fps, m_options.bitRate,
                     m_plan.generation + 1};
  m_nextPingUs = m_beginUs;  // the first ping goes out at once: over WiFi it announces the phone
  m_nextQualityUs = 0;
  m_stopVideoDone = m_projectionDone = m_switchPhoneDone = m_switchCodecDone = false;
}

uint64_t PhoneSession::SinceBeginMs() const {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return (PerfCounterUs() - m_beginUs) / 1000;
}

uint64_t PhoneSession::PhoneClockLocked() const {
  const uint64_t skewed = m_clockAdopted ? m_pcTimeMs + (PerfCounterUs() - m_adoptedAtUs) / 1000
                                         : WallClock100ns() / 10000;
  return skewed + static_cast<uint64_t>(m_options.clockSkewMs);
}

uint64_t PhoneSession::PhoneClockMs() const {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return PhoneClockLocked();
}

VideoPlan PhoneSession::Video() const {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_plan;
}

bool PhoneSession::AudioOn() const {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_audio;
}

std::string PhoneSession::State() const {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_stage;
}

SessionCounters PhoneSession::Counters() const {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  return m_counters;
}

void PhoneSession::NoteEncodeTime(uint64_t us) {
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  m_encodeUsTotal += us;
  ++m_encodeCount;
}

std::string PhoneSession::JsonFrame(uint32_t sequence, const Json::Value& command) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::string text = Json::writeString(builder, command);
  std::string frame(9, '\0');
  PutBe32(frame, 0, static_cast<uint32_t>(text.size() + 5));
  frame[4] = static_cast<char>(kFrameJson);
  PutBe32(frame, 5, sequence);
  return frame + text;
}

std::string PhoneSession::MediaFrame(uint8_t type, uint32_t word0, uint32_t word1, uint32_t word2, uint32_t timestamp,
                                     const uint8_t* payload, size_t size) {
  std::string frame(4 + 1 + 16 + size, '\0');
  PutBe32(frame, 0, static_cast<uint32_t>(1 + 16 + size));
  frame[4] = static_cast<char>(type);
  PutBe32(frame, 5, word0);
  PutBe32(frame, 9, word1);
  PutBe32(frame, 13, word2);
  PutBe32(frame, 17, timestamp);
  if (size > 0) std::copy(payload, payload + size, frame.begin() + 21);
  return frame;
}

std::string PhoneSession::PingFrame(uint32_t sequence) {
  std::string frame(9, '\0');
  PutBe32(frame, 0, 5);
  frame[4] = static_cast<char>(kFramePing);
  PutBe32(frame, 5, sequence);
  return frame;
}

void PhoneSession::Send(Json::Value command, Outbox& out) { out.push_back(JsonFrame(++m_commandSeq, command)); }

void PhoneSession::Flush(Outbox& out) {
  // Outside the session lock: a PC that stops reading must not freeze the other threads here.
  for (const std::string& frame : out) {
    if (!m_sink(frame)) break;
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_counters.bytesSent += frame.size();
  }
  out.clear();
}

bool PhoneSession::SendVideo(const std::vector<uint8_t>& packet, bool key, uint32_t phoneMs) {
  std::lock_guard<std::mutex> media(m_mediaLock);
  std::string frame;
  {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    if (!m_capturing) return false;
    frame = MediaFrame(kFrameVideo, ++m_mediaSeq, 0, key ? 1 : 0, phoneMs, packet.data(), packet.size());
  }
  if (!m_sink(frame)) return false;
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  ++m_counters.videoFrames;
  m_counters.videoBytes += packet.size();
  m_counters.keyFrames += key ? 1 : 0;
  m_counters.bytesSent += frame.size();
  ++m_reportFrames;
  m_reportBytes += packet.size();
  return true;
}

bool PhoneSession::SendAudio(const std::vector<uint8_t>& aac, uint32_t phoneMs) {
  std::lock_guard<std::mutex> media(m_mediaLock);
  std::string frame;
  {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    if (!m_audio) return false;
    frame = MediaFrame(kFrameAudio, ++m_mediaSeq, m_options.audioStream, 0, phoneMs, aac.data(), aac.size());
  }
  if (!m_sink(frame)) return false;
  std::lock_guard<std::recursive_mutex> guard(m_lock);
  ++m_counters.audioFrames;
  m_counters.audioBytes += aac.size();
  m_counters.bytesSent += frame.size();
  return true;
}

void PhoneSession::OnFrame(const uint8_t* data, size_t size) {
  Outbox out;
  std::unique_lock<std::mutex> media(m_mediaLock);
  {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    ++m_counters.framesReceived;
    // The PC's pings and ping replies need nothing from the phone; only commands do.
    if (size < 5 || data[0] != kFrameJson) return;
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 64;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value command;
    std::string errors;
    const char* text = reinterpret_cast<const char*>(data + 5);
    if (!reader->parse(text, text + size - 5, &command, &errors) || !command.isObject()) return;
    ++m_counters.commandsReceived;
    Command(command, out);
  }
  Flush(out);
  media.unlock();
  if (m_onChange) m_onChange();
}

void PhoneSession::StartVideo() {
  m_capturing = true;
  m_plan.capturing = true;
  ++m_plan.generation;
  m_reportFrames = m_reportBytes = 0;
  m_reportStartUs = PerfCounterUs();
  m_nextQualityUs = m_options.qualityIntervalMs > 0 ? m_reportStartUs + m_options.qualityIntervalMs * 1000ull : 0;
  m_stage = "streaming";
}

void PhoneSession::StopVideo() {
  m_capturing = false;
  m_plan.capturing = false;
  ++m_plan.generation;
  m_stage = "connected";
}

void PhoneSession::ApplyContentType(const Json::Value& c) {
  // A PC that asks for something no encoder can make keeps the current setting.
  const int width = IntMember(c, "width", m_plan.width), height = IntMember(c, "height", m_plan.height);
  const int fps = IntMember(c, "fps", m_plan.fps), bitRate = IntMember(c, "bitRate", m_plan.bitRate);
  if (width >= 64 && height >= 64 && width <= 4096 && height <= 4096 && width % 2 == 0 && height % 2 == 0) {
    m_plan.width = width;
    m_plan.height = height;
  }
  if (fps >= 1 && fps <= 120) m_plan.fps = fps;
  if (bitRate >= 100000 && bitRate <= 100000000) m_plan.bitRate = bitRate;
  ++m_plan.generation;
}

}  // namespace lumo::phonesim
