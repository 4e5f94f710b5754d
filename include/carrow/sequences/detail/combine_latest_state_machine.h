#pragma once

// The decisions of combine-latest, as a pure value: one machine for two and three upstreams (the
// third optional). Every event changes the state and returns the action the storage carries out;
// nothing here resumes, cancels or suspends anything.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <tuple>
#include <utility>
#include <variant>

#include <carrow/collections/deque.h>
#include <carrow/runtime/async_sequence.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task.h>
#include <carrow/sequences/detail/inline_list.h>
#include <carrow/sequences/detail/invariant.h>

namespace carrow::detail {

/// The runtime types combine-latest works with; tests substitute plain values.
template <class Combined>
struct CombineLatestRuntime {
  using TaskHandle = Task<void>;
  using UpstreamContinuation = UnsafeContinuation<void>;
  using DownstreamContinuation = UnsafeContinuation<std::optional<Combined>>;
};

template <class Base1, class Base2, class Base3>
using CombinedTriple = std::tuple<AsyncSequenceElement<Base1>, AsyncSequenceElement<Base2>,
                                  std::optional<AsyncSequenceElement<Base3>>>;

/// The state of one combine-latest iteration. Invariants: in `Combining` the buffer is empty and
/// no record holds a continuation; `WaitingForDemand` is entered only once a complete tuple was
/// delivered, so there every upstream that counts holds an element. Not thread-safe: the storage
/// runs every event inside its critical state.
template <class Base1, class Base2, class Base3,
          class Runtime = CombineLatestRuntime<CombinedTriple<Base1, Base2, Base3>>>
class CombineLatestStateMachine {
 public:
  using E1 = AsyncSequenceElement<Base1>;
  using E2 = AsyncSequenceElement<Base2>;
  using E3 = AsyncSequenceElement<Base3>;
  /// The combined element; in the two-upstream form the third member is always absent.
  using Triple = CombinedTriple<Base1, Base2, Base3>;
  /// What one upstream produced: exactly one member is present.
  using ProducedElement = std::tuple<std::optional<E1>, std::optional<E2>, std::optional<E3>>;
  using TaskHandle = typename Runtime::TaskHandle;
  using UpstreamContinuation = typename Runtime::UpstreamContinuation;
  using DownstreamContinuation = typename Runtime::DownstreamContinuation;
  using DownstreamResult = Result<std::optional<Triple>>;
  using UpstreamContinuations = InlineList<UpstreamContinuation, 3>;

  /// What the machine knows of one upstream.
  template <class Element>
  struct Upstream {
    std::optional<UpstreamContinuation> continuation;  // its child waits for demand
    std::optional<Element> element;                    // its latest element
    bool isFinished = false;
  };
  using Upstreams = std::tuple<Upstream<E1>, Upstream<E2>, Upstream<E3>>;

  // States.
  struct Initial {
    Base1 base1;
    Base2 base2;
    std::optional<Base3> base3;
  };
  struct WaitingForDemand {
    TaskHandle task;
    Upstreams upstreams;
    Deque<Triple> buffer;
  };
  struct Combining {
    TaskHandle task;
    Upstreams upstreams;
    DownstreamContinuation downstreamContinuation;
    Deque<Triple> buffer;
  };
  struct UpstreamsFinished {
    Deque<Triple> buffer;
  };
  struct UpstreamThrew {
    std::exception_ptr error;
  };
  struct Finished {};
  /// Kept for the shape of the table: payloads are edited in place, so no event meets it.
  struct Modifying {};
  using State = std::variant<Initial, WaitingForDemand, Combining, UpstreamsFinished, UpstreamThrew,
                             Finished, Modifying>;

  // Actions.
  struct None {};
  struct StartTask {
    Base1 base1;
    Base2 base2;
    std::optional<Base3> base3;
  };
  struct ResumeUpstreamContinuations {
    UpstreamContinuations upstreamContinuation;
  };
  struct ResumeContinuation {
    DownstreamContinuation downstreamContinuation;
    DownstreamResult result;
  };
  struct ResumeDownstreamContinuationWithNil {
    DownstreamContinuation downstreamContinuation;
  };
  struct ResumeUpstreamContinuation {
    UpstreamContinuation upstreamContinuation;
  };
  struct ResumeUpstreamContinuationWithError {
    UpstreamContinuation upstreamContinuation;
    std::exception_ptr error;
  };
  struct CancelTaskAndUpstreamContinuations {
    TaskHandle task;
    UpstreamContinuations upstreamContinuations;
  };
  struct ResumeContinuationWithNilAndCancelTaskAndUpstreamContinuations {
    DownstreamContinuation downstreamContinuation;
    TaskHandle task;
    UpstreamContinuations upstreamContinuations;
  };
  using ResumeDownstreamContinuationWithNilAndCancelTaskAndUpstreamContinuations =
      ResumeContinuationWithNilAndCancelTaskAndUpstreamContinuations;
  struct ResumeContinuationWithErrorAndCancelTaskAndUpstreamContinuations {
    DownstreamContinuation downstreamContinuation;
    std::exception_ptr error;
    TaskHandle task;
    UpstreamContinuations upstreamContinuations;
  };

