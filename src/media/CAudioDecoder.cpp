#include "media/CAudioDecoder.h"

#include <neaacdec.h>

#include <algorithm>
#include <cstring>

#include "host/HostServices.h"
#include "host/Log.h"
#include "host/PhoneCameraCtrl.h"
#include "media/AudioDataReviever.h"
#include "media/PcmPlayer.h"
#include "platform/audio_output.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/paths.h"
#include "platform/text.h"

namespace {
const char kCfgFile[] = "phoneVideoCfg.ini";
}  // namespace

CAudioDecoder* CAudioDecoder::GetInstance(int n) {
  if (n == 1) {
    static CAudioDecoder first(AudioDataReviever::GetInstance(1), PcmPlayer::GetInstance(1),
                               CPhoneCameraCtrl::GetInstance(), 1);
    return &first;
  }
  static CAudioDecoder second(AudioDataReviever::GetInstance(n), PcmPlayer::GetInstance(n),
                              CPhoneCameraCtrl::GetInstance(), n);
  second.m_instanceId = n;
  return &second;
}

CAudioDecoder::CAudioDecoder(AudioDataReviever* receiver, PcmPlayer* player, CPhoneCameraCtrl* ctrl, int instanceId)
    : m_receiver(receiver),
      m_player(player),
      m_ctrl(ctrl),
      m_inputBuffer(new unsigned char[kBufferBytes]()),
      m_pcmBuffer(new unsigned char[kBufferBytes]()),
      m_instanceId(instanceId) {
  lumo::HostServices& host = lumo::Host();
  m_savePcm = host.GetConfigInt(kCfgFile, "SECT_VIDEO", "savePcm", -1);
  m_saveAAC = host.GetConfigInt(kCfgFile, "SECT_VIDEO", "saveAAC", -1);
}

CAudioDecoder::~CAudioDecoder() { StopDecode(); }

void CAudioDecoder::SetParam(int sampleRate, int channels, int aacType) {
  if (sampleRate <= 0 || channels < 1 || aacType < 1) return;
  std::lock_guard<std::recursive_mutex> guard(m_paramLock);
  m_sampleRate = sampleRate;
  m_channels = channels;
  m_aacType = aacType;
}

void CAudioDecoder::GetParam(int& sampleRate, int& channels, int& aacType) {
  std::lock_guard<std::recursive_mutex> guard(m_paramLock);
  sampleRate = m_sampleRate;
  channels = m_channels;
  aacType = m_aacType;
}

void CAudioDecoder::StartDecode() {
  // A thread that ended by itself (a dump it could not open) is collected by Start.
  if (m_worker.IsRunning()) return;
  m_running = true;
  if (m_worker.Start([this] { AudioDecodeProc(this); })) {
    Log(LOG_INFO, "[AudioDecoder] StartDecode create thread success with id:%u", m_worker.Id());
    return;
  }
  m_running = false;
  Log(LOG_INFO, "[AudioDecoder]StartDecode create thread fail with last error:%u",
      static_cast<unsigned>(lumo::LastSystemError()));
}

void CAudioDecoder::StopDecode() {
  m_running = false;
  // A thread slower than the bound is waited for (the worker logs it), never terminated: a
  // killed thread would leave libfaad2's state and our buffers half-written.
  m_worker.Stop(kStopJoinMs);
  ReleaseDecoder();
}

int CAudioDecoder::AudioDecodeProc(CAudioDecoder* obj) {
  Log(LOG_INFO, "[AudioDecoder] AudioDecodeProc enter");
  if (obj == nullptr) {
    Log(LOG_ERROR, "[AudioDecoder] AudioDecodeProc obj is empty");
    return -1;
  }
  return obj->DecodeLoop();
}

int CAudioDecoder::DecodeLoop() {
  // The decoder always gets the raw frame. The ADTS-framed copy of each frame that used to be
  // built in a separate 10,240-byte buffer was never read, so neither is made.
  // `running` was set by StartDecode; setting it again here would undo a StopDecode that came
  // before the thread got this far, and the thread would never end.
  if (!OpenDumps()) return 1;
  while (m_running) {
    unsigned int length = 0;
    unsigned long long timestamp = 0, index = 0;
    m_receiver->PopAACRawData(m_inputBuffer.get(), length, timestamp, index);
    if (length == 0) {
      m_worker.SleepMs(kIdleSleepMs);  // only a stop ends it early
      continue;
    }
    DecodeOne(length);
  }
  Log(LOG_INFO, "[AudioDecoder] AudioDecodeProc exit");
  CloseDumps();
  return 0;
}

