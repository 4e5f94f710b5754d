#pragma once

#include <cstdint>

namespace carrow {

/// The priority a Task is started with. Tasks inherit the priority of the task that starts them
/// unless one is given, and `Task::priority()` reports it.
///
/// No executor of this library acts on it: the global executor, serial executors and actors all
/// run jobs in the order they were scheduled, whatever their priority. It is carried along for
/// clients (and for their logs) only. `low` is another name for `utility` and `userInitiated` for
/// `high`: each pair has one value, so the two compare equal and print alike.
enum class TaskPriority : std::uint8_t {
  background = 9,
  utility = 17,
  low = 17,
  medium = 21,
  high = 25,
  userInitiated = 25,
};

}  // namespace carrow
