#include "mroute/entity/kiv/ptr.h"

namespace Kiv {
namespace ptr_internal {
bool threadSafe = false;
}  // namespace ptr_internal

void threadSafePtrIs(bool on) { ptr_internal::threadSafe = on; }

}  // namespace Kiv
