// The functions every enumeration has, for Orvet::MrtMessageType: by value
// and by literal, the literal, its quoted form, and parsing a literal.
//
// Thread-safety: pure functions over the registered literals.
#pragma once

#include <string>

#include "mroute/entity/kiv/enumeration.h"
#include "mroute/entity/kiv/string.h"
#include "mroute/kernel/mrt_message.h"

namespace Orvet {

// Throw Kiv::RangeException for a value or literal the enumeration lacks.
inline MrtMessageType MrtMessageTypeInstance(unsigned v) { return Kiv::enumInstance<MrtMessageType>(v); }
inline MrtMessageType MrtMessageTypeInstance(const Kiv::String8& literal) {
  return Kiv::enumInstance<MrtMessageType>(literal);
}
inline Kiv::String8 stringValue(MrtMessageType e) { return Kiv::enumLiteral(e); }
inline std::string valueToStrep(MrtMessageType e) { return Kiv::enumStrep(e); }
inline bool sequenceToValue(const char* begin, const char* end, MrtMessageType& result) {
  return Kiv::enumFromSequence(begin, end, result);
}

}  // namespace Orvet
