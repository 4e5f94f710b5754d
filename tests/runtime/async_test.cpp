#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>

namespace carrow {
namespace {

// Counts live instances so that every test can check each value was destroyed exactly once.
struct Tracked {
  static inline std::atomic<int> live{0};
  static inline std::atomic<int> destroyed{0};
  explicit Tracked(int v) : value(v) { ++live; }
  Tracked(const Tracked& other) : value(other.value) { ++live; }
  Tracked(Tracked&& other) noexcept : value(other.value) { ++live; }
  Tracked& operator=(const Tracked&) = default;
  ~Tracked() {
    --live;
    ++destroyed;
  }
  int value;
};

Async<int> answer() {
  co_return 42;
}
Async<void> nothing() {
  co_return;
}
Async<int> fails() {
  co_await yieldNow();  // the error comes after a suspension
  throw std::runtime_error("no answer");
  co_return 0;
}
Async<int> sum(int depth) {
  if (depth == 0) co_return 0;
  const int rest = co_await sum(depth - 1);
  co_return depth + rest;
}

TEST(Async, ReturnsValuesAndErrorsThroughAwait) {
  const int result = runMain([]() -> Async<int> {
    const int a = co_await answer();
    co_await nothing();
    const int nested = co_await sum(100);
    auto moveOnly = []() -> Async<std::unique_ptr<int>> { co_return std::make_unique<int>(0); };
    const int zero = *co_await moveOnly();
    try {
      co_await fails();
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "no answer");
      co_return a + nested + zero;
    }
    ADD_FAILURE() << "the error did not propagate";
    co_return 0;
  });
  EXPECT_EQ(result, 42 + 5050);
}

Async<Tracked> makeTracked(int value) {
  co_return Tracked(value);
}

Async<Tracked> forwardTracked(Tracked value) {
  Tracked copy = co_await makeTracked(value.value + 1);
  co_return copy;
}

TEST(Async, EveryValuePassedThroughAwaitIsDestroyedOnce) {
  Tracked::live = 0;
  Tracked::destroyed = 0;
  const int value = runMain([]() -> Async<int> {
    Tracked first = co_await makeTracked(1);
    Tracked second = co_await forwardTracked(first);
    auto task = Task<Tracked>::start([]() -> Async<Tracked> { co_return Tracked(7); });
    Tracked fromTask = co_await task.value();
    Tracked again = co_await task.value();
    auto body = [](UnsafeContinuation<Tracked> continuation) { continuation.resume(Tracked(9)); };
    Tracked resumed = co_await withUnsafeContinuation<Tracked>(body);
    auto checkedBody = [](CheckedContinuation<Tracked, Never> continuation) {
      std::thread([continuation] { continuation.resume(Tracked(10)); }).detach();
    };
    Tracked checked = co_await withCheckedContinuation<Tracked>("tracked", checkedBody);
    auto children = [](ThrowingTaskGroup<Tracked>& group) -> Async<int> {
      for (int i = 0; i < 3; ++i) group.addTask([]() -> Async<Tracked> { co_return Tracked(1); });
      group.addTask([]() -> Async<Tracked> { co_return Tracked(100); });  // left for the exit
      int sum = 0;
      for (int i = 0; i < 3; ++i) {
        auto child = co_await group.next();
        sum += child->value;
      }
      co_return sum;
    };
    const int fromGroup = co_await withThrowingTaskGroup<Tracked>(children);
    co_return first.value + second.value + fromTask.value + again.value + resumed.value
        + checked.value + (fromGroup >= 3 ? 3 : 0);
  });
  EXPECT_EQ(value, 1 + 2 + 7 + 7 + 9 + 10 + 3);
  // The resuming thread drops its temporary after resume() returned: give it a moment.
  for (int wait = 0; wait < 5000 && Tracked::live != 0; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(Tracked::live, 0);
  EXPECT_GT(Tracked::destroyed, 0);
}

// The child moves to a serial executor and completes on another worker while the parent's thread
// is still returning from the inline resume: exactly one side must continue the parent.
TEST(Async, ChildCompletingOnAnotherThreadRacesTheParentsHandshake) {
  SerialExecutor elsewhere;
  const long total = runMain([&elsewhere]() -> Async<long> {
    auto away = [](Executor& executor, int value) -> Async<int> {
      co_await hopTo(executor);
      co_return value;
    };
    long sum = 0;
    for (int i = 0; i < 20000; ++i) {
      sum += co_await away(elsewhere, 1);
      EXPECT_TRUE(globalExecutor().isCurrent());
    }
    co_return sum;
  });
  EXPECT_EQ(total, 20000);
}

}  // namespace
}  // namespace carrow
