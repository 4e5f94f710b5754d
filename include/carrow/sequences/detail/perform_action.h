#pragma once

// Carrying out the actions of the combinators' state machines.

#include <optional>
#include <variant>

#include <carrow/sequences/detail/overloaded.h>

namespace carrow::detail {

/// Carries out `action`, an action variant of `StateMachine` (the merge's or combine-latest's);
/// each storage decides whether that happens inside its locked region. The cases both machines
/// share are handled here; `deliver` handles the one that hands the consumer what it waited for,
/// which differs between them.
/// Composite actions resume the children first, then cancel the task, then resume the consumer.
template <class StateMachine, class Action, class Deliver>
void performAction(Action& action, Deliver deliver) noexcept {
  std::visit(
      Overloaded{
          [](typename StateMachine::None&) {},
          [](typename StateMachine::CancelTaskAndUpstreamContinuations& cancel) {
            cancelUpstreamContinuations(cancel.upstreamContinuations);
            cancel.task.cancel();
          },
          [](typename StateMachine::ResumeContinuationWithNilAndCancelTaskAndUpstreamContinuations&
                 end) {
            cancelUpstreamContinuations(end.upstreamContinuations);
            end.task.cancel();
            end.downstreamContinuation.resume(std::nullopt);
          },
          [](typename StateMachine::
                 ResumeContinuationWithErrorAndCancelTaskAndUpstreamContinuations& failure) {
            cancelUpstreamContinuations(failure.upstreamContinuations);
            failure.task.cancel();
            failure.downstreamContinuation.resumeThrowing(failure.error);
          },
          [](typename StateMachine::ResumeUpstreamContinuation& demand) {
            demand.upstreamContinuation.resume();
          },
          [](typename StateMachine::ResumeUpstreamContinuationWithError& refusal) {
            refusal.upstreamContinuation.resumeThrowing(refusal.error);
          },
          deliver,
      },
      action);
}

}  // namespace carrow::detail
