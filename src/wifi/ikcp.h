// KCP: reliable, ordered delivery of whole messages over an unreliable datagram link.
//
// The core owns no socket and reads no clock. Datagrams from the peer go in through `ikcp_input`,
// datagrams for the peer leave through the output callback, and the caller passes the time (32-bit
// milliseconds that wrap) to `ikcp_update` and `ikcp_check`. One thread drives a control block; it
// holds no lock of its own.
//
// Everything a peer sends is untrusted: `ikcp_input` stops at the first malformed segment, and what a
// peer can make this side keep (receive buffer, acknowledgement list, bytes held for reassembly) is
// bounded, see the constants below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace lumo {

// Wire commands.
constexpr uint32_t IKCP_CMD_PUSH = 81;  // data
constexpr uint32_t IKCP_CMD_ACK = 82;   // acknowledges one sn, echoing its ts
constexpr uint32_t IKCP_CMD_WASK = 83;  // asks the peer for its window
constexpr uint32_t IKCP_CMD_WINS = 84;  // tells the peer our window

constexpr uint32_t IKCP_OVERHEAD = 24;  // bytes of one segment header
constexpr uint32_t IKCP_RTO_NDL = 30;   // the usual minimum RTO with nodelay (not ours, see below)
constexpr uint32_t IKCP_RTO_MIN = 100;
constexpr uint32_t IKCP_RTO_DEF = 200;
constexpr uint32_t IKCP_RTO_MAX = 60000;
constexpr uint32_t IKCP_WND_SND = 32;
constexpr uint32_t IKCP_WND_RCV = 512;  // default receive window and initial remote window
constexpr uint32_t IKCP_MTU_DEF = 1400;
constexpr uint32_t IKCP_INTERVAL = 100;
constexpr uint32_t IKCP_DEADLINK = 20;
constexpr uint32_t IKCP_THRESH_INIT = 2;
constexpr uint32_t IKCP_THRESH_MIN = 2;
constexpr uint32_t IKCP_PROBE_INIT = 7000;     // first wait before asking a closed window
constexpr uint32_t IKCP_PROBE_LIMIT = 120000;  // longest wait between window probes

// This system's settings, shared by the PC endpoint and the phone simulator.
constexpr uint32_t kLumoKcpConv = 121106;
constexpr int kLumoKcpSndWnd = 512;
constexpr int kLumoKcpRcvWnd = 512;
constexpr int kLumoKcpMtu = 1400;
constexpr int kLumoKcpMss = kLumoKcpMtu - static_cast<int>(IKCP_OVERHEAD);  // 1376
constexpr int kLumoKcpInterval = 10;
constexpr int kLumoKcpMode = 2;  // the profile the endpoint uses
constexpr int kLumoKcpFastResend = 10;
constexpr int kLumoKcpMinRto = 60;       // profile 2; deliberately not IKCP_RTO_NDL
constexpr int kLumoKcpMinRtoSlow = 100;  // profiles 0 and 1

// One message is at most this many segments: frg is a single byte on the wire.
constexpr int kLumoKcpMaxFragments = 256;
// Bytes of payload this side holds for the peer (receive buffer plus receive queue). A peer that
// follows our MTU never comes near it (1,024 segments of 1,376 bytes); it only stops a peer that
// sends jumbo segments from making us keep hundreds of megabytes.
constexpr uint32_t kLumoKcpMaxHeldBytes = 16u * 1024u * 1024u;
// Payload buffers kept for reuse per control block: a 120 KB key frame is 88 segments, so this
// covers a few in flight at once, and it holds at most 256 * 1,376 bytes.
constexpr size_t kLumoKcpSpareBuffers = 256;

struct IKCPSEG {
  uint32_t conv = 0;
  uint32_t cmd = 0;
  uint32_t frg = 0;
  uint32_t wnd = 0;
  uint32_t ts = 0;
  uint32_t sn = 0;
  uint32_t una = 0;
  uint32_t len = 0;
  uint32_t resendts = 0;
  uint32_t rto = 0;
  uint32_t fastack = 0;
  uint32_t xmit = 0;
  bool acked = false;      // in snd_buf: acknowledged out of order, waiting to reach the front
  std::vector<char> data;  // len bytes
};

struct ikcpcb;
using IkcpOutput = int (*)(const char* buf, int len, ikcpcb* kcp, void* user);
using IkcpWriteLog = void (*)(const char* log, ikcpcb* kcp, void* user);

