#include <atomic>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "xpc/service_harness.h"

namespace carrow::testing {
namespace {

using Options = XPCTaskGroup::TaskOptions;

class XPCTaskGroupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logger_ = std::make_shared<RecordingLogger>();
    CRLog::setLogger(logger_);
  }

  std::vector<std::string> messages() const {
    std::vector<std::string> texts;
    for (const auto& record : logger_->records()) {
      if (record.category == "XPCTask") texts.push_back(record.message);
    }
    return texts;
  }

  // A request that runs until it is cancelled, or until `release` is set.
  static Task<void> start(std::shared_ptr<XPCTaskGroup> group, Options options,
                          std::shared_ptr<std::atomic<bool>> release = nullptr) {
    return Task<void>::start([group, options, release]() -> Async<void> {
      auto wait = [release]() -> Async<void> {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!(release && *release) && std::chrono::steady_clock::now() < deadline) {
          co_await sleep(std::chrono::milliseconds(2));
        }
      };
      co_await group->withXPCTask(options, "wait", wait);
    });
  }

  static bool endedWithCancellation(const Task<void>& task) {
    return runMain([task]() -> Async<bool> {
      auto outcome = co_await task.result();
      try {
        outcome.get();
      } catch (const DomainError& error) {
        co_return error.domain() == DomainError::kCancellationDomain&& error.code() == 1;
      }
      co_return false;
    });
  }

  int marker_ = 0;
  std::shared_ptr<RecordingLogger> logger_;
};

TEST_F(XPCTaskGroupTest, NumbersRequestsFromOneAndNeverReusesANumber) {
  auto group = std::make_shared<XPCTaskGroup>(&marker_);
  runMain([group]() -> Async<void> {
    auto one = []() -> Async<int> { co_return 1; };
    const int first = co_await group->withXPCTask({}, "first:", one);
    const int second = co_await group->withXPCTask({}, "second:", one);
    EXPECT_EQ(first + second, 2);
  });
  const std::string on = " on " + group->connectionDescription() + ": ";
  EXPECT_EQ(messages(),
            (std::vector<std::string>{"Start #1" + on + "first:", "End #1" + on + "first: ",
                                      "Start #2" + on + "second:", "End #2" + on + "second: "}));
  EXPECT_TRUE(group->connectionDescription().starts_with("ObjectIdentifier(0x"));
  EXPECT_TRUE(group->registeredTaskNumbers().empty());
}

TEST_F(XPCTaskGroupTest, AnInterruptionWithNothingRunningOnlyLogsTheInterruption) {
  XPCTaskGroup group(&marker_);
  group.connectionInterrupted();
  ASSERT_EQ(messages(), std::vector<std::string>{"XPC Connection, Interrupted"});
  EXPECT_EQ(logger_->records()[0].level, CRLogLevel::error);
}

TEST_F(XPCTaskGroupTest, AnInterruptionCancelsEveryRequestAndTimesEachCancellation) {
  auto group = std::make_shared<XPCTaskGroup>(&marker_);
  std::vector<Task<void>> requests;
  for (int index = 0; index < 3; ++index) requests.push_back(start(group, Options()));
  ASSERT_TRUE(waitUntil([&] { return group->registeredTaskNumbers().size() == 3; }));
  group->connectionInterrupted();
  EXPECT_TRUE(group->registeredTaskNumbers().empty());
  for (const auto& request : requests) EXPECT_TRUE(endedWithCancellation(request));

  const auto texts = messages();
  EXPECT_NE(
      std::find(texts.begin(), texts.end(), "Cancelling 3 tasks due to connection interruption."),
      texts.end());
  // Each request's "Cancellation took" record comes before its "End #" record.
  int latencies = 0, ends = 0;
  for (const auto& text : texts) {
    if (text.starts_with("Cancellation took ")) {
      ++latencies;
      EXPECT_TRUE(text.ends_with(" seconds")) << text;
    }
    if (text.starts_with("End #")) {
      ++ends;
      EXPECT_GE(latencies, ends) << text;
    }
  }
  EXPECT_EQ(latencies, 3);
  EXPECT_EQ(ends, 3);
}

