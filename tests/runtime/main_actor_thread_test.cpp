// A program of its own: here nothing ever drives the main actor, so the runtime must give it a
// thread of its own on first use.

#include <set>
#include <thread>

#include <gtest/gtest.h>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

TEST(MainActorOwnThread, UndrivenMainActorRunsOnOneThreadOfItsOwn) {
  auto task = Task<std::set<std::thread::id>>::start([]() -> Async<std::set<std::thread::id>> {
    std::set<std::thread::id> threads;
    for (int i = 0; i < 50; ++i) {
      co_await MainActor::shared().enter();
      EXPECT_TRUE(MainActor::isMainThread());
      threads.insert(std::this_thread::get_id());
      co_await hopTo(globalExecutor());
      EXPECT_FALSE(MainActor::isMainThread());
    }
    co_return threads;
  });
  // Plain thread: wait by polling, since runMain would bind the main actor to this thread.
  while (!task.isFinished()) std::this_thread::yield();
  auto outcome = Task<std::set<std::thread::id>>(task);
  std::set<std::thread::id> threads;
  auto reader = Task<void>::start(
      [&threads, outcome]() -> Async<void> { threads = co_await outcome.value(); });
  while (!reader.isFinished()) std::this_thread::yield();
  ASSERT_EQ(threads.size(), 1u);
  EXPECT_NE(*threads.begin(), std::this_thread::get_id());
}

}  // namespace
}  // namespace carrow
