// Drives combine-latest's state machine directly, one event per test, through the rows its
// callers can reach. Tasks and continuations are plain numbered values.

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/detail/combine_latest_state_machine.h>

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
using Machine = detail::CombineLatestStateMachine<Ints, Ints, Ints, FakeRuntime>;
using Produced = Machine::ProducedElement;

enum StateKind { initial, waitingForDemand, combining, upstreamsFinished, upstreamThrew, finished };

Produced from(std::size_t index, int value) {
  Produced produced;
  if (index == 0) std::get<0>(produced) = value;
  if (index == 1) std::get<1>(produced) = value;
  if (index == 2) std::get<2>(produced) = value;
  return produced;
}

Machine fresh(bool three = false) {
  std::optional<Ints> third;
  if (three) third.emplace(std::vector<int>{});
  return Machine(Ints({1}), Ints({2}), third);
}

// `Combining` right after the first `next`, the consumer waiting on continuation 7.
Machine combiningMachine(bool three = false) {
  Machine machine = fresh(three);
  (void)machine.nextFor(FakeDownstream{7});
  machine.taskStarted(FakeTask{1}, FakeDownstream{7});
  return machine;
}

// `WaitingForDemand` after the tuple (1, 2) was delivered, with `parked` children waiting for
// demand and `buffered` tuples.
Machine waitingMachine(int parked = 0, int buffered = 0) {
  Machine machine = combiningMachine();
  (void)machine.elementProduced(from(0, 1));
  (void)machine.elementProduced(from(1, 2));
  for (int i = 0; i < parked; ++i) (void)machine.childTaskSuspended(i, FakeUpstream{1 + i});
  for (int i = 0; i < buffered; ++i) (void)machine.elementProduced(from(0, 10 + i));
  return machine;
}

Machine finishedMachine() {
  Machine machine = fresh();
  (void)machine.cancelled();
  return machine;
}

Machine threwMachine() {
  Machine machine = waitingMachine(0, 2);
  (void)machine.upstreamThrew(std::make_exception_ptr(std::runtime_error("x")));
  return machine;
}

Machine allFinishedMachine() {
  Machine machine = waitingMachine(0, 1);
  (void)machine.upstreamFinished(0);
  (void)machine.upstreamFinished(1);
  return machine;
}

