#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

TEST(Continuation, ResumedSynchronouslyInsideTheBody) {
  const int value = runMain([]() -> Async<int> {
    auto body = [](CheckedContinuation<int, Never> continuation) { continuation.resume(11); };
    const int first = co_await withCheckedContinuation<int>("sync", body);
    auto unsafeBody = [](UnsafeContinuation<int> continuation) { continuation.resume(31); };
    const int second = co_await withUnsafeContinuation<int>(unsafeBody);
    auto resultBody = [](UnsafeContinuation<int> continuation) {
      continuation.resumeWith(Result<int>::success(8));
    };
    const int third = co_await withUnsafeThrowingContinuation<int>(resultBody);
    co_return first + second + third;
  });
  EXPECT_EQ(value, 50);
}

// A continuation's error resumes exist exactly when the await can throw.
template <class Continuation>
concept ResumableWithError = requires(const Continuation& continuation, std::exception_ptr error) {
  continuation.resumeThrowing(error);
  continuation.resumeThrowing(std::runtime_error("failed"));
};
template <class Continuation, class T>
concept ResumableWithOutcome = requires(const Continuation& continuation, Result<T> outcome) {
  continuation.resumeWith(std::move(outcome));
};
static_assert(ResumableWithError<CheckedContinuation<int>>);
static_assert(ResumableWithError<CheckedContinuation<void>>);
static_assert(ResumableWithOutcome<CheckedContinuation<int>, int>);
static_assert(!ResumableWithError<CheckedContinuation<int, Never>>);
static_assert(!ResumableWithError<CheckedContinuation<void, Never>>);
static_assert(!ResumableWithOutcome<CheckedContinuation<int, Never>, int>);
static_assert(!ResumableWithOutcome<CheckedContinuation<void, Never>, void>);

TEST(Continuation, NonThrowingFormHandsOutAContinuationWithoutErrorResumes) {
  const std::string value = runMain([]() -> Async<std::string> {
    auto body = [](auto continuation) {
      static_assert(
          std::is_same_v<decltype(continuation), CheckedContinuation<std::string, Never>>);
      std::thread([continuation] { continuation.resume("from afar"); }).detach();
    };
    co_return co_await withCheckedContinuation<std::string>("nonThrowing", body);
  });
  EXPECT_EQ(value, "from afar");
}

TEST(Continuation, ResumedWithAnErrorFromAForeignThread) {
  EXPECT_THROW(runMain([]() -> Async<void> {
                 auto body = [](CheckedContinuation<std::string> continuation) {
                   std::thread([continuation] {
                     continuation.resumeThrowing(std::runtime_error("from afar"));
                   }).detach();
                 };
                 co_await withCheckedThrowingContinuation<std::string>("foreign", body);
               }),
               std::runtime_error);
}

// The combinators resume continuations while holding their lock; if resuming ran the task
// inline, the task would take the same lock and deadlock (or run before the resumer is done).
TEST(Continuation, ResumingNeverRunsTheTaskOnTheResumingThread) {
  runMain([]() -> Async<void> {
    auto mutex = std::make_shared<std::mutex>();
    auto resumer = std::make_shared<std::thread::id>();
    auto body = [mutex, resumer](UnsafeContinuation<void> continuation) {
      std::lock_guard guard(*mutex);
      *resumer = std::this_thread::get_id();
      continuation.resume();
      *resumer = std::thread::id();  // still ours: the task has not run yet on this thread
    };
    co_await withUnsafeContinuation<void>(body);
    std::lock_guard guard(*mutex);
    EXPECT_EQ(*resumer, std::thread::id());
  });
}

TEST(ContinuationDeathTest, SecondResumeStopsTheProcessNamingTheContinuation) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto resumeTwice = [] {
    runMain([]() -> Async<void> {
      auto body = [](CheckedContinuation<void, Never> continuation) {
        continuation.resume();
        continuation.resume();
      };
      co_await withCheckedContinuation<void>("twiceResumed", body);
    });
    // The first resume may let the task finish before the second stops the process.
    std::this_thread::sleep_for(std::chrono::minutes(1));
  };
  EXPECT_DEATH(resumeTwice(),
               "Fatal error: continuation 'twiceResumed' was resumed more than once");
}

TEST(Continuation, DroppedWithoutResumeIsReported) {
  // The task stays suspended forever; keep its handle reachable so leak checkers see it as such.
  static auto* const parked = new std::vector<Task<void>>();
  testing::internal::CaptureStderr();
  std::atomic<bool> dropped{false};
  parked->push_back(Task<void>::start([&dropped]() -> Async<void> {
    auto body = [&dropped](CheckedContinuation<void, Never> continuation) {
      { CheckedContinuation<void, Never> last = std::move(continuation); }  // the last copy
      dropped = true;
    };
    co_await withCheckedContinuation<void>("forgotten", body);
  }));
  while (!dropped) std::this_thread::yield();
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_NE(output.find("continuation 'forgotten' was destroyed without being resumed"),
            std::string::npos)
      << output;
  EXPECT_FALSE(parked->back().isFinished());
}

}  // namespace
}  // namespace carrow
