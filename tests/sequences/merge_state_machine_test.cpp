// Drives the merge's state machine directly, one event per test, through the rows its callers
// can reach. Tasks and continuations are plain numbered values, so each test can see which one an
// action hands back.

#include <functional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/detail/merge_state_machine.h>

namespace carrow {
namespace {

struct FakeTask {
  int id;
};
struct FakeUpstream {
  int id;
};
struct FakeDownstream {
  int id;
};
struct FakeRuntime {
  using TaskHandle = FakeTask;
  using UpstreamContinuation = FakeUpstream;
  using DownstreamContinuation = FakeDownstream;
};

using Ints = AsyncSyncSequence<std::vector<int>>;
using Machine = detail::MergeStateMachine<Ints, Ints, Ints, FakeRuntime>;
using State = Machine::State;

enum StateKind { initial, merging, upstreamFailure, finished };

Machine fresh(bool threeUpstreams = false) {
  std::optional<Ints> third;
  if (threeUpstreams) third.emplace(std::vector<int>{});
  return Machine(Ints({1}), Ints({2}), third);
}

// `Merging` with the reading task 1, `parked` children waiting for demand (continuations 1...),
// `buffered` elements (10, 11, ...) and `ended` upstreams finished; a consumer waiting on
// continuation 7 if `waiting`.
Machine mergingWith(int parked, int buffered, int ended, bool waiting, bool three = false) {
  Machine machine = fresh(three);
  (void)machine.next();
  machine.taskStarted(FakeTask{1});
  for (int i = 0; i < buffered; ++i) (void)machine.elementProduced(10 + i);
  for (int i = 0; i < ended; ++i) (void)machine.upstreamFinished();
  if (waiting) (void)machine.nextFor(FakeDownstream{7});
  for (int i = 0; i < parked; ++i) (void)machine.childTaskSuspended(FakeUpstream{1 + i});
  return machine;
}

Machine failedWith(int buffered) {
  Machine machine = mergingWith(0, buffered, 0, false);
  (void)machine.upstreamThrew(std::make_exception_ptr(std::runtime_error("x")));
  return machine;
}

Machine finishedMachine() {
  Machine machine = fresh();
  (void)machine.cancelled();
  return machine;
}

const Machine::Merging& mergingOf(const Machine& machine) {
  return std::get<Machine::Merging>(machine.state());
}

struct Row {
  std::string name;
  std::function<Machine()> setup;
  StateKind expectedState;
  std::size_t expectedAction;  // index in the event's action variant
};

template <class Event>
void runRows(const std::vector<Row>& rows, Event event) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Machine machine = row.setup();
    const std::size_t action = event(machine);
    EXPECT_EQ(static_cast<int>(machine.state().index()), row.expectedState);
    EXPECT_EQ(action, row.expectedAction);
  }
}

TEST(MergeStateMachine, Next) {
  // Actions: 0 start task, 1 return element, 2 throw error, 3 return nil, 4 suspend.
  runRows(
      {
          {"initial hands out the upstreams", [] { return fresh(); }, initial, 0},
          {"buffer not empty", [] { return mergingWith(0, 1, 0, false); }, merging, 1},
          {"buffer empty", [] { return mergingWith(2, 0, 0, false); }, merging, 4},
          {"all ended, buffer drained", [] { return mergingWith(0, 0, 2, false); }, finished, 3},
          {"failure with a buffer", [] { return failedWith(1); }, upstreamFailure, 1},
          {"failure, buffer empty", [] { return failedWith(0); }, finished, 2},
          {"finished", finishedMachine, finished, 3},
      },
      [](Machine& machine) { return machine.next().index(); });

  Machine machine = mergingWith(0, 2, 0, false);
  EXPECT_EQ(std::get<Machine::ReturnElement>(machine.next()).element, 10);
  EXPECT_EQ(std::get<Machine::ReturnElement>(machine.next()).element, 11);
  EXPECT_FALSE(std::get<Machine::ThrowError>(failedWith(0).next()).error == nullptr);
}

TEST(MergeStateMachine, NextForHandsTheParkedChildrenTheirDemand) {
  Machine machine = mergingWith(2, 0, 0, false);
  auto action = machine.nextFor(FakeDownstream{7});
  ASSERT_EQ(action.upstreamContinuations.size(), 2u);
  EXPECT_EQ(action.upstreamContinuations[0].id, 1);
  EXPECT_EQ(action.upstreamContinuations[1].id, 2);
  EXPECT_TRUE(mergingOf(machine).upstreamContinuations.empty());
  EXPECT_EQ(mergingOf(machine).downstreamContinuation->id, 7);
}

TEST(MergeStateMachine, TaskStartedBeginsMerging) {
  Machine machine = fresh();
  (void)machine.next();
  machine.taskStarted(FakeTask{4});
  EXPECT_EQ(mergingOf(machine).task.id, 4);
  EXPECT_EQ(mergingOf(machine).upstreamsFinished, 0);
  EXPECT_EQ(machine.numberOfUpstreamSequences(), 2);
  EXPECT_EQ(fresh(true).numberOfUpstreamSequences(), 3);
}

TEST(MergeStateMachine, ChildTaskSuspended) {
  // Actions: 0 none (parked), 1 resume, 2 resume with a cancellation error.
  runRows(
      {
          {"consumer waiting", [] { return mergingWith(0, 0, 0, true); }, merging, 1},
          {"nobody waiting", [] { return mergingWith(0, 0, 0, false); }, merging, 0},
          {"after a failure", [] { return failedWith(1); }, upstreamFailure, 2},
          {"finished", finishedMachine, finished, 2},
      },
      [](Machine& machine) { return machine.childTaskSuspended(FakeUpstream{9}).index(); });
}

