#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/run_main.h>
#include <carrow/sequences/any_async_sequence.h>
#include <carrow/sequences/async_sync_sequence.h>

namespace carrow {
namespace {

static_assert(AsyncSequenceOf<AnyAsyncSequence<int>, int>);
static_assert(AsyncSequenceOf<AnyAsyncThrowingSequence<int>, int>);

// A scripted sequence: each call of `next` plays the next entry (a value, the end as 0, or an
// error as a negative number). Its iterator keeps playing after errors, which shows whether the
// erased iterator asks it again.
class Scripted {
 public:
  explicit Scripted(std::vector<int> script) : script_(std::move(script)) {}

  class Iterator {
   public:
    Async<std::optional<int>> next() {
      const int entry = position_ < script_.size() ? script_[position_] : 0;
      ++position_;
      if (entry < 0) throw std::runtime_error("scripted failure " + std::to_string(-entry));
      if (entry == 0) co_return std::nullopt;
      co_return entry;
    }

   private:
    friend class Scripted;
    explicit Iterator(std::vector<int> script) : script_(std::move(script)) {}
    std::vector<int> script_;
    std::size_t position_ = 0;
  };

  Iterator makeAsyncIterator() const { return Iterator(script_); }

 private:
  std::vector<int> script_;
};

// Reads `count` results of `sequence`: the value, "end", or "error: <what>".
template <class Sequence>
Async<std::vector<std::string>> play(Sequence sequence, int count) {
  auto iterator = sequence.makeAsyncIterator();
  std::vector<std::string> results;
  for (int i = 0; i < count; ++i) {
    try {
      auto element = co_await iterator.next();
      results.push_back(element ? std::to_string(*element) : "end");
    } catch (const std::runtime_error& error) {
      results.push_back(std::string("error: ") + error.what());
    }
  }
  co_return results;
}

using Results = std::vector<std::string>;

// Counts the copies made of the sequence it wraps.
struct CountedCopies : Scripted {
  explicit CountedCopies(std::shared_ptr<int> copies) : Scripted({4}), copies_(std::move(copies)) {}
  CountedCopies(const CountedCopies& other) : Scripted(other), copies_(other.copies_) {
    ++*copies_;
  }
  CountedCopies(CountedCopies&&) = default;
  std::shared_ptr<int> copies_;
};

TEST(AnyAsyncSequence, IsOneSharedPointerWhoseCopiesShareTheWrappedSequence) {
  static_assert(sizeof(AnyAsyncSequence<int>) == sizeof(std::shared_ptr<void>));
  static_assert(sizeof(AnyAsyncThrowingSequence<int>) == sizeof(std::shared_ptr<void>));
  auto copies = std::make_shared<int>(0);
  AnyAsyncSequence<int> erased(CountedCopies{copies});
  AnyAsyncThrowingSequence<int> throwing(CountedCopies{copies});
  EXPECT_EQ(*copies, 0);  // wrapping moves the sequence in once
  auto erasedCopy = erased;
  auto throwingCopy = throwing;
  EXPECT_EQ(*copies, 0);  // copies share it
  const auto results = runMain([erasedCopy, throwingCopy]() -> Async<Results> {
    auto first = co_await play(erasedCopy, 2);
    auto second = co_await play(throwingCopy, 1);
    first.insert(first.end(), second.begin(), second.end());
    co_return first;
  });
  EXPECT_EQ(results, (Results{"4", "end", "4"}));
}

TEST(AnyAsyncSequence, SwallowsErrorsAsTheEndWhereTheThrowingFormPassesThemOn) {
  const auto results = runMain([]() -> Async<std::pair<Results, Results>> {
    // The error reads as the end; the next call asks the wrapped iterator again.
    // (Sequences are made before the awaits: g++ 12 miscompiles initializer lists inside them.)
    const AnyAsyncSequence<int> quiet(Scripted({1, -1, 3}));
    const AnyAsyncThrowingSequence<int> throwing(Scripted({1, -2, 3}));
    auto swallowed = co_await play(quiet, 4);
    auto passed = co_await play(throwing, 4);
    co_return std::pair(swallowed, passed);
  });
  EXPECT_EQ(results.first, (Results{"1", "end", "3", "end"}));
  EXPECT_EQ(results.second, (Results{"1", "error: scripted failure 2", "3", "end"}));
}

TEST(AnyAsyncSequence, StreamThatThrowsAfterOneElement) {
  auto makeStream = [] {
    auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    continuation.yield(1);
    continuation.finishThrowing(std::runtime_error("upstream failed"));
    return stream;
  };
  const auto swallowed = runMain([makeStream]() -> Async<Results> {
    AnyAsyncSequence<int> erased(makeStream());
    co_return co_await play(erased, 3);
  });
  EXPECT_EQ(swallowed, (Results{"1", "end", "end"}));
  const auto passed = runMain([makeStream]() -> Async<Results> {
    AnyAsyncThrowingSequence<int> erased(makeStream());
    co_return co_await play(erased, 3);
  });
  EXPECT_EQ(passed, (Results{"1", "error: upstream failed", "end"}));
}

TEST(AnyAsyncSequence, IteratorsOfOneErasedSequenceAreIndependent) {
  const auto results = runMain([]() -> Async<Results> {
    AnyAsyncSequence<long> erased(asAsync(std::vector<int>{1, 2}));  // int converts to long
    auto first = erased.makeAsyncIterator();
    auto second = erased.makeAsyncIterator();
    Results results;
    for (auto* iterator : {&first, &first, &second, &first, &second}) {
      auto element = co_await iterator->next();
      results.push_back(element ? std::to_string(*element) : "end");
    }
    co_return results;
  });
  EXPECT_EQ(results, (Results{"1", "2", "1", "end", "2"}));
}

TEST(AnyAsyncThrowingSequence, CopiesAndWrappersIterateIndependently) {
  const auto results = runMain([]() -> Async<Results> {
    AnyAsyncThrowingSequence<int> inner(asAsync(std::vector<int>{5, 6}));
    AnyAsyncThrowingSequence<long> outer(inner);  // a wrapper around the erased sequence
    auto copy = outer;
    auto fromCopy = co_await play(copy, 3);
    auto fromOuter = co_await play(outer, 1);
    fromCopy.insert(fromCopy.end(), fromOuter.begin(), fromOuter.end());
    co_return fromCopy;
  });
  EXPECT_EQ(results, (Results{"5", "6", "end", "5"}));
}

TEST(AnyAsyncSequence, ErasedIteratorBoxesAnyIterator) {
  // The same plays as above, through the iterators' own constructors.
  struct Boxing {
    Scripted scripted;
    AnyAsyncSequence<int>::Iterator makeAsyncIterator() const {
      return AnyAsyncSequence<int>::Iterator(scripted.makeAsyncIterator());
    }
  };
  struct ThrowingBoxing {
    Scripted scripted;
    AnyAsyncThrowingSequence<int>::Iterator makeAsyncIterator() const {
      return AnyAsyncThrowingSequence<int>::Iterator(scripted.makeAsyncIterator());
    }
  };
  const auto results = runMain([]() -> Async<std::pair<Results, Results>> {
    const Scripted scripted({8, -1, 9});
    const Boxing boxing{scripted};
    const ThrowingBoxing throwingBoxing{scripted};
    auto quiet = co_await play(boxing, 3);
    auto throwing = co_await play(throwingBoxing, 3);
    co_return std::pair(quiet, throwing);
  });
  EXPECT_EQ(results.first, (Results{"8", "end", "9"}));
  EXPECT_EQ(results.second, (Results{"8", "error: scripted failure 1", "9"}));
}

}  // namespace
}  // namespace carrow
