#include <list>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/sequences/async_sync_sequence.h>

namespace carrow {
namespace {

static_assert(AsyncSequenceOf<AsyncSyncSequence<std::vector<int>>, int>);
static_assert(AsyncSequenceOf<AsyncSyncSequence<std::list<std::string>>, std::string>);

// Reads up to `limit` results, writing -1 for each end.
template <class Sequence>
Async<std::vector<int>> read(Sequence sequence, int limit) {
  auto iterator = sequence.makeAsyncIterator();
  std::vector<int> results;
  for (int i = 0; i < limit; ++i) {
    auto element = co_await iterator.next();
    results.push_back(element ? *element : -1);
  }
  co_return results;
}

TEST(AsyncSyncSequence, CancelledTaskReadsTheEndAtOnceAndStaysEnded) {
  const auto results = runMain([]() -> Async<std::vector<int>> {
    auto reader = Task<std::vector<int>>::start([]() -> Async<std::vector<int>> {
      while (!isCancelled()) co_await yieldNow();
      auto sequence = asAsync(std::vector<int>{1, 2, 3});
      co_return co_await read(sequence, 3);
    });
    reader.cancel();
    co_return co_await reader.value();
  });
  EXPECT_EQ(results, (std::vector<int>{-1, -1, -1}));
}

TEST(AsyncSyncSequence, IteratorsAreIndependentAndOutliveTheSequence) {
  const auto results = runMain([]() -> Async<std::vector<int>> {
    std::optional<AsyncSyncSequence<std::vector<int>>::Iterator> first;
    std::optional<AsyncSyncSequence<std::vector<int>>::Iterator> second;
    {
      auto sequence = asAsync(std::vector<int>{4, 5});
      first.emplace(sequence.makeAsyncIterator());
      second.emplace(sequence.makeAsyncIterator());
    }
    std::vector<int> results;
    for (auto* iterator : {&*first, &*second, &*first, &*first}) {
      auto element = co_await iterator->next();
      results.push_back(element ? *element : -1);
    }
    co_return results;
  });
  EXPECT_EQ(results, (std::vector<int>{4, 4, 5, -1}));
}

TEST(AsyncSyncSequence, CopiesTheRangeAndTakesAnyInputRange) {
  std::vector<int> source{1, 2};
  auto sequence = asAsync(source);
  source.push_back(3);  // the sequence kept its own copy
  EXPECT_EQ(sequence.base().size(), 2u);
  const auto results = runMain([sequence]() -> Async<std::vector<int>> {
    auto listed = asAsync(std::list<int>{7, 8});
    auto fromView = co_await read(listed, 3);
    auto fromCopy = co_await read(sequence, 4);  // and the end stays
    fromView.insert(fromView.end(), fromCopy.begin(), fromCopy.end());
    co_return fromView;
  });
  EXPECT_EQ(results, (std::vector<int>{7, 8, -1, 1, 2, -1, -1}));
}

}  // namespace
}  // namespace carrow
