#pragma once

namespace carrow::detail {

/// True if tasks may need the calling thread in order to make progress: a thread of the global
/// executor, the thread the main actor is bound to, or any thread while it drains a serial
/// executor (an actor's operations). Blocking such a thread on a task can hang for ever.
bool isRuntimeThread() noexcept;

}  // namespace carrow::detail
