#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

Async<void> waitFor(const std::atomic<bool>& gate) {
  while (!gate.load()) co_await yieldNow();
}

TEST(CancellationHandler, RunsAtEntryWhenAlreadyCancelled) {
  runMain([]() -> Async<void> {
    std::atomic<bool> gate{false};
    auto task = Task<std::vector<int>>::start([&gate]() -> Async<std::vector<int>> {
      co_await waitFor(gate);
      auto order = std::make_shared<std::vector<int>>();
      auto operation = [order]() -> Async<void> {
        order->push_back(2);
        co_return;
      };
      auto onCancel = [order] { order->push_back(1); };
      co_await withTaskCancellationHandler(operation, onCancel);
      co_return *order;
    });
    task.cancel();
    gate = true;
    const std::vector<int> order = co_await task.value();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
  });
}

TEST(CancellationHandler, RunsOnceWhileTheOperationRunsAndNeverAfterItReturned) {
  runMain([]() -> Async<void> {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto entered = std::make_shared<std::atomic<bool>>(false);
    auto task = Task<void>::start([calls, entered]() -> Async<void> {
      auto operation = [entered]() -> Async<void> {
        entered->store(true);
        while (!isCancelled()) co_await yieldNow();
      };
      auto onCancel = [calls] { calls->fetch_add(1); };
      co_await withTaskCancellationHandler(operation, onCancel);
    });
    while (!entered->load()) co_await yieldNow();
    task.cancel();
    task.cancel();
    co_await task.value();
    EXPECT_EQ(calls->load(), 1);
  });
}

TEST(CancellationHandler, HandlerOfAReturnedOperationDoesNotRun) {
  runMain([]() -> Async<void> {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto done = std::make_shared<std::atomic<bool>>(false);
    auto release = std::make_shared<std::atomic<bool>>(false);
    auto task = Task<void>::start([calls, done, release]() -> Async<void> {
      auto operation = []() -> Async<void> { co_return; };
      auto onCancel = [calls] { calls->fetch_add(1); };
      co_await withTaskCancellationHandler(operation, onCancel);
      done->store(true);
      co_await waitFor(*release);
    });
    while (!done->load()) co_await yieldNow();
    task.cancel();
    release->store(true);
    co_await task.value();
    EXPECT_EQ(calls->load(), 0);
  });
}

// Cancellation from another thread races the handler's registration and removal: the handler
// must run exactly once when the cancel lands inside the scope and never once the scope is left.
TEST(CancellationHandler, CancelRacingRegistrationRunsTheHandlerAtMostOnceAndOnlyInScope) {
  constexpr int kRounds = 3000;
  int ranInScope = 0;
  for (int round = 0; round < kRounds; ++round) {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto task = Task<void>::start([calls]() -> Async<void> {
      auto operation = []() -> Async<void> { co_await yieldNow(); };
      auto onCancel = [calls] { calls->fetch_add(1); };
      co_await withTaskCancellationHandler(operation, onCancel);
    });
    std::thread canceller([task] { task.cancel(); });
    runMain([task]() -> Async<void> { co_await task.result(); });
    canceller.join();
    EXPECT_LE(calls->load(), 1);
    ranInScope += calls->load();
  }
  // Some rounds must have caught the cancel inside the scope or at entry.
  EXPECT_GT(ranInScope, 0);
}

// A cancellation that has already started the handler when the operation ends holds the call
// back until the handler is done, so nothing the handler touches can be gone yet.
TEST(CancellationHandler, ReturnWaitsForAHandlerThatIsStillRunning) {
  runMain([]() -> Async<void> {
    auto handlerStarted = std::make_shared<std::atomic<bool>>(false);
    auto handlerFinished = std::make_shared<std::atomic<bool>>(false);
    auto entered = std::make_shared<std::atomic<bool>>(false);
    auto task = Task<bool>::start([=]() -> Async<bool> {
      auto operation = [=]() -> Async<void> {
        entered->store(true);
        while (!handlerStarted->load()) co_await yieldNow();
      };
      auto onCancel = [=] {
        handlerStarted->store(true);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        handlerFinished->store(true);
      };
      co_await withTaskCancellationHandler(operation, onCancel);
      co_return handlerFinished->load();
    });
    while (!entered->load()) co_await yieldNow();
    std::thread canceller([task] { task.cancel(); });
    const bool finishedFirst = co_await task.value();
    canceller.join();
    EXPECT_TRUE(finishedFirst);
  });
}

TEST(CancellationHandler, HandlerMayResumeTheContinuationTheOperationWaitsOn) {
  runMain([]() -> Async<void> {
    auto slot = std::make_shared<std::optional<UnsafeContinuation<void>>>();
    auto registered = std::make_shared<std::atomic<bool>>(false);
    auto waitsForever = Task<void>::start([slot, registered]() -> Async<void> {
      auto operation = [slot, registered]() -> Async<void> {
        auto body = [slot, registered](UnsafeContinuation<void> continuation) {
          slot->emplace(continuation);
          registered->store(true);
        };
        co_await withUnsafeThrowingContinuation<void>(body);
      };
      auto onCancel = [slot] { (*slot)->resumeThrowing(CancellationError()); };
      co_await withTaskCancellationHandler(operation, onCancel);
    });
    while (!registered->load()) co_await yieldNow();
    waitsForever.cancel();
    EXPECT_THROW(co_await waitsForever.value(), CancellationError);
  });
}

}  // namespace
}  // namespace carrow
