// Randomized runs of merge and combine-latest over streams fed by producer threads with random
// delays, with consumers that read to the end, stop early, or are cancelled. Fixed seeds, bounded
// lengths, and every wait has a deadline, so a hang fails the test instead of stalling it.
//
// Each element carries its upstream and its position, so the consumer's record shows whether
// anything arrived twice, out of order or not at all. Every upstream iteration must end (its
// iterator is dropped) and every stream must see its termination: a continuation that was never
// resumed would leave a child, and with it an iterator, alive.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/task.h>
#include <carrow/sequences/combine_latest.h>
#include <carrow/sequences/merge.h>

#include "sequence_probes.h"

namespace carrow {
namespace {

using testing::eventually;
using testing::ProbeCounts;
using testing::probed;
using Stream = AsyncThrowingStream<int>;

constexpr int kStride = 1'000'000;  // element = upstream * kStride + position

// One upstream: a stream, the thread that feeds it, and what became of it.
class Upstream {
 public:
  Upstream(int id, int length, bool fails, unsigned seed)
      : id_(id), length_(length), fails_(fails), counts_(std::make_shared<ProbeCounts>()) {
    auto pair = Stream::makeStream();
    stream_.emplace(pair.stream);
    pair.continuation.setOnTermination([this](StreamTermination) { terminations_.fetch_add(1); });
    producer_ = std::thread([this, continuation = pair.continuation, seed] {
      std::mt19937 random(seed);
      for (int position = 0; position < length_; ++position) {
        if (random() % 4 == 0)
          std::this_thread::sleep_for(std::chrono::microseconds(random() % 50));
        continuation.yield(id_ * kStride + position);
      }
      if (fails_) {
        continuation.finishThrowing(std::runtime_error("upstream failed"));
      } else {
        continuation.finish();
      }
    });
  }
  ~Upstream() { producer_.join(); }

  auto sequence() const { return probed(*stream_, counts_); }
  int length() const { return length_; }
  bool fails() const { return fails_; }

  // True once the feeding thread is done, the upstream iteration ended and the stream terminated.
  bool settled() const {
    return counts_->iteratorsMade.load() == counts_->iteratorsDropped.load()
           && terminations_.load() == 1;
  }
  int terminations() const { return terminations_.load(); }

 private:
  int id_;
  int length_;
  bool fails_;
  std::shared_ptr<ProbeCounts> counts_;
  std::optional<Stream> stream_;
  std::atomic<int> terminations_{0};
  std::thread producer_;
};

enum class Consumer { readToEnd, stopEarly, cancel };

// What the consumer saw; written by its task, read after the task has finished.
template <class Element>
struct Record {
  std::vector<Element> elements;
  int errors = 0;
  bool reachedEnd = false;
};

template <class Sequence, class Element>
Async<void> consume(Sequence sequence, std::shared_ptr<Record<Element>> record, int limit) {
  auto iterator = sequence.makeAsyncIterator();
  while (static_cast<int>(record->elements.size()) < limit) {
    try {
      auto element = co_await iterator.next();
      if (!element) {
        record->reachedEnd = true;
        co_return;
      }
      record->elements.push_back(*element);
    } catch (const std::runtime_error&) {
      ++record->errors;
    }
  }
}

struct Plan {
  int lengths[2];
  bool fails[2];
  Consumer consumer;
  int limit;
  int cancelAfterMicroseconds;
};

Plan planFor(std::mt19937& random) {
  Plan plan{};
  for (int i = 0; i < 2; ++i) {
    plan.lengths[i] = static_cast<int>(random() % 120);
    plan.fails[i] = random() % 5 == 0;
  }
  plan.consumer = static_cast<Consumer>(random() % 3);
  plan.limit = plan.consumer == Consumer::stopEarly ? static_cast<int>(random() % 40) : 1 << 30;
  plan.cancelAfterMicroseconds = static_cast<int>(random() % 500);
  return plan;
}

// Starts the consumer, cancels it if the plan says so, and waits (with a deadline) for it and
// for every upstream to settle.
template <class Sequence, class Element>
void run(const Plan& plan, Sequence sequence, std::shared_ptr<Record<Element>> record,
         Upstream& first, Upstream& second) {
  auto task = Task<void>::start([sequence, record, limit = plan.limit]() {
    return consume<Sequence, Element>(sequence, record, limit);
  });
  if (plan.consumer == Consumer::cancel) {
    std::this_thread::sleep_for(std::chrono::microseconds(plan.cancelAfterMicroseconds));
    task.cancel();
  }
  ASSERT_TRUE(eventually([&] { return task.isFinished(); })) << "the consumer hangs";
  ASSERT_TRUE(eventually([&] { return first.settled() && second.settled(); }))
      << "an upstream iteration did not end";
}

TEST(CombinatorsStress, MergeDeliversEachElementAtMostOnceInOrder) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const Plan plan = planFor(random);
    auto record = std::make_shared<Record<int>>();
    {
      Upstream first(1, plan.lengths[0], plan.fails[0], seed * 7);
      Upstream second(2, plan.lengths[1], plan.fails[1], seed * 13);
      run(plan, merge(first.sequence(), second.sequence()), record, first, second);
      EXPECT_EQ(first.terminations(), 1);
      EXPECT_EQ(second.terminations(), 1);
    }
    std::vector<int> next(3, 0);
    for (int element : record->elements) {
      const int upstream = element / kStride;
      ASSERT_EQ(element % kStride, next[upstream]) << "out of order or repeated";
      ++next[upstream];
    }
    EXPECT_LE(record->errors, 1);
    if (plan.consumer == Consumer::readToEnd) {
      ASSERT_TRUE(record->reachedEnd);
      if (!plan.fails[0] && !plan.fails[1]) {
        EXPECT_EQ(next[1], plan.lengths[0]);
        EXPECT_EQ(next[2], plan.lengths[1]);
        EXPECT_EQ(record->errors, 0);
      } else {
        EXPECT_EQ(record->errors, 1);
      }
    }
  }
}

TEST(CombinatorsStress, CombineLatestPairsOnlyNewerElementsInOrder) {
  for (unsigned seed = 101; seed <= 160; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const Plan plan = planFor(random);
    using Pair = std::tuple<int, int>;
    auto record = std::make_shared<Record<Pair>>();
    {
      Upstream first(1, plan.lengths[0], plan.fails[0], seed * 7);
      Upstream second(2, plan.lengths[1], plan.fails[1], seed * 13);
      run(plan, combineLatest(first.sequence(), second.sequence()), record, first, second);
    }
    // Each tuple after the first moves exactly one member forward.
    for (std::size_t i = 1; i < record->elements.size(); ++i) {
      const auto [a0, b0] = record->elements[i - 1];
      const auto [a1, b1] = record->elements[i];
      ASSERT_TRUE((a1 > a0 && b1 == b0) || (a1 == a0 && b1 > b0)) << "tuple " << i;
    }
    EXPECT_LE(record->errors, 1);
    if (plan.consumer == Consumer::readToEnd && !plan.fails[0] && !plan.fails[1]) {
      ASSERT_TRUE(record->reachedEnd);
      if (plan.lengths[0] == 0 || plan.lengths[1] == 0) {
        EXPECT_TRUE(record->elements.empty());
      } else {
        ASSERT_FALSE(record->elements.empty());
        EXPECT_EQ(record->elements.back(),
                  Pair(kStride + plan.lengths[0] - 1, 2 * kStride + plan.lengths[1] - 1));
      }
    }
  }
}

}  // namespace
}  // namespace carrow
