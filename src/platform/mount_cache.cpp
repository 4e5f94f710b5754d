#include "mount_cache.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <carrow/platform/unfair_lock.h>

namespace carrow::platform::detail {

MountSnapshot::MountSnapshot(std::vector<MountEntry> entries) : entries_(std::move(entries)) {
  byId_.reserve(entries_.size());
  // A later line for the same id cannot occur in a kernel table; keep the first if a file has it.
  for (std::size_t i = 0; i < entries_.size(); ++i) byId_.emplace(entries_[i].id, i);
}

const MountEntry* MountSnapshot::byId(int id) const noexcept {
  auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : &entries_[found->second];
}

const MountEntry* MountSnapshot::byDevice(std::uint32_t major, std::uint32_t minor,
                                          const std::string& canonicalPath) const {
  const MountEntry* best = nullptr;
  std::size_t bestLength = 0;
  const MountEntry* last = nullptr;
  for (const auto& entry : entries_) {
    if (entry.deviceMajor != major || entry.deviceMinor != minor) continue;
    last = &entry;
    const std::string& point = entry.mountPoint;
    bool isPrefix = canonicalPath.compare(0, point.size(), point) == 0
                    && (point == "/" || canonicalPath.size() == point.size()
                        || canonicalPath[point.size()] == '/');
    // ">=" prefers the later of two mounts on the same point: it is the one on top.
    if (isPrefix && point.size() >= bestLength) {
      best = &entry;
      bestLength = point.size();
    }
  }
  return best != nullptr ? best : last;
}

bool MountSnapshot::mayBlock(const MountEntry& entry) const noexcept {
  const MountEntry* current = &entry;
  // The depth bound guards against a cycle of parent ids in a damaged table.
  for (std::size_t depth = 0; current != nullptr && depth <= entries_.size(); ++depth) {
    if (current->isNetwork || current->isAutomount) return true;
    if (current->parentId == current->id) break;
    current = byId(current->parentId);
  }
  return false;
}

namespace {

struct Cache {
  os_unfair_lock lock = OS_UNFAIR_LOCK_INIT;
  int fd = -1;     // an open /proc/self/mountinfo whose poll state tracks our last read
  pid_t pid = -1;  // the process that opened `fd`; a forked child must not poll its parent's file
  std::shared_ptr<const MountSnapshot> snapshot;
};

Cache& cache() {
  static Cache* instance = new Cache();  // Never destroyed: callers may run during exit.
  return *instance;
}

class Guard {
 public:
  explicit Guard(os_unfair_lock& lock) : lock_(lock) { os_unfair_lock_lock(&lock_); }
  ~Guard() { os_unfair_lock_unlock(&lock_); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  os_unfair_lock& lock_;
};

}  // namespace

std::shared_ptr<const MountSnapshot> currentMounts() {
  Cache& state = cache();
  Guard guard(state.lock);
  pid_t self = getpid();
  if (state.pid != self) {
    if (state.fd >= 0) close(state.fd);
    state.fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    state.pid = self;
    state.snapshot.reset();
  }
  bool stale = state.snapshot == nullptr || state.fd < 0;
  if (!stale) {
    // The poll both reports and clears the change mark, so it must come before the re-read:
    // a change during the read is then reported by the next call.
    pollfd watch{state.fd, POLLPRI, 0};
    stale = poll(&watch, 1, 0) != 0;
  }
  if (stale) {
    state.snapshot.reset();
    state.snapshot = std::make_shared<const MountSnapshot>(readMountTable());
  }
  return state.snapshot;
}

}  // namespace carrow::platform::detail
