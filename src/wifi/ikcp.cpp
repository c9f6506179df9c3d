#include "wifi/ikcp.h"
#include "wifi/ikcp_internal.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace lumo {
namespace {

using namespace kcp_detail;

uint32_t Get16(const unsigned char* p) { return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8); }

uint32_t Get32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

void ShrinkBuf(ikcpcb* kcp) { kcp->snd_una = kcp->snd_buf.empty() ? kcp->snd_nxt : kcp->snd_buf.front().sn; }

void UpdateAck(ikcpcb* kcp, int32_t rtt) {
  // 64-bit on purpose: a peer picks ts, so rtt can be close to 2^31 and 7 * srtt must not overflow.
  int64_t srtt = kcp->rx_srtt, rttval = kcp->rx_rttval;
  if (srtt == 0) {
    srtt = rtt;
    rttval = rtt / 2;
  } else {
    int64_t delta = rtt > srtt ? rtt - srtt : srtt - rtt;
    rttval = (3 * rttval + delta) / 4;
    srtt = std::max<int64_t>(1, (7 * srtt + rtt) / 8);
  }
  int64_t rto = srtt + std::max<int64_t>(kcp->interval, 4 * rttval);
  kcp->rx_srtt = static_cast<int32_t>(srtt);
  kcp->rx_rttval = static_cast<int32_t>(rttval);
  kcp->rx_rto = static_cast<int32_t>(std::min<int64_t>(std::max<int64_t>(kcp->rx_minrto, rto), IKCP_RTO_MAX));
}

// Drops acknowledged segments from the front of the send buffer, so that its front is always
// the oldest segment still in flight.
void PopAcked(ikcpcb* kcp) {
  while (!kcp->snd_buf.empty() && kcp->snd_buf.front().acked) kcp->snd_buf.pop_front();
}

// Everything below una has arrived: drop it from the send buffer.
void ParseUna(ikcpcb* kcp, uint32_t una) {
  while (!kcp->snd_buf.empty() && Diff(una, kcp->snd_buf.front().sn) > 0) {
    IKCPSEG& seg = kcp->snd_buf.front();
    if (!seg.acked) {
      Recycle(kcp, seg);
      kcp->nsnd_buf--;
    }
    kcp->snd_buf.pop_front();
  }
  PopAcked(kcp);
}

// A segment acknowledged on its own is marked, not erased: erasing from the middle of the deque
// moved every segment before it, the largest CPU cost under loss. Marked segments count as gone
// everywhere (nsnd_buf, flush, check, fast acks) and leave once they reach the front.
void ParseAck(ikcpcb* kcp, uint32_t sn) {
  if (Diff(sn, kcp->snd_una) < 0 || Diff(sn, kcp->snd_nxt) >= 0 || kcp->snd_buf.empty()) return;
  // The buffer holds every sn from its front up to snd_nxt - 1, in order: sn finds its own slot.
  const uint32_t at = sn - kcp->snd_buf.front().sn;
  if (at >= kcp->snd_buf.size()) return;
  IKCPSEG& seg = kcp->snd_buf[at];
  if (seg.sn != sn || seg.acked) return;
  Recycle(kcp, seg);
  seg.data = std::vector<char>();
  seg.acked = true;
  kcp->nsnd_buf--;
  PopAcked(kcp);
}

// The peer acknowledged maxack: every segment sent before it that is still unacknowledged was
// skipped once more.
void ParseFastack(ikcpcb* kcp, uint32_t maxack) {
  if (Diff(maxack, kcp->snd_una) < 0 || Diff(maxack, kcp->snd_nxt) >= 0) return;
  for (auto& seg : kcp->snd_buf) {
    if (Diff(maxack, seg.sn) < 0) break;
    if (seg.sn != maxack && !seg.acked) seg.fastack++;
  }
}

