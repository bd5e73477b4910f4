// OifIndexIntf: the value of the oif-index table, keyed by its oif index. It
// names the interface that owns an index and counts the routes that use it.
//
// Stream order: the index as an unsigned 16-bit number (range-checked, so an
// index above OifIndex::null is rejected), the interface id as its 64-bit
// word, the reference count as an unsigned 32-bit number.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/route/oif_index.h"
#include "mroute/route/record_stream.h"
#include "mroute/runtime/net/intf_id.h"

namespace Brume::Multicast::Fib {

class OifIndexIntf {
 public:
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::OifIndexIntf";

  OifIndexIntf() = default;
  explicit OifIndexIntf(OifIndex key, Orvet::IntfId intf = Orvet::IntfId(), uint32_t refCount = 0)
      : key_(key), intf_(intf), refCount_(refCount) {}

  OifIndex key() const { return key_; }
  Orvet::IntfId intf() const { return intf_; }
  void intfIs(Orvet::IntfId intf) { intf_ = intf; }
  uint32_t refCount() const { return refCount_; }
  void refCountIs(uint32_t refCount) { refCount_ = refCount; }

  // "OifIndex 3 Intf Ethernet1 RC: 2"
  std::string brumeString() const;
  size_t hash() const;

  void write(RecordWriter& out) const;
  // Throws Kiv::RangeException for an index above OifIndex::null or a short
  // stream.
  static OifIndexIntf read(RecordReader& in);
  static OifIndexIntf read(std::span<const uint8_t> bytes);
  static OifIndexIntf fromText(std::string_view text);

  friend bool operator==(const OifIndexIntf&, const OifIndexIntf&) = default;
  friend auto operator<=>(const OifIndexIntf&, const OifIndexIntf&) = default;

 private:
  OifIndex key_;
  Orvet::IntfId intf_;
  uint32_t refCount_ = 0;
};

static_assert(std::is_trivially_copyable_v<OifIndexIntf>);

// Value('Brume::Multicast::Fib::OifIndexIntf', ** {'key': 3, 'intf': Ethernet1, 'refCount': 2})
std::ostream& operator<<(std::ostream& os, const OifIndexIntf& v);

}  // namespace Brume::Multicast::Fib

template <>
struct std::hash<Brume::Multicast::Fib::OifIndexIntf> {
  size_t operator()(const Brume::Multicast::Fib::OifIndexIntf& v) const { return v.hash(); }
};
