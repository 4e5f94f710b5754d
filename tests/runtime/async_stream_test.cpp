#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/async_stream.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

using namespace std::chrono_literals;

static_assert(AsyncSequenceOf<AsyncStream<int>, int>);
static_assert(AsyncSequenceOf<AsyncThrowingStream<std::string>, std::string>);

// Records every termination a handler sees.
struct Terminations {
  std::atomic<int> count{0};
  std::atomic<int> cancelled{0};
  std::atomic<int> finishedWithError{0};

  std::function<void(StreamTermination)> handler() {
    return [this](StreamTermination termination) {
      if (termination.isCancelled()) cancelled.fetch_add(1);
      if (termination.error()) finishedWithError.fetch_add(1);
      count.fetch_add(1);
    };
  }
};

// Reads `stream` to its end; a second read after the end must give the end again.
template <class Stream>
Async<std::vector<int>> drain(Stream stream) {
  auto iterator = stream.makeAsyncIterator();
  std::vector<int> values;
  while (auto value = co_await iterator.next()) values.push_back(*value);
  auto again = co_await iterator.next();
  EXPECT_FALSE(again.has_value());
  co_return values;
}

// Reads one element, then expects an error, then the end: "<element> <error> end".
template <class Stream>
Async<std::string> readThroughAnError(Stream stream) {
  auto iterator = stream.makeAsyncIterator();
  std::string log = std::to_string(*co_await iterator.next());
  try {
    co_await iterator.next();
    log += " no-error";
  } catch (const std::runtime_error& error) {
    log += std::string(" ") + error.what();
  }
  auto after = co_await iterator.next();
  log += after ? " more" : " end";
  co_return log;
}

// --- unfolding form -------------------------------------------------------------------------

TEST(UnfoldingStream, RunsTheStepOncePerNextAndNeverAhead) {
  auto steps = std::make_shared<int>(0);
  auto stream = AsyncStream<int>::unfolding([steps]() -> Async<std::optional<int>> {
    ++*steps;
    if (*steps > 3) co_return std::nullopt;
    co_return *steps * 10;
  });
  EXPECT_EQ(*steps, 0);  // making the stream runs nothing
  const auto seen = runMain([stream, steps]() -> Async<std::vector<int>> {
    std::vector<int> seen;
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(*steps, 0);  // nor does making the iterator
    for (int i = 0; i < 6; ++i) {
      const int before = *steps;
      auto value = co_await iterator.next();
      seen.push_back(value ? *value : -1);
      // Exactly one step per call until the end; none afterwards.
      EXPECT_EQ(*steps, before < 4 ? before + 1 : before);
    }
    co_return seen;
  });
  EXPECT_EQ(seen, (std::vector<int>{10, 20, 30, -1, -1, -1}));
  EXPECT_EQ(*steps, 4);
}

TEST(UnfoldingStream, ThrowingStepEndsTheStreamWithItsError) {
  auto steps = std::make_shared<int>(0);
  auto stream = AsyncThrowingStream<int>::unfolding([steps]() -> Async<std::optional<int>> {
    if (++*steps == 2) throw std::runtime_error("step failed");
    co_return *steps;
  });
  const auto outcome =
      runMain([stream]() -> Async<std::string> { co_return co_await readThroughAnError(stream); });
  EXPECT_EQ(outcome, "1 step failed end");
  EXPECT_EQ(*steps, 2);
}

TEST(UnfoldingStream, NonThrowingStreamEndsWhenItsStepThrows) {
  auto stream = AsyncStream<int>::unfolding([]() -> Async<std::optional<int>> {
    throw std::logic_error("misbehaving step");
    co_return 1;
  });
  const bool ended = runMain([stream]() -> Async<bool> {
    auto iterator = stream.makeAsyncIterator();
    auto first = co_await iterator.next();
    auto second = co_await iterator.next();
    co_return !first && !second;
  });
  EXPECT_TRUE(ended);
}

// --- continuation-fed form ------------------------------------------------------------------

