#pragma once

// The decisions of the merge combinator, as a pure value. Every event changes the state and
// returns an action that names the continuations to resume and the task to cancel; the storage
// (merge_storage.h) runs the events under its lock and carries the actions out. Nothing here
// resumes, cancels or suspends anything, so the whole table can be driven without threads.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <utility>
#include <variant>

#include <carrow/collections/deque.h>
#include <carrow/runtime/async_sequence.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/task.h>
#include <carrow/sequences/detail/inline_list.h>
#include <carrow/sequences/detail/invariant.h>

namespace carrow::detail {

/// The runtime types a merge works with: the reading task, a child's demand continuation and the
/// consumer's continuation. Tests substitute plain values to drive the machine on its own.
template <class Element>
struct MergeRuntime {
  using TaskHandle = Task<void>;
  using UpstreamContinuation = UnsafeContinuation<void>;
  using DownstreamContinuation = UnsafeContinuation<std::optional<Element>>;
};

/// The state of one merge iteration over two or three upstreams (the third is optional).
///
/// Invariants: in `Merging`, a stored downstream continuation means the buffer is empty;
/// `upstreamsFinished` never exceeds `numberOfUpstreamSequences`; each stored continuation is
/// resumed exactly once, by whoever carries out the action that removed it from the state.
/// Not thread-safe: the storage calls every event with its lock held.
template <class Base1, class Base2, class Base3,
          class Runtime = MergeRuntime<AsyncSequenceElement<Base1>>>
class MergeStateMachine {
 public:
  using Element = AsyncSequenceElement<Base1>;
  using TaskHandle = typename Runtime::TaskHandle;
  using UpstreamContinuation = typename Runtime::UpstreamContinuation;
  using DownstreamContinuation = typename Runtime::DownstreamContinuation;
  using UpstreamContinuations = InlineList<UpstreamContinuation, 3>;

  // States.
  struct Initial {
    Base1 base1;
    Base2 base2;
    std::optional<Base3> base3;
  };
  struct Merging {
    TaskHandle task;
    Deque<Element> buffer;
    UpstreamContinuations upstreamContinuations;
    std::int64_t upstreamsFinished = 0;
    std::optional<DownstreamContinuation> downstreamContinuation;
  };
  struct UpstreamFailure {
    Deque<Element> buffer;
    std::exception_ptr error;
  };
  struct Finished {};
  /// Kept for the shape of the table: transitions here edit payloads in place, so no event ever
  /// meets it, and one that did would stop.
  struct Modifying {};
  using State = std::variant<Initial, Merging, UpstreamFailure, Finished, Modifying>;

  // Action cases shared by several events.
  struct None {};
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

  // Actions of `next`.
  struct StartTaskAndSuspendDownstreamTask {
    Base1 base1;
    Base2 base2;
    std::optional<Base3> base3;
  };
  struct ReturnElement {
    Element element;
  };
  struct ThrowError {
    std::exception_ptr error;
  };
  struct ReturnNil {};
  struct SuspendDownstreamTask {};
  using NextAction = std::variant<StartTaskAndSuspendDownstreamTask, ReturnElement, ThrowError,
                                  ReturnNil, SuspendDownstreamTask>;

  // Action of `next(for:)`.
  struct ResumeUpstreamContinuations {
    UpstreamContinuations upstreamContinuations;
  };
  using NextForAction = ResumeUpstreamContinuations;

  // Actions of `childTaskSuspended`.
  struct ResumeUpstreamContinuation {
    UpstreamContinuation upstreamContinuation;
  };
  struct ResumeUpstreamContinuationWithError {
    UpstreamContinuation upstreamContinuation;
    std::exception_ptr error;
  };
  using ChildTaskSuspendedAction =
      std::variant<None, ResumeUpstreamContinuation, ResumeUpstreamContinuationWithError>;

  // Action of `elementProduced`.
  struct ResumeDownstreamContinuation {
    DownstreamContinuation downstreamContinuation;
    Element element;
  };
  using ElementProducedAction = std::variant<None, ResumeDownstreamContinuation>;

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
  MergeStateMachine(Base1 base1, Base2 base2, std::optional<Base3> base3)
      : state_(Initial{std::move(base1), std::move(base2), std::move(base3)}),
        numberOfUpstreamSequences_(state_ref<Initial>().base3 ? 3 : 2) {}

