// Feeds datagrams to one KCP endpoint with this system's settings, as anyone on the WiFi network
// could send them, and moves its clock between them. The first byte picks the setup:
//   bit 0    stamp our conv on each datagram, so that mutations get past the first check
//   bit 1    start the clock just before it wraps
//   bit 2    queue messages of our own first (bits 5-7: how many), so acknowledgements hit something
//   bit 3    peek at each message before taking it
//   bit 4    queue another message of our own after each datagram (while few are in flight)
// The rest is a sequence of records: a 2-byte big-endian word, whose low 12 bits are the length of
// the datagram that follows and whose high 4 bits pick how far the clock moves after it. Messages
// are taken into a bounded buffer; one that does not fit is discarded. Nothing may read past a
// datagram, crash, or make the endpoint hold more than its bounds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "wifi/ikcp.h"

namespace {

constexpr uint32_t kSteps[16] = {0, 1, 5, 10, 20, 50, 100, 200, 500, 1000, 3000, 7000, 10000, 15000, 60000, 130000};
constexpr int kRecvBuffer = 8192;

int Discard(const char*, int len, lumo::ikcpcb*, void*) { return len; }

void Take(lumo::ikcpcb* kcp, bool peek) {
  static char buffer[kRecvBuffer];
  while (lumo::ikcp_peeksize(kcp) >= 0) {
    if (peek) lumo::ikcp_recv(kcp, buffer, -kRecvBuffer);
    if (lumo::ikcp_recv(kcp, buffer, kRecvBuffer) < 0 && lumo::ikcp_discard(kcp) < 0) std::abort();
  }
}

// A few dozen segments of our own in flight give the peer's acknowledgements and window
// something to hit; queueing more on every datagram only made each run slower (each segment is
// an allocation, and every update and check walks them all).
constexpr uint32_t kMaxOwnSegments = 32;

void SendOwn(lumo::ikcpcb* kcp, int size) {
  static char payload[4 * lumo::kLumoKcpMss];
  if (kcp->nsnd_que + kcp->nsnd_buf >= kMaxOwnSegments) return;
  lumo::ikcp_send(kcp, payload, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  uint8_t mode = data[0];
  lumo::ikcpcb* kcp = lumo::CreateLumoKcp(nullptr, lumo::kLumoKcpMode);
  lumo::ikcp_setoutput(kcp, &Discard);
  uint32_t now = (mode & 2) ? 0xFFFFF000u : 1000u;
  if (mode & 4) {
    for (int i = 0; i <= (mode >> 5); ++i) SendOwn(kcp, 1 + i * 700);
    lumo::ikcp_update(kcp, now);
  }
  size_t pos = 1;
  while (pos + 2 <= size) {
    unsigned word = (static_cast<unsigned>(data[pos]) << 8) | data[pos + 1];
    pos += 2;
    size_t len = word & 0xFFF;
    if (len > size - pos) len = size - pos;
    // A private copy of exactly `len` bytes, so that the sanitizer sees any read past the datagram.
    auto* datagram = static_cast<char*>(std::malloc(len ? len : 1));
    if (len) std::memcpy(datagram, data + pos, len);
    if ((mode & 1) && len >= 4) {
      for (int i = 0; i < 4; ++i) datagram[i] = static_cast<char>((lumo::kLumoKcpConv >> (8 * i)) & 0xFF);
    }
    lumo::ikcp_input(kcp, datagram, static_cast<long>(len));
    std::free(datagram);
    pos += len;
    now += kSteps[word >> 12];
    lumo::ikcp_update(kcp, now);
    uint32_t next = lumo::ikcp_check(kcp, now);
    if (static_cast<int32_t>(next - now) < 0 || static_cast<int32_t>(next - now) > lumo::kLumoKcpInterval) std::abort();
    Take(kcp, (mode & 8) != 0);
    if (mode & 16) SendOwn(kcp, 1 + static_cast<int>(word % (4 * lumo::kLumoKcpMss)));
    // The bounds a peer must not get past.
    if (kcp->ackcount > 2 * kcp->rcv_wnd || kcp->nrcv_buf > kcp->rcv_wnd || kcp->rcv_bytes > lumo::kLumoKcpMaxHeldBytes)
      std::abort();
  }
  lumo::ikcp_release(kcp);
  return 0;
}
