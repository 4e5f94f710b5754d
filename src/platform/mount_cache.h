#pragma once

// The process's mount table, kept between calls and re-read only when the kernel reports a
// change, so that describing one volume does not cost a parse of the whole table.

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include <carrow/platform/mount_table.h>

namespace carrow::platform::detail {

/// One parsed mount table with an index by mount id. Immutable, shared between threads.
class MountSnapshot {
 public:
  explicit MountSnapshot(std::vector<MountEntry> entries);

  const std::vector<MountEntry>& entries() const noexcept { return entries_; }

  /// The mount with this id, or null.
  const MountEntry* byId(int id) const noexcept;

  /// The mount of the file system on device `major`:`minor` whose mount point is the longest
  /// prefix of `canonicalPath`; the last such mount when none is a prefix; null when no mount
  /// has that device. For kernels that do not report mount ids.
  const MountEntry* byDevice(std::uint32_t major, std::uint32_t minor,
                             const std::string& canonicalPath) const;

  /// Whether statistics of `entry` may wait on a server or an automounter: it, or a mount on
  /// the way to its mount point, is a network or automounted file system.
  bool mayBlock(const MountEntry& entry) const noexcept;

  /// Whether `entry` (one of `entries()`) is hidden by a later mount on its mount point or on a
  /// directory above it, so that its path leads to another file system.
  bool isCovered(const MountEntry& entry) const noexcept;

  /// Whether the file system of `entry` (one of `entries()`) keeps an active journal. Worked out
  /// once per snapshot: a journal is not switched on or off while its file system stays mounted.
  bool journaled(const MountEntry& entry) const;

 private:
  void markCovered();

  std::vector<MountEntry> entries_;
  std::unordered_map<int, std::size_t> byId_;
  std::vector<bool> covered_;
  // Per entry: -1 not yet known, 0 no journal, 1 an active journal.
  std::unique_ptr<std::atomic<std::int8_t>[]> journaled_;
};

/// The current mount table. Re-reads /proc/self/mountinfo only when it changed since the last
/// read (the kernel flags the open file as pollable for a priority event). Thread-safe. Throws
/// std::system_error when the table cannot be read.
std::shared_ptr<const MountSnapshot> currentMounts();

}  // namespace carrow::platform::detail
