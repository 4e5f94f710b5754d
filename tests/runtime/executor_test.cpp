#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/executor.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

// What the jobs of one test share.
struct Shared {
  Shared(const Executor& owner, int producers) : executor(owner), seen(producers) {}
  const Executor& executor;
  std::atomic<int> inside{0};
  std::atomic<int> finished{0};
  std::vector<std::vector<int>> seen;
};

// A job that records the order it ran in and checks nothing else of its executor ran meanwhile.
class RecordingJob final : public Job {
 public:
  RecordingJob(Shared& shared, int producer, int sequence)
      : shared_(shared), producer_(producer), sequence_(sequence) {}

  void run() noexcept override {
    EXPECT_EQ(shared_.inside.fetch_add(1), 0);
    EXPECT_TRUE(shared_.executor.isCurrent());
    shared_.seen[producer_].push_back(sequence_);  // unsynchronised on purpose: serial executor
    shared_.inside.fetch_sub(1);
    shared_.finished.fetch_add(1, std::memory_order_release);
  }

 private:
  Shared& shared_;
  int producer_;
  int sequence_;
};

TEST(SerialExecutor, RunsJobsOneAtATimeInTheOrderEachProducerQueuedThem) {
  constexpr int kProducers = 4;
  constexpr int kJobsEach = 2000;
  SerialExecutor serial;
  Shared shared(serial, kProducers);
  std::vector<std::unique_ptr<RecordingJob>> jobs;
  for (int p = 0; p < kProducers; ++p) {
    for (int i = 0; i < kJobsEach; ++i)
      jobs.push_back(std::make_unique<RecordingJob>(shared, p, i));
  }
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kJobsEach; ++i) serial.enqueue(*jobs[p * kJobsEach + i]);
    });
  }
  for (auto& producer : producers) producer.join();
  while (shared.finished.load(std::memory_order_acquire) < kProducers * kJobsEach) {
    std::this_thread::yield();
  }
  for (int p = 0; p < kProducers; ++p) {
    ASSERT_EQ(shared.seen[p].size(), static_cast<size_t>(kJobsEach));
    for (int i = 0; i < kJobsEach; ++i) ASSERT_EQ(shared.seen[p][i], i);
  }
  EXPECT_FALSE(serial.isCurrent());
}

class Worker : public Actor {
 public:
  // Leaves the actor for the heavy part and reports where each part ran.
  Async<std::vector<bool>> offload() {
    co_await enter();
    std::vector<bool> onActor{isIsolated()};
    co_await hopTo(globalExecutor());
    onActor.push_back(isIsolated());
    co_return onActor;
  }

  Async<std::vector<bool>> callOffload() {
    co_await enter();
    std::vector<bool> parts = co_await offload();
    parts.push_back(isIsolated());  // back on the actor once the callee returned
    co_return parts;
  }
};

TEST(HopTo, LeavesTheActorForTheRestOfTheFunctionOnly) {
  auto worker = std::make_shared<Worker>();
  const auto parts =
      runMain([worker]() -> Async<std::vector<bool>> { co_return co_await worker->callOffload(); });
  EXPECT_EQ(parts, (std::vector<bool>{true, false, true}));
}

TEST(Actor, AwaitingATaskFromAnActorComesBackToTheActor) {
  auto worker = std::make_shared<Worker>();
  runMain([worker]() -> Async<void> {
    auto operation = [](Worker& actor) -> Async<bool> {
      co_await actor.enter();
      auto task = Task<int>::start([]() -> Async<int> {
        co_await yieldNow();
        co_return 3;
      });
      const int value = co_await task.value();
      co_return value == 3 && actor.isIsolated();
    };
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(co_await operation(*worker));
  });
}

}  // namespace
}  // namespace carrow
