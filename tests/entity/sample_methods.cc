// The hand-written operations of the sample Tree.
#include "entitygen_sample/sample.h"

namespace Sample {

void Tree::grown(uint32_t height, bool late) {
  if (height < (late ? 5u : 1u)) throw Kiv::RangeException("Tree too low");
}

double Tree::density() const { return static_cast<double>(rings()) / height(); }

}  // namespace Sample
