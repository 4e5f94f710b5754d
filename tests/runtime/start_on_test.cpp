#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/detail/start_on.h>
#include <carrow/runtime/executor.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

struct Seen {
  std::mutex mutex;
  std::vector<int> order;
  bool allOnTarget = true;
};

TEST(StartTaskOn, BodiesBeginOnTheTargetInTheOrderTheyWereStarted) {
  // Started from a thread outside the runtime, as the XPC reactor does.
  SerialExecutor serial;
  auto seen = std::make_shared<Seen>();
  std::vector<Task<void>> tasks;
  constexpr int kTasks = 200;
  for (int index = 0; index < kTasks; ++index) {
    auto body = [seen, &serial, index]() -> Async<void> {
      std::lock_guard guard(seen->mutex);
      seen->order.push_back(index);
      if (!serial.isCurrent()) seen->allOnTarget = false;
      co_return;
    };
    tasks.push_back(detail::startTaskOn<void>(serial, std::move(body)));
  }
  runMain([&tasks]() -> Async<void> {
    for (auto& task : tasks) co_await task.value();
  });
  std::vector<int> expected;
  for (int index = 0; index < kTasks; ++index) expected.push_back(index);
  EXPECT_EQ(seen->order, expected);
  EXPECT_TRUE(seen->allOnTarget);
}

TEST(StartTaskOn, TheTargetEndsWithTheScopeAndScopesNest) {
  SerialExecutor outer;
  SerialExecutor inner;
  {
    detail::LaunchTargetScope first(outer);
    EXPECT_EQ(&detail::launchTarget(), &outer);
    {
      detail::LaunchTargetScope second(inner);
      EXPECT_EQ(&detail::launchTarget(), &inner);
    }
    EXPECT_EQ(&detail::launchTarget(), &outer);
  }
  EXPECT_EQ(&detail::launchTarget(), &globalExecutor());
  // A plain start afterwards is back on the global executor.
  const bool onGlobal = runMain([]() -> Async<bool> {
    auto body = []() -> Async<bool> { co_return globalExecutor().isCurrent(); };
    auto task = Task<bool>::start(std::move(body));
    co_return co_await task.value();
  });
  EXPECT_TRUE(onGlobal);
}

TEST(StartTaskOn, TheTaskStaysOnTheTargetAcrossSuspensions) {
  SerialExecutor serial;
  const bool stayed = runMain([&serial]() -> Async<bool> {
    auto body = [&serial]() -> Async<bool> {
      bool onTarget = serial.isCurrent();
      for (int round = 0; round < 10; ++round) {
        co_await yieldNow();
        onTarget = onTarget && serial.isCurrent();
      }
      co_return onTarget;
    };
    auto task = detail::startTaskOn<bool>(serial, std::move(body));
    co_return co_await task.value();
  });
  EXPECT_TRUE(stayed);
}

}  // namespace
}  // namespace carrow