  const State& state() const noexcept { return state_; }
  std::int64_t numberOfUpstreamSequences() const noexcept { return numberOfUpstreamSequences_; }

  /// The consumer asks for an element. In `Initial` the upstreams are handed out for the reading
  /// task (the state stays `Initial` until `taskStarted`). A second `next` while the consumer is
  /// already waiting stops the process with a message.
  NextAction next() {
    if (auto* initial = std::get_if<Initial>(&state_)) {
      return StartTaskAndSuspendDownstreamTask{std::move(initial->base1), std::move(initial->base2),
                                               std::move(initial->base3)};
    }
    if (auto* merging = std::get_if<Merging>(&state_)) {
      if (merging->downstreamContinuation) concurrentNext("CarrowPrivate/Merge");
      if (auto element = merging->buffer.popFirst()) return ReturnElement{std::move(*element)};
      if (merging->upstreamsFinished == numberOfUpstreamSequences_) {
        // Every upstream ended while nobody waited and the buffer is now drained: nothing can
        // resume a waiting consumer any more, so this is the end.
        state_ = Finished{};
        return ReturnNil{};
      }
      return SuspendDownstreamTask{};
    }
    if (auto* failure = std::get_if<UpstreamFailure>(&state_)) {
      if (auto element = failure->buffer.popFirst()) return ReturnElement{std::move(*element)};
      std::exception_ptr error = std::move(failure->error);
      state_ = Finished{};
      return ThrowError{std::move(error)};
    }
    if (std::holds_alternative<Finished>(state_)) return ReturnNil{};
    sequenceInvariantBroken();
  }

  /// The consumer is about to suspend on `downstream`; the children waiting for demand get it.
  NextForAction nextFor(DownstreamContinuation downstream) {
    auto* merging = std::get_if<Merging>(&state_);
    if (merging == nullptr || merging->downstreamContinuation) sequenceInvariantBroken();
    merging->downstreamContinuation.emplace(std::move(downstream));
    return ResumeUpstreamContinuations{std::move(merging->upstreamContinuations)};
  }

  /// The reading task was created for the upstreams `next` handed out.
  void taskStarted(TaskHandle task) {
    if (!std::holds_alternative<Initial>(state_)) sequenceInvariantBroken();
    state_ = Merging{std::move(task), {}, {}, 0, std::nullopt};
  }

  /// A child asks for demand before reading one more element of its upstream.
  ChildTaskSuspendedAction childTaskSuspended(UpstreamContinuation upstream) {
    if (auto* merging = std::get_if<Merging>(&state_)) {
      if (merging->downstreamContinuation) return ResumeUpstreamContinuation{std::move(upstream)};
      merging->upstreamContinuations.append(std::move(upstream));
      return None{};
    }
    if (std::holds_alternative<UpstreamFailure>(state_)
        || std::holds_alternative<Finished>(state_)) {
      return ResumeUpstreamContinuationWithError{std::move(upstream),
                                                 std::make_exception_ptr(CancellationError())};
    }
    sequenceInvariantBroken();
  }

  /// A child read `element` from its upstream.
  ElementProducedAction elementProduced(Element element) {
    if (auto* merging = std::get_if<Merging>(&state_)) {
      if (merging->downstreamContinuation) {
        if (!merging->buffer.isEmpty()) sequenceInvariantBroken();
        DownstreamContinuation downstream = std::move(*merging->downstreamContinuation);
        merging->downstreamContinuation.reset();
        return ResumeDownstreamContinuation{std::move(downstream), std::move(element)};
      }
      merging->buffer.append(std::move(element));
      return None{};
    }
    if (std::holds_alternative<UpstreamFailure>(state_)
        || std::holds_alternative<Finished>(state_)) {
      return None{};  // the element is dropped
    }
    sequenceInvariantBroken();
  }

