// Pieces shared by the two halves of the KCP implementation (segments in and out, and the
// flush/timer side). Not part of the interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "wifi/ikcp.h"

namespace lumo::kcp_detail {

constexpr uint32_t kAskSend = 1;  // we owe the peer a WASK
constexpr uint32_t kAskTell = 2;  // we owe the peer a WINS

// Sequence numbers and times wrap at 32 bits: order them by the sign of their difference. The
// conversion to int32_t is modular on every compiler we build with (and defined from C++20).
inline int32_t Diff(uint32_t later, uint32_t earlier) { return static_cast<int32_t>(later - earlier); }

inline void Put(char* p, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) p[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

inline void EncodeHeader(char* p, const IKCPSEG& s) {
  Put(p, s.conv, 4);
  Put(p + 4, s.cmd, 1);
  Put(p + 5, s.frg, 1);
  Put(p + 6, s.wnd, 2);
  Put(p + 8, s.ts, 4);
  Put(p + 12, s.sn, 4);
  Put(p + 16, s.una, 4);
  Put(p + 20, s.len, 4);
}

// A segment's payload, in a buffer of a segment that is gone when there is one.
inline void FillData(ikcpcb* kcp, IKCPSEG& seg, const char* bytes, size_t n) {
  if (!kcp->spare.empty()) {
    seg.data = std::move(kcp->spare.back());
    kcp->spare.pop_back();
  }
  if (bytes != nullptr)
    seg.data.assign(bytes, bytes + n);
  else
    seg.data.assign(n, 0);
}

// Keeps the payload buffer of a segment that is done with. Larger ones (a peer's jumbo segments)
// are let go, so the spares never hold more than their count times the mss.
inline void Recycle(ikcpcb* kcp, IKCPSEG& seg) {
  if (seg.data.capacity() == 0 || seg.data.capacity() > kcp->mss || kcp->spare.size() >= kLumoKcpSpareBuffers) return;
  kcp->spare.push_back(std::move(seg.data));
}

inline uint32_t WndUnused(const ikcpcb* kcp) { return kcp->nrcv_que < kcp->rcv_wnd ? kcp->rcv_wnd - kcp->nrcv_que : 0; }

}  // namespace lumo::kcp_detail
