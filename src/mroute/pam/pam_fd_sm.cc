#include "mroute/pam/pam_fd_sm.h"

namespace Orvet {

PamFdSm::PamFdSm(Mroute::Loop::EventLoop& loop, Kiv::Ptr<FileDesc> fileDesc, Pam* pam)
    : fileDesc_(std::move(fileDesc)), pam_(pam), watch_(loop, fileDesc_->descriptor()) {
  // Only `pam` is used after the call: the pam may destroy this object.
  watch_.onReadableIs([pam] {
    pam->readableCountInc(1);
    pam->doGetRxPkt();
  });
}

void PamFdSm::writableInterestIs(bool on) {
  if (on) {
    watch_.onWritableIs([pam = pam_] {
      pam->writableCountInc(1);
      pam->doWritable();
    });
  } else {
    watch_.onWritableIs(nullptr);
  }
}

}  // namespace Orvet
