#include "mroute/runtime/loop/dir_watch.h"

#include <sys/inotify.h>

#include <cerrno>
#include <cstring>

#include "mroute/runtime/error.h"

namespace Mroute::Loop {
namespace {

constexpr uint32_t kMask = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_MODIFY | IN_DELETE_SELF |
                           IN_MOVE_SELF | IN_ONLYDIR;

// Room for many events; the kernel never splits one event across reads.
constexpr size_t kBufSize = 16 * (sizeof(inotify_event) + NAME_MAX + 1);

}  // namespace

const char* dirEventName(DirEvent e) {
  switch (e) {
    case DirEvent::created:
      return "created";
    case DirEvent::deleted:
      return "deleted";
    case DirEvent::modified:
      return "modified";
    case DirEvent::dirGone:
      return "dirGone";
    case DirEvent::overflow:
      return "overflow";
  }
  return "unknown";
}

DirWatch::DirWatch(EventLoop& loop, const std::string& path, Callback cb)
    : path_(path), state_(std::make_shared<State>()) {
  state_->sys = &loop.sys();
  state_->cb = std::move(cb);
  state_->fd = state_->sys->inotifyCreate();
  if (state_->fd < 0) throwErrno("inotify_init1");
  try {
    if (state_->sys->inotifyAddWatch(state_->fd, path.c_str(), kMask) < 0) {
      throwErrno("inotify_add_watch(" + path + ")");
    }
    watch_ = std::make_unique<FdWatch>(loop, state_->fd);
  } catch (...) {
    state_->sys->close(state_->fd);
    throw;
  }
  watch_->onReadableIs([state = state_] { drain(state); });
}

DirWatch::~DirWatch() {
  watch_.reset();
  state_->sys->close(state_->fd);
  state_->fd = -1;
}

void DirWatch::drain(const std::shared_ptr<State>& state) {
  alignas(inotify_event) char buf[kBufSize];
  while (state->fd >= 0) {
    ssize_t n = state->sys->read(state->fd, buf, sizeof buf);
    if (n <= 0) return;  // EAGAIN: drained
    size_t off = 0;
    size_t len = static_cast<size_t>(n);
    while (off + sizeof(inotify_event) <= len && state->fd >= 0) {
      inotify_event ev;
      std::memcpy(&ev, buf + off, sizeof ev);
      size_t next = off + sizeof(inotify_event) + ev.len;
      if (next > len) return;  // truncated record: cannot happen with a whole-event read
      std::string_view name;
      if (ev.len > 0)
        name = std::string_view(buf + off + sizeof(inotify_event),
                                strnlen(buf + off + sizeof(inotify_event), ev.len));
      off = next;
      if (ev.mask & IN_Q_OVERFLOW) {
        state->cb(DirEvent::overflow, {});
      } else if (ev.mask & (IN_CREATE | IN_MOVED_TO)) {
        state->cb(DirEvent::created, name);
      } else if (ev.mask & (IN_DELETE | IN_MOVED_FROM)) {
        state->cb(DirEvent::deleted, name);
      } else if (ev.mask & IN_MODIFY) {
        state->cb(DirEvent::modified, name);
      } else if (ev.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
        state->cb(DirEvent::dirGone, {});
      }
    }
  }
}

}  // namespace Mroute::Loop
