// Orvet::Pkt, a reference-counted packet buffer, and Orvet::PktManager, the
// pool that hands them out.
//
// A packet is one contiguous buffer; its data is a window [head, head+size)
// into it. A receiver asks the manager for a packet, reads into data() up to
// maxSize() bytes, trims the window to what arrived (sizeIs) and may strip a
// header from the front (headDel). When the last reference goes the buffer
// returns to its manager's pool, so steady receiving allocates nothing.
//
// Thread-safety: single-threaded. Packets and their manager belong to one
// event loop; the manager must outlive its packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "mroute/entity/kiv/ptr.h"

namespace Orvet {

class PktManager;

class Pkt : public Kiv::PtrInterface {
 public:
  uint8_t* data() { return buf_.get() + head_; }
  const uint8_t* data() const { return buf_.get() + head_; }
  size_t size() const { return size_; }
  // Room from the current head to the end of the buffer.
  size_t maxSize() const { return capacity_ - head_; }
  std::string_view view() const { return {reinterpret_cast<const char*>(data()), size_}; }

  // Sets the data length: trims the tail, or takes in bytes written past it.
  // REQUIRES: n <= maxSize() (asserted).
  void sizeIs(size_t n);
  // Removes n bytes from the front, e.g. a header already decoded.
  // REQUIRES: n <= size() (asserted).
  void headDel(size_t n);
  // Copies `bytes` in as the whole data (a convenience for senders and tests).
  // REQUIRES: bytes.size() <= maxSize() (asserted).
  void dataIs(std::string_view bytes);

 private:
  friend class PktManager;
  Pkt(PktManager* mgr, size_t capacity);
  void onZeroReferences() override;

  PktManager* mgr_;
  std::unique_ptr<uint8_t[]> buf_;
  size_t capacity_;
  size_t head_ = 0;
  size_t size_ = 0;
};

class PktManager {
 public:
  // Packets have at least `pktSize` bytes; at most `maxPkts` are out at once.
  explicit PktManager(size_t pktSize = 2048, size_t maxPkts = 4096);
  ~PktManager();
  PktManager(const PktManager&) = delete;
  PktManager& operator=(const PktManager&) = delete;

  // The manager of the process's receive paths.
  static PktManager& global();

  // A packet with maxSize() >= max(size, pktSize()) and no data, or null
  // when maxPkts() packets are out already.
  Kiv::Ptr<Pkt> newPkt(size_t size);

  size_t pktSize() const { return pktSize_; }
  // Pooled buffers smaller than the new size are freed.
  void pktSizeIs(size_t n);
  size_t maxPkts() const { return maxPkts_; }
  void maxPktsIs(size_t n) { maxPkts_ = n; }
  size_t outstanding() const { return outstanding_; }
  size_t pooled() const { return pool_.size(); }

 private:
  friend class Pkt;
  void recycle(Pkt* p);

  size_t pktSize_;
  size_t maxPkts_;
  size_t outstanding_ = 0;
  std::vector<Pkt*> pool_;
};

}  // namespace Orvet
