#pragma once

// The moving parts of one combine-latest iteration. The state machine lives in a critical state
// and every event runs in a locked region of its own. Unlike the merge, most actions are carried
// out inside that region: resuming a continuation only queues its task, so it never runs anyone's
// code under the lock. Only the actions of `upstreamFinished` and `iteratorDeinitialized` are
// carried out after the region.

#include <coroutine>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include <carrow/runtime/async.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>
#include <carrow/sequences/detail/combine_latest_state_machine.h>
#include <carrow/sequences/detail/overloaded.h>
#include <carrow/sequences/detail/perform_action.h>
#include <carrow/sequences/managed_critical_state.h>

namespace carrow::detail {

template <class Base1, class Base2, class Base3>
class CombineLatestNextAwaiter;

/// Owns the critical state of one combine-latest iteration, starts the reading task and carries
/// out actions. Shared by the iterator's owner and the reading task; any thread may call it.
template <class Base1, class Base2, class Base3>
class CombineLatestStorage
    : public std::enable_shared_from_this<CombineLatestStorage<Base1, Base2, Base3>> {
 public:
  using StateMachine = CombineLatestStateMachine<Base1, Base2, Base3>;
  using Triple = typename StateMachine::Triple;

  CombineLatestStorage(Base1 base1, Base2 base2, std::optional<Base3> base3)
      : stateMachine_(StateMachine(std::move(base1), std::move(base2), std::move(base3))) {}
  CombineLatestStorage(const CombineLatestStorage&) = delete;
  CombineLatestStorage& operator=(const CombineLatestStorage&) = delete;

  /// The consumer's `next`; see CombineLatestNextAwaiter.
  CombineLatestNextAwaiter<Base1, Base2, Base3> next() noexcept {
    return CombineLatestNextAwaiter<Base1, Base2, Base3>(*this);
  }

  /// The consumer's task was cancelled while it waited in `next` (or before it called it).
  void cancelled() noexcept {
    stateMachine_.withLockedState([](StateMachine& machine) {
      auto action = machine.cancelled();
      perform(action);
    });
  }

  /// The iterator's last copy is gone.
  void iteratorDeinitialized() noexcept {
    auto action = stateMachine_.withLockedState(
        [](StateMachine& machine) { return machine.iteratorDeinitialized(); });
    perform(action);
  }

 private:
  friend class CombineLatestNextAwaiter<Base1, Base2, Base3>;
  using UpstreamContinuation = typename StateMachine::UpstreamContinuation;
  using ProducedElement = typename StateMachine::ProducedElement;

  // Carries an action out; the consumer receives a tuple or an error. Unlike the merge, most
  // events carry theirs out inside the locked region: resuming a continuation only schedules its
  // task, so it cannot come back for the lock.
  template <class Action>
  static void perform(Action& action) noexcept {
    auto deliver = [](typename StateMachine::ResumeContinuation& delivery) {
      delivery.downstreamContinuation.resumeWith(std::move(delivery.result));
    };
    performAction<StateMachine>(action, deliver);
  }

  void childTaskSuspended(std::size_t index, UpstreamContinuation continuation) noexcept {
    stateMachine_.withLockedState([&](StateMachine& machine) {
      auto action = machine.childTaskSuspended(index, std::move(continuation));
      perform(action);
    });
  }

  void elementProduced(ProducedElement produced) {
    stateMachine_.withLockedState([&](StateMachine& machine) {
      auto action = machine.elementProduced(std::move(produced));
      perform(action);
    });
  }

  void upstreamFinished(std::size_t index) noexcept {
    auto action = stateMachine_.withLockedState(
        [index](StateMachine& machine) { return machine.upstreamFinished(index); });
    perform(action);
  }

  void upstreamThrew(std::exception_ptr error) noexcept {
    stateMachine_.withLockedState([&](StateMachine& machine) {
      auto action = machine.upstreamThrew(std::move(error));
      perform(action);
    });
  }

  // Called inside the locked region of the consumer's `next`; it only creates the task.
  Task<void> startReadingTask(typename StateMachine::StartTask& start) {
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
    std::shared_ptr<CombineLatestStorage> storage;
    Base1 base1;
    Base2 base2;
    std::optional<Base3> base3;

    Async<void> operator()(ThrowingTaskGroup<void>& group) {
      group.addTask(child<0>(storage, std::move(base1)));
      group.addTask(child<1>(storage, std::move(base2)));
      if (base3) group.addTask(child<2>(storage, std::move(*base3)));
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

  template <std::size_t Index, class Base>
  static auto child(const std::shared_ptr<CombineLatestStorage>& storage, Base base) {
    return [storage, base = std::move(base)]() mutable {
      return readUpstream<Index>(std::move(storage), std::move(base));
    };
  }

  template <std::size_t Index, class Base>
  static Async<void> readUpstream(std::shared_ptr<CombineLatestStorage> storage, Base base) {
    auto iterator = base.makeAsyncIterator();
    CombineLatestStorage* self = storage.get();
    bool more = true;
    while (more) {
      auto askForDemand = [self](UpstreamContinuation continuation) {
        self->childTaskSuspended(Index, std::move(continuation));
      };
      co_await withUnsafeThrowingContinuation<void>(askForDemand);
      auto element = co_await iterator.next();
      more = element.has_value();
      if (more) {
        ProducedElement produced;
        std::get<Index>(produced).emplace(std::move(*element));
        self->elementProduced(std::move(produced));
      }
    }
    self->upstreamFinished(Index);
  }

  ManagedCriticalState<StateMachine> stateMachine_;
};

/// The consumer's `co_await iterator.next()`: installs its cancellation handler, then runs
/// `next(for:)` in one locked region. A tuple or an end that is ready continues the consumer
/// without a suspension. Lives in the consumer's frame: no allocation per element.
template <class Base1, class Base2, class Base3>
class CombineLatestNextAwaiter {
 public:
  using Storage = CombineLatestStorage<Base1, Base2, Base3>;
  using StateMachine = typename Storage::StateMachine;
  using Triple = typename Storage::Triple;

  explicit CombineLatestNextAwaiter(Storage& storage) noexcept : storage_(storage) {}
  CombineLatestNextAwaiter(const CombineLatestNextAwaiter&) = delete;
  CombineLatestNextAwaiter& operator=(const CombineLatestNextAwaiter&) = delete;

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
    slot_.context = &context;
    slot_.handle = handle;
    Storage& storage = storage_;
    bool suspends = true;
    storage.stateMachine_.withLockedState([&](StateMachine& machine) {
      auto action = machine.nextFor(typename StateMachine::DownstreamContinuation(&slot_));
      std::visit(
          Overloaded{
              [&](typename StateMachine::StartTask& start) {
                try {
                  machine.taskStarted(storage.startReadingTask(start),
                                      typename StateMachine::DownstreamContinuation(&slot_));
                } catch (...) {
                  (void)machine.cancelled();  // from `Initial`: finished, nothing to carry out
                  slot_.result.emplace(
                      Result<std::optional<Triple>>::failure(std::current_exception()));
                  suspends = false;
                }
              },
              [](typename StateMachine::ResumeUpstreamContinuations& demand) {
                demand.upstreamContinuation.forEach(
                    [](auto& continuation) { continuation.resume(); });
              },
              // Ready at once: fill the slot and go on without a round through the executor.
              [&](typename StateMachine::ResumeContinuation& ready) {
                slot_.result.emplace(std::move(ready.result));
                suspends = false;
              },
              [&](typename StateMachine::ResumeDownstreamContinuationWithNil&) {
                slot_.result.emplace(Result<std::optional<Triple>>::success(std::nullopt));
                suspends = false;
              },
          },
          action);
    });
    // When suspending, the consumer may already run on another thread: touch nothing but locals.
    return suspends;
  }

  std::optional<Triple> await_resume() {
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

  Storage& storage_;
  TaskContext* context_ = nullptr;
  bool registered_ = false;
  ContinuationSlot<std::optional<Triple>> slot_;
  Record record_{storage_};
};

}  // namespace carrow::detail
