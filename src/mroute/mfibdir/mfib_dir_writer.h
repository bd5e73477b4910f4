// MfibDirWriter: a routing application's side of the MFIB directory. It
// creates and mounts the application's table sets (one Status per VRF and
// application, and the bit-mapper shared status), enters them into the
// process's MfibBrumeDir, and announces their mount paths in the
// application's MfibDir, where readers find them. A table set is visible to
// readers exactly while its path is true in its VRF's brumeUrl map.
//
// The default VRF's MfibDirColl lives as long as the writer; another VRF's
// collections exist while one of its table sets is registered. Table-set
// numbers are the smallest free ones from 1: 0 is the "no winner" answer.
//
//   MfibDirWriter writer("pim", directory, brumeDir, manager);
//   writer.handleInitialized();
//   Kiv::Ptr<Status> red = writer.doAddBrume(L3::VrfName("red"), "pim");
//
// Thread-safety: on the entity manager's event loop.
#pragma once

#include <map>
#include <string>

#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/mfibdir/mfib_entity_manager.h"
#include "mroute/runtime/net/address_family.h"

namespace Brume::Multicast::Fib {

class MfibDirWriter {
 public:
  // REQUIRES: directory and brumeDir are not null.
  MfibDirWriter(std::string application, const Kiv::Ptr<MfibDirDirectory>& directory,
                const Kiv::Ptr<MfibBrumeDir>& brumeDir, MfibEntityManager& manager,
                Orvet::AddressFamily family = Orvet::AddressFamily(1));
  MfibDirWriter(const MfibDirWriter&) = delete;
  MfibDirWriter& operator=(const MfibDirWriter&) = delete;

  // The path of a VRF's bit-mapper shared status of an application:
  // "routing/multicast/bitmapperstatus/<vrf>/<application>", and
  // "routing6/..." for IPv6, beside the route table sets' "routestatus". It
  // is announced as the VRF's bitMapperBrumeUrl (one per VRF: a second
  // application's add replaces it) and withdrawn by the delete of the
  // application that set it. It is not a table set: it takes no number and
  // stays out of MfibBrumeDir and selection. MfibDirSm does not mount it; an
  // agent that turns oif indexes back into keys reads the path from the
  // VRF's MfibDirColl and mounts it read-only with
  // MfibEntityManager::mountBitMapperStatus().
  static std::string bitMapperMountPath(Orvet::AddressFamily family, const L3::VrfName& vrf,
                                        const std::string& application);

  const std::string& application() const { return application_; }
  bool initialized() const { return initialized_; }
  Kiv::Ptr<MfibDir> mfibDir() const { return mfibDir_; }

  // Mounts or creates the application's MfibDir and the default VRF's
  // collection in it.
  void handleInitialized();

  // REQUIRES: initialized(). Both are idempotent for a path already mounted
  // (resp. not mounted).
  Kiv::Ptr<Status> doAddBrume(const L3::VrfName& vrf, const std::string& application);
  void doDelBrume(const L3::VrfName& vrf, const std::string& application);
  Kiv::Ptr<BitMapper::BrumeStatus> doAddBitMapperBrume(const L3::VrfName& vrf, const std::string& application);
  void doDelBitMapperBrume(const L3::VrfName& vrf, const std::string& application);

  // The mounted table set of an application in a VRF, or null.
  Kiv::Ptr<Status> mfibBrume(const std::string& application,
                             const L3::VrfName& vrf = L3::VrfName("default")) const;
  Kiv::Ptr<BitMapper::BrumeStatus> mfibBitMapperBrume(const std::string& application,
                                                      const L3::VrfName& vrf = L3::VrfName("default")) const;

 private:
  struct Mount {
    L3::VrfName vrf;
    uint32_t brumeKey = 0;  // 0 for a bit-mapper status
    Kiv::Ptr<Status> status;
    Kiv::Ptr<BitMapper::BrumeStatus> bitMapper;
  };

  Kiv::Ptr<MfibDirColl> dirCollIs(const L3::VrfName& vrf);
  // Deletes the VRF's directory collection when it names nothing and the VRF
  // is not the default one.
  void maybeDelDirColl(const L3::VrfName& vrf);

  std::string application_;
  Kiv::Ptr<MfibDirDirectory> directory_;
  Kiv::Ptr<MfibBrumeDir> brumeDir_;
  MfibEntityManager& manager_;
  Orvet::AddressFamily family_;
  Kiv::Ptr<MfibDir> mfibDir_;
  std::map<std::string, Mount> mounts_;  // by path
  bool initialized_ = false;
};

// The smallest table-set number from 1 that coll does not use.
uint32_t freeBrumeKey(const MfibBrumeColl& coll);

}  // namespace Brume::Multicast::Fib
