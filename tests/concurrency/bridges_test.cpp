#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <carrow/concurrency/await_async.h>
#include <carrow/concurrency/run_blocking.h>
#include <carrow/platform/dispatch_queue.h>
#include <carrow/runtime/actor.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_local.h>

namespace carrow {
namespace {

using namespace std::chrono_literals;

struct Failed : std::runtime_error {
  Failed() : std::runtime_error("failed") {}
};

TEST(AwaitAsync, RunsTheClosureOnTheQueueAndHandsBackItsValueOrError) {
  platform::DispatchQueue queue("carrow.bridge");
  runMain([&queue]() -> Async<void> {
    const auto caller = std::this_thread::get_id();
    auto onQueue = [&queue, caller] {
      EXPECT_TRUE(queue.isCurrent());
      EXPECT_NE(std::this_thread::get_id(), caller);
      return std::make_unique<std::string>("done");  // a move-only value
    };
    std::unique_ptr<std::string> value = co_await awaitAsync(queue, onQueue);
    EXPECT_EQ(*value, "done");

    auto fails = []() -> int { throw Failed(); };
    EXPECT_THROW(co_await awaitAsync(queue, fails), Failed);

    int touched = 0;
    auto quiet = [&touched]() noexcept { touched = 1; };
    co_await awaitAsync(queue, quiet);
    EXPECT_EQ(touched, 1);
  });
}

TEST(RunBlocking, ReturnsTheBodysValueOrRethrowsItsErrorOnAPlainThread) {
  std::thread plain([] {
    const int value = runBlocking([]() -> Async<int> {
      co_await sleep(1ms);
      co_return 7;
    });
    EXPECT_EQ(value, 7);
    auto failing = []() -> Async<void> {
      co_await sleep(1ms);
      throw Failed();
    };
    EXPECT_THROW(runBlocking(TaskPriority::background, failing), Failed);
    const TaskPriority seen = runBlocking(TaskPriority::utility, []() -> Async<TaskPriority> {
      co_return Task<int>::start([]() -> Async<int> { co_return 0; }).priority();
    });
    EXPECT_EQ(seen, TaskPriority::utility);
  });
  plain.join();
}

class Blocker : public Actor {
 public:
  Async<int> blockInside() {
    co_await enter();
    co_return runBlocking([]() -> Async<int> { co_return 1; });
  }
};

TEST(RunBlockingDeathTest, StopsOnAThreadTheBodyMayNeed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* message = "runBlocking called from a thread that its body may need";
  const auto fromPool = [] {
    runMain([]() -> Async<int> {
      auto task = Task<int>::start(
          []() -> Async<int> { co_return runBlocking([]() -> Async<int> { co_return 1; }); });
      co_return co_await task.value();
    });
  };
  EXPECT_DEATH(fromPool(), message);
  const auto fromActor = [] {
    auto actor = std::make_shared<Blocker>();
    runMain([actor]() -> Async<int> { co_return co_await actor->blockInside(); });
  };
  EXPECT_DEATH(fromActor(), message);
  const auto fromBoundMainThread = [] {
    MainActor::drain();  // binds the main actor to this thread
    runBlocking([]() -> Async<int> { co_return 1; });
  };
  EXPECT_DEATH(fromBoundMainThread(), message);
}

}  // namespace
}  // namespace carrow