TEST(MergeStateMachine, ElementProduced) {
  // Actions: 0 none, 1 resume the consumer.
  runRows(
      {
          {"consumer waiting", [] { return mergingWith(0, 0, 0, true); }, merging, 1},
          {"nobody waiting: buffered", [] { return mergingWith(0, 1, 0, false); }, merging, 0},
          {"after a failure: dropped", [] { return failedWith(1); }, upstreamFailure, 0},
          {"finished: dropped", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.elementProduced(5).index(); });

  Machine waiting = mergingWith(0, 0, 0, true);
  auto delivered = std::get<Machine::ResumeDownstreamContinuation>(waiting.elementProduced(5));
  EXPECT_EQ(delivered.downstreamContinuation.id, 7);
  EXPECT_EQ(delivered.element, 5);
  EXPECT_FALSE(mergingOf(waiting).downstreamContinuation.has_value());
  // The following element of the same demand cycle waits in the buffer.
  (void)waiting.elementProduced(6);
  EXPECT_EQ(mergingOf(waiting).buffer.count(), 1);
}

TEST(MergeStateMachine, UpstreamFinished) {
  // Actions: 0 none, 1 cancel task and children, 2 end the consumer and cancel.
  runRows(
      {
          {"waiting, last one", [] { return mergingWith(0, 0, 1, true); }, finished, 2},
          {"waiting, one left", [] { return mergingWith(0, 0, 0, true); }, merging, 0},
          {"nobody waiting, last one", [] { return mergingWith(0, 1, 1, false); }, merging, 1},
          {"nobody waiting, one left", [] { return mergingWith(1, 0, 0, false); }, merging, 0},
          {"three upstreams, two left", [] { return mergingWith(0, 0, 0, true, true); }, merging,
           0},
          {"after a failure", [] { return failedWith(0); }, upstreamFailure, 0},
          {"finished", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.upstreamFinished().index(); });

  // The last end with nobody waiting: the buffer is still delivered, then the end.
  Machine machine = mergingWith(0, 1, 1, false);
  (void)machine.upstreamFinished();
  EXPECT_EQ(std::get<Machine::ReturnElement>(machine.next()).element, 10);
  EXPECT_TRUE(std::holds_alternative<Machine::ReturnNil>(machine.next()));
}

TEST(MergeStateMachine, UpstreamThrew) {
  // Actions: 0 none, 1 cancel task and children, 2 fail the consumer and cancel.
  auto error = std::make_exception_ptr(std::runtime_error("second"));
  runRows(
      {
          {"waiting", [] { return mergingWith(0, 0, 0, true); }, finished, 2},
          {"nobody waiting", [] { return mergingWith(1, 1, 0, false); }, upstreamFailure, 1},
          {"after a failure: the first error stays", [] { return failedWith(0); }, upstreamFailure,
           0},
          {"finished", finishedMachine, finished, 0},
      },
      [error](Machine& machine) { return machine.upstreamThrew(error).index(); });

  // Three upstreams: two elements buffered, then an error; the consumer reads both, then the
  // error, then the end.
  Machine machine = mergingWith(1, 2, 0, false, true);
  auto cancel = std::get<Machine::CancelTaskAndUpstreamContinuations>(machine.upstreamThrew(error));
  EXPECT_EQ(cancel.task.id, 1);
  EXPECT_EQ(cancel.upstreamContinuations.size(), 1u);
  EXPECT_EQ(std::get<Machine::ReturnElement>(machine.next()).element, 10);
  EXPECT_EQ(std::get<Machine::ReturnElement>(machine.next()).element, 11);
  EXPECT_EQ(std::get<Machine::ThrowError>(machine.next()).error, error);
  EXPECT_TRUE(std::holds_alternative<Machine::ReturnNil>(machine.next()));
}

TEST(MergeStateMachine, Cancelled) {
  // Actions: 0 none, 1 end the consumer and cancel, 2 cancel task and children.
  runRows(
      {
          {"initial", [] { return fresh(); }, finished, 0},
          {"waiting", [] { return mergingWith(0, 0, 0, true); }, finished, 1},
          {"nobody waiting", [] { return mergingWith(2, 1, 0, false); }, finished, 2},
          {"after a failure: buffer and error dropped", [] { return failedWith(1); }, finished, 0},
          {"finished", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.cancelled().index(); });
}

TEST(MergeStateMachine, IteratorDeinitialized) {
  // Actions: 0 none, 1 cancel task and children.
  runRows(
      {
          {"initial: nothing started", [] { return fresh(); }, initial, 0},
          {"nobody waiting", [] { return mergingWith(2, 0, 0, false); }, finished, 1},
          {"after a failure", [] { return failedWith(1); }, finished, 0},
          {"finished", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.iteratorDeinitialized().index(); });

  Machine machine = mergingWith(2, 0, 0, false);
  auto cancel =
      std::get<Machine::CancelTaskAndUpstreamContinuations>(machine.iteratorDeinitialized());
  EXPECT_EQ(cancel.upstreamContinuations.size(), 2u);
}

TEST(MergeStateMachineDeathTest, BrokenInvariantsStop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH((void)mergingWith(0, 0, 0, true).next(), "another next\\(\\) on the same iterator");
  EXPECT_DEATH((void)fresh().nextFor(FakeDownstream{1}), "");
  EXPECT_DEATH((void)fresh().elementProduced(1), "");
  EXPECT_DEATH((void)mergingWith(0, 0, 0, true).iteratorDeinitialized(), "");
  EXPECT_DEATH(mergingWith(0, 0, 0, false).taskStarted(FakeTask{2}), "");
}

}  // namespace
}  // namespace carrow
