#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/concurrency/bank.h>
#include <carrow/concurrency/bell.h>
#include <carrow/logging/log_limit.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>

#include "../logging/recording_logger.h"

namespace carrow {
namespace {

using namespace std::chrono_literals;
using IntBank = Bank<std::string, int>;

struct WorkFailed : std::runtime_error {
  WorkFailed() : std::runtime_error("work failed") {}
};
struct TimedOut : std::runtime_error {
  TimedOut() : std::runtime_error("timed out") {}
};

// Work that runs until its gate opens, then returns 42 (or throws, if told to). With
// `ignoresCancellation` it keeps running after being cancelled, like work that cannot stop.
struct Gate {
  Bell2 open;
  std::atomic<int> runs{0};
  bool fails = false;
  bool ignoresCancellation = false;
};

auto gatedWork(std::shared_ptr<Gate> gate) {
  return [gate]() -> Async<int> {
    gate->runs.fetch_add(1);
    while (!gate->open.hasRung()) {
      if (!gate->ignoresCancellation) {
        co_await sleep(1ms);
        continue;
      }
      bool cancelled = false;
      try {
        co_await sleep(1ms);
      } catch (const CancellationError&) {
        cancelled = true;
      }
      if (cancelled) co_await yieldNow();
    }
    if (gate->fails) throw WorkFailed();
    co_return 42;
  };
}

Task<int> caller(std::shared_ptr<IntBank> bank, LockWait wait, std::shared_ptr<Gate> gate) {
  return Task<int>::start([bank, wait, gate]() -> Async<int> {
    auto work = gatedWork(gate);
    co_return co_await bank->lock("k", wait, std::move(work));
  });
}

// Waits (bounded) until the entry of "k" counts `count` callers.
Async<void> waitForWaiters(std::shared_ptr<IntBank> bank, std::int64_t count) {
  for (int round = 0; round < 5000; ++round) {
    std::optional<IntBank::Entry> entry = co_await bank->entry("k");
    if (entry && entry->waiting == count) co_return;
    co_await sleep(1ms);
  }
  ADD_FAILURE() << "the entry never counted " << count << " callers";
}

class BankTest : public ::testing::Test {
 protected:
  void SetUp() override { CRLog::setLogger(logger); }

  std::vector<std::string> messages(const std::string& containing) const {
    std::vector<std::string> found;
    for (const auto& record : logger->recordsContaining(containing)) {
      EXPECT_EQ(record.category, "Bank");
      found.push_back(record.message);
    }
    return found;
  }

  std::shared_ptr<testing::RecordingLogger> logger = std::make_shared<testing::RecordingLogger>();
};

TEST_F(BankTest, TenCallersShareOneRunAndAreNumberedInOrder) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto gate = std::make_shared<Gate>();
    std::vector<Task<int>> callers{caller(bank, LockWait::indefinite(), gate)};
    co_await waitForWaiters(bank, 1);
    for (int index = 2; index <= 10; ++index) {
      callers.push_back(caller(bank, LockWait::indefinite(), gate));
      co_await waitForWaiters(bank, index);
    }
    gate->open.ring();
    for (auto& task : callers) EXPECT_EQ(co_await task.value(), 42);
    EXPECT_EQ(gate->runs.load(), 1);
  });
  const auto records = logger->records();
  EXPECT_EQ(messages("Took First Lock"),
            std::vector<std::string>{"Took First Lock { key: k waiter: 1 }"});
  std::vector<std::string> completed = messages("Task completed");
  std::sort(completed.begin(), completed.end());
  std::vector<std::string> expected;
  for (int number = 2; number <= 10; ++number) {
    expected.push_back("Task completed { key: k waiter: " + std::to_string(number) + " }");
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(completed, expected);
  EXPECT_EQ(messages("Clearing cache"),
            std::vector<std::string>{"Clearing cache for key { key: k waiting: 0 }"});
  for (const auto& record : records) EXPECT_EQ(record.level, CRLogLevel::debug);
}