void AckPush(ikcpcb* kcp, uint32_t sn, uint32_t ts) {
  // A peer can pack a hundred PUSH segments into each datagram, duplicates included, and nothing
  // empties the list until the next flush. Every useful acknowledgement is for a segment inside
  // our window, so twice the window holds them all plus retransmitted copies; beyond that the
  // acknowledgement is dropped and the peer simply sends the segment again (una covers it later).
  uint64_t limit = 2 * static_cast<uint64_t>(kcp->rcv_wnd);
  if (kcp->ackcount >= limit) return;
  if (kcp->ackcount >= kcp->ackblock) {
    uint32_t block = std::max<uint32_t>(8, kcp->ackblock);
    while (block <= kcp->ackcount) block *= 2;
    kcp->acklist.resize(2 * static_cast<size_t>(block));
    kcp->ackblock = block;
  }
  kcp->acklist[2 * kcp->ackcount] = sn;
  kcp->acklist[2 * kcp->ackcount + 1] = ts;
  kcp->ackcount++;
}

// Moves segments that are next in order from the receive buffer to the receive queue.
void MoveReady(ikcpcb* kcp) {
  while (!kcp->rcv_buf.empty() && kcp->rcv_buf.front().sn == kcp->rcv_nxt && kcp->nrcv_que < kcp->rcv_wnd) {
    kcp->rcv_queue.push_back(std::move(kcp->rcv_buf.front()));
    kcp->rcv_buf.pop_front();
    kcp->nrcv_buf--;
    kcp->nrcv_que++;
    kcp->rcv_nxt++;
  }
}

void ParseData(ikcpcb* kcp, IKCPSEG&& seg) {
  uint32_t sn = seg.sn;
  if (Diff(sn, kcp->rcv_nxt + kcp->rcv_wnd) >= 0 || Diff(sn, kcp->rcv_nxt) < 0) return;
  // The usual case, the next segment with nothing held back: straight to the receive queue, as
  // the buffer would pass it on at once.
  if (sn == kcp->rcv_nxt && kcp->rcv_buf.empty() && kcp->nrcv_que < kcp->rcv_wnd) {
    kcp->rcv_bytes += seg.len;
    kcp->rcv_queue.push_back(std::move(seg));
    kcp->nrcv_que++;
    kcp->rcv_nxt++;
    return;
  }
  // Most segments arrive in order and go to the back; a retransmission that fills a hole is
  // found by bisection (the buffer is ordered by sn).
  auto at = kcp->rcv_buf.end();
  if (!kcp->rcv_buf.empty() && Diff(sn, kcp->rcv_buf.back().sn) <= 0) {
    at = std::lower_bound(kcp->rcv_buf.begin(), kcp->rcv_buf.end(), sn,
                          [](const IKCPSEG& held, uint32_t wanted) { return Diff(held.sn, wanted) < 0; });
    if (at != kcp->rcv_buf.end() && at->sn == sn) {  // a copy we already hold
      Recycle(kcp, seg);
      return;
    }
  }
  kcp->rcv_bytes += seg.len;
  kcp->rcv_buf.insert(at, std::move(seg));
  kcp->nrcv_buf++;
  MoveReady(kcp);
}

// Removes (or with keep, only reads) the next whole message; out may be null. The caller has
// checked that a whole message is queued.
int TakeMessage(ikcpcb* kcp, char* out, bool keep) {
  bool recover = kcp->nrcv_que >= kcp->rcv_wnd;
  size_t total = 0;
  if (keep) {
    for (const auto& seg : kcp->rcv_queue) {
      if (out && seg.len) std::memcpy(out + total, seg.data.data(), seg.len);
      total += seg.len;
      if (seg.frg == 0) break;
    }
  } else {
    for (bool last = false; !last && !kcp->rcv_queue.empty();) {
      IKCPSEG& seg = kcp->rcv_queue.front();
      if (out && seg.len) std::memcpy(out + total, seg.data.data(), seg.len);
      total += seg.len;
      last = seg.frg == 0;
      kcp->rcv_bytes -= seg.len;
      Recycle(kcp, seg);
      kcp->rcv_queue.pop_front();
      kcp->nrcv_que--;
    }
  }
  MoveReady(kcp);
  // Our window was closed and has opened again: tell the peer instead of waiting for its probe.
  if (recover && kcp->nrcv_que < kcp->rcv_wnd) kcp->probe |= kAskTell;
  return static_cast<int>(total);
}

}  // namespace

