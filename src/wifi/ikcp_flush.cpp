// The sending side of KCP: flushing acknowledgements, probes and segments, the update and
// check timers, and the settings.
#include <algorithm>
#include <cstring>

#include "wifi/ikcp.h"
#include "wifi/ikcp_internal.h"

namespace lumo {

using namespace kcp_detail;

void ikcp_flush(ikcpcb* kcp) {
  if (!kcp->updated) return;
  uint32_t current = kcp->current;
  size_t pos = 0;
  auto emit = [kcp, &pos] {
    if (pos > 0 && kcp->output) kcp->output(kcp->buffer.data(), static_cast<int>(pos), kcp, kcp->user);
    pos = 0;
  };
  // Starts a new datagram when `need` more bytes would pass the MTU.
  auto room = [kcp, &pos, &emit](size_t need) {
    if (pos + need > kcp->mtu) emit();
    // Only after a smaller MTU was set while larger segments were queued.
    if (need > kcp->buffer.size()) kcp->buffer.resize(need);
  };
  IKCPSEG seg;
  seg.conv = kcp->conv;
  seg.cmd = IKCP_CMD_ACK;
  seg.wnd = WndUnused(kcp);
  seg.una = kcp->rcv_nxt;
  for (uint32_t i = 0; i < kcp->ackcount; ++i) {
    room(IKCP_OVERHEAD);
    seg.sn = kcp->acklist[2 * i];
    seg.ts = kcp->acklist[2 * i + 1];
    EncodeHeader(kcp->buffer.data() + pos, seg);
    pos += IKCP_OVERHEAD;
  }
  kcp->ackcount = 0;

  // The peer's window is closed: ask for it after a wait that grows by half each time.
  if (kcp->rmt_wnd == 0) {
    if (kcp->probe_wait == 0) {
      kcp->probe_wait = IKCP_PROBE_INIT;
      kcp->ts_probe = current + kcp->probe_wait;
    } else if (Diff(current, kcp->ts_probe) >= 0) {
      kcp->probe_wait = std::max(kcp->probe_wait, IKCP_PROBE_INIT);
      kcp->probe_wait = std::min(kcp->probe_wait + kcp->probe_wait / 2, IKCP_PROBE_LIMIT);
      kcp->ts_probe = current + kcp->probe_wait;
      kcp->probe |= kAskSend;
    }
  } else {
    kcp->ts_probe = 0;
    kcp->probe_wait = 0;
  }
  seg.sn = 0;
  seg.ts = 0;
  for (uint32_t ask : {kAskSend, kAskTell}) {
    if (!(kcp->probe & ask)) continue;
    seg.cmd = ask == kAskSend ? IKCP_CMD_WASK : IKCP_CMD_WINS;
    room(IKCP_OVERHEAD);
    EncodeHeader(kcp->buffer.data() + pos, seg);
    pos += IKCP_OVERHEAD;
  }
  kcp->probe = 0;

  uint32_t cwnd = std::min(kcp->snd_wnd, kcp->rmt_wnd);
  if (!kcp->nocwnd) cwnd = std::min(kcp->cwnd, cwnd);
  while (Diff(kcp->snd_nxt, kcp->snd_una + cwnd) < 0 && !kcp->snd_queue.empty()) {
    IKCPSEG& next = kcp->snd_queue.front();
    next.conv = kcp->conv;
    next.cmd = IKCP_CMD_PUSH;
    next.wnd = seg.wnd;
    next.ts = current;
    next.sn = kcp->snd_nxt++;
    next.una = kcp->rcv_nxt;
    next.resendts = current;
    next.rto = static_cast<uint32_t>(kcp->rx_rto);
    next.fastack = 0;
    next.xmit = 0;
    kcp->snd_buf.push_back(std::move(next));
    kcp->snd_queue.pop_front();
    kcp->nsnd_que--;
    kcp->nsnd_buf++;
  }

  uint32_t resent = kcp->fastresend > 0 ? static_cast<uint32_t>(kcp->fastresend) : 0xFFFFFFFFu;
  uint32_t rtomin = kcp->nodelay == 0 ? static_cast<uint32_t>(kcp->rx_rto) >> 3 : 0;
  bool lost = false, change = false;
  for (auto& s : kcp->snd_buf) {
    if (s.acked) continue;
    bool send = false;
    if (s.xmit == 0) {
      send = true;
      s.xmit++;
      s.rto = static_cast<uint32_t>(kcp->rx_rto);
      s.resendts = current + s.rto + rtomin;
    } else if (Diff(current, s.resendts) >= 0) {
      send = true;
      s.xmit++;
      kcp->xmit++;
      s.rto += static_cast<uint32_t>(kcp->nodelay == 0 ? kcp->rx_rto : kcp->rx_rto / 2);
      s.resendts = current + s.rto;
      lost = true;
    } else if (s.fastack >= resent) {
      send = true;
      s.xmit++;
      s.fastack = 0;
      s.resendts = current + s.rto;
      change = true;
    }
    if (!send) continue;
    s.ts = current;
    s.wnd = seg.wnd;
    s.una = kcp->rcv_nxt;
    room(IKCP_OVERHEAD + s.len);
    EncodeHeader(kcp->buffer.data() + pos, s);
    pos += IKCP_OVERHEAD;
    if (s.len) std::memcpy(kcp->buffer.data() + pos, s.data.data(), s.len);
    pos += s.len;
    if (s.xmit >= kcp->dead_link) kcp->state = 0xFFFFFFFFu;
  }
  emit();

  if (change) {
    kcp->ssthresh = std::max((kcp->snd_nxt - kcp->snd_una) / 2, IKCP_THRESH_MIN);
    kcp->cwnd = kcp->ssthresh + resent;
    kcp->incr = kcp->cwnd * kcp->mss;
  }
  if (lost) {
    kcp->ssthresh = std::max(kcp->cwnd / 2, IKCP_THRESH_MIN);
    kcp->cwnd = 1;
    kcp->incr = kcp->mss;
  }
  if (kcp->cwnd < 1) {
    kcp->cwnd = 1;
    kcp->incr = kcp->mss;
  }
}

void ikcp_update(ikcpcb* kcp, uint32_t current) {
  kcp->current = current;
  if (!kcp->updated) {
    kcp->updated = 1;
    kcp->ts_flush = current;
  }
  int32_t slap = Diff(current, kcp->ts_flush);
  // The clock jumped (or the caller slept long): start the flush schedule afresh.
  if (slap >= 10000 || slap < -10000) {
    kcp->ts_flush = current;
    slap = 0;
  }
  if (slap < 0) return;
  kcp->ts_flush += kcp->interval;
  if (Diff(current, kcp->ts_flush) >= 0) kcp->ts_flush = current + kcp->interval;
  ikcp_flush(kcp);
}

uint32_t ikcp_check(const ikcpcb* kcp, uint32_t current) {
  if (!kcp->updated) return current;
  uint32_t ts_flush = kcp->ts_flush;
  int32_t slap = Diff(current, ts_flush);
  if (slap >= 10000 || slap < -10000) ts_flush = current;
  if (Diff(current, ts_flush) >= 0) return current;
  uint32_t wait = static_cast<uint32_t>(Diff(ts_flush, current));
  for (const auto& seg : kcp->snd_buf) {
    if (seg.acked) continue;
    int32_t due = Diff(seg.resendts, current);
    if (due <= 0) return current;
    wait = std::min(wait, static_cast<uint32_t>(due));
  }
  return current + std::min(wait, kcp->interval);
}

int ikcp_setmtu(ikcpcb* kcp, int mtu) {
  // The upper bound is ours: no datagram is larger, and it keeps (mtu + 24) * 3 from overflowing.
  if (mtu < 50 || mtu > 65535) return -1;
  kcp->mtu = static_cast<uint32_t>(mtu);
  kcp->mss = kcp->mtu - IKCP_OVERHEAD;
  kcp->buffer.assign((kcp->mtu + IKCP_OVERHEAD) * 3, 0);
  return 0;
}

int ikcp_wndsize(ikcpcb* kcp, int sndwnd, int rcvwnd) {
  if (sndwnd > 0) kcp->snd_wnd = static_cast<uint32_t>(sndwnd);
  // Never below the default: the receive queue must hold the largest message's fragments.
  if (rcvwnd > 0) kcp->rcv_wnd = std::max(static_cast<uint32_t>(rcvwnd), IKCP_WND_RCV);
  return 0;
}

int ikcp_interval(ikcpcb* kcp, int interval) {
  kcp->interval = static_cast<uint32_t>(std::min(std::max(interval, 10), 5000));
  return 0;
}

int ikcp_nodelay(ikcpcb* kcp, int nodelay, int interval, int resend, int nc) {
  if (nodelay >= 0) {
    kcp->nodelay = static_cast<uint32_t>(nodelay);
    kcp->rx_minrto = static_cast<int32_t>(nodelay ? IKCP_RTO_NDL : IKCP_RTO_MIN);
  }
  if (interval >= 0) ikcp_interval(kcp, interval);
  if (resend >= 0) kcp->fastresend = resend;
  if (nc >= 0) kcp->nocwnd = nc;
  return 0;
}

int ikcp_waitsnd(const ikcpcb* kcp) { return static_cast<int>(kcp->nsnd_buf + kcp->nsnd_que); }

ikcpcb* CreateLumoKcp(void* user, int mode) {
  ikcpcb* kcp = ikcp_create(kLumoKcpConv, user);
  if (!kcp) return nullptr;
  ikcp_wndsize(kcp, kLumoKcpSndWnd, kLumoKcpRcvWnd);
  ikcp_setmtu(kcp, kLumoKcpMtu);
  ikcp_interval(kcp, kLumoKcpInterval);
  if (mode == 2) {
    ikcp_nodelay(kcp, 1, kLumoKcpInterval, kLumoKcpFastResend, 1);
    // This link's own floor, above the usual nodelay minimum.
    kcp->rx_minrto = kLumoKcpMinRto;
  } else {
    ikcp_nodelay(kcp, 0, kLumoKcpInterval, 0, mode == 1 ? 1 : 0);
    kcp->rx_minrto = kLumoKcpMinRtoSlow;
  }
  return kcp;
}


}  // namespace lumo
