#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

// Non-atomic state on purpose: ThreadSanitizer reports any operation that escapes the actor.
class Ledger : public Actor {
 public:
  Async<void> deposit(int amount) {
    co_await enter();
    EXPECT_EQ(inside_++, 0);
    balance_ += amount;
    --inside_;
    co_await yieldNow();  // other operations run here, one at a time
    EXPECT_TRUE(isIsolated());
    EXPECT_EQ(inside_++, 0);
    ++operations_;
    --inside_;
  }

  Async<long> balance() {
    co_await enter();
    co_return balance_;
  }

  Async<int> operations() {
    co_await enter();
    co_return operations_;
  }

  // Awaits a continuation that a plain thread resumes, then checks where it continues.
  Async<bool> awaitForeignThread() {
    co_await enter();
    auto body = [](UnsafeContinuation<std::thread::id> continuation) {
      std::thread([continuation] { continuation.resume(std::this_thread::get_id()); }).detach();
    };
    const std::thread::id resumer = co_await withUnsafeContinuation<std::thread::id>(body);
    co_return isIsolated() && resumer != std::this_thread::get_id();
  }

 private:
  long balance_ = 0;
  int operations_ = 0;
  int inside_ = 0;
};

TEST(Actor, OperationsExcludeEachOtherUnderLoad) {
  auto ledger = std::make_shared<Ledger>();
  const long balance = runMain([ledger]() -> Async<long> {
    std::vector<Task<void>> tasks;
    for (int t = 0; t < 64; ++t) {
      tasks.push_back(Task<void>::start([ledger]() -> Async<void> {
        for (int i = 0; i < 50; ++i) co_await ledger->deposit(1);
      }));
    }
    for (auto& task : tasks) co_await task.value();
    EXPECT_EQ(co_await ledger->operations(), 64 * 50);
    co_return co_await ledger->balance();
  });
  EXPECT_EQ(balance, 64 * 50);
}

TEST(Actor, BackOnTheActorAfterAnAwaitCompletedOnAForeignThread) {
  auto ledger = std::make_shared<Ledger>();
  for (int round = 0; round < 50; ++round) {
    const bool onActor =
        runMain([ledger]() -> Async<bool> { co_return co_await ledger->awaitForeignThread(); });
    EXPECT_TRUE(onActor);
  }
}

TEST(Actor, EnteringTheActorOneIsOnDoesNotQueue) {
  auto ledger = std::make_shared<Ledger>();
  runMain([ledger]() -> Async<void> {
    auto nested = [](Ledger& actor) -> Async<int> {
      co_await actor.enter();
      auto inner = [](Ledger& same) -> Async<int> {
        // Already on the actor: enter() completes without suspending.
        auto hop = same.enter();
        EXPECT_TRUE(hop.await_ready());
        co_await same.enter();
        co_return 1;
      };
      co_return co_await inner(actor);
    };
    EXPECT_EQ(co_await nested(*ledger), 1);
  });
}

TEST(MainActor, HopsToTheMainThreadAndBack) {
  const std::thread::id mainThread = std::this_thread::get_id();
  runMain([mainThread]() -> Async<void> {
    auto onMain = [mainThread]() -> Async<void> {
      co_await MainActor::shared().enter();
      EXPECT_EQ(std::this_thread::get_id(), mainThread);
      EXPECT_TRUE(MainActor::isMainThread());
      co_await yieldNow();
      EXPECT_EQ(std::this_thread::get_id(), mainThread);
      co_await hopTo(globalExecutor());
      EXPECT_NE(std::this_thread::get_id(), mainThread);
    };
    for (int i = 0; i < 100; ++i) {
      co_await onMain();
      EXPECT_NE(std::this_thread::get_id(), mainThread);
    }
  });
}

TEST(MainActor, DrainRunsQueuedWorkOnTheCallingThread) {
  std::atomic<bool> ran{false};
  auto task = Task<void>::start([&ran]() -> Async<void> {
    co_await MainActor::shared().enter();
    ran = true;
  });
  while (!ran) {
    MainActor::drain();
    std::this_thread::yield();
  }
  EXPECT_TRUE(ran);
}

TEST(Actor, DestroyedInsideItsOwnOperation) {
  runMain([]() -> Async<void> {
    auto ledger = std::make_shared<Ledger>();
    // The body ends on the actor, so the task's state (and the last reference to the actor) is
    // released inside the actor's own drain.
    auto task = Task<void>::start([ledger = std::move(ledger)]() -> Async<void> {
      co_await ledger->enter();
      co_await ledger->deposit(1);
    });
    co_await task.value();
  });
}

}  // namespace
}  // namespace carrow