// The last caller to leave decides: the entry goes with clearWhenUnused, else it stays and
// answers the next caller with the finished task's outcome, value or error, without new work.
TEST_F(BankTest, TheLastCallerToLeaveClearsOrKeepsTheEntry) {
  const std::string kCleared = "Clearing cache for key { key: k waiting: 0 }";
  const std::string kKept = "Decrementing waiters for key { key: k waiting: 0 }";
  struct Case {
    bool clear;
    bool fails;
    int runsAfterSecondCall;
    std::vector<std::string> lastRecords;
  };
  const Case cases[] = {
      {true, false, 2, {"Took First Lock { key: k waiter: 1 }", kCleared}},
      {true, true, 2, {"Took First Lock { key: k waiter: 1 }", kCleared}},
      {false, false, 1, {kKept, "Task completed { key: k waiter: 1 }"}},
      {false, true, 1, {kKept, "Task completed { key: k waiter: 1 }"}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(std::string(test.clear ? "clear" : "keep") + (test.fails ? ", failing" : ""));
    const std::size_t entriesLeft = runMain([test]() -> Async<std::size_t> {
      auto bank =
          std::make_shared<IntBank>(0, test.clear ? BankOptions::clearWhenUnused() : BankOptions());
      auto gate = std::make_shared<Gate>();
      gate->fails = test.fails;
      Task<int> first = caller(bank, LockWait::indefinite(), gate);
      co_await waitForWaiters(bank, 1);
      Task<int> second = caller(bank, LockWait::throwAfter(0.01, TimedOut()), gate);
      Task<int> third = caller(bank, LockWait::indefinite(), gate);
      co_await waitForWaiters(bank, 3);
      co_await second.result();  // timed out; the entry stays for the other two
      EXPECT_EQ(co_await bank->entryCount(), 1u);
      gate->open.ring();
      for (Task<int>* task : {&first, &third}) {
        Result<int> outcome = co_await task->result();
        EXPECT_EQ(outcome.hasValue(), !test.fails);
      }
      EXPECT_EQ(gate->runs.load(), 1);
      const std::size_t left = co_await bank->entryCount();
      Result<int> again = co_await caller(bank, LockWait::indefinite(), gate).result();
      EXPECT_EQ(again.hasValue(), !test.fails);
      EXPECT_EQ(gate->runs.load(), test.runsAfterSecondCall);
      co_return left;
    });
    EXPECT_EQ(entriesLeft, test.clear ? 0u : 1u);
    const auto records = logger->records();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(
        (std::vector<std::string>{records[records.size() - 2].message, records.back().message}),
        test.lastRecords);
    logger = std::make_shared<testing::RecordingLogger>();
    CRLog::setLogger(logger);
  }
}

TEST_F(BankTest, ALaterCallersTimeLimitThrowsItsErrorAndLeavesTheWorkRunning) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto gate = std::make_shared<Gate>();
    Task<int> first = caller(bank, LockWait::indefinite(), gate);
    co_await waitForWaiters(bank, 1);
    const auto start = ContinuousClock::now();
    Task<int> hurried = caller(bank, LockWait::throwAfter(0.1, TimedOut()), gate);
    Task<int> patient = caller(bank, LockWait::indefinite(), gate);
    Result<int> outcome = co_await hurried.result();
    EXPECT_GE(ContinuousClock::now() - start, 100ms);
    EXPECT_THROW(outcome.get(), TimedOut);
    co_await waitForWaiters(bank, 2);
    EXPECT_FALSE(first.isCancelled());
    gate->open.ring();
    EXPECT_EQ(co_await first.value(), 42);
    EXPECT_EQ(co_await patient.value(), 42);
    EXPECT_EQ(gate->runs.load(), 1);
  });
  EXPECT_EQ(messages("Timed out").size(), 1u);
  EXPECT_EQ(messages("Decrementing waiters for key { key: k waiting: 2 }").size(), 1u);
}

TEST_F(BankTest, CancellingALaterCallerLeavesTheWorkToOthersAndNewcomers) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto gate = std::make_shared<Gate>();
    Task<int> first = caller(bank, LockWait::indefinite(), gate);
    co_await waitForWaiters(bank, 1);
    Task<int> later = caller(bank, LockWait::indefinite(), gate);
    co_await waitForWaiters(bank, 2);
    later.cancel();
    Result<int> outcome = co_await later.result();
    EXPECT_THROW(outcome.get(), CancellationError);
    co_await waitForWaiters(bank, 1);
    Task<int> newcomer = caller(bank, LockWait::indefinite(), gate);
    co_await waitForWaiters(bank, 2);
    gate->open.ring();
    EXPECT_EQ(co_await first.value(), 42);
    EXPECT_EQ(co_await newcomer.value(), 42);
    EXPECT_EQ(gate->runs.load(), 1);
  });
  EXPECT_EQ(messages("Cancelled { key: k waiter: 2 }").size(), 1u);
  EXPECT_EQ(messages("Task completed { key: k waiter: 2 }").size(), 1u);
}

