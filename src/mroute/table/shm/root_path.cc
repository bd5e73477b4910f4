#include "mroute/table/shm/root_path.h"

#include <cstdlib>

#include "mroute/table/shm/shm_file.h"

namespace Mem {

RootPath::RootPath(const std::string& path) {
  std::string p = path;
  if (p.empty() || p.front() != '/') p = joinPath(kShmDir, p);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  if (const char* chroot = std::getenv("Q9_CHROOT"); chroot != nullptr && *chroot != '\0') {
    std::string prefix = chroot;
    while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
    p = prefix + p;
    chrooted_ = true;
  }
  dir_ = p;
}

std::string RootPath::file(const std::string& name) const { return joinPath(dir_, name); }

}  // namespace Mem