TEST_F(XPCTaskGroupTest, AnInvalidationCancelsOnlyTheRequestsThatAskedForIt) {
  auto group = std::make_shared<XPCTaskGroup>(&marker_);
  auto release = std::make_shared<std::atomic<bool>>(false);
  auto cancelled = start(group, Options::cancelOnInvalidation(), release);
  ASSERT_TRUE(waitUntil([&] { return group->registeredTaskNumbers().size() == 1; }));
  auto kept = start(group, Options(), release);
  ASSERT_TRUE(waitUntil([&] { return group->registeredTaskNumbers().size() == 2; }));

  group->connectionInvalidated();
  EXPECT_EQ(group->registeredTaskNumbers(), std::vector<std::int64_t>{2});
  EXPECT_TRUE(endedWithCancellation(cancelled));
  EXPECT_FALSE(kept.isFinished());
  EXPECT_FALSE(kept.isCancelled());
  *release = true;
  runMain([kept]() -> Async<void> { co_await kept.value(); });
  EXPECT_TRUE(group->registeredTaskNumbers().empty());

  const auto texts = messages();
  EXPECT_EQ(
      std::count(texts.begin(), texts.end(), "Cancelling 1 tasks due to connection invalidation."),
      1);
  EXPECT_EQ(
      std::count_if(texts.begin(), texts.end(),
                    [](const std::string& text) { return text.starts_with("Cancellation took "); }),
      1);
}

TEST_F(XPCTaskGroupTest, AnInvalidationWithoutSuchRequestsDoesNothing) {
  auto group = std::make_shared<XPCTaskGroup>(&marker_);
  auto release = std::make_shared<std::atomic<bool>>(false);
  auto request = start(group, Options(), release);
  ASSERT_TRUE(waitUntil([&] { return group->registeredTaskNumbers().size() == 1; }));
  const auto before = messages();
  group->connectionInvalidated();
  EXPECT_EQ(messages(), before);
  EXPECT_EQ(group->registeredTaskNumbers(), std::vector<std::int64_t>{1});
  *release = true;
  runMain([request]() -> Async<void> { co_await request.value(); });
  for (const auto& text : messages()) EXPECT_FALSE(text.starts_with("Cancellation took")) << text;
}

struct DetailedError : std::exception {
  const char* what() const noexcept override { return "with details"; }
};

TEST_F(XPCTaskGroupTest, ErrorsAreReducedToTheirDomainAndCodeAfterTheBookkeeping) {
  auto group = std::make_shared<XPCTaskGroup>(&marker_);
  const struct {
    std::exception_ptr thrown;
    DomainError expected;
  } cases[] = {
      {std::make_exception_ptr(
           std::system_error(ENOENT, std::generic_category(), "a long story about a file")),
       DomainError(std::string(DomainError::kPOSIXDomain), ENOENT)},
      {std::make_exception_ptr(DetailedError()),
       DomainError(std::string(DomainError::kGenericDomain), 1)},
      {std::make_exception_ptr(DomainError("com.example", 42)), DomainError("com.example", 42)},
  };
  for (const auto& testCase : cases) {
    auto thrown = testCase.thrown;
    const DomainError caught = runMain([group, thrown]() -> Async<DomainError> {
      auto failing = [thrown]() -> Async<void> {
        std::rethrow_exception(thrown);
        co_return;
      };
      try {
        co_await group->withXPCTask({}, "fail:", failing);
      } catch (const DomainError& error) {
        EXPECT_TRUE(group->registeredTaskNumbers().empty());
        co_return error;
      }
      co_return DomainError("none", 0);
    });
    EXPECT_EQ(caught, testCase.expected);
    EXPECT_TRUE(messages().back().starts_with("End #")) << messages().back();
  }
}

TEST_F(XPCTaskGroupTest, CancellingTheAwaitingCallerCancelsTheRequestsTask) {
  auto group = std::make_shared<XPCTaskGroup>(&marker_);
  auto observed = std::make_shared<std::atomic<bool>>(false);
  auto caller = Task<void>::start([group, observed]() -> Async<void> {
    auto operation = [observed]() -> Async<void> {
      try {
        co_await sleep(std::chrono::seconds(30));
      } catch (const CancellationError&) {
        observed->store(true);
        throw;
      }
    };
    co_await group->withXPCTask({}, "sleep:", operation);
  });
  ASSERT_TRUE(waitUntil([&] { return group->registeredTaskNumbers().size() == 1; }));
  caller.cancel();
  EXPECT_TRUE(waitUntil([&] { return observed->load(); }));
  EXPECT_TRUE(waitUntil([&] { return caller.isFinished(); }));
}

}  // namespace
}  // namespace carrow::testing
