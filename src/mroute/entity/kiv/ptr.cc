#include "mroute/entity/kiv/ptr.h"

#include "mroute/runtime/error.h"

namespace Kiv {
namespace ptr_internal {
bool threadSafe = false;

void throwNullValidPtr() { throw RangeException("null ValidPtr"); }
}  // namespace ptr_internal

void threadSafePtrIs(bool on) { ptr_internal::threadSafe = on; }

}  // namespace Kiv
