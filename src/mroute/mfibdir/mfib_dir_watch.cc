#include "mroute/mfibdir/mfib_dir_watch.h"

#include <dirent.h>
#include <sys/stat.h>

#include <exception>
#include <vector>

#include "mroute/entity/replication/attr_log_socket.h"
#include "mroute/mfibdir/mfib_brume_trace.h"
#include "mroute/runtime/error.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm_root.h"

namespace Brume::Multicast::Fib {

namespace {

using Mroute::Loop::DirEvent;

// The names of the subdirectories of dir (none when it cannot be read).
std::vector<std::string> subdirectories(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = ::opendir(dir.c_str());
  if (!d) return names;
  while (const dirent* e = ::readdir(d)) {
    const std::string name = e->d_name;
    struct stat st {};
    if (name != "." && name != ".." && ::stat((dir + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      names.push_back(name);
    }
  }
  ::closedir(d);
  return names;
}

bool isSocket(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace

MfibDirWatch::MfibDirWatch(Mroute::Loop::EventLoop& loop, Orvet::AddressFamily af,
                           const Kiv::Ptr<MfibDirDirectory>& directory, std::chrono::milliseconds settleFor,
                           std::chrono::milliseconds retry)
    : loop_(loop),
      mountPath_(MfibDir::mountPath(af)),
      dir_(Brume::shmRootDirectory() + "/" + mountPath_),
      directory_(directory),
      settleFor_(settleFor),
      retry_(retry),
      settleTimer_(loop, [this] { this->settle(); }) {
  watchFibDir();
  settle();
}

void MfibDirWatch::watchFibDir() {
  std::string error;
  if (!Mem::makeDirectories(Mem::systemShmFs(), dir_, &error)) {
    throw Pavo::InvalidInitializeException("MfibDirWatch: " + error);
  }
  fibWatch_ = std::make_unique<Mroute::Loop::DirWatch>(
      loop_, dir_, [this](DirEvent event, std::string_view name) { onFibDir(event, name); });
  rescan();
}

MfibDirWatch::~MfibDirWatch() {
  for (const auto& [application, tree] : trees_) directory_->mfibDirDel(Kiv::Name(application));
}

const Kiv::NboAttrLog::ReaderMount* MfibDirWatch::mount(const std::string& application) const {
  auto it = trees_.find(application);
  return it == trees_.end() ? nullptr : it->second.mount.get();
}

void MfibDirWatch::onFibDir(DirEvent event, std::string_view name) {
  if (event == DirEvent::created) {
    watchApplication(std::string(name));
  } else if (event == DirEvent::deleted) {
    appWatches_.erase(std::string(name));
    changed(std::string(name));
  } else if (event == DirEvent::overflow) {
    rescan();
  } else if (event == DirEvent::dirGone) {
    // Someone removed the whole directory: every tree went with it. It is
    // made and watched again when the change settles.
    MROUTE_TRACE(mfibBrumeTrace(), 1, "MfibDirWatch: " << dir_ << " went");
    fibWatch_.reset();
    appWatches_.clear();
    for (const auto& [application, tree] : trees_) changed(application);
  }
}

void MfibDirWatch::watchApplication(const std::string& application) {
  // Watch first, then look: a socket made in between is not missed.
  try {
    appWatches_[application] = std::make_unique<Mroute::Loop::DirWatch>(
        loop_, dir_ + "/" + application, [this, application](DirEvent event, std::string_view name) {
          const std::string app = application;  // outlives the watch erased below
          if (event == DirEvent::dirGone) {
            appWatches_.erase(app);
          } else if (event != DirEvent::overflow && name != Kiv::NboAttrLog::kSocketName) {
            return;
          }
          changed(app);
        });
  } catch (const std::exception&) {
    appWatches_.erase(application);  // not a directory, or gone already
  }
  changed(application);
}

void MfibDirWatch::changed(const std::string& application) {
  pending_.insert(application);
  settleTimer_.startOneShot(settleFor_);
}

void MfibDirWatch::rescan() {
  for (const std::string& application : subdirectories(dir_)) {
    if (!appWatches_.count(application)) watchApplication(application);
    changed(application);
  }
  for (const auto& [application, tree] : trees_) changed(application);
}

void MfibDirWatch::settle() {
  if (!fibWatch_) {
    try {
      watchFibDir();
    } catch (const std::exception& e) {
      MROUTE_TRACE(mfibBrumeTrace(), 1, "MfibDirWatch: cannot watch " << dir_ << ": " << e.what());
      settleTimer_.startOneShot(retry_);
    }
  }
  const std::set<std::string> pending = std::move(pending_);
  pending_.clear();
  for (const std::string& application : pending) reconcile(application);
}

void MfibDirWatch::reconcile(const std::string& application) {
  const std::string treePath = mountPath_ + "/" + application;
  bool present = false;
  try {
    present = appWatches_.count(application) && isSocket(Kiv::NboAttrLog::socketPath(treePath));
  } catch (const std::exception& e) {
    MROUTE_TRACE(mfibBrumeTrace(), 1, "MfibDirWatch: " << treePath << " skipped: " << e.what());
  }
  auto it = trees_.find(application);
  if (present == (it != trees_.end())) return;
  if (!present) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "MfibDirWatch: tree " << treePath << " went");
    directory_->mfibDirDel(Kiv::Name(application));
    trees_.erase(it);
    return;
  }
  // The name comes from another process's file: a refusal is traced, never thrown.
  Tree tree;
  try {
    tree.replica = MfibDirIs(Kiv::Name(application));
    tree.mount = std::make_unique<Kiv::NboAttrLog::ReaderMount>(loop_, treePath, tree.replica,
                                                                MfibDir::KivNboAttrLogSa::logType(), retry_);
  } catch (const std::exception& e) {
    MROUTE_TRACE(mfibBrumeTrace(), 1, "MfibDirWatch: " << treePath << " not mounted: " << e.what());
    return;
  }
  MROUTE_TRACE(mfibBrumeTrace(), kTraceDir, "MfibDirWatch: tree " << treePath << " found");
  const Kiv::Ptr<MfibDir> replica = tree.replica;
  trees_.emplace(application, std::move(tree));
  directory_->mfibDirIs(Kiv::Name(application), replica);
}

}  // namespace Brume::Multicast::Fib