struct Row {
  std::string name;
  std::function<Machine()> setup;
  StateKind expectedState;
  std::size_t expectedAction;
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

TEST(CombineLatestStateMachine, NextFor) {
  // Actions: 0 start task, 1 resume children, 2 resume the consumer, 3 the end.
  runRows(
      {
          {"initial", [] { return fresh(); }, initial, 0},
          {"waiting, buffer not empty", [] { return waitingMachine(0, 1); }, waitingForDemand, 2},
          {"waiting, buffer empty", [] { return waitingMachine(2); }, combining, 1},
          {"all finished, buffer", allFinishedMachine, upstreamsFinished, 2},
          {"error pending", threwMachine, finished, 2},
          {"finished", finishedMachine, finished, 3},
      },
      [](Machine& machine) { return machine.nextFor(FakeDownstream{8}).index(); });

  Machine machine = waitingMachine(2);
  auto demand = std::get<Machine::ResumeUpstreamContinuations>(machine.nextFor(FakeDownstream{8}));
  ASSERT_EQ(demand.upstreamContinuation.size(), 2u);
  EXPECT_EQ(demand.upstreamContinuation[0].id, 1);
  EXPECT_EQ(demand.upstreamContinuation[1].id, 2);
  auto failed = std::get<Machine::ResumeContinuation>(threwMachine().nextFor(FakeDownstream{8}));
  EXPECT_FALSE(failed.result.hasValue());
}

TEST(CombineLatestStateMachine, ChildTaskSuspended) {
  // Actions: 0 parked, 1 resume, 2 resume with a cancellation error.
  runRows(
      {
          {"waiting for demand", [] { return waitingMachine(); }, waitingForDemand, 0},
          {"combining", [] { return combiningMachine(); }, combining, 1},
          {"error pending", threwMachine, upstreamThrew, 2},
          {"finished", finishedMachine, finished, 2},
      },
      [](Machine& machine) { return machine.childTaskSuspended(1, FakeUpstream{9}).index(); });
}

TEST(CombineLatestStateMachine, ElementProduced) {
  // Actions: 0 none, 1 resume the consumer.
  runRows(
      {
          {"combining, incomplete", [] { return combiningMachine(); }, combining, 0},
          {"waiting: combined and buffered", [] { return waitingMachine(); }, waitingForDemand, 0},
          {"error pending: dropped", threwMachine, upstreamThrew, 0},
          {"finished: dropped", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.elementProduced(from(0, 5)).index(); });

  // Only the latest element of an upstream is paired; two upstreams never wait for a third.
  Machine machine = combiningMachine();
  (void)machine.elementProduced(from(0, 1));
  (void)machine.elementProduced(from(0, 3));
  auto delivered = std::get<Machine::ResumeContinuation>(machine.elementProduced(from(1, 9)));
  EXPECT_EQ(delivered.result.get(), (std::tuple<int, int, std::optional<int>>(3, 9, std::nullopt)));
  Machine three = combiningMachine(true);
  (void)three.elementProduced(from(0, 1));
  EXPECT_EQ(three.elementProduced(from(1, 2)).index(), 0u);
  EXPECT_EQ(three.elementProduced(from(2, 3)).index(), 1u);
}

TEST(CombineLatestStateMachine, UpstreamFinished) {
  // Actions: 0 none, 1 cancel task and children, 2 end the consumer and cancel.
  runRows(
      {
          {"waiting, one left", [] { return waitingMachine(); }, waitingForDemand, 0},
          {"waiting, all ended, buffer",
           [] {
             Machine machine = waitingMachine(0, 1);
             (void)machine.upstreamFinished(1);
             return machine;
           },
           upstreamsFinished, 1},
          {"waiting, all ended, no buffer",
           [] {
             Machine machine = waitingMachine();
             (void)machine.upstreamFinished(1);
             return machine;
           },
           finished, 1},
          {"combining, ended without an element", [] { return combiningMachine(); }, finished, 2},
          {"combining, ended after producing",
           [] {
             Machine machine = combiningMachine();
             (void)machine.elementProduced(from(0, 1));
             return machine;
           },
           combining, 0},
          {"error pending", threwMachine, upstreamThrew, 0},
          {"finished", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.upstreamFinished(0).index(); });
}

TEST(CombineLatestStateMachine, UpstreamThrew) {
  // Actions: 0 none, 1 cancel task and children, 2 fail the consumer and cancel.
  auto error = std::make_exception_ptr(std::runtime_error("y"));
  runRows(
      {
          {"waiting: buffer discarded", [] { return waitingMachine(1, 2); }, upstreamThrew, 1},
          {"combining", [] { return combiningMachine(); }, finished, 2},
          {"all finished", allFinishedMachine, upstreamsFinished, 0},
          {"error pending: the first stays", threwMachine, upstreamThrew, 0},
          {"finished", finishedMachine, finished, 0},
      },
      [error](Machine& machine) { return machine.upstreamThrew(error).index(); });
}

TEST(CombineLatestStateMachine, CancelledAndIteratorDeinitialized) {
  // Cancelled actions: 0 none, 1 end the consumer and cancel, 2 cancel task and children.
  runRows(
      {
          {"initial", [] { return fresh(); }, finished, 0},
          {"waiting", [] { return waitingMachine(2); }, finished, 2},
          {"combining", [] { return combiningMachine(); }, finished, 1},
          {"all finished", allFinishedMachine, finished, 0},
          {"error pending", threwMachine, upstreamThrew, 0},
          {"finished", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.cancelled().index(); });
  // Iterator dropped: 0 none, 1 cancel task and children.
  runRows(
      {
          {"initial", [] { return fresh(); }, initial, 0},
          {"waiting", [] { return waitingMachine(2); }, finished, 1},
          {"all finished", allFinishedMachine, finished, 0},
          {"error pending", threwMachine, finished, 0},
          {"finished", finishedMachine, finished, 0},
      },
      [](Machine& machine) { return machine.iteratorDeinitialized().index(); });
}

TEST(CombineLatestStateMachineDeathTest, BrokenInvariantsStop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH((void)combiningMachine().nextFor(FakeDownstream{2}),
               "another next\\(\\) on the same iterator");
  EXPECT_DEATH((void)combiningMachine().childTaskSuspended(3, FakeUpstream{1}), "");
  EXPECT_DEATH((void)combiningMachine().elementProduced(Produced{}), "");
  EXPECT_DEATH((void)fresh().elementProduced(from(0, 1)), "");
  EXPECT_DEATH((void)combiningMachine().iteratorDeinitialized(), "");
}

}  // namespace
}  // namespace carrow
