#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/concurrency/bank.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>

#include "../logging/recording_logger.h"

namespace carrow {
// Named, not anonymous: g++ warns (-Wsubobject-linkage) when a type of an anonymous namespace
// becomes a member of a coroutine frame defined in a header, as the bank's race frames are.
namespace bank_stress {

using namespace std::chrono_literals;

constexpr int kKeys = 5;
constexpr int kCallers = 2000;

struct WorkRun {
  int key;
  int id;
};
using RunBank = Bank<int, WorkRun>;

struct WorkFailed : std::runtime_error {
  WorkFailed() : std::runtime_error("work failed") {}
};
struct TimedOut : std::runtime_error {
  TimedOut() : std::runtime_error("timed out") {}
};

// What every work run and caller leaves behind, checked once all have returned.
struct Ledger {
  std::atomic<int> runs[kKeys] = {};
  std::atomic<int> running[kKeys] = {};
  std::atomic<int> overlaps{0};
  std::atomic<int> nextRun{0};
};

auto work(std::shared_ptr<Ledger> ledger, int key, int delayMicroseconds) {
  return [ledger, key, delayMicroseconds]() -> Async<WorkRun> {
    const int id = ledger->nextRun.fetch_add(1);
    ledger->runs[key].fetch_add(1);
    if (ledger->running[key].fetch_add(1) != 0) ledger->overlaps.fetch_add(1);
    struct Leave {
      Ledger& ledger;
      int key;
      ~Leave() { ledger.running[key].fetch_sub(1); }
    } leave{*ledger, key};
    co_await sleep(std::chrono::microseconds(delayMicroseconds));
    if (id % 5 == 0) throw WorkFailed();
    co_return WorkRun{key, id};
  };
}

const void* addressOf(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& caught) {
    return &caught;
  }
}

enum class Outcome { value, ownTimeout, cancelled, workFailed, wrong };

TEST(BankStress, ThousandsOfCallersOverAFewKeysEachGetAnAnswerAndLeaveNothingBehind) {
  auto logger = std::make_shared<testing::RecordingLogger>();
  CRLog::setLogger(logger);
  auto ledger = std::make_shared<Ledger>();
  const std::vector<Outcome> outcomes = runMain([ledger]() -> Async<std::vector<Outcome>> {
    auto bank = std::make_shared<RunBank>(0, BankOptions::clearWhenUnused());
    std::mt19937 random(20261123);
    auto startCaller = [&bank, &ledger](int key, LockWait wait, int delay) {
      return Task<Outcome>::start([bank, ledger, key, wait, delay]() -> Async<Outcome> {
        // Errors are told apart by type and address only: every waiter of a failed run
        // shares one exception object, and the library that frees it is not instrumented,
        // so ThreadSanitizer would take a read of its fields for a race with that free.
        const void* ownTimeout = addressOf(wait.error());
        auto body = work(ledger, key, delay);
        try {
          const WorkRun result = co_await bank->lock(key, wait, std::move(body));
          co_return result.key == key ? Outcome::value : Outcome::wrong;
        } catch (const TimedOut& error) {
          co_return &error == ownTimeout ? Outcome::ownTimeout : Outcome::wrong;
        } catch (const CancellationError&) {
          co_return Outcome::cancelled;
        } catch (const WorkFailed&) {
          co_return Outcome::workFailed;
        }
      });
    };
    // However the threads are scheduled, one caller times out: it joins a run that takes far
    // longer than its limit.
    std::vector<Task<Outcome>> callers;
    callers.push_back(startCaller(0, LockWait::indefinite(), 300'000));
    while (!co_await bank->entry(0)) co_await sleep(100us);
    callers.push_back(startCaller(0, LockWait::throwAfter(0.001, TimedOut()), 0));
    for (int index = 0; index < kCallers; ++index) {
      const int key = static_cast<int>(random() % kKeys);
      const LockWait wait = random() % 3 == 0
                                ? LockWait::indefinite()
                                : LockWait::throwAfter((random() % 4000) / 1e6, TimedOut());
      const int delay = static_cast<int>(random() % 3000);
      callers.push_back(startCaller(key, wait, delay));
      if (random() % 7 == 0) callers[2 + random() % (callers.size() - 2)].cancel();
      if (index % 50 == 49) co_await sleep(500us);
    }
    std::vector<Outcome> seen;
    for (auto& caller : callers) seen.push_back(co_await caller.value());
    EXPECT_EQ(co_await bank->entryCount(), 0u);
    co_return seen;
  });

  std::map<Outcome, int> counts;
  for (Outcome outcome : outcomes) ++counts[outcome];
  EXPECT_EQ(counts[Outcome::wrong], 0);
  EXPECT_GT(counts[Outcome::value], 0);
  EXPECT_GT(counts[Outcome::ownTimeout], 0);
  EXPECT_GT(counts[Outcome::cancelled], 0);
  EXPECT_GT(counts[Outcome::workFailed], 0);
  EXPECT_EQ(ledger->overlaps.load(), 0);
  // One run per entry lifetime: each lifetime starts with exactly one "Took First Lock".
  for (int key = 0; key < kKeys; ++key) {
    const std::string first = "Took First Lock { key: " + std::to_string(key) + " waiter: 1 }";
    EXPECT_EQ(logger->recordsContaining(first).size(),
              static_cast<std::size_t>(ledger->runs[key].load()))
        << "key " << key;
  }
}

}  // namespace bank_stress
}  // namespace carrow
