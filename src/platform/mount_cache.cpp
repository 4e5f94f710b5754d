#include "mount_cache.h"

#include <atomic>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <string_view>
#include <unistd.h>

#include <carrow/concurrency/unfair_lock.h>

#include "volume_traits.h"

namespace carrow::platform::detail {

MountSnapshot::MountSnapshot(std::vector<MountEntry> entries)
    : entries_(std::move(entries)),
      journaled_(std::make_unique<std::atomic<std::int8_t>[]>(entries_.size())) {
  for (std::size_t i = 0; i < entries_.size(); ++i) journaled_[i].store(-1);
  byId_.reserve(entries_.size());
  // A later line for the same id cannot occur in a kernel table; keep the first if a file has it.
  for (std::size_t i = 0; i < entries_.size(); ++i) byId_.emplace(entries_[i].id, i);

  markCovered();
}

namespace {

bool isProperAncestor(std::string_view directory, std::string_view path) {
  if (directory == "/") return path.size() > 1 && path.front() == '/';
  return path.size() > directory.size() && path.starts_with(directory)
         && path[directory.size()] == '/';
}

}  // namespace

void MountSnapshot::markCovered() {
  // A mount is hidden by a mount stacked on it (same mount point, mounted on it), or by a mount
  // on one of its ancestor mounts at a directory above the one the path continues through.
  std::unordered_map<int, std::vector<std::size_t>> children;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].parentId != entries_[i].id) children[entries_[i].parentId].push_back(i);
  }
  auto childrenOf = [&](int id) -> const std::vector<std::size_t>* {
    auto found = children.find(id);
    return found == children.end() ? nullptr : &found->second;
  };
  covered_.assign(entries_.size(), false);
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    const MountEntry& entry = entries_[i];
    bool covered = false;
    if (const auto* above = childrenOf(entry.id)) {
      for (std::size_t c : *above) covered = covered || entries_[c].mountPoint == entry.mountPoint;
    }
    const MountEntry* below = &entry;
    const MountEntry* ancestor = byId(entry.parentId);
    // The depth bound guards against a cycle of parent ids in a damaged table.
    for (std::size_t depth = 0;
         !covered && ancestor != nullptr && ancestor != below && depth <= entries_.size();
         ++depth) {
      if (const auto* siblings = childrenOf(ancestor->id)) {
        for (std::size_t c : *siblings) {
          if (&entries_[c] != below
              && isProperAncestor(entries_[c].mountPoint, below->mountPoint)) {
            covered = true;
          }
        }
      }
      below = ancestor;
      ancestor = ancestor->parentId == ancestor->id ? nullptr : byId(ancestor->parentId);
    }
    covered_[i] = covered;
  }
}

bool MountSnapshot::isCovered(const MountEntry& entry) const noexcept {
  return covered_[static_cast<std::size_t>(&entry - entries_.data())];
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

bool MountSnapshot::journaled(const MountEntry& entry) const {
  auto index = static_cast<std::size_t>(&entry - entries_.data());
  std::int8_t known = journaled_[index].load(std::memory_order_relaxed);
  if (known < 0) {
    // Two threads may both work it out; they store the same answer.
    known = journalActive(entry) ? 1 : 0;
    journaled_[index].store(known, std::memory_order_relaxed);
  }
  return known == 1;
}

namespace {

// Counts forks in the child: a child must open its own copy of the table's file, since polling
// the one it shares with its parent would clear the parent's change mark.
std::atomic<std::uint64_t> forkGeneration{0};

void afterForkInChild() {
  forkGeneration.fetch_add(1, std::memory_order_relaxed);
}

struct Cache {
  CRUnfairLock lock;
  int fd = -1;  // an open /proc/self/mountinfo whose poll state tracks our last read
  std::uint64_t generation = ~std::uint64_t{0};  // the fork generation that opened `fd`
  std::shared_ptr<const MountSnapshot> snapshot;
};

Cache& cache() {
  static Cache* instance = [] {
    pthread_atfork(nullptr, nullptr, afterForkInChild);
    return new Cache();  // Never destroyed: callers may run during exit.
  }();
  return *instance;
}

}  // namespace

std::shared_ptr<const MountSnapshot> currentMounts() {
  Cache& state = cache();
  std::lock_guard guard(state.lock);
  std::uint64_t generation = forkGeneration.load(std::memory_order_relaxed);
  if (state.generation != generation) {
    if (state.fd >= 0) close(state.fd);
    state.fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    state.generation = generation;
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
