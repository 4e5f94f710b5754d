#pragma once

#include <carrow/concurrency/atomic.h>

namespace carrow {

/// A one-shot flag: false when made, true once rung.
///
/// There is no waiting operation: code that waits for the bell reads `hasRung()`, typically in a
/// polling loop. Any thread may ring it and read it; each call takes the cell's lock once. The
/// flag may be written back to false, which re-arms it.
class Bell2 {
 public:
  Bell2() : hasRung_(false) {}

  /// Sets the flag; ringing a rung bell changes nothing.
  void ring() { hasRung_.setWrappedValue(true); }

  /// Whether the bell has rung (and was not set back since).
  bool hasRung() const { return hasRung_.wrappedValue(); }

  /// Sets the flag; false re-arms the bell.
  void setHasRung(bool hasRung) { hasRung_.setWrappedValue(hasRung); }

 private:
  Atomic<bool> hasRung_;
};

}  // namespace carrow
