// Video decoding: our path against bare libavcodec on the same streams, in the same run.
//
//  throughput  1080p H.264 and H.265 (camera-like: 8 Mbit/s with sensor noise), one decode
//              thread. Ours: PushH264RawData -> decode thread -> GetYuvData, pulled as fast as
//              the pictures come; bare: avcodec_send_packet/avcodec_receive_frame in a loop on
//              pre-padded packets. Frames per second from the first picture to the last;
//              prints the medians and the median of the per-run ratios (ours / bare).
//  latency     1080p30: packets pushed at 30 fps pacing; time from the push to the moment
//              GetYuvData hands the picture out, p50/p99, beside the time of the decode alone,
//              and where it goes: push -> Decode called (queue and wake-up), the Decode call,
//              Decode returned -> picture pulled. The first picture (which waits for the
//              decode thread's 10 ms key-frame poll) is shown on its own.
//  settings    pictures held back by the decoder for the thread settings one could choose.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include "Stats.h"
#include "host/PhoneCameraCtrl.h"
#include "media/CVideoDecoder.h"
#include "media/H264DataReviever.h"
#include "support/QuietHost.h"
#include "support/TestVideo_media.h"

namespace {

using lumo::bench::Median;
using lumo::bench::Percentile;

using Clock = std::chrono::steady_clock;
using lumo::test::EncodedPacket;
using lumo::test::TestCodec;

// Content type 1: the receiver never guesses a codec change from the packets.
class BenchHost : public lumo::test::QuietHost {
 public:
  int GetProjectContentType() override { return 1; }
};



double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

struct Bare {
  AVCodecContext* ctx = nullptr;
  AVFrame* frame = av_frame_alloc();
  AVPacket* pkt = av_packet_alloc();
  Bare(TestCodec codec, int threads, int threadType, bool lowDelay) {
    const AVCodec* dec = avcodec_find_decoder(codec == TestCodec::H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    ctx = avcodec_alloc_context3(dec);
    if (lowDelay) ctx->flags |= AV_CODEC_FLAG_LOW_DELAY;
    ctx->thread_count = threads;
    ctx->thread_type = threadType;
    if (avcodec_open2(ctx, dec, nullptr) < 0) std::abort();
  }
  ~Bare() {
    avcodec_free_context(&ctx);
    av_frame_free(&frame);
    av_packet_free(&pkt);
  }
  void Send(std::vector<uint8_t>& padded, size_t size) {
    pkt->data = padded.data();
    pkt->size = static_cast<int>(size);
    if (avcodec_send_packet(ctx, pkt) < 0) std::abort();
  }
  bool Receive() { return avcodec_receive_frame(ctx, frame) == 0; }
};

std::vector<std::vector<uint8_t>> Padded(const std::vector<EncodedPacket>& packets) {
  std::vector<std::vector<uint8_t>> out;
  for (const auto& p : packets) {
    std::vector<uint8_t> b(p.data);
    b.resize(p.data.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    out.push_back(std::move(b));
  }
  return out;
}

// Bare libavcodec, our decoder's settings; fps from the first picture to the last.
double BareFps(TestCodec codec, const std::vector<EncodedPacket>& packets,
               std::vector<std::vector<uint8_t>>& padded) {
  Bare bare(codec, 1, FF_THREAD_SLICE, true);
  Clock::time_point first, last;
  int pictures = 0;
  for (size_t i = 0; i < packets.size(); ++i) {
    bare.Send(padded[i], packets[i].data.size());
    while (bare.Receive()) {
      last = Clock::now();
      if (pictures++ == 0) first = last;
    }
  }
  return (pictures - 1) / std::chrono::duration<double>(last - first).count();
}

struct OurRun {
  double fps = 0;
  int pulled = 0;
  std::vector<double> latencyMs;  // by picture, the first one included
  double firstMs = -1;            // latency of the first picture
  // Per picture after the first: push -> Decode entered, inside Decode, Decode left -> pulled.
  std::vector<double> wakeMs, decodeMs, pullMs;
};

// Notes when each packet's Decode starts and ends (by the packet's timestamp, which the bench
// sets to the packet's index). Read only after StopDecode has joined the thread.
class TimedDecoder : public CVideoDecoder {
 public:
  TimedDecoder(CPhoneCameraCtrl* ctrl, H264DataReviever* rx, size_t n) : CVideoDecoder(ctrl, rx), begin(n), end(n) {}
  ~TimedDecoder() override { StopDecode(); }
  bool Decode(void* context, VID::VideoRawPkg* packet) override {
    const auto t0 = Clock::now();
    const bool stored = CVideoDecoder::Decode(context, packet);
    if (packet->timestamp < begin.size()) {
      begin[packet->timestamp] = t0;
      end[packet->timestamp] = Clock::now();
    }
    return stored;
  }
  std::vector<Clock::time_point> begin, end;
};

// Our path. With `pacing` the packets are pushed at that interval and each picture's latency
// is taken; without it the receiver is kept supplied and pictures are pulled as they come.
OurRun OurPath(TestCodec codec, const std::vector<EncodedPacket>& packets, Clock::duration pacing = {}) {
  CPhoneCameraCtrl ctrl;
  ctrl.SetCodec(codec == TestCodec::H265 ? 2 : 1);
  ctrl.SetHighIOSVersion();  // no half-second pause before the first picture
  H264DataReviever rx(&ctrl);
  const size_t n = packets.size();
  TimedDecoder dec(&ctrl, &rx, n);
  dec.StartDecode();
  std::vector<Clock::time_point> pushed(n), pulledAt(n);
  std::vector<bool> seen(n, false);
  OurRun run;
  Clock::time_point first, last;
  size_t next = 0;
  const auto start = Clock::now();
  while (run.pulled < static_cast<int>(n)) {
    const bool paced = pacing != Clock::duration{};
    if (next < n && (paced ? Clock::now() >= start + pacing * static_cast<int>(next) : rx.WaitingCount() < 8)) {
      pushed[next] = Clock::now();
      rx.PushH264RawData(packets[next].data.data(), packets[next].data.size(), next, PHONE_DATA_SOURCE_USB);
      ++next;
    }
    int w, h;
    unsigned long long ts;
    if (dec.GetYuvData(w, h, ts) != nullptr) {
      last = Clock::now();
      if (run.pulled++ == 0) first = last;
      if (ts < n) {
        run.latencyMs.push_back(Ms(last - pushed[ts]));
        pulledAt[ts] = last;
        seen[ts] = true;
      }
    } else if (next == n && dec.GetCurVideoFrameTs() == static_cast<long long>(n - 1)) {
      break;  // a picture was recycled before we pulled it: the last one is out
    } else if (paced) {
      std::this_thread::yield();  // latency: see the picture the moment it is there
    } else {
      // Throughput: poll like a render loop would, without taking the decoder's locks
      // thousands of times per picture.
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    if (Clock::now() - start > std::chrono::seconds(60)) break;
  }
  dec.StopDecode();
  run.fps = (run.pulled - 1) / std::chrono::duration<double>(last - first).count();
  if (seen[0]) run.firstMs = Ms(pulledAt[0] - pushed[0]);
  for (size_t i = 1; i < n; ++i) {
    if (!seen[i]) continue;
    run.wakeMs.push_back(Ms(dec.begin[i] - pushed[i]));
    run.decodeMs.push_back(Ms(dec.end[i] - dec.begin[i]));
    run.pullMs.push_back(Ms(pulledAt[i] - dec.end[i]));
  }
  return run;
}

// Bare decode time of each packet, packets sent at the same pacing as our latency run.
std::vector<double> BarePacedDecodeMs(TestCodec codec, const std::vector<EncodedPacket>& packets,
                                      std::vector<std::vector<uint8_t>>& padded, Clock::duration pacing) {
  Bare bare(codec, 1, FF_THREAD_SLICE, true);
  std::vector<double> ms;
  const auto start = Clock::now();
  for (size_t i = 0; i < packets.size(); ++i) {
    // Spin like our latency run does, so that both meet the CPU in the same state.
    while (Clock::now() < start + pacing * static_cast<int>(i)) std::this_thread::yield();
    const auto t0 = Clock::now();
    bare.Send(padded[i], packets[i].data.size());
    while (bare.Receive()) {
    }
    ms.push_back(Ms(Clock::now() - t0));
  }
  return ms;
}

// Packets sent before the first picture came out.
int PacketsBeforeFirstPicture(TestCodec codec, const std::vector<EncodedPacket>& packets,
                              std::vector<std::vector<uint8_t>>& padded, int threads, int type, bool lowDelay) {
  Bare bare(codec, threads, type, lowDelay);
  for (size_t i = 0; i < packets.size(); ++i) {
    bare.Send(padded[i], packets[i].data.size());
    if (bare.Receive()) return static_cast<int>(i) + 1;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  // --latency: the latency figures alone (the throughput runs take minutes).
  const bool latencyOnly = argc > 1 && std::strcmp(argv[1], "--latency") == 0;
  const int reps = quick ? 3 : 5;
  BenchHost host;
  lumo::SetHostServices(&host);
  av_log_set_level(AV_LOG_ERROR);  // the encoders' statistics are not the benchmark

  for (TestCodec codec : {TestCodec::H264, TestCodec::H265}) {
    const char* name = codec == TestCodec::H264 ? "H.264" : "H.265";
    lumo::test::TestVideoOptions options;
    options.gop = 60;
    options.bitRate = 8000000;
    options.noise = 3;
    options.preset = codec == TestCodec::H264 ? "superfast" : "ultrafast";
    options.threads = 2;
    const int frames = quick ? 60 : (codec == TestCodec::H264 ? 300 : 150);
    std::fprintf(stderr, "encoding %d frames of 1080p %s...\n", frames, name);
    const std::vector<EncodedPacket> packets = lumo::test::EncodeTestVideo(codec, 1920, 1080, frames, options);
    if (packets.size() != static_cast<size_t>(frames)) {
      std::fprintf(stderr, "encoder unavailable\n");
      return 1;
    }
    size_t bytes = 0;
    for (const auto& p : packets) bytes += p.data.size();
    auto padded = Padded(packets);

    std::vector<double> bareFps, ourFps, ratios;
    for (int r = 0; r < (latencyOnly ? 0 : reps); ++r) {
      const double b = BareFps(codec, packets, padded);
      const OurRun o = OurPath(codec, packets);
      bareFps.push_back(b);
      ourFps.push_back(o.fps);
      ratios.push_back(o.fps / b);
      if (o.pulled != frames) std::fprintf(stderr, "  run %d: pulled %d of %d\n", r, o.pulled, frames);
    }
    if (!latencyOnly) {
      std::printf("%s 1080p (%.1f Mbit/s at 30 fps), throughput over %d runs: bare %.1f fps, ours %.1f fps\n", name,
                bytes * 8.0 * 30 / frames / 1e6, reps, Median(bareFps), Median(ourFps));
      std::printf("decode_%s_ratio %.3f\n", codec == TestCodec::H264 ? "h264" : "h265", Median(ratios));
    }

    // Latency at 30 fps pacing, beside the decode time of the same packets.
    const int latencyFrames = quick ? 60 : 150;
    std::vector<EncodedPacket> clip(packets.begin(), packets.begin() + std::min(latencyFrames, frames));
    std::vector<double> p50s, p99s, decodeP50s, decodeP99s, firsts, steadyP99s;
    std::vector<double> wake50, wake99, dec50, dec99, pull50, pull99;
    for (int r = 0; r < (quick ? 1 : 3); ++r) {
      const auto pacing = std::chrono::microseconds(33333);
      const std::vector<double> decodeMs = BarePacedDecodeMs(codec, clip, padded, pacing);
      const OurRun o = OurPath(codec, clip, pacing);
      p50s.push_back(Percentile(o.latencyMs, 0.5));
      p99s.push_back(Percentile(o.latencyMs, 0.99));
      decodeP50s.push_back(Percentile(decodeMs, 0.5));
      decodeP99s.push_back(Percentile(decodeMs, 0.99));
      firsts.push_back(o.firstMs);
      std::vector<double> steady(o.latencyMs.begin() + 1, o.latencyMs.end());
      steadyP99s.push_back(Percentile(steady, 0.99));
      wake50.push_back(Percentile(o.wakeMs, 0.5));
      wake99.push_back(Percentile(o.wakeMs, 0.99));
      dec50.push_back(Percentile(o.decodeMs, 0.5));
      dec99.push_back(Percentile(o.decodeMs, 0.99));
      pull50.push_back(Percentile(o.pullMs, 0.5));
      pull99.push_back(Percentile(o.pullMs, 0.99));
    }
    std::printf("%s 1080p30 latency push->GetYuvData: p50 %.2f ms, p99 %.2f ms; decode alone p50 %.2f ms, "
                "p99 %.2f ms; overhead p50 %.2f ms\n",
                name, Median(p50s), Median(p99s), Median(decodeP50s), Median(decodeP99s),
                Median(p50s) - Median(decodeP50s));
    std::printf("%s   first picture %.2f ms; p99 without it %.2f ms; push->Decode p50 %.2f p99 %.2f, "
                "Decode p50 %.2f p99 %.2f, Decode->pulled p50 %.2f p99 %.2f ms\n",
                name, Median(firsts), Median(steadyP99s), Median(wake50), Median(wake99), Median(dec50),
                Median(dec99), Median(pull50), Median(pull99));

    if (latencyOnly) continue;
    std::printf("%s packets before the first picture: 1 thread + LOW_DELAY %d, 1 thread %d, "
                "2 slice threads %d, 2 frame threads %d, 4 frame threads %d\n",
                name, PacketsBeforeFirstPicture(codec, packets, padded, 1, FF_THREAD_SLICE, true),
                PacketsBeforeFirstPicture(codec, packets, padded, 1, FF_THREAD_SLICE, false),
                PacketsBeforeFirstPicture(codec, packets, padded, 2, FF_THREAD_SLICE, true),
                PacketsBeforeFirstPicture(codec, packets, padded, 2, FF_THREAD_FRAME, false),
                PacketsBeforeFirstPicture(codec, packets, padded, 4, FF_THREAD_FRAME, false));
  }
  lumo::SetHostServices(nullptr);
  return 0;
}
