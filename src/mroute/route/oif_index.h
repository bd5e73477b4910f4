// OifIndex: the small number that stands for an outgoing interface in a
// route's oif bitmap.
//
// Real interfaces use 0..511 (the 512 bitmap positions); 512 is
// OifIndex::null, meaning no interface. A value above 512 is a range error
// wherever one is constructed, parsed or read from a stream. The mapping from
// index to interface lives in the oif-index table (OifIndexIntf records).
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <cstdint>
#include <string_view>

#include "mroute/entity/bounded_value.h"

namespace Brume::Multicast::Fib {

// Default-constructed: OifIndex::null.
class OifIndex : public Kiv::BoundedValue<OifIndex, uint16_t, 0, 512, 512> {
 public:
  using BoundedValue::BoundedValue;
  static constexpr std::string_view kShortName = "OifIndex";
  static constexpr std::string_view kRangeError =
      "OifIndex::value < OifIndex::min or > OifIndex::null not allowed";

  static const OifIndex min;
  static const OifIndex null;
  // Number of bitmap positions, one per index below null.
  static constexpr uint16_t kPositions = 512;

  constexpr bool isNull() const { return value() == kMax; }
};

inline constexpr OifIndex OifIndex::min{0};
inline constexpr OifIndex OifIndex::null{512};

static_assert(sizeof(OifIndex) == 2);

}  // namespace Brume::Multicast::Fib