ikcpcb* ikcp_create(uint32_t conv, void* user) {
  auto* kcp = new (std::nothrow) ikcpcb();
  if (!kcp) return nullptr;
  kcp->conv = conv;
  kcp->user = user;
  kcp->snd_wnd = IKCP_WND_SND;
  kcp->rcv_wnd = IKCP_WND_RCV;
  kcp->rmt_wnd = IKCP_WND_RCV;
  kcp->mtu = IKCP_MTU_DEF;
  kcp->mss = kcp->mtu - IKCP_OVERHEAD;
  kcp->buffer.assign((kcp->mtu + IKCP_OVERHEAD) * 3, 0);
  kcp->rx_rto = IKCP_RTO_DEF;
  kcp->rx_minrto = IKCP_RTO_MIN;
  kcp->interval = IKCP_INTERVAL;
  kcp->ts_flush = IKCP_INTERVAL;
  kcp->ssthresh = IKCP_THRESH_INIT;
  kcp->dead_link = IKCP_DEADLINK;
  kcp->nextUpdate = 0x7FFFFFFF;
  return kcp;
}

void ikcp_release(ikcpcb* kcp) { delete kcp; }

void ikcp_setoutput(ikcpcb* kcp, IkcpOutput output) { kcp->output = output; }

int ikcp_input(ikcpcb* kcp, const char* data, long size) {
  if (!kcp || !data || size < static_cast<long>(IKCP_OVERHEAD)) return -1;
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  size_t left = static_cast<size_t>(size);
  uint32_t prev_una = kcp->snd_una;
  bool acked = false;
  uint32_t maxack = 0;
  int rc = 0;
  while (left >= IKCP_OVERHEAD) {
    IKCPSEG seg;
    seg.conv = Get32(p), seg.cmd = p[4], seg.frg = p[5], seg.wnd = Get16(p + 6);
    seg.ts = Get32(p + 8), seg.sn = Get32(p + 12), seg.una = Get32(p + 16), seg.len = Get32(p + 20);
    const uint32_t cmd = seg.cmd, sn = seg.sn, len = seg.len;
    p += IKCP_OVERHEAD;
    left -= IKCP_OVERHEAD;
    if (seg.conv != kcp->conv)
      rc = -1;
    else if (len > left || len > static_cast<uint32_t>(INT_MAX))
      rc = -2;
    else if (cmd < IKCP_CMD_PUSH || cmd > IKCP_CMD_WINS)
      rc = -3;
    if (rc < 0) break;
    kcp->rmt_wnd = seg.wnd;
    ParseUna(kcp, seg.una);
    ShrinkBuf(kcp);
    if (cmd == IKCP_CMD_ACK) {
      if (Diff(kcp->current, seg.ts) >= 0) UpdateAck(kcp, Diff(kcp->current, seg.ts));
      ParseAck(kcp, sn);
      ShrinkBuf(kcp);
      if (!acked || Diff(sn, maxack) > 0) maxack = sn;
      acked = true;
    } else if (cmd == IKCP_CMD_PUSH) {
      if (Diff(sn, kcp->rcv_nxt + kcp->rcv_wnd) < 0) {
        bool fresh = Diff(sn, kcp->rcv_nxt) >= 0;
        // Not acknowledged when over the byte budget: the peer keeps it and sends it again later.
        if (!fresh || static_cast<uint64_t>(kcp->rcv_bytes) + len <= kLumoKcpMaxHeldBytes) {
          AckPush(kcp, sn, seg.ts);
          if (fresh) {
            // Through char pointers: from unsigned char iterators the copy was a byte loop.
            FillData(kcp, seg, reinterpret_cast<const char*>(p), len);
            ParseData(kcp, std::move(seg));
          }
        }
      }
    } else if (cmd == IKCP_CMD_WASK) {
      kcp->probe |= kAskTell;
    }
    p += len;
    left -= len;
  }
  // Segments taken before a bad one count fully, acknowledgements included.
  if (acked) ParseFastack(kcp, maxack);
  if (Diff(kcp->snd_una, prev_una) > 0 && kcp->cwnd < kcp->rmt_wnd) {
    uint32_t mss = kcp->mss;
    if (kcp->cwnd < kcp->ssthresh) {
      kcp->cwnd++;
      kcp->incr += mss;
    } else {
      if (kcp->incr < mss) kcp->incr = mss;
      kcp->incr += (mss * mss) / kcp->incr + mss / 16;
      if ((kcp->cwnd + 1) * mss <= kcp->incr) kcp->cwnd++;
    }
    if (kcp->cwnd > kcp->rmt_wnd) {
      kcp->cwnd = kcp->rmt_wnd;
      kcp->incr = kcp->rmt_wnd * mss;
    }
  }
  return rc;
}

