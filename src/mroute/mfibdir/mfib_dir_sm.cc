#include "mroute/mfibdir/mfib_dir_sm.h"

#include <vector>

#include "mroute/mfibdir/mfib_brume_trace.h"
#include "mroute/mfibdir/mfib_dir_writer.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Brume::Multicast::Fib {

MfibDirSm::MfibDirSm(const Kiv::Ptr<MfibDirDirectory>& directory, const Kiv::Ptr<MfibBrumeDir>& brumeDir,
                     MfibEntityManager& manager, Brume::BrumeType mode)
    : directory_(directory), brumeDir_(brumeDir), manager_(manager), mode_(mode) {
  MROUTE_ASSERT(directory_ != nullptr);
  MROUTE_ASSERT(brumeDir_ != nullptr);
  notifierIs(directory_);
}

MfibDirSm::~MfibDirSm() = default;

void MfibDirSm::handleMfibDir(const Kiv::Name& name) {
  const Kiv::Ptr<MfibDir> dir = directory_->mfibDir(name);
  auto it = apps_.find(name);
  if (dir && it != apps_.end() && it->second->mfibAppDir() == dir) return;
  if (it != apps_.end()) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Deleted Mfib directory " << name);
    it->second->handleDel();
    apps_.erase(it);
  }
  if (!dir) return;
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Created Mfib directory " << name);
  auto sm = std::make_unique<AppDirSm>(*this);
  sm->appDirIs(directory_);
  sm->mfibAppDirIs(dir);
  AppDirSm& app = *sm;
  apps_.emplace(name, std::move(sm));
  for (const auto& [vrf, coll] : dir->dirColl()) app.handleDirColl(vrf);
}

void MfibDirSm::handleMfibDir() {
  std::vector<Kiv::Name> names;
  for (const auto& [name, dir] : directory_->mfibDir()) names.push_back(name);
  for (const auto& [name, sm] : apps_) names.push_back(name);
  for (const Kiv::Name& name : names) handleMfibDir(name);
}

const MfibDirSm::AppDirSm* MfibDirSm::appDirSm(const Kiv::Name& name) const {
  auto it = apps_.find(name);
  return it == apps_.end() ? nullptr : it->second.get();
}

// ---- One application's directory -------------------------------------------

MfibDirSm::AppDirSm::~AppDirSm() = default;

void MfibDirSm::AppDirSm::mfibAppDirIs(const Kiv::Ptr<const MfibDir>& dir) {
  if (!dir) {
    throw Kiv::RangeException(
        "null _mfibAppDir parameter to mutator for Brume::Multicast::Fib::MfibDirSm::mfibAppDir not allowed\"");
  }
  notifierIs(dir);
}

void MfibDirSm::AppDirSm::appDirIs(const Kiv::Ptr<MfibDirDirectory>& dir) {
  if (!dir) {
    throw Kiv::RangeException(
        "null _appDir parameter to mutator for Brume::Multicast::Fib::MfibDirSm::appDir not allowed\"");
  }
  appDir_ = dir;
}

void MfibDirSm::AppDirSm::handleDirColl(const L3::VrfName& vrf) {
  const Kiv::Ptr<MfibDirColl> coll = notifier() ? notifier()->dirColl(vrf) : nullptr;
  auto it = colls_.find(vrf);
  if (coll && it != colls_.end() && it->second->notifier() == coll) return;
  if (it != colls_.end()) {
    it->second->handleDel();
    colls_.erase(it);
  }
  if (!coll) return;
  auto sm = std::make_unique<CollSm>(owner_, vrf, coll);
  CollSm& c = *sm;
  colls_.emplace(vrf, std::move(sm));
  c.handleMountPoint();
}

void MfibDirSm::AppDirSm::handleDel() {
  for (auto& [vrf, sm] : colls_) sm->handleDel();
  colls_.clear();
}

const MfibDirSm::CollSm* MfibDirSm::AppDirSm::mfibColl(const L3::VrfName& vrf) const {
  auto it = colls_.find(vrf);
  return it == colls_.end() ? nullptr : it->second.get();
}

// ---- One VRF's collection --------------------------------------------------

MfibDirSm::CollSm::CollSm(MfibDirSm& owner, const L3::VrfName& vrf, const Kiv::Ptr<const MfibDirColl>& coll)
    : owner_(owner), vrf_(vrf) {
  notifierIs(coll);
}

MfibDirSm::CollSm::~CollSm() = default;

void MfibDirSm::CollSm::handleMountPoint(const std::string& path) {
  const bool announced = notifier() && notifier()->brumeUrl(Kiv::String(path));
  const bool have = mounts_.count(path) != 0;
  if (announced == have) return;
  if (!announced) {
    drop(path);
    return;
  }
  Kiv::Ptr<Status> status = owner_.manager_.mountStatus(path, owner_.mode_, TableInfo::mfibMountInfo(Status::type().name));
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Mounted " << path);
  Kiv::Ptr<MfibBrumeColl> brumeColl = owner_.brumeDir_->brumeColl(vrf_);
  if (!brumeColl) {
    brumeColl = owner_.brumeDir_->brumeCollIs(vrf_);
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Created Brumed directory collection for vrf " << vrf_);
  }
  const uint32_t number = freeBrumeKey(*brumeColl);
  mounts_[path] = Mount{number, status};
  brumeColl->brumePtrIs(number, status);
}

void MfibDirSm::CollSm::handleMountPoint() {
  std::vector<std::string> paths;
  if (notifier()) {
    for (const auto& [path, on] : notifier()->brumeUrl()) paths.push_back(path.stdString());
  }
  for (const auto& [path, mount] : mounts_) paths.push_back(path);
  for (const std::string& path : paths) handleMountPoint(path);
}

void MfibDirSm::CollSm::handleDel() {
  std::vector<std::string> paths;
  for (const auto& [path, mount] : mounts_) paths.push_back(path);
  for (const std::string& path : paths) drop(path);
}

void MfibDirSm::CollSm::drop(const std::string& path) {
  auto it = mounts_.find(path);
  if (it == mounts_.end()) return;
  const Mount mount = it->second;
  mounts_.erase(it);
  Kiv::Ptr<MfibBrumeColl> brumeColl = owner_.brumeDir_->brumeColl(vrf_);
  if (brumeColl) brumeColl->brumePtrDel(mount.brumeKey);
  owner_.manager_.unmount(*mount.status, false);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Unmounted " << path);
  if (brumeColl && brumeColl->brumePtr().empty()) {
    owner_.brumeDir_->brumeCollDel(vrf_);
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Deleted Brumed directory collection for vrf " << vrf_);
  }
}

Kiv::Ptr<Status> MfibDirSm::CollSm::mounted(const std::string& path) const {
  auto it = mounts_.find(path);
  return it == mounts_.end() ? nullptr : it->second.status;
}

std::unique_ptr<MfibDirSm> mfibDirSmFactory(const Kiv::Ptr<MfibDirDirectory>& directory,
                                            const Kiv::Ptr<MfibBrumeDir>& brumeDir, MfibEntityManager& manager) {
  return std::make_unique<MfibDirSm>(directory, brumeDir, manager);
}

}  // namespace Brume::Multicast::Fib
