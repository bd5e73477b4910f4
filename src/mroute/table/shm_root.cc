#include "mroute/table/shm_root.h"

#include <cstdlib>

#include "mroute/runtime/error.h"

namespace Brume {

namespace {

[[noreturn]] void refuse(std::string_view what, std::string_view path, std::string_view why) {
  throw Pavo::InvalidInitializeException("BrumeMap " + std::string(what) + " '" + std::string(path) + "' " +
                                         std::string(why));
}

// Components of a relative path; refuses what would leave the root.
void checkComponents(std::string_view what, std::string_view path) {
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string_view part = path.substr(start, end - start);
    if (part.empty()) refuse(what, path, "has an empty component");
    if (part == "..") refuse(what, path, "has a '..' component");
    if (part == ".") refuse(what, path, "has a '.' component");
    start = end + 1;
  }
}

}  // namespace

void checkMountPath(std::string_view what, std::string_view path) {
  if (path.empty()) refuse(what, path, "is empty");
  if (path.front() == '/') refuse(what, path, "is absolute; it must be relative to the shared-memory root");
  checkComponents(what, path);
}

void checkTableName(std::string_view name) {
  checkMountPath("table name", name);
  if (name.find('/') != std::string_view::npos) refuse("table name", name, "must be a single component");
}

std::string shmRoot() {
  const char* env = std::getenv(kShmRootVariable);
  std::string root = (env != nullptr && *env != '\0') ? std::string(env) : std::string(kDefaultShmRoot);
  if (root.front() != '/') refuse(kShmRootVariable, root, "must be an absolute path");
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (root.size() > 1) {
    // The root itself may not climb out of where it claims to be either.
    std::string_view rel(root);
    rel.remove_prefix(1);
    size_t start = 0;
    while (start <= rel.size()) {
      const size_t end = std::min(rel.find('/', start), rel.size());
      if (rel.substr(start, end - start) == "..") refuse(kShmRootVariable, root, "has a '..' component");
      start = end + 1;
    }
  }
  return root;
}

Mem::RootPath tableRoot(std::string_view mountPath, std::string_view name) {
  checkMountPath("mount path", mountPath);
  checkTableName(name);
  std::string root = shmRoot();
  if (root == "/") root.clear();
  return Mem::RootPath(root + "/" + std::string(mountPath) + "/" + std::string(name));
}

std::string shmRootDirectory() { return Mem::RootPath(shmRoot()).dir(); }

}  // namespace Brume
