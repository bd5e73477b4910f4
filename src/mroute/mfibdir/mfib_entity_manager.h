// MfibEntityManager: the part of the state database that the MFIB directory
// uses. It mounts the entities of table sets by path, as the one writer or
// read-only, and unmounts them; a writer's unmount with cleanup also removes
// the table files (readers keep what they mapped until they notice).
//
// Entities are mounted in this process only: a reader in another process
// mounts the same tables by the path it learns from the directory.
//
// Thread-safety: on the event loop given at construction.
#pragma once

#include <string>

#include "mroute/bitmapper/brume_status.h"
#include "mroute/route/mfib_status.h"
#include "mroute/route/table_info.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/brume_type.h"

namespace Brume::Multicast::Fib {

class MfibEntityManager {
 public:
  explicit MfibEntityManager(Mroute::Loop::EventLoop& loop) : loop_(loop) {}
  MfibEntityManager(const MfibEntityManager&) = delete;
  MfibEntityManager& operator=(const MfibEntityManager&) = delete;

  Mroute::Loop::EventLoop& loop() { return loop_; }

  // An entity of type "Brume::Multicast::Fib::Status" with its tables
  // mounted under path, sized as `info` says (asserted to match the type).
  Kiv::Ptr<Status> mountStatus(const std::string& path, Brume::BrumeType mode, const MountInfo& info);
  // An entity of type "BitMapper::BrumeStatus" with its tables under path.
  Kiv::Ptr<BitMapper::BrumeStatus> mountBitMapperStatus(const std::string& path, Brume::BrumeType mode);

  // Unmounts the tables; with cleanup (writers) their files go too.
  void unmount(Status& status, bool cleanup);
  void unmount(BitMapper::BrumeStatus& status, bool cleanup);

 private:
  Mroute::Loop::EventLoop& loop_;
};

}  // namespace Brume::Multicast::Fib
