#pragma once

// The buffer between the producers and the one consumer of a continuation-fed stream. Producers
// append under a short lock; a consumer that finds the buffer empty parks its awaiter here and is
// scheduled on its own executor by the producer that fills it (never resumed inline, so producers
// may yield while holding locks of their own).

#include <atomic>
#include <coroutine>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/platform/fatal_error.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/stream_termination.h>

namespace carrow {

namespace detail {

template <class T>
class StreamStorage;

/// The consumer's `co_await` on a continuation-fed stream.
template <class T>
class StreamNextAwaiter {
 public:
  explicit StreamNextAwaiter(StreamStorage<T>& storage) noexcept : storage_(storage) {}
  StreamNextAwaiter(const StreamNextAwaiter&) = delete;
  StreamNextAwaiter& operator=(const StreamNextAwaiter&) = delete;

  bool await_ready() { return storage_.tryTake(*this); }

  template <RuntimePromise Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) {
    storage_.park(*this, *handle.promise().context, handle);
  }

  std::optional<T> await_resume() {
    if (registered_) context_->removeCancellationRecord(record_);
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
    return std::move(value_);
  }

 private:
  friend class StreamStorage<T>;

  struct Record : CancellationRecord {
    explicit Record(StreamStorage<T>& storage) noexcept
        : CancellationRecord(&Record::fire), storage(storage) {}
    static void fire(CancellationRecord& record) noexcept {
      static_cast<Record&>(record).storage.consumerGone(false);
    }
    StreamStorage<T>& storage;
  };

  void resume() noexcept { context_->schedule(handle_); }

  StreamStorage<T>& storage_;
  std::optional<T> value_;
  std::exception_ptr error_;
  TaskContext* context_ = nullptr;
  std::coroutine_handle<> handle_;
  bool registered_ = false;
  Record record_{storage_};
};

template <class T>
class StreamStorage {
 public:
  using Awaiter = StreamNextAwaiter<T>;

  StreamStorage() = default;
  StreamStorage(const StreamStorage&) = delete;
  StreamStorage& operator=(const StreamStorage&) = delete;

  StreamYieldResult yield(T value) {
    Awaiter* waiter = nullptr;
    {
      std::lock_guard locked(lock_);
      if (terminal_) return StreamYieldResult::terminated;
      if (waiter_ == nullptr) {
        buffer_.push_back(std::move(value));
        return StreamYieldResult::enqueued;
      }
      waiter = std::exchange(waiter_, nullptr);
    }
    // The waiter is ours alone now: its task stays suspended until we schedule it.
    try {
      waiter->value_.emplace(std::move(value));
    } catch (...) {
      waiter->error_ = std::current_exception();
    }
    waiter->resume();
    return StreamYieldResult::enqueued;
  }

  void finish(std::exception_ptr error) {
    std::function<void(StreamTermination)> handler;
    Awaiter* waiter = nullptr;
    {
      std::lock_guard locked(lock_);
      if (terminal_) return;
      terminal_ = true;
      termination_ = StreamTermination::finished(error);
      handler = std::move(onTermination_);
      // A waiting consumer means the buffer is empty: it gets the end (or the error) now.
      if (waiter_ != nullptr) {
        waiter = std::exchange(waiter_, nullptr);
        waiter->error_ = std::move(error);
      } else {
        error_ = std::move(error);
      }
    }
    if (handler) handler(StreamTermination::finished(termination_.error()));
    if (waiter != nullptr) waiter->resume();
  }

  /// The consumer went away (iterator and stream dropped) or its task was cancelled while it
  /// read: the stream ends, buffered elements are dropped and the consumer reads the end.
  /// `consumerSide` says the caller is the consumer itself (not a canceller on another thread),
  /// so it may also drop the batch of elements the consumer had already taken over.
  void consumerGone(bool consumerSide) noexcept {
    std::deque<T> droppedBatch;  // everything dropped is destroyed after the lock is released
    if (consumerSide) droppedBatch.swap(batch_);
    std::function<void(StreamTermination)> handler;
    std::deque<T> dropped;
    Awaiter* waiter = nullptr;
    {
      std::lock_guard locked(lock_);
      if (consumerGone_) return;
      consumerGone_ = true;
      gone_.store(true, std::memory_order_release);
      dropped.swap(buffer_);
      error_ = nullptr;
      if (!terminal_) {
        terminal_ = true;
        termination_ = StreamTermination::cancelled();
        handler = std::move(onTermination_);
      }
      waiter = std::exchange(waiter_, nullptr);
    }
    if (handler) handler(StreamTermination::cancelled());
    if (waiter != nullptr) waiter->resume();
  }

