#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellable_task.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

// Parks the task until `gate` is opened from a test thread.
Async<void> waitFor(const std::atomic<bool>& gate) {
  while (!gate.load()) co_await yieldNow();
}

TEST(Task, StartsEagerlyAndServesManyAwaitersBeforeAndAfterItFinished) {
  const int total = runMain([]() -> Async<int> {
    auto gate = std::make_shared<std::atomic<bool>>(false);
    auto slow = Task<int>::start([gate]() -> Async<int> {
      co_await waitFor(*gate);
      co_return 5;
    });
    std::vector<Task<int>> waiters;
    for (int i = 0; i < 8; ++i) {
      waiters.push_back(
          Task<int>::start([slow]() -> Async<int> { co_return co_await slow.value(); }));
    }
    gate->store(true);
    int sum = 0;
    for (auto& waiter : waiters) sum += co_await waiter.value();
    EXPECT_TRUE(slow.isFinished());
    sum += co_await slow.value();  // after it finished
    co_return sum;
  });
  EXPECT_EQ(total, 45);
}

TEST(Task, ResultCarriesTheErrorAndValueRethrowsIt) {
  runMain([]() -> Async<void> {
    auto failing = Task<int>::start([]() -> Async<int> {
      throw std::out_of_range("bad");
      co_return 0;
    });
    Result<int> outcome = co_await failing.result();
    EXPECT_FALSE(outcome.hasValue());
    EXPECT_THROW(std::rethrow_exception(outcome.error()), std::out_of_range);
    EXPECT_THROW(co_await failing.value(), std::out_of_range);
    auto fine = Task<void>::start([]() -> Async<void> { co_return; });
    Result<void> done = co_await fine.result();
    EXPECT_TRUE(done.hasValue());
  });
}

TEST(Task, DroppingEveryHandleNeitherCancelsNorStopsTheTask) {
  std::atomic<bool> finished{false};
  std::atomic<bool> sawCancel{false};
  std::atomic<bool> gate{false};
  {
    auto task = Task<void>::start([&]() -> Async<void> {
      co_await waitFor(gate);
      sawCancel = isCancelled();
      finished = true;
    });
  }
  gate = true;
  for (int i = 0; i < 5000 && !finished; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(finished);
  EXPECT_FALSE(sawCancel);
}

TEST(Task, CancellationIsSeenByTheTaskButNotInheritedByTasksItStarts) {
  runMain([]() -> Async<void> {
    std::atomic<bool> gate{false};
    auto outer = Task<bool>::start([&gate]() -> Async<bool> {
      co_await waitFor(gate);
      auto inner = Task<bool>::start([]() -> Async<bool> { co_return isCancelled(); });
      const bool innerCancelled = co_await inner.value();
      EXPECT_FALSE(innerCancelled);
      co_return isCancelled();
    });
    const CancellableTask& erased = outer;
    erased.cancel();
    erased.cancel();
    EXPECT_TRUE(outer.isCancelled());
    gate = true;
    EXPECT_TRUE(co_await outer.value());
    EXPECT_FALSE(isCancelled());  // awaiting a cancelled task does not cancel the awaiter
  });
}

TEST(Task, CheckCancellationThrowsCancellationError) {
  runMain([]() -> Async<void> {
    auto task = Task<void>::start([]() -> Async<void> {
      while (true) {
        checkCancellation();
        co_await yieldNow();
      }
    });
    task.cancel();
    EXPECT_THROW(co_await task.value(), CancellationError);
  });
}

TEST(Task, InheritsPriorityUnlessGivenOne) {
  runMain([]() -> Async<void> {
    auto high = Task<TaskPriority>::start(TaskPriority::high, []() -> Async<TaskPriority> {
      auto child = Task<TaskPriority>::start([]() -> Async<TaskPriority> {
        auto probe = Task<int>::start([]() -> Async<int> { co_return 0; });
        co_return probe.priority();
      });
      co_return co_await child.value();
    });
    EXPECT_EQ(high.priority(), TaskPriority::high);
    EXPECT_EQ(co_await high.value(), TaskPriority::high);
  });
}

}  // namespace
}  // namespace carrow
