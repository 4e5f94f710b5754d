#pragma once

#include <cstdint>

namespace carrow {

/// The priority a Task is started with. Tasks inherit the priority of the task that starts them
/// unless one is given. The global executor records it and hands it on; it runs jobs in the order
/// they were scheduled, so a priority is a hint for clients (and for logs), not a guarantee.
enum class TaskPriority : std::uint8_t {
  background = 9,
  utility = 17,
  low = 17,
  medium = 21,
  high = 25,
  userInitiated = 25,
};

}  // namespace carrow