TEST_F(BankTest, CancellingTheFirstCallerCancelsTheWorkForEveryone) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto gate = std::make_shared<Gate>();
    Task<int> first = caller(bank, LockWait::indefinite(), gate);
    co_await waitForWaiters(bank, 1);
    Task<int> later = caller(bank, LockWait::indefinite(), gate);
    co_await waitForWaiters(bank, 2);
    first.cancel();
    for (Task<int>* task : {&first, &later}) {
      Result<int> outcome = co_await task->result();
      EXPECT_THROW(outcome.get(), CancellationError);
    }
    EXPECT_EQ(co_await bank->entryCount(), 0u);
  });
  EXPECT_EQ(messages("Task completed { key: k waiter: 2 }").size(), 1u);
}

TEST_F(BankTest, FailingWorkWakesEveryWaiterWithTheSameError) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto gate = std::make_shared<Gate>();
    gate->fails = true;
    std::vector<Task<int>> callers{caller(bank, LockWait::indefinite(), gate)};
    co_await waitForWaiters(bank, 1);
    callers.push_back(caller(bank, LockWait::throwAfter(30, TimedOut()), gate));
    callers.push_back(caller(bank, LockWait::indefinite(), gate));
    co_await waitForWaiters(bank, 3);
    gate->open.ring();
    std::set<const void*> errors;
    for (auto& task : callers) {
      try {
        co_await task.value();
        ADD_FAILURE() << "a waiter got a value from failing work";
      } catch (const WorkFailed& error) {
        errors.insert(&error);
      }
    }
    EXPECT_EQ(errors.size(), 1u);  // one error object, rethrown to everyone
    EXPECT_EQ(gate->runs.load(), 1);
  });
}

// The work of a cleared entry that started again belongs to the new entry alone: the old
// lifetime's leftovers never take the new entry's count down or remove it.
TEST_F(BankTest, AnEntryStartedAgainIsNotDisturbedByTheOldLifetime) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto oldGate = std::make_shared<Gate>();
    Task<int> oldFirst = caller(bank, LockWait::indefinite(), oldGate);
    co_await waitForWaiters(bank, 1);
    Task<int> oldLater = caller(bank, LockWait::throwAfter(0.01, TimedOut()), oldGate);
    co_await oldLater.result();
    oldGate->open.ring();
    EXPECT_EQ(co_await oldFirst.value(), 42);
    EXPECT_EQ(co_await bank->entryCount(), 0u);
    auto newGate = std::make_shared<Gate>();
    Task<int> newFirst = caller(bank, LockWait::indefinite(), newGate);
    co_await waitForWaiters(bank, 1);
    Task<int> newLater = caller(bank, LockWait::indefinite(), newGate);
    co_await waitForWaiters(bank, 2);
    co_await sleep(20ms);  // room for any late bookkeeping of the old lifetime
    std::optional<IntBank::Entry> entry = co_await bank->entry("k");
    EXPECT_TRUE(entry && entry->waiting == 2);
    newGate->open.ring();
    EXPECT_EQ(co_await newFirst.value(), 42);
    EXPECT_EQ(co_await newLater.value(), 42);
    EXPECT_EQ(oldGate->runs.load() + newGate->runs.load(), 2);
  });
}

TEST_F(BankTest, CancelTaskAndWaitOnAnUnknownKeyOnlyLogs) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(7, BankOptions());
    co_await bank->cancelTaskAndWait("k", LockWait::throwAfter(0.01, TimedOut()));
    co_await bank->cancelTask("k");
    EXPECT_EQ(co_await bank->entryCount(), 0u);
    EXPECT_EQ(bank->pollRate(), 7u);
  });
  const auto records = logger->records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "No task in-progress for k. Ignoring cancellation...");
  EXPECT_EQ(records[0].level, CRLogLevel::info);
  EXPECT_EQ(records[0].category, "Bank");
}

TEST_F(BankTest, CancelTaskAndWaitEndsWhenTheWorkStopsOrThrowsAtItsLimit) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto stoppable = std::make_shared<Gate>();
    Task<int> first = caller(bank, LockWait::indefinite(), stoppable);
    co_await waitForWaiters(bank, 1);
    co_await bank->cancelTaskAndWait("k", LockWait::indefinite());
    Result<int> outcome = co_await first.result();
    EXPECT_THROW(outcome.get(), CancellationError);

    auto stubborn = std::make_shared<Gate>();
    stubborn->ignoresCancellation = true;
    Task<int> second = caller(bank, LockWait::indefinite(), stubborn);
    co_await waitForWaiters(bank, 1);
    EXPECT_THROW(co_await bank->cancelTaskAndWait("k", LockWait::throwAfter(0.05, TimedOut())),
                 TimedOut);
    co_await bank->cancelTask("k");  // again: changes nothing
    EXPECT_EQ(co_await bank->entryCount(), 1u);
    stubborn->open.ring();
    EXPECT_EQ(co_await second.value(), 42);
  });
}

