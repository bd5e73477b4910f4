// Intrusive reference counting: Kiv::PtrInterface and the handle Kiv::Ptr<T>.
//
// Thread-safety: a count is changed with plain increments unless the process
// has switched to thread-safe pointers (threadSafePtrIs(true), once, before
// it starts threads); then every change is an atomic read-modify-write. The
// object itself is not made thread-safe by either mode.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Kiv {

namespace ptr_internal {
// Read on every count change; written only by threadSafePtrIs at start-up.
extern bool threadSafe;
}  // namespace ptr_internal

// Process-wide: switch every reference count to atomic operations.
// REQUIRES: called before any thread other than the caller touches a Ptr.
void threadSafePtrIs(bool on);
inline bool threadSafePtr() { return ptr_internal::threadSafe; }

class PtrInterface {
 public:
  PtrInterface() = default;
  // A copy is a new object: it starts without references.
  PtrInterface(const PtrInterface&) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }

  uint32_t references() const {
    return threadSafePtr() ? std::atomic_ref<uint32_t>(count_).load(std::memory_order_relaxed) : count_;
  }
  void newRef() const {
    if (threadSafePtr()) {
      // Relaxed: taking a reference needs an existing one, which orders it.
      std::atomic_ref<uint32_t>(count_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++count_;
    }
  }
  void deleteRef() const {
    uint32_t left;
    if (threadSafePtr()) {
      // Acquire-release: the thread that drops the last reference must see
      // every write made through the other references before it destroys.
      left = std::atomic_ref<uint32_t>(count_).fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = --count_;
    }
    if (left == 0) const_cast<PtrInterface*>(this)->onZeroReferences();
  }

 protected:
  virtual ~PtrInterface() = default;
  // Called when the last reference goes; the default destroys the object.
  virtual void onZeroReferences() { delete this; }

 private:
  mutable uint32_t count_ = 0;
};

// A counted handle; null by default. Converts like the raw pointers do.
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { acquire(); }
  Ptr(const Ptr& o) : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
    requires std::is_convertible_v<U*, T*>
  Ptr(const Ptr<U>& o) : p_(o.ptr()) {
    acquire();
  }
  ~Ptr() { release(); }

  Ptr& operator=(const Ptr& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }

  friend bool operator==(const Ptr& a, const Ptr& b) { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
  void acquire() const {
    if (p_) p_->newRef();
  }
  void release() {
    if (p_) std::exchange(p_, nullptr)->deleteRef();
  }
  T* p_ = nullptr;
};

// A reference that may never be null: constructing one from null throws the
// range error "null ValidPtr". It converts to Ptr<T> where a Ptr is stored.
template <class T>
class ValidPtr : public Ptr<T> {
 public:
  ValidPtr(T* p) : Ptr<T>(p) { check(); }
  ValidPtr(const Ptr<T>& p) : Ptr<T>(p) { check(); }
  template <class U>
    requires std::is_convertible_v<U*, T*>
  ValidPtr(const Ptr<U>& p) : Ptr<T>(p) {
    check();
  }
  ValidPtr(std::nullptr_t) { check(); }

 private:
  void check() const;
};

namespace ptr_internal {
[[noreturn]] void throwNullValidPtr();
}  // namespace ptr_internal

template <class T>
void ValidPtr<T>::check() const {
  if (!*this) ptr_internal::throwNullValidPtr();
}

}  // namespace Kiv

template <class T>
struct std::hash<Kiv::Ptr<T>> {
  size_t operator()(const Kiv::Ptr<T>& p) const { return std::hash<T*>()(p.ptr()); }
};