  void setOnTermination(std::function<void(StreamTermination)> handler) {
    std::optional<StreamTermination> ended;
    {
      std::lock_guard locked(lock_);
      if (!terminal_) {
        std::swap(onTermination_, handler);  // a replaced handler is destroyed unlocked, unrun
      } else {
        ended = termination_;
      }
    }
    if (ended && handler) handler(*ended);  // too late to wait: it learns the ending at once
  }

  /// Consumer side, before suspending: true if `next` has its outcome without waiting.
  bool tryTake(Awaiter& awaiter) {
    TaskContext* context = currentTaskContext();
    if (context != nullptr && context->isCancelled()) {
      consumerGone(true);
      return true;
    }
    if (gone_.load(std::memory_order_acquire)) {
      batch_.clear();  // ended by a canceller, which leaves the consumer's batch to the consumer
      return true;
    }
    if (!batch_.empty()) {
      awaiter.value_.emplace(std::move(batch_.front()));
      batch_.pop_front();
      return true;
    }
    std::lock_guard locked(lock_);
    return takeLocked(awaiter);
  }

  /// Consumer side: parks `awaiter` until a producer acts, or resumes it at once (through its
  /// executor) when something arrived since `tryTake`.
  void park(Awaiter& awaiter, TaskContext& context, std::coroutine_handle<> handle) {
    awaiter.context_ = &context;
    awaiter.handle_ = handle;
    if (!context.addCancellationRecord(awaiter.record_)) {
      consumerGone(true);
      context.schedule(handle);
      return;
    }
    awaiter.registered_ = true;
    try {
      std::lock_guard locked(lock_);
      if (!takeLocked(awaiter)) {
        if (waiter_ != nullptr) {
          fatalError("CarrowPrivate/AsyncStream", __LINE__,
                     "attempt to await next() on more than one task");
        }
        waiter_ = &awaiter;  // published: from here on a producer or canceller resumes it
        return;
      }
    } catch (...) {
      // Taking the element threw (its move constructor): nothing was published, so the error
      // can leave through the await after the cancellation record is gone.
      context.removeCancellationRecord(awaiter.record_);
      awaiter.registered_ = false;
      throw;
    }
    context.schedule(handle);
  }

 private:
  // Called by the consumer, whose batch is empty here.
  bool takeLocked(Awaiter& awaiter) {
    if (consumerGone_) return true;
    if (!buffer_.empty()) {
      // Take over everything buffered at once: the consumer then reads the batch without the
      // lock, and producers find the lock free more often.
      batch_.swap(buffer_);
      awaiter.value_.emplace(std::move(batch_.front()));
      batch_.pop_front();
      return true;
    }
    if (!terminal_) return false;
    awaiter.error_ = std::exchange(error_, nullptr);  // delivered once; the end after that
    return true;
  }

  CRUnfairLock lock_;
  std::deque<T> buffer_;           // yielded, not yet taken over by the consumer
  std::deque<T> batch_;            // taken over; touched by the consumer only, without the lock
  std::atomic<bool> gone_{false};  // consumerGone_, readable without the lock
  bool terminal_ = false;          // no more elements will be accepted
  bool consumerGone_ = false;      // every read answers the end
  std::exception_ptr error_;       // the finishing error, until the consumer has read it
  StreamTermination termination_ = StreamTermination::cancelled();
  std::function<void(StreamTermination)> onTermination_;
  Awaiter* waiter_ = nullptr;
};

}  // namespace detail
}  // namespace carrow