TEST(ContinuationStream, DeliversBufferedElementsThenTheEnd) {
  Terminations terminations;
  auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
  continuation.setOnTermination(terminations.handler());
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(continuation.yield(i), StreamYieldResult::enqueued);
  continuation.finish();
  EXPECT_EQ(terminations.count, 1);  // finishing runs the handler at once
  EXPECT_EQ(continuation.yield(4), StreamYieldResult::terminated);
  continuation.finish();
  const auto values =
      runMain([stream = stream]() -> Async<std::vector<int>> { co_return co_await drain(stream); });
  EXPECT_EQ(values, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(terminations.count, 1);
  EXPECT_EQ(terminations.cancelled, 0);
}

TEST(ContinuationStream, FinishWithErrorThrowsOnceAfterTheElements) {
  Terminations terminations;
  auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
  continuation.setOnTermination(terminations.handler());
  continuation.yield(7);
  continuation.finishThrowing(std::runtime_error("producer failed"));
  const auto log = runMain(
      [stream = stream]() -> Async<std::string> { co_return co_await readThroughAnError(stream); });
  EXPECT_EQ(log, "7 producer failed end");
  EXPECT_EQ(terminations.count, 1);
  EXPECT_EQ(terminations.finishedWithError, 1);
}

TEST(ContinuationStream, BuildConstructorHandsOverTheContinuation) {
  AsyncStream<int>::Continuation* escaped = nullptr;
  std::optional<AsyncStream<int>::Continuation> kept;
  AsyncStream<int> stream([&](AsyncStream<int>::Continuation continuation) {
    continuation.yield(1);
    kept = continuation;
    escaped = &*kept;
  });
  escaped->yield(2);
  escaped->finish();
  const auto values =
      runMain([stream]() -> Async<std::vector<int>> { co_return co_await drain(stream); });
  EXPECT_EQ(values, (std::vector<int>{1, 2}));
}

TEST(ContinuationStream, DroppingAStreamThatWasNeverIteratedTerminates) {
  Terminations terminations;
  std::optional<AsyncThrowingStream<int>::Continuation> continuation;
  {
    auto pair = AsyncThrowingStream<int>::makeStream();
    continuation = pair.continuation;
    continuation->setOnTermination(terminations.handler());
    auto copy = pair.stream;
  }
  EXPECT_EQ(terminations.cancelled, 1);
  EXPECT_EQ(continuation->yield(1), StreamYieldResult::terminated);
}

TEST(ContinuationStream, CancellingAWaitingConsumerEndsItPromptlyAndTerminatesOnce) {
  Terminations terminations;
  auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
  continuation.setOnTermination(terminations.handler());
  const auto outcome = runMain([stream = stream]() -> Async<std::pair<bool, std::int64_t>> {
    auto consumer = Task<bool>::start([stream]() -> Async<bool> {
      auto iterator = stream.makeAsyncIterator();
      auto value = co_await iterator.next();  // nothing is ever yielded
      co_return !value.has_value();
    });
    co_await sleep(10ms);
    const auto start = SuspendingClock::now();
    consumer.cancel();
    const bool ended = co_await consumer.value();
    co_return std::pair<bool, std::int64_t>(ended, (SuspendingClock::now() - start).count());
  });
  EXPECT_TRUE(outcome.first);
  EXPECT_LT(std::chrono::nanoseconds(outcome.second), 200ms);
  EXPECT_EQ(terminations.count, 1);
  EXPECT_EQ(terminations.cancelled, 1);
  EXPECT_EQ(continuation.yield(1), StreamYieldResult::terminated);
}

TEST(ContinuationStream, ConsumerInACancelledTaskReadsTheEndAtOnce) {
  Terminations terminations;
  auto [stream, continuation] = AsyncStream<int>::makeStream();
  continuation.setOnTermination(terminations.handler());
  continuation.yield(1);  // buffered, but a cancelled consumer does not read it
  const bool ended = runMain([stream = stream]() -> Async<bool> {
    auto consumer = Task<bool>::start([stream]() -> Async<bool> {
      while (!isCancelled()) co_await yieldNow();
      auto iterator = stream.makeAsyncIterator();
      auto first = co_await iterator.next();
      auto second = co_await iterator.next();
      co_return !first && !second;
    });
    consumer.cancel();
    co_return co_await consumer.value();
  });
  EXPECT_TRUE(ended);
  EXPECT_EQ(terminations.count, 1);
  EXPECT_EQ(terminations.cancelled, 1);
}

TEST(ContinuationStream, HandlerSetAfterTheEndRunsAtOnceAndAReplacedOneNever) {
  Terminations first;
  Terminations second;
  Terminations late;
  auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
  continuation.setOnTermination(first.handler());
  continuation.setOnTermination(second.handler());
  continuation.finish();
  continuation.setOnTermination(late.handler());
  EXPECT_EQ(first.count, 0);
  EXPECT_EQ(second.count, 1);
  EXPECT_EQ(late.count, 1);
}

TEST(ContinuationStream, HandlerMayUseTheContinuationWithoutDeadlock) {
  auto [stream, continuation] = AsyncStream<int>::makeStream();
  std::atomic<int> yieldedInHandler{-1};
  continuation.setOnTermination([&yieldedInHandler, continuation = continuation](auto) {
    yieldedInHandler = static_cast<int>(continuation.yield(9));
    continuation.finish();
  });
  continuation.finish();
  EXPECT_EQ(yieldedInHandler, static_cast<int>(StreamYieldResult::terminated));
}

// Counts live copies so that leaks and double destruction both show.
struct Counted {
  static inline std::atomic<int> alive{0};
  int value;
  explicit Counted(int v) : value(v) { ++alive; }
  Counted(const Counted& other) : value(other.value) { ++alive; }
  Counted(Counted&& other) noexcept : value(other.value) { ++alive; }
  Counted& operator=(const Counted&) = default;
  ~Counted() { --alive; }
};

TEST(ContinuationStream, DroppingTheIteratorTerminatesOnceAndReleasesEveryElement) {
  Terminations terminations;
  {
    auto [stream, continuation] = AsyncStream<Counted>::makeStream();
    continuation.setOnTermination(terminations.handler());
    for (int i = 0; i < 10; ++i) continuation.yield(Counted(i));
    const int sum = runMain([stream = stream]() -> Async<int> {
      auto iterator = stream.makeAsyncIterator();
      int sum = 0;
      for (int i = 0; i < 4; ++i) sum += (*co_await iterator.next()).value;
      co_return sum;  // six elements are still buffered when the iterator goes
    });
    EXPECT_EQ(sum, 0 + 1 + 2 + 3);
    EXPECT_EQ(Counted::alive, 0);  // the dropped consumer released the rest
    EXPECT_EQ(terminations.count, 1);
    EXPECT_EQ(terminations.cancelled, 1);
    EXPECT_EQ(continuation.yield(Counted(99)), StreamYieldResult::terminated);
    continuation.finish();  // too late: the handler does not run again
  }
  EXPECT_EQ(Counted::alive, 0);
  EXPECT_EQ(terminations.count, 1);
}

TEST(ContinuationStream, ConcurrentProducersLoseAndDuplicateNothing) {
  constexpr int kProducers = 4;
  constexpr int kPerProducer = 5000;
  Terminations terminations;
  auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
  continuation.setOnTermination(terminations.handler());
  std::atomic<int> running{kProducers};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p, continuation = continuation] {
      for (int i = 0; i < kPerProducer; ++i) continuation.yield(p * kPerProducer + i);
      if (running.fetch_sub(1) == 1) continuation.finish();
    });
  }
  const auto values =
      runMain([stream = stream]() -> Async<std::vector<int>> { co_return co_await drain(stream); });
  for (auto& producer : producers) producer.join();
  ASSERT_EQ(values.size(), std::size_t{kProducers * kPerProducer});
  // Each producer's elements arrive in its own order.
  std::vector<int> last(kProducers, -1);
  for (int value : values) {
    const int producer = value / kPerProducer;
    EXPECT_GT(value, last[producer]);
    last[producer] = value;
  }
  EXPECT_EQ(terminations.count, 1);
}

