#include "mroute/table/shm/bus_guard.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace Mem {
namespace {

// One watched mapping. The handler reads entries without a lock: watch()
// fills an entry before it publishes it by setting `end`, and forget()
// clears `end` before the range is unmapped, so the handler sees a range
// only while it is mapped (or a stale one that no fault address can hit).
struct Watch {
  std::atomic<bool> taken{false};
  std::atomic<uintptr_t> begin{0};
  std::atomic<uintptr_t> end{0};
  std::atomic<int> prot{PROT_READ};
  std::atomic<bool> faulted{false};
};

Watch gWatches[BusGuard::kMaxWatched];
// Entries at and above it were never taken: the handler stops there.
std::atomic<int> gUsed{0};
uintptr_t gPageSize = 4096;  // set before the handler is installed
struct sigaction gPrevious {};
std::once_flag gInstalled;

static_assert(std::atomic<uintptr_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "the handler reads the watch list with plain lock-free loads");

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
  const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
  const int used = gUsed.load(std::memory_order_acquire);
  for (int i = 0; i < used; ++i) {
    Watch& w = gWatches[i];
    const uintptr_t end = w.end.load(std::memory_order_acquire);
    const uintptr_t begin = w.begin.load(std::memory_order_relaxed);
    if (address < begin || address >= end) continue;
    const uintptr_t from = address - address % gPageSize;
    void* zeros = ::mmap(reinterpret_cast<void*>(from), end - from, w.prot.load(std::memory_order_relaxed),
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (zeros == MAP_FAILED) break;
    w.faulted.store(true, std::memory_order_relaxed);
    bus_guard_internal::faults.fetch_add(1, std::memory_order_relaxed);
    return;
  }
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
    w.prot.store(writable ? PROT_READ | PROT_WRITE : PROT_READ, std::memory_order_relaxed);
    w.begin.store(reinterpret_cast<uintptr_t>(base), std::memory_order_relaxed);
    w.end.store(reinterpret_cast<uintptr_t>(base) + length, std::memory_order_release);
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
  w.end.store(0, std::memory_order_release);
  w.begin.store(0, std::memory_order_relaxed);
  w.taken.store(false, std::memory_order_release);
}

bool BusGuard::faulted(int id) {
  return id >= 0 && id < kMaxWatched && gWatches[id].faulted.load(std::memory_order_relaxed);
}

}  // namespace Mem