  /// One upstream ended.
  UpstreamFinishedAction upstreamFinished() {
    if (auto* merging = std::get_if<Merging>(&state_)) {
      const std::int64_t finished = merging->upstreamsFinished + 1;
      if (finished > numberOfUpstreamSequences_) sequenceInvariantBroken();
      merging->upstreamsFinished = finished;
      if (finished < numberOfUpstreamSequences_) return None{};
      if (merging->downstreamContinuation) {
        if (!merging->buffer.isEmpty()) sequenceInvariantBroken();
        Merging ended = std::move(*merging);
        state_ = Finished{};
        return ResumeContinuationWithNilAndCancelTaskAndUpstreamContinuations{
            std::move(*ended.downstreamContinuation), std::move(ended.task),
            std::move(ended.upstreamContinuations)};
      }
      // Stays `Merging`: the consumer still reads the buffer, then the end (see `next`).
      return CancelTaskAndUpstreamContinuations{merging->task,
                                                std::move(merging->upstreamContinuations)};
    }
    if (std::holds_alternative<UpstreamFailure>(state_)
        || std::holds_alternative<Finished>(state_)) {
      return None{};
    }
    sequenceInvariantBroken();
  }

  /// A child ended with `error` (its upstream threw, or it was stopped).
  UpstreamThrewAction upstreamThrew(std::exception_ptr error) {
    if (auto* merging = std::get_if<Merging>(&state_)) {
      Merging failed = std::move(*merging);
      if (failed.downstreamContinuation) {
        if (!failed.buffer.isEmpty()) sequenceInvariantBroken();
        state_ = Finished{};
        return ResumeContinuationWithErrorAndCancelTaskAndUpstreamContinuations{
            std::move(*failed.downstreamContinuation), std::move(error), std::move(failed.task),
            std::move(failed.upstreamContinuations)};
      }
      state_ = UpstreamFailure{std::move(failed.buffer), std::move(error)};
      return CancelTaskAndUpstreamContinuations{std::move(failed.task),
                                                std::move(failed.upstreamContinuations)};
    }
    if (std::holds_alternative<UpstreamFailure>(state_)
        || std::holds_alternative<Finished>(state_)) {
      return None{};  // the first error stays
    }
    sequenceInvariantBroken();
  }

  /// The consumer's task was cancelled during (or before) `next`.
  CancelledAction cancelled() {
    if (std::holds_alternative<Initial>(state_) || std::holds_alternative<UpstreamFailure>(state_)
        || std::holds_alternative<Finished>(state_)) {
      state_ = Finished{};
      return None{};
    }
    if (auto* merging = std::get_if<Merging>(&state_)) {
      Merging ended = std::move(*merging);
      state_ = Finished{};
      if (ended.downstreamContinuation) {
        return ResumeDownstreamContinuationWithNilAndCancelTaskAndUpstreamContinuations{
            std::move(*ended.downstreamContinuation), std::move(ended.task),
            std::move(ended.upstreamContinuations)};
      }
      return CancelTaskAndUpstreamContinuations{std::move(ended.task),
                                                std::move(ended.upstreamContinuations)};
    }
    sequenceInvariantBroken();
  }

  /// The last copy of the iterator was dropped.
  IteratorDeinitializedAction iteratorDeinitialized() {
    if (std::holds_alternative<Initial>(state_) || std::holds_alternative<Finished>(state_)) {
      return None{};
    }
    if (std::holds_alternative<UpstreamFailure>(state_)) {
      state_ = Finished{};
      return None{};
    }
    if (auto* merging = std::get_if<Merging>(&state_)) {
      if (merging->downstreamContinuation) sequenceInvariantBroken();
      Merging ended = std::move(*merging);
      state_ = Finished{};
      return CancelTaskAndUpstreamContinuations{std::move(ended.task),
                                                std::move(ended.upstreamContinuations)};
    }
    sequenceInvariantBroken();
  }

 private:
  template <class S>
  S& state_ref() noexcept {
    return std::get<S>(state_);
  }

  State state_;
  std::int64_t numberOfUpstreamSequences_;
};

}  // namespace carrow::detail
