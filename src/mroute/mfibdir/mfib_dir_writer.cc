#include "mroute/mfibdir/mfib_dir_writer.h"

#include "mroute/entity/mount_path.h"
#include "mroute/mfibdir/mfib_brume_trace.h"
#include "mroute/runtime/assert.h"

namespace Brume::Multicast::Fib {

uint32_t freeBrumeKey(const MfibBrumeColl& coll) {
  uint32_t n = 1;
  while (coll.brumePtr().count(n) != 0) ++n;
  return n;
}

MfibDirWriter::MfibDirWriter(std::string application, const Kiv::Ptr<MfibDirDirectory>& directory,
                             const Kiv::Ptr<MfibBrumeDir>& brumeDir, MfibEntityManager& manager,
                             Orvet::AddressFamily family)
    : application_(std::move(application)),
      directory_(directory),
      brumeDir_(brumeDir),
      manager_(manager),
      family_(family) {
  MROUTE_ASSERT(directory_ != nullptr);
  MROUTE_ASSERT(brumeDir_ != nullptr);
}

std::string MfibDirWriter::bitMapperMountPath(Orvet::AddressFamily family, const L3::VrfName& vrf,
                                              const std::string& application) {
  return Kiv::familyPath(family.value(), "routing/multicast/bitmapperstatus", "routing6/multicast/bitmapperstatus",
                         {vrf.str(), application});
}

void MfibDirWriter::handleInitialized() {
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry, "MfibDirWriter::handleInitialized() for app " << application_);
  mfibDir_ = directory_->mfibDir(Kiv::Name(application_));
  if (!mfibDir_) {
    MROUTE_ASSERT(MfibDir::type().name == "Brume::Multicast::Fib::MfibDir");
    mfibDir_ = MfibDirIs(Kiv::Name(application_));
    directory_->mfibDirIs(Kiv::Name(application_), mfibDir_);
  }
  const L3::VrfName vrf("default");
  mfibDir_->dirCollIs(vrf);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Created directory collection for default vrf " << vrf);
  initialized_ = true;
}

Kiv::Ptr<MfibDirColl> MfibDirWriter::dirCollIs(const L3::VrfName& vrf) {
  Kiv::Ptr<MfibDirColl> coll = mfibDir_->dirColl(vrf);
  if (!coll) {
    coll = mfibDir_->dirCollIs(vrf);
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Created directory collection for vrf " << vrf);
  }
  return coll;
}

Kiv::Ptr<Status> MfibDirWriter::doAddBrume(const L3::VrfName& vrf, const std::string& application) {
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry,
               "MfibDirWriter::doAddBrume() vrf " << vrf << " application " << application << " for app "
                                                  << application_);
  MROUTE_ASSERT(initialized_);
  const std::string path = Status::mountPath(family_, vrf, Kiv::Name(application));
  if (auto it = mounts_.find(path); it != mounts_.end()) return it->second.status;

  Kiv::Ptr<Status> status =
      manager_.mountStatus(path, Brume::BrumeType::writer, TableInfo::mfibMountInfo(Status::type().name));
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Mounted " << path);

  Kiv::Ptr<MfibBrumeColl> brumeColl = brumeDir_->brumeColl(vrf);
  if (!brumeColl) {
    brumeColl = brumeDir_->brumeCollIs(vrf);
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Created Brumed directory collection for vrf " << vrf);
  }
  Kiv::Ptr<MfibDirColl> dirColl = dirCollIs(vrf);

  const uint32_t number = freeBrumeKey(*brumeColl);
  brumeColl->brumePtrIs(number, status);
  mounts_[path] = Mount{vrf, number, status, nullptr};

  dirColl->brumeUrlIs(Kiv::String(path), true);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Added url " << path << " into mfibDir collection");
  return status;
}

