// The hand-written operation of the sample Tree.
#include "entitygen_sample/sample.h"

namespace Sample {

double Tree::density() const { return static_cast<double>(rings()) / height(); }

}  // namespace Sample
