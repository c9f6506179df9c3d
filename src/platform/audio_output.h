// Where decoded phone audio ends up: the system's output device (waveOut on Windows, ALSA's
// "default" device elsewhere), nothing at all, or a WAV file that shows exactly what was played.
//
// All outputs take interleaved signed 16-bit little-endian PCM. An output is used by one thread
// at a time; its owner serialises calls.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace lumo {

// What a device says about its own queue, for diagnostics and benchmarks. -1: not known.
struct AudioQueueInfo {
  long bufferFrames = -1;          // the most it holds
  long startThresholdFrames = -1;  // it starts playing once this much is queued
  long queuedFrames = -1;          // handed over and not yet played
};

class AudioOutput {
 public:
  virtual ~AudioOutput() = default;

  // Opens for `channels` × `sampleRate`. An output that is already open is closed first, so a
  // second Open starts over with the new format. False when the device refuses.
  virtual bool Open(int channels, int sampleRate) = 0;
  // Plays `length` bytes. The bytes are copied (or written out) before it returns, so the caller
  // may reuse its buffer at once. False when nothing or not all of it could be handed over.
  virtual bool Write(const unsigned char* pcm, size_t length) = 0;
  virtual void Close() = 0;
  virtual bool IsOpen() const = 0;
  // False when the output keeps no queue it can describe (files, null, closed devices).
  virtual bool QueueInfo(AudioQueueInfo& info) const {
    info = AudioQueueInfo();
    return false;
  }
};

// The default output device of the system. On Linux `device` names another ALSA PCM (e.g.
// "null"); waveOut always plays on the default device.
std::unique_ptr<AudioOutput> CreateSystemAudioOutput(const std::string& device = std::string());
// Accepts and discards everything.
std::unique_ptr<AudioOutput> CreateNullAudioOutput();
// A standard 16-bit PCM WAV file at `path`, replaced at every Open; the header's sizes are
// filled in on Close.
std::unique_ptr<AudioOutput> CreateWavFileAudioOutput(const std::wstring& path);

// The output named by `selection`: "default" (the system device), "null",
// "wav:<path prefix>" (instance n writes "<prefix>-<n>.wav"), or "tee:<path prefix>" (the
// system device and that WAV file at once). Anything else means "default".
std::unique_ptr<AudioOutput> CreateAudioOutput(const std::string& selection, int instance);
// The selection in force: the environment variable LUMO_AUDIO_OUTPUT when it is set and not
// empty, otherwise `configured` (the host's ini value).
std::string AudioOutputSelection(const std::string& configured);

}  // namespace lumo
