#pragma once

// The moving parts of one merge iteration: the lock around the state machine, the reading task
// and its children, the consumer's `next`, and the code that carries the machine's actions out.
// Continuations are resumed and tasks cancelled only after the lock is released; resuming only
// queues a task, so nothing here runs a consumer's or an upstream's code under the lock.

#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>
#include <carrow/sequences/detail/merge_state_machine.h>
#include <carrow/sequences/detail/perform_action.h>
#include <carrow/sequences/lock.h>

namespace carrow::detail {

template <class Base1, class Base2, class Base3>
class MergeNextAwaiter;

/// Owns the lock and the state machine of one merge iteration, starts the reading task and
/// carries out actions. Shared by the iterator's owner and by the reading task and its children,
/// so it lives until both are gone. Every method may be called from any thread.
template <class Base1, class Base2, class Base3>
class MergeStorage : public std::enable_shared_from_this<MergeStorage<Base1, Base2, Base3>> {
 public:
  using StateMachine = MergeStateMachine<Base1, Base2, Base3>;
  using Element = typename StateMachine::Element;

  MergeStorage(Base1 base1, Base2 base2, std::optional<Base3> base3)
      : lock_(Lock::create()),
        stateMachine_(std::move(base1), std::move(base2), std::move(base3)) {}
  MergeStorage(const MergeStorage&) = delete;
  MergeStorage& operator=(const MergeStorage&) = delete;
  ~MergeStorage() { lock_.destroy(); }

  /// The consumer's `next`; see MergeNextAwaiter.
  MergeNextAwaiter<Base1, Base2, Base3> next() noexcept {
    return MergeNextAwaiter<Base1, Base2, Base3>(*this);
  }

  /// The consumer's task was cancelled while it waited in `next` (or before it called it).
  void cancelled() noexcept {
    auto action = locked([](StateMachine& machine) { return machine.cancelled(); });
    perform(action);
  }

  /// The iterator's last copy is gone.
  void iteratorDeinitialized() noexcept {
    auto action = locked([](StateMachine& machine) { return machine.iteratorDeinitialized(); });
    perform(action);
  }

 private:
  friend class MergeNextAwaiter<Base1, Base2, Base3>;
  using UpstreamContinuation = typename StateMachine::UpstreamContinuation;

  template <class Body>
  auto locked(Body body) {
    return lock_.locked([&] { return body(stateMachine_); });
  }

  // Carries an action out, always with the lock released; the consumer receives an element.
  template <class Action>
  static void perform(Action& action) noexcept {
    auto deliver = [](typename StateMachine::ResumeDownstreamContinuation& delivery) {
      delivery.downstreamContinuation.resume(
          std::optional<Element>(std::in_place, std::move(delivery.element)));
    };
    performAction<StateMachine>(action, deliver);
  }

  // A child is ready for one more element of its upstream.
  void childTaskSuspended(UpstreamContinuation continuation) noexcept {
    auto action = locked([&continuation](StateMachine& machine) {
      return machine.childTaskSuspended(std::move(continuation));
    });
    perform(action);
  }

  void elementProduced(Element element) {
    auto action = locked(
        [&element](StateMachine& machine) { return machine.elementProduced(std::move(element)); });
    perform(action);
  }

  void upstreamFinished() noexcept {
    auto action = locked([](StateMachine& machine) { return machine.upstreamFinished(); });
    perform(action);
  }

  void upstreamThrew(std::exception_ptr error) noexcept {
    auto action =
        locked([&error](StateMachine& machine) { return machine.upstreamThrew(std::move(error)); });
    perform(action);
  }

  // Starts the reading task for the upstreams of `start`. Called with the lock held: it only
  // creates the task, whose body runs later on the global executor.
  Task<void> startReadingTask(typename StateMachine::StartTaskAndSuspendDownstreamTask& start) {
    // The body lives in the task group's frame for as long as the reading task runs, so it
    // keeps the storage alive; the task's own copy of the callable is left empty.
    auto body = [reading = ReadingTask{this->shared_from_this(), std::move(start.base1),
                                       std::move(start.base2), std::move(start.base3)}]() mutable {
      return withThrowingTaskGroup<void>(std::move(reading));
    };
    return Task<void>::start(std::move(body));
  }

  // The reading task: one child per upstream, then the children's outcomes one at a time.
  struct ReadingTask {
    std::shared_ptr<MergeStorage> storage;
    Base1 base1;
    Base2 base2;
    std::optional<Base3> base3;

    Async<void> operator()(ThrowingTaskGroup<void>& group) {
      group.addTask(child(storage, std::move(base1)));
      group.addTask(child(storage, std::move(base2)));
      if (base3) group.addTask(child(storage, std::move(*base3)));
      bool more = true;
      while (more) {
        try {
          more = co_await group.next();
        } catch (...) {
          storage->upstreamThrew(std::current_exception());
        }
      }
    }
  };

  template <class Base>
  static auto child(const std::shared_ptr<MergeStorage>& storage, Base base) {
    // The child's frame holds the iterator only, not the upstream as well.
    return [storage, base = std::move(base)]() mutable {
      return readUpstream(std::move(storage), base.makeAsyncIterator());
    };
  }

