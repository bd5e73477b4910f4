// MfibDirSm: a reader's side of the MFIB directory. It follows the writing
// applications' MfibDir entities in the directory as they appear and go;
// within each, every VRF's MfibDirColl; within each, the table-set paths set
// in brumeUrl. Each announced table set is mounted read-only and entered
// into the VRF's MfibBrumeColl of the reader's MfibBrumeDir (created with
// the first, deleted with the last), under a number of its own from 1. A
// table set is dropped when its path leaves brumeUrl, or its VRF collection
// or its application's directory goes.
//
//   auto sm = mfibDirSmFactory(directory, brumeDir, manager);
//   sm->handleMfibDir();  // the directories present already
//
// Thread-safety: on the entity manager's event loop.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/mfibdir/mfib_entity_manager.h"

namespace Brume::Multicast::Fib {

class MfibDirSm : public MfibDirDirectory::NotifieeConst {
 public:
  class AppDirSm;
  class CollSm;

  // REQUIRES: directory and brumeDir are not null.
  MfibDirSm(const Kiv::Ptr<MfibDirDirectory>& directory, const Kiv::Ptr<MfibBrumeDir>& brumeDir,
            MfibEntityManager& manager, Brume::BrumeType mode = Brume::BrumeType::reader);
  ~MfibDirSm() override;

  // The application directory `name` appeared, changed or went.
  void handleMfibDir(const Kiv::Name& name);
  // Every application directory present.
  void handleMfibDir();
  void onMfibDir(const Kiv::Name& name) override { handleMfibDir(name); }

  const AppDirSm* appDirSm(const Kiv::Name& name) const;
  const Kiv::Ptr<MfibBrumeDir>& brumeDir() const { return brumeDir_; }

 private:
  friend class CollSm;
  Kiv::Ptr<MfibDirDirectory> directory_;
  Kiv::Ptr<MfibBrumeDir> brumeDir_;
  MfibEntityManager& manager_;
  Brume::BrumeType mode_;
  std::map<Kiv::Name, std::unique_ptr<AppDirSm>> apps_;
};

// The reactor of one application's MfibDir.
class MfibDirSm::AppDirSm : public MfibDir::NotifieeConst {
 public:
  explicit AppDirSm(MfibDirSm& owner) : owner_(owner) {}
  ~AppDirSm() override;

  Kiv::Ptr<const MfibDir> mfibAppDir() const { return notifier(); }
  // Both refuse null with a range error naming the mutator.
  void mfibAppDirIs(const Kiv::Ptr<const MfibDir>& dir);
  Kiv::Ptr<MfibDirDirectory> appDir() const { return appDir_; }
  void appDirIs(const Kiv::Ptr<MfibDirDirectory>& dir);

  // The VRF collection `vrf` appeared or went.
  void handleDirColl(const L3::VrfName& vrf);
  void onDirColl(const L3::VrfName& vrf) override { handleDirColl(vrf); }
  // Drops every table set of the application.
  void handleDel();
  const CollSm* mfibColl(const L3::VrfName& vrf) const;

 private:
  MfibDirSm& owner_;
  Kiv::Ptr<MfibDirDirectory> appDir_;
  std::map<L3::VrfName, std::unique_ptr<CollSm>> colls_;
};

// The reactor of one VRF's MfibDirColl of one application.
class MfibDirSm::CollSm : public MfibDirColl::NotifieeConst {
 public:
  CollSm(MfibDirSm& owner, const L3::VrfName& vrf, const Kiv::Ptr<const MfibDirColl>& coll);
  ~CollSm() override;

  // Mounts the path's table set when it is announced, drops it otherwise.
  void handleMountPoint(const std::string& path);
  void handleMountPoint();
  // The collection went: drops every table set it announced.
  void handleDel();
  void onBrumeUrl(const Kiv::String& path) override { handleMountPoint(path.stdString()); }

  // The mounted table set of path, or null.
  Kiv::Ptr<Status> mounted(const std::string& path) const;
  size_t mounts() const { return mounts_.size(); }

 private:
  struct Mount {
    uint32_t brumeKey;
    Kiv::Ptr<Status> status;
  };
  void drop(const std::string& path);

  MfibDirSm& owner_;
  L3::VrfName vrf_;
  std::map<std::string, Mount> mounts_;
};

std::unique_ptr<MfibDirSm> mfibDirSmFactory(const Kiv::Ptr<MfibDirDirectory>& directory,
                                            const Kiv::Ptr<MfibBrumeDir>& brumeDir, MfibEntityManager& manager);

}  // namespace Brume::Multicast::Fib
