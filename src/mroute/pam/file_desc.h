// Orvet::FileDesc: a named holder of one descriptor that the packet-access
// layer watches. It does not own the descriptor: whoever opened it closes it
// and then sets -1 here.
//
// Thread-safety: single-threaded, on the owner's event loop.
#pragma once

#include "mroute/entity/kiv/ptr.h"
#include "mroute/entity/kiv/string.h"

namespace Orvet {

class FileDesc : public Kiv::PtrInterface {
 public:
  explicit FileDesc(Kiv::Name name) : name_(std::move(name)) {}

  const Kiv::Name& name() const { return name_; }
  int descriptor() const { return fd_; }
  void descriptorIs(int fd) { fd_ = fd; }

 private:
  Kiv::Name name_;
  int fd_ = -1;
};

}  // namespace Orvet