int ikcp_peeksize(const ikcpcb* kcp) {
  if (kcp->rcv_queue.empty()) return -1;
  const IKCPSEG& first = kcp->rcv_queue.front();
  if (first.frg == 0) return static_cast<int>(first.len);
  if (kcp->nrcv_que < first.frg + 1) return -1;
  // The byte budget keeps a whole message far below INT_MAX.
  size_t total = 0;
  for (const auto& seg : kcp->rcv_queue) {
    total += seg.len;
    if (seg.frg == 0) return static_cast<int>(total);
  }
  return -1;  // a peer's fragment counts that never reach 0: not a message (yet)
}

int ikcp_recv(ikcpcb* kcp, char* buffer, int len) {
  if (kcp->rcv_queue.empty()) return -1;
  bool peek = len < 0;
  int64_t room = peek ? -static_cast<int64_t>(len) : len;
  int size = ikcp_peeksize(kcp);
  if (size < 0) return -2;
  if (size > room) return -3;
  return TakeMessage(kcp, buffer, peek);
}

int ikcp_discard(ikcpcb* kcp) {
  if (ikcp_peeksize(kcp) < 0) return -1;
  return TakeMessage(kcp, nullptr, false);
}

int ikcp_send(ikcpcb* kcp, const char* buffer, int len) {
  if (len < 0) return -1;
  int sent = 0;
  uint32_t mss = kcp->mss;
  if (kcp->stream && !kcp->snd_queue.empty()) {
    // Stream mode fills up the last queued segment first.
    IKCPSEG& last = kcp->snd_queue.back();
    if (last.len < mss) {
      uint32_t extend = std::min<uint32_t>(static_cast<uint32_t>(len), mss - last.len);
      last.data.resize(last.data.size() + extend, 0);
      if (buffer && extend) std::memcpy(last.data.data() + last.len, buffer, extend);
      last.len += extend;
      last.frg = 0;
      if (buffer) buffer += extend;
      len -= static_cast<int>(extend);
      sent = static_cast<int>(extend);
    }
    if (len <= 0) return sent;
  }
  uint64_t count = len <= static_cast<int>(mss) ? 1 : (static_cast<uint64_t>(len) + mss - 1) / mss;
  // frg is one byte on the wire and counts the fragments still to follow: a message of more than
  // 256 fragments would wrap it and the receiver would cut the message short. Refuse it here.
  if (!kcp->stream && count > static_cast<uint64_t>(kLumoKcpMaxFragments)) return -2;
  // The receiver must be able to queue every fragment of the message at once.
  if (count >= IKCP_WND_RCV) return (kcp->stream && sent > 0) ? sent : -2;
  for (uint64_t i = 0; i < count; ++i) {
    uint32_t size = std::min<uint32_t>(static_cast<uint32_t>(len), mss);
    IKCPSEG seg;
    FillData(kcp, seg, buffer, size);
    seg.len = size;
    seg.frg = kcp->stream ? 0 : static_cast<uint32_t>(count - i - 1);
    kcp->snd_queue.push_back(std::move(seg));
    kcp->nsnd_que++;
    if (buffer) buffer += size;
    len -= static_cast<int>(size);
    sent += static_cast<int>(size);
  }
  return sent;
}

}  // namespace lumo