void CAudioDecoder::DecodeOne(unsigned int length) {
  if (m_saveAAC == 1 && m_aacDump != nullptr) std::fwrite(m_inputBuffer.get(), 1, length, m_aacDump);

  if (m_decoder == nullptr) {
    // Opening consumes the frame: raw AAC has no header to read, so the frame is not decoded.
    m_decoder = aac_decoder_open(m_inputBuffer.get(), length);
    if (m_decoder == nullptr) Log(LOG_ERROR, "[AudioDecoder] decoder obj init error");
    return;
  }

  unsigned long pcmLength = 0;
  long result = aac_decoder_decode_frame(m_decoder, m_inputBuffer.get(), length, m_pcmBuffer.get(), pcmLength);
  if (result < 1) {
    Log(LOG_ERROR, "[AudioDecoder] decoder frame error");
    return;
  }
  if (!m_player->IsOpen()) {
    int sampleRate = 0, channels = 0, aacType = 0;
    GetParam(sampleRate, channels, aacType);
    // Narrowed for the player only when it fits; a count that does not is refused there.
    m_player->Open(static_cast<short>(channels <= 0x7FFF ? channels : 0), sampleRate);
  }
  m_ctrl->AddDecodedAudioFrame();
  m_player->Write(m_pcmBuffer.get(), static_cast<unsigned int>(pcmLength));
  if (m_savePcm == 1 && m_pcmDump) m_pcmDump->Write(m_pcmBuffer.get(), pcmLength);
}

bool CAudioDecoder::OpenDumps() {
  std::wstring dir = lumo::DebugDumpDir();
  if (m_savePcm == 1 || m_saveAAC == 1) lumo::CreateDirectoryOneLevel(dir);
  if (m_savePcm == 1) {
    std::wstring path = lumo::JoinPath(dir, L"outputPcm.wav");
    int sampleRate = 0, channels = 0, aacType = 0;
    GetParam(sampleRate, channels, aacType);
    m_pcmDump = lumo::CreateWavFileAudioOutput(path);
    if (!m_pcmDump->Open(channels, sampleRate)) {
      std::fprintf(stderr, "Error opening file: %s\n", lumo::WideToUtf8(path).c_str());
      CloseDumps();
      return false;
    }
  }
  if (m_saveAAC == 1) {
    std::wstring path = lumo::JoinPath(dir, L"inputAac.aac");
    m_aacDump = lumo::OpenFile(path, "wb");
    if (m_aacDump == nullptr) {
      std::fprintf(stderr, "Error opening file: %s\n", lumo::WideToUtf8(path).c_str());
      CloseDumps();
      return false;
    }
  }
  return true;
}

void CAudioDecoder::CloseDumps() {
  if (m_pcmDump) {
    m_pcmDump->Close();
    m_pcmDump.reset();
  }
  if (m_aacDump != nullptr) {
    std::fclose(m_aacDump);
    m_aacDump = nullptr;
  }
}

void* CAudioDecoder::aac_decoder_open(unsigned char* buffer, unsigned long size) {
  NeAACDecHandle handle = NeAACDecOpen();
  if (handle == nullptr) return nullptr;
  {
    std::lock_guard<std::recursive_mutex> guard(m_paramLock);
    NeAACDecConfigurationPtr config = NeAACDecGetCurrentConfiguration(handle);
    if (config == nullptr) {
      NeAACDecClose(handle);
      return nullptr;
    }
    config->defObjectType = m_aacType == 1 ? LC : HE_AAC;
    config->defSampleRate = static_cast<unsigned long>(m_sampleRate);
    config->outputFormat = FAAD_FMT_16BIT;
    config->downMatrix = 0;
    config->useOldADTSFormat = 0;
    if (NeAACDecSetConfiguration(handle, config) == 0) {
      NeAACDecClose(handle);
      return nullptr;
    }
  }
  // Raw frames: libfaad2 keeps the configured rate and object type and consumes nothing. What
  // it reports back is not used; the player is opened with what the phone announced.
  unsigned long rate = 0;
  unsigned char channels = 0;
  if (NeAACDecInit(handle, buffer, size, &rate, &channels) < 0) {
    NeAACDecClose(handle);
    return nullptr;
  }
  return handle;
}

long CAudioDecoder::aac_decoder_decode_frame(void* handle, unsigned char* input, unsigned long inputSize,
                                             unsigned char* output, unsigned long& outputSize) {
  if (handle == nullptr) return static_cast<long>(outputSize);
  NeAACDecFrameInfo info{};
  void* samples = NeAACDecDecode(handle, &info, input, inputSize);
  if (info.error != 0) {
    (void)NeAACDecGetErrorMessage(info.error);
    return 0;
  }
  if (samples == nullptr || info.samples == 0) return static_cast<long>(outputSize);
  // The byte count has always been taken as samples × channels. libfaad2 counts samples over all
  // channels, so that is right for stereo only: never copy more than the 16-bit samples it
  // produced, nor more than the output buffer holds.
  unsigned long bytes = info.samples * info.channels;
  bytes = std::min<unsigned long>(bytes, info.samples * sizeof(int16_t));
  bytes = std::min<unsigned long>(bytes, kBufferBytes);
  std::memcpy(output, samples, bytes);
  outputSize = bytes;
  return static_cast<long>(bytes);
}

void CAudioDecoder::aac_decoder_close(void* handle) {
  if (handle != nullptr) NeAACDecClose(static_cast<NeAACDecHandle>(handle));
}

void CAudioDecoder::InitDecoder() {}

void CAudioDecoder::ReleaseDecoder() {
  aac_decoder_close(m_decoder);
  m_decoder = nullptr;
}
