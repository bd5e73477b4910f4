// Orvet::PamFdSm: the descriptor state machine of a pam. It watches the
// descriptor of a FileDesc on the pam's event loop and, when it is readable,
// counts readableCount and calls the pam's doGetRxPkt(); when writable
// interest is on and it is writable, counts writableCount and calls
// doWritable(). The pam may drop its PamFdSm from inside those calls.
//
// Thread-safety: single-threaded, on the pam's event loop.
#pragma once

#include <memory>

#include "mroute/entity/kiv/ptr.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/pam/file_desc.h"
#include "mroute/pam/pam.h"

namespace Orvet {

class PamFdSm : public Kiv::PtrInterface {
 public:
  // REQUIRES: pam outlives this object; fileDesc holds an open descriptor.
  // Throws Mroute::ErrnoException when the loop refuses the descriptor.
  PamFdSm(Mroute::Loop::EventLoop& loop, Kiv::Ptr<FileDesc> fileDesc, Pam* pam);

  const Kiv::Ptr<FileDesc>& fileDesc() const { return fileDesc_; }
  Pam* pam() const { return pam_; }
  void writableInterestIs(bool on);
  bool writableInterest() const { return watch_.writable(); }

 private:
  Kiv::Ptr<FileDesc> fileDesc_;
  Pam* pam_;
  Mroute::Loop::FdWatch watch_;
};

}  // namespace Orvet