  using NextAction = std::variant<StartTask, ResumeUpstreamContinuations, ResumeContinuation,
                                  ResumeDownstreamContinuationWithNil>;
  using ChildTaskSuspendedAction =
      std::variant<None, ResumeUpstreamContinuation, ResumeUpstreamContinuationWithError>;
  using ElementProducedAction = std::variant<None, ResumeContinuation>;
  using UpstreamFinishedAction =
      std::variant<None, CancelTaskAndUpstreamContinuations,
                   ResumeContinuationWithNilAndCancelTaskAndUpstreamContinuations>;
  using UpstreamThrewAction =
      std::variant<None, CancelTaskAndUpstreamContinuations,
                   ResumeContinuationWithErrorAndCancelTaskAndUpstreamContinuations>;
  using CancelledAction =
      std::variant<None, ResumeDownstreamContinuationWithNilAndCancelTaskAndUpstreamContinuations,
                   CancelTaskAndUpstreamContinuations>;
  using IteratorDeinitializedAction = std::variant<None, CancelTaskAndUpstreamContinuations>;

  /// A machine in `Initial`; two upstreams unless `base3` is given.
  CombineLatestStateMachine(Base1 base1, Base2 base2, std::optional<Base3> base3)
      : numberOfUpstreamSequences_(base3 ? 3 : 2),
        state_(Initial{std::move(base1), std::move(base2), std::move(base3)}) {}

  const State& state() const noexcept { return state_; }
  std::int64_t numberOfUpstreamSequences() const noexcept { return numberOfUpstreamSequences_; }

  /// The consumer asks for a tuple and will wait on `downstream` unless the action resumes it.
  NextAction nextFor(DownstreamContinuation downstream) {
    if (auto* initial = std::get_if<Initial>(&state_)) {
      return StartTask{std::move(initial->base1), std::move(initial->base2),
                       std::move(initial->base3)};
    }
    if (auto* waiting = std::get_if<WaitingForDemand>(&state_)) {
      if (auto triple = waiting->buffer.popFirst()) {
        return ResumeContinuation{std::move(downstream),
                                  DownstreamResult::success(std::move(triple))};
      }
      WaitingForDemand demanded = std::move(*waiting);
      UpstreamContinuations continuations = takeContinuations(demanded.upstreams);
      state_ = Combining{std::move(demanded.task), std::move(demanded.upstreams),
                         std::move(downstream), std::move(demanded.buffer)};
      return ResumeUpstreamContinuations{std::move(continuations)};
    }
    if (std::holds_alternative<Combining>(state_)) concurrentNext("CarrowPrivate/CombineLatest");
    if (auto* finished = std::get_if<UpstreamsFinished>(&state_)) {
      if (auto triple = finished->buffer.popFirst()) {
        return ResumeContinuation{std::move(downstream),
                                  DownstreamResult::success(std::move(triple))};
      }
      state_ = Finished{};
      return ResumeDownstreamContinuationWithNil{std::move(downstream)};
    }
    if (auto* threw = std::get_if<UpstreamThrew>(&state_)) {
      std::exception_ptr error = std::move(threw->error);
      state_ = Finished{};
      return ResumeContinuation{std::move(downstream), DownstreamResult::failure(std::move(error))};
    }
    if (std::holds_alternative<Finished>(state_)) {
      return ResumeDownstreamContinuationWithNil{std::move(downstream)};
    }
    sequenceInvariantBroken();
  }

  /// The reading task was created; the consumer waits on `downstream`.
  void taskStarted(TaskHandle task, DownstreamContinuation downstream) {
    if (!std::holds_alternative<Initial>(state_)) sequenceInvariantBroken();
    state_ = Combining{std::move(task), Upstreams{}, std::move(downstream), {}};
  }

