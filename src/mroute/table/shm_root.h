// Where table files live: the shared-memory root and the checks on the mount
// paths and names under it.
//
// Every table front is addressed by (mount path, name), e.g.
// ("routing/multicast/fib", "route"). Its files lie in
//   <root>/<mount path>/<name>/
// where <root> is the value of the environment variable MROUTE_SHM_ROOT when
// it is set and not empty, and "/dev/shm/mroute" otherwise. The root must be
// an absolute path. When "Q9_CHROOT" is set, that prefix is put in front of
// the whole directory (Mem::RootPath does this), because the process then
// runs inside a changed root.
//
// Mount paths and names are relative: an empty component ("a//b", a leading
// or trailing '/'), "." or ".." would leave the root or alias another table
// and is refused with Pavo::InvalidInitializeException naming the offence.
// A name is one component (no '/').
//
// Thread-safety: reads the environment on every call; no state.
#pragma once

#include <string>
#include <string_view>

#include "mroute/table/shm/root_path.h"

namespace Brume {

inline constexpr const char* kShmRootVariable = "MROUTE_SHM_ROOT";
inline constexpr const char* kDefaultShmRoot = "/dev/shm/mroute";

// MROUTE_SHM_ROOT or the default, without a trailing '/'. Throws
// Pavo::InvalidInitializeException when the variable holds a relative path
// or a ".." component.
std::string shmRoot();

// Throws Pavo::InvalidInitializeException when `path` (a mount path; `what`
// says which argument it is, for the message) is empty, absolute, or has an
// empty, "." or ".." component.
void checkMountPath(std::string_view what, std::string_view path);
// As checkMountPath, and a name must be one component.
void checkTableName(std::string_view name);

// The directory of a table: shmRoot() + "/" + mountPath + "/" + name, with
// the "Q9_CHROOT" prefix applied. Throws as the checks above do.
Mem::RootPath tableRoot(std::string_view mountPath, std::string_view name);

// shmRoot() as the process sees it (with the "Q9_CHROOT" prefix).
std::string shmRootDirectory();

}  // namespace Brume
