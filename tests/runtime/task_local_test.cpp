#include <string>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>
#include <carrow/runtime/task_local.h>

namespace carrow {
namespace {

TaskLocal<std::string>& requestName() {
  static TaskLocal<std::string> local("none");
  return local;
}
TaskLocal<int>& depth() {
  static TaskLocal<int> local(0);
  return local;
}

TEST(TaskLocal, BoundForTheScopeAndInheritedByTasksAndChildren) {
  EXPECT_EQ(requestName().get(), "none");  // the default, outside any binding and any task
  runMain([]() -> Async<void> {
    EXPECT_EQ(requestName().get(), "none");
    auto scope = []() -> Async<void> {
      EXPECT_EQ(requestName().get(), "outer");
      auto nested = []() -> Async<void> {
        EXPECT_EQ(requestName().get(), "outer");
        EXPECT_EQ(depth().get(), 2);
        auto task = Task<std::string>::start([]() -> Async<std::string> {
          co_await yieldNow();
          co_return requestName().get() + std::to_string(depth().get());
        });
        EXPECT_EQ(co_await task.value(), "outer2");
        auto body = [](ThrowingTaskGroup<int>& group) -> Async<int> {
          group.addTask([]() -> Async<int> { co_return depth().get(); });
          auto value = co_await group.next();
          co_return *value;
        };
        EXPECT_EQ(co_await withThrowingTaskGroup<int>(body), 2);
      };
      co_await depth().withValue(2, nested);
      EXPECT_EQ(depth().get(), 0);
    };
    co_await requestName().withValue("outer", scope);
    EXPECT_EQ(requestName().get(), "none");
  });
}

TEST(TaskLocal, ScopeEndsWhenItsOperationThrows) {
  runMain([]() -> Async<void> {
    auto failing = []() -> Async<int> {
      EXPECT_EQ(depth().get(), 9);
      throw 1;
      co_return 0;
    };
    EXPECT_THROW(co_await depth().withValue(9, failing), int);
    EXPECT_EQ(depth().get(), 0);
  });
}

}  // namespace
}  // namespace carrow
