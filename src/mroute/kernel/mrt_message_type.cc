// Registers Orvet::MrtMessageType when the library is loaded.
#include "mroute/kernel/mrt_message_type.h"

namespace {

[[maybe_unused]] const bool registered = (Kiv::EnumInfo<Orvet::MrtMessageType>::type(), true);

}  // namespace

// Linking this symbol (mroute::mroute asks the linker for it) keeps the unit in
// a program that links the library statically.
extern "C" void mroute_types_mroute_kernel_mrt_message_type() {}