  /// Upstream `index`'s child asks for demand.
  ChildTaskSuspendedAction childTaskSuspended(std::size_t index,
                                              UpstreamContinuation continuation) {
    checkIndex(index);
    if (auto* waiting = std::get_if<WaitingForDemand>(&state_)) {
      withRecord(waiting->upstreams, index, [&](auto& record) {
        if (record.continuation) sequenceInvariantBroken();
        record.continuation.emplace(std::move(continuation));
      });
      return None{};
    }
    if (std::holds_alternative<Combining>(state_)) {
      return ResumeUpstreamContinuation{std::move(continuation)};
    }
    if (std::holds_alternative<UpstreamThrew>(state_) || std::holds_alternative<Finished>(state_)) {
      return ResumeUpstreamContinuationWithError{std::move(continuation),
                                                 std::make_exception_ptr(CancellationError())};
    }
    sequenceInvariantBroken();
  }

  /// One upstream produced the one element present in `produced`.
  ElementProducedAction elementProduced(ProducedElement produced) {
    const std::size_t index = indexOf(produced);
    if (auto* waiting = std::get_if<WaitingForDemand>(&state_)) {
      store(waiting->upstreams, index, produced);
      waiting->buffer.append(tripleOf(waiting->upstreams));
      return None{};
    }
    if (auto* combining = std::get_if<Combining>(&state_)) {
      store(combining->upstreams, index, produced);
      Upstreams& records = combining->upstreams;
      const bool complete = std::get<0>(records).element && std::get<1>(records).element
                            && (std::get<2>(records).element || numberOfUpstreamSequences_ == 2);
      if (!complete) return None{};
      Combining delivered = std::move(*combining);
      Triple triple = tripleOf(delivered.upstreams);
      state_ = WaitingForDemand{std::move(delivered.task), std::move(delivered.upstreams),
                                std::move(delivered.buffer)};
      return ResumeContinuation{std::move(delivered.downstreamContinuation),
                                DownstreamResult::success(std::move(triple))};
    }
    if (std::holds_alternative<UpstreamThrew>(state_) || std::holds_alternative<Finished>(state_)) {
      return None{};  // the element is dropped
    }
    sequenceInvariantBroken();
  }

  /// Upstream `index` ended.
  UpstreamFinishedAction upstreamFinished(std::size_t index) {
    checkIndex(index);
    if (auto* waiting = std::get_if<WaitingForDemand>(&state_)) {
      withRecord(waiting->upstreams, index, [](auto& record) { record.isFinished = true; });
      if (!allEnded(waiting->upstreams)) return None{};
      WaitingForDemand ended = std::move(*waiting);
      if (ended.buffer.isEmpty()) {
        state_ = Finished{};
      } else {
        state_ = UpstreamsFinished{std::move(ended.buffer)};
      }
      return CancelTaskAndUpstreamContinuations{std::move(ended.task),
                                                takeContinuations(ended.upstreams)};
    }
    if (auto* combining = std::get_if<Combining>(&state_)) {
      bool producedNothing = false;
      withRecord(combining->upstreams, index, [&](auto& record) {
        record.isFinished = true;
        producedNothing = !record.element.has_value();
      });
      if (!producedNothing && !allEnded(combining->upstreams)) return None{};
      Combining ended = std::move(*combining);
      state_ = Finished{};
      return ResumeContinuationWithNilAndCancelTaskAndUpstreamContinuations{
          std::move(ended.downstreamContinuation), std::move(ended.task),
          takeContinuations(ended.upstreams)};
    }
    if (std::holds_alternative<UpstreamThrew>(state_) || std::holds_alternative<Finished>(state_)) {
      return None{};
    }
    sequenceInvariantBroken();
  }

  /// A child ended with `error`.
  UpstreamThrewAction upstreamThrew(std::exception_ptr error) {
    if (auto* waiting = std::get_if<WaitingForDemand>(&state_)) {
      WaitingForDemand failed = std::move(*waiting);
      state_ = UpstreamThrew{std::move(error)};  // the buffered tuples are discarded
      return CancelTaskAndUpstreamContinuations{std::move(failed.task),
                                                takeContinuations(failed.upstreams)};
    }
    if (auto* combining = std::get_if<Combining>(&state_)) {
      Combining failed = std::move(*combining);
      state_ = Finished{};
      return ResumeContinuationWithErrorAndCancelTaskAndUpstreamContinuations{
          std::move(failed.downstreamContinuation), std::move(error), std::move(failed.task),
          takeContinuations(failed.upstreams)};
    }
    if (std::holds_alternative<UpstreamsFinished>(state_)
        || std::holds_alternative<UpstreamThrew>(state_)
        || std::holds_alternative<Finished>(state_)) {
      return None{};  // a later error is ignored
    }
    sequenceInvariantBroken();
  }

