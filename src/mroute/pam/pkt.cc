#include "mroute/pam/pkt.h"

#include <cstring>

#include "mroute/runtime/assert.h"

namespace Orvet {
namespace {

// Buffers kept for reuse; beyond this a released buffer is freed.
constexpr size_t kMaxPooled = 32;

}  // namespace

Pkt::Pkt(PktManager* mgr, size_t capacity) : mgr_(mgr), buf_(new uint8_t[capacity]), capacity_(capacity) {}

void Pkt::sizeIs(size_t n) {
  MROUTE_ASSERT(n <= maxSize());
  size_ = n;
}

void Pkt::headDel(size_t n) {
  MROUTE_ASSERT(n <= size());
  head_ += n;
  size_ -= n;
}

void Pkt::dataIs(std::string_view bytes) {
  MROUTE_ASSERT(bytes.size() <= maxSize());
  if (!bytes.empty()) std::memcpy(data(), bytes.data(), bytes.size());
  size_ = bytes.size();
}

void Pkt::onZeroReferences() { mgr_->recycle(this); }

PktManager::PktManager(size_t pktSize, size_t maxPkts) : pktSize_(pktSize), maxPkts_(maxPkts) {}

PktManager::~PktManager() {
  for (Pkt* p : pool_) delete p;
}

PktManager& PktManager::global() {
  static PktManager* mgr = new PktManager();  // never destroyed: packets may outlive static teardown
  return *mgr;
}

Kiv::Ptr<Pkt> PktManager::newPkt(size_t size) {
  if (outstanding_ >= maxPkts_) return nullptr;
  size_t want = size > pktSize_ ? size : pktSize_;
  Pkt* p = nullptr;
  if (!pool_.empty() && pool_.back()->capacity_ >= want) {
    p = pool_.back();
    pool_.pop_back();
    p->head_ = 0;
    p->size_ = 0;
  } else {
    p = new Pkt(this, want);
  }
  ++outstanding_;
  return Kiv::Ptr<Pkt>(p);
}

void PktManager::pktSizeIs(size_t n) {
  pktSize_ = n;
  std::erase_if(pool_, [n](Pkt* p) {
    if (p->capacity_ >= n) return false;
    delete p;
    return true;
  });
}

void PktManager::recycle(Pkt* p) {
  --outstanding_;
  if (p->capacity_ >= pktSize_ && pool_.size() < kMaxPooled) {
    pool_.push_back(p);
  } else {
    delete p;
  }
}

}  // namespace Orvet
