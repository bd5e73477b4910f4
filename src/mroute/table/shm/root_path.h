// Mem::RootPath: the directory in the shared-memory file system that holds
// one table's files ("slots", "buckets", "conquer.1", "conquer.2", "ember",
// "corruption-detected", "writer.lock").
//
// A relative path is placed under /dev/shm. When the environment variable
// "Q9_CHROOT" is set, the process runs inside a changed root and that prefix
// is put in front of every path.
//
// Thread-safety: a value type.
#pragma once

#include <string>

namespace Mem {

class RootPath {
 public:
  static constexpr const char* kShmDir = "/dev/shm";

  explicit RootPath(const std::string& path);

  // The resolved directory, e.g. "/dev/shm/routing/multicast/fib".
  const std::string& dir() const { return dir_; }
  // dir() + "/" + name.
  std::string file(const std::string& name) const;
  // True when "Q9_CHROOT" was set when the path was resolved.
  bool chrooted() const { return chrooted_; }

 private:
  std::string dir_;
  bool chrooted_ = false;
};

}  // namespace Mem
