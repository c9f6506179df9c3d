// CAudioDecoder: one audio chain's decode thread. It takes raw AAC frames (no ADTS header) from
// the chain's AudioDataReviever, decodes them to 16-bit PCM with libfaad2 and hands the PCM to
// the chain's PcmPlayer, which it opens with the first decoded frame.
//
// Raw frames carry no configuration, so the decoder is set up from what the phone announced
// (SetParam: rate, channels, AAC type); the first frame after a start only opens it. With
// libfaad2 2.10 the first frame decoded after that yields no samples either, so PCM begins with
// the third frame.
//
// Settings read from "phoneVideoCfg.ini" [SECT_VIDEO] at construction: savePcm = 1 writes the
// decoded PCM to "outputPcm.wav", saveAAC = 1 the raw frames to "inputAac.aac", both in
// lumo::DebugDumpDir().
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>

#include "platform/export.h"
#include "host/WorkerThread.h"

class AudioDataReviever;
class CPhoneCameraCtrl;
class PcmPlayer;
namespace lumo {
class AudioOutput;
}

class LUMO_API CAudioDecoder {
 public:
  // 1 gives instance 1 (instanceId 1); any other n gives instance 2 and sets its instanceId to
  // n on every call. Each instance uses the receiver and the player of its own number.
  static CAudioDecoder* GetInstance(int n);

  // A decoder of its own, for tests: frames come from `receiver`, PCM goes to `player`, and
  // `ctrl` counts decoded frames.
  CAudioDecoder(AudioDataReviever* receiver, PcmPlayer* player, CPhoneCameraCtrl* ctrl, int instanceId = 1);
  virtual ~CAudioDecoder();
  CAudioDecoder(const CAudioDecoder&) = delete;
  CAudioDecoder& operator=(const CAudioDecoder&) = delete;

  // Stored only when sampleRate > 0, channels >= 1 and aacType >= 1 (1: AAC-LC, other values
  // HE-AAC); used when the decoder is next opened.
  void SetParam(int sampleRate, int channels, int aacType);
  void GetParam(int& sampleRate, int& channels, int& aacType);

  // Does nothing while a decode thread runs: a second one would share the buffers and the
  // decoder handle with the first.
  void StartDecode();
  // Stops and joins the decode thread (however long it takes), then releases the libfaad2
  // decoder, so that the next start opens it again with the parameters in force.
  void StopDecode();
  bool IsRunning() const { return m_running; }

  int InstanceId() const { return m_instanceId; }
  AudioDataReviever* Receiver() const { return m_receiver; }
  PcmPlayer* Player() const { return m_player; }

  static constexpr size_t kBufferBytes = 8192;
  static constexpr uint32_t kIdleSleepMs = 10;   // an idle thread looks for frames this often
  static constexpr uint32_t kStopJoinMs = 1000;  // a stop slower than this is logged

 private:
  static int AudioDecodeProc(CAudioDecoder* obj);
  int DecodeLoop();
  void DecodeOne(unsigned int length);
  bool OpenDumps();
  void CloseDumps();

  void* aac_decoder_open(unsigned char* buffer, unsigned long size);
  // `output` holds kBufferBytes.
  long aac_decoder_decode_frame(void* handle, unsigned char* input, unsigned long inputSize, unsigned char* output,
                                unsigned long& outputSize);
  void aac_decoder_close(void* handle);
  void InitDecoder();
  void ReleaseDecoder();

  AudioDataReviever* m_receiver;
  PcmPlayer* m_player;
  CPhoneCameraCtrl* m_ctrl;

  void* m_decoder = nullptr;  // libfaad2's handle, opened by the first frame after a start
  std::unique_ptr<unsigned char[]> m_inputBuffer;
  std::unique_ptr<unsigned char[]> m_pcmBuffer;
  int m_sampleRate = 44100;
  int m_channels = 2;
  int m_aacType = 1;
  int m_savePcm = -1;
  int m_saveAAC = -1;
  std::recursive_mutex m_paramLock;  // the three parameters above

  std::unique_ptr<lumo::AudioOutput> m_pcmDump;
  FILE* m_aacDump = nullptr;

  std::atomic<bool> m_running{false};
  std::atomic<int> m_instanceId;
  lumo::WorkerThread m_worker{"AudioDecoder"};
};
