#include "mroute/table/shm/bus_guard.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace Mem {
namespace {

// One watched mapping. The handler reads entries without a lock, so each
// entry is a seqlock: watch() and forget() make `version` odd, change the
// range, and make it even again; the handler trusts a range only when it
// read the same even version before and after it. An empty range (end 0)
// matches no address.
struct Watch {
  std::atomic<bool> taken{false};
  std::atomic<uint32_t> version{0};
  std::atomic<uintptr_t> begin{0};
  std::atomic<uintptr_t> end{0};
  std::atomic<int> prot{PROT_READ};
  std::atomic<bool> faulted{false};

  // One writer per entry (its owner). Each data store is a release store, so
  // the odd version is visible before any of them; the even version is
  // stored last, with release.
  void set(uintptr_t b, uintptr_t e, int p) {
    const uint32_t v = version.load(std::memory_order_relaxed);
    version.store(v + 1, std::memory_order_relaxed);
    begin.store(b, std::memory_order_release);
    end.store(e, std::memory_order_release);
    prot.store(p, std::memory_order_release);
    version.store(v + 2, std::memory_order_release);
  }
  // The range and its protection as one consistent read; false while it
  // changes (the fault is then not this entry's: a range is unmapped or
  // moved only after forget(), and mapped before watch()). The acquire loads
  // keep the second version load after them, and seeing a new value means
  // seeing the odd version that preceded it.
  bool read(uintptr_t* b, uintptr_t* e, int* p) const {
    const uint32_t v = version.load(std::memory_order_acquire);
    if ((v & 1) != 0) return false;
    *b = begin.load(std::memory_order_acquire);
    *e = end.load(std::memory_order_acquire);
    *p = prot.load(std::memory_order_acquire);
    return version.load(std::memory_order_relaxed) == v;
  }
};

Watch gWatches[BusGuard::kMaxWatched];
// Entries at and above it were never taken: the handler stops there.
std::atomic<int> gUsed{0};
uintptr_t gPageSize = 4096;  // set before the handler is installed
struct sigaction gPrevious {};
std::once_flag gInstalled;

static_assert(std::atomic<uintptr_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free &&
                  std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "the handler reads the watch list with lock-free loads");

// Hands a fault that is not ours to whoever had SIGBUS before.
void passOn(int sig, siginfo_t* info, void* context) {
  if ((gPrevious.sa_flags & SA_SIGINFO) != 0 && gPrevious.sa_sigaction != nullptr) {
    gPrevious.sa_sigaction(sig, info, context);
    return;
  }
  if (gPrevious.sa_handler != SIG_DFL && gPrevious.sa_handler != SIG_IGN) {
    gPrevious.sa_handler(sig);
    return;
  }
  // The default action: returning re-runs the faulting access, which faults
  // again and now ends the process as it would have without us.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  ::sigaction(SIGBUS, &dfl, nullptr);
}

void onBus(int sig, siginfo_t* info, void* context) {
  // The interrupted code may be about to read errno; mmap() can change it.
  const int savedErrno = errno;
  const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
  const int used = gUsed.load(std::memory_order_acquire);
  for (int i = 0; i < used; ++i) {
    Watch& w = gWatches[i];
    uintptr_t begin = 0, end = 0;
    int prot = PROT_READ;
    if (!w.read(&begin, &end, &prot) || address < begin || address >= end) continue;
    const uintptr_t from = address - address % gPageSize;
    void* zeros = ::mmap(reinterpret_cast<void*>(from), end - from, prot, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
                         -1, 0);
    if (zeros == MAP_FAILED) break;
    w.faulted.store(true, std::memory_order_relaxed);
    bus_guard_internal::faults.fetch_add(1, std::memory_order_relaxed);
    errno = savedErrno;
    return;
  }
  errno = savedErrno;
  passOn(sig, info, context);
}

void install() {
  gPageSize = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  struct sigaction action {};
  action.sa_sigaction = onBus;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGBUS, &action, &gPrevious);
}

}  // namespace

int BusGuard::watch(const void* base, size_t length, bool writable) {
  std::call_once(gInstalled, install);
  for (int i = 0; i < kMaxWatched; ++i) {
    Watch& w = gWatches[i];
    bool expected = false;
    if (!w.taken.compare_exchange_strong(expected, true, std::memory_order_acq_rel)) continue;
    w.faulted.store(false, std::memory_order_relaxed);
    w.set(reinterpret_cast<uintptr_t>(base), reinterpret_cast<uintptr_t>(base) + length,
          writable ? PROT_READ | PROT_WRITE : PROT_READ);
    int used = gUsed.load(std::memory_order_relaxed);
    while (used <= i && !gUsed.compare_exchange_weak(used, i + 1, std::memory_order_release)) {
    }
    return i;
  }
  return kNotWatched;
}

void BusGuard::forget(int id) {
  if (id < 0 || id >= kMaxWatched) return;
  Watch& w = gWatches[id];
  w.set(0, 0, PROT_READ);
  w.taken.store(false, std::memory_order_release);
}

bool BusGuard::faulted(int id) {
  return id >= 0 && id < kMaxWatched && gWatches[id].faulted.load(std::memory_order_relaxed);
}

}  // namespace Mem
