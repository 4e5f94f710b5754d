#include <atomic>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>

namespace carrow {
namespace {

Async<void> untilCancelled() {
  while (!isCancelled()) co_await yieldNow();
}

TEST(ThrowingTaskGroup, NextYieldsEveryChildThenNothing) {
  const std::multiset<int> values = runMain([]() -> Async<std::multiset<int>> {
    auto body = [](ThrowingTaskGroup<int>& group) -> Async<std::multiset<int>> {
      for (int i = 0; i < 50; ++i) {
        group.addTask([i]() -> Async<int> {
          if (i % 2 == 0) co_await yieldNow();
          co_return i;
        });
      }
      std::multiset<int> seen;
      while (auto value = co_await group.next()) seen.insert(*value);
      EXPECT_TRUE(group.isEmpty());
      EXPECT_FALSE(co_await group.next());
      co_return seen;
    };
    co_return co_await withThrowingTaskGroup<int>(body);
  });
  ASSERT_EQ(values.size(), 50u);
  EXPECT_EQ(*values.begin(), 0);
  EXPECT_EQ(*values.rbegin(), 49);
}

TEST(ThrowingTaskGroup, NextRethrowsAChildsErrorWithoutCancellingTheOthers) {
  runMain([]() -> Async<void> {
    auto body = [](ThrowingTaskGroup<void>& group) -> Async<int> {
      group.addTask([]() -> Async<void> {
        throw std::runtime_error("child failed");
        co_return;
      });
      int errors = 0;
      int successes = 0;
      group.addTask([]() -> Async<void> { co_return; });
      // g++ 12 never takes a `break` whose `if` awaits inside `for (;;)`: use a loop flag.
      bool more = true;
      while (more) {
        try {
          more = co_await group.next();
          if (more) ++successes;
        } catch (const std::runtime_error&) {
          ++errors;
        }
      }
      EXPECT_FALSE(group.isCancelled());
      co_return errors * 10 + successes;
    };
    EXPECT_EQ(co_await withThrowingTaskGroup<void>(body), 11);
  });
}

TEST(ThrowingTaskGroup, WaitForAllRethrowsTheFirstErrorAfterEveryChildFinished) {
  runMain([]() -> Async<void> {
    auto finished = std::make_shared<std::atomic<int>>(0);
    auto body = [finished](ThrowingTaskGroup<int>& group) -> Async<void> {
      group.addTask([]() -> Async<int> {
        throw std::logic_error("first");
        co_return 0;
      });
      for (int i = 0; i < 10; ++i) {
        group.addTask([finished]() -> Async<int> {
          co_await yieldNow();
          finished->fetch_add(1);
          co_return 1;
        });
      }
      EXPECT_THROW(co_await group.waitForAll(), std::logic_error);
      EXPECT_EQ(finished->load(), 10);
    };
    co_await withThrowingTaskGroup<int>(body);
  });
}

TEST(ThrowingTaskGroup, BodyErrorCancelsAndAwaitsTheChildren) {
  runMain([]() -> Async<void> {
    auto cancelledChildren = std::make_shared<std::atomic<int>>(0);
    auto body = [cancelledChildren](ThrowingTaskGroup<void>& group) -> Async<void> {
      for (int i = 0; i < 5; ++i) {
        group.addTask([cancelledChildren]() -> Async<void> {
          co_await untilCancelled();
          cancelledChildren->fetch_add(1);
        });
      }
      throw std::runtime_error("body failed");
      co_return;
    };
    EXPECT_THROW(co_await withThrowingTaskGroup<void>(body), std::runtime_error);
    // Every child had finished before the group was left.
    EXPECT_EQ(cancelledChildren->load(), 5);
  });
}

TEST(ThrowingTaskGroup, LeavingNormallyAwaitsRemainingChildrenAndDropsTheirErrors) {
  runMain([]() -> Async<void> {
    auto finished = std::make_shared<std::atomic<int>>(0);
    auto body = [finished](ThrowingTaskGroup<int>& group) -> Async<int> {
      for (int i = 0; i < 4; ++i) {
        group.addTask([finished]() -> Async<int> {
          co_await yieldNow();
          finished->fetch_add(1);
          throw std::runtime_error("ignored");
          co_return 0;
        });
      }
      co_return 7;
    };
    EXPECT_EQ(co_await withThrowingTaskGroup<int>(body), 7);
    EXPECT_EQ(finished->load(), 4);
  });
}

TEST(ThrowingTaskGroup, CancellingTheParentCancelsChildrenButNotTheOtherWayRound) {
  runMain([]() -> Async<void> {
    auto started = std::make_shared<std::atomic<int>>(0);
    auto parent = Task<int>::start([started]() -> Async<int> {
      auto body = [started](ThrowingTaskGroup<bool>& group) -> Async<int> {
        for (int i = 0; i < 3; ++i) {
          group.addTask([started]() -> Async<bool> {
            started->fetch_add(1);
            co_await untilCancelled();
            co_return true;
          });
        }
        int cancelled = 0;
        while (auto value = co_await group.next()) cancelled += *value ? 1 : 0;
        EXPECT_TRUE(group.isCancelled());
        // A child added to a cancelled group starts cancelled.
        group.addTask([]() -> Async<bool> { co_return isCancelled(); });
        if (auto late = co_await group.next()) cancelled += *late ? 1 : 0;
        co_return cancelled;
      };
      co_return co_await withThrowingTaskGroup<bool>(body);
    });
    while (started->load() < 3) co_await yieldNow();
    parent.cancel();
    EXPECT_EQ(co_await parent.value(), 4);

    // A child's cancellation stays with the child.
    auto body = [](ThrowingTaskGroup<void>& group) -> Async<bool> {
      group.addTask([]() -> Async<void> {
        auto inner = Task<void>::start([]() -> Async<void> { co_return; });
        inner.cancel();
        co_await inner.value();
      });
      co_await group.waitForAll();
      co_return isCancelled() || group.isCancelled();
    };
    EXPECT_FALSE(co_await withThrowingTaskGroup<void>(body));
  });
}

// Children keep being added while another thread cancels the owner: every child must end up
// cancelled, whether it was running, just adopted, or added afterwards (else this never ends).
TEST(ThrowingTaskGroup, CancellationRacingAddTaskReachesEveryChild) {
  for (int round = 0; round < 200; ++round) {
    auto added = std::make_shared<std::atomic<int>>(0);
    auto owner = Task<int>::start([added]() -> Async<int> {
      auto body = [added](ThrowingTaskGroup<void>& group) -> Async<int> {
        for (int i = 0; i < 20; ++i) {
          group.addTask([]() -> Async<void> { co_await untilCancelled(); });
          added->fetch_add(1);
        }
        co_await group.waitForAll();
        co_return 0;
      };
      co_return co_await withThrowingTaskGroup<void>(body);
    });
    std::thread canceller([owner, added, round] {
      while (added->load() < round % 20) std::this_thread::yield();
      owner.cancel();
    });
    runMain([owner]() -> Async<void> { co_await owner.result(); });
    canceller.join();
  }
}

TEST(ThrowingTaskGroup, CancelAllReachesChildrenOfNestedGroups) {
  runMain([]() -> Async<void> {
    auto reached = std::make_shared<std::atomic<int>>(0);
    auto outer = [reached](ThrowingTaskGroup<void>& group) -> Async<void> {
      for (int i = 0; i < 2; ++i) {
        group.addTask([reached]() -> Async<void> {
          auto inner = [reached](ThrowingTaskGroup<void>& nested) -> Async<void> {
            for (int j = 0; j < 2; ++j) {
              nested.addTask([reached]() -> Async<void> {
                reached->fetch_add(1);
                co_await untilCancelled();
              });
            }
            co_await nested.waitForAll();
          };
          co_await withThrowingTaskGroup<void>(inner);
        });
      }
      while (reached->load() < 4) co_await yieldNow();
      group.cancelAll();
      co_await group.waitForAll();
    };
    co_await withThrowingTaskGroup<void>(outer);
    EXPECT_EQ(reached->load(), 4);
  });
}

}  // namespace
}  // namespace carrow