void MfibDirWriter::doDelBrume(const L3::VrfName& vrf, const std::string& application) {
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry,
               "MfibDirWriter::doDelBrume() vrf " << vrf << " application " << application << " for app "
                                                  << application_);
  MROUTE_ASSERT(initialized_);
  const std::string path = Status::mountPath(family_, vrf, Kiv::Name(application));
  auto it = mounts_.find(path);
  if (it == mounts_.end() || !it->second.status) return;
  const Mount mount = it->second;
  mounts_.erase(it);

  Kiv::Ptr<MfibBrumeColl> brumeColl = brumeDir_->brumeColl(vrf);
  if (brumeColl) brumeColl->brumePtrDel(mount.brumeKey);
  manager_.unmount(*mount.status, true);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Unmounted " << path);

  if (brumeColl && brumeColl->brumePtr().empty()) {
    brumeDir_->brumeCollDel(vrf);
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Deleted Brumed directory collection for vrf " << vrf);
  }

  if (Kiv::Ptr<MfibDirColl> dirColl = mfibDir_->dirColl(vrf)) {
    dirColl->brumeUrlDel(Kiv::String(path));
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Deleted url " << path << " from mfibDir collection");
  }
  maybeDelDirColl(vrf);
}

void MfibDirWriter::maybeDelDirColl(const L3::VrfName& vrf) {
  // The default VRF's collection stays for the life of the writer.
  if (vrf == L3::VrfName("default")) return;
  Kiv::Ptr<MfibDirColl> dirColl = mfibDir_->dirColl(vrf);
  if (!dirColl || !dirColl->brumeUrl().empty() || !dirColl->bitMapperBrumeUrl().empty()) return;
  mfibDir_->dirCollDel(vrf);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Deleted directory collection for vrf " << vrf);
}

Kiv::Ptr<BitMapper::BrumeStatus> MfibDirWriter::doAddBitMapperBrume(const L3::VrfName& vrf,
                                                                    const std::string& application) {
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry,
               "MfibDirWriter::doAddBitMapperBrume() vrf " << vrf << " application " << application << " for app "
                                                           << application_);
  MROUTE_ASSERT(initialized_);
  const std::string path = bitMapperMountPath(family_, vrf, application);
  if (auto it = mounts_.find(path); it != mounts_.end()) return it->second.bitMapper;

  Kiv::Ptr<BitMapper::BrumeStatus> status = manager_.mountBitMapperStatus(path, Brume::BrumeType::writer);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Mounted " << path);
  mounts_[path] = Mount{vrf, 0, nullptr, status};
  Kiv::Ptr<MfibDirColl> dirColl = dirCollIs(vrf);
  dirColl->bitMapperBrumeUrlIs(Kiv::String(path));
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Added bitmapper url " << path << " into mfibDir collection");
  return status;
}

void MfibDirWriter::doDelBitMapperBrume(const L3::VrfName& vrf, const std::string& application) {
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry,
               "MfibDirWriter::doDelBitMapperBrume() vrf " << vrf << " application " << application << " for app "
                                                           << application_);
  MROUTE_ASSERT(initialized_);
  const std::string path = bitMapperMountPath(family_, vrf, application);
  auto it = mounts_.find(path);
  if (it == mounts_.end() || !it->second.bitMapper) return;
  Kiv::Ptr<BitMapper::BrumeStatus> status = it->second.bitMapper;
  mounts_.erase(it);
  manager_.unmount(*status, true);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Unmounted " << path);
  if (Kiv::Ptr<MfibDirColl> dirColl = mfibDir_->dirColl(vrf); dirColl && dirColl->bitMapperBrumeUrl().stdString() == path) {
    dirColl->bitMapperBrumeUrlIs(Kiv::String());
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "Deleted bitmapper url " << path << " from mfibDir collection");
  }
  maybeDelDirColl(vrf);
}

Kiv::Ptr<Status> MfibDirWriter::mfibBrume(const std::string& application, const L3::VrfName& vrf) const {
  auto it = mounts_.find(Status::mountPath(family_, vrf, Kiv::Name(application)));
  return it == mounts_.end() ? nullptr : it->second.status;
}

Kiv::Ptr<BitMapper::BrumeStatus> MfibDirWriter::mfibBitMapperBrume(const std::string& application,
                                                                   const L3::VrfName& vrf) const {
  auto it = mounts_.find(bitMapperMountPath(family_, vrf, application));
  return it == mounts_.end() ? nullptr : it->second.bitMapper;
}

}  // namespace Brume::Multicast::Fib