TEST(ContinuationStream, TerminationRunsOnceWhenFinishRacesConsumerCancellation) {
  for (int round = 0; round < 200; ++round) {
    Terminations terminations;
    auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    continuation.setOnTermination(terminations.handler());
    std::thread producer([continuation = continuation, round] {
      for (int i = 0; i < round % 20; ++i) continuation.yield(i);
      continuation.finish();
    });
    runMain([stream = stream, round]() -> Async<void> {
      auto consumer = Task<void>::start([stream]() -> Async<void> {
        auto iterator = stream.makeAsyncIterator();
        while (co_await iterator.next()) {
        }
      });
      if (round % 2 == 0) co_await yieldNow();
      consumer.cancel();
      co_await consumer.value();
    });
    producer.join();
    EXPECT_EQ(terminations.count, 1) << "round " << round;
  }
}

class Reader : public Actor {
 public:
  // Reads `stream` to its end on the actor; counts the elements that found the code elsewhere.
  Async<int> readAll(AsyncStream<int> stream) {
    co_await enter();
    auto iterator = stream.makeAsyncIterator();
    int offActor = 0;
    while (co_await iterator.next()) {
      if (!isIsolated()) ++offActor;
    }
    co_return offActor;
  }
};

TEST(ContinuationStream, ConsumerOnAnActorIsResumedOnTheActor) {
  // The producer's yield only schedules the consumer; it never runs it on the producer thread.
  auto [stream, continuation] = AsyncStream<int>::makeStream();
  std::thread producer([continuation = continuation] {
    for (int i = 0; i < 20; ++i) {
      std::this_thread::sleep_for(1ms);
      continuation.yield(i);
    }
    continuation.finish();
  });
  Reader reader;
  const int offActor = runMain(
      [&reader, stream = stream]() -> Async<int> { co_return co_await reader.readAll(stream); });
  producer.join();
  EXPECT_EQ(offActor, 0);
}

TEST(UnfoldingStream, StepOnTheMainActorReturnsToTheConsumersExecutor) {
  // The shape of the library's timer streams: each step hops to the main actor and sleeps there.
  auto stream = AsyncStream<bool>::unfolding([]() -> Async<std::optional<bool>> {
    co_await MainActor::shared().enter();
    co_await sleep(1ms);
    co_return MainActor::isMainThread();
  });
  const auto results = runMain([stream]() -> Async<std::pair<int, int>> {
    auto iterator = stream.makeAsyncIterator();
    int onMain = 0;
    int backOffMain = 0;
    for (int i = 0; i < 3; ++i) {
      if (*co_await iterator.next()) ++onMain;
      if (!MainActor::isMainThread()) ++backOffMain;
    }
    co_return std::pair<int, int>(onMain, backOffMain);
  });
  EXPECT_EQ(results.first, 3);
  EXPECT_EQ(results.second, 3);
}

}  // namespace
}  // namespace carrow