struct Account {
  int id;
  friend bool operator==(const Account&, const Account&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Account& account) {
    return out << "acct-" << account.id;
  }
};

}  // namespace
}  // namespace carrow

template <>
struct std::hash<carrow::Account> {
  std::size_t operator()(const carrow::Account& account) const noexcept {
    return std::hash<int>{}(account.id);
  }
};

namespace carrow {
namespace {

TEST_F(BankTest, RecordsShowTheKeysPrintedForm) {
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<Bank<Account, int>>(0, BankOptions::clearWhenUnused());
    auto work = []() -> Async<int> { co_return 5; };
    EXPECT_EQ(co_await bank->lock(Account{7}, LockWait::indefinite(), work), 5);
    co_await bank->cancelTaskAndWait(Account{7}, LockWait::indefinite());
  });
  std::vector<std::string> all;
  for (const auto& record : logger->records()) all.push_back(record.message);
  EXPECT_EQ(all,
            (std::vector<std::string>{"Took First Lock { key: acct-7 waiter: 1 }",
                                      "Clearing cache for key { key: acct-7 waiting: 0 }",
                                      "No task in-progress for acct-7. Ignoring cancellation..."}));
}

// A logger that declines category "Bank" gets no debug record of the bank, and the limiter does
// not count them either: a limited record with the same text afterwards passes its full count.
// Info records are not debug output and still go out.
TEST_F(BankTest, DebugRecordsAreNeitherWrittenNorCountedWhenTheLoggerDeclinesBank) {
  auto declining = std::make_shared<testing::RecordingLogger>(false);
  CRLog::setLogger(declining);
  runMain([]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
    auto work = []() -> Async<int> { co_return 3; };
    EXPECT_EQ(co_await bank->lock("declined", LockWait::indefinite(), work), 3);
    co_await bank->cancelTaskAndWait("declined", LockWait::indefinite());
  });
  std::vector<std::string> written;
  for (const auto& record : declining->records()) written.push_back(record.message);
  EXPECT_EQ(written,
            std::vector<std::string>{"No task in-progress for declined. Ignoring cancellation..."});

  CRLog::setLogger(logger);
  for (int round = 0; round < 5; ++round) {
    CRLog::debug("Bank", "Took First Lock { key: declined waiter: 1 }", LogLimit::aFewTimes);
  }
  EXPECT_EQ(logger->recordsContaining("Took First Lock { key: declined").size(), 5u);
  EXPECT_TRUE(logger->recordsContaining("Limiting logging").empty());
}

TEST(BankDeathTest, AWaiterCountBelowZeroStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto leaveTwice = [] {
    CRLog::setLogger(std::make_shared<testing::RecordingLogger>());
    runMain([]() -> Async<void> {
      auto bank = std::make_shared<IntBank>(0, BankOptions());
      auto work = []() -> Async<int> { co_return 1; };
      co_await bank->lock("k", LockWait::indefinite(), work);
      co_await bank->enter();
      bank->removeWaiter("k");
    });
  };
  EXPECT_DEATH(leaveTwice(), "CarrowPrivate/Locks:[0-9]+: Fatal error: .*below zero");
}

TEST(BankDeathTest, ACancelledCallerOfCancelTaskAndWaitFallsThroughAndStops) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto fallThrough = [] {
    CRLog::setLogger(std::make_shared<testing::RecordingLogger>());
    runMain([]() -> Async<void> {
      auto bank = std::make_shared<IntBank>(0, BankOptions());
      auto gate = std::make_shared<Gate>();
      gate->ignoresCancellation = true;
      Task<int> first = caller(bank, LockWait::indefinite(), gate);
      co_await waitForWaiters(bank, 1);
      auto canceller = Task<void>::start([bank]() -> Async<void> {
        while (!isCancelled()) co_await yieldNow();
        co_await bank->cancelTaskAndWait("k", LockWait::throwAfter(30, TimedOut()));
      });
      canceller.cancel();
      co_await canceller.result();
    });
  };
  EXPECT_DEATH(fallThrough(), "Unexpectedly fell through while waiting for cancellation");
}

}  // namespace
}  // namespace carrow