struct ikcpcb {
  uint32_t conv, mtu, mss, state;
  uint32_t snd_una, snd_nxt, rcv_nxt;
  uint32_t ts_recent, ts_lastack, ssthresh;
  int32_t rx_rttval, rx_srtt, rx_rto, rx_minrto;
  uint32_t snd_wnd, rcv_wnd, rmt_wnd, cwnd, probe;
  uint32_t current, interval, ts_flush, xmit;
  uint32_t nrcv_buf, nsnd_buf;
  uint32_t nrcv_que, nsnd_que;
  uint32_t nodelay, updated;
  uint32_t ts_probe, probe_wait;
  uint32_t dead_link, incr;
  uint32_t nextUpdate;  // endpoint clock time of the next update; the endpoint maintains it
  std::deque<IKCPSEG> snd_queue;
  std::deque<IKCPSEG> rcv_queue;
  // Deques rather than lists: a list node was one more allocation per segment, and the
  // insertions and removals away from the ends (out-of-order arrivals, single acknowledgements)
  // are near the front, where a deque moves the fewest elements.
  std::deque<IKCPSEG> snd_buf;    // in flight, by sn
  std::deque<IKCPSEG> rcv_buf;    // arrived out of order, by sn
  std::vector<uint32_t> acklist;  // (sn, ts) pairs still to acknowledge
  uint32_t ackcount;              // pairs in acklist
  uint32_t ackblock;              // pairs acklist has room for
  void* user;
  std::vector<char> buffer;  // output datagram being assembled, (mtu + 24) * 3
  int fastresend;
  int nocwnd, stream;
  int logmask;  // always 0 here: this system writes no KCP trace lines
  IkcpOutput output;
  IkcpWriteLog writelog;
  uint32_t rcv_bytes;  // payload bytes in rcv_buf and rcv_queue, bounded by kLumoKcpMaxHeldBytes
  // Payload buffers of segments that are gone, handed to the next segments so that a steady
  // stream allocates nothing per segment (at most kLumoKcpSpareBuffers, none above the mss).
  std::vector<std::vector<char>> spare;
};

// Returns null only when memory is exhausted.
ikcpcb* ikcp_create(uint32_t conv, void* user);
void ikcp_release(ikcpcb* kcp);
void ikcp_setoutput(ikcpcb* kcp, IkcpOutput output);

// Takes one datagram. 0 when every segment was taken; negative when the datagram is shorter than a
// header (-1), carries a foreign conv (-1), a len beyond what remains (-2) or an unknown command
// (-3). Segments before the bad one have been taken.
int ikcp_input(ikcpcb* kcp, const char* data, long size);
// Copies the next whole message into buffer and removes it. len < 0 peeks (copies, keeps). Returns
// its size; -1 when the queue is empty, -2 when no message is complete, -3 when it does not fit
// (it stays queued).
int ikcp_recv(ikcpcb* kcp, char* buffer, int len);
// Drops the next whole message without copying it and returns its size; negative when none is
// complete. Lets a caller get past a message too large for any buffer it is willing to use.
int ikcp_discard(ikcpcb* kcp);
// Queues a message; returns the bytes queued or a negative code (-1 bad length, -2 too many
// fragments).
int ikcp_send(ikcpcb* kcp, const char* buffer, int len);
void ikcp_update(ikcpcb* kcp, uint32_t current);
// When the caller should next call ikcp_update: never later than current + interval.
uint32_t ikcp_check(const ikcpcb* kcp, uint32_t current);
void ikcp_flush(ikcpcb* kcp);
// Size of the next whole message, -1 when none is complete.
int ikcp_peeksize(const ikcpcb* kcp);
int ikcp_setmtu(ikcpcb* kcp, int mtu);
int ikcp_wndsize(ikcpcb* kcp, int sndwnd, int rcvwnd);
int ikcp_interval(ikcpcb* kcp, int interval);
int ikcp_nodelay(ikcpcb* kcp, int nodelay, int interval, int resend, int nc);
// Segments queued or in flight.
int ikcp_waitsnd(const ikcpcb* kcp);

// A control block with this system's settings: conv 121106, windows 512/512, MTU 1400, interval
// 10, then the tuning profile of `mode` (2: nodelay, fast resend 10, no congestion window, minimum
// RTO 60; 1: congestion window off, minimum RTO 100; anything else: 0, the plain profile). The
// caller sets the output function.
ikcpcb* CreateLumoKcp(void* user, int mode);

}  // namespace lumo