  // Suspends a child until the machine grants or refuses it one more element. A refusal (the
  // merge has ended) is handed back as a value: every merge that ends refuses its waiting
  // children, and throwing it through the child, its task and the reading task would cost
  // several unwindings per iteration.
  class DemandAwaiter {
   public:
    explicit DemandAwaiter(MergeStorage& storage) noexcept : storage_(storage) {}
    DemandAwaiter(const DemandAwaiter&) = delete;
    DemandAwaiter& operator=(const DemandAwaiter&) = delete;

    bool await_ready() const noexcept { return false; }

    template <RuntimePromise Promise>
    void await_suspend(std::coroutine_handle<Promise> handle) noexcept {
      slot_.context = handle.promise().context;
      slot_.handle = handle;
      storage_.childTaskSuspended(UpstreamContinuation(&slot_));
    }

    // The refusal's error, or null when demand was granted.
    std::exception_ptr await_resume() noexcept { return slot_.result->error(); }

   private:
    MergeStorage& storage_;
    ContinuationSlot<void> slot_;
  };

  // One upstream, one element per demand: wait for demand, read, report, again. A refused child
  // reports the refusal as its upstream's error, as the reading task would have done with the
  // error thrown; the machine, which has ended, ignores it.
  template <class Iterator>
  static Async<void> readUpstream(std::shared_ptr<MergeStorage> storage, Iterator iterator) {
    MergeStorage* self = storage.get();
    bool more = true;
    while (more) {
      std::exception_ptr refusal = co_await DemandAwaiter(*self);
      if (refusal) {
        self->upstreamThrew(std::move(refusal));
        co_return;
      }
      auto element = co_await iterator.next();
      more = element.has_value();
      if (more) self->elementProduced(std::move(*element));
    }
    self->upstreamFinished();
  }

  Lock lock_;
  StateMachine stateMachine_;
};

/// The consumer's `co_await iterator.next()`. It installs its cancellation handler, then takes the
/// lock and keeps it from event `next` until the consumer is registered as waiting (`nextFor`),
/// so no element can slip in between "the buffer is empty" and "the consumer waits". An element
/// that is ready continues the consumer without a suspension. Lives in the consumer's frame: no
/// allocation per element.
template <class Base1, class Base2, class Base3>
class MergeNextAwaiter {
 public:
  using Storage = MergeStorage<Base1, Base2, Base3>;
  using Element = typename Storage::Element;
  using StateMachine = typename Storage::StateMachine;

  explicit MergeNextAwaiter(Storage& storage) noexcept : storage_(storage) {}
  MergeNextAwaiter(const MergeNextAwaiter&) = delete;
  MergeNextAwaiter& operator=(const MergeNextAwaiter&) = delete;

  bool await_ready() const noexcept { return false; }

  template <RuntimePromise Promise>
  bool await_suspend(std::coroutine_handle<Promise> handle) {
    TaskContext& context = *handle.promise().context;
    context_ = &context;
    if (context.addCancellationRecord(record_)) {
      registered_ = true;
    } else {
      storage_.cancelled();  // already cancelled: the handler runs at once, on its own
    }
    Storage& storage = storage_;
    storage.lock_.lock();
    auto action = storage.stateMachine_.next();
    if (auto* start =
            std::get_if<typename StateMachine::StartTaskAndSuspendDownstreamTask>(&action)) {
      try {
        storage.stateMachine_.taskStarted(storage.startReadingTask(*start));
      } catch (...) {
        storage.stateMachine_.cancelled();  // from `Initial`: finished, nothing to carry out
        storage.lock_.unlock();
        slot_.result.emplace(Result<std::optional<Element>>::failure(std::current_exception()));
        return false;
      }
    } else if (auto* element = std::get_if<typename StateMachine::ReturnElement>(&action)) {
      storage.lock_.unlock();
      return readyWith(std::optional<Element>(std::in_place, std::move(element->element)));
    } else if (auto* failure = std::get_if<typename StateMachine::ThrowError>(&action)) {
      storage.lock_.unlock();
      slot_.result.emplace(Result<std::optional<Element>>::failure(std::move(failure->error)));
      return false;
    } else if (std::holds_alternative<typename StateMachine::ReturnNil>(action)) {
      storage.lock_.unlock();
      return readyWith(std::nullopt);
    }
    // Suspend: register the consumer, release the lock, then hand out the demand.
    slot_.context = &context;
    slot_.handle = handle;
    auto demand =
        storage.stateMachine_.nextFor(typename StateMachine::DownstreamContinuation(&slot_));
    storage.lock_.unlock();
    // From here on the consumer may be resumed on another thread: only locals are touched.
    demand.upstreamContinuations.forEach([](auto& continuation) { continuation.resume(); });
    return true;
  }

  std::optional<Element> await_resume() {
    if (registered_) context_->removeCancellationRecord(record_);
    return std::move(*slot_.result).get();
  }

 private:
  struct Record : CancellationRecord {
    explicit Record(Storage& owner) noexcept : CancellationRecord(&Record::fire), storage(owner) {}
    static void fire(CancellationRecord& record) noexcept {
      static_cast<Record&>(record).storage.cancelled();
    }
    Storage& storage;
  };

  bool readyWith(std::optional<Element> element) {
    slot_.result.emplace(Result<std::optional<Element>>::success(std::move(element)));
    return false;
  }

  Storage& storage_;
  TaskContext* context_ = nullptr;
  bool registered_ = false;
  ContinuationSlot<std::optional<Element>> slot_;
  Record record_{storage_};
};

}  // namespace carrow::detail