  /// The consumer's task was cancelled during (or before) `next`.
  CancelledAction cancelled() {
    if (std::holds_alternative<Initial>(state_)
        || std::holds_alternative<UpstreamsFinished>(state_)) {
      state_ = Finished{};
      return None{};
    }
    if (auto* waiting = std::get_if<WaitingForDemand>(&state_)) {
      WaitingForDemand ended = std::move(*waiting);
      state_ = Finished{};
      return CancelTaskAndUpstreamContinuations{std::move(ended.task),
                                                takeContinuations(ended.upstreams)};
    }
    if (auto* combining = std::get_if<Combining>(&state_)) {
      Combining ended = std::move(*combining);
      state_ = Finished{};
      return ResumeDownstreamContinuationWithNilAndCancelTaskAndUpstreamContinuations{
          std::move(ended.downstreamContinuation), std::move(ended.task),
          takeContinuations(ended.upstreams)};
    }
    if (std::holds_alternative<UpstreamThrew>(state_) || std::holds_alternative<Finished>(state_)) {
      return None{};
    }
    sequenceInvariantBroken();
  }

  /// The last copy of the iterator was dropped.
  IteratorDeinitializedAction iteratorDeinitialized() {
    if (std::holds_alternative<Initial>(state_) || std::holds_alternative<Finished>(state_)) {
      return None{};
    }
    if (auto* waiting = std::get_if<WaitingForDemand>(&state_)) {
      WaitingForDemand ended = std::move(*waiting);
      state_ = Finished{};
      return CancelTaskAndUpstreamContinuations{std::move(ended.task),
                                                takeContinuations(ended.upstreams)};
    }
    if (std::holds_alternative<UpstreamsFinished>(state_)
        || std::holds_alternative<UpstreamThrew>(state_)) {
      state_ = Finished{};
      return None{};
    }
    sequenceInvariantBroken();
  }

 private:
  static void checkIndex(std::size_t index) {
    if (index > 2) sequenceInvariantBroken();
  }

  template <class Body>
  static void withRecord(Upstreams& upstreams, std::size_t index, Body&& body) {
    switch (index) {
      case 0:
        body(std::get<0>(upstreams));
        break;
      case 1:
        body(std::get<1>(upstreams));
        break;
      default:
        body(std::get<2>(upstreams));
        break;
    }
  }

  static std::size_t indexOf(const ProducedElement& produced) {
    const int present = int(std::get<0>(produced).has_value())
                        + int(std::get<1>(produced).has_value())
                        + int(std::get<2>(produced).has_value());
    if (present != 1) sequenceInvariantBroken();
    if (std::get<0>(produced)) return 0;
    return std::get<1>(produced) ? 1 : 2;
  }

  static void store(Upstreams& upstreams, std::size_t index, ProducedElement& produced) {
    switch (index) {
      case 0:
        std::get<0>(upstreams).element = std::move(std::get<0>(produced));
        break;
      case 1:
        std::get<1>(upstreams).element = std::move(std::get<1>(produced));
        break;
      default:
        std::get<2>(upstreams).element = std::move(std::get<2>(produced));
        break;
    }
  }

  static Triple tripleOf(const Upstreams& upstreams) {
    return Triple(*std::get<0>(upstreams).element, *std::get<1>(upstreams).element,
                  std::get<2>(upstreams).element);
  }

  bool allEnded(const Upstreams& upstreams) const {
    return std::get<0>(upstreams).isFinished && std::get<1>(upstreams).isFinished
           && (std::get<2>(upstreams).isFinished || numberOfUpstreamSequences_ == 2);
  }

  // The parked continuations, in the order base1, base2, base3, taken out of their records.
  static UpstreamContinuations takeContinuations(Upstreams& upstreams) {
    UpstreamContinuations continuations;
    auto take = [&continuations](auto& record) {
      if (record.continuation) {
        continuations.append(std::move(*record.continuation));
        record.continuation.reset();
      }
    };
    take(std::get<0>(upstreams));
    take(std::get<1>(upstreams));
    take(std::get<2>(upstreams));
    return continuations;
  }

  std::int64_t numberOfUpstreamSequences_;
  State state_;
};

}  // namespace carrow::detail
