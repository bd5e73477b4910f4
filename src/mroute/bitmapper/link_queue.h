// LinkQueue<T>: a first-in first-out queue of small reference-counted
// elements linked head to tail, each holding its queue position and its
// value.
//
// Positions are unsigned 32-bit and only grow (modulo 2^32, measured from the
// head): an element is appended at max(next position, tail position + 1) and
// the next position becomes one past it. skipTo() moves the next position
// ahead, so positions may leave gaps. When the next position would wrap
// around onto the head position the append is refused with
// Kiv::RangeException "linkqueue index space full" and the queue is left as
// it was. The queue also counts its removals.
//
// An empty queue's head position is its next position. Elements that leave
// the queue unshared are kept (a few) for the next appends: an allocator
// that frees and gives out an index per request should not pay an
// allocation for each.
//
// Thread-safety: a plain container; one thread at a time.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "mroute/entity/kiv/ptr.h"
#include "mroute/runtime/error.h"

namespace BitMapper {

template <class T>
class LinkQueue {
 public:
  class Element : public Kiv::PtrInterface {
   public:
    Element(uint32_t position, const T& value) : position_(position), value_(value) {}
    uint32_t position() const { return position_; }
    const T& value() const { return value_; }
    const Kiv::Ptr<Element>& next() const { return next_; }

   private:
    friend class LinkQueue;
    uint32_t position_;
    T value_;
    Kiv::Ptr<Element> next_;
  };

  class const_iterator {
   public:
    const_iterator() = default;
    const Element& operator*() const { return *e_; }
    const Element* operator->() const { return e_; }
    const_iterator& operator++() {
      e_ = e_->next().ptr();
      return *this;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.e_ == b.e_; }

   private:
    friend class LinkQueue;
    explicit const_iterator(const Element* e) : e_(e) {}
    const Element* e_ = nullptr;
  };

  explicit LinkQueue(uint32_t firstPosition = 0) : nextIndex_(firstPosition) {}
  ~LinkQueue() { delAll(); }
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;

  bool empty() const { return size_ == 0; }
  uint32_t size() const { return size_; }
  uint32_t headIndex() const { return head_ ? head_->position_ : nextIndex_; }
  uint32_t nextIndex() const { return nextIndex_; }
  uint64_t removals() const { return removals_; }
  const Kiv::Ptr<Element>& head() const { return head_; }
  const Element* tail() const { return tail_; }

  const_iterator begin() const { return const_iterator(head_.ptr()); }
  const_iterator end() const { return const_iterator(); }

  // Appends v at the tail and returns its position.
  uint32_t enq(const T& v) {
    const uint32_t head = headIndex();
    uint32_t position = nextIndex_;
    if (tail_ != nullptr && uint32_t(tail_->position_ + 1 - head) > uint32_t(position - head)) {
      position = tail_->position_ + 1;
    }
    const uint32_t next = position + 1;
    if (!empty() && next == head) throw Kiv::RangeException("linkqueue index space full");
    Kiv::Ptr<Element> e;
    if (spare_.empty()) {
      e = new Element(position, v);
    } else {
      e = std::move(spare_.back());
      spare_.pop_back();
      e->position_ = position;
      e->value_ = v;
    }
    if (tail_ == nullptr) {
      head_ = e;
    } else {
      tail_->next_ = e;
    }
    tail_ = e.ptr();
    nextIndex_ = next;
    ++size_;
    return position;
  }

  // Removes the head and returns its value. REQUIRES: !empty().
  T deq() {
    Kiv::Ptr<Element> e = std::move(head_);
    head_ = std::move(e->next_);
    if (!head_) tail_ = nullptr;
    --size_;
    ++removals_;
    T v = std::move(e->value_);
    if (e->references() == 1 && spare_.size() < kSpares) spare_.push_back(std::move(e));
    return v;
  }

  // The next append goes at `position` or later. REQUIRES: `position` does
  // not lie behind the next position (counted from the head).
  void skipTo(uint32_t position) { nextIndex_ = position; }

  // Unlinks one element at a time: a long chain released through its own
  // links would recurse once per element.
  void delAll() {
    while (head_) {
      Kiv::Ptr<Element> e = std::move(head_);
      head_ = std::move(e->next_);
      ++removals_;
    }
    tail_ = nullptr;
    size_ = 0;
  }

 private:
  static constexpr size_t kSpares = 16;

  Kiv::Ptr<Element> head_;
  Element* tail_ = nullptr;  // the last element of head_'s chain
  uint32_t nextIndex_;
  uint32_t size_ = 0;
  uint64_t removals_ = 0;
  std::vector<Kiv::Ptr<Element>> spare_;  // unshared, unlinked
};

}  // namespace BitMapper
