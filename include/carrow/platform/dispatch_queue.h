#pragma once

// A Linux stand-in for a serial dispatch queue: one thread of its own runs the submitted blocks
// one at a time, in submission order. A macOS build maps this class to a serial dispatch_queue_t.

#include <memory>
#include <string>
#include <utility>

namespace carrow::platform {

/// A serial queue with a thread of its own, for blocking work that must not occupy the threads
/// of the task runtime.
///
/// `async(block)` may be called from any thread; blocks run on the queue's thread in the order
/// they were submitted, never on the submitting thread. A block must not throw (the process
/// stops if one does). Destroying the queue returns at once, even from one of its own blocks:
/// its thread runs the blocks already submitted, then ends.
class DispatchQueue {
 public:
  /// A new queue and its thread; `label` names the thread (the first 15 bytes) for debuggers.
  explicit DispatchQueue(std::string label);
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  ~DispatchQueue();

  /// Submits `block` (a callable taking no arguments, which may be move-only); returns at once.
  template <class Block>
  void async(Block block) {
    submit(std::make_unique<BlockBox<Block>>(std::move(block)));
  }

  /// The label given at creation.
  const std::string& label() const noexcept { return label_; }

  /// True while the calling thread is this queue's thread.
  bool isCurrent() const noexcept;

 private:
  struct Work {
    virtual ~Work() = default;
    virtual void run() = 0;
  };
  template <class Block>
  struct BlockBox final : Work {
    explicit BlockBox(Block&& block) : block(std::move(block)) {}
    void run() override { block(); }
    Block block;
  };
  struct State;

  void submit(std::unique_ptr<Work> work);

  std::string label_;
  std::shared_ptr<State> state_;
};

}  // namespace carrow::platform
