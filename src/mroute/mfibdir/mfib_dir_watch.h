// MfibDirWatch: how a forwarding process finds the routing applications'
// directories without knowing the applications in advance.
//
// Every application publishes its MfibDir as an entity tree mounted at
// <fib mount path>/<application> ("routing/multicast/fib/pim"). A tree is
// there while its writer's attribute-log socket file is: a writer that
// unmounts removes the file, one that is killed leaves it (and its tables)
// until it restarts and replaces it, or until its tree's directory is
// removed. A crash withdraws nothing: only the application's own delete
// takes a table set out of selection, so forwarding keeps the last routes
// of an application that died, as the table files outlive it. The watch follows the fib directory and
// every application's directory in it with inotify; for each tree that
// appears it mounts a replica MfibDir read-only and enters it into the
// MfibDirDirectory under the application's name, so that MfibDirSm follows
// it ("Created Mfib directory"); when the tree goes the replica leaves the
// directory ("Deleted Mfib directory") and is unmounted.
//
// A restarting writer deletes its stale socket file and binds a new one:
// changes are acted upon only after `settleFor` without further change, so the
// replica, and the table sets mounted from it, survive the restart.
//
//   MfibDirSm sm(directory, brumeDir, manager);
//   MfibDirWatch watch(loop, Orvet::AddressFamily(1), directory);
//   // (a reactor made after the watch starts with sm.handleMfibDir())
//
// Thread-safety: single-threaded, on the given loop.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "mroute/entity/replication/entity_mount.h"
#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/runtime/loop/dir_watch.h"
#include "mroute/runtime/loop/timer.h"

namespace Brume::Multicast::Fib {

class MfibDirWatch {
 public:
  static constexpr std::chrono::milliseconds kSettle{50};

  // Creates the fib directory when no application made it yet. Trees
  // present already are entered before the constructor returns. Throws
  // Mroute::ErrnoException when the directory cannot be watched.
  MfibDirWatch(Mroute::Loop::EventLoop& loop, Orvet::AddressFamily af, const Kiv::Ptr<MfibDirDirectory>& directory,
               std::chrono::milliseconds settleFor = kSettle,
               std::chrono::milliseconds retry = Kiv::NboAttrLog::ReaderMount::kRetry);
  ~MfibDirWatch();
  MfibDirWatch(const MfibDirWatch&) = delete;
  MfibDirWatch& operator=(const MfibDirWatch&) = delete;

  // The mount of an application's tree, or null when it has none.
  const Kiv::NboAttrLog::ReaderMount* mount(const std::string& application) const;
  size_t trees() const { return trees_.size(); }

 private:
  struct Tree {
    Kiv::Ptr<MfibDir> replica;
    std::unique_ptr<Kiv::NboAttrLog::ReaderMount> mount;
  };
  void watchFibDir();
  void onFibDir(Mroute::Loop::DirEvent event, std::string_view name);
  void watchApplication(const std::string& application);
  void changed(const std::string& application);
  void rescan();
  void settle();
  void reconcile(const std::string& application);

  Mroute::Loop::EventLoop& loop_;
  std::string mountPath_;  // the fib mount path of the family
  std::string dir_;        // its directory under the shared-memory root
  Kiv::Ptr<MfibDirDirectory> directory_;
  std::chrono::milliseconds settleFor_;
  std::chrono::milliseconds retry_;
  std::map<std::string, std::unique_ptr<Mroute::Loop::DirWatch>> appWatches_;
  std::map<std::string, Tree> trees_;
  std::set<std::string> pending_;
  Mroute::Loop::Timer settleTimer_;
  std::unique_ptr<Mroute::Loop::DirWatch> fibWatch_;
};

}  // namespace Brume::Multicast::Fib
