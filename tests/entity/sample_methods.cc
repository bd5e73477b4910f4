// The hand-written operations of the sample Tree and Branch.
#include "entitygen_sample/sample.h"

namespace Sample {

void Tree::grown(uint32_t height, bool late) {
  if (height < (late ? 5u : 1u)) throw Kiv::RangeException("Tree too low");
}

double Tree::density() const { return static_cast<double>(rings()) / height(); }

void Branch::lengthIs(uint16_t v) {
  if (v > reach()) {
    v = reach();
    cuts_ = Weight(cuts_.value() + 1);
  }
  Kiv::attrIs<NotifieeConst>(*this, kLengthId, length_, v, &NotifieeConst::onLength);
}

Weight Branch::cuts() const { return cuts_; }

uint16_t Branch::reach() const { return 100; }

}  // namespace Sample
