// The phone app's side of the control protocol, with no socket and no thread of its own: the
// runner hands it every frame from the PC and calls Tick for the timed duties (pings, the
// quality report, scenario events); everything it sends leaves through the sink as a complete
// frame with its 4-byte length prefix. The media threads ask it what to stream (Video/AudioOn)
// and send through it, so that sequence numbers, clocks and counters live in one place.
#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "PhoneSimOptions.h"

namespace lumo::phonesim {

// What the camera should be doing right now; `generation` changes whenever the encoder must be
// opened again (new size, rate, codec, or a new capture).
struct VideoPlan {
  bool capturing = false;
  VideoCodec codec = VideoCodec::H264;
  int width = 0, height = 0, fps = 0, bitRate = 0;
  uint32_t generation = 0;
};

struct SessionCounters {
  uint64_t videoFrames = 0, videoBytes = 0, keyFrames = 0;
  uint64_t audioFrames = 0, audioBytes = 0;
  uint64_t bytesSent = 0, framesReceived = 0, commandsReceived = 0;
  uint64_t pingsSent = 0;
  int lastNetTestRttMs = -1;
};

class PhoneSession {
 public:
  using Sink = std::function<bool(const std::string& frame)>;

  PhoneSession(const PhoneSimOptions& options, Sink sink);
  // Called (outside the session lock) after every command from the PC, so that the media
  // threads waiting for a capture or audio start wake at once.
  void SetOnChange(std::function<void()> onChange) { m_onChange = std::move(onChange); }

  // A new link: forgets the previous one (capture, clock adoption, handshake progress).
  void Begin();
  // One frame from the PC, without its length prefix.
  void OnFrame(const uint8_t* data, size_t size);
  // Sends what is due at the library clock's now; returns the microseconds until the next duty.
  uint64_t Tick();
  // Ms since Begin on the library clock (scenario times are measured with it).
  uint64_t SinceBeginMs() const;

  uint64_t PhoneClockMs() const;
  VideoPlan Video() const;
  bool AudioOn() const;
  std::string State() const;
  SessionCounters Counters() const;
  void NoteEncodeTime(uint64_t us);

  bool SendVideo(const std::vector<uint8_t>& packet, bool key, uint32_t phoneMs);
  bool SendAudio(const std::vector<uint8_t>& frame, uint32_t phoneMs);

  // Frame builders (public for the tests of the frame format).
  static std::string JsonFrame(uint32_t sequence, const Json::Value& command);
  static std::string MediaFrame(uint8_t type, uint32_t word0, uint32_t word1, uint32_t word2, uint32_t timestamp,
                                const uint8_t* payload, size_t size);
  static std::string PingFrame(uint32_t sequence);

 private:
  using Outbox = std::vector<std::string>;
  void Command(const Json::Value& command, Outbox& out);
  void Send(Json::Value command, Outbox& out);
  void Flush(Outbox& out);
  Json::Value CameraParams() const;
  void ApplyCameraChange(const Json::Value& command, Outbox& out);
  void ApplyContentType(const Json::Value& command);
  void StartVideo();
  void StopVideo();
  void RunScenario(uint64_t sinceMs, Outbox& out);
  uint64_t PhoneClockLocked() const;

  const PhoneSimOptions m_options;
  const Sink m_sink;
  std::function<void()> m_onChange;
  mutable std::recursive_mutex m_lock;
  // Held across a media send and across the handling of a command (taken before m_lock), so that
  // no picture or sound leaves after the answer that stopped it.
  std::mutex m_mediaLock;

  // Per link.
  uint64_t m_beginUs = 0;
  bool m_clockAdopted = false;
  uint64_t m_pcTimeMs = 0, m_adoptedAtUs = 0;
  uint32_t m_commandSeq = 0, m_pingSeq = 0, m_mediaSeq = 0;
  int m_netTestsDone = 0;
  std::string m_stage = "waiting for 1005";
  bool m_capturing = false, m_audio = false;
  VideoPlan m_plan;
  uint64_t m_nextPingUs = 0, m_nextQualityUs = 0;
  bool m_stopVideoDone = false, m_projectionDone = false, m_switchPhoneDone = false, m_switchCodecDone = false;
  SessionCounters m_counters;
  uint64_t m_encodeUsTotal = 0, m_encodeCount = 0;
  uint64_t m_reportFrames = 0, m_reportBytes = 0, m_reportStartUs = 0;

  // The camera, as the 1011/1012 commands see it.
  struct Setting {
    const char* key;
    int value, isCustom, min, max, initial;
  };
  std::vector<Setting> m_settings;
  int m_cameraId = 0;
  int m_exposureLock = 0;
};

}  // namespace lumo::phonesim
